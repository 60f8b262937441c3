#include "connection/streamclienttransport.h"

#include "common/logging.h"

#include <QTcpSocket>

#include <utility>

StreamClientTransport::StreamClientTransport(QObject *parent)
    : PortTransport(parent)
{
}

StreamClientTransport::~StreamClientTransport()
{
    if (m_socket)
        m_socket->disconnect(this);
}

void StreamClientTransport::connectTo(const QString &host, quint16 port)
{
    if (m_socket && m_socket->state() != QAbstractSocket::UnconnectedState)
        return;
    if (!m_socket) {
        qCDebug(lcTerminal) << "start: new Tcp Socket";
        auto *socket = new QTcpSocket(this);
        m_socket = socket;
        connect(socket, &QTcpSocket::connected, this, [this, socket] { onConnected(socket); });
        connect(socket, &QTcpSocket::readyRead, this, &StreamClientTransport::announceData);
        connect(socket, &QTcpSocket::bytesWritten, this, &PortTransport::bytesWritten);
        connect(socket, &QTcpSocket::disconnected, this, [this, socket] { onDisconnected(socket); });
        connect(socket, &QTcpSocket::errorOccurred, this, [this, socket] { onError(socket); });
    }
    applyOptions();
    m_socket->connectToHost(host, port, QIODevice::ReadWrite, QAbstractSocket::AnyIPProtocol);
}

void StreamClientTransport::applyOptions()
{
    if (!m_socket)
        return;
    if (m_lowDelay) {
        m_socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
        m_socket->setSocketOption(QAbstractSocket::KeepAliveOption, 1);
    }
    m_socket->setReadBufferSize(isReadPaused() ? kPausedReadBufferSize : kReadBufferSize);
}

void StreamClientTransport::setLowDelay(bool on)
{
    m_lowDelay = on;
    if (m_socket && on) {
        m_socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
        m_socket->setSocketOption(QAbstractSocket::KeepAliveOption, 1);
    }
}

void StreamClientTransport::applyReadPaused(bool paused)
{
    if (m_socket)
        m_socket->setReadBufferSize(paused ? kPausedReadBufferSize : kReadBufferSize);
}

bool StreamClientTransport::hasWaitingData() const
{
    return m_socket && m_socket->bytesAvailable() > 0;
}

void StreamClientTransport::onConnected(QTcpSocket *socket)
{
    if (socket == m_socket) {
        // Options given before the connection existed take effect now.
        applyOptions();
        flushPending();
    }
    emit connected();
}

void StreamClientTransport::flushPending()
{
    if (!m_socket || m_pending.isEmpty() || m_socket->state() != QAbstractSocket::ConnectedState)
        return;
    const QByteArray pending = std::exchange(m_pending, QByteArray());
    m_socket->write(pending);
}

void StreamClientTransport::onDisconnected(QTcpSocket *socket)
{
    qCDebug(lcTerminal) << "disconnectTcpClient :" << socket->peerAddress() << socket->peerPort();
    if (socket == m_socket) {
        m_pending.clear();
        m_socket = nullptr;
    }
    socket->deleteLater();
    emit disconnected();
}

void StreamClientTransport::onError(QTcpSocket *socket)
{
    if (socket != m_socket)
        return;
    // The peer closing an established connection is how a session ends,
    // not a failure: the disconnect that follows reports it. Only when our
    // own bytes were still on their way did something go wrong.
    if (socket->error() == QAbstractSocket::RemoteHostClosedError && socket->bytesToWrite() == 0
        && m_pending.isEmpty())
        return;
    // Forget the socket before telling anyone, so that a listener may start
    // the next attempt from its slot.
    const QString text = tr("TCP connect FAILED: %1").arg(socket->errorString());
    m_pending.clear();
    m_socket = nullptr;
    socket->deleteLater();
    reportFailure(text);
}

void StreamClientTransport::close()
{
    if (!m_socket)
        return;
    QTcpSocket *socket = std::exchange(m_socket, nullptr);
    m_pending.clear();
    socket->disconnect(this);
    socket->abort();
    socket->deleteLater();
    emit disconnected();
}

bool StreamClientTransport::isOpen() const
{
    return m_socket && m_socket->state() == QAbstractSocket::ConnectedState;
}

bool StreamClientTransport::write(const QByteArray &data)
{
    if (data.isEmpty() || !m_socket)
        return false;
    if (m_socket->state() == QAbstractSocket::ConnectedState) {
        flushPending();
        return m_socket->write(data) == data.size();
    }
    m_pending.append(data);
    return true;
}

bool StreamClientTransport::send(const QByteArray &data, const SendTarget &target)
{
    Q_UNUSED(target);
    return write(data);
}

qint64 StreamClientTransport::bytesToWrite() const
{
    return (m_socket ? m_socket->bytesToWrite() : 0) + m_pending.size();
}

QByteArray StreamClientTransport::takeAvailable()
{
    return m_socket && !isReadPaused() ? m_socket->readAll() : QByteArray();
}
