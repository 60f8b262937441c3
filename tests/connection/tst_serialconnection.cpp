// The connection controller against real pseudo-terminals: socat links two
// ptys, the controller opens one end, the test drives the other.
#include "connection/connectioncontroller.h"
#include "support/ptypair.h"

#include <QSerialPort>
#include <QtTest>

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

using Status = QPair<QString, int>;
Q_DECLARE_METATYPE(QList<Status>)

namespace {

const QString kIoctlRefusal = QStringLiteral("Inappropriate ioctl for device");

QList<Status> statuses(const QSignalSpy &spy)
{
    QList<Status> out;
    for (const QList<QVariant> &args : spy)
        out.append({args.at(0).toString(), args.at(1).toInt()});
    return out;
}

// The line settings as the kernel holds them for the pty, read through a
// descriptor of our own: proof that a setting reached the device, not just
// the serial library's memory of it.
struct LineSettings
{
    speed_t speed = 0;
    tcflag_t cflag = 0;
};

bool readLineSettings(const QString &path, LineSettings *out)
{
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_NOCTTY | O_NONBLOCK);
    if (fd < 0)
        return false;
    termios t{};
    const bool ok = ::tcgetattr(fd, &t) == 0;
    ::close(fd);
    out->speed = ::cfgetospeed(&t);
    out->cflag = t.c_cflag;
    return ok;
}

QByteArray pattern(int size)
{
    QByteArray data(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i)
        data[i] = char((i * 7 + i / 251) & 0xff);
    return data;
}

} // namespace

class SerialConnectionTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void openAnnouncesAndRaisesStoredLines_data();
    void openAnnouncesAndRaisesStoredLines();
    void openFailures_data();
    void openFailures();
    void closeDropsLinesAndReopenRestoresThem();
    void bytesTravelBothWays();
    void writingToClosedPortOpensIt();
    void controlLines_data();
    void controlLines();
    void parametersOnOpenPort_data();
    void parametersOnOpenPort();
    void refusalRollsBackEveryChange();
    void lostPort_data();
    void lostPort();
    void pausedReadLosesNothing();
    void pauseWithoutFlowControlIsIgnored();

private:
    ConnectionConfig configFor(const QString &path) const
    {
        ConnectionConfig config;
        config.portName = path;
        return config;
    }
    bool openPeer(QSerialPort &peer)
    {
        peer.setPortName(m_pair->pathB());
        return peer.open(QIODevice::ReadWrite);
    }

    std::unique_ptr<PtyPair> m_pair;
};

void SerialConnectionTest::init()
{
    m_pair = std::make_unique<PtyPair>();
    QVERIFY2(m_pair->start(), qPrintable(m_pair->errorText()));
}

void SerialConnectionTest::cleanup()
{
    m_pair.reset();
}

void SerialConnectionTest::openAnnouncesAndRaisesStoredLines_data()
{
    QTest::addColumn<int>("flow");
    QTest::addColumn<QStringList>("expected");
    const QString dtr = "Failed to set DTR: " + kIoctlRefusal;
    const QString rts = "Failed to set RTS: " + kIoctlRefusal;
    // A pty has no modem lines: the driver refuses DTR and RTS, and says so.
    QTest::newRow("no flow control") << int(QSerialPort::NoFlowControl) << QStringList{dtr, rts};
    QTest::newRow("XON/XOFF") << int(QSerialPort::SoftwareControl) << QStringList{dtr, rts};
    // Under RTS/CTS the driver owns RTS: it is not touched at all.
    QTest::newRow("RTS/CTS") << int(QSerialPort::HardwareControl) << QStringList{dtr};
}

void SerialConnectionTest::openAnnouncesAndRaisesStoredLines()
{
    QFETCH(int, flow);
    QFETCH(QStringList, expected);
    ConnectionController controller;
    QSignalSpy status(&controller, &ConnectionController::statusMessage);
    QSignalSpy errors(&controller, &ConnectionController::errorOccurred);
    ConnectionConfig config = configFor(m_pair->pathA());
    config.flowControl = QSerialPort::FlowControl(flow);
    config.baudRate = 115200;

    QVERIFY(controller.open(config));
    QVERIFY(controller.isOpen(ConnectionMode::Serial));
    QList<Status> want{{"Serial Port " + m_pair->pathA() + " OPEN SUCCESS", 1000}};
    for (const QString &text : expected)
        want.append({text, 3000});
    QCOMPARE(statuses(status), want);
    QCOMPARE(errors.count(), 0);
    QCOMPARE(controller.currentSerialParameters(), ConnectionController::SerialParameters::from(config));
    LineSettings line;
    QVERIFY(readLineSettings(m_pair->pathA(), &line));
    QCOMPARE(line.speed, speed_t(B115200));

    // Opening an open port changes nothing and says nothing.
    status.clear();
    QVERIFY(controller.openSerial(config));
    QCOMPARE(status.count(), 0);
}

void SerialConnectionTest::openFailures_data()
{
    QTest::addColumn<bool>("missing");
    QTest::addColumn<bool>("silent");
    QTest::addColumn<QString>("driverText");
    QTest::newRow("missing device") << true << false << "No such file or directory";
    QTest::newRow("missing device, silent") << true << true << "No such file or directory";
    QTest::newRow("held by another program") << false << false << "Permission error while locking the device";
}

void SerialConnectionTest::openFailures()
{
    QFETCH(bool, missing);
    QFETCH(bool, silent);
    QFETCH(QString, driverText);
    const QString path = missing ? m_pair->pathA() + "-gone" : m_pair->pathA();
    QSerialPort holder;
    if (!missing) {
        holder.setPortName(path);
        QVERIFY(holder.open(QIODevice::ReadWrite));
    }
    ConnectionController controller;
    QSignalSpy status(&controller, &ConnectionController::statusMessage);
    QSignalSpy errors(&controller, &ConnectionController::errorOccurred);

    QVERIFY(!controller.openSerial(configFor(path), QString(), silent));
    QVERIFY(!controller.isOpen(ConnectionMode::Serial));
    const QString text = "Serial Port " + path + " OPEN FAILED! ERROR: " + driverText;
    if (silent) {
        QCOMPARE(status.count(), 0);
        QCOMPARE(errors.count(), 0);
    } else {
        QCOMPARE(statuses(status), (QList<Status>{{text, 5000}}));
        QCOMPARE(errors.count(), 1);
        QCOMPARE(errors.at(0).at(0).toString(), text);
    }

    // The same controller opens the port once it is there and free.
    holder.close();
    status.clear();
    QVERIFY(controller.openSerial(configFor(m_pair->pathA())));
    QCOMPARE(status.at(0).at(0).toString(), "Serial Port " + m_pair->pathA() + " OPEN SUCCESS");
}

void SerialConnectionTest::closeDropsLinesAndReopenRestoresThem()
{
    ConnectionController controller;
    ConnectionConfig config = configFor(m_pair->pathA());
    QVERIFY(controller.open(config));
    QVERIFY(controller.setControlLine(ConnectionController::ControlLine::Break, true));
    QVERIFY(controller.breakLevel());
    controller.setControlLine(ConnectionController::ControlLine::Dtr, false);

    QSignalSpy status(&controller, &ConnectionController::statusMessage);
    controller.close(ConnectionMode::Serial);
    QVERIFY(!controller.isOpen(ConnectionMode::Serial));
    QCOMPARE(statuses(status), (QList<Status>{{"Serial Port " + m_pair->pathA() + " CLOSE SUCCESS", 3000}}));
    QVERIFY(!controller.breakLevel());
    QVERIFY(!controller.dtrLevel());
    QVERIFY(controller.rtsLevel());

    // Closing again says nothing; mode 3 does nothing at all.
    status.clear();
    controller.close(ConnectionMode::Serial);
    controller.close(connectionModeFromInt(3));
    QVERIFY(!controller.open([] { ConnectionConfig c; c.mode = connectionModeFromInt(3); return c; }()));
    QCOMPARE(status.count(), 0);

    // The next open asserts the stored levels again (the pty refuses both).
    QVERIFY(controller.open(config));
    QCOMPARE(status.count(), 3);
    QCOMPARE(status.at(1).at(0).toString(), "Failed to set DTR: " + kIoctlRefusal);
    QCOMPARE(status.at(2).at(0).toString(), "Failed to set RTS: " + kIoctlRefusal);
}

void SerialConnectionTest::bytesTravelBothWays()
{
    ConnectionController controller;
    const ConnectionConfig config = configFor(m_pair->pathA());
    QVERIFY(controller.open(config));
    QSerialPort peer;
    QVERIFY(openPeer(peer));

    const QByteArray out = pattern(3000);
    QVERIFY(controller.send(config, out));
    QByteArray atPeer;
    QTRY_VERIFY_WITH_TIMEOUT((atPeer += peer.readAll()).size() >= out.size(), 5000);
    QCOMPARE(atPeer, out);

    QSignalSpy ready(&controller, &ConnectionController::readyRead);
    const QByteArray in("\x00\x01\xfe\xffreply\r\n", 11);
    peer.write(in);
    QByteArray received;
    QTRY_VERIFY_WITH_TIMEOUT((received += controller.readAll(ConnectionMode::Serial)).size() >= in.size(), 5000);
    QCOMPARE(received, in);
    QVERIFY(ready.count() >= 1);
    QCOMPARE(controller.bytesToWrite(ConnectionMode::Serial), 0);
}

void SerialConnectionTest::writingToClosedPortOpensIt()
{
    ConnectionController controller;
    QSignalSpy status(&controller, &ConnectionController::statusMessage);
    QSerialPort peer;
    QVERIFY(openPeer(peer));

    QVERIFY(controller.writeSerial("wake", configFor(m_pair->pathA())));
    QVERIFY(controller.isOpen(ConnectionMode::Serial));
    QCOMPARE(status.at(0).at(0).toString(), "Serial Port " + m_pair->pathA() + " OPEN SUCCESS");
    QByteArray atPeer;
    QTRY_COMPARE_WITH_TIMEOUT(atPeer += peer.readAll(), QByteArray("wake"), 5000);

    // A port that cannot be opened is reported and nothing is written.
    controller.close(ConnectionMode::Serial);
    QSignalSpy errors(&controller, &ConnectionController::errorOccurred);
    QVERIFY(!controller.writeSerial("lost", configFor(m_pair->pathA() + "-gone")));
    QCOMPARE(errors.count(), 1);
    QVERIFY(errors.at(0).at(0).toString().startsWith("Serial Port " + m_pair->pathA() + "-gone OPEN FAILED! ERROR: "));
}

void SerialConnectionTest::controlLines_data()
{
    QTest::addColumn<bool>("open");
    QTest::addColumn<int>("flow");
    QTest::addColumn<int>("line");
    QTest::addColumn<bool>("on");
    QTest::addColumn<bool>("result");
    QTest::addColumn<QString>("message");
    using L = ConnectionController::ControlLine;
    const int none = QSerialPort::NoFlowControl;
    const int hardware = QSerialPort::HardwareControl;
    QTest::newRow("DTR refused by the pty") << true << none << int(L::Dtr) << true << false
                                            << "Failed to set DTR: " + kIoctlRefusal;
    QTest::newRow("RTS refused by the pty") << true << none << int(L::Rts) << false << false
                                            << "Failed to set RTS: " + kIoctlRefusal;
    QTest::newRow("RTS under RTS/CTS") << true << hardware << int(L::Rts) << true << false
                                       << "RTS is managed automatically by RTS/CTS flow control";
    QTest::newRow("Break accepted") << true << none << int(L::Break) << true << true << QString();
    QTest::newRow("Break on a closed port") << false << none << int(L::Break) << true << false
                                            << "Open the serial port before sending Break";
    QTest::newRow("Break off on a closed port") << false << none << int(L::Break) << false << true << QString();
    QTest::newRow("DTR on a closed port is stored") << false << none << int(L::Dtr) << false << true << QString();
}

void SerialConnectionTest::controlLines()
{
    QFETCH(bool, open);
    QFETCH(int, flow);
    QFETCH(int, line);
    QFETCH(bool, on);
    QFETCH(bool, result);
    QFETCH(QString, message);
    using L = ConnectionController::ControlLine;
    ConnectionController controller;
    ConnectionConfig config = configFor(m_pair->pathA());
    config.flowControl = QSerialPort::FlowControl(flow);
    if (open)
        QVERIFY(controller.open(config));
    QSignalSpy status(&controller, &ConnectionController::statusMessage);

    QCOMPARE(controller.setControlLine(L(line), on), result);
    if (message.isEmpty())
        QCOMPARE(status.count(), 0);
    else
        QCOMPARE(statuses(status), (QList<Status>{{message, 3000}}));
    switch (L(line)) {
    case L::Dtr: QCOMPARE(controller.dtrLevel(), on); break;
    case L::Rts: QCOMPARE(controller.rtsLevel(), on); break;
    case L::Break: QCOMPARE(controller.breakLevel(), on && result); break;
    }
}

void SerialConnectionTest::parametersOnOpenPort_data()
{
    using P = ConnectionController::SerialParameters;
    QTest::addColumn<bool>("open");
    QTest::addColumn<P>("from");
    QTest::addColumn<P>("to");
    QTest::addColumn<QString>("error");
    QTest::addColumn<speed_t>("speedAfter");
    QTest::addColumn<QStringList>("notices");

    const P base{9600, QSerialPort::Data8, QSerialPort::NoParity, QSerialPort::OneStop, QSerialPort::NoFlowControl};
    P fast = base;
    fast.baudRate = 115200;
    QTest::newRow("baud rate") << true << base << fast << QString() << speed_t(B115200) << QStringList();
    P twoStops = base;
    twoStops.stopBits = QSerialPort::TwoStop;
    QTest::newRow("stop bits") << true << base << twoStops << QString() << speed_t(B9600) << QStringList();
    P badBaud = twoStops;
    badBaud.baudRate = 0;
    QTest::newRow("baud rate refused first, nothing changes")
        << true << base << badBaud << "baud rate 0 was refused by the driver: Invalid baud rate value"
        << speed_t(B9600) << QStringList();
    P hardware = base;
    hardware.flowControl = QSerialPort::HardwareControl;
    // Leaving RTS/CTS hands RTS back to the stored level, with the driver's answer.
    QTest::newRow("RTS/CTS to none re-applies RTS")
        << true << hardware << base << QString() << speed_t(B9600) << QStringList{"Failed to set RTS: " + kIoctlRefusal};
    QTest::newRow("closed port") << false << base << fast << "the port is not open" << speed_t(B9600) << QStringList();
}

void SerialConnectionTest::parametersOnOpenPort()
{
    using P = ConnectionController::SerialParameters;
    QFETCH(bool, open);
    QFETCH(P, from);
    QFETCH(P, to);
    QFETCH(QString, error);
    QFETCH(speed_t, speedAfter);
    QFETCH(QStringList, notices);

    ConnectionController controller;
    ConnectionConfig config = configFor(m_pair->pathA());
    config.baudRate = from.baudRate;
    config.flowControl = from.flowControl;
    if (open)
        QVERIFY(controller.open(config));
    QSignalSpy status(&controller, &ConnectionController::statusMessage);

    const Result result = controller.applySerialParameters(to);
    QCOMPARE(result.errorText(), error);
    QCOMPARE(result.isOk(), error.isEmpty());
    QCOMPARE(controller.currentSerialParameters(), error.isEmpty() ? to : from);
    QStringList shown;
    for (const QList<QVariant> &args : status)
        shown.append(args.at(0).toString());
    QCOMPARE(shown, notices);
    if (!open)
        return;
    LineSettings line;
    QVERIFY(readLineSettings(m_pair->pathA(), &line));
    QCOMPARE(line.speed, speedAfter);
    const P expected = error.isEmpty() ? to : from;
    QCOMPARE(bool(line.cflag & CSTOPB), expected.stopBits == QSerialPort::TwoStop);
    QCOMPARE(bool(line.cflag & CRTSCTS), expected.flowControl == QSerialPort::HardwareControl);
}

void SerialConnectionTest::refusalRollsBackEveryChange()
{
    // Which framings a pty refuses depends on the kernel (recent ones keep
    // a pty at eight bits without parity); ask this one.
    QSerialPort probe;
    probe.setPortName(m_pair->pathB());
    QVERIFY(probe.open(QIODevice::ReadWrite));
    QSerialPort::Parity refused = QSerialPort::NoParity;
    QString driverText;
    for (QSerialPort::Parity candidate : {QSerialPort::EvenParity, QSerialPort::OddParity, QSerialPort::MarkParity,
                                          QSerialPort::SpaceParity}) {
        if (!probe.setParity(candidate)) {
            refused = candidate;
            driverText = probe.errorString();
            break;
        }
        probe.setParity(QSerialPort::NoParity);
    }
    probe.close();
    if (refused == QSerialPort::NoParity)
        QSKIP("this kernel's pty takes every parity; the baud rate row covers a refusal");

    ConnectionController controller;
    QVERIFY(controller.open(configFor(m_pair->pathA())));
    const ConnectionController::SerialParameters before = controller.currentSerialParameters();
    ConnectionController::SerialParameters wanted = before;
    wanted.baudRate = 115200;
    wanted.parity = refused;
    wanted.stopBits = QSerialPort::TwoStop;

    const Result result = controller.applySerialParameters(wanted);
    QVERIFY(!result.isOk());
    QCOMPARE(result.errorText(), "parity was refused by the driver: " + driverText);
    QCOMPARE(controller.currentSerialParameters(), before);
    LineSettings line;
    QVERIFY(readLineSettings(m_pair->pathA(), &line));
    QCOMPARE(line.speed, speed_t(B9600));
    QVERIFY(!(line.cflag & CSTOPB));
}

void SerialConnectionTest::lostPort_data()
{
    QTest::addColumn<bool>("watching");
    QTest::addColumn<bool>("politely");
    QTest::newRow("socat killed") << true << false;
    QTest::newRow("socat terminated") << true << true;
    QTest::newRow("not watching") << false << false;
}

void SerialConnectionTest::lostPort()
{
    QFETCH(bool, watching);
    QFETCH(bool, politely);
    ConnectionController controller;
    controller.setWatchForLoss(watching);
    const ConnectionConfig config = configFor(m_pair->pathA());
    QVERIFY(controller.open(config));
    QVERIFY(controller.setControlLine(ConnectionController::ControlLine::Break, true));
    QSignalSpy status(&controller, &ConnectionController::statusMessage);
    QSignalSpy lost(&controller, &ConnectionController::serialPortLost);

    if (politely)
        m_pair->terminate();
    else
        m_pair->kill();
    const Status disconnected{"Serial Port " + m_pair->pathA() + " DISCONNECTED", 5000};
    QTRY_VERIFY_WITH_TIMEOUT(!status.isEmpty(), 5000);
    QCOMPARE(statuses(status), (QList<Status>{disconnected}));
    QCOMPARE(lost.count(), watching ? 1 : 0);
    QVERIFY(!controller.isOpen(ConnectionMode::Serial));
    QVERIFY(!controller.breakLevel());

    // Reported once: the dead pty's endless read errors end with the close.
    QTest::qWait(300);
    QCOMPARE(status.count(), 1);
    QCOMPARE(lost.count(), watching ? 1 : 0);

    // The same controller takes the device again when it comes back.
    QVERIFY2(m_pair->restart(), qPrintable(m_pair->errorText()));
    status.clear();
    QVERIFY(controller.open(config));
    QCOMPARE(status.at(0).at(0).toString(), "Serial Port " + m_pair->pathA() + " OPEN SUCCESS");
    QSerialPort peer;
    QVERIFY(openPeer(peer));
    peer.write("back");
    QByteArray received;
    QTRY_COMPARE_WITH_TIMEOUT(received += controller.readAll(ConnectionMode::Serial), QByteArray("back"), 5000);
}

void SerialConnectionTest::pausedReadLosesNothing()
{
    ConnectionController controller;
    ConnectionConfig config = configFor(m_pair->pathA());
    config.flowControl = QSerialPort::HardwareControl;
    QVERIFY(controller.open(config));
    QSerialPort peer;
    QVERIFY(openPeer(peer));
    QSignalSpy ready(&controller, &ConnectionController::readyRead);

    controller.setReadPaused(ConnectionMode::Serial, true);
    QVERIFY(controller.isReadPaused());
    const QByteArray sent = pattern(40000);
    peer.write(sent);
    QTRY_VERIFY_WITH_TIMEOUT(ready.count() > 0, 5000);
    QTest::qWait(200);
    QVERIFY(controller.readAll(ConnectionMode::Serial).isEmpty());

    const int before = ready.count();
    controller.setReadPaused(ConnectionMode::Serial, false);
    // Bytes held while paused are announced at once, not at the next arrival.
    QCOMPARE(ready.count(), before + 1);
    QByteArray received;
    QTRY_VERIFY_WITH_TIMEOUT((received += controller.readAll(ConnectionMode::Serial)).size() >= sent.size(), 10000);
    QCOMPARE(received, sent);
}

void SerialConnectionTest::pauseWithoutFlowControlIsIgnored()
{
    ConnectionController controller;
    QVERIFY(controller.open(configFor(m_pair->pathA())));
    QSerialPort peer;
    QVERIFY(openPeer(peer));
    controller.setReadPaused(ConnectionMode::Serial, true);
    QVERIFY(!controller.isReadPaused());
    peer.write("flowing");
    QByteArray received;
    QTRY_COMPARE_WITH_TIMEOUT(received += controller.readAll(ConnectionMode::Serial), QByteArray("flowing"), 5000);
}

QTEST_GUILESS_MAIN(SerialConnectionTest)
#include "tst_serialconnection.moc"
