// A pane's serial port shared over RFC 2217, beside ser2net serving the same
// kind of socat pty in the same run. The client is the same for both: our
// own remote serial port pane (Telnet with serial port control). Measured
// each way: from the line's far end to the client (down) and from the client
// to the far end (up), 32 MiB of every byte value (each 0xFF travels
// doubled), best of two rounds with the two servers alternated. Prints one
// figure per line: name, value, unit.
#include "support/benchsupport.h"
#include "bridge/bridgeengine.h"
#include "bridge/listenerbridgeend.h"
#include "bridge/panedirectory.h"
#include "connection/connectioncontroller.h"
#include "support/ptypair.h"
#include "support/ser2netserver.h"
#include "terminal/portsession.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QLoggingCategory>
#include <QSerialPort>
#include <QTimer>

#include <cstdio>
#include <memory>

namespace {

constexpr qint64 kTotalBytes = 32 * 1024 * 1024;
constexpr int kChunk = 256 * 1024;
constexpr int kTimeoutMs = 120000;

void print(const char *name, double value, const char *unit, int decimals = 1)
{
    std::printf("%s %.*f %s\n", name, decimals, value, unit);
    std::fflush(stdout);
}

QByteArray pattern(int size)
{
    QByteArray out(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i)
        out[i] = char((i * 7) & 0xFF);
    return out;
}

enum class Way { Down, Up };

// A server on one end of a fresh pty pair; the far end is the other.
struct Server
{
    virtual ~Server() = default;
    virtual bool start() = 0;
    virtual quint16 port() const = 0;
    virtual QString farPath() const = 0;
};

struct OurShare : Server
{
    PtyPair pty;
    PaneDirectory panes;
    std::unique_ptr<PortSession> shared;
    std::unique_ptr<BridgeEngine> engine;
    QTimer view;

    bool start() override
    {
        if (!pty.start())
            return false;
        shared = std::make_unique<PortSession>(1);
        ConnectionConfig config;
        config.mode = ConnectionMode::Serial;
        config.portName = pty.pathA();
        config.baudRate = 115200;
        PaneOptions options;
        options.logSaveFlag = false;
        shared->applySettings(config, options, {});
        if (!shared->openConnection())
            return false;
        panes.add(shared.get());
        // The shared pane's refresh takes what it shows, as on screen.
        QObject::connect(&view, &QTimer::timeout, [this] { shared->takeForView(-1, -1); });
        view.start(20);
        BridgeRecord record;
        record.name = QStringLiteral("bench");
        record.kind = BridgeKind::Rfc2217Share;
        record.ends[BridgeRecord::kA].kind = BridgeEndSpec::Kind::Listener;
        record.ends[BridgeRecord::kA].listenAddress = QStringLiteral("127.0.0.1");
        record.ends[BridgeRecord::kA].listenPort = 0;
        record.ends[BridgeRecord::kB].kind = BridgeEndSpec::Kind::Pane;
        record.ends[BridgeRecord::kB].pane = PaneDirectory::endpointLabel(shared->config());
        engine = std::make_unique<BridgeEngine>(record, &panes);
        engine->start();
        return BenchSupport::runUntil([this] { return engine->state() == BridgeEngine::State::Running; }, 5000);
    }
    quint16 port() const override
    {
        return qobject_cast<ListenerBridgeEnd *>(engine->end(BridgeRecord::kA))->listeningPort();
    }
    QString farPath() const override { return pty.pathB(); }
};

struct Ser2net : Server
{
    PtyPair pty;
    Ser2netServer ser2net;

    bool start() override
    {
        if (!pty.start())
            return false;
        if (!ser2net.start(pty.pathB(), Ser2netServer::Protocol::Rfc2217)) {
            std::fprintf(stderr, "%s\n", qPrintable(ser2net.errorText()));
            return false;
        }
        return true;
    }
    quint16 port() const override { return ser2net.port(); }
    QString farPath() const override { return pty.pathA(); }
};

// MB/s one way through a server, or a negative value when it did not finish.
double throughput(Server &server, Way way, const char *name)
{
    if (!server.start()) {
        std::fprintf(stderr, "%s: the server did not start\n", name);
        return -1;
    }
    QSerialPort far;
    far.setPortName(server.farPath());
    if (!far.open(QIODevice::ReadWrite)) {
        std::fprintf(stderr, "%s: %s\n", name, qPrintable(far.errorString()));
        return -1;
    }
    PortSession client(2);
    ConnectionConfig config;
    config.mode = ConnectionMode::RemoteSerialRfc2217;
    config.targetHost = QStringLiteral("127.0.0.1");
    config.targetPort = server.port();
    config.baudRate = 115200;
    PaneOptions options;
    options.logSaveFlag = false;
    options.displaySendMsg = false;
    client.applySettings(config, options, {});
    qint64 received = 0;
    QObject::connect(&client, &PortSession::rxTapped, [&](const QByteArray &d) { received += d.size(); });
    QTimer drain;
    QObject::connect(&drain, &QTimer::timeout, [&] { client.takeForView(-1, -1); });
    drain.start(20);
    client.openConnection();
    if (!BenchSupport::runUntil(
            [&] {
                return client.isConnectionOpen()
                       && client.controller()->remoteNegotiation() == ConnectionController::RemoteNegotiation::Rfc2217;
            },
            10000)) {
        std::fprintf(stderr, "%s: the client did not take serial port control\n", name);
        return -1;
    }
    // ser2net opens (and flushes) the device as the client arrives.
    BenchSupport::runUntil([] { return false; }, 500);
    far.readAll();

    const QByteArray chunk = pattern(kChunk);
    qint64 written = 0;
    qint64 arrived = 0;
    QElapsedTimer clock;
    clock.start();
    const bool done = BenchSupport::runUntil(
        [&] {
            if (way == Way::Down) {
                while (written < kTotalBytes && far.bytesToWrite() < 4 * kChunk) {
                    far.write(chunk);
                    written += kChunk;
                }
                return received >= kTotalBytes;
            }
            while (written < kTotalBytes && client.peerBacklog() < 4 * kChunk) {
                if (!client.sendBytes(chunk, false))
                    break;
                written += kChunk;
            }
            arrived += far.readAll().size();
            return arrived >= kTotalBytes;
        },
        kTimeoutMs);
    const qint64 ms = qMax<qint64>(1, clock.elapsed());
    client.closeConnection();
    if (!done) {
        std::fprintf(stderr, "%s: only %lld of %lld bytes arrived\n", name,
                     way == Way::Down ? received : arrived, kTotalBytes);
        return -1;
    }
    return double(kTotalBytes) / 1e6 / (double(ms) / 1000.0);
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QLoggingCategory::setFilterRules(QStringLiteral("tsl.*.info=false"));
    double ours[2] = {0, 0};
    double theirs[2] = {0, 0};
    for (int round = 0; round < 2; ++round) {
        for (Way way : {Way::Down, Way::Up}) {
            const int w = int(way);
            {
                OurShare share;
                const double r = throughput(share, way, "ours");
                if (r < 0)
                    return 1;
                ours[w] = qMax(ours[w], r);
            }
            {
                Ser2net ser2net;
                const double r = throughput(ser2net, way, "ser2net");
                if (r < 0)
                    return 1;
                theirs[w] = qMax(theirs[w], r);
            }
        }
    }
    print("rfc2217_share_line_to_client", ours[0], "MB/s");
    print("ser2net_line_to_client", theirs[0], "MB/s");
    print("rfc2217_share_line_to_client_of_ser2net", ours[0] / theirs[0], "x", 2);
    print("rfc2217_share_client_to_line", ours[1], "MB/s");
    print("ser2net_client_to_line", theirs[1], "MB/s");
    print("rfc2217_share_client_to_line_of_ser2net", ours[1] / theirs[1], "x", 2);
    return 0;
}
