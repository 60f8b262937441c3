// The XMODEM/YMODEM state machine fed bytes one at a time on a virtual
// clock: block framing, the retry and timing rules of both sides, cancel
// handling, header parsing, and two codecs talking to each other across a
// link that damages what the sender sends.
#include "support/fuzzseeds.h"
#include "codecharness.h"
#include "xmodemfuzztarget.h"

#include <QtTest>

namespace {

constexpr char SOH = 0x01, STX = 0x02, EOT = 0x04, ACK = 0x06, NAK = 0x15, CAN = 0x18, SUB = 0x1A;

QByteArray pattern(qsizetype size, quint32 seed = 7)
{
    QByteArray data(size, Qt::Uninitialized);
    QRandomGenerator rng(seed);
    for (qsizetype i = 0; i < size; ++i)
        data[i] = char(rng.bounded(256));
    return data;
}

// Feeds bytes one at a time, reporting every write as complete at once,
// and gathers all that the codec wrote and how it ended.
struct Feeder
{
    XmodemCodec &codec;
    QByteArray written;  // since the last drain()
    QByteArray all;
    XmodemAction last;

    void take(const XmodemAction &a, qint64 now)
    {
        last = a;
        written += a.write;
        all += a.write;
        if (!a.write.isEmpty() && !a.ended()) {
            const XmodemAction after = codec.onBytesWritten(now);
            take(after, now);
        }
    }
    void feed(QByteArrayView bytes, qint64 now)
    {
        for (char c : bytes) {
            if (codec.isEnded())
                return;
            take(codec.onBytes(QByteArrayView(&c, 1), now), now);
            if (codec.isEnded())
                return;
        }
    }
    QByteArray drain()
    {
        QByteArray out = written;
        written.clear();
        return out;
    }
};

QByteArray block(int number, const QByteArray &data, bool crc)
{
    return XmodemCodec::makeBlock(number, data, crc);
}

} // namespace

class TestXmodemCodec : public QObject
{
    Q_OBJECT

private slots:
    void crcMatchesTheXmodemCheckValue();
    void blocksCarryTheRightSizeAndFill_data();
    void blocksCarryTheRightSizeAndFill();
    void senderWaitsOneMinuteForTheFirstRequest();
    void senderRetriesTenTimesThenCancels();
    void senderReportsUnreadableOrChangedFiles_data();
    void senderReportsUnreadableOrChangedFiles();
    void waitStartsOnlyOnceTheWriteIsDone();
    void receiverFallsBackToChecksumAfterSixRequests();
    void ymodemReceiverNeverFallsBack();
    void duplicateBlockIsAcknowledgedButNotWrittenAgain();
    void strayBytesAndEndsBetweenBlocks_data();
    void strayBytesAndEndsBetweenBlocks();
    void badFirstBlockKeepsTheReceiverStarting();
    void silenceInsideABlockAsksForItAgain_data();
    void silenceInsideABlockAsksForItAgain();
    void endWithBytesBehindItIsNoise();
    void unacknowledgedBatchEndFinishesTheSend();
    void cancelNeedsTwoCansInARow_data();
    void cancelNeedsTwoCansInARow();
    void receiverFailures_data();
    void receiverFailures();
    void headerSizeCutsTheLastBlock();
    void headerFieldsAreParsed_data();
    void headerFieldsAreParsed();
    void localCancelSendsTheSequenceOnce();
    void codecsAgreeAcrossALink_data();
    void codecsAgreeAcrossALink();
    void damagedLinkRecoversWithoutCorruptData_data();
    void damagedLinkRecoversWithoutCorruptData();
    void ymodemGAbandonsOnTheFirstBadBlock();
    void noiseNeverBreaksEitherSide_data();
    void noiseNeverBreaksEitherSide();
    void ymodemEndBeforeTheHeaderIsNoise();
    void fuzzSeeds();
};

void TestXmodemCodec::crcMatchesTheXmodemCheckValue()
{
    QCOMPARE(XmodemCodec::crc16("123456789"), quint16(0x31C3));
    QCOMPARE(XmodemCodec::checksum8(QByteArray("\x01\xFF\x02", 3)), quint8(0x02));
}

void TestXmodemCodec::blocksCarryTheRightSizeAndFill_data()
{
    QTest::addColumn<int>("variant");
    QTest::addColumn<int>("size");
    QTest::addColumn<bool>("force128");
    QTest::addColumn<QByteArray>("starts");   // first byte of each block, then EOT
    QTest::addColumn<int>("lastFill");        // SUB bytes in the last block

    const auto v = [](XmodemVariant x) { return toInt(x); };
    QTest::newRow("1K 130 bytes: one STX") << v(XmodemVariant::Xmodem1K) << 130 << false << QByteArray("\x02\x04") << 894;
    QTest::newRow("1K 100 bytes: one SOH") << v(XmodemVariant::Xmodem1K) << 100 << false << QByteArray("\x01\x04") << 28;
    QTest::newRow("1K 1025: STX then SOH") << v(XmodemVariant::Xmodem1K) << 1025 << false << QByteArray("\x02\x01\x04") << 127;
    QTest::newRow("1K forced short 300") << v(XmodemVariant::Xmodem1K) << 300 << true << QByteArray("\x01\x01\x01\x04") << 84;
    QTest::newRow("CRC 129: two SOH") << v(XmodemVariant::XmodemCrc) << 129 << false << QByteArray("\x01\x01\x04") << 127;
    QTest::newRow("checksum 128: one SOH") << v(XmodemVariant::Xmodem) << 128 << false << QByteArray("\x01\x04") << 0;
    QTest::newRow("empty: EOT only") << v(XmodemVariant::Xmodem1K) << 0 << false << QByteArray("\x04") << 0;
}

void TestXmodemCodec::blocksCarryTheRightSizeAndFill()
{
    QFETCH(int, variant);
    QFETCH(int, size);
    QFETCH(bool, force128);
    QFETCH(QByteArray, starts);
    QFETCH(int, lastFill);

    const bool checksum = variant == toInt(XmodemVariant::Xmodem);
    const QByteArray data = pattern(size);
    MemorySource source(data);
    XmodemCodec codec(XmodemVariant(variant), &source);
    codec.setForceShortBlocks(force128);
    Feeder f{codec, {}, {}, {}};
    f.take(codec.startSend(0), 0);
    QVERIFY(f.drain().isEmpty());
    f.feed(QByteArray(1, checksum ? NAK : 'C'), 10);

    QByteArray seenStarts;
    QByteArray payload;
    for (int guard = 0; guard < 20; ++guard) {
        const QByteArray out = f.drain();
        QVERIFY2(!out.isEmpty(), "the sender went quiet");
        seenStarts += out.at(0);
        if (out.at(0) == EOT) {
            f.feed(QByteArray(1, ACK), 20);
            break;
        }
        const int dataLen = out.at(0) == SOH ? 128 : 1024;
        QCOMPARE(out.size(), 3 + dataLen + (checksum ? 1 : 2));
        QCOMPARE(quint8(out.at(1)) ^ quint8(out.at(2)), 0xFF);
        payload += out.mid(3, dataLen);
        f.feed(QByteArray(1, ACK), 20);
    }
    QCOMPARE(seenStarts, starts);
    QCOMPARE(payload.left(size), data);
    QCOMPARE(payload.size() - size, qsizetype(lastFill));
    QCOMPARE(payload.mid(size).count(SUB), qsizetype(lastFill));
    QVERIFY(f.last.finished());
}

void TestXmodemCodec::senderWaitsOneMinuteForTheFirstRequest()
{
    MemorySource source(pattern(10));
    XmodemCodec codec(XmodemVariant::XmodemCrc, &source);
    const XmodemAction first = codec.startSend(1000);
    QCOMPARE(first.wakeAtMs, 61000);
    // Noise is no request; early ticks change nothing.
    QVERIFY(codec.onBytes("xyz", 2000).write.isEmpty());
    QCOMPARE(codec.tick(30000).wakeAtMs, 61000);
    const XmodemAction end = codec.tick(61000);
    QVERIFY(end.failed());
    QCOMPARE(end.errorCode(), int(XmodemError::NeverStarted));
    QVERIFY(end.write.isEmpty());  // nobody to cancel
    QVERIFY(end.message().startsWith("The device did not request the transfer."));
    QVERIFY(codec.tick(99999).write.isEmpty());
}

void TestXmodemCodec::senderRetriesTenTimesThenCancels()
{
    MemorySource source(pattern(10));
    XmodemCodec codec(XmodemVariant::XmodemCrc, &source);
    Feeder f{codec, {}, {}, {}};
    f.take(codec.startSend(0), 0);
    f.feed("C", 0);
    const QByteArray firstBlock = f.drain();
    QCOMPARE(firstBlock.size(), 133);
    // NAKs and silences both cost a retry; each brings the same block again.
    qint64 now = 0;
    for (int i = 1; i <= 10; ++i) {
        if (i % 2) {
            f.feed(QByteArray(1, NAK), now);
        } else {
            QCOMPARE(f.last.wakeAtMs, now + 10000);
            now += 10000;
            f.take(codec.tick(now), now);
        }
        QCOMPARE(f.drain(), firstBlock);
    }
    QCOMPARE(codec.progress().totalRetries, 10);
    f.feed(QByteArray(1, NAK), now);
    QVERIFY(f.last.failed());
    QCOMPARE(f.last.errorCode(), int(XmodemError::RetriesExhausted));
    QCOMPARE(f.last.message(), QStringLiteral("Gave up after 10 retries."));
    QCOMPARE(f.drain(), XmodemCodec::cancelSequence());
    QCOMPARE(XmodemCodec::cancelSequence(), QByteArray(8, CAN) + QByteArray(8, 0x08));
}

void TestXmodemCodec::senderReportsUnreadableOrChangedFiles_data()
{
    QTest::addColumn<bool>("failReads");
    QTest::addColumn<bool>("changed");
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("message");
    QTest::newRow("unreadable") << true << false << int(XmodemError::ReadFailed)
                                << QStringLiteral("Could not read the file being sent.");
    QTest::newRow("changed") << false << true << int(XmodemError::FileChanged)
                             << QStringLiteral("The file changed while it was being sent.");
}

void TestXmodemCodec::senderReportsUnreadableOrChangedFiles()
{
    QFETCH(bool, failReads);
    QFETCH(bool, changed);
    QFETCH(int, code);
    QFETCH(QString, message);
    MemorySource source(pattern(200));
    XmodemCodec codec(XmodemVariant::XmodemCrc, &source);
    Feeder f{codec, {}, {}, {}};
    f.take(codec.startSend(0), 0);
    f.feed("C", 0);
    QCOMPARE(f.drain().size(), 133);
    source.failReads = failReads;
    source.changed = changed;
    f.feed(QByteArray(1, ACK), 1);
    if (!failReads) {
        QCOMPARE(f.drain().size(), 133);
        f.feed(QByteArray(1, ACK), 2);
    }
    QVERIFY(f.last.failed());
    QCOMPARE(f.last.errorCode(), code);
    QCOMPARE(f.last.message(), message);
    QCOMPARE(f.drain(), XmodemCodec::cancelSequence());
}

void TestXmodemCodec::waitStartsOnlyOnceTheWriteIsDone()
{
    MemorySource source(pattern(300));
    XmodemCodec codec(XmodemVariant::XmodemCrc, &source);
    codec.startSend(0);
    const XmodemAction sent = codec.onBytes("C", 100);
    QCOMPARE(sent.write.size(), 133);
    QCOMPARE(sent.wakeAtMs, XmodemAction::kNoWake);
    // An ACK arriving before the write completes waits in the buffer, and
    // ticks do nothing while the bytes are on their way.
    QVERIFY(codec.onBytes(QByteArray(1, ACK), 200).write.isEmpty());
    QVERIFY(codec.tick(50000).write.isEmpty());
    const XmodemAction next = codec.onBytesWritten(60000);
    QCOMPARE(next.write.size(), 133);
    QCOMPARE(quint8(next.write.at(1)), quint8(2));
    const XmodemAction waiting = codec.onBytesWritten(60500);
    QCOMPARE(waiting.wakeAtMs, 70500);
}

void TestXmodemCodec::receiverFallsBackToChecksumAfterSixRequests()
{
    MemorySink sink;
    XmodemCodec codec(XmodemVariant::XmodemCrc, &sink);
    Feeder f{codec, {}, {}, {}};
    f.take(codec.startReceive(QStringLiteral("x.bin"), 0), 0);
    QCOMPARE(sink.opens, 1);
    QByteArray requests = f.drain();
    QList<qint64> times{0};
    qint64 now = 0;
    while (!codec.isEnded() && now < 70000) {
        now = f.last.wakeAtMs;
        QVERIFY(now > 0);
        f.take(codec.tick(now), now);
        const QByteArray out = f.drain();
        if (!out.isEmpty()) {
            requests += out;
            times << now;
        }
    }
    // 'C' at 0, 3, 6, 9, 12, 15 s; NAK from the seventh on, 10 s apart;
    // the start gives up 60 s after it began.
    QCOMPARE(requests, QByteArray("CCCCCC") + QByteArray(5, NAK));
    QCOMPARE(times, (QList<qint64>{0, 3000, 6000, 9000, 12000, 15000, 18000, 28000, 38000, 48000, 58000}));
    QVERIFY(f.last.failed());
    QCOMPARE(now, 68000);
    QCOMPARE(f.last.errorCode(), int(XmodemError::NeverStarted));
    QVERIFY(f.last.message().startsWith("The device did not start sending."));
    QVERIFY(f.last.write.isEmpty());

    // A checksum sender answering the seventh request is understood.
    MemorySink sink2;
    XmodemCodec late(XmodemVariant::XmodemCrc, &sink2);
    Feeder g{late, {}, {}, {}};
    g.take(late.startReceive(QStringLiteral("x.bin"), 0), 0);
    for (qint64 t = 3000; t <= 18000; t += 3000)
        g.take(late.tick(t), t);
    QCOMPARE(g.drain(), QByteArray("CCCCCC") + QByteArray(1, NAK));
    const QByteArray data = pattern(128);
    g.feed(block(1, data, false), 19000);
    QCOMPARE(g.drain(), QByteArray(1, ACK));
    g.feed(QByteArray(1, EOT), 19000);
    QVERIFY(g.last.finished());  // acknowledged at once
    QCOMPARE(g.drain(), QByteArray(1, ACK));
    QCOMPARE(sink2.data, data);
}

void TestXmodemCodec::ymodemReceiverNeverFallsBack()
{
    MemorySink sink;
    XmodemCodec codec(XmodemVariant::Ymodem, &sink);
    Feeder f{codec, {}, {}, {}};
    f.take(codec.startReceive(QString(), 0), 0);
    QCOMPARE(sink.opens, 0);  // opened when the header names the file
    for (qint64 t = 3000; t < 60000; t += 3000)
        f.take(codec.tick(t), t);
    QCOMPARE(f.drain(), QByteArray(20, 'C'));
}

void TestXmodemCodec::duplicateBlockIsAcknowledgedButNotWrittenAgain()
{
    MemorySink sink;
    XmodemCodec codec(XmodemVariant::XmodemCrc, &sink);
    Feeder f{codec, {}, {}, {}};
    f.take(codec.startReceive(QStringLiteral("d.bin"), 0), 0);
    f.drain();
    const QByteArray one = pattern(128, 1), two = pattern(128, 2);
    f.feed(block(1, one, true), 10);
    f.feed(block(1, one, true), 20);
    f.feed(block(2, two, true), 30);
    QCOMPARE(f.drain(), QByteArray(3, ACK));
    // A block that skips ahead means the two sides are out of step.
    f.feed(block(4, two, true), 40);
    QVERIFY(f.last.failed());
    QCOMPARE(f.last.errorCode(), int(XmodemError::OutOfStep));
    QCOMPARE(f.last.message(), QStringLiteral("Block 4 arrived when block 3 was expected; the transfer is out of step."));
    QCOMPARE(f.drain(), XmodemCodec::cancelSequence());
    QCOMPARE(sink.data, one + two);
}

void TestXmodemCodec::strayBytesAndEndsBetweenBlocks_data()
{
    QTest::addColumn<int>("variant");
    QTest::addColumn<int>("announced");  // the YMODEM header's size; -1 for XMODEM
    QTest::newRow("XMODEM-CRC") << toInt(XmodemVariant::XmodemCrc) << -1;
    QTest::newRow("YMODEM, EOT short of the size") << toInt(XmodemVariant::Ymodem) << 1000;
    QTest::newRow("YMODEM-G, EOT short of the size") << toInt(XmodemVariant::YmodemG) << 1000;
}

// A byte between blocks that cannot start one is dropped, in every variant
// (YMODEM-G too), and the next block is taken whole. An EOT ends the file at
// once, even before the size a header announced.
void TestXmodemCodec::strayBytesAndEndsBetweenBlocks()
{
    QFETCH(int, variant);
    QFETCH(int, announced);
    const XmodemVariant v = XmodemVariant(variant);
    const bool ymodem = isYmodemVariant(v);
    const bool streaming = v == XmodemVariant::YmodemG;
    MemorySink sink;
    XmodemCodec codec(v, &sink);
    Feeder f{codec, {}, {}, {}};
    f.take(codec.startReceive(QStringLiteral("s.bin"), 0), 0);
    f.drain();
    if (ymodem) {
        f.feed(block(0, XmodemCodec::makeHeaderData(QStringLiteral("s.bin"), announced, 0), true), 0);
        QCOMPARE(f.drain(), QByteArray(1, ACK) + (streaming ? "G" : "C"));
    }
    const QByteArray one = pattern(128, 1), two = pattern(128, 2);
    f.feed(block(1, one, true), 10);
    f.feed("\x55", 20);  // a stray byte on the line
    f.feed(block(2, two, true), 30);
    QVERIFY(!codec.isEnded());
    QCOMPARE(f.drain(), streaming ? QByteArray() : QByteArray(2, ACK));
    QCOMPARE(codec.progress().totalRetries, 0);
    QCOMPARE(sink.data, one + two);

    f.feed(QByteArray(1, EOT), 40);
    QCOMPARE(sink.finishes, 1);
    QCOMPARE(sink.data.size(), 256);
    if (!ymodem) {
        QVERIFY(f.last.finished());
        QCOMPARE(f.drain(), QByteArray(1, ACK));
        return;
    }
    QCOMPARE(f.drain(), QByteArray(1, ACK) + (streaming ? "G" : "C"));
    QCOMPARE(codec.state(), XmodemCodec::State::RecvWaitBatchEnd);
    f.feed(block(0, QByteArray(128, '\0'), true), 50);
    QVERIFY(f.last.finished());
}

void TestXmodemCodec::silenceInsideABlockAsksForItAgain_data()
{
    QTest::addColumn<int>("variant");
    QTest::addColumn<int>("lost");  // index of the byte the line lost
    for (const XmodemVariant v : {XmodemVariant::Xmodem, XmodemVariant::XmodemCrc, XmodemVariant::Ymodem,
                                  XmodemVariant::YmodemG}) {
        const QByteArray name = QByteArray::number(toInt(v));
        QTest::newRow(name + ", block number") << toInt(v) << 1;
        QTest::newRow(name + ", data") << toInt(v) << 60;
        QTest::newRow(name + ", last byte") << toInt(v) << -1;
    }
}

// A block short of one byte never completes. One second of silence says so:
// the receiver drops it and asks again at once, not after the ten-second
// wait; the repeat is then taken whole. YMODEM-G cannot ask again.
void TestXmodemCodec::silenceInsideABlockAsksForItAgain()
{
    QFETCH(int, variant);
    QFETCH(int, lost);
    const XmodemVariant v = XmodemVariant(variant);
    const bool crc = v != XmodemVariant::Xmodem;
    const bool streaming = v == XmodemVariant::YmodemG;
    MemorySink sink;
    XmodemCodec codec(v, &sink);
    Feeder f{codec, {}, {}, {}};
    f.take(codec.startReceive(QStringLiteral("l.bin"), 0), 0);
    if (isYmodemVariant(v))
        f.feed(block(0, XmodemCodec::makeHeaderData(QStringLiteral("l.bin"), 256, 0), true), 0);
    const QByteArray one = pattern(128, 1), two = pattern(128, 2);
    f.feed(block(1, one, crc), 10);
    f.drain();
    QByteArray shortBlock = block(2, two, crc);
    shortBlock.remove(lost < 0 ? shortBlock.size() - 1 : lost, 1);
    f.feed(shortBlock, 100);
    QVERIFY(f.drain().isEmpty());
    if (streaming) {
        QVERIFY(f.last.wakeAtMs >= 10000);  // its own wait, nothing sooner
        f.take(codec.tick(1100), 1100);
        QVERIFY(f.drain().isEmpty());
        QVERIFY(!codec.isEnded());
        return;
    }
    QCOMPARE(f.last.wakeAtMs, 100 + XmodemCodec::kCharTimeoutMs);
    f.take(codec.tick(1099), 1099);
    QVERIFY(f.drain().isEmpty());
    f.take(codec.tick(1100), 1100);
    QCOMPARE(f.drain(), QByteArray(1, NAK));
    QCOMPARE(codec.progress().totalRetries, 1);
    QCOMPARE(f.last.wakeAtMs, 1100 + XmodemCodec::kWaitMs);  // from when the NAK went out
    f.take(codec.tick(1200), 1200);
    QVERIFY(f.drain().isEmpty());
    f.feed(block(2, two, crc), 1300);
    QCOMPARE(f.drain(), QByteArray(1, ACK));
    QCOMPARE(sink.data, one + two);
    // Bytes that keep coming hold the second off.
    f.feed(block(3, pattern(128, 3), crc).left(50), 1400);
    f.feed(QByteArray(1, '\x33'), 2300);
    f.take(codec.tick(2400), 2400);
    QVERIFY(f.drain().isEmpty());
}

// A damaged byte inside a block may read as EOT; the sender's real EOT has
// nothing behind it while it waits for the answer.
void TestXmodemCodec::endWithBytesBehindItIsNoise()
{
    MemorySink sink;
    XmodemCodec codec(XmodemVariant::XmodemCrc, &sink);
    Feeder f{codec, {}, {}, {}};
    f.take(codec.startReceive(QStringLiteral("e.bin"), 0), 0);
    f.feed(block(1, pattern(128, 1), true), 10);
    f.drain();
    f.take(codec.onBytes(QByteArray("\x04\x55\x66", 3), 20), 20);
    QVERIFY(!codec.isEnded());
    QCOMPARE(sink.finishes, 0);
    f.take(codec.onBytes(QByteArray(1, EOT), 30), 30);
    QVERIFY(f.last.finished());
    QCOMPARE(sink.data, pattern(128, 1));
}

// A damaged first block does not end the start: the receiver keeps its
// start rhythm and, for XMODEM-CRC, still falls back to checksums.
void TestXmodemCodec::badFirstBlockKeepsTheReceiverStarting()
{
    MemorySink sink;
    XmodemCodec codec(XmodemVariant::XmodemCrc, &sink);
    Feeder f{codec, {}, {}, {}};
    f.take(codec.startReceive(QStringLiteral("b.bin"), 0), 0);
    QCOMPARE(f.drain(), QByteArray("C"));
    QByteArray bad = block(1, pattern(128), true);
    bad[50] = char(bad.at(50) ^ 0x01);
    f.feed(bad, 100);
    QCOMPARE(f.drain(), QByteArray(1, NAK));
    QCOMPARE(codec.state(), XmodemCodec::State::RecvStarting);
    QCOMPARE(f.last.wakeAtMs, 100 + XmodemCodec::kWaitMs);
    qint64 now = f.last.wakeAtMs;
    QByteArray asked;
    while (!codec.crcMode() || asked.size() < 6) {
        f.take(codec.tick(now), now);
        asked += f.drain();
        if (!codec.crcMode())
            break;
        now = f.last.wakeAtMs;
    }
    // Start characters 3 s apart, then checksums from the seventh attempt.
    QCOMPARE(asked, QByteArray("CCCCC") + QByteArray(1, NAK));
    QVERIFY(!codec.crcMode());
    QCOMPARE(f.last.wakeAtMs - now, XmodemCodec::kChecksumStartRepeatMs);
}

// lrzsz's rb acknowledges the end-of-batch header and flushes its tty as it
// leaves, so the acknowledgement never arrives: the send ends as finished,
// without retries and without a cancel left on the line.
void TestXmodemCodec::unacknowledgedBatchEndFinishesTheSend()
{
    MemorySource source(pattern(300));
    XmodemCodec codec(XmodemVariant::Ymodem, &source);
    codec.setSendFileInfo(QStringLiteral("e.bin"), 0);
    Feeder f{codec, {}, {}, {}};
    f.take(codec.startSend(0), 0);
    f.feed("C", 0);
    f.feed(QByteArray(1, ACK), 0);
    f.feed("C", 0);
    f.feed(QByteArray(1, ACK), 0);  // one 1024-byte block
    f.feed(QByteArray(1, ACK), 0);  // the EOT
    f.feed("C", 0);
    const QByteArray sent = f.drain();
    QVERIFY(sent.endsWith(block(0, QByteArray(128, '\0'), true)));
    QCOMPARE(f.last.wakeAtMs, XmodemCodec::kWaitMs);
    f.take(codec.tick(XmodemCodec::kWaitMs), XmodemCodec::kWaitMs);
    QVERIFY(f.last.finished());
    QVERIFY(f.drain().isEmpty());
    QCOMPARE(codec.progress().totalRetries, 0);
}

void TestXmodemCodec::cancelNeedsTwoCansInARow_data()
{
    QTest::addColumn<bool>("sending");
    QTest::addColumn<QByteArray>("input");
    QTest::addColumn<bool>("cancelled");
    QTest::newRow("send: one CAN, then noise") << true << QByteArray("\x18x\x18", 3) << false;
    QTest::newRow("send: two CAN") << true << QByteArray("\x18\x18", 2) << true;
    QTest::newRow("receive: one CAN, then noise") << false << QByteArray("\x18" "a\x18", 3) << false;
    QTest::newRow("receive: two CAN") << false << QByteArray("\x18\x18", 2) << true;
}

void TestXmodemCodec::cancelNeedsTwoCansInARow()
{
    QFETCH(bool, sending);
    QFETCH(QByteArray, input);
    QFETCH(bool, cancelled);
    MemorySource source(pattern(10));
    MemorySink sink;
    XmodemCodec codec = sending ? XmodemCodec(XmodemVariant::XmodemCrc, &source)
                                : XmodemCodec(XmodemVariant::XmodemCrc, &sink);
    Feeder f{codec, {}, {}, {}};
    if (sending) {
        f.take(codec.startSend(0), 0);
        f.feed("C", 0);
    } else {
        f.take(codec.startReceive(QStringLiteral("c.bin"), 0), 0);
    }
    f.drain();
    f.feed(input, 5);
    QCOMPARE(codec.isEnded(), cancelled);
    if (cancelled) {
        QCOMPARE(f.last.errorCode(), int(XmodemError::DeviceCancelled));
        QCOMPARE(f.last.message(), QStringLiteral("The device cancelled the transfer."));
        QVERIFY(f.drain().isEmpty());  // no cancel sequence back
    }
}

void TestXmodemCodec::receiverFailures_data()
{
    QTest::addColumn<int>("variant");
    QTest::addColumn<QString>("fault");
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("message");
    QTest::addColumn<bool>("cancelSequence");
    const int x = toInt(XmodemVariant::XmodemCrc), y = toInt(XmodemVariant::Ymodem);
    QTest::newRow("cannot create") << x << "open" << int(XmodemError::CreateFailed)
                                   << "Could not create the destination file." << true;
    QTest::newRow("ymodem cannot create") << y << "open" << int(XmodemError::CreateFailed)
                                          << "Could not create the destination file." << true;
    QTest::newRow("disk write") << x << "write" << int(XmodemError::WriteFailed) << "Writing to disk failed." << true;
    QTest::newRow("cannot save") << y << "finish" << int(XmodemError::SaveFailed)
                                 << "The data was received but could not be saved." << false;
    QTest::newRow("xmodem over cap") << x << "cap" << int(XmodemError::SizeCap)
                                     << "Received 256 bytes without an end of transfer. XMODEM has no length field, so there is no way to tell when it should stop."
                                     << true;
    QTest::newRow("ymodem offer over cap") << y << "cap" << int(XmodemError::SizeCap)
                                           << "The device offered a 300 byte file, which is over the receive limit." << true;
    QTest::newRow("malformed header") << y << "header" << int(XmodemError::OutOfStep)
                                      << "The device sent a malformed file header." << true;
    QTest::newRow("bad blocks") << x << "noise" << int(XmodemError::RetriesExhausted)
                                << "Data kept failing its checksum. This is usually a baud rate mismatch or line noise." << true;
    QTest::newRow("silence") << y << "silence" << int(XmodemError::RetriesExhausted)
                             << "Gave up after 10 retries." << true;
    // A cancel where data was expected is known by the silence after it.
    QTest::newRow("cancel inside a block") << x << "cancel in block" << int(XmodemError::DeviceCancelled)
                                           << "The device cancelled the transfer." << false;
    QTest::newRow("cancel while dropping a bad block") << x << "cancel in purge" << int(XmodemError::DeviceCancelled)
                                                       << "The device cancelled the transfer." << false;
    // No file is open before the header, so there is nowhere for data to go.
    QTest::newRow("ymodem data before the header")
        << y << "no header" << int(XmodemError::OutOfStep)
        << "Block 1 arrived when block 0 was expected; the transfer is out of step." << true;
}

void TestXmodemCodec::receiverFailures()
{
    QFETCH(int, variant);
    QFETCH(QString, fault);
    QFETCH(int, code);
    QFETCH(QString, message);
    QFETCH(bool, cancelSequence);

    const bool ymodem = isYmodemVariant(XmodemVariant(variant));
    MemorySink sink;
    sink.failOpen = fault == "open";
    sink.failWrite = fault == "write";
    sink.failFinish = fault == "finish";
    XmodemCodec codec(XmodemVariant(variant), &sink);
    if (fault == "cap")
        codec.setReceiveSizeCap(200);
    Feeder f{codec, {}, {}, {}};
    f.take(codec.startReceive(QStringLiteral("r.bin"), 0), 0);
    f.drain();
    qint64 now = 0;
    if (!codec.isEnded() && ymodem && fault != "no header") {
        QByteArray header = XmodemCodec::makeHeaderData(QStringLiteral("r.bin"), 300, 0);
        if (fault == "header")
            header.fill('A');
        f.feed(block(0, header, true), now);
    }
    if (!codec.isEnded()) {
        f.drain();
        if (fault == "noise") {
            QByteArray bad = block(1, pattern(128), true);
            bad[50] = char(bad.at(50) ^ 0x01);
            for (int i = 0; i < 11 && !codec.isEnded(); ++i)
                f.feed(bad, now);
            QCOMPARE(codec.progress().totalRetries, 11);
        } else if (fault.startsWith("cancel")) {
            f.feed(block(1, pattern(128, 1), true), now);
            QByteArray partial = block(2, pattern(128, 2), true).left(60);
            if (fault == "cancel in purge")
                partial[0] = 0x11;  // a damaged start: the rest is dropped
            f.feed(partial + QByteArray(8, 0x18) + QByteArray(8, 0x08), now);
            for (int i = 0; i < 3 && !codec.isEnded(); ++i) {
                now = f.last.wakeAtMs;
                f.take(codec.tick(now), now);
            }
            QCOMPARE(sink.data, pattern(128, 1));
        } else if (fault == "silence") {
            for (int i = 0; i < 11 && !codec.isEnded(); ++i) {
                now = f.last.wakeAtMs;
                f.take(codec.tick(now), now);
            }
        } else {
            f.feed(block(1, pattern(128, 1), true), now);
            f.feed(block(2, pattern(128, 2), true), now);
            f.feed(block(3, pattern(128, 3), true), now);
            f.feed(QByteArray(1, EOT), now);
        }
    }
    QVERIFY(codec.isEnded());
    QVERIFY(f.last.failed());
    QCOMPARE(f.last.errorCode(), code);
    QCOMPARE(f.last.message(), message);
    QCOMPARE(f.all.endsWith(XmodemCodec::cancelSequence()), cancelSequence);
    if (fault == "silence")  // asked with 'C' while nothing had arrived yet
        QCOMPARE(f.written.left(10), QByteArray(10, 'C'));
    if (fault == "no header")
        QVERIFY(sink.opens == 0 && sink.data.isEmpty());
}

void TestXmodemCodec::headerSizeCutsTheLastBlock()
{
    MemorySink sink;
    XmodemCodec codec(XmodemVariant::Ymodem, &sink);
    Feeder f{codec, {}, {}, {}};
    f.take(codec.startReceive(QString(), 0), 0);
    f.feed(block(0, XmodemCodec::makeHeaderData(QStringLiteral("k.bin"), 1000, 0), true), 0);
    QCOMPARE(f.drain(), QByteArray("C\x06" "C", 3));
    const QByteArray data = pattern(1024);
    f.feed(block(1, data, true), 0);
    // Blocks beyond the announced end write nothing but are acknowledged.
    f.feed(block(2, pattern(1024, 3), true), 0);
    f.feed(QByteArray(1, EOT), 0);
    QCOMPARE(f.drain(), QByteArray("\x06\x06\x06" "C", 4));
    QCOMPARE(sink.data, data.left(1000));
    QCOMPARE(sink.finishedSize, 1000);
    QVERIFY(!codec.isEnded());
    f.feed(block(0, QByteArray(128, '\0'), true), 0);
    QVERIFY(f.last.finished());
}

void TestXmodemCodec::headerFieldsAreParsed_data()
{
    QTest::addColumn<QByteArray>("fields");
    QTest::addColumn<qint64>("size");
    QTest::addColumn<qint64>("mtime");
    QTest::newRow("size and octal time") << QByteArray("77 14000000000 100644 0 1 77") << qint64(77) << qint64(014000000000);
    QTest::newRow("size only") << QByteArray("12") << qint64(12) << qint64(0);
    QTest::newRow("nothing") << QByteArray() << qint64(-1) << qint64(0);
    QTest::newRow("negative size, zero time") << QByteArray("-5 0") << qint64(-1) << qint64(0);
    QTest::newRow("garbage") << QByteArray("abc 99") << qint64(-1) << qint64(0);
}

void TestXmodemCodec::headerFieldsAreParsed()
{
    QFETCH(QByteArray, fields);
    QFETCH(qint64, size);
    QFETCH(qint64, mtime);
    MemorySink sink;
    XmodemCodec codec(XmodemVariant::Ymodem, &sink);
    Feeder f{codec, {}, {}, {}};
    f.take(codec.startReceive(QString(), 0), 0);
    QByteArray header = QByteArray("n.bin") + '\0' + fields;
    header.append(128 - header.size(), '\0');
    f.feed(block(0, header, true), 0);
    QCOMPARE(sink.openedName, QStringLiteral("n.bin"));
    QCOMPARE(sink.openedSize, size);
    QCOMPARE(sink.mtime, mtime);
    QCOMPARE(codec.progress().totalBytes, size);

    // An empty name is an empty batch: acknowledged, nothing opened.
    MemorySink none;
    XmodemCodec empty(XmodemVariant::Ymodem, &none);
    Feeder e{empty, {}, {}, {}};
    e.take(empty.startReceive(QString(), 0), 0);
    e.feed(block(0, QByteArray(128, '\0'), true), 0);
    QVERIFY(e.last.finished());
    QCOMPARE(none.opens, 0);

    // Sending, a long name is cut to at most 100 bytes, whole characters.
    const QByteArray longName = XmodemCodec::makeHeaderData(QString(60, QChar(0x00E9)), 1, 0);
    QCOMPARE(longName.indexOf('\0'), 100);
    QCOMPARE(QString::fromUtf8(longName.left(100)), QString(50, QChar(0x00E9)));
}

void TestXmodemCodec::localCancelSendsTheSequenceOnce()
{
    MemorySink sink;
    XmodemCodec codec(XmodemVariant::Xmodem1K, &sink);
    codec.startReceive(QStringLiteral("z.bin"), 0);
    const XmodemAction cancelled = codec.cancel(10);
    QVERIFY(cancelled.failed());
    QCOMPARE(cancelled.errorCode(), int(XmodemError::LocalCancel));
    QCOMPARE(cancelled.message(), QStringLiteral("Cancelled."));
    QCOMPARE(cancelled.write, XmodemCodec::cancelSequence());
    QCOMPARE(codec.state(), XmodemCodec::State::Failed);
    const XmodemAction again = codec.cancel(20);
    QVERIFY(again.write.isEmpty() && !again.ended() && !again.wantsWake());
    QVERIFY(codec.onBytes(block(1, pattern(1024), true), 30).write.isEmpty());
    QVERIFY(sink.data.isEmpty());
}

void TestXmodemCodec::codecsAgreeAcrossALink_data()
{
    QTest::addColumn<int>("variant");
    QTest::addColumn<int>("size");
    QTest::addColumn<bool>("byteByByte");
    for (int v = 0; v <= 4; ++v) {
        for (int size : {0, 1, 127, 128, 129, 1023, 1024, 1025, 3000}) {
            QTest::addRow("%s %d", qPrintable(QString::number(v)), size) << v << size << true;
        }
        QTest::addRow("%d 300000 chunks", v) << v << 300000 << false;
    }
}

void TestXmodemCodec::codecsAgreeAcrossALink()
{
    QFETCH(int, variant);
    QFETCH(int, size);
    QFETCH(bool, byteByByte);
    const XmodemVariant v = XmodemVariant(variant);
    const QByteArray data = pattern(size, quint32(size));
    MemorySource source(data);
    MemorySink sink;
    XmodemCodec sender(v, &source);
    sender.setSendFileInfo(QStringLiteral("f ü.bin"), 1700000000);
    XmodemCodec receiver(v, &sink);
    CodecLink link(&sender, &receiver, 1);
    link.byteByByte = byteByByte;
    link.start(sender.startSend(0), receiver.startReceive(QStringLiteral("typed.bin"), 0));
    QVERIFY(link.run());
    QVERIFY2(link.end(0).end.success, qPrintable(link.end(0).end.message));
    QVERIFY2(link.end(1).end.success, qPrintable(link.end(1).end.message));
    if (isYmodemVariant(v)) {
        QCOMPARE(sink.data, data);
        QCOMPARE(sink.openedName, QStringLiteral("f ü.bin"));
        QCOMPARE(sink.mtime, 1700000000);
    } else {
        QCOMPARE(sink.data.left(size), data);
        QCOMPARE(sink.data.size() % 128, 0);
        QCOMPARE(sink.data.mid(size).count(SUB), sink.data.size() - size);
        QCOMPARE(sink.openedName, QStringLiteral("typed.bin"));
    }
    QCOMPARE(sender.progress().totalRetries, 0);
}

void TestXmodemCodec::damagedLinkRecoversWithoutCorruptData_data()
{
    QTest::addColumn<int>("variant");
    QTest::addColumn<quint32>("seed");
    const quint32 base = qEnvironmentVariableIsSet("TSL_XFER_SEED") ? quint32(qgetenv("TSL_XFER_SEED").toUInt())
                                                                     : QRandomGenerator::global()->generate();
    for (int v : {0, 1, 2, 3}) {
        for (quint32 i = 0; i < 4; ++i)
            QTest::addRow("variant %d seed %u", v, base + i) << v << base + i;
    }
}

void TestXmodemCodec::damagedLinkRecoversWithoutCorruptData()
{
    QFETCH(int, variant);
    QFETCH(quint32, seed);
    const XmodemVariant v = XmodemVariant(variant);
    const QByteArray data = pattern(20000, seed);
    MemorySource source(data);
    MemorySink sink;
    XmodemCodec sender(v, &source);
    sender.setSendFileInfo(QStringLiteral("n.bin"), 0);
    XmodemCodec receiver(v, &sink);
    CodecLink link(&sender, &receiver, seed);
    int faults = 0;
    int quiet = 0;
    // About one chunk in thirty from the sender is damaged: a bit flipped,
    // a byte dropped or a byte repeated; twelve faults at most, and at least
    // 150 chunks apart so one 128-byte block never takes two. An 8-bit sum
    // misses some shifted blocks and pairs of flips, so the checksum variant
    // gets single bit flips only (which it always catches).
    const bool flipsOnly = v == XmodemVariant::Xmodem;
    link.damage = [&faults, &quiet, flipsOnly](const QByteArray &chunk, QRandomGenerator &rng) {
        if (quiet > 0)
            --quiet;
        if (faults >= 12 || quiet > 0 || rng.bounded(30) != 0)
            return chunk;
        ++faults;
        quiet = 150;
        QByteArray out = chunk;
        // A block that loses its first byte cannot be told from line noise
        // (its data may hold an EOT, which ends the file): the damage spares
        // that byte, and the protocol recovers from all the rest.
        const bool blockStart = out.size() > 1 && (out.at(0) == SOH || out.at(0) == STX);
        const qsizetype at = blockStart ? 1 + rng.bounded(out.size() - 1) : rng.bounded(out.size());
        switch (flipsOnly ? 0 : rng.bounded(3)) {
        case 0: out[at] = char(out.at(at) ^ (1 << rng.bounded(8))); break;
        case 1: out.remove(at, 1); break;
        default: out.insert(at, out.at(at)); break;
        }
        return out;
    };
    link.start(sender.startSend(0), receiver.startReceive(QStringLiteral("n.bin"), 0));
    const bool ran = link.run();
    if (qEnvironmentVariableIsSet("TSL_XFER_TRACE"))
        qDebug().noquote() << link.trace.join('\n');
    QVERIFY2(ran, qPrintable(QStringLiteral("seed %1").arg(seed)));
    // Whatever happened, nothing corrupt was saved.
    QVERIFY2(data.startsWith(sink.data.left(qMin(sink.data.size(), data.size()))),
             qPrintable(QStringLiteral("corrupt data saved, seed %1").arg(seed)));
    QVERIFY2(link.end(1).end.success, qPrintable(QStringLiteral("seed %1: %2").arg(seed).arg(link.end(1).end.message)));
    QCOMPARE(sink.data.left(data.size()), data);
    if (faults > 0 && sender.progress().totalRetries + receiver.progress().totalRetries == 0)
        QWARN(qPrintable(QStringLiteral("%1 faults cost no retry (seed %2)").arg(faults).arg(seed)));
}

void TestXmodemCodec::ymodemGAbandonsOnTheFirstBadBlock()
{
    MemorySink sink;
    XmodemCodec codec(XmodemVariant::YmodemG, &sink);
    Feeder f{codec, {}, {}, {}};
    f.take(codec.startReceive(QString(), 0), 0);
    QCOMPARE(f.drain(), QByteArray("G"));
    f.feed(block(0, XmodemCodec::makeHeaderData(QStringLiteral("g.bin"), 5000, 0), true), 0);
    QCOMPARE(f.drain(), QByteArray("\x06G", 2));
    f.feed(block(1, pattern(1024, 1), true), 0);
    QVERIFY(f.drain().isEmpty());  // no acknowledgements while streaming
    QByteArray bad = block(2, pattern(1024, 2), true);
    bad[100] = char(bad.at(100) ^ 0x40);
    f.feed(bad, 0);
    QVERIFY(f.last.failed());
    QCOMPARE(f.last.errorCode(), int(XmodemError::RetriesExhausted));
    QCOMPARE(f.last.message(),
             QStringLiteral("A block failed its checksum. YMODEM-G cannot ask for it again, so the transfer has failed."));
    QCOMPARE(f.drain(), XmodemCodec::cancelSequence());

    // The sending side gives up on the first NAK.
    MemorySource source(pattern(5000));
    XmodemCodec sender(XmodemVariant::YmodemG, &source);
    Feeder s{sender, {}, {}, {}};
    s.take(sender.startSend(0), 0);
    s.feed("G", 0);
    s.feed(QByteArray(1, ACK), 0);
    s.feed("G", 0);
    QVERIFY(sender.streaming());
    // Each completed write brought the next block at once.
    QCOMPARE(s.drain().size(), 133 + 5 * 1029 + 1);
    QCOMPARE(sender.state(), XmodemCodec::State::SendWaitAck);
    s.feed(QByteArray(1, NAK), 0);
    QVERIFY(s.last.failed());
    QCOMPARE(s.last.message(),
             QStringLiteral("The device reported an error. YMODEM-G cannot resend a block, so the transfer has been abandoned."));
}

void TestXmodemCodec::noiseNeverBreaksEitherSide_data()
{
    QTest::addColumn<int>("variant");
    QTest::addColumn<bool>("sending");
    QTest::addColumn<quint32>("seed");
    const quint32 seed = QRandomGenerator::global()->generate();
    for (int v = 0; v <= 4; ++v) {
        QTest::addRow("receive %d seed %u", v, seed + v) << v << false << seed + v;
        QTest::addRow("send %d seed %u", v, seed + v) << v << true << seed + v;
    }
}

// Random bytes, sometimes shaped like blocks, in random chunks with random
// pauses: the codec never crashes, never writes more than it received in
// blocks, and always either ends or wants to be called again.
void TestXmodemCodec::noiseNeverBreaksEitherSide()
{
    QFETCH(int, variant);
    QFETCH(bool, sending);
    QFETCH(quint32, seed);
    QRandomGenerator rng(seed);
    MemorySource source(pattern(5000));
    MemorySink sink;
    XmodemCodec codec = sending ? XmodemCodec(XmodemVariant(variant), &source)
                                : XmodemCodec(XmodemVariant(variant), &sink);
    qint64 now = 0;
    // Reports every write as done, as a port does sooner or later.
    const auto settle = [&codec, &now](XmodemAction a) {
        while (!a.write.isEmpty() && !a.ended())
            a = codec.onBytesWritten(now);
        return a;
    };
    XmodemAction a = settle(sending ? codec.startSend(now) : codec.startReceive(QStringLiteral("n.bin"), now));
    qint64 fedBytes = 0;
    for (int round = 0; round < 3000 && !codec.isEnded(); ++round) {
        QByteArray chunk;
        if (rng.bounded(4) == 0) {
            QByteArray data(rng.bounded(2) ? 128 : 1024, Qt::Uninitialized);
            for (char &c : data)
                c = char(rng.bounded(256));
            chunk = XmodemCodec::makeBlock(rng.bounded(4), data, rng.bounded(4) != 0);
        } else {
            chunk.resize(1 + rng.bounded(700));
            for (char &c : chunk)
                c = char(rng.bounded(256));
            chunk.replace(QByteArray(2, CAN), QByteArray("\x18x"));  // a cancel would end it too early
        }
        fedBytes += chunk.size();
        a = settle(codec.onBytes(chunk, now));
        // The guarantee that matters: a running codec always has a deadline,
        // so no input can leave a transfer hanging.
        QVERIFY2(codec.isEnded() || a.wantsWake(), qPrintable(QStringLiteral("no deadline, seed %1").arg(seed)));
        now += rng.bounded(3000);
        a = settle(codec.tick(now));
        QVERIFY2(codec.isEnded() || a.wantsWake(), qPrintable(QStringLiteral("no deadline, seed %1").arg(seed)));
    }
    QVERIFY(sink.data.size() <= fedBytes);
    QVERIFY(codec.progress().totalRetries >= 0);
}

// An EOT before the header ends nothing (no file is open): the receiver goes
// on asking for the header and then receives the file normally.
void TestXmodemCodec::ymodemEndBeforeTheHeaderIsNoise()
{
    MemorySink sink;
    XmodemCodec codec(XmodemVariant::Ymodem, &sink);
    Feeder f{codec, {}, {}, {}};
    f.take(codec.startReceive(QString(), 0), 0);
    f.feed(QByteArray(1, EOT), 10);
    const qint64 later = 10 + XmodemCodec::kCrcStartRepeatMs;
    f.take(codec.tick(later), later);
    QVERIFY(!codec.isEnded());
    QCOMPARE(sink.finishes, 0);
    QCOMPARE(f.drain(), QByteArray("CC"));
    f.feed(block(0, XmodemCodec::makeHeaderData(QStringLiteral("e.bin"), 5, 0), true), later);
    f.feed(block(1, QByteArray("hello").leftJustified(128, SUB), true), later);
    f.feed(QByteArray(1, EOT), later);
    f.feed(block(0, QByteArray(128, '\0'), true), later);
    QVERIFY(f.last.finished());
    QCOMPARE(sink.data, QByteArray("hello"));
    QCOMPARE(sink.finishes, 1);
}

void TestXmodemCodec::fuzzSeeds()
{
    const QString failure = FuzzSeeds::replay(QStringLiteral("xmodem"), fuzzXmodemReceiver);
    QVERIFY2(failure.isEmpty(), qPrintable(failure));
}

QTEST_GUILESS_MAIN(TestXmodemCodec)
#include "tst_xmodemcodec.moc"
