// The transfer dialog and bar on the offscreen platform: the connection
// line, hints and fields per protocol, the settings a start stores, the
// client check, and the bar's texts while a session runs.
#include "support/settingssandbox.h"
#include "transfer/filetransferbar.h"
#include "transfer/filetransferdialog.h"
#include "transfer/xferport.h"

#include <QtTest>
#include <QComboBox>
#include <QLabel>
#include <QPushButton>
#include <QSettings>

namespace {

class ScriptPort : public XferPort
{
public:
    bool write(const QByteArray &bytes) override
    {
        written += bytes;
        return true;
    }
    qint64 bytesToWrite() const override { return 0; }
    bool isOpen() const override { return true; }
    void lock(bool on) override { locks << on; }
    void writeNote(const QString &) override {}
    QStringList clientLabels() const override { return clients; }
    bool selectClient(const QString &label) override { return connected.contains(label); }

    QByteArray written;
    QList<bool> locks;
    QStringList clients;
    QStringList connected;
};

ConnectionConfig serial(QSerialPort::FlowControl flow)
{
    ConnectionConfig c;
    c.portName = QStringLiteral("ttyUSB0");
    c.flowControl = flow;
    return c;
}

const QString kYmodemGHint = QStringLiteral(
    "YMODEM-G does not resend anything, so it needs hardware flow control (RTS/CTS). This connection has none: a single error would abandon the whole transfer.");
const QString kSendHint = QStringLiteral(
    "XMODEM carries no file name or length. The device will receive the data padded up to a whole number of blocks.");
const QString kReceiveHint = QStringLiteral(
    "XMODEM carries no file name or length, so you must supply the name, and the received file is always padded up to a whole number of blocks.");

void pump()
{
    for (int i = 0; i < 5; ++i)
        QCoreApplication::processEvents();
}

} // namespace

class TestTransferWidgets : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void connectionIsDescribed_data();
    void connectionIsDescribed();
    void fieldsAndHintsFollowTheProtocol_data();
    void fieldsAndHintsFollowTheProtocol();
    void startStoresTheChoicesAndTakesThePort();
    void aGoneClientIsRefused();
    void counterText_data();
    void counterText();
    void barFollowsTheSessionAndCancels();

private:
    std::unique_ptr<SettingsSandbox> m_sandbox;
};

void TestTransferWidgets::initTestCase()
{
    m_sandbox = std::make_unique<SettingsSandbox>();
}

void TestTransferWidgets::init()
{
    m_sandbox->clear();
}

void TestTransferWidgets::connectionIsDescribed_data()
{
    QTest::addColumn<int>("mode");
    QTest::addColumn<int>("flow");
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("ymodemGWarned");
    QTest::newRow("serial, none") << int(ConnectionMode::Serial) << int(QSerialPort::NoFlowControl)
                                  << "ttyUSB0, no flow control" << true;
    QTest::newRow("serial, rts/cts") << int(ConnectionMode::Serial) << int(QSerialPort::HardwareControl)
                                     << "ttyUSB0, RTS/CTS" << false;
    QTest::newRow("serial, xon/xoff") << int(ConnectionMode::Serial) << int(QSerialPort::SoftwareControl)
                                      << "ttyUSB0, XON/XOFF" << true;
    QTest::newRow("tcp client") << int(ConnectionMode::TcpClient) << 0 << "TCP 10.0.0.7:4001" << false;
    QTest::newRow("tcp server") << int(ConnectionMode::TcpServer) << 0 << "TCP server, port 4001" << false;
    QTest::newRow("rfc 2217") << int(ConnectionMode::RemoteSerialRfc2217) << 0 << "RFC 2217 10.0.0.7:4001" << true;
}

void TestTransferWidgets::connectionIsDescribed()
{
    QFETCH(int, mode);
    QFETCH(int, flow);
    QFETCH(QString, text);
    QFETCH(bool, ymodemGWarned);
    ConnectionConfig c = serial(QSerialPort::FlowControl(flow));
    c.mode = ConnectionMode(mode);
    c.targetHost = QStringLiteral("10.0.0.7");
    c.targetPort = 4001;
    FileTransferDialog dialog(FileTransferSession::Direction::Send, c, nullptr);
    auto *label = dialog.findChild<QLabel *>("connectionLabel");
    QVERIFY(label);
    QCOMPARE(label->text(), text);
    QCOMPARE(label->styleSheet(), QStringLiteral("QLabel { color: palette(mid); }"));
    dialog.setProtocol(XmodemVariant::YmodemG);
    QCOMPARE(dialog.hints().contains(kYmodemGHint), ymodemGWarned);
}

void TestTransferWidgets::fieldsAndHintsFollowTheProtocol_data()
{
    QTest::addColumn<bool>("sending");
    QTest::addColumn<int>("protocol");
    QTest::addColumn<QStringList>("hints");
    QTest::addColumn<bool>("blockSize");
    QTest::addColumn<bool>("saveAs");
    QTest::newRow("send xmodem") << true << 0 << QStringList{kSendHint} << false << false;
    QTest::newRow("send xmodem-1k") << true << 2 << QStringList{kSendHint} << true << false;
    QTest::newRow("send ymodem") << true << 3 << QStringList() << true << false;
    QTest::newRow("send ymodem-g") << true << 4 << QStringList{kYmodemGHint} << true << false;
    QTest::newRow("receive xmodem-crc") << false << 1 << QStringList{kReceiveHint} << false << true;
    QTest::newRow("receive ymodem") << false << 3 << QStringList() << false << false;
}

void TestTransferWidgets::fieldsAndHintsFollowTheProtocol()
{
    QFETCH(bool, sending);
    QFETCH(int, protocol);
    QFETCH(QStringList, hints);
    QFETCH(bool, blockSize);
    QFETCH(bool, saveAs);
    using D = FileTransferSession::Direction;
    FileTransferDialog dialog(sending ? D::Send : D::Receive, serial(QSerialPort::NoFlowControl), nullptr);
    dialog.show();
    QCOMPARE(dialog.windowTitle(), sending ? QStringLiteral("Send File") : QStringLiteral("Receive File"));
    auto *box = dialog.findChild<QComboBox *>("protocolBox");
    QCOMPARE(box->count(), 5);
    QCOMPARE(box->itemText(4), QStringLiteral("YMODEM-G (streaming, no retries)"));
    QCOMPARE(box->itemData(2).toInt(), 2);
    // Starts on YMODEM when nothing was used before.
    QCOMPARE(dialog.protocol(), XmodemVariant::Ymodem);
    dialog.setProtocol(XmodemVariant(protocol));
    QCOMPARE(dialog.hints(), hints);
    auto *block = dialog.findChild<QComboBox *>("blockSizeBox");
    QCOMPARE(block && block->isVisible(), blockSize);
    auto *name = dialog.findChild<QWidget *>("saveAsEdit");
    QCOMPARE(name && name->isVisible(), saveAs);
    QCOMPARE(dialog.findChild<QPushButton *>("startButton")->isEnabled(), false);  // no port
}

void TestTransferWidgets::startStoresTheChoicesAndTakesThePort()
{
    QTemporaryDir dir;
    ScriptPort port;
    QWidget pane;
    QSettings().setValue("LastTransferProtocol", 0);
    auto *dialog = new FileTransferDialog(FileTransferSession::Direction::Receive,
                                          serial(QSerialPort::NoFlowControl), &port, &pane);
    QCOMPARE(dialog->protocol(), XmodemVariant::Xmodem);
    dialog->setProtocol(XmodemVariant::XmodemCrc);
    dialog->setFolder(dir.path());
    dialog->setSaveAs("fw.bin");
    dialog->setReceiveCapMiB(5);
    dialog->setKeepOpen(true);
    QSignalSpy started(dialog, &FileTransferDialog::sessionStarted);
    QVERIFY(dialog->start());
    QCOMPARE(started.count(), 1);
    QPointer<FileTransferSession> session = dialog->session();
    QVERIFY(session && session->isRunning());
    QCOMPARE(session->parent(), &pane);
    QCOMPARE(port.locks, QList<bool>{true});
    QCOMPARE(port.written, QByteArray("C"));

    QSettings settings;
    QCOMPARE(settings.value("LastTransferProtocol").toInt(), 1);
    QCOMPARE(settings.value("LastTransferRecvDir").toString(), dir.path());
    QCOMPARE(settings.value("TransferRecvSizeCapMiB").toInt(), 5);

    // A size cap of 5 MiB reaches the codec: more than that without an end
    // fails the transfer.
    QByteArray block = XmodemCodec::makeBlock(1, QByteArray(1024, 'x'), true);
    for (int n = 1; n <= 5 * 1024 + 1 && session && session->isRunning(); ++n) {
        block[1] = char(n & 0xFF);
        block[2] = char(~n & 0xFF);
        session->feedReceived(block);
        pump();
    }
    QTRY_VERIFY_WITH_TIMEOUT(!session, 5000);  // deleted once finished
    auto *status = dialog->findChild<QLabel *>("statusLabel");
    QVERIFY2(status->text().startsWith("Transfer failed: Received 5243904 bytes without an end of transfer."),
             qPrintable(status->text()));
    QCOMPARE(port.locks, (QList<bool>{true, false}));
}

void TestTransferWidgets::aGoneClientIsRefused()
{
    ScriptPort port;
    port.clients = {"127.0.0.1:5000", "127.0.0.1:5001"};
    port.connected = {"127.0.0.1:5001"};
    ConnectionConfig c;
    c.mode = ConnectionMode::TcpServer;
    QTemporaryFile file;
    QVERIFY(file.open());
    FileTransferDialog dialog(FileTransferSession::Direction::Send, c, &port);
    auto *client = dialog.findChild<QComboBox *>("clientBox");
    QVERIFY(client);
    QCOMPARE(client->count(), 2);
    dialog.setFilePath(file.fileName());
    QVERIFY(!dialog.start());
    QCOMPARE(dialog.errorText(), QStringLiteral("The selected client is no longer connected."));
    QVERIFY(port.locks.isEmpty());
    client->setCurrentIndex(1);
    QVERIFY(dialog.start());
    QCOMPARE(port.locks, QList<bool>{true});
    QSettings settings;
    QCOMPARE(settings.value("LastTransferSendDir").toString(), QFileInfo(file.fileName()).absolutePath());
    dialog.session()->stop(FileTransferSession::StopReason::UserCancel);
}

void TestTransferWidgets::counterText_data()
{
    QTest::addColumn<qint64>("done");
    QTest::addColumn<qint64>("total");
    QTest::addColumn<int>("retries");
    QTest::addColumn<qint64>("elapsed");
    QTest::addColumn<QString>("text");
    QTest::newRow("known, running") << qint64(51200) << qint64(102400) << 0 << qint64(2000)
                                    << "51200 / 102400 bytes  25.0 KB/s  2s left";
    QTest::newRow("unknown total, retries") << qint64(3000) << qint64(-1) << 2 << qint64(1000)
                                            << "3000 bytes  2.9 KB/s  2 retries";
    QTest::newRow("nothing yet") << qint64(0) << qint64(100) << 0 << qint64(0) << "0 / 100 bytes";
    QTest::newRow("done") << qint64(100) << qint64(100) << 0 << qint64(1000) << "100 / 100 bytes  0.1 KB/s";
}

void TestTransferWidgets::counterText()
{
    QFETCH(qint64, done);
    QFETCH(qint64, total);
    QFETCH(int, retries);
    QFETCH(qint64, elapsed);
    QFETCH(QString, text);
    QCOMPARE(FileTransferBar::counterText(done, total, retries, elapsed), text);
}

void TestTransferWidgets::barFollowsTheSessionAndCancels()
{
    QTemporaryDir dir;
    ScriptPort port;
    FileTransferSession::Request request;
    request.protocol = XmodemVariant::Ymodem;
    request.direction = FileTransferSession::Direction::Receive;
    request.folder = dir.path();
    FileTransferSession session(&port, request);
    FileTransferBar bar;
    QCOMPARE(bar.objectName(), QStringLiteral("fileTransferBar"));
    session.start();
    bar.setSession(&session);
    QVERIFY(bar.isVisible());
    QCOMPARE(bar.title(), QStringLiteral("Receiving (unnamed) (YMODEM)"));
    QCOMPARE(bar.percent(), -1);  // busy until the size is known

    session.feedReceived(XmodemCodec::makeBlock(0, XmodemCodec::makeHeaderData("log.txt", 4096, 0), true));
    pump();
    QTest::qWait(int(FileTransferSession::kProgressIntervalMs) + 20);  // reports are spaced out
    session.feedReceived(XmodemCodec::makeBlock(1, QByteArray(1024, 'l'), true));
    pump();
    QTRY_COMPARE_WITH_TIMEOUT(bar.percent(), 25, 2000);
    QCOMPARE(bar.title(), QStringLiteral("Receiving log.txt (YMODEM) -> %1").arg(dir.filePath("log.txt")));
    QVERIFY2(bar.counter().startsWith("1024 / 4096 bytes"), qPrintable(bar.counter()));

    QSignalSpy finished(&bar, &FileTransferBar::transferFinished);
    port.written.clear();
    bar.findChild<QPushButton *>("transferCancel")->click();
    QCOMPARE(finished.count(), 1);
    QCOMPARE(finished.at(0).at(1).toString().section('\n', 0, 0),
             QStringLiteral("Transfer failed: Cancelled. (25% transferred)"));
    QCOMPARE(port.written, XmodemCodec::cancelSequence());
    QVERIFY(!bar.isVisible());
}

QTEST_MAIN(TestTransferWidgets)
#include "tst_transferwidgets.moc"
