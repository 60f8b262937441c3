#include "connection/serialporttransport.h"

#include "common/logging.h"

#include <QFileInfo>
#include <QMetaEnum>

#ifdef Q_OS_UNIX
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#endif

namespace {

// A read error repeated this often without a byte in between is a dead
// device even when the system gives no other sign of it.
constexpr int kReadErrorsMeaningLost = 64;

const QString kDtrName = QStringLiteral("DTR");
const QString kRtsName = QStringLiteral("RTS");

using Parameters = SerialPortTransport::Parameters;

// The five serial settings in the order they are applied.
enum class SerialItem { BaudRate, DataBits, Parity, StopBits, FlowControl };
constexpr SerialItem kSerialItems[] = {SerialItem::BaudRate, SerialItem::DataBits, SerialItem::Parity,
                                       SerialItem::StopBits, SerialItem::FlowControl};

bool differs(SerialItem item, const Parameters &a, const Parameters &b)
{
    switch (item) {
    case SerialItem::BaudRate: return a.baudRate != b.baudRate;
    case SerialItem::DataBits: return a.dataBits != b.dataBits;
    case SerialItem::Parity: return a.parity != b.parity;
    case SerialItem::StopBits: return a.stopBits != b.stopBits;
    case SerialItem::FlowControl: return a.flowControl != b.flowControl;
    }
    return false;
}

bool setItem(QSerialPort &port, SerialItem item, const Parameters &value)
{
    switch (item) {
    case SerialItem::BaudRate: return port.setBaudRate(value.baudRate, QSerialPort::AllDirections);
    case SerialItem::DataBits: return port.setDataBits(value.dataBits);
    case SerialItem::Parity: return port.setParity(value.parity);
    case SerialItem::StopBits: return port.setStopBits(value.stopBits);
    case SerialItem::FlowControl: return port.setFlowControl(value.flowControl);
    }
    return false;
}

} // namespace

SerialPortTransport::SerialPortTransport(QObject *parent)
    : PortTransport(parent)
    , m_serial(new QSerialPort(this))
{
    connect(m_serial, &QSerialPort::readyRead, this, [this] {
        m_readErrorStreak = 0;
        announceData();
    });
    connect(m_serial, &QSerialPort::errorOccurred, this, &SerialPortTransport::onError);
    // A file transfer paces itself on completed writes, on every kind.
    connect(m_serial, &QSerialPort::bytesWritten, this, &PortTransport::bytesWritten);
}

SerialPortTransport::~SerialPortTransport()
{
    m_serial->disconnect(this);
}

bool SerialPortTransport::open(const ConnectionConfig &settings, const QString &portName, bool silent)
{
    m_lastSettings = settings;
    // An open port keeps the name it was opened under, so that its close
    // and loss are reported under the right name.
    if (!m_serial->isOpen()) {
        if (!portName.isEmpty()) {
            qCDebug(lcTerminal) << "setPortName:" << portName;
            m_serial->setPortName(portName);
        } else {
            qCDebug(lcTerminal) << "setPortName to currentSettings.name:" << settings.portName;
            m_serial->setPortName(settings.portName);
        }
    }
    if (m_serial->isOpen())
        return true;

    if (!m_serial->open(QIODevice::ReadWrite)) {
        const QString text = tr("Serial Port %1 OPEN FAILED! ERROR: ").arg(m_serial->portName())
            + m_serial->errorString();
        qCWarning(lcTerminal).noquote() << "openPort: " << text;
        m_serial->clearError();
        if (!silent)
            reportFailure(text);
        return false;
    }
    m_readErrorStreak = 0;
    applyReadPaused(isReadPaused());

    // A setting the driver does not take at open leaves the port as it is;
    // the user sees the values in use and can change them.
    const Parameters wanted = Parameters::from(settings);
    for (SerialItem item : kSerialItems)
        setItem(*m_serial, item, wanted);
    m_serial->setBreakEnabled(false);
    m_serial->clearError();
    m_break = false;

    emit statusMessage(tr("Serial Port %1 OPEN SUCCESS").arg(m_serial->portName()), kOpenedTimeout);
    // A port without modem lines (a pseudo-terminal) refuses them as an
    // unsupported operation: that is said once, as a note, instead of two
    // failures at every open.
    if (!m_serial->setDataTerminalReady(m_dtr)) {
        if (m_serial->error() == QSerialPort::UnsupportedOperationError) {
            m_serial->clearError();
            qCInfo(lcTerminal) << "no control lines on" << m_serial->portName();
            emit statusMessage(tr("Serial Port %1 has no control lines; DTR and RTS are left alone.")
                                   .arg(m_serial->portName()),
                               kNoticeTimeout);
            return true;
        }
        emit statusMessage(tr("Failed to set %1: %2").arg(kDtrName, m_serial->errorString()), kNoticeTimeout);
        m_serial->clearError();
    }
    if (m_serial->flowControl() != QSerialPort::HardwareControl)
        applyRts(m_rts, true);
    return true;
}

void SerialPortTransport::closeAs(const QString &portName)
{
    if (m_serial->isOpen()) {
        m_serial->setBreakEnabled(false);
        m_serial->setDataTerminalReady(false);
        if (m_serial->flowControl() != QSerialPort::HardwareControl)
            m_serial->setRequestToSend(false);
        m_serial->clearError();
        const QString name = portName.isEmpty() ? m_serial->portName() : portName;
        m_serial->close();
        emit statusMessage(m_serial->isOpen() ? tr("Serial Port %1 CLOSE FAILED").arg(name)
                                              : tr("Serial Port %1 CLOSE SUCCESS").arg(name),
                           kNoticeTimeout);
    }
    m_break = false;
}

bool SerialPortTransport::isOpen() const
{
    return m_serial->isOpen();
}

bool SerialPortTransport::write(const QByteArray &data, const ConnectionConfig &settings, const QString &portName)
{
    if (!m_serial->isOpen() && !open(settings, portName, false))
        return false;
    const qint64 written = m_serial->write(data);
    if (written != data.size()) {
        const char *code = QMetaEnum::fromType<QSerialPort::SerialPortError>().valueToKey(m_serial->error());
        qCWarning(lcTerminal) << "Send message failed!" << code << m_serial->errorString();
        return false;
    }
    return true;
}

bool SerialPortTransport::send(const QByteArray &data, const SendTarget &target)
{
    Q_UNUSED(target);
    return write(data, m_lastSettings);
}

qint64 SerialPortTransport::bytesToWrite() const
{
    return m_serial->bytesToWrite();
}

QByteArray SerialPortTransport::takeAvailable()
{
    return m_serial->isOpen() && !isReadPaused() ? m_serial->readAll() : QByteArray();
}

void SerialPortTransport::applyReadPaused(bool paused)
{
    // Paused reading holds a sender back through flow control, and a
    // pseudo-terminal's writer simply waits. A plain hardware line cannot be
    // held back, but it never outruns the view: at a few hundred kilobytes
    // a second it stays far below the watermark that pauses reading. Memory
    // stays bounded either way.
    m_serial->setReadBufferSize(paused ? kPausedReadBufferSize : kReadBufferSize);
}

bool SerialPortTransport::hasWaitingData() const
{
    return m_serial->isOpen() && m_serial->bytesAvailable() > 0;
}

QString SerialPortTransport::portName() const
{
    return m_serial->portName();
}

void SerialPortTransport::setStoredLineLevels(bool dtr, bool rts)
{
    m_dtr = dtr;
    m_rts = rts;
}

bool SerialPortTransport::applyDtr(bool on, bool withMessages)
{
    if (m_serial->setDataTerminalReady(on))
        return true;
    if (withMessages)
        emit statusMessage(tr("Failed to set %1: %2").arg(kDtrName, m_serial->errorString()), kNoticeTimeout);
    m_serial->clearError();
    return false;
}

bool SerialPortTransport::applyRts(bool on, bool withMessages)
{
    if (m_serial->flowControl() == QSerialPort::HardwareControl) {
        if (withMessages)
            emit statusMessage(tr("RTS is managed automatically by RTS/CTS flow control"), kNoticeTimeout);
        return false;
    }
    if (m_serial->setRequestToSend(on))
        return true;
    if (withMessages)
        emit statusMessage(tr("Failed to set %1: %2").arg(kRtsName, m_serial->errorString()), kNoticeTimeout);
    m_serial->clearError();
    return false;
}

bool SerialPortTransport::setControlLine(ControlLine line, bool on)
{
    switch (line) {
    case ControlLine::Dtr:
        m_dtr = on;
        return m_serial->isOpen() ? applyDtr(on, true) : true;
    case ControlLine::Rts:
        m_rts = on;
        return m_serial->isOpen() ? applyRts(on, true) : true;
    case ControlLine::Break:
        if (!m_serial->isOpen()) {
            m_break = false;
            if (!on)
                return true;
            emit statusMessage(tr("Open the serial port before sending Break"), kNoticeTimeout);
            return false;
        }
        if (m_serial->setBreakEnabled(on)) {
            m_break = on;
            return true;
        }
        if (on)
            m_break = false;
        emit statusMessage(tr("Failed to set %1: %2").arg(tr("Break"), m_serial->errorString()), kNoticeTimeout);
        m_serial->clearError();
        return false;
    }
    return false;
}

void SerialPortTransport::purge(bool received, bool toSend)
{
    if (!m_serial->isOpen())
        return;
    if (received && toSend)
        m_serial->clear(QSerialPort::AllDirections);
    else if (received)
        m_serial->clear(QSerialPort::Input);
    else if (toSend)
        m_serial->clear(QSerialPort::Output);
    m_serial->clearError();
}

quint8 SerialPortTransport::modemLines() const
{
    if (!m_serial->isOpen())
        return 0;
#ifdef Q_OS_UNIX
    // Asked of the device itself: QSerialPort would report a pty's refusal
    // as an error of the port, and these are polled.
    int bits = 0;
    if (::ioctl(int(m_serial->handle()), TIOCMGET, &bits) < 0)
        return 0;
    return quint8(((bits & TIOCM_CTS) ? 0x10 : 0) | ((bits & TIOCM_DSR) ? 0x20 : 0)
                  | ((bits & TIOCM_RNG) ? 0x40 : 0) | ((bits & TIOCM_CAR) ? 0x80 : 0));
#else
    const QSerialPort::PinoutSignals pins = m_serial->pinoutSignals();
    m_serial->clearError();
    return quint8((pins.testFlag(QSerialPort::ClearToSendSignal) ? 0x10 : 0)
                  | (pins.testFlag(QSerialPort::DataSetReadySignal) ? 0x20 : 0)
                  | (pins.testFlag(QSerialPort::RingIndicatorSignal) ? 0x40 : 0)
                  | (pins.testFlag(QSerialPort::DataCarrierDetectSignal) ? 0x80 : 0));
#endif
}

SerialPortTransport::Parameters SerialPortTransport::deviceParameters() const
{
    Parameters parameters = currentParameters();
#ifdef Q_OS_UNIX
    termios t{};
    if (!m_serial->isOpen() || ::tcgetattr(int(m_serial->handle()), &t) != 0)
        return parameters;
    switch (t.c_cflag & CSIZE) {
    case CS5: parameters.dataBits = QSerialPort::Data5; break;
    case CS6: parameters.dataBits = QSerialPort::Data6; break;
    case CS7: parameters.dataBits = QSerialPort::Data7; break;
    default: parameters.dataBits = QSerialPort::Data8; break;
    }
    if (!(t.c_cflag & PARENB))
        parameters.parity = QSerialPort::NoParity;
    else if (t.c_cflag & CMSPAR)
        parameters.parity = (t.c_cflag & PARODD) ? QSerialPort::MarkParity : QSerialPort::SpaceParity;
    else
        parameters.parity = (t.c_cflag & PARODD) ? QSerialPort::OddParity : QSerialPort::EvenParity;
    parameters.stopBits = (t.c_cflag & CSTOPB) ? QSerialPort::TwoStop : QSerialPort::OneStop;
    if (t.c_cflag & CRTSCTS)
        parameters.flowControl = QSerialPort::HardwareControl;
    else if (t.c_iflag & (IXON | IXOFF))
        parameters.flowControl = QSerialPort::SoftwareControl;
    else
        parameters.flowControl = QSerialPort::NoFlowControl;
#endif
    return parameters;
}

SerialPortTransport::Parameters SerialPortTransport::currentParameters() const
{
    return {m_serial->baudRate(), m_serial->dataBits(), m_serial->parity(), m_serial->stopBits(),
            m_serial->flowControl()};
}

Result SerialPortTransport::applyParameters(const Parameters &parameters)
{
    if (!m_serial->isOpen())
        return Result::failure(tr("the port is not open"));

    const Parameters before = currentParameters();
    for (SerialItem item : kSerialItems) {
        if (!differs(item, before, parameters) || setItem(*m_serial, item, parameters))
            continue;
        QString what;
        switch (item) {
        case SerialItem::BaudRate: what = tr("baud rate %1").arg(parameters.baudRate); break;
        case SerialItem::DataBits: what = tr("%1 data bits").arg(int(parameters.dataBits)); break;
        case SerialItem::Parity: what = tr("parity"); break;
        case SerialItem::StopBits: what = tr("stop bits"); break;
        case SerialItem::FlowControl: what = tr("flow control"); break;
        }
        const QString text = tr("%1 was refused by the driver: %2").arg(what, m_serial->errorString());
        m_serial->clearError();
        // Back to a consistent line: all five as they were.
        for (SerialItem back : kSerialItems)
            setItem(*m_serial, back, before);
        m_serial->clearError();
        return Result::failure(text);
    }
    if (before.flowControl == QSerialPort::HardwareControl
        && parameters.flowControl != QSerialPort::HardwareControl)
        applyRts(m_rts, true);
    return Result::success();
}

void SerialPortTransport::onError(QSerialPort::SerialPortError error)
{
    if (m_handlingLoss || !m_serial->isOpen())
        return;
    if (error == QSerialPort::ResourceError) {
        handleLostPort();
        return;
    }
    if (error != QSerialPort::ReadError)
        return;
    // A pty whose other end died (and a device that was unplugged) keeps
    // reporting read errors as fast as the loop spins: leave at the first.
    if (++m_readErrorStreak >= kReadErrorsMeaningLost || deviceVanished()) {
        handleLostPort();
        return;
    }
    qCWarning(lcTerminal) << "serial read error:" << m_serial->errorString();
}

bool SerialPortTransport::deviceVanished() const
{
#ifdef Q_OS_UNIX
    const int fd = int(m_serial->handle());
    if (fd >= 0) {
        pollfd probe{fd, POLLIN, 0};
        if (::poll(&probe, 1, 0) > 0 && (probe.revents & (POLLHUP | POLLERR | POLLNVAL)))
            return true;
    }
#endif
    const QString name = m_serial->portName();
    const QString location = name.startsWith(QLatin1Char('/')) ? name : QStringLiteral("/dev/") + name;
    return !QFileInfo::exists(location);
}

void SerialPortTransport::handleLostPort()
{
    m_handlingLoss = true;
    const QString name = m_serial->portName();
    m_break = false;
    m_serial->close();
    m_serial->clearError();
    m_readErrorStreak = 0;
    m_handlingLoss = false;
    qCWarning(lcTerminal) << "serial port lost:" << name;
    emit statusMessage(tr("Serial Port %1 DISCONNECTED").arg(name), kFailureTimeout);
    if (m_watchForLoss)
        emit serialPortLost();
}
