#include "connection/connectioncontroller.h"
#include "support/settingssandbox.h"
#include "terminal/controllinelights.h"
#include "terminal/ledindicator.h"
#include "terminal/receiveview.h"
#include "terminal/serialportwidget.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDir>
#include <QLabel>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QSerialPort>
#include <QSignalSpy>
#include <QSpinBox>
#include <QTcpServer>
#include <QTextCursor>
#include <QTextDocument>
#include <QTcpSocket>
#include <QToolButton>
#include <QtTest>

#include <memory>

// A device at the far end of a TCP connection: a loopback server that keeps
// the one client the pane makes and collects what it sends.
class TcpDevice : public QObject
{
public:
    bool listen(quint16 port = 0)
    {
        QObject::connect(&server, &QTcpServer::newConnection, this, [this] {
            while (QTcpSocket *s = server.nextPendingConnection()) {
                client = s;
                QObject::connect(s, &QTcpSocket::readyRead, this, [this, s] { received += s->readAll(); });
            }
        });
        return server.listen(QHostAddress::LocalHost, port);
    }
    bool waitForClient(int ms = 5000)
    {
        QElapsedTimer t;
        t.start();
        while (!client && t.elapsed() < ms)
            QTest::qWait(10);
        return client != nullptr;
    }
    void write(const QByteArray &bytes)
    {
        client->write(bytes);
        client->flush();
    }
    QTcpServer server;
    QPointer<QTcpSocket> client;
    QByteArray received;
};

class PortPaneTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();

    void receivesTextAcrossSplitCharacters_data();
    void receivesTextAcrossSplitCharacters();
    void hexAndTimestampsKeepApart();
    void timestampsTakeTheirOwnColour();
    void sendsFramesAsConfigured_data();
    void sendsFramesAsConfigured();
    void refusedFramesSendNothing();
    void lineByLineAutoSend();
    void transferLockRefusesDisturbingActions();
    void trafficSignalsCarryBothDirections();
    void pausedViewKeepsNewestAndCountsAll();
    void floodIsThrottledWithoutLoss();
    void logRecordsAndReportsUnwritableFolder();
    void remotePortShowsNotesAndInputLights();

private:
    std::unique_ptr<SettingsSandbox> m_sandbox;
    std::unique_ptr<SerialPortWidget> tcpPane(TcpDevice &device, PaneOptions options = {});
    static QString viewText(SerialPortWidget &pane) { return pane.receiveView()->toPlainText(); }
};

void PortPaneTest::initTestCase()
{
    m_sandbox = std::make_unique<SettingsSandbox>();
}

std::unique_ptr<SerialPortWidget> PortPaneTest::tcpPane(TcpDevice &device, PaneOptions options)
{
    auto pane = std::make_unique<SerialPortWidget>(1);
    ConnectionConfig config;
    config.mode = ConnectionMode::TcpClient;
    config.targetHost = "127.0.0.1";
    config.recentTargetHosts = {"192.0.2.1"};
    config.targetPort = device.server.serverPort();
    options.logSaveFlag = false;
    pane->applySettings(config, options, {});
    pane->show();
    auto *button = pane->findChild<QPushButton *>("sendButton");
    if (button->text() != "Open")
        qWarning() << "closed pane button reads" << button->text();
    button->click();  // the button opens a closed connection
    if (!device.waitForClient())
        return nullptr;
    QElapsedTimer t;
    t.start();
    while (!pane->isConnectionOpen() && t.elapsed() < 5000)
        QTest::qWait(10);
    return pane->isConnectionOpen() ? std::move(pane) : nullptr;
}

void PortPaneTest::receivesTextAcrossSplitCharacters_data()
{
    QTest::addColumn<QString>("encoding");
    QTest::addColumn<QList<QByteArray>>("reads");
    QTest::addColumn<QString>("shown");
    const QByteArray euro = QByteArray("\xE2\x82\xAC");  // U+20AC in UTF-8
    QTest::newRow("utf-8 split 1+2") << "UTF-8" << QList<QByteArray>{"a" + euro.left(1), euro.mid(1) + "b"} << QString("a€b");
    QTest::newRow("utf-8 split 2+1") << "UTF-8" << QList<QByteArray>{euro.left(2), euro.mid(2)} << QString("€");
    const QByteArray zhong("\xD6\xD0");  // 中 in GBK
    QTest::newRow("gbk split") << "GBK" << QList<QByteArray>{"x" + zhong.left(1), zhong.mid(1)} << QString("x中");
    QTest::newRow("line ends fold") << "UTF-8" << QList<QByteArray>{"a\r", "\nb\rc"} << QString("a\nb\nc");
    QTest::newRow("invalid byte keeps sync") << "UTF-8" << QList<QByteArray>{"ok\xFF", "fine"} << QString("ok\uFFFDfine");
}

void PortPaneTest::receivesTextAcrossSplitCharacters()
{
    QFETCH(QString, encoding);
    QFETCH(QList<QByteArray>, reads);
    QFETCH(QString, shown);
    TcpDevice device;
    QVERIFY(device.listen());
    PaneOptions options;
    options.receiveEncoding = encoding;
    auto pane = tcpPane(device, options);
    QVERIFY(pane);
    qint64 total = 0;
    for (const QByteArray &read : reads) {
        device.write(read);
        total += read.size();
        // Separate reads on the pane's side.
        QTRY_COMPARE_WITH_TIMEOUT(qint64(pane->rxCount()), total, 5000);
    }
    QTRY_COMPARE_WITH_TIMEOUT(viewText(*pane), shown, 5000);
    QCOMPARE(pane->findChild<QLabel *>("rxCountLabel")->text(), QString("Rx: %L1 Bytes").arg(total));
    // The host used goes first in the host box's list.
    QCOMPARE(pane->connectionConfig().recentTargetHosts, (QStringList{"127.0.0.1", "192.0.2.1"}));
}

void PortPaneTest::hexAndTimestampsKeepApart()
{
    TcpDevice device;
    QVERIFY(device.listen());
    PaneOptions options;
    options.receiveFormat = MessageFormat::Hex;
    options.displayTime = true;
    auto pane = tcpPane(device, options);
    QVERIFY(pane);
    device.write(QByteArray("\x01\xAB", 2));
    QTRY_VERIFY_WITH_TIMEOUT(viewText(*pane).endsWith("01 AB "), 5000);
    const QString text = viewText(*pane);
    QVERIFY2(QRegularExpression(R"(^\[Rx\]\[\d\d:\d\d:\d\d\.\d\d\d\] 01 AB $)").match(text).hasMatch(), qPrintable(text));
}

// Timestamps are drawn in the format colour, the text after them in the
// colour of its direction, line by line.
void PortPaneTest::timestampsTakeTheirOwnColour()
{
    TcpDevice device;
    QVERIFY(device.listen());
    PaneOptions options;
    options.displayTime = true;
    options.formatDisplayColor = QStringLiteral("#c00000");
    options.receiveTextColor = QStringLiteral("#0000c0");
    auto pane = tcpPane(device, options);
    QVERIFY(pane);
    device.write("one\ntwo\n");
    QTRY_VERIFY_WITH_TIMEOUT(viewText(*pane).endsWith("two\n"), 5000);
    const QString text = viewText(*pane);
    QTextDocument *document = pane->receiveView()->document();
    const auto colourAt = [&](qsizetype at) {
        QTextCursor cursor(document);
        cursor.setPosition(int(at) + 1);  // the format of the character before
        return cursor.charFormat().foreground().color();
    };
    const qsizetype stampLength = QStringLiteral("[Rx][hh:mm:ss.zzz] ").size();
    for (const QString &line : {QStringLiteral("one"), QStringLiteral("two")}) {
        const qsizetype at = text.indexOf(line);
        QVERIFY2(at >= stampLength, qPrintable(text));
        QCOMPARE(colourAt(at - stampLength), QColor("#c00000"));
        QCOMPARE(colourAt(at - 1), QColor("#c00000"));
        QCOMPARE(colourAt(at), QColor("#0000c0"));
        QCOMPARE(colourAt(at + 2), QColor("#0000c0"));
    }
}

void PortPaneTest::sendsFramesAsConfigured_data()
{
    QTest::addColumn<bool>("hex");
    QTest::addColumn<bool>("appendEnding");
    QTest::addColumn<int>("ending");
    QTest::addColumn<int>("checksum");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QByteArray>("wire");
    QTest::addColumn<QString>("boxAfter");
    QTest::newRow("AT CR LF") << false << true << 3 << 0 << "AT" << QByteArray("AT\r\n") << "AT";
    QTest::newRow("AT LF given, CR LF") << false << true << 3 << 0 << "AT\n" << QByteArray("AT\r\n") << "AT\n";
    QTest::newRow("LF CR") << false << true << 4 << 0 << "a\nb" << QByteArray("a\n\rb\n\r") << "a\nb";
    QTest::newRow("no ending") << false << false << 3 << 0 << "AT" << QByteArray("AT") << "AT";
    QTest::newRow("hex tokens") << true << true << 3 << 0 << "1 a ff" << QByteArray("\x01\x0A\xFF", 3) << "01 0A FF";
    QTest::newRow("text sum8") << false << false << 0 << 1 << "123456789" << QByteArray("123456789\xDD") << "123456789";
    QTest::newRow("text crc16 with CR") << false << true << 1 << 4 << "A" << QByteArray("A\r") + QByteArray("\x00\x00", 2) << "A";
    QTest::newRow("hex crc32") << true << false << 0 << 5 << "31 32 33 34 35 36 37 38 39"
                               << QByteArray("123456789\x26\x39\xF4\xCB") << "31 32 33 34 35 36 37 38 39";
}

void PortPaneTest::sendsFramesAsConfigured()
{
    QFETCH(bool, hex);
    QFETCH(bool, appendEnding);
    QFETCH(int, ending);
    QFETCH(int, checksum);
    QFETCH(QString, text);
    QFETCH(QByteArray, wire);
    QFETCH(QString, boxAfter);
    if (QByteArray(QTest::currentDataTag()) == "text crc16 with CR") {
        // CRC-16/MODBUS of "A\r", low byte first, worked out independently.
        quint16 crc = 0xFFFF;
        for (char c : QByteArray("A\r")) {
            crc ^= quint8(c);
            for (int i = 0; i < 8; ++i)
                crc = (crc & 1) ? (crc >> 1) ^ 0xA001 : crc >> 1;
        }
        wire = QByteArray("A\r") + char(crc & 0xFF) + char(crc >> 8);
    }
    TcpDevice device;
    QVERIFY(device.listen());
    PaneOptions options;
    options.sendFormat = hex ? MessageFormat::Hex : MessageFormat::Text;
    options.txAutoFeedLine = appendEnding;
    options.txLineEnding = LineEnding(ending);
    options.sendChecksum = checksum;
    options.displaySendMsg = true;
    auto pane = tcpPane(device, options);
    QVERIFY(pane);
    pane->setSendText(text);
    pane->findChild<QPushButton *>("sendButton")->click();
    QTRY_COMPARE_WITH_TIMEOUT(device.received, wire, 5000);
    QCOMPARE(pane->sendText(), boxAfter);
    QCOMPARE(pane->txCount(), quint64(wire.size()));
    QCOMPARE(pane->sendHistory().value(0), hex ? text.toUpper() : text);
    QVERIFY(!viewText(*pane).isEmpty());  // the echo
}

void PortPaneTest::refusedFramesSendNothing()
{
    TcpDevice device;
    QVERIFY(device.listen());
    PaneOptions options;
    options.sendEncoding = "ISO-8859-1";
    auto pane = tcpPane(device, options);
    QVERIFY(pane);
    pane->setSendText(QString::fromUtf8("caf\u00e9 \u4e2d"));
    pane->findChild<QPushButton *>("sendButton")->click();
    auto *error = pane->findChild<QLabel *>("errorLabel");
    QVERIFY(error->isVisibleTo(pane.get()));
    QCOMPARE(error->text(), QString::fromUtf8("The character '\u4e2d' cannot be encoded as ISO-8859-1. Change the encoding or edit the message."));
    QVERIFY(pane->sendHistory().isEmpty());

    PaneOptions hexOptions;
    hexOptions.sendFormat = MessageFormat::Hex;
    pane->applySettings(pane->connectionConfig(), hexOptions, {});
    pane->setSendText("ABC");
    pane->findChild<QPushButton *>("sendButton")->click();
    QCOMPARE(error->text(), QString("Hex input must contain complete bytes."));
    QCOMPARE(pane->sendText(), QString("ABC"));  // the box is left as typed
    QTest::qWait(100);
    QVERIFY(device.received.isEmpty());
    QCOMPARE(pane->txCount(), quint64(0));
}

void PortPaneTest::lineByLineAutoSend()
{
    TcpDevice device;
    QVERIFY(device.listen());
    PaneOptions options;
    options.lineByLine = true;
    options.sendInterval = 30;
    options.txAutoFeedLine = false;
    auto pane = tcpPane(device, options);
    QVERIFY(pane);
    pane->setSendText("a\nb\n");
    auto *autoSend = pane->findChild<QCheckBox *>("autoSendBox");
    autoSend->click();
    QVERIFY(autoSend->isChecked());
    // a, b, then the empty last line sends nothing, then a again.
    QTRY_VERIFY_WITH_TIMEOUT(device.received.size() >= 4, 5000);
    autoSend->click();
    QVERIFY(device.received.startsWith("abab"));
}

void PortPaneTest::transferLockRefusesDisturbingActions()
{
    SerialPortWidget closed(5);
    QCOMPARE(closed.transferRefusal(), QString("The connection is not open."));
    ConnectionConfig udp;
    udp.mode = ConnectionMode::UdpClient;
    closed.applySettings(udp, PaneOptions(), {});
    QCOMPARE(closed.transferRefusal(), QString("File transfer needs an ordered, reliable connection. UDP cannot provide one."));

    TcpDevice device;
    QVERIFY(device.listen());
    auto pane = tcpPane(device);
    QVERIFY(pane);
    QCOMPARE(pane->transferRefusal(), QString());
    pane->setPaused(true);
    QCOMPARE(pane->transferRefusal(), QString("The view is paused. Resume it before transferring a file."));
    pane->setPaused(false);

    QSignalSpy state(pane.get(), &SerialPortWidget::transferStateChanged);
    QSignalSpy status(pane.get(), &SerialPortWidget::statusMessage);
    pane->setTransferActive(true);
    QCOMPARE(state.size(), 1);
    QCOMPARE(pane->transferRefusal(), QString("A file transfer is already running on this port."));
    pane->setSendText("x");
    pane->findChild<QPushButton *>("sendButton")->click();
    pane->closeConnection();
    QVERIFY(pane->isConnectionOpen());
    QCOMPARE(status.at(0).at(0).toString(), QString("A file transfer is using this port. Sending data now would corrupt it."));
    QCOMPARE(status.at(1).at(0).toString(), QString("A file transfer is running."));
    QVERIFY(!pane->findChild<QWidget *>("connectionSettings")->findChild<QComboBox *>("portBox")->isEnabled());
    pane->setTransferActive(false);
    QCOMPARE(state.size(), 2);
    QTest::qWait(50);
    QVERIFY(device.received.isEmpty());
}

void PortPaneTest::trafficSignalsCarryBothDirections()
{
    TcpDevice device;
    QVERIFY(device.listen());
    auto pane = tcpPane(device);
    QVERIFY(pane);
    QSignalSpy tapped(pane.get(), &SerialPortWidget::rxTapped);
    QSignalSpy console(pane->session(), &PortSession::consoleTraffic);
    device.write("in\n");
    QTRY_COMPARE_WITH_TIMEOUT(tapped.size(), 1, 5000);
    QCOMPARE(tapped.at(0).at(0).toByteArray(), QByteArray("in\n"));
    pane->setSendText("out");
    pane->findChild<QPushButton *>("sendButton")->click();
    QTRY_COMPARE_WITH_TIMEOUT(console.size(), 2, 5000);
    const QString key = pane->session()->portKey();
    QCOMPARE(console.at(0), (QList<QVariant>{key, false, "in\n"}));
    QCOMPARE(console.at(1), (QList<QVariant>{key, true, "out"}));
}

void PortPaneTest::pausedViewKeepsNewestAndCountsAll()
{
    TcpDevice device;
    QVERIFY(device.listen());
    PaneOptions options;
    options.displayBufferSize = 4000;
    auto pane = tcpPane(device, options);
    QVERIFY(pane);
    pane->setPaused(true);
    QByteArray data;
    for (int i = 0; i < 10000; ++i)
        data.append(i % 27 == 26 ? '\n' : char('A' + i % 27));
    device.write(data);
    QTRY_COMPARE_WITH_TIMEOUT(pane->rxCount(), quint64(10000), 5000);
    QTest::qWait(60);  // refresh ticks pass; nothing is shown while paused
    QVERIFY(viewText(*pane).isEmpty());
    pane->setPaused(false);
    QCOMPARE(viewText(*pane), QString::fromLatin1(data.right(4000)));
}

void PortPaneTest::floodIsThrottledWithoutLoss()
{
    TcpDevice device;
    QVERIFY(device.listen());
    PaneOptions options;
    options.displayBufferSize = 200000;
    auto pane = tcpPane(device, options);
    QVERIFY(pane);
    bool pausedSeen = false;
    QTimer probe;
    connect(&probe, &QTimer::timeout, this, [&] { pausedSeen |= pane->controller()->isReadPaused(); });
    probe.start(1);

    const QByteArray line = QByteArray(79, 'x') + '\n';
    const QByteArray block = line.repeated(13108);  // about 1 MiB
    const qint64 total = 24 * block.size();
    for (int i = 0; i < 24; ++i)
        device.client->write(block);
    QTRY_COMPARE_WITH_TIMEOUT(qint64(pane->rxCount()), total, 60000);
    QTRY_COMPARE_WITH_TIMEOUT(pane->pendingDisplayBytes(), qint64(0), 20000);
    QVERIFY2(pausedSeen, "reading was never paused while the view fell behind");
    QVERIFY(!pane->controller()->isReadPaused());
    const QString text = viewText(*pane);
    QVERIFY(text.size() <= options.displayBufferSize);
    QVERIFY(text.endsWith(QString::fromLatin1(line)));
}

void PortPaneTest::logRecordsAndReportsUnwritableFolder()
{
    QTemporaryDir folder;
    TcpDevice device;
    QVERIFY(device.listen());
    PaneOptions options;
    auto pane = std::make_unique<SerialPortWidget>(3);
    ConnectionConfig config;
    config.mode = ConnectionMode::TcpClient;
    config.targetPort = device.server.serverPort();
    options.logSaveFlag = true;
    options.logFilePath = folder.path();
    pane->applySettings(config, options, {});
    QVERIFY(pane->openConnection());
    QVERIFY(device.waitForClient());
    QVERIFY(pane->isLogging());
    device.write("logged line\n");
    QTRY_VERIFY_WITH_TIMEOUT(viewText(*pane).contains("logged line"), 5000);
    const QString path = pane->currentLogFile();
    pane->closeConnection();  // writes what is pending
    QFile log(path);
    QVERIFY(log.open(QIODevice::ReadOnly));
    const QString content = QString::fromUtf8(log.readAll());
    QVERIFY(content.contains("Tessaline"));
    QVERIFY(content.contains("logged line"));

    // A folder that cannot exist: the view carries on and says why.
    QFile blocker(folder.path() + "/plainfile");
    QVERIFY(blocker.open(QIODevice::WriteOnly));
    blocker.close();
    options.logFilePath = blocker.fileName() + "/sub";
    pane->applySettings(config, options, {});
    QVERIFY(pane->openConnection());
    auto *error = pane->findChild<QLabel *>("errorLabel");
    QTRY_VERIFY_WITH_TIMEOUT(error->text().startsWith("Could not create log directory"), 5000);
    QVERIFY(!pane->isLogging());
    QVERIFY(device.waitForClient());
    QTRY_VERIFY_WITH_TIMEOUT(device.server.hasPendingConnections() || device.client, 5000);
}

// A remote serial port pane: the remote's answers become notes in the view,
// in order with its data, and its input lines light the lights row.
void PortPaneTest::remotePortShowsNotesAndInputLights()
{
    TcpDevice device;
    QVERIFY(device.listen());
    SerialPortWidget pane(7);
    ConnectionConfig config;
    config.mode = ConnectionMode::RemoteSerialRfc2217;
    config.targetHost = "127.0.0.1";
    config.targetPort = device.server.serverPort();
    PaneOptions options;
    options.logSaveFlag = false;
    pane.applySettings(config, options, {});
    pane.show();
    auto *lights = pane.findChild<ControlLineLights *>("indicatorLights");
    QVERIFY(lights);
    QVERIFY(lights->ctsLight()->isVisibleTo(&pane));
    QVERIFY(pane.openConnection());
    QVERIFY(device.waitForClient());

    device.write("before");
    // Agreement, then modem state CTS and CD, a parity fault, more data.
    device.write(QByteArray::fromHex("fffd2c fffa2c6b90fff0 fffa2c6a04fff0") + "after");
    const QString accepted = "-- The remote port accepted serial parameter control. --";
    const QString fault = "-- The remote port reports: parity error. --";
    QTRY_VERIFY_WITH_TIMEOUT(viewText(pane).contains("after"), 5000);
    const QString text = viewText(pane);
    QVERIFY2(text.indexOf("before") < text.indexOf(accepted) && text.indexOf(accepted) < text.indexOf(fault)
                 && text.indexOf(fault) < text.indexOf("after"),
             qPrintable(text));
    QVERIFY(lights->ctsLight()->isLit() && lights->carrierLight()->isLit());
    QVERIFY(!lights->dsrLight()->isLit() && !lights->ringLight()->isLit());

    // Break goes to the remote port while the button is held.
    QSignalSpy status(&pane, &SerialPortWidget::statusMessage);
    auto *breakButton = pane.findChild<QToolButton *>("breakButton");
    QVERIFY(breakButton && breakButton->isEnabled());
    QTest::mousePress(breakButton, Qt::LeftButton);
    QTRY_VERIFY_WITH_TIMEOUT(device.received.contains(QByteArray::fromHex("fffa2c0505fff0")), 5000);
    QVERIFY(!status.isEmpty());
    QCOMPARE(status.last().at(0).toString(), "Sent Break to the remote port; it is released when you let go.");
    QTest::mouseRelease(breakButton, Qt::LeftButton);
    QTRY_VERIFY_WITH_TIMEOUT(device.received.contains(QByteArray::fromHex("fffa2c0506fff0")), 5000);

    // Gone with the connection: the next one reports its own.
    device.client->close();
    QTRY_VERIFY_WITH_TIMEOUT(!lights->ctsLight()->isLit(), 5000);
}

QTEST_MAIN(PortPaneTest)
#include "tst_portpane.moc"
