// Live Relay between two port sessions: the pacing guard on a virtual port,
// the host's refusals, invite codes and relay targets, and two sessions
// through a loopback stand-in of the relay endpoint with a pseudo-terminal
// pair as the host's serial port (bytes exact both ways, a slow port that
// never makes anything grow, the ends as each side sees them).
#include "cloud/relayconnector.h"
#include "cloud/relaycontroller.h"
#include "cloud/relaypacer.h"
#include "cloud/relaysockettransport.h"
#include "cloud/relaytargets.h"
#include "connection/connectioncontroller.h"
#include "relaypeer.h"
#include "support/ptypair.h"
#include "support/settingssandbox.h"
#include "terminal/portsession.h"

#include <QJsonArray>
#include <QRandomGenerator>
#include <QSerialPort>
#include <QSignalSpy>
#include <QtTest>

namespace {

constexpr int kWait = 10000;

QByteArray randomBytes(qsizetype size, quint32 seed)
{
    QRandomGenerator generator(seed);
    QByteArray bytes(size, Qt::Uninitialized);
    generator.fillRange(reinterpret_cast<quint32 *>(bytes.data()), size / 4);
    return bytes;
}

} // namespace

class TestRelayHost : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void pacerKeepsThePortOneWindowAhead_data();
    void pacerKeepsThePortOneWindowAhead();
    void pacerWaitsWhileThePortIsTaken();
    void inviteCodesAreRecognised_data();
    void inviteCodesAreRecognised();
    void relayTargetsAreRead();
    void aRememberedTargetThatIsGoneIsSaidSo();

    void openRelayRefusals_data();
    void openRelayRefusals();
    void bytesCrossExactlyBothWays();
    void aSlowPortNeverMakesAnythingGrow();
    void eachSideSeesTheOtherGo();
    void aRelayPaneHasNoControlLines();

private:
    struct Sessions
    {
        PortSession host{1};
        PortSession client{2};
        RelayController *relay = nullptr;
    };
    // Opens the host's pty port, binds a relay to it and opens the client
    // pane in mode 8 to the same relay.
    bool connect(Sessions &s, QSerialPort &far, qint32 baud = 921600);
    // Takes what the views would take, so reading never stops for them.
    static void drainViews(Sessions &s)
    {
        s.host.takeForView(-1, -1);
        s.client.takeForView(-1, -1);
    }

    SettingsSandbox *m_settings = nullptr;
    std::unique_ptr<PtyPair> m_pty;
    std::unique_ptr<RelayPeer> m_peer;
    int m_relays = 0;
};

void TestRelayHost::initTestCase()
{
    m_settings = new SettingsSandbox;
}

void TestRelayHost::init()
{
    m_pty = std::make_unique<PtyPair>();
    QVERIFY2(m_pty->start(), qPrintable(m_pty->errorText()));
    m_peer = std::make_unique<RelayPeer>();
    QVERIFY(m_peer->listen());
}

void TestRelayHost::cleanup()
{
    m_peer.reset();
    m_pty.reset();
}

// ------------------------------------------------------------ pure pieces

void TestRelayHost::pacerKeepsThePortOneWindowAhead_data()
{
    QTest::addColumn<qint64>("lineRate");  // bytes a second the virtual port takes
    QTest::addColumn<qint64>("window");
    QTest::newRow("9600 baud") << qint64(960) << RelayPacer::kMinWindow;
    QTest::newRow("115200 baud") << qint64(11520) << RelayPacer::kMinWindow;
    QTest::newRow("921600 baud") << qint64(92160) << qint64(23040);
    QTest::newRow("3 Mbaud") << qint64(300000) << RelayPacer::kMaxWindow;
}

void TestRelayHost::pacerKeepsThePortOneWindowAhead()
{
    QFETCH(qint64, lineRate);
    QFETCH(qint64, window);
    RelayPacer pacer(lineRate);
    QCOMPARE(pacer.window(), window);
    const QByteArray offered = randomBytes(2 * 1024 * 1024, 7);
    qsizetype fed = 0;
    qint64 now = 0;
    qint64 backlog = 0;  // in the virtual port's driver
    bool paused = false;
    QByteArray written;
    int steps = 0;
    while (written.size() < offered.size() && steps++ < 1000000) {
        // The relay delivers 8 KiB messages unless it is paused, up to one
        // socket read (256 KiB) between two steps.
        for (int i = 0; i < 32 && !paused && fed < offered.size(); ++i) {
            pacer.push(offered.mid(fed, 8192));
            fed += 8192;
        }
        const RelayPacer::Step step = pacer.step(backlog);
        QVERIFY(step.wakeInMs <= RelayPacer::kMaxStepMs);
        if (step.read == RelayPacer::Read::Pause) {
            QVERIFY(!paused);
            paused = true;
        } else if (step.read == RelayPacer::Read::Resume) {
            QVERIFY(paused);
            paused = false;
        }
        QVERIFY(!paused || pacer.queued() >= RelayPacer::kQueueLow);
        written += step.write;
        backlog += step.write.size();
        QVERIFY2(backlog <= window, qPrintable(QString::number(backlog)));
        QVERIFY(pacer.queued() <= RelayPacer::kQueueHigh + 256 * 1024);
        // Time passes until the step asked for, and the port drains.
        const qint64 wait = step.wakeInMs == RelayPacer::kNoWake ? 1 : step.wakeInMs;
        now += wait;
        backlog = qMax<qint64>(0, backlog - lineRate * wait / 1000);
        if (lineRate <= 11520 && written.size() > 300 * 1024)
            break;  // the slow lines have shown their pace
    }
    QVERIFY(written == offered.left(written.size()));
    if (lineRate > 11520) {
        QCOMPARE(written.size(), offered.size());
        // It kept the line busy: no slower than the line allows, give or take a window.
        QVERIFY2(now <= (offered.size() + window) * 1000 / lineRate + 1000, qPrintable(QString::number(now)));
    }
}

void TestRelayHost::pacerWaitsWhileThePortIsTaken()
{
    RelayPacer pacer;
    pacer.push(QByteArray(1000, 'x'));
    const RelayPacer::Step held = pacer.step(0, false);
    QVERIFY(held.write.isEmpty());
    QCOMPARE(held.wakeInMs, RelayPacer::kMaxStepMs);
    const RelayPacer::Step freed = pacer.step(0, true);
    QCOMPARE(freed.write.size(), 1000);
    QCOMPARE(freed.wakeInMs, RelayPacer::kNoWake);
}

void TestRelayHost::inviteCodesAreRecognised_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("code");
    QTest::newRow("as shown") << "ABCD-EFGH-JKMN" << "ABCDEFGHJKMN";
    QTest::newRow("typed loosely") << " abcd efgh-jkmn " << "ABCDEFGHJKMN";
    QTest::newRow("a link") << "https://cloud.example/join/2345-6789-PQRS" << "23456789PQRS";
    QTest::newRow("a link with a slash") << "http://127.0.0.1:8437/join/23456789PQRS/" << "23456789PQRS";
    QTest::newRow("letter O") << "ABCD-EFGH-JKMO" << QString();
    QTest::newRow("digit 1") << "ABCD-EFGH-JKM1" << QString();
    QTest::newRow("too short") << "ABCD-EFGH-JKM" << QString();
    QTest::newRow("too long") << "ABCD-EFGH-JKMNP" << QString();
    QTest::newRow("empty") << QString() << QString();
}

void TestRelayHost::inviteCodesAreRecognised()
{
    QFETCH(QString, text);
    QFETCH(QString, code);
    QCOMPARE(RelayTargets::inviteCode(text), code);
    if (!code.isEmpty())
        QCOMPARE(RelayTargets::inviteCode(RelayTargets::displayInviteCode(code)), code);
}

void TestRelayHost::relayTargetsAreRead()
{
    const QJsonObject reply = QJsonDocument::fromJson(R"({"type":"relay","status":true,"devices":[
        {"cid":"c1","name":"bench-pc","online":true,"session_id":"s1","ports":[
            {"port_key":"p1","port_name":"/dev/ttyUSB0","open":true,"relay_allowed":true},
            {"port_key":"p2","port_name":"10.0.0.5:4001","open":false,"relay_allowed":false},
            {"port_name":"no key"}]},
        {"name":"no cid"},
        {"cid":"c2","online":false}]})").object();
    const QList<RelayTargets::Device> devices = RelayTargets::parseDevices(reply);
    QCOMPARE(devices.size(), 2);
    const RelayTargets::Device *bench = RelayTargets::findDevice(devices, QStringLiteral("c1"));
    QVERIFY(bench && bench->online);
    QCOMPARE(bench->sessionId, QStringLiteral("s1"));
    QCOMPARE(bench->ports.size(), 2);
    QVERIFY(bench->port(QStringLiteral("p1"))->relayAllowed && bench->port(QStringLiteral("p1"))->open);
    QVERIFY(!bench->port(QStringLiteral("p2"))->relayAllowed);
    QCOMPARE(devices.at(1).name, QStringLiteral("c2"));  // a nameless computer goes by its cid
    QVERIFY(!RelayTargets::findDevice(devices, QStringLiteral("c3")));
}

void TestRelayHost::aRememberedTargetThatIsGoneIsSaidSo()
{
    using F = RelayConnector::Failure;
    QCOMPARE(RelayConnector::paneText(F::TargetGone, QStringLiteral("gone"), true, QStringLiteral("COM3")),
             QStringLiteral("The port this project used (COM3) is not available right now."));
    QCOMPARE(RelayConnector::paneText(F::TargetGone, QStringLiteral("gone"), false, QStringLiteral("COM3")),
             QStringLiteral("gone"));
    QCOMPARE(RelayConnector::paneText(F::Other, QStringLiteral("offline"), true, QStringLiteral("COM3")),
             QStringLiteral("offline"));
}

// ------------------------------------------------------------------ hosts

void TestRelayHost::openRelayRefusals_data()
{
    QTest::addColumn<bool>("allowed");
    QTest::addColumn<QString>("relayId");
    QTest::addColumn<QString>("ticket");
    QTest::addColumn<bool>("portOpen");
    QTest::addColumn<QString>("errorCode");
    QTest::addColumn<QString>("message");
    QTest::newRow("not allowed") << false << "r" << "t" << true << "permission_denied"
                                 << "cloud relay is disabled on the device";
    QTest::newRow("no relay id") << true << "" << "t" << true << "invalid_payload"
                                 << "open_relay needs a relay_id and a ticket";
    QTest::newRow("no ticket") << true << "r" << "" << true << "invalid_payload"
                               << "open_relay needs a relay_id and a ticket";
    QTest::newRow("port closed") << true << "r" << "t" << false << "port_closed" << "the port is not open";
    QTest::newRow("busy") << true << "r" << "t" << true << "relay_busy" << "this port already has a relay";
}

void TestRelayHost::openRelayRefusals()
{
    QFETCH(bool, allowed);
    QFETCH(QString, relayId);
    QFETCH(QString, ticket);
    QFETCH(bool, portOpen);
    QFETCH(QString, errorCode);
    QFETCH(QString, message);
    PortSession host(1);
    ConnectionConfig config;
    config.portName = m_pty->pathA();
    host.applySettings(config, PaneOptions(), {});
    if (portOpen)
        QVERIFY(host.openConnection());
    if (errorCode == QLatin1String("relay_busy")) {
        const RelayController::Opening first = RelayController::open(
            {QStringLiteral("p1"), QStringLiteral("r0"), QStringLiteral("t0")}, &host, m_peer->address(), true);
        QVERIFY(!first.isRefused());
    }
    const RelayController::Opening opening = RelayController::open(
        {QStringLiteral("p1"), relayId, ticket}, &host, m_peer->address(), allowed);
    QVERIFY(opening.isRefused());
    QCOMPARE(opening.errorCode, errorCode);
    QCOMPARE(opening.message, message);

    // The owner's switch is read from the settings store, off unless set.
    QVERIFY(!RelayController::isAllowed());
    const auto request = RelayController::Request::fromPayload(
        {{"port_key", "p1"}, {"relay_id", "r"}, {"ticket", "t"}, {"guest_name", "Ana"}, {"share_id", "s"}});
    QCOMPARE(request.guestName, QStringLiteral("Ana"));
    QCOMPARE(request.shareId, QStringLiteral("s"));
}

bool TestRelayHost::connect(Sessions &s, QSerialPort &far, qint32 baud)
{
    ConnectionConfig hostConfig;
    hostConfig.portName = m_pty->pathA();
    hostConfig.baudRate = baud;
    PaneOptions quiet;
    quiet.displaySendMsg = false;
    s.host.applySettings(hostConfig, quiet, {});
    if (!s.host.openConnection())
        return false;
    far.setPortName(m_pty->pathB());
    if (!far.open(QIODevice::ReadWrite))
        return false;

    const QString relayId = QStringLiteral("relay%1").arg(++m_relays);
    const auto [hostTicket, clientTicket] = m_peer->openRelay(relayId, QStringLiteral("p1"));
    const RelayController::Opening opening = RelayController::open(
        {QStringLiteral("p1"), relayId, hostTicket, {}, QStringLiteral("Ana")}, &s.host, m_peer->address(), true);
    if (opening.isRefused())
        return false;
    s.relay = opening.controller;

    ConnectionConfig clientConfig;
    clientConfig.mode = ConnectionMode::RemoteSerialRelay;
    clientConfig.relayCid = QStringLiteral("c1");
    clientConfig.relayPortKey = QStringLiteral("p1");
    s.client.applySettings(clientConfig, quiet, {});
    const QString address = m_peer->address();
    s.client.controller()->setRelayFactory([address, ticket = clientTicket](const ConnectionConfig &) {
        auto *transport = new RelaySocketTransport;
        transport->open(address, ticket);
        return transport;
    });
    QSignalSpy engaged(s.relay, &RelayController::engaged);
    if (!s.client.openConnection())
        return false;
    return QTest::qWaitFor([&] { return s.client.isConnectionOpen() && engaged.size() == 1; }, kWait);
}

void TestRelayHost::bytesCrossExactlyBothWays()
{
    Sessions s;
    QSerialPort far;
    QVERIFY(connect(s, far));
    QVERIFY(s.client.statusLine().contains(QLatin1String("OPENED")));

    const qsizetype size = 10 * 1024 * 1024;
    const QByteArray toHost = randomBytes(size, 1);
    const QByteArray toClient = randomBytes(size, 2);
    QByteArray atFar;
    QByteArray atClient;
    QObject::connect(&s.client, &PortSession::rxTapped, this, [&](const QByteArray &b) { atClient += b; });
    qsizetype sentFromClient = 0;
    qsizetype sentFromFar = 0;
    QElapsedTimer clock;
    clock.start();
    while ((atFar.size() < size || atClient.size() < size) && clock.elapsed() < 60000) {
        // The client pane sends while the relay takes it; the device at
        // the far end of the host's port answers as fast as the pty takes.
        while (sentFromClient < size && !s.client.isPeerBacklogged()) {
            QVERIFY(s.client.sendBytes(toHost.mid(sentFromClient, 65536), false));
            sentFromClient += 65536;
        }
        if (sentFromFar < size && far.bytesToWrite() < 256 * 1024) {
            far.write(toClient.mid(sentFromFar, 65536));
            sentFromFar += 65536;
        }
        atFar += far.readAll();
        drainViews(s);
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
        QVERIFY(s.relay);
        QVERIFY(s.relay->pacer().queued() <= RelayPacer::kQueueHigh + 256 * 1024);
    }
    QCOMPARE(atFar.size(), size);
    QCOMPARE(atClient.size(), size);
    QVERIFY2(atFar == toHost, "the host's port got other bytes than the client sent");
    QVERIFY2(atClient == toClient, "the client got other bytes than the host's port sent");
    QCOMPARE(s.relay->droppedBytes(), qint64(0));
    QCOMPARE(s.host.txCount(), quint64(size));
    QCOMPARE(s.client.rxCount(), quint64(size));
    qInfo("10 MiB each way in %lld ms", qlonglong(clock.elapsed()));
}

void TestRelayHost::aSlowPortNeverMakesAnythingGrow()
{
    Sessions s;
    QSerialPort far;
    QVERIFY(connect(s, far, 115200));
    const qsizetype size = 4 * 1024 * 1024;
    const QByteArray toHost = randomBytes(size, 3);
    QByteArray atFar;
    qsizetype offered = 0;
    qint64 peakQueue = 0;
    qint64 peakPort = 0;
    qint64 peakClient = 0;
    bool serviceHeldBack = false;
    bool relayHeldBack = false;
    QElapsedTimer clock;
    clock.start();
    QElapsedTimer lastRead;
    lastRead.start();
    while (atFar.size() < size && clock.elapsed() < 60000) {
        // The client offers all it may; the device reads 32 KiB every 20 ms.
        while (offered < size && !s.client.isPeerBacklogged()) {
            QVERIFY(s.client.sendBytes(toHost.mid(offered, 65536), false));
            offered += 65536;
        }
        if (lastRead.elapsed() >= 20) {
            atFar += far.read(32 * 1024);
            lastRead.restart();
        }
        drainViews(s);
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
        peakQueue = qMax(peakQueue, s.relay->pacer().queued());
        peakPort = qMax(peakPort, s.host.controller()->bytesToWrite());
        peakClient = qMax(peakClient, s.client.controller()->writeBacklog());
        relayHeldBack = relayHeldBack || s.relay->socket()->isReadPaused();
        serviceHeldBack = serviceHeldBack || m_peer->isReadingPaused(QStringLiteral("relay%1").arg(m_relays),
                                                                       QStringLiteral("client"));
    }
    QCOMPARE(atFar.size(), size);
    QVERIFY(atFar == toHost);
    qInfo("peaks: guard %lld, port driver %lld, client socket %lld, service socket %lld bytes; the service %s",
          qlonglong(peakQueue), qlonglong(peakPort), qlonglong(peakClient), qlonglong(m_peer->peakBacklog()),
          serviceHeldBack ? "held the client back" : "never needed to (the kernel's buffers took it)");
    QVERIFY2(relayHeldBack, "the host never held the relay back");
    QVERIFY(peakQueue <= RelayPacer::kQueueHigh + 256 * 1024);
    QVERIFY(peakPort <= s.relay->pacer().window());
    QVERIFY(peakClient <= PortTransport::kWriteHighWatermark + 65536);
    QVERIFY(m_peer->peakBacklog() <= 2 * 1024 * 1024);
}

void TestRelayHost::eachSideSeesTheOtherGo()
{
    {
        // The host closes its port: the relay ends there, and the client
        // pane shows the end as its error and closes.
        Sessions s;
        QSerialPort far;
        QVERIFY(connect(s, far));
        QSignalSpy ended(s.relay, &RelayController::ended);
        QSignalSpy failure(&s.client, &PortSession::failure);
        s.host.closeConnection();
        QCOMPARE(ended.size(), 1);
        QCOMPARE(ended.at(0).at(0).toString(), RelayController::portClosedText());
        QTRY_COMPARE_WITH_TIMEOUT(failure.size(), 1, kWait);
        QCOMPARE(failure.at(0).at(0).toString(), QStringLiteral("The remote end disconnected."));
        QVERIFY(!s.client.isStarted());
        QVERIFY(!RelayController::of(&s.host));
    }
    {
        // The client closes: the host's relay ends, the port stays open.
        Sessions s;
        QSerialPort far;
        QVERIFY(connect(s, far));
        QSignalSpy ended(s.relay, &RelayController::ended);
        QSignalSpy failure(&s.client, &PortSession::failure);
        s.client.closeConnection();
        QTRY_COMPARE_WITH_TIMEOUT(ended.size(), 1, kWait);
        QCOMPARE(ended.at(0).at(0).toString(), QStringLiteral("The remote end disconnected."));
        QVERIFY(s.host.isConnectionOpen());
        QVERIFY(failure.isEmpty());
    }
}

void TestRelayHost::aRelayPaneHasNoControlLines()
{
    Sessions s;
    QSerialPort far;
    QVERIFY(connect(s, far));
    QVERIFY(!s.client.controlLineRefusal().isEmpty());
    QVERIFY(s.host.controlLineRefusal().isEmpty());
    QSignalSpy status(&s.client, &PortSession::statusMessage);
    const bool dtrBefore = s.client.config().dtrOn;
    s.client.setControlLine(true, !dtrBefore);
    QCOMPARE(s.client.config().dtrOn, dtrBefore);
    QVERIFY(!s.client.sendBreak(true));
    QCOMPARE(status.size(), 2);
    QCOMPARE(status.at(0).at(0).toString(), PortSession::relayControlLineText());
    // The pane's own serial port object was never opened or touched.
    QVERIFY(!s.client.controller()->isOpen(ConnectionMode::Serial));
    QVERIFY(!s.client.controller()->breakLevel());
}

QTEST_MAIN(TestRelayHost)
#include "tst_relayhost.moc"
