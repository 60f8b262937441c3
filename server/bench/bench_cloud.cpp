// Load on the cloud service: N concurrent clients (default 100) each sign
// in once, then alternate profile reads and sync writes over a kept-alive
// connection for the given time. Prints requests per second, p50 and p99
// latency and errors. The service runs as its own process, on SQLite by
// default or on the PostgreSQL URL given as third argument.
//
//   bench_cloud [seconds=30] [clients=100] [postgresql://...]
#include <QCoreApplication>
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
#include <vector>

namespace {

struct Stats
{
    std::vector<double> latenciesMs;
    int errors = 0;
};

// One kept-alive HTTP/1.1 connection that sends one request at a time.
class Client : public QObject
{
public:
    Client(quint16 port, QString email, int index, Stats &stats)
        : m_email(std::move(email)), m_index(index), m_stats(stats)
    {
        connect(&m_socket, &QTcpSocket::readyRead, this, [this] { onData(); });
        connect(&m_socket, &QTcpSocket::disconnected, this, [this] {
            if (m_running) {
                ++m_stats.errors;
                m_socket.connectToHost(QHostAddress::LocalHost, m_port);
                m_pending = true;
            }
        });
        connect(&m_socket, &QTcpSocket::connected, this, [this] {
            if (m_pending) {
                m_pending = false;
                next();
            }
        });
        m_port = port;
    }
    void start()
    {
        m_running = true;
        m_pending = true;
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
        if (m_token.isEmpty()) {
            send("POST", "/api/v3/account/login", {{"email", m_email}, {"password", "bench password"}});
        } else if (m_step++ % 2 == 0) {
            send("GET", "/api/v3/account/me");
        } else {
            send("PUT", "/api/v3/sync/items/bench/c" + QByteArray::number(m_index),
                 {{"base_revision", m_revision}, {"payload", QJsonObject{{"n", m_step}}}});
        }
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
        m_stats.latenciesMs.push_back(m_timer.nsecsElapsed() / 1e6);
        if (status != 200) {
            ++m_stats.errors;
        } else if (body.contains("access_token")) {
            m_token = body.value("access_token").toString().toLatin1();
        } else if (body.contains("item")) {
            m_revision = body.value("item").toObject().value("revision").toInteger();
        }
        next();
    }

    QTcpSocket m_socket;
    quint16 m_port = 0;
    QString m_email;
    int m_index;
    Stats &m_stats;
    QByteArray m_buffer;
    QByteArray m_token;
    qint64 m_revision = 0;
    int m_step = 0;
    bool m_running = false;
    bool m_pending = false;
    QElapsedTimer m_timer;
};

// A blocking request for the set-up, outside the measurement.
QJsonObject call(quint16 port, const QByteArray &path, const QJsonObject &body)
{
    QTcpSocket socket;
    socket.connectToHost(QHostAddress::LocalHost, port);
    if (!socket.waitForConnected(5000))
        return {};
    const QByteArray data = QJsonDocument(body).toJson(QJsonDocument::Compact);
    socket.write("POST " + path + " HTTP/1.1\r\nHost: x\r\nConnection: close\r\nContent-Length: "
                 + QByteArray::number(data.size()) + "\r\n\r\n" + data);
    QByteArray reply;
    static const QRegularExpression lengthLine(QStringLiteral("(?i)content-length:\\s*(\\d+)"));
    while (socket.waitForReadyRead(10000)) {
        reply += socket.readAll();
        const qsizetype end = reply.indexOf("\r\n\r\n");
        const qint64 length = lengthLine.match(QString::fromLatin1(reply.left(end))).captured(1).toLongLong();
        if (end >= 0 && reply.size() >= end + 4 + length)
            break;
    }
    return QJsonDocument::fromJson(reply.mid(reply.indexOf("\r\n\r\n") + 4)).object();
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    const int seconds = args.value(1, QStringLiteral("30")).toInt();
    const int clients = args.value(2, QStringLiteral("100")).toInt();
    const QString postgres = args.value(3);
    const int accounts = (clients + 9) / 10;

    QTemporaryDir dir;
    QProcess service;
    service.setProcessChannelMode(QProcess::SeparateChannels);
    service.setReadChannel(QProcess::StandardError);
    QStringList serviceArgs{"--listen", "127.0.0.1:0", "--log-level", "info", "--database",
                            postgres.isEmpty() ? dir.filePath("bench.sqlite") : postgres};
    service.start(QStringLiteral(TSL_CLOUD_BINARY), serviceArgs);
    QByteArray log;
    quint16 port = 0;
    QElapsedTimer waited;
    waited.start();
    const QRegularExpression listening(QStringLiteral("listening on 127\\.0\\.0\\.1:(\\d+)"));
    while (port == 0 && waited.elapsed() < 10000 && service.waitForReadyRead(200)) {
        log += service.readAllStandardError();
        port = quint16(listening.match(QString::fromUtf8(log)).captured(1).toUInt());
    }
    if (port == 0) {
        std::fprintf(stderr, "the service did not start\n%s\n", log.constData());
        return 1;
    }
    // Accounts, ten clients each, registered with the codes from the log.
    const QString run = QString::number(QDateTime::currentMSecsSinceEpoch());
    for (int a = 0; a < accounts; ++a) {
        const QString email = QStringLiteral("bench%1-%2@example.org").arg(a).arg(run);
        call(port, "/api/v3/account/register/code", {{"email", email}});
        const QRegularExpression codeLine(QStringLiteral("code for %1: (\\d+)").arg(QRegularExpression::escape(email)));
        QString code;
        for (int i = 0; i < 50 && code.isEmpty(); ++i) {
            service.waitForReadyRead(100);
            log += service.readAllStandardError();
            code = codeLine.match(QString::fromUtf8(log)).captured(1);
        }
        if (!call(port, "/api/v3/account/register",
                  {{"email", email}, {"password", "bench password"}, {"code", code}})
                 .value("status")
                 .toBool()) {
            std::fprintf(stderr, "could not register %s\n", qPrintable(email));
            return 1;
        }
    }
    // The request log would dominate; the service's log is drained and dropped.
    QObject::connect(&service, &QProcess::readyReadStandardError, [&service] { service.readAllStandardError(); });

    Stats stats;
    std::vector<std::unique_ptr<Client>> pool;
    for (int i = 0; i < clients; ++i)
        pool.push_back(std::make_unique<Client>(
            port, QStringLiteral("bench%1-%2@example.org").arg(i / 10).arg(run), i, stats));
    QElapsedTimer clock;
    clock.start();
    for (auto &client : pool)
        client->start();
    QTimer::singleShot(seconds * 1000, &app, [&] {
        for (auto &client : pool)
            client->stop();
        app.quit();
    });
    app.exec();
    const double elapsed = clock.nsecsElapsed() / 1e9;

    std::vector<double> sorted = stats.latenciesMs;
    std::sort(sorted.begin(), sorted.end());
    const auto percentile = [&](double p) {
        return sorted.empty() ? 0.0 : sorted[std::min(sorted.size() - 1, size_t(p * double(sorted.size())))];
    };
    const char *db = postgres.isEmpty() ? "sqlite" : "postgresql";
    std::printf("cloud_%s_requests_per_second %.0f req/s\n", db, double(sorted.size()) / elapsed);
    std::printf("cloud_%s_latency_p50 %.2f ms\n", db, percentile(0.50));
    std::printf("cloud_%s_latency_p99 %.2f ms\n", db, percentile(0.99));
    std::printf("cloud_%s_latency_max %.2f ms\n", db, sorted.empty() ? 0.0 : sorted.back());
    std::printf("cloud_%s_errors %d count\n", db, stats.errors);
    service.terminate();
    service.waitForFinished(5000);
    return 0;
}
