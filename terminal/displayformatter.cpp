#include "terminal/displayformatter.h"

#include "common/logging.h"
#include "common/wiretextcodecregistry.h"

namespace {

Result replaceDecoder(WireTextDecoder &decoder, const QString &name)
{
    if (name.compare(decoder.name(), Qt::CaseInsensitive) == 0)
        return Result::success();
    ValueResult<WireTextCodec> codec = WireTextCodecRegistry::resolve(name);
    if (!codec)
        return Result::failure(codec.errorText());
    decoder = WireTextDecoder(codec.value());
    return Result::success();
}

} // namespace

DisplayFormatter::Options DisplayFormatter::Options::fromPaneOptions(const PaneOptions &pane)
{
    Options o;
    o.format = pane.receiveFormat;
    o.showTimestamps = pane.displayTime;
    o.rxTimeFormat = pane.rxTimeFormat;
    o.txTimeFormat = pane.txTimeFormat;
    o.autoFeed = pane.rxLineEnding != LineEnding::None;
    o.autoFeedIntervalMs = pane.autoFeedInterval;
    return o;
}

DisplayFormatter::DisplayFormatter() = default;

void DisplayFormatter::setOptions(const Options &options)
{
    // A line end left open in text form means nothing to hex, and back;
    // and the new form starts on a line of its own, stamped.
    if (options.format != m_options.format) {
        m_rxStream = Stream();
        m_txStream = Stream();
        m_breakBeforeNext = !m_atLineStart;
    }
    m_options = options;
}

Result DisplayFormatter::setReceiveEncoding(const QString &name)
{
    return replaceDecoder(m_rxDecoder, name);
}

Result DisplayFormatter::setSendEncoding(const QString &name)
{
    return replaceDecoder(m_txDecoder, name);
}

void DisplayFormatter::reset()
{
    m_rxDecoder.reset();
    m_txDecoder.reset();
    m_rxStream = Stream();
    m_txStream = Stream();
    m_previousTime = QDateTime();
    m_lineDirection = ChunkDirection::Received;
    m_atLineStart = true;
    m_breakBeforeNext = false;
}

QString DisplayFormatter::toHex(QByteArrayView bytes)
{
    static constexpr char16_t kDigits[] = u"0123456789ABCDEF";
    QString out(bytes.size() * 3, Qt::Uninitialized);
    char16_t *d = reinterpret_cast<char16_t *>(out.data());
    for (const char byte : bytes) {
        const auto v = static_cast<unsigned char>(byte);
        *d++ = kDigits[v >> 4];
        *d++ = kDigits[v & 0x0F];
        *d++ = u' ';
    }
    return out;
}

QString DisplayFormatter::foldLineEnds(QStringView text, Stream &stream) const
{
    QString out(text.size(), Qt::Uninitialized);
    char16_t *d = reinterpret_cast<char16_t *>(out.data());
    char16_t open = stream.openLineEnd;
    for (const QChar qc : text) {
        const char16_t c = qc.unicode();
        if (c == u'\r' || c == u'\n') {
            const char16_t partner = c == u'\r' ? u'\n' : u'\r';
            if (open == partner) {
                // Second half of CR LF or LF CR, possibly from the previous
                // read: the pair's line end is already written.
                open = 0;
                continue;
            }
            *d++ = u'\n';
            open = c;
        } else {
            *d++ = c;
            open = 0;
        }
    }
    stream.openLineEnd = open;
    out.truncate(d - reinterpret_cast<const char16_t *>(out.constData()));
    return out;
}

void DisplayFormatter::appendStampedLines(QString &out, QStringView text, const QString &stamp,
                                          bool &lineStart, StampPlaces *stamps)
{
    qsizetype pos = 0;
    while (pos < text.size()) {
        if (lineStart) {
            if (stamps)
                stamps->starts.append(out.size());
            out += stamp;
        }
        const qsizetype feed = text.indexOf(u'\n', pos);
        const qsizetype end = feed < 0 ? text.size() : feed + 1;
        out += text.mid(pos, end - pos);
        lineStart = feed >= 0;
        pos = end;
    }
}

QString DisplayFormatter::format(const DisplayChunk &chunk, StampPlaces *stamps)
{
    if (stamps)
        *stamps = StampPlaces{};
    const bool received = chunk.isReceived();
    const bool hex = m_options.format == MessageFormat::Hex;

    QString body;
    if (hex) {
        body = toHex(chunk.bytes);
    } else {
        WireTextDecoder &decoder = received ? m_rxDecoder : m_txDecoder;
        QString text = decoder.decode(chunk.bytes);
        // A sent chunk is a whole frame: a byte left over (a checksum that
        // reads as a lead byte) ends with it instead of spoiling the next.
        if (!received)
            text += decoder.finish();
        body = foldLineEnds(text, received ? m_rxStream : m_txStream);
    }
    // Nothing to show yet (half a character, the tail of a split CR LF):
    // leave the line state and the feed timing to the chunk that shows it.
    if (body.isEmpty())
        return QString();

    QString out;
    bool lineStart = m_atLineStart;
    if (std::exchange(m_breakBeforeNext, false) && !lineStart) {
        out += u'\n';
        lineStart = true;
    }

    if (m_options.autoFeed && m_previousTime.isValid()
        && m_previousTime.msecsTo(chunk.time) >= m_options.autoFeedIntervalMs) {
        if (lineStart) {
            qCDebug(lcTerminal) << "Skip feed for isEndWithLineFeed";
        } else {
            out += u'\n';
            lineStart = true;
        }
    }
    m_previousTime = chunk.time;

    if (!m_options.showTimestamps) {
        out += body;
        m_atLineStart = !hex && body.endsWith(u'\n');
        m_lineDirection = chunk.direction;
        return out;
    }

    // Timestamps go at the start of each line, never inside one: a line of
    // text reads as one message, and hex digits must stay apart from the
    // digits of the time. A line therefore belongs to one direction and one
    // stamp: a chunk of the other direction starts a new line, and so does
    // every hex chunk, which has no line ends of its own to break at. Text
    // continuing a line of the same direction adds to it unstamped.
    const QString stamp = chunk.time.toString(received ? m_options.rxTimeFormat : m_options.txTimeFormat);
    if (!lineStart && (hex || m_lineDirection != chunk.direction)) {
        out += u'\n';
        lineStart = true;
    }
    m_lineDirection = chunk.direction;
    if (stamps)
        stamps->length = stamp.size();

    if (hex) {
        if (stamps)
            stamps->starts.append(out.size());
        out += stamp;
        out += body;
        m_atLineStart = false;
        return out;
    }
    out.reserve(out.size() + body.size() + stamp.size() * 2);
    appendStampedLines(out, body, stamp, lineStart, stamps);
    m_atLineStart = lineStart;
    return out;
}
