#pragma once

#include "cloud/websocketcodec.h"

#include <QElapsedTimer>
#include <QHash>
#include <QJsonObject>
#include <QObject>
#include <QPointer>

class QTcpSocket;
class QTimer;
class RelayLive;
class WorkerPool;
struct WorkReply;

// The relay sockets of this instance ("/ws/relay/v1?ticket=..."): each is
// admitted by a one-time ticket (spent in the database), the two ends of a
// relay are paired with "ready", and from then on binary messages pass
// from one end to the other untouched and in order.
//
// It speaks WebSocket through WebSocketCodec on the bare TCP socket, so it
// decides when to read: an end is read only while the other end's socket
// has less than kHighWater waiting to be sent, and each socket's own
// buffer holds at most kReadChunk. A slow reader thus holds the fast
// writer back through TCP, and memory stays bounded per relay, whatever
// the peers do.
class RelayHub : public QObject
{
    Q_OBJECT
public:
    static constexpr const char *kPath = "/ws/relay/v1";
    static constexpr qint64 kHighWater = 256 * 1024;
    static constexpr qint64 kReadChunk = 64 * 1024;
    // The program sends at most 8192 bytes a message; more is refused (1009).
    static constexpr qsizetype kMaxMessage = 64 * 1024;
    static constexpr int kHandshakeMs = 10000;
    // An admitted end waits this long for the other (its ticket lives 30 s).
    static constexpr int kPairWaitMs = 40000;
    // What ended elsewhere (a DELETE on another instance, the host's
    // refusal) is looked up this often while relays are held here.
    static constexpr int kWatchIntervalMs = 500;
    // Every this many looks, the shares behind relays held here are checked
    // for their end (expiry, a gone run), as the console checks its guests'.
    static constexpr int kShareCheckEvery = 4;
    // Relayed bytes are counted toward the owner's quota this often, or
    // sooner after this many.
    static constexpr int kChargeIntervalMs = 1000;
    static constexpr qint64 kChargeBytes = 4 * 1024 * 1024;

    // `rateLimit`: bytes per second per account (both directions of all its
    // relays here together); 0 for none.
    RelayHub(WorkerPool &pool, RelayLive &live, qint64 rateLimit, QObject *parent = nullptr);
    ~RelayHub() override;

    // A connection whose WebSocket handshake is still unread in it; the hub
    // takes it over.
    void addSocket(QTcpSocket *socket);
    // The service is stopping: every end hears "closing".
    void shutdown();

    int relayCount() const { return int(m_relays.size()); }
    int endCount() const { return int(m_ends.size()); }

private:
    struct Relay;
    struct End
    {
        QTcpSocket *socket = nullptr;
        WebSocketCodec codec{WebSocketCodec::Role::Server};
        Relay *relay = nullptr;
        QString side;  // "host" or "client", once admitted
        bool opened = false;
        bool admitting = false;
        bool closing = false;  // our close is sent; nothing more is relayed
        QList<QByteArray> early;  // binary messages before the pairing (at most one read's worth)
    };
    struct Relay
    {
        QString relayId;
        QString portKey;
        qint64 userId = 0;
        qint64 shareId = 0;  // a guest share's relay: it ends with the share
        End *host = nullptr;
        End *client = nullptr;
        bool ready = false;
        bool ended = false;
        qint64 uncharged = 0;
        bool charging = false;
        QElapsedTimer waiting;
    };
    struct Bucket
    {
        double tokens = 0;
        QElapsedTimer refilled;
        int relays = 0;
    };

    void onReadable(End *end);
    void onWritten(End *end);
    void onDisconnected(End *end);
    void handle(End *end, const WebSocketCodec::Step &step);
    void onOpened(End *end);
    void onAdmitted(QPointer<QTcpSocket> socket, const WorkReply &reply);
    void pair(Relay *relay);
    void forward(End *from, const QByteArray &payload);
    void sendText(End *end, const QJsonObject &message);
    void closeEnd(End *end, int code, const QString &reason);
    void dropEnd(End *end);
    // Ends a relay here: both ends hear `message` (if any) and are closed.
    void endRelay(Relay *relay, const QJsonObject &message, const QString &kind, const QString &reason,
                  bool record, int closeCode = 1000);
    void onRelayEnded(const QString &relayId, const QString &kind, const QString &reason);
    void watch();
    void charge(Relay *relay);
    void chargeAll();
    End *partnerOf(const End *end) const;
    // Bytes the account may read now (rate limit), and taking them.
    qint64 allowance(qint64 userId);
    void resumeLater(End *end, int delayMs);

    WorkerPool &m_pool;
    qint64 m_rateLimit;
    QHash<QTcpSocket *, End *> m_ends;
    QHash<QString, Relay *> m_relays;
    QHash<qint64, Bucket> m_buckets;  // by account, while it has relays here
    QTimer *m_watch;
    QTimer *m_charge;
    bool m_watching = false;
    int m_looks = 0;
    qint64 m_watchedUntil = 0;  // the database's time of the last look
    bool m_shuttingDown = false;
};
