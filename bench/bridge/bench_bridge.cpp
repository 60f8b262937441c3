// Raw forwarding through a bridge, TCP listener to a serial pane on a
// pseudo-terminal and back, beside socat doing the same forwarding on the
// same kind of link in the same run. A peer process (this program with
// --peer) holds the line's far end (the pty's master; the forwarder opens
// its serial side) and is the TCP client at once; it moves the bytes both
// ways at the same time and checks every one. One line per figure: name,
// value, unit.
//
//   bench_bridge [--bytes N] [--only socat|bridge|shown]   (100 MB each way)
//   bench_bridge --peer N      (the peer: prints the line's path, reads the
//                               forwarder's port, connects, waits for "go",
//                               prints its figures)
//
// socat's own pty pair is not the line: socat writes blocking, and two
// socats joined by a pty pair lock each other up under traffic both ways.
//
// Three runs: socat TCP-LISTEN to FILE:pty; the bridge to a pane nobody
// looks at (its view queue is taken without drawing); the bridge to a pane
// on screen, which draws what passes both ways within its refresh budget.

#include "bridge/bridgeengine.h"
#include "bridge/listenerbridgeend.h"
#include "bridge/panedirectory.h"
#include "common/appidentity.h"
#include "connection/connectioncontroller.h"
#include "support/benchsupport.h"
#include "support/loopback.h"
#include "terminal/portsession.h"
#include "terminal/receiveingest.h"
#include "terminal/serialportwidget.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTextStream>
#include <QTimer>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

namespace {

QTextStream &out()
{
    static QTextStream stream(stdout);
    return stream;
}

void report(const QString &name, double value, const char *unit)
{
    out() << name << ' ' << QString::number(value, 'f', 2) << ' ' << unit << Qt::endl;
}

// A byte stream anyone can regenerate from its seed: the peer writes one
// and checks the other without keeping either. Lines of printable text, as
// a console sends: forwarding does not look at the bytes, and a pane on
// screen shows them the way it shows such traffic.
class Stream
{
public:
    static constexpr int kLineLength = 78;

    explicit Stream(quint64 seed) : m_state(seed * 0x9E3779B97F4A7C15ULL + 1) {}

    void fill(char *out, qint64 n)
    {
        for (qint64 i = 0; i < n; ++i) {
            if (m_column == kLineLength) {
                out[i] = '\r';
                ++m_column;
            } else if (m_column > kLineLength) {
                out[i] = '\n';
                m_column = 0;
            } else {
                m_state ^= m_state << 13;
                m_state ^= m_state >> 7;
                m_state ^= m_state << 17;
                out[i] = char(0x20 + (m_state >> 32) % 95);
                ++m_column;
            }
        }
    }

private:
    quint64 m_state;
    int m_column = 0;
};

// One direction of the peer: what it writes into one descriptor, and what
// it expects to read from the other.
struct Flow
{
    Stream writer;
    Stream checker;
    QByteArray pending;
    qint64 sent = 0;
    qint64 received = 0;
    bool mismatch = false;
};

bool pumpWrite(int fd, Flow &flow, qint64 total)
{
    if (flow.pending.isEmpty() && flow.sent < total) {
        const qint64 n = qMin<qint64>(64 * 1024, total - flow.sent);
        flow.pending.resize(n);
        flow.writer.fill(flow.pending.data(), n);
        flow.sent += n;
    }
    if (flow.pending.isEmpty())
        return true;
    const ssize_t w = ::write(fd, flow.pending.constData(), size_t(flow.pending.size()));
    if (w < 0)
        return errno == EAGAIN || errno == EINTR;
    flow.pending.remove(0, w);
    return true;
}

bool pumpRead(int fd, Flow &flow)
{
    static char buffer[256 * 1024];
    static char expected[256 * 1024];
    const ssize_t r = ::read(fd, buffer, sizeof buffer);
    if (r < 0)
        return errno == EAGAIN || errno == EINTR;
    if (r == 0)
        return false;
    flow.checker.fill(expected, r);
    if (std::memcmp(buffer, expected, size_t(r)) != 0)
        flow.mismatch = true;
    flow.received += r;
    return true;
}

// The peer: the far end of the line (a pty master whose serial side the
// forwarder opens) and the forwarder's TCP client.
int runPeer(qint64 total)
{
    const int pty = ::posix_openpt(O_RDWR | O_NOCTTY);
    if (pty < 0 || ::grantpt(pty) != 0 || ::unlockpt(pty) != 0) {
        std::perror("peer pty");
        return 1;
    }
    const char *path = ::ptsname(pty);
    // Raw, so that the line carries bytes, not text; the setting outlives
    // this descriptor while the master is open.
    const int serial = ::open(path, O_RDWR | O_NOCTTY);
    termios raw{};
    ::tcgetattr(serial, &raw);
    ::cfmakeraw(&raw);
    ::tcsetattr(serial, TCSANOW, &raw);
    ::close(serial);
    std::printf("%s\n", path);
    std::fflush(stdout);
    unsigned port = 0;
    if (std::scanf("%u", &port) != 1 || port == 0 || port > 65535)
        return 1;
    const int tcp = BenchSupport::loopbackSocket(SOCK_STREAM, quint16(port), false);
    if (tcp < 0) {
        std::perror("peer tcp");
        return 1;
    }
    // The forwarder has to know the client before the line talks: what the
    // line says before anyone listens is not forwarded.
    char go[8] = {};
    if (std::scanf("%7s", go) != 1 || std::strcmp(go, "go") != 0)
        return 1;
    ::fcntl(tcp, F_SETFL, ::fcntl(tcp, F_GETFL) | O_NONBLOCK);
    ::fcntl(pty, F_SETFL, ::fcntl(pty, F_GETFL) | O_NONBLOCK);

    Flow up{Stream(1), Stream(1), {}};    // written to TCP, read at the line
    Flow down{Stream(2), Stream(2), {}};  // written to the line, read from TCP
    QElapsedTimer clock;
    clock.start();
    bool alive = true;
    while (alive && (up.received < total || down.received < total) && clock.elapsed() < 900000) {
        pollfd fds[2] = {{tcp, short(POLLIN | (up.sent < total || !up.pending.isEmpty() ? POLLOUT : 0)), 0},
                         {pty, short(POLLIN | (down.sent < total || !down.pending.isEmpty() ? POLLOUT : 0)), 0}};
        if (::poll(fds, 2, 1000) < 0 && errno != EINTR)
            break;
        if (fds[0].revents & POLLOUT)
            alive = pumpWrite(tcp, up, total) && alive;
        if (fds[1].revents & POLLOUT)
            alive = pumpWrite(pty, down, total) && alive;
        if (fds[0].revents & (POLLIN | POLLHUP))
            alive = pumpRead(tcp, down) && alive;
        if (fds[1].revents & POLLIN)
            alive = pumpRead(pty, up) && alive;
    }
    const qint64 elapsed = clock.elapsed();
    std::printf("%lld %lld %lld %d\n", (long long)elapsed, (long long)up.received, (long long)down.received,
                up.mismatch || down.mismatch ? 1 : 0);
    std::fflush(stdout);
    ::close(tcp);
    ::close(pty);
    return 0;
}

// The peer process, started first so that the line exists for the
// forwarder to open.
class Peer
{
public:
    bool start(const QString &self, qint64 total)
    {
        m_process.start(self, {QStringLiteral("--peer"), QString::number(total)});
        if (!m_process.waitForStarted(5000) || !m_process.waitForReadyRead(5000))
            return false;
        m_line = QString::fromLocal8Bit(m_process.readLine().trimmed());
        return !m_line.isEmpty();
    }
    QString line() const { return m_line; }
    void connectTo(quint16 port) { m_process.write(QByteArray::number(port) + '\n'); }
    void go() { m_process.write("go\n"); }
    QProcess &process() { return m_process; }

private:
    QProcess m_process;
    QString m_line;
};

struct PeerResult
{
    bool ok = false;
    qint64 elapsedMs = 0;
    qint64 up = 0;
    qint64 down = 0;
    bool mismatch = false;
};

PeerResult finishPeer(QProcess &peer, qint64 total)
{
    PeerResult result;
    if (!BenchSupport::waitUntil([&] { return peer.state() == QProcess::NotRunning; }, 900000))
        return result;
    const QList<QByteArray> fields = peer.readAllStandardOutput().trimmed().split(' ');
    if (fields.size() != 4)
        return result;
    result.elapsedMs = fields.at(0).toLongLong();
    result.up = fields.at(1).toLongLong();
    result.down = fields.at(2).toLongLong();
    result.mismatch = fields.at(3) != "0";
    result.ok = result.up == total && result.down == total && !result.mismatch;
    return result;
}

void reportRun(const QString &prefix, const PeerResult &r, qint64 total)
{
    const double seconds = double(qMax<qint64>(1, r.elapsedMs)) / 1000.0;
    report(prefix + QStringLiteral("each_way"), double(total) / 1e6 / seconds, "MB/s");
    report(prefix + QStringLiteral("lost"), double(2 * total - r.up - r.down), "bytes");
    report(prefix + QStringLiteral("time"), double(r.elapsedMs) / 1000.0, "s");
    report(prefix + QStringLiteral("corrupted"), r.mismatch ? 1 : 0, "runs");
}

PeerResult runSocat(const QString &self, qint64 total)
{
    Peer peer;
    if (!peer.start(self, total))
        return {};
    QProcess forwarder;
    forwarder.start(QStringLiteral("socat"),
                    {QStringLiteral("-d"), QStringLiteral("-d"), QStringLiteral("TCP-LISTEN:0,bind=127.0.0.1,reuseaddr"),
                     QStringLiteral("FILE:%1,raw,echo=0").arg(peer.line())});
    QByteArray log;
    quint16 port = 0;
    static const QRegularExpression listening(QStringLiteral("listening on .*:(\\d+)"));
    BenchSupport::waitUntil(
        [&] {
            log += forwarder.readAllStandardError();
            const auto match = listening.match(QString::fromLatin1(log));
            port = match.hasMatch() ? quint16(match.captured(1).toUInt()) : 0;
            return port != 0;
        },
        5000);
    if (port == 0) {
        out() << "socat did not listen: " << log << Qt::endl;
        return {};
    }
    peer.connectTo(port);
    BenchSupport::waitUntil(
        [&] {
            log += forwarder.readAllStandardError();
            return log.contains("starting data transfer loop");
        },
        5000);
    peer.go();
    const PeerResult result = finishPeer(peer.process(), total);
    forwarder.kill();
    forwarder.waitForFinished(3000);
    return result;
}

struct BridgeRun
{
    PeerResult peer;
    qint64 longestStallMs = 0;
    quint64 dropped = 0;
    qint64 largestQueue = 0;
    int holds = 0;
    int viewPauses = 0;
};

BridgeRun runBridge(const QString &self, qint64 total, bool shown)
{
    BridgeRun run;
    Peer peer;
    if (!peer.start(self, total))
        return run;
    PaneDirectory panes;
    std::unique_ptr<SerialPortWidget> widget;
    std::unique_ptr<PortSession> bare;
    PortSession *session = nullptr;
    if (shown) {
        widget = std::make_unique<SerialPortWidget>(1);
        widget->resize(1280, 800);
        widget->show();
        session = widget->session();
    } else {
        bare = std::make_unique<PortSession>(1);
        session = bare.get();
    }
    ConnectionConfig config;
    config.portName = peer.line();
    config.baudRate = 115200;
    PaneOptions options;
    options.logSaveFlag = false;
    if (widget)
        widget->applySettings(config, options, {});
    else
        session->applySettings(config, options, {});
    if (!session->openConnection())
        return run;
    panes.add(session);
    // A pane nobody looks at: its queue is taken as a view would, undrawn.
    QTimer undrawn;
    QObject::connect(&undrawn, &QTimer::timeout, [session] { session->takeForView(-1, -1); });
    if (!shown)
        undrawn.start(SerialPortWidget::kRefreshIntervalMs);

    BridgeRecord record;
    record.name = QStringLiteral("bench");
    record.ends[0].kind = BridgeEndSpec::Kind::Listener;
    record.ends[0].listenAddress = QStringLiteral("127.0.0.1");
    record.ends[0].listenPort = 0;
    record.ends[1].kind = BridgeEndSpec::Kind::Pane;
    record.ends[1].pane = PaneDirectory::endpointLabel(session->config());
    BridgeEngine engine(record, &panes);
    engine.start();
    auto *listener = qobject_cast<ListenerBridgeEnd *>(engine.end(0));
    if (engine.state() != BridgeEngine::State::Running || !listener) {
        out() << "bridge did not run: " << engine.stateText() << Qt::endl;
        return run;
    }

    QElapsedTimer probeClock;
    qint64 lastTick = 0;
    QTimer probe;
    probe.setTimerType(Qt::PreciseTimer);
    QObject::connect(&probe, &QTimer::timeout, [&] {
        const qint64 now = probeClock.elapsed();
        run.longestStallMs = qMax(run.longestStallMs, now - lastTick);
        lastTick = now;
    });
    bool held = false;
    bool viewPaused = false;
    QTimer watch;
    QObject::connect(&watch, &QTimer::timeout, [&] {
        run.largestQueue = qMax(run.largestQueue, qMax(engine.counters(0).queuedBytes, engine.counters(1).queuedBytes));
        const bool paused = session->controller()->isReadPaused();
        if (paused && !held)
            ++run.holds;
        held = paused;
        const bool behind = session->ingest().readThrottle().isReadingPaused();
        if (behind && !viewPaused)
            ++run.viewPauses;
        viewPaused = behind;
    });
    probeClock.start();
    probe.start(1);
    watch.start(5);
    peer.connectTo(listener->listeningPort());
    BenchSupport::waitUntil([&] { return listener->outlets().size() == 1; }, 5000);
    peer.go();
    run.peer = finishPeer(peer.process(), total);
    probe.stop();
    watch.stop();
    run.dropped = engine.counters(0).droppedBytes + engine.counters(1).droppedBytes;
    engine.stop();
    session->closeConnection();
    return run;
}

} // namespace

int main(int argc, char *argv[])
{
    if (argc >= 3 && std::strcmp(argv[1], "--peer") == 0)
        return runPeer(QByteArray(argv[2]).toLongLong());

    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    AppIdentity::apply(app);
    QStandardPaths::setTestModeEnabled(true);
    if (QStandardPaths::findExecutable(QStringLiteral("socat")).isEmpty()) {
        out() << "socat is missing (scripts/setup.sh installs it)" << Qt::endl;
        return 1;
    }
    qint64 total = 100'000'000;
    const QStringList args = app.arguments();
    const qsizetype at = args.indexOf(QStringLiteral("--bytes"));
    if (at >= 0 && at + 1 < args.size())
        total = args.at(at + 1).toLongLong();
    const QString self = app.applicationFilePath();

    const qsizetype onlyAt = args.indexOf(QStringLiteral("--only"));
    const QString only = onlyAt >= 0 && onlyAt + 1 < args.size() ? args.at(onlyAt + 1) : QString();
    bool ok = true;
    double socatRate = 0;
    if (only.isEmpty() || only == QLatin1String("socat")) {
        const PeerResult socat = runSocat(self, total);
        reportRun(QStringLiteral("socat_tcp_pty_"), socat, total);
        ok = socat.ok;
        socatRate = double(total) / double(qMax<qint64>(1, socat.elapsedMs));
    }
    for (bool shown : {false, true}) {
        if (!only.isEmpty() && only != (shown ? QLatin1String("shown") : QLatin1String("bridge")))
            continue;
        const BridgeRun run = runBridge(self, total, shown);
        const QString prefix = shown ? QStringLiteral("bridge_tcp_pty_shown_") : QStringLiteral("bridge_tcp_pty_");
        reportRun(prefix, run.peer, total);
        if (socatRate > 0) {
            report(prefix + QStringLiteral("of_socat"),
                   double(total) / double(qMax<qint64>(1, run.peer.elapsedMs)) / socatRate, "ratio");
        }
        report(prefix + QStringLiteral("longest_stall"), double(run.longestStallMs), "ms");
        report(prefix + QStringLiteral("dropped"), double(run.dropped), "bytes");
        report(prefix + QStringLiteral("largest_queue"), double(run.largestQueue) / 1e6, "MB");
        report(prefix + QStringLiteral("reads_held"), run.holds, "times");
        report(prefix + QStringLiteral("view_behind"), run.viewPauses, "times");
        ok = ok && run.peer.ok && run.dropped == 0;
    }
    report(QStringLiteral("bridge_display_ceiling"),
           double(ReceiveIngest::kRefreshByteBudget) * (1000.0 / SerialPortWidget::kRefreshIntervalMs) / 1e6, "MB/s");
    report(QStringLiteral("peak_rss"), double(BenchSupport::procStatusKiB("VmHWM:")) / 1024.0, "MiB");
    return ok ? 0 : 1;
}
