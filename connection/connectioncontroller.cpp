#include "connection/connectioncontroller.h"

#include "common/logging.h"
#include "common/peerlabel.h"
#include "connection/multiclientserver.h"

#include <QFileInfo>
#include <QHostInfo>
#include <QMetaEnum>
#include <QTcpSocket>
#include <QUdpSocket>

#ifdef Q_OS_UNIX
#include <poll.h>
#endif

namespace {

constexpr int kOpenedTimeout = 1000;
constexpr int kNoticeTimeout = 3000;
constexpr int kFailureTimeout = 5000;

// A read error repeated this often without a byte in between is a dead
// device even when the system gives no other sign of it.
constexpr int kReadErrorsMeaningLost = 64;

const QString kDtrName = QStringLiteral("DTR");
const QString kRtsName = QStringLiteral("RTS");
const QString kBreakName = QStringLiteral("Break");

// The five serial settings in the order they are applied.
enum class SerialItem { BaudRate, DataBits, Parity, StopBits, FlowControl };
constexpr SerialItem kSerialItems[] = {SerialItem::BaudRate, SerialItem::DataBits, SerialItem::Parity,
                                       SerialItem::StopBits, SerialItem::FlowControl};

using SerialParameters = ConnectionController::SerialParameters;

bool differs(SerialItem item, const SerialParameters &a, const SerialParameters &b)
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

bool setItem(QSerialPort &port, SerialItem item, const SerialParameters &value)
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

QString ConnectionController::UdpPeer::key() const
{
    return peerLabel(address, port);
}

ConnectionController::SerialParameters ConnectionController::SerialParameters::from(const ConnectionConfig &config)
{
    return {config.baudRate, config.dataBits, config.parity, config.stopBits, config.flowControl};
}

ConnectionController::ConnectionController(QObject *parent)
    : QObject(parent)
    , m_serial(new QSerialPort(this))
{
    connect(m_serial, &QSerialPort::readyRead, this, [this] {
        m_readErrorStreak = 0;
        emit readyRead();
    });
    connect(m_serial, &QSerialPort::errorOccurred, this, &ConnectionController::onSerialError);
}

ConnectionController::~ConnectionController()
{
    // Transports are children and die with us; make sure none reports into
    // a half-destroyed controller while it goes.
    m_serial->disconnect(this);
    if (m_stream)
        m_stream->disconnect(this);
    if (m_udp)
        m_udp->disconnect(this);
    if (m_server)
        m_server->disconnect(this);
    if (m_relay) {
        m_relay->disconnect(this);
        m_relay->close();
    }
}

// ---------------------------------------------------------------- dispatch

bool ConnectionController::open(const ConnectionConfig &config, const QString &portName, bool silent)
{
    const bool portInRange = config.targetPort >= ConnectionConfig::kMinTargetPort
        && config.targetPort <= ConnectionConfig::kMaxTargetPort;
    const QString badPort = tr("the port %1 is not between 1 and 65535").arg(config.targetPort);

    switch (config.mode) {
    case ConnectionMode::Serial:
        return openSerial(config, portName, silent);
    case ConnectionMode::TcpServer:
        if (!portInRange) {
            reportFailure(tr("TCP server listen on port %1 FAILED: %2").arg(config.targetPort).arg(badPort));
            return false;
        }
        return startTcpServer(quint16(config.targetPort), QHostAddress(config.listenAddress));
    case ConnectionMode::TcpClient:
    case ConnectionMode::RemoteSerialRfc2217:
        if (!portInRange) {
            reportFailure(tr("TCP connect FAILED: %1").arg(badPort));
            return false;
        }
        startTcpClient(config.targetHost, quint16(config.targetPort));
        return true;
    case ConnectionMode::UdpServer:
    case ConnectionMode::UdpClient:
    case ConnectionMode::UdpGeneric:
        return bindUdp(config.udpLocalPort);
    case ConnectionMode::RemoteSerialRelay: {
        if (m_relay)
            return true;
        RelayTransport *relay = m_relayFactory ? m_relayFactory(config) : nullptr;
        if (!relay) {
            qCWarning(lcTerminal) << "no relay transport to open";
            return false;
        }
        attachRelay(relay);
        return true;
    }
    }
    return false;
}

bool ConnectionController::send(const ConnectionConfig &config, const QByteArray &data, const SendTarget &target,
                                const QString &portName)
{
    switch (config.mode) {
    case ConnectionMode::Serial:
        return writeSerial(data, config, portName);
    case ConnectionMode::TcpServer:
        if (!target.clientLabel.isEmpty())
            return sendToServerClient(data, target.clientLabel);
        if (target.index >= 0)
            return sendToServerClient(data, target.index);
        return sendToAllServerClients(data) > 0;
    case ConnectionMode::TcpClient:
    case ConnectionMode::RemoteSerialRfc2217:
        return writeStream(data);
    case ConnectionMode::UdpServer:
        return sendUdpToPeer(data, target.index >= 0 ? target.index : m_currentUdpPeer);
    case ConnectionMode::UdpClient:
    case ConnectionMode::UdpGeneric:
        return config.udpServerPort != 0 && sendUdp(data, config.targetHost, config.udpServerPort);
    case ConnectionMode::RemoteSerialRelay:
        return writeRelay(data);
    }
    return false;
}

bool ConnectionController::send(const ConnectionConfig &config, const QByteArray &data)
{
    return send(config, data, SendTarget());
}

void ConnectionController::reportFailure(const QString &text)
{
    emit errorOccurred(text);
    emit statusMessage(text, kFailureTimeout);
}

// ------------------------------------------------------------------ serial

bool ConnectionController::openSerial(const ConnectionConfig &settings, const QString &portName, bool silent)
{
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

    // A setting the driver does not take at open leaves the port as it is;
    // the user sees the values in use and can change them.
    const SerialParameters wanted = SerialParameters::from(settings);
    for (SerialItem item : kSerialItems)
        setItem(*m_serial, item, wanted);
    m_serial->setBreakEnabled(false);
    m_serial->clearError();
    m_break = false;

    emit statusMessage(tr("Serial Port %1 OPEN SUCCESS").arg(m_serial->portName()), kOpenedTimeout);
    applyDtr(m_dtr, true);
    if (m_serial->flowControl() != QSerialPort::HardwareControl)
        applyRts(m_rts, true);
    return true;
}

bool ConnectionController::writeSerial(const QByteArray &data, const ConnectionConfig &settings,
                                       const QString &portName)
{
    if (!m_serial->isOpen() && !openSerial(settings, portName, false))
        return false;
    const qint64 written = m_serial->write(data);
    if (written != data.size()) {
        const char *code = QMetaEnum::fromType<QSerialPort::SerialPortError>().valueToKey(m_serial->error());
        qCWarning(lcTerminal) << "Send message failed!" << code << m_serial->errorString();
        return false;
    }
    return true;
}

QString ConnectionController::serialPortName() const
{
    return m_serial->portName();
}

void ConnectionController::setStoredLineLevels(bool dtr, bool rts)
{
    m_dtr = dtr;
    m_rts = rts;
}

bool ConnectionController::applyDtr(bool on, bool withMessages)
{
    if (m_serial->setDataTerminalReady(on))
        return true;
    if (withMessages)
        emit statusMessage(tr("Failed to set %1: %2").arg(kDtrName, m_serial->errorString()), kNoticeTimeout);
    m_serial->clearError();
    return false;
}

bool ConnectionController::applyRts(bool on, bool withMessages)
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

bool ConnectionController::setControlLine(ControlLine line, bool on)
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
        emit statusMessage(tr("Failed to set %1: %2").arg(kBreakName, m_serial->errorString()), kNoticeTimeout);
        m_serial->clearError();
        return false;
    }
    return false;
}

ConnectionController::SerialParameters ConnectionController::currentSerialParameters() const
{
    return {m_serial->baudRate(), m_serial->dataBits(), m_serial->parity(), m_serial->stopBits(),
            m_serial->flowControl()};
}

Result ConnectionController::applySerialParameters(const ConnectionConfig &config)
{
    return applySerialParameters(SerialParameters::from(config));
}

Result ConnectionController::applySerialParameters(const SerialParameters &parameters)
{
    if (!m_serial->isOpen())
        return Result::failure(tr("the port is not open"));

    const SerialParameters before = currentSerialParameters();
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

void ConnectionController::onSerialError(QSerialPort::SerialPortError error)
{
    if (m_handlingLoss || !m_serial->isOpen())
        return;
    if (error == QSerialPort::ResourceError) {
        handleLostSerialPort();
        return;
    }
    if (error != QSerialPort::ReadError)
        return;
    // A pty whose other end died (and a device that was unplugged) keeps
    // reporting read errors as fast as the loop spins: leave at the first.
    if (++m_readErrorStreak >= kReadErrorsMeaningLost || serialDeviceVanished()) {
        handleLostSerialPort();
        return;
    }
    qCWarning(lcTerminal) << "serial read error:" << m_serial->errorString();
}

bool ConnectionController::serialDeviceVanished() const
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

void ConnectionController::handleLostSerialPort()
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

// ------------------------------------------------------------ stream (TCP)

void ConnectionController::startTcpClient(const QString &host, quint16 port)
{
    if (m_stream && m_stream->state() != QAbstractSocket::UnconnectedState)
        return;
    if (!m_stream) {
        qCDebug(lcTerminal) << "start: new Tcp Socket";
        auto *socket = new QTcpSocket(this);
        m_stream = socket;
        connect(socket, &QTcpSocket::connected, this, [this, socket] { onStreamConnected(socket); });
        connect(socket, &QTcpSocket::readyRead, this, &ConnectionController::readyRead);
        connect(socket, &QTcpSocket::bytesWritten, this, &ConnectionController::bytesWritten);
        connect(socket, &QTcpSocket::disconnected, this, [this, socket] { onStreamDisconnected(socket); });
        connect(socket, &QTcpSocket::errorOccurred, this, [this, socket] { onStreamError(socket); });
    }
    applyStreamOptions();
    m_stream->connectToHost(host, port, QIODevice::ReadWrite, QAbstractSocket::AnyIPProtocol);
}

void ConnectionController::applyStreamOptions()
{
    if (!m_stream)
        return;
    if (m_lowDelay) {
        m_stream->setSocketOption(QAbstractSocket::LowDelayOption, 1);
        m_stream->setSocketOption(QAbstractSocket::KeepAliveOption, 1);
    }
    m_stream->setReadBufferSize(m_readPaused ? kPausedReadBufferSize : 0);
}

void ConnectionController::onStreamConnected(QTcpSocket *socket)
{
    if (socket == m_stream) {
        // Options given before the connection existed take effect now.
        applyStreamOptions();
        flushPendingStream();
    }
    emit peerArrived(QString());
}

void ConnectionController::flushPendingStream()
{
    if (!m_stream || m_pendingStream.isEmpty() || m_stream->state() != QAbstractSocket::ConnectedState)
        return;
    const QByteArray pending = std::exchange(m_pendingStream, QByteArray());
    m_stream->write(pending);
}

void ConnectionController::onStreamDisconnected(QTcpSocket *socket)
{
    qCDebug(lcTerminal) << "disconnectTcpClient :" << socket->peerAddress() << socket->peerPort();
    if (socket == m_stream) {
        m_pendingStream.clear();
        m_stream = nullptr;
    }
    socket->deleteLater();
    emit tcpClientDisconnected();
}

void ConnectionController::onStreamError(QTcpSocket *socket)
{
    if (socket != m_stream)
        return;
    // Forget the socket before telling anyone, so that a listener may start
    // the next attempt from its slot.
    const QString text = tr("TCP connect FAILED: %1").arg(socket->errorString());
    m_pendingStream.clear();
    m_stream = nullptr;
    socket->deleteLater();
    reportFailure(text);
}

void ConnectionController::dropStreamSocket()
{
    if (!m_stream)
        return;
    QTcpSocket *socket = std::exchange(m_stream, nullptr);
    m_pendingStream.clear();
    socket->disconnect(this);
    socket->abort();
    socket->deleteLater();
    emit tcpClientDisconnected();
}

bool ConnectionController::writeStream(const QByteArray &data)
{
    if (data.isEmpty() || !m_stream)
        return false;
    if (m_stream->state() == QAbstractSocket::ConnectedState) {
        flushPendingStream();
        return m_stream->write(data) == data.size();
    }
    m_pendingStream.append(data);
    return true;
}

void ConnectionController::setLowDelay(bool on)
{
    m_lowDelay = on;
    if (m_stream && on) {
        m_stream->setSocketOption(QAbstractSocket::LowDelayOption, 1);
        m_stream->setSocketOption(QAbstractSocket::KeepAliveOption, 1);
    }
    if (m_server)
        m_server->setLowDelay(on);
}

// -------------------------------------------------------------- TCP server

MultiClientServer *ConnectionController::ensureServer()
{
    if (m_server)
        return m_server;
    m_server = new MultiClientServer(this);
    connect(m_server, &MultiClientServer::connectionStateChange, this, &ConnectionController::serverConnectionsChanged);
    connect(m_server, &MultiClientServer::newMessage, this, &ConnectionController::serverMessage);
    connect(m_server, &MultiClientServer::clientGone, this, &ConnectionController::peerLost);
    connect(m_server, &MultiClientServer::clientArrived, this, &ConnectionController::peerArrived);
    connect(m_server, &MultiClientServer::bytesWritten, this, &ConnectionController::bytesWritten);
    connect(m_server, &MultiClientServer::connectionRefused, this, [this](const QString &peer, const QString &reason) {
        emit statusMessage(tr("Refused %1: %2").arg(peer, reason), kFailureTimeout);
    });
    return m_server;
}

bool ConnectionController::startTcpServer(quint16 port, const QHostAddress &address)
{
    MultiClientServer *server = ensureServer();
    if (server->isListening() || server->clientCount() > 0)
        server->stop();
    server->setLowDelay(m_lowDelay);
    server->setExclusive(m_serverExclusive);
    server->setAllowlist(m_serverAllowlist);
    server->setReadPaused(m_readPaused);
    if (server->listen(address, port))
        return true;
    const QString text = tr("TCP server listen on port %1 FAILED: %2").arg(port).arg(server->errorString());
    qCWarning(lcTerminal).noquote() << text;
    reportFailure(text);
    return false;
}

bool ConnectionController::sendToServerClient(const QByteArray &data, int index)
{
    if (!m_server || m_server->clientCount() == 0)
        return false;
    if (index < 0 || index >= m_server->clientCount())
        index = 0;
    qCDebug(lcTerminal) << "tcpServerSend: index =" << index;
    return m_server->writeToClient(index, data);
}

bool ConnectionController::sendToServerClient(const QByteArray &data, const QString &clientLabel)
{
    return m_server && m_server->writeToClient(data, clientLabel);
}

qint64 ConnectionController::sendToAllServerClients(const QByteArray &data)
{
    return m_server ? m_server->writeToAll(data) : 0;
}

QString ConnectionController::serverAddressText() const
{
    if (!m_server || !m_server->isListening())
        return {};
    return peerLabel(m_server->serverAddress(), m_server->serverPort());
}

QStringList ConnectionController::serverClientLabels() const
{
    return m_server ? m_server->clientLabels() : QStringList();
}

int ConnectionController::serverClientCount() const
{
    return m_server ? m_server->clientCount() : 0;
}

// --------------------------------------------------------------------- UDP

bool ConnectionController::bindUdp(quint16 localPort)
{
    if (m_udp) {
        m_udp->disconnect(this);
        m_udp->abort();
        m_udp->deleteLater();
        m_udp = nullptr;
    }
    clearUdpPeers();
    resetUdpTargets();
    m_udp = new QUdpSocket(this);
    connect(m_udp, &QUdpSocket::readyRead, this, &ConnectionController::udpReadyRead);
    if (m_udp->bind(QHostAddress::AnyIPv4, localPort, QAbstractSocket::ShareAddress | QAbstractSocket::ReuseAddressHint))
        return true;
    const QString text = tr("UDP bind to port %1 FAILED: %2").arg(localPort).arg(m_udp->errorString());
    qCWarning(lcTerminal).noquote() << text;
    reportFailure(text);
    return false;
}

quint16 ConnectionController::udpLocalPort() const
{
    return m_udp && m_udp->state() == QAbstractSocket::BoundState ? m_udp->localPort() : 0;
}

QList<ConnectionController::UdpDatagram> ConnectionController::readUdpDatagrams()
{
    QList<UdpDatagram> result;
    while (m_udp && m_udp->hasPendingDatagrams()) {
        const qint64 size = m_udp->pendingDatagramSize();
        qCDebug(lcTerminal) << "[readUdpSocket] packetSize:" << size;
        QByteArray datagram(qMax<qint64>(size, 0), Qt::Uninitialized);
        QHostAddress sender;
        quint16 senderPort = 0;
        const qint64 read = m_udp->readDatagram(datagram.data(), datagram.size(), &sender, &senderPort);
        if (read < 0)
            break;
        datagram.truncate(read);
        registerUdpSender(sender, senderPort, datagram);
        result.append({peerLabel(sender, senderPort), datagram});
    }
    return result;
}

void ConnectionController::registerUdpSender(const QHostAddress &address, quint16 port, const QByteArray &datagram)
{
    const QString key = peerLabel(address, port);
    const auto known = m_udpPeerIndex.constFind(key);
    if (known != m_udpPeerIndex.constEnd()) {
        UdpPeer &peer = m_udpPeers[*known];
        peer.lastDatagram = datagram;
        peer.lastTime = QDateTime::currentDateTime();
        m_currentUdpPeer = *known;
        return;
    }
    m_udpPeers.append({address, port, datagram, QDateTime::currentDateTime()});
    m_currentUdpPeer = int(m_udpPeers.size()) - 1;
    m_udpPeerIndex.insert(key, m_currentUdpPeer);
    emit udpPeersChanged();
}

void ConnectionController::clearUdpPeers()
{
    m_currentUdpPeer = -1;
    if (m_udpPeers.isEmpty())
        return;
    m_udpPeers.clear();
    m_udpPeerIndex.clear();
    emit udpPeersChanged();
}

bool ConnectionController::sendUdp(const QByteArray &data, const QString &host, quint16 port)
{
    if (!m_udp)
        return false;
    qCDebug(lcTerminal) << "udpSend:" << data;
    const QString name = host.trimmed();
    QHostAddress address;
    if (!address.setAddress(name)) {
        const auto known = m_udpTargetAddresses.constFind(name);
        if (known == m_udpTargetAddresses.constEnd()) {
            QList<AwaitingDatagram> &waiting = m_udpAwaitingLookup[name];
            waiting.append({data, port});
            if (waiting.size() == 1) {
                QHostInfo::lookupHost(name, this, [this, name](const QHostInfo &info) {
                    onUdpHostLookedUp(name, info);
                });
            }
            return true;
        }
        address = *known;
    }
    return m_udp->writeDatagram(data, address, port) == data.size();
}

void ConnectionController::onUdpHostLookedUp(const QString &host, const QHostInfo &info)
{
    const QList<AwaitingDatagram> waiting = m_udpAwaitingLookup.take(host);
    if (!m_udp || waiting.isEmpty())
        return;
    // The socket is bound to IPv4, so only an IPv4 address can be reached.
    QHostAddress target;
    for (const QHostAddress &candidate : info.addresses()) {
        if (candidate.protocol() == QAbstractSocket::IPv4Protocol) {
            target = candidate;
            break;
        }
    }
    if (target.isNull()) {
        const QString reason = info.error() != QHostInfo::NoError ? info.errorString() : tr("no IPv4 address");
        const QString text = tr("UDP send to %1 FAILED: %2").arg(host, reason);
        qCWarning(lcTerminal).noquote() << text;
        reportFailure(text);
        return;
    }
    m_udpTargetAddresses.insert(host, target);
    for (const AwaitingDatagram &datagram : waiting) {
        if (m_udp->writeDatagram(datagram.data, target, datagram.port) != datagram.data.size())
            qCWarning(lcTerminal) << "udpSend failed:" << m_udp->errorString();
    }
}

void ConnectionController::resetUdpTargets()
{
    m_udpTargetAddresses.clear();
    m_udpAwaitingLookup.clear();
}

bool ConnectionController::sendUdpToPeer(const QByteArray &data, int row)
{
    if (!m_udp || data.isEmpty())
        return false;
    if (m_udpPeers.isEmpty()) {
        emit statusMessage(tr("No UDP peer to reply to yet"), kNoticeTimeout);
        return false;
    }
    if (row < 0 || row >= m_udpPeers.size())
        row = 0;
    qCDebug(lcTerminal) << "sendUdpToPeer: row =" << row;
    const UdpPeer &peer = m_udpPeers.at(row);
    return m_udp->writeDatagram(data, peer.address, peer.port) == data.size();
}

// ------------------------------------------------------------------- relay

bool ConnectionController::attachRelay(RelayTransport *relay)
{
    if (!relay || m_relay)
        return false;
    m_relay = relay;
    relay->setParent(this);
    m_relayBuffer.clear();
    connect(relay, &RelayTransport::connected, this, [this] { emit peerArrived(QString()); });
    connect(relay, &RelayTransport::dataReceived, this, [this](const QByteArray &data) {
        m_relayBuffer.append(data);
        emit readyRead();
    });
    connect(relay, &RelayTransport::peerChanged, this, [this](const QString &peer) {
        qCDebug(lcTerminal) << "relay peer:" << peer;
        emit peerArrived(peer);
    });
    connect(relay, &RelayTransport::ended, this, &ConnectionController::onRelayEnded);
    return true;
}

void ConnectionController::detachRelay()
{
    if (!m_relay)
        return;
    RelayTransport *relay = m_relay;
    m_relay = nullptr;
    m_relayBuffer.clear();
    relay->disconnect(this);
    relay->close();
    relay->deleteLater();
}

void ConnectionController::onRelayEnded(const QString &reason)
{
    detachRelay();
    emit cloudRelayEnded(reason);
}

bool ConnectionController::writeRelay(const QByteArray &data)
{
    if (data.isEmpty() || !m_relay)
        return false;
    const qint64 accepted = m_relay->write(data);
    if (accepted > 0) {
        // Reported from the event loop, like the sockets do, so that a
        // writer reacting to it is not re-entered.
        QMetaObject::invokeMethod(this, [this, accepted] { emit bytesWritten(accepted); }, Qt::QueuedConnection);
    }
    return accepted == data.size();
}

// ------------------------------------------------------------ all together

void ConnectionController::close(ConnectionMode mode, const QString &portName)
{
    switch (mode) {
    case ConnectionMode::Serial:
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
        return;
    case ConnectionMode::TcpServer:
        if (m_server)
            m_server->stop();
        return;
    case ConnectionMode::TcpClient:
    case ConnectionMode::RemoteSerialRfc2217:
        dropStreamSocket();
        return;
    case ConnectionMode::UdpServer:
    case ConnectionMode::UdpClient:
    case ConnectionMode::UdpGeneric:
        if (m_udp)
            m_udp->abort();
        clearUdpPeers();
        resetUdpTargets();
        return;
    case ConnectionMode::RemoteSerialRelay:
        detachRelay();
        return;
    }
}

bool ConnectionController::isOpen(ConnectionMode mode) const
{
    switch (mode) {
    case ConnectionMode::Serial: return m_serial->isOpen();
    case ConnectionMode::TcpServer: return m_server && m_server->isListening();
    case ConnectionMode::TcpClient:
    case ConnectionMode::RemoteSerialRfc2217: return m_stream && m_stream->state() == QAbstractSocket::ConnectedState;
    case ConnectionMode::UdpServer:
    case ConnectionMode::UdpClient:
    case ConnectionMode::UdpGeneric: return m_udp && m_udp->state() == QAbstractSocket::BoundState;
    case ConnectionMode::RemoteSerialRelay: return m_relay && m_relay->isConnected();
    }
    return false;
}

QByteArray ConnectionController::readAll(ConnectionMode mode)
{
    if (m_readPaused)
        return {};
    switch (mode) {
    case ConnectionMode::Serial: return m_serial->isOpen() ? m_serial->readAll() : QByteArray();
    case ConnectionMode::TcpClient:
    case ConnectionMode::RemoteSerialRfc2217: return m_stream ? m_stream->readAll() : QByteArray();
    case ConnectionMode::RemoteSerialRelay: return std::exchange(m_relayBuffer, QByteArray());
    default: return {};
    }
}

qint64 ConnectionController::bytesToWrite(ConnectionMode mode) const
{
    switch (mode) {
    case ConnectionMode::Serial: return m_serial->bytesToWrite();
    case ConnectionMode::TcpServer: return m_server ? m_server->bytesToWrite() : 0;
    case ConnectionMode::TcpClient:
    case ConnectionMode::RemoteSerialRfc2217:
        return (m_stream ? m_stream->bytesToWrite() : 0) + m_pendingStream.size();
    case ConnectionMode::UdpServer:
    case ConnectionMode::UdpClient:
    case ConnectionMode::UdpGeneric: {
        qint64 total = m_udp ? m_udp->bytesToWrite() : 0;
        for (const QList<AwaitingDatagram> &waiting : m_udpAwaitingLookup) {
            for (const AwaitingDatagram &datagram : waiting)
                total += datagram.data.size();
        }
        return total;
    }
    case ConnectionMode::RemoteSerialRelay: return m_relay ? m_relay->bytesToWrite() : 0;
    }
    return 0;
}

void ConnectionController::setReadPaused(ConnectionMode mode, bool paused)
{
    if (paused) {
        switch (mode) {
        case ConnectionMode::Serial:
            // Without flow control nothing would stop the sender: pausing
            // would only lose bytes in the driver, so a plain line never pauses.
            if (m_serial->flowControl() == QSerialPort::NoFlowControl || m_readPaused)
                return;
            m_readPaused = true;
            m_serial->setReadBufferSize(kPausedReadBufferSize);
            return;
        case ConnectionMode::TcpClient:
        case ConnectionMode::RemoteSerialRfc2217:
            if (m_readPaused)
                return;
            m_readPaused = true;
            if (m_stream)
                m_stream->setReadBufferSize(kPausedReadBufferSize);
            return;
        case ConnectionMode::TcpServer:
            m_readPaused = true;
            if (m_server)
                m_server->setReadPaused(true);
            return;
        default:
            m_readPaused = true;
            return;
        }
    }

    if (!m_readPaused)
        return;
    m_readPaused = false;
    m_serial->setReadBufferSize(0);
    if (m_stream)
        m_stream->setReadBufferSize(0);
    if (m_server)
        m_server->setReadPaused(false);
    // Bytes that arrived while paused raise no new notification.
    const bool serialWaiting = m_serial->isOpen() && m_serial->bytesAvailable() > 0;
    const bool streamWaiting = m_stream && m_stream->bytesAvailable() > 0;
    if (serialWaiting || streamWaiting || !m_relayBuffer.isEmpty())
        emit readyRead();
    if (m_udp && m_udp->hasPendingDatagrams())
        emit udpReadyRead();
    Q_UNUSED(mode);
}
