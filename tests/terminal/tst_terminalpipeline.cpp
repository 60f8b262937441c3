#include "terminal/displayformatter.h"
#include "terminal/displaylinebreaker.h"
#include "terminal/linestepper.h"
#include "terminal/readthrottle.h"
#include "terminal/receiveingest.h"
#include "terminal/sendframebuilder.h"
#include "terminal/sendhistory.h"
#include "common/wiretextcodecregistry.h"
#include "terminal/wiretextdecoder.h"

#include <QtTest>

using ByteParts = QList<QByteArray>;
using Options = DisplayFormatter::Options;
Q_DECLARE_METATYPE(SendFrameBuilder::Options)

namespace {

const QDateTime kT0(QDate(2024, 3, 5), QTime(12, 0, 0, 0));
constexpr qsizetype kChunk = ReceiveIngest::kMaxChunkBytes;
const QString kNoEncoding = QStringLiteral("The text encoding \"%1\" is not available on this system.");

DisplayChunk rx(const QByteArray &bytes, qint64 ms = 0) { return {kT0.addMSecs(ms), ChunkDirection::Received, bytes}; }
DisplayChunk tx(const QByteArray &bytes, qint64 ms = 0) { return {kT0.addMSecs(ms), ChunkDirection::Sent, bytes}; }

DisplayFormatter formatterWith(const Options &options)
{
    DisplayFormatter formatter;
    formatter.setOptions(options);
    return formatter;
}

// Code points in hex; a run of replacement characters counts as one, as
// how many a broken sequence yields is the converter's business.
QString codePoints(const QString &text)
{
    QStringList out;
    for (const QChar c : text) {
        if (c != QChar::ReplacementCharacter || out.isEmpty() || out.last() != u"fffd")
            out << QString::number(c.unicode(), 16);
    }
    return out.join(u' ');
}

QByteArray pattern(int size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i)
        bytes[i] = char(i * 7 % 251);
    return bytes;
}

} // namespace

class TerminalPipelineTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void longLinesBreakForTheViewOnly_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<int>("pieces");  // the text fed in this many parts
        const qsizetype max = DisplayLineBreaker::kMaxLineChars;
        QTest::newRow("short lines pass") << QString("ab\ncd\n\nef") << 3;
        QTest::newRow("one long line") << QString(max * 3 + 100, 'x') << 1;
        QTest::newRow("long line in many reads") << QString(max * 2 + 7, 'y') << 50;
        QTest::newRow("long line among short ones") << ("a\n" + QString(max + 1, 'z') + "\nb") << 4;
        QString hex;
        for (int i = 0; i < 5000; ++i)
            hex += "AB ";
        QTest::newRow("hex breaks after a space") << hex << 7;
        QString pairs;
        for (int i = 0; i < max; ++i)
            pairs += QString::fromUtf8("\xF0\x9F\x98\x80");  // one emoji: a surrogate pair
        QTest::newRow("surrogate pairs stay whole") << pairs << 3;
    }

    void longLinesBreakForTheViewOnly()
    {
        QFETCH(QString, text);
        QFETCH(int, pieces);
        DisplayLineBreaker breaker;
        QString out;
        const qsizetype step = text.size() / pieces + 1;
        for (qsizetype at = 0; at < text.size(); at += step)
            out += breaker.apply(QStringView(text).mid(at, step));
        // Only line ends were added, and no line is longer than the limit.
        QString without = out;
        QCOMPARE(without.remove(u'\n'), QString(text).remove(u'\n'));
        const QStringList lines = out.split(u'\n');
        for (const QString &line : lines) {
            QVERIFY(line.size() <= DisplayLineBreaker::kMaxLineChars);
            QVERIFY(line.isEmpty() || !line.back().isHighSurrogate());
            QVERIFY(line.isEmpty() || !line.front().isLowSurrogate());
        }
        if (QTest::currentDataTag() == QByteArray("hex breaks after a space")) {
            for (const QString &line : lines)
                QVERIFY(line.isEmpty() || line.endsWith(u' '));
        }
        if (text.size() <= DisplayLineBreaker::kMaxLineChars)
            QCOMPARE(out, text);
    }

    void registryNames()
    {
        const QStringList names = WireTextCodecRegistry::names();
        QCOMPARE(names.value(0), QString("UTF-8"));
        QCOMPARE(WireTextCodecRegistry::defaultName(), QString("UTF-8"));
        for (const char *common : {"GBK", "GB18030", "Big5", "Shift_JIS", "EUC-JP", "EUC-KR", "ISO-8859-1",
                                   "Windows-1252", "UTF-16LE", "UTF-16BE", "KOI8-R"})
            QVERIFY2(names.contains(QString::fromLatin1(common)), common);
        QCOMPARE(QSet<QString>(names.begin(), names.end()).size(), names.size());
        const auto resolved = [](const QString &name) {
            const ValueResult<WireTextCodec> codec = WireTextCodecRegistry::resolve(name);
            return codec ? codec.value().name() : codec.errorText();
        };
        for (const QString &name : names) {
            QCOMPARE(resolved(name), name);
            if (name.startsWith("UTF-16") || name.startsWith("UTF-32"))
                continue;  // not ASCII-compatible; every other offered codec must be
            const WireTextCodec codec = WireTextCodecRegistry::resolve(name).value();
            QCOMPARE(codec.encode(u"AT+OK").value(), QByteArray("AT+OK"));
            QCOMPARE(WireTextDecoder(codec).decode("AT+OK"), QString("AT+OK"));
        }
        // Matched trimmed and in any case; an alias Qt knows still works, but
        // "System" (the machine's locale) is no wire encoding.
        QCOMPARE(resolved(" big5 "), QString("Big5"));
        QCOMPARE(resolved("CP936"), QString("CP936"));
        for (const QString &name : {QString("NO-SUCH"), QString(), QString::fromUtf8("编码"), QString("System")})
            QCOMPARE(resolved(name), kNoEncoding.arg(name));
    }

    void receivedText_data()
    {
        QTest::addColumn<QString>("encoding");
        QTest::addColumn<ByteParts>("reads");
        QTest::addColumn<QString>("expected");
        const QString bad(QChar::ReplacementCharacter);
        QTest::newRow("UTF-8 3 bytes 1+2") << "UTF-8" << ByteParts{"a\xe4", "\xb8\xad" "b"} << QString::fromUtf8("a中b");
        QTest::newRow("UTF-8 4 bytes one at a time")
            << "UTF-8" << ByteParts{"\xf0", "\x9f", "\x98", "\x80"} << QString::fromUtf8("😀");
        QTest::newRow("GBK split lead byte") << "GBK" << ByteParts{"x\xd6", "\xd0\xce\xc4"} << QString::fromUtf8("x中文");
        QTest::newRow("UTF-16LE odd byte")
            << "UTF-16LE" << ByteParts{QByteArray("\x41", 1), QByteArray("\x00\x2d", 2), QByteArray("\x4e", 1)}
            << QString::fromUtf8("A中");
        QTest::newRow("UTF-16BE surrogate pair split")
            << "UTF-16BE" << ByteParts{QByteArray("\xd8\x3d", 2), QByteArray("\xde\x00", 2)} << QString::fromUtf8("😀");
        // After bytes that are no character the stream must find its feet again.
        QTest::newRow("UTF-8 truncated then ASCII") << "UTF-8" << ByteParts{"\xe4\xb8", "AT\r\n"} << bad + "AT\n";
        QTest::newRow("UTF-8 continuation without lead")
            << "UTF-8" << ByteParts{"\x80\x80", "\xe4\xb8\xad"} << bad + QString::fromUtf8("中");
        QTest::newRow("GBK lead byte then line feed")
            << "GBK" << ByteParts{"ok\x81", "\n\xd6\xd0"} << "ok" + bad + QString::fromUtf8("\n中");
        // CR LF and LF CR are one line end, a lone CR or LF one each.
        QTest::newRow("CR LF, CR, LF") << "UTF-8" << ByteParts{"a\r\nb\rc\nd"} << "a\nb\nc\nd";
        QTest::newRow("LF CR split across reads") << "UTF-8" << ByteParts{"a\n", "\rb"} << "a\nb";
        QTest::newRow("empty line kept") << "UTF-8" << ByteParts{"a\n\nb"} << "a\n\nb";
        QTest::newRow("CR CR LF is two") << "UTF-8" << ByteParts{"a\r\r\nb"} << "a\n\nb";
        QTest::newRow("pairs do not chain") << "UTF-8" << ByteParts{"a\r\n", "\nb\r\n\r\n"} << "a\n\nb\n\n";
    }

    void receivedText()
    {
        QFETCH(QString, encoding);
        QFETCH(ByteParts, reads);
        QFETCH(QString, expected);
        DisplayFormatter formatter;
        QVERIFY(formatter.setReceiveEncoding(encoding));
        QString text;
        for (const QByteArray &read : reads) {
            text += formatter.format(rx(read));
            QVERIFY2(text.isEmpty() || !text.back().isHighSurrogate(), "half a character shown");
        }
        QCOMPARE(codePoints(text), codePoints(expected));
        QCOMPARE(formatter.endsWithLineFeed(), expected.endsWith(u'\n'));
    }

    void formatterHexAndTimestamps()
    {
        // Line-end bytes are data in hex: no break, no folding, no decoding.
        DisplayFormatter formatter = formatterWith({.format = MessageFormat::Hex});
        QCOMPARE(formatter.format(rx(QByteArray::fromHex("000f0d0aff"))), QString("00 0F 0D 0A FF "));
        QCOMPARE(formatter.format(rx("\xe4\xb8")), QString("E4 B8 "));
        QVERIFY(!formatter.endsWithLineFeed());
        // Stamped, each hex chunk gets a line of its own: no digit of a time
        // runs into the data.
        formatter = formatterWith({.format = MessageFormat::Hex, .showTimestamps = true});
        QString text = formatter.format(rx(QByteArray::fromHex("0102"), 1));
        text += formatter.format(rx("\n", 2));
        text += formatter.format(tx("\xff", 3));
        QCOMPARE(text, QString("[Rx][12:00:00.001] 01 02 \n[Rx][12:00:00.002] 0A \n[Tx][12:00:00.003] FF "));
        // Every line of text is stamped; the open line after the last feed is
        // stamped by the chunk that fills it, and not again while it goes on.
        Options o{.showTimestamps = true};
        formatter = formatterWith(o);
        const QString rxStamp = "[Rx][12:00:00.250] ";
        QCOMPARE(formatter.format(rx("a\r\nb\n", 250)), rxStamp + "a\n" + rxStamp + "b\n");
        QCOMPARE(formatter.format(rx("c", 500)), QString("[Rx][12:00:00.500] c"));
        QCOMPARE(formatter.format(rx("d\ne", 600)), QString("d\n[Rx][12:00:00.600] e"));
        // The other direction starts its own line with its own format.
        QCOMPARE(formatter.format(tx("AT\r\n", 700)), QString("\n[Tx][12:00:00.700] AT\n"));
        QCOMPARE(formatter.format(rx("OK", 800)), QString("[Rx][12:00:00.800] OK"));
        QVERIFY(!formatter.endsWithLineFeed());
        o.rxTimeFormat = "<hh:mm> ";
        formatter.setOptions(o);
        formatter.setEndsWithLineFeed(true);
        QCOMPARE(formatter.format(rx("x", 900)), QString("<12:00> x"));
    }

    void formatterAutoFeed()
    {
        Options o{.autoFeed = true, .autoFeedIntervalMs = 20};
        DisplayFormatter formatter = formatterWith(o);
        QCOMPARE(formatter.format(rx("a", 0)), QString("a"));
        QCOMPARE(formatter.format(rx("b", 19)), QString("b"));    // within the interval
        QCOMPARE(formatter.format(rx("c", 39)), QString("\nc"));  // exactly the interval later
        QCOMPARE(formatter.format(rx("d\n", 100)), QString("\nd\n"));
        QCOMPARE(formatter.format(rx("e", 500)), QString("e"));  // already at a line start
        // Half a character shows nothing and is not the previous chunk: its
        // completion, long after "e", still gets the feed.
        QCOMPARE(formatter.format(rx("\xe4", 505)), QString());
        QCOMPARE(formatter.format(rx("\xb8\xad", 520)), QString::fromUtf8("\n中"));
        o.showTimestamps = true;
        formatter.setOptions(o);
        QCOMPARE(formatter.format(rx("f", 1000)), QString("\n[Rx][12:00:01.000] f"));
        QCOMPARE(formatter.format(rx("g", 1001)), QString("g"));
        o.showTimestamps = false;
        o.format = MessageFormat::Hex;
        formatter.setOptions(o);
        QCOMPARE(formatter.format(rx("\x01", 2000)), QString("\n01 "));
        QCOMPARE(formatter.format(rx("\x02", 2005)), QString("02 "));
        o.autoFeed = false;
        formatter.setOptions(o);
        QCOMPARE(formatter.format(rx("\x03", 9000)), QString("03 "));
        // A receive line ending other than None is what switches the feed on.
        PaneOptions pane;
        QVERIFY(!Options::fromPaneOptions(pane).autoFeed);
        pane.rxLineEnding = LineEnding::CrLf;
        pane.autoFeedInterval = 35;
        pane.displayTime = true;
        QCOMPARE(Options::fromPaneOptions(pane),
                 (Options{.showTimestamps = true, .autoFeed = true, .autoFeedIntervalMs = 35}));
    }

    void formatterDecoderState()
    {
        // Each direction keeps its own decoder and its own open line end.
        DisplayFormatter formatter;
        QVERIFY(formatter.setSendEncoding("GBK"));
        QCOMPARE(formatter.format(rx("\xe4\xb8")), QString());
        QCOMPARE(formatter.format(tx("\xd6\xd0")), QString::fromUtf8("中"));
        QCOMPARE(formatter.format(rx("\xad")), QString::fromUtf8("中"));
        QCOMPARE(formatter.format(rx("a\r")), QString("a\n"));
        QCOMPARE(formatter.format(tx("\n")), QString("\n"));
        QCOMPARE(formatter.format(rx("\nb")), QString("b"));
        // The same encoding chosen again keeps a half-received character; an
        // unknown one fails and keeps the decoder in use.
        QVERIFY(formatter.setReceiveEncoding("GBK"));
        QCOMPARE(formatter.format(rx("\xd6")), QString());
        QVERIFY(formatter.setReceiveEncoding("gbk"));
        QCOMPARE(formatter.format(rx("\xd0")), QString::fromUtf8("中"));
        QCOMPARE(formatter.setReceiveEncoding("NO-SUCH-CODE").errorText(), kNoEncoding.arg("NO-SUCH-CODE"));
        QCOMPARE(formatter.receiveEncoding(), QString("GBK"));
        QCOMPARE(formatter.format(rx("\xce\xc4")), QString::fromUtf8("文"));
    }

    void formatterFramesAndFormatSwitch()
    {
        // A sent frame is whole: a checksum byte that reads as a lead byte
        // ends with its frame instead of spoiling the next one.
        DisplayFormatter formatter;
        QCOMPARE(formatter.format(tx("AB\xe4")), QString("AB") + QChar(QChar::ReplacementCharacter));
        QCOMPARE(formatter.format(tx("AT")), QString("AT"));
        // Received bytes still wait for the rest of their character.
        QCOMPARE(formatter.format(rx("\xe4\xb8")), QString());
        QCOMPARE(formatter.format(rx("\xad")), QString::fromUtf8("中"));

        // A new format starts on a line of its own, stamped.
        Options o{.format = MessageFormat::Hex, .showTimestamps = true};
        formatter = formatterWith(o);
        QCOMPARE(formatter.format(rx("\x01", 1)), QString("[Rx][12:00:00.001] 01 "));
        o.format = MessageFormat::Text;
        formatter.setOptions(o);
        QCOMPARE(formatter.format(rx("ok", 2)), QString("\n[Rx][12:00:00.002] ok"));
        o = Options{};
        formatter = formatterWith(o);
        QCOMPARE(formatter.format(rx("abc")), QString("abc"));
        o.format = MessageFormat::Hex;
        formatter.setOptions(o);
        QCOMPARE(formatter.format(rx("\x01")), QString("\n01 "));
        // Not when the line was already complete, nor after the view was cleared.
        o.format = MessageFormat::Text;
        formatter.setOptions(o);
        formatter.setEndsWithLineFeed(true);
        QCOMPARE(formatter.format(rx("x")), QString("x"));
    }

    void drainBudgets_data()
    {
        // One read of 2 * kChunk + 100 bytes waits as chunks of kChunk, kChunk and 100.
        QTest::addColumn<qint64>("budget");
        QTest::addColumn<int>("taken");
        QTest::newRow("everything") << qint64(-1) << 3;
        QTest::newRow("zero still shows one") << qint64(0) << 1;
        QTest::newRow("exactly one chunk") << qint64(kChunk) << 1;
        QTest::newRow("crossing chunk completed") << qint64(kChunk + 1) << 2;
        QTest::newRow("a refresh takes all") << ReceiveIngest::kRefreshByteBudget << 3;
    }

    void drainBudgets()
    {
        QFETCH(qint64, budget);
        QFETCH(int, taken);
        const QByteArray read = pattern(2 * kChunk + 100);
        ReceiveIngest ingest;
        ingest.ingestReceived(read, kT0);
        ingest.queueSent(QByteArray(), kT0);  // nothing to show, not queued
        QCOMPARE(ingest.pendingBytes(), qint64(read.size()));
        QByteArray drained;
        const QList<DisplayChunk> batch = ingest.takeBatch(budget);
        QCOMPARE(batch.size(), taken);
        for (const DisplayChunk &chunk : batch)
            drained += chunk.bytes;
        QCOMPARE(drained, read.left(qMin(taken * kChunk, read.size())));  // oldest first
        QCOMPARE(ingest.pendingBytes(), qint64(read.size() - drained.size()));
        for (const DisplayChunk &chunk : ingest.takeBatch(-1))
            drained += chunk.bytes;
        QCOMPARE(drained, read);
        QVERIFY(ingest.takeBatch(0).isEmpty());
    }

    void pausedViewKeepsNewest()
    {
        const QByteArray stream = pattern(10000);
        ReceiveIngest ingest(8000);
        ingest.ingestReceived("before", kT0);
        ingest.pause();
        ingest.ingestReceived(stream.left(8001), kT0);  // over the limit on its own
        ingest.ingestReceived(stream.mid(8001), kT0);
        ingest.queueSent("echo", kT0.addMSecs(3));  // echoes are not held back
        QCOMPARE(ingest.pausedBytes(), stream.right(8000));
        QCOMPARE(ingest.pendingBytes(), qint64(10));
        ingest.setDisplayBufferSize(6000);  // a smaller buffer keeps the newest again
        QCOMPARE(ingest.pausedBytes(), stream.right(6000));
        ingest.resume(kT0.addMSecs(4));
        QVERIFY(!ingest.isPaused() && ingest.pausedBytes().isEmpty());
        QCOMPARE(ingest.rxCount(), quint64(10006));  // every received byte once, no sent one
        const QList<DisplayChunk> all = ingest.takeBatch(-1);
        QCOMPARE(all.size(), 4);  // the kept bytes come back in chunks
        QCOMPARE(all.at(0).bytes, QByteArray("before"));
        QCOMPARE(all.at(1).direction, ChunkDirection::Sent);
        QCOMPARE(all.at(2).bytes.size(), kChunk);
        QCOMPARE(all.at(2).bytes + all.at(3).bytes, stream.right(6000));
        QVERIFY(all.at(3).isReceived());
        QCOMPARE(all.at(3).time, kT0.addMSecs(4));
        ingest.resume(kT0);  // not paused: nothing happens
        QVERIFY(!ingest.hasPending());
    }

    void readThrottleWatermarks()
    {
        using A = ReadThrottle::Action;
        ReadThrottle throttle(1000, 200);
        const QList<std::tuple<qint64, A, bool>> steps = {
            {500, A::None, false},          {1000, A::None, false},  // at the mark is not above it
            {1001, A::PauseReading, true},  {5000, A::None, true},   // told once
            {600, A::None, true},           {200, A::None, true},    // at the low mark is not below it
            {199, A::ResumeReading, false}, {0, A::None, false},
            {1001, A::PauseReading, true},  {0, A::ResumeReading, false},
        };
        for (const auto &[pending, action, pausedAfter] : steps) {
            QCOMPARE(throttle.update(pending), action);
            QCOMPARE(throttle.isReadingPaused(), pausedAfter);
        }
        ReadThrottle zeroLow(10, 50);  // low above high is lowered to it
        QCOMPARE(zeroLow.lowWatermark(), qint64(10));
        zeroLow.setWatermarks(10, 0);
        QCOMPARE(zeroLow.update(11), A::PauseReading);
        QCOMPARE(zeroLow.update(0), A::ResumeReading);  // an empty queue always resumes
    }

    void throttledFloodLosesNothing()
    {
        // A sender far faster than the view: reads stop above the high mark,
        // resume below the low one, and every byte comes out once, in order.
        const QByteArray stream = pattern(8 * 1024 * 1024);
        ReceiveIngest ingest;
        ingest.readThrottle().setWatermarks(64 * 1024, 16 * 1024);
        QByteArray drained;
        qsizetype sent = 0;
        int pauses = 0, resumes = 0;
        for (int loops = 0; drained.size() < stream.size() && loops < 100000; ++loops) {
            for (int i = 0; i < 8 && !ingest.readThrottle().isReadingPaused() && sent < stream.size(); ++i) {
                ingest.ingestReceived(stream.mid(sent, 4096), kT0);
                sent += 4096;
                pauses += ingest.readThrottleAction() == ReadThrottle::Action::PauseReading;
                QVERIFY(ingest.pendingBytes() <= 64 * 1024 + 4096);
            }
            for (const DisplayChunk &chunk : ingest.takeBatch(8192))  // one refresh
                drained += chunk.bytes;
            resumes += ingest.readThrottleAction() == ReadThrottle::Action::ResumeReading;
        }
        QCOMPARE(drained, stream);
        QCOMPARE(ingest.rxCount(), quint64(stream.size()));
        QVERIFY(pauses > 10);
        QCOMPARE(resumes, pauses);
    }

    void buildFrame_data()
    {
        using O = SendFrameBuilder::Options;
        QTest::addColumn<QString>("text");
        QTest::addColumn<O>("options");
        QTest::addColumn<QByteArray>("bytes");  // hex; empty as well when refused
        QTest::addColumn<QString>("shown");     // the normalised hex, or why it was refused
        const auto line = [](LineEnding ending, int checksum = 0, const QString &encoding = "UTF-8") {
            return O{MessageFormat::Text, true, ending, encoding, checksum};
        };
        // The checksum covers the line ending.
        QTest::newRow("CR LF, XOR") << "AT" << line(LineEnding::CrLf, 2) << QByteArray("41540d0a12") << "";
        QTest::newRow("None, SUM") << "AT" << line(LineEnding::None, 1) << QByteArray("415495") << "";
        QTest::newRow("CR, CRC-8") << "AT" << line(LineEnding::Cr, 3) << QByteArray("41540d96") << "";
        QTest::newRow("LF, CRC-16 low byte first") << "AT" << line(LineEnding::Lf, 4) << QByteArray("41540a9f13") << "";
        QTest::newRow("LF CR, CRC-32 LSB first") << "AT" << line(LineEnding::LfCr, 5) << QByteArray("41540a0d1ff207ed")
                                                 << "";
        QTest::newRow("every line end, the typed last one too")
            << "a\nb\n" << line(LineEnding::CrLf) << QByteArray("610d0a620d0a") << "";
        QTest::newRow("pasted CR LF is one end") << "a\r\nb" << line(LineEnding::Cr) << QByteArray("610d620d") << "";
        QTest::newRow("append off keeps text") << "A\nT" << O{MessageFormat::Text, false} << QByteArray("410a54") << "";
        QTest::newRow("UTF-16LE line end in code units, no BOM")
            << "A" << line(LineEnding::CrLf, 0, "UTF-16LE") << QByteArray("41000d000a00") << "";
        QTest::newRow("Windows-1252 euro") << QString::fromUtf8("€") << line(LineEnding::None, 0, "Windows-1252")
                                           << QByteArray("80") << "";
        QTest::newRow("hex ignores line ending, CRC-16")
            << "01 02" << O{MessageFormat::Hex, true, LineEnding::CrLf, "UTF-8", 4} << QByteArray("010281e1") << "01 02";
        QTest::newRow("empty text") << "" << line(LineEnding::CrLf, 5) << QByteArray() << "";
        const QString advice = " Change the encoding or edit the message.";
        QTest::newRow("emoji as GBK") << QString::fromUtf8("ok😀") << line(LineEnding::CrLf, 5, "GBK") << QByteArray()
                                      << QString::fromUtf8("The character '😀' cannot be encoded as GBK.") + advice;
        QTest::newRow("first culprit of a long text")
            << QString(5000, u'a') + QString::fromUtf8("éü") << line(LineEnding::CrLf, 5, "US-ASCII") << QByteArray()
            << QString::fromUtf8("The character 'é' cannot be encoded as US-ASCII.") + advice;
        QTest::newRow("half a surrogate pair") << QStringLiteral("a") + QChar(0xD83D) << line(LineEnding::CrLf, 5)
                                               << QByteArray() << "This message cannot be encoded as UTF-8." + advice;
        QTest::newRow("lone low surrogate") << QString(QChar(0xDE00)) + u'b' << line(LineEnding::CrLf, 5, "GBK")
                                            << QByteArray() << "This message cannot be encoded as GBK." + advice;
        QTest::newRow("unknown encoding") << "AT" << line(LineEnding::CrLf, 5, "X-NONE") << QByteArray()
                                          << kNoEncoding.arg("X-NONE");
        QTest::newRow("not hex") << "0G" << O{MessageFormat::Hex, true, LineEnding::CrLf, "UTF-8", 5} << QByteArray()
                                 << "Invalid hex character at position 2.";
    }

    void buildFrame()
    {
        QFETCH(QString, text);
        QFETCH(SendFrameBuilder::Options, options);
        QFETCH(QByteArray, bytes);
        QFETCH(QString, shown);
        const ValueResult<SendFrameBuilder::Frame> frame = SendFrameBuilder::build(text, options);
        QCOMPARE(frame.isOk(), !bytes.isEmpty() || shown.isEmpty());
        QCOMPARE(frame.isOk() ? frame.value().normalisedHex : frame.errorText(), shown);
        if (frame.isOk()) {
            QCOMPARE(frame.value().bytes.toHex(), bytes);
            QCOMPARE(frame.value().isEmpty(), bytes.isEmpty());
        }
    }

    void historyBoundAndOrder()
    {
        SendHistory history;
        for (int i = 1; i <= 257; ++i)
            history.record(QString::number(i), MessageFormat::Text);
        QCOMPARE(history.size(), 257);  // nothing dropped while 256 or fewer were held
        history.record("258", MessageFormat::Text);
        QCOMPARE(history.size(), 257);
        QCOMPARE(history.entries().first(), QString("258"));
        QCOMPARE(history.entries().last(), QString("2"));
        history.record("100", MessageFormat::Text);  // again: moved to the front
        QCOMPARE(history.size(), 256);               // the bound is applied before the duplicate goes
        QCOMPARE(history.entries().first(), QString("100"));
        QCOMPARE(history.entries().count("100"), 1);
        SendHistory hex(QStringList{"AT"});
        hex.record("0a ff", MessageFormat::Hex);
        hex.record("0A FF", MessageFormat::Hex);
        hex.record("at", MessageFormat::Text);  // text keeps its case
        hex.record("", MessageFormat::Text);
        QCOMPARE(hex.entries(), (QStringList{"at", "0A FF", "AT"}));
    }

    void lineByLineOrder()
    {
        LineStepper stepper;
        QStringList sent;
        for (int i = 0; i < 5; ++i)
            sent << stepper.next("a\nb\n");
        QCOMPARE(sent, (QStringList{"a", "b", "", "a", "b"}));  // a trailing feed gives an empty line
        // An edited text picks up at the index modulo its own line count.
        QCOMPARE(stepper.index(), qint64(5));
        for (const QString line : {"z", "x", "", "z"})
            QCOMPARE(stepper.next("x\n\nz"), line);
        QCOMPARE(stepper.next("AT"), QString("AT"));
        stepper.reset();
        QCOMPARE(stepper.next("first\nsecond"), QString("first"));
    }
};

QTEST_GUILESS_MAIN(TerminalPipelineTest)
#include "tst_terminalpipeline.moc"
