#include "transfer/portsessionxferport.h"

#include "connection/connectioncontroller.h"
#include "terminal/portsession.h"
#include "transfer/filetransfersession.h"

PortSessionXferPort::PortSessionXferPort(PortSession *session, QObject *parent)
    : QObject(parent)
    , m_session(session)
{
    connect(session->controller(), &ConnectionController::bytesWritten, this, [this] {
        if (m_transfer && m_locked)
            m_transfer->onPortBytesWritten();
    });
    connect(session, &PortSession::stateChanged, this, &PortSessionXferPort::onConnectionChanged);
}

PortSessionXferPort::~PortSessionXferPort()
{
    // A transfer cannot outlive its port: it ends here, keeping what
    // arrived, and gives the lock back while this port still stands.
    delete m_transfer.data();
    if (m_locked)
        lock(false);
}

void PortSessionXferPort::attach(FileTransferSession *transfer)
{
    m_transfer = transfer;
}

bool PortSessionXferPort::write(const QByteArray &bytes)
{
    return m_session && m_session->sendBytes(bytes, false);
}

qint64 PortSessionXferPort::bytesToWrite() const
{
    // Only the transfer's own peer: another client of a server that is slow
    // to read takes no part in it and must not hold it up.
    return m_session ? m_session->controller()->bytesToWrite(m_session->config().mode, m_session->sendTarget()) : 0;
}

bool PortSessionXferPort::isOpen() const
{
    return m_session && m_session->isConnectionOpen();
}

void PortSessionXferPort::lock(bool on)
{
    m_locked = on;
    if (!m_session)
        return;
    if (on) {
        m_session->setTransferActive(true);
        // Set after the lock: taking the lock clears any earlier taker.
        m_session->setReceiveTaker([this](const QByteArray &bytes) {
            if (!m_transfer)
                return false;
            m_transfer->feedReceived(bytes);
            return true;
        });
    } else {
        m_session->setTransferActive(false);
    }
}

void PortSessionXferPort::writeNote(const QString &text)
{
    if (m_session)
        m_session->writeNote(text);
}

QStringList PortSessionXferPort::clientLabels() const
{
    return m_session ? m_session->controller()->serverClientLabels() : QStringList();
}

bool PortSessionXferPort::selectClient(const QString &label)
{
    if (!m_session || !clientLabels().contains(label))
        return false;
    SendTarget target;
    target.clientLabel = label;
    m_session->setSendTarget(target);
    return true;
}

void PortSessionXferPort::onConnectionChanged()
{
    if (!m_transfer || !m_locked || !m_session || m_session->isConnectionOpen())
        return;
    m_transfer->stop(m_session->isReconnecting() ? FileTransferSession::StopReason::ConnectionLost
                                                 : FileTransferSession::StopReason::ConnectionClosed);
}
