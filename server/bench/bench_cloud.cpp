// Load on the cloud service as users make it: N concurrent clients
// (default 100) all sign in at once (the storm), then alternate profile
// reads and sync writes over kept-alive connections for the given time.
// While the storm runs, ten clients signed in before keep reading their
// profile: requests that need no password hash must not wait behind it.
//
// Three set-ups, each with the service as its own executable: SQLite; a
// throwaway PostgreSQL cluster at its default settings (synchronous_commit
// on, fsync on); and two instances on that cluster behind haproxy. Each
// prints requests per second, p50/p99/max latency, errors, the storm's
// figures and the service's longest event-loop stall.
//
//   bench_cloud [seconds=30] [clients=100] [sqlite,postgresql,haproxy]
#include "benchservice.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int kClientsPerAccount = 10;
constexpr int kLightClients = 10;

struct Stats
{
    std::vector<double> latenciesMs;
    int errors = 0;

    double percentile(double p) const
    {
        std::vector<double> sorted = latenciesMs;
        std::sort(sorted.begin(), sorted.end());
        return sorted.empty() ? 0.0 : sorted[std::min(sorted.size() - 1, size_t(p * double(sorted.size())))];
    }
    double max() const { return latenciesMs.empty() ? 0.0 : *std::max_element(latenciesMs.begin(), latenciesMs.end()); }
};

// One kept-alive HTTP/1.1 connection that sends one request at a time: a
// sign-in first unless it has a token, then profile reads and (unless it
// only reads) sync writes in turn.
class Client : public QObject
{
public:
    Client(quint16 port, QString email, int index, bool readOnly)
        : m_port(port), m_email(std::move(email)), m_index(index), m_readOnly(readOnly)
    {
        connect(&m_socket, &QTcpSocket::readyRead, this, [this] { onData(); });
        connect(&m_socket, &QTcpSocket::disconnected, this, [this] {
            if (m_running) {
                ++m_stats->errors;
                m_socket.connectToHost(QHostAddress::LocalHost, m_port);
            }
        });
        connect(&m_socket, &QTcpSocket::connected, this, [this] { next(); });
    }
    void setToken(const QByteArray &token) { m_token = token; }
    bool hasToken() const { return !m_token.isEmpty(); }
    // Where the answers count from now on.
    void recordInto(Stats *stats) { m_stats = stats; }
    void start()
    {
        m_running = true;
        m_socket.connectToHost(QHostAddress::LocalHost, m_port);
    }
    void stop() { m_running = false; }

private:
    void send(const QByteArray &method, const QByteArray &path, const QJsonObject &body = {})
    {
        const QByteArray data = body.isEmpty() ? QByteArray() : QJsonDocument(body).toJson(QJsonDocument::Compact);
        QByteArray request = method + ' ' + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\n";
        if (!m_token.isEmpty())
            request += "Authorization: Bearer " + m_token + "\r\n";
        request += "Content-Type: application/json\r\nContent-Length: " + QByteArray::number(data.size()) + "\r\n\r\n" + data;
        m_timer.start();
        m_socket.write(request);
    }
    void next()
    {
        if (!m_running)
            return;
        if (m_token.isEmpty())
            send("POST", "/api/v3/account/login", {{"email", m_email}, {"password", "bench password"}});
        else if (m_readOnly || m_step++ % 2 == 0)
            send("GET", "/api/v3/account/me");
        else
            send("PUT", "/api/v3/sync/items/bench/c" + QByteArray::number(m_index),
                 {{"base_revision", m_revision}, {"payload", QJsonObject{{"n", m_step}}}});
    }
    void onData()
    {
        m_buffer += m_socket.readAll();
        const qsizetype end = m_buffer.indexOf("\r\n\r\n");
        if (end < 0)
            return;
        static const QRegularExpression lengthLine(QStringLiteral("(?i)content-length:\\s*(\\d+)"));
        const qint64 length = lengthLine.match(QString::fromLatin1(m_buffer.left(end))).captured(1).toLongLong();
        if (m_buffer.size() < end + 4 + length)
            return;
        const int status = m_buffer.mid(9, 3).toInt();
        const QJsonObject body = QJsonDocument::fromJson(m_buffer.mid(end + 4, length)).object();
        m_buffer.remove(0, end + 4 + length);
        if (m_stats) {
            m_stats->latenciesMs.push_back(m_timer.nsecsElapsed() / 1e6);
            m_stats->errors += status == 200 ? 0 : 1;
        }
        if (status == 200 && body.contains("access_token"))
            m_token = body.value("access_token").toString().toLatin1();
        else if (status == 200 && body.contains("item"))
            m_revision = body.value("item").toObject().value("revision").toInteger();
        next();
    }

    QTcpSocket m_socket;
    quint16 m_port;
    QString m_email;
    int m_index;
    bool m_readOnly;
    Stats *m_stats = nullptr;
    QByteArray m_buffer;
    QByteArray m_token;
    qint64 m_revision = 0;
    int m_step = 0;
    bool m_running = false;
    QElapsedTimer m_timer;
};

// Registers `accounts` accounts through `port` with the codes `service` logs.
bool registerAccounts(Service &service, quint16 port, int accounts, const QString &run)
{
    for (int a = 0; a < accounts; ++a) {
        const QString email = QStringLiteral("bench%1-%2@example.org").arg(a).arg(run);
        call(port, "/api/v3/account/register/code", {{"email", email}});
        const QString code = service.codeFor(email);
        if (!call(port, "/api/v3/account/register", {{"email", email}, {"password", "bench password"}, {"code", code}})
                 .value("status")
                 .toBool()) {
            std::fprintf(stderr, "could not register %s\n", qPrintable(email));
            return false;
        }
    }
    return true;
}

void print(const char *setup, const char *figure, double value, const char *unit)
{
    std::printf("cloud_%s_%s %.*f %s\n", setup, figure, value >= 100 || value == int(value) ? 0 : 2, value, unit);
    std::fflush(stdout);
}

// The storm, then the steady load, through `port`; prints the figures.
void measure(const char *setup, quint16 port, int seconds, int clients, const QString &run)
{
    const int accounts = (clients + kClientsPerAccount - 1) / kClientsPerAccount;
    const auto email = [&](int client) {
        return QStringLiteral("bench%1-%2@example.org").arg(client % accounts).arg(run);
    };
    // Ten readers signed in beforehand, then everybody else signs in at once.
    std::vector<std::unique_ptr<Client>> light;
    for (int i = 0; i < kLightClients; ++i) {
        light.push_back(std::make_unique<Client>(port, email(i), i, true));
        light.back()->setToken(call(port, "/api/v3/account/login", {{"email", email(i)}, {"password", "bench password"}})
                                   .value("access_token")
                                   .toString()
                                   .toLatin1());
    }
    std::vector<std::unique_ptr<Client>> pool;
    for (int i = 0; i < clients; ++i)
        pool.push_back(std::make_unique<Client>(port, email(i), i, false));

    Stats storm;
    Stats stormPlain;
    for (auto &client : light) {
        client->recordInto(&stormPlain);
        client->start();
    }
    QElapsedTimer stormTime;
    stormTime.start();
    for (auto &client : pool) {
        client->recordInto(&storm);
        client->start();
    }
    const auto allSignedIn = [&] {
        return std::all_of(pool.begin(), pool.end(), [](const std::unique_ptr<Client> &c) { return c->hasToken(); });
    };
    while (!allSignedIn() && stormTime.elapsed() < 120000)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 50);
    const double stormSeconds = stormTime.nsecsElapsed() / 1e9;
    for (auto &client : light)
        client->stop();

    // The steady load: everybody reads and writes.
    Stats steady;
    for (auto &client : pool)
        client->recordInto(&steady);
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < seconds * 1000)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 50);
    const double elapsed = clock.nsecsElapsed() / 1e9;
    for (auto &client : pool)
        client->recordInto(nullptr);
    for (auto &client : pool)
        client->stop();

    print(setup, "requests_per_second", double(steady.latenciesMs.size()) / elapsed, "req/s");
    print(setup, "latency_p50", steady.percentile(0.50), "ms");
    print(setup, "latency_p99", steady.percentile(0.99), "ms");
    print(setup, "latency_max", steady.max(), "ms");
    print(setup, "errors", steady.errors + storm.errors + stormPlain.errors, "count");
    print(setup, "signin_storm_clients", clients, "count");
    print(setup, "signin_storm_duration", stormSeconds, "s");
    print(setup, "signin_storm_signin_p99", storm.percentile(0.99), "ms");
    print(setup, "signin_storm_plain_requests", double(stormPlain.latenciesMs.size()), "count");
    print(setup, "signin_storm_plain_p99", stormPlain.percentile(0.99), "ms");
    print(setup, "signin_storm_plain_max", stormPlain.max(), "ms");
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    const int seconds = args.value(1, QStringLiteral("30")).toInt();
    const int clients = args.value(2, QStringLiteral("100")).toInt();
    const QStringList setups = args.value(3, QStringLiteral("sqlite,postgresql,haproxy")).split(u',');
    const int accounts = (qMax(clients, kLightClients) + kClientsPerAccount - 1) / kClientsPerAccount;
    const QString run = QString::number(QDateTime::currentMSecsSinceEpoch());

    if (setups.contains(QLatin1String("sqlite"))) {
        QTemporaryDir dir;
        Service service;
        if (!service.start({"--database", dir.filePath("bench.sqlite")})
            || !registerAccounts(service, service.port(), accounts, run))
            return 1;
        service.keepLogShort();
        measure("sqlite", service.port(), seconds, clients, run);
        print("sqlite", "loop_stall_max", double(service.stop()), "ms");
    }

    if (!setups.contains(QLatin1String("postgresql")) && !setups.contains(QLatin1String("haproxy")))
        return 0;
    QTemporaryDir dir;
    QFile::setPermissions(dir.path(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner | QFile::ExeGroup
                                          | QFile::ExeOther);
    Postgres postgres;
    if (!postgres.start(dir.path())) {
        std::fprintf(stderr, "the PostgreSQL cluster did not start\n");
        return 1;
    }
    if (setups.contains(QLatin1String("postgresql"))) {
        Service service;
        if (!service.start({"--database", postgres.url()}) || !registerAccounts(service, service.port(), accounts, run))
            return 1;
        service.keepLogShort();
        measure("postgresql", service.port(), seconds, clients, run);
        print("postgresql", "loop_stall_max", double(service.stop()), "ms");
    }
    if (setups.contains(QLatin1String("haproxy"))) {
        const QString again = run + QStringLiteral("h");
        Service first;
        Service second;
        Haproxy haproxy;
        if (!first.start({"--database", postgres.url(), "--trusted-proxy", "127.0.0.1"})
            || !second.start({"--database", postgres.url(), "--trusted-proxy", "127.0.0.1"})
            || !haproxy.start(dir.path(), {first.port(), second.port()}))
            return 1;
        // Codes are logged by whichever instance took the request: ask each directly.
        for (int a = 0; a < accounts; ++a) {
            Service &instance = a % 2 ? second : first;
            const QString email = QStringLiteral("bench%1-%2@example.org").arg(a).arg(again);
            call(instance.port(), "/api/v3/account/register/code", {{"email", email}});
            call(haproxy.port(), "/api/v3/account/register",
                 {{"email", email}, {"password", "bench password"}, {"code", instance.codeFor(email)}});
        }
        first.keepLogShort();
        second.keepLogShort();
        measure("haproxy_two_instances", haproxy.port(), seconds, clients, again);
        print("haproxy_two_instances", "loop_stall_max", double(qMax(first.stop(), second.stop())), "ms");
    }
    return 0;
}
