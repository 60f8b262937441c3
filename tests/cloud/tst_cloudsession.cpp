// The cloud client pieces that need no service: the REST client's rules
// against a scripted loopback peer, the account session on a virtual clock,
// the stored-token protection and the synced document.
#include "cloud/accountsession.h"
#include "cloud/networkservices.h"
#include "cloud/refreshtokenprotection.h"
#include "cloud/sessionstate.h"
#include "cloud/sessionstatemapping.h"
#include "connection/connectionconfig.h"
#include "common/paneoptions.h"
#include "cloud/sessionsynccoordinator.h"
#include "support/settingssandbox.h"

#include <QJsonArray>
#include <QSettings>
#include <QTcpServer>
#include <QTcpSocket>
#include <QtTest>

namespace {

// Answers every request with one canned response, or never when it is
// empty; counts the requests it saw.
class ScriptedPeer : public QObject
{
public:
    explicit ScriptedPeer(QByteArray response) : m_response(std::move(response))
    {
        m_server.listen(QHostAddress::LocalHost);
        connect(&m_server, &QTcpServer::newConnection, this, [this] {
            while (QTcpSocket *socket = m_server.nextPendingConnection()) {
                connect(socket, &QTcpSocket::readyRead, socket, [this, socket] {
                    m_received += socket->readAll();
                    if (!m_response.isEmpty() && m_received.contains("\r\n\r\n")) {
                        ++requests;
                        socket->write(m_response);
                        socket->disconnectFromHost();
                    }
                });
            }
        });
    }
    QString url() const { return QStringLiteral("http://127.0.0.1:%1").arg(m_server.serverPort()); }
    int requests = 0;
    QByteArray received() const { return m_received; }

private:
    QTcpServer m_server;
    QByteArray m_response;
    QByteArray m_received;
};

QByteArray response(const QByteArray &statusLine, const QByteArray &contentType, const QByteArray &body)
{
    return "HTTP/1.1 " + statusLine + "\r\nContent-Type: " + contentType + "\r\nContent-Length: "
           + QByteArray::number(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
}

const QDateTime kT0 = QDateTime(QDate(2026, 11, 23), QTime(6, 0), Qt::UTC);

} // namespace

class TestCloudSession : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void baseUrlFollowsEnvironmentThenSetting_data();
    void baseUrlFollowsEnvironmentThenSetting();
    void acceptLanguageFollowsTheLanguageSetting_data();
    void acceptLanguageFollowsTheLanguageSetting();
    void networkErrorsAreWordedByStatus_data();
    void networkErrorsAreWordedByStatus();
    void aSilentServerTimesOut();
    void typedRepliesGoToTheirSignal_data();
    void typedRepliesGoToTheirSignal();

    void storedTokenProtection_data();
    void storedTokenProtection();
    void rememberMeDecidesWhatIsStored();
    void accessTokenExpiresThirtySecondsEarly();
    void refreshIsThrottled();
    void displayNameFallsBack();

    void documentCarriesSendHistoryOnlyWhenAsked();
    void mergeJoinsListsExactly();
    void cloudValuesAreCheckedLikeStoredOnes();

private:
    std::unique_ptr<SettingsSandbox> m_sandbox;
};

void TestCloudSession::initTestCase()
{
    m_sandbox = std::make_unique<SettingsSandbox>();
}

void TestCloudSession::init()
{
    m_sandbox->clear();
    qunsetenv("TSL_HOST");
}

void TestCloudSession::cleanup()
{
    qunsetenv("TSL_HOST");
}

void TestCloudSession::baseUrlFollowsEnvironmentThenSetting_data()
{
    QTest::addColumn<QByteArray>("environment");
    QTest::addColumn<QString>("setting");
    QTest::addColumn<QString>("expected");
    QTest::newRow("nothing set: the local service") << QByteArray() << QString() << "http://127.0.0.1:8437";
    QTest::newRow("setting") << QByteArray() << "https://cloud.example.org" << "https://cloud.example.org";
    QTest::newRow("environment wins") << QByteArray(" http://10.0.0.1:9 ") << "https://cloud.example.org"
                                      << "http://10.0.0.1:9";
    QTest::newRow("blank environment falls back") << QByteArray("   ") << "https://cloud.example.org"
                                                  << "https://cloud.example.org";
}

void TestCloudSession::baseUrlFollowsEnvironmentThenSetting()
{
    QFETCH(QByteArray, environment);
    QFETCH(QString, setting);
    QFETCH(QString, expected);
    if (!environment.isNull())
        qputenv("TSL_HOST", environment);
    if (!setting.isEmpty())
        QSettings().setValue("HostAddress", setting);
    QCOMPARE(NetworkServices::baseUrl(), expected);
}

void TestCloudSession::acceptLanguageFollowsTheLanguageSetting_data()
{
    QTest::addColumn<int>("valueL");
    QTest::addColumn<QByteArray>("expected");
    QTest::newRow("Chinese") << 1 << QByteArray("zh-CN,zh;q=0.9,en;q=0.8");
    QTest::newRow("English") << 2 << QByteArray("en");
    QTest::newRow("unknown") << 7 << QByteArray("en");
    QTest::newRow("system") << 0
                            << (QLocale::system().name() == QLatin1String("zh_CN") ? QByteArray("zh-CN,zh;q=0.9,en;q=0.8")
                                                                                   : QByteArray("en"));
}

void TestCloudSession::acceptLanguageFollowsTheLanguageSetting()
{
    QFETCH(int, valueL);
    QFETCH(QByteArray, expected);
    QSettings().setValue("ValueL", valueL);
    QCOMPARE(NetworkServices::acceptLanguage(), expected);
    // ...and it is what goes on the wire, with the bearer token.
    ScriptedPeer peer(response("200 OK", "application/json", "{\"type\":\"quota\",\"status\":true}"));
    qputenv("TSL_HOST", peer.url().toUtf8());
    NetworkServices network;
    QSignalSpy quota(&network, &NetworkServices::cloudQuotaResponse);
    network.fetchCloudQuota(QStringLiteral("tok"));
    QTRY_COMPARE_WITH_TIMEOUT(quota.size(), 1, 5000);
    QVERIFY(peer.received().startsWith("GET /api/v3/cloud/quota HTTP/1.1"));
    QVERIFY(peer.received().contains("Accept-Language: " + expected + "\r\n"));
    QVERIFY(peer.received().contains("Authorization: Bearer tok\r\n"));
}

void TestCloudSession::networkErrorsAreWordedByStatus_data()
{
    QTest::addColumn<QByteArray>("reply");
    QTest::addColumn<QString>("message");
    QTest::addColumn<QString>("detailTail");
    const QByteArray html = "<html><body>nope</body></html>";
    QTest::newRow("401 page") << response("401 Unauthorized", "text/html", html)
                              << "The server declined the request. Please sign in again and retry."
                              << "\nHTTP status: 401 Unauthorized";
    QTest::newRow("403 page") << response("403 Forbidden", "text/html", html)
                              << "The server declined the request. Please sign in again and retry."
                              << "\nHTTP status: 403 Forbidden";
    QTest::newRow("404 page") << response("404 Not Found", "text/html", html)
                              << "The server does not offer this feature yet. The service may be under maintenance or "
                                 "being upgraded; please try again later or check for a newer version."
                              << "\nHTTP status: 404 Not Found";
    QTest::newRow("500 page") << response("500 Internal Server Error", "text/html", html)
                              << "The server encountered an internal error. Please try again later."
                              << "\nHTTP status: 500 Internal Server Error";
    QTest::newRow("418 page") << response("418 I'm a teapot", "text/html", html)
                              << "The server rejected the request (HTTP 418). Please try again later."
                              << "\nHTTP status: 418 I'm a teapot";
    QTest::newRow("200 but not JSON") << response("200 OK", "text/html", html)
                                      << "Could not connect to the server. Please check your network connection and try again."
                                      << "\nHTTP status: 200 OK";
}

void TestCloudSession::networkErrorsAreWordedByStatus()
{
    QFETCH(QByteArray, reply);
    QFETCH(QString, message);
    QFETCH(QString, detailTail);
    ScriptedPeer peer(reply);
    qputenv("TSL_HOST", peer.url().toUtf8());
    NetworkServices network;
    QSignalSpy errors(&network, &NetworkServices::networkError);
    QSignalSpy accounts(&network, &NetworkServices::accountResponse);
    network.fetchAccountProfile(QStringLiteral("t"));
    QTRY_COMPARE_WITH_TIMEOUT(errors.size(), 1, 5000);
    QCOMPARE(accounts.size(), 0);
    QCOMPARE(errors.at(0).at(0).toString(), QStringLiteral("account"));
    QCOMPARE(errors.at(0).at(1).toString(), message);
    const QString detail = errors.at(0).at(2).toString();
    QVERIFY2(detail.startsWith(QStringLiteral("URL: %1/api/v3/account/me").arg(peer.url()) + detailTail), qPrintable(detail));
}

void TestCloudSession::aSilentServerTimesOut()
{
    ScriptedPeer silent({});
    qputenv("TSL_HOST", silent.url().toUtf8());
    NetworkServices network;
    network.setTransferTimeout(300);  // the real limit is 10 s
    QSignalSpy errors(&network, &NetworkServices::networkError);
    network.listSyncItems(QStringLiteral("t"), QStringLiteral("settings.session"));
    QTRY_COMPARE_WITH_TIMEOUT(errors.size(), 1, 5000);
    QCOMPARE(errors.at(0).at(0).toString(), QStringLiteral("sync"));
    QCOMPARE(errors.at(0).at(1).toString(),
             QStringLiteral("The server did not respond in time. Please check your network connection and try again."));

    // Nobody listening at all.
    // Bound without listening: refused, and nobody else can listen there.
    QTcpSocket closed;
    QVERIFY(closed.bind(QHostAddress::LocalHost, 0, QAbstractSocket::DontShareAddress));
    const quint16 port = closed.localPort();
    qputenv("TSL_HOST", QByteArray("http://127.0.0.1:") + QByteArray::number(port));
    network.fetchCloudQuota({});
    QTRY_COMPARE_WITH_TIMEOUT(errors.size(), 2, 5000);
    QCOMPARE(errors.at(1).at(1).toString(),
             QStringLiteral("Could not connect to the server. Please check your network connection and try again."));
}

void TestCloudSession::typedRepliesGoToTheirSignal_data()
{
    QTest::addColumn<QByteArray>("reply");
    QTest::addColumn<int>("call");  // 0 profile, 1 peek, 2 shares, 3 relay op
    QTest::addColumn<QString>("signal");
    QTest::newRow("401 with an account envelope") << response("401 Unauthorized", "application/json",
                                                              "{\"type\":\"account\",\"status\":false}")
                                                  << 0 << "accountResponse";
    QTest::newRow("type trimmed and any case") << response("200 OK", "application/json", "{\"type\":\" Relay \"}") << 1
                                               << "relayPeekResponse";
    QTest::newRow("relay for a share tag") << response("200 OK", "application/json", "{\"type\":\"relay\"}") << 2
                                           << "relayShareResponse";
    QTest::newRow("console for a relay operation") << response("200 OK", "application/json", "{\"type\":\"console\"}")
                                                   << 3 << "relayOperationResponse";
}

void TestCloudSession::typedRepliesGoToTheirSignal()
{
    QFETCH(QByteArray, reply);
    QFETCH(int, call);
    QFETCH(QString, signal);
    ScriptedPeer peer(reply);
    qputenv("TSL_HOST", peer.url().toUtf8());
    NetworkServices network;
    QSignalSpy account(&network, &NetworkServices::accountResponse);
    QSignalSpy peek(&network, &NetworkServices::relayPeekResponse);
    QSignalSpy share(&network, &NetworkServices::relayShareResponse);
    QSignalSpy operation(&network, &NetworkServices::relayOperationResponse);
    QSignalSpy errors(&network, &NetworkServices::networkError);
    switch (call) {
    case 0: network.fetchAccountProfile({}); break;
    case 1: network.peekInvite({}, QStringLiteral("ABCD-EFGH-IJKL")); break;
    case 2: network.fetchShares({}, QStringLiteral("cid")); break;
    case 3: network.openRelaySession({}, "cid", "s", "port", QStringLiteral("relayop:7")); break;
    }
    QTRY_COMPARE_WITH_TIMEOUT(account.size() + peek.size() + share.size() + operation.size(), 1, 5000);
    QCOMPARE(errors.size(), 0);
    if (signal == QLatin1String("accountResponse"))
        QCOMPARE(account.size(), 1);
    if (signal == QLatin1String("relayPeekResponse")) {
        QCOMPARE(peek.size(), 1);
        QCOMPARE(peek.at(0).at(0).toString(), QStringLiteral("ABCD-EFGH-IJKL"));
    }
    if (signal == QLatin1String("relayShareResponse"))
        QCOMPARE(share.size(), 1);
    if (signal == QLatin1String("relayOperationResponse"))
        QCOMPARE(operation.at(0).at(0).toString(), QStringLiteral("relayop:7"));
}

void TestCloudSession::storedTokenProtection_data()
{
    QTest::addColumn<QString>("token");
    QTest::addColumn<int>("valueD");
    QTest::addColumn<QString>("stored");
    // Worked out independently of this code.
    QTest::newRow("ascii, ValueD 0") << "refresh-token-0123456789-abcdefghijklmnopqrstuvwxyz" << 0
                                     << "VJBn9M/BxvVGNcwPWPQmqut3dUTVVkkX/lGiXblwtK2gxo2rPz6rm17ioFuAjRXDiFQc";
    QTest::newRow("non-ascii") << QString::fromUtf8("Ünïcode") << 1234567 << "+ZbDpgCkZiZI";
}

void TestCloudSession::storedTokenProtection()
{
    QFETCH(QString, token);
    QFETCH(int, valueD);
    QFETCH(QString, stored);
    QCOMPARE(RefreshTokenProtection::protect(token, valueD), stored);
    QCOMPARE(RefreshTokenProtection::unprotect(stored, valueD), token);
    QVERIFY(RefreshTokenProtection::unprotect(stored, valueD + 1) != token);
    QCOMPARE(RefreshTokenProtection::unprotect({}, valueD), QString());
}

void TestCloudSession::rememberMeDecidesWhatIsStored()
{
    QSettings().setValue("ValueD", 42);
    NetworkServices network;
    const QJsonObject login{{"user", QJsonObject{{"id", 5}, {"email", "a@b.cd"}, {"username", "A"}}},
                            {"access_token", "acc"}, {"refresh_token", "ref-1"}, {"expires_in", 900}};
    {
        AccountSession session(&network);
        session.setRememberMe(false);
        session.applyLogin(login);
        QVERIFY(!QSettings().contains("AccountRefreshToken"));
        session.setRememberMe(true);
        QCOMPARE(QSettings().value("AccountRefreshToken").toString(), RefreshTokenProtection::protect("ref-1", 42));
        // A refresh reply without a new refresh token keeps the old one.
        QJsonObject renewed = login;
        renewed.remove("refresh_token");
        renewed.insert("access_token", "acc-2");
        session.applyLogin(renewed);
        QCOMPARE(session.refreshToken(), QStringLiteral("ref-1"));
        QCOMPARE(session.accessToken(), QStringLiteral("acc-2"));
    }
    // A new run keeps who and the refresh token, never the access token.
    AccountSession again(&network);
    QCOMPARE(again.userId(), 5);
    QCOMPARE(again.refreshToken(), QStringLiteral("ref-1"));
    QVERIFY(again.accessToken().isEmpty());
    again.setRememberMe(false);
    QVERIFY(!QSettings().contains("AccountRefreshToken"));
    QSettings().setValue("AccountSyncRevision", 3);
    again.clear();
    QVERIFY(!QSettings().contains("AccountSyncRevision"));
    QVERIFY(!QSettings().contains("AccountUserId"));
    QCOMPARE(QSettings().value("AccountRememberMe").toBool(), false);  // the choice survives
}

void TestCloudSession::accessTokenExpiresThirtySecondsEarly()
{
    NetworkServices network;
    AccountSession session(&network);
    QDateTime now = kT0;
    session.setClock([&] { return now; });
    session.applyLogin({{"user", QJsonObject{{"id", 1}}}, {"access_token", "a"}, {"expires_in", 60}});
    now = kT0.addSecs(29);
    QVERIFY(session.isAccessTokenValid());
    now = kT0.addSecs(30);
    QVERIFY(!session.isAccessTokenValid());
    session.applyLogin({{"user", QJsonObject{{"id", 1}}}, {"access_token", "a"}});
    QVERIFY(!session.accessExpiry().isValid());
    QVERIFY(!session.isAccessTokenValid());
}

void TestCloudSession::refreshIsThrottled()
{
    ScriptedPeer peer(response("200 OK", "application/json", "{\"type\":\"account\",\"status\":false}"));
    qputenv("TSL_HOST", peer.url().toUtf8());
    NetworkServices network;
    AccountSession session(&network);
    QDateTime now = kT0;
    session.setClock([&] { return now; });
    QVERIFY(!session.requestRefresh());  // no refresh token yet
    session.applyLogin({{"user", QJsonObject{{"id", 1}}}, {"access_token", "a"}, {"refresh_token", "r"}});
    QSignalSpy replies(&network, &NetworkServices::accountResponse);
    QVERIFY(session.requestRefresh());
    now = kT0.addSecs(5);
    QVERIFY(session.requestRefresh());
    QVERIFY(session.isRefreshPending());
    QTRY_COMPARE_WITH_TIMEOUT(replies.size(), 1, 5000);
    now = kT0.addSecs(16);
    QVERIFY(!session.isRefreshPending());
    QVERIFY(session.requestRefresh());
    QTRY_COMPARE_WITH_TIMEOUT(replies.size(), 2, 5000);
    QCOMPARE(peer.requests, 2);
}

void TestCloudSession::displayNameFallsBack()
{
    NetworkServices network;
    AccountSession session(&network);
    QCOMPARE(session.displayName(), QStringLiteral("Not signed in"));
    session.applyLogin({{"user", QJsonObject{{"id", 1}, {"email", "e@x.org"}}}});
    QCOMPARE(session.displayName(), QStringLiteral("e@x.org"));
    session.applyLogin({{"user", QJsonObject{{"id", 1}, {"email", "e@x.org"}, {"username", "Eve"}}}});
    QCOMPARE(session.displayName(), QStringLiteral("Eve"));
}

void TestCloudSession::documentCarriesSendHistoryOnlyWhenAsked()
{
    NetworkServices network;
    AccountSession session(&network);
    SessionState state;
    state.sendHistory = {"AT", "ATI"};
    state.targetHosts = {"10.0.0.1"};
    SessionSyncCoordinator sync(&network, &session, [&] { return state; });
    sync.setWriter(QStringLiteral("cid-1"), QStringLiteral("42"));
    QJsonObject document = sync.buildDocument(state);
    QCOMPARE(document.value("schema").toString(), QStringLiteral("tsl.session-settings"));
    QCOMPARE(document.value("version").toInt(), 1);
    QCOMPARE(document.value("app_version").toString(), QStringLiteral("6.6.7"));
    QCOMPARE(document.value("updated_by").toObject().value("device_name").toString(), QStringLiteral("42"));
    QVERIFY(!document.value("settings").toObject().contains("send_history"));
    QSettings().setValue("AccountSyncSendHistory", true);
    document = sync.buildDocument(state);
    QCOMPARE(document.value("settings").toObject().value("send_history").toArray().size(), 2);
    // What goes out comes back the same.
    QCOMPARE(SessionState::fromJson(document.value("settings").toObject()).sendHistory, state.sendHistory);
    SessionState back = SessionState::fromJson(document.value("settings").toObject());
    back.hasSendHistory = false;
    QCOMPARE(back, state);
}

void TestCloudSession::mergeJoinsListsExactly()
{
    SessionState ours;
    ours.targetHosts = {"a", "b"};
    ours.hasSendHistory = true;
    ours.sendHistory = {"x"};
    ours.baudRate = 115200;
    SessionState theirs;
    theirs.targetHosts = {"b", "B", "c"};
    theirs.sendHistory = {"x ", "x"};
    theirs.hasSendHistory = true;
    theirs.baudRate = 9600;
    const SessionState merged = SessionState::mergeLists(ours, theirs);
    QCOMPARE(merged.targetHosts, (QStringList{"a", "b", "B", "c"}));
    QCOMPARE(merged.sendHistory, (QStringList{"x", "x "}));
    QCOMPARE(merged.baudRate, 115200);
}

QTEST_GUILESS_MAIN(TestCloudSession)
// What the cloud sends goes into the records through the same range checks
// as the settings store and project files; what is valid comes back as it
// went out.
void TestCloudSession::cloudValuesAreCheckedLikeStoredOnes()
{
    ConnectionConfig connection;
    connection.baudRate = 57600;
    connection.targetHost = QStringLiteral("10.0.0.9");
    connection.recentTargetHosts = {QStringLiteral("10.0.0.9"), QStringLiteral("example.org")};
    PaneOptions pane;
    pane.displayBufferSize = 200000;
    pane.receiveFormat = MessageFormat::Hex;
    pane.fontFamily = QStringLiteral("Mono");
    const SessionState sent = SessionStateMapping::fromRecords(connection, pane, false, true, 2, {}, false);
    ConnectionConfig backConnection;
    PaneOptions backPane;
    SessionStateMapping::toRecords(sent, backConnection, backPane);
    QCOMPARE(backConnection.baudRate, 57600);
    QCOMPARE(backConnection.recentTargetHosts, connection.recentTargetHosts);
    QCOMPARE(backPane.displayBufferSize, 200000);
    QCOMPARE(backPane.receiveFormat, MessageFormat::Hex);
    QCOMPARE(backPane.fontFamily, QStringLiteral("Mono"));

    SessionState hostile = sent;
    hostile.displayBufferSize = -5;   // would switch trimming off
    hostile.baudRate = 0;
    hostile.dataBits = 42;            // not a data bit count
    hostile.targetHost = QString(70000, u'h');
    SessionStateMapping::toRecords(hostile, backConnection, backPane);
    QCOMPARE(backPane.displayBufferSize, 1000);
    QCOMPARE(backConnection.baudRate, 1);
    QCOMPARE(backConnection.dataBits, connection.dataBits);
    QCOMPARE(backConnection.targetHost, QStringLiteral("10.0.0.9"));
}

#include "tst_cloudsession.moc"
