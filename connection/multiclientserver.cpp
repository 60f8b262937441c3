#include "connection/multiclientserver.h"

#include "common/logging.h"
#include "common/peerlabel.h"

#include <QElapsedTimer>
#include <QTcpSocket>

namespace {

// At most this much is taken from one client per notification, so a fast
// client cannot pour tens of megabytes into one read and every client gets
// its turn. While reading is paused a client's socket fills up to this and
// then stops reading by itself, and TCP's flow control stops the sender:
// the limit never changes, so a pause touches no client.
constexpr qint64 kClientReadBufferSize = 64 * 1024;

// How long one pass of deliveries may hold the event loop. A storm of
// clients makes hundreds of sockets ready in the same wakeup; they are
// queued there and delivered in passes this long, so the view, the timers
// and the accepting of newcomers all get their turn in between.
constexpr qint64 kDeliverySliceMs = 5;

// Connections taken from the kernel in one wakeup: the rest wait in its
// backlog for the next one, so a burst of connects is spread out as well.
constexpr int kAcceptBatch = 16;

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
    setMaxPendingConnections(kAcceptBatch);
    m_deliveryPass.setSingleShot(true);
    m_deliveryPass.setInterval(0);
    connect(&m_deliveryPass, &QTimer::timeout, this, &MultiClientServer::deliverWaiting);
    // Queued: QTcpServer goes on accepting while its signal is handled at
    // once, and would take the whole backlog in one go; queued, it stops at
    // kAcceptBatch pending until they are taken.
    connect(this, &QTcpServer::newConnection, this, &MultiClientServer::handleNewConnection, Qt::QueuedConnection);
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
        m_deliveryPass.stop();
        return;
    }
    if (isListening()) {
        resumeAccepting();
        if (hasPendingConnections())
            QMetaObject::invokeMethod(this, &MultiClientServer::handleNewConnection, Qt::QueuedConnection);
    }
    scheduleDelivery();
}

void MultiClientServer::queueDelivery(QTcpSocket *socket)
{
    // Remembered once, however often it says it has data.
    if (m_waitingSet.contains(socket))
        return;
    m_waitingSet.insert(socket);
    m_waiting.append(socket);
    scheduleDelivery();
}

void MultiClientServer::scheduleDelivery()
{
    if (!m_readPaused && !m_waiting.isEmpty() && !m_deliveryPass.isActive())
        m_deliveryPass.start();
}

void MultiClientServer::deliverWaiting()
{
    QElapsedTimer clock;
    clock.start();
    while (!m_readPaused && !m_waiting.isEmpty()) {
        if (clock.elapsed() >= kDeliverySliceMs) {
            scheduleDelivery();
            return;
        }
        QTcpSocket *socket = m_waiting.takeFirst();
        // Not in the set: it was removed after it was queued.
        if (!m_waitingSet.remove(socket))
            continue;
        deliver(socket);
        // A listener may have removed it or stopped the server meanwhile.
        if (m_leaving.contains(socket) && m_labels.contains(socket))
            removeClient(socket);
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
    const QList<QTcpSocket *> clients = m_clients.values();
    m_clients.clear();
    m_labels.clear();
    m_order.clear();
    m_byLabel.clear();
    m_waiting.clear();
    m_waitingSet.clear();
    m_leaving.clear();
    m_skipping.clear();
    m_arriving.clear();
    m_deliveryPass.stop();
    for (QTcpSocket *socket : clients) {
        socket->disconnect(this);
        socket->abort();
        socket->deleteLater();
    }
    close();
}

QTcpSocket *MultiClientServer::clientAt(int index) const
{
    if (index < 0 || index >= m_clients.size())
        return nullptr;
    return *std::next(m_clients.cbegin(), index);
}

bool MultiClientServer::writeToClient(int index, const QByteArray &data)
{
    QTcpSocket *socket = clientAt(index);
    if (data.isEmpty() || !socket || isBacklogged(socket))
        return false;
    return socket->write(data) > 0;
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
    const QList<QTcpSocket *> clients = m_clients.values();
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
    const QTcpSocket *socket = clientAt(index);
    return socket ? socket->bytesToWrite() : 0;
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
    // Paused: the few already taken wait with QTcpServer (taking one would
    // start it accepting again) and the kernel holds the rest.
    if (m_readPaused) {
        if (isListening())
            pauseAccepting();
        return;
    }
    bool admitted = false;
    while (!m_readPaused && hasPendingConnections()) {
        QTcpSocket *socket = nextPendingConnection();
        if (!socket)
            break;
        const Arrival arrival = m_arriving.take(socket);
        if (!isAllowed(arrival.address, m_allowlist)) {
            refuse(socket, arrival.label, tr("not on the address allowlist"));
            continue;
        }
        if (m_exclusive && !m_clients.isEmpty()) {
            refuse(socket, arrival.label, tr("the port already has a client (exclusive mode)"));
            continue;
        }
        connect(socket, &QTcpSocket::bytesWritten, this, &MultiClientServer::bytesWritten);
        const QString label = arrival.label;
        const quint64 order = m_nextOrder++;
        m_clients.insert(order, socket);
        m_order.insert(socket, order);
        m_labels.insert(socket, label);
        m_byLabel.insert(label, socket);
        admitted = true;
        emit clientArrived(label);
        // It waited a moment among the pending ones: what it said, or its
        // leaving, came before it was admitted.
        if (!m_labels.contains(socket))
            continue;  // a listener removed it or stopped the server
        if (socket->state() != QAbstractSocket::ConnectedState)
            clientDisconnected(socket);
        else if (socket->bytesAvailable() > 0)
            queueDelivery(socket);
    }
    if (admitted)
        emit connectionStateChange();
}

void MultiClientServer::incomingConnection(qintptr descriptor)
{
    auto *socket = new QTcpSocket(this);
    if (!socket->setSocketDescriptor(descriptor)) {
        delete socket;
        return;
    }
    // Its read buffer is bounded and its handlers are in place before it
    // waits among the pending ones; its address is kept now, since a client
    // that leaves before it is admitted takes it with it. Each handler is
    // told its socket: asking sender() instead walks every connection made
    // to this server, a cost that grows with the number of clients.
    applyClientOptions(socket);
    m_arriving.insert(socket, Arrival{socket->peerAddress(), labelFor(socket->peerAddress(), socket->peerPort())});
    connect(socket, &QTcpSocket::disconnected, this, [this, socket] { clientDisconnected(socket); });
    connect(socket, &QTcpSocket::readyRead, this, [this, socket] { readReady(socket); });
    addPendingConnection(socket);
}

void MultiClientServer::refuse(QTcpSocket *socket, const QString &label, const QString &reason)
{
    socket->disconnect(this);
    socket->close();
    socket->deleteLater();
    emit connectionRefused(label, reason);
}

void MultiClientServer::clientDisconnected(QTcpSocket *socket)
{
    if (!m_labels.contains(socket))
        return;
    // The socket keeps what the client sent before it left; it goes out in
    // turn, and the client is removed after it.
    m_leaving.insert(socket);
    queueDelivery(socket);
}

void MultiClientServer::removeClient(QTcpSocket *socket)
{
    const QString label = m_labels.take(socket);
    if (m_byLabel.value(label) == socket)
        m_byLabel.remove(label);
    m_clients.remove(m_order.take(socket));
    // Its place in the queue is skipped when reached: no search here.
    m_waitingSet.remove(socket);
    m_leaving.remove(socket);
    m_skipping.remove(socket);
    socket->disconnect(this);
    socket->deleteLater();
    emit clientGone(label);
    emit connectionStateChange();
}

void MultiClientServer::readReady(QTcpSocket *socket)
{
    if (m_labels.contains(socket))
        queueDelivery(socket);
}

void MultiClientServer::deliver(QTcpSocket *socket)
{
    const QByteArray data = socket->readAll();
    if (data.isEmpty())
        return;
    emit newMessage(data, m_labels.value(socket));
}
