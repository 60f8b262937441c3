#include "connection/udptransport.h"

#include "common/logging.h"
#include "common/peerlabel.h"

#include <QHostInfo>

#include <algorithm>
#include <QUdpSocket>

QString UdpTransport::Peer::key() const
{
    return peerLabel(address, port);
}

UdpTransport::UdpTransport(QObject *parent)
    : PortTransport(parent)
{
}

UdpTransport::~UdpTransport()
{
    if (m_socket)
        m_socket->disconnect(this);
}

bool UdpTransport::bind(quint16 localPort)
{
    if (m_socket) {
        m_socket->disconnect(this);
        m_socket->abort();
        m_socket->deleteLater();
        m_socket = nullptr;
    }
    clearPeers();
    resetTargets();
    m_socket = new QUdpSocket(this);
    connect(m_socket, &QUdpSocket::readyRead, this, &UdpTransport::announceData);
    if (m_socket->bind(QHostAddress::AnyIPv4, localPort,
                       QAbstractSocket::ShareAddress | QAbstractSocket::ReuseAddressHint)) {
        m_socket->setSocketOption(QAbstractSocket::ReceiveBufferSizeSocketOption, kReceiveBufferBytes);
        return true;
    }
    const QString text = tr("UDP bind to port %1 FAILED: %2").arg(localPort).arg(m_socket->errorString());
    qCWarning(lcTerminal).noquote() << text;
    reportFailure(text);
    return false;
}

void UdpTransport::close()
{
    if (m_socket)
        m_socket->abort();
    clearPeers();
    resetTargets();
}

bool UdpTransport::isOpen() const
{
    return m_socket && m_socket->state() == QAbstractSocket::BoundState;
}

quint16 UdpTransport::localPort() const
{
    return isOpen() ? m_socket->localPort() : 0;
}

bool UdpTransport::hasWaitingData() const
{
    return m_socket && m_socket->hasPendingDatagrams();
}

QList<UdpTransport::Datagram> UdpTransport::readDatagrams()
{
    QList<Datagram> result;
    while (m_socket && !isReadPaused() && result.size() < kDatagramsPerRead && m_socket->hasPendingDatagrams()) {
        const qint64 size = m_socket->pendingDatagramSize();
        qCDebug(lcTerminal) << "[readUdpSocket] packetSize:" << size;
        QByteArray datagram(qMax<qint64>(size, 0), Qt::Uninitialized);
        QHostAddress sender;
        quint16 senderPort = 0;
        const qint64 read = m_socket->readDatagram(datagram.data(), datagram.size(), &sender, &senderPort);
        if (read < 0)
            break;
        datagram.truncate(read);
        registerSender(sender, senderPort, datagram);
        result.append({peerLabel(sender, senderPort), datagram});
    }
    return result;
}

void UdpTransport::deliverAvailable()
{
    const QList<Datagram> datagrams = readDatagrams();
    for (const Datagram &datagram : datagrams)
        emit received(datagram.data, datagram.peer);
}

void UdpTransport::registerSender(const QHostAddress &address, quint16 port, const QByteArray &datagram)
{
    const QString key = peerLabel(address, port);
    const QByteArray kept = datagram.left(kKeptDatagramBytes);
    const qint64 now = m_clock();
    const auto known = m_peerIndex.constFind(key);
    if (known != m_peerIndex.constEnd()) {
        Peer &peer = m_peers[*known];
        peer.lastDatagram = kept;
        peer.lastTime = QDateTime::currentDateTime();
        m_lastHeardMs[*known] = now;
        m_currentPeer = *known;
        return;
    }
    if (m_peers.size() >= kMaxPeers)
        makeRoom();
    m_peers.append({address, port, kept, QDateTime::currentDateTime()});
    m_lastHeardMs.append(now);
    m_currentPeer = int(m_peers.size()) - 1;
    m_peerIndex.insert(key, m_currentPeer);
    emit peersChanged();
}

void UdpTransport::makeRoom()
{
    // One pass drops many, so the cost spreads over the arrivals that
    // filled the room again.
    const qint64 now = m_clock();
    QList<qint64> heard = m_lastHeardMs;
    std::sort(heard.begin(), heard.end());
    const qint64 quarterMark = heard.at(heard.size() / 4);
    const qint64 cutoff = qMax(quarterMark, now - kPeerIdleMs);
    QList<Peer> peers;
    QList<qint64> lastHeard;
    peers.reserve(m_peers.size());
    lastHeard.reserve(m_peers.size());
    for (qsizetype i = 0; i < m_peers.size(); ++i) {
        if (m_lastHeardMs.at(i) > cutoff) {
            peers.append(std::move(m_peers[i]));
            lastHeard.append(m_lastHeardMs.at(i));
        }
    }
    qCDebug(lcTerminal) << "UDP peer table full: dropped" << m_peers.size() - peers.size() << "quiet peers";
    m_peers = std::move(peers);
    m_lastHeardMs = std::move(lastHeard);
    m_peerIndex.clear();
    for (int row = 0; row < m_peers.size(); ++row)
        m_peerIndex.insert(m_peers.at(row).key(), row);
    m_currentPeer = -1;
}

void UdpTransport::clearPeers()
{
    m_currentPeer = -1;
    if (m_peers.isEmpty())
        return;
    m_peers.clear();
    m_lastHeardMs.clear();
    m_peerIndex.clear();
    emit peersChanged();
}

bool UdpTransport::send(const QByteArray &data, const SendTarget &target)
{
    return sendToPeer(data, target.index >= 0 ? target.index : m_currentPeer);
}

bool UdpTransport::sendTo(const QByteArray &data, const QString &host, quint16 port)
{
    if (!m_socket)
        return false;
    qCDebug(lcTerminal) << "udpSend:" << data;
    const QString name = host.trimmed();
    QHostAddress address;
    if (!address.setAddress(name)) {
        const auto known = m_targetAddresses.constFind(name);
        if (known == m_targetAddresses.constEnd()) {
            QList<AwaitingDatagram> &waiting = m_awaitingLookup[name];
            waiting.append({data, port});
            if (waiting.size() == 1) {
                QHostInfo::lookupHost(name, this, [this, name](const QHostInfo &info) {
                    onHostLookedUp(name, info);
                });
            }
            return true;
        }
        address = *known;
    }
    return m_socket->writeDatagram(data, address, port) == data.size();
}

void UdpTransport::onHostLookedUp(const QString &host, const QHostInfo &info)
{
    const QList<AwaitingDatagram> waiting = m_awaitingLookup.take(host);
    if (!m_socket || waiting.isEmpty())
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
    m_targetAddresses.insert(host, target);
    for (const AwaitingDatagram &datagram : waiting) {
        if (m_socket->writeDatagram(datagram.data, target, datagram.port) != datagram.data.size())
            qCWarning(lcTerminal) << "udpSend failed:" << m_socket->errorString();
    }
}

void UdpTransport::resetTargets()
{
    m_targetAddresses.clear();
    m_awaitingLookup.clear();
}

bool UdpTransport::sendToPeer(const QByteArray &data, int row)
{
    if (!m_socket || data.isEmpty())
        return false;
    if (m_peers.isEmpty()) {
        emit statusMessage(tr("No UDP peer to reply to yet"), kNoticeTimeout);
        return false;
    }
    if (row < 0 || row >= m_peers.size())
        row = 0;
    qCDebug(lcTerminal) << "sendUdpToPeer: row =" << row;
    const Peer &peer = m_peers.at(row);
    return m_socket->writeDatagram(data, peer.address, peer.port) == data.size();
}

qint64 UdpTransport::bytesToWrite() const
{
    qint64 total = m_socket ? m_socket->bytesToWrite() : 0;
    for (const QList<AwaitingDatagram> &waiting : m_awaitingLookup) {
        for (const AwaitingDatagram &datagram : waiting)
            total += datagram.data.size();
    }
    return total;
}
