#include "connection/multiclientserver.h"

#include "common/logging.h"
#include "common/peerlabel.h"

#include <QTcpSocket>

namespace {

// At most this much is taken from one client per notification, so a fast
// client cannot pour tens of megabytes into one read and every client gets
// its turn. While reading is paused a client's socket fills up to this and
// then stops reading by itself, and TCP's flow control stops the sender:
// the limit never changes, so a pause touches no client.
constexpr qint64 kClientReadBufferSize = 64 * 1024;

// Generous, so that a burst of clients connecting at once is not throttled
// by SYN retries; the kernel caps it at its own limit.
constexpr int kListenBacklog = 1024;

// The forms under which an address may appear in the list: itself, its IPv4
// form when it is an IPv4-mapped IPv6 address, and the other loopback form.
QList<QHostAddress> comparableForms(const QHostAddress &address)
{
    QList<QHostAddress> forms{address};
    if (address.protocol() == QAbstractSocket::IPv6Protocol) {
        bool mapped = false;
        const quint32 v4 = address.toIPv4Address(&mapped);
        if (mapped)
            forms.append(QHostAddress(v4));
    }
    const QHostAddress v4Loopback(QHostAddress::LocalHost);
    const QHostAddress v6Loopback(QHostAddress::LocalHostIPv6);
    for (const QHostAddress &form : QList<QHostAddress>(forms)) {
        if (form == v4Loopback)
            forms.append(v6Loopback);
        else if (form == v6Loopback)
            forms.append(v4Loopback);
    }
    return forms;
}

bool entryMatches(const QString &rawEntry, const QList<QHostAddress> &forms)
{
    const QString entry = rawEntry.trimmed();
    if (entry.isEmpty())
        return false;
    if (entry.contains(QLatin1Char('/'))) {
        const QPair<QHostAddress, int> subnet = QHostAddress::parseSubnet(entry);
        if (subnet.first.isNull() || subnet.second < 0)
            return false;
        for (const QHostAddress &form : forms) {
            if (form.protocol() == subnet.first.protocol() && form.isInSubnet(subnet))
                return true;
        }
        return false;
    }
    QHostAddress listed;
    if (!listed.setAddress(entry))
        return false;
    for (const QHostAddress &form : forms) {
        if (listed.isEqual(form, QHostAddress::TolerantConversion))
            return true;
    }
    return false;
}

} // namespace

MultiClientServer::MultiClientServer(QObject *parent)
    : QTcpServer(parent)
{
    setListenBacklogSize(kListenBacklog);
    connect(this, &QTcpServer::newConnection, this, &MultiClientServer::handleNewConnection);
}

MultiClientServer::~MultiClientServer()
{
    stop();
}

void MultiClientServer::setExclusive(bool on)
{
    m_exclusive = on;
}

void MultiClientServer::setAllowlist(const QStringList &entries)
{
    m_allowlist = entries;
}

void MultiClientServer::setLowDelay(bool on)
{
    m_lowDelay = on;
    for (QTcpSocket *socket : std::as_const(m_clients))
        socket->setSocketOption(QAbstractSocket::LowDelayOption, on ? 1 : 0);
}

void MultiClientServer::setReadPaused(bool on)
{
    if (m_readPaused == on)
        return;
    m_readPaused = on;
    // Pausing and resuming cost the same however many clients there are:
    // new connections wait in the kernel's backlog, connected clients stop
    // at their fixed read buffer, and only the clients that had something
    // to say while paused are visited on resume.
    if (on) {
        if (isListening())
            pauseAccepting();
        return;
    }
    if (isListening())
        resumeAccepting();
    deliverWaiting();
}

void MultiClientServer::deliverWaiting()
{
    while (!m_readPaused && !m_waiting.isEmpty()) {
        QTcpSocket *socket = m_waiting.takeFirst();
        m_waitingSet.remove(socket);
        // A client may leave while its data is delivered: it is no longer
        // in the queue by then.
        if (socket->bytesAvailable() > 0)
            deliver(socket);
    }
}

void MultiClientServer::applyClientOptions(QTcpSocket *socket) const
{
    if (m_lowDelay)
        socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    socket->setReadBufferSize(kClientReadBufferSize);
}

void MultiClientServer::stop()
{
    const QList<QTcpSocket *> clients = m_clients;
    m_clients.clear();
    m_labels.clear();
    m_byLabel.clear();
    m_waiting.clear();
    m_waitingSet.clear();
    m_skipping.clear();
    for (QTcpSocket *socket : clients) {
        socket->disconnect(this);
        socket->abort();
        socket->deleteLater();
    }
    close();
}

bool MultiClientServer::writeToClient(int index, const QByteArray &data)
{
    if (data.isEmpty() || index < 0 || index >= m_clients.size() || isBacklogged(m_clients.at(index)))
        return false;
    return m_clients.at(index)->write(data) > 0;
}

bool MultiClientServer::writeToClient(const QByteArray &data, const QString &peer)
{
    if (data.isEmpty())
        return false;
    // Labels are unique: address and port of a live connection.
    QTcpSocket *socket = m_byLabel.value(peer);
    return socket && !isBacklogged(socket) && socket->write(data) > 0;
}

qint64 MultiClientServer::writeToAll(const QByteArray &data)
{
    if (data.isEmpty())
        return 0;
    qint64 largest = 0;
    // A failed write can make a client leave at once; iterate over a copy.
    const QList<QTcpSocket *> clients = m_clients;
    for (QTcpSocket *socket : clients) {
        // A client that does not read misses what it cannot take, rather
        // than holding the others back or piling up here.
        if (!m_labels.contains(socket) || socket->state() != QAbstractSocket::ConnectedState)
            continue;
        if (isBacklogged(socket)) {
            // Said once per stretch of not reading, not once per send.
            if (!m_skipping.contains(socket)) {
                m_skipping.insert(socket);
                emit clientSkipped(m_labels.value(socket));
            }
            continue;
        }
        // Its stretch ends only once it has taken a good part of its
        // backlog: the kernel taking a few more bytes is not reading again.
        if (socket->bytesToWrite() < kClientWriteHighWatermark / 2)
            m_skipping.remove(socket);
        largest = qMax(largest, socket->write(data));
    }
    return largest;
}

bool MultiClientServer::isBacklogged(const QTcpSocket *socket)
{
    return socket->bytesToWrite() >= kClientWriteHighWatermark;
}

qint64 MultiClientServer::clientBytesToWrite(const QString &peer) const
{
    const QTcpSocket *socket = m_byLabel.value(peer);
    return socket ? socket->bytesToWrite() : 0;
}

bool MultiClientServer::disconnectClient(const QString &peer)
{
    QTcpSocket *socket = m_byLabel.value(peer);
    if (!socket)
        return false;
    // What it still had to say is not wanted either.
    socket->disconnect(this);
    socket->abort();
    removeClient(socket);
    return true;
}

qint64 MultiClientServer::smallestClientBacklog() const
{
    qint64 smallest = 0;
    bool any = false;
    for (const QTcpSocket *socket : m_clients) {
        if (socket->state() != QAbstractSocket::ConnectedState)
            continue;
        smallest = any ? qMin(smallest, socket->bytesToWrite()) : socket->bytesToWrite();
        any = true;
    }
    return smallest;
}

qint64 MultiClientServer::largestClientBacklog() const
{
    qint64 largest = 0;
    for (const QTcpSocket *socket : m_clients)
        largest = qMax(largest, socket->bytesToWrite());
    return largest;
}

qint64 MultiClientServer::bytesToWrite() const
{
    qint64 total = 0;
    for (const QTcpSocket *socket : m_clients)
        total += socket->bytesToWrite();
    return total;
}

qint64 MultiClientServer::clientBytesToWrite(int index) const
{
    return index >= 0 && index < m_clients.size() ? m_clients.at(index)->bytesToWrite() : 0;
}

QStringList MultiClientServer::clientLabels() const
{
    QStringList labels;
    labels.reserve(m_clients.size());
    for (QTcpSocket *socket : m_clients)
        labels.append(m_labels.value(socket));
    return labels;
}

bool MultiClientServer::isAllowed(const QHostAddress &address, const QStringList &allowlist)
{
    if (allowlist.isEmpty())
        return true;
    const QList<QHostAddress> forms = comparableForms(address);
    for (const QString &entry : allowlist) {
        if (entryMatches(entry, forms))
            return true;
    }
    return false;
}

QString MultiClientServer::labelFor(const QHostAddress &address, quint16 port)
{
    return peerLabel(address, port);
}

void MultiClientServer::handleNewConnection()
{
    // Paused before listening: the ones already taken are admitted (each
    // with its bounded read buffer); from now on the kernel holds the rest.
    if (m_readPaused && isListening())
        pauseAccepting();
    bool admitted = false;
    while (hasPendingConnections()) {
        qCDebug(lcTerminal) << "hasPendingConnections";
        QTcpSocket *socket = nextPendingConnection();
        if (!socket)
            break;
        if (!isAllowed(socket->peerAddress(), m_allowlist)) {
            refuse(socket, tr("not on the address allowlist"));
            continue;
        }
        if (m_exclusive && !m_clients.isEmpty()) {
            refuse(socket, tr("the port already has a client (exclusive mode)"));
            continue;
        }
        connect(socket, &QTcpSocket::disconnected, this, &MultiClientServer::clientDisconnected);
        connect(socket, &QTcpSocket::readyRead, this, &MultiClientServer::readReady);
        connect(socket, &QTcpSocket::bytesWritten, this, &MultiClientServer::bytesWritten);
        applyClientOptions(socket);
        const QString label = labelFor(socket->peerAddress(), socket->peerPort());
        m_clients.append(socket);
        m_labels.insert(socket, label);
        m_byLabel.insert(label, socket);
        admitted = true;
        emit clientArrived(label);
    }
    if (admitted)
        emit connectionStateChange();
}

void MultiClientServer::refuse(QTcpSocket *socket, const QString &reason)
{
    const QString label = labelFor(socket->peerAddress(), socket->peerPort());
    socket->close();
    socket->deleteLater();
    emit connectionRefused(label, reason);
}

void MultiClientServer::clientDisconnected()
{
    auto *socket = qobject_cast<QTcpSocket *>(sender());
    if (!socket || !m_labels.contains(socket))
        return;
    // What the client sent just before leaving goes out even while paused
    // (at most the paused read buffer), since the socket is about to go.
    if (socket->bytesAvailable() > 0) {
        deliver(socket);
        if (!m_labels.contains(socket))
            return; // a listener stopped the server meanwhile
    }
    removeClient(socket);
}

void MultiClientServer::removeClient(QTcpSocket *socket)
{
    const QString label = m_labels.take(socket);
    if (m_byLabel.value(label) == socket)
        m_byLabel.remove(label);
    m_clients.removeOne(socket);
    if (m_waitingSet.remove(socket))
        m_waiting.removeOne(socket);
    m_skipping.remove(socket);
    socket->disconnect(this);
    socket->deleteLater();
    emit clientGone(label);
    emit connectionStateChange();
}

void MultiClientServer::readReady()
{
    auto *socket = qobject_cast<QTcpSocket *>(sender());
    if (!socket || !m_labels.contains(socket))
        return;
    if (m_readPaused) {
        // Remembered once, so that resuming visits only these.
        if (!m_waitingSet.contains(socket)) {
            m_waitingSet.insert(socket);
            m_waiting.append(socket);
        }
        return;
    }
    deliver(socket);
}

void MultiClientServer::deliver(QTcpSocket *socket)
{
    const QByteArray data = socket->readAll();
    if (data.isEmpty())
        return;
    emit newMessage(data, m_labels.value(socket));
}
