// A TCP server connection under load: hundreds of clients arriving at once,
// each sending and receiving, on loopback. Nothing may be lost and the event
// loop must keep answering throughout.
#include "connection/connectioncontroller.h"

#include <QTcpSocket>
#include <QtTest>

#include <sys/resource.h>

#include <memory>
#include <vector>

namespace {

constexpr int kClients = 500;
constexpr int kWait = 30000;

QByteArray messageOf(int client)
{
    QByteArray data = QByteArray("client ") + QByteArray::number(client) + '\n';
    data.reserve(4096);
    while (data.size() < 4000)
        data += char('a' + (data.size() * 7 + client) % 26);
    return data;
}

QByteArray replyTo(int client)
{
    return QByteArray("reply to ") + QByteArray::number(client) + '\n';
}

} // namespace

class ServerLoadTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void manyClientsAtOnce();
};

void ServerLoadTest::initTestCase()
{
    // Each client costs two descriptors here (both ends live in this process).
    rlimit limit{};
    QVERIFY(::getrlimit(RLIMIT_NOFILE, &limit) == 0);
    const rlim_t needed = 2 * kClients + 128;
    if (limit.rlim_cur < needed) {
        limit.rlim_cur = qMin(needed, limit.rlim_max);
        QVERIFY(::setrlimit(RLIMIT_NOFILE, &limit) == 0);
    }
    QVERIFY2(limit.rlim_cur >= needed, "the descriptor limit is too low for the load test");
}

void ServerLoadTest::manyClientsAtOnce()
{
    ConnectionController controller;
    QVERIFY(controller.startTcpServer(0, QHostAddress(QHostAddress::LocalHost)));
    const quint16 port = controller.serverAddressText().section(':', -1).toUShort();
    ConnectionConfig config;
    config.mode = ConnectionMode::TcpServer;

    // A heartbeat that must keep ticking while the server works.
    QElapsedTimer sinceBeat;
    qint64 worstGap = 0;
    QTimer beat;
    beat.setInterval(10);
    connect(&beat, &QTimer::timeout, this, [&] { worstGap = qMax(worstGap, sinceBeat.restart()); });
    sinceBeat.start();
    beat.start();

    QHash<QString, QByteArray> fromClients;
    qint64 receivedTotal = 0;
    connect(&controller, &ConnectionController::serverMessage, this, [&](const QByteArray &data, const QString &peer) {
        fromClients[peer] += data;
        receivedTotal += data.size();
    });
    QSignalSpy arrived(&controller, &ConnectionController::peerArrived);
    QSignalSpy lost(&controller, &ConnectionController::peerLost);

    std::vector<std::unique_ptr<QTcpSocket>> clients;
    std::vector<QByteArray> atClients(kClients);
    qint64 expectedAtServer = 0;
    for (int i = 0; i < kClients; ++i) {
        auto socket = std::make_unique<QTcpSocket>();
        QTcpSocket *raw = socket.get();
        connect(raw, &QTcpSocket::connected, this, [raw, i] { raw->write(messageOf(i)); });
        connect(raw, &QTcpSocket::readyRead, this, [raw, i, &atClients] { atClients[i] += raw->readAll(); });
        raw->connectToHost(QHostAddress::LocalHost, port);
        expectedAtServer += messageOf(i).size();
        clients.push_back(std::move(socket));
    }

    QTRY_COMPARE_WITH_TIMEOUT(arrived.count(), kClients, kWait);
    QCOMPARE(controller.serverClientCount(), kClients);
    QTRY_COMPARE_WITH_TIMEOUT(receivedTotal, expectedAtServer, kWait);
    for (int i = 0; i < kClients; ++i) {
        const QString label = QStringLiteral("127.0.0.1:%1").arg(clients[i]->localPort());
        QCOMPARE(fromClients.value(label), messageOf(i));
    }

    // One answer to each client by its label, then one broadcast to all.
    for (int i = 0; i < kClients; ++i) {
        const QString label = QStringLiteral("127.0.0.1:%1").arg(clients[i]->localPort());
        QVERIFY(controller.send(config, replyTo(i), {label, -1}));
    }
    QByteArray broadcast(64 * 1024, Qt::Uninitialized);
    for (int i = 0; i < broadcast.size(); ++i)
        broadcast[i] = char(i % 251);
    QCOMPARE(controller.sendToAllServerClients(broadcast), broadcast.size());

    auto everyoneHasAll = [&] {
        for (int i = 0; i < kClients; ++i) {
            if (atClients[i].size() < replyTo(i).size() + broadcast.size())
                return false;
        }
        return true;
    };
    QTRY_VERIFY_WITH_TIMEOUT(everyoneHasAll(), kWait);
    for (int i = 0; i < kClients; ++i)
        QVERIFY2(atClients[i] == replyTo(i) + broadcast, qPrintable(QString("client %1").arg(i)));
    QTRY_COMPARE_WITH_TIMEOUT(controller.bytesToWrite(ConnectionMode::TcpServer), 0, kWait);

    for (auto &client : clients)
        client->disconnectFromHost();
    QTRY_COMPARE_WITH_TIMEOUT(lost.count(), kClients, kWait);
    QCOMPARE(controller.serverClientCount(), 0);

    // A liveness bound, not a speed target: the loop never stalled for long.
    QVERIFY2(worstGap < 2000, qPrintable(QString("the event loop stalled for %1 ms").arg(worstGap)));
}

QTEST_GUILESS_MAIN(ServerLoadTest)
#include "tst_serverload.moc"
