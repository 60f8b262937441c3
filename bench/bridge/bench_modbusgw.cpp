// Modbus requests per second through the gateway, against what the bus
// allows. The line is a pseudo-terminal whose far end (modbus_bus_slave.py)
// answers no sooner than a real bus at the same baud rate would deliver the
// reply; the bus allows one transaction per request time + 3.5 characters +
// reply time + 3.5 characters + the turnaround, from the frame sizes this
// run carried. A TCP client keeps four requests waiting so the line never
// idles for want of one.
//
//   bench_modbusgw [--requests N]   (N at 115200 baud, N/5 at 9600; default 2000)

#include "bridge/bridgeengine.h"
#include "bridge/listenerbridgeend.h"
#include "bridge/modbusarbiter.h"
#include "bridge/modbustcpreader.h"
#include "bridge/panedirectory.h"
#include "support/benchsupport.h"
#include "terminal/portsession.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QProcess>
#include <QTcpSocket>
#include <QTimer>
#include <QtEndian>

#include <cstdio>

namespace {

constexpr int kRegisters = 10;
constexpr int kTurnaroundMs = 1;
constexpr int kOutstanding = 4;

void figure(const char *name, double value, const char *unit)
{
    std::printf("%s %.3f %s\n", name, value, unit);
    std::fflush(stdout);
}

bool runAt(int baud, int requests)
{
    QProcess slave;
    slave.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    const QString script = QCoreApplication::applicationDirPath() + QStringLiteral("/modbus_bus_slave.py");
    slave.start(QStringLiteral("/usr/bin/python3"), {script, QString::number(baud)});
    if (!slave.waitForStarted(5000) || !BenchSupport::waitUntil([&] { return slave.canReadLine(); }, 10000)) {
        std::fprintf(stderr, "the bus slave did not start: %s\n", qPrintable(script));
        return false;
    }
    const QString line = QString::fromLocal8Bit(slave.readLine().trimmed());

    PaneDirectory panes;
    PortSession session(1);
    ConnectionConfig config;
    config.mode = ConnectionMode::Serial;
    config.portName = line;
    config.baudRate = baud;
    PaneOptions options;
    options.logSaveFlag = false;
    session.applySettings(config, options, {});
    if (!session.openConnection()) {
        std::fprintf(stderr, "cannot open %s\n", qPrintable(line));
        return false;
    }
    panes.add(&session);
    QTimer view;
    QObject::connect(&view, &QTimer::timeout, &session, [&session] { session.takeForView(-1, -1); });
    view.start(20);

    BridgeRecord record;
    record.name = QStringLiteral("bench");
    record.kind = BridgeKind::ModbusGateway;
    record.ends[BridgeRecord::kA].kind = BridgeEndSpec::Kind::Listener;
    record.ends[BridgeRecord::kA].listenAddress = QStringLiteral("127.0.0.1");
    record.ends[BridgeRecord::kA].listenPort = 0;
    record.ends[BridgeRecord::kB].pane = PaneDirectory::endpointLabel(session.config());
    record.flood.echoCheck = false;
    record.modbus.turnaroundMs = kTurnaroundMs;
    BridgeEngine engine(record, &panes);
    engine.start();
    if (!BenchSupport::waitUntil([&] { return engine.state() == BridgeEngine::State::Running; }, 10000)) {
        std::fprintf(stderr, "the gateway did not run: %s\n", qPrintable(engine.stateText()));
        return false;
    }

    QTcpSocket client;
    client.connectToHost(QHostAddress::LocalHost,
                         qobject_cast<ListenerBridgeEnd *>(engine.end(BridgeRecord::kA))->listeningPort());
    if (!client.waitForConnected(5000))
        return false;
    QByteArray pdu(5, '\0');
    pdu[0] = 0x03;
    qToBigEndian(quint16(kRegisters), pdu.data() + 3);
    int sent = 0;
    int replied = 0;
    int wrong = 0;
    ModbusTcpReader reader;
    const auto send = [&] {
        while (sent < requests && sent - replied < kOutstanding) {
            client.write(ModbusTcpReader::frame(quint16(sent), 1, pdu));
            ++sent;
        }
    };
    QObject::connect(&client, &QTcpSocket::readyRead, &client, [&] {
        for (const auto &reply : reader.feed(client.readAll()).requests) {
            // Register i holds i.
            if (reply.pdu.size() != 2 + 2 * kRegisters || reply.pdu.at(0) != 0x03
                || qFromBigEndian<quint16>(reply.pdu.constData() + 2 + 2 * (kRegisters - 1)) != kRegisters - 1)
                ++wrong;
            ++replied;
        }
        send();
    });
    QElapsedTimer clock;
    clock.start();
    send();
    const bool done = BenchSupport::waitUntil([&] { return replied >= requests; }, 600000, 1);
    const double seconds = double(clock.nsecsElapsed()) / 1e9;
    slave.kill();
    slave.waitForFinished(2000);
    if (!done) {
        std::fprintf(stderr, "only %d of %d replies came\n", replied, requests);
        return false;
    }

    const qint64 requestBytes = 8;
    const qint64 replyBytes = 5 + 2 * kRegisters;
    const double busUs = double(ModbusArbiter::lineTimeUs(baud, requestBytes) + ModbusArbiter::lineTimeUs(baud, replyBytes)
                                + 2 * ModbusArbiter::silenceUs(baud) + kTurnaroundMs * 1000);
    const double allowed = 1e6 / busUs;
    const double achieved = requests / seconds;
    const QByteArray prefix = "modbus_gateway_" + QByteArray::number(baud);
    figure((prefix + "_requests_per_s").constData(), achieved, "req/s");
    figure((prefix + "_bus_allows").constData(), allowed, "req/s");
    figure((prefix + "_of_bus").constData(), achieved / allowed, "ratio");
    figure((prefix + "_wrong_replies").constData(), wrong, "replies");
    return wrong == 0;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    int requests = 2000;
    const QStringList args = app.arguments();
    if (const qsizetype at = args.indexOf(QStringLiteral("--requests")); at >= 0 && at + 1 < args.size())
        requests = args.at(at + 1).toInt();
    bool ok = runAt(115200, requests);
    ok = runAt(9600, std::max(1, requests / 5)) && ok;
    return ok ? 0 : 1;
}
