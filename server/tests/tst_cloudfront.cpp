// The service's front under hostile clients, the service running as its
// executable with small limits. While each attack runs, a well-behaved
// client on its own address and thread keeps asking for its profile and
// must get every answer, 99 in 100 within 200 ms.
#include "rawhttp.h"

#include <QFile>
#include <QJsonDocument>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr int kMaxConnections = 200;
constexpr int kMaxPerAddress = 40;
constexpr int kMaxBody = 64 * 1024;
const char *const kClientAddress = "127.0.0.2";

// A loopback socket from `from` (any of 127.0.0.0/8) to the service.
int connectFrom(const QByteArray &from, quint16 port, bool blocking)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | (blocking ? 0 : SOCK_NONBLOCK), 0);
    if (fd < 0)
        return -1;
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = ::inet_addr(from.constData());
    sockaddr_in remote{};
    remote.sin_family = AF_INET;
    remote.sin_port = htons(port);
    remote.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(fd, reinterpret_cast<sockaddr *>(&local), sizeof local) != 0
        || (::connect(fd, reinterpret_cast<sockaddr *>(&remote), sizeof remote) != 0 && errno != EINPROGRESS)) {
        ::close(fd);
        return -1;
    }
    return fd;
}

bool sendAll(int fd, const QByteArray &bytes)
{
    qsizetype sent = 0;
    while (sent < bytes.size()) {
        const ssize_t n = ::send(fd, bytes.constData() + sent, size_t(bytes.size() - sent), MSG_NOSIGNAL);
        if (n <= 0)
            return false;
        sent += n;
    }
    return true;
}

// Reads one whole answer (head and Content-Length body) within `timeoutMs`;
// empty when the connection closed first or nothing came in time.
QByteArray readAnswer(int fd, int timeoutMs, QByteArray &buffer)
{
    QElapsedTimer waited;
    waited.start();
    for (;;) {
        const qsizetype end = buffer.indexOf("\r\n\r\n");
        if (end >= 0) {
            static const QRegularExpression length(QStringLiteral("(?i)content-length:\\s*(\\d+)"));
            const qint64 bodyLength = length.match(QString::fromLatin1(buffer.left(end))).captured(1).toLongLong();
            if (buffer.size() >= end + 4 + bodyLength) {
                const QByteArray answer = buffer.left(end + 4 + bodyLength);
                buffer.remove(0, answer.size());
                return answer;
            }
        }
        const int left = timeoutMs - int(waited.elapsed());
        pollfd p{fd, POLLIN, 0};
        if (left <= 0 || ::poll(&p, 1, left) <= 0)
            return {};
        char chunk[16384];
        const ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
        if (n <= 0)
            return {};
        buffer.append(chunk, n);
    }
}

int statusOf(const QByteArray &answer)
{
    return answer.mid(9, 3).toInt();
}

// Asks for its profile over one kept-alive connection, one request at a
// time, 50 times a second. A connection the service closed between
// requests (an idle one making room) is opened again and the request
// repeated, as HTTP clients do; anything else is a failure.
class WellBehavedClient
{
public:
    WellBehavedClient(quint16 port, QByteArray token) : m_port(port), m_token(std::move(token)) {}
    ~WellBehavedClient() { stop(); }

    void start()
    {
        m_running = true;
        m_thread = std::thread([this] { run(); });
    }
    void stop()
    {
        m_running = false;
        if (m_thread.joinable())
            m_thread.join();
    }
    int answers() const { return m_answers.load(); }
    int failures() const { return m_failures; }
    double p99() const
    {
        std::vector<double> sorted = m_latenciesMs;
        std::sort(sorted.begin(), sorted.end());
        return sorted.empty() ? 0 : sorted[std::min(sorted.size() - 1, size_t(0.99 * double(sorted.size())))];
    }

private:
    void run()
    {
        const QByteArray request = "GET /api/v3/account/me HTTP/1.1\r\nHost: cloud\r\nAuthorization: Bearer " + m_token
                                   + "\r\n\r\n";
        int fd = -1;
        QByteArray buffer;
        while (m_running) {
            QElapsedTimer timer;
            timer.start();
            QByteArray answer;
            for (int attempt = 0; attempt < 2 && answer.isEmpty(); ++attempt) {
                if (fd < 0) {
                    fd = connectFrom(kClientAddress, m_port, true);
                    buffer.clear();
                }
                if (fd >= 0 && sendAll(fd, request))
                    answer = readAnswer(fd, 2000, buffer);
                if (answer.isEmpty() && fd >= 0) {
                    ::close(fd);
                    fd = -1;
                }
            }
            if (statusOf(answer) == 200)
                m_latenciesMs.push_back(timer.nsecsElapsed() / 1e6);
            else
                ++m_failures;
            ++m_answers;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        if (fd >= 0)
            ::close(fd);
    }

    quint16 m_port;
    QByteArray m_token;
    std::thread m_thread;
    std::atomic<bool> m_running{false};
    std::vector<double> m_latenciesMs;
    int m_failures = 0;
    std::atomic<int> m_answers{0};
};

// How many sockets the process `pid` holds.
int socketsOf(qint64 pid)
{
    const QDir fds(QStringLiteral("/proc/%1/fd").arg(pid));
    int sockets = 0;
    for (const QFileInfo &fd : fds.entryInfoList(QDir::System | QDir::NoDotAndDotDot))
        sockets += fd.symLinkTarget().contains(QLatin1String("socket:")) ? 1 : 0;
    return sockets;
}

qint64 residentKiB(qint64 pid)
{
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return 0;
    static const QRegularExpression rss(QStringLiteral("VmRSS:\\s+(\\d+)"));
    return rss.match(QString::fromLatin1(status.readAll())).captured(1).toLongLong();
}

// CPU time of the process `pid` so far, in clock ticks.
qint64 cpuTicks(qint64 pid)
{
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return 0;
    const QList<QByteArray> fields = stat.readAll().split(')').value(1).trimmed().split(' ');
    return fields.value(11).toLongLong() + fields.value(12).toLongLong();  // utime, stime
}

// Sockets that all get one treatment, then wait for what the service says.
struct Crowd
{
    QList<int> fds;
    QList<QByteArray> answers;

    ~Crowd() { closeAll(); }
    void open(quint16 port, int count, int perAddress, int firstAddress)
    {
        for (int i = 0; i < count; ++i) {
            const QByteArray from = "127.0.0." + QByteArray::number(firstAddress + i / perAddress);
            const int fd = connectFrom(from, port, false);
            if (fd >= 0)
                fds.append(fd);
        }
        answers.resize(fds.size());
    }
    void sendToAll(const QByteArray &bytes)
    {
        for (const int fd : std::as_const(fds))
            ::send(fd, bytes.constData(), size_t(bytes.size()), MSG_NOSIGNAL | MSG_DONTWAIT);
    }
    // Reads what arrived; true once every socket has an answer or was closed.
    bool collect()
    {
        bool all = true;
        for (qsizetype i = 0; i < fds.size(); ++i) {
            char chunk[4096];
            for (;;) {
                const ssize_t n = ::recv(fds[i], chunk, sizeof chunk, MSG_DONTWAIT);
                if (n > 0) {
                    answers[i].append(chunk, n);
                    continue;
                }
                if (n == 0 && answers[i].isEmpty())
                    answers[i] = "closed";
                break;
            }
            all = all && !answers[i].isEmpty();
        }
        return all;
    }
    int countAnswers(const QByteArray &start) const
    {
        return int(std::count_if(answers.cbegin(), answers.cend(), [&](const QByteArray &a) { return a.startsWith(start); }));
    }
    void closeAll()
    {
        for (const int fd : std::as_const(fds))
            ::close(fd);
        fds.clear();
    }
};

} // namespace

class TestCloudFront : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void init();
    void cleanup();

    void slowHeadsAndBodiesRunOutOfTime_data();
    void slowHeadsAndBodiesRunOutOfTime();
    void oversizedBodiesAreRefusedWhateverTheirHeaders();
    void headerFloodsAreCutOff();
    void idleConnectionsOfOneAddressAreCapped();
    void theConnectionCapHoldsAndIdleConnectionsMakeRoom();
    void nothingAPeerSendsStartsALogLine();
    void pipelinedRequestsAreAnsweredInOrderAndCloseIsHonoured();
    void atTheDescriptorLimitAcceptingRests();

private:
    bool startService(QProcess &process, const QString &logPath, const QStringList &extra, quint16 &port);
    QByteArray log() const;

    QTemporaryDir m_dir;
    QProcess m_service;
    quint16 m_port = 0;
    QByteArray m_token;
    std::unique_ptr<WellBehavedClient> m_client;
};

bool TestCloudFront::startService(QProcess &process, const QString &logPath, const QStringList &extra, quint16 &port)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.remove(QStringLiteral("QT_LOGGING_RULES"));
    process.setProcessEnvironment(environment);
    // The log goes to a file: a pipe nobody drains would stall the service.
    process.setStandardErrorFile(logPath);
    process.start(QStringLiteral(TSL_CLOUD_BINARY),
                  QStringList{"--listen", "127.0.0.1:0", "--database", m_dir.filePath("cloud.sqlite"), "--argon2-memory",
                              "256", "--argon2-passes", "1", "--max-connections", QString::number(kMaxConnections),
                              "--max-connections-per-address", QString::number(kMaxPerAddress), "--max-body",
                              QString::number(kMaxBody), "--head-timeout", "2", "--body-timeout", "2", "--idle-timeout",
                              "3"}
                      + extra);
    static const QRegularExpression listening(QStringLiteral("listening on 127\\.0\\.0\\.1:(\\d+)"));
    QElapsedTimer waited;
    waited.start();
    QFile file(logPath);
    while (waited.elapsed() < 10000 && process.state() != QProcess::NotRunning) {
        QTest::qWait(20);
        if (file.isOpen() || file.open(QIODevice::ReadOnly)) {
            file.seek(0);
            const QRegularExpressionMatch match = listening.match(QString::fromUtf8(file.readAll()));
            if (match.hasMatch()) {
                port = quint16(match.captured(1).toUInt());
                return true;
            }
        }
    }
    return false;
}

QByteArray TestCloudFront::log() const
{
    QFile file(m_dir.filePath(QStringLiteral("service.log")));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void TestCloudFront::initTestCase()
{
    // Thousands of sockets on this side too.
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    QVERIFY(startService(m_service, m_dir.filePath(QStringLiteral("service.log")), {}, m_port));

    QVERIFY(httpJson(m_port, "POST", "/api/v3/account/register/code", {{"email", "kit@example.org"}}).ok());
    static const QRegularExpression codeLine(QStringLiteral("registration code for kit@example\\.org: (\\d{6})"));
    QString code;
    QTRY_VERIFY_WITH_TIMEOUT(!(code = codeLine.match(QString::fromUtf8(log())).captured(1)).isEmpty(), 5000);
    const RawResponse registered = httpJson(m_port, "POST", "/api/v3/account/register",
                                            {{"email", "kit@example.org"}, {"password", "a good password"}, {"code", code}});
    QVERIFY2(registered.ok(), registered.body.constData());
    m_token = registered.json.value("access_token").toString().toLatin1();
}

void TestCloudFront::cleanupTestCase()
{
    m_service.terminate();
    QVERIFY(m_service.waitForFinished(10000));
}

void TestCloudFront::init()
{
    m_client = std::make_unique<WellBehavedClient>(m_port, m_token);
    m_client->start();
}

void TestCloudFront::cleanup()
{
    // Short attacks too see a few dozen answers go by.
    QTRY_VERIFY_WITH_TIMEOUT(m_client->answers() >= 20, 5000);
    m_client->stop();
    QCOMPARE(m_client->failures(), 0);
    QVERIFY2(m_client->p99() < 200, qPrintable(QStringLiteral("p99 %1 ms").arg(m_client->p99())));
    m_client.reset();
}

void TestCloudFront::slowHeadsAndBodiesRunOutOfTime_data()
{
    QTest::addColumn<QByteArray>("opening");
    QTest::newRow("head, a byte at a time") << QByteArray("G");
    QTest::newRow("body, a byte at a time")
        << QByteArray("POST /api/v3/account/login HTTP/1.1\r\nHost: x\r\nContent-Length: 1000\r\n\r\n{");
}

void TestCloudFront::slowHeadsAndBodiesRunOutOfTime()
{
    QFETCH(QByteArray, opening);
    Crowd crowd;
    crowd.open(m_port, 100, 25, 10);
    QTest::qWait(100);
    crowd.sendToAll(opening);
    // One more byte every 500 ms keeps each connection busy but slow; the
    // head or body time (2 s here) ends them with 408.
    QElapsedTimer elapsed;
    elapsed.start();
    while (!crowd.collect() && elapsed.elapsed() < 6000) {
        crowd.sendToAll("x");
        QTest::qWait(500);
    }
    QCOMPARE(crowd.countAnswers("HTTP/1.1 408 "), crowd.fds.size());
    QVERIFY(elapsed.elapsed() >= 1500);
    QVERIFY(crowd.answers.first().contains("\"code\":\"request_timeout\""));
}

void TestCloudFront::oversizedBodiesAreRefusedWhateverTheirHeaders()
{
    const qint64 before = residentKiB(m_service.processId());
    const QByteArray upgrade = "Upgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Version: 13\r\n";
    Crowd declared;
    declared.open(m_port, 40, 20, 10);
    Crowd streamed;
    streamed.open(m_port, 40, 20, 12);
    QTest::qWait(100);
    for (qsizetype i = 0; i < declared.fds.size(); ++i)
        sendAll(declared.fds[i], "POST /api/v3/sync/items/a/b HTTP/1.1\r\nHost: x\r\n" + (i % 2 ? upgrade : QByteArray())
                                     + "Content-Length: 200000000\r\n\r\n");
    // Chunks without end, with and without Upgrade: cut off at the cap.
    for (qsizetype i = 0; i < streamed.fds.size(); ++i)
        sendAll(streamed.fds[i], "PUT /api/v3/sync/items/a/b HTTP/1.1\r\nHost: x\r\n" + (i % 2 ? upgrade : QByteArray())
                                     + "Transfer-Encoding: chunked\r\n\r\n");
    const QByteArray chunk = "4000\r\n" + QByteArray(0x4000, 'z') + "\r\n";
    QElapsedTimer elapsed;
    elapsed.start();
    while (!(declared.collect() & streamed.collect()) && elapsed.elapsed() < 5000) {
        streamed.sendToAll(chunk);
        QTest::qWait(20);
    }
    QCOMPARE(declared.countAnswers("HTTP/1.1 413 "), declared.fds.size());
    QCOMPARE(streamed.countAnswers("HTTP/1.1 413 "), streamed.fds.size());
    // Nothing of it was kept: at most the caps' worth passed through.
    QVERIFY2(residentKiB(m_service.processId()) - before < 32 * 1024,
             qPrintable(QStringLiteral("%1 KiB more").arg(residentKiB(m_service.processId()) - before)));
}

void TestCloudFront::headerFloodsAreCutOff()
{
    Crowd crowd;
    crowd.open(m_port, 60, 20, 10);
    QTest::qWait(100);
    QByteArray flood = "GET / HTTP/1.1\r\nHost: x\r\n";
    for (int i = 0; i < 20; ++i)
        flood += "X-Flood-" + QByteArray::number(i) + ": " + QByteArray(1000, 'f') + "\r\n";
    crowd.sendToAll(flood);
    QTRY_VERIFY_WITH_TIMEOUT(crowd.collect(), 5000);
    QCOMPARE(crowd.countAnswers("HTTP/1.1 431 "), crowd.fds.size());
}

void TestCloudFront::idleConnectionsOfOneAddressAreCapped()
{
    // 2000 connections from one address: its first 40 are taken (and
    // closed after the head time), every further one is turned away at once.
    // They come a batch at a time, fewer than the listen queue holds: a
    // handshake the kernel drops would wait for the client's retry, seconds
    // later on a busy machine.
    constexpr int kBatch = 250;
    Crowd crowd;
    for (int opened = kBatch; opened <= 2000; opened += kBatch) {
        crowd.open(m_port, kBatch, 2000, 10);
        QTRY_VERIFY_WITH_TIMEOUT((crowd.collect(), crowd.countAnswers("HTTP/1.1 503 ") >= opened - kMaxPerAddress),
                                 10000);
    }
    crowd.collect();
    QCOMPARE(crowd.countAnswers("HTTP/1.1 503 "), 2000 - kMaxPerAddress);
    QVERIFY(crowd.answers.last().contains("too_many_connections"));
    QVERIFY(socketsOf(m_service.processId()) <= kMaxPerAddress + 2);  // those, the client's, the listener
}

void TestCloudFront::theConnectionCapHoldsAndIdleConnectionsMakeRoom()
{
    // Idle connections from many addresses, each under its own cap, more
    // than the service takes: exactly the cap is open, the rest wait.
    Crowd crowd;
    crowd.open(m_port, 300, 30, 10);
    QTest::qWait(500);
    const int sockets = socketsOf(m_service.processId());
    QVERIFY2(sockets <= kMaxConnections + 1, qPrintable(QString::number(sockets)));  // the listener besides
    QVERIFY2(sockets >= kMaxConnections - 5, qPrintable(QString::number(sockets)));
    // A new client gets in at once: the longest idle connection makes room.
    QElapsedTimer elapsed;
    elapsed.start();
    QCOMPARE(rawExchange(m_port, "GET /healthz HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n", 2000,
                         QHostAddress(QStringLiteral("127.0.0.3")))
                 .status,
             200);
    QVERIFY(elapsed.elapsed() < 1000);
}

void TestCloudFront::nothingAPeerSendsStartsALogLine()
{
    const QByteArray forged = "2026-01-01T00:00:00.000Z info cloud.http: forged";
    const RawResponse reply = rawExchange(
        m_port, "GET /api/v3/x%0A" + QByteArray(forged).replace(' ', "%20") + " HTTP/1.1\r\nHost: x\r\n\r\n");
    QCOMPARE(reply.status, 404);
    QTRY_VERIFY_WITH_TIMEOUT(log().contains("/api/v3/x\\x0a2026-01-01"), 5000);
    for (const QByteArray &line : log().split('\n'))
        QVERIFY2(!line.startsWith(forged), line.constData());
}

void TestCloudFront::pipelinedRequestsAreAnsweredInOrderAndCloseIsHonoured()
{
    const int fd = connectFrom("127.0.0.3", m_port, true);
    QVERIFY(fd >= 0);
    // Three at once, the slow one (a database read) first.
    QVERIFY(sendAll(fd, "GET /api/v3/account/me HTTP/1.1\r\nHost: x\r\nAuthorization: Bearer " + m_token + "\r\n\r\n"
                        "GET /api/v3/nothing HTTP/1.1\r\nHost: x\r\n\r\n"
                        "GET /healthz HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n"
                        "GET /healthz HTTP/1.1\r\nHost: x\r\n\r\n"));
    QByteArray buffer;
    QCOMPARE(statusOf(readAnswer(fd, 2000, buffer)), 200);
    QCOMPARE(statusOf(readAnswer(fd, 2000, buffer)), 404);
    const QByteArray last = readAnswer(fd, 2000, buffer);
    QCOMPARE(statusOf(last), 200);
    QVERIFY(last.contains("Connection: close\r\n"));
    // Nothing after the request that asked to close; the connection ends.
    QElapsedTimer elapsed;
    elapsed.start();
    QVERIFY(readAnswer(fd, 2000, buffer).isEmpty());
    QVERIFY(buffer.isEmpty());
    QVERIFY(elapsed.elapsed() < 1000);
    ::close(fd);
}

void TestCloudFront::atTheDescriptorLimitAcceptingRests()
{
    // A second service allowed 100 descriptors, with a cap of 200.
    QProcess limited;
    limited.setChildProcessModifier([] {
        rlimit limit{100, 100};
        ::setrlimit(RLIMIT_NOFILE, &limit);
    });
    const QString logPath = m_dir.filePath(QStringLiteral("limited.log"));
    quint16 port = 0;
    QVERIFY(startService(limited, logPath, {"--database", m_dir.filePath("limited.sqlite")}, port));
    QFile logFile(logPath);
    QVERIFY(logFile.open(QIODevice::ReadOnly));
    QVERIFY(logFile.readAll().contains("this process may open 100 files, but 200 connections need"));

    Crowd crowd;
    crowd.open(port, 150, 30, 20);
    QTest::qWait(500);
    // Out of descriptors it rests instead of spinning.
    const qint64 before = cpuTicks(limited.processId());
    QTest::qWait(2000);
    const qint64 ticks = cpuTicks(limited.processId()) - before;
    QVERIFY2(ticks < sysconf(_SC_CLK_TCK) / 5, qPrintable(QStringLiteral("%1 ticks in 2 s").arg(ticks)));
    // Once connections go, it answers again.
    crowd.closeAll();
    QCOMPARE(rawExchange(port, "GET /healthz HTTP/1.1\r\nHost: x\r\n\r\n", 3000).status, 200);
    limited.terminate();
    QVERIFY(limited.waitForFinished(10000));
}

QTEST_GUILESS_MAIN(TestCloudFront)
#include "tst_cloudfront.moc"
