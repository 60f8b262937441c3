#include "connection/connectioncontroller.h"

#include "common/logging.h"
#include "connection/relayporttransport.h"
#include "connection/rfc2217transport.h"
#include "connection/streamclienttransport.h"
#include "connection/tcpservertransport.h"

#include <algorithm>

ConnectionController::ConnectionController(QObject *parent)
    : QObject(parent)
    , m_serial(new SerialPortTransport(this))
{
    forwardCommon(m_serial);
    connect(m_serial, &PortTransport::readable, this, &ConnectionController::readyRead);
    connect(m_serial, &SerialPortTransport::serialPortLost, this, &ConnectionController::serialPortLost);
}

ConnectionController::~ConnectionController()
{
    // Transports are children and die with us; make sure none reports into
    // a half-destroyed controller while it goes.
    for (QObject *child : children())
        child->disconnect(this);
}

void ConnectionController::forwardCommon(PortTransport *transport)
{
    connect(transport, &PortTransport::statusMessage, this, &ConnectionController::statusMessage);
    connect(transport, &PortTransport::errorOccurred, this, &ConnectionController::errorOccurred);
    connect(transport, &PortTransport::received, this, &ConnectionController::received);
    connect(transport, &PortTransport::bytesWritten, this, &ConnectionController::bytesWritten);
}

StreamClientTransport *ConnectionController::ensureStream()
{
    if (m_stream)
        return m_stream;
    m_stream = new StreamClientTransport(this);
    forwardStream(m_stream);
    return m_stream;
}

Rfc2217Transport *ConnectionController::ensureRfc2217()
{
    if (m_rfc2217)
        return m_rfc2217;
    m_rfc2217 = new Rfc2217Transport(this);
    forwardStream(m_rfc2217);
    connect(m_rfc2217, &Rfc2217Transport::notice, this, &ConnectionController::remoteNotice);
    connect(m_rfc2217, &Rfc2217Transport::remoteSetting, this, &ConnectionController::remoteSetting);
    connect(m_rfc2217, &Rfc2217Transport::lineStateChanged, this, &ConnectionController::remoteLineState);
    connect(m_rfc2217, &Rfc2217Transport::modemStateChanged, this, &ConnectionController::remoteModemState);
    return m_rfc2217;
}

void ConnectionController::forwardStream(StreamClientTransport *stream)
{
    forwardCommon(stream);
    stream->setLowDelay(m_lowDelay);
    connect(stream, &PortTransport::readable, this, &ConnectionController::readyRead);
    connect(stream, &StreamClientTransport::connected, this, [this] { emit peerArrived(QString()); });
    connect(stream, &StreamClientTransport::disconnected, this, &ConnectionController::tcpClientDisconnected);
}

TcpServerTransport *ConnectionController::ensureServer()
{
    if (m_server)
        return m_server;
    m_server = new TcpServerTransport(this);
    forwardCommon(m_server);
    m_server->setLowDelay(m_lowDelay);
    connect(m_server, &TcpServerTransport::connectionsChanged, this, &ConnectionController::serverConnectionsChanged);
    connect(m_server, &PortTransport::received, this, &ConnectionController::serverMessage);
    connect(m_server, &TcpServerTransport::clientGone, this, &ConnectionController::peerLost);
    connect(m_server, &TcpServerTransport::clientArrived, this, &ConnectionController::peerArrived);
    return m_server;
}

UdpTransport *ConnectionController::ensureUdp()
{
    if (m_udp)
        return m_udp;
    m_udp = new UdpTransport(this);
    forwardCommon(m_udp);
    connect(m_udp, &PortTransport::readable, this, &ConnectionController::udpReadyRead);
    connect(m_udp, &UdpTransport::peersChanged, this, &ConnectionController::udpPeersChanged);
    return m_udp;
}

RelayPortTransport *ConnectionController::ensureRelay()
{
    if (m_relay)
        return m_relay;
    m_relay = new RelayPortTransport(this);
    forwardCommon(m_relay);
    connect(m_relay, &PortTransport::readable, this, &ConnectionController::readyRead);
    connect(m_relay, &RelayPortTransport::connected, this, [this] { emit peerArrived(QString()); });
    connect(m_relay, &RelayPortTransport::peerChanged, this, &ConnectionController::peerArrived);
    connect(m_relay, &RelayPortTransport::ended, this, &ConnectionController::cloudRelayEnded);
    return m_relay;
}

PortTransport *ConnectionController::transportFor(ConnectionMode mode) const
{
    switch (mode) {
    case ConnectionMode::Serial: return m_serial;
    case ConnectionMode::TcpServer: return m_server;
    case ConnectionMode::TcpClient: return m_stream;
    case ConnectionMode::RemoteSerialRfc2217: return m_rfc2217;
    case ConnectionMode::UdpServer:
    case ConnectionMode::UdpClient:
    case ConnectionMode::UdpGeneric: return m_udp;
    case ConnectionMode::RemoteSerialRelay: return m_relay;
    }
    return nullptr;
}

// ------------------------------------------------------------- the face

bool ConnectionController::open(const ConnectionConfig &config, const QString &portName, bool silent)
{
    m_mode = config.mode;
    const bool portInRange = config.targetPort >= ConnectionConfig::kMinTargetPort
        && config.targetPort <= ConnectionConfig::kMaxTargetPort;
    const QString badPort = tr("the port %1 is not between 1 and 65535").arg(config.targetPort);
    auto refuse = [this](const QString &text) {
        emit errorOccurred(text);
        emit statusMessage(text, 5000);
        return false;
    };

    switch (config.mode) {
    case ConnectionMode::Serial:
        return openSerial(config, portName, silent);
    case ConnectionMode::TcpServer:
        if (!portInRange)
            return refuse(tr("TCP server listen on port %1 FAILED: %2").arg(config.targetPort).arg(badPort));
        return startTcpServer(quint16(config.targetPort), QHostAddress(config.listenAddress));
    case ConnectionMode::TcpClient:
    case ConnectionMode::RemoteSerialRfc2217:
        if (!portInRange)
            return refuse(tr("TCP connect FAILED: %1").arg(badPort));
        if (config.mode == ConnectionMode::RemoteSerialRfc2217) {
            Rfc2217Transport *remote = ensureRfc2217();
            remote->setConfiguration(SerialParameters::from(config),
                                     config.useRemoteSerialConfig);
            remote->connectTo(config.targetHost, quint16(config.targetPort));
            return true;
        }
        startTcpClient(config.targetHost, quint16(config.targetPort));
        return true;
    case ConnectionMode::UdpServer:
    case ConnectionMode::UdpClient:
    case ConnectionMode::UdpGeneric:
        return bindUdp(config.udpLocalPort);
    case ConnectionMode::RemoteSerialRelay: {
        if (hasRelay())
            return true;
        RelayTransport *relay = m_relayFactory ? m_relayFactory(config) : nullptr;
        if (!relay) {
            // No remote port picked yet (or no relay service in this run):
            // said in the pane like every other refusal.
            qCWarning(lcTerminal) << "no relay transport to open";
            return refuse(tr("No remote port has been chosen for this connection yet."));
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
    case ConnectionMode::UdpClient:
    case ConnectionMode::UdpGeneric:
        return config.udpServerPort != 0 && sendUdp(data, config.targetHost, config.udpServerPort);
    default:
        break;
    }
    PortTransport *transport = transportFor(config.mode);
    return transport && transport->send(data, target);
}

bool ConnectionController::send(const ConnectionConfig &config, const QByteArray &data)
{
    return send(config, data, SendTarget());
}

bool ConnectionController::isReadPaused() const
{
    const QList<PortTransport *> transports = findChildren<PortTransport *>(Qt::FindDirectChildrenOnly);
    return std::any_of(transports.cbegin(), transports.cend(),
                       [](const PortTransport *transport) { return transport->isReadPaused(); });
}

// ------------------------------------------------------- per transport

bool ConnectionController::openSerial(const ConnectionConfig &settings, const QString &portName, bool silent)
{
    return m_serial->open(settings, portName, silent);
}

void ConnectionController::startTcpClient(const QString &host, quint16 port)
{
    ensureStream()->connectTo(host, port);
}

bool ConnectionController::startTcpServer(quint16 port, const QHostAddress &address)
{
    m_mode = ConnectionMode::TcpServer;
    TcpServerTransport *server = ensureServer();
    server->setExclusive(m_serverExclusive);
    server->setAllowlist(m_serverAllowlist);
    return server->listen(port, address);
}

bool ConnectionController::bindUdp(quint16 localPort)
{
    return ensureUdp()->bind(localPort);
}

bool ConnectionController::attachRelay(RelayTransport *relay)
{
    return ensureRelay()->attach(relay);
}

void ConnectionController::close(ConnectionMode mode, const QString &portName)
{
    if (mode == ConnectionMode::Serial) {
        m_serial->closeAs(portName);
        return;
    }
    if (PortTransport *transport = transportFor(mode))
        transport->close();
}

bool ConnectionController::isOpen(ConnectionMode mode) const
{
    const PortTransport *transport = transportFor(mode);
    return transport && transport->isOpen();
}

QByteArray ConnectionController::readAll(ConnectionMode mode)
{
    PortTransport *transport = transportFor(mode);
    return transport ? transport->takeAvailable() : QByteArray();
}

QList<ConnectionController::UdpDatagram> ConnectionController::readUdpDatagrams()
{
    return m_udp ? m_udp->readDatagrams() : QList<UdpDatagram>();
}

bool ConnectionController::writeSerial(const QByteArray &data, const ConnectionConfig &settings,
                                       const QString &portName)
{
    return m_serial->write(data, settings, portName);
}

bool ConnectionController::writeStream(const QByteArray &data)
{
    return m_stream && m_stream->write(data);
}

bool ConnectionController::writeRelay(const QByteArray &data)
{
    return m_relay && m_relay->write(data);
}

bool ConnectionController::sendToServerClient(const QByteArray &data, int index)
{
    return m_server && m_server->sendToClient(data, index);
}

bool ConnectionController::sendToServerClient(const QByteArray &data, const QString &clientLabel)
{
    return m_server && m_server->sendToClient(data, clientLabel);
}

qint64 ConnectionController::sendToAllServerClients(const QByteArray &data)
{
    return m_server ? m_server->sendToAll(data) : 0;
}

bool ConnectionController::sendUdp(const QByteArray &data, const QString &host, quint16 port)
{
    return m_udp && m_udp->sendTo(data, host, port);
}

bool ConnectionController::sendUdpToPeer(const QByteArray &data, int row)
{
    return m_udp && m_udp->sendToPeer(data, row);
}

qint64 ConnectionController::bytesToWrite(ConnectionMode mode) const
{
    const PortTransport *transport = transportFor(mode);
    return transport ? transport->bytesToWrite() : 0;
}

qint64 ConnectionController::bytesToWrite(ConnectionMode mode, const SendTarget &target) const
{
    const PortTransport *transport = transportFor(mode);
    return transport ? transport->bytesToWriteFor(target) : 0;
}

qint64 ConnectionController::writeBacklog() const
{
    const PortTransport *transport = transportFor(m_mode);
    return transport ? transport->writeBacklog() : 0;
}

bool ConnectionController::setControlLine(ControlLine line, bool on)
{
    return m_serial->setControlLine(line, on);
}

bool ConnectionController::dtrLevel() const
{
    return m_serial->dtrLevel();
}

bool ConnectionController::rtsLevel() const
{
    return m_serial->rtsLevel();
}

bool ConnectionController::breakLevel() const
{
    return m_serial->breakLevel();
}

void ConnectionController::setStoredLineLevels(bool dtr, bool rts)
{
    m_serial->setStoredLineLevels(dtr, rts);
}

Result ConnectionController::applySerialParameters(const SerialParameters &parameters)
{
    return m_serial->applyParameters(parameters);
}

Result ConnectionController::applySerialParameters(const ConnectionConfig &config)
{
    return m_serial->applyParameters(SerialParameters::from(config));
}

ConnectionController::SerialParameters ConnectionController::currentSerialParameters() const
{
    return m_serial->currentParameters();
}

void ConnectionController::purgeSerial(bool received, bool toSend)
{
    m_serial->purge(received, toSend);
}

SerialParameters ConnectionController::serialDeviceParameters() const
{
    return m_serial->deviceParameters();
}

quint8 ConnectionController::serialModemLines() const
{
    return m_serial->modemLines();
}

QString ConnectionController::serialPortName() const
{
    return m_serial->portName();
}

void ConnectionController::setReadPaused(ConnectionMode mode, bool paused)
{
    PortTransport *transport = nullptr;
    switch (mode) {
    case ConnectionMode::Serial: transport = m_serial; break;
    case ConnectionMode::TcpServer: transport = ensureServer(); break;
    case ConnectionMode::TcpClient: transport = ensureStream(); break;
    case ConnectionMode::RemoteSerialRfc2217: transport = ensureRfc2217(); break;
    case ConnectionMode::UdpServer:
    case ConnectionMode::UdpClient:
    case ConnectionMode::UdpGeneric: transport = ensureUdp(); break;
    case ConnectionMode::RemoteSerialRelay: transport = ensureRelay(); break;
    }
    if (transport)
        transport->setReadPaused(paused);
}

void ConnectionController::setLowDelay(bool on)
{
    m_lowDelay = on;
    if (m_stream)
        m_stream->setLowDelay(on);
    if (m_rfc2217)
        m_rfc2217->setLowDelay(on);
    if (m_server)
        m_server->setLowDelay(on);
}

void ConnectionController::setWatchForLoss(bool on)
{
    m_serial->setWatchForLoss(on);
}

bool ConnectionController::watchesForLoss() const
{
    return m_serial->watchesForLoss();
}

QString ConnectionController::serverAddressText() const
{
    return m_server ? m_server->addressText() : QString();
}

QStringList ConnectionController::serverClientLabels() const
{
    return m_server ? m_server->clientLabels() : QStringList();
}

int ConnectionController::serverClientCount() const
{
    return m_server ? m_server->clientCount() : 0;
}

quint16 ConnectionController::udpLocalPort() const
{
    return m_udp ? m_udp->localPort() : 0;
}

const QList<ConnectionController::UdpPeer> &ConnectionController::udpPeers() const
{
    static const QList<UdpPeer> none;
    return m_udp ? m_udp->peers() : none;
}

int ConnectionController::currentUdpPeer() const
{
    return m_udp ? m_udp->currentPeer() : -1;
}

void ConnectionController::setRemoteSerialParameters(const ConnectionConfig &config)
{
    ensureRfc2217()->setConfiguration(SerialParameters::from(config),
                                      config.useRemoteSerialConfig);
    m_rfc2217->setSerialParameters(SerialParameters::from(config));
}

bool ConnectionController::setRemoteControlLine(ControlLine line, bool on)
{
    return m_rfc2217 && m_rfc2217->setControlLine(line, on);
}

bool ConnectionController::remoteBreakLevel() const
{
    return m_rfc2217 && m_rfc2217->breakLevel();
}

ConnectionController::RemoteNegotiation ConnectionController::remoteNegotiation() const
{
    return m_rfc2217 ? m_rfc2217->negotiation() : RemoteNegotiation::Undecided;
}

bool ConnectionController::hasRelay() const
{
    return m_relay && m_relay->hasRelay();
}
