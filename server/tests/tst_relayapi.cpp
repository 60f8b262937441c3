// Live Relay on the service: targets, sessions and their tickets, the
// host's answer, ending, and the relay socket pairing two ends, against the
// real service in this process on a loopback port.
#include "codemailer.h"
#include "cloudservice.h"
#include "rawhttp.h"
#include "relayend.h"
#include "relayhub.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QRandomGenerator>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QtTest>

namespace {

struct KeptCodes : CodeMailer
{
    QHash<QString, QString> codes;
    void sendCode(const QString &email, const QString &code, int) override { codes.insert(email, code); }
};

constexpr qint64 kStart = 1'790'000'000'000;
const QString kHostCid = QStringLiteral("3f0c2b1e-8a7d-4c55-9e21-0d6b5a4f7c10");
const QString kClientCid = QStringLiteral("9a1d2c3b-0000-4c55-9e21-0d6b5a4f7c11");

} // namespace

class TestRelayApi : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void targetsListTheOtherComputersAndWhereRelaysAreAllowed();
    void openingIsRefusedWithTheContractsCodes_data();
    void openingIsRefusedWithTheContractsCodes();
    void twoEndsPairAndCarryBytesBothWaysInOrder();
    void badTicketsAreClosedWithAReason_data();
    void badTicketsAreClosedWithAReason();
    void theHostsRefusalReachesTheWaitingClient();
    void endingASessionTellsTheOtherEnd_data();
    void endingASessionTellsTheOtherEnd();
    void aSlowReaderHoldsTheWriterBack();
    void relayedBytesCountTowardTheOwnersQuota();
    void aRateLimitAnnouncesItselfAndHolds();
    void aStoppingServiceSaysClosing();

private:
    bool startService(qint64 quota = 0, qint64 rateLimit = 0);
    QString signUp(const QString &email);
    void announce(const QString &token, const QString &cid, const QJsonArray &ports, const QString &session = "s1");
    // Opens a session for p1 of the host; the client's ticket and relay id.
    QJsonObject openSession(const QString &token, const QString &port = "p1");
    // The host's ticket, as "open_relay" brings it to the computer.
    QJsonObject hostCommand(const QString &token);
    // A paired relay: host and client ends ready.
    bool pairedRelay(RelayEnd &host, RelayEnd &client, QString *relayId = nullptr);

    std::unique_ptr<QTemporaryDir> m_dir;
    std::atomic<qint64> m_now = kStart;
    KeptCodes m_mailer;
    std::unique_ptr<CloudService> m_service;
    quint16 m_port = 0;
    QString m_token;
};

static QJsonObject port(const QString &key, bool relay, bool open = true)
{
    QJsonArray capabilities{"send"};
    if (relay)
        capabilities.append("open_relay");
    return {{"port_key", key}, {"connection_mode", 0}, {"mode_tag", "ser"}, {"port_name", "/dev/ttyUSB0"},
            {"label", "Board " + key}, {"open", open}, {"capabilities", capabilities}};
}

bool TestRelayApi::startService(qint64 quota, qint64 rateLimit)
{
    m_service.reset();
    ServiceConfig config;
    config.listenAddress = QHostAddress(QHostAddress::LocalHost);
    config.port = 0;
    config.database = m_dir->filePath(QStringLiteral("cloud.sqlite"));
    config.argon2 = {256, 1, 1};
    config.monthlyQuotaBytes = quota;
    config.relayRateLimit = rateLimit;
    config.instanceId = QStringLiteral("one");
    m_service = std::make_unique<CloudService>();
    QString error;
    const bool ok = m_service->start(config, &error, [this] { return m_now.load(); }, &m_mailer);
    if (!ok)
        qWarning() << error;
    m_port = m_service->port();
    return ok;
}

void TestRelayApi::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    m_now = kStart;
    QVERIFY(startService());
    m_token = signUp(QStringLiteral("ada@example.org"));
    QVERIFY(!m_token.isEmpty());
    announce(m_token, kHostCid, {port("p1", true), port("p2", false)});
}

void TestRelayApi::cleanup()
{
    m_service.reset();
    m_dir.reset();
}

QString TestRelayApi::signUp(const QString &email)
{
    httpJson(m_port, "POST", "/api/v3/account/register/code", {{"email", email}});
    return httpJson(m_port, "POST", "/api/v3/account/register",
                    {{"email", email}, {"username", "Ada"}, {"password", "correct horse"},
                     {"code", m_mailer.codes.value(email)}, {"device_name", "bench"}, {"client_version", "6.6.7"}})
        .json.value("access_token")
        .toString();
}

void TestRelayApi::announce(const QString &token, const QString &cid, const QJsonArray &ports, const QString &session)
{
    QVERIFY(httpJson(m_port, "POST", "/api/v3/console/heartbeat",
                     {{"cid", cid}, {"session_id", session}, {"version", "6.6.7"}, {"hostname", "host-" + cid.left(4)},
                      {"poll", true}},
                     token)
                .ok());
    QVERIFY(httpJson(m_port, "POST", "/api/v3/console/ports/snapshot",
                     {{"cid", cid}, {"session_id", session}, {"ports", ports}}, token)
                .ok());
}

QJsonObject TestRelayApi::openSession(const QString &token, const QString &portKey)
{
    return httpJson(m_port, "POST", "/api/v3/relay/sessions",
                    {{"cid", kHostCid}, {"session_id", "s1"}, {"port_key", portKey}}, token)
        .json;
}

QJsonObject TestRelayApi::hostCommand(const QString &token)
{
    const QJsonArray commands = httpRequest(m_port, "GET", "/api/v3/console/commands/poll?cid=" + kHostCid.toUtf8(), {},
                                            token)
                                    .json.value("commands")
                                    .toArray();
    for (const QJsonValue &command : commands) {
        if (command.toObject().value("command").toString() == QLatin1String("open_relay"))
            return command.toObject();
    }
    return {};
}

bool TestRelayApi::pairedRelay(RelayEnd &host, RelayEnd &client, QString *relayId)
{
    const QJsonObject session = openSession(m_token);
    const QJsonObject command = hostCommand(m_token);
    if (!session.value("status").toBool() || command.isEmpty())
        return false;
    client.open(m_port, session.value("ticket").toString());
    host.open(m_port, command.value("payload").toObject().value("ticket").toString());
    if (relayId)
        *relayId = session.value("relay_id").toString();
    return host.waitForText("ready") && client.waitForText("ready");
}

void TestRelayApi::targetsListTheOtherComputersAndWhereRelaysAreAllowed()
{
    announce(m_token, kClientCid, {port("p7", true)});
    const RawResponse reply = httpRequest(m_port, "GET", "/api/v3/relay/targets?cid=" + kClientCid.toUtf8(), {}, m_token);
    QVERIFY2(reply.ok(), reply.body.constData());
    const QJsonArray devices = reply.json.value("devices").toArray();
    QCOMPARE(devices.size(), 1);  // the asking computer is left out
    const QJsonObject device = devices[0].toObject();
    QCOMPARE(device.value("cid").toString(), kHostCid);
    QCOMPARE(device.value("online"), QJsonValue(true));
    QCOMPARE(device.value("session_id").toString(), QStringLiteral("s1"));
    const QJsonArray ports = device.value("ports").toArray();
    QCOMPARE(ports.size(), 2);
    QCOMPARE(ports[0].toObject().value("relay_allowed"), QJsonValue(true));
    QCOMPARE(ports[1].toObject().value("relay_allowed"), QJsonValue(false));
    // Another account sees none of them.
    const QString other = signUp(QStringLiteral("bob@example.org"));
    QVERIFY(httpRequest(m_port, "GET", "/api/v3/relay/targets", {}, other).json.value("devices").toArray().isEmpty());
}

void TestRelayApi::openingIsRefusedWithTheContractsCodes_data()
{
    QTest::addColumn<QString>("portKey");
    QTest::addColumn<QString>("session");
    QTest::addColumn<qint64>("later");  // ms after the computer was last seen
    QTest::addColumn<QString>("code");

    QTest::newRow("relay not allowed on the port") << "p2" << "s1" << 0LL << "permission_denied";
    QTest::newRow("no such port") << "p9" << "s1" << 0LL << "port_not_found";
    QTest::newRow("ports of another run") << "p1" << "s0" << 0LL << "port_not_found";
    QTest::newRow("offline computer") << "p1" << "s1" << 70'000LL << "device_offline";
    QTest::newRow("busy port") << "p1" << "s1" << 0LL << "relay_busy";
}

void TestRelayApi::openingIsRefusedWithTheContractsCodes()
{
    QFETCH(QString, portKey);
    QFETCH(QString, session);
    QFETCH(qint64, later);
    QFETCH(QString, code);
    if (code == QLatin1String("relay_busy"))
        QVERIFY(openSession(m_token).value("status").toBool());
    m_now += later;
    const QJsonObject reply = httpJson(m_port, "POST", "/api/v3/relay/sessions",
                                       {{"cid", kHostCid}, {"session_id", session}, {"port_key", portKey}}, m_token)
                                  .json;
    QCOMPARE(reply.value("status"), QJsonValue(false));
    QCOMPARE(reply.value("type").toString(), QStringLiteral("relay"));
    QCOMPARE(reply.value("code").toString(), code);
    QVERIFY(!reply.value("description").toString().isEmpty());
    // Nobody else's computer can be relayed at all.
    const QString other = signUp(QStringLiteral("eve@example.org"));
    QCOMPARE(openSession(other).value("code").toString(), QStringLiteral("device_offline"));
}

void TestRelayApi::twoEndsPairAndCarryBytesBothWaysInOrder()
{
    const QJsonObject session = openSession(m_token);
    QVERIFY2(session.value("status").toBool(), qPrintable(session.value("description").toString()));
    QVERIFY(session.value("ticket").toString().startsWith(QLatin1String("one.")));
    QCOMPARE(session.value("port_key").toString(), QStringLiteral("p1"));
    const QJsonObject command = hostCommand(m_token);
    const QJsonObject payload = command.value("payload").toObject();
    QCOMPARE(payload.value("relay_id").toString(), session.value("relay_id").toString());
    QCOMPARE(payload.value("port_key").toString(), QStringLiteral("p1"));
    QVERIFY(payload.value("ticket").toString() != session.value("ticket").toString());

    RelayEnd host, client;
    client.open(m_port, session.value("ticket").toString());
    QVERIFY(QTest::qWaitFor([&] { return client.opened; }, 5000));
    // The client waits alone until the host comes.
    QTest::qWait(100);
    QVERIFY(!client.hasText("ready"));
    host.open(m_port, payload.value("ticket").toString());
    QVERIFY(host.waitForText("ready"));
    QVERIFY(client.waitForText("ready"));
    QCOMPARE(client.text("ready").value("relay_id").toString(), session.value("relay_id").toString());
    QCOMPARE(host.text("ready").value("port_key").toString(), QStringLiteral("p1"));

    const QByteArray up = randomBytes(3 * 1024 * 1024 + 17);
    const QByteArray down = randomBytes(2 * 1024 * 1024 + 5, 2);
    client.send(up);
    host.send(down);
    QVERIFY(pumpUntil([&] { return host.received.size() >= up.size() && client.received.size() >= down.size(); },
                      30000));
    QVERIFY(host.received == up);
    QVERIFY(client.received == down);

    // The port is busy while the relay lives.
    QCOMPARE(openSession(m_token).value("code").toString(), QStringLiteral("relay_busy"));
    // One end leaving ends the relay for the other.
    host.close();
    QVERIFY(client.waitForText("peer_gone"));
    QVERIFY(client.waitForClose());
    QVERIFY(QTest::qWaitFor([&] { return m_service->relays().relayCount() == 0; }, 5000));
    QVERIFY(openSession(m_token).value("status").toBool());
}

void TestRelayApi::badTicketsAreClosedWithAReason_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("reason");

    QTest::newRow("unknown") << "unknown" << 1008 << "invalid ticket";
    QTest::newRow("expired") << "expired" << 1008 << "ticket expired";
    QTest::newRow("used, its end gone") << "used" << 1008 << "ticket already used";
    QTest::newRow("used, its end held") << "held" << 1013 << "ticket already used";
}

void TestRelayApi::badTicketsAreClosedWithAReason()
{
    QFETCH(QString, kind);
    QFETCH(int, code);
    QFETCH(QString, reason);
    const QJsonObject session = openSession(m_token);
    QString ticket = session.value("ticket").toString();
    RelayEnd first;
    if (kind == QLatin1String("unknown")) {
        ticket = QStringLiteral("one.notaticket");
    } else if (kind == QLatin1String("expired")) {
        m_now += 31'000;
    } else {
        first.open(m_port, ticket);
        QVERIFY(QTest::qWaitFor([&] { return m_service->relays().relayCount() == 1; }, 5000));
        if (kind == QLatin1String("used")) {
            first.socket.abort();
            QVERIFY(QTest::qWaitFor([&] { return m_service->relays().relayCount() == 0; }, 5000));
        }
    }
    RelayEnd end;
    end.open(m_port, ticket);
    QVERIFY(end.waitForClose());
    QCOMPARE(end.closeCode, code);
    QCOMPARE(end.closeReason, reason);
    QVERIFY(!end.hasText("ready"));
}

void TestRelayApi::theHostsRefusalReachesTheWaitingClient()
{
    const QJsonObject session = openSession(m_token);
    RelayEnd client;
    client.open(m_port, session.value("ticket").toString());
    QVERIFY(QTest::qWaitFor([&] { return m_service->relays().relayCount() == 1; }, 5000));
    const QString id = hostCommand(m_token).value("command_id").toString();
    QVERIFY(httpJson(m_port, "POST", "/api/v3/console/commands/" + id.toUtf8() + "/result",
                     {{"cid", kHostCid}, {"session_id", "s1"}, {"status", "failed"}, {"error_code", "relay_busy"},
                      {"message", "this port already has a relay"}},
                     m_token)
                .ok());
    QVERIFY(client.waitForText("peer_refused"));
    QCOMPARE(client.text("peer_refused").value("reason").toString(), QStringLiteral("relay_busy"));
    QVERIFY(client.waitForClose());
    // The refused relay no longer holds the port.
    QVERIFY(openSession(m_token).value("status").toBool());
}

void TestRelayApi::endingASessionTellsTheOtherEnd_data()
{
    QTest::addColumn<QString>("who");
    QTest::addColumn<bool>("ends");

    QTest::newRow("the owner") << "owner" << true;
    QTest::newRow("another account") << "other" << false;
    QTest::newRow("a wrong guest token") << "guest" << false;
}

void TestRelayApi::endingASessionTellsTheOtherEnd()
{
    QFETCH(QString, who);
    QFETCH(bool, ends);
    RelayEnd host, client;
    QString relayId;
    QVERIFY(pairedRelay(host, client, &relayId));
    const QByteArray path = "/api/v3/relay/sessions/" + relayId.toUtf8();
    RawResponse reply;
    if (who == QLatin1String("owner"))
        reply = httpRequest(m_port, "DELETE", path, {}, m_token);
    else if (who == QLatin1String("other"))
        reply = httpRequest(m_port, "DELETE", path, {}, signUp(QStringLiteral("eve@example.org")));
    else
        reply = httpRequest(m_port, "DELETE", path, {}, {}, "X-Relay-Guest-Token: nope\r\n");
    QCOMPARE(reply.ok(), ends);
    if (!ends) {
        QCOMPARE(reply.code(), QStringLiteral("relay_not_found"));
        client.send("still here");
        QVERIFY(QTest::qWaitFor([&] { return host.received == "still here"; }, 5000));
        return;
    }
    QVERIFY(host.waitForText("peer_gone"));
    QVERIFY(client.waitForText("peer_gone"));
    QVERIFY(host.waitForClose());
}

void TestRelayApi::aSlowReaderHoldsTheWriterBack()
{
    RelayEnd host, client;
    QVERIFY(pairedRelay(host, client));
    // The host stops reading; the client offers far more than any bound.
    host.reading = false;
    host.socket.setReadBufferSize(64 * 1024);
    const QByteArray flood = randomBytes(64 * 1024 * 1024);
    client.send(flood);
    QTest::qWait(1500);
    // What left the client is what the kernel's buffers and the service's
    // bounded backlog hold, far below what was offered.
    const qint64 left = flood.size() - client.socket.bytesToWrite();
    QVERIFY2(left < 32 * 1024 * 1024, qPrintable(QString::number(left)));
    // Reading again, everything arrives, in order.
    host.reading = true;
    host.socket.setReadBufferSize(0);
    host.read();
    const bool all = pumpUntil([&] { host.read(); return host.received.size() >= flood.size(); }, 60000);
    QVERIFY2(all, qPrintable(QStringLiteral("%1 of %2 bytes arrived, %3 still to leave the writer")
                                 .arg(host.received.size())
                                 .arg(flood.size())
                                 .arg(client.socket.bytesToWrite())));
    QVERIFY(host.received == flood);
}

void TestRelayApi::relayedBytesCountTowardTheOwnersQuota()
{
    QVERIFY(startService(2 * 1024 * 1024));
    announce(m_token, kHostCid, {port("p1", true)});
    RelayEnd host, client;
    QVERIFY(pairedRelay(host, client));
    client.send(randomBytes(6 * 1024 * 1024));
    QVERIFY(client.waitForText("quota_exhausted"));
    QVERIFY(host.waitForText("quota_exhausted"));
    QVERIFY(client.waitForClose());
}

void TestRelayApi::aRateLimitAnnouncesItselfAndHolds()
{
    QVERIFY(startService(0, 256 * 1024));
    announce(m_token, kHostCid, {port("p1", true)});
    RelayEnd host, client;
    QVERIFY(pairedRelay(host, client));
    QVERIFY(client.waitForText("rate_limited"));
    QCOMPARE(client.text("rate_limited").value("limit_bytes_per_sec").toInteger(), 256 * 1024);
    const QByteArray burst = randomBytes(2 * 1024 * 1024);
    client.send(burst);
    QTest::qWait(1000);
    // A second's allowance and the one saved up, not the whole burst.
    QVERIFY2(host.received.size() < burst.size(), qPrintable(QString::number(host.received.size())));
}

void TestRelayApi::aStoppingServiceSaysClosing()
{
    RelayEnd host, client;
    QVERIFY(pairedRelay(host, client));
    m_service.reset();
    QVERIFY(client.waitForText("closing"));
    QVERIFY(host.waitForText("closing"));
    QVERIFY(client.waitForClose());
    QCOMPARE(client.closeCode, 1001);
}

QTEST_GUILESS_MAIN(TestRelayApi)
#include "tst_relayapi.moc"
