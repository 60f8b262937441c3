#pragma once

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
        QByteArray lastDatagram;
        QDateTime lastTime;

        QString key() const;
    };

    // One received datagram, labelled "%1:%2" by its sender.
    struct Datagram
    {
        QString peer;
        QByteArray data;
    };

    explicit UdpTransport(QObject *parent = nullptr);
    ~UdpTransport() override;

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
    void onHostLookedUp(const QString &host, const QHostInfo &info);

    QUdpSocket *m_socket = nullptr;
    QList<Peer> m_peers;
    QHash<QString, int> m_peerIndex;
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
