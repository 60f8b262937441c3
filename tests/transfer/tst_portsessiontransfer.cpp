// A file transfer driven through a port session (no widget), against lrzsz:
// received over a TCP server pane, sent over a serial pane on a pty pair.
#include "connection/connectioncontroller.h"
#include "support/lrzszpeer.h"
#include "support/ptypair.h"
#include "terminal/portsession.h"
#include "transfer/filetransfersession.h"
#include "transfer/portsessionxferport.h"

#include <QTcpSocket>
#include <QTemporaryDir>
#include <QtTest>

namespace {

constexpr int kWait = 20000;

QByteArray pattern(int size)
{
    QByteArray data(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i)
        data[i] = char((i * 131 + 7) & 0xFF);
    return data;
}

bool writeFile(const QString &path, const QByteArray &data)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(data) == data.size();
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

class PortSessionTransferTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void receivesOnAServerPane();
    void sendsOnASerialPane();
};

void PortSessionTransferTest::receivesOnAServerPane()
{
    QTemporaryDir peerFolder, ourFolder;
    const QByteArray data = pattern(70000);
    QVERIFY(writeFile(peerFolder.filePath("report.bin"), data));

    PortSession session(1);
    ConnectionConfig config;
    config.mode = ConnectionMode::TcpServer;
    config.targetPort = 1;
    session.applySettings(config, PaneOptions(), {});
    QVERIFY(session.controller()->startTcpServer(0, QHostAddress::LocalHost));
    const quint16 port = quint16(session.controller()->serverAddressText().section(':', -1).toUInt());
    // A second client that reads nothing and already has output waiting:
    // it takes no part in the transfer and must not hold it up.
    QTcpSocket idle;
    idle.setReadBufferSize(1);
    idle.connectToHost(QHostAddress::LocalHost, port);
    QVERIFY(idle.waitForConnected(5000));
    QTRY_COMPARE_WITH_TIMEOUT(session.controller()->serverClientCount(), 1, 5000);
    const QString idleLabel = session.controller()->serverClientLabels().constFirst();
    const QByteArray chunk(64 * 1024, 'x');
    const SendTarget toIdle{idleLabel, -1};
    for (int i = 0; i < 1024 && session.controller()->send(config, chunk, toIdle); ++i)
        QCoreApplication::processEvents();
    QVERIFY(session.controller()->bytesToWrite(ConnectionMode::TcpServer, toIdle) > 0);

    LrzszPeer peer;
    QVERIFY(peer.start(QStringLiteral("TCP:127.0.0.1:%1").arg(port), peerFolder.path(), "sb -q report.bin"));
    QTRY_COMPARE_WITH_TIMEOUT(session.controller()->serverClientCount(), 2, 5000);

    PortSessionXferPort xfer(&session);
    QVERIFY(xfer.selectClient(session.controller()->serverClientLabels().at(1)));
    FileTransferSession::Request request;
    request.protocol = XmodemVariant::Ymodem;
    request.direction = FileTransferSession::Direction::Receive;
    request.folder = ourFolder.path();
    FileTransferSession transfer(&xfer, request);
    xfer.attach(&transfer);
    QSignalSpy finished(&transfer, &FileTransferSession::finished);
    QSignalSpy notes(&session, &PortSession::note);
    transfer.start();
    QVERIFY(session.isTransferActive());
    QTRY_COMPARE_WITH_TIMEOUT(finished.count(), 1, kWait);
    QVERIFY2(finished.at(0).at(0).toBool(), qPrintable(finished.at(0).at(1).toString()));
    QCOMPARE(readFile(ourFolder.filePath("report.bin")), data);
    QVERIFY(!session.isTransferActive());
    QVERIFY(!notes.isEmpty());
    // The transfer's bytes went to the transfer, not to the view.
    QCOMPARE(session.ingest().pendingBytes(), 0);
    QCOMPARE(peer.waitForExit(5000), 0);
}

void PortSessionTransferTest::sendsOnASerialPane()
{
    PtyPair pty;
    QVERIFY2(pty.start(), qPrintable(pty.errorText()));
    QTemporaryDir peerFolder, ourFolder;
    const QByteArray data = pattern(5000);
    QVERIFY(writeFile(ourFolder.filePath("firmware.bin"), data));

    PortSession session(2);
    ConnectionConfig config;
    config.portName = pty.pathA();
    config.baudRate = 115200;
    session.applySettings(config, PaneOptions(), {});
    QVERIFY(session.openConnection());
    LrzszPeer peer;
    QVERIFY(peer.start(QStringLiteral("%1,raw,echo=0").arg(pty.pathB()), peerFolder.path(), "rb -q"));

    PortSessionXferPort xfer(&session);
    FileTransferSession::Request request;
    request.protocol = XmodemVariant::Ymodem;
    request.direction = FileTransferSession::Direction::Send;
    request.filePath = ourFolder.filePath("firmware.bin");
    FileTransferSession transfer(&xfer, request);
    xfer.attach(&transfer);
    QSignalSpy finished(&transfer, &FileTransferSession::finished);
    transfer.start();
    QTRY_COMPARE_WITH_TIMEOUT(finished.count(), 1, kWait);
    QVERIFY2(finished.at(0).at(0).toBool(), qPrintable(finished.at(0).at(1).toString()));
    QCOMPARE(peer.waitForExit(kWait), 0);
    QCOMPARE(readFile(peerFolder.filePath("firmware.bin")), data);
    QVERIFY(session.txCount() > quint64(data.size()));
}

QTEST_GUILESS_MAIN(PortSessionTransferTest)
#include "tst_portsessiontransfer.moc"
