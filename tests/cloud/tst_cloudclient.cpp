// The program's cloud clients against the real tessaline-cloud, started on
// a free loopback port: register with the logged code, sign in, refresh,
// sign out, bind devices, and sync settings between two computers (two
// settings folders used in turn).
#include "cloudservicerunner.h"

#include "cloud/accountreplyhandler.h"
#include "cloud/accountsession.h"
#include "cloud/networkservices.h"
#include "cloud/refreshtokenprotection.h"
#include "cloud/sessionsynccoordinator.h"
#include "support/settingssandbox.h"

#include <QJsonArray>
#include <QSettings>
#include <QTcpServer>
#include <QTcpSocket>
#include <QtTest>

namespace {

const QString kPassword = QStringLiteral("a long password");

// One "computer": its own settings folder, session, sync and local state.
struct Computer
{
    QTemporaryDir dir;
    SessionState local;
    std::unique_ptr<AccountSession> session;
    std::unique_ptr<SessionSyncCoordinator> sync;
    std::unique_ptr<AccountReplyHandler> replies;
};

} // namespace

class TestCloudClient : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void registersSignsInRefreshesAndSignsOut();
    void aReusedRefreshTokenEndsTheSignIn();
    void bindsAndRemovesDevices();
    void serviceRefusalsArriveAsEnvelopes();
    void firstSyncThenEqualRevision();
    void newerCloudAsksWhichToKeep_data();
    void newerCloudAsksWhichToKeep();
    void automaticSyncDefersAConflict();
    void twoClientsRacingGetARevisionConflict();
    void aForeignDocumentIsNotApplied();
    void settingsSurviveAServiceRestart();
    void aFailedRefreshEndsTheWaitAndTheNextSyncWorks_data();
    void aFailedRefreshEndsTheWaitAndTheNextSyncWorks();

private:
    void use(Computer &computer);
    void makeComputer(Computer &computer);
    void signUp(Computer &computer, const QString &email);
    void signIn(Computer &computer, const QString &email);
    bool syncAndWait(Computer &computer, bool manual = true);

    CloudServiceRunner m_service;
    std::unique_ptr<SettingsSandbox> m_sandbox;
    std::unique_ptr<NetworkServices> m_network;
    Computer m_a;
    Computer m_b;
    int m_accounts = 0;
};

void TestCloudClient::initTestCase()
{
    m_sandbox = std::make_unique<SettingsSandbox>();
    QVERIFY(m_service.start());
    qputenv("TSL_HOST", m_service.baseUrl().toUtf8());
}

void TestCloudClient::init()
{
    m_network = std::make_unique<NetworkServices>();
    makeComputer(m_a);
    makeComputer(m_b);
    use(m_a);
    ++m_accounts;
}

void TestCloudClient::cleanup()
{
    for (Computer *c : {&m_a, &m_b}) {
        c->replies.reset();
        c->sync.reset();
        c->session.reset();
    }
    m_network.reset();
}

void TestCloudClient::use(Computer &computer)
{
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, computer.dir.path());
    QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, computer.dir.path());
}

void TestCloudClient::makeComputer(Computer &computer)
{
    use(computer);
    QSettings().clear();
    QSettings().setValue("ValueD", &computer == &m_a ? 1001 : 2002);
    computer.local = SessionState();
    computer.session = std::make_unique<AccountSession>(m_network.get());
    computer.sync = std::make_unique<SessionSyncCoordinator>(m_network.get(), computer.session.get(),
                                                              [&computer] { return computer.local; });
    computer.replies = std::make_unique<AccountReplyHandler>(m_network.get(), computer.session.get(), computer.sync.get());
    // Both computers hear every reply of the shared client; only the one in
    // use may act on it.
    computer.replies->disconnect(m_network.get());
    computer.sync->disconnect(m_network.get());
    m_network->disconnect(computer.sync.get());
    m_network->disconnect(computer.replies.get());
}

void TestCloudClient::signUp(Computer &computer, const QString &email)
{
    use(computer);
    QSignalSpy replies(m_network.get(), &NetworkServices::accountResponse);
    m_network->requestRegistrationCode({}, email);
    QTRY_COMPARE_WITH_TIMEOUT(replies.size(), 1, 5000);
    QVERIFY(replies.at(0).at(0).toJsonObject().value("status").toBool());
    const QString code = m_service.codeFor(email);
    QVERIFY(!code.isEmpty());
    m_network->registerAccount({}, email, QStringLiteral("Ann"), kPassword, code,
                               QString::number(AccountSession::deviceValue()), QStringLiteral("6.6.7"));
    QTRY_COMPARE_WITH_TIMEOUT(replies.size(), 2, 5000);
    computer.replies->handleAccountResponse(replies.at(1).at(0).toJsonObject());
    QVERIFY(computer.session->isAccessTokenValid());
}

void TestCloudClient::signIn(Computer &computer, const QString &email)
{
    use(computer);
    QSignalSpy replies(m_network.get(), &NetworkServices::accountResponse);
    m_network->signIn({}, email, kPassword, QString::number(AccountSession::deviceValue()), QStringLiteral("6.6.7"));
    QTRY_COMPARE_WITH_TIMEOUT(replies.size(), 1, 5000);
    computer.replies->handleAccountResponse(replies.at(0).at(0).toJsonObject());
    QVERIFY(computer.session->isAccessTokenValid());
}

bool TestCloudClient::syncAndWait(Computer &computer, bool manual)
{
    use(computer);
    QSignalSpy done(computer.sync.get(), &SessionSyncCoordinator::succeeded);
    QSignalSpy failed(computer.sync.get(), &SessionSyncCoordinator::failed);
    QSignalSpy choice(computer.sync.get(), &SessionSyncCoordinator::conflictChoiceNeeded);
    QSignalSpy deferred(computer.sync.get(), &SessionSyncCoordinator::conflictDeferred);
    QSignalSpy incompatible(computer.sync.get(), &SessionSyncCoordinator::incompatible);
    QMetaObject::Connection relay = connect(m_network.get(), &NetworkServices::syncResponse, computer.sync.get(),
                                            &SessionSyncCoordinator::handleSyncResponse);
    manual ? computer.sync->syncNow() : computer.sync->syncAutomatically();
    const bool settled = QTest::qWaitFor(
        [&] { return done.size() + failed.size() + choice.size() + deferred.size() + incompatible.size() > 0; }, 5000);
    disconnect(relay);
    return settled && done.size() == 1;
}

void TestCloudClient::registersSignsInRefreshesAndSignsOut()
{
    const QString email = QStringLiteral("ann%1@example.org").arg(m_accounts);
    signUp(m_a, email);
    AccountSession &session = *m_a.session;
    QCOMPARE(session.email(), email);
    QCOMPARE(session.displayName(), QStringLiteral("Ann"));
    // Kept only protected: the settings hold the protected form, not the token.
    const QString stored = QSettings().value("AccountRefreshToken").toString();
    QVERIFY(!stored.isEmpty() && stored != session.refreshToken());
    QCOMPARE(RefreshTokenProtection::unprotect(stored, 1001), session.refreshToken());

    // A refresh rotates the refresh token.
    const QString before = session.refreshToken();
    QSignalSpy replies(m_network.get(), &NetworkServices::accountResponse);
    QVERIFY(session.requestRefresh());
    QTRY_COMPARE_WITH_TIMEOUT(replies.size(), 1, 5000);
    m_a.replies->handleAccountResponse(replies.at(0).at(0).toJsonObject());
    QVERIFY(session.refreshToken() != before);
    QVERIFY(session.isAccessTokenValid());

    // The profile answers with the new access token.
    m_network->fetchAccountProfile(session.accessToken());
    QTRY_COMPARE_WITH_TIMEOUT(replies.size(), 2, 5000);
    QCOMPARE(replies.at(1).at(0).toJsonObject().value("user").toObject().value("email").toString(), email);

    const QString last = session.refreshToken();
    QSignalSpy status(m_a.replies.get(), &AccountReplyHandler::statusMessage);
    m_a.replies->signOut();
    QCOMPARE(status.at(0).at(0).toString(), QStringLiteral("You signed out."));
    QCOMPARE(session.userId(), 0);
    QTRY_COMPARE_WITH_TIMEOUT(replies.size(), 3, 5000);
    // The service ended the chain: the last refresh token no longer works.
    m_network->refreshToken({}, last);
    QTRY_COMPARE_WITH_TIMEOUT(replies.size(), 4, 5000);
    QCOMPARE(replies.at(3).at(0).toJsonObject().value("status").toBool(true), false);
}

void TestCloudClient::aReusedRefreshTokenEndsTheSignIn()
{
    signUp(m_a, QStringLiteral("bea%1@example.org").arg(m_accounts));
    const QString stolen = m_a.session->refreshToken();
    QSignalSpy replies(m_network.get(), &NetworkServices::accountResponse);
    QVERIFY(m_a.session->requestRefresh());
    QTRY_COMPARE_WITH_TIMEOUT(replies.size(), 1, 5000);
    m_a.replies->handleAccountResponse(replies.at(0).at(0).toJsonObject());
    // The new pair is in use (a token presented again while its pair is
    // unused counts as a lost reply and gets that pair once more)...
    m_network->refreshToken({}, m_a.session->refreshToken());
    QTRY_COMPARE_WITH_TIMEOUT(replies.size(), 2, 5000);
    m_a.replies->handleAccountResponse(replies.at(1).at(0).toJsonObject());
    // ...when the thief presents the rotated token: the whole chain ends...
    m_network->refreshToken({}, stolen);
    QTRY_COMPARE_WITH_TIMEOUT(replies.size(), 3, 5000);
    QCOMPARE(replies.at(2).at(0).toJsonObject().value("code").toString(), QStringLiteral("refresh_token_reused"));
    // ...so the rightful program's next refresh is refused and it signs out.
    QSignalSpy notices(m_a.replies.get(), &AccountReplyHandler::notice);
    m_a.session->setClock([] { return QDateTime::currentDateTimeUtc().addSecs(3600); });  // past expiry and throttle
    QVERIFY(!m_a.session->isAccessTokenValid());
    QVERIFY(m_a.session->requestRefresh());
    QTRY_COMPARE_WITH_TIMEOUT(replies.size(), 4, 5000);
    m_a.replies->handleAccountResponse(replies.at(3).at(0).toJsonObject());
    QCOMPARE(notices.size(), 1);
    QCOMPARE(notices.at(0).at(1).toString(), QStringLiteral("Sign in has expired."));
    QCOMPARE(m_a.session->userId(), 0);
    // Known by the service's words for it, not by a guess at their letters.
    for (const char *code : {"invalid_refresh_token", "refresh_token_expired", "refresh_token_reused"})
        QVERIFY2(AccountReplyHandler::isRefusedRefresh(QLatin1String(code)), code);
    for (const char *code : {"refresh_rate_limited", "invalid_credentials", "device_limit", ""})
        QVERIFY2(!AccountReplyHandler::isRefusedRefresh(QLatin1String(code)), code);
}

void TestCloudClient::bindsAndRemovesDevices()
{
    signUp(m_a, QStringLiteral("cid%1@example.org").arg(m_accounts));
    const QString token = m_a.session->accessToken();
    QSignalSpy replies(m_network.get(), &NetworkServices::accountResponse);
    m_network->bindDevice(token, QStringLiteral("workbench"), QStringLiteral("6.6.7"));
    QTRY_COMPARE_WITH_TIMEOUT(replies.size(), 1, 5000);
    QCOMPARE(replies.at(0).at(0).toJsonObject().value("device").toObject().value("name").toString(),
             QStringLiteral("workbench"));
    m_network->fetchAccountDevices(token);
    QTRY_COMPARE_WITH_TIMEOUT(replies.size(), 2, 5000);
    const QJsonArray devices = replies.at(1).at(0).toJsonObject().value("devices").toArray();
    QCOMPARE(devices.size(), 2);  // the one signed up with, and the bench

    QSignalSpy notices(m_a.replies.get(), &AccountReplyHandler::notice);
    m_network->removeAccountDevice(token, QStringLiteral("999999"));
    QTRY_COMPARE_WITH_TIMEOUT(replies.size(), 3, 5000);
    m_a.replies->handleAccountResponse(replies.at(2).at(0).toJsonObject());
    QCOMPARE(notices.at(0).at(0).toString(), QStringLiteral("My Account"));
    QCOMPARE(notices.at(0).at(1).toString(), QStringLiteral("That device is not bound to this account."));
}

void TestCloudClient::serviceRefusalsArriveAsEnvelopes()
{
    // A refusal with an envelope is an answer, whatever the HTTP status.
    QSignalSpy replies(m_network.get(), &NetworkServices::accountResponse);
    QSignalSpy errors(m_network.get(), &NetworkServices::networkError);
    m_network->fetchAccountProfile(QStringLiteral("forged"));
    QTRY_COMPARE_WITH_TIMEOUT(replies.size(), 1, 5000);
    QCOMPARE(replies.at(0).at(0).toJsonObject().value("code").toString(), QStringLiteral("invalid_token"));
    m_network->signIn({}, QStringLiteral("nobody@example.org"), QStringLiteral("x"), {}, {});
    QTRY_COMPARE_WITH_TIMEOUT(replies.size(), 2, 5000);
    QCOMPARE(replies.at(1).at(0).toJsonObject().value("code").toString(), QStringLiteral("invalid_credentials"));
    QCOMPARE(errors.size(), 0);
}

void TestCloudClient::firstSyncThenEqualRevision()
{
    signUp(m_a, QStringLiteral("dee%1@example.org").arg(m_accounts));
    m_a.local.baudRate = 115200;
    QVERIFY(syncAndWait(m_a));
    QCOMPARE(QSettings().value("AccountSyncRevision").toInt(), 1);
    QVERIFY(SessionSyncCoordinator::lastSyncedText().startsWith(QStringLiteral("Last synced: ")));
    // Nothing newer in the cloud: the local copy goes up on top.
    m_a.local.baudRate = 57600;
    QVERIFY(syncAndWait(m_a));
    QCOMPARE(QSettings().value("AccountSyncRevision").toInt(), 2);
    // Signing out forgets the revision.
    m_a.replies->signOut();
    QVERIFY(!QSettings().contains("AccountSyncRevision"));
}

void TestCloudClient::newerCloudAsksWhichToKeep_data()
{
    QTest::addColumn<int>("choice");
    QTest::addColumn<int>("expectedBaud");
    QTest::addColumn<QStringList>("expectedHosts");
    QTest::addColumn<int>("expectedRevision");
    QTest::newRow("use cloud") << int(SessionSyncCoordinator::Choice::UseCloud) << 115200 << QStringList{"10.0.0.1"} << 1;
    QTest::newRow("keep local") << int(SessionSyncCoordinator::Choice::KeepLocal) << 9600 << QStringList{"10.0.0.2"} << 2;
    QTest::newRow("merge lists") << int(SessionSyncCoordinator::Choice::MergeLists) << 9600
                                 << QStringList{"10.0.0.2", "10.0.0.1"} << 2;
}

void TestCloudClient::newerCloudAsksWhichToKeep()
{
    QFETCH(int, choice);
    QFETCH(int, expectedBaud);
    QFETCH(QStringList, expectedHosts);
    QFETCH(int, expectedRevision);
    const QString email = QStringLiteral("eli%1@example.org").arg(m_accounts);
    signUp(m_a, email);
    m_a.local.baudRate = 115200;
    m_a.local.targetHosts = {"10.0.0.1"};
    QVERIFY(syncAndWait(m_a));

    // The second computer has never synced: the cloud copy is newer to it.
    signIn(m_b, email);
    m_b.local.targetHosts = {"10.0.0.2"};
    QSignalSpy applied(m_b.sync.get(), &SessionSyncCoordinator::cloudApplied);
    QVERIFY(!syncAndWait(m_b));
    QVERIFY(m_b.sync->isBusy());  // waiting for the user's choice
    QSignalSpy done(m_b.sync.get(), &SessionSyncCoordinator::succeeded);
    connect(m_network.get(), &NetworkServices::syncResponse, m_b.sync.get(), &SessionSyncCoordinator::handleSyncResponse);
    m_b.sync->resolveConflict(SessionSyncCoordinator::Choice(choice));
    QTRY_COMPARE_WITH_TIMEOUT(done.size(), 1, 5000);
    m_network->disconnect(m_b.sync.get());
    if (choice != int(SessionSyncCoordinator::Choice::KeepLocal)) {
        QCOMPARE(applied.size(), 1);
        const SessionState state = applied.at(0).at(0).value<SessionState>();
        m_b.local = state;
        QCOMPARE(applied.at(0).at(2).toBool(), choice == int(SessionSyncCoordinator::Choice::MergeLists));
    } else {
        QCOMPARE(applied.size(), 0);
    }
    QCOMPARE(m_b.local.baudRate, expectedBaud);
    QCOMPARE(m_b.local.targetHosts, expectedHosts);
    QCOMPARE(QSettings().value("AccountSyncRevision").toInt(), expectedRevision);

    // The cloud now holds what the second computer settled on.
    QSignalSpy items(m_network.get(), &NetworkServices::syncResponse);
    m_network->listSyncItems(m_b.session->accessToken(), SessionSyncCoordinator::kNamespace);
    QTRY_COMPARE_WITH_TIMEOUT(items.size(), 1, 5000);
    const QJsonObject item = items.at(0).at(0).toJsonObject().value("items").toArray().at(0).toObject();
    QCOMPARE(item.value("revision").toInt(), expectedRevision);
    const SessionState cloud = SessionState::fromJson(item.value("payload").toObject().value("settings").toObject());
    QCOMPARE(cloud.targetHosts, expectedHosts);
}

void TestCloudClient::automaticSyncDefersAConflict()
{
    const QString email = QStringLiteral("fox%1@example.org").arg(m_accounts);
    signUp(m_a, email);
    QVERIFY(syncAndWait(m_a));
    signIn(m_b, email);
    QSignalSpy deferred(m_b.sync.get(), &SessionSyncCoordinator::conflictDeferred);
    QSignalSpy applied(m_b.sync.get(), &SessionSyncCoordinator::cloudApplied);
    QVERIFY(!syncAndWait(m_b, false));
    QCOMPARE(deferred.size(), 1);
    QCOMPARE(applied.size(), 0);
    QVERIFY(!m_b.sync->isBusy());
    QCOMPARE(SessionSyncCoordinator::deferredText(), QStringLiteral("Cloud settings changed; use Sync Now to resolve."));
}

void TestCloudClient::twoClientsRacingGetARevisionConflict()
{
    const QString email = QStringLiteral("gil%1@example.org").arg(m_accounts);
    signUp(m_a, email);
    QVERIFY(syncAndWait(m_a));
    signIn(m_b, email);
    // B is in step with the cloud (revision 1) ...
    use(m_b);
    QSettings().setValue("AccountSyncRevision", 1);
    // ... but between B's look at the list and its write, A writes.
    bool raced = false;
    m_b.sync = std::make_unique<SessionSyncCoordinator>(m_network.get(), m_b.session.get(), [&] {
        if (!raced) {
            // A's write goes through a client of its own, so B hears none of it.
            raced = true;
            NetworkServices other;
            QSignalSpy written(&other, &NetworkServices::syncResponse);
            SessionState newer;
            newer.baudRate = 1200;
            other.writeSyncItem(m_a.session->accessToken(), SessionSyncCoordinator::kNamespace,
                                SessionSyncCoordinator::kKey, 1, m_a.sync->buildDocument(newer));
            written.wait(5000);
        }
        return m_b.local;
    });
    m_network->disconnect(m_b.sync.get());
    QSignalSpy choice(m_b.sync.get(), &SessionSyncCoordinator::conflictChoiceNeeded);
    QVERIFY(!syncAndWait(m_b));
    QVERIFY(raced);
    QCOMPARE(choice.size(), 1);
    connect(m_network.get(), &NetworkServices::syncResponse, m_b.sync.get(), &SessionSyncCoordinator::handleSyncResponse);
    QSignalSpy applied(m_b.sync.get(), &SessionSyncCoordinator::cloudApplied);
    m_b.sync->resolveConflict(SessionSyncCoordinator::Choice::UseCloud);
    QCOMPARE(applied.size(), 1);
    QCOMPARE(applied.at(0).at(0).value<SessionState>().baudRate, 1200);
    QCOMPARE(QSettings().value("AccountSyncRevision").toInt(), 2);
}

void TestCloudClient::aForeignDocumentIsNotApplied()
{
    const QString email = QStringLiteral("hex%1@example.org").arg(m_accounts);
    signUp(m_a, email);
    QSignalSpy written(m_network.get(), &NetworkServices::syncResponse);
    m_network->writeSyncItem(m_a.session->accessToken(), SessionSyncCoordinator::kNamespace, SessionSyncCoordinator::kKey,
                             0, QJsonObject{{"schema", "someone.else"}});
    QTRY_COMPARE_WITH_TIMEOUT(written.size(), 1, 5000);
    QSignalSpy incompatible(m_a.sync.get(), &SessionSyncCoordinator::incompatible);
    QSignalSpy applied(m_a.sync.get(), &SessionSyncCoordinator::cloudApplied);
    QVERIFY(!syncAndWait(m_a));
    m_a.sync->resolveConflict(SessionSyncCoordinator::Choice::UseCloud);
    QCOMPARE(incompatible.size(), 1);
    QCOMPARE(applied.size(), 0);
    QVERIFY(!QSettings().contains("AccountSyncRevision"));
}

void TestCloudClient::settingsSurviveAServiceRestart()
{
    const QString email = QStringLiteral("ivy%1@example.org").arg(m_accounts);
    signUp(m_a, email);
    m_a.local.portName = QStringLiteral("/dev/ttyUSB7");
    QVERIFY(syncAndWait(m_a));
    QVERIFY(m_service.start());  // same database
    qputenv("TSL_HOST", m_service.baseUrl().toUtf8());
    // A fresh start of the program: only the kept refresh token is there.
    use(m_a);
    m_a.session = std::make_unique<AccountSession>(m_network.get());
    QVERIFY(!m_a.session->isAccessTokenValid());
    signIn(m_b, email);
    QSignalSpy applied(m_b.sync.get(), &SessionSyncCoordinator::cloudApplied);
    QVERIFY(!syncAndWait(m_b));
    connect(m_network.get(), &NetworkServices::syncResponse, m_b.sync.get(), &SessionSyncCoordinator::handleSyncResponse);
    m_b.sync->resolveConflict(SessionSyncCoordinator::Choice::UseCloud);
    QCOMPARE(applied.at(0).at(0).value<SessionState>().portName, QStringLiteral("/dev/ttyUSB7"));
}

void TestCloudClient::aFailedRefreshEndsTheWaitAndTheNextSyncWorks_data()
{
    QTest::addColumn<QByteArray>("answer");  // what the failing host says; empty: it hangs up
    QTest::addColumn<QString>("message");
    QTest::newRow("lost on the network") << QByteArray()
                                         << QStringLiteral("Could not connect to the server. Please check your network "
                                                           "connection and try again.");
    QTest::newRow("service busy") << QByteArray("{\"type\":\"account\",\"status\":false,\"code\":\"busy\","
                                                "\"description\":\"The service is busy.\"}")
                                  << QStringLiteral("The service is busy.");
}

void TestCloudClient::aFailedRefreshEndsTheWaitAndTheNextSyncWorks()
{
    QFETCH(QByteArray, answer);
    QFETCH(QString, message);
    signUp(m_a, QStringLiteral("fay%1@example.org").arg(m_accounts));
    connect(m_network.get(), &NetworkServices::accountResponse, m_a.replies.get(),
            &AccountReplyHandler::handleAccountResponse);
    connect(m_network.get(), &NetworkServices::networkError, m_a.sync.get(), &SessionSyncCoordinator::handleNetworkError);
    connect(m_network.get(), &NetworkServices::syncResponse, m_a.sync.get(), &SessionSyncCoordinator::handleSyncResponse);
    QSignalSpy done(m_a.sync.get(), &SessionSyncCoordinator::succeeded);
    QSignalSpy failed(m_a.sync.get(), &SessionSyncCoordinator::failed);
    QSignalSpy expired(m_a.sync.get(), &SessionSyncCoordinator::signInExpired);

    // The access token has run out, and the host answering the refresh
    // hangs up or is busy.
    QTcpServer failing;
    QVERIFY(failing.listen(QHostAddress::LocalHost, 0));
    connect(&failing, &QTcpServer::newConnection, &failing, [&failing, answer] {
        QTcpSocket *socket = failing.nextPendingConnection();
        connect(socket, &QTcpSocket::readyRead, socket, [socket, answer] {
            if (!answer.isEmpty())
                socket->write("HTTP/1.1 503 Service Unavailable\r\nContent-Type: application/json\r\nContent-Length: "
                              + QByteArray::number(answer.size()) + "\r\nConnection: close\r\n\r\n" + answer);
            socket->disconnectFromHost();
        });
    });
    qputenv("TSL_HOST", QStringLiteral("http://127.0.0.1:%1").arg(failing.serverPort()).toUtf8());
    const auto restoreHost = qScopeGuard([this] { qputenv("TSL_HOST", m_service.baseUrl().toUtf8()); });
    QDateTime now = QDateTime::currentDateTimeUtc().addSecs(3600);
    m_a.session->setClock([&now] { return now; });
    QVERIFY(!m_a.session->isAccessTokenValid());

    m_a.sync->syncNow();
    QTRY_COMPARE_WITH_TIMEOUT(failed.size(), 1, 10000);
    QCOMPARE(failed.at(0).at(0).toString(), message);
    QVERIFY(!m_a.sync->isBusy());
    QCOMPARE(expired.size(), 0);
    QVERIFY(m_a.session->isSignedIn());  // a failed refresh is not a refused one
    // While the session holds back another refresh, a sync says so at once.
    m_a.sync->syncNow();
    QCOMPARE(failed.size(), 2);
    QCOMPARE(failed.at(1).at(0).toString(), message);

    // The service is reachable again and the hold-off is over: the next sync works.
    qputenv("TSL_HOST", m_service.baseUrl().toUtf8());
    now = now.addSecs(AccountSession::kRefreshThrottleMs / 1000 + 1);
    m_a.sync->syncNow();
    QTRY_COMPARE_WITH_TIMEOUT(done.size(), 1, 10000);
    QCOMPARE(failed.size(), 2);
}

QTEST_GUILESS_MAIN(TestCloudClient)
#include "tst_cloudclient.moc"
