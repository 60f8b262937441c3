// A port pane flooded through TCP loopback by a sender in another process,
// as fast as the socket takes it: how fast bytes come in and reach the view,
// whether the event loop keeps answering, and whether memory stays bounded.
// Runs once in text and once in hex, timestamps on, and checks that every
// byte was counted. One line per figure: name, value, unit.
//
//   bench_pane_flood [--bytes N]          (default 1 GiB per run)
//   bench_pane_flood --send <text|hex> N  (the sender; prints its port)

#include "common/appidentity.h"
#include "support/benchsupport.h"
#include "support/loopback.h"
#include "connection/connectioncontroller.h"
#include "terminal/receiveingest.h"
#include "terminal/receiveview.h"
#include "terminal/serialportwidget.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTextStream>
#include <QTimer>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

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

// The sender: listens on a free loopback port, prints it, and writes the
// bytes to the first client with blocking writes.
int runSender(bool text, qint64 total)
{
    const int listener = BenchSupport::loopbackSocket(SOCK_STREAM, 0, true);
    if (listener < 0) {
        std::perror("sender");
        return 1;
    }
    std::printf("%d\n", BenchSupport::boundPort(listener));
    std::fflush(stdout);
    const int client = ::accept(listener, nullptr, nullptr);
    if (client < 0)
        return 1;
    QByteArray block;
    if (text) {
        const QByteArray line = QByteArray("T=23.5C RH=41% status ok counter=0123456789 ")
                                + QByteArray(34, 'x') + "\r\n";
        block = line.repeated(64 * 1024 / line.size() + 1);
    } else {
        for (int i = 0; i < 64 * 1024; ++i)
            block.append(char(i & 0xFF));
    }
    qint64 sent = 0;
    while (sent < total) {
        const qint64 n = qMin<qint64>(block.size(), total - sent);
        const ssize_t w = ::send(client, block.constData(), size_t(n), MSG_NOSIGNAL);
        if (w <= 0) {
            std::perror("send");
            return 1;
        }
        sent += w;
    }
    ::shutdown(client, SHUT_WR);
    char drain[256];
    while (::recv(client, drain, sizeof drain, 0) > 0) {
    }
    ::close(client);
    ::close(listener);
    return 0;
}

bool runFlood(const QString &self, bool hex, qint64 total)
{
    const QString mode = hex ? QStringLiteral("hex") : QStringLiteral("text");
    QProcess sender;
    sender.start(self, {QStringLiteral("--send"), mode, QString::number(total)});
    if (!sender.waitForReadyRead(5000)) {
        out() << "sender did not start" << Qt::endl;
        return false;
    }
    const int port = sender.readLine().trimmed().toInt();

    SerialPortWidget pane(1);
    pane.resize(1280, 800);
    pane.show();
    ConnectionConfig config;
    config.mode = ConnectionMode::TcpClient;
    config.targetHost = QStringLiteral("127.0.0.1");
    config.targetPort = port;
    PaneOptions options;
    options.receiveFormat = hex ? MessageFormat::Hex : MessageFormat::Text;
    options.displayTime = true;
    pane.applySettings(config, options, {});

    // The probe: a 1 ms timer whose longest gap is the longest stall.
    QElapsedTimer probeClock;
    qint64 lastTick = 0;
    qint64 longestStall = 0;
    QTimer probe;
    probe.setTimerType(Qt::PreciseTimer);
    QObject::connect(&probe, &QTimer::timeout, [&] {
        const qint64 now = probeClock.elapsed();
        longestStall = qMax(longestStall, now - lastTick);
        lastTick = now;
    });

    qint64 maxPending = 0;
    int pauses = 0;
    bool wasPaused = false;
    qint64 ingestDoneMs = -1;
    QElapsedTimer clock;
    QTimer watch;
    QObject::connect(&watch, &QTimer::timeout, [&] {
        maxPending = qMax(maxPending, pane.pendingDisplayBytes());
        const bool paused = pane.controller()->isReadPaused();
        if (paused && !wasPaused)
            ++pauses;
        wasPaused = paused;
        if (ingestDoneMs < 0 && qint64(pane.rxCount()) >= total)
            ingestDoneMs = clock.elapsed();
        if (ingestDoneMs >= 0 && pane.pendingDisplayBytes() == 0)
            QCoreApplication::exit(0);
    });

    clock.start();
    probeClock.start();
    probe.start(1);
    watch.start(5);
    pane.openConnection();
    // A generous bound: the display ceiling is about 13 MB/s.
    QTimer::singleShot(int(qMin<qint64>(total / 1000 + 120000, 3600000)), [] { QCoreApplication::exit(1); });
    const int rc = QCoreApplication::exec();
    const qint64 doneMs = clock.elapsed();
    probe.stop();
    watch.stop();
    pane.closeConnection();
    sender.waitForFinished(5000);

    const QString prefix = QStringLiteral("pane_flood_%1_").arg(mode);
    report(prefix + QStringLiteral("ingest"), double(pane.rxCount()) / 1e6 / (double(qMax<qint64>(1, ingestDoneMs)) / 1000.0), "MB/s");
    report(prefix + QStringLiteral("displayed"), double(pane.rxCount()) / 1e6 / (double(qMax<qint64>(1, doneMs)) / 1000.0), "MB/s");
    report(prefix + QStringLiteral("displayed_per_refresh"),
           double(pane.rxCount()) / (double(qMax<qint64>(1, doneMs)) / SerialPortWidget::kRefreshIntervalMs), "bytes");
    report(prefix + QStringLiteral("refresh_ceiling"), double(ReceiveIngest::kRefreshByteBudget), "bytes");
    report(prefix + QStringLiteral("longest_stall"), double(longestStall), "ms");
    report(prefix + QStringLiteral("max_pending"), double(maxPending) / 1e6, "MB");
    report(prefix + QStringLiteral("read_pauses"), pauses, "times");
    report(prefix + QStringLiteral("view_chars"), double(pane.receiveView()->document()->characterCount()), "chars");
    report(prefix + QStringLiteral("rx_counter"), double(pane.rxCount()), "bytes");
    report(prefix + QStringLiteral("peak_rss"), double(BenchSupport::procStatusKiB("VmHWM:")) / 1024.0, "MiB");
    const bool exact = qint64(pane.rxCount()) == total;
    if (rc != 0 || !exact)
        out() << prefix << "FAILED: received " << pane.rxCount() << " of " << total << Qt::endl;
    return rc == 0 && exact;
}

} // namespace

int main(int argc, char *argv[])
{
    if (argc >= 4 && std::strcmp(argv[1], "--send") == 0)
        return runSender(std::strcmp(argv[2], "text") == 0, QByteArray(argv[3]).toLongLong());

    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    AppIdentity::apply(app);
    QStandardPaths::setTestModeEnabled(true);
    qint64 total = 1LL << 30;
    const QStringList args = app.arguments();
    const qsizetype at = args.indexOf(QStringLiteral("--bytes"));
    if (at >= 0 && at + 1 < args.size())
        total = args.at(at + 1).toLongLong();

    bool ok = runFlood(app.applicationFilePath(), false, total);
    ok = runFlood(app.applicationFilePath(), true, total) && ok;
    return ok ? 0 : 1;
}
