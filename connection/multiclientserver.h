#pragma once

#include <QByteArray>
#include <QHash>
#include <QHostAddress>
#include <QList>
#include <QMap>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QTcpServer>
#include <QTimer>

class QTcpSocket;

// The listening side of a TCP server connection: accepts any number of
// clients (or one, in exclusive mode), admits only allowlisted addresses when
// a list is set, delivers what each client sends and writes to one client,
// to a client named by its label, or to all of them.
class MultiClientServer : public QTcpServer
{
    Q_OBJECT

public:
    explicit MultiClientServer(QObject *parent = nullptr);
    ~MultiClientServer() override;

    // Options; set before listen(). Low delay and pausing also act at once
    // on every connected client, and every newly admitted client gets them.
    void setExclusive(bool on);
    bool isExclusive() const { return m_exclusive; }
    void setAllowlist(const QStringList &entries);
    QStringList allowlist() const { return m_allowlist; }
    void setLowDelay(bool on);
    bool isLowDelay() const { return m_lowDelay; }
    // While paused no connection is accepted (the kernel holds them) and
    // the clients' data stays in their sockets (each limited to a small read
    // buffer so TCP holds the senders back); resuming delivers what is
    // waiting. Either way costs nothing per connected client. Data, and a
    // client's leaving, are delivered in the order the clients had them, in
    // passes a few milliseconds long, so no burst holds the event loop: a
    // client that left is counted until what it sent last is delivered.
    void setReadPaused(bool on);
    bool isReadPaused() const { return m_readPaused; }

    // Closes every client and the listening socket. Emits nothing.
    void stop();

    // index must name a connected client; empty data or a bad index is false.
    bool writeToClient(int index, const QByteArray &data);
    // The first client whose label equals peer; false when none matches.
    bool writeToClient(const QByteArray &data, const QString &peer);
    // Every connected client; the largest byte count any one write reported.
    qint64 writeToAll(const QByteArray &data);

    // A client holding this much unsent is not reading: writes to it are
    // refused (to all clients: skipped) until it takes some.
    static constexpr qint64 kClientWriteHighWatermark = 1024 * 1024;

    qint64 bytesToWrite() const;
    // What waits for one client, by label or index; 0 for none.
    qint64 clientBytesToWrite(const QString &peer) const;
    qint64 clientBytesToWrite(int index) const;
    // Closes one client at once, as if it had left; false when none has
    // that label.
    bool disconnectClient(const QString &peer);
    // The most any one client still has to take.
    qint64 largestClientBacklog() const;
    // The least any connected client still has to take: what holds back a
    // send to all, which skips the clients that do not read.
    qint64 smallestClientBacklog() const;
    int clientCount() const { return int(m_clients.size()); }
    // "%1:%2" labels (address, port) in the order the clients were accepted.
    QStringList clientLabels() const;

    // Whether the allowlist admits the address. An empty list admits
    // everyone; a list of only invalid entries admits no one.
    static bool isAllowed(const QHostAddress &address, const QStringList &allowlist);
    static QString labelFor(const QHostAddress &address, quint16 port);

Q_SIGNALS:
    void connectionStateChange();
    // data from one client; peer is that client's label
    void newMessage(const QByteArray &message, const QString &peer);
    void clientGone(const QString &peer);
    void clientArrived(const QString &peer);
    void bytesWritten(qint64 bytes);
    void connectionRefused(const QString &peer, const QString &reason);
    // A send to all clients passed this one by: it holds its cap unread.
    void clientSkipped(const QString &peer);

protected:
    void incomingConnection(qintptr descriptor) override;

private:
    struct Arrival
    {
        QHostAddress address;
        QString label;
    };

    void handleNewConnection();
    void clientDisconnected(QTcpSocket *socket);
    void readReady(QTcpSocket *socket);
    QTcpSocket *clientAt(int index) const;
    static bool isBacklogged(const QTcpSocket *socket);
    void applyClientOptions(QTcpSocket *socket) const;
    void deliver(QTcpSocket *socket);
    void deliverWaiting();
    void queueDelivery(QTcpSocket *socket);
    void scheduleDelivery();
    void removeClient(QTcpSocket *socket);
    void refuse(QTcpSocket *socket, const QString &label, const QString &reason);

    // In the order they were accepted, keyed by a running number, so a
    // client leaves without a search through the others.
    QMap<quint64, QTcpSocket *> m_clients;
    QHash<QTcpSocket *, quint64> m_order;
    quint64 m_nextOrder = 0;
    QHash<QTcpSocket *, QString> m_labels;
    QHash<QString, QTcpSocket *> m_byLabel;
    // Clients with data (or gone, with their last data) in the order they
    // said so, delivered in time-bounded passes; the set answers "already
    // queued?" at once and is the truth: a removed client leaves the list
    // entry behind, skipped when reached.
    QList<QTcpSocket *> m_waiting;
    QSet<QTcpSocket *> m_waitingSet;
    QSet<QTcpSocket *> m_leaving;
    // Accepted but not yet admitted (QTcpServer's pending ones).
    QHash<QTcpSocket *, Arrival> m_arriving;
    QTimer m_deliveryPass;
    // Clients that sends to all are passing by until they read again.
    QSet<QTcpSocket *> m_skipping;
    QStringList m_allowlist;
    bool m_exclusive = false;
    bool m_readPaused = false;
    bool m_lowDelay = false;
};
