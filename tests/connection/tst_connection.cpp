// The connection record, and the connection controller with its multi-client
// server over real sockets on loopback (up to five hundred clients at once);
// the relay path through a stand-in relay.
#include "connection/connectionconfig.h"
#include "connection/connectioncontroller.h"
#include "connection/multiclientserver.h"
#include "connection/relaytransport.h"
#include "connection/serialparametertext.h"

#include <QNetworkDatagram>
#include <QTcpServer>
#include <QTcpSocket>
#include <QUdpSocket>
#include <QtTest>

#include <sys/resource.h>

#include <memory>
#include <vector>

using Status = QPair<QString, int>;
using Socket = std::unique_ptr<QTcpSocket>;

namespace {

bool isOwnedBy(const QObject *object, const QObject *owner)
{
    for (const QObject *up = object ? object->parent() : nullptr; up; up = up->parent()) {
        if (up == owner)
            return true;
    }
    return false;
}

constexpr int kWait = 5000;
constexpr int kLoadClients = 500;
// Senders bound at once by the UDP peer-table test: more than the table holds.
constexpr int kUdpSenders = UdpTransport::kMaxPeers + 50;

QList<Status> statuses(const QSignalSpy &spy)
{
    QList<Status> out;
    for (const QList<QVariant> &args : spy)
        out.append({args.at(0).toString(), args.at(1).toInt()});
    return out;
}

QByteArray pattern(int size, int seed = 0)
{
    QByteArray data(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i)
        data[i] = char((i * 31 + seed + i / 977) & 0xff);
    return data;
}

ConnectionConfig configFor(ConnectionMode mode, const QString &host = QStringLiteral("127.0.0.1"), int port = 6000)
{
    ConnectionConfig config;
    config.mode = mode;
    config.targetHost = host;
    config.targetPort = port;
    config.udpLocalPort = 0;
    return config;
}

quint16 serverPort(const ConnectionController &controller)
{
    return controller.serverAddressText().section(':', -1).toUShort();
}

// The label under which the server knows one of our client sockets.
QString label(const QTcpSocket &socket, bool mappedPeer = false)
{
    const QString address = socket.localAddress().toString();
    return QStringLiteral("%1:%2").arg(mappedPeer ? "::ffff:" + address : address).arg(socket.localPort());
}

Socket accept(QTcpServer &peer)
{
    if (!QTest::qWaitFor([&] { return peer.hasPendingConnections(); }, kWait))
        return nullptr;
    return Socket(peer.nextPendingConnection());
}

// A client of the controller's server, returned once the server admitted it.
Socket admittedClient(const ConnectionController &controller, const QHostAddress &to = QHostAddress(QHostAddress::LocalHost))
{
    auto client = std::make_unique<QTcpSocket>();
    const int before = controller.serverClientCount();
    client->connectToHost(to, serverPort(controller));
    if (!QTest::qWaitFor([&] { return controller.serverClientCount() > before; }, kWait))
        return nullptr;
    return client;
}

// Reads until the socket gave `size` bytes or the time is up.
QByteArray readExactly(QTcpSocket &socket, qint64 size, int timeoutMs = kWait)
{
    QByteArray data;
    QDeadlineTimer deadline(timeoutMs);
    while (data.size() < size && !deadline.hasExpired()) {
        if (socket.bytesAvailable() == 0)
            socket.waitForReadyRead(int(std::clamp<qint64>(deadline.remainingTime(), 1, 100)));
        data += socket.read(size - data.size());
        QCoreApplication::processEvents();
    }
    return data;
}

QByteArray nextDatagram(QUdpSocket &at)
{
    return QTest::qWaitFor([&] { return at.hasPendingDatagrams(); }, kWait) ? at.receiveDatagram().data() : QByteArray();
}

// Stands in for the cloud relay: records what the controller asks of it and
// lets the test play the remote side.
class FakeRelay : public RelayTransport
{
public:
    bool isConnected() const override { return paired; }
    qint64 write(const QByteArray &data) override
    {
        written += data;
        return paired ? data.size() : -1;
    }
    qint64 bytesToWrite() const override { return 0; }
    void close() override { ++closeCalls; }

    bool paired = false;
    QByteArray written;
    int closeCalls = 0;
};

} // namespace

class ConnectionTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void modesTagsAndTexts();
    void startFailures_data();
    void startFailures();

    void pendingStreamSends_data();
    void pendingStreamSends();
    void streamEndsLeaveNothingBehind();
    void peerCloseIsNoFailure();

    void serverDoor_data();
    void serverDoor();
    void allowlistMatch_data();
    void allowlistMatch();
    void serverClientsComeAndGo();
    void serverWriteTargets_data();
    void serverWriteTargets();
    void manyClientsAtOnce();

    void udpPeersAndTargets();
    void udpPeerTableStaysBounded();
    void pausedReadLosesNothing_data();
    void pausedReadLosesNothing();
    void pausedServerLeavesNewcomersToTheKernel();
    void relayPath();
};

void ConnectionTest::initTestCase()
{
    // Each load-test client costs two descriptors (both ends live here).
    rlimit limit{};
    QVERIFY(::getrlimit(RLIMIT_NOFILE, &limit) == 0);
    const rlim_t needed = qMax(2 * kLoadClients, kUdpSenders) + 128;
    if (limit.rlim_cur < needed) {
        limit.rlim_cur = qMin(needed, limit.rlim_max);
        QVERIFY(::setrlimit(RLIMIT_NOFILE, &limit) == 0);
    }
    QVERIFY2(limit.rlim_cur >= needed, "the descriptor limit is too low for the load test");
}

void ConnectionTest::modesTagsAndTexts()
{
    const QStringList tags{"ser", "tcps", "tcpc", "port", "udps", "udpc", "udpg", "rser", "crly"};
    ConnectionController controller;
    QSignalSpy status(&controller, &ConnectionController::statusMessage);
    for (int value : {-1, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 42}) {
        const ConnectionConfig config = configFor(connectionModeFromInt(value));
        const QString tag = value >= 0 && value < tags.size() ? tags.at(value) : QStringLiteral("port");
        QCOMPARE(connectionModeTag(config.mode), tag);
        QCOMPARE(connectionLabel(config.mode, 3), tag + "-3");
        QCOMPARE(isStreamMode(config.mode), tag == "tcpc" || tag == "rser");
        QCOMPARE(isUdpMode(config.mode), tag.startsWith("udp"));
        if (tag != "port")
            continue;
        // A mode without a transport opens, sends, reads and closes nothing.
        QVERIFY(!controller.open(config));
        QVERIFY(!controller.isOpen(config.mode));
        QVERIFY(!controller.send(config, "x"));
        QVERIFY(controller.readAll(config.mode).isEmpty());
        QCOMPARE(controller.bytesToWrite(config.mode), 0);
        controller.close(config.mode);
    }
    QCOMPARE(status.count(), 0);

    // Only the five line settings may change in place on an open port.
    const ConnectionConfig a;
    ConnectionConfig b = a;
    b.parity = QSerialPort::OddParity;
    b.baudRate = 250000;
    QVERIFY(!a.differsOnlyInSerialParameters(a));
    QVERIFY(a != b && a.differsOnlyInSerialParameters(b));
    b.portName = "COM9"; // another port needs a reopen
    QVERIFY(!a.differsOnlyInSerialParameters(b));
    ConnectionConfig c = a;
    c.rtsOn = false; // a control line level is not a serial parameter
    QVERIFY(a != c && !a.differsOnlyInSerialParameters(c));

    using namespace SerialParameterText;
    for (auto p : {QSerialPort::NoParity, QSerialPort::EvenParity, QSerialPort::OddParity, QSerialPort::MarkParity,
                   QSerialPort::SpaceParity})
        QCOMPARE(parityFromWord(parityWord(p)), std::optional(p));
    QCOMPARE(parityWord(QSerialPort::SpaceParity), QString("space"));
    QCOMPARE(parityDisplayName(QSerialPort::MarkParity), QString("Mark"));
    QVERIFY(!parityFromWord("bogus").has_value());
    QCOMPARE(flowControlWord(QSerialPort::HardwareControl), QString("rtscts"));
    QCOMPARE(flowControlFromWord("xonxoff"), std::optional(QSerialPort::SoftwareControl));
    QCOMPARE(flowControlDisplayName(QSerialPort::SoftwareControl), QString("XON/XOFF"));
    QCOMPARE(flowControlDisplayName(QSerialPort::HardwareControl), QString("RTS/CTS"));
    QCOMPARE(stopBitsNumber(QSerialPort::OneAndHalfStop), 1.5);
    QCOMPARE(stopBitsFromNumber(2), std::optional(QSerialPort::TwoStop));
    QVERIFY(!stopBitsFromNumber(3).has_value());
}

void ConnectionTest::startFailures_data()
{
    QTest::addColumn<int>("mode");
    QTest::addColumn<int>("port"); // -1: a port that another socket holds
    QTest::addColumn<QString>("text");
    const QString inUse = "FAILED: The bound address is already in use";
    QTest::newRow("TCP client, port 0")
        << int(ConnectionMode::TcpClient) << 0 << "TCP connect FAILED: the port 0 is not between 1 and 65535";
    QTest::newRow("TCP server, port 70000") << int(ConnectionMode::TcpServer) << 70000
                                            << "TCP server listen on port 70000 FAILED: the port 70000 is not between 1 and 65535";
    QTest::newRow("TCP server, port in use") << int(ConnectionMode::TcpServer) << -1 << "TCP server listen on port %1 " + inUse;
    QTest::newRow("UDP, port in use") << int(ConnectionMode::UdpServer) << -1 << "UDP bind to port %1 " + inUse;
}

void ConnectionTest::startFailures()
{
    QFETCH(int, mode);
    QFETCH(int, port);
    QFETCH(QString, text);
    QTcpServer tcpSquatter;
    QUdpSocket udpSquatter;
    QVERIFY(tcpSquatter.listen(QHostAddress(QHostAddress::LocalHost), 0));
    QVERIFY(udpSquatter.bind(QHostAddress::AnyIPv4, 0, QAbstractSocket::DontShareAddress));
    ConnectionConfig config = configFor(ConnectionMode(mode), "127.0.0.1", port < 0 ? tcpSquatter.serverPort() : port);
    config.udpLocalPort = udpSquatter.localPort();
    config.listenAddress = QHostAddress::LocalHost;
    text.replace("%1", QString::number(isUdpMode(config.mode) ? config.udpLocalPort : config.targetPort));
    ConnectionController controller;
    QSignalSpy errors(&controller, &ConnectionController::errorOccurred);
    QSignalSpy status(&controller, &ConnectionController::statusMessage);

    QVERIFY(!controller.open(config));
    QCOMPARE(errors.count(), 1);
    QCOMPARE(errors.at(0).at(0).toString(), text);
    QCOMPARE(statuses(status), (QList<Status>{{text, 5000}}));
    QVERIFY(!controller.isOpen(config.mode));
    if (port < 0) { // once the port is free the same controller takes it
        tcpSquatter.close();
        udpSquatter.close();
        QVERIFY(controller.open(config));
        QVERIFY(controller.isOpen(config.mode));
    }
}

void ConnectionTest::pendingStreamSends_data()
{
    QTest::addColumn<int>("mode");
    QTest::addColumn<QString>("host");
    QTest::addColumn<QString>("failure"); // empty: the connection comes up
    const int client = int(ConnectionMode::TcpClient);
    QTest::newRow("TCP client, IPv4") << client << "127.0.0.1" << QString();
    QTest::newRow("TCP client, IPv6") << client << "::1" << QString();
    QTest::newRow("RFC 2217 stream") << int(ConnectionMode::RemoteSerialRfc2217) << "127.0.0.1" << QString();
    QTest::newRow("refused, IPv4") << client << "127.0.0.1" << "Connection refused";
    QTest::newRow("refused, IPv6") << client << "::1" << "Connection refused";
    QTest::newRow("host does not resolve") << client << "no-such-device.invalid" << "Host not found";
}

void ConnectionTest::pendingStreamSends()
{
    QFETCH(int, mode);
    QFETCH(QString, host);
    QFETCH(QString, failure);
    QTcpServer peer;
    QVERIFY(peer.listen(QHostAddress(QHostAddress::Any), 0));
    // A port bound without listening refuses connections, and nobody else
    // can listen on it while it stays bound (unlike a port just closed).
    QTcpSocket closed;
    QVERIFY(closed.bind(QHostAddress(host == "::1" ? "::1" : "127.0.0.1"), 0, QAbstractSocket::DontShareAddress));
    const ConnectionConfig config =
        configFor(ConnectionMode(mode), host, failure.isEmpty() ? peer.serverPort() : closed.localPort());
    ConnectionController controller;
    QSignalSpy status(&controller, &ConnectionController::statusMessage);
    QSignalSpy errors(&controller, &ConnectionController::errorOccurred);
    QSignalSpy arrived(&controller, &ConnectionController::peerArrived);
    QSignalSpy gone(&controller, &ConnectionController::tcpClientDisconnected);
    // At a failure nothing is left, and a pane may retry straight from its slot.
    bool clearAtFailure = false;
    connect(&controller, &ConnectionController::errorOccurred, this, [&] {
        clearAtFailure = controller.bytesToWrite(config.mode) == 0 && !controller.isOpen(config.mode)
            && !controller.send(config, "no socket");
        controller.startTcpClient("127.0.0.1", peer.serverPort());
        controller.writeStream("fresh,");
    });

    QVERIFY(controller.open(config));
    QVERIFY(!controller.isOpen(config.mode));
    QVERIFY(controller.send(config, "first,"));
    QVERIFY(controller.send(config, "second,"));
    QCOMPARE(controller.bytesToWrite(config.mode), 13);
    const int arrival = host.endsWith(".invalid") ? 15000 : kWait; // a failing name lookup may be slow
    QTRY_COMPARE_WITH_TIMEOUT(arrived.count(), 1, arrival);
    QCOMPARE(arrived.at(0).at(0).toString(), QString());
    QVERIFY(controller.isOpen(config.mode));
    Socket remote = accept(peer);
    QVERIFY(remote);
    // Sent in order as soon as the connection is up (no later write needed);
    // gone with a failed attempt. A remote serial port offers its Telnet
    // options first.
    const QByteArray offer = mode == int(ConnectionMode::RemoteSerialRfc2217)
        ? QByteArray::fromHex("fffb2c fffb00 fffd00 fffb03 fffd03")
        : QByteArray();
    const QByteArray expected = offer + (failure.isEmpty() ? "first,second," : "fresh,");
    QCOMPARE(readExactly(*remote, expected.size()), expected);
    QVERIFY(controller.send(config, "third"));
    QCOMPARE(readExactly(*remote, 5), QByteArray("third"));
    QTest::qWait(50);
    QCOMPARE(remote->readAll(), QByteArray());
    const QString text = "TCP connect FAILED: " + failure;
    QCOMPARE(statuses(status), failure.isEmpty() ? QList<Status>() : (QList<Status>{{text, 5000}}));
    QCOMPARE(errors.count(), failure.isEmpty() ? 0 : 1);
    if (!failure.isEmpty()) {
        QCOMPARE(errors.at(0).at(0).toString(), text);
        QVERIFY(clearAtFailure);
    }
    QCOMPARE(gone.count(), 0);
}

void ConnectionTest::peerCloseIsNoFailure()
{
    QTcpServer peer;
    QVERIFY(peer.listen(QHostAddress(QHostAddress::LocalHost), 0));
    ConnectionController controller;
    QSignalSpy errors(&controller, &ConnectionController::errorOccurred);
    QSignalSpy gone(&controller, &ConnectionController::tcpClientDisconnected);
    controller.startTcpClient("127.0.0.1", peer.serverPort());
    Socket remote = accept(peer);
    QVERIFY(remote);
    QTRY_VERIFY_WITH_TIMEOUT(controller.isOpen(ConnectionMode::TcpClient), kWait);
    remote->write("bye");
    remote->disconnectFromHost();
    QTRY_COMPARE_WITH_TIMEOUT(gone.count(), 1, kWait);
    QCOMPARE(errors.count(), 0);
}

void ConnectionTest::streamEndsLeaveNothingBehind()
{
    QTcpServer peer;
    QVERIFY(peer.listen(QHostAddress(QHostAddress::LocalHost), 0));
    ConnectionController controller;
    QSignalSpy arrived(&controller, &ConnectionController::peerArrived);
    QSignalSpy errors(&controller, &ConnectionController::errorOccurred);
    QSignalSpy gone(&controller, &ConnectionController::tcpClientDisconnected);
    controller.startTcpClient("127.0.0.1", peer.serverPort());
    Socket remote = accept(peer);
    QVERIFY(remote);
    QTRY_COMPARE_WITH_TIMEOUT(arrived.count(), 1, kWait);

    // The far end takes a little of a large write and goes away.
    QVERIFY(controller.writeStream(pattern(8 * 1024 * 1024)));
    QCOMPARE(readExactly(*remote, 1000).size(), 1000);
    remote->abort();
    QTRY_COMPARE_WITH_TIMEOUT(gone.count(), 1, kWait);
    QCOMPARE(errors.count(), 1);
    QVERIFY2(errors.at(0).at(0).toString().startsWith("TCP connect FAILED: "), qPrintable(errors.at(0).at(0).toString()));
    QVERIFY(!controller.isOpen(ConnectionMode::TcpClient));
    QCOMPARE(controller.bytesToWrite(ConnectionMode::TcpClient), 0);

    // Closing an attempt before it connects drops what waited for it.
    controller.startTcpClient("127.0.0.1", peer.serverPort());
    QVERIFY(controller.writeStream("pending"));
    controller.close(ConnectionMode::TcpClient);
    controller.close(ConnectionMode::TcpClient); // nothing left: no second signal
    QCOMPARE(gone.count(), 2);
    QCOMPARE(controller.bytesToWrite(ConnectionMode::TcpClient), 0);
    QVERIFY(!controller.writeStream("after close"));
    QTest::qWait(100);
    if (peer.hasPendingConnections()) {
        Socket late(peer.nextPendingConnection());
        QTest::qWait(50);
        QCOMPARE(late->readAll(), QByteArray());
    }
    QCOMPARE(errors.count(), 1);
}

void ConnectionTest::serverDoor_data()
{
    QTest::addColumn<QString>("via"); // "mapped": an IPv4 client of a dual-stack server
    QTest::addColumn<QStringList>("allowlist");
    QTest::addColumn<QString>("refusal"); // empty: admitted
    const QString unlisted = "not on the address allowlist";
    QTest::newRow("padded entry, IPv4-mapped peer") << "mapped" << QStringList{"  127.0.0.1  "} << QString();
    QTest::newRow("subnet, IPv4-mapped peer") << "mapped" << QStringList{"127.0.0.0/8"} << QString();
    QTest::newRow("IPv6 loopback entry, IPv4 peer") << "127.0.0.1" << QStringList{"::1"} << QString();
    QTest::newRow("IPv4 loopback entry, IPv6 peer") << "::1" << QStringList{"127.0.0.1"} << QString();
    QTest::newRow("other subnet") << "127.0.0.1" << QStringList{"10.0.0.0/8"} << unlisted;
    QTest::newRow("IPv6 subnet, IPv4 peer") << "127.0.0.1" << QStringList{"fe80::/10"} << unlisted;
    QTest::newRow("only garbage") << "127.0.0.1" << QStringList{"garbage"} << unlisted;
    QTest::newRow("other address, IPv6 peer") << "::1" << QStringList{"192.168.1.10"} << unlisted;
    QTest::newRow("exclusive, a client is there") << "127.0.0.1" << QStringList()
                                                  << "the port already has a client (exclusive mode)";
}

void ConnectionTest::serverDoor()
{
    QFETCH(QString, via);
    QFETCH(QStringList, allowlist);
    QFETCH(QString, refusal);
    const bool mapped = via == "mapped";
    const bool exclusive = refusal.contains("exclusive");
    ConnectionController controller;
    controller.setServerAllowlist(allowlist);
    controller.setServerExclusive(exclusive);
    QVERIFY(controller.startTcpServer(0, mapped ? QHostAddress(QHostAddress::Any) : QHostAddress(via)));
    Socket first = exclusive ? admittedClient(controller) : nullptr;
    QVERIFY(first || !exclusive);
    QSignalSpy arrived(&controller, &ConnectionController::peerArrived);
    QSignalSpy status(&controller, &ConnectionController::statusMessage);

    QTcpSocket client;
    client.connectToHost(mapped ? QHostAddress(QHostAddress::LocalHost) : QHostAddress(via), serverPort(controller));
    QVERIFY(client.waitForConnected(kWait));
    const QString me = label(client, mapped);
    if (refusal.isEmpty()) {
        QTRY_COMPARE_WITH_TIMEOUT(arrived.count(), 1, kWait);
        QCOMPARE(arrived.at(0).at(0).toString(), me);
        QCOMPARE(status.count(), 0);
        return;
    }
    QTRY_COMPARE_WITH_TIMEOUT(status.count(), 1, kWait);
    QCOMPARE(statuses(status), (QList<Status>{{"Refused " + me + ": " + refusal, 5000}}));
    QTRY_COMPARE_WITH_TIMEOUT(client.state(), QAbstractSocket::UnconnectedState, kWait);
    QCOMPARE(arrived.count(), 0);
    QCOMPARE(controller.serverClientCount(), exclusive ? 1 : 0);
    if (!exclusive)
        return;

    // The first client is undisturbed; once it leaves the next one gets in.
    QVERIFY(controller.sendToServerClient("still here", 0));
    QCOMPARE(readExactly(*first, 10), QByteArray("still here"));
    first->disconnectFromHost();
    QTRY_COMPARE_WITH_TIMEOUT(controller.serverClientCount(), 0, kWait);
    Socket next = admittedClient(controller);
    QVERIFY(next);
    QCOMPARE(controller.serverClientLabels(), QStringList{label(*next)});
}

void ConnectionTest::allowlistMatch_data()
{
    QTest::addColumn<QString>("address");
    QTest::addColumn<QStringList>("allowlist");
    QTest::addColumn<bool>("allowed");
    QTest::newRow("empty list admits all") << "203.0.113.9" << QStringList() << true;
    QTest::newRow("in /24") << "192.168.1.77" << QStringList{"192.168.1.0/24"} << true;
    QTest::newRow("outside /24") << "192.168.2.1" << QStringList{"192.168.1.0/24"} << false;
    QTest::newRow("mapped peer in /24") << "::ffff:192.168.1.77" << QStringList{"192.168.1.0/24"} << true;
    QTest::newRow("mapped peer, plain entry") << "::ffff:10.0.0.7" << QStringList{"10.0.0.7"} << true;
    QTest::newRow("plain peer, mapped entry") << "10.0.0.7" << QStringList{"::ffff:10.0.0.7"} << true;
    QTest::newRow("tab-padded entry") << "::ffff:127.0.0.1" << QStringList{"\t 127.0.0.1  "} << true;
    QTest::newRow("only 127.0.0.1 is ::1") << "127.0.0.2" << QStringList{"::1"} << false;
    QTest::newRow("::1 in the loopback subnet") << "::1" << QStringList{"127.0.0.0/8"} << true;
    QTest::newRow("IPv6 subnet") << "2001:db8::5" << QStringList{"2001:db8::/32"} << true;
    QTest::newRow("outside IPv6 subnet") << "2001:db9::5" << QStringList{"2001:db8::/32"} << false;
    QTest::newRow("prefix too long") << "192.168.1.1" << QStringList{"192.168.1.0/33"} << false;
    QTest::newRow("blank entries refuse everyone") << "192.168.1.1" << QStringList{"", "  "} << false;
    QTest::newRow("bad entries skipped") << "10.1.2.3" << QStringList{"garbage", "10.1.2.0/abc", "10.1.2.3"} << true;
    QTest::newRow("/0 admits every IPv4") << "198.51.100.1" << QStringList{"0.0.0.0/0"} << true;
}

void ConnectionTest::allowlistMatch()
{
    QFETCH(QString, address);
    QFETCH(QStringList, allowlist);
    QFETCH(bool, allowed);
    QCOMPARE(MultiClientServer::isAllowed(QHostAddress(address), allowlist), allowed);
}

void ConnectionTest::serverClientsComeAndGo()
{
    ConnectionController controller;
    QVERIFY(controller.serverAddressText().isEmpty());
    QStringList events;
    connect(&controller, &ConnectionController::peerArrived, this, [&](const QString &p) { events << "arrived " + p; });
    connect(&controller, &ConnectionController::peerLost, this, [&](const QString &p) { events << "lost " + p; });
    connect(&controller, &ConnectionController::serverConnectionsChanged, this, [&] { events << "changed"; });
    connect(&controller, &ConnectionController::serverMessage, this,
            [&](const QByteArray &data, const QString &p) { events << "message " + p + " " + data; });
    QVERIFY(controller.startTcpServer(0, QHostAddress(QHostAddress::LocalHost)));
    QVERIFY(controller.isOpen(ConnectionMode::TcpServer));
    QVERIFY(controller.serverAddressText().startsWith("127.0.0.1:"));
    Socket leaving = admittedClient(controller);
    Socket staying = admittedClient(controller);
    QVERIFY(leaving && staying);
    const QString gone = label(*leaving), kept = label(*staying);
    QCOMPARE(controller.serverClientLabels(), (QStringList{gone, kept}));
    leaving->write("hello");
    QTRY_COMPARE_WITH_TIMEOUT(events.size(), 5, kWait);

    // A client vanishes in the middle of a large write to both: the other
    // still gets every byte, and the server goes on with it alone. The
    // leaving client stops reading first: it is skipped once it holds the
    // watermark, and never holds the reading one back.
    const QByteArray chunk = pattern(64 * 1024);
    constexpr int kChunks = 128; // 8 MiB
    QByteArray got;
    int accepted = 0;
    QElapsedTimer clock;
    clock.start();
    while (accepted < kChunks && clock.elapsed() < 30000) {
        if (controller.sendToAllServerClients(chunk) == chunk.size()) {
            ++accepted;
            QVERIFY(controller.bytesToWrite(ConnectionMode::TcpServer)
                    <= 2 * (MultiClientServer::kClientWriteHighWatermark + chunk.size()));
            continue;
        }
        QTest::qWait(1);
        got += staying->readAll();
    }
    QCOMPARE(accepted, kChunks);
    QCOMPARE(readExactly(*leaving, 100000).size(), 100000);
    leaving->abort();
    got += readExactly(*staying, chunk.size() * kChunks - got.size(), 30000);
    QCOMPARE(got.size(), chunk.size() * kChunks);
    QVERIFY(got == chunk.repeated(kChunks));
    QTRY_COMPARE_WITH_TIMEOUT(controller.serverClientCount(), 1, kWait);
    QTRY_COMPARE_WITH_TIMEOUT(controller.bytesToWrite(ConnectionMode::TcpServer), 0, kWait);
    QVERIFY(!controller.sendToServerClient("after", gone));
    QVERIFY(controller.sendToServerClient("after", 0));
    QCOMPARE(readExactly(*staying, 5), QByteArray("after"));

    staying->disconnectFromHost();
    QTRY_COMPARE_WITH_TIMEOUT(controller.serverClientCount(), 0, kWait);
    QCOMPARE(events, (QStringList{"arrived " + gone, "changed", "arrived " + kept, "changed", "message " + gone + " hello",
                                  "lost " + gone, "changed", "lost " + kept, "changed"}));
    controller.close(ConnectionMode::TcpServer);
    QVERIFY(!controller.isOpen(ConnectionMode::TcpServer));
    QVERIFY(controller.serverAddressText().isEmpty());
}

void ConnectionTest::serverWriteTargets_data()
{
    QTest::addColumn<QString>("how");
    QTest::addColumn<int>("index");
    QTest::addColumn<int>("receivers"); // 1 the first client, 2 the second, 3 both
    QTest::newRow("index -1 means the first") << "index" << -1 << 1;
    QTest::newRow("index 99 means the first") << "index" << 99 << 1;
    QTest::newRow("index 1") << "index" << 1 << 2;
    QTest::newRow("dispatched to index 1") << "send index" << 1 << 2;
    QTest::newRow("by label") << "label" << 1 << 2;
    QTest::newRow("unknown label") << "label" << 7 << 0;
    QTest::newRow("to all") << "all" << -1 << 3;
    QTest::newRow("empty data") << "empty" << 0 << 0;
}

void ConnectionTest::serverWriteTargets()
{
    QFETCH(QString, how);
    QFETCH(int, index);
    QFETCH(int, receivers);
    ConnectionController controller;
    const ConnectionConfig config = configFor(ConnectionMode::TcpServer);
    QVERIFY(!controller.send(config, "nobody"));
    QVERIFY(!controller.sendToServerClient("nobody", 0));
    QVERIFY(controller.startTcpServer(0, QHostAddress(QHostAddress::LocalHostIPv6)));
    QVERIFY(!controller.sendToServerClient("nobody yet", 0));
    QSignalSpy written(&controller, &ConnectionController::bytesWritten);
    Socket first = admittedClient(controller, QHostAddress(QHostAddress::LocalHostIPv6));
    Socket second = admittedClient(controller, QHostAddress(QHostAddress::LocalHostIPv6));
    QVERIFY(first && second);

    const QByteArray data = "payload";
    bool ok = false;
    if (how == "index")
        ok = controller.sendToServerClient(data, index);
    else if (how == "send index")
        ok = controller.send(config, data, {QString(), index});
    else if (how == "label")
        ok = controller.send(config, data, {index == 1 ? label(*second) : "[::1]:1", -1});
    else
        ok = controller.send(config, how == "all" ? data : QByteArray());
    QCOMPARE(ok, receivers != 0);
    if (!ok)
        QCOMPARE(controller.bytesToWrite(ConnectionMode::TcpServer), 0);
    QTest::qWait(50);
    QCOMPARE(readExactly(*first, receivers & 1 ? data.size() : 0), receivers & 1 ? data : QByteArray());
    QCOMPARE(readExactly(*second, receivers & 2 ? data.size() : 0), receivers & 2 ? data : QByteArray());
    QTest::qWait(50);
    QCOMPARE(first->readAll() + second->readAll(), QByteArray());
    if (ok)
        QTRY_VERIFY_WITH_TIMEOUT(!written.isEmpty(), kWait);
}

void ConnectionTest::manyClientsAtOnce()
{
    // Every client arrives at once, sends, and is answered by its label and
    // by a broadcast: nothing may be lost and the event loop keeps answering.
    const auto messageOf = [](int i) { return "client " + QByteArray::number(i) + '\n' + pattern(4000, i); };
    const auto replyTo = [](int i) { return "reply to " + QByteArray::number(i) + '\n'; };
    constexpr int kLoadWait = 30000;
    ConnectionController controller;
    QVERIFY(controller.startTcpServer(0, QHostAddress(QHostAddress::LocalHost)));
    QElapsedTimer sinceBeat;
    qint64 worstGap = 0;
    QTimer beat;
    connect(&beat, &QTimer::timeout, this, [&] { worstGap = qMax(worstGap, sinceBeat.restart()); });
    sinceBeat.start();
    beat.start(10);
    QHash<QString, QByteArray> atServer;
    qint64 receivedTotal = 0;
    connect(&controller, &ConnectionController::serverMessage, this, [&](const QByteArray &data, const QString &peer) {
        atServer[peer] += data;
        receivedTotal += data.size();
    });

    std::vector<Socket> clients;
    std::vector<QByteArray> atClients(kLoadClients);
    qint64 expectedAtServer = 0;
    for (int i = 0; i < kLoadClients; ++i) {
        QTcpSocket *raw = clients.emplace_back(std::make_unique<QTcpSocket>()).get();
        connect(raw, &QTcpSocket::connected, this, [raw, i, &messageOf] { raw->write(messageOf(i)); });
        connect(raw, &QTcpSocket::readyRead, this, [raw, i, &atClients] { atClients[i] += raw->readAll(); });
        raw->connectToHost(QHostAddress::LocalHost, serverPort(controller));
        expectedAtServer += messageOf(i).size();
    }
    QTRY_COMPARE_WITH_TIMEOUT(controller.serverClientCount(), kLoadClients, kLoadWait);
    QTRY_COMPARE_WITH_TIMEOUT(receivedTotal, expectedAtServer, kLoadWait);
    for (int i = 0; i < kLoadClients; ++i)
        QCOMPARE(atServer.value(label(*clients[i])), messageOf(i));

    for (int i = 0; i < kLoadClients; ++i)
        QVERIFY(controller.send(configFor(ConnectionMode::TcpServer), replyTo(i), {label(*clients[i]), -1}));
    const QByteArray broadcast = pattern(64 * 1024);
    QCOMPARE(controller.sendToAllServerClients(broadcast), broadcast.size());
    const auto everyoneHasAll = [&] {
        for (int i = 0; i < kLoadClients; ++i) {
            if (atClients[i].size() < replyTo(i).size() + broadcast.size())
                return false;
        }
        return true;
    };
    QTRY_VERIFY_WITH_TIMEOUT(everyoneHasAll(), kLoadWait);
    for (int i = 0; i < kLoadClients; ++i)
        QVERIFY2(atClients[i] == replyTo(i) + broadcast, qPrintable(QString("client %1").arg(i)));
    QTRY_COMPARE_WITH_TIMEOUT(controller.bytesToWrite(ConnectionMode::TcpServer), 0, kLoadWait);

    for (auto &client : clients)
        client->disconnectFromHost();
    QTRY_COMPARE_WITH_TIMEOUT(controller.serverClientCount(), 0, kLoadWait);
    // A liveness bound, not a speed target: the loop never stalled for long.
    QVERIFY2(worstGap < 2000, qPrintable(QString("the event loop stalled for %1 ms").arg(worstGap)));
}

void ConnectionTest::udpPeersAndTargets()
{
    ConnectionController controller;
    ConnectionConfig config = configFor(ConnectionMode::UdpServer);
    QSignalSpy status(&controller, &ConnectionController::statusMessage);
    QSignalSpy errors(&controller, &ConnectionController::errorOccurred);
    QSignalSpy changed(&controller, &ConnectionController::udpPeersChanged);
    QSignalSpy ready(&controller, &ConnectionController::udpReadyRead);
    QVERIFY(!controller.sendUdpToPeer("no socket", 0));
    QVERIFY(controller.open(config));
    QVERIFY(controller.isOpen(ConnectionMode::UdpGeneric)); // one socket for every UDP mode
    QVERIFY(!controller.send(config, "nobody yet"));
    QCOMPARE(statuses(status), (QList<Status>{{"No UDP peer to reply to yet", 3000}}));

    QUdpSocket one, two;
    QVERIFY(one.bind(QHostAddress::LocalHost, 0));
    QVERIFY(two.bind(QHostAddress::LocalHost, 0));
    QList<ConnectionController::UdpDatagram> pushed;
    connect(&controller, &ConnectionController::received, this,
            [&](const QByteArray &data, const QString &peer) { pushed.append({peer, data}); });
    const auto deliver = [&](QUdpSocket &from, const QByteArray &data) {
        pushed.clear();
        const int before = ready.count();
        from.writeDatagram(data, QHostAddress::LocalHost, controller.udpLocalPort());
        return QTest::qWaitFor([&] { return ready.count() > before && !pushed.isEmpty(); }, kWait)
            ? pushed
            : QList<ConnectionController::UdpDatagram>();
    };
    const QList<ConnectionController::UdpDatagram> got = deliver(one, "a");
    QCOMPARE(got.size(), 1);
    QCOMPARE(got.at(0).peer, QString("127.0.0.1:%1").arg(one.localPort()));
    QCOMPARE(got.at(0).data, QByteArray("a"));
    QCOMPARE(changed.count(), 1);
    QCOMPARE(controller.currentUdpPeer(), 0);
    QCOMPARE(deliver(one, "b").size(), 1);
    QCOMPARE(changed.count(), 1); // a known sender changes nothing in the table
    QCOMPARE(controller.udpPeers().at(0).lastDatagram, QByteArray("b"));
    QCOMPARE(deliver(two, "c").size(), 1);
    QCOMPARE(changed.count(), 2);
    QCOMPARE(controller.currentUdpPeer(), 1);
    QCOMPARE(controller.udpPeers().at(1).key(), QString("127.0.0.1:%1").arg(two.localPort()));
    QCOMPARE(deliver(one, "d").size(), 1);
    QCOMPARE(controller.currentUdpPeer(), 0);
    QCOMPARE(controller.udpPeers().size(), 2);

    QVERIFY(controller.sendUdpToPeer("row 5", 5)); // outside the table: the first peer
    QCOMPARE(nextDatagram(one), QByteArray("row 5"));
    QVERIFY(controller.sendUdpToPeer("row 1", 1));
    QCOMPARE(nextDatagram(two), QByteArray("row 1"));
    QVERIFY(controller.send(config, "to current")); // the peer heard from last
    QCOMPARE(nextDatagram(one), QByteArray("to current"));
    QVERIFY(!controller.sendUdpToPeer(QByteArray(), 0));

    // A new bind starts a new table; so does a close.
    QVERIFY(controller.bindUdp(0));
    QCOMPARE(changed.count(), 3);
    QVERIFY(controller.udpPeers().isEmpty());
    QCOMPARE(controller.currentUdpPeer(), -1);
    QCOMPARE(deliver(one, "again").size(), 1);
    controller.close(ConnectionMode::UdpServer);
    QCOMPARE(changed.count(), 5);
    QVERIFY(!controller.isOpen(ConnectionMode::UdpServer));

    // A UDP client sends to the remote UDP port from its bound one.
    config.mode = ConnectionMode::UdpClient;
    config.udpServerPort = one.localPort();
    QVERIFY(controller.open(config));
    QVERIFY(controller.send(config, "datagram"));
    QVERIFY(QTest::qWaitFor([&] { return one.hasPendingDatagrams(); }, kWait));
    const QNetworkDatagram sent = one.receiveDatagram();
    QCOMPARE(sent.data(), QByteArray("datagram"));
    QCOMPARE(sent.senderPort(), int(controller.udpLocalPort()));
    // A name is looked up once; datagrams sent meanwhile keep their order.
    config.targetHost = "localhost";
    QVERIFY(controller.send(config, "by name 1"));
    QVERIFY(controller.send(config, "by name 2"));
    QCOMPARE(nextDatagram(one), QByteArray("by name 1"));
    QCOMPARE(nextDatagram(one), QByteArray("by name 2"));
    QVERIFY(controller.send(config, "cached"));
    QCOMPARE(nextDatagram(one), QByteArray("cached"));
    // A name that does not resolve: the datagram waits for the lookup, then
    // the failure is reported and nothing is left waiting.
    config.targetHost = "no-such-device.invalid";
    QVERIFY(controller.send(config, "nowhere"));
    QCOMPARE(controller.bytesToWrite(config.mode), 7);
    QTRY_COMPARE_WITH_TIMEOUT(errors.count(), 1, 15000);
    QCOMPARE(errors.at(0).at(0).toString(), QString("UDP send to no-such-device.invalid FAILED: Host not found"));
    QCOMPARE(controller.bytesToWrite(config.mode), 0);
}

void ConnectionTest::udpPeerTableStaysBounded()
{
    // Senders from more ports than the table holds: it stays bounded, keeps
    // the newest, and keeps only the start of each datagram. Every sender
    // stays bound until the end, without address sharing, so the system
    // cannot hand one's port to a later one: each is a new peer.
    ConnectionController controller;
    QVERIFY(controller.open(configFor(ConnectionMode::UdpServer)));
    int received = 0;
    connect(&controller, &ConnectionController::received, this, [&] { ++received; });
    const QByteArray big(4000, 'd');
    QString last;
    const int senders = kUdpSenders;
    std::vector<std::unique_ptr<QUdpSocket>> bound;
    QSet<quint16> ports;
    for (int i = 0; i < senders; ++i) {
        QUdpSocket &sender = *bound.emplace_back(std::make_unique<QUdpSocket>());
        QVERIFY(sender.bind(QHostAddress::LocalHost, 0, QAbstractSocket::DontShareAddress));
        ports.insert(sender.localPort());
        sender.writeDatagram(big, QHostAddress::LocalHost, controller.udpLocalPort());
        last = QString("127.0.0.1:%1").arg(sender.localPort());
        if (i % 64 == 63)
            QTRY_COMPARE_WITH_TIMEOUT(received, i + 1, kWait);
    }
    QTRY_COMPARE_WITH_TIMEOUT(received, senders, kWait);
    QCOMPARE(ports.size(), senders);
    const QList<ConnectionController::UdpPeer> &peers = controller.udpPeers();
    QVERIFY(peers.size() <= UdpTransport::kMaxPeers);
    QVERIFY(peers.size() > UdpTransport::kMaxPeers / 2);
    QCOMPARE(peers.constLast().key(), last);
    QCOMPARE(peers.constLast().lastDatagram.size(), UdpTransport::kKeptDatagramBytes);
    QVERIFY(controller.send(configFor(ConnectionMode::UdpServer), "reply")); // the current peer is still known
}

void ConnectionTest::pausedReadLosesNothing_data()
{
    QTest::addColumn<int>("mode");
    QTest::newRow("TCP client") << int(ConnectionMode::TcpClient);
    QTest::newRow("TCP server") << int(ConnectionMode::TcpServer);
}

void ConnectionTest::pausedReadLosesNothing()
{
    QFETCH(int, mode);
    const bool server = ConnectionMode(mode) == ConnectionMode::TcpServer;
    ConnectionController controller;
    QTcpServer listener;
    Socket remote;
    if (server) {
        QVERIFY(controller.startTcpServer(0, QHostAddress(QHostAddress::LocalHost)));
        remote = admittedClient(controller);
    } else {
        QVERIFY(listener.listen(QHostAddress(QHostAddress::LocalHost), 0));
        controller.startTcpClient("127.0.0.1", listener.serverPort());
        remote = accept(listener);
        QTRY_VERIFY_WITH_TIMEOUT(controller.isOpen(ConnectionMode::TcpClient), kWait);
    }
    QVERIFY(remote);
    QByteArray received;
    QSignalSpy ready(&controller, &ConnectionController::readyRead);
    connect(&controller, &ConnectionController::received, this, [&](const QByteArray &data) { received += data; });

    controller.setReadPaused(ConnectionMode(mode), true);
    QVERIFY(controller.isReadPaused());
    // More than the kernel's largest send buffer (4 MiB here), so some of
    // it must still wait in the sender after the pause.
    const QByteArray sent = pattern(16 * 1024 * 1024, mode);
    remote->write(sent);
    QTest::qWait(300);
    QVERIFY(received.isEmpty());
    QVERIFY(remote->bytesToWrite() > 0); // TCP holds the sender back; nothing piles up here

    controller.setReadPaused(ConnectionMode(mode), false);
    QVERIFY(!controller.isReadPaused());
    // What waited is handed over in the next pass, not when more arrives.
    QTRY_VERIFY_WITH_TIMEOUT(!received.isEmpty(), kWait);
    QTRY_COMPARE_WITH_TIMEOUT(received.size(), sent.size(), 20000);
    QVERIFY(received == sent);
    QCOMPARE(ready.isEmpty(), server);
}

void ConnectionTest::pausedServerLeavesNewcomersToTheKernel()
{
    // A storm while the pane is behind: clients connect, say their piece and
    // leave while the server does not read. None is refused, none piles up
    // half-closed in the server, and on resume every byte arrives.
    constexpr int kClients = 100;
    const auto messageOf = [](int i) { return "storm " + QByteArray::number(i) + '\n' + pattern(3000 + i, i); };
    ConnectionController controller;
    QVERIFY(controller.startTcpServer(0, QHostAddress(QHostAddress::LocalHost)));
    Socket early = admittedClient(controller);
    QVERIFY(early);
    QHash<QString, QByteArray> atServer;
    QStringList arrived;
    connect(&controller, &ConnectionController::serverMessage, this,
            [&](const QByteArray &data, const QString &peer) { atServer[peer] += data; });
    connect(&controller, &ConnectionController::peerArrived, this, [&](const QString &peer) { arrived << peer; });

    controller.setReadPaused(ConnectionMode::TcpServer, true);
    early->write(messageOf(-1));
    std::vector<Socket> clients;
    int connected = 0;
    for (int i = 0; i < kClients; ++i) {
        QTcpSocket *raw = clients.emplace_back(std::make_unique<QTcpSocket>()).get();
        connect(raw, &QTcpSocket::connected, this, [raw, i, &messageOf, &connected] {
            ++connected;
            raw->write(messageOf(i));
            raw->disconnectFromHost();
        });
        raw->connectToHost(QHostAddress::LocalHost, serverPort(controller));
    }
    QTRY_COMPARE_WITH_TIMEOUT(connected, kClients, kWait);
    QTest::qWait(100);
    QVERIFY(arrived.isEmpty());
    QVERIFY(atServer.isEmpty());
    QCOMPARE(controller.serverClientCount(), 1);
    for (const Socket &client : clients)
        QCOMPARE(client->error(), QAbstractSocket::UnknownSocketError);

    controller.setReadPaused(ConnectionMode::TcpServer, false);
    QTRY_COMPARE_WITH_TIMEOUT(atServer.value(label(*early)), messageOf(-1), kWait);
    QTRY_COMPARE_WITH_TIMEOUT(arrived.size(), kClients, kWait);
    QTRY_COMPARE_WITH_TIMEOUT(controller.serverClientCount(), 1, kWait);
    QCOMPARE(atServer.size(), kClients + 1);
    for (int i = 0; i < kClients; ++i)
        QVERIFY2(atServer.value(arrived.at(i)).startsWith("storm "), qPrintable(arrived.at(i)));
    QSet<QByteArray> messages;
    for (const QByteArray &m : std::as_const(atServer))
        messages.insert(m);
    for (int i = -1; i < kClients; ++i)
        QVERIFY2(messages.contains(messageOf(i)), qPrintable(QString("client %1").arg(i)));
}

void ConnectionTest::relayPath()
{
    ConnectionController controller;
    ConnectionConfig config = configFor(ConnectionMode::RemoteSerialRelay);
    QPointer<FakeRelay> made;
    controller.setRelayFactory([&](const ConnectionConfig &c) -> RelayTransport * {
        return c.relayPortKey.isEmpty() ? nullptr : (made = new FakeRelay).data();
    });
    QSignalSpy refused(&controller, &ConnectionController::errorOccurred);
    QVERIFY(!controller.open(config)); // nothing to make
    QCOMPARE(refused.count(), 1);
    QCOMPARE(refused.at(0).at(0).toString(), QString("No remote port has been chosen for this connection yet."));
    config.relayPortKey = "key-1";
    QVERIFY(controller.open(config));
    QVERIFY(made && !controller.isOpen(config.mode));
    QVERIFY(isOwnedBy(made, &controller));
    const FakeRelay *first = made;
    QVERIFY(controller.open(config)); // one relay at a time: nothing new is made
    QCOMPARE(made.data(), first);
    QSignalSpy arrived(&controller, &ConnectionController::peerArrived);
    QSignalSpy ready(&controller, &ConnectionController::readyRead);
    QSignalSpy written(&controller, &ConnectionController::bytesWritten);
    QSignalSpy ended(&controller, &ConnectionController::cloudRelayEnded);
    made->paired = true;
    emit made->connected();
    QVERIFY(controller.isOpen(config.mode));
    emit made->peerChanged("guest-7");
    QCOMPARE(arrived.count(), 2);
    QCOMPARE(arrived.at(0).at(0).toString(), QString());
    QCOMPARE(arrived.at(1).at(0).toString(), QString("guest-7"));

    QByteArray pushed;
    connect(&controller, &ConnectionController::received, this, [&](const QByteArray &data, const QString &peer) {
        QVERIFY(peer.isEmpty());
        pushed += data;
    });
    emit made->dataReceived("abc");
    emit made->dataReceived("def");
    QCOMPARE(ready.count(), 2);
    QCOMPARE(std::exchange(pushed, {}), QByteArray("abcdef"));
    QVERIFY(controller.readAll(config.mode).isEmpty());
    controller.setReadPaused(config.mode, true); // held while paused, announced at once on resume
    emit made->dataReceived("held");
    QVERIFY(controller.readAll(config.mode).isEmpty());
    QVERIFY(pushed.isEmpty());
    controller.setReadPaused(config.mode, false);
    QCOMPARE(ready.count(), 4);
    QCOMPARE(std::exchange(pushed, {}), QByteArray("held"));

    QVERIFY(controller.send(config, "out"));
    QCOMPARE(made->written, QByteArray("out"));
    QCOMPARE(written.count(), 0); // reported from the event loop, so a writer is not re-entered
    QTRY_COMPARE_WITH_TIMEOUT(written.count(), 1, kWait);
    QCOMPARE(written.at(0).at(0).toLongLong(), 3);

    // The remote end leaves: unread bytes go with the session, which is
    // closed and deleted; the next one can start at once.
    emit made->dataReceived("unread");
    emit made->ended("The remote end disconnected.");
    QCOMPARE(ended.count(), 1);
    QCOMPARE(ended.at(0).at(0).toString(), QString("The remote end disconnected."));
    QVERIFY(controller.readAll(config.mode).isEmpty());
    QCOMPARE(pushed, QByteArray("unread")); // pushed as it came, before the end
    QCOMPARE(made->closeCalls, 1);
    QTRY_VERIFY_WITH_TIMEOUT(made.isNull(), kWait);
    QVERIFY(controller.open(config));
    QVERIFY(made && controller.hasRelay());
}

QTEST_GUILESS_MAIN(ConnectionTest)
#include "tst_connection.moc"
