// A port session driven with no widget at all: a socat pty pair or a
// loopback TCP server on the far side, the reconnect policy on a virtual
// clock, the data log read back from disk.
#include "connection/connectioncontroller.h"
#include "support/listenport.h"
#include "support/ptypair.h"
#include "terminal/portsession.h"

#include <QElapsedTimer>
#include <QJsonObject>
#include <QSerialPort>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QtTest>

namespace {

constexpr int kWait = 5000;

QString readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

bool statusShown(const QSignalSpy &spy, const QString &text)
{
    for (const QList<QVariant> &args : spy) {
        if (args.at(0).toString() == text)
            return true;
    }
    return false;
}

// What a view would show: every queued chunk through the session's view
// formatter.
QString drainView(PortSession &session)
{
    QString text;
    for (const DisplayChunk &chunk : session.takeForView(-1, -1))
        text += session.viewFormatter().format(chunk);
    return text;
}

} // namespace

class PortSessionTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void opensSendsReceivesAndLogs();
    void logKeepsCharactersSplitAcrossAPause();
    void lostSerialPortReconnectsOnTheClock_data();
    void lostSerialPortReconnectsOnTheClock();
    void tcpClientReconnectsOnTheClock();
    void peerThatDoesNotReadIsNotSentMore();
    void clientThatDoesNotReadHoldsNoOtherBack();
    void portKeyAndSnapshotEntryDescribeThePort();
    void consoleTextIsDecodedOnlyWhileHeard();

private:
    ConnectionConfig serialConfig() const
    {
        ConnectionConfig config;
        config.portName = m_pty->pathA();
        config.baudRate = 115200;
        return config;
    }
    bool openFar(QSerialPort &far) const
    {
        far.setPortName(m_pty->pathB());
        return far.open(QIODevice::ReadWrite);
    }

    std::unique_ptr<PtyPair> m_pty;
    std::unique_ptr<QTemporaryDir> m_logs;
};

void PortSessionTest::init()
{
    m_pty = std::make_unique<PtyPair>();
    QVERIFY2(m_pty->start(), qPrintable(m_pty->errorText()));
    m_logs = std::make_unique<QTemporaryDir>();
}

void PortSessionTest::cleanup()
{
    m_pty.reset();
    m_logs.reset();
}

void PortSessionTest::opensSendsReceivesAndLogs()
{
    PortSession session(1);
    PaneOptions options;
    options.logSaveFlag = true;
    options.logFilePath = m_logs->path();
    options.txAutoFeedLine = true;
    session.applySettings(serialConfig(), options, {});
    QSignalSpy status(&session, &PortSession::statusMessage);
    QVERIFY(session.openConnection());
    QVERIFY(session.isConnectionOpen() && session.isStarted() && session.isLogging());
    QVERIFY(session.statusLine().contains(" OPENED, 115200, 8, NONE, 1, NONE"));
    QVERIFY(statusShown(status, QString("Serial Port %1 OPEN SUCCESS").arg(m_pty->pathA())));

    QSerialPort far;
    QVERIFY(openFar(far));
    far.write("hello\n");
    QTRY_COMPARE_WITH_TIMEOUT(session.rxCount(), quint64(6), kWait);

    QVERIFY(session.sendText("AT"));
    QByteArray atFar;
    QTRY_VERIFY_WITH_TIMEOUT((atFar += far.readAll()) == "AT\r\n", kWait);
    QCOMPARE(session.txCount(), quint64(4));
    QCOMPARE(session.sendHistory(), QStringList{"AT"});
    QCOMPARE(drainView(session), QString("hello\nAT\n"));

    const QString logPath = session.currentLogFile();
    session.closeConnection();
    QVERIFY(!session.isStarted() && !session.isLogging());
    QVERIFY(session.statusLine().contains("CLOSED"));
    const QString log = readFile(logPath);
    QVERIFY2(log.contains("hello\n") && log.contains("AT\n"), qPrintable(log));
}

void PortSessionTest::logKeepsCharactersSplitAcrossAPause()
{
    // A character split across reads, with the view paused in between: the
    // view and the log each decode the whole stream, so both read "a中b".
    PortSession session(2);
    PaneOptions options;
    options.logSaveFlag = true;
    options.logFilePath = m_logs->path();
    options.logTimestampEnabled = false;
    options.displaySendMsg = false;
    session.applySettings(serialConfig(), options, {});
    QVERIFY(session.openConnection());
    QSerialPort far;
    QVERIFY(openFar(far));

    QString view;
    far.write("a\xE4");
    QTRY_COMPARE_WITH_TIMEOUT(session.rxCount(), quint64(2), kWait);
    view += drainView(session);
    session.setPaused(true);
    far.write("\xB8\xAD");
    QTRY_COMPARE_WITH_TIMEOUT(session.rxCount(), quint64(4), kWait);
    far.write("b\n");
    QTRY_COMPARE_WITH_TIMEOUT(session.rxCount(), quint64(6), kWait);
    QVERIFY(session.takeForView(-1, -1).isEmpty());  // kept aside while paused
    session.setPaused(false);
    view += drainView(session);
    QCOMPARE(view, QString::fromUtf8("a\u4e2db\n"));

    const QString logPath = session.currentLogFile();
    session.closeConnection();
    const QString log = readFile(logPath);
    QVERIFY2(log.endsWith(QString::fromUtf8("a\u4e2db\n")), qPrintable(log));
    QVERIFY(!log.contains(QChar(0xFFFD)));
}

void PortSessionTest::lostSerialPortReconnectsOnTheClock_data()
{
    QTest::addColumn<bool>("autoReconnect");
    QTest::newRow("waits and comes back") << true;
    QTest::newRow("without auto reconnect the session ends") << false;
}

void PortSessionTest::lostSerialPortReconnectsOnTheClock()
{
    QFETCH(bool, autoReconnect);
    qint64 now = 1000000;
    PortSession session(3);
    session.setClock([&now] { return now; });
    session.applySettings(serialConfig(), PaneOptions(), {});
    session.setAutoReconnect(autoReconnect);
    QVERIFY(session.openConnection());
    QSignalSpy status(&session, &PortSession::statusMessage);
    QSignalSpy waiting(&session, &PortSession::waiting);
    QSignalSpy cleared(&session, &PortSession::failureCleared);

    m_pty->kill();
    QTRY_VERIFY_WITH_TIMEOUT(!session.isConnectionOpen(), kWait);
    QCOMPARE(session.isReconnecting(), autoReconnect);
    QCOMPARE(session.isStarted(), autoReconnect);
    QVERIFY(statusShown(status, QString("Serial Port %1 DISCONNECTED").arg(m_pty->pathA())));
    if (!autoReconnect) {
        QVERIFY(session.statusLine().contains("CLOSED"));
        return;
    }
    QVERIFY(statusShown(status, QString("Serial Port %1 lost, waiting for it to come back...").arg(m_pty->pathA())));
    QVERIFY(session.statusLine().contains("waiting to reconnect"));
    // The pane says so for as long as it waits, not just for a moment.
    QCOMPARE(waiting.count(), 1);
    QCOMPARE(waiting.at(0).at(0).toString(), QString("Serial Port %1 lost, waiting for it to come back...").arg(m_pty->pathA()));
    QCOMPARE(cleared.count(), 0);

    // Not before the interval, however often the timer ticks.
    QVERIFY2(m_pty->restart(), qPrintable(m_pty->errorText()));
    now += ReconnectPolicy::kIntervalMs / 2;
    session.onReconnectTick();
    session.onReconnectTick();
    QVERIFY(session.isReconnecting() && !session.isConnectionOpen());

    now += ReconnectPolicy::kIntervalMs / 2;
    session.onReconnectTick();
    QVERIFY(session.isConnectionOpen());
    QVERIFY(!session.isReconnecting());
    QVERIFY(statusShown(status, QString("Serial Port %1 RECONNECTED").arg(m_pty->pathA())));
    QCOMPARE(cleared.count(), 1);

    QSerialPort far;
    QVERIFY(openFar(far));
    far.write("again");
    QString seen;
    QTRY_COMPARE_WITH_TIMEOUT(seen += drainView(session), QString("again"), kWait);
}

void PortSessionTest::tcpClientReconnectsOnTheClock()
{
    // The device comes back on the same port: one outside the ephemeral
    // range, so no parallel test is handed it while the device is away.
    QTcpServer device;
    QVERIFY(device.listen(QHostAddress::LocalHost, unusedListenPort()));
    qint64 now = 0;
    PortSession session(4);
    session.setClock([&now] { return now; });
    ConnectionConfig config;
    config.mode = ConnectionMode::TcpClient;
    config.targetHost = QStringLiteral("127.0.0.1");
    config.targetPort = device.serverPort();
    session.applySettings(config, PaneOptions(), {});
    QSignalSpy status(&session, &PortSession::statusMessage);
    QVERIFY(session.openConnection());
    QVERIFY(device.waitForNewConnection(kWait));
    std::unique_ptr<QTcpSocket> client(device.nextPendingConnection());
    QTRY_VERIFY_WITH_TIMEOUT(session.isConnectionOpen(), kWait);

    const quint16 port = device.serverPort();
    device.close();
    client->close();
    QTRY_VERIFY_WITH_TIMEOUT(session.isReconnecting(), kWait);
    QVERIFY(statusShown(status, QString("Reconnecting to 127.0.0.1:%1 ...").arg(port)));

    // The first attempt finds nobody listening; the session keeps waiting.
    QSignalSpy failures(&session, &PortSession::failure);
    now += ReconnectPolicy::kIntervalMs;
    session.onReconnectTick();
    QTRY_VERIFY_WITH_TIMEOUT(!failures.isEmpty(), kWait);
    QVERIFY(failures.at(0).at(0).toString().startsWith("TCP connect FAILED: "));
    QVERIFY(session.isReconnecting() && session.isStarted());

    QVERIFY(device.listen(QHostAddress::LocalHost, port));
    session.onReconnectTick();
    QVERIFY(!device.waitForNewConnection(200));  // the interval has not passed again
    now += ReconnectPolicy::kIntervalMs;
    session.onReconnectTick();
    QVERIFY(device.waitForNewConnection(kWait));
    client.reset(device.nextPendingConnection());
    QTRY_VERIFY_WITH_TIMEOUT(!session.isReconnecting(), kWait);
    QVERIFY(statusShown(status, "TCP connection RESTORED"));
    client->write("back");
    QString seen;
    QTRY_COMPARE_WITH_TIMEOUT(seen += drainView(session), QString("back"), kWait);
}

void PortSessionTest::peerThatDoesNotReadIsNotSentMore()
{
    QTcpServer device;
    QVERIFY(device.listen(QHostAddress::LocalHost, 0));
    PortSession session(5);
    ConnectionConfig config;
    config.mode = ConnectionMode::TcpClient;
    config.targetHost = QStringLiteral("127.0.0.1");
    config.targetPort = device.serverPort();
    PaneOptions options;
    options.displaySendMsg = false;
    session.applySettings(config, options, {});
    QVERIFY(session.openConnection());
    QVERIFY(device.waitForNewConnection(kWait));
    std::unique_ptr<QTcpSocket> stuck(device.nextPendingConnection());
    stuck->setReadBufferSize(4096);  // takes nothing more off the kernel: a peer that never reads
    QTRY_VERIFY_WITH_TIMEOUT(session.isConnectionOpen(), kWait);

    QSignalSpy status(&session, &PortSession::statusMessage);
    const QByteArray block(256 * 1024, 'x');
    quint64 accepted = 0;
    for (int i = 0; i < 400 && session.sendBytes(block); ++i) {
        accepted += quint64(block.size());
        QTest::qWait(1);
    }
    // Refused once the peer held the watermark; what waits stays bounded
    // and the counter counts only what left.
    QVERIFY(session.isPeerBacklogged());
    QVERIFY(session.controller()->bytesToWrite() < PortTransport::kWriteHighWatermark + block.size());
    QVERIFY(status.constLast().at(0).toString().startsWith("The peer is not reading: "));
    QVERIFY(session.txCount() < accepted);
    QCOMPARE(session.txCount() + quint64(session.controller()->bytesToWrite()), accepted);

    // Once it reads, sending goes on.
    QByteArray drained;
    stuck->setReadBufferSize(0);
    QTRY_VERIFY_WITH_TIMEOUT((drained += stuck->readAll(), !session.isPeerBacklogged()), kWait);
    QVERIFY(session.sendBytes("more"));
}

void PortSessionTest::clientThatDoesNotReadHoldsNoOtherBack()
{
    PortSession session(6);
    ConnectionConfig config;
    config.mode = ConnectionMode::TcpServer;
    PaneOptions options;
    options.displaySendMsg = false;
    session.applySettings(config, options, {});
    QVERIFY(session.controller()->startTcpServer(0, QHostAddress::LocalHost));
    const quint16 port = quint16(session.controller()->serverAddressText().section(':', -1).toUInt());
    QTcpSocket stuck, reader;
    stuck.setReadBufferSize(4096);  // takes nothing more off the kernel
    stuck.connectToHost(QHostAddress::LocalHost, port);
    QVERIFY(stuck.waitForConnected(kWait));
    QTRY_COMPARE_WITH_TIMEOUT(session.controller()->serverClientCount(), 1, kWait);
    const QString stuckLabel = session.controller()->serverClientLabels().constFirst();
    reader.connectToHost(QHostAddress::LocalHost, port);
    QVERIFY(reader.waitForConnected(kWait));
    QTRY_COMPARE_WITH_TIMEOUT(session.controller()->serverClientCount(), 2, kWait);

    // Sends to all go on well past the stuck client's cap, and the one that
    // reads gets every one of them.
    QSignalSpy status(&session, &PortSession::statusMessage);
    const QByteArray block(64 * 1024, 'y');
    constexpr int kBlocks = 128;  // 8 MiB, eight times the cap
    QByteArray got;
    int sent = 0;
    QElapsedTimer clock;
    clock.start();
    while (sent < kBlocks && clock.elapsed() < 30000) {
        if (session.sendBytes(block))
            ++sent;
        else
            QTest::qWait(1);
        got += reader.readAll();
    }
    QCOMPARE(sent, kBlocks);
    QTRY_COMPARE_WITH_TIMEOUT((got += reader.readAll()).size(), block.size() * kBlocks, 20000);
    QVERIFY(got == block.repeated(kBlocks));
    QVERIFY(session.controller()->bytesToWrite(ConnectionMode::TcpServer, SendTarget{stuckLabel, -1})
            < PortTransport::kWriteHighWatermark + block.size());
    // Named once, not once per send.
    const QString note = stuckLabel + " is not reading: sends to all clients pass it by until it does.";
    int notes = 0;
    for (const QList<QVariant> &args : std::as_const(status))
        notes += args.at(0).toString() == note;
    QCOMPARE(notes, 1);
    QVERIFY(!session.isPeerBacklogged());

    // When no client takes anything, a send to all waits like any other.
    reader.setReadBufferSize(4096);
    for (int i = 0; i < 400 && session.sendBytes(block); ++i)
        QTest::qWait(1);
    QVERIFY(session.isPeerBacklogged());
}

void PortSessionTest::portKeyAndSnapshotEntryDescribeThePort()
{
    PortSession session(1);
    PortSession other(1);
    QVERIFY(session.portKey().startsWith('p'));
    QVERIFY(session.portKey() != other.portKey());
    const QString key = session.portKey();

    ConnectionConfig config = serialConfig();
    config.parity = QSerialPort::EvenParity;
    config.stopBits = QSerialPort::OneAndHalfStop;
    config.flowControl = QSerialPort::SoftwareControl;
    session.applySettings(config, {}, {});
    QCOMPARE(session.snapshotEntry(), (QJsonObject{{"port_key", key},
                                                   {"connection_mode", 0},
                                                   {"mode_tag", "ser"},
                                                   {"port_name", m_pty->pathA()},
                                                   {"label", "ser-1"},
                                                   {"open", false},
                                                   {"baud_rate", 115200},
                                                   {"data_bits", 8},
                                                   {"parity", "even"},
                                                   {"stop_bits", 1.5},
                                                   {"flow_control", "xonxoff"}}));

    // A network port: its endpoint, no serial members, the same key.
    config.mode = ConnectionMode::TcpClient;
    config.targetHost = "127.0.0.1";
    config.targetPort = 6001;
    session.setConnectionConfig(config);
    QCOMPARE(session.snapshotEntry(), (QJsonObject{{"port_key", key},
                                                   {"connection_mode", 2},
                                                   {"mode_tag", "tcpc"},
                                                   {"port_name", "127.0.0.1:6001"},
                                                   {"label", "tcpc-1"},
                                                   {"open", false}}));
}

void PortSessionTest::consoleTextIsDecodedOnlyWhileHeard()
{
    PortSession session(1);
    const QByteArray character = QString::fromUtf8("状").toUtf8();
    // Half a character arrives while nobody listens: the console never
    // joins it to what comes after it starts listening.
    session.ingestReceived(character.left(2));
    QSignalSpy console(&session, &PortSession::consoleTraffic);
    session.ingestReceived("A" + character.left(1));
    session.ingestReceived(character.mid(1));
    QCOMPARE(console.size(), 2);
    QCOMPARE(console.at(0), (QList<QVariant>{session.portKey(), false, "A"}));
    QCOMPARE(console.at(1).at(2).toString(), QString::fromUtf8("状"));
}

QTEST_GUILESS_MAIN(PortSessionTest)
#include "tst_portsession.moc"
