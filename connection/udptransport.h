#pragma once

#include "common/monotonicclock.h"
#include "connection/porttransport.h"

#include <QDateTime>
#include <QHash>
#include <QHostAddress>
#include <QList>

class QHostInfo;
class QUdpSocket;

// The UDP socket of the three UDP modes: bound to a local port, it hears
// every sender (kept in a peer table, the last one heard being current) and
// sends datagrams to a named target or back to a peer.
class UdpTransport : public PortTransport
{
    Q_OBJECT

public:
    // One remote end of the socket, keyed by "%1:%2" (address, port).
    struct Peer
    {
        QHostAddress address;
        quint16 port = 0;
        // The start of the last datagram (at most kKeptDatagramBytes).
        QByteArray lastDatagram;
        QDateTime lastTime;

        QString key() const;
    };

    // The table is bounded, since any host can send from any number of
    // ports: when full, peers silent for kPeerIdleMs go first, then the
    // quarter heard from least recently. Each keeps only the start of its
    // last datagram.
    static constexpr int kMaxPeers = 1024;
    static constexpr qint64 kPeerIdleMs = 10 * 60 * 1000;
    static constexpr int kKeptDatagramBytes = 512;
    // The kernel's buffer for datagrams not yet read: room for a burst
    // while the loop is busy elsewhere.
    static constexpr int kReceiveBufferBytes = 4 * 1024 * 1024;
    // Datagrams taken per notification; the rest wait for the next turn of
    // the event loop, so a flood cannot keep the loop here.
    static constexpr int kDatagramsPerRead = 256;

    // One received datagram, labelled "%1:%2" by its sender.
    struct Datagram
    {
        QString peer;
        QByteArray data;
    };

    explicit UdpTransport(QObject *parent = nullptr);
    ~UdpTransport() override;

    // Time for the peer table's idle expiry; tests pass a virtual clock.
    void setClock(MonotonicClock clock) { m_clock = std::move(clock); }

    bool bind(quint16 localPort);
    void close() override;
    bool isOpen() const override;
    // target.index: a peer row to reply to (-1: the current peer).
    bool send(const QByteArray &data, const SendTarget &target) override;
    // host is an address or a name; datagrams for a name wait for its
    // lookup (once per bind) and a name that does not resolve is reported as
    // "UDP send to %1 FAILED: %2".
    bool sendTo(const QByteArray &data, const QString &host, quint16 port);
    // A row outside the peer table means the first peer.
    bool sendToPeer(const QByteArray &data, int row);
    qint64 bytesToWrite() const override;

    // Every waiting datagram, registering its sender (empty while paused).
    QList<Datagram> readDatagrams();

    quint16 localPort() const;
    const QList<Peer> &peers() const { return m_peers; }
    int currentPeer() const { return m_currentPeer; }

Q_SIGNALS:
    void peersChanged();

protected:
    void deliverAvailable() override;
    bool hasWaitingData() const override;

private:
    void clearPeers();
    void resetTargets();
    void registerSender(const QHostAddress &address, quint16 port, const QByteArray &datagram);
    void makeRoom();
    void onHostLookedUp(const QString &host, const QHostInfo &info);

    MonotonicClock m_clock = systemMonotonicClock();
    QUdpSocket *m_socket = nullptr;
    QList<Peer> m_peers;
    QHash<QString, int> m_peerIndex;
    // When each peer (same row) was last heard, on the monotonic clock.
    QList<qint64> m_lastHeardMs;
    int m_currentPeer = -1;

    // Target names already resolved for this bind, and datagrams waiting for
    // a name's lookup.
    struct AwaitingDatagram
    {
        QByteArray data;
        quint16 port = 0;
    };
    QHash<QString, QHostAddress> m_targetAddresses;
    QHash<QString, QList<AwaitingDatagram>> m_awaitingLookup;
};
