// "open_relay" as the Live Console delivers it: a command pushed on the
// console socket of a loopback stand-in of the service starts the host end
// of a relay on a pty-backed port, against a loopback stand-in of the relay
// endpoint; the owner's switch, a share, a missing ticket, an unknown or
// already relayed port each give their failure.
#include "cloud/accountsession.h"
#include "cloud/cloudconsoleservice.h"
#include "cloud/consolesocket.h"
#include "cloud/networkservices.h"
#include "cloud/relaycommand.h"
#include "cloud/relaycontroller.h"
#include "cloud/relaysocket.h"
#include "consolepeer.h"
#include "relaypeer.h"
#include "support/ptypair.h"
#include "support/settingssandbox.h"
#include "terminal/portsession.h"

#include <QJsonArray>
#include <QSerialPort>
#include <QSettings>
#include <QSignalSpy>
#include <QtTest>

namespace {

constexpr int kWait = 10000;

QJsonObject consoleReply(QJsonObject members = {})
{
    members.insert("type", "console");
    members.insert("status", true);
    return members;
}

QJsonObject command(const QString &id, const QJsonObject &payload)
{
    return {{"command_id", id}, {"command", "open_relay"}, {"payload", payload}};
}

} // namespace

class RelayConsoleTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void openRelayCarriesThePortUntilItCloses();
    void openRelayRefusals_data();
    void openRelayRefusals();

private:
    QJsonObject resultOf(const QString &commandId);

    std::unique_ptr<SettingsSandbox> m_sandbox;
    std::unique_ptr<ConsolePeer> m_console;
    std::unique_ptr<RelayPeer> m_relays;
    std::unique_ptr<NetworkServices> m_network;
    std::unique_ptr<AccountSession> m_account;
    std::unique_ptr<PtyPair> m_pty;
    std::unique_ptr<PortSession> m_port;
    std::unique_ptr<QSerialPort> m_far;
    std::unique_ptr<CloudConsoleService> m_service;
};

void RelayConsoleTest::initTestCase()
{
    m_sandbox = std::make_unique<SettingsSandbox>();
}

void RelayConsoleTest::init()
{
    m_sandbox->clear();
    m_console = std::make_unique<ConsolePeer>();
    QVERIFY(m_console->listen());
    qputenv("TSL_HOST", m_console->baseUrl().toUtf8());
    m_console->reply = [](const ConsolePeer::Request &) { return consoleReply({{"ws", true}}); };
    m_relays = std::make_unique<RelayPeer>();
    QVERIFY(m_relays->listen());

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
    config.baudRate = 921600;
    PaneOptions quiet;
    quiet.displaySendMsg = false;
    m_port->applySettings(config, quiet, {});
    QVERIFY(m_port->openConnection());
    m_far = std::make_unique<QSerialPort>(m_pty->pathB());
    QVERIFY(m_far->open(QIODevice::ReadWrite));

    m_service = std::make_unique<CloudConsoleService>(m_network.get(), m_account.get(), [this] {
        return QList<PortSession *>{m_port.get()};
    });
    CloudConsoleService::Timing timing;
    timing.heartbeatMs = 60000;
    timing.pollMs = {100, 100, 100, 100};
    timing.watchdogMs = 60000;
    m_service->setTiming(timing);
    m_service->socket()->setBackoff(ConsoleBackoff(20, 200));
    RelayCommand::addTo(*m_service, [this] { return QList<PortSession *>{m_port.get()}; },
                        [address = m_relays->address()] { return address; });
    m_service->setEnabled(true);
    QVERIFY(QTest::qWaitFor([this] { return m_service->socket()->isReady(); }, kWait));
}

void RelayConsoleTest::cleanup()
{
    m_service.reset();
    m_far.reset();
    m_port.reset();
    m_pty.reset();
    m_account.reset();
    m_network.reset();
    m_relays.reset();
    m_console.reset();
    qunsetenv("TSL_HOST");
}

QJsonObject RelayConsoleTest::resultOf(const QString &commandId)
{
    QJsonObject result;
    QTest::qWaitFor([&] {
        for (const QJsonObject &message : m_console->socketMessagesOfType("result")) {
            if (message.value("command_id").toString() == commandId)
                result = message.value("result").toObject();
        }
        return !result.isEmpty();
    }, kWait);
    return result;
}

void RelayConsoleTest::openRelayCarriesThePortUntilItCloses()
{
    QSettings().setValue("CloudConsoleAllowRelay", true);
    const QString key = m_port->portKey();
    const auto [hostTicket, clientTicket] = m_relays->openRelay("relay1", key);
    QSignalSpy engaged(m_service.get(), &CloudConsoleService::relayEngaged);
    QSignalSpy ended(m_service.get(), &CloudConsoleService::relayEnded);

    m_console->push(consoleReply({{"commands", QJsonArray{command("r1", {{"port_key", key},
                                                                       {"relay_id", "relay1"},
                                                                       {"ticket", hostTicket},
                                                                       {"guest_name", "Ana"}})}}}));
    const QJsonObject result = resultOf("r1");
    QCOMPARE(result.value("status").toString(), QStringLiteral("succeeded"));
    QCOMPARE(result.value("relay_id").toString(), QStringLiteral("relay1"));
    QCOMPARE(result.value("port_key").toString(), key);
    QVERIFY(RelayController::of(m_port.get()));
    QVERIFY(engaged.isEmpty());  // not before the other end has joined

    RelaySocket client;
    QSignalSpy stopped(&client, &RelaySocket::stopped);
    QByteArray atClient;
    connect(&client, &RelaySocket::binaryReceived, this, [&atClient](const QByteArray &bytes) { atClient += bytes; });
    client.open(m_relays->address(), clientTicket);
    QTRY_COMPARE_WITH_TIMEOUT(engaged.size(), 1, kWait);
    QCOMPARE(engaged.at(0).at(0).toString(), key);
    QCOMPARE(engaged.at(0).at(1).toString(), QStringLiteral("Ana"));

    // Both ways through the port the command named.
    m_far->write("from the device");
    QTRY_COMPARE_WITH_TIMEOUT(atClient, QByteArray("from the device"), kWait);
    client.send("to the device");
    QByteArray atFar;
    QTRY_COMPARE_WITH_TIMEOUT((atFar += m_far->readAll()), QByteArray("to the device"), kWait);

    m_port->closeConnection();
    QCOMPARE(ended.size(), 1);
    QCOMPARE(ended.at(0).at(0).toString(), key);
    QTRY_COMPARE_WITH_TIMEOUT(stopped.size(), 1, kWait);
    QCOMPARE(stopped.at(0).at(0).value<RelaySocket::Stop>(), RelaySocket::Stop::PeerGone);
    QVERIFY(!RelayController::of(m_port.get()));
}

void RelayConsoleTest::openRelayRefusals_data()
{
    QTest::addColumn<bool>("allowed");
    QTest::addColumn<QJsonObject>("payload");
    QTest::addColumn<QString>("errorCode");
    QTest::addColumn<QString>("message");
    const QJsonObject full{{"relay_id", "relay1"}, {"ticket", "T"}};
    auto with = [&full](const char *key, const char *value) {
        QJsonObject payload = full;
        payload.insert(key, value);
        return payload;
    };
    QTest::newRow("switched off") << false << full << "permission_denied" << "cloud relay is disabled on the device";
    QTest::newRow("switched off, through a share")
        << false << with("share_id", "s1") << "permission_denied" << "cloud relay is disabled on the device";
    QTest::newRow("no ticket") << true << with("ticket", "") << "invalid_payload"
                               << "open_relay needs a relay_id and a ticket";
    QTest::newRow("no relay id") << true << QJsonObject{{"ticket", "T"}} << "invalid_payload"
                                 << "open_relay needs a relay_id and a ticket";
    QTest::newRow("unknown port") << true << with("port_key", "p999999") << "port_not_found"
                                  << "no such port: p999999";
    QTest::newRow("share this computer does not hold")
        << true << with("share_id", "s1") << "share_not_found" << "this computer holds no such share";
    QTest::newRow("port already relayed") << true << full << "relay_busy" << "this port already has a relay";
}

void RelayConsoleTest::openRelayRefusals()
{
    QFETCH(bool, allowed);
    QFETCH(QJsonObject, payload);
    QFETCH(QString, errorCode);
    QFETCH(QString, message);
    QSettings().setValue("CloudConsoleAllowRelay", allowed);
    if (!payload.contains("port_key"))
        payload.insert("port_key", m_port->portKey());

    QJsonArray commands;
    if (errorCode == QLatin1String("relay_busy")) {
        const auto tickets = m_relays->openRelay("relay0", m_port->portKey());
        commands.append(command("first", {{"port_key", m_port->portKey()}, {"relay_id", "relay0"},
                                          {"ticket", tickets.first}}));
    }
    commands.append(command("c1", payload));
    m_console->push(consoleReply({{"commands", commands}}));
    const QJsonObject result = resultOf("c1");
    QCOMPARE(result.value("status").toString(), QStringLiteral("failed"));
    QCOMPARE(result.value("error_code").toString(), errorCode);
    QCOMPARE(result.value("message").toString(), message);
    QCOMPARE(result.value("cid").toString(), m_service->cid());
    if (errorCode == QLatin1String("relay_busy")) {
        QCOMPARE(resultOf("first").value("status").toString(), QStringLiteral("succeeded"));
        QCOMPARE(RelayController::of(m_port.get())->request().relayId, QStringLiteral("relay0"));
    } else {
        QVERIFY(!RelayController::of(m_port.get()));
    }
}

QTEST_MAIN(RelayConsoleTest)
#include "tst_relayconsole.moc"
