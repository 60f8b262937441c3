// The main window with sixteen port panes, offscreen.
//
// Start: how long from constructing the window to a shown 1920x1080 window
// holding sixteen panes, every pane in view painted, built four ways: adding
// panes to a fresh window (the first time in the process, then again),
// constructing it with a sixteen-pane project to reopen, and opening that
// project in the running window.
//
// Load: all sixteen panes connected at once to loopback peers played by a
// second process (so the writing never shares the window's event loop):
// eight TCP client panes, four serial panes on socat pty pairs, two TCP
// server panes and two UDP panes, each peer streaming its own text at a
// steady rate. Measures the longest event-loop stall (a 1 ms heartbeat),
// what was received and shown per second, and checks for every pane that
// the bytes received match the peer's count and checksum exactly.
//
// One line per figure: name, value, unit; then a PASS/FAIL line per target.
// Exits non-zero when bytes were lost or the run could not be set up;
// timings are only reported.
//
//   bench_window_panes [--seconds N] [--scale F] [--columns C] [--buffer B] [--tcp-only]
//     F multiplies every rate; C panes per row (4); B characters each view
//     keeps (the pane's default); --tcp-only makes all sixteen panes TCP
//     clients fed 1 MB/s of text each
//   bench_window_panes --peer SECONDS STREAM...     (the peers, see runPeers)
//
// With TSL_BENCH_TRACE_STALLS set, every stall over 20 ms, every trim and
// every resize of a pane's view goes to stderr with its CLOCK_MONOTONIC
// time, to line them up with `perf record -k mono` samples.

#include "support/benchsupport.h"
#include "support/loopback.h"
#include "app/mainwindow.h"
#include "app/projectfile.h"
#include "common/appidentity.h"
#include "terminal/portsession.h"
#include "terminal/serialportwidget.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QResizeEvent>
#include <QSet>
#include <QSettings>
#include <QStandardPaths>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTextStream>
#include <QTimer>
#include <QUdpSocket>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

namespace {

using BenchSupport::boundPort;
using BenchSupport::loopbackSocket;
using BenchSupport::procStatusKiB;
using BenchSupport::waitUntil;

constexpr int kPaneCount = 16;
constexpr qint64 kStartTargetMs = 1000;
constexpr qint64 kStallTargetMs = 50;
constexpr qint64 kTracedStallMs = 20;

QTextStream &out()
{
    static QTextStream stream(stdout);
    return stream;
}

void report(const QString &name, double value, const char *unit)
{
    out() << name << ' ' << QString::number(value, 'f', 2) << ' ' << unit << Qt::endl;
}

void check(const QString &target, bool pass, const QString &detail)
{
    out() << "check " << target << ' ' << (pass ? "PASS" : "FAIL") << " (" << detail << ')' << Qt::endl;
}

// FNV-1a over a stream, so that order matters as well as count.
struct StreamSum
{
    quint64 bytes = 0;
    quint64 hash = 0xcbf29ce484222325ULL;

    void add(const char *data, size_t size)
    {
        for (size_t i = 0; i < size; ++i) {
            hash ^= quint8(data[i]);
            hash *= 0x100000001b3ULL;
        }
        bytes += size;
    }
    bool operator==(const StreamSum &other) const = default;
};

// The text a peer streams: numbered lines that name the stream, cycled.
QByteArray streamText(int index)
{
    QByteArray text;
    for (int line = 0; line < 1000; ++line) {
        char buffer[96];
        const int n = std::snprintf(buffer, sizeof buffer, "p%02d l%06d T=23.5C RH=41%% status ok counter=0123456789\r\n",
                                    index, line);
        text.append(buffer, n);
    }
    return text;
}

// ------------------------------------------------------------------ peers

// One peer. Kinds: "listen" (a TCP server a client pane connects to),
// "pty" (the far side of a socat pair), "connect" (a TCP client of a server
// pane) and "udp" (datagrams to a UDP pane); the last two learn their port
// from the go line.
struct PeerStream
{
    std::string kind;
    double rate = 0;  // bytes per second
    std::string path;
    int listener = -1;
    int fd = -1;
    QByteArray text;
    qint64 offset = 0;  // into text
    StreamSum sum;
};

// Writes what the stream owes by now, without blocking: what the kernel
// does not take is owed until the next round.
void feed(PeerStream &s, qint64 owed)
{
    const bool datagrams = s.kind == "udp";
    while (owed > 0) {
        const qint64 limit = datagrams ? 1400 : 16384;
        const qint64 n = qMin(qMin(owed, limit), qint64(s.text.size()) - s.offset);
        const char *at = s.text.constData() + s.offset;
        const ssize_t written = s.kind == "pty" ? ::write(s.fd, at, size_t(n)) : ::send(s.fd, at, size_t(n), MSG_NOSIGNAL);
        if (written <= 0)
            return;
        s.sum.add(at, size_t(written));
        s.offset = (s.offset + written) % s.text.size();
        owed -= written;
    }
}

// Prints "listen PORT" per listening stream and "ready"; waits for
// "go PORT..." on stdin; streams for the given seconds; prints
// "sent INDEX BYTES HASH" per stream, the bytes planned but not taken, and
// "done"; then keeps every connection open until stdin closes.
int runPeers(double seconds, const std::vector<std::string> &specs)
{
    std::signal(SIGPIPE, SIG_IGN);
    std::vector<PeerStream> streams;
    for (const std::string &spec : specs) {
        PeerStream s;
        const size_t colon = spec.find(':');
        const size_t second = spec.find(':', colon + 1);
        s.kind = spec.substr(0, colon);
        s.rate = std::stod(spec.substr(colon + 1, second == std::string::npos ? std::string::npos : second - colon - 1));
        if (second != std::string::npos)
            s.path = spec.substr(second + 1);
        s.text = streamText(int(streams.size()));
        if (s.kind == "listen") {
            s.listener = loopbackSocket(SOCK_STREAM, 0, true);
            if (s.listener < 0) {
                std::perror("peer listen");
                return 1;
            }
            std::printf("listen %u\n", boundPort(s.listener));
        } else if (s.kind == "pty") {
            s.fd = ::open(s.path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
            termios raw{};
            if (s.fd < 0 || ::tcgetattr(s.fd, &raw) != 0) {
                std::perror(s.path.c_str());
                return 1;
            }
            ::cfmakeraw(&raw);
            ::tcsetattr(s.fd, TCSANOW, &raw);
        }
        streams.push_back(std::move(s));
    }
    std::printf("ready\n");
    std::fflush(stdout);

    char line[512];
    if (!std::fgets(line, sizeof line, stdin) || std::strncmp(line, "go", 2) != 0)
        return 1;
    std::vector<quint16> ports;
    for (char *token = std::strtok(line + 2, " \n"); token; token = std::strtok(nullptr, " \n"))
        ports.push_back(quint16(std::atoi(token)));
    size_t nextPort = 0;
    for (PeerStream &s : streams) {
        if (s.kind == "listen") {
            // The pane connected while the window was being measured.
            pollfd waiting{s.listener, POLLIN, 0};
            if (::poll(&waiting, 1, 10000) != 1 || (s.fd = ::accept(s.listener, nullptr, nullptr)) < 0) {
                std::fprintf(stderr, "peer: no pane connected\n");
                return 1;
            }
        } else if (s.kind == "connect" || s.kind == "udp") {
            if (nextPort >= ports.size())
                return 1;
            s.fd = loopbackSocket(s.kind == "udp" ? SOCK_DGRAM : SOCK_STREAM, ports[nextPort++], false);
            if (s.fd < 0) {
                std::perror("peer connect");
                return 1;
            }
        }
        ::fcntl(s.fd, F_SETFL, ::fcntl(s.fd, F_GETFL) | O_NONBLOCK);
    }

    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
    for (;;) {
        const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
        const double until = qMin(elapsed, seconds);
        for (PeerStream &s : streams)
            feed(s, qint64(s.rate * until) - qint64(s.sum.bytes));
        if (elapsed >= seconds)
            break;
        ::poll(nullptr, 0, 2);
    }
    qint64 shortfall = 0;
    for (size_t i = 0; i < streams.size(); ++i) {
        const PeerStream &s = streams[i];
        shortfall += qMax<qint64>(0, qint64(s.rate * seconds) - qint64(s.sum.bytes));
        std::printf("sent %zu %llu %llu\n", i, static_cast<unsigned long long>(s.sum.bytes),
                    static_cast<unsigned long long>(s.sum.hash));
    }
    std::printf("shortfall %lld\ndone\n", static_cast<long long>(shortfall));
    std::fflush(stdout);
    while (std::fgets(line, sizeof line, stdin)) {
    }
    for (PeerStream &s : streams) {
        if (s.fd >= 0)
            ::close(s.fd);
        if (s.listener >= 0)
            ::close(s.listener);
    }
    return 0;
}

// ------------------------------------------------------------ the window

qint64 threadCpuUs()
{
    timespec now{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return qint64(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

// Reports every resize of a pane's receive view: each lays out its whole
// document again.
class ResizeTrace : public QObject
{
public:
    explicit ResizeTrace(const QElapsedTimer &clock)
        : m_clock(clock)
    {
    }

protected:
    bool eventFilter(QObject *watched, QEvent *event) override
    {
        if (event->type() == QEvent::Resize) {
            const auto *resize = static_cast<QResizeEvent *>(event);
            const auto *view = static_cast<ReceiveView *>(watched);
            QWidget *pane = view->parentWidget();
            while (pane && !qobject_cast<SerialPortWidget *>(pane))
                pane = pane->parentWidget();
            std::fprintf(stderr, "resize %s %dx%d -> %dx%d, %lld chars, at monotonic %.3f s\n",
                         qPrintable(pane ? pane->objectName() : QString()),
                         resize->oldSize().width(), resize->oldSize().height(), resize->size().width(),
                         resize->size().height(), static_cast<long long>(view->characterCount()),
                         double(m_clock.msecsSinceReference() + m_clock.elapsed()) / 1000.0);
        }
        return false;
    }

private:
    const QElapsedTimer &m_clock;
};

// Waits for the first paint of every pane's receive view that can be seen:
// sixteen panes do not fit on a screen, and the ones scrolled away paint
// only when scrolled to.
class PaintWatch : public QObject
{
public:
    explicit PaintWatch(const QList<SerialPortWidget *> &panes)
    {
        for (SerialPortWidget *pane : panes) {
            QWidget *viewport = pane->receiveView()->viewport();
            viewport->installEventFilter(this);
            m_waiting.insert(viewport);
            connect(viewport, &QObject::destroyed, this, [this](QObject *gone) { m_waiting.remove(gone); });
        }
    }
    ~PaintWatch() override
    {
        for (QObject *viewport : std::as_const(m_waiting))
            viewport->removeEventFilter(this);
    }
    bool visiblePainted() const
    {
        return m_painted > 0 && std::none_of(m_waiting.begin(), m_waiting.end(), [](QObject *viewport) {
                   return !static_cast<QWidget *>(viewport)->visibleRegion().isEmpty();
               });
    }
    int painted() const { return m_painted; }

protected:
    bool eventFilter(QObject *watched, QEvent *event) override
    {
        if (event->type() == QEvent::Paint && m_waiting.remove(watched)) {
            watched->removeEventFilter(this);
            ++m_painted;
        }
        return false;
    }

private:
    QSet<QObject *> m_waiting;
    int m_painted = 0;
};

// Shows the window at a common screen size and waits for the panes in view
// to paint; -1 on timeout, else how many painted.
int showAndPaint(MainWindow &window)
{
    PaintWatch watch(window.panes());
    window.resize(1920, 1080);
    window.show();
    return waitUntil([&] { return watch.visiblePainted(); }, 20000, 1) ? watch.painted() : -1;
}

quint16 freePort(bool udp)
{
    if (udp) {
        QUdpSocket probe;
        return probe.bind(QHostAddress::LocalHost, 0) ? probe.localPort() : 0;
    }
    QTcpServer probe;
    return probe.listen(QHostAddress::LocalHost, 0) ? probe.serverPort() : 0;
}

// A socat pty pair: the pane opens one end, the peer the other.
class PtyPair
{
public:
    explicit PtyPair(const QString &folder, int index)
        : m_pane(QStringLiteral("%1/pane%2").arg(folder).arg(index))
        , m_peer(QStringLiteral("%1/peer%2").arg(folder).arg(index))
    {
    }
    ~PtyPair()
    {
        m_socat.terminate();
        if (!m_socat.waitForFinished(3000))
            m_socat.kill();
        m_socat.waitForFinished(3000);
    }
    bool start()
    {
        m_socat.start(QStringLiteral("socat"), {QStringLiteral("pty,raw,echo=0,link=%1").arg(m_pane),
                                                QStringLiteral("pty,raw,echo=0,link=%1").arg(m_peer)});
        return m_socat.waitForStarted(5000)
            && waitUntil([this] { return QFileInfo::exists(m_pane) && QFileInfo::exists(m_peer); }, 5000);
    }
    QString pane() const { return m_pane; }
    QString peer() const { return m_peer; }

private:
    QString m_pane;
    QString m_peer;
    QProcess m_socat;
};

struct PaneSpec
{
    ConnectionConfig config;
    QString peerKind;
    double rate = 0;
};

// Rates in bytes per second, before --scale.
constexpr double kTcpClientRate = 200000;
constexpr double kSerialRate = 11520;  // 115200 baud
constexpr double kTcpServerRate = 100000;
constexpr double kUdpRate = 50000;
// --tcp-only: sixteen TCP client panes, each fed this much text.
constexpr double kTcpOnlyRate = 1000000;

struct RunOptions
{
    double seconds = 10;
    double scale = 1;  // multiplies every rate
    int columns = 4;  // panes per row
    int displayBuffer = PaneOptions().displayBufferSize;
    bool tcpOnly = false;
};

Project projectOf(const QList<PaneSpec> &specs, const RunOptions &run)
{
    Project project;
    project.columnNumber = run.columns;
    for (const PaneSpec &spec : specs) {
        PaneOptions options;
        options.displayTime = true;
        options.displayBufferSize = run.displayBuffer;
        project.panes.append(ProjectPane{PaneSettings{spec.config, options}, {}});
    }
    return project;
}

class Bench
{
public:
    Bench(QString self, const RunOptions &run)
        : m_self(std::move(self))
        , m_run(run)
    {
    }

    int run()
    {
        if (!m_dir.isValid() || !startPeers()) {
            out() << "FAILED: the peers could not be set up" << Qt::endl;
            return 2;
        }
        const QString projectPath = m_dir.filePath(QStringLiteral("sixteen.tsl"));
        const Result written = ProjectFile::writeFile(projectPath, projectOf(m_specs, m_run));
        if (!written) {
            out() << "FAILED: " << written.errorText() << Qt::endl;
            return 2;
        }
        std::unique_ptr<MainWindow> window = measureStart(projectPath);
        if (!window)
            return 2;
        const bool lossless = measureLoad(*window);
        window.reset();
        m_peers.closeWriteChannel();
        if (!m_peers.waitForFinished(10000))
            m_peers.kill();
        report(QStringLiteral("window_peak_rss"), double(procStatusKiB("VmHWM:")) / 1024.0, "MiB");
        return lossless ? 0 : 1;
    }

private:
    bool startPeers()
    {
        QStringList streams{QString::number(m_run.seconds)};
        for (int i = 0; i < (m_run.tcpOnly ? 16 : 8); ++i) {
            PaneSpec spec;
            spec.config.mode = ConnectionMode::TcpClient;
            spec.peerKind = QStringLiteral("listen");
            spec.rate = (m_run.tcpOnly ? kTcpOnlyRate : kTcpClientRate) * m_run.scale;
            m_specs.append(spec);
        }
        for (int i = 0; i < (m_run.tcpOnly ? 0 : 4); ++i) {
            auto pair = std::make_unique<PtyPair>(m_dir.path(), i);
            if (!pair->start()) {
                out() << "socat did not make a pty pair" << Qt::endl;
                return false;
            }
            PaneSpec spec;
            spec.config.mode = ConnectionMode::Serial;
            spec.config.portName = pair->pane();
            spec.config.baudRate = 115200;
            spec.peerKind = QStringLiteral("pty");
            spec.rate = kSerialRate * m_run.scale;
            m_specs.append(spec);
            m_ptys.push_back(std::move(pair));
        }
        for (int i = 0; i < (m_run.tcpOnly ? 0 : 2); ++i) {
            PaneSpec spec;
            spec.config.mode = ConnectionMode::TcpServer;
            spec.config.listenAddress = QHostAddress::LocalHost;
            spec.config.targetPort = freePort(false);
            spec.peerKind = QStringLiteral("connect");
            spec.rate = kTcpServerRate * m_run.scale;
            m_goPorts.append(spec.config.targetPort);
            m_specs.append(spec);
        }
        for (int i = 0; i < (m_run.tcpOnly ? 0 : 2); ++i) {
            PaneSpec spec;
            spec.config.mode = ConnectionMode::UdpServer;
            spec.config.udpLocalPort = freePort(true);
            spec.peerKind = QStringLiteral("udp");
            spec.rate = kUdpRate * m_run.scale;
            m_goPorts.append(spec.config.udpLocalPort);
            m_specs.append(spec);
        }

        int ptyIndex = 0;
        for (const PaneSpec &spec : std::as_const(m_specs)) {
            QString stream = spec.peerKind + QLatin1Char(':') + QString::number(spec.rate, 'f', 0);
            if (spec.peerKind == QLatin1String("pty"))
                stream += QLatin1Char(':') + m_ptys.at(size_t(ptyIndex++))->peer();
            streams << stream;
        }
        m_peers.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_peers.start(m_self, QStringList{QStringLiteral("--peer")} + streams);
        int listenIndex = 0;
        const bool ready = waitUntil(
            [&] {
                while (m_peers.canReadLine()) {
                    const QList<QByteArray> words = m_peers.readLine().trimmed().split(' ');
                    if (words.value(0) == "ready")
                        return true;
                    if (words.value(0) == "listen" && listenIndex < m_specs.size())
                        m_specs[listenIndex++].config.targetPort = words.value(1).toInt();
                }
                return false;
            },
            10000);
        const auto listening = std::count_if(m_specs.cbegin(), m_specs.cend(), [](const PaneSpec &spec) {
            return spec.peerKind == QLatin1String("listen");
        });
        return ready && listenIndex == listening && !m_goPorts.contains(0);
    }

    std::unique_ptr<MainWindow> measureStart(const QString &projectPath)
    {
        QSettings settings;
        settings.setValue(QStringLiteral("PortLayout"), int(PortArrangement::Layout::Custom));
        settings.setValue(QStringLiteral("ColumnNumber"), m_run.columns);
        settings.setValue(QStringLiteral("LastFile"), QString());
        settings.sync();

        // Panes added one at a time, as a user adds them; the first window
        // of the process also pays for fonts and styles.
        const auto fresh = [&](const QString &name) {
            QElapsedTimer clock;
            clock.start();
            auto window = std::make_unique<MainWindow>();
            const qint64 constructed = clock.elapsed();
            while (window->panes().size() < kPaneCount)
                window->addPane();
            const qint64 added = clock.elapsed();
            const int painted = showAndPaint(*window);
            const qint64 total = clock.elapsed();
            report(name + QStringLiteral("_construct"), double(constructed), "ms");
            report(name + QStringLiteral("_add_panes"), double(added - constructed), "ms");
            report(name + QStringLiteral("_panes_in_view"), painted, "panes");
            report(name, double(total), "ms");
            return painted > 0 ? total : -1;
        };
        const qint64 cold = fresh(QStringLiteral("window_start_fresh_cold"));
        const qint64 warm = fresh(QStringLiteral("window_start_fresh_warm"));

        // The project open at the last exit comes back with the window.
        settings.setValue(QStringLiteral("LastFile"), projectPath);
        settings.sync();
        QElapsedTimer clock;
        clock.start();
        auto window = std::make_unique<MainWindow>();
        const bool fromProject = window->panes().size() == kPaneCount && showAndPaint(*window) > 0;
        const qint64 project = fromProject ? clock.elapsed() : -1;
        report(QStringLiteral("window_start_project"), double(project), "ms");

        // File > Open of the same project in the running window.
        clock.restart();
        bool reopened = window->openProject(projectPath);
        PaintWatch watch(window->panes());
        reopened = reopened && waitUntil([&] { return watch.visiblePainted(); }, 20000, 1);
        const qint64 open = reopened ? clock.elapsed() : -1;
        report(QStringLiteral("window_open_project"), double(open), "ms");
        report(QStringLiteral("window_rss_after_start"), double(procStatusKiB("VmRSS:")) / 1024.0, "MiB");

        const auto verdict = [](qint64 ms) {
            return ms >= 0 ? QStringLiteral("%1 ms, target %2 ms").arg(ms).arg(kStartTargetMs)
                           : QStringLiteral("never painted");
        };
        check(QStringLiteral("start_fresh_cold_under_1s"), cold >= 0 && cold < kStartTargetMs, verdict(cold));
        check(QStringLiteral("start_fresh_warm_under_1s"), warm >= 0 && warm < kStartTargetMs, verdict(warm));
        check(QStringLiteral("start_project_under_1s"), project >= 0 && project < kStartTargetMs, verdict(project));
        check(QStringLiteral("open_project_under_1s"), open >= 0 && open < kStartTargetMs, verdict(open));
        if (!reopened || window->panes().size() != kPaneCount) {
            out() << "FAILED: the project did not open with " << kPaneCount << " panes" << Qt::endl;
            return nullptr;
        }
        return window;
    }

    bool measureLoad(MainWindow &window)
    {
        const QList<SerialPortWidget *> panes = window.panes();
        // Panes at their narrowest are resized, and lay out their whole
        // view again, whenever a text in them gets longer.
        const auto widths = [&](const QString &when) {
            int narrowest = 0;
            int width = 0;
            for (const SerialPortWidget *pane : panes) {
                narrowest = qMax(narrowest, pane->minimumSizeHint().width());
                width = qMax(width, pane->width());
            }
            report(QStringLiteral("window_pane_min_width_%1").arg(when), narrowest, "px");
            report(QStringLiteral("window_pane_width_%1").arg(when), width, "px");
        };
        widths(QStringLiteral("idle"));
        std::vector<StreamSum> taps(size_t(panes.size()));
        for (qsizetype i = 0; i < panes.size(); ++i) {
            QObject::connect(panes.at(i)->session(), &PortSession::rxTapped, panes.at(i),
                             [&taps, i](const QByteArray &data) { taps[size_t(i)].add(data.constData(), size_t(data.size())); });
        }
        QElapsedTimer connecting;
        connecting.start();
        for (SerialPortWidget *pane : panes)
            pane->openConnection();
        const bool connected = waitUntil(
            [&] { return std::all_of(panes.begin(), panes.end(), [](const SerialPortWidget *p) { return p->isConnectionOpen(); }); },
            10000);
        if (!connected) {
            for (const SerialPortWidget *pane : panes) {
                if (!pane->isConnectionOpen())
                    out() << "FAILED: pane " << pane->connectionLabel() << " did not connect" << Qt::endl;
            }
            return false;
        }
        report(QStringLiteral("window_load_all_connected"), double(connecting.elapsed()), "ms");
        widths(QStringLiteral("connected"));

        // The heartbeat: a 1 ms timer whose longest gap is the longest stall.
        QElapsedTimer clock;
        qint64 lastTick = 0;
        qint64 longestStall = 0;
        qint64 longestStallAt = 0;
        int stallsOverTarget = 0;
        // CPU time the window's thread used between beats: a stall with
        // little of it was the machine's other work, not the window's.
        qint64 lastCpu = 0;
        qint64 longestStallCpu = 0;
        qint64 longestBusy = 0;
        // Heartbeat gaps by whole milliseconds, the last bucket for any longer.
        std::vector<qint64> gaps(1001, 0);
        // To line stalls up with `perf record -k CLOCK_MONOTONIC` samples.
        const bool traceStalls = qEnvironmentVariableIsSet("TSL_BENCH_TRACE_STALLS");
        ResizeTrace resizes(clock);
        if (traceStalls) {
            for (SerialPortWidget *pane : panes)
                pane->receiveView()->installEventFilter(&resizes);
            for (qsizetype i = 0; i < panes.size(); ++i)
                QObject::connect(panes.at(i)->receiveView(), &ReceiveView::trimmed, panes.at(i), [i, &clock](qsizetype removed) {
                    std::fprintf(stderr, "trim pane%02lld %lld chars at monotonic %.3f s\n", static_cast<long long>(i + 1),
                                 static_cast<long long>(removed), double(clock.msecsSinceReference() + clock.elapsed()) / 1000.0);
                });
        }
        QTimer heartbeat;
        heartbeat.setTimerType(Qt::PreciseTimer);
        QObject::connect(&heartbeat, &QTimer::timeout, [&] {
            const qint64 now = clock.elapsed();
            const qint64 gap = now - lastTick;
            const qint64 cpu = threadCpuUs();
            const qint64 busy = cpu - lastCpu;
            lastCpu = cpu;
            if (gap > longestStall) {
                longestStall = gap;
                longestStallAt = lastTick;
                longestStallCpu = busy;
            }
            longestBusy = qMax(longestBusy, busy);
            stallsOverTarget += gap > kStallTargetMs ? 1 : 0;
            ++gaps[size_t(qMin<qint64>(gap, qint64(gaps.size()) - 1))];
            if (traceStalls && gap > kTracedStallMs)
                std::fprintf(stderr, "stall %lld ms (%.1f ms on the CPU) from monotonic %.3f s\n",
                             static_cast<long long>(gap), double(busy) / 1000.0,
                             double(clock.msecsSinceReference() + lastTick) / 1000.0);
            lastTick = now;
        });

        std::vector<StreamSum> sent(size_t(panes.size()));
        qint64 shortfall = -1;
        bool peersDone = false;
        const auto readPeers = [&] {
            while (m_peers.canReadLine()) {
                const QList<QByteArray> words = m_peers.readLine().trimmed().split(' ');
                if (words.value(0) == "sent" && words.size() == 4) {
                    StreamSum &s = sent[size_t(qBound(0, words.at(1).toInt(), int(sent.size()) - 1))];
                    s.bytes = words.at(2).toULongLong();
                    s.hash = words.at(3).toULongLong();
                } else if (words.value(0) == "shortfall") {
                    shortfall = words.value(1).toLongLong();
                } else if (words.value(0) == "done") {
                    peersDone = true;
                }
            }
        };
        qint64 maxPending = 0;
        qint64 receivedMs = -1;
        const auto allReceived = [&] {
            for (size_t i = 0; i < taps.size(); ++i) {
                if (taps[i].bytes < sent[i].bytes)
                    return false;
            }
            return true;
        };

        QByteArray go = "go";
        for (quint16 port : std::as_const(m_goPorts))
            go += ' ' + QByteArray::number(port);
        clock.start();
        lastCpu = threadCpuUs();
        const qint64 loadStartCpu = lastCpu;
        heartbeat.start(1);
        m_peers.write(go + '\n');
        const bool finished = waitUntil(
            [&] {
                readPeers();
                qint64 pending = 0;
                for (const SerialPortWidget *pane : panes)
                    pending += pane->pendingDisplayBytes();
                maxPending = qMax(maxPending, pending);
                if (!peersDone || !allReceived())
                    return false;
                if (receivedMs < 0)
                    receivedMs = clock.elapsed();
                return pending == 0;
            },
            qint64(m_run.seconds * 1000) + 60000);
        const qint64 shownMs = clock.elapsed();
        const qint64 loadCpuUs = threadCpuUs() - loadStartCpu;
        heartbeat.stop();
        widths(QStringLiteral("loaded"));
        for (SerialPortWidget *pane : panes)
            pane->closeConnection();

        quint64 total = 0;
        int exact = 0;
        for (qsizetype i = 0; i < panes.size(); ++i) {
            const SerialPortWidget *pane = panes.at(i);
            const StreamSum &got = taps[size_t(i)];
            const StreamSum &want = sent[size_t(i)];
            total += got.bytes;
            const bool same = got == want && pane->rxCount() == got.bytes;
            exact += same ? 1 : 0;
            const QString name = QStringLiteral("pane%1_%2").arg(i + 1, 2, 10, QLatin1Char('0')).arg(connectionModeTag(pane->connectionConfig().mode));
            report(QStringLiteral("window_load_%1_received").arg(name), double(got.bytes), "bytes");
            if (!same)
                out() << "LOSS: " << name << " received " << got.bytes << " bytes (counter "
                      << pane->rxCount() << ", checksum " << Qt::hex << got.hash << Qt::dec << "), its peer sent "
                      << want.bytes << " (checksum " << Qt::hex << want.hash << Qt::dec << ')' << Qt::endl;
        }
        const double seconds = double(qMax<qint64>(1, shownMs)) / 1000.0;
        report(QStringLiteral("window_load_seconds"), m_run.seconds, "s");
        report(QStringLiteral("window_columns"), m_run.columns, "panes");
        report(QStringLiteral("window_view_buffer"), m_run.displayBuffer, "chars");
        report(QStringLiteral("window_load_bytes"), double(total), "bytes");
        report(QStringLiteral("window_load_received"),
               double(total) / 1e6 / (double(qMax<qint64>(1, receivedMs)) / 1000.0), "MB/s");
        report(QStringLiteral("window_load_displayed"), double(total) / 1e6 / seconds, "MB/s");
        report(QStringLiteral("window_load_drain_after_peers"), double(shownMs) - m_run.seconds * 1000.0, "ms");
        report(QStringLiteral("window_load_peer_shortfall"), double(shortfall), "bytes");
        report(QStringLiteral("window_load_max_pending"), double(maxPending) / 1e6, "MB");
        // The window's thread, heartbeat included, as a share of one core.
        report(QStringLiteral("window_load_cpu_share"), 100.0 * double(loadCpuUs) / 1000.0 / double(qMax<qint64>(1, shownMs)), "%");
        report(QStringLiteral("window_load_longest_stall"), double(longestStall), "ms");
        report(QStringLiteral("window_load_longest_stall_at"), double(longestStallAt), "ms");
        report(QStringLiteral("window_load_longest_stall_cpu"), double(longestStallCpu) / 1000.0, "ms");
        report(QStringLiteral("window_load_longest_busy"), double(longestBusy) / 1000.0, "ms");
        report(QStringLiteral("window_load_stalls_over_50ms"), stallsOverTarget, "times");
        const qint64 beats = std::accumulate(gaps.begin(), gaps.end(), qint64(0));
        const auto percentile = [&](double share) {
            qint64 seen = 0;
            for (size_t ms = 0; ms < gaps.size(); ++ms) {
                seen += gaps[ms];
                if (double(seen) >= share * double(beats))
                    return double(ms);
            }
            return double(gaps.size() - 1);
        };
        report(QStringLiteral("window_load_heartbeat_gap_p50"), percentile(0.5), "ms");
        report(QStringLiteral("window_load_heartbeat_gap_p99"), percentile(0.99), "ms");
        report(QStringLiteral("window_load_heartbeats"), double(beats) / seconds, "per s");
        report(QStringLiteral("window_load_panes_exact"), exact, "panes");

        const bool lossless = finished && exact == panes.size();
        check(QStringLiteral("stall_under_50ms"), longestStall < kStallTargetMs,
              QStringLiteral("%1 ms, target %2 ms").arg(longestStall).arg(kStallTargetMs));
        check(QStringLiteral("no_loss"), lossless,
              finished ? QStringLiteral("%1 of %2 panes exact").arg(exact).arg(panes.size())
                       : QStringLiteral("timed out waiting for the panes"));
        return lossless;
    }

    QString m_self;
    RunOptions m_run;
    QTemporaryDir m_dir;
    QList<PaneSpec> m_specs;
    std::vector<std::unique_ptr<PtyPair>> m_ptys;
    QList<quint16> m_goPorts;
    QProcess m_peers;
};

double argument(const QStringList &args, const QString &name, double fallback)
{
    const qsizetype at = args.indexOf(name);
    bool ok = false;
    const double value = at >= 0 ? args.value(at + 1).toDouble(&ok) : 0;
    return ok && value > 0 ? value : fallback;
}

} // namespace

int main(int argc, char *argv[])
{
    if (argc >= 3 && std::strcmp(argv[1], "--peer") == 0)
        return runPeers(std::atof(argv[2]), std::vector<std::string>(argv + 3, argv + argc));

    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    AppIdentity::apply(app);
    QStandardPaths::setTestModeEnabled(true);
    // The window reads and writes its settings: keep them out of the user's.
    QTemporaryDir settingsDir;
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, settingsDir.path());
    QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, settingsDir.path());
    QSettings::setPath(QSettings::NativeFormat, QSettings::SystemScope, settingsDir.path() + QStringLiteral("/system"));
    QSettings::setPath(QSettings::IniFormat, QSettings::SystemScope, settingsDir.path() + QStringLiteral("/system"));

    const QStringList args = app.arguments();
    RunOptions run;
    run.seconds = argument(args, QStringLiteral("--seconds"), run.seconds);
    run.scale = argument(args, QStringLiteral("--scale"), run.scale);
    run.columns = qBound(Project::kMinColumnNumber, int(argument(args, QStringLiteral("--columns"), run.columns)),
                         Project::kMaxColumnNumber);
    run.displayBuffer = int(argument(args, QStringLiteral("--buffer"), run.displayBuffer));
    run.tcpOnly = args.contains(QStringLiteral("--tcp-only"));
    Bench bench(app.applicationFilePath(), run);
    return bench.run();
}
