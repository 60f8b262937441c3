// A remote serial port under load: 64 MiB written into one end of a socat
// pty pair, served by ser2net, received by a port session that drains its
// view queue as a pane would. Measured once through ser2net's RFC 2217
// accepter (our Telnet client on the path) and once through a raw TCP
// accepter of the same ser2net on the same pty (a plain TCP client pane),
// in the same run. Also the receiver's unescaping on its own. Prints one
// figure per line: name, value, unit.
#include "support/benchsupport.h"
#include "connection/connectioncontroller.h"
#include "connection/telnetcodec.h"
#include "support/ptypair.h"
#include "support/ser2netserver.h"
#include "terminal/portsession.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QLoggingCategory>
#include <QSerialPort>
#include <QTimer>

#include <cstdio>
#include <functional>

namespace {

constexpr qint64 kTotalBytes = 64 * 1024 * 1024;
constexpr int kChunk = 256 * 1024;
constexpr int kTimeoutMs = 120000;

bool spinUntil(const std::function<bool()> &done, qint64 timeoutMs = kTimeoutMs)
{
    return BenchSupport::runUntil(done, timeoutMs);
}


void print(const char *name, double value, const char *unit, int decimals = 1)
{
    std::printf("%s %.*f %s\n", name, decimals, value, unit);
    std::fflush(stdout);
}

// Every byte value, so the RFC 2217 path escapes and unescapes 0xFF.
QByteArray pattern(int size)
{
    QByteArray out(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i)
        out[i] = char(i & 0xFF);
    return out;
}

// MB/s of 64 MiB from the far pty end into a session through ser2net, or a
// negative value when it did not finish.
double throughput(PtyPair &pty, Ser2netServer::Protocol protocol, ConnectionMode mode)
{
    Ser2netServer ser2net;
    if (!ser2net.start(pty.pathB(), protocol)) {
        std::fprintf(stderr, "%s\n", qPrintable(ser2net.errorText()));
        return -1;
    }
    QSerialPort far;
    far.setPortName(pty.pathA());
    if (!far.open(QIODevice::ReadWrite)) {
        std::fprintf(stderr, "%s\n", qPrintable(far.errorString()));
        return -1;
    }
    PortSession session(1);
    ConnectionConfig config;
    config.mode = mode;
    config.targetHost = QStringLiteral("127.0.0.1");
    config.targetPort = ser2net.port();
    config.baudRate = 115200;
    session.applySettings(config, PaneOptions(), {});
    qint64 received = 0;
    bool decided = mode != ConnectionMode::RemoteSerialRfc2217;
    QObject::connect(&session, &PortSession::rxTapped, [&](const QByteArray &d) { received += d.size(); });
    QObject::connect(&session, &PortSession::note, [&](const QString &) { decided = true; });
    // A pane's refresh tick takes what waits for the view.
    QTimer drain;
    QObject::connect(&drain, &QTimer::timeout, [&] { session.takeForView(-1, -1); });
    drain.start(20);
    session.openConnection();
    if (!spinUntil([&] { return session.isConnectionOpen() && decided; }, 10000)) {
        std::fprintf(stderr, "the session did not connect\n");
        return -1;
    }

    // ser2net opens the device when a client arrives (and flushes it);
    // bytes written before that are lost. Give it a moment on both paths.
    spinUntil([] { return false; }, 500);

    const QByteArray chunk = pattern(kChunk);
    qint64 written = 0;
    QElapsedTimer clock;
    clock.start();
    // Keep a few chunks in flight so the writer never waits on us alone.
    const bool done = spinUntil([&] {
        while (written < kTotalBytes && far.bytesToWrite() < 4 * kChunk) {
            far.write(chunk);
            written += kChunk;
        }
        return received >= kTotalBytes;
    });
    const qint64 ms = qMax<qint64>(1, clock.elapsed());
    session.closeConnection();
    if (!done) {
        std::fprintf(stderr, "%s: only %lld of %lld bytes arrived (%lld still to write at the far end, reading %s)\n",
                     mode == ConnectionMode::TcpClient ? "raw TCP" : "RFC 2217", received, kTotalBytes,
                     far.bytesToWrite(), session.controller()->isReadPaused() ? "paused" : "on");
        return -1;
    }
    return double(kTotalBytes) / 1e6 / (double(ms) / 1000.0);
}

// The receiver alone: MB/s of payload out of TelnetCodec::feed for data
// with no 0xFF (passed through without a copy) and with every byte value
// (each 0xFF arrives doubled).
void unescaping()
{
    const QByteArray plain(16 * 1024 * 1024, 'a');
    const QByteArray escaped = TelnetCodec::escape(pattern(16 * 1024 * 1024));
    for (const auto &[name, input] : {std::pair{"telnet_unescape_plain", plain},
                                      std::pair{"telnet_unescape_every_byte", escaped}}) {
        TelnetCodec codec(TelnetCodec::Role::Client);
        codec.start();
        qint64 payload = 0;
        QElapsedTimer clock;
        clock.start();
        for (int round = 0; round < 8; ++round) {
            for (qsizetype at = 0; at < input.size(); at += 64 * 1024) {
                const TelnetCodec::Step step = codec.feed(input.mid(at, 64 * 1024));
                for (const TelnetCodec::Event &event : step.events)
                    payload += event.bytes.size();
            }
        }
        const qint64 ns = qMax<qint64>(1, clock.nsecsElapsed());
        print(name, double(payload) / 1e6 / (double(ns) / 1e9), "MB/s");
    }
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QLoggingCategory::setFilterRules(QStringLiteral("tsl.*.info=false"));
    unescaping();

    PtyPair pty;
    if (!pty.start()) {
        std::fprintf(stderr, "%s\n", qPrintable(pty.errorText()));
        return 1;
    }
    // Alternated, best of two each, so that neither path pays for the
    // other's warm-up or a busy moment of the machine.
    double rfc2217 = 0;
    double raw = 0;
    for (int round = 0; round < 2; ++round) {
        const double r = throughput(pty, Ser2netServer::Protocol::Rfc2217, ConnectionMode::RemoteSerialRfc2217);
        const double t = throughput(pty, Ser2netServer::Protocol::RawTcp, ConnectionMode::TcpClient);
        if (r < 0 || t < 0)
            return 1;
        rfc2217 = qMax(rfc2217, r);
        raw = qMax(raw, t);
    }
    print("rfc2217_64MiB_into_pane", rfc2217, "MB/s");
    print("raw_tcp_64MiB_into_pane", raw, "MB/s");
    print("rfc2217_to_raw_tcp_ratio", rfc2217 / raw, "x", 2);
    return 0;
}
