// The Live Console against a loopback stand-in of the cloud service (HTTP
// and the console WebSocket on one port), with a real pseudo-terminal pair
// behind the port it drives: hello and back-off, the fall back to polling,
// results until confirmed, commands run once, watching, traffic, the quota.
#include "cloud/accountsession.h"
#include "cloud/cloudconsoleservice.h"
#include "cloud/consolesocket.h"
#include "cloud/networkservices.h"
#include "consolepeer.h"
#include "support/listenport.h"
#include "support/ptypair.h"
#include "support/settingssandbox.h"
#include "terminal/portsession.h"

#include <QJsonArray>
#include <QSerialPort>
#include <QSettings>
#include <QtTest>

namespace {

constexpr int kWait = 5000;

QJsonObject consoleReply(QJsonObject members = {})
{
    members.insert("type", "console");
    members.insert("status", true);
    return members;
}

QJsonObject command(const QString &id, const QString &name, const QJsonObject &payload)
{
    return {{"command_id", id}, {"command", name}, {"payload", payload}};
}

// Every payload text of the events the program uploaded, by either road.
QString uploadedText(const ConsolePeer &peer, const QString &eventType = "rx")
{
    QString text;
    QList<QJsonObject> bodies;
    for (const ConsolePeer::Request &r : peer.matching("POST", "/console/events"))
        bodies.append(r.body);
    bodies += peer.socketMessagesOfType("events");
    for (const QJsonObject &body : bodies) {
        for (const QJsonValue &event : body.value("events").toArray()) {
            if (event["event_type"].toString() == eventType)
                text += event["payload_text"].toString();
        }
    }
    return text;
}

} // namespace

class ConsoleServiceTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void helloAnswerOpensOrClosesTheSocket_data();
    void helloAnswerOpensOrClosesTheSocket();
    void lostSocketFallsBackToPollingAtOnceAndComesBack();
    void unreachableServiceIsRetriedOncePerAttempt();
    void pendingResultIsDeliveredUntilConfirmed();
    void commandDeliveredBySocketAndPollRunsOnce();
    void remoteSendReachesTheFarEnd_data();
    void remoteSendReachesTheFarEnd();
    void watchedTrafficGoesOverHttpWithSnapshots();
    void hearsayOfNobodyWatchingKeepsTheStreamUntilTheSecond();
    void quotaStopsLiveConsole_data();
    void quotaStopsLiveConsole();

private:
    // Switched on with the socket allowed, waits until it is ready.
    bool startOnSocket();
    QByteArray readFar(qsizetype expected);

    std::unique_ptr<SettingsSandbox> m_sandbox;
    std::unique_ptr<ConsolePeer> m_peer;
    std::unique_ptr<NetworkServices> m_network;
    std::unique_ptr<AccountSession> m_account;
    std::unique_ptr<PtyPair> m_pty;
    std::unique_ptr<PortSession> m_port;
    std::unique_ptr<QSerialPort> m_far;
    std::unique_ptr<CloudConsoleService> m_service;
    QByteArray m_farBytes;
};

void ConsoleServiceTest::initTestCase()
{
    m_sandbox = std::make_unique<SettingsSandbox>();
}

void ConsoleServiceTest::init()
{
    m_sandbox->clear();
    m_peer = std::make_unique<ConsolePeer>();
    QVERIFY(m_peer->listen());
    qputenv("TSL_HOST", m_peer->baseUrl().toUtf8());
    m_peer->reply = [](const ConsolePeer::Request &) { return consoleReply({{"ws", false}}); };

    m_network = std::make_unique<NetworkServices>();
    m_account = std::make_unique<AccountSession>(m_network.get());
    m_account->applyLogin({{"user", QJsonObject{{"id", 7}, {"email", "a@example.com"}}},
                           {"access_token", "token-7"},
                           {"expires_in", 3600}});

    m_pty = std::make_unique<PtyPair>();
    QVERIFY2(m_pty->start(), qPrintable(m_pty->errorText()));
    m_port = std::make_unique<PortSession>(1);
    ConnectionConfig config;
    config.portName = m_pty->pathA();
    config.baudRate = 115200;
    m_port->applySettings(config, {}, {});
    QVERIFY(m_port->openConnection());
    m_far = std::make_unique<QSerialPort>(m_pty->pathB());
    QVERIFY(m_far->open(QIODevice::ReadWrite));
    m_farBytes.clear();

    m_service = std::make_unique<CloudConsoleService>(m_network.get(), m_account.get(), [this] {
        return QList<PortSession *>{m_port.get()};
    });
    CloudConsoleService::Timing timing;
    timing.heartbeatMs = 60000;  // the tests call for it when they want one
    timing.pollMs = {100, 100, 100, 100};
    timing.uploadMs = 100;
    timing.resultRetryMs = 150;
    timing.watchdogMs = 60000;
    timing.snapshotSettleMs = 10;
    m_service->setTiming(timing);
    m_service->socket()->setBackoff(ConsoleBackoff(20, 200));
}

void ConsoleServiceTest::cleanup()
{
    m_service.reset();
    m_far.reset();
    m_port.reset();
    m_pty.reset();
    m_account.reset();
    m_network.reset();
    m_peer.reset();
    qunsetenv("TSL_HOST");
}

bool ConsoleServiceTest::startOnSocket()
{
    m_peer->reply = [](const ConsolePeer::Request &) { return consoleReply({{"ws", true}}); };
    m_service->setEnabled(true);
    return QTest::qWaitFor([this] { return m_service->socket()->isReady(); }, kWait);
}

QByteArray ConsoleServiceTest::readFar(qsizetype expected)
{
    const bool enough = QTest::qWaitFor([&] {
        m_farBytes += m_far->readAll();
        return m_farBytes.size() >= expected;
    }, kWait);
    Q_UNUSED(enough);  // the caller compares what came
    return m_farBytes;
}

void ConsoleServiceTest::helloAnswerOpensOrClosesTheSocket_data()
{
    QTest::addColumn<bool>("accepted");
    QTest::newRow("status true") << true;
    QTest::newRow("status false") << false;
}

void ConsoleServiceTest::helloAnswerOpensOrClosesTheSocket()
{
    QFETCH(bool, accepted);
    if (!accepted)
        m_peer->helloAnswer = {{"type", "hello"}, {"status", false}, {"code", "cid_mismatch"}, {"description", "no"}};
    QSignalSpy scheduled(m_service->socket(), &ConsoleSocket::reconnectScheduled);
    m_peer->reply = [](const ConsolePeer::Request &) { return consoleReply({{"ws", true}}); };
    m_service->setEnabled(true);
    QTRY_VERIFY_WITH_TIMEOUT(m_peer->hellos >= 1, kWait);
    if (accepted)
        QTRY_VERIFY_WITH_TIMEOUT(m_service->socket()->isReady(), kWait);

    // The heartbeat went first, by HTTP, and named this run and computer.
    const QJsonObject heartbeat = m_peer->matching("POST", "/console/heartbeat").value(0).body;
    QCOMPARE(heartbeat.value("cid").toString(), m_service->cid());
    QCOMPARE(heartbeat.value("session_id").toString(), m_service->sessionId());
    QCOMPARE(heartbeat.value("version").toString(), QString("6.6.7"));
    QVERIFY(heartbeat.value("poll").toBool());
    const QJsonObject hello = m_peer->socketMessagesOfType("hello").value(0);
    QCOMPARE(hello.value("cid").toString(), m_service->cid());
    QCOMPARE(hello.value("session_id").toString(), m_service->sessionId());
    QVERIFY(!hello.value("hostname").toString().isEmpty());
    QCOMPARE(m_peer->socketAuthorizations.value(0), QByteArray("Bearer token-7"));

    if (accepted) {
        QCOMPARE(m_peer->hellos, 1);
        QVERIFY(scheduled.isEmpty());
        return;
    }
    // Closed with 1000 by the program, and tried again after a back-off.
    QTRY_VERIFY_WITH_TIMEOUT(!m_peer->closeCodes.isEmpty(), kWait);
    QCOMPARE(m_peer->closeCodes.value(0), 1000);
    QTRY_VERIFY_WITH_TIMEOUT(!scheduled.isEmpty(), kWait);
    QVERIFY(scheduled.at(0).at(0).toLongLong() <= 20);
    QTRY_VERIFY_WITH_TIMEOUT(m_peer->hellos >= 2, kWait);
    QVERIFY(!m_service->socket()->isReady());
}

void ConsoleServiceTest::lostSocketFallsBackToPollingAtOnceAndComesBack()
{
    // Polls far apart: only the fall back can make one soon.
    CloudConsoleService::Timing timing;
    timing.pollMs = {60000, 60000, 60000, 60000};
    m_service->setTiming(timing);
    m_service->socket()->setBackoff(ConsoleBackoff(20, 200));
    QVERIFY(startOnSocket());
    const qsizetype polls = m_peer->count("GET", "/console/commands/poll");
    QSignalSpy scheduled(m_service->socket(), &ConsoleSocket::reconnectScheduled);
    QSignalSpy lost(m_service->socket(), &ConsoleSocket::disconnected);

    m_peer->dropSocket();
    QTRY_COMPARE_WITH_TIMEOUT(lost.size(), 1, kWait);
    QTRY_VERIFY_WITH_TIMEOUT(m_peer->count("GET", "/console/commands/poll") > polls, 1000);
    QCOMPARE(m_peer->matching("GET", "/console/commands/poll").last().query.queryItemValue("limit"), QString("16"));
    QTRY_VERIFY_WITH_TIMEOUT(m_peer->count("POST", "/console/heartbeat") >= 2, 1000);
    QCOMPARE(scheduled.size(), 1);
    QTRY_VERIFY_WITH_TIMEOUT(m_service->socket()->isReady(), kWait);
    QCOMPARE(m_peer->hellos, 2);
    QCOMPARE(m_service->socket()->attempt(), 0);
}

void ConsoleServiceTest::unreachableServiceIsRetriedOncePerAttempt()
{
    const RefusingPort closed;
    QVERIFY(closed.port() != 0);
    const QString nowhere = closed.url();
    ConsoleSocket socket;
    socket.setBackoff(ConsoleBackoff(5, 40));
    QSignalSpy scheduled(&socket, &ConsoleSocket::reconnectScheduled);
    QList<int> attempts;
    connect(&socket, &ConsoleSocket::reconnectScheduled, this, [&] { attempts.append(socket.attempt()); });
    socket.start(nowhere, "token", {{"type", "hello"}});
    QTRY_VERIFY_WITH_TIMEOUT(scheduled.size() >= 4, kWait);
    socket.stop();
    // However the refusal is reported, each attempt is counted and
    // rescheduled once, with waits under their ceilings.
    QCOMPARE(attempts.mid(0, 4), (QList<int>{1, 2, 3, 4}));
    for (int i = 0; i < 4; ++i)
        QVERIFY(scheduled.at(i).at(0).toLongLong() <= (5 << i));
    QVERIFY(!socket.isRunning());
    QVERIFY(!socket.isReady());
}

void ConsoleServiceTest::pendingResultIsDeliveredUntilConfirmed()
{
    QSettings().setValue("CloudConsoleAllowRemoteSend", true);
    QVERIFY(startOnSocket());
    QSignalSpy ran(m_service.get(), &CloudConsoleService::commandRun);
    m_peer->push(consoleReply({{"commands", QJsonArray{command("c1", "send_text", {{"port_key", m_port->portKey()},
                                                                                   {"text", "once"},
                                                                                   {"line_ending", "lf"}})}}}));
    QTRY_COMPARE_WITH_TIMEOUT(ran.size(), 1, kWait);
    // Unconfirmed, the socket gets it again on the retry tick.
    QTRY_VERIFY_WITH_TIMEOUT(m_peer->socketMessagesOfType("result").size() >= 2, kWait);
    const QJsonObject sent = m_peer->socketMessagesOfType("result").value(0);
    QCOMPARE(sent.value("command_id").toString(), QString("c1"));
    QCOMPARE(sent.value("result").toObject(),
             (QJsonObject{{"cid", m_service->cid()}, {"status", "succeeded"}, {"bytes", 5}}));

    // The socket goes; the result goes by HTTP, and that reply confirms it.
    m_peer->reply = [](const ConsolePeer::Request &r) {
        if (r.path.endsWith("/result"))
            return consoleReply({{"command_id", r.path.section('/', -2, -2)}});
        return consoleReply({{"ws", false}});
    };
    m_peer->dropSocket();
    QTRY_COMPARE_WITH_TIMEOUT(m_service->ledger().pendingCount(), 0, kWait);
    const QList<ConsolePeer::Request> posted = m_peer->matching("POST", "/console/commands/c1/result");
    QCOMPARE(posted.size(), 1);
    QCOMPARE(posted.at(0).body.value("session_id").toString(), m_service->sessionId());
    QCOMPARE(posted.at(0).body.value("status").toString(), QString("succeeded"));
    QTest::qWait(300);  // several poll ticks: nothing is sent again
    QCOMPARE(m_peer->count("POST", "/result"), 1);
    QCOMPARE(readFar(5), QByteArray("once\n"));
    QCOMPARE(ran.size(), 1);
}

void ConsoleServiceTest::commandDeliveredBySocketAndPollRunsOnce()
{
    QSettings().setValue("CloudConsoleAllowRemoteSend", true);
    QVERIFY(startOnSocket());
    QSignalSpy ran(m_service.get(), &CloudConsoleService::commandRun);
    const QJsonObject twice = command("c2", "send_text", {{"port_key", m_port->portKey()}, {"text", "x"}});
    m_peer->push(consoleReply({{"commands", QJsonArray{twice}}}));
    QTRY_COMPARE_WITH_TIMEOUT(ran.size(), 1, kWait);

    // The socket drops before the service stored the result; the next poll
    // offers the command again.
    m_peer->reply = [twice](const ConsolePeer::Request &r) {
        if (r.path.endsWith("/commands/poll"))
            return consoleReply({{"ws", false}, {"commands", QJsonArray{twice}}});
        return consoleReply({{"ws", false}});
    };
    m_peer->dropSocket();
    QTRY_VERIFY_WITH_TIMEOUT(m_peer->count("POST", "/console/commands/c2/ack") >= 1, kWait);
    QTRY_VERIFY_WITH_TIMEOUT(m_peer->count("POST", "/console/commands/c2/result") >= 1, kWait);
    const QJsonObject ack = m_peer->matching("POST", "/ack").value(0).body;
    QCOMPARE(ack, (QJsonObject{{"cid", m_service->cid()}, {"session_id", m_service->sessionId()}}));
    QTest::qWait(300);
    QCOMPARE(ran.size(), 1);
    QCOMPARE(readFar(1), QByteArray("x"));
    QTest::qWait(100);
    m_farBytes += m_far->readAll();
    QCOMPARE(m_farBytes, QByteArray("x"));
}

void ConsoleServiceTest::remoteSendReachesTheFarEnd_data()
{
    QTest::addColumn<bool>("allowed");
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("ending");
    QTest::addColumn<QByteArray>("far");
    QTest::addColumn<QJsonObject>("result");
    QTest::newRow("text with CRLF") << true << "send_text" << "hello" << "crlf" << QByteArray("hello\r\n")
                                    << QJsonObject{{"status", "succeeded"}, {"bytes", 7}};
    QTest::newRow("hex with LF") << true << "send_hex" << "48 69 00" << "lf" << QByteArray("Hi\0\n", 4)
                                 << QJsonObject{{"status", "succeeded"}, {"bytes", 4}};
    QTest::newRow("remote send off") << false << "send_text" << "hello" << "crlf" << QByteArray()
                                     << QJsonObject{{"status", "failed"},
                                                    {"error_code", "permission_denied"},
                                                    {"message", "remote send is disabled on the device"}};
}

void ConsoleServiceTest::remoteSendReachesTheFarEnd()
{
    QFETCH(bool, allowed);
    QFETCH(QString, name);
    QFETCH(QString, text);
    QFETCH(QString, ending);
    QFETCH(QByteArray, far);
    QFETCH(QJsonObject, result);
    QSettings().setValue("CloudConsoleAllowRemoteSend", allowed);
    QVERIFY(startOnSocket());
    PaneOptions options;
    options.displaySendMsg = true;
    m_port->setOptions(options);

    m_peer->push(consoleReply(
        {{"commands", QJsonArray{command("s1", name, {{"port_key", m_port->portKey()}, {"text", text}, {"line_ending", ending}})}}}));
    QTRY_VERIFY_WITH_TIMEOUT(!m_peer->socketMessagesOfType("result").isEmpty(), kWait);
    result.insert("cid", m_service->cid());
    QCOMPARE(m_peer->socketMessagesOfType("result").at(0).value("result").toObject(), result);
    if (far.isEmpty()) {
        QTest::qWait(100);
        QVERIFY(m_far->readAll().isEmpty());
        QCOMPARE(m_port->txCount(), quint64(0));
        return;
    }
    QCOMPARE(readFar(far.size()), far);
    // Through the pane's one send path: counted and echoed like a typed send.
    QCOMPARE(m_port->txCount(), quint64(far.size()));
    const QList<DisplayChunk> shown = m_port->takeForView(-1, -1);
    QCOMPARE(shown.size(), 1);
    QCOMPARE(shown.at(0).bytes, far);
}

void ConsoleServiceTest::watchedTrafficGoesOverHttpWithSnapshots()
{
    QSettings().setValue("CloudConsoleAllowPortControl", true);
    m_peer->reply = [](const ConsolePeer::Request &) {
        return consoleReply({{"ws", false}, {"watching", true}, {"authoritative", true}});
    };
    QSignalSpy watching(m_service.get(), &CloudConsoleService::watchingChanged);
    m_service->setEnabled(true);
    QTRY_COMPARE_WITH_TIMEOUT(watching.size(), 1, kWait);
    QVERIFY(m_service->isWatching());
    QCOMPARE(m_service->pollIntervalMs(), 100);

    QTRY_VERIFY_WITH_TIMEOUT(m_peer->count("POST", "/console/ports/snapshot") >= 1, kWait);
    const QJsonObject snapshot = m_peer->matching("POST", "/console/ports/snapshot").at(0).body;
    QCOMPARE(snapshot.value("cid").toString(), m_service->cid());
    QCOMPARE(snapshot.value("session_id").toString(), m_service->sessionId());
    QJsonObject entry = m_port->snapshotEntry();
    entry.insert("capabilities", QJsonArray{"control"});
    QCOMPARE(snapshot.value("ports").toArray(), QJsonArray{entry});

    m_far->write("from the device\r\n");
    QTRY_COMPARE_WITH_TIMEOUT(uploadedText(*m_peer), QString("from the device\r\n"), kWait);
    const QJsonObject event = m_peer->matching("POST", "/console/events").at(0).body.value("events")[0].toObject();
    QCOMPARE(event.value("port_key").toString(), m_port->portKey());
    QVERIFY(event.value("seq").toInteger() > 0);
    QVERIFY(qAbs(event.value("client_time").toInteger() - QDateTime::currentMSecsSinceEpoch()) < 60000);

    // Closing the port while watched tells the watchers soon.
    const qsizetype snapshots = m_peer->count("POST", "/console/ports/snapshot");
    m_port->closeConnection();
    QTRY_VERIFY_WITH_TIMEOUT(m_peer->count("POST", "/console/ports/snapshot") > snapshots, kWait);
    QCOMPARE(m_peer->matching("POST", "/console/ports/snapshot").last().body.value("ports")[0]["open"].toBool(),
             false);
}

void ConsoleServiceTest::hearsayOfNobodyWatchingKeepsTheStreamUntilTheSecond()
{
    QVERIFY(startOnSocket());
    QSignalSpy watching(m_service.get(), &CloudConsoleService::watchingChanged);
    m_peer->push(consoleReply({{"watching", true}, {"authoritative", true}}));
    QTRY_COMPARE_WITH_TIMEOUT(watching.size(), 1, kWait);
    // On the socket the snapshot goes on the socket.
    QTRY_VERIFY_WITH_TIMEOUT(!m_peer->socketMessagesOfType("snapshot").isEmpty(), kWait);

    m_far->write("one;");
    QTRY_COMPARE_WITH_TIMEOUT(uploadedText(*m_peer), QString("one;"), kWait);
    m_peer->push(consoleReply({{"watching", false}}));
    m_far->write("two;");
    QTRY_COMPARE_WITH_TIMEOUT(uploadedText(*m_peer), QString("one;two;"), kWait);
    QVERIFY(m_service->isWatching());

    m_peer->push(consoleReply({{"watching", false}, {"authoritative", false}}));
    QTRY_COMPARE_WITH_TIMEOUT(watching.size(), 2, kWait);
    QCOMPARE(watching.at(1).at(0).toBool(), false);
    const quint64 received = m_port->rxCount();
    m_far->write("three;");
    QTRY_COMPARE_WITH_TIMEOUT(m_port->rxCount(), received + 6, kWait);
    QTest::qWait(250);  // upload ticks would have passed
    QCOMPARE(uploadedText(*m_peer), QString("one;two;"));
    QCOMPARE(m_service->traffic().eventCount(), 0);
}

void ConsoleServiceTest::quotaStopsLiveConsole_data()
{
    QTest::addColumn<bool>("byReply");
    QTest::newRow("the service says quota_exceeded") << true;
    QTest::newRow("buffered traffic exceeds up_remaining") << false;
}

void ConsoleServiceTest::quotaStopsLiveConsole()
{
    QFETCH(bool, byReply);
    QVERIFY(startOnSocket());
    QSignalSpy stopped(m_service.get(), &CloudConsoleService::stoppedItself);
    if (byReply) {
        m_peer->push({{"type", "console"}, {"status", false}, {"code", "quota_exceeded"}, {"description", "used up"}});
    } else {
        m_peer->push(consoleReply({{"watching", true}, {"authoritative", true}, {"up_remaining", 10}}));
        QTRY_VERIFY_WITH_TIMEOUT(m_service->isWatching(), kWait);
        m_far->write(QByteArray(100, 'q'));
    }
    QTRY_COMPARE_WITH_TIMEOUT(stopped.size(), 1, kWait);
    QCOMPARE(stopped.at(0).at(0).toString(),
             QString("Live Console stopped: monthly traffic quota used up. Please top up to continue."));
    QVERIFY(!m_service->isEnabled());
    QVERIFY(!m_service->isWatching());
    QVERIFY(!m_service->socket()->isRunning());
    QCOMPARE(uploadedText(*m_peer), QString());
    QTRY_VERIFY_WITH_TIMEOUT(!m_peer->closeCodes.isEmpty(), kWait);
    QCOMPARE(m_peer->closeCodes.value(0), 1000);
}

QTEST_GUILESS_MAIN(ConsoleServiceTest)
#include "tst_consoleservice.moc"
