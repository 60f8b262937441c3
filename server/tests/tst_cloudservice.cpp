// The service over raw HTTP on a loopback port, running in this process
// with a virtual clock and a mailer that keeps the codes it was given.
#include "codemailer.h"
#include "cloudservice.h"
#include "passwordhasher.h"
#include "rawhttp.h"
#include "storage.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QTcpSocket>
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
    void aRotatedRefreshTokenHasAGraceTime_data();
    void aRotatedRefreshTokenHasAGraceTime();
    void racingRefreshesGetTheSamePair();
    void passwordsAreArgon2idAndOlderHashesAreReplaced_data();
    void passwordsAreArgon2idAndOlderHashesAreReplaced();
    void signOutEndsTheSession();
    void accessTokensExpireAndForgeriesFail_data();
    void accessTokensExpireAndForgeriesFail();
    void registrationCodesExpireAndAllowFewTries();
    void approvalModeHoldsNewAccounts();
    void wrongPasswordsDelayTheirPairOnly();
    void guessesAcrossAccountsDelayTheirAddressOnly();
    void onlyATrustedProxyNamesTheClient();
    void devicesBindListAndRemove();
    void syncItemsCarryRevisions();
    void syncBoundsAndQuota();
    void badInputGetsAnEnvelope_data();
    void badInputGetsAnEnvelope();
    void oversizedBodiesAreRefusedEarly_data();
    void oversizedBodiesAreRefusedEarly();
    void webSocketHandshakesNeedAKnownPathAndAValidRequest();
    void restartKeepsEverything();

private:
    bool startService(bool approval = false, qint64 quota = 0);
    QJsonObject signUp(const QString &email, const QString &password = QStringLiteral("correct horse"),
                       const QString &device = QStringLiteral("4711"));
    QJsonObject signIn(const QString &email, const QString &password = QStringLiteral("correct horse"));

    std::unique_ptr<QTemporaryDir> m_dir;
    std::atomic<qint64> m_now = kStart;  // read by the worker threads
    KeptCodes m_mailer;
    std::unique_ptr<CloudService> m_service;
    quint16 m_port = 0;
    QStringList m_trustedProxies;
};

bool TestCloudService::startService(bool approval, qint64 quota)
{
    m_service.reset();
    ServiceConfig config;
    config.listenAddress = QHostAddress(QHostAddress::LocalHost);
    config.port = 0;
    config.database = m_dir->filePath(QStringLiteral("cloud.sqlite"));
    config.argon2 = {256, 1, 1};  // tests only; the default costs far more
    config.approvalMode = approval;
    config.monthlyQuotaBytes = quota;
    config.maxBodyBytes = 64 * 1024;
    config.trustedProxies = m_trustedProxies;
    AccountPolicy policy;
    policy.maxDevices = 3;
    SyncPolicy syncPolicy;
    syncPolicy.maxItemsPerAccount = 4;
    syncPolicy.maxPayloadBytes = 8 * 1024;
    m_service = std::make_unique<CloudService>();
    QString error;
    const bool ok = m_service->start(config, &error, [this] { return m_now.load(); }, &m_mailer, policy, syncPolicy);
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
    m_trustedProxies.clear();
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

void TestCloudService::aRotatedRefreshTokenHasAGraceTime_data()
{
    QTest::addColumn<qint64>("laterMs");
    QTest::addColumn<bool>("newPairUsed");
    QTest::addColumn<bool>("samePair");
    QTest::newRow("at once (the reply was lost)") << qint64(0) << false << true;
    QTest::newRow("within 30 s") << qint64(30'000) << false << true;
    QTest::newRow("after 30 s (a stolen copy)") << qint64(30'001) << false << false;
    QTest::newRow("after the new pair was used") << qint64(1'000) << true << false;
}

void TestCloudService::aRotatedRefreshTokenHasAGraceTime()
{
    QFETCH(qint64, laterMs);
    QFETCH(bool, newPairUsed);
    QFETCH(bool, samePair);
    const auto refresh = [&](const QString &token) {
        return httpJson(m_port, "POST", "/api/v3/account/token/refresh", {{"refresh_token", token}});
    };
    const QString first = signUp(QStringLiteral("eve@example.org")).value("refresh_token").toString();
    const RawResponse rotated = refresh(first);
    QVERIFY(rotated.ok());
    QString current = rotated.json.value("refresh_token").toString();
    QString access = rotated.json.value("access_token").toString();
    m_now += laterMs;
    if (newPairUsed) {
        const RawResponse next = refresh(current);
        QVERIFY(next.ok());
        current = next.json.value("refresh_token").toString();
        access = next.json.value("access_token").toString();
    }

    const RawResponse again = refresh(first);
    if (samePair) {
        QCOMPARE(again.status, 200);
        QCOMPARE(again.json.value("refresh_token").toString(), current);
        QCOMPARE(again.json.value("access_token").toString(), access);
        QCOMPARE(again.json.value("expires_in").toInteger(), 900 - laterMs / 1000);
        QCOMPARE(again.json.value("user").toObject().value("email").toString(), QStringLiteral("eve@example.org"));
        // The pair goes on working.
        QCOMPARE(httpRequest(m_port, "GET", "/api/v3/account/me", {}, access).status, 200);
        QVERIFY(refresh(current).ok());
        return;
    }
    // Whoever holds the chain may have stolen it: the chain ends for everybody.
    QCOMPARE(again.status, 401);
    QCOMPARE(again.code(), QStringLiteral("refresh_token_reused"));
    QCOMPARE(refresh(current).code(), QStringLiteral("invalid_refresh_token"));
    QCOMPARE(httpRequest(m_port, "GET", "/api/v3/account/me", {}, access).code(), QStringLiteral("invalid_token"));
    // Another sign-in of the same account is not touched.
    QVERIFY(signIn(QStringLiteral("eve@example.org")).value("status").toBool());
}

void TestCloudService::racingRefreshesGetTheSamePair()
{
    // A client that retries while its first refresh is still under way:
    // both arrive together, on two database threads.
    const QString token = signUp(QStringLiteral("ray@example.org")).value("refresh_token").toString();
    const QByteArray body = QJsonDocument(QJsonObject{{"refresh_token", token}}).toJson(QJsonDocument::Compact);
    const QByteArray request = "POST /api/v3/account/token/refresh HTTP/1.1\r\nHost: x\r\nConnection: close\r\n"
                               "Content-Length: " + QByteArray::number(body.size()) + "\r\n\r\n" + body;
    QTcpSocket a;
    QTcpSocket b;
    a.connectToHost(QHostAddress::LocalHost, m_port);
    b.connectToHost(QHostAddress::LocalHost, m_port);
    QVERIFY(a.waitForConnected(5000) && b.waitForConnected(5000));
    a.write(request);
    b.write(request);
    QByteArray replyA;
    QByteArray replyB;
    QTRY_VERIFY_WITH_TIMEOUT((replyA += a.readAll(), replyB += b.readAll(),
                              a.state() == QAbstractSocket::UnconnectedState
                                  && b.state() == QAbstractSocket::UnconnectedState),
                             5000);
    const QJsonObject first = QJsonDocument::fromJson(replyA.mid(replyA.indexOf("\r\n\r\n") + 4)).object();
    const QJsonObject second = QJsonDocument::fromJson(replyB.mid(replyB.indexOf("\r\n\r\n") + 4)).object();
    QVERIFY2(first.value("status").toBool() && second.value("status").toBool(), replyA + replyB);
    QCOMPARE(first.value("refresh_token").toString(), second.value("refresh_token").toString());
    QCOMPARE(first.value("access_token").toString(), second.value("access_token").toString());
}

void TestCloudService::passwordsAreArgon2idAndOlderHashesAreReplaced_data()
{
    QTest::addColumn<QString>("older");
    QTest::newRow("PBKDF2-SHA256") << PasswordHasher::pbkdf2Hash(QStringLiteral("correct horse"), 1000);
    QTest::newRow("Argon2id of another cost") << PasswordHasher({512, 1, 1}).hash(QStringLiteral("correct horse"));
}

void TestCloudService::passwordsAreArgon2idAndOlderHashesAreReplaced()
{
    QFETCH(QString, older);
    QVERIFY(signUp(QStringLiteral("ann@example.org")).value("status").toBool());
    Storage store;
    QString error;
    QVERIFY2(store.open(m_dir->filePath(QStringLiteral("cloud.sqlite")), &error), qPrintable(error));
    const auto storedHash = [&] {
        UserRow user;
        return store.userByEmail(QStringLiteral("ann@example.org"), user) == Storage::Found::Yes ? user : UserRow();
    };
    const UserRow registered = storedHash();
    QVERIFY2(registered.passwordHash.startsWith(QStringLiteral("$argon2id$v=19$m=256,t=1,p=1$")),
             qPrintable(registered.passwordHash));
    QVERIFY(store.replacePasswordHash(registered.id, registered.passwordHash, older));

    // A wrong password changes nothing; the right one signs in and
    // replaces the older hash, which then goes on working.
    QCOMPARE(signIn(QStringLiteral("ann@example.org"), QStringLiteral("wrong horse")).value("code").toString(),
             QStringLiteral("invalid_credentials"));
    QCOMPARE(storedHash().passwordHash, older);
    QVERIFY(signIn(QStringLiteral("ann@example.org")).value("status").toBool());
    const QString replaced = storedHash().passwordHash;
    QVERIFY2(replaced.startsWith(QStringLiteral("$argon2id$v=19$m=256,t=1,p=1$")), qPrintable(replaced));
    QVERIFY(signIn(QStringLiteral("ann@example.org")).value("status").toBool());
    QCOMPARE(storedHash().passwordHash, replaced);
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
    Storage admin;  // as `tessaline-cloud --approve` does, beside the running service
    QString error;
    QVERIFY2(admin.open(m_dir->filePath(QStringLiteral("cloud.sqlite")), &error), qPrintable(error));
    QVERIFY(admin.setUserState(QStringLiteral("fay@example.org"), QStringLiteral("active")));
    QVERIFY(signIn(QStringLiteral("fay@example.org")).value("status").toBool());
}

namespace {
const QHostAddress kGuesser(QStringLiteral("127.0.0.1"));
const QHostAddress kOwner(QStringLiteral("127.0.0.2"));
} // namespace

void TestCloudService::wrongPasswordsDelayTheirPairOnly()
{
    QVERIFY(signUp(QStringLiteral("gus@example.org")).value("status").toBool());
    const auto login = [&](const QString &password, const QHostAddress &from) {
        return httpJson(m_port, "POST", "/api/v3/account/login",
                        {{"email", "gus@example.org"}, {"password", password}}, {}, {}, from);
    };
    for (int i = 0; i < 3; ++i)
        QCOMPARE(login(QStringLiteral("guess"), kGuesser).code(), QStringLiteral("invalid_credentials"));
    // From there on each failure makes the next attempt wait longer: 1, 2, 4 s.
    for (const int seconds : {1, 2, 4}) {
        const RawResponse wait = login(QStringLiteral("correct horse"), kGuesser);
        QCOMPARE(wait.status, 429);
        QCOMPARE(wait.code(), QStringLiteral("too_many_attempts"));
        QCOMPARE(wait.json.value("retry_after").toInt(), seconds);
        QCOMPARE(wait.header("retry-after"), QByteArray::number(seconds));
        // The owner, elsewhere, is not kept out at any point.
        QVERIFY(login(QStringLiteral("correct horse"), kOwner).ok());
        m_now += seconds * 1000;
        if (seconds < 4)
            QCOMPARE(login(QStringLiteral("guess"), kGuesser).code(), QStringLiteral("invalid_credentials"));
    }
    // After the wait the right password gets in from the guesser's address
    // too: a delay, not a lock. And it starts that pair afresh.
    QVERIFY(login(QStringLiteral("correct horse"), kGuesser).ok());
    QCOMPARE(login(QStringLiteral("guess"), kGuesser).code(), QStringLiteral("invalid_credentials"));
    QCOMPARE(login(QStringLiteral("guess"), kGuesser).code(), QStringLiteral("invalid_credentials"));
}

void TestCloudService::guessesAcrossAccountsDelayTheirAddressOnly()
{
    QVERIFY(signUp(QStringLiteral("gus@example.org")).value("status").toBool());
    const auto login = [&](const QString &email, const QString &password, const QHostAddress &from) {
        return httpJson(m_port, "POST", "/api/v3/account/login", {{"email", email}, {"password", password}}, {}, {},
                        from);
    };
    // Twenty accounts tried once each from one address (an unknown
    // address fails like a wrong password)...
    for (int i = 0; i < 20; ++i)
        QCOMPARE(login(QStringLiteral("spray%1@example.org").arg(i), QStringLiteral("guess"), kGuesser).code(),
                 QStringLiteral("invalid_credentials"));
    // ...slow that address down for every account, and nobody else.
    QCOMPARE(login(QStringLiteral("gus@example.org"), QStringLiteral("correct horse"), kGuesser).code(),
             QStringLiteral("too_many_attempts"));
    QVERIFY(login(QStringLiteral("gus@example.org"), QStringLiteral("correct horse"), kOwner).ok());
    m_now += 1000;
    QVERIFY(login(QStringLiteral("gus@example.org"), QStringLiteral("correct horse"), kGuesser).ok());
    // Failures are forgotten a quarter of an hour after the last.
    QCOMPARE(login(QStringLiteral("spray@example.org"), QStringLiteral("guess"), kGuesser).code(),
             QStringLiteral("invalid_credentials"));
    QCOMPARE(login(QStringLiteral("spray@example.org"), QStringLiteral("guess"), kGuesser).code(),
             QStringLiteral("too_many_attempts"));
    m_now += 16 * kMinute;
    QCOMPARE(login(QStringLiteral("spray@example.org"), QStringLiteral("guess"), kGuesser).code(),
             QStringLiteral("invalid_credentials"));
}

void TestCloudService::onlyATrustedProxyNamesTheClient()
{
    m_trustedProxies = {QStringLiteral("127.0.0.1")};
    QVERIFY(startService());
    QVERIFY(signUp(QStringLiteral("gus@example.org")).value("status").toBool());
    const auto login = [&](const QString &password, const QByteArray &forwardedFor, const QHostAddress &from) {
        return httpJson(m_port, "POST", "/api/v3/account/login",
                        {{"email", "gus@example.org"}, {"password", password}}, {},
                        "X-Forwarded-For: " + forwardedFor + "\r\n", from);
    };
    // Through the proxy, each forwarded client is counted on its own.
    for (int i = 0; i < 3; ++i)
        QCOMPARE(login(QStringLiteral("guess"), "198.51.100.7", kGuesser).code(), QStringLiteral("invalid_credentials"));
    QCOMPARE(login(QStringLiteral("correct horse"), "198.51.100.7", kGuesser).code(),
             QStringLiteral("too_many_attempts"));
    QVERIFY(login(QStringLiteral("correct horse"), "198.51.100.8", kGuesser).ok());
    // A client cannot pick its address by writing the header itself: the
    // proxy appends what it saw, and that is what counts.
    QCOMPARE(login(QStringLiteral("correct horse"), "198.51.100.8, 198.51.100.7", kGuesser).code(),
             QStringLiteral("too_many_attempts"));
    // Anybody else's X-Forwarded-For is ignored: its own address counts.
    for (int i = 0; i < 3; ++i)
        QCOMPARE(login(QStringLiteral("guess"), "203.0.113." + QByteArray::number(i), kOwner).code(),
                 QStringLiteral("invalid_credentials"));
    QCOMPARE(login(QStringLiteral("correct horse"), "203.0.113.99", kOwner).code(), QStringLiteral("too_many_attempts"));
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
    const auto profile = [&] { return httpRequest(m_port, "GET", "/api/v3/account/me", {}, token).json; };
    QCOMPARE(profile().value("device").toObject().value("name").toString(), QStringLiteral("desk"));
    QCOMPARE(profile().value("device_count").toInt(), 3);

    const QString labId = QString::number(devices.at(1).toObject().value("id").toInteger());
    QVERIFY(httpRequest(m_port, "DELETE", "/api/v3/account/devices/" + labId.toLatin1(), {}, token).ok());
    QCOMPARE(httpRequest(m_port, "DELETE", "/api/v3/account/devices/" + labId.toLatin1(), {}, token).code(),
             QStringLiteral("device_not_found"));
    QCOMPARE(httpRequest(m_port, "DELETE", "/api/v3/account/devices/nope", {}, token).status, 404);
    QCOMPARE(profile().value("device_count").toInt(), 2);
    QCOMPARE(profile().value("device").toObject().value("name").toString(), QStringLiteral("desk"));
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
    QTest::newRow("relay session without cid") << QByteArray("POST") << QByteArray("/api/v3/relay/sessions")
                                               << QByteArray("{}") << true << 400 << "relay" << "missing_field";
    QTest::newRow("heartbeat without cid") << QByteArray("POST") << QByteArray("/api/v3/console/heartbeat")
                                           << QByteArray("{}") << true << 400 << "console" << "missing_field";
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

void TestCloudService::oversizedBodiesAreRefusedEarly_data()
{
    QTest::addColumn<QByteArray>("request");
    QTest::addColumn<QString>("type");
    QByteArray chunked = "POST /api/v3/sync/items/a/b HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n%1\r\n";
    for (int i = 0; i < 40; ++i)
        chunked += "1000\r\n" + QByteArray(0x1000, ' ') + "\r\n";
    const QByteArray declared = "POST /api/v3/account/login HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\n"
                                "%1Content-Length: 100000000\r\n\r\n{";
    const QByteArray upgrade = "Upgrade: websocket\r\nConnection: Upgrade\r\n";
    // Declared too large: refused from the headers alone, the body never sent.
    QTest::newRow("declared length") << QByteArray(declared).replace("%1", "") << "account";
    QTest::newRow("declared length, Upgrade") << QByteArray(declared).replace("%1", upgrade) << "account";
    // Chunked without a length: cut off once it passes the cap.
    QTest::newRow("chunked") << QByteArray(chunked).replace("%1", "") << "sync";
    QTest::newRow("chunked, Upgrade") << QByteArray(chunked).replace("%1", upgrade) << "sync";
}

void TestCloudService::oversizedBodiesAreRefusedEarly()
{
    QFETCH(QByteArray, request);
    QFETCH(QString, type);
    const RawResponse reply = rawExchange(m_port, request);
    QCOMPARE(reply.status, 413);
    QCOMPARE(reply.type(), type);
    QCOMPARE(reply.code(), QStringLiteral("payload_too_large"));
    QCOMPARE(reply.header("connection"), QByteArray("close"));
    // The service still answers others.
    QCOMPARE(httpRequest(m_port, "GET", "/api/v3/nothing").status, 404);
}

void TestCloudService::webSocketHandshakesNeedAKnownPathAndAValidRequest()
{
    m_service->http().addSocketEndpoint(QStringLiteral("/ws/test"), [](std::unique_ptr<QWebSocket> socket) {
        QWebSocket *echo = socket.release();
        QObject::connect(echo, &QWebSocket::textMessageReceived, echo,
                         [echo](const QString &text) { echo->sendTextMessage(QStringLiteral("echo ") + text); });
        QObject::connect(echo, &QWebSocket::disconnected, echo, &QObject::deleteLater);
    });
    {
        // A complete handshake on a known path is handed over whole.
        QWebSocket socket;
        QSignalSpy received(&socket, &QWebSocket::textMessageReceived);
        connect(&socket, &QWebSocket::connected, &socket, [&socket] { socket.sendTextMessage(QStringLiteral("hi")); });
        socket.open(QUrl(QStringLiteral("ws://127.0.0.1:%1/ws/test").arg(m_port)));
        QTRY_COMPARE_WITH_TIMEOUT(received.size(), 1, 5000);
        QCOMPARE(received.at(0).at(0).toString(), QStringLiteral("echo hi"));
        QCOMPARE(m_service->http().openConnections(), 1);
        socket.close();
    }
    // The socket keeps its place under the connection cap until it is gone.
    QTRY_COMPARE_WITH_TIMEOUT(m_service->http().openConnections(), 0, 5000);

    const QByteArray key = "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n";
    const QByteArray upgrade = "Upgrade: websocket\r\nConnection: Upgrade\r\n";
    const auto get = [&](const QByteArray &path, const QByteArray &headers) {
        return rawExchange(m_port, "GET " + path + " HTTP/1.1\r\nHost: x\r\n" + headers + "\r\n");
    };
    // Elsewhere a handshake is an ordinary request.
    RawResponse reply = get("/ws/nothing/v1", upgrade + key);
    QCOMPARE(reply.status, 404);
    QCOMPARE(reply.code(), QStringLiteral("not_found"));
    // On a known path, only a complete one is taken.
    reply = get("/ws/test", upgrade);
    QCOMPARE(reply.status, 400);
    QCOMPARE(reply.code(), QStringLiteral("bad_request"));
    reply = get("/ws/test", key);
    QCOMPARE(reply.status, 426);
    QCOMPARE(reply.code(), QStringLiteral("upgrade_required"));
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
