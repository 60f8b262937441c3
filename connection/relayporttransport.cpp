#include "connection/relayporttransport.h"

#include "common/logging.h"
#include "connection/relaytransport.h"

#include <utility>

RelayPortTransport::RelayPortTransport(QObject *parent)
    : PortTransport(parent)
{
}

RelayPortTransport::~RelayPortTransport()
{
    if (m_relay) {
        m_relay->disconnect(this);
        m_relay->close();
    }
}

bool RelayPortTransport::attach(RelayTransport *relay)
{
    if (!relay || m_relay)
        return false;
    m_relay = relay;
    relay->setParent(this);
    m_buffer.clear();
    relay->setReadPaused(isReadPaused());
    connect(relay, &RelayTransport::connected, this, &RelayPortTransport::connected);
    connect(relay, &RelayTransport::dataReceived, this, [this](const QByteArray &data) {
        m_buffer.append(data);
        announceData();
    });
    connect(relay, &RelayTransport::peerChanged, this, [this](const QString &peer) {
        qCDebug(lcTerminal) << "relay peer:" << peer;
        emit peerChanged(peer);
    });
    connect(relay, &RelayTransport::ended, this, [this](const QString &reason) {
        close();
        emit ended(reason);
    });
    return true;
}

void RelayPortTransport::close()
{
    if (!m_relay)
        return;
    RelayTransport *relay = m_relay;
    m_relay = nullptr;
    m_buffer.clear();
    relay->disconnect(this);
    relay->close();
    relay->deleteLater();
}

bool RelayPortTransport::isOpen() const
{
    return m_relay && m_relay->isConnected();
}

bool RelayPortTransport::write(const QByteArray &data)
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

bool RelayPortTransport::send(const QByteArray &data, const SendTarget &target)
{
    Q_UNUSED(target);
    return write(data);
}

void RelayPortTransport::applyReadPaused(bool paused)
{
    if (m_relay)
        m_relay->setReadPaused(paused);
}

qint64 RelayPortTransport::bytesToWrite() const
{
    return m_relay ? m_relay->bytesToWrite() : 0;
}

QByteArray RelayPortTransport::takeAvailable()
{
    return isReadPaused() ? QByteArray() : std::exchange(m_buffer, QByteArray());
}
