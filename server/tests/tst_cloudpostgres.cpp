// The service on PostgreSQL: a throwaway cluster in a temporary folder,
// run as an unprivileged user (initdb refuses root), reached through its
// socket folder; two service instances share it.
#include "cloudservice.h"
#include "codemailer.h"
#include "rawhttp.h"

#include <QDir>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

#include <unistd.h>

namespace {

const QString kBin = QStringLiteral("/usr/lib/postgresql/15/bin");

struct KeptCodes : CodeMailer
{
    QHash<QString, QString> codes;
    void sendCode(const QString &email, const QString &code, int) override { codes.insert(email, code); }
};

} // namespace

class TestCloudPostgres : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void twoInstancesShareAccountsTokensAndItems();

private:
    bool runAsOwner(const QString &program, const QStringList &arguments, int timeoutMs = 60000);
    std::unique_ptr<CloudService> startInstance();

    QTemporaryDir m_dir;
    QString m_user;
    bool m_running = false;
    KeptCodes m_mailer;
    QString m_url;
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
    QVERIFY(runAsOwner(kBin + QStringLiteral("/pg_ctl"),
                       {"-D", data, "-w", "-t", "30", "-l", m_dir.filePath("pg.log"), "-o",
                        QStringLiteral("-k %1 -p %2 -c listen_addresses='' -c fsync=off").arg(sockets).arg(port),
                        "start"}));
    m_running = true;
    m_url = QStringLiteral("postgresql://%1@/postgres?host=%2&port=%3").arg(m_user, sockets).arg(port);
}

void TestCloudPostgres::cleanupTestCase()
{
    if (m_running)
        runAsOwner(kBin + QStringLiteral("/pg_ctl"), {"-D", m_dir.filePath("data"), "-m", "immediate", "-w", "stop"});
}

std::unique_ptr<CloudService> TestCloudPostgres::startInstance()
{
    ServiceConfig config;
    config.port = 0;
    config.database = m_url;
    config.argon2 = {256, 1, 1};
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

QTEST_GUILESS_MAIN(TestCloudPostgres)
#include "tst_cloudpostgres.moc"
