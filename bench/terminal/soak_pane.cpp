// Hostile load and bad input against one port pane (offscreen), on loopback
// and pseudo-terminals only, each scenario bounded in time. Prints one figure
// per line: name, value, unit. Run through scripts/soak.sh, not by CI.
//
//   soak_pane <scenario> [--seconds N]
//     churn      TCP server, clients that connect, send and close, fast
//     storm200   TCP server, 200 clients at once that connect, write 1-4
//                blocks of up to 4 KiB and close, again and again
//     storm1000  the same with 1000 clients
//     allclients TCP server sending to all clients while one never reads
//     udp        UDP server flooded from thousands of source ports
//     noread     TCP client whose peer never reads, auto send every 1 ms
//     serial     a pseudo-terminal written as fast as it goes, log on
//     disk       the data log on a disk that fills up and frees again
//     settings   the program started on damaged stored settings
//     encodings  random bytes without line ends in every receive encoding
//
// The same executable plays the far side when started with --peer.
#include "support/benchsupport.h"
#include "support/loopback.h"
#include "common/appidentity.h"
#include "connection/connectioncontroller.h"
#include "terminal/portsession.h"
#include "terminal/serialportwidget.h"

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTextStream>
#include <QTimer>
#include <QUdpSocket>

#include <arpa/inet.h>
#include <csignal>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

using BenchSupport::boundPort;
using BenchSupport::loopbackSocket;
using BenchSupport::procStatusKiB;
using BenchSupport::runUntil;


QTextStream &out()
{
    static QTextStream stream(stdout);
    return stream;
}

void report(const QString &name, double value, const char *unit)
{
    out() << name << ' ' << QString::number(value, 'f', 2) << ' ' << unit << Qt::endl;
}

double rssMiB() { return double(procStatusKiB("VmRSS:")) / 1024.0; }
double peakRssMiB() { return double(procStatusKiB("VmHWM:")) / 1024.0; }

quint16 freePort(bool udp)
{
    if (udp) {
        QUdpSocket probe;
        probe.bind(QHostAddress::LocalHost, 0);
        return probe.localPort();
    }
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    return probe.serverPort();
}

// The longest gap between ticks of a 1 ms timer: how long the event loop
// did not answer.
class StallProbe
{
public:
    StallProbe()
    {
        m_timer.setTimerType(Qt::PreciseTimer);
        QObject::connect(&m_timer, &QTimer::timeout, [this] {
            const qint64 now = m_clock.elapsed();
            const qint64 gap = now - m_last;
            if (gap > m_longest) {
                m_longest = gap;
                m_longestAt = m_last;
            }
            if (gap > 50) {
                ++m_over50;
                // Each stall's start on the monotonic clock, to line it up
                // with `perf record -k CLOCK_MONOTONIC` samples.
                if (qEnvironmentVariableIsSet("TSL_STALL_TRACE"))
                    std::fprintf(stderr, "STALL %lld %lld\n", static_cast<long long>(m_clock.msecsSinceReference() + m_last), static_cast<long long>(gap));
            }
            m_last = now;
        });
        m_clock.start();
        m_timer.start(1);
    }
    qint64 longestMs() const { return m_longest; }
    // When the longest stall began, in ms since the probe started.
    qint64 longestAtMs() const { return m_longestAt; }
    int stallsOver50Ms() const { return m_over50; }

private:
    QTimer m_timer;
    QElapsedTimer m_clock;
    qint64 m_last = 0;
    qint64 m_longest = 0;
    qint64 m_longestAt = 0;
    int m_over50 = 0;
};

void runFor(qint64 ms)
{
    runUntil([] { return false; }, ms);
}

QByteArray asciiPayload(int size)
{
    QByteArray data(size, Qt::Uninitialized);
    auto *random = QRandomGenerator::global();
    for (int i = 0; i < size; ++i)
        data[i] = (i % 64 == 63) ? '\n' : char('a' + random->bounded(26));
    return data;
}

qint64 logBodyBytes(const QString &path)
{
    // Past the five header lines; the body is not read (it can be hundreds
    // of megabytes, and reading it would show up in the peak RSS).
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return -1;
    for (int i = 0; i < 5 && !file.atEnd(); ++i)
        file.readLine();
    return file.size() - file.pos();
}

SerialPortWidget *makePane(const ConnectionConfig &config, const PaneOptions &options)
{
    auto *pane = new SerialPortWidget(1);
    pane->resize(1280, 800);
    pane->show();
    pane->applySettings(config, options, {});
    return pane;
}

QProcess *startPeer(const QString &self, const QStringList &args)
{
    auto *peer = new QProcess;
    peer->setProcessChannelMode(QProcess::ForwardedErrorChannel);
    peer->start(self, QStringList{QStringLiteral("--peer")} + args);
    peer->waitForStarted(5000);
    return peer;
}

// ------------------------------------------------------------ far sides

// Workers that connect, send up to 16 KB of text and close, for a while.
int peerChurn(quint16 port, int seconds, int rate, int workers)
{
    for (int w = 0; w < workers; ++w) {
        if (::fork() != 0)
            continue;
        qint64 sent = 0, refused = 0, connects = 0;
        const QByteArray block = asciiPayload(16 * 1024);
        QElapsedTimer clock;
        clock.start();
        const qint64 gapNs = 1000000000LL * workers / qMax(rate, 1);
        while (clock.elapsed() < seconds * 1000) {
            const qint64 startedNs = clock.nsecsElapsed();
            const int fd = loopbackSocket(SOCK_STREAM, port, false);
            if (fd < 0) {
                ++refused;
            } else {
                ++connects;
                const int size = 1 + QRandomGenerator::global()->bounded(block.size());
                const ssize_t n = ::send(fd, block.constData(), size_t(size), MSG_NOSIGNAL);
                if (n > 0)
                    sent += n;
                ::shutdown(fd, SHUT_WR);
                ::close(fd);
            }
            const qint64 left = gapNs - (clock.nsecsElapsed() - startedNs);
            if (left > 0)
                ::usleep(useconds_t(left / 1000));
        }
        std::printf("%lld %lld %lld\n", static_cast<long long>(sent), static_cast<long long>(refused),
                    static_cast<long long>(connects));
        std::fflush(stdout);
        ::_exit(0);
    }
    int status = 0;
    while (::wait(&status) > 0) {
    }
    return 0;
}

// `clients` connections kept in flight at once, spread over four workers:
// each connects, writes 1-4 blocks of up to 4 KiB and closes, then starts
// again at once, for a while. A connect that takes over 5 s counts as timed
// out. Prints bytes sent, connects refused or timed out, and connects made.
int peerStorm(quint16 port, int seconds, int clients)
{
    constexpr int kWorkers = 4;
    for (int w = 0; w < kWorkers; ++w) {
        if (::fork() != 0)
            continue;
        struct Conn
        {
            int fd = -1;
            QByteArray data;
            qsizetype done = 0;
            bool connecting = false;
            qint64 startedMs = 0;
        };
        const int mine = clients / kWorkers + (w < clients % kWorkers ? 1 : 0);
        std::vector<Conn> conns(size_t(qMax(mine, 1)));
        const sockaddr_in address = BenchSupport::loopbackAddress(port);
        const QByteArray text = asciiPayload(4 * 4096);
        qint64 sent = 0, failed = 0, connects = 0;
        QElapsedTimer clock;
        clock.start();
        auto open = [&](Conn &c) {
            c.fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
            c.data.clear();
            const int blocks = 1 + QRandomGenerator::global()->bounded(4);
            for (int b = 0; b < blocks; ++b)
                c.data += text.mid(b * 4096, 1 + QRandomGenerator::global()->bounded(4096));
            c.done = 0;
            c.connecting = true;
            c.startedMs = clock.elapsed();
            if (::connect(c.fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 && errno != EINPROGRESS) {
                ++failed;
                ::close(c.fd);
                c.fd = -1;
            }
        };
        const qint64 endMs = qint64(seconds) * 1000;
        for (Conn &c : conns)
            open(c);
        std::vector<pollfd> polls;
        while (true) {
            const bool stopping = clock.elapsed() >= endMs;
            polls.clear();
            bool busy = false;
            for (Conn &c : conns) {
                if (c.fd < 0 && !stopping)
                    open(c);
                if (c.fd >= 0)
                    busy = true;
                polls.push_back(pollfd{c.fd, POLLOUT, 0});
            }
            if (!busy)
                break;
            ::poll(polls.data(), nfds_t(polls.size()), 100);
            for (size_t i = 0; i < conns.size(); ++i) {
                Conn &c = conns[i];
                if (c.fd < 0)
                    continue;
                if (c.connecting && clock.elapsed() - c.startedMs > 5000) {
                    ++failed;  // neither accepted nor refused in time
                    ::close(c.fd);
                    c.fd = -1;
                    continue;
                }
                if (!(polls[i].revents & (POLLOUT | POLLERR | POLLHUP)))
                    continue;
                if (c.connecting) {
                    int error = 0;
                    socklen_t length = sizeof error;
                    ::getsockopt(c.fd, SOL_SOCKET, SO_ERROR, &error, &length);
                    if (error != 0) {
                        ++failed;
                        ::close(c.fd);
                        c.fd = -1;
                        continue;
                    }
                    c.connecting = false;
                    ++connects;
                }
                const ssize_t n = ::send(c.fd, c.data.constData() + c.done, size_t(c.data.size() - c.done), MSG_NOSIGNAL);
                if (n > 0) {
                    c.done += n;
                    sent += n;
                }
                if (c.done == c.data.size() || (n < 0 && errno != EAGAIN)) {
                    ::shutdown(c.fd, SHUT_WR);
                    ::close(c.fd);
                    c.fd = -1;
                }
            }
        }
        std::printf("%lld %lld %lld\n", static_cast<long long>(sent), static_cast<long long>(failed),
                    static_cast<long long>(connects));
        std::fflush(stdout);
        ::_exit(0);
    }
    int status = 0;
    while (::wait(&status) > 0) {
    }
    return 0;
}

// Connects twice: the first client never reads, the second reads and
// counts; prints what the second got once nothing came for 2 s.
int peerReaders(quint16 port)
{
    const int stuck = loopbackSocket(SOCK_STREAM, port, false);
    const int small = 4096;
    ::setsockopt(stuck, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    const int reader = loopbackSocket(SOCK_STREAM, port, false);
    if (stuck < 0 || reader < 0)
        return 1;
    std::printf("ready\n");
    std::fflush(stdout);
    qint64 got = 0, longestGapMs = 0;
    QElapsedTimer sinceLast, clock;
    sinceLast.start();
    clock.start();
    QByteArray buffer(64 * 1024, Qt::Uninitialized);
    while (true) {
        pollfd p{reader, POLLIN, 0};
        if (::poll(&p, 1, 2000) <= 0) {
            if (got > 0)
                break;
            continue;
        }
        const ssize_t n = ::read(reader, buffer.data(), size_t(buffer.size()));
        if (n <= 0)
            break;
        if (got > 0)
            longestGapMs = qMax(longestGapMs, sinceLast.elapsed());
        sinceLast.restart();
        got += n;
    }
    std::printf("%lld %lld\n", static_cast<long long>(got), static_cast<long long>(longestGapMs));
    std::fflush(stdout);
    return 0;
}

// Datagrams from many source ports, round robin, at a rate.
int peerUdpFlood(quint16 port, int seconds, int rate, int sources)
{
    QList<int> sockets;
    for (int i = 0; i < sources; ++i) {
        const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
        if (fd >= 0)
            sockets.append(fd);
    }
    const sockaddr_in address = BenchSupport::loopbackAddress(port);
    const QByteArray block = asciiPayload(8 * 1024);
    qint64 datagrams = 0, bytes = 0;
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < seconds * 1000 && !sockets.isEmpty()) {
        const int fd = sockets.at(int(datagrams % sockets.size()));
        const int size = 1 + QRandomGenerator::global()->bounded(block.size());
        if (::sendto(fd, block.constData(), size_t(size), 0, reinterpret_cast<const sockaddr *>(&address), sizeof address) > 0) {
            ++datagrams;
            bytes += size;
        }
        const qint64 due = datagrams * 1000000LL / qMax(rate, 1);
        const qint64 now = clock.nsecsElapsed() / 1000;
        if (due > now)
            ::usleep(useconds_t(due - now));
    }
    std::printf("%lld %lld\n", static_cast<long long>(datagrams), static_cast<long long>(bytes));
    return 0;
}

// Accepts clients and never reads from them.
int peerSink()
{
    const int listener = loopbackSocket(SOCK_STREAM, 0, true, 4);
    std::printf("%d\n", boundPort(listener));
    std::fflush(stdout);
    QList<int> clients;
    for (;;) {
        const int client = ::accept(listener, nullptr, nullptr);
        if (client >= 0)
            clients.append(client);
    }
}

// Writes text (or, with "random", any bytes and no line ends) to a file
// or to the first TCP client, for a time or a byte count, then prints the count.
int peerSource(const QString &target, const QString &kind, qint64 limitBytes, int seconds, qint64 bytesPerSecond)
{
    int fd = -1;
    if (target == QLatin1String("tcp")) {
        const int listener = loopbackSocket(SOCK_STREAM, 0, true);
        std::printf("%d\n", boundPort(listener));
        std::fflush(stdout);
        fd = ::accept(listener, nullptr, nullptr);
    } else {
        fd = ::open(target.toLocal8Bit().constData(), O_WRONLY | O_NOCTTY);
        std::printf("0\n");
        std::fflush(stdout);
    }
    if (fd < 0)
        return 1;
    QByteArray block;
    if (kind == QLatin1String("random")) {
        block.resize(64 * 1024);
        QRandomGenerator::global()->fillRange(reinterpret_cast<quint32 *>(block.data()), block.size() / 4);
        block.replace('\n', 'n').replace('\r', 'r');
    } else {
        block = asciiPayload(64 * 1024);
    }
    qint64 sent = 0;
    QElapsedTimer clock;
    clock.start();
    while ((limitBytes <= 0 || sent < limitBytes) && (seconds <= 0 || clock.elapsed() < seconds * 1000)) {
        const qint64 n = limitBytes > 0 ? qMin<qint64>(block.size(), limitBytes - sent) : block.size();
        const ssize_t w = ::write(fd, block.constData(), size_t(n));
        if (w <= 0)
            break;
        sent += w;
        if (bytesPerSecond > 0) {
            const qint64 due = sent * 1000 / bytesPerSecond;
            if (due > clock.elapsed())
                ::usleep(useconds_t((due - clock.elapsed()) * 1000));
        }
    }
    std::fprintf(stderr, "source sent %lld\n", static_cast<long long>(sent));
    std::printf("%lld\n", static_cast<long long>(sent));
    std::fflush(stdout);
    ::shutdown(fd, SHUT_WR);
    ::sleep(1);
    ::close(fd);
    return 0;
}

int runPeer(const QStringList &a)
{
    const QString kind = a.value(0);
    if (kind == QLatin1String("churn"))
        return peerChurn(quint16(a.value(1).toInt()), a.value(2).toInt(), a.value(3).toInt(), a.value(4).toInt());
    if (kind == QLatin1String("udp"))
        return peerUdpFlood(quint16(a.value(1).toInt()), a.value(2).toInt(), a.value(3).toInt(), a.value(4).toInt());
    if (kind == QLatin1String("sink"))
        return peerSink();
    if (kind == QLatin1String("storm"))
        return peerStorm(quint16(a.value(1).toInt()), a.value(2).toInt(), a.value(3).toInt());
    if (kind == QLatin1String("readers"))
        return peerReaders(quint16(a.value(1).toInt()));
    if (kind == QLatin1String("source"))
        return peerSource(a.value(1), a.value(2), a.value(3).toLongLong(), a.value(4).toInt(), a.value(5).toLongLong());
    return 2;
}

// ------------------------------------------------------------ scenarios

struct Run
{
    QString self;
    int seconds = 30;
};

int churn(const Run &run)
{
    QTemporaryDir logs;
    const quint16 port = freePort(false);
    ConnectionConfig config;
    config.mode = ConnectionMode::TcpServer;
    config.targetPort = port;
    PaneOptions options;
    options.logSaveFlag = true;
    options.logFilePath = logs.path();
    options.logTimestampEnabled = false;
    options.displaySendMsg = false;
    std::unique_ptr<SerialPortWidget> pane(makePane(config, options));
    const double rssBefore = rssMiB();
    StallProbe probe;
    pane->openConnection();
    const QString logPath = pane->currentLogFile();
    std::unique_ptr<QProcess> peer(startPeer(run.self, {"churn", QString::number(port), QString::number(run.seconds),
                                                        "330", "8"}));
    runUntil([&] { return peer->state() == QProcess::NotRunning; }, run.seconds * 1000 + 30000);
    qint64 sent = 0, refused = 0, connects = 0;
    for (const QByteArray &line : peer->readAllStandardOutput().split('\n')) {
        const QList<QByteArray> f = line.split(' ');
        if (f.size() == 3) {
            sent += f.at(0).toLongLong();
            refused += f.at(1).toLongLong();
            connects += f.at(2).toLongLong();
        }
    }
    runUntil([&] { return qint64(pane->rxCount()) >= sent && pane->controller()->serverClientCount() == 0; }, 30000);
    runFor(500);
    const qint64 stall = probe.longestMs();
    pane->closeConnection();
    report("churn_connects", double(connects), "connections");
    report("churn_connects_refused", double(refused), "connections");
    report("churn_longest_stall", double(stall), "ms");
    report("churn_bytes_sent", double(sent), "bytes");
    report("churn_bytes_received", double(pane->rxCount()), "bytes");
    report("churn_bytes_logged", double(logBodyBytes(logPath)), "bytes");
    report("churn_rss_start", rssBefore, "MiB");
    report("churn_rss_end", rssMiB(), "MiB");
    report("churn_peak_rss", peakRssMiB(), "MiB");
    return 0;
}

// Sockets of this process in CLOSE_WAIT on the given local port.
int closeWaitCount(quint16 port)
{
    int count = 0;
    for (const char *table : {"/proc/net/tcp", "/proc/net/tcp6"}) {
        QFile file(QString::fromLatin1(table));
        if (!file.open(QIODevice::ReadOnly))
            continue;
        file.readLine();
        while (!file.atEnd()) {
            const QList<QByteArray> f = file.readLine().simplified().split(' ');
            if (f.size() > 3 && f.at(3) == "08" && QString::fromLatin1(f.at(1)).section(QLatin1Char(':'), -1).toUInt(nullptr, 16) == port)
                ++count;
        }
    }
    return count;
}

int storm(const Run &run, int clients)
{
    rlimit files{};
    getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
    QTemporaryDir logs;
    const quint16 port = freePort(false);
    ConnectionConfig config;
    config.mode = ConnectionMode::TcpServer;
    config.targetPort = port;
    PaneOptions options;
    options.logSaveFlag = true;
    options.logFilePath = logs.path();
    options.logTimestampEnabled = false;
    options.displaySendMsg = false;
    std::unique_ptr<SerialPortWidget> pane(makePane(config, options));
    const double rssBefore = rssMiB();
    StallProbe probe;
    pane->openConnection();
    const QString logPath = pane->currentLogFile();
    const QString name = QStringLiteral("storm%1").arg(clients);
    std::unique_ptr<QProcess> peer(startPeer(run.self, {"storm", QString::number(port), QString::number(run.seconds),
                                                        QString::number(clients)}));
    int peakCloseWait = 0;
    QElapsedTimer sampled;
    sampled.start();
    runUntil([&] {
        if (sampled.elapsed() > 500) {
            peakCloseWait = qMax(peakCloseWait, closeWaitCount(port));
            sampled.restart();
        }
        return peer->state() == QProcess::NotRunning;
    }, run.seconds * 1000 + 30000);
    const qint64 stormStall = probe.longestMs();
    const int stallsOver50 = probe.stallsOver50Ms();
    qint64 sent = 0, failed = 0, connects = 0;
    for (const QByteArray &line : peer->readAllStandardOutput().split('\n')) {
        const QList<QByteArray> f = line.split(' ');
        if (f.size() == 3) {
            sent += f.at(0).toLongLong();
            failed += f.at(1).toLongLong();
            connects += f.at(2).toLongLong();
        }
    }
    QElapsedTimer after;
    after.start();
    runUntil([&] { return qint64(pane->rxCount()) >= sent && pane->pendingDisplayBytes() == 0; }, 60000);
    const qint64 shownAfter = after.elapsed();
    const double rssAtEnd = rssMiB();
    runFor(10000 - qMin<qint64>(after.elapsed(), 10000));
    const double rssIdle = rssMiB();
    pane->closeConnection();  // writes what the log holds
    report(name + "_connects", double(connects), "connections");
    report(name + "_connects_failed", double(failed), "connections");
    report(name + "_longest_stall", double(stormStall), "ms");
    report(name + "_stalls_over_50ms", double(stallsOver50), "times");
    report(name + "_backlog_shown_after", double(shownAfter), "ms");
    report(name + "_bytes_sent", double(sent), "bytes");
    report(name + "_bytes_received", double(pane->rxCount()), "bytes");
    report(name + "_bytes_logged", double(logBodyBytes(logPath)), "bytes");
    report(name + "_peak_close_wait", double(peakCloseWait), "sockets");
    report(name + "_rss_start", rssBefore, "MiB");
    report(name + "_rss_storm_end", rssAtEnd, "MiB");
    report(name + "_rss_10s_after", rssIdle, "MiB");
    report(name + "_peak_rss", peakRssMiB(), "MiB");
    return 0;
}

// "All clients" with one client that never reads: the one that reads must
// keep receiving.
int allClients(const Run &run)
{
    const quint16 port = freePort(false);
    ConnectionConfig config;
    config.mode = ConnectionMode::TcpServer;
    config.targetPort = port;
    PaneOptions options;
    options.displaySendMsg = false;
    std::unique_ptr<SerialPortWidget> pane(makePane(config, options));
    pane->openConnection();
    std::unique_ptr<QProcess> peer(startPeer(run.self, {"readers", QString::number(port)}));
    peer->waitForReadyRead(5000);
    peer->readLine();
    runUntil([&] { return pane->controller()->serverClientCount() == 2; }, 5000);
    const QByteArray block(16 * 1024, 'z');
    qint64 accepted = 0, refused = 0;
    QElapsedTimer clock;
    clock.start();
    runUntil([&] {
        if (pane->session()->sendBytes(block, false))
            accepted += block.size();
        else
            ++refused;
        return clock.elapsed() > run.seconds * 1000;
    }, run.seconds * 1000 + 5000);
    runUntil([&] { return peer->state() == QProcess::NotRunning; }, 30000);
    const QList<QByteArray> f = peer->readAllStandardOutput().trimmed().split(' ');
    report("allclients_bytes_accepted", double(accepted), "bytes");
    report("allclients_sends_refused", double(refused), "sends");
    report("allclients_reader_received", f.value(0).toDouble(), "bytes");
    report("allclients_reader_longest_gap", f.value(1).toDouble(), "ms");
    pane->closeConnection();
    return 0;
}

int udpFlood(const Run &run)
{
    const quint16 port = freePort(true);
    ConnectionConfig config;
    config.mode = ConnectionMode::UdpServer;
    config.udpLocalPort = port;
    PaneOptions options;
    options.displaySendMsg = false;
    std::unique_ptr<SerialPortWidget> pane(makePane(config, options));
    StallProbe probe;
    pane->openConnection();
    std::unique_ptr<QProcess> peer(startPeer(run.self, {"udp", QString::number(port), QString::number(run.seconds),
                                                        "1600", "20000"}));
    int peakPeers = 0;
    runUntil([&] {
        peakPeers = qMax(peakPeers, int(pane->controller()->udpPeers().size()));
        return peer->state() == QProcess::NotRunning;
    }, run.seconds * 1000 + 30000);
    const QList<QByteArray> f = peer->readAllStandardOutput().trimmed().split(' ');
    const qint64 bytes = f.value(1).toLongLong();
    runUntil([&] { return qint64(pane->rxCount()) >= bytes; }, 5000);
    report("udp_longest_stall", double(probe.longestMs()), "ms");
    report("udp_datagrams_sent", f.value(0).toDouble(), "datagrams");
    report("udp_bytes_sent", double(bytes), "bytes");
    report("udp_bytes_received", double(pane->rxCount()), "bytes");
    report("udp_peak_peer_table", peakPeers, "peers");
    report("udp_peak_rss", peakRssMiB(), "MiB");
    pane->closeConnection();
    return 0;
}

int noRead(const Run &run)
{
    std::unique_ptr<QProcess> peer(startPeer(run.self, {"sink"}));
    peer->waitForReadyRead(5000);
    ConnectionConfig config;
    config.mode = ConnectionMode::TcpClient;
    config.targetPort = peer->readLine().trimmed().toInt();
    PaneOptions options;
    options.displaySendMsg = false;
    options.autoSend = true;
    options.sendInterval = 1;
    std::unique_ptr<SerialPortWidget> pane(makePane(config, options));
    pane->setSendText(QString(64 * 1024, u'x'));
    pane->openConnection();
    runUntil([&] { return pane->isConnectionOpen(); }, 5000);
    pane->session()->restartAutoSend();
    qint64 peakBacklog = 0;
    double rssAfterWarmup = 0;
    QElapsedTimer clock;
    clock.start();
    runUntil([&] {
        peakBacklog = qMax(peakBacklog, pane->controller()->bytesToWrite());
        if (rssAfterWarmup == 0 && clock.elapsed() > run.seconds * 250)
            rssAfterWarmup = rssMiB();
        return clock.elapsed() > run.seconds * 1000;
    }, run.seconds * 1000 + 5000);
    report("noread_peak_backlog", double(peakBacklog) / 1048576.0, "MiB");
    report("noread_tx_counted", double(pane->txCount()), "bytes");
    report("noread_rss_after_warmup", rssAfterWarmup, "MiB");
    report("noread_rss_end", rssMiB(), "MiB");
    pane->closeConnection();
    peer->kill();
    peer->waitForFinished(2000);
    return 0;
}

struct PtyLink
{
    QTemporaryDir dir;
    QProcess socat;
    QString a() const { return dir.filePath("ttyA"); }
    QString b() const { return dir.filePath("ttyB"); }
    bool start()
    {
        socat.start("socat", {"-d", "pty,raw,echo=0,link=" + a(), "pty,raw,echo=0,link=" + b()});
        return runUntil([&] { return QFile::exists(a()) && QFile::exists(b()); }, 5000);
    }
    ~PtyLink()
    {
        socat.kill();
        socat.waitForFinished(2000);
    }
};

int serialFlood(const Run &run)
{
    PtyLink pty;
    if (!pty.start()) {
        out() << "socat did not start" << Qt::endl;
        return 1;
    }
    QTemporaryDir logs;
    ConnectionConfig config;
    config.portName = pty.a();
    config.baudRate = 115200;
    PaneOptions options;
    options.logSaveFlag = true;
    options.logFilePath = logs.path();
    options.logTimestampEnabled = false;
    std::unique_ptr<SerialPortWidget> pane(makePane(config, options));
    StallProbe probe;
    if (!pane->openConnection())
        return 1;
    const QString logPath = pane->currentLogFile();
    std::unique_ptr<QProcess> peer(startPeer(run.self, {"source", pty.b(), "text", "0", QString::number(run.seconds), "0"}));
    qint64 peakPending = 0;
    runUntil([&] {
        peakPending = qMax(peakPending, pane->pendingDisplayBytes());
        return peer->state() == QProcess::NotRunning;
    }, run.seconds * 1000 + 30000);
    const qint64 written = peer->readAllStandardOutput().trimmed().split('\n').last().toLongLong();
    runUntil([&] { return qint64(pane->rxCount()) >= written; }, 30000);
    pane->closeConnection();
    report("serial_longest_stall", double(probe.longestMs()), "ms");
    report("serial_peak_pending", double(peakPending) / 1048576.0, "MiB");
    report("serial_bytes_written", double(written), "bytes");
    report("serial_bytes_received", double(pane->rxCount()), "bytes");
    report("serial_bytes_logged", double(logBodyBytes(logPath)), "bytes");
    report("serial_peak_rss", peakRssMiB(), "MiB");
    return 0;
}

int fullDisk(const Run &run)
{
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit saved{};
    getrlimit(RLIMIT_FSIZE, &saved);
    QTemporaryDir logs;
    // Fast enough that the third of the run the disk stays full is more
    // than the log's own bound can hold.
    std::unique_ptr<QProcess> peer(startPeer(run.self, {"source", "tcp", "text", "0", QString::number(run.seconds),
                                                        "2000000"}));
    peer->waitForReadyRead(5000);
    ConnectionConfig config;
    config.mode = ConnectionMode::TcpClient;
    config.targetPort = peer->readLine().trimmed().toInt();
    PaneOptions options;
    options.logSaveFlag = true;
    options.logFilePath = logs.path();
    options.logTimestampEnabled = false;
    options.displaySendMsg = false;
    std::unique_ptr<SerialPortWidget> pane(makePane(config, options));
    pane->openConnection();
    runUntil([&] { return pane->isLogging(); }, 5000);
    const QString logPath = pane->currentLogFile();
    QStringList messages;
    QObject::connect(pane->session(), &PortSession::failure, [&](const QString &text) { messages << text; });
    QObject::connect(pane->session(), &PortSession::statusMessage,
                     [&](const QString &text, int) { messages << text; });
    QElapsedTimer clock;
    clock.start();
    bool filled = false, freed = false;
    runUntil([&] {
        const qint64 t = clock.elapsed();
        if (!filled && t > run.seconds * 1000 / 3) {
            filled = true;
            rlimit full = saved;
            full.rlim_cur = rlim_t(QFileInfo(logPath).size());
            setrlimit(RLIMIT_FSIZE, &full);
        }
        if (!freed && t > run.seconds * 2000 / 3) {
            freed = true;
            setrlimit(RLIMIT_FSIZE, &saved);
        }
        return peer->state() == QProcess::NotRunning;
    }, run.seconds * 1000 + 30000);
    setrlimit(RLIMIT_FSIZE, &saved);
    runFor(500);
    pane->closeConnection();
    // The gap notes, counted and summed, line by line (the log is large).
    qint64 notes = 0, noted = 0, noteBytes = 0;
    QFile log(logPath);
    if (log.open(QIODevice::ReadOnly)) {
        static const QRegularExpression note(QStringLiteral("^-- ([0-9,. ]+) bytes of log text were lost here"));
        while (!log.atEnd()) {
            const QByteArray line = log.readLine();
            if (!line.startsWith("-- "))
                continue;
            const QRegularExpressionMatch m = note.match(QString::fromUtf8(line));
            if (!m.hasMatch())
                continue;
            ++notes;
            noted += m.captured(1).remove(QRegularExpression(QStringLiteral("[^0-9]"))).toLongLong();
            noteBytes += line.size() + 1;  // and the line end before it
        }
    }
    const qint64 logged = logBodyBytes(logPath);
    report("disk_bytes_received", double(pane->rxCount()), "bytes");
    report("disk_bytes_logged", double(logged), "bytes");
    report("disk_bytes_dropped", double(qint64(pane->rxCount()) - (logged - noteBytes)), "bytes");
    report("disk_gap_notes", double(notes), "notes");
    report("disk_gap_bytes_noted", double(noted), "bytes");
    report("disk_messages", double(messages.size()), "messages");
    report("disk_first_message_names_the_write",
           messages.isEmpty() ? 0 : double(messages.constFirst().startsWith(QLatin1String("Could not write log file"))),
           "yes");
    return 0;
}

int damagedSettings(const Run &run)
{
    Q_UNUSED(run);
    const QString program = QFileInfo(run.self).dir().filePath("../../tessaline");
    QTemporaryDir home;
    QDir(home.path()).mkpath("config/MEROVAN");
    QDir(home.path()).mkpath("cfg");
    QFile conf(home.filePath("config/MEROVAN/Tessaline.conf"));
    conf.open(QIODevice::WriteOnly);
    conf.write("[General]\nCONFIG_FILE_PATH=" + home.filePath("cfg").toUtf8()
               + "\nLAST_WINDOW_SIZE=@Size(100000 100000)\nLastDisplayBufferSize=-5\nLastTargetHost="
               + QByteArray(70000, 'h') + "\nLastBaudrate=fast\nLastParity=77\n");
    conf.close();
    QProcess tessaline;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("XDG_CONFIG_HOME", home.filePath("config"));
    env.insert("HOME", home.path());
    env.insert("QT_QPA_PLATFORM", "offscreen");
    tessaline.setProcessEnvironment(env);
    tessaline.start(program, {"--screenshot", home.filePath("shot.png")});
    const bool finished = tessaline.waitForFinished(60000);
    rusage usage{};
    getrusage(RUSAGE_CHILDREN, &usage);
    report("settings_exit_code", finished ? tessaline.exitCode() : -1, "code");
    report("settings_peak_rss", double(usage.ru_maxrss) / 1024.0, "MiB");
    return 0;
}

int encodings(const Run &run)
{
    const qint64 bytes = qint64(run.seconds) * 4 * 1024 * 1024;
    const QStringList names{"UTF-8", "UTF-16LE", "UTF-32LE", "GB18030", "Shift_JIS", "hex"};
    for (const QString &name : names) {
        std::unique_ptr<QProcess> peer(startPeer(run.self, {"source", "tcp", "random", QString::number(bytes), "0", "0"}));
        peer->waitForReadyRead(5000);
        ConnectionConfig config;
        config.mode = ConnectionMode::TcpClient;
        config.targetPort = peer->readLine().trimmed().toInt();
        PaneOptions options;
        if (name == QLatin1String("hex"))
            options.receiveFormat = MessageFormat::Hex;
        else
            options.receiveEncoding = name;
        std::unique_ptr<SerialPortWidget> pane(makePane(config, options));
        StallProbe probe;
        pane->openConnection();
        runUntil([&] { return qint64(pane->rxCount()) >= bytes && pane->pendingDisplayBytes() == 0; },
                 qint64(run.seconds) * 20000);
        report(QStringLiteral("encoding_%1_longest_stall").arg(name), double(probe.longestMs()), "ms");
        report(QStringLiteral("encoding_%1_longest_stall_at").arg(name), double(probe.longestAtMs()), "ms");
        report(QStringLiteral("encoding_%1_stalls_over_50ms").arg(name), double(probe.stallsOver50Ms()), "times");
        report(QStringLiteral("encoding_%1_bytes_received").arg(name), double(pane->rxCount()), "bytes");
        pane->closeConnection();
        peer->kill();
        peer->waitForFinished(2000);
    }
    return 0;
}

} // namespace

int main(int argc, char *argv[])
{
    if (argc >= 2 && std::strcmp(argv[1], "--peer") == 0) {
        QCoreApplication app(argc, argv);
        return runPeer(app.arguments().mid(2));
    }
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    AppIdentity::apply(app);
    QStandardPaths::setTestModeEnabled(true);
    const QStringList args = app.arguments();
    Run run;
    run.self = app.applicationFilePath();
    const qsizetype at = args.indexOf(QStringLiteral("--seconds"));
    if (at >= 0 && at + 1 < args.size())
        run.seconds = qMax(1, args.at(at + 1).toInt());
    const QString scenario = args.value(1);
    if (scenario == QLatin1String("churn"))
        return churn(run);
    if (scenario == QLatin1String("storm200"))
        return storm(run, 200);
    if (scenario == QLatin1String("storm1000"))
        return storm(run, 1000);
    if (scenario == QLatin1String("allclients"))
        return allClients(run);
    if (scenario == QLatin1String("udp"))
        return udpFlood(run);
    if (scenario == QLatin1String("noread"))
        return noRead(run);
    if (scenario == QLatin1String("serial"))
        return serialFlood(run);
    if (scenario == QLatin1String("disk"))
        return fullDisk(run);
    if (scenario == QLatin1String("settings"))
        return damagedSettings(run);
    if (scenario == QLatin1String("encodings"))
        return encodings(run);
    out() << "usage: soak_pane churn|storm200|storm1000|allclients|udp|noread|serial|disk|settings|encodings"
             " [--seconds N]" << Qt::endl;
    return 2;
}
