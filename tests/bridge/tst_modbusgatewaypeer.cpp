// The Modbus gateway against real peers: pymodbus TCP clients on its
// listener and a pymodbus serial server on the far end of a socat pty pair.

#include "bridge/bridgeengine.h"
#include "bridge/listenerbridgeend.h"
#include "bridge/modbustcpreader.h"
#include "bridge/panedirectory.h"
#include "support/ptypair.h"
#include "support/settingssandbox.h"
#include "terminal/portsession.h"

#include <QProcess>
#include <QTcpSocket>
#include <QTest>
#include <QTimer>
#include <QtEndian>

#include <memory>

namespace {

constexpr int kWait = 15000;
// Long enough for the Python slave on a busy machine: a real unit that
// answers late would be told 0x0B and the check of every reply would fail.
constexpr int kTimeoutMs = 1000;

BridgeRecord gatewayRecord(const QString &paneLabel, ModbusFraming framing)
{
    BridgeRecord record;
    record.name = QStringLiteral("gateway");
    record.kind = BridgeKind::ModbusGateway;
    record.ends[BridgeRecord::kA].kind = BridgeEndSpec::Kind::Listener;
    record.ends[BridgeRecord::kA].listenAddress = QStringLiteral("127.0.0.1");
    record.ends[BridgeRecord::kA].listenPort = 0;
    record.ends[BridgeRecord::kB].kind = BridgeEndSpec::Kind::Pane;
    record.ends[BridgeRecord::kB].pane = paneLabel;
    record.flood.echoCheck = false;
    record.modbus.framing = framing;
    record.modbus.responseTimeoutMs = kTimeoutMs;
    record.modbus.turnaroundMs = 1;
    return record;
}

QByteArray readHolding(quint16 address, quint16 count)
{
    QByteArray pdu(5, '\0');
    pdu[0] = 0x03;
    qToBigEndian(address, pdu.data() + 1);
    qToBigEndian(count, pdu.data() + 3);
    return pdu;
}

// Every MBAP frame in `bytes`, by transaction id.
QHash<quint16, QByteArray> repliesIn(const QByteArray &bytes)
{
    QHash<quint16, QByteArray> replies;
    ModbusTcpReader reader;
    for (const auto &r : reader.feed(bytes).requests)
        replies.insert(r.transactionId, r.pdu);
    return replies;
}

} // namespace

class ModbusGatewayPeerTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanup();

    void fourClientsGetEveryReplyRightWhileASilentUnitTimesOut_data();
    void fourClientsGetEveryReplyRightWhileASilentUnitTimesOut();
    void aFullQueueAnswersServerBusy();
    void broadcastReachesEveryUnitAndAMalformedClientIsClosedAlone();

private:
    void startGateway(ModbusFraming framing, const BridgeRecord *custom = nullptr);
    std::unique_ptr<QTcpSocket> connectClient();
    quint16 port() const { return qobject_cast<ListenerBridgeEnd *>(m_engine->end(BridgeRecord::kA))->listeningPort(); }

    std::unique_ptr<SettingsSandbox> m_settings;
    std::unique_ptr<PtyPair> m_pty;
    std::unique_ptr<PaneDirectory> m_panes;
    std::unique_ptr<PortSession> m_session;
    std::unique_ptr<BridgeEngine> m_engine;
    std::unique_ptr<QProcess> m_slave;
    QTimer m_view;
};

void ModbusGatewayPeerTest::initTestCase()
{
    m_settings = std::make_unique<SettingsSandbox>();
    m_view.setInterval(20);
    connect(&m_view, &QTimer::timeout, this, [this] {
        if (m_session)
            m_session->takeForView(-1, -1);
    });
}

void ModbusGatewayPeerTest::cleanup()
{
    m_view.stop();
    m_engine.reset();
    if (m_slave) {
        m_slave->closeWriteChannel();  // its stdin ends: it shuts down
        if (!m_slave->waitForFinished(5000))
            m_slave->kill();
        m_slave->waitForFinished(2000);
        m_slave.reset();
    }
    m_session.reset();
    m_panes.reset();
    m_pty.reset();
}

void ModbusGatewayPeerTest::startGateway(ModbusFraming framing, const BridgeRecord *custom)
{
    m_pty = std::make_unique<PtyPair>();
    QVERIFY2(m_pty->start(), qPrintable(m_pty->errorText()));
    m_panes = std::make_unique<PaneDirectory>();
    m_session = std::make_unique<PortSession>(1);
    ConnectionConfig config;
    config.mode = ConnectionMode::Serial;
    config.portName = m_pty->pathA();
    config.baudRate = 115200;
    PaneOptions options;
    options.logSaveFlag = false;
    m_session->applySettings(config, options, {});
    QVERIFY(m_session->openConnection());
    m_panes->add(m_session.get());
    m_view.start();

    m_slave = std::make_unique<QProcess>();
    m_slave->setProcessChannelMode(QProcess::ForwardedErrorChannel);
    m_slave->start(QStringLiteral("/usr/bin/python3"),
                   {QFINDTESTDATA("peers/modbus_slave.py"), m_pty->pathB(),
                    framing == ModbusFraming::Ascii ? QStringLiteral("ascii") : QStringLiteral("rtu"),
                    QStringLiteral("1,2")});
    QVERIFY2(m_slave->waitForStarted(5000), qPrintable(m_slave->errorString()));
    QTRY_VERIFY_WITH_TIMEOUT(m_slave->canReadLine() || m_slave->state() != QProcess::Running, kWait);
    const QByteArray line = m_slave->readLine().trimmed();
    QCOMPARE(line, QByteArray("ready"));

    const BridgeRecord record = custom ? *custom : gatewayRecord(PaneDirectory::endpointLabel(m_session->config()), framing);
    QVERIFY2(record.validate(), qPrintable(record.validate().errorText()));
    m_engine = std::make_unique<BridgeEngine>(record, m_panes.get());
    m_engine->start();
    QTRY_COMPARE_WITH_TIMEOUT(m_engine->state(), BridgeEngine::State::Running, kWait);
}

std::unique_ptr<QTcpSocket> ModbusGatewayPeerTest::connectClient()
{
    auto socket = std::make_unique<QTcpSocket>();
    socket->connectToHost(QHostAddress::LocalHost, port());
    if (!socket->waitForConnected(5000))
        return nullptr;
    return socket;
}

void ModbusGatewayPeerTest::fourClientsGetEveryReplyRightWhileASilentUnitTimesOut_data()
{
    QTest::addColumn<ModbusFraming>("framing");
    QTest::newRow("RTU") << ModbusFraming::Rtu;
    QTest::newRow("ASCII") << ModbusFraming::Ascii;
}

void ModbusGatewayPeerTest::fourClientsGetEveryReplyRightWhileASilentUnitTimesOut()
{
    QFETCH(ModbusFraming, framing);
    startGateway(framing);
    if (QTest::currentTestFailed())
        return;

    // Four clients, 250 mixed requests each, to unit 1; a fifth asks unit
    // 5, which has no slave, ten times meanwhile.
    QProcess clients;
    clients.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    clients.start(QStringLiteral("/usr/bin/python3"), {QFINDTESTDATA("peers/modbus_clients.py"), QString::number(port()),
                                                       QStringLiteral("4"), QStringLiteral("250"), QStringLiteral("1"),
                                                       QStringLiteral("5")});
    QVERIFY2(clients.waitForStarted(5000), qPrintable(clients.errorString()));
    QTRY_VERIFY_WITH_TIMEOUT(clients.state() == QProcess::NotRunning, 180000);
    const QList<QByteArray> lines = clients.readAllStandardOutput().trimmed().split('\n');
    QVERIFY2(lines.contains("ok 1000"), lines.join(" | ").constData());
    QCOMPARE(clients.exitCode(), 0);

    // Each 0x0B came within the timeout plus what was ahead of it in the
    // queue (at most one request of each other client).
    int slowestMs = -1;
    for (const QByteArray &line : lines) {
        if (line.startsWith("silent 10 slowest_ms "))
            slowestMs = line.mid(21).toInt();
    }
    QVERIFY2(slowestMs >= kTimeoutMs && slowestMs < kTimeoutMs + 2000, lines.join(" | ").constData());

    const BridgeEngine::GatewayCounters counters = m_engine->gatewayCounters();
    QCOMPARE(counters.units.size(), 2);
    QCOMPARE(counters.units[0].first, 1);
    QCOMPARE(counters.units[0].second, (ModbusArbiter::Counters{1000, 1000, 0, 0}));
    QCOMPARE(counters.units[1].first, 5);
    QCOMPARE(counters.units[1].second, (ModbusArbiter::Counters{10, 0, 10, 0}));
    QCOMPARE(counters.clients.size(), 5);
    quint64 requests = 0;
    for (const auto &[label, c] : counters.clients) {
        QVERIFY(c.requests == 250 || c.requests == 10);
        QCOMPARE(c.replies + c.timeouts, c.requests);
        requests += c.requests;
    }
    QCOMPARE(requests, quint64(1010));
    QCOMPARE(counters.discardedReplies, quint64(0));
    QCOMPARE(m_engine->counters(BridgeRecord::kBToA).frames, quint64(1010));
}

void ModbusGatewayPeerTest::aFullQueueAnswersServerBusy()
{
    startGateway(ModbusFraming::Rtu);
    if (QTest::currentTestFailed())
        return;
    BridgeRecord record = m_engine->record();
    record.modbus.perClientLimit = 3;
    record.modbus.totalLimit = 3;
    m_engine->setRecord(record);
    QTRY_COMPARE_WITH_TIMEOUT(m_engine->state(), BridgeEngine::State::Running, kWait);

    // Twenty requests at once, from two clients: one goes on the line, three
    // wait, the rest are answered busy at once, each with its own id.
    auto first = connectClient();
    auto second = connectClient();
    QVERIFY(first && second);
    QByteArray burst;
    for (quint16 id = 0; id < 10; ++id)
        burst += ModbusTcpReader::frame(id, 1, readHolding(id, 1));
    first->write(burst);
    second->write(burst);
    QByteArray atFirst;
    QByteArray atSecond;
    QTRY_VERIFY_WITH_TIMEOUT((atFirst += first->readAll(), atSecond += second->readAll(),
                              repliesIn(atFirst).size() == 10 && repliesIn(atSecond).size() == 10),
                             kWait);
    int busy = 0;
    int served = 0;
    for (const QByteArray &bytes : {atFirst, atSecond}) {
        const QHash<quint16, QByteArray> replies = repliesIn(bytes);
        for (quint16 id = 0; id < 10; ++id) {
            const QByteArray pdu = replies.value(id);
            if (pdu == QByteArray::fromHex("8306")) {
                ++busy;
                continue;
            }
            // Register `id` of unit 1 holds 1000 + id.
            QByteArray expected = QByteArray::fromHex("0302");
            expected.append(char((1000 + id) >> 8));
            expected.append(char((1000 + id) & 0xFF));
            QCOMPARE(pdu, expected);
            ++served;
        }
    }
    // A reply may free a place between the two bursts; at least the first
    // burst's line request and three waiting ones are served.
    QCOMPARE(served + busy, 20);
    QVERIFY2(served >= 4 && busy >= 10, qPrintable(QStringLiteral("%1 served, %2 busy").arg(served).arg(busy)));
}

void ModbusGatewayPeerTest::broadcastReachesEveryUnitAndAMalformedClientIsClosedAlone()
{
    startGateway(ModbusFraming::Rtu);
    if (QTest::currentTestFailed())
        return;
    auto good = connectClient();
    auto bad = connectClient();
    QVERIFY(good && bad);

    // Write register 7 on every unit at once, then read it back from each.
    good->write(ModbusTcpReader::frame(1, 0, QByteArray::fromHex("060007beef")));
    bad->write(QByteArray::fromHex("00010001000601"));  // protocol 1
    good->write(ModbusTcpReader::frame(2, 1, readHolding(7, 1)));
    good->write(ModbusTcpReader::frame(3, 2, readHolding(7, 1)));
    QByteArray got;
    QTRY_VERIFY_WITH_TIMEOUT((got += good->readAll(), repliesIn(got).size() == 2), kWait);
    const QHash<quint16, QByteArray> replies = repliesIn(got);
    QCOMPARE(replies.value(2), QByteArray::fromHex("0302beef"));
    QCOMPARE(replies.value(3), QByteArray::fromHex("0302beef"));
    QVERIFY(!replies.contains(1));  // no reply to a broadcast

    QTRY_COMPARE_WITH_TIMEOUT(bad->state(), QAbstractSocket::UnconnectedState, kWait);
    QVERIFY2(m_engine->lastNotice().contains(QLatin1String("protocol 1")), qPrintable(m_engine->lastNotice()));
    QCOMPARE(good->state(), QAbstractSocket::ConnectedState);
    QCOMPARE(m_engine->state(), BridgeEngine::State::Running);
}

QTEST_MAIN(ModbusGatewayPeerTest)
#include "tst_modbusgatewaypeer.moc"
