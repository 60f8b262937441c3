// The console service keeping this computer's guest shares, against a
// loopback stand-in of the service's share and console API, with a real
// pseudo-terminal pair behind the shared port: creation after its wait and
// its refusals, guests from the listing, every way a share ends, and a
// guest's commands through the console's own command path, checked against
// the share's level.
#include "cloud/accountsession.h"
#include "cloud/cloudconsoleservice.h"
#include "cloud/guestsharekeeper.h"
#include "cloud/networkservices.h"
#include "consolepeer.h"
#include "sharepeer.h"
#include "support/listenport.h"
#include "support/ptypair.h"
#include "support/settingssandbox.h"
#include "terminal/portsession.h"

#include <QSerialPort>
#include <QSettings>
#include <QtTest>

namespace {

constexpr int kWait = 5000;

GuestShareTable::Request request(const QString &portKey, const QString &web = "send", bool relay = false)
{
    return {portKey, 86400, "Field unit 12", "abcd", web, relay};
}

} // namespace

class GuestShareKeepingTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void createSendsTheChoicesAfterItsWait();
    void requestsAreRefusedWithTheirReason_data();
    void requestsAreRefusedWithTheirReason();
    void creationFailsWithTheServicesWordsOrTheNetworks();
    void switchingOffWhileWaitingCancelsTheCreation();
    void guestsComeAndGoAndTheOwnerSendsOneAway();
    void shareEnds_data();
    void shareEnds();
    void guestCommandsFollowTheSharesLevel_data();
    void guestCommandsFollowTheSharesLevel();
    void overviewCarriesEveryComputersSharesAndTheRevokedCount();

private:
    GuestShare createShare(const QString &web = "send", bool relay = false);
    QJsonObject resultOf(const QString &commandId);

    std::unique_ptr<SettingsSandbox> m_sandbox;
    std::unique_ptr<ConsolePeer> m_peer;
    std::unique_ptr<SharePeer> m_shares;
    std::unique_ptr<NetworkServices> m_network;
    std::unique_ptr<AccountSession> m_account;
    std::unique_ptr<PtyPair> m_pty;
    std::unique_ptr<PortSession> m_port;
    std::unique_ptr<QSerialPort> m_far;
    std::unique_ptr<CloudConsoleService> m_service;
    GuestShareKeeper *m_keeper = nullptr;
    qint64 m_now = 0;
};

void GuestShareKeepingTest::initTestCase()
{
    m_sandbox = std::make_unique<SettingsSandbox>();
}

void GuestShareKeepingTest::init()
{
    m_sandbox->clear();
    m_peer = std::make_unique<ConsolePeer>();
    QVERIFY(m_peer->listen());
    qputenv("TSL_HOST", m_peer->baseUrl().toUtf8());
    m_shares = std::make_unique<SharePeer>(*m_peer);
    m_now = m_shares->now;

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
    m_port->setAutoReconnect(false);
    QVERIFY(m_port->openConnection());
    m_far = std::make_unique<QSerialPort>(m_pty->pathB());
    QVERIFY(m_far->open(QIODevice::ReadWrite));

    m_service = std::make_unique<CloudConsoleService>(m_network.get(), m_account.get(), [this] {
        return QList<PortSession *>{m_port.get()};
    });
    CloudConsoleService::Timing timing;
    timing.heartbeatMs = 60000;
    timing.pollMs = {50, 50, 50, 50};
    timing.watchdogMs = 60000;
    timing.shareCreateMs = 20;
    timing.shareSweepMs = 60000;  // the tests sweep when they mean to
    m_service->setTiming(timing);
    m_keeper = m_service->shares();
    m_keeper->setClock([this] { return m_now; });
    m_service->setEnabled(true);
}

void GuestShareKeepingTest::cleanup()
{
    m_service.reset();
    m_far.reset();
    m_port.reset();
    m_pty.reset();
    m_account.reset();
    m_network.reset();
    m_shares.reset();
    m_peer.reset();
    qunsetenv("TSL_HOST");
}

GuestShare GuestShareKeepingTest::createShare(const QString &web, bool relay)
{
    QSignalSpy created(m_service.get(), &CloudConsoleService::shareCreated);
    const Result asked = m_keeper->requestShare(request(m_port->portKey(), web, relay));
    if (!asked)
        qWarning() << asked.errorText();
    if (!asked || !created.wait(kWait))
        return {};
    return created.first().first().value<GuestShare>();
}

QJsonObject GuestShareKeepingTest::resultOf(const QString &commandId)
{
    const QString path = QString("/console/commands/%1/result").arg(commandId);
    const bool came = QTest::qWaitFor([&] { return m_peer->count("POST", path) > 0; }, kWait);
    Q_UNUSED(came);  // the caller compares what came
    return m_peer->matching("POST", path).value(0).body;
}

void GuestShareKeepingTest::createSendsTheChoicesAfterItsWait()
{
    QSignalSpy created(m_service.get(), &CloudConsoleService::shareCreated);
    QVERIFY(m_keeper->requestShare(request(m_port->portKey())));
    // It waits its turn; a second request meanwhile is told to wait too.
    QVERIFY(m_keeper->isCreating());
    QVERIFY(m_shares->creations().isEmpty());
    const Result second = m_keeper->requestShare(request(m_port->portKey()));
    QCOMPARE(second.errorText(), QString("A share is still being created; wait for it."));

    QVERIFY(created.wait(kWait));
    QCOMPARE(m_shares->creations().size(), 1);
    const QJsonObject body = m_shares->creations().first().body;
    QCOMPARE(body.value("cid").toString(), m_service->cid());
    QCOMPARE(body.value("session_id").toString(), m_service->sessionId());
    QCOMPARE(body.value("port_key").toString(), m_port->portKey());
    QVERIFY(body.value("ttl_seconds").isDouble());
    QCOMPARE(body.value("ttl_seconds").toInt(), 86400);
    QCOMPARE(body.value("label").toString(), QString("Field unit 12"));
    QCOMPARE(body.value("passcode").toString(), QString("abcd"));
    QCOMPARE(body.value("web").toString(), QString("send"));
    QCOMPARE(body.value("relay"), QJsonValue(false));
    QCOMPARE(m_shares->creations().first().authorization, QByteArray("Bearer token-7"));

    const GuestShare share = created.first().first().value<GuestShare>();
    QCOMPARE(share.shareId, QString("share-1"));
    QCOMPARE(share.expiresAt, m_now + 86400000);
    QVERIFY(share.hasPasscode);
    QVERIFY(!m_keeper->isCreating());
    QCOMPARE(m_keeper->shares().size(), 1);
    QVERIFY(m_keeper->access(share.shareId).held);
}

void GuestShareKeepingTest::requestsAreRefusedWithTheirReason_data()
{
    QTest::addColumn<QString>("situation");
    QTest::addColumn<QString>("refusal");
    QTest::newRow("Live Console off") << "console off"
                                      << "Switch Live Console on first: the share travels over its channel.";
    QTest::newRow("port closed") << "port closed"
                                 << "Open a serial port connection first: only an open serial port can be shared.";
    QTest::newRow("not a serial port") << "network pane"
                                       << "Open a serial port connection first: only an open serial port can be "
                                          "shared.";
    QTest::newRow("relay the owner does not allow") << "relay off"
                                                    << "Switch on Cloud > Live Relay first: a guest in Tessaline "
                                                       "comes in through it.";
    QTest::newRow("signed out") << "signed out" << "Sign in first: a share belongs to your cloud account.";
    QTest::newRow("3-character passcode") << "short passcode" << "A passcode is 4–16 characters.";
    QTest::newRow("browser none without relay") << "no way in"
                                                << "Allow at least one way in: the browser, Tessaline, or both.";
}

void GuestShareKeepingTest::requestsAreRefusedWithTheirReason()
{
    QFETCH(QString, situation);
    QFETCH(QString, refusal);
    GuestShareTable::Request asked = request(m_port->portKey());
    if (situation == "console off")
        m_service->setEnabled(false);
    else if (situation == "port closed")
        m_port->closeConnection();
    else if (situation == "network pane")
        asked.portKey = "p-none";
    else if (situation == "relay off")
        asked.relay = true;
    else if (situation == "signed out")
        m_account->clear();  // Live Console stays on, with nobody to share for
    else if (situation == "short passcode")
        asked.passcode = "abc";
    else if (situation == "no way in")
        asked.web = "none";

    const Result result = m_keeper->requestShare(asked);
    QVERIFY(!result);
    QCOMPARE(result.errorText(), refusal);
    QTest::qWait(60);  // longer than the creation's wait
    QVERIFY(m_shares->creations().isEmpty());
    QVERIFY(!m_keeper->isCreating());
}

void GuestShareKeepingTest::creationFailsWithTheServicesWordsOrTheNetworks()
{
    QSignalSpy failed(m_service.get(), &CloudConsoleService::shareFailed);
    m_shares->refuseNextCreate = {{"status", false}, {"code", "share_limit"},
                                  {"description", "This account already shares 20 ports."}};
    QVERIFY(m_keeper->requestShare(request(m_port->portKey())));
    QVERIFY(failed.wait(kWait));
    QCOMPARE(failed.first().first().toString(), QString("This account already shares 20 ports."));
    QVERIFY(!m_keeper->isCreating());

    // The service is gone: the network's own words.
    const RefusingPort gone;
    qputenv("TSL_HOST", gone.url().toUtf8());
    QVERIFY(m_keeper->requestShare(request(m_port->portKey())));
    QVERIFY(failed.wait(kWait));
    QCOMPARE(failed.last().first().toString(),
             QString("Could not connect to the server. Please check your network connection and try again."));
    QVERIFY(m_keeper->shares().isEmpty());
}

void GuestShareKeepingTest::switchingOffWhileWaitingCancelsTheCreation()
{
    QSignalSpy failed(m_service.get(), &CloudConsoleService::shareFailed);
    QVERIFY(m_keeper->requestShare(request(m_port->portKey())));
    m_service->setEnabled(false);
    QCOMPARE(failed.size(), 1);
    QCOMPARE(failed.first().first().toString(), QString("Live Console was switched off."));
    QTest::qWait(60);
    QVERIFY(m_shares->creations().isEmpty());
}

void GuestShareKeepingTest::guestsComeAndGoAndTheOwnerSendsOneAway()
{
    const GuestShare share = createShare();
    QVERIFY(!share.shareId.isEmpty());
    QSignalSpy changed(m_service.get(), &CloudConsoleService::shareChanged);

    m_shares->share(share.shareId)["guest"] = QJsonObject{{"name", "mei"}, {"since", m_now + 1000}, {"relay_id", "r7"}};
    m_shares->share(share.shareId)["web_guests"] = 2;
    QVERIFY(m_keeper->refreshShares());
    QVERIFY(changed.wait(kWait));
    GuestShare now = changed.last().first().value<GuestShare>();
    QCOMPARE(now.guest->name, QString("mei"));
    QCOMPARE(now.guest->since, m_now + 1000);
    QCOMPARE(now.webGuests, 2);
    QCOMPARE(m_peer->matching("GET", "/relay/shares").last().query.queryItemValue("cid"), m_service->cid());

    QVERIFY(m_keeper->disconnectGuest(share.shareId));
    QCOMPARE(changed.size(), 2);
    QVERIFY(!changed.last().first().value<GuestShare>().guest);
    QTRY_COMPARE_WITH_TIMEOUT(m_peer->count("DELETE", "/relay/sessions/r7"), 1, kWait);
    // Nobody left to send away.
    QVERIFY(!m_keeper->disconnectGuest(share.shareId));
}

void GuestShareKeepingTest::shareEnds_data()
{
    QTest::addColumn<QString>("how");
    QTest::addColumn<bool>("relay");
    QTest::addColumn<QString>("reason");
    QTest::addColumn<bool>("revoked");  // this computer tells the service
    QTest::newRow("expiry") << "expire" << false << "The share expired." << false;
    QTest::newRow("Stop Sharing") << "stop" << false << "You stopped sharing." << true;
    QTest::newRow("port closed") << "close port" << false << "The shared port was closed." << true;
    QTest::newRow("pane removed") << "remove pane" << false << "The shared port was closed." << true;
    QTest::newRow("Live Console off") << "console off" << false << "Live Console was switched off." << true;
    QTest::newRow("relays off") << "relay off" << true << "Live Relay was switched off on this computer." << true;
    QTest::newRow("service: stale") << "stale" << false << "the computer restarted" << false;
    QTest::newRow("service: too many attempts") << "too_many_attempts" << false << "too many wrong passcodes" << false;
    QTest::newRow("service: gone from the list") << "vanish" << false << "The share ended." << false;
    QTest::newRow("reply: session mismatch") << "session_mismatch" << false << "The share no longer matched this run."
                                             << false;
    QTest::newRow("reply: too many attempts") << "reply too_many_attempts" << false
                                              << "Too many wrong passcodes; the share was revoked." << false;
}

void GuestShareKeepingTest::shareEnds()
{
    QFETCH(QString, how);
    QFETCH(bool, relay);
    QFETCH(QString, reason);
    QFETCH(bool, revoked);
    if (relay)
        QSettings().setValue("CloudConsoleAllowRelay", true);
    const GuestShare share = createShare("view", relay);
    QVERIFY(!share.shareId.isEmpty());
    QSignalSpy ended(m_service.get(), &CloudConsoleService::shareEnded);

    if (how == "expire") {
        m_now = share.expiresAt - 1;
        m_keeper->onShareSweepTick();
        QVERIFY(ended.isEmpty());
        m_now = share.expiresAt;
        m_keeper->onShareSweepTick();
    } else if (how == "stop") {
        m_keeper->stopShare(share.shareId);
    } else if (how == "close port") {
        m_port->closeConnection();
    } else if (how == "remove pane") {
        m_port.reset();
    } else if (how == "console off") {
        m_service->setEnabled(false);
    } else if (how == "relay off") {
        QSettings().setValue("CloudConsoleAllowRelay", false);
        m_service->consentChanged();
    } else if (how == "stale" || how == "too_many_attempts") {
        m_shares->share(share.shareId)["state"] = "ended";
        m_shares->share(share.shareId)["end_reason"] = how;
        QVERIFY(m_keeper->refreshShares());
    } else if (how == "vanish") {
        m_shares->shares.remove(share.shareId);
        QVERIFY(m_keeper->refreshShares());
    } else {
        m_keeper->onRelayShareResponse({{"type", "relay"}, {"status", false}, {"share_id", share.shareId},
                                        {"code", QString(how).remove("reply ")}});
    }

    QTRY_COMPARE_WITH_TIMEOUT(ended.size(), 1, kWait);
    QCOMPARE(ended.first().at(0).toString(), share.shareId);
    QCOMPARE(ended.first().at(1).toString(), reason);
    QVERIFY(m_keeper->shares().isEmpty());
    QVERIFY(!m_keeper->access(share.shareId).held);
    const QString revokePath = "/relay/shares/" + share.shareId;
    if (revoked)
        QTRY_COMPARE_WITH_TIMEOUT(m_peer->count("DELETE", revokePath), 1, kWait);
    QTest::qWait(30);
    QCOMPARE(m_peer->count("DELETE", revokePath), revoked ? 1 : 0);
    QCOMPARE(ended.size(), 1);  // the service's answer ends nothing twice
}

void GuestShareKeepingTest::guestCommandsFollowTheSharesLevel_data()
{
    QTest::addColumn<QString>("level");
    QTest::addColumn<QString>("command");
    QTest::addColumn<QJsonObject>("payload");  // besides port_key and share_id
    QTest::addColumn<QString>("shareId");      // "" the created share's
    QTest::addColumn<QString>("code");         // "" for success
    QTest::addColumn<QString>("message");
    QTest::addColumn<QByteArray>("far");  // what reaches the far end

    const QJsonObject text{{"text", "hi"}, {"line_ending", "crlf"}};
    const QString denied = "permission_denied";
    const QString noSend = "the share does not allow sending from a browser";
    const QString noControl = "the share does not allow port control from a browser";
    QTest::newRow("view cannot send") << "view" << "send_text" << text << "" << denied << noSend << QByteArray();
    QTest::newRow("view cannot close") << "view" << "close_port" << QJsonObject() << "" << denied << noControl
                                       << QByteArray();
    QTest::newRow("send sends") << "send" << "send_text" << text << "" << "" << "" << QByteArray("hi\r\n");
    QTest::newRow("send sends hex") << "send" << "send_hex" << QJsonObject{{"text", "4F 4B"}} << "" << "" << ""
                                    << QByteArray("OK");
    QTest::newRow("send cannot close") << "send" << "close_port" << QJsonObject() << "" << denied << noControl
                                       << QByteArray();
    QTest::newRow("control sends") << "control" << "send_text" << text << "" << "" << "" << QByteArray("hi\r\n");
    QTest::newRow("control closes") << "control" << "close_port" << QJsonObject() << "" << "" << "" << QByteArray();
    QTest::newRow("control on another port") << "control" << "send_text"
                                             << QJsonObject{{"text", "x"}, {"port_key", "p-other"}} << "" << denied
                                             << "the share does not cover this port" << QByteArray();
    QTest::newRow("unknown share") << "control" << "send_text" << text << "share-404" << "share_not_found"
                                   << "this computer holds no such share" << QByteArray();
}

void GuestShareKeepingTest::guestCommandsFollowTheSharesLevel()
{
    QFETCH(QString, level);
    QFETCH(QString, command);
    QFETCH(QJsonObject, payload);
    QFETCH(QString, shareId);
    QFETCH(QString, code);
    QFETCH(QString, message);
    QFETCH(QByteArray, far);
    // The owner's own switches are off: only the share's level speaks.
    QVERIFY(!QSettings().value("CloudConsoleAllowRemoteSend").toBool());
    QVERIFY(!QSettings().value("CloudConsoleAllowPortControl").toBool());
    const GuestShare share = createShare(level);
    QVERIFY(!share.shareId.isEmpty());
    QSignalSpy ended(m_service.get(), &CloudConsoleService::shareEnded);

    if (!payload.contains("port_key"))
        payload.insert("port_key", m_port->portKey());
    payload.insert("share_id", shareId.isEmpty() ? share.shareId : shareId);
    m_shares->commands.append(QJsonObject{{"command_id", "c1"}, {"command", command}, {"payload", payload}});
    const QJsonObject result = resultOf("c1");
    QCOMPARE(result.value("status").toString(), code.isEmpty() ? QString("succeeded") : QString("failed"));
    QCOMPARE(result.value("error_code").toString(), code);
    QCOMPARE(result.value("message").toString(), message);

    QByteArray got;
    if (!far.isEmpty())
        QTRY_COMPARE_WITH_TIMEOUT((got += m_far->readAll()), far, kWait);
    if (command == "close_port" && code.isEmpty()) {
        // The guest closed the port: that ends the share, as the owner's close would.
        QVERIFY(!m_port->isStarted());
        QTRY_COMPARE_WITH_TIMEOUT(ended.size(), 1, kWait);
        QCOMPARE(ended.first().at(1).toString(), QString("The shared port was closed."));
    } else {
        QVERIFY(m_port->isStarted());
        QVERIFY(ended.isEmpty());
    }
}

void GuestShareKeepingTest::overviewCarriesEveryComputersSharesAndTheRevokedCount()
{
    const GuestShare mine = createShare();
    QVERIFY(!mine.shareId.isEmpty());
    m_shares->shares.insert("elsewhere", QJsonObject{{"share_id", "elsewhere"}, {"cid", "other-cid"},
                                                     {"device_name", "lab-gateway"}, {"state", "live"}});
    m_shares->share(mine.shareId)["web_guests"] = 1;
    m_shares->revoked = 3;
    QSignalSpy fetched(m_service.get(), &CloudConsoleService::shareOverviewFetched);
    QSignalSpy failed(m_service.get(), &CloudConsoleService::shareOverviewFailed);
    QVERIFY(m_keeper->fetchOverview());
    QVERIFY(fetched.wait(kWait));
    const QList<GuestShare> shares = fetched.first().at(0).value<QList<GuestShare>>();
    QCOMPARE(shares.size(), 2);
    QCOMPARE(fetched.first().at(1).toInt(), 3);
    QVERIFY(m_peer->matching("GET", "/relay/shares").last().query.isEmpty());

    // A refusal, and a service that cannot be reached.
    m_peer->reply = [](const ConsolePeer::Request &) {
        return QJsonObject{{"type", "relay"}, {"status", false}, {"code", "unauthorized"},
                           {"description", "Sign in again."}};
    };
    QVERIFY(m_keeper->fetchOverview());
    QVERIFY(failed.wait(kWait));
    QCOMPARE(failed.last().first().toString(), QString("Sign in again."));
    const RefusingPort gone;
    qputenv("TSL_HOST", gone.url().toUtf8());
    QVERIFY(m_keeper->fetchOverview());
    QVERIFY(failed.wait(kWait));
    QCOMPARE(failed.last().first().toString(),
             QString("Could not connect to the server. Please check your network connection and try again."));
}

QTEST_GUILESS_MAIN(GuestShareKeepingTest)
#include "tst_guestsharekeeping.moc"
