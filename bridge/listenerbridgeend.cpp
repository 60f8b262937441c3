#include "bridge/listenerbridgeend.h"

#include "common/peerlabel.h"
#include "connection/multiclientserver.h"

ListenerBridgeEnd::ListenerBridgeEnd(const QHostAddress &address, quint16 port, const QStringList &allowlist,
                                     bool exclusive, QObject *parent)
    : BridgeEnd(parent)
    , m_server(new MultiClientServer(this))
    , m_address(address)
    , m_port(port)
{
    m_server->setAllowlist(allowlist);
    m_server->setExclusive(exclusive);
    // A gateway's requests are small and wait for answers.
    m_server->setLowDelay(true);
    connect(m_server, &MultiClientServer::newMessage, this, &BridgeEnd::received);
    connect(m_server, &MultiClientServer::clientArrived, this, &ListenerBridgeEnd::onClientArrived);
    connect(m_server, &MultiClientServer::clientGone, this, [this](const QString &peer) {
        emit sourceGone(peer);
        emit outletsChanged();
    });
    connect(m_server, &MultiClientServer::bytesWritten, this, &BridgeEnd::drained);
    connect(m_server, &MultiClientServer::connectionRefused, this, [this](const QString &peer, const QString &reason) {
        emit notice(tr("Refused %1: %2").arg(peer, reason));
    });
}

ListenerBridgeEnd::~ListenerBridgeEnd()
{
    m_server->disconnect(this);
    m_server->stop();
}

Result ListenerBridgeEnd::start()
{
    if (m_server->isListening())
        return Result::success();
    if (!m_server->listen(m_address, m_port)) {
        const QString text = tr("cannot listen on %1: %2").arg(peerLabel(m_address, m_port), m_server->errorString());
        emit readyChanged();
        return Result::failure(text);
    }
    emit readyChanged();
    return Result::success();
}

void ListenerBridgeEnd::stop()
{
    const bool had = m_server->isListening();
    const QStringList clients = m_server->clientLabels();
    m_server->stop();
    for (const QString &peer : clients)
        emit sourceGone(peer);
    if (had) {
        emit outletsChanged();
        emit readyChanged();
    }
}

void ListenerBridgeEnd::onClientArrived(const QString &peer)
{
    if (m_server->clientCount() > kMaxClients) {
        m_server->disconnectClient(peer);
        emit notice(tr("Refused %1: the bridge already serves %2 clients").arg(peer).arg(kMaxClients));
        return;
    }
    emit outletsChanged();
}

bool ListenerBridgeEnd::isReady() const
{
    return m_server->isListening();
}

QString ListenerBridgeEnd::waitingText() const
{
    return isReady() ? QString() : tr("not listening on %1").arg(peerLabel(m_address, m_port));
}

QString ListenerBridgeEnd::description() const
{
    return tr("listener %1").arg(peerLabel(m_address, listeningPort()));
}

quint16 ListenerBridgeEnd::listeningPort() const
{
    return m_server->isListening() ? m_server->serverPort() : m_port;
}

QStringList ListenerBridgeEnd::outlets() const
{
    return m_server->clientLabels();
}

bool ListenerBridgeEnd::write(const QString &outlet, const QByteArray &bytes)
{
    return m_server->writeToClient(bytes, outlet);
}

qint64 ListenerBridgeEnd::backlog(const QString &outlet) const
{
    return m_server->clientBytesToWrite(outlet);
}

bool ListenerBridgeEnd::dropOutlet(const QString &outlet)
{
    return m_server->disconnectClient(outlet);
}

void ListenerBridgeEnd::setReadPaused(bool paused)
{
    m_server->setReadPaused(paused);
}
