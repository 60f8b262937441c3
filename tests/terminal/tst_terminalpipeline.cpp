#include "terminal/chunkqueue.h"
#include "terminal/displayformatter.h"
#include "terminal/linestepper.h"
#include "terminal/pausedbuffer.h"
#include "terminal/readthrottle.h"
#include "terminal/receiveingest.h"
#include "terminal/sendframebuilder.h"
#include "terminal/sendhistory.h"
#include "terminal/wiretextcodecregistry.h"
#include "terminal/wiretextdecoder.h"
#include "tools/hexparser.h"

#include <QtTest>

using ByteParts = QList<QByteArray>;
Q_DECLARE_METATYPE(ByteParts)

namespace {

const QDateTime kT0(QDate(2024, 3, 5), QTime(12, 0, 0, 0));

DisplayChunk rx(const QByteArray &bytes, qint64 atMs = 0)
{
    return DisplayChunk{kT0.addMSecs(atMs), ChunkDirection::Received, bytes};
}

DisplayChunk tx(const QByteArray &bytes, qint64 atMs = 0)
{
    return DisplayChunk{kT0.addMSecs(atMs), ChunkDirection::Sent, bytes};
}

QString codePoints(const QString &text)
{
    QStringList out;
    for (const QChar c : text)
        out << QString::number(c.unicode(), 16);
    return out.join(u' ');
}

} // namespace

class TerminalPipelineTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void registryOffersWhatResolves();
    void registryResolvesNames_data();
    void registryResolvesNames();

    void decoderJoinsSplitCharacters_data();
    void decoderJoinsSplitCharacters();
    void decoderKeepsSyncAfterInvalidBytes_data();
    void decoderKeepsSyncAfterInvalidBytes();

    void encodeForSending_data();
    void encodeForSending();

    void formatterLineEnds_data();
    void formatterLineEnds();
    void formatterHex();
    void formatterTimestampsInText();
    void formatterTimestampsInHex();
    void formatterAutoFeed();
    void formatterDecoderPerDirection();
    void formatterEncodingChange();

    void drainBudgets_data();
    void drainBudgets();
    void pausedBufferKeepsNewest_data();
    void pausedBufferKeepsNewest();
    void pauseAndResume();
    void readThrottleWatermarks();
    void throttledFloodLosesNothing();

    void buildFrame_data();
    void buildFrame();
    void buildFrameFailures_data();
    void buildFrameFailures();
    void historyBoundAndOrder();
    void lineByLineOrder_data();
    void lineByLineOrder();
};

// ---------------------------------------------------------------- encodings

void TerminalPipelineTest::registryOffersWhatResolves()
{
    const QStringList names = WireTextCodecRegistry::names();
    QCOMPARE(names.value(0), QString("UTF-8"));
    QCOMPARE(WireTextCodecRegistry::defaultName(), QString("UTF-8"));
    for (const char *common : {"GBK", "GB18030", "Big5", "Shift_JIS", "EUC-JP", "EUC-KR", "ISO-8859-1",
                               "Windows-1252", "UTF-16LE", "UTF-16BE", "KOI8-R"})
        QVERIFY2(names.contains(QString::fromLatin1(common)), common);
    QCOMPARE(QSet<QString>(names.begin(), names.end()).size(), names.size());
    for (const QString &name : names) {
        const ValueResult<WireTextCodec> codec = WireTextCodecRegistry::resolve(name);
        QVERIFY2(codec.isOk(), qPrintable(name));
        QCOMPARE(codec.value().name(), name);
        // Every offered codec must carry plain ASCII text both ways (the
        // wide Unicode forms aside, which are not ASCII-compatible).
        if (name.startsWith("UTF-16") || name.startsWith("UTF-32"))
            continue;
        QCOMPARE(codec.value().encode(u"AT+OK").value(), QByteArray("AT+OK"));
        WireTextDecoder decoder(codec.value());
        QCOMPARE(decoder.decode("AT+OK"), QString("AT+OK"));
    }
}

void TerminalPipelineTest::registryResolvesNames_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("resolvedName");  // empty: unknown
    QTest::newRow("offered") << "GBK" << "GBK";
    QTest::newRow("other case") << "utf-8" << "UTF-8";
    QTest::newRow("padded") << " Big5 " << "Big5";
    QTest::newRow("alias not offered") << "CP936" << "CP936";
    QTest::newRow("unknown") << "NOT-AN-ENCODING" << "";
    QTest::newRow("empty") << "" << "";
    QTest::newRow("non-latin name") << QString::fromUtf8("编码") << "";
    QTest::newRow("locale is no wire encoding") << "System" << "";
}

void TerminalPipelineTest::registryResolvesNames()
{
    QFETCH(QString, name);
    QFETCH(QString, resolvedName);
    const ValueResult<WireTextCodec> codec = WireTextCodecRegistry::resolve(name);
    if (resolvedName.isEmpty()) {
        QVERIFY(!codec.isOk());
        QCOMPARE(codec.errorText(), WireTextCodecRegistry::unknownEncodingText(name));
        QVERIFY(codec.errorText().contains(name));
        QVERIFY(!WireTextCodecRegistry::isAvailable(name));
    } else {
        QVERIFY(codec.isOk());
        QCOMPARE(codec.value().name(), resolvedName);
    }
}

void TerminalPipelineTest::decoderJoinsSplitCharacters_data()
{
    QTest::addColumn<QString>("encoding");
    QTest::addColumn<ByteParts>("parts");
    QTest::addColumn<QString>("expected");
    const QString zhong = QString::fromUtf8("中");
    QTest::newRow("UTF-8 3 bytes 1+2") << "UTF-8" << ByteParts{"a\xe4", "\xb8\xad" "b"} << "a" + zhong + "b";
    QTest::newRow("UTF-8 3 bytes 2+1") << "UTF-8" << ByteParts{"\xe4\xb8", "\xad"} << zhong;
    QTest::newRow("UTF-8 4 bytes one at a time")
        << "UTF-8" << ByteParts{"\xf0", "\x9f", "\x98", "\x80"} << QString::fromUtf8("😀");
    QTest::newRow("GBK split lead byte") << "GBK" << ByteParts{"x\xd6", "\xd0\xce\xc4"} << QString::fromUtf8("x中文");
    QTest::newRow("GB18030 four bytes 2+2")
        << "GB18030" << ByteParts{"\x94\x39", "\xfc\x36"} << QString::fromUtf8("😀");
    QTest::newRow("Big5") << "Big5" << ByteParts{"\xa4", "\x40"} << QString::fromUtf8("一");
    QTest::newRow("Shift_JIS") << "Shift_JIS" << ByteParts{"\x82", "\xa0"} << QString::fromUtf8("あ");
    QTest::newRow("UTF-16LE odd byte")
        << "UTF-16LE" << ByteParts{QByteArray("\x41", 1), QByteArray("\x00\x2d", 2), QByteArray("\x4e", 1)}
        << QString::fromUtf8("A中");
    QTest::newRow("UTF-16BE surrogate pair split")
        << "UTF-16BE" << ByteParts{QByteArray("\xd8\x3d", 2), QByteArray("\xde\x00", 2)} << QString::fromUtf8("😀");
}

void TerminalPipelineTest::decoderJoinsSplitCharacters()
{
    QFETCH(QString, encoding);
    QFETCH(ByteParts, parts);
    QFETCH(QString, expected);
    WireTextDecoder decoder(WireTextCodecRegistry::resolve(encoding).value());
    QString text;
    for (const QByteArray &part : parts)
        text += decoder.decode(part);
    QCOMPARE(codePoints(text), codePoints(expected));
}

void TerminalPipelineTest::decoderKeepsSyncAfterInvalidBytes_data()
{
    QTest::addColumn<QString>("encoding");
    QTest::addColumn<ByteParts>("parts");
    QTest::addColumn<QString>("before");  // text before the replacement marks
    QTest::addColumn<QString>("after");   // text that must survive after them
    QTest::newRow("UTF-8 stray byte") << "UTF-8" << ByteParts{"a\xff", "b"} << "a" << "b";
    QTest::newRow("UTF-8 truncated sequence then ASCII")
        << "UTF-8" << ByteParts{"\xe4\xb8", "AT\r\n"} << "" << "AT\r\n";
    QTest::newRow("UTF-8 continuation without lead")
        << "UTF-8" << ByteParts{"\x80\x80", QByteArray::fromHex("e4b8ad")} << "" << QString::fromUtf8("中");
    QTest::newRow("GBK lead byte then line feed")
        << "GBK" << ByteParts{"ok\x81", "\n\xd6\xd0"} << "ok" << QString::fromUtf8("\n中");
    QTest::newRow("Big5 lead byte then line feed")
        << "Big5" << ByteParts{"\xa4\x40\x81", "\nz"} << QString::fromUtf8("一") << "\nz";
}

void TerminalPipelineTest::decoderKeepsSyncAfterInvalidBytes()
{
    QFETCH(QString, encoding);
    QFETCH(ByteParts, parts);
    QFETCH(QString, before);
    QFETCH(QString, after);
    WireTextDecoder decoder(WireTextCodecRegistry::resolve(encoding).value());
    QString text;
    for (const QByteArray &part : parts)
        text += decoder.decode(part);
    QVERIFY2(text.startsWith(before), qPrintable(codePoints(text)));
    QVERIFY2(text.endsWith(after), qPrintable(codePoints(text)));
    const QString middle = text.mid(before.size(), text.size() - before.size() - after.size());
    QVERIFY2(!middle.isEmpty(), qPrintable(codePoints(text)));
    QCOMPARE(middle.count(QChar(QChar::ReplacementCharacter)), middle.size());
}

void TerminalPipelineTest::encodeForSending_data()
{
    QTest::addColumn<QString>("encoding");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QByteArray>("bytes");  // hex; empty when it must fail
    QTest::addColumn<QString>("error");
    QTest::newRow("UTF-8") << "UTF-8" << QString::fromUtf8("中A") << QByteArray("e4b8ad41") << "";
    QTest::newRow("GBK") << "GBK" << QString::fromUtf8("中文") << QByteArray("d6d0cec4") << "";
    QTest::newRow("Latin-1") << "ISO-8859-1" << QString::fromUtf8("é") << QByteArray("e9") << "";
    QTest::newRow("Windows-1252 euro") << "Windows-1252" << QString::fromUtf8("€") << QByteArray("80") << "";
    QTest::newRow("UTF-16BE") << "UTF-16BE" << "A" << QByteArray("0041") << "";
    QTest::newRow("no BOM in UTF-16LE") << "UTF-16LE" << "AB" << QByteArray("41004200") << "";
    QTest::newRow("CJK as Latin-1")
        << "ISO-8859-1" << QString::fromUtf8("a中b") << QByteArray()
        << QString::fromUtf8("The character '中' cannot be encoded as ISO-8859-1. Change the encoding or edit the message.");
    QTest::newRow("emoji as GBK")
        << "GBK" << QString::fromUtf8("ok😀") << QByteArray()
        << QString::fromUtf8("The character '😀' cannot be encoded as GBK. Change the encoding or edit the message.");
    QTest::newRow("first culprit of a long text")
        << "US-ASCII" << QString(5000, u'a') + QString::fromUtf8("éü") << QByteArray()
        << QString::fromUtf8("The character 'é' cannot be encoded as US-ASCII. Change the encoding or edit the message.");
    QTest::newRow("half a surrogate pair")
        << "UTF-8" << QStringLiteral("a") + QChar(0xD83D) << QByteArray()
        << "This message cannot be encoded as UTF-8. Change the encoding or edit the message.";
    QTest::newRow("lone surrogate in a legacy codec")
        << "GBK" << QString(QChar(0xDE00)) + QStringLiteral("b") << QByteArray()
        << "This message cannot be encoded as GBK. Change the encoding or edit the message.";
}

void TerminalPipelineTest::encodeForSending()
{
    QFETCH(QString, encoding);
    QFETCH(QString, text);
    QFETCH(QByteArray, bytes);
    QFETCH(QString, error);
    const ValueResult<QByteArray> encoded = WireTextCodecRegistry::resolve(encoding).value().encode(text);
    if (error.isEmpty()) {
        QVERIFY2(encoded.isOk(), qPrintable(encoded.errorText()));
        QCOMPARE(encoded.value().toHex(), bytes);
    } else {
        QVERIFY(!encoded.isOk());
        QCOMPARE(encoded.errorText(), error);
    }
}

// ---------------------------------------------------------------- formatter

void TerminalPipelineTest::formatterLineEnds_data()
{
    QTest::addColumn<ByteParts>("parts");
    QTest::addColumn<QString>("expected");
    QTest::newRow("a CR LF b CR c is three lines") << ByteParts{"a\r\nb\rc"} << "a\nb\nc";
    QTest::newRow("LF CR is one line end") << ByteParts{"a\n\rb"} << "a\nb";
    QTest::newRow("CR LF split across reads") << ByteParts{"a\r", "\nb"} << "a\nb";
    QTest::newRow("LF CR split across reads") << ByteParts{"a\n", "\rb"} << "a\nb";
    QTest::newRow("empty line kept") << ByteParts{"a\n\nb"} << "a\n\nb";
    QTest::newRow("CR CR LF is two") << ByteParts{"a\r\r\nb"} << "a\n\nb";
    QTest::newRow("pairs do not chain") << ByteParts{"a\r\n\r\nb"} << "a\n\nb";
    QTest::newRow("lone CR at the end") << ByteParts{"a\r", "b"} << "a\nb";
}

void TerminalPipelineTest::formatterLineEnds()
{
    QFETCH(ByteParts, parts);
    QFETCH(QString, expected);
    DisplayFormatter formatter;
    QString text;
    for (const QByteArray &part : parts)
        text += formatter.format(rx(part));
    QCOMPARE(text, expected);
    QVERIFY(!text.contains(u'\r'));
    QCOMPARE(formatter.endsWithLineFeed(), expected.endsWith(u'\n'));
}

void TerminalPipelineTest::formatterHex()
{
    QCOMPARE(DisplayFormatter::toHex(QByteArray::fromHex("01ab")), QString("01 AB "));
    QCOMPARE(DisplayFormatter::toHex(QByteArray::fromHex("000f10ff0a0d")), QString("00 0F 10 FF 0A 0D "));
    QCOMPARE(DisplayFormatter::toHex(QByteArray()), QString());

    DisplayFormatter formatter;
    DisplayFormatter::Options o;
    o.format = MessageFormat::Hex;
    formatter.setOptions(o);
    // Line feed bytes are data in hex: no line break, no folding.
    QCOMPARE(formatter.format(rx("\r\n")), QString("0D 0A "));
    QCOMPARE(formatter.format(rx(QByteArray::fromHex("e4b8"))), QString("E4 B8 "));
    QVERIFY(!formatter.endsWithLineFeed());
}

void TerminalPipelineTest::formatterTimestampsInText()
{
    DisplayFormatter formatter;
    DisplayFormatter::Options o;
    o.showTimestamps = true;
    formatter.setOptions(o);
    const QString rxStamp = "[Rx][12:00:00.250] ";

    // Each line of a chunk is stamped; the open line after the last line
    // feed is stamped by the chunk that fills it.
    QCOMPARE(formatter.format(rx("a\r\nb\n", 250)), rxStamp + "a\n" + rxStamp + "b\n");
    QCOMPARE(formatter.format(rx("c", 500)), QString("[Rx][12:00:00.500] c"));
    // The same line going on in the same direction is not stamped again.
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

void TerminalPipelineTest::formatterTimestampsInHex()
{
    DisplayFormatter formatter;
    DisplayFormatter::Options o;
    o.format = MessageFormat::Hex;
    o.showTimestamps = true;
    formatter.setOptions(o);
    QString text = formatter.format(rx(QByteArray::fromHex("0102"), 1));
    text += formatter.format(rx(QByteArray::fromHex("0a"), 2));
    text += formatter.format(tx(QByteArray::fromHex("ff"), 3));
    QCOMPARE(text, QString("[Rx][12:00:00.001] 01 02 \n[Rx][12:00:00.002] 0A \n[Tx][12:00:00.003] FF "));
    // Taking the stamp off each line leaves pure hex that reads back to the
    // bytes: no digit of a time got mixed into the data.
    QByteArray bytes;
    for (const QString &line : text.split(u'\n')) {
        const qsizetype stampEnd = line.indexOf(u"] ", line.indexOf(u"][")) + 2;
        QVERIFY(stampEnd > 1);
        bytes += HexParser::parse(QStringView(line).mid(stampEnd)).value();
    }
    QCOMPARE(bytes.toHex(), QByteArray("01020aff"));
}

void TerminalPipelineTest::formatterAutoFeed()
{
    DisplayFormatter formatter;
    DisplayFormatter::Options o;
    o.autoFeed = true;
    o.autoFeedIntervalMs = 20;
    formatter.setOptions(o);
    QCOMPARE(formatter.format(rx("a", 0)), QString("a"));
    QCOMPARE(formatter.format(rx("b", 19)), QString("b"));   // within the interval
    QCOMPARE(formatter.format(rx("c", 39)), QString("\nc"));  // exactly the interval later
    QCOMPARE(formatter.format(rx("d\n", 100)), QString("\nd\n"));
    QCOMPARE(formatter.format(rx("e", 500)), QString("e"));  // already at a line start
    // Half a character shows nothing and does not count as the previous
    // chunk: its completion, long after "e", still gets the feed.
    QCOMPARE(formatter.format(rx("\xe4", 505)), QString());
    QCOMPARE(formatter.format(rx("\xb8\xad", 520)), QString("\n") + QString::fromUtf8("中"));

    // With timestamps the fed line is stamped.
    o.showTimestamps = true;
    formatter.setOptions(o);
    QCOMPARE(formatter.format(rx("f", 1000)), QString("\n[Rx][12:00:01.000] f"));
    QCOMPARE(formatter.format(rx("g", 1001)), QString("g"));

    // In hex the feed separates bursts as well.
    o.showTimestamps = false;
    o.format = MessageFormat::Hex;
    formatter.setOptions(o);
    QCOMPARE(formatter.format(rx("\x01", 2000)), QString("\n01 "));
    QCOMPARE(formatter.format(rx("\x02", 2005)), QString("02 "));

    // Off: no feed however long the pause.
    o.autoFeed = false;
    formatter.setOptions(o);
    QCOMPARE(formatter.format(rx("\x03", 9000)), QString("03 "));

    const DisplayFormatter::Options fromPane = DisplayFormatter::Options::fromPaneOptions([] {
        PaneOptions p;
        p.rxLineEnding = LineEnding::CrLf;
        p.autoFeedInterval = 35;
        p.displayTime = true;
        return p;
    }());
    QVERIFY(fromPane.autoFeed);
    QCOMPARE(fromPane.autoFeedIntervalMs, 35);
    QVERIFY(fromPane.showTimestamps);
    QVERIFY(!DisplayFormatter::Options::fromPaneOptions(PaneOptions()).autoFeed);
}

void TerminalPipelineTest::formatterDecoderPerDirection()
{
    DisplayFormatter formatter;
    QVERIFY(formatter.setSendEncoding("GBK"));
    // A split received character is not disturbed by a send in between.
    QCOMPARE(formatter.format(rx("\xe4\xb8")), QString());
    QCOMPARE(formatter.format(tx("\xd6\xd0")), QString::fromUtf8("中"));
    QCOMPARE(formatter.format(rx("\xad")), QString::fromUtf8("中"));
    // So is a line end split on one side only.
    QCOMPARE(formatter.format(rx("a\r")), QString("a\n"));
    QCOMPARE(formatter.format(tx("\n")), QString("\n"));
    QCOMPARE(formatter.format(rx("\nb")), QString("b"));
}

void TerminalPipelineTest::formatterEncodingChange()
{
    DisplayFormatter formatter;
    QCOMPARE(formatter.receiveEncoding(), QString("UTF-8"));
    QVERIFY(formatter.setReceiveEncoding("GBK"));
    QCOMPARE(formatter.format(rx("\xd6")), QString());
    // Choosing the same encoding again keeps the half-received character.
    QVERIFY(formatter.setReceiveEncoding("gbk"));
    QCOMPARE(formatter.format(rx("\xd0")), QString::fromUtf8("中"));

    const Result bad = formatter.setReceiveEncoding("NO-SUCH-CODE");
    QVERIFY(!bad);
    QCOMPARE(bad.errorText(), WireTextCodecRegistry::unknownEncodingText("NO-SUCH-CODE"));
    QCOMPARE(formatter.receiveEncoding(), QString("GBK"));
    QCOMPARE(formatter.format(rx("\xce\xc4")), QString::fromUtf8("文"));
}

// ---------------------------------------------------------------- queue

void TerminalPipelineTest::drainBudgets_data()
{
    QTest::addColumn<qint64>("budget");
    QTest::addColumn<int>("taken");
    // Three queued chunks of 100 bytes each.
    QTest::newRow("everything") << qint64(-1) << 3;
    QTest::newRow("zero still shows one") << qint64(0) << 1;
    QTest::newRow("one byte") << qint64(1) << 1;
    QTest::newRow("exactly one chunk") << qint64(100) << 1;
    QTest::newRow("crossing chunk completed") << qint64(101) << 2;
    QTest::newRow("exactly two") << qint64(200) << 2;
    QTest::newRow("more than queued") << qint64(262144) << 3;
}

void TerminalPipelineTest::drainBudgets()
{
    QFETCH(qint64, budget);
    QFETCH(int, taken);
    ChunkQueue queue;
    for (int i = 0; i < 3; ++i)
        queue.enqueue(rx(QByteArray(100, char('a' + i)), i));
    queue.enqueue(rx(QByteArray()));  // nothing to show, not queued
    QCOMPARE(queue.count(), 3);
    QCOMPARE(queue.pendingBytes(), qint64(300));

    const QList<DisplayChunk> batch = queue.takeBatch(budget);
    QCOMPARE(batch.size(), taken);
    for (int i = 0; i < taken; ++i)
        QCOMPARE(batch.at(i).bytes.at(0), char('a' + i));  // oldest first
    QCOMPARE(queue.pendingBytes(), qint64(300 - 100 * taken));
    QCOMPARE(queue.count(), 3 - taken);
    queue.takeBatch(-1);
    QVERIFY(queue.isEmpty());
    QVERIFY(queue.takeBatch(0).isEmpty());
}

void TerminalPipelineTest::pausedBufferKeepsNewest_data()
{
    QTest::addColumn<int>("readSize");
    QTest::newRow("one read") << 10000;
    QTest::newRow("reads of 100") << 100;
    QTest::newRow("reads of 7") << 7;
    QTest::newRow("reads of 4001") << 4001;
}

void TerminalPipelineTest::pausedBufferKeepsNewest()
{
    QFETCH(int, readSize);
    QByteArray stream;
    for (int i = 0; i < 10000; ++i)
        stream.append(char(i * 7 % 251));

    ReceiveIngest ingest(4000);
    ingest.pause();
    for (int pos = 0; pos < stream.size(); pos += readSize)
        ingest.ingestReceived(stream.mid(pos, readSize), kT0);
    QCOMPARE(ingest.rxCount(), quint64(10000));
    QCOMPARE(ingest.pausedBytes(), stream.right(4000));
    QVERIFY(!ingest.hasPending());

    PausedBuffer buffer(4000);
    buffer.append(stream);
    buffer.setLimit(1500);  // a smaller display buffer keeps the newest again
    QCOMPARE(buffer.bytes(), stream.right(1500));
}

void TerminalPipelineTest::pauseAndResume()
{
    ReceiveIngest ingest(10);
    ingest.ingestReceived("before", kT0);
    ingest.pause();
    ingest.ingestReceived("0123456789abc", kT0.addMSecs(1));
    ingest.ingestReceived(QByteArray(), kT0.addMSecs(2));
    ingest.queueSent("echo", kT0.addMSecs(3));
    QCOMPARE(ingest.rxCount(), quint64(19));  // sent bytes are not received bytes
    ingest.resume(kT0.addMSecs(4));
    QVERIFY(!ingest.isPaused());
    QVERIFY(ingest.pausedBytes().isEmpty());

    const QList<DisplayChunk> all = ingest.takeBatch(-1);
    QCOMPARE(all.size(), 3);
    QCOMPARE(all.at(0).bytes, QByteArray("before"));
    QCOMPARE(all.at(1).direction, ChunkDirection::Sent);
    QCOMPARE(all.at(2).bytes, QByteArray("3456789abc"));
    QVERIFY(all.at(2).isReceived());
    QCOMPARE(all.at(2).time, kT0.addMSecs(4));
    QCOMPARE(ingest.rxCount(), quint64(19));

    ingest.resume(kT0);  // not paused: nothing happens
    QVERIFY(!ingest.hasPending());
}

void TerminalPipelineTest::readThrottleWatermarks()
{
    using A = ReadThrottle::Action;
    ReadThrottle throttle(1000, 200);
    struct Step
    {
        qint64 pending;
        A action;
        bool pausedAfter;
    };
    const QList<Step> steps = {
        {500, A::None, false},          {1000, A::None, false},  // at the mark is not above it
        {1001, A::PauseReading, true},  {5000, A::None, true},   // told once
        {600, A::None, true},           {200, A::None, true},    // at the low mark is not below it
        {199, A::ResumeReading, false}, {0, A::None, false},
        {1001, A::PauseReading, true},  {0, A::ResumeReading, false},
    };
    for (const Step &step : steps) {
        QCOMPARE(throttle.update(step.pending), step.action);
        QCOMPARE(throttle.isReadingPaused(), step.pausedAfter);
    }

    ReadThrottle zeroLow(10, 50);  // low above high is lowered to it
    QCOMPARE(zeroLow.lowWatermark(), qint64(10));
    zeroLow.setWatermarks(10, 0);
    QCOMPARE(zeroLow.update(11), A::PauseReading);
    QCOMPARE(zeroLow.update(0), A::ResumeReading);  // an empty queue always resumes
}

void TerminalPipelineTest::throttledFloodLosesNothing()
{
    // A sender far faster than the view: reads stop above the high mark,
    // the drains catch up, reads resume below the low mark, and every byte
    // ingested comes out of the queue in order.
    ReceiveIngest ingest;
    ingest.readThrottle().setWatermarks(64 * 1024, 16 * 1024);
    quint64 sent = 0;
    quint64 drained = 0;
    quint64 checksum = 0;
    quint64 expectedChecksum = 0;
    bool readingPaused = false;
    int pauses = 0;
    int resumes = 0;
    const qint64 total = 8 * 1024 * 1024;
    int loops = 0;
    while ((qint64(drained) < total) && ++loops < 100000) {
        // The transport delivers 4 KiB reads while reading is allowed.
        for (int i = 0; i < 8 && !readingPaused && qint64(sent) < total; ++i) {
            QByteArray read(4096, Qt::Uninitialized);
            for (char &c : read) {
                c = char(sent % 253);
                expectedChecksum = expectedChecksum * 31 + quint8(c);
                ++sent;
            }
            ingest.ingestReceived(read, kT0);
            const ReadThrottle::Action action = ingest.readThrottleAction();
            if (action == ReadThrottle::Action::PauseReading) {
                readingPaused = true;
                ++pauses;
            }
            QVERIFY(ingest.pendingBytes() <= 64 * 1024 + 4096);
        }
        // One refresh of the view with a small budget.
        for (const DisplayChunk &chunk : ingest.takeBatch(8192)) {
            for (const char c : chunk.bytes)
                checksum = checksum * 31 + quint8(c);
            drained += quint64(chunk.bytes.size());
        }
        if (ingest.readThrottleAction() == ReadThrottle::Action::ResumeReading) {
            readingPaused = false;
            ++resumes;
        }
    }
    QCOMPARE(qint64(drained), total);
    QCOMPARE(ingest.rxCount(), quint64(total));
    QCOMPARE(checksum, expectedChecksum);
    QVERIFY(pauses > 10);
    QCOMPARE(resumes, pauses);
}

// ---------------------------------------------------------------- send

void TerminalPipelineTest::buildFrame_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("format");
    QTest::addColumn<bool>("append");
    QTest::addColumn<int>("ending");
    QTest::addColumn<QString>("encoding");
    QTest::addColumn<int>("checksum");
    QTest::addColumn<QByteArray>("bytes");  // hex
    QTest::addColumn<QString>("normalised");
    const int text = int(MessageFormat::Text);
    const int hex = int(MessageFormat::Hex);

    QTest::newRow("AT CR LF") << "AT" << text << true << 3 << "UTF-8" << 0 << QByteArray("41540d0a") << "";
    QTest::newRow("AT LF typed, CR LF") << "AT\n" << text << true << 3 << "UTF-8" << 0 << QByteArray("41540d0a") << "";
    QTest::newRow("ending None") << "AT" << text << true << 0 << "UTF-8" << 0 << QByteArray("4154") << "";
    QTest::newRow("ending CR") << "AT" << text << true << 1 << "UTF-8" << 0 << QByteArray("41540d") << "";
    QTest::newRow("ending LF") << "AT" << text << true << 2 << "UTF-8" << 0 << QByteArray("41540a") << "";
    QTest::newRow("ending LF CR") << "AT" << text << true << 4 << "UTF-8" << 0 << QByteArray("41540a0d") << "";
    QTest::newRow("append off keeps text") << "A\nT" << text << false << 3 << "UTF-8" << 0 << QByteArray("410a54") << "";
    QTest::newRow("every line end") << "a\nb" << text << true << 3 << "UTF-8" << 0 << QByteArray("610d0a620d0a") << "";
    QTest::newRow("pasted CR LF is one end") << "a\r\nb" << text << true << 1 << "UTF-8" << 0 << QByteArray("610d620d") << "";
    QTest::newRow("GBK") << QString::fromUtf8("中") << text << false << 0 << "GBK" << 0 << QByteArray("d6d0") << "";
    QTest::newRow("UTF-16LE line end in code units")
        << "A" << text << true << 3 << "UTF-16LE" << 0 << QByteArray("41000d000a00") << "";
    QTest::newRow("SUM") << "123456789" << text << false << 0 << "UTF-8" << 1 << QByteArray("313233343536373839dd") << "";
    QTest::newRow("XOR") << "123456789" << text << false << 0 << "UTF-8" << 2 << QByteArray("31323334353637383931") << "";
    QTest::newRow("CRC-8") << "123456789" << text << false << 0 << "UTF-8" << 3 << QByteArray("313233343536373839f4") << "";
    QTest::newRow("CRC-16/MODBUS low byte first")
        << "123456789" << text << false << 0 << "UTF-8" << 4 << QByteArray("313233343536373839374b") << "";
    QTest::newRow("CRC-32 LSB first")
        << "123456789" << text << false << 0 << "UTF-8" << 5 << QByteArray("3132333435363738392639f4cb") << "";
    QTest::newRow("checksum covers the line ending")
        << "AT" << text << true << 3 << "UTF-8" << 2 << QByteArray("41540d0a12") << "";
    QTest::newRow("hex tokens") << "1 a ff" << hex << false << 0 << "UTF-8" << 0 << QByteArray("010aff") << "01 0A FF";
    QTest::newRow("hex ignores line ending") << "41 54" << hex << true << 3 << "UTF-8" << 0 << QByteArray("4154") << "41 54";
    QTest::newRow("hex 0x and commas") << "0x41,0x4243" << hex << false << 0 << "UTF-8" << 0 << QByteArray("414243") << "41 42 43";
    QTest::newRow("hex lines") << "01\n02" << hex << false << 0 << "UTF-8" << 0 << QByteArray("0102") << "01 02";
    QTest::newRow("hex CRC-16") << "01 02" << hex << false << 0 << "UTF-8" << 4 << QByteArray("010281e1") << "01 02";
    QTest::newRow("hex CRC-32") << "0102" << hex << false << 0 << "UTF-8" << 5 << QByteArray("01029242ccb6") << "01 02";
    QTest::newRow("empty text") << "" << text << true << 3 << "UTF-8" << 5 << QByteArray() << "";
    QTest::newRow("empty hex") << "" << hex << false << 0 << "UTF-8" << 4 << QByteArray() << "";
    QTest::newRow("blank hex") << "  " << hex << false << 0 << "UTF-8" << 4 << QByteArray() << "";
}

void TerminalPipelineTest::buildFrame()
{
    QFETCH(QString, text);
    QFETCH(int, format);
    QFETCH(bool, append);
    QFETCH(int, ending);
    QFETCH(QString, encoding);
    QFETCH(int, checksum);
    QFETCH(QByteArray, bytes);
    QFETCH(QString, normalised);
    SendFrameBuilder::Options o;
    o.format = MessageFormat(format);
    o.appendLineEnding = append;
    o.lineEnding = LineEnding(ending);
    o.encoding = encoding;
    o.checksum = checksum;
    const ValueResult<SendFrameBuilder::Frame> frame = SendFrameBuilder::build(text, o);
    QVERIFY2(frame.isOk(), qPrintable(frame.errorText()));
    QCOMPARE(frame.value().bytes.toHex(), bytes);
    QCOMPARE(frame.value().normalisedHex, normalised);
    QCOMPARE(frame.value().isEmpty(), bytes.isEmpty());
}

void TerminalPipelineTest::buildFrameFailures_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("format");
    QTest::addColumn<QString>("encoding");
    QTest::addColumn<QString>("error");
    QTest::newRow("incomplete hex byte") << "ABC" << int(MessageFormat::Hex) << "UTF-8"
                                         << "Hex input must contain complete bytes.";
    QTest::newRow("not hex") << "0G" << int(MessageFormat::Hex) << "UTF-8" << HexParser::invalidCharacterText(2);
    QTest::newRow("not encodable") << QString::fromUtf8("温한") << int(MessageFormat::Text) << "Shift_JIS"
                                   << QString::fromUtf8("The character '한' cannot be encoded as Shift_JIS. "
                                                        "Change the encoding or edit the message.");
    QTest::newRow("unknown encoding") << "AT" << int(MessageFormat::Text) << "X-NONE"
                                      << WireTextCodecRegistry::unknownEncodingText("X-NONE");
}

void TerminalPipelineTest::buildFrameFailures()
{
    QFETCH(QString, text);
    QFETCH(int, format);
    QFETCH(QString, encoding);
    QFETCH(QString, error);
    SendFrameBuilder::Options o;
    o.format = MessageFormat(format);
    o.encoding = encoding;
    o.appendLineEnding = true;
    o.checksum = 5;
    const ValueResult<SendFrameBuilder::Frame> frame = SendFrameBuilder::build(text, o);
    QVERIFY(!frame.isOk());
    QCOMPARE(frame.errorText(), error);
}

void TerminalPipelineTest::historyBoundAndOrder()
{
    SendHistory history;
    for (int i = 1; i <= 257; ++i)
        history.record(QString::number(i), MessageFormat::Text);
    QCOMPARE(history.size(), 257);  // nothing dropped while 256 or fewer were held
    QCOMPARE(history.entries().first(), QString("257"));
    QCOMPARE(history.entries().last(), QString("1"));

    history.record("258", MessageFormat::Text);  // the 258th distinct text
    QCOMPARE(history.size(), 257);
    QCOMPARE(history.entries().first(), QString("258"));
    QCOMPARE(history.entries().last(), QString("2"));

    history.record("100", MessageFormat::Text);  // again: moved to the front
    QCOMPARE(history.size(), 256);  // the bound is applied before the duplicate goes
    QCOMPARE(history.entries().first(), QString("100"));
    QCOMPARE(history.entries().count("100"), 1);

    SendHistory hex(QStringList{"AT"});
    hex.record("0a ff", MessageFormat::Hex);
    hex.record("0A FF", MessageFormat::Hex);
    hex.record("at", MessageFormat::Text);  // text keeps its case
    hex.record("", MessageFormat::Text);
    QCOMPARE(hex.entries(), (QStringList{"at", "0A FF", "AT"}));
}

void TerminalPipelineTest::lineByLineOrder_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QStringList>("sent");
    QTest::newRow("trailing line feed gives an empty line") << "a\nb\n" << QStringList{"a", "b", "", "a", "b"};
    QTest::newRow("empty line in the middle") << "a\n\nc" << QStringList{"a", "", "c", "a"};
    QTest::newRow("one line") << "AT" << QStringList{"AT", "AT"};
    QTest::newRow("empty") << "" << QStringList{"", ""};
}

void TerminalPipelineTest::lineByLineOrder()
{
    QFETCH(QString, text);
    QFETCH(QStringList, sent);
    LineStepper stepper;
    QStringList got;
    for (qsizetype i = 0; i < sent.size(); ++i)
        got << stepper.next(text);
    QCOMPARE(got, sent);
    QCOMPARE(stepper.index(), qint64(sent.size()));

    // A shorter text picks up at the index modulo its own line count.
    QCOMPARE(stepper.next("x\ny\nz"), QString("xyz").mid(int(sent.size() % 3), 1));
    stepper.reset();
    QCOMPARE(stepper.next("first\nsecond"), QString("first"));
}

QTEST_GUILESS_MAIN(TerminalPipelineTest)
#include "tst_terminalpipeline.moc"
