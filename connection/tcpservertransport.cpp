#include "connection/tcpservertransport.h"

#include "common/logging.h"
#include "common/peerlabel.h"
#include "connection/multiclientserver.h"

TcpServerTransport::TcpServerTransport(QObject *parent)
    : PortTransport(parent)
    , m_server(new MultiClientServer(this))
{
    connect(m_server, &MultiClientServer::connectionStateChange, this, &TcpServerTransport::connectionsChanged);
    connect(m_server, &MultiClientServer::newMessage, this, &PortTransport::received);
    connect(m_server, &MultiClientServer::clientGone, this, &TcpServerTransport::clientGone);
    connect(m_server, &MultiClientServer::clientArrived, this, &TcpServerTransport::clientArrived);
    connect(m_server, &MultiClientServer::bytesWritten, this, &PortTransport::bytesWritten);
    connect(m_server, &MultiClientServer::connectionRefused, this, [this](const QString &peer, const QString &reason) {
        emit statusMessage(tr("Refused %1: %2").arg(peer, reason), kFailureTimeout);
    });
    connect(m_server, &MultiClientServer::clientSkipped, this, [this](const QString &peer) {
        emit statusMessage(tr("%1 is not reading: sends to all clients pass it by until it does.").arg(peer),
                           kFailureTimeout);
    });
}

TcpServerTransport::~TcpServerTransport()
{
    m_server->disconnect(this);
}

bool TcpServerTransport::listen(quint16 port, const QHostAddress &address)
{
    if (m_server->isListening() || m_server->clientCount() > 0)
        m_server->stop();
    m_server->setLowDelay(m_lowDelay);
    m_server->setExclusive(m_exclusive);
    m_server->setAllowlist(m_allowlist);
    m_server->setReadPaused(isReadPaused());
    if (m_server->listen(address, port))
        return true;
    const QString text = tr("TCP server listen on port %1 FAILED: %2").arg(port).arg(m_server->errorString());
    qCWarning(lcTerminal).noquote() << text;
    reportFailure(text);
    return false;
}

void TcpServerTransport::close()
{
    m_server->stop();
}

bool TcpServerTransport::isOpen() const
{
    return m_server->isListening();
}

bool TcpServerTransport::send(const QByteArray &data, const SendTarget &target)
{
    if (!target.clientLabel.isEmpty())
        return sendToClient(data, target.clientLabel);
    if (target.index >= 0)
        return sendToClient(data, target.index);
    return sendToAll(data) > 0;
}

bool TcpServerTransport::sendToClient(const QByteArray &data, int index)
{
    if (m_server->clientCount() == 0)
        return false;
    if (index < 0 || index >= m_server->clientCount())
        index = 0;
    qCDebug(lcTerminal) << "tcpServerSend: index =" << index;
    return m_server->writeToClient(index, data);
}

bool TcpServerTransport::sendToClient(const QByteArray &data, const QString &clientLabel)
{
    return m_server->writeToClient(data, clientLabel);
}

qint64 TcpServerTransport::sendToAll(const QByteArray &data)
{
    return m_server->writeToAll(data);
}

qint64 TcpServerTransport::bytesToWrite() const
{
    return m_server->bytesToWrite();
}

qint64 TcpServerTransport::bytesToWriteFor(const SendTarget &target) const
{
    // The client a send to this target reaches, as send() picks it.
    if (!target.clientLabel.isEmpty())
        return m_server->clientBytesToWrite(target.clientLabel);
    if (target.index >= 0 && m_server->clientCount() > 0)
        return m_server->clientBytesToWrite(target.index < m_server->clientCount() ? target.index : 0);
    return m_server->smallestClientBacklog();
}

qint64 TcpServerTransport::writeBacklog() const
{
    return m_server->largestClientBacklog();
}

void TcpServerTransport::setLowDelay(bool on)
{
    m_lowDelay = on;
    m_server->setLowDelay(on);
}

void TcpServerTransport::applyReadPaused(bool paused)
{
    m_server->setReadPaused(paused);
}

QString TcpServerTransport::addressText() const
{
    return m_server->isListening() ? peerLabel(m_server->serverAddress(), m_server->serverPort()) : QString();
}

QStringList TcpServerTransport::clientLabels() const
{
    return m_server->clientLabels();
}

int TcpServerTransport::clientCount() const
{
    return m_server->clientCount();
}
