// The service over raw HTTP on a loopback port, running in this process
// with a virtual clock and a mailer that keeps the codes it was given.
#include "codemailer.h"
#include "cloudservice.h"
#include "rawhttp.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QTemporaryDir>
#include <QWebSocket>
#include <QtTest>

namespace {

struct KeptCodes : CodeMailer
{
    QHash<QString, QString> codes;
    void sendCode(const QString &email, const QString &code, int) override { codes.insert(email, code); }
};

constexpr qint64 kStart = 1'790'000'000'000;  // a fixed moment in 2026
constexpr qint64 kMinute = 60'000;

} // namespace

class TestCloudService : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void registersSignsInAndRefreshes();
    void reusedRefreshTokenEndsTheWholeChain();
    void signOutEndsTheSession();
    void accessTokensExpireAndForgeriesFail_data();
    void accessTokensExpireAndForgeriesFail();
    void registrationCodesExpireAndAllowFewTries();
    void approvalModeHoldsNewAccounts();
    void signInAttemptsAreLimited();
    void devicesBindListAndRemove();
    void syncItemsCarryRevisions();
    void syncBoundsAndQuota();
    void badInputGetsAnEnvelope_data();
    void badInputGetsAnEnvelope();
    void oversizedBodiesAreRefusedEarly();
    void webSocketsToUnknownPathsAreClosed();
    void restartKeepsEverything();

private:
    bool startService(bool approval = false, qint64 quota = 0);
    QJsonObject signUp(const QString &email, const QString &password = QStringLiteral("correct horse"),
                       const QString &device = QStringLiteral("4711"));
    QJsonObject signIn(const QString &email, const QString &password = QStringLiteral("correct horse"));

    std::unique_ptr<QTemporaryDir> m_dir;
    qint64 m_now = kStart;
    KeptCodes m_mailer;
    std::unique_ptr<CloudService> m_service;
    quint16 m_port = 0;
};

bool TestCloudService::startService(bool approval, qint64 quota)
{
    m_service.reset();
    ServiceConfig config;
    config.listenAddress = QHostAddress(QHostAddress::LocalHost);
    config.port = 0;
    config.database = m_dir->filePath(QStringLiteral("cloud.sqlite"));
    config.pbkdf2Iterations = 1000;  // tests only; the default is far higher
    config.approvalMode = approval;
    config.monthlyQuotaBytes = quota;
    config.maxBodyBytes = 64 * 1024;
    AccountPolicy policy;
    policy.maxDevices = 3;
    SyncPolicy syncPolicy;
    syncPolicy.maxItemsPerAccount = 4;
    syncPolicy.maxPayloadBytes = 8 * 1024;
    m_service = std::make_unique<CloudService>();
    QString error;
    const bool ok = m_service->start(config, &error, [this] { return m_now; }, &m_mailer, policy, syncPolicy);
    if (!ok)
        qWarning() << error;
    m_port = m_service->port();
    return ok;
}

void TestCloudService::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    m_now = kStart;
    m_mailer.codes.clear();
    QVERIFY(startService());
}

void TestCloudService::cleanup()
{
    m_service.reset();
    m_dir.reset();
}

QJsonObject TestCloudService::signUp(const QString &email, const QString &password, const QString &device)
{
    const RawResponse code = httpJson(m_port, "POST", "/api/v3/account/register/code", {{"email", email}});
    if (!code.ok())
        return code.json;
    return httpJson(m_port, "POST", "/api/v3/account/register",
                    {{"email", email}, {"username", "Ada"}, {"password", password},
                     {"code", m_mailer.codes.value(email.toLower())}, {"device_name", device},
                     {"client_version", "6.6.7"}})
        .json;
}

QJsonObject TestCloudService::signIn(const QString &email, const QString &password)
{
    return httpJson(m_port, "POST", "/api/v3/account/login",
                    {{"email", email}, {"password", password}, {"device_name", "4711"}, {"client_version", "6.6.7"}})
        .json;
}

void TestCloudService::registersSignsInAndRefreshes()
{
    const QJsonObject registered = signUp(QStringLiteral("Ada@Example.org"));
    QCOMPARE(registered.value("type").toString(), QStringLiteral("account"));
    QVERIFY2(registered.value("status").toBool(), qPrintable(registered.value("description").toString()));
    QCOMPARE(registered.value("user").toObject().value("email").toString(), QStringLiteral("ada@example.org"));
    QCOMPARE(registered.value("expires_in").toInt(), 900);
    QCOMPARE(registered.value("device").toObject().value("name").toString(), QStringLiteral("4711"));

    const QJsonObject login = signIn(QStringLiteral("ada@example.org"));
    QVERIFY(login.value("status").toBool());
    const QString access = login.value("access_token").toString();
    const RawResponse me = httpRequest(m_port, "GET", "/api/v3/account/me", {}, access);
    QCOMPARE(me.status, 200);
    QCOMPARE(me.json.value("user").toObject().value("username").toString(), QStringLiteral("Ada"));

    // Each refresh hands out a new pair; the new access token works.
    QString refresh = login.value("refresh_token").toString();
    for (int round = 0; round < 3; ++round) {
        const RawResponse renewed = httpJson(m_port, "POST", "/api/v3/account/token/refresh", {{"refresh_token", refresh}});
        QVERIFY(renewed.ok());
        QVERIFY(renewed.json.value("refresh_token").toString() != refresh);
        refresh = renewed.json.value("refresh_token").toString();
        QCOMPARE(httpRequest(m_port, "GET", "/api/v3/account/me", {}, renewed.json.value("access_token").toString()).status, 200);
    }
    // Only hashes are stored: no token appears in the database file.
    QFile file(m_dir->filePath(QStringLiteral("cloud.sqlite")));
    QVERIFY(file.open(QIODevice::ReadOnly));
    QFile wal(m_dir->filePath(QStringLiteral("cloud.sqlite-wal")));
    const QByteArray stored = file.readAll() + (wal.open(QIODevice::ReadOnly) ? wal.readAll() : QByteArray());
    QVERIFY(!stored.contains(refresh.toLatin1()));
    QVERIFY(!stored.contains(access.toLatin1()));
}

void TestCloudService::reusedRefreshTokenEndsTheWholeChain()
{
    const QJsonObject login = signUp(QStringLiteral("eve@example.org"));
    const QString first = login.value("refresh_token").toString();
    const RawResponse rotated = httpJson(m_port, "POST", "/api/v3/account/token/refresh", {{"refresh_token", first}});
    QVERIFY(rotated.ok());
    const QString second = rotated.json.value("refresh_token").toString();
    const QString access = rotated.json.value("access_token").toString();

    // The old token comes back (a thief's copy): the chain ends for everybody.
    const RawResponse reuse = httpJson(m_port, "POST", "/api/v3/account/token/refresh", {{"refresh_token", first}});
    QCOMPARE(reuse.status, 401);
    QCOMPARE(reuse.code(), QStringLiteral("refresh_token_reused"));
    const RawResponse rightful = httpJson(m_port, "POST", "/api/v3/account/token/refresh", {{"refresh_token", second}});
    QCOMPARE(rightful.code(), QStringLiteral("invalid_refresh_token"));
    QCOMPARE(httpRequest(m_port, "GET", "/api/v3/account/me", {}, access).code(), QStringLiteral("invalid_token"));
    // Another sign-in of the same account is not touched.
    QVERIFY(signIn(QStringLiteral("eve@example.org")).value("status").toBool());
}

void TestCloudService::signOutEndsTheSession()
{
    const QJsonObject login = signUp(QStringLiteral("bob@example.org"));
    const RawResponse out = httpJson(m_port, "POST", "/api/v3/account/logout",
                                     {{"refresh_token", login.value("refresh_token").toString()}});
    QVERIFY(out.ok());
    QCOMPARE(httpRequest(m_port, "GET", "/api/v3/account/me", {}, login.value("access_token").toString()).status, 401);
    QCOMPARE(httpJson(m_port, "POST", "/api/v3/account/token/refresh",
                      {{"refresh_token", login.value("refresh_token").toString()}})
                 .code(),
             QStringLiteral("invalid_refresh_token"));
}

void TestCloudService::accessTokensExpireAndForgeriesFail_data()
{
    QTest::addColumn<QString>("token");
    QTest::addColumn<qint64>("advanceMs");
    QTest::addColumn<QString>("code");
    QTest::newRow("valid just before expiry") << QString() << qint64(899'000) << QString();
    QTest::newRow("expired") << QString() << qint64(901'000) << QStringLiteral("token_expired");
    QTest::newRow("forged") << QStringLiteral("AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA") << qint64(0)
                            << QStringLiteral("invalid_token");
    QTest::newRow("absent") << QStringLiteral("-") << qint64(0) << QStringLiteral("unauthorized");
}

void TestCloudService::accessTokensExpireAndForgeriesFail()
{
    QFETCH(QString, token);
    QFETCH(qint64, advanceMs);
    QFETCH(QString, code);
    const QJsonObject login = signUp(QStringLiteral("cy@example.org"));
    if (token.isEmpty())
        token = login.value("access_token").toString();
    if (token == QLatin1String("-"))
        token.clear();
    m_now += advanceMs;
    const RawResponse reply = httpRequest(m_port, "GET", "/api/v3/sync/items?namespace=settings.session", {}, token);
    QCOMPARE(reply.type(), QStringLiteral("sync"));
    QCOMPARE(reply.code(), code);
    QCOMPARE(reply.status, code.isEmpty() ? 200 : 401);
    if (!code.isEmpty())
        QVERIFY(!reply.json.value("description").toString().isEmpty());
}

void TestCloudService::registrationCodesExpireAndAllowFewTries()
{
    const QString email = QStringLiteral("dan@example.org");
    QVERIFY(httpJson(m_port, "POST", "/api/v3/account/register/code", {{"email", email}}).ok());
    // A second code within a minute is refused; after it, a new code replaces the old.
    QCOMPARE(httpJson(m_port, "POST", "/api/v3/account/register/code", {{"email", email}}).code(),
             QStringLiteral("code_recently_sent"));
    const auto attempt = [&](const QString &code) {
        return httpJson(m_port, "POST", "/api/v3/account/register",
                        {{"email", email}, {"password", "long enough"}, {"code", code}});
    };
    const QString right = m_mailer.codes.value(email);
    const QString wrong = right == QLatin1String("000000") ? QStringLiteral("111111") : QStringLiteral("000000");
    for (int left = 4; left >= 1; --left) {
        const RawResponse reply = attempt(wrong);
        QCOMPARE(reply.code(), QStringLiteral("code_invalid"));
        QCOMPARE(reply.json.value("tries_left").toInt(), left);
    }
    QCOMPARE(attempt(wrong).json.value("tries_left").toInt(), 0);
    // The tries are used up: even the right code no longer opens it.
    QVERIFY(!attempt(right).ok());

    m_now += 2 * kMinute;
    QVERIFY(httpJson(m_port, "POST", "/api/v3/account/register/code", {{"email", email}}).ok());
    m_now += 11 * kMinute;
    QCOMPARE(attempt(m_mailer.codes.value(email)).code(), QStringLiteral("code_expired"));
    QCOMPARE(attempt(m_mailer.codes.value(email)).code(), QStringLiteral("code_invalid"));
}

void TestCloudService::approvalModeHoldsNewAccounts()
{
    QVERIFY(startService(true));
    const QJsonObject registered = signUp(QStringLiteral("fay@example.org"));
    QCOMPARE(registered.value("status").toBool(), false);
    QCOMPARE(registered.value("code").toString(), QStringLiteral("account_pending_review"));
    QCOMPARE(signIn(QStringLiteral("fay@example.org")).value("code").toString(), QStringLiteral("account_pending_review"));
    QVERIFY(m_service->accounts().approve(QStringLiteral("FAY@example.org")));
    QVERIFY(signIn(QStringLiteral("fay@example.org")).value("status").toBool());
}

void TestCloudService::signInAttemptsAreLimited()
{
    QVERIFY(signUp(QStringLiteral("gus@example.org")).value("status").toBool());
    for (int i = 0; i < 10; ++i)
        QCOMPARE(signIn(QStringLiteral("gus@example.org"), QStringLiteral("guess %1").arg(i)).value("code").toString(),
                 QStringLiteral("invalid_credentials"));
    // Locked for the window even with the right password...
    QCOMPARE(signIn(QStringLiteral("gus@example.org")).value("code").toString(), QStringLiteral("too_many_attempts"));
    // ...and an unknown address fails like a wrong password.
    QCOMPARE(signIn(QStringLiteral("nobody@example.org")).value("code").toString(), QStringLiteral("invalid_credentials"));
    m_now += 16 * kMinute;
    QVERIFY(signIn(QStringLiteral("gus@example.org")).value("status").toBool());

    // Per address: many accounts tried from one place run into the address limit.
    for (int i = 0; i < 60; ++i)
        signIn(QStringLiteral("spray%1@example.org").arg(i));
    QCOMPARE(signIn(QStringLiteral("gus@example.org")).value("code").toString(), QStringLiteral("too_many_attempts"));
}

void TestCloudService::devicesBindListAndRemove()
{
    const QString token = signUp(QStringLiteral("hal@example.org")).value("access_token").toString();
    const auto bind = [&](const QJsonObject &body) {
        return httpJson(m_port, "POST", "/api/v3/account/devices/bind", body, token);
    };
    QCOMPARE(bind({{"device_name", ""}}).code(), QStringLiteral("device_name_invalid"));
    QVERIFY(bind({{"device_name", "lab"}, {"client_version", "6.6.7"}}).ok());
    const RawResponse desk = bind({{"device_name", "desk"}});
    QVERIFY2(desk.ok(), desk.body.constData());
    QCOMPARE(bind({{"device_name", "one too many"}}).code(), QStringLiteral("device_limit_reached"));

    const RawResponse list = httpRequest(m_port, "GET", "/api/v3/account/devices", {}, token);
    const QJsonArray devices = list.json.value("devices").toArray();
    QCOMPARE(devices.size(), 3);
    int current = 0;
    for (const QJsonValue &device : devices)
        current += device.toObject().value("current").toBool() ? 1 : 0;
    QCOMPARE(current, 1);  // this session is bound to "desk" now

    const QString labId = QString::number(devices.at(1).toObject().value("id").toInteger());
    QVERIFY(httpRequest(m_port, "DELETE", "/api/v3/account/devices/" + labId.toLatin1(), {}, token).ok());
    QCOMPARE(httpRequest(m_port, "DELETE", "/api/v3/account/devices/" + labId.toLatin1(), {}, token).code(),
             QStringLiteral("device_not_found"));
    QCOMPARE(httpRequest(m_port, "DELETE", "/api/v3/account/devices/nope", {}, token).status, 404);
}

void TestCloudService::syncItemsCarryRevisions()
{
    const QString a = signUp(QStringLiteral("ida@example.org")).value("access_token").toString();
    const QString b = signIn(QStringLiteral("ida@example.org")).value("access_token").toString();
    const QByteArray path = "/api/v3/sync/items/settings.session/default";
    const auto put = [&](const QString &token, qint64 base, int value) {
        return httpJson(m_port, "PUT", path, {{"base_revision", base}, {"payload", QJsonObject{{"v", value}}}}, token);
    };
    const RawResponse first = put(a, 0, 1);
    QVERIFY(first.ok());
    QCOMPARE(first.json.value("item").toObject().value("revision").toInt(), 1);
    QCOMPARE(put(a, 1, 2).json.value("item").toObject().value("revision").toInt(), 2);

    // The second computer still thinks revision 1 is current.
    const RawResponse stale = put(b, 1, 3);
    QCOMPARE(stale.status, 409);
    QCOMPARE(stale.code(), QStringLiteral("revision_conflict"));
    const QJsonObject server = stale.json.value("server_item").toObject();
    QCOMPARE(server.value("revision").toInt(), 2);
    QCOMPARE(server.value("payload").toObject().value("v").toInt(), 2);
    // A first write onto an existing item is a conflict too.
    QCOMPARE(put(b, 0, 3).code(), QStringLiteral("revision_conflict"));

    const RawResponse list = httpRequest(m_port, "GET", "/api/v3/sync/items?namespace=settings.session", {}, b);
    const QJsonArray items = list.json.value("items").toArray();
    QCOMPARE(items.size(), 1);
    QCOMPARE(items.at(0).toObject().value("item_key").toString(), QStringLiteral("default"));
    QCOMPARE(items.at(0).toObject().value("namespace").toString(), QStringLiteral("settings.session"));
    // Another account sees nothing of it.
    const QString other = signUp(QStringLiteral("jo@example.org")).value("access_token").toString();
    QCOMPARE(httpRequest(m_port, "GET", "/api/v3/sync/items?namespace=settings.session", {}, other)
                 .json.value("items").toArray().size(),
             0);
}

void TestCloudService::syncBoundsAndQuota()
{
    QVERIFY(startService(false, 20'000));
    const QString token = signUp(QStringLiteral("kim@example.org")).value("access_token").toString();
    const auto put = [&](const QByteArray &key, const QJsonObject &payload) {
        return httpJson(m_port, "PUT", "/api/v3/sync/items/ns/" + key, {{"base_revision", 0}, {"payload", payload}}, token);
    };
    QCOMPARE(put("big", {{"x", QString(9000, u'x')}}).code(), QStringLiteral("payload_too_large"));
    for (int i = 0; i < 4; ++i)
        QVERIFY(put("k" + QByteArray::number(i), {{"x", QString(4000, u'x')}}).ok());
    QCOMPARE(put("k4", {{"x", 1}}).code(), QStringLiteral("sync_item_limit"));
    QCOMPARE(put("bad%20key!", {{"x", 1}}).code(), QStringLiteral("invalid_item"));

    RawResponse quota = httpRequest(m_port, "GET", "/api/v3/cloud/quota", {}, token);
    QCOMPARE(quota.type(), QStringLiteral("quota"));
    QVERIFY(quota.json.value("enforced").toBool());
    QVERIFY(quota.json.value("used_bytes").toInteger() > 16'000);
    // The allowance is spent: the next write over it is refused.
    const RawResponse refused = httpJson(m_port, "PUT", "/api/v3/sync/items/ns/k0",
                                         {{"base_revision", 1}, {"payload", QJsonObject{{"x", QString(5000, u'y')}}}}, token);
    QCOMPARE(refused.code(), QStringLiteral("quota_exceeded"));
    // A new month starts afresh.
    m_now += 32LL * 24 * 60 * kMinute;
    quota = httpRequest(m_port, "GET", "/api/v3/cloud/quota", {},
                        signIn(QStringLiteral("kim@example.org")).value("access_token").toString());
    QVERIFY(quota.ok());
    QCOMPARE(quota.json.value("used_bytes").toInteger(), 0);
    QCOMPARE(quota.json.value("remaining_bytes").toInteger(), 20'000);
}

void TestCloudService::badInputGetsAnEnvelope_data()
{
    QTest::addColumn<QByteArray>("method");
    QTest::addColumn<QByteArray>("path");
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<bool>("signedIn");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("type");
    QTest::addColumn<QString>("code");
    QTest::newRow("malformed JSON") << QByteArray("POST") << QByteArray("/api/v3/account/login") << QByteArray("{\"email\":")
                                    << false << 400 << "account" << "invalid_json";
    QTest::newRow("array body") << QByteArray("POST") << QByteArray("/api/v3/account/login") << QByteArray("[1,2]")
                                << false << 400 << "account" << "invalid_json";
    QTest::newRow("missing member") << QByteArray("POST") << QByteArray("/api/v3/account/login")
                                    << QByteArray("{\"email\":\"a@b.cd\"}") << false << 400 << "account" << "missing_field";
    QTest::newRow("number for a string") << QByteArray("POST") << QByteArray("/api/v3/account/login")
                                         << QByteArray("{\"email\":5,\"password\":\"x\"}") << false << 400 << "account"
                                         << "invalid_field";
    QTest::newRow("overlong e-mail") << QByteArray("POST") << QByteArray("/api/v3/account/register/code")
                                     << QByteArray("{\"email\":\"" + QByteArray(300, 'a') + "@b.cd\"}") << false << 400
                                     << "account" << "invalid_field";
    QTest::newRow("not an e-mail") << QByteArray("POST") << QByteArray("/api/v3/account/register/code")
                                   << QByteArray("{\"email\":\"not an address\"}") << false << 400 << "account"
                                   << "invalid_email";
    QTest::newRow("revision as text") << QByteArray("PUT") << QByteArray("/api/v3/sync/items/a/b")
                                      << QByteArray("{\"base_revision\":\"1\",\"payload\":{}}") << true << 400 << "sync"
                                      << "invalid_field";
    QTest::newRow("fractional revision") << QByteArray("PUT") << QByteArray("/api/v3/sync/items/a/b")
                                         << QByteArray("{\"base_revision\":1.5,\"payload\":{}}") << true << 400 << "sync"
                                         << "invalid_field";
    QTest::newRow("payload not an object") << QByteArray("PUT") << QByteArray("/api/v3/sync/items/a/b")
                                           << QByteArray("{\"base_revision\":0,\"payload\":[]}") << true << 400 << "sync"
                                           << "invalid_field";
    QTest::newRow("unknown path in a family") << QByteArray("GET") << QByteArray("/api/v3/account/nothing") << QByteArray()
                                              << false << 404 << "account" << "not_found";
    QTest::newRow("console not offered yet") << QByteArray("POST") << QByteArray("/api/v3/console/heartbeat")
                                             << QByteArray("{}") << true << 404 << "console" << "not_found";
    QTest::newRow("outside the API") << QByteArray("GET") << QByteArray("/index.html") << QByteArray() << false << 404
                                     << "error" << "not_found";
    QTest::newRow("wrong method") << QByteArray("DELETE") << QByteArray("/api/v3/account/login") << QByteArray() << false
                                  << 405 << "account" << "method_not_allowed";
}

void TestCloudService::badInputGetsAnEnvelope()
{
    QFETCH(QByteArray, method);
    QFETCH(QByteArray, path);
    QFETCH(QByteArray, body);
    QFETCH(bool, signedIn);
    QFETCH(int, status);
    QFETCH(QString, type);
    QFETCH(QString, code);
    const QString token = signedIn ? signUp(QStringLiteral("lu@example.org")).value("access_token").toString() : QString();
    const RawResponse reply = httpRequest(m_port, method, path, body, token);
    QCOMPARE(reply.status, status);
    QCOMPARE(reply.type(), type);
    QCOMPARE(reply.json.value("status").toBool(true), false);
    QCOMPARE(reply.code(), code);
    QVERIFY(!reply.json.value("description").toString().isEmpty());
    // Internals never leak into the text.
    QVERIFY(!reply.body.contains("SQL") && !reply.body.contains("sqlite"));
}

void TestCloudService::oversizedBodiesAreRefusedEarly()
{
    // Declared too large: refused from the headers alone, the body never sent.
    RawResponse reply = rawExchange(m_port, "POST /api/v3/account/login HTTP/1.1\r\nHost: x\r\n"
                                            "Content-Type: application/json\r\nContent-Length: 100000000\r\n\r\n{");
    QCOMPARE(reply.status, 413);
    QCOMPARE(reply.type(), QStringLiteral("account"));
    QCOMPARE(reply.code(), QStringLiteral("payload_too_large"));
    // Chunked without a length: cut off once it passes the cap.
    QByteArray chunked = "POST /api/v3/sync/items/a/b HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n";
    for (int i = 0; i < 40; ++i)
        chunked += "1000\r\n" + QByteArray(0x1000, ' ') + "\r\n";
    reply = rawExchange(m_port, chunked);
    QCOMPARE(reply.status, 413);
    QCOMPARE(reply.type(), QStringLiteral("sync"));
    // The service still answers others.
    QCOMPARE(httpRequest(m_port, "GET", "/api/v3/nothing").status, 404);
}

void TestCloudService::webSocketsToUnknownPathsAreClosed()
{
    QWebSocket socket;
    QSignalSpy closed(&socket, &QWebSocket::disconnected);
    socket.open(QUrl(QStringLiteral("ws://127.0.0.1:%1/ws/console/v1").arg(m_port)));
    QTRY_COMPARE_WITH_TIMEOUT(closed.size(), 1, 5000);
    QCOMPARE(int(socket.closeCode()), int(QWebSocketProtocol::CloseCodePolicyViolated));
    QCOMPARE(socket.closeReason(), QStringLiteral("unknown_path"));
}

void TestCloudService::restartKeepsEverything()
{
    const QJsonObject login = signUp(QStringLiteral("max@example.org"));
    const QString token = login.value("access_token").toString();
    QVERIFY(httpJson(m_port, "PUT", "/api/v3/sync/items/settings.session/default",
                     {{"base_revision", 0}, {"payload", QJsonObject{{"schema", "tsl.session-settings"}}}}, token)
                .ok());
    QVERIFY(startService());  // same file, new process state
    QCOMPARE(httpRequest(m_port, "GET", "/api/v3/account/me", {}, token).status, 200);
    const RawResponse renewed = httpJson(m_port, "POST", "/api/v3/account/token/refresh",
                                         {{"refresh_token", login.value("refresh_token").toString()}});
    QVERIFY(renewed.ok());
    const RawResponse items = httpRequest(m_port, "GET", "/api/v3/sync/items?namespace=settings.session", {},
                                          renewed.json.value("access_token").toString());
    QCOMPARE(items.json.value("items").toArray().at(0).toObject().value("revision").toInt(), 1);
}

QTEST_GUILESS_MAIN(TestCloudService)
#include "tst_cloudservice.moc"
