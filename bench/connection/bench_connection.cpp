// How a TCP server pane copes with many clients: how fast it admits a crowd
// arriving at once (against a bare QTcpServer in the same run) and how much
// it can write to all of them, with the event loop's worst stall alongside.
// Prints one figure per line: name, value, unit.
#include "support/benchsupport.h"
#include "connection/connectioncontroller.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>

#include <sys/resource.h>

#include <cstdio>
#include <memory>
#include <vector>

namespace {

constexpr int kAcceptClients = 1000;
constexpr int kFanOutClients = 100;
constexpr qint64 kFanOutBytesPerClient = 8 * 1024 * 1024;
constexpr int kChunk = 64 * 1024;
constexpr int kTimeoutMs = 60000;

bool spinUntil(const std::function<bool()> &done, qint64 timeoutMs = kTimeoutMs)
{
    return BenchSupport::runUntil(done, timeoutMs);
}


void print(const char *name, double value, const char *unit)
{
    std::printf("%s %.1f %s\n", name, value, unit);
    std::fflush(stdout);
}

bool raiseDescriptorLimit(rlim_t needed)
{
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return false;
    if (limit.rlim_cur >= needed)
        return true;
    limit.rlim_cur = qMin(needed, limit.rlim_max);
    return ::setrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur >= needed;
}

std::vector<std::unique_ptr<QTcpSocket>> connectCrowd(quint16 port, int count)
{
    std::vector<std::unique_ptr<QTcpSocket>> crowd;
    crowd.reserve(count);
    for (int i = 0; i < count; ++i) {
        crowd.push_back(std::make_unique<QTcpSocket>());
        crowd.back()->connectToHost(QHostAddress::LocalHost, port);
    }
    return crowd;
}

double controllerAcceptRate()
{
    ConnectionController controller;
    if (!controller.startTcpServer(0, QHostAddress(QHostAddress::LocalHost)))
        return -1;
    int arrived = 0;
    QObject::connect(&controller, &ConnectionController::peerArrived, [&] { ++arrived; });
    const quint16 port = controller.serverAddressText().section(':', -1).toUShort();
    QElapsedTimer clock;
    clock.start();
    auto crowd = connectCrowd(port, kAcceptClients);
    if (!spinUntil([&] { return arrived == kAcceptClients; }))
        return -1;
    return kAcceptClients * 1000.0 / qMax<qint64>(1, clock.elapsed());
}

double plainAcceptRate()
{
    QTcpServer server;
    server.setListenBacklogSize(1024);
    if (!server.listen(QHostAddress::LocalHost, 0))
        return -1;
    std::vector<std::unique_ptr<QTcpSocket>> accepted;
    QObject::connect(&server, &QTcpServer::newConnection, [&] {
        while (server.hasPendingConnections())
            accepted.emplace_back(server.nextPendingConnection());
    });
    QElapsedTimer clock;
    clock.start();
    auto crowd = connectCrowd(server.serverPort(), kAcceptClients);
    if (!spinUntil([&] { return int(accepted.size()) == kAcceptClients; }))
        return -1;
    return kAcceptClients * 1000.0 / qMax<qint64>(1, clock.elapsed());
}

struct FanOut
{
    double megabytesPerSecond = -1;
    qint64 worstStallMs = -1;
};

FanOut writeToAllThroughput()
{
    ConnectionController controller;
    if (!controller.startTcpServer(0, QHostAddress(QHostAddress::LocalHost)))
        return {};
    int arrived = 0;
    QObject::connect(&controller, &ConnectionController::peerArrived, [&] { ++arrived; });
    const quint16 port = controller.serverAddressText().section(':', -1).toUShort();
    auto crowd = connectCrowd(port, kFanOutClients);
    qint64 delivered = 0;
    for (auto &client : crowd) {
        QTcpSocket *raw = client.get();
        QObject::connect(raw, &QTcpSocket::readyRead, [raw, &delivered] { delivered += raw->skip(raw->bytesAvailable()); });
    }
    if (!spinUntil([&] { return arrived == kFanOutClients; }))
        return {};

    QElapsedTimer sinceBeat;
    qint64 worstStall = 0;
    QTimer beat;
    beat.setInterval(10);
    QObject::connect(&beat, &QTimer::timeout, [&] { worstStall = qMax(worstStall, sinceBeat.restart()); });

    const QByteArray chunk(kChunk, 'x');
    const qint64 chunks = kFanOutBytesPerClient / kChunk;
    qint64 sentChunks = 0;
    // Keep a few chunks queued per client: enough to keep the sockets busy
    // without buffering the whole run in memory.
    auto topUp = [&] {
        while (sentChunks < chunks && controller.bytesToWrite(ConnectionMode::TcpServer) < 4LL * kChunk * kFanOutClients) {
            controller.sendToAllServerClients(chunk);
            ++sentChunks;
        }
    };
    QObject::connect(&controller, &ConnectionController::bytesWritten, topUp);

    QElapsedTimer clock;
    clock.start();
    sinceBeat.start();
    beat.start();
    topUp();
    const qint64 total = chunks * kChunk * kFanOutClients;
    if (!spinUntil([&] { return delivered >= total; }))
        return {};
    const double seconds = qMax<qint64>(1, clock.elapsed()) / 1000.0;
    return {total / seconds / 1e6, worstStall};
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    if (!raiseDescriptorLimit(2 * kAcceptClients + 256)) {
        std::fprintf(stderr, "the descriptor limit is too low for %d clients\n", kAcceptClients);
        return 1;
    }
    const double ours = controllerAcceptRate();
    const double plain = plainAcceptRate();
    const FanOut fanOut = writeToAllThroughput();
    if (ours < 0 || plain < 0 || fanOut.megabytesPerSecond < 0) {
        std::fprintf(stderr, "a measurement did not finish within %d ms\n", kTimeoutMs);
        return 1;
    }
    print("server_accept_rate_1000_clients", ours, "clients/s");
    print("plain_qtcpserver_accept_rate_1000_clients", plain, "clients/s");
    print("server_write_to_all_100_clients", fanOut.megabytesPerSecond, "MB/s");
    print("server_write_to_all_worst_event_loop_stall", double(fanOut.worstStallMs), "ms");
    return 0;
}
