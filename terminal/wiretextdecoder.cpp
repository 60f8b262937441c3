#include "terminal/wiretextdecoder.h"

#include "common/wiretextcodecregistry.h"

#include <QTextCodec>

struct WireTextDecoder::LegacyState
{
    QTextCodec::ConverterState state;
};

namespace {

// Qt's own converters run without state: a stateful one, handed the rest
// of a broken sequence in the next call, swallows the byte that broke it
// (an "A" after a truncated UTF-8 character is lost). Holding back a
// possibly incomplete tail here and decoding it together with the next
// chunk gives exactly the text of the whole stream decoded at once.
// A byte-order mark is shown like any other character: the decoder does not
// know where the device's stream began, so it must not guess.
constexpr QStringConverter::Flags kDecoderFlags =
    QStringConverter::Flag::Stateless | QStringConverter::Flag::ConvertInitialBom;

// Length of a UTF-8 tail that a later byte could still complete.
qsizetype incompleteUtf8Tail(QByteArrayView bytes)
{
    const qsizetype size = bytes.size();
    for (qsizetype back = 1; back <= 3 && back <= size; ++back) {
        const auto c = static_cast<unsigned char>(bytes.at(size - back));
        if ((c & 0xC0) == 0x80)
            continue;  // continuation byte: look for its lead
        const qsizetype need = (c >= 0xC2 && c <= 0xDF) ? 2 : (c >= 0xE0 && c <= 0xEF) ? 3
                             : (c >= 0xF0 && c <= 0xF4) ? 4 : 1;
        return need > back ? back : 0;
    }
    return 0;
}

bool isHighSurrogateUnit(char16_t unit)
{
    return unit >= 0xD800 && unit <= 0xDBFF;
}

WireTextCodec utf8Codec()
{
    return WireTextCodec::fromEncoding(WireTextCodecRegistry::defaultName(), QStringConverter::Utf8);
}

} // namespace

WireTextDecoder::WireTextDecoder()
    : WireTextDecoder(utf8Codec())
{
}

WireTextDecoder::WireTextDecoder(const WireTextCodec &codec)
    : m_codec(codec.isValid() ? codec : utf8Codec())
{
    reset();
}

WireTextDecoder::~WireTextDecoder() = default;
WireTextDecoder::WireTextDecoder(WireTextDecoder &&other) noexcept = default;
WireTextDecoder &WireTextDecoder::operator=(WireTextDecoder &&other) noexcept = default;

void WireTextDecoder::reset()
{
    m_carry.clear();
    if (m_codec.encoding()) {
        m_decoder = QStringDecoder(*m_codec.encoding(), kDecoderFlags);
        m_legacy.reset();
    } else {
        m_decoder = QStringDecoder();
        m_legacy = std::make_unique<LegacyState>();
    }
}

QString WireTextDecoder::decode(QByteArrayView bytes)
{
    if (bytes.isEmpty())
        return QString();
    if (m_legacy)
        return m_codec.legacyCodec()->toUnicode(bytes.data(), int(bytes.size()), &m_legacy->state);

    QByteArray joined;
    if (!m_carry.isEmpty()) {
        joined = m_carry;
        joined.append(bytes);
        bytes = joined;
    }
    const qsizetype tail = incompleteTail(bytes);
    m_carry = bytes.last(tail).toByteArray();
    return m_decoder.decode(bytes.first(bytes.size() - tail));
}

QString WireTextDecoder::finish()
{
    const bool partial = m_legacy ? m_legacy->state.remainingChars > 0 : !m_carry.isEmpty();
    reset();
    return partial ? QString(QChar::ReplacementCharacter) : QString();
}

qsizetype WireTextDecoder::incompleteTail(QByteArrayView bytes) const
{
    const qsizetype size = bytes.size();
    switch (*m_codec.encoding()) {
    case QStringConverter::Utf8:
        return incompleteUtf8Tail(bytes);
    case QStringConverter::Utf16LE:
    case QStringConverter::Utf16BE: {
        const qsizetype odd = size % 2;
        if (size - odd < 2)
            return odd;
        // A high surrogate waits for its partner.
        const auto a = static_cast<unsigned char>(bytes.at(size - odd - 2));
        const auto b = static_cast<unsigned char>(bytes.at(size - odd - 1));
        const char16_t unit = *m_codec.encoding() == QStringConverter::Utf16LE ? char16_t(a | (b << 8))
                                                                                : char16_t((a << 8) | b);
        return isHighSurrogateUnit(unit) ? odd + 2 : odd;
    }
    case QStringConverter::Utf32LE:
    case QStringConverter::Utf32BE:
        return size % 4;
    default:
        return 0;
    }
}
