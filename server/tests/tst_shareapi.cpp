// Guest shares on the service: the owner's share endpoints, the guest's
// peek and join with the passcode limits, and a browser guest on the
// watcher socket, against the real service in this process on a loopback
// port with a clock the test moves.
#include "codemailer.h"
#include "cloudservice.h"
#include "consolehub.h"
#include "consolesocketclient.h"
#include "guestscope.h"
#include "rawhttp.h"
#include "relayend.h"
#include "shareservice.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QNetworkRequest>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QWebSocket>
#include <QtTest>

namespace {

struct KeptCodes : CodeMailer
{
    QHash<QString, QString> codes;
    void sendCode(const QString &email, const QString &code, int) override { codes.insert(email, code); }
};

constexpr qint64 kStart = 1'790'000'000'000;
constexpr int kWait = 8000;
const QString kCid = QStringLiteral("3f0c2b1e-8a7d-4c55-9e21-0d6b5a4f7c10");

QJsonObject portEntry(const QString &key, const QString &name)
{
    return {{"port_key", key}, {"connection_mode", 0}, {"mode_tag", "ser"}, {"port_name", name}, {"label", name},
            {"open", true}, {"capabilities", QJsonArray{"send", "control"}}};
}

QJsonObject rx(const QString &portKey, const QString &text, int seq)
{
    return {{"port_key", portKey}, {"event_type", "rx"}, {"payload_text", text}, {"seq", seq}, {"client_time", kStart}};
}

} // namespace

class TestShareApi : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void inviteCodesReadWhatGuestsType_data();
    void inviteCodesReadWhatGuestsType();
    void guestScopeShowsOnlyTheSharedPort();
    void createChecksWhatIsShared_data();
    void createChecksWhatIsShared();
    void sharesAreListedPerComputerAndAccount();
    void sharesEndByTimeAndWithTheirRun_data();
    void sharesEndByTimeAndWithTheirRun();
    void peekAndJoinTellTheGuestWhatIsNeeded();
    void wrongPasscodesAreLimitedPerAddressAndPerShare();
    void aBrowserGuestSeesItsPortAndActsWithinItsLevel();
    void aBrowserGuestIsToldWhenTheShareExpires();
    void aRelayGuestJoinsByCodeAndTheComputerIsAskedToOpen();
    void aShareThatEndsTakesItsRelayGuestWithIt_data();
    void aShareThatEndsTakesItsRelayGuestWithIt();
    void theGuestPageIsServedForEveryInviteLink_data();
    void theGuestPageIsServedForEveryInviteLink();

private:
    bool startService();
    QString signUp(const QString &email);
    void heartbeat(const QString &token, const QString &sessionId = QStringLiteral("s1"));
    RawResponse createShare(const QString &token, const QJsonObject &changes = {});
    RawResponse joinWeb(const QString &code, const QString &passcode, const QHostAddress &from = {});

    std::unique_ptr<QTemporaryDir> m_dir;
    std::atomic<qint64> m_now = kStart;
    KeptCodes m_mailer;
    std::unique_ptr<CloudService> m_service;
    quint16 m_port = 0;
};

bool TestShareApi::startService()
{
    m_service.reset();
    ServiceConfig config;
    config.listenAddress = QHostAddress(QHostAddress::LocalHost);
    config.port = 0;
    config.database = m_dir->filePath(QStringLiteral("cloud.sqlite"));
    config.argon2 = {256, 1, 1};
    config.accessTtlSeconds = 2 * 24 * 3600;  // the tests move the clock by hours
    m_service = std::make_unique<CloudService>();
    QString error;
    const bool ok = m_service->start(config, &error, [this] { return m_now.load(); }, &m_mailer);
    if (!ok)
        qWarning() << error;
    m_port = m_service->port();
    return ok;
}

void TestShareApi::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    m_now = kStart;
    QVERIFY(startService());
}

void TestShareApi::cleanup()
{
    m_service.reset();
    m_dir.reset();
}

QString TestShareApi::signUp(const QString &email)
{
    httpJson(m_port, "POST", "/api/v3/account/register/code", {{"email", email}});
    return httpJson(m_port, "POST", "/api/v3/account/register",
                    {{"email", email}, {"username", "Ada"}, {"password", "correct horse"},
                     {"code", m_mailer.codes.value(email)}, {"device_name", "bench"}, {"client_version", "6.6.7"}})
        .json.value("access_token")
        .toString();
}

void TestShareApi::heartbeat(const QString &token, const QString &sessionId)
{
    const RawResponse beat = httpJson(m_port, "POST", "/api/v3/console/heartbeat",
                                      {{"cid", kCid}, {"session_id", sessionId}, {"version", "6.6.7"},
                                       {"hostname", "bench-pc"}, {"poll", true}},
                                      token);
    QVERIFY2(beat.ok(), beat.body.constData());
}

RawResponse TestShareApi::createShare(const QString &token, const QJsonObject &changes)
{
    QJsonObject body{{"cid", kCid}, {"session_id", "s1"}, {"port_key", "p1"}, {"ttl_seconds", 3600},
                     {"label", "bench board"}, {"passcode", "4711"}, {"web", "send"}, {"relay", false}};
    for (auto it = changes.begin(); it != changes.end(); ++it)
        body.insert(it.key(), it.value());
    return httpJson(m_port, "POST", "/api/v3/relay/shares", body, token);
}

RawResponse TestShareApi::joinWeb(const QString &code, const QString &passcode, const QHostAddress &from)
{
    return httpJson(m_port, "POST", "/api/v3/relay/join/" + code.toUtf8() + "/web",
                    {{"passcode", passcode}, {"guest_name", "Grace"}}, {}, {}, from);
}

void TestShareApi::inviteCodesReadWhatGuestsType_data()
{
    QTest::addColumn<QString>("typed");
    QTest::addColumn<QString>("code");
    QTest::newRow("shown form") << "ABCD-EFGH-JKMN" << "ABCDEFGHJKMN";
    QTest::newRow("lower case, spaces") << " abcd efgh jkmn " << "ABCDEFGHJKMN";
    QTest::newRow("a whole link") << "https://cloud.example.org/join/ABCD-EFGH-JKMN" << "ABCDEFGHJKMN";
    QTest::newRow("a look-alike letter") << "ABCD-EFGH-JKMO" << "";
    QTest::newRow("a digit one") << "1BCD-EFGH-JKMN" << "";
    QTest::newRow("too short") << "ABCD-EFGH-JKM" << "";
    QTest::newRow("too long") << "ABCD-EFGH-JKMNP" << "";
    QTest::newRow("beyond ASCII") << "ÄBCD-EFGH-JKMN" << "";
    QTest::newRow("empty") << "" << "";
}

void TestShareApi::inviteCodesReadWhatGuestsType()
{
    QFETCH(QString, typed);
    QFETCH(QString, code);
    QCOMPARE(InviteCode::normalize(typed), code);
    // What the service hands out reads back as itself.
    const QString drawn = InviteCode::generate();
    QCOMPARE(InviteCode::normalize(InviteCode::display(drawn)), drawn);
    QVERIFY(QRegularExpression(QStringLiteral("^[2-9A-HJKMNP-Z]{4}-[2-9A-HJKMNP-Z]{4}-[2-9A-HJKMNP-Z]{4}$"))
                .match(InviteCode::display(drawn))
                .hasMatch());
    QVERIFY(Passcode::matches(Passcode::hash(QStringLiteral("4711")), QStringLiteral("4711")));
    QVERIFY(!Passcode::matches(Passcode::hash(QStringLiteral("4711")), QStringLiteral("4712")));
    QVERIFY(!Passcode::matches(QString(), QString()));
}

void TestShareApi::guestScopeShowsOnlyTheSharedPort()
{
    GuestScope scope(7, QStringLiteral("p1"));
    const QJsonObject events{{"type", "events"}, {"cid", kCid},
                             {"events", QJsonArray{rx("p2", "secret", 1), rx("p1", "shared", 2)}}};
    const auto seen = scope.view(events);
    QVERIFY(seen);
    QCOMPARE(seen->value("events").toArray(), QJsonArray{rx("p1", "shared", 2)});
    QVERIFY(!scope.view({{"type", "events"}, {"events", QJsonArray{rx("p2", "secret", 3)}}}));
    const auto snapshot = scope.view({{"type", "snapshot"}, {"ports", QJsonArray{portEntry("p2", "b"), portEntry("p1", "a")}}});
    QCOMPARE(snapshot->value("ports").toArray(), QJsonArray{portEntry("p1", "a")});
    QVERIFY(!scope.view({{"type", "watchers"}, {"count", 3}}));
    QVERIFY(!scope.view({{"type", "result"}, {"command_id", "12"}}));
    scope.addCommand(QStringLiteral("12"));
    QVERIFY(scope.view({{"type", "result"}, {"command_id", "12"}}));
    QVERIFY(scope.view({{"type", "result"}, {"command_id", 12}}));
    // Its memory of commands is bounded: the oldest goes.
    for (int i = 0; i < GuestScope::kMaxCommands; ++i)
        scope.addCommand(QString::number(100 + i));
    QVERIFY(!scope.view({{"type", "result"}, {"command_id", "12"}}));
    QVERIFY(scope.view({{"type", "presence"}, {"online", false}}));
}

void TestShareApi::createChecksWhatIsShared_data()
{
    QTest::addColumn<QJsonObject>("changes");
    QTest::addColumn<QString>("code");  // empty: created
    QTest::newRow("24 hours") << QJsonObject{{"ttl_seconds", 86400}} << "";
    QTest::newRow("no passcode, relay only") << QJsonObject{{"passcode", ""}, {"web", "none"}, {"relay", true}} << "";
    QTest::newRow("16-character passcode") << QJsonObject{{"passcode", "0123456789abcdef"}} << "";
    QTest::newRow("4 characters, not bytes") << QJsonObject{{"passcode", "äöüß"}} << "";
    QTest::newRow("5 hours") << QJsonObject{{"ttl_seconds", 18000}} << "invalid_ttl";
    QTest::newRow("ttl as text") << QJsonObject{{"ttl_seconds", "3600"}} << "invalid_field";
    QTest::newRow("3-character passcode") << QJsonObject{{"passcode", "abc"}} << "invalid_passcode";
    QTest::newRow("17-character passcode") << QJsonObject{{"passcode", "0123456789abcdefg"}} << "invalid_passcode";
    QTest::newRow("none without relay") << QJsonObject{{"web", "none"}, {"relay", false}} << "nothing_allowed";
    QTest::newRow("unknown level") << QJsonObject{{"web", "admin"}} << "invalid_field";
    QTest::newRow("an earlier run") << QJsonObject{{"session_id", "s0"}} << "session_mismatch";
    QTest::newRow("another computer") << QJsonObject{{"cid", "0000aaaa-bbbb"}} << "computer_not_found";
    QTest::newRow("no port") << QJsonObject{{"port_key", ""}} << "port_not_found";
}

void TestShareApi::createChecksWhatIsShared()
{
    QFETCH(QJsonObject, changes);
    QFETCH(QString, code);
    const QString token = signUp(QStringLiteral("ada@example.org"));
    heartbeat(token);
    const RawResponse reply = createShare(token, changes);
    QCOMPARE(reply.type(), QStringLiteral("relay"));
    if (!code.isEmpty()) {
        QCOMPARE(reply.code(), code);
        QVERIFY(!reply.json.value("description").toString().isEmpty());
        return;
    }
    QVERIFY2(reply.ok(), reply.body.constData());
    const QJsonObject share = reply.json.value("share").toObject();
    const qint64 ttl = changes.value("ttl_seconds").toInteger(3600);
    QCOMPARE(share.value("created_at").toInteger(), kStart);
    QCOMPARE(share.value("expires_at").toInteger() - share.value("created_at").toInteger(), ttl * 1000);
    QCOMPARE(share.value("state").toString(), QStringLiteral("live"));
    QCOMPARE(share.value("has_passcode").toBool(), !changes.value("passcode").toString("4711").isEmpty());
    QCOMPARE(share.value("link").toString(),
             QStringLiteral("http://127.0.0.1:%1/join/%2").arg(m_port).arg(share.value("code").toString()));
    QCOMPARE(share.value("device_name").toString(), QStringLiteral("bench-pc"));
    QCOMPARE(share.value("guest"), QJsonValue(QJsonValue::Null));
    QVERIFY(!reply.body.contains("4711"));
}

void TestShareApi::sharesAreListedPerComputerAndAccount()
{
    const QString token = signUp(QStringLiteral("ada@example.org"));
    const QString other = signUp(QStringLiteral("max@example.org"));
    heartbeat(token);
    const QString first = createShare(token).json.value("share").toObject().value("share_id").toString();
    const QString second = createShare(token, {{"port_key", "p2"}}).json.value("share").toObject().value("share_id").toString();
    QVERIFY(!first.isEmpty() && !second.isEmpty() && first != second);

    // Only the owner ends it; ending it again is no error.
    QCOMPARE(httpRequest(m_port, "DELETE", "/api/v3/relay/shares/" + first.toUtf8(), {}, other).code(),
             QStringLiteral("share_not_found"));
    for (int round = 0; round < 2; ++round) {
        const RawResponse revoked = httpRequest(m_port, "DELETE", "/api/v3/relay/shares/" + first.toUtf8(), {}, token);
        QVERIFY(revoked.ok());
        QCOMPARE(revoked.json.value("share_id").toString(), first);
    }
    QCOMPARE(httpRequest(m_port, "DELETE", "/api/v3/relay/shares/nonsense", {}, token).json.value("share_id").toString(),
             QStringLiteral("nonsense"));

    const QByteArray perComputer = "/api/v3/relay/shares?cid=" + kCid.toUtf8();
    QJsonArray listed = httpRequest(m_port, "GET", perComputer, {}, token).json.value("shares").toArray();
    QCOMPARE(listed.size(), 2);
    QCOMPARE(listed.at(0).toObject().value("state").toString(), QStringLiteral("ended"));
    QCOMPARE(listed.at(0).toObject().value("end_reason").toString(), QStringLiteral("revoked"));
    QCOMPARE(listed.at(1).toObject().value("state").toString(), QStringLiteral("live"));
    QCOMPARE(httpRequest(m_port, "GET", perComputer, {}, other).code(), QStringLiteral("computer_not_found"));

    const RawResponse account = httpRequest(m_port, "GET", "/api/v3/relay/shares", {}, token);
    QCOMPARE(account.json.value("shares").toArray().size(), 1);
    QCOMPARE(account.json.value("shares").toArray().at(0).toObject().value("share_id").toString(), second);
    QCOMPARE(account.json.value("revoked").toInt(), 1);
    QCOMPARE(httpRequest(m_port, "GET", "/api/v3/relay/shares", {}, other).json.value("revoked").toInt(), 0);

    // Ended shares leave this computer's listing after ten minutes.
    m_now += 11 * 60 * 1000;
    heartbeat(token);
    listed = httpRequest(m_port, "GET", perComputer, {}, token).json.value("shares").toArray();
    QCOMPARE(listed.size(), 1);
    QCOMPARE(listed.at(0).toObject().value("share_id").toString(), second);
    QCOMPARE(httpRequest(m_port, "GET", "/api/v3/relay/shares", {}, {}).status, 401);
}

void TestShareApi::sharesEndByTimeAndWithTheirRun_data()
{
    QTest::addColumn<qint64>("later");
    QTest::addColumn<QString>("nextRun");  // the session a heartbeat then brings; empty: none
    QTest::addColumn<QString>("reason");   // empty: still live
    QTest::newRow("within its hour") << qint64(59 * 60 * 1000) << "s1" << "";
    QTest::newRow("past its hour") << qint64(60 * 60 * 1000) << "s1" << "expired";
    QTest::newRow("a new run") << qint64(1000) << "s2" << "stale";
    QTest::newRow("silent computer") << qint64(4 * 60 * 1000) << "" << "stale";
}

void TestShareApi::sharesEndByTimeAndWithTheirRun()
{
    QFETCH(qint64, later);
    QFETCH(QString, nextRun);
    QFETCH(QString, reason);
    const QString token = signUp(QStringLiteral("ada@example.org"));
    heartbeat(token);
    const QString code = createShare(token).json.value("share").toObject().value("code").toString();
    m_now += later;
    if (!nextRun.isEmpty())
        heartbeat(token, nextRun);
    const QJsonObject share = httpRequest(m_port, "GET", "/api/v3/relay/shares?cid=" + kCid.toUtf8(), {}, token)
                                  .json.value("shares").toArray().at(0).toObject();
    const RawResponse peek = httpRequest(m_port, "GET", "/api/v3/relay/join/" + code.toUtf8());
    if (reason.isEmpty()) {
        QCOMPARE(share.value("state").toString(), QStringLiteral("live"));
        QVERIFY(peek.ok());
        return;
    }
    QCOMPARE(share.value("state").toString(), QStringLiteral("ended"));
    QCOMPARE(share.value("end_reason").toString(), reason);
    QCOMPARE(peek.code(), QStringLiteral("invalid_code"));
    QCOMPARE(peek.json.value("end_reason").toString(), reason);
    // An end found by time is no revocation.
    QCOMPARE(httpRequest(m_port, "GET", "/api/v3/relay/shares", {}, token).json.value("revoked").toInt(), 0);
}

void TestShareApi::peekAndJoinTellTheGuestWhatIsNeeded()
{
    const QString token = signUp(QStringLiteral("ada@example.org"));
    heartbeat(token);
    const QJsonObject share = createShare(token).json.value("share").toObject();
    const QString code = share.value("code").toString();
    const QByteArray lowered = code.toLower().remove(u'-').toUtf8();

    const RawResponse peek = httpRequest(m_port, "GET", "/api/v3/relay/join/" + lowered);
    QVERIFY2(peek.ok(), peek.body.constData());
    QCOMPARE(peek.json.value("label").toString(), QStringLiteral("bench board"));
    QCOMPARE(peek.json.value("device_name").toString(), QStringLiteral("bench-pc"));
    QCOMPARE(peek.json.value("passcode_required"), QJsonValue(true));
    QCOMPARE(peek.json.value("busy"), QJsonValue(false));
    QCOMPARE(peek.json.value("online"), QJsonValue(true));
    QCOMPARE(httpRequest(m_port, "GET", "/api/v3/relay/join/ABCD-EFGH-JKMN").code(), QStringLiteral("invalid_code"));
    QCOMPARE(httpRequest(m_port, "GET", "/api/v3/relay/join/%3Cscript%3E").code(), QStringLiteral("invalid_code"));

    QCOMPARE(joinWeb(code, {}).code(), QStringLiteral("passcode_required"));
    const RawResponse noName = httpJson(m_port, "POST", "/api/v3/relay/join/" + code.toUtf8() + "/web",
                                        {{"passcode", "4711"}, {"guest_name", "   "}});
    QCOMPARE(noName.code(), QStringLiteral("invalid_field"));
    const RawResponse joined = joinWeb(code, QStringLiteral("4711"));
    QVERIFY2(joined.ok(), joined.body.constData());
    QVERIFY(joined.json.value("guest_token").toString().size() >= 40);
    QCOMPARE(joined.json.value("web").toString(), QStringLiteral("send"));

    // A browser-only share refuses Tessaline, and a relay-only one browsers.
    const RawResponse relayJoin = httpJson(m_port, "POST", "/api/v3/relay/join",
                                           {{"code", code}, {"passcode", "4711"}, {"guest_name", "Grace"}});
    QCOMPARE(relayJoin.code(), QStringLiteral("permission_denied"));
    const QString relayOnly = createShare(token, {{"web", "none"}, {"relay", true}, {"passcode", ""}})
                                  .json.value("share").toObject().value("code").toString();
    QCOMPARE(joinWeb(relayOnly, {}).code(), QStringLiteral("permission_denied"));
    QCOMPARE(httpJson(m_port, "POST", "/api/v3/relay/join", {{"code", "nonsense"}}).code(), QStringLiteral("invalid_code"));
}

void TestShareApi::wrongPasscodesAreLimitedPerAddressAndPerShare()
{
    const QString token = signUp(QStringLiteral("ada@example.org"));
    heartbeat(token);
    const QString code = createShare(token).json.value("share").toObject().value("code").toString();
    const QHostAddress first(QStringLiteral("127.0.0.2"));
    for (int attempt = 1; attempt <= 4; ++attempt)
        QCOMPARE(joinWeb(code, QStringLiteral("0000"), first).code(), QStringLiteral("wrong_passcode"));
    const RawResponse fifth = joinWeb(code, QStringLiteral("0000"), first);
    QCOMPARE(fifth.code(), QStringLiteral("too_many_attempts"));
    QVERIFY(!fifth.header("retry-after").isEmpty());
    // That address waits, even with the right passcode; others do not.
    QCOMPARE(joinWeb(code, QStringLiteral("4711"), first).code(), QStringLiteral("too_many_attempts"));
    QVERIFY(joinWeb(code, QStringLiteral("4711"), QHostAddress(QStringLiteral("127.0.0.3"))).ok());
    // Its window passes.
    m_now += 11 * 60 * 1000;
    heartbeat(token);
    QVERIFY(joinWeb(code, QStringLiteral("4711"), first).ok());

    // Twenty wrong in all, from anywhere, end the share.
    int wrong = 5;
    RawResponse last;
    for (int address = 4; wrong < 20 && address < 20; ++address) {
        for (int attempt = 0; attempt < 4 && wrong < 20; ++attempt, ++wrong)
            last = joinWeb(code, QStringLiteral("0000"), QHostAddress(QStringLiteral("127.0.0.%1").arg(address)));
    }
    QCOMPARE(last.code(), QStringLiteral("too_many_attempts"));
    QCOMPARE(last.json.value("end_reason").toString(), QStringLiteral("too_many_attempts"));
    QCOMPARE(joinWeb(code, QStringLiteral("4711"), QHostAddress(QStringLiteral("127.0.0.99"))).code(),
             QStringLiteral("too_many_attempts"));
    QCOMPARE(httpRequest(m_port, "GET", "/api/v3/relay/join/" + code.toUtf8()).code(), QStringLiteral("too_many_attempts"));
    const QJsonObject listed = httpRequest(m_port, "GET", "/api/v3/relay/shares?cid=" + kCid.toUtf8(), {}, token)
                                   .json.value("shares").toArray().at(0).toObject();
    QCOMPARE(listed.value("end_reason").toString(), QStringLiteral("too_many_attempts"));
    QCOMPARE(httpRequest(m_port, "GET", "/api/v3/relay/shares", {}, token).json.value("revoked").toInt(), 1);
}

void TestShareApi::aBrowserGuestSeesItsPortAndActsWithinItsLevel()
{
    const QString token = signUp(QStringLiteral("ada@example.org"));
    SocketClient computer;
    QVERIFY(computer.open(m_port, ConsoleHub::kComputerPath, token, kWait));
    computer.send({{"type", "hello"}, {"cid", kCid}, {"session_id", "s1"}, {"version", "6.6.7"}, {"hostname", "bench-pc"}});
    QTRY_VERIFY_WITH_TIMEOUT(!computer.ofType("hello").isEmpty(), kWait);
    computer.send({{"type", "snapshot"}, {"cid", kCid}, {"session_id", "s1"},
                   {"ports", QJsonArray{portEntry("p1", "/dev/ttyUSB0"), portEntry("p2", "/dev/ttyUSB1")}}});
    QTRY_COMPARE_WITH_TIMEOUT(httpRequest(m_port, "GET", "/api/v3/console/computers/" + kCid.toUtf8() + "/ports", {}, token)
                                  .json.value("ports").toArray().size(),
                              2, kWait);
    const QJsonObject share = createShare(token).json.value("share").toObject();
    QCOMPARE(share.value("port_name").toString(), QStringLiteral("/dev/ttyUSB0"));
    const QString token2 = joinWeb(share.value("code").toString(), QStringLiteral("4711")).json.value("guest_token").toString();
    QVERIFY(!token2.isEmpty());

    SocketClient stranger;
    QVERIFY(stranger.open(m_port, ConsoleHub::kWatchPath, {}, kWait));
    stranger.send({{"type", "guest_watch"}, {"guest_token", "forged"}});
    QTRY_VERIFY_WITH_TIMEOUT(stranger.closed, kWait);
    QCOMPARE(stranger.ofType("watch").value(0).value("code").toString(), QStringLiteral("invalid_token"));

    SocketClient guest;
    QVERIFY(guest.open(m_port, ConsoleHub::kWatchPath, {}, kWait));
    guest.send({{"type", "guest_watch"}, {"guest_token", token2}});
    QTRY_VERIFY_WITH_TIMEOUT(!guest.ofType("snapshot").isEmpty(), kWait);
    const QJsonObject welcome = guest.ofType("watch").first();
    QCOMPARE(welcome.value("status"), QJsonValue(true));
    QCOMPARE(welcome.value("web").toString(), QStringLiteral("send"));
    QCOMPARE(welcome.value("name").toString(), QStringLiteral("Grace"));
    QCOMPARE(guest.ofType("snapshot").first().value("ports").toArray(), QJsonArray{portEntry("p1", "/dev/ttyUSB0")});
    // The computer learns it is watched; the owner's listing counts the guest.
    QTRY_VERIFY_WITH_TIMEOUT(computer.heard("watching", true), kWait);
    QTRY_COMPARE_WITH_TIMEOUT(httpRequest(m_port, "GET", "/api/v3/relay/shares?cid=" + kCid.toUtf8(), {}, token)
                                  .json.value("shares").toArray().at(0).toObject().value("web_guests").toInt(),
                              1, kWait);

    computer.send({{"type", "events"}, {"cid", kCid}, {"session_id", "s1"},
                   {"events", QJsonArray{rx("p2", "not yours", 1), rx("p1", "boot ok", 2)}}});
    QTRY_VERIFY_WITH_TIMEOUT(!guest.ofType("events").isEmpty(), kWait);
    QCOMPARE(guest.ofType("events").first().value("events").toArray(), QJsonArray{rx("p1", "boot ok", 2)});

    // Sending reaches the shared port alone, whatever port the guest names,
    // and carries the share; port control is beyond "send".
    guest.send({{"type", "command"}, {"ref", "a"}, {"command", "send_text"},
                {"payload", QJsonObject{{"port_key", "p2"}, {"text", "hi"}, {"line_ending", "crlf"}}}});
    guest.send({{"type", "command"}, {"ref", "b"}, {"command", "open_port"}, {"payload", QJsonObject{}}});
    guest.send({{"type", "command"}, {"ref", "c"}, {"command", "set_port_config"}, {"payload", QJsonObject{}}});
    QTRY_COMPARE_WITH_TIMEOUT(guest.ofType("command").size(), 3, kWait);
    QHash<QString, QJsonObject> answers;
    for (const QJsonObject &answer : guest.ofType("command"))
        answers.insert(answer.value("ref").toString(), answer);
    QVERIFY(answers["a"].value("status").toBool());
    QCOMPARE(answers["b"].value("code").toString(), QStringLiteral("permission_denied"));
    QCOMPARE(answers["b"].value("description").toString(),
             QStringLiteral("the share does not allow port control from a browser"));
    QCOMPARE(answers["c"].value("code").toString(), QStringLiteral("unknown_command"));
    QTRY_COMPARE_WITH_TIMEOUT(computer.commands().size(), 1, kWait);
    const QJsonObject pushed = computer.commands().first();
    QCOMPARE(pushed.value("command").toString(), QStringLiteral("send_text"));
    QCOMPARE(pushed.value("payload").toObject().value("port_key").toString(), QStringLiteral("p1"));
    QCOMPARE(pushed.value("payload").toObject().value("share_id").toString(), share.value("share_id").toString());

    // Its own result comes back to it; another's does not.
    const QString ownerCommand = httpJson(m_port, "POST", "/api/v3/console/computers/" + kCid.toUtf8() + "/commands",
                                          {{"command", "request_snapshot"}}, token)
                                     .json.value("command_id")
                                     .toString();
    for (const QString &id : {ownerCommand, answers["a"].value("command_id").toString()}) {
        computer.send({{"type", "result"}, {"command_id", id},
                       {"result", QJsonObject{{"cid", kCid}, {"status", "succeeded"}, {"bytes", 4}}}});
    }
    QTRY_COMPARE_WITH_TIMEOUT(guest.ofType("result").size(), 1, kWait);
    QCOMPARE(guest.ofType("result").first().value("command_id").toString(), answers["a"].value("command_id").toString());

    // The owner ends the share: the guest is told why and let go.
    QVERIFY(httpRequest(m_port, "DELETE", "/api/v3/relay/shares/" + share.value("share_id").toString().toUtf8(), {}, token)
                .ok());
    QTRY_VERIFY_WITH_TIMEOUT(guest.closed, kWait);
    QCOMPARE(guest.ofType("share_ended").value(0).value("reason").toString(), QStringLiteral("revoked"));
    // The credential admits nothing more.
    SocketClient again;
    QVERIFY(again.open(m_port, ConsoleHub::kWatchPath, {}, kWait));
    again.send({{"type", "guest_watch"}, {"guest_token", token2}});
    QTRY_VERIFY_WITH_TIMEOUT(again.closed, kWait);
    QCOMPARE(again.ofType("watch").value(0).value("end_reason").toString(), QStringLiteral("revoked"));
}

void TestShareApi::aBrowserGuestIsToldWhenTheShareExpires()
{
    const QString token = signUp(QStringLiteral("ada@example.org"));
    SocketClient computer;
    QVERIFY(computer.open(m_port, ConsoleHub::kComputerPath, token, kWait));
    computer.send({{"type", "hello"}, {"cid", kCid}, {"session_id", "s1"}, {"version", "6.6.7"}, {"hostname", "bench-pc"}});
    QTRY_VERIFY_WITH_TIMEOUT(!computer.ofType("hello").isEmpty(), kWait);
    const QJsonObject share = createShare(token, {{"passcode", ""}, {"web", "view"}}).json.value("share").toObject();
    const QString guestToken = joinWeb(share.value("code").toString(), {}).json.value("guest_token").toString();
    SocketClient guest;
    QVERIFY(guest.open(m_port, ConsoleHub::kWatchPath, {}, kWait));
    guest.send({{"type", "guest_watch"}, {"guest_token", guestToken}});
    QTRY_VERIFY_WITH_TIMEOUT(!guest.ofType("snapshot").isEmpty(), kWait);
    guest.send({{"type", "command"}, {"ref", 1}, {"command", "send_text"}, {"payload", QJsonObject{{"text", "x"}}}});
    QTRY_VERIFY_WITH_TIMEOUT(!guest.ofType("command").isEmpty(), kWait);
    QCOMPARE(guest.ofType("command").first().value("description").toString(),
             QStringLiteral("the share does not allow sending from a browser"));
    QCOMPARE(guest.ofType("command").first().value("ref"), QJsonValue(1));

    m_now += 3600 * 1000;
    QTRY_VERIFY_WITH_TIMEOUT(guest.closed, kWait);
    QCOMPARE(guest.ofType("share_ended").value(0).value("reason").toString(), QStringLiteral("expired"));
    QTRY_VERIFY_WITH_TIMEOUT(computer.heard("watching", false), kWait);
}

void TestShareApi::aRelayGuestJoinsByCodeAndTheComputerIsAskedToOpen()
{
    const QString token = signUp(QStringLiteral("ada@example.org"));
    SocketClient computer;
    QVERIFY(computer.open(m_port, ConsoleHub::kComputerPath, token, kWait));
    computer.send({{"type", "hello"}, {"cid", kCid}, {"session_id", "s1"}, {"version", "6.6.7"}, {"hostname", "bench-pc"}});
    QTRY_VERIFY_WITH_TIMEOUT(!computer.ofType("hello").isEmpty(), kWait);
    computer.send({{"type", "snapshot"}, {"cid", kCid}, {"session_id", "s1"},
                   {"ports", QJsonArray{portEntry("p1", "/dev/ttyUSB0")}}});
    // The snapshot is stored after the socket hands it on: a join checks the
    // port against what is stored.
    QTRY_VERIFY_WITH_TIMEOUT(httpRequest(m_port, "GET", "/api/v3/relay/targets", {}, token)
                                     .json.value("devices").toArray().at(0).toObject()
                                     .value("ports").toArray().size() == 1,
                             kWait);
    const QJsonObject share = createShare(token, {{"web", "none"}, {"relay", true}}).json.value("share").toObject();
    const QString code = share.value("code").toString();
    QVERIFY(!code.isEmpty());
    QCOMPARE(httpJson(m_port, "POST", "/api/v3/relay/join", {{"code", code}, {"passcode", "0000"}}).code(),
             QStringLiteral("wrong_passcode"));
    const RawResponse joined = httpJson(m_port, "POST", "/api/v3/relay/join",
                                        {{"code", code.toLower()}, {"passcode", "4711"}, {"guest_name", "Grace"}});
    QVERIFY2(joined.ok(), joined.body.constData());
    QVERIFY(!joined.json.value("ticket").toString().isEmpty());
    QVERIFY(!joined.json.value("guest_token").toString().isEmpty());
    QCOMPARE(joined.json.value("port_key").toString(), QStringLiteral("p1"));
    QCOMPARE(joined.json.value("label").toString(), QStringLiteral("bench board"));
    const QString relayId = joined.json.value("relay_id").toString();

    // The computer is asked to open the relay for that share and guest.
    QTRY_VERIFY_WITH_TIMEOUT(!computer.commands().isEmpty(), kWait);
    const QJsonObject open = computer.commands().first();
    QCOMPARE(open.value("command").toString(), QStringLiteral("open_relay"));
    QCOMPARE(open.value("payload").toObject().value("share_id").toString(), share.value("share_id").toString());
    QCOMPARE(open.value("payload").toObject().value("guest_name").toString(), QStringLiteral("Grace"));
    QCOMPARE(open.value("payload").toObject().value("relay_id").toString(), relayId);

    // The share shows its guest, and a second guest is turned away meanwhile.
    const QJsonObject listed = httpRequest(m_port, "GET", "/api/v3/relay/shares?cid=" + kCid.toUtf8(), {}, token)
                                   .json.value("shares").toArray().at(0).toObject();
    QCOMPARE(listed.value("guest").toObject().value("name").toString(), QStringLiteral("Grace"));
    QCOMPARE(listed.value("guest").toObject().value("relay_id").toString(), relayId);
    QCOMPARE(httpRequest(m_port, "GET", "/api/v3/relay/join/" + code.toUtf8()).json.value("busy"), QJsonValue(true));
    QCOMPARE(httpJson(m_port, "POST", "/api/v3/relay/join", {{"code", code}, {"passcode", "4711"}}).code(),
             QStringLiteral("relay_busy"));
}

void TestShareApi::aShareThatEndsTakesItsRelayGuestWithIt_data()
{
    QTest::addColumn<QString>("how");
    QTest::newRow("the owner stops sharing") << "revoked";
    QTest::newRow("the share expires") << "expired";
    QTest::newRow("the computer starts a new run") << "stale";
}

void TestShareApi::aShareThatEndsTakesItsRelayGuestWithIt()
{
    QFETCH(QString, how);
    const QString token = signUp(QStringLiteral("ada@example.org"));
    SocketClient computer;
    QVERIFY(computer.open(m_port, ConsoleHub::kComputerPath, token, kWait));
    computer.send({{"type", "hello"}, {"cid", kCid}, {"session_id", "s1"}, {"version", "6.6.7"}, {"hostname", "bench-pc"}});
    QTRY_VERIFY_WITH_TIMEOUT(!computer.ofType("hello").isEmpty(), kWait);
    computer.send({{"type", "snapshot"}, {"cid", kCid}, {"session_id", "s1"},
                   {"ports", QJsonArray{portEntry("p1", "/dev/ttyUSB0")}}});
    // The join checks the port against the stored snapshot.
    QTRY_VERIFY_WITH_TIMEOUT(httpRequest(m_port, "GET", "/api/v3/relay/targets", {}, token)
                                     .json.value("devices").toArray().at(0).toObject()
                                     .value("ports").toArray().size() == 1,
                             kWait);
    const QJsonObject share = createShare(token, {{"web", "none"}, {"relay", true}}).json.value("share").toObject();
    const RawResponse joined = httpJson(m_port, "POST", "/api/v3/relay/join",
                                        {{"code", share.value("code")}, {"passcode", "4711"}, {"guest_name", "Grace"}});
    QVERIFY2(joined.ok(), joined.body.constData());
    QTRY_VERIFY_WITH_TIMEOUT(!computer.commands().isEmpty(), kWait);
    RelayEnd host;
    RelayEnd guest;
    host.open(m_port, computer.commands().first().value("payload").toObject().value("ticket").toString());
    guest.open(m_port, joined.json.value("ticket").toString());
    QVERIFY(host.waitForText("ready") && guest.waitForText("ready"));
    guest.send("ping");
    QVERIFY(pumpUntil([&] { return host.received == "ping"; }, kWait));

    if (how == QLatin1String("revoked")) {
        const RawResponse revoked = httpRequest(m_port, "DELETE",
                                                "/api/v3/relay/shares/" + share.value("share_id").toString().toUtf8(),
                                                {}, token);
        QVERIFY2(revoked.ok(), revoked.body.constData());
    } else if (how == QLatin1String("expired")) {
        m_now += 3600 * 1000;  // no request reads the share: the relay's own look finds it
    } else {
        heartbeat(token, QStringLiteral("s2"));
    }
    QVERIFY(guest.waitForText("peer_gone"));
    QVERIFY(guest.waitForClose());
    QVERIFY(host.waitForText("peer_gone"));
    const RawResponse peek = httpRequest(m_port, "GET", "/api/v3/relay/join/" + share.value("code").toString().toUtf8());
    QCOMPARE(peek.code(), QStringLiteral("invalid_code"));
    QCOMPARE(peek.json.value("end_reason").toString(), how);
}

void TestShareApi::theGuestPageIsServedForEveryInviteLink_data()
{
    QTest::addColumn<QByteArray>("path");
    QTest::addColumn<int>("status");
    QTest::addColumn<QByteArray>("contains");
    QTest::newRow("a link") << QByteArray("/join/ABCD-EFGH-JKMN") << 200 << QByteArray("/guest.js");
    QTest::newRow("lower case") << QByteArray("/join/abcdefghjkmn") << 200 << QByteArray("/guest.js");
    QTest::newRow("script") << QByteArray("/guest.js") << 200 << QByteArray("guest_watch");
    QTest::newRow("style") << QByteArray("/guest.css") << 200 << QByteArray("#ended");
    QTest::newRow("no code") << QByteArray("/join") << 404 << QByteArray();
    QTest::newRow("deeper") << QByteArray("/join/ABCD/x") << 404 << QByteArray();
    QTest::newRow("markup in the code") << QByteArray("/join/%3Cb%3E") << 404 << QByteArray();
}

void TestShareApi::theGuestPageIsServedForEveryInviteLink()
{
    QFETCH(QByteArray, path);
    QFETCH(int, status);
    QFETCH(QByteArray, contains);
    const RawResponse page = httpRequest(m_port, "GET", path);
    QCOMPARE(page.status, status);
    if (status != 200)
        return;
    QVERIFY(page.body.contains(contains));
    QVERIFY(page.header("content-security-policy").contains("default-src 'none'"));
    QCOMPARE(page.header("referrer-policy"), QByteArray("no-referrer"));
}

QTEST_MAIN(TestShareApi)
#include "tst_shareapi.moc"
