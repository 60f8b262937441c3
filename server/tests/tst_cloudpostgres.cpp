// The service on PostgreSQL: a throwaway cluster in a temporary folder,
// run as an unprivileged user (initdb refuses root), reached through its
// socket folder. Two service instances share it, alone and behind haproxy;
// the cluster stops and starts again under load.
#include "cloudservice.h"
#include "codemailer.h"
#include "consolebus.h"
#include "consolehub.h"
#include "consolesocketclient.h"
#include "haproxyfront.h"
#include "rawhttp.h"
#include "relayend.h"
#include "relayhub.h"
#include "workerpool.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QSslCertificate>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QtTest>


namespace {

const QString kBin = QStringLiteral("/usr/lib/postgresql/15/bin");

struct KeptCodes : CodeMailer
{
    QHash<QString, QString> codes;
    void sendCode(const QString &email, const QString &code, int) override { codes.insert(email, code); }
};

// A kept-alive client writing its own sync item over and over, each write
// based on the last revision the service acknowledged, and reading its
// profile in between. It notes every answer's status and code.
class SyncWriter : public QObject
{
public:
    SyncWriter(quint16 port, QByteArray token, int index) : m_port(port), m_token(std::move(token)), m_index(index)
    {
        connect(&m_socket, &QTcpSocket::connected, this, [this] { next(); });
        connect(&m_socket, &QTcpSocket::readyRead, this, [this] { onData(); });
        connect(&m_socket, &QTcpSocket::disconnected, this, [this] {
            if (m_running)
                QTimer::singleShot(50, this, [this] { m_socket.connectToHost(QHostAddress::LocalHost, m_port); });
        });
    }
    void start()
    {
        m_running = true;
        m_socket.connectToHost(QHostAddress::LocalHost, m_port);
    }
    void stop() { m_running = false; }

    qint64 acknowledged = 0;  // the last revision the service confirmed
    QList<QPair<int, QString>> answers;

private:
    void next()
    {
        if (!m_running || m_socket.state() != QAbstractSocket::ConnectedState)
            return;
        QByteArray request;
        if (m_step++ % 2 == 0) {
            const QByteArray body = QJsonDocument(QJsonObject{{"base_revision", acknowledged},
                                                              {"payload", QJsonObject{{"n", acknowledged + 1}}}})
                                        .toJson(QJsonDocument::Compact);
            request = "PUT /api/v3/sync/items/load/w" + QByteArray::number(m_index) + " HTTP/1.1\r\nHost: x\r\n"
                      "Content-Length: " + QByteArray::number(body.size()) + "\r\n";
            m_writing = true;
            m_buffer.clear();
            m_socket.write(request + "Authorization: Bearer " + m_token + "\r\n\r\n" + body);
        } else {
            m_writing = false;
            m_socket.write("GET /api/v3/account/me HTTP/1.1\r\nHost: x\r\nAuthorization: Bearer " + m_token + "\r\n\r\n");
        }
    }
    void onData()
    {
        m_buffer += m_socket.readAll();
        const qsizetype end = m_buffer.indexOf("\r\n\r\n");
        if (end < 0)
            return;
        static const QRegularExpression length(QStringLiteral("(?i)content-length:\\s*(\\d+)"));
        const qint64 bodyLength = length.match(QString::fromLatin1(m_buffer.left(end))).captured(1).toLongLong();
        if (m_buffer.size() < end + 4 + bodyLength)
            return;
        const int status = m_buffer.mid(9, 3).toInt();
        const QJsonObject body = QJsonDocument::fromJson(m_buffer.mid(end + 4, bodyLength)).object();
        m_buffer.remove(0, end + 4 + bodyLength);
        answers.append({status, body.value("code").toString()});
        if (m_writing && status == 200)
            acknowledged = body.value("item").toObject().value("revision").toInteger();
        else if (m_writing && body.value("code").toString() == QLatin1String("revision_conflict"))
            acknowledged = body.value("server_item").toObject().value("revision").toInteger();  // an answer lost in the outage
        QTimer::singleShot(10, this, [this] { next(); });
    }

    QTcpSocket m_socket;
    quint16 m_port;
    QByteArray m_token;
    int m_index;
    QByteArray m_buffer;
    int m_step = 0;
    bool m_writing = false;
    bool m_running = false;
};


} // namespace

class TestCloudPostgres : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void twoInstancesShareAccountsTokensAndItems();
    void anOutageIsAnsweredUnavailableAndLosesNoWrite();
    void twoInstancesBehindHaproxyServeEveryFlow();
    void aComputerOnOneInstanceIsWatchedAndDrivenFromAnother();

private:
    bool runAsOwner(const QString &program, const QStringList &arguments, int timeoutMs = 60000);
    // pg_ctl as the cluster's owner, while this thread's event loop goes on.
    bool controlCluster(const QString &action);
    std::unique_ptr<CloudService> startInstance(const QStringList &trustedProxies = {}, const QString &instanceId = {});
    QString registerAccount(quint16 port, const QString &email);

    QTemporaryDir m_dir;
    QString m_user;
    bool m_running = false;
    KeptCodes m_mailer;
    QString m_url;
    QString m_serverOptions;
};

bool TestCloudPostgres::runAsOwner(const QString &program, const QStringList &arguments, int timeoutMs)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    if (::geteuid() == 0)
        process.start(QStringLiteral("runuser"), QStringList{"-u", m_user, "--", program} + arguments);
    else
        process.start(program, arguments);
    const bool ok = process.waitForFinished(timeoutMs) && process.exitStatus() == QProcess::NormalExit
                    && process.exitCode() == 0;
    if (!ok)
        qWarning().noquote() << program << process.readAll().right(2000);
    return ok;
}

void TestCloudPostgres::initTestCase()
{
    QVERIFY2(QFile::exists(kBin + QStringLiteral("/initdb")), "PostgreSQL 15 (package postgresql) is not installed");
    m_user = ::geteuid() == 0 ? QStringLiteral("nobody") : qEnvironmentVariable("USER");
    const QString data = m_dir.filePath(QStringLiteral("data"));
    const QString sockets = m_dir.filePath(QStringLiteral("run"));
    QVERIFY(QDir().mkpath(sockets));
    if (::geteuid() == 0) {
        QVERIFY(QProcess::execute(QStringLiteral("chown"), {"-R", m_user, m_dir.path()}) == 0);
        QVERIFY(QFile::setPermissions(m_dir.path(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner
                                                        | QFile::ExeGroup | QFile::ExeOther));
    }
    QVERIFY(runAsOwner(kBin + QStringLiteral("/initdb"),
                       {"-D", data, "-U", m_user, "--auth=trust", "--no-sync", "-E", "UTF8"}));
    const int port = 20000 + int(::getpid() % 20000);
    m_serverOptions = QStringLiteral("-k %1 -p %2 -c listen_addresses='' -c fsync=off").arg(sockets).arg(port);
    QVERIFY(runAsOwner(kBin + QStringLiteral("/pg_ctl"),
                       {"-D", data, "-w", "-t", "30", "-l", m_dir.filePath("pg.log"), "-o", m_serverOptions, "start"}));
    m_running = true;
    m_url = QStringLiteral("postgresql://%1@/postgres?host=%2&port=%3").arg(m_user, sockets).arg(port);
}

void TestCloudPostgres::cleanupTestCase()
{
    if (m_running)
        runAsOwner(kBin + QStringLiteral("/pg_ctl"), {"-D", m_dir.filePath("data"), "-m", "immediate", "-w", "stop"});
}

bool TestCloudPostgres::controlCluster(const QString &action)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    QStringList arguments{"-D", m_dir.filePath("data"), "-w", "-t", "30", "-l", m_dir.filePath("pg.log")};
    if (action == QLatin1String("stop"))
        arguments << "-m" << "fast";
    else
        arguments << "-o" << m_serverOptions;
    arguments << action;
    const QString pgctl = kBin + QStringLiteral("/pg_ctl");
    if (::geteuid() == 0)
        process.start(QStringLiteral("runuser"), QStringList{"-u", m_user, "--", pgctl} + arguments);
    else
        process.start(pgctl, arguments);
    const bool finished = QTest::qWaitFor([&] { return process.state() == QProcess::NotRunning; }, 60000);
    if (!finished || process.exitCode() != 0)
        qWarning().noquote() << "pg_ctl" << action << process.readAll().right(2000);
    return finished && process.exitCode() == 0;
}

QString TestCloudPostgres::registerAccount(quint16 port, const QString &email)
{
    if (!httpJson(port, "POST", "/api/v3/account/register/code", {{"email", email}}).ok())
        return {};
    QTest::qWaitFor([&] { return m_mailer.codes.contains(email); }, 5000);
    return httpJson(port, "POST", "/api/v3/account/register",
                    {{"email", email}, {"password", "long enough"}, {"code", m_mailer.codes.value(email)}})
        .json.value("access_token")
        .toString();
}

std::unique_ptr<CloudService> TestCloudPostgres::startInstance(const QStringList &trustedProxies,
                                                               const QString &instanceId)
{
    ServiceConfig config;
    config.instanceId = instanceId;
    config.port = 0;
    config.database = m_url;
    config.argon2 = {256, 1, 1};
    config.trustedProxies = trustedProxies;
    auto service = std::make_unique<CloudService>();
    QString error;
    if (!service->start(config, &error, systemServiceClock(), &m_mailer)) {
        qWarning().noquote() << error;
        return {};
    }
    return service;
}

void TestCloudPostgres::twoInstancesShareAccountsTokensAndItems()
{
    auto first = startInstance();
    QVERIFY(first);
    auto second = startInstance();  // finds the schema migrated
    QVERIFY(second);
    const quint16 p1 = first->port();
    const quint16 p2 = second->port();

    QVERIFY(httpJson(p1, "POST", "/api/v3/account/register/code", {{"email", "pg@example.org"}}).ok());
    const RawResponse registered = httpJson(p2, "POST", "/api/v3/account/register",
                                            {{"email", "pg@example.org"}, {"password", "long enough"},
                                             {"code", m_mailer.codes.value("pg@example.org")}, {"device_name", "1"}});
    QVERIFY2(registered.ok(), registered.body.constData());
    const QString token = registered.json.value("access_token").toString();

    // Revisions hold across instances.
    const QByteArray path = "/api/v3/sync/items/settings.session/default";
    QVERIFY(httpJson(p1, "PUT", path, {{"base_revision", 0}, {"payload", QJsonObject{{"n", 1}}}}, token).ok());
    const RawResponse stale = httpJson(p2, "PUT", path, {{"base_revision", 0}, {"payload", QJsonObject{{"n", 2}}}}, token);
    QCOMPARE(stale.code(), QStringLiteral("revision_conflict"));
    QCOMPARE(stale.json.value("server_item").toObject().value("revision").toInt(), 1);

    // A refresh on one instance, and the same token again on the other
    // right after (the first reply was lost): the same new pair.
    const QString refresh = registered.json.value("refresh_token").toString();
    const RawResponse renewed = httpJson(p1, "POST", "/api/v3/account/token/refresh", {{"refresh_token", refresh}});
    QVERIFY(renewed.ok());
    const RawResponse again = httpJson(p2, "POST", "/api/v3/account/token/refresh", {{"refresh_token", refresh}});
    QVERIFY(again.ok());
    QCOMPARE(again.json.value("refresh_token").toString(), renewed.json.value("refresh_token").toString());
    QCOMPARE(httpRequest(p2, "GET", "/api/v3/account/me", {}, again.json.value("access_token").toString()).status, 200);

    // A restart loses nothing.
    first.reset();
    first = startInstance();
    QVERIFY(first);
    const RawResponse login = httpJson(first->port(), "POST", "/api/v3/account/login",
                                       {{"email", "pg@example.org"}, {"password", "long enough"}});
    QVERIFY(login.ok());
    const RawResponse items = httpRequest(first->port(), "GET", "/api/v3/sync/items", {},
                                          login.json.value("access_token").toString());
    QCOMPARE(items.json.value("items").toArray().at(0).toObject().value("revision").toInt(), 1);
}

void TestCloudPostgres::anOutageIsAnsweredUnavailableAndLosesNoWrite()
{
    auto service = startInstance();
    QVERIFY(service);
    const QString token = registerAccount(service->port(), QStringLiteral("outage@example.org"));
    QVERIFY(!token.isEmpty());
    std::vector<std::unique_ptr<SyncWriter>> writers;
    for (int i = 0; i < 4; ++i)
        writers.push_back(std::make_unique<SyncWriter>(service->port(), token.toLatin1(), i));
    for (auto &writer : writers)
        writer->start();
    const auto answered = [&] {
        qsizetype all = 0;
        for (auto &writer : writers)
            all += writer->answers.size();
        return all;
    };
    QTRY_VERIFY_WITH_TIMEOUT(answered() >= 40, 10000);
    std::vector<qint64> acknowledgedBefore;
    for (auto &writer : writers)
        acknowledgedBefore.push_back(writer->acknowledged);

    // The database goes away under load, and comes back.
    QVERIFY(controlCluster(QStringLiteral("stop")));
    const qsizetype beforeOutage = answered();
    QTRY_VERIFY_WITH_TIMEOUT(answered() >= beforeOutage + 20, 10000);
    QVERIFY(!service->pool().databaseReachable());
    QVERIFY(controlCluster(QStringLiteral("start")));
    // The service finds it again by itself.
    const auto allWritersBack = [&] {
        for (auto &writer : writers) {
            if (writer->answers.isEmpty() || writer->answers.last().first != 200)
                return false;
        }
        return true;
    };
    QTRY_VERIFY_WITH_TIMEOUT(allWritersBack(), 15000);
    const qsizetype afterOutage = answered();
    QTRY_VERIFY_WITH_TIMEOUT(answered() >= afterOutage + 20, 10000);
    for (auto &writer : writers)
        writer->stop();
    QTest::qWait(200);

    int unavailable = 0;
    for (auto &writer : writers) {
        for (const auto &[status, code] : std::as_const(writer->answers)) {
            // Only answers, successes or "database_unavailable", never an internal error.
            QVERIFY2(status == 200 || (status == 503 && code == QLatin1String("database_unavailable"))
                         || code == QLatin1String("revision_conflict"),
                     qPrintable(QStringLiteral("%1 %2").arg(status).arg(code)));
            unavailable += status == 503 ? 1 : 0;
        }
    }
    QVERIFY(unavailable > 0);
    // No acknowledged write was lost: each item holds at least its last
    // acknowledged revision, written by the write that revision names.
    const RawResponse items = httpRequest(service->port(), "GET", "/api/v3/sync/items?namespace=load", {}, token);
    QVERIFY(items.ok());
    const QJsonArray list = items.json.value("items").toArray();
    QCOMPARE(list.size(), qsizetype(writers.size()));
    for (const QJsonValue &value : list) {
        const QJsonObject item = value.toObject();
        const int index = item.value("item_key").toString().mid(1).toInt();
        QVERIFY(item.value("revision").toInteger() >= writers[size_t(index)]->acknowledged);
        QVERIFY(writers[size_t(index)]->acknowledged > acknowledgedBefore[size_t(index)]);
        QCOMPARE(item.value("payload").toObject().value("n").toInteger(), item.value("revision").toInteger());
    }
}

void TestCloudPostgres::twoInstancesBehindHaproxyServeEveryFlow()
{
    // Named as the shipped configuration's servers, which route relay
    // sockets by the instance their ticket names.
    auto first = startInstance({QStringLiteral("127.0.0.1")}, QStringLiteral("cloud8437"));
    auto second = startInstance({QStringLiteral("127.0.0.1")}, QStringLiteral("cloud8438"));
    QVERIFY(first && second);
    // The shipped configuration, with a certificate made here for "localhost".
    const QString key = m_dir.filePath(QStringLiteral("key.pem"));
    const QString certificate = m_dir.filePath(QStringLiteral("certificate.pem"));
    QVERIFY2(QProcess::execute(QStringLiteral("openssl"),
                               {"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
                                "-keyout", key, "-out", certificate, "-days", "2", "-subj", "/CN=localhost",
                                "-addext", "subjectAltName=DNS:localhost"})
                 == 0,
             "openssl (package openssl) could not make a certificate");
    QFile keyFile(key);
    QFile certificateFile(certificate);
    QVERIFY(keyFile.open(QIODevice::ReadOnly) && certificateFile.open(QIODevice::ReadOnly));
    const QByteArray certificatePem = certificateFile.readAll();
    const QSslCertificate authority(certificatePem);
    QVERIFY(!authority.isNull());
    QFile bundle(m_dir.filePath(QStringLiteral("bundle.pem")));
    QVERIFY(bundle.open(QIODevice::WriteOnly));
    bundle.write(certificatePem + keyFile.readAll());
    bundle.close();

    HaproxyFront haproxy;
    QVERIFY2(haproxy.start(QStringLiteral(TSL_DEPLOY_DIR "/haproxy.cfg"),
                           {{first->instanceId(), first->port()}, {second->instanceId(), second->port()}}, 1,
                           bundle.fileName()),
             qPrintable(haproxy.errorText()));
    const quint16 port = haproxy.port();
    const auto httpRequest = [&authority](quint16 to, const QByteArray &method, const QByteArray &path,
                                          const QByteArray &body = {}, const QString &token = {}) {
        return ::httpRequest(to, method, path, body, token, {}, {}, &authority);
    };
    const auto httpJson = [&authority](quint16 to, const QByteArray &method, const QByteArray &path,
                                       const QJsonObject &body, const QString &token = {},
                                       const QByteArray &extraHeaders = {}, const QHostAddress &from = {}) {
        return ::httpJson(to, method, path, body, token, extraHeaders, from, &authority);
    };
    QTRY_COMPARE_WITH_TIMEOUT(httpRequest(port, "GET", "/healthz").status, 200, 10000);
    // Plain HTTP on the TLS port gets nowhere.
    QVERIFY(::httpRequest(port, "GET", "/healthz").status != 200);

    // Every account and sync flow, each request on its own connection.
    const quint64 before1 = first->http().answeredRequests();
    const quint64 before2 = second->http().answeredRequests();
    const QString email = QStringLiteral("lb@example.org");
    QVERIFY(httpJson(port, "POST", "/api/v3/account/register/code", {{"email", email}}).ok());
    QTRY_VERIFY_WITH_TIMEOUT(m_mailer.codes.contains(email), 5000);
    RawResponse reply = httpJson(port, "POST", "/api/v3/account/register",
                                 {{"email", email}, {"password", "long enough"}, {"code", m_mailer.codes.value(email)},
                                  {"device_name", "1"}, {"client_version", "6.6.7"}});
    QVERIFY2(reply.ok(), reply.body.constData());
    reply = httpJson(port, "POST", "/api/v3/account/login",
                     {{"email", email}, {"password", "long enough"}, {"device_name", "1"}});
    QVERIFY(reply.ok());
    QString access = reply.json.value("access_token").toString();
    QString refresh = reply.json.value("refresh_token").toString();
    QCOMPARE(httpRequest(port, "GET", "/api/v3/account/me", {}, access).status, 200);
    QVERIFY(httpJson(port, "POST", "/api/v3/account/devices/bind", {{"device_name", "lab"}}, access).ok());
    QCOMPARE(httpRequest(port, "GET", "/api/v3/account/devices", {}, access).json.value("devices").toArray().size(), 2);
    QVERIFY(httpRequest(port, "GET", "/api/v3/cloud/quota", {}, access).ok());
    const QByteArray item = "/api/v3/sync/items/settings.session/default";
    for (int revision = 0; revision < 4; ++revision)
        QVERIFY(httpJson(port, "PUT", item, {{"base_revision", revision}, {"payload", QJsonObject{{"n", revision}}}},
                         access)
                    .ok());
    QCOMPARE(httpJson(port, "PUT", item, {{"base_revision", 1}, {"payload", QJsonObject()}}, access).code(),
             QStringLiteral("revision_conflict"));
    QCOMPARE(httpRequest(port, "GET", "/api/v3/sync/items?namespace=settings.session", {}, access)
                 .json.value("items").toArray().at(0).toObject().value("revision").toInt(),
             4);
    for (int round = 0; round < 3; ++round) {
        reply = httpJson(port, "POST", "/api/v3/account/token/refresh", {{"refresh_token", refresh}});
        QVERIFY(reply.ok());
        access = reply.json.value("access_token").toString();
        refresh = reply.json.value("refresh_token").toString();
        QCOMPARE(httpRequest(port, "GET", "/api/v3/account/me", {}, access).status, 200);
    }
    QVERIFY(httpJson(port, "POST", "/api/v3/account/logout", {{"refresh_token", refresh}}).ok());
    QCOMPARE(httpRequest(port, "GET", "/api/v3/account/me", {}, access).status, 401);
    // Round robin: both instances answered.
    QVERIFY(first->http().answeredRequests() - before1 >= 5);
    QVERIFY(second->http().answeredRequests() - before2 >= 5);

    // The client address is haproxy's forwarded one: guesses from one
    // client do not delay another behind the same proxy, and a client cannot
    // name an address of its own.
    const auto login = [&](const char *from, const char *password, const QByteArray &claim = {}) {
        return httpJson(port, "POST", "/api/v3/account/login", {{"email", email}, {"password", password}}, {},
                        claim.isEmpty() ? QByteArray() : "X-Forwarded-For: " + claim + "\r\n",
                        QHostAddress(QString::fromLatin1(from)));
    };
    for (int i = 0; i < 3; ++i)
        QCOMPARE(login("127.0.0.2", "guess").code(), QStringLiteral("invalid_credentials"));
    QCOMPARE(login("127.0.0.2", "long enough").code(), QStringLiteral("too_many_attempts"));
    QCOMPARE(login("127.0.0.2", "long enough", "192.0.2.7").code(), QStringLiteral("too_many_attempts"));
    reply = login("127.0.0.3", "long enough");
    QVERIFY(reply.ok());
    access = reply.json.value("access_token").toString();

    // Live Relay: the host computer speaks to the second instance, the
    // client opens its session on the first; both ends come through
    // haproxy, which sends each to the instance its ticket names.
    const QString cid = QStringLiteral("3f0c2b1e-8a7d-4c55-9e21-0d6b5a4f7c10");
    QVERIFY(::httpJson(second->port(), "POST", "/api/v3/console/heartbeat",
                       {{"cid", cid}, {"session_id", "s1"}, {"version", "6.6.7"}, {"hostname", "lab"}}, access)
                .ok());
    const QJsonObject entry{{"port_key", "p1"}, {"open", true}, {"capabilities", QJsonArray{"open_relay"}}};
    QVERIFY(::httpJson(second->port(), "POST", "/api/v3/console/ports/snapshot",
                       {{"cid", cid}, {"session_id", "s1"}, {"ports", QJsonArray{entry}}}, access)
                .ok());
    for (int round = 0; round < 4; ++round) {
        const RawResponse session = ::httpJson(first->port(), "POST", "/api/v3/relay/sessions",
                                               {{"cid", cid}, {"session_id", "s1"}, {"port_key", "p1"}}, access);
        QVERIFY2(session.ok(), session.body.constData());
        QVERIFY(session.json.value("ticket").toString().startsWith(QLatin1String("cloud8437.")));
        QString hostTicket;
        const QJsonArray commands = ::httpRequest(second->port(), "GET", "/api/v3/console/commands/poll?cid=" + cid.toUtf8(),
                                                  {}, access)
                                        .json.value("commands")
                                        .toArray();
        for (const QJsonValue &command : commands)
            hostTicket = command.toObject().value("payload").toObject().value("ticket").toString();
        QVERIFY(!hostTicket.isEmpty());
        RelayEnd host, client;
        client.open(port, session.json.value("ticket").toString(), &authority);
        host.open(port, hostTicket, &authority);
        QVERIFY2(host.waitForText("ready") && client.waitForText("ready"), qPrintable(client.closeReason));
        QCOMPARE(first->relays().relayCount(), 1);
        QCOMPARE(second->relays().relayCount(), 0);
        const QByteArray up = randomBytes(1024 * 1024 + round, quint32(round));
        const QByteArray down = randomBytes(512 * 1024 + round, quint32(round + 10));
        client.send(up);
        host.send(down);
        QVERIFY(pumpUntil([&] { return host.received.size() >= up.size() && client.received.size() >= down.size(); },
                          30000));
        QVERIFY(host.received == up && client.received == down);
        host.close();
        QVERIFY(client.waitForText("peer_gone"));
        QTRY_COMPARE_WITH_TIMEOUT(first->relays().relayCount(), 0, 5000);
    }
}

void TestCloudPostgres::aComputerOnOneInstanceIsWatchedAndDrivenFromAnother()
{
    auto holder = startInstance();
    auto other = startInstance();
    QVERIFY(holder && other);
    QVERIFY(holder->consoleBus() && other->consoleBus());
    const quint16 p1 = holder->port();
    const quint16 p2 = other->port();
    const QString token = registerAccount(p1, QStringLiteral("console@example.org"));
    QVERIFY(!token.isEmpty());
    const QString cid = QStringLiteral("7d1f6a2c-3b4e-4f50-8a9b-0c1d2e3f4a5b");

    SocketClient computer;
    QVERIFY(computer.open(p1, ConsoleHub::kComputerPath, token));
    computer.send({{"type", "hello"}, {"cid", cid}, {"session_id", "s1"}, {"version", "6.6.7"}, {"hostname", "lab-pc"}});
    QTRY_COMPARE_WITH_TIMEOUT(computer.ofType("hello").size(), 1, 10000);
    QVERIFY(computer.ofType("hello")[0].value("status").toBool());
    QCOMPARE(computer.ofType("hello")[0].value("watching"), QJsonValue(false));

    // A browser on the other instance: the computer is told at once, with
    // authority, and asked for its ports.
    SocketClient watcher;
    QVERIFY(watcher.open(p2, ConsoleHub::kWatchPath));
    watcher.send({{"type", "watch"}, {"access_token", token}, {"cid", cid}});
    QTRY_VERIFY_WITH_TIMEOUT(watcher.find("type", "watchers") >= 0, 10000);
    QCOMPARE(watcher.received[0].value("status"), QJsonValue(true));
    QCOMPARE(watcher.received[0].value("online"), QJsonValue(true));
    QTRY_VERIFY_WITH_TIMEOUT(computer.find("need_snapshot", true) >= 0, 10000);
    QCOMPARE(computer.received[computer.find("need_snapshot", true)].value("watching"), QJsonValue(true));
    QCOMPARE(computer.received[computer.find("need_snapshot", true)].value("authoritative"), QJsonValue(true));

    // A second watcher on the holder's instance: both count both.
    SocketClient near;
    QVERIFY(near.open(p1, ConsoleHub::kWatchPath));
    near.send({{"type", "watch"}, {"access_token", token}, {"cid", cid}});
    QTRY_VERIFY_WITH_TIMEOUT(!near.ofType("watchers").isEmpty() && near.ofType("watchers").last().value("count") == 2,
                             10000);
    QTRY_COMPARE_WITH_TIMEOUT(watcher.ofType("watchers").last().value("count").toInt(), 2, 10000);
    QTRY_COMPARE_WITH_TIMEOUT(httpRequest(p2, "GET", "/api/v3/console/computers", {}, token)
                                  .json.value("computers").toArray()[0].toObject().value("watchers").toInt(),
                              2, 10000);

    // Traffic, in order, whole, however large its batch: past the bus's
    // payload limit, with characters of several bytes at every cut.
    const QJsonArray ports{QJsonObject{{"port_key", "p1"}, {"connection_mode", 0}, {"port_name", "/dev/ttyUSB0"}, {"open", true}}};
    computer.send({{"type", "snapshot"}, {"cid", cid}, {"session_id", "s1"}, {"ports", ports}});
    QList<QJsonArray> sent;
    for (int batch = 0; batch < 6; ++batch) {
        QJsonArray events;
        const int count = batch == 0 ? 1 : 16;
        for (int i = 0; i < count; ++i) {
            const QString text = batch == 0 ? QStringLiteral("boot ok\r\n")
                                            : QString(1 + (batch * 131 + i * 17) % 2000, QChar(0x4e00 + i + batch))
                                                  + QStringLiteral("\u00e9x\U0001F600");
            events.append(QJsonObject{{"port_key", "p1"}, {"event_type", "rx"}, {"payload_text", text},
                                      {"seq", batch * 100 + i}, {"client_time", 1}});
        }
        sent.append(events);
        computer.send({{"type", "events"}, {"cid", cid}, {"session_id", "s1"}, {"events", events}});
    }
    QTRY_COMPARE_WITH_TIMEOUT(watcher.ofType("events").size(), sent.size(), 15000);
    for (int i = 0; i < sent.size(); ++i)
        QCOMPARE(watcher.ofType("events")[i].value("events").toArray(), sent[i]);
    QTRY_VERIFY_WITH_TIMEOUT(!watcher.ofType("snapshot").isEmpty() && watcher.ofType("snapshot").last().value("ports") == ports,
                             10000);

    // A command issued on the other instance is pushed by the holder at
    // once (no poll runs here), and its result comes back to the browser.
    const RawResponse issued = httpJson(p2, "POST", "/api/v3/console/computers/" + cid.toUtf8() + "/commands",
                                        {{"command", "send_text"},
                                         {"payload", QJsonObject{{"port_key", "p1"}, {"text", "hello"}, {"line_ending", "crlf"}}}},
                                        token);
    QVERIFY2(issued.ok(), issued.body.constData());
    const QString id = issued.json.value("command_id").toString();
    QTRY_VERIFY_WITH_TIMEOUT([&] {
        for (const QJsonObject &m : computer.ofType("console")) {
            for (const QJsonValue &c : m.value("commands").toArray())
                if (c.toObject().value("command_id").toString() == id)
                    return true;
        }
        return false;
    }(), 10000);
    computer.send({{"type", "result"}, {"command_id", id}, {"result", QJsonObject{{"cid", cid}, {"status", "succeeded"}, {"bytes", 7}}}});
    QTRY_VERIFY_WITH_TIMEOUT(!watcher.ofType("result").isEmpty(), 10000);
    QCOMPARE(watcher.ofType("result")[0].value("command_id").toString(), id);
    QCOMPARE(watcher.ofType("result")[0].value("result").toObject().value("bytes").toInt(), 7);
    QCOMPARE(httpRequest(p2, "GET", "/api/v3/console/commands/" + id.toUtf8(), {}, token)
                 .json.value("command").toObject().value("state").toString(),
             QStringLiteral("done"));

    // The browsers leave: the computer hears "nobody" only when the last one
    // has gone, whichever instance it was on.
    const int watched = computer.find("need_snapshot", true);
    near.socket.close();
    QTRY_COMPARE_WITH_TIMEOUT(watcher.ofType("watchers").last().value("count").toInt(), 1, 10000);
    QCOMPARE(computer.find("watching", false, watched), -1);
    watcher.socket.close();
    QTRY_VERIFY_WITH_TIMEOUT(computer.find("watching", false, watched) >= 0, 10000);
    QCOMPARE(computer.received[computer.find("watching", false, watched)].value("authoritative"), QJsonValue(true));
    QCOMPARE(holder->consoleBus()->lostNotices() + other->consoleBus()->lostNotices(), 0);
    QCOMPARE(holder->consoleBus()->droppedNotices() + other->consoleBus()->droppedNotices(), 0);
}

QTEST_GUILESS_MAIN(TestCloudPostgres)
#include "tst_cloudpostgres.moc"
