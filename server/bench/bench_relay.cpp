// Live Relay through the cloud service: throughput and round-trip time of
// a relay through one instance and through two instances behind haproxy
// (which sends both ends to the instance the ticket names), beside a
// direct TCP connection between the same two ends, measured in the same
// run; then the service's memory while one end reads at 10 kB/s and the
// other floods.
//
//   bench_relay [megabytes=256] [rounds=2000] [memory-seconds=20]
#include "benchservice.h"
#include "cloud/websocketcodec.h"

#include <QCoreApplication>
#include <QJsonArray>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTimer>
#include <QUrl>

#include <algorithm>
#include <functional>
#include <vector>

namespace {

const QString kCid = QStringLiteral("3f0c2b1e-8a7d-4c55-9e21-0d6b5a4f7c10");
constexpr qint64 kMessage = 8192;
constexpr qint64 kClientBacklog = 1024 * 1024;

void print(const QByteArray &figure, double value, const char *unit)
{
    std::printf("relay_%s %.*f %s\n", figure.constData(), value >= 100 || value == int(value) ? 0 : 2, value, unit);
    std::fflush(stdout);
}

double percentile(std::vector<double> values, double p)
{
    std::sort(values.begin(), values.end());
    return values.empty() ? 0.0 : values[std::min(values.size() - 1, size_t(p * double(values.size())))];
}

bool waitUntil(const std::function<bool()> &done, int timeoutMs)
{
    QElapsedTimer timer;
    timer.start();
    while (!done()) {
        if (timer.elapsed() > timeoutMs)
            return false;
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 20);
    }
    return true;
}

// Two connected ends that carry bytes: over a relay (WebSocket framing,
// masked from this side) or over plain TCP.
class Pipe : public QObject
{
public:
    QTcpSocket socket;
    qint64 receivedBytes = 0;
    QByteArray pending;  // what arrived and nobody took yet (round trips)
    bool ready = false;
    bool framed = false;
    bool reading = true;
    std::function<void()> onData;

    explicit Pipe(bool relay) : framed(relay)
    {
        connect(&socket, &QTcpSocket::readyRead, this, [this] { read(); });
    }
    void openRelay(quint16 port, const QString &ticket)
    {
        socket.connectToHost(QHostAddress::LocalHost, port);
        socket.write(m_codec.start(QStringLiteral("127.0.0.1:%1").arg(port),
                                   "/ws/relay/v1?ticket=" + QUrl::toPercentEncoding(ticket))
                         .write);
    }
    void read(qint64 most = -1)
    {
        if (!reading && most < 0)
            return;
        const QByteArray bytes = most < 0 ? socket.readAll() : socket.read(most);
        if (!framed) {
            receivedBytes += bytes.size();
            pending += bytes;
        } else {
            const auto step = m_codec.feed(bytes);
            socket.write(step.write);
            for (const auto &event : step.events) {
                if (event.kind == WebSocketCodec::Event::Kind::Binary) {
                    receivedBytes += event.payload.size();
                    pending += event.payload;
                } else if (event.kind == WebSocketCodec::Event::Kind::Text && event.payload.contains("\"ready\"")) {
                    ready = true;
                }
            }
        }
        if (onData)
            onData();
    }
    void send(QByteArrayView bytes)
    {
        if (!framed) {
            socket.write(bytes.data(), bytes.size());
            return;
        }
        for (qsizetype at = 0; at < bytes.size(); at += kMessage)
            socket.write(m_codec.binaryMessage(bytes.sliced(at, qMin<qsizetype>(kMessage, bytes.size() - at))));
    }

private:
    WebSocketCodec m_codec{WebSocketCodec::Role::Client};
};

// Throughput from `from` to `to`: MB/s (10^6 bytes).
double throughput(Pipe &from, Pipe &to, qint64 bytes)
{
    const QByteArray chunk(64 * 1024, 'x');
    to.receivedBytes = 0;
    to.pending.clear();
    to.onData = [&to] { to.pending.clear(); };
    qint64 sent = 0;
    QElapsedTimer timer;
    timer.start();
    while (to.receivedBytes < bytes && timer.elapsed() < 300000) {
        while (sent < bytes && from.socket.bytesToWrite() < kClientBacklog) {
            from.send(chunk);
            sent += chunk.size();
        }
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 5);
    }
    to.onData = nullptr;
    return double(to.receivedBytes) / 1e6 / (double(timer.nsecsElapsed()) / 1e9);
}

// Round trips of 64 bytes: `echo` sends back what it gets. Milliseconds.
std::vector<double> roundTrips(Pipe &from, Pipe &echo, int rounds)
{
    echo.onData = [&echo] {
        if (!echo.pending.isEmpty())
            echo.send(std::exchange(echo.pending, {}));
    };
    from.pending.clear();
    const QByteArray ping(64, 'p');
    std::vector<double> times;
    for (int i = 0; i < rounds; ++i) {
        QElapsedTimer timer;
        timer.start();
        from.send(ping);
        from.socket.flush();
        if (!waitUntil([&] { return from.pending.size() >= ping.size(); }, 10000))
            break;
        from.pending.remove(0, ping.size());
        times.push_back(double(timer.nsecsElapsed()) / 1e6);
    }
    echo.onData = nullptr;
    return times;
}

// Two plain TCP ends on loopback.
// Hands the accepted descriptor over untouched: a socket made by the
// server and emptied afterwards would keep a read notifier on it.
class DescriptorServer : public QTcpServer
{
public:
    qintptr accepted = -1;

protected:
    void incomingConnection(qintptr descriptor) override { accepted = descriptor; }
};

bool directPair(DescriptorServer &server, Pipe &a, Pipe &b)
{
    if (!server.listen(QHostAddress::LocalHost, 0))
        return false;
    a.socket.connectToHost(QHostAddress::LocalHost, server.serverPort());
    if (!waitUntil([&] { return server.accepted >= 0; }, 5000))
        return false;
    b.socket.setSocketDescriptor(server.accepted);
    return waitUntil([&] { return a.socket.state() == QAbstractSocket::ConnectedState; }, 5000);
}

// An account with one computer whose port p1 allows relays; its token.
QString prepareAccount(Service &service, quint16 apiPort, quint16 computerPort, const QString &email)
{
    call(apiPort, "/api/v3/account/register/code", {{"email", email}});
    const QString token = call(apiPort, "/api/v3/account/register",
                               {{"email", email}, {"password", "bench password"}, {"code", service.codeFor(email)}})
                              .value("access_token")
                              .toString();
    call(computerPort, "/api/v3/console/heartbeat", {{"cid", kCid}, {"session_id", "s1"}, {"hostname", "bench"}},
         "POST", token);
    const QJsonObject port{{"port_key", "p1"}, {"open", true}, {"capabilities", QJsonArray{"open_relay"}}};
    call(computerPort, "/api/v3/console/ports/snapshot",
         {{"cid", kCid}, {"session_id", "s1"}, {"ports", QJsonArray{port}}}, "POST", token);
    return token;
}

// Opens a relay (session through `apiPort`, the host's ticket polled through
// `computerPort`) and connects both ends to `socketPort`.
bool openRelay(Pipe &host, Pipe &client, const QString &token, quint16 apiPort, quint16 computerPort,
               quint16 socketPort)
{
    const QJsonObject session = call(apiPort, "/api/v3/relay/sessions",
                                     {{"cid", kCid}, {"session_id", "s1"}, {"port_key", "p1"}}, "POST", token);
    QString hostTicket;
    const QJsonArray commands = call(computerPort, "/api/v3/console/commands/poll?cid=" + kCid.toUtf8(), {}, "GET", token)
                                    .value("commands")
                                    .toArray();
    for (const QJsonValue &command : commands)
        hostTicket = command.toObject().value("payload").toObject().value("ticket").toString();
    if (!session.value("status").toBool() || hostTicket.isEmpty()) {
        std::fprintf(stderr, "no relay session: %s\n", QJsonDocument(session).toJson().constData());
        return false;
    }
    client.openRelay(socketPort, session.value("ticket").toString());
    host.openRelay(socketPort, hostTicket);
    return waitUntil([&] { return host.ready && client.ready; }, 10000);
}

qint64 residentKiB(qint64 pid)
{
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : status.readAll().split('\n')) {
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').value(0).toLongLong();
    }
    return -1;
}

void measurePair(const char *name, Pipe &a, Pipe &b, qint64 bytes, int rounds, double directP99)
{
    const QByteArray figure(name);
    print(figure + "_throughput", throughput(a, b, bytes), "MB/s");
    const std::vector<double> times = roundTrips(a, b, rounds);
    const double p99 = percentile(times, 0.99);
    print(figure + "_rtt_p50", percentile(times, 0.50), "ms");
    print(figure + "_rtt_p99", p99, "ms");
    if (directP99 >= 0)
        print(figure + "_added_rtt_p99", p99 - directP99, "ms");
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    const qint64 bytes = args.value(1, QStringLiteral("256")).toLongLong() * 1024 * 1024;
    const int rounds = args.value(2, QStringLiteral("2000")).toInt();
    const int memorySeconds = args.value(3, QStringLiteral("20")).toInt();
    const QString run = QString::number(QDateTime::currentMSecsSinceEpoch());

    // Direct TCP between the two ends, the reference.
    DescriptorServer server;
    Pipe directA(false), directB(false);
    if (!directPair(server, directA, directB))
        return 1;
    print("direct_tcp_throughput", throughput(directA, directB, bytes), "MB/s");
    const std::vector<double> direct = roundTrips(directA, directB, rounds);
    const double directP99 = percentile(direct, 0.99);
    print("direct_tcp_rtt_p50", percentile(direct, 0.50), "ms");
    print("direct_tcp_rtt_p99", directP99, "ms");

    // One instance (SQLite).
    QTemporaryDir dir;
    Service service;
    if (!service.start({"--database", dir.filePath("bench.sqlite")}))
        return 1;
    const QString token = prepareAccount(service, service.port(), service.port(), "relay-" + run + "@example.org");
    {
        Pipe host(true), client(true);
        if (!openRelay(host, client, token, service.port(), service.port(), service.port()))
            return 1;
        measurePair("one_instance", client, host, bytes, rounds, directP99);
        print("one_instance_host_to_client_throughput", throughput(host, client, bytes), "MB/s");
    }

    // Memory: the host reads 1000 bytes every 100 ms, the client floods.
    {
        waitUntil([] { return false; }, 1500);  // the last relay ends
        Pipe host(true), client(true);
        if (!openRelay(host, client, token, service.port(), service.port(), service.port()))
            return 1;
        host.reading = false;
        host.socket.setReadBufferSize(4096);
        QTimer slow;
        QObject::connect(&slow, &QTimer::timeout, [&host] { host.read(1000); });
        slow.start(100);
        const QByteArray chunk(64 * 1024, 'f');
        qint64 offered = 0;
        QTimer flood;
        QObject::connect(&flood, &QTimer::timeout, [&] {
            while (client.socket.bytesToWrite() < kClientBacklog) {
                client.send(chunk);
                offered += chunk.size();
            }
        });
        flood.start(10);
        waitUntil([] { return false; }, 2000);
        const qint64 before = residentKiB(service.pid());
        qint64 peak = before;
        QElapsedTimer timer;
        timer.start();
        while (timer.elapsed() < memorySeconds * 1000) {
            waitUntil([] { return false; }, 500);
            peak = qMax(peak, residentKiB(service.pid()));
        }
        const qint64 after = residentKiB(service.pid());
        print("slow_reader_service_rss_start", double(before), "KiB");
        print("slow_reader_service_rss_end", double(after), "KiB");
        print("slow_reader_service_rss_peak_growth", double(peak - before), "KiB");
        print("slow_reader_reader_rate", double(host.receivedBytes) / (memorySeconds + 2.0) / 1000.0, "kB/s");
        print("slow_reader_writer_offered", double(offered) / 1e6, "MB");
    }
    service.stop();

    // Two instances on PostgreSQL behind haproxy: the session is opened on
    // the first, the computer speaks to the second, both ends go through
    // haproxy to the instance the ticket names.
    QTemporaryDir pgDir;
    QFile::setPermissions(pgDir.path(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner | QFile::ExeGroup
                                            | QFile::ExeOther);
    Postgres postgres;
    if (!postgres.start(pgDir.path())) {
        std::fprintf(stderr, "the PostgreSQL cluster did not start\n");
        return 1;
    }
    Service first, second;
    Haproxy haproxy;
    if (!first.start({"--database", postgres.url(), "--instance-id", "one"})
        || !second.start({"--database", postgres.url(), "--instance-id", "two"})
        || !haproxy.start(pgDir.path(), {first.port(), second.port()}, {"one", "two"}))
        return 1;
    waitUntil([] { return false; }, 2500);  // haproxy's first health checks
    const QString shared = prepareAccount(first, first.port(), second.port(), "relay2-" + run + "@example.org");
    Pipe host(true), client(true);
    if (!openRelay(host, client, shared, first.port(), second.port(), haproxy.port()))
        return 1;
    measurePair("two_instances_haproxy", client, host, bytes, rounds, directP99);
    return 0;
}
