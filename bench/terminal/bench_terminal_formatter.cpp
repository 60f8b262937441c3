// How fast the receive path's core turns bytes into view text: decoding,
// formatting (text and hex, timestamps on) and the queue, without a view.
// One line per figure: name, value, unit.

#include "terminal/displayformatter.h"
#include "terminal/receiveingest.h"
#include "common/wiretextcodecregistry.h"
#include "terminal/wiretextdecoder.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTextStream>

#include <algorithm>

namespace {

constexpr qsizetype kStreamBytes = 32 * 1024 * 1024;
constexpr qsizetype kReadSize = 4096;

QTextStream &out()
{
    static QTextStream stream(stdout);
    return stream;
}

void report(const char *name, double value, const char *unit)
{
    out() << name << ' ' << QString::number(value, 'f', 2) << ' ' << unit << Qt::endl;
}

double mbPerSecond(qsizetype bytes, qint64 nsecs)
{
    return nsecs > 0 ? (double(bytes) / 1e6) / (double(nsecs) / 1e9) : 0.0;
}

// 80-character lines of mixed ASCII and CJK, as a device log might send.
QByteArray textStream(const QString &encoding)
{
    const WireTextCodec codec = WireTextCodecRegistry::resolve(encoding).value();
    const QByteArray line = codec.encode(QString::fromUtf8("T=23.5C RH=41% 状态 正常 counter=0123456789 "
                                                           "abcdefghijklmnopqrstuvwxyz\r\n"))
                                .value();
    QByteArray stream;
    stream.reserve(kStreamBytes + line.size());
    while (stream.size() < kStreamBytes)
        stream += line;
    return stream;
}

QList<DisplayChunk> chunks(const QByteArray &stream)
{
    QList<DisplayChunk> list;
    QDateTime t = QDateTime::currentDateTime();
    for (qsizetype pos = 0; pos < stream.size(); pos += kReadSize) {
        list.append(DisplayChunk{t, ChunkDirection::Received, stream.mid(pos, kReadSize)});
        t = t.addMSecs(1);
    }
    return list;
}

void benchDecode(const char *name, const QString &encoding)
{
    const QByteArray stream = textStream(encoding);
    WireTextDecoder decoder(WireTextCodecRegistry::resolve(encoding).value());
    QElapsedTimer timer;
    timer.start();
    qsizetype chars = 0;
    for (qsizetype pos = 0; pos < stream.size(); pos += kReadSize)
        chars += decoder.decode(QByteArrayView(stream).sliced(pos, std::min(kReadSize, stream.size() - pos))).size();
    report(name, mbPerSecond(stream.size(), timer.nsecsElapsed()), "MB/s");
    Q_UNUSED(chars);
}

// Formats the stream in drains of the view's refresh budget; reports the
// throughput and the slowest drain.
void benchFormat(const char *name, MessageFormat format)
{
    const QList<DisplayChunk> all = chunks(textStream(QStringLiteral("UTF-8")));
    DisplayFormatter formatter;
    DisplayFormatter::Options o;
    o.format = format;
    o.showTimestamps = true;
    o.autoFeed = true;
    formatter.setOptions(o);

    ReceiveIngest ingest;
    qint64 total = 0;
    qint64 worst = 0;
    qsizetype bytes = 0;
    qsizetype produced = 0;
    qsizetype next = 0;
    while (next < all.size()) {
        // One refresh period's worth of reads, then one drain.
        for (int i = 0; i < 64 && next < all.size(); ++i, ++next) {
            ingest.ingestReceived(all.at(next).bytes, all.at(next).time);
            bytes += all.at(next).bytes.size();
        }
        QElapsedTimer timer;
        timer.start();
        QString batch;
        for (const DisplayChunk &chunk : ingest.takeBatch(ReceiveIngest::kRefreshByteBudget))
            batch += formatter.format(chunk);
        const qint64 ns = timer.nsecsElapsed();
        produced += batch.size();
        total += ns;
        worst = std::max(worst, ns);
    }
    const QByteArray label(name);
    report((label + "_format").constData(), mbPerSecond(bytes, total), "MB/s");
    report((label + "_worst_drain").constData(), double(worst) / 1e6, "ms");
    report((label + "_chars_per_byte").constData(), double(produced) / double(bytes), "chars/byte");
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    benchDecode("decode_utf8", QStringLiteral("UTF-8"));
    benchDecode("decode_gbk", QStringLiteral("GBK"));
    benchDecode("decode_shift_jis", QStringLiteral("Shift_JIS"));
    benchFormat("text_timestamps", MessageFormat::Text);
    benchFormat("hex_timestamps", MessageFormat::Hex);
    return 0;
}
