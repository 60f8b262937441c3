// The Modbus gateway's pure parts on a virtual clock: the MBAP reader, the
// line frames read back, and the arbiter's queueing, silences, timeouts,
// retries and counters.

#include "bridge/modbusarbiter.h"
#include "bridge/modbustcpreader.h"
#include "tools/modbuscodec.h"

#include <QTest>

using Arbiter = ModbusArbiter;

namespace {

const QByteArray kReadTwo = QByteArray::fromHex("0300000002");        // read 2 holding registers at 0
const QByteArray kReadTwoReply = QByteArray::fromHex("0304000a000b");  // 10, 11

Arbiter::Options options(int perClient = 8, int total = 32)
{
    Arbiter::Options o;
    o.responseTimeoutMs = 100;
    o.turnaroundMs = 2;
    o.perClientLimit = perClient;
    o.totalLimit = total;
    return o;
}

QByteArray rtu(quint8 unit, const QByteArray &pdu)
{
    return ModbusCodec::rtuFrame(unit, pdu);
}

} // namespace

class ModbusArbiterTest : public QObject
{
    Q_OBJECT

private slots:
    void mbapStreamsAreCutIntoRequests_data();
    void mbapStreamsAreCutIntoRequests();
    void malformedHeadersBreakTheStream_data();
    void malformedHeadersBreakTheStream();
    void rtuReplyLengthsFollowTheFunction_data();
    void rtuReplyLengthsFollowTheFunction();
    void lineFramesAreCheckedWhenRead();

    void aReplyGoesBackToItsClientHoweverTheLineSplitsIt();
    void theNextRequestWaitsForTheSilenceAndTheTurnaround();
    void aSilentUnitIsAnsweredWithTargetFailedAndTheQueueMovesOn();
    void fullQueuesAnswerServerBusy_data();
    void fullQueuesAnswerServerBusy();
    void broadcastIsSentWithNoReplyAwaited();
    void badRepliesAreDiscardedAndRetriedWhenSet_data();
    void badRepliesAreDiscardedAndRetriedWhenSet();
    void clientsAreServedInTurn();
    void aClientThatLeavesTakesItsQueueAndMissesItsReply();
    void asciiFramingRoundTripsAndChecksTheLrc();
    void unitExceptionsAreCountedAsExceptions();
};

void ModbusArbiterTest::mbapStreamsAreCutIntoRequests_data()
{
    QTest::addColumn<int>("chunk");
    for (int chunk : {1, 2, 5, 7, 11, 64})
        QTest::addRow("chunks of %d", chunk) << chunk;
}

void ModbusArbiterTest::mbapStreamsAreCutIntoRequests()
{
    QFETCH(int, chunk);
    QByteArray stream;
    QList<QByteArray> pdus;
    for (int i = 0; i < 20; ++i) {
        QByteArray pdu = QByteArray::fromHex("10000a0002");
        pdu.append(char(4));
        pdu.append(QByteArray(4, char(i)));
        pdu.append(QByteArray(i * 10, '\xFF'));  // up to the longest PDU
        pdu = pdu.left(253);
        pdus.append(pdu);
        stream += ModbusTcpReader::frame(quint16(1000 + i), quint8(i), pdu);
    }
    ModbusTcpReader reader;
    QList<ModbusTcpReader::Request> got;
    for (qsizetype at = 0; at < stream.size(); at += chunk) {
        const auto read = reader.feed(QByteArrayView(stream).sliced(at, std::min<qsizetype>(chunk, stream.size() - at)));
        QVERIFY2(read.error.isEmpty(), qPrintable(read.error));
        got += read.requests;
    }
    QCOMPARE(got.size(), 20);
    for (int i = 0; i < 20; ++i) {
        QCOMPARE(got[i].transactionId, quint16(1000 + i));
        QCOMPARE(got[i].unit, quint8(i));
        QCOMPARE(got[i].pdu, pdus[i]);
    }
}

void ModbusArbiterTest::malformedHeadersBreakTheStream_data()
{
    QTest::addColumn<QByteArray>("bad");
    QTest::addColumn<QString>("says");
    QTest::newRow("protocol 1") << QByteArray::fromHex("00010001000601") << QStringLiteral("protocol 1");
    QTest::newRow("length 1") << QByteArray::fromHex("00010000000101") << QStringLiteral("length of 1");
    QTest::newRow("length 255") << QByteArray::fromHex("000100000" "0ff01") << QStringLiteral("length of 255");
    QTest::newRow("text") << QByteArray("GET / HTTP/1.1\r\n") << QStringLiteral("protocol");
}

void ModbusArbiterTest::malformedHeadersBreakTheStream()
{
    QFETCH(QByteArray, bad);
    QFETCH(QString, says);
    ModbusTcpReader reader;
    const QByteArray good = ModbusTcpReader::frame(5, 1, kReadTwo);
    const auto read = reader.feed(good + bad + good);
    QCOMPARE(read.requests.size(), 1);  // the one before stands
    QVERIFY2(read.error.contains(says), qPrintable(read.error));
    QVERIFY(reader.isBroken());
    QVERIFY(reader.feed(good).requests.isEmpty());
}

void ModbusArbiterTest::rtuReplyLengthsFollowTheFunction_data()
{
    QTest::addColumn<QByteArray>("start");
    QTest::addColumn<int>("length");
    QTest::newRow("one byte") << QByteArray::fromHex("01") << 0;
    QTest::newRow("read, count unknown") << QByteArray::fromHex("0103") << 0;
    QTest::newRow("read 4 bytes") << QByteArray::fromHex("010304") << 9;
    QTest::newRow("coils 1 byte") << QByteArray::fromHex("010101") << 6;
    QTest::newRow("write single") << QByteArray::fromHex("0106") << 8;
    QTest::newRow("write multiple") << QByteArray::fromHex("0110") << 8;
    QTest::newRow("exception") << QByteArray::fromHex("0183") << 5;
    QTest::newRow("unknown function") << QByteArray::fromHex("012b") << -1;
}

void ModbusArbiterTest::rtuReplyLengthsFollowTheFunction()
{
    QFETCH(QByteArray, start);
    QFETCH(int, length);
    QCOMPARE(int(ModbusCodec::rtuReplyLength(start)), length);
}

void ModbusArbiterTest::lineFramesAreCheckedWhenRead()
{
    const QByteArray frame = rtu(17, kReadTwoReply);
    const auto good = ModbusCodec::readRtuFrame(frame);
    QVERIFY(good);
    QCOMPARE(good.value().unit, quint8(17));
    QCOMPARE(good.value().pdu, kReadTwoReply);
    for (int i = 0; i < frame.size(); ++i) {
        QByteArray flipped = frame;
        flipped[i] = char(flipped[i] ^ 0x10);
        QVERIFY2(!ModbusCodec::readRtuFrame(flipped), qPrintable(QString::number(i)));
    }
    const QByteArray ascii = ModbusCodec::asciiFrame(17, kReadTwoReply);
    QCOMPARE(ascii, QByteArray(":11030400"
                               "0A000BD3\r\n"));
    QCOMPARE(ModbusCodec::readAsciiFrame(ascii).value().pdu, kReadTwoReply);
    QByteArray badLrc = ascii;
    badLrc[ascii.size() - 3] = '4';
    QVERIFY(ModbusCodec::readAsciiFrame(badLrc).errorText().contains(QLatin1String("LRC")));
    QVERIFY(!ModbusCodec::readAsciiFrame(":1103\r\n"));
    QVERIFY(!ModbusCodec::readAsciiFrame(":11030G000A000BD3\r\n"));
}

void ModbusArbiterTest::aReplyGoesBackToItsClientHoweverTheLineSplitsIt()
{
    const QByteArray reply = rtu(1, kReadTwoReply);
    for (int cut = 0; cut < reply.size(); ++cut) {
        Arbiter arbiter(options());
        arbiter.setBaudRate(115200);
        const auto sent = arbiter.request(QStringLiteral("c1"), 7, 1, kReadTwo, 1000);
        QCOMPARE(sent.write, rtu(1, kReadTwo));
        QVERIFY(sent.replies.isEmpty());
        auto first = arbiter.lineBytes(QByteArrayView(reply).first(cut), 2000);
        QVERIFY(first.replies.isEmpty());
        auto last = arbiter.lineBytes(QByteArrayView(reply).sliced(cut), 2100);
        QCOMPARE(last.replies.size(), 1);
        QCOMPARE(last.replies[0].client, QStringLiteral("c1"));
        QCOMPARE(last.replies[0].transactionId, quint16(7));
        QCOMPARE(last.replies[0].unit, quint8(1));
        QCOMPARE(last.replies[0].pdu, kReadTwoReply);
        QVERIFY(!arbiter.isAwaitingReply());
    }
}

void ModbusArbiterTest::theNextRequestWaitsForTheSilenceAndTheTurnaround()
{
    Arbiter arbiter(options());
    arbiter.setBaudRate(9600);
    QCOMPARE(Arbiter::silenceUs(9600), 4011);  // 3.5 x 11 bits, rounded up
    QCOMPARE(Arbiter::silenceUs(115200), 335);
    arbiter.request(QStringLiteral("a"), 1, 1, kReadTwo, 0);
    const auto queued = arbiter.request(QStringLiteral("b"), 2, 2, kReadTwo, 10);
    QVERIFY(queued.write.isEmpty());
    const qint64 replyAt = 50000;
    const auto replied = arbiter.lineBytes(rtu(1, kReadTwoReply), replyAt);
    QCOMPARE(replied.replies.size(), 1);
    QVERIFY(replied.write.isEmpty());
    const qint64 free = replyAt + 4011 + 2000;
    QCOMPARE(replied.wakeAtUs, free);
    QVERIFY(arbiter.tick(free - 1).write.isEmpty());
    QCOMPARE(arbiter.tick(free).write, rtu(2, kReadTwo));
}

void ModbusArbiterTest::aSilentUnitIsAnsweredWithTargetFailedAndTheQueueMovesOn()
{
    Arbiter arbiter(options());
    arbiter.setBaudRate(9600);
    const auto sent = arbiter.request(QStringLiteral("a"), 40, 9, kReadTwo, 0);
    const qint64 deadline = Arbiter::lineTimeUs(9600, 8) + 100000;
    QCOMPARE(sent.wakeAtUs, deadline);
    arbiter.request(QStringLiteral("b"), 41, 1, kReadTwo, 10);
    QVERIFY(arbiter.tick(deadline - 1).replies.isEmpty());
    const auto late = arbiter.tick(deadline);
    QCOMPARE(late.replies.size(), 1);
    QCOMPARE(late.replies[0].client, QStringLiteral("a"));
    QCOMPARE(late.replies[0].transactionId, quint16(40));
    QCOMPARE(late.replies[0].pdu, QByteArray::fromHex("830b"));
    const auto next = arbiter.tick(deadline + Arbiter::silenceUs(9600));
    QCOMPARE(next.write, rtu(1, kReadTwo));
    // The silent unit's late reply is not taken for unit 1's.
    QVERIFY(arbiter.lineBytes(rtu(9, kReadTwoReply), deadline + 20000).replies.isEmpty());
    QCOMPARE(arbiter.lineBytes(rtu(1, kReadTwoReply), deadline + 30000).replies.size(), 1);
    const auto units = arbiter.unitCounters();
    QCOMPARE(units.size(), 2);
    QCOMPARE(units[0].first, 1);
    QCOMPARE(units[0].second, (Arbiter::Counters{1, 1, 0, 0}));
    QCOMPARE(units[1].first, 9);
    QCOMPARE(units[1].second, (Arbiter::Counters{1, 0, 1, 0}));
    QCOMPARE(arbiter.discardedReplies(), quint64(1));
}

void ModbusArbiterTest::fullQueuesAnswerServerBusy_data()
{
    QTest::addColumn<int>("perClient");
    QTest::addColumn<int>("total");
    QTest::addColumn<int>("clients");
    QTest::addColumn<int>("accepted");
    // One request goes on the line at once; the rest wait.
    QTest::newRow("per client") << 3 << 32 << 1 << 4;
    QTest::newRow("in total") << 8 << 5 << 3 << 6;
}

void ModbusArbiterTest::fullQueuesAnswerServerBusy()
{
    QFETCH(int, perClient);
    QFETCH(int, total);
    QFETCH(int, clients);
    QFETCH(int, accepted);
    Arbiter arbiter(options(perClient, total));
    int busy = 0;
    for (int i = 0; i < 10; ++i) {
        const QString client = QStringLiteral("c%1").arg(i % clients);
        const auto step = arbiter.request(client, quint16(i), 1, kReadTwo, i);
        for (const auto &reply : step.replies) {
            QCOMPARE(reply.client, client);
            QCOMPARE(reply.transactionId, quint16(i));
            QCOMPARE(reply.pdu, QByteArray::fromHex("8306"));
            ++busy;
        }
    }
    QCOMPARE(busy, 10 - accepted);
    QCOMPARE(arbiter.queuedRequests(), accepted - 1);
    quint64 exceptions = 0;
    for (const auto &[label, counters] : arbiter.clientCounters())
        exceptions += counters.exceptions;
    QCOMPARE(exceptions, quint64(10 - accepted));
}

void ModbusArbiterTest::broadcastIsSentWithNoReplyAwaited()
{
    Arbiter arbiter(options());
    arbiter.setBaudRate(19200);
    const QByteArray write = QByteArray::fromHex("0600010005");
    const auto sent = arbiter.request(QStringLiteral("a"), 1, 0, write, 0);
    QCOMPARE(sent.write, rtu(0, write));
    QVERIFY(!arbiter.isAwaitingReply());
    const qint64 free = Arbiter::lineTimeUs(19200, 8) + Arbiter::silenceUs(19200) + 2000;
    QCOMPARE(sent.wakeAtUs, Arbiter::kNoWake);
    const auto queued = arbiter.request(QStringLiteral("a"), 2, 1, kReadTwo, 10);
    QVERIFY(queued.write.isEmpty());
    QCOMPARE(queued.wakeAtUs, free);
    QCOMPARE(arbiter.tick(free).write, rtu(1, kReadTwo));
    QVERIFY(sent.replies.isEmpty() && queued.replies.isEmpty());
}

void ModbusArbiterTest::badRepliesAreDiscardedAndRetriedWhenSet_data()
{
    QTest::addColumn<bool>("retry");
    QTest::addColumn<QByteArray>("bad");
    QByteArray badCrc = rtu(1, kReadTwoReply);
    badCrc[badCrc.size() - 1] = char(badCrc.back() ^ 1);
    QTest::newRow("bad CRC") << false << badCrc;
    QTest::newRow("bad CRC, retried") << true << badCrc;
    QTest::newRow("wrong unit") << false << rtu(2, kReadTwoReply);
    QTest::newRow("wrong unit, retried") << true << rtu(2, kReadTwoReply);
    QTest::newRow("wrong function, retried") << true << rtu(1, QByteArray::fromHex("0404000a000b"));
}

void ModbusArbiterTest::badRepliesAreDiscardedAndRetriedWhenSet()
{
    QFETCH(bool, retry);
    QFETCH(QByteArray, bad);
    Arbiter::Options o = options();
    o.retryOnce = retry;
    Arbiter arbiter(o);
    arbiter.setBaudRate(115200);
    arbiter.request(QStringLiteral("a"), 3, 1, kReadTwo, 0);
    const auto afterBad = arbiter.lineBytes(bad, 5000);
    QVERIFY(afterBad.replies.isEmpty());
    QCOMPARE(arbiter.discardedReplies(), quint64(1));
    if (retry) {
        QVERIFY(!arbiter.isAwaitingReply());
        const qint64 again = 5000 + Arbiter::silenceUs(115200);
        QCOMPARE(afterBad.wakeAtUs, again);
        QCOMPARE(arbiter.tick(again).write, rtu(1, kReadTwo));
        // A second bad reply is not retried: the unit has until its timeout.
        QVERIFY(arbiter.lineBytes(bad, again + 3000).write.isEmpty());
        QVERIFY(arbiter.isAwaitingReply());
        const auto timedOut = arbiter.tick(again + Arbiter::lineTimeUs(115200, 8) + 100000);
        QCOMPARE(timedOut.replies.size(), 1);
        QCOMPARE(timedOut.replies[0].pdu, QByteArray::fromHex("830b"));
    } else {
        QVERIFY(arbiter.isAwaitingReply());
        const auto good = arbiter.lineBytes(rtu(1, kReadTwoReply), 8000);
        QCOMPARE(good.replies.size(), 1);
        QCOMPARE(good.replies[0].pdu, kReadTwoReply);
    }
}

void ModbusArbiterTest::clientsAreServedInTurn()
{
    Arbiter arbiter(options());
    QList<QByteArray> order;
    const auto take = [&order](const Arbiter::Step &step) {
        if (!step.write.isEmpty())
            order.append(step.write);
    };
    take(arbiter.request(QStringLiteral("first"), 0, 1, kReadTwo, 0));
    for (quint8 unit : {2, 3, 4})
        take(arbiter.request(QStringLiteral("busy"), unit, unit, kReadTwo, 1));
    take(arbiter.request(QStringLiteral("quiet"), 9, 9, kReadTwo, 2));
    qint64 now = 10;
    for (quint8 unit : {1, 2, 9, 3, 4}) {
        now += 1000;
        take(arbiter.lineBytes(rtu(unit, kReadTwoReply), now));
        now += 3000;  // past the turnaround
        take(arbiter.tick(now));
    }
    const QList<QByteArray> expected = {rtu(1, kReadTwo), rtu(2, kReadTwo), rtu(9, kReadTwo), rtu(3, kReadTwo),
                                        rtu(4, kReadTwo)};
    QCOMPARE(order, expected);
}

void ModbusArbiterTest::aClientThatLeavesTakesItsQueueAndMissesItsReply()
{
    Arbiter arbiter(options());
    arbiter.request(QStringLiteral("gone"), 1, 1, kReadTwo, 0);
    arbiter.request(QStringLiteral("gone"), 2, 2, kReadTwo, 1);
    arbiter.request(QStringLiteral("stays"), 3, 3, kReadTwo, 2);
    QCOMPARE(arbiter.queuedRequests(), 2);
    arbiter.clientGone(QStringLiteral("gone"));
    QCOMPARE(arbiter.queuedRequests(), 1);
    QCOMPARE(arbiter.queuedBytes(), qint64(kReadTwo.size()));
    const auto replied = arbiter.lineBytes(rtu(1, kReadTwoReply), 1000);
    QVERIFY(replied.replies.isEmpty());
    QCOMPARE(arbiter.tick(4000).write, rtu(3, kReadTwo));
    const auto clients = arbiter.clientCounters();
    QCOMPARE(clients.size(), 2);
    QCOMPARE(clients[0].first, QStringLiteral("stays"));  // connected first
    QCOMPARE(clients[1].first, QStringLiteral("gone"));
    QCOMPARE(clients[1].second, (Arbiter::Counters{2, 1, 0, 0}));

    // Only so many departed clients are remembered.
    for (int i = 0; i < Arbiter::kMaxClientsGone + 10; ++i) {
        const QString label = QStringLiteral("c%1").arg(i);
        arbiter.request(label, 0, 5, kReadTwo, 5000);
        arbiter.clientGone(label);
    }
    QCOMPARE(arbiter.clientCounters().size(), 1 + Arbiter::kMaxClientsGone);
}

void ModbusArbiterTest::asciiFramingRoundTripsAndChecksTheLrc()
{
    Arbiter::Options o = options();
    o.framing = ModbusFraming::Ascii;
    Arbiter arbiter(o);
    arbiter.setBaudRate(9600);
    const auto sent = arbiter.request(QStringLiteral("a"), 77, 0x11, kReadTwo, 0);
    QCOMPARE(sent.write, QByteArray(":110300000002EA\r\n"));
    QByteArray badLrc = ModbusCodec::asciiFrame(0x11, kReadTwoReply);
    badLrc[badLrc.size() - 4] = 'F';
    // Noise before the start, a bad frame, then the good one, in pieces.
    const QByteArray line = QByteArray("\x00\xFF", 2) + badLrc + ModbusCodec::asciiFrame(0x11, kReadTwoReply);
    QList<Arbiter::Reply> replies;
    for (qsizetype at = 0; at < line.size(); at += 3)
        replies += arbiter.lineBytes(QByteArrayView(line).sliced(at, std::min<qsizetype>(3, line.size() - at)), 100 + at).replies;
    QCOMPARE(replies.size(), 1);
    QCOMPARE(replies[0].transactionId, quint16(77));
    QCOMPARE(replies[0].pdu, kReadTwoReply);
    QCOMPARE(arbiter.discardedReplies(), quint64(1));
}

void ModbusArbiterTest::unitExceptionsAreCountedAsExceptions()
{
    Arbiter arbiter(options());
    arbiter.request(QStringLiteral("a"), 1, 4, kReadTwo, 0);
    const auto step = arbiter.lineBytes(rtu(4, QByteArray::fromHex("8302")), 100);
    QCOMPARE(step.replies.size(), 1);
    QCOMPARE(step.replies[0].pdu, QByteArray::fromHex("8302"));
    QCOMPARE(arbiter.unitCounters().value(0).second, (Arbiter::Counters{1, 0, 0, 1}));
    QCOMPARE(arbiter.clientCounters().value(0).second, (Arbiter::Counters{1, 0, 0, 1}));
}

QTEST_GUILESS_MAIN(ModbusArbiterTest)
#include "tst_modbusarbiter.moc"
