// The connection controller and the multi-client server over real sockets
// on the loopback interfaces, and the relay path through a stand-in relay.
#include "connection/connectioncontroller.h"
#include "connection/multiclientserver.h"
#include "connection/relaytransport.h"

#include <QNetworkDatagram>
#include <QTcpServer>
#include <QTcpSocket>
#include <QUdpSocket>
#include <QtTest>

#include <memory>
#include <vector>

using Status = QPair<QString, int>;

namespace {

constexpr int kWait = 5000;

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

QHostAddress listenAddress(const QString &name)
{
    if (name == QLatin1String("any"))
        return QHostAddress(QHostAddress::Any);
    return QHostAddress(name);
}

// A port on which nothing listens right now.
quint16 closedPort(const QHostAddress &address)
{
    QTcpServer probe;
    if (!probe.listen(address, 0))
        return 0;
    return probe.serverPort();
}

QString label(const QTcpSocket &socket, bool mappedPeer)
{
    const QString address = socket.localAddress().toString();
    return QStringLiteral("%1:%2").arg(mappedPeer ? "::ffff:" + address : address).arg(socket.localPort());
}

// Reads from a socket until it holds `size` bytes or the time is up.
QByteArray readExactly(QTcpSocket &socket, qint64 size, int timeoutMs = kWait)
{
    QByteArray data;
    QDeadlineTimer deadline(timeoutMs);
    while (data.size() < size && !deadline.hasExpired()) {
        if (socket.bytesAvailable() == 0)
            socket.waitForReadyRead(int(qMax<qint64>(1, qMin<qint64>(100, deadline.remainingTime()))));
        data += socket.read(size - data.size());
        QCoreApplication::processEvents();
    }
    return data;
}

ConnectionConfig streamConfig(ConnectionMode mode, const QString &host, int port)
{
    ConnectionConfig config;
    config.mode = mode;
    config.targetHost = host;
    config.targetPort = port;
    return config;
}

} // namespace

// Stands in for the cloud relay: records what the controller asks of it and
// lets the test play the remote side.
class FakeRelay : public RelayTransport
{
    Q_OBJECT

public:
    using RelayTransport::RelayTransport;

    bool isConnected() const override { return m_connected; }
    qint64 write(const QByteArray &data) override
    {
        if (!m_connected)
            return -1;
        written += data;
        return data.size();
    }
    qint64 bytesToWrite() const override { return queued; }
    void close() override
    {
        ++closeCalls;
        m_connected = false;
    }

    void pair()
    {
        m_connected = true;
        emit connected();
    }

    QByteArray written;
    qint64 queued = 0;
    int closeCalls = 0;

private:
    bool m_connected = false;
};

class NetworkConnectionTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void signalsKeepTheirOrder();
    void unassignedModeDoesNothing();

    void pendingSendsFlushInOrderOnConnect_data();
    void pendingSendsFlushInOrderOnConnect();
    void pendingSendsDroppedWhenConnectFails_data();
    void pendingSendsDroppedWhenConnectFails();
    void retryFromTheFailureSignal();
    void outOfRangePortIsReported();
    void remoteCloseEndsStream();
    void closingStreamDropsPending();

    void serverAnnouncesClientsInOrder();
    void allowlistAtTheDoor_data();
    void allowlistAtTheDoor();
    void allowlistMatch_data();
    void allowlistMatch();
    void exclusiveModeAdmitsOneClient();
    void serverWriteTargets_data();
    void serverWriteTargets();
    void clientVanishingMidWrite();
    void serverPortInUse();

    void udpPeerTable();
    void udpClientSendsToTarget();
    void udpPortInUse();

    void pausedReadLosesNothing_data();
    void pausedReadLosesNothing();

    void relayPath();
    void relayFromFactoryAndEnd();
};

void NetworkConnectionTest::signalsKeepTheirOrder()
{
    // Other parts of the program address these signals by index.
    const QStringList expected{"statusMessage", "errorOccurred", "readyRead", "serialPortLost",
                               "tcpClientDisconnected", "cloudRelayEnded", "serverConnectionsChanged",
                               "serverMessage", "peerLost", "peerArrived", "udpReadyRead", "udpPeersChanged",
                               "bytesWritten"};
    const QMetaObject &meta = ConnectionController::staticMetaObject;
    QStringList found;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i) {
        if (meta.method(i).methodType() == QMetaMethod::Signal)
            found.append(QString::fromLatin1(meta.method(i).name()));
    }
    QCOMPARE(found, expected);

    const QStringList serverExpected{"connectionStateChange", "newMessage", "clientGone",
                                     "clientArrived", "bytesWritten", "connectionRefused"};
    const QMetaObject &server = MultiClientServer::staticMetaObject;
    found.clear();
    for (int i = server.methodOffset(); i < server.methodCount(); ++i) {
        if (server.method(i).methodType() == QMetaMethod::Signal)
            found.append(QString::fromLatin1(server.method(i).name()));
    }
    QCOMPARE(found, serverExpected);
}

void NetworkConnectionTest::unassignedModeDoesNothing()
{
    ConnectionController controller;
    QSignalSpy status(&controller, &ConnectionController::statusMessage);
    for (int value : {3, 9, 42}) {
        ConnectionConfig config;
        config.mode = connectionModeFromInt(value);
        QVERIFY(!controller.open(config));
        QVERIFY(!controller.isOpen(config.mode));
        QVERIFY(!controller.send(config, "x"));
        QVERIFY(controller.readAll(config.mode).isEmpty());
        QCOMPARE(controller.bytesToWrite(config.mode), 0);
        controller.close(config.mode);
    }
    QCOMPARE(status.count(), 0);
}

void NetworkConnectionTest::pendingSendsFlushInOrderOnConnect_data()
{
    QTest::addColumn<int>("mode");
    QTest::addColumn<QString>("host");
    QTest::newRow("TCP client, IPv4") << int(ConnectionMode::TcpClient) << "127.0.0.1";
    QTest::newRow("TCP client, IPv6") << int(ConnectionMode::TcpClient) << "::1";
    QTest::newRow("RFC 2217 stream") << int(ConnectionMode::RemoteSerialRfc2217) << "127.0.0.1";
    QTest::newRow("host name") << int(ConnectionMode::TcpClient) << "localhost";
}

void NetworkConnectionTest::pendingSendsFlushInOrderOnConnect()
{
    QFETCH(int, mode);
    QFETCH(QString, host);
    QTcpServer peer;
    QVERIFY(peer.listen(host == "::1" ? QHostAddress(QHostAddress::LocalHostIPv6) : QHostAddress(QHostAddress::Any), 0));
    ConnectionController controller;
    QSignalSpy arrived(&controller, &ConnectionController::peerArrived);
    QSignalSpy errors(&controller, &ConnectionController::errorOccurred);
    const ConnectionConfig config = streamConfig(ConnectionMode(mode), host, peer.serverPort());

    QVERIFY(controller.open(config));
    QVERIFY(!controller.isOpen(config.mode));
    QVERIFY(controller.send(config, "first,"));
    QVERIFY(controller.send(config, "second,"));
    QCOMPARE(controller.bytesToWrite(config.mode), 13);

    QTRY_COMPARE_WITH_TIMEOUT(arrived.count(), 1, kWait);
    QCOMPARE(arrived.at(0).at(0).toString(), QString());
    QVERIFY(controller.isOpen(config.mode));
    QVERIFY(controller.send(config, "third"));
    QTRY_VERIFY_WITH_TIMEOUT(peer.hasPendingConnections(), kWait);
    std::unique_ptr<QTcpSocket> remote(peer.nextPendingConnection());
    QCOMPARE(readExactly(*remote, 18), QByteArray("first,second,third"));

    QSignalSpy ready(&controller, &ConnectionController::readyRead);
    remote->write("answer");
    QByteArray received;
    QTRY_COMPARE_WITH_TIMEOUT(received += controller.readAll(config.mode), QByteArray("answer"), kWait);
    QVERIFY(ready.count() >= 1);
    QCOMPARE(errors.count(), 0);
}

void NetworkConnectionTest::pendingSendsDroppedWhenConnectFails_data()
{
    QTest::addColumn<QString>("host");
    QTest::addColumn<bool>("resolvable");
    QTest::addColumn<QString>("reason");
    QTest::newRow("refused, IPv4") << "127.0.0.1" << true << "Connection refused";
    QTest::newRow("refused, IPv6") << "::1" << true << "Connection refused";
    QTest::newRow("host does not resolve") << "no-such-device.invalid" << false << "Host not found";
}

void NetworkConnectionTest::pendingSendsDroppedWhenConnectFails()
{
    QFETCH(QString, host);
    QFETCH(bool, resolvable);
    QFETCH(QString, reason);
    const quint16 port = resolvable ? closedPort(QHostAddress(host)) : 6000;
    QVERIFY(port != 0);
    ConnectionController controller;
    QSignalSpy status(&controller, &ConnectionController::statusMessage);
    QSignalSpy errors(&controller, &ConnectionController::errorOccurred);
    QSignalSpy gone(&controller, &ConnectionController::tcpClientDisconnected);
    const ConnectionConfig config = streamConfig(ConnectionMode::TcpClient, host, port);

    QVERIFY(controller.open(config));
    QVERIFY(controller.send(config, "never sent"));
    QTRY_COMPARE_WITH_TIMEOUT(errors.count(), 1, 15000);
    const QString text = "TCP connect FAILED: " + reason;
    QCOMPARE(errors.at(0).at(0).toString(), text);
    QCOMPARE(statuses(status), (QList<Status>{{text, 5000}}));
    QCOMPARE(controller.bytesToWrite(config.mode), 0);
    QVERIFY(!controller.isOpen(config.mode));
    QCOMPARE(gone.count(), 0);
    QVERIFY(!controller.send(config, "no socket"));

    // The next start uses a fresh socket; the dropped bytes stay dropped.
    QTcpServer peer;
    QVERIFY(peer.listen(QHostAddress(QHostAddress::LocalHost), 0));
    QVERIFY(controller.open(streamConfig(ConnectionMode::TcpClient, "127.0.0.1", peer.serverPort())));
    QVERIFY(controller.writeStream("fresh"));
    QTRY_VERIFY_WITH_TIMEOUT(peer.hasPendingConnections(), kWait);
    std::unique_ptr<QTcpSocket> remote(peer.nextPendingConnection());
    QCOMPARE(readExactly(*remote, 5), QByteArray("fresh"));
    QTest::qWait(50);
    QCOMPARE(remote->readAll(), QByteArray());
}

void NetworkConnectionTest::retryFromTheFailureSignal()
{
    // A pane may start the next attempt straight from its error slot.
    QTcpServer peer;
    QVERIFY(peer.listen(QHostAddress(QHostAddress::LocalHost), 0));
    ConnectionController controller;
    QSignalSpy arrived(&controller, &ConnectionController::peerArrived);
    int failures = 0;
    connect(&controller, &ConnectionController::errorOccurred, this, [&] {
        if (++failures == 1) {
            controller.startTcpClient("127.0.0.1", peer.serverPort());
            controller.writeStream("retried");
        }
    });
    controller.startTcpClient("127.0.0.1", closedPort(QHostAddress(QHostAddress::LocalHost)));
    QTRY_COMPARE_WITH_TIMEOUT(arrived.count(), 1, kWait);
    QVERIFY(controller.isOpen(ConnectionMode::TcpClient));
    QCOMPARE(failures, 1);
    QTRY_VERIFY_WITH_TIMEOUT(peer.hasPendingConnections(), kWait);
    std::unique_ptr<QTcpSocket> remote(peer.nextPendingConnection());
    QCOMPARE(readExactly(*remote, 7), QByteArray("retried"));
}

void NetworkConnectionTest::outOfRangePortIsReported()
{
    ConnectionController controller;
    QSignalSpy errors(&controller, &ConnectionController::errorOccurred);
    ConnectionConfig client = streamConfig(ConnectionMode::TcpClient, "127.0.0.1", 0);
    QVERIFY(!controller.open(client));
    ConnectionConfig server = streamConfig(ConnectionMode::TcpServer, "127.0.0.1", 70000);
    QVERIFY(!controller.open(server));
    QCOMPARE(errors.count(), 2);
    QCOMPARE(errors.at(0).at(0).toString(), "TCP connect FAILED: the port 0 is not between 1 and 65535");
    QCOMPARE(errors.at(1).at(0).toString(),
             "TCP server listen on port 70000 FAILED: the port 70000 is not between 1 and 65535");
}

void NetworkConnectionTest::remoteCloseEndsStream()
{
    QTcpServer peer;
    QVERIFY(peer.listen(QHostAddress(QHostAddress::LocalHost), 0));
    ConnectionController controller;
    QSignalSpy arrived(&controller, &ConnectionController::peerArrived);
    QSignalSpy errors(&controller, &ConnectionController::errorOccurred);
    QSignalSpy gone(&controller, &ConnectionController::tcpClientDisconnected);
    controller.startTcpClient("127.0.0.1", peer.serverPort());
    QTRY_COMPARE_WITH_TIMEOUT(arrived.count(), 1, kWait);
    QTRY_VERIFY_WITH_TIMEOUT(peer.hasPendingConnections(), kWait);
    std::unique_ptr<QTcpSocket> remote(peer.nextPendingConnection());

    // The far end takes a little of a large write and goes away.
    const QByteArray big = pattern(8 * 1024 * 1024);
    QVERIFY(controller.writeStream(big));
    QCOMPARE(readExactly(*remote, 1000).size(), 1000);
    remote->abort();

    QTRY_COMPARE_WITH_TIMEOUT(gone.count(), 1, kWait);
    QCOMPARE(errors.count(), 1);
    QVERIFY2(errors.at(0).at(0).toString().startsWith("TCP connect FAILED: "),
             qPrintable(errors.at(0).at(0).toString()));
    QVERIFY(!controller.isOpen(ConnectionMode::TcpClient));
    QCOMPARE(controller.bytesToWrite(ConnectionMode::TcpClient), 0);

    // Ready for the next connection.
    controller.startTcpClient("127.0.0.1", peer.serverPort());
    QTRY_COMPARE_WITH_TIMEOUT(arrived.count(), 2, kWait);
    QVERIFY(controller.isOpen(ConnectionMode::TcpClient));
}

void NetworkConnectionTest::closingStreamDropsPending()
{
    QTcpServer peer;
    QVERIFY(peer.listen(QHostAddress(QHostAddress::LocalHost), 0));
    ConnectionController controller;
    QSignalSpy gone(&controller, &ConnectionController::tcpClientDisconnected);
    QSignalSpy errors(&controller, &ConnectionController::errorOccurred);
    controller.startTcpClient("127.0.0.1", peer.serverPort());
    QVERIFY(controller.writeStream("pending"));
    controller.close(ConnectionMode::TcpClient);
    QCOMPARE(gone.count(), 1);
    QCOMPARE(controller.bytesToWrite(ConnectionMode::TcpClient), 0);
    QVERIFY(!controller.writeStream("after close"));

    QTest::qWait(100);
    if (peer.hasPendingConnections()) {
        std::unique_ptr<QTcpSocket> remote(peer.nextPendingConnection());
        QTest::qWait(50);
        QCOMPARE(remote->readAll(), QByteArray());
    }
    controller.close(ConnectionMode::TcpClient);
    QCOMPARE(gone.count(), 1);
    QCOMPARE(errors.count(), 0);
}

void NetworkConnectionTest::serverAnnouncesClientsInOrder()
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
    const QString address = controller.serverAddressText();
    QVERIFY(address.startsWith("127.0.0.1:"));
    const quint16 port = address.section(':', 1).toUShort();

    QTcpSocket client;
    client.connectToHost(QHostAddress::LocalHost, port);
    QVERIFY(client.waitForConnected(kWait));
    const QString me = label(client, false);
    QTRY_COMPARE_WITH_TIMEOUT(events.size(), 2, kWait);
    client.write("hello");
    QTRY_COMPARE_WITH_TIMEOUT(events.size(), 3, kWait);
    QCOMPARE(controller.serverClientLabels(), QStringList{me});
    client.disconnectFromHost();
    QTRY_COMPARE_WITH_TIMEOUT(events.size(), 5, kWait);
    QCOMPARE(events, (QStringList{"arrived " + me, "changed", "message " + me + " hello", "lost " + me, "changed"}));
    QCOMPARE(controller.serverClientCount(), 0);

    controller.close(ConnectionMode::TcpServer);
    QVERIFY(!controller.isOpen(ConnectionMode::TcpServer));
    QVERIFY(controller.serverAddressText().isEmpty());
}

void NetworkConnectionTest::allowlistAtTheDoor_data()
{
    QTest::addColumn<QString>("listen");
    QTest::addColumn<QString>("connectTo");
    QTest::addColumn<bool>("mappedPeer");
    QTest::addColumn<QStringList>("allowlist");
    QTest::addColumn<bool>("admitted");
    QTest::newRow("exact IPv4") << "127.0.0.1" << "127.0.0.1" << false << QStringList{"127.0.0.1"} << true;
    QTest::newRow("padded entry, IPv4-mapped peer")
        << "any" << "127.0.0.1" << true << QStringList{"  127.0.0.1  "} << true;
    QTest::newRow("subnet, IPv4-mapped peer") << "any" << "127.0.0.1" << true << QStringList{"127.0.0.0/8"} << true;
    QTest::newRow("IPv6 loopback entry, IPv4 peer") << "127.0.0.1" << "127.0.0.1" << false << QStringList{"::1"} << true;
    QTest::newRow("IPv4 loopback entry, IPv6 peer") << "::1" << "::1" << false << QStringList{"127.0.0.1"} << true;
    QTest::newRow("first valid entry matches")
        << "127.0.0.1" << "127.0.0.1" << false << QStringList{"garbage", " ", "10.1.1.1", "127.0.0.1"} << true;
    QTest::newRow("other subnet") << "127.0.0.1" << "127.0.0.1" << false << QStringList{"10.0.0.0/8"} << false;
    QTest::newRow("only garbage") << "127.0.0.1" << "127.0.0.1" << false << QStringList{"garbage"} << false;
    QTest::newRow("IPv6 subnet, IPv4 peer") << "127.0.0.1" << "127.0.0.1" << false << QStringList{"fe80::/10"} << false;
    QTest::newRow("other address, IPv6 peer") << "::1" << "::1" << false << QStringList{"192.168.1.10"} << false;
}

void NetworkConnectionTest::allowlistAtTheDoor()
{
    QFETCH(QString, listen);
    QFETCH(QString, connectTo);
    QFETCH(bool, mappedPeer);
    QFETCH(QStringList, allowlist);
    QFETCH(bool, admitted);
    ConnectionController controller;
    controller.setServerAllowlist(allowlist);
    QVERIFY(controller.startTcpServer(0, listenAddress(listen)));
    const quint16 port = controller.serverAddressText().section(':', -1).toUShort();
    QSignalSpy arrived(&controller, &ConnectionController::peerArrived);
    QSignalSpy status(&controller, &ConnectionController::statusMessage);

    QTcpSocket client;
    client.connectToHost(QHostAddress(connectTo), port);
    QVERIFY(client.waitForConnected(kWait));
    const QString me = label(client, mappedPeer);
    if (admitted) {
        QTRY_COMPARE_WITH_TIMEOUT(arrived.count(), 1, kWait);
        QCOMPARE(arrived.at(0).at(0).toString(), me);
        QCOMPARE(status.count(), 0);
        return;
    }
    QTRY_COMPARE_WITH_TIMEOUT(status.count(), 1, kWait);
    QCOMPARE(statuses(status), (QList<Status>{{"Refused " + me + ": not on the address allowlist", 5000}}));
    QTRY_COMPARE_WITH_TIMEOUT(client.state(), QAbstractSocket::UnconnectedState, kWait);
    QCOMPARE(arrived.count(), 0);
    QCOMPARE(controller.serverClientCount(), 0);
}

void NetworkConnectionTest::allowlistMatch_data()
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
    QTest::newRow("padded entry") << "::ffff:127.0.0.1" << QStringList{"\t 127.0.0.1  "} << true;
    QTest::newRow("loopbacks alike") << "::1" << QStringList{"127.0.0.1"} << true;
    QTest::newRow("only 127.0.0.1 is ::1") << "127.0.0.2" << QStringList{"::1"} << false;
    QTest::newRow("IPv6 subnet") << "2001:db8::5" << QStringList{"2001:db8::/32"} << true;
    QTest::newRow("outside IPv6 subnet") << "2001:db9::5" << QStringList{"2001:db8::/32"} << false;
    QTest::newRow("prefix too long") << "192.168.1.1" << QStringList{"192.168.1.0/33"} << false;
    QTest::newRow("garbage refuses everyone") << "192.168.1.1" << QStringList{"garbage"} << false;
    QTest::newRow("blank entries refuse everyone") << "192.168.1.1" << QStringList{"", "  "} << false;
    QTest::newRow("bad subnet skipped") << "10.1.2.3" << QStringList{"10.1.2.0/abc", "10.1.2.3"} << true;
    QTest::newRow("/0 admits every IPv4") << "198.51.100.1" << QStringList{"0.0.0.0/0"} << true;
}

void NetworkConnectionTest::allowlistMatch()
{
    QFETCH(QString, address);
    QFETCH(QStringList, allowlist);
    QFETCH(bool, allowed);
    QCOMPARE(MultiClientServer::isAllowed(QHostAddress(address), allowlist), allowed);
}

void NetworkConnectionTest::exclusiveModeAdmitsOneClient()
{
    ConnectionController controller;
    controller.setServerExclusive(true);
    QVERIFY(controller.startTcpServer(0, QHostAddress(QHostAddress::LocalHost)));
    const quint16 port = controller.serverAddressText().section(':', -1).toUShort();
    QSignalSpy arrived(&controller, &ConnectionController::peerArrived);
    QSignalSpy lost(&controller, &ConnectionController::peerLost);
    QSignalSpy status(&controller, &ConnectionController::statusMessage);

    QTcpSocket first;
    first.connectToHost(QHostAddress::LocalHost, port);
    QVERIFY(first.waitForConnected(kWait));
    QTRY_COMPARE_WITH_TIMEOUT(arrived.count(), 1, kWait);

    QTcpSocket second;
    second.connectToHost(QHostAddress::LocalHost, port);
    QVERIFY(second.waitForConnected(kWait));
    const QString secondLabel = label(second, false);
    QTRY_COMPARE_WITH_TIMEOUT(status.count(), 1, kWait);
    QCOMPARE(statuses(status),
             (QList<Status>{{"Refused " + secondLabel + ": the port already has a client (exclusive mode)", 5000}}));
    QTRY_COMPARE_WITH_TIMEOUT(second.state(), QAbstractSocket::UnconnectedState, kWait);

    // The first client is undisturbed.
    QVERIFY(controller.sendToServerClient("still here", 0));
    QCOMPARE(readExactly(first, 10), QByteArray("still here"));

    first.disconnectFromHost();
    QTRY_COMPARE_WITH_TIMEOUT(lost.count(), 1, kWait);
    QTcpSocket third;
    third.connectToHost(QHostAddress::LocalHost, port);
    QVERIFY(third.waitForConnected(kWait));
    QTRY_COMPARE_WITH_TIMEOUT(arrived.count(), 2, kWait);
    QCOMPARE(arrived.at(1).at(0).toString(), label(third, false));
}

void NetworkConnectionTest::serverWriteTargets_data()
{
    QTest::addColumn<QString>("how");
    QTest::addColumn<int>("index");
    QTest::addColumn<bool>("result");
    QTest::addColumn<bool>("toFirst");
    QTest::addColumn<bool>("toSecond");
    QTest::newRow("index -1 means the first") << "index" << -1 << true << true << false;
    QTest::newRow("index 99 means the first") << "index" << 99 << true << true << false;
    QTest::newRow("index 1") << "index" << 1 << true << false << true;
    QTest::newRow("dispatched to index 1") << "send index" << 1 << true << false << true;
    QTest::newRow("by label") << "label" << 1 << true << false << true;
    QTest::newRow("unknown label") << "label" << 7 << false << false << false;
    QTest::newRow("to all") << "all" << -1 << true << true << true;
    QTest::newRow("empty data") << "empty" << 0 << false << false << false;
}

void NetworkConnectionTest::serverWriteTargets()
{
    QFETCH(QString, how);
    QFETCH(int, index);
    QFETCH(bool, result);
    QFETCH(bool, toFirst);
    QFETCH(bool, toSecond);
    ConnectionController controller;
    ConnectionConfig config;
    config.mode = ConnectionMode::TcpServer;
    QVERIFY(!controller.send(config, "nobody"));
    QVERIFY(!controller.sendToServerClient("nobody", 0));
    QVERIFY(controller.startTcpServer(0, QHostAddress(QHostAddress::LocalHostIPv6)));
    const quint16 port = controller.serverAddressText().section(':', -1).toUShort();
    QVERIFY(!controller.sendToServerClient("nobody yet", 0));
    QSignalSpy arrived(&controller, &ConnectionController::peerArrived);
    QSignalSpy written(&controller, &ConnectionController::bytesWritten);

    QTcpSocket first, second;
    first.connectToHost(QHostAddress::LocalHostIPv6, port);
    QTRY_COMPARE_WITH_TIMEOUT(arrived.count(), 1, kWait);
    second.connectToHost(QHostAddress::LocalHostIPv6, port);
    QTRY_COMPARE_WITH_TIMEOUT(arrived.count(), 2, kWait);
    QCOMPARE(controller.serverClientLabels(), (QStringList{label(first, false), label(second, false)}));

    const QByteArray data = "payload";
    bool ok = false;
    if (how == "index")
        ok = controller.sendToServerClient(data, index);
    else if (how == "send index")
        ok = controller.send(config, data, {QString(), index});
    else if (how == "label")
        ok = controller.send(config, data, {index == 1 ? label(second, false) : "[::1]:1", -1});
    else if (how == "all")
        ok = controller.send(config, data);
    else
        ok = controller.send(config, QByteArray(), {QString(), 0});
    QCOMPARE(ok, result);
    if (!result)
        QCOMPARE(controller.bytesToWrite(ConnectionMode::TcpServer), 0);

    QTest::qWait(50);
    QCOMPARE(readExactly(first, toFirst ? data.size() : 0, 200), toFirst ? data : QByteArray());
    QCOMPARE(readExactly(second, toSecond ? data.size() : 0, 200), toSecond ? data : QByteArray());
    QTest::qWait(50);
    QCOMPARE(first.readAll() + second.readAll(), QByteArray());
    if (result)
        QTRY_VERIFY_WITH_TIMEOUT(!written.isEmpty(), kWait);
}

void NetworkConnectionTest::clientVanishingMidWrite()
{
    ConnectionController controller;
    QVERIFY(controller.startTcpServer(0, QHostAddress(QHostAddress::LocalHost)));
    const quint16 port = controller.serverAddressText().section(':', -1).toUShort();
    QSignalSpy arrived(&controller, &ConnectionController::peerArrived);
    QSignalSpy lost(&controller, &ConnectionController::peerLost);

    QTcpSocket leaving, staying;
    leaving.connectToHost(QHostAddress::LocalHost, port);
    QTRY_COMPARE_WITH_TIMEOUT(arrived.count(), 1, kWait);
    staying.connectToHost(QHostAddress::LocalHost, port);
    QTRY_COMPARE_WITH_TIMEOUT(arrived.count(), 2, kWait);
    const QString leavingLabel = label(leaving, false);

    const QByteArray chunk = pattern(64 * 1024);
    constexpr int kChunks = 128; // 8 MiB to each client
    for (int i = 0; i < kChunks; ++i)
        QCOMPARE(controller.sendToAllServerClients(chunk), chunk.size());

    QCOMPARE(readExactly(leaving, 100000).size(), 100000);
    leaving.abort();
    QByteArray got;
    QDeadlineTimer deadline(30000);
    while (got.size() < chunk.size() * kChunks && !deadline.hasExpired()) {
        staying.waitForReadyRead(50);
        got += staying.readAll();
        QCoreApplication::processEvents();
    }
    QCOMPARE(got.size(), chunk.size() * kChunks);
    QVERIFY(got == chunk.repeated(kChunks));
    QTRY_COMPARE_WITH_TIMEOUT(lost.count(), 1, kWait);
    QCOMPARE(lost.at(0).at(0).toString(), leavingLabel);
    QCOMPARE(controller.serverClientCount(), 1);
    QTRY_COMPARE_WITH_TIMEOUT(controller.bytesToWrite(ConnectionMode::TcpServer), 0, kWait);
    QVERIFY(controller.sendToServerClient("after", leavingLabel) == false);
    QVERIFY(controller.sendToServerClient("after", 0));
    QCOMPARE(readExactly(staying, 5), QByteArray("after"));
}

void NetworkConnectionTest::serverPortInUse()
{
    QTcpServer squatter;
    QVERIFY(squatter.listen(QHostAddress(QHostAddress::LocalHost), 0));
    ConnectionController controller;
    QSignalSpy errors(&controller, &ConnectionController::errorOccurred);
    QSignalSpy status(&controller, &ConnectionController::statusMessage);
    QVERIFY(!controller.startTcpServer(squatter.serverPort(), QHostAddress(QHostAddress::LocalHost)));
    const QString text = QString("TCP server listen on port %1 FAILED: The bound address is already in use")
                             .arg(squatter.serverPort());
    QCOMPARE(errors.count(), 1);
    QCOMPARE(errors.at(0).at(0).toString(), text);
    QCOMPARE(statuses(status), (QList<Status>{{text, 5000}}));
    QVERIFY(!controller.isOpen(ConnectionMode::TcpServer));

    QVERIFY(controller.startTcpServer(0, QHostAddress(QHostAddress::LocalHost)));
    QVERIFY(controller.isOpen(ConnectionMode::TcpServer));
}

void NetworkConnectionTest::udpPeerTable()
{
    ConnectionController controller;
    ConnectionConfig config;
    config.mode = ConnectionMode::UdpServer;
    config.udpLocalPort = 0;
    QSignalSpy status(&controller, &ConnectionController::statusMessage);
    QSignalSpy changed(&controller, &ConnectionController::udpPeersChanged);
    QSignalSpy ready(&controller, &ConnectionController::udpReadyRead);
    QVERIFY(!controller.sendUdpToPeer("no socket", 0));
    QVERIFY(controller.open(config));
    QVERIFY(controller.isOpen(ConnectionMode::UdpServer));
    const quint16 port = controller.udpLocalPort();
    QVERIFY(port != 0);

    QVERIFY(!controller.send(config, "nobody yet"));
    QCOMPARE(statuses(status), (QList<Status>{{"No UDP peer to reply to yet", 3000}}));

    QUdpSocket one, two;
    QVERIFY(one.bind(QHostAddress::LocalHost, 0));
    QVERIFY(two.bind(QHostAddress::LocalHost, 0));
    const QString oneKey = QString("127.0.0.1:%1").arg(one.localPort());
    const QString twoKey = QString("127.0.0.1:%1").arg(two.localPort());
    QList<ConnectionController::UdpDatagram> received;
    auto deliver = [&](QUdpSocket &from, const QByteArray &data) {
        const int before = ready.count();
        from.writeDatagram(data, QHostAddress::LocalHost, port);
        if (!QTest::qWaitFor([&] { return ready.count() > before; }, kWait))
            return false;
        received = controller.readUdpDatagrams();
        return true;
    };

    QVERIFY(deliver(one, "a"));
    QCOMPARE(received.size(), 1);
    QCOMPARE(received.at(0).peer, oneKey);
    QCOMPARE(received.at(0).data, QByteArray("a"));
    QCOMPARE(changed.count(), 1);
    QCOMPARE(controller.currentUdpPeer(), 0);

    QVERIFY(deliver(one, "b"));
    QCOMPARE(changed.count(), 1); // a known sender changes nothing in the table
    QCOMPARE(controller.udpPeers().at(0).lastDatagram, QByteArray("b"));

    QVERIFY(deliver(two, "c"));
    QCOMPARE(changed.count(), 2);
    QCOMPARE(controller.currentUdpPeer(), 1);
    QCOMPARE(controller.udpPeers().at(1).key(), twoKey);

    QVERIFY(deliver(one, "d"));
    QCOMPARE(controller.currentUdpPeer(), 0);
    QCOMPARE(controller.udpPeers().size(), 2);

    auto arrives = [](QUdpSocket &at, const QByteArray &data) {
        if (!QTest::qWaitFor([&] { return at.hasPendingDatagrams(); }, kWait))
            return false;
        return at.receiveDatagram().data() == data;
    };
    QVERIFY(controller.sendUdpToPeer("row 5", 5)); // outside the table: the first peer
    QVERIFY(arrives(one, "row 5"));
    QVERIFY(controller.sendUdpToPeer("row 1", 1));
    QVERIFY(arrives(two, "row 1"));
    QVERIFY(controller.send(config, "to current")); // the peer heard from last
    QVERIFY(arrives(one, "to current"));
    QVERIFY(!controller.sendUdpToPeer(QByteArray(), 0));

    // A new bind starts a new table; so does a close.
    QVERIFY(controller.bindUdp(0));
    QCOMPARE(changed.count(), 3);
    QVERIFY(controller.udpPeers().isEmpty());
    QCOMPARE(controller.currentUdpPeer(), -1);
    const quint16 rebound = controller.udpLocalPort();
    one.writeDatagram("again", QHostAddress::LocalHost, rebound);
    QTRY_COMPARE_WITH_TIMEOUT((received = controller.readUdpDatagrams(), controller.udpPeers().size()), 1, kWait);
    controller.close(ConnectionMode::UdpServer);
    QCOMPARE(changed.count(), 5);
    QVERIFY(!controller.isOpen(ConnectionMode::UdpServer));
}

void NetworkConnectionTest::udpClientSendsToTarget()
{
    QUdpSocket target;
    QVERIFY(target.bind(QHostAddress::LocalHost, 0));
    ConnectionController controller;
    ConnectionConfig config;
    config.mode = ConnectionMode::UdpClient;
    config.udpLocalPort = 0;
    config.targetHost = "127.0.0.1";
    config.udpServerPort = target.localPort();
    QVERIFY(controller.open(config));

    QVERIFY(controller.send(config, "datagram"));
    QTRY_VERIFY_WITH_TIMEOUT(target.hasPendingDatagrams(), kWait);
    const QNetworkDatagram got = target.receiveDatagram();
    QCOMPARE(got.data(), QByteArray("datagram"));
    QCOMPARE(got.senderPort(), int(controller.udpLocalPort()));

    // A name is looked up once; datagrams sent meanwhile keep their order.
    config.targetHost = "localhost";
    QVERIFY(controller.send(config, "by name 1"));
    QVERIFY(controller.send(config, "by name 2"));
    for (const QByteArray &expected : {QByteArray("by name 1"), QByteArray("by name 2")}) {
        QTRY_VERIFY_WITH_TIMEOUT(target.hasPendingDatagrams(), kWait);
        QCOMPARE(target.receiveDatagram().data(), expected);
    }
    QVERIFY(controller.send(config, "cached"));
    QVERIFY(target.waitForReadyRead(kWait));
    QCOMPARE(target.receiveDatagram().data(), QByteArray("cached"));

    // A name that does not resolve: the datagram waits for the lookup, then
    // the failure is reported and nothing is left waiting.
    QSignalSpy errors(&controller, &ConnectionController::errorOccurred);
    config.targetHost = "no-such-device.invalid";
    QVERIFY(controller.send(config, "nowhere"));
    QCOMPARE(controller.bytesToWrite(config.mode), 7);
    QTRY_COMPARE_WITH_TIMEOUT(errors.count(), 1, 15000);
    QCOMPARE(errors.at(0).at(0).toString(), QString("UDP send to no-such-device.invalid FAILED: Host not found"));
    QCOMPARE(controller.bytesToWrite(config.mode), 0);

    // The reply comes back through the peer table.
    target.writeDatagram("reply", QHostAddress::LocalHost, controller.udpLocalPort());
    QList<ConnectionController::UdpDatagram> replies;
    QTRY_VERIFY_WITH_TIMEOUT(!(replies += controller.readUdpDatagrams()).isEmpty(), kWait);
    QCOMPARE(replies.at(0).data, QByteArray("reply"));
}

void NetworkConnectionTest::udpPortInUse()
{
    QUdpSocket squatter;
    QVERIFY(squatter.bind(QHostAddress::AnyIPv4, 0, QAbstractSocket::DontShareAddress));
    ConnectionController controller;
    QSignalSpy errors(&controller, &ConnectionController::errorOccurred);
    QSignalSpy status(&controller, &ConnectionController::statusMessage);
    QVERIFY(!controller.bindUdp(squatter.localPort()));
    const QString text = QString("UDP bind to port %1 FAILED: The bound address is already in use")
                             .arg(squatter.localPort());
    QCOMPARE(errors.count(), 1);
    QCOMPARE(errors.at(0).at(0).toString(), text);
    QCOMPARE(statuses(status), (QList<Status>{{text, 5000}}));
    QVERIFY(!controller.isOpen(ConnectionMode::UdpServer));

    QVERIFY(controller.bindUdp(0));
    QVERIFY(controller.isOpen(ConnectionMode::UdpClient));
}

void NetworkConnectionTest::pausedReadLosesNothing_data()
{
    QTest::addColumn<int>("mode");
    QTest::newRow("TCP client") << int(ConnectionMode::TcpClient);
    QTest::newRow("TCP server") << int(ConnectionMode::TcpServer);
}

void NetworkConnectionTest::pausedReadLosesNothing()
{
    QFETCH(int, mode);
    const bool server = ConnectionMode(mode) == ConnectionMode::TcpServer;
    ConnectionController controller;
    QTcpServer listener;
    std::unique_ptr<QTcpSocket> remote;
    QSignalSpy arrived(&controller, &ConnectionController::peerArrived);
    if (server) {
        QVERIFY(controller.startTcpServer(0, QHostAddress(QHostAddress::LocalHost)));
        remote = std::make_unique<QTcpSocket>();
        remote->connectToHost(QHostAddress::LocalHost, controller.serverAddressText().section(':', -1).toUShort());
    } else {
        QVERIFY(listener.listen(QHostAddress(QHostAddress::LocalHost), 0));
        controller.startTcpClient("127.0.0.1", listener.serverPort());
        QTRY_VERIFY_WITH_TIMEOUT(listener.hasPendingConnections(), kWait);
        remote.reset(listener.nextPendingConnection());
    }
    QTRY_COMPARE_WITH_TIMEOUT(arrived.count(), 1, kWait);

    QByteArray received;
    connect(&controller, &ConnectionController::serverMessage, this,
            [&](const QByteArray &data) { received += data; });
    QSignalSpy ready(&controller, &ConnectionController::readyRead);
    auto take = [&] {
        if (!server)
            received += controller.readAll(ConnectionMode(mode));
    };
    connect(&controller, &ConnectionController::readyRead, this, take);

    controller.setReadPaused(ConnectionMode(mode), true);
    QVERIFY(controller.isReadPaused());
    const QByteArray sent = pattern(4 * 1024 * 1024, mode);
    remote->write(sent);
    QTest::qWait(300);
    QVERIFY(received.isEmpty());
    // The sender is held back by TCP, not buffered without bound here.
    QVERIFY(remote->bytesToWrite() > 0);

    controller.setReadPaused(ConnectionMode(mode), false);
    QVERIFY(!controller.isReadPaused());
    // What waited is handed over at once, before any new arrival.
    QVERIFY(!received.isEmpty());
    QTRY_COMPARE_WITH_TIMEOUT(received.size(), sent.size(), 20000);
    QVERIFY(received == sent);
    if (!server)
        QVERIFY(ready.count() > 0);
}

void NetworkConnectionTest::relayPath()
{
    ConnectionController controller;
    auto *relay = new FakeRelay;
    QPointer<FakeRelay> watch(relay);
    QSignalSpy arrived(&controller, &ConnectionController::peerArrived);
    QSignalSpy ready(&controller, &ConnectionController::readyRead);
    QSignalSpy written(&controller, &ConnectionController::bytesWritten);
    ConnectionConfig config;
    config.mode = ConnectionMode::RemoteSerialRelay;

    QVERIFY(!controller.writeRelay("before"));
    QVERIFY(controller.attachRelay(relay));
    QCOMPARE(relay->parent(), &controller);
    FakeRelay other;
    QVERIFY(!controller.attachRelay(&other)); // one relay at a time
    QVERIFY(!controller.isOpen(config.mode));
    QVERIFY(controller.open(config)); // already attached: nothing to make

    relay->pair();
    QVERIFY(controller.isOpen(config.mode));
    QCOMPARE(arrived.count(), 1);
    QCOMPARE(arrived.at(0).at(0).toString(), QString());
    emit relay->peerChanged("guest-7");
    QCOMPARE(arrived.at(1).at(0).toString(), QString("guest-7"));

    emit relay->dataReceived("abc");
    emit relay->dataReceived("def");
    QCOMPARE(ready.count(), 2);
    QCOMPARE(controller.readAll(config.mode), QByteArray("abcdef"));
    QVERIFY(controller.readAll(config.mode).isEmpty());

    // Held while paused, announced at once on resume.
    controller.setReadPaused(config.mode, true);
    emit relay->dataReceived("held");
    QVERIFY(controller.readAll(config.mode).isEmpty());
    const int before = ready.count();
    controller.setReadPaused(config.mode, false);
    QCOMPARE(ready.count(), before + 1);
    QCOMPARE(controller.readAll(config.mode), QByteArray("held"));

    QVERIFY(controller.send(config, "out"));
    QVERIFY(!controller.writeRelay(QByteArray()));
    QCOMPARE(relay->written, QByteArray("out"));
    QCOMPARE(written.count(), 0); // reported from the event loop
    QTRY_COMPARE_WITH_TIMEOUT(written.count(), 1, kWait);
    QCOMPARE(written.at(0).at(0).toLongLong(), 3);
    relay->queued = 42;
    QCOMPARE(controller.bytesToWrite(config.mode), 42);

    emit relay->dataReceived("dropped on close");
    controller.close(config.mode);
    QCOMPARE(relay->closeCalls, 1);
    QVERIFY(!controller.hasRelay());
    QVERIFY(!controller.isOpen(config.mode));
    QVERIFY(controller.readAll(config.mode).isEmpty());
    QTRY_VERIFY_WITH_TIMEOUT(watch.isNull(), kWait);
}

void NetworkConnectionTest::relayFromFactoryAndEnd()
{
    ConnectionController controller;
    ConnectionConfig config;
    config.mode = ConnectionMode::RemoteSerialRelay;
    QVERIFY(!controller.open(config)); // no relay to make
    QPointer<FakeRelay> made;
    controller.setRelayFactory([&](const ConnectionConfig &c) -> RelayTransport * {
        if (c.relayPortKey.isEmpty())
            return nullptr;
        made = new FakeRelay;
        return made;
    });
    QVERIFY(!controller.open(config));
    config.relayPortKey = "key-1";
    QVERIFY(controller.open(config));
    QVERIFY(made);
    QVERIFY(controller.hasRelay());

    QSignalSpy ended(&controller, &ConnectionController::cloudRelayEnded);
    made->pair();
    emit made->dataReceived("unread");
    emit made->ended("The remote end disconnected.");
    QCOMPARE(ended.count(), 1);
    QCOMPARE(ended.at(0).at(0).toString(), QString("The remote end disconnected."));
    QVERIFY(!controller.hasRelay());
    QVERIFY(controller.readAll(config.mode).isEmpty());
    QCOMPARE(made->closeCalls, 1);
    QTRY_VERIFY_WITH_TIMEOUT(made.isNull(), kWait);

    // A new session can start right away.
    QVERIFY(controller.open(config));
    QVERIFY(controller.hasRelay());
}

QTEST_GUILESS_MAIN(NetworkConnectionTest)
#include "tst_networkconnection.moc"
