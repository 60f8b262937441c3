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
using Line = ConnectionController::ControlLine;
using Parameters = ConnectionController::SerialParameters;

namespace {

const QString kDtrRefused = QStringLiteral("Failed to set DTR: Inappropriate ioctl for device");
const QString kRtsRefused = QStringLiteral("Failed to set RTS: Inappropriate ioctl for device");

QList<Status> statuses(const QSignalSpy &spy)
{
    QList<Status> out;
    for (const QList<QVariant> &args : spy)
        out.append({args.at(0).toString(), args.at(1).toInt()});
    return out;
}

// The line settings as the kernel holds them, read through a descriptor of
// our own: proof that a setting reached the device.
termios lineOf(const QString &path)
{
    termios line{};
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_NOCTTY | O_NONBLOCK);
    if (fd >= 0) {
        ::tcgetattr(fd, &line);
        ::close(fd);
    }
    return line;
}

QByteArray pattern(int size)
{
    QByteArray data(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i)
        data[i] = char((i * 7 + i / 251) & 0xff);
    return data;
}

Parameters parameters(qint32 baudRate, QSerialPort::StopBits stopBits = QSerialPort::OneStop,
                      QSerialPort::FlowControl flow = QSerialPort::NoFlowControl)
{
    Parameters p;
    p.baudRate = baudRate;
    p.stopBits = stopBits;
    p.flowControl = flow;
    return p;
}

ConnectionConfig configFor(const QString &path, int flow = QSerialPort::NoFlowControl)
{
    ConnectionConfig config;
    config.portName = path;
    config.flowControl = QSerialPort::FlowControl(flow);
    return config;
}

} // namespace

class SerialConnectionTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void linesAcrossOpenAndClose_data();
    void linesAcrossOpenAndClose();
    void openFailures_data();
    void openFailures();
    void parametersOnOpenPort_data();
    void parametersOnOpenPort();
    void lostPortThenWritingReopens_data();
    void lostPortThenWritingReopens();
    void pausedReadLosesNothing_data();
    void pausedReadLosesNothing();

private:
    bool openPeer(QSerialPort &peer)
    {
        peer.setPortName(m_pair->pathB());
        return peer.open(QIODevice::ReadWrite);
    }
    QString portText(const QString &path, const char *what) const { return "Serial Port " + path + what; }
    QString portText(const char *what) const { return portText(m_pair->pathA(), what); }

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

void SerialConnectionTest::linesAcrossOpenAndClose_data()
{
    QTest::addColumn<int>("flow");
    QTest::addColumn<QString>("rtsNotice");
    // A pty has no modem lines: the driver refuses DTR and RTS, and says so.
    QTest::newRow("no flow control") << int(QSerialPort::NoFlowControl) << kRtsRefused;
    QTest::newRow("XON/XOFF") << int(QSerialPort::SoftwareControl) << kRtsRefused;
    // Under RTS/CTS the driver owns RTS: it is not touched at all.
    QTest::newRow("RTS/CTS") << int(QSerialPort::HardwareControl)
                             << "RTS is managed automatically by RTS/CTS flow control";
}

void SerialConnectionTest::linesAcrossOpenAndClose()
{
    QFETCH(int, flow);
    QFETCH(QString, rtsNotice);
    ConnectionController controller;
    QSignalSpy status(&controller, &ConnectionController::statusMessage);
    QSignalSpy errors(&controller, &ConnectionController::errorOccurred);
    ConnectionConfig config = configFor(m_pair->pathA(), flow);
    config.baudRate = 115200;

    // A pty has no modem lines at all: said once, not as two failures.
    const QList<Status> opening{{portText(" OPEN SUCCESS"), 1000},
                                {portText(" has no control lines; DTR and RTS are left alone."), 3000}};
    QVERIFY(controller.open(config));
    QVERIFY(controller.isOpen(ConnectionMode::Serial));
    QCOMPARE(statuses(status), opening);
    QCOMPARE(errors.count(), 0);
    QCOMPARE(controller.currentSerialParameters(), Parameters::from(config));
    const termios line = lineOf(m_pair->pathA());
    QCOMPARE(::cfgetospeed(&line), speed_t(B115200));
    status.clear();
    QVERIFY(controller.openSerial(config)); // already open: nothing changes, nothing is said
    QCOMPARE(status.count(), 0);

    // On the open port the levels are stored even where the driver refuses them.
    QVERIFY(!controller.setControlLine(Line::Rts, false));
    QVERIFY(!controller.setControlLine(Line::Dtr, true));
    QVERIFY(controller.setControlLine(Line::Break, true));
    QCOMPARE(statuses(status), (QList<Status>{{rtsNotice, 3000}, {kDtrRefused, 3000}}));
    QVERIFY(controller.breakLevel());

    // Closing drops Break and says so once; the stored DTR and RTS levels stay.
    status.clear();
    controller.close(ConnectionMode::Serial);
    controller.close(ConnectionMode::Serial);
    QVERIFY(!controller.isOpen(ConnectionMode::Serial));
    QCOMPARE(statuses(status), (QList<Status>{{portText(" CLOSE SUCCESS"), 3000}}));
    QVERIFY(!controller.breakLevel());
    QVERIFY(controller.dtrLevel());
    QVERIFY(!controller.rtsLevel());

    // On a closed port Break cannot be sent; DTR is only stored.
    status.clear();
    QVERIFY(!controller.setControlLine(Line::Break, true));
    QVERIFY(controller.setControlLine(Line::Break, false));
    QVERIFY(controller.setControlLine(Line::Dtr, false));
    QCOMPARE(statuses(status), (QList<Status>{{"Open the serial port before sending Break", 3000}}));
    QVERIFY(!controller.breakLevel());
    QVERIFY(!controller.dtrLevel());

    // The next open asserts the stored levels again.
    status.clear();
    QVERIFY(controller.open(config));
    QCOMPARE(statuses(status), opening);
}

void SerialConnectionTest::openFailures_data()
{
    QTest::addColumn<bool>("missing");
    QTest::addColumn<bool>("silent");
    QTest::addColumn<bool>("byWrite");
    QTest::addColumn<QString>("driverText");
    QTest::newRow("missing device") << true << false << false << "No such file or directory";
    QTest::newRow("missing device, silent") << true << true << false << "No such file or directory";
    QTest::newRow("held by another program") << false << false << false << "Permission error while locking the device";
    // Writing opens a closed port; when that fails nothing is written.
    QTest::newRow("writing to a missing device") << true << false << true << "No such file or directory";
}

void SerialConnectionTest::openFailures()
{
    QFETCH(bool, missing);
    QFETCH(bool, silent);
    QFETCH(bool, byWrite);
    QFETCH(QString, driverText);
    const QString path = missing ? m_pair->pathA() + "-gone" : m_pair->pathA();
    QSerialPort holder;
    holder.setPortName(path);
    QVERIFY(missing || holder.open(QIODevice::ReadWrite));
    ConnectionController controller;
    QSignalSpy status(&controller, &ConnectionController::statusMessage);
    QSignalSpy errors(&controller, &ConnectionController::errorOccurred);

    QVERIFY(byWrite ? !controller.writeSerial("lost", configFor(path))
                    : !controller.openSerial(configFor(path), QString(), silent));
    QVERIFY(!controller.isOpen(ConnectionMode::Serial));
    const QString text = portText(path, " OPEN FAILED! ERROR: ") + driverText;
    QCOMPARE(statuses(status), silent ? QList<Status>() : (QList<Status>{{text, 5000}}));
    QCOMPARE(errors.count(), silent ? 0 : 1);
    if (!silent)
        QCOMPARE(errors.at(0).at(0).toString(), text);

    // The same controller opens the port once it is there and free.
    holder.close();
    status.clear();
    QVERIFY(controller.openSerial(configFor(m_pair->pathA())));
    QCOMPARE(status.at(0).at(0).toString(), portText(" OPEN SUCCESS"));
}

void SerialConnectionTest::parametersOnOpenPort_data()
{
    QTest::addColumn<bool>("open");
    QTest::addColumn<Parameters>("from");
    QTest::addColumn<Parameters>("to");
    QTest::addColumn<QString>("error");
    QTest::addColumn<QStringList>("notices");
    const Parameters base = parameters(9600);
    QTest::newRow("baud rate and stop bits")
        << true << base << parameters(115200, QSerialPort::TwoStop) << QString() << QStringList();
    QTest::newRow("baud rate refused first, nothing changes")
        << true << base << parameters(0, QSerialPort::TwoStop)
        << "baud rate 0 was refused by the driver: Invalid baud rate value" << QStringList();
    // The parity is the one this pty refuses; the baud rate was already set.
    QTest::newRow("parity refused after baud rate, all taken back")
        << true << base << parameters(115200, QSerialPort::TwoStop) << "parity was refused by the driver: %1"
        << QStringList();
    // Leaving RTS/CTS hands RTS back to the stored level, with the driver's answer.
    QTest::newRow("RTS/CTS to none re-applies RTS")
        << true << parameters(9600, QSerialPort::OneStop, QSerialPort::HardwareControl) << base << QString()
        << QStringList{kRtsRefused};
    QTest::newRow("closed port") << false << base << parameters(115200) << "the port is not open" << QStringList();
}

void SerialConnectionTest::parametersOnOpenPort()
{
    QFETCH(bool, open);
    QFETCH(Parameters, from);
    QFETCH(Parameters, to);
    QFETCH(QString, error);
    QFETCH(QStringList, notices);
    if (error.contains("%1")) {
        // Which framings a pty refuses depends on the kernel; ask this one.
        QSerialPort probe;
        QVERIFY(openPeer(probe));
        for (auto parity : {QSerialPort::EvenParity, QSerialPort::OddParity, QSerialPort::MarkParity,
                            QSerialPort::SpaceParity}) {
            if (!probe.setParity(parity)) {
                to.parity = parity;
                error = error.arg(probe.errorString());
                break;
            }
        }
        if (to.parity == QSerialPort::NoParity)
            QSKIP("this kernel's pty takes every parity; the baud rate row covers a refusal");
    }
    ConnectionController controller;
    if (open)
        QVERIFY(controller.open(configFor(m_pair->pathA(), from.flowControl)));
    QSignalSpy status(&controller, &ConnectionController::statusMessage);

    const Result result = controller.applySerialParameters(to);
    QCOMPARE(result.errorText(), error);
    QCOMPARE(result.isOk(), error.isEmpty());
    const Parameters expected = error.isEmpty() ? to : from;
    QCOMPARE(controller.currentSerialParameters(), expected);
    QStringList shown;
    for (const Status &s : statuses(status))
        shown.append(s.first);
    QCOMPARE(shown, notices);
    if (!open)
        return;
    const termios line = lineOf(m_pair->pathA());
    QCOMPARE(::cfgetospeed(&line), speed_t(expected.baudRate == 115200 ? B115200 : B9600));
    QCOMPARE(bool(line.c_cflag & CSTOPB), expected.stopBits == QSerialPort::TwoStop);
    QCOMPARE(bool(line.c_cflag & PARENB), expected.parity != QSerialPort::NoParity);
    QCOMPARE(bool(line.c_cflag & CRTSCTS), expected.flowControl == QSerialPort::HardwareControl);
}

void SerialConnectionTest::lostPortThenWritingReopens_data()
{
    QTest::addColumn<bool>("watching");
    QTest::addColumn<bool>("politely");
    QTest::newRow("socat killed") << true << false;
    QTest::newRow("socat terminated") << true << true;
    QTest::newRow("not watching") << false << false;
}

void SerialConnectionTest::lostPortThenWritingReopens()
{
    QFETCH(bool, watching);
    QFETCH(bool, politely);
    ConnectionController controller;
    controller.setWatchForLoss(watching);
    const ConnectionConfig config = configFor(m_pair->pathA());
    QVERIFY(controller.open(config));
    QVERIFY(controller.setControlLine(Line::Break, true));
    QSignalSpy status(&controller, &ConnectionController::statusMessage);
    QSignalSpy lost(&controller, &ConnectionController::serialPortLost);

    politely ? m_pair->terminate() : m_pair->kill();
    QTRY_VERIFY_WITH_TIMEOUT(!status.isEmpty(), 5000);
    QCOMPARE(statuses(status), (QList<Status>{{portText(" DISCONNECTED"), 5000}}));
    QCOMPARE(lost.count(), watching ? 1 : 0);
    QVERIFY(!controller.isOpen(ConnectionMode::Serial));
    QVERIFY(!controller.breakLevel());
    // Reported once: the dead pty's endless read errors end with the close.
    QTest::qWait(300);
    QCOMPARE(status.count(), 1);
    QCOMPARE(lost.count(), watching ? 1 : 0);

    // When the device is back, writing to the closed port opens it again
    // and bytes flow both ways.
    QVERIFY2(m_pair->restart(), qPrintable(m_pair->errorText()));
    QSerialPort peer;
    QVERIFY(openPeer(peer));
    status.clear();
    QSignalSpy ready(&controller, &ConnectionController::readyRead);
    QByteArray received;
    connect(&controller, &ConnectionController::received, this, [&](const QByteArray &data) { received += data; });
    const QByteArray out = pattern(3000);
    QVERIFY(controller.send(config, out));
    QVERIFY(controller.isOpen(ConnectionMode::Serial));
    QCOMPARE(status.at(0).at(0).toString(), portText(" OPEN SUCCESS"));
    QByteArray atPeer;
    QTRY_VERIFY_WITH_TIMEOUT((atPeer += peer.readAll()).size() >= out.size(), 5000);
    QCOMPARE(atPeer, out);
    QCOMPARE(controller.bytesToWrite(ConnectionMode::Serial), 0);
    const QByteArray in("\x00\x01\xfe\xffreply\r\n", 11);
    peer.write(in);
    QTRY_VERIFY_WITH_TIMEOUT(received.size() >= in.size(), 5000);
    QCOMPARE(received, in);
    QVERIFY(ready.count() >= 1);
}

void SerialConnectionTest::pausedReadLosesNothing_data()
{
    QTest::addColumn<int>("flow");
    QTest::addColumn<int>("size");
    QTest::newRow("RTS/CTS holds the sender") << int(QSerialPort::HardwareControl) << 40000;
    // A plain line pauses too, so memory stays bounded; a pty's writer waits.
    QTest::newRow("no flow control pauses as well") << int(QSerialPort::NoFlowControl) << 40000;
}

void SerialConnectionTest::pausedReadLosesNothing()
{
    QFETCH(int, flow);
    QFETCH(int, size);
    const bool pauses = true;
    ConnectionController controller;
    QVERIFY(controller.open(configFor(m_pair->pathA(), flow)));
    QSerialPort peer;
    QVERIFY(openPeer(peer));
    QSignalSpy ready(&controller, &ConnectionController::readyRead);
    QByteArray received;
    connect(&controller, &ConnectionController::received, this, [&](const QByteArray &data) { received += data; });

    controller.setReadPaused(ConnectionMode::Serial, true);
    QCOMPARE(controller.isReadPaused(), pauses);
    const QByteArray sent = pattern(size);
    peer.write(sent);
    if (pauses) {
        QTRY_VERIFY_WITH_TIMEOUT(ready.count() > 0, 5000);
        QTest::qWait(200);
        QVERIFY(controller.readAll(ConnectionMode::Serial).isEmpty());
        QVERIFY(received.isEmpty());
        const int before = ready.count();
        controller.setReadPaused(ConnectionMode::Serial, false);
        // Bytes held while paused are announced at once, not at the next arrival.
        QCOMPARE(ready.count(), before + 1);
    }
    QTRY_VERIFY_WITH_TIMEOUT(received.size() >= sent.size(), 10000);
    QCOMPARE(received, sent);
}

QTEST_GUILESS_MAIN(SerialConnectionTest)
#include "tst_serialconnection.moc"
