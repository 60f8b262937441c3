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
//   bench_cloud [seconds=30] [clients=100] [sqlite,postgresql,haproxy] [service options]
#include "benchservice.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
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

// The clients' own event loop: epoll over their sockets. Qt's loops poll
// every socket on each turn, which with a hundred clients cost this
// process more than the service spent on the requests; the measurement
// shares the cores with what it measures. Qt still runs now and then for
// the service's log pipe.
class ClientLoop
{
public:
    ClientLoop() : m_epoll(::epoll_create1(EPOLL_CLOEXEC)) {}
    ~ClientLoop() { ::close(m_epoll); }
    int fd() const { return m_epoll; }
    // Runs until `done` or `ms` have passed.
    template<typename Done>
    void run(qint64 ms, Done done)
    {
        QElapsedTimer clock;
        clock.start();
        QElapsedTimer sinceQt;
        sinceQt.start();
        epoll_event events[64];
        while (!done() && clock.elapsed() < ms) {
            const int ready = ::epoll_wait(m_epoll, events, 64, 10);
            for (int i = 0; i < ready; ++i)
                static_cast<EpollHandler *>(events[i].data.ptr)->onEvents(events[i].events);
            if (sinceQt.elapsed() >= 10) {
                QCoreApplication::processEvents();
                sinceQt.restart();
            }
        }
    }

    struct EpollHandler
    {
        virtual ~EpollHandler() = default;
        virtual void onEvents(uint32_t events) = 0;
    };

private:
    int m_epoll;
};

// One kept-alive HTTP/1.1 connection that sends one request at a time: a
// sign-in first unless it has a token, then profile reads and (unless it
// only reads) sync writes in turn. A connection lost while it runs counts
// as an error and is made again.
class Client : public ClientLoop::EpollHandler
{
public:
    Client(ClientLoop &loop, quint16 port, QString email, int index, bool readOnly)
        : m_loop(loop), m_port(port), m_email(std::move(email)), m_index(index), m_readOnly(readOnly)
    {
    }
    ~Client() override { closeSocket(); }
    void setToken(const QByteArray &token) { m_token = token; }
    bool hasToken() const { return !m_token.isEmpty(); }
    // Where the answers count from now on.
    void recordInto(Stats *stats) { m_stats = stats; }
    void start()
    {
        m_running = true;
        open();
    }
    void stop() { m_running = false; }

    void onEvents(uint32_t events) override
    {
        if (m_connecting) {
            int error = 0;
            socklen_t length = sizeof error;
            ::getsockopt(m_fd, SOL_SOCKET, SO_ERROR, &error, &length);
            if (error != 0 || (events & (EPOLLERR | EPOLLHUP))) {
                lost();
                return;
            }
            m_connecting = false;
            watch(EPOLLIN);
            next();
            return;
        }
        if (events & EPOLLOUT)
            flush();
        if (events & (EPOLLIN | EPOLLERR | EPOLLHUP))
            onData();
    }

private:
    void open()
    {
        closeSocket();
        m_buffer.clear();
        m_unsent.clear();
        m_fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(m_port);
        const int one = 1;
        ::setsockopt(m_fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        m_connecting = true;
        epoll_event event{};
        event.events = EPOLLOUT;
        event.data.ptr = this;
        ::epoll_ctl(m_loop.fd(), EPOLL_CTL_ADD, m_fd, &event);
        if (::connect(m_fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 && errno != EINPROGRESS)
            lost();
    }
    void closeSocket()
    {
        if (m_fd < 0)
            return;
        ::epoll_ctl(m_loop.fd(), EPOLL_CTL_DEL, m_fd, nullptr);
        ::close(m_fd);
        m_fd = -1;
    }
    void watch(uint32_t events)
    {
        epoll_event event{};
        event.events = events;
        event.data.ptr = this;
        ::epoll_ctl(m_loop.fd(), EPOLL_CTL_MOD, m_fd, &event);
    }
    void lost()
    {
        closeSocket();
        if (m_stats)
            ++m_stats->errors;
        if (m_running)
            open();
    }
    void send(const QByteArray &method, const QByteArray &path, const QJsonObject &body = {})
    {
        const QByteArray data = body.isEmpty() ? QByteArray() : QJsonDocument(body).toJson(QJsonDocument::Compact);
        QByteArray request = method + ' ' + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\n";
        if (!m_token.isEmpty())
            request += "Authorization: Bearer " + m_token + "\r\n";
        request += "Content-Type: application/json\r\nContent-Length: " + QByteArray::number(data.size()) + "\r\n\r\n" + data;
        m_timer.start();
        m_unsent = request;
        flush();
    }
    void flush()
    {
        while (!m_unsent.isEmpty()) {
            const ssize_t sent = ::send(m_fd, m_unsent.constData(), size_t(m_unsent.size()), MSG_NOSIGNAL);
            if (sent < 0 && errno == EAGAIN) {
                watch(EPOLLIN | EPOLLOUT);
                return;
            }
            if (sent <= 0) {
                lost();
                return;
            }
            m_unsent.remove(0, sent);
        }
        watch(EPOLLIN);
    }
    void next()
    {
        if (!m_running)
            return;
        if (m_token.isEmpty()) {
            send("POST", "/api/v3/account/login", {{"email", m_email}, {"password", "bench password"}});
        } else if (m_readOnly || m_step++ % 2 == 0) {
            m_wrote = false;
            send("GET", "/api/v3/account/me");
        } else {
            m_wrote = true;
            send("PUT", "/api/v3/sync/items/bench/c" + QByteArray::number(m_index),
                 {{"base_revision", m_revision}, {"payload", QJsonObject{{"n", m_step}}}});
        }
    }
    void onData()
    {
        char chunk[16 * 1024];
        for (;;) {
            const ssize_t got = ::recv(m_fd, chunk, sizeof chunk, 0);
            if (got > 0) {
                m_buffer.append(chunk, got);
                continue;
            }
            if (got < 0 && errno == EAGAIN)
                break;
            lost();
            return;
        }
        // The status and length are read by hand; a body is parsed only
        // when something is needed from it (the token, the new revision).
        const qsizetype end = m_buffer.indexOf("\r\n\r\n");
        if (end < 0)
            return;
        const qint64 length = contentLength(QByteArrayView(m_buffer).first(end));
        if (length < 0) {
            lost();
            return;
        }
        if (m_buffer.size() < end + 4 + length)
            return;
        const int status = QByteArrayView(m_buffer).sliced(9, 3).toInt();
        if (m_stats) {
            m_stats->latenciesMs.push_back(m_timer.nsecsElapsed() / 1e6);
            m_stats->errors += status == 200 ? 0 : 1;
        }
        if (status == 200 && (m_token.isEmpty() || m_wrote)) {
            const QJsonObject json = QJsonDocument::fromJson(m_buffer.mid(end + 4, length)).object();
            if (m_token.isEmpty())
                m_token = json.value("access_token").toString().toLatin1();
            else
                m_revision = json.value("item").toObject().value("revision").toInteger();
        }
        m_buffer.remove(0, end + 4 + length);
        next();
    }
    static qint64 contentLength(QByteArrayView head)
    {
        static constexpr QByteArrayView name = "\r\ncontent-length:";
        for (qsizetype at = 0; (at = head.indexOf(QByteArrayView("\r\n"), at)) >= 0; at += 2) {
            const QByteArrayView line = head.sliced(at);
            if (line.size() > name.size() && line.first(name.size()).compare(name, Qt::CaseInsensitive) == 0) {
                const qsizetype stop = line.indexOf(QByteArrayView("\r\n"), 2);
                bool ok = false;
                const qint64 value = line.sliced(name.size(), (stop < 0 ? line.size() : stop) - name.size())
                                         .trimmed()
                                         .toLongLong(&ok);
                return ok ? value : -1;
            }
        }
        return -1;
    }

    ClientLoop &m_loop;
    int m_fd = -1;
    bool m_connecting = false;
    quint16 m_port;
    QString m_email;
    int m_index;
    bool m_readOnly;
    Stats *m_stats = nullptr;
    QByteArray m_buffer;
    QByteArray m_unsent;
    QByteArray m_token;
    qint64 m_revision = 0;
    int m_step = 0;
    bool m_wrote = false;  // the request in flight is a sync write
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
    ClientLoop loop;
    std::vector<std::unique_ptr<Client>> light;
    for (int i = 0; i < kLightClients; ++i) {
        light.push_back(std::make_unique<Client>(loop, port, email(i), i, true));
        light.back()->setToken(call(port, "/api/v3/account/login", {{"email", email(i)}, {"password", "bench password"}})
                                   .value("access_token")
                                   .toString()
                                   .toLatin1());
    }
    std::vector<std::unique_ptr<Client>> pool;
    for (int i = 0; i < clients; ++i)
        pool.push_back(std::make_unique<Client>(loop, port, email(i), i, false));

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
    loop.run(120000, allSignedIn);
    const double stormSeconds = stormTime.nsecsElapsed() / 1e9;
    for (auto &client : light)
        client->stop();

    // The steady load: everybody reads and writes.
    Stats steady;
    for (auto &client : pool)
        client->recordInto(&steady);
    QElapsedTimer clock;
    clock.start();
    loop.run(seconds * 1000, [] { return false; });
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
    // Options given to every instance, e.g. "--database-threads 4", to try a setting.
    const QStringList options = args.value(4).split(u' ', Qt::SkipEmptyParts);
    const int accounts = (qMax(clients, kLightClients) + kClientsPerAccount - 1) / kClientsPerAccount;
    const QString run = QString::number(QDateTime::currentMSecsSinceEpoch());

    if (setups.contains(QLatin1String("sqlite"))) {
        QTemporaryDir dir;
        Service service;
        if (!service.start(QStringList{"--database", dir.filePath("bench.sqlite")} + options)
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
        if (!service.start(QStringList{"--database", postgres.url()} + options) || !registerAccounts(service, service.port(), accounts, run))
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
        if (!first.start(QStringList{"--database", postgres.url(), "--trusted-proxy", "127.0.0.1"} + options)
            || !second.start(QStringList{"--database", postgres.url(), "--trusted-proxy", "127.0.0.1"} + options)
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
