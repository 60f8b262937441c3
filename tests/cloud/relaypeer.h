#pragma once

#include "cloud/websocketcodec.h"

#include <QHash>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QTcpServer>

#include <memory>

class QTcpSocket;

// A small stand-in for the service's relay socket "/ws/relay/v1", on a
// loopback port: it admits ends by ticket, pairs the two ends of a relay
// with "ready", passes binary messages through one for one and in order,
// and holds back the faster end (stops reading it) while the other end's
// socket has too much waiting, as the real service does. Tickets can also
// be scripted to close with a code, or never to pair.
class RelayPeer : public QObject
{
    Q_OBJECT

public:
    struct Ticket
    {
        QString relayId;
        QString end;  // "host" or "client"
        QString portKey;
        int closeCode = 0;  // close at once with this code (and reason)
        QString closeReason;
        bool neverPair = false;
    };
    static constexpr qint64 kHighWater = 256 * 1024;
    static constexpr qint64 kLowWater = 64 * 1024;

    explicit RelayPeer(QObject *parent = nullptr);
    ~RelayPeer() override;

    bool listen();
    QString address() const;
    void addTicket(const QString &ticket, const Ticket &spec);
    // Tickets for both ends of a new relay: host first.
    std::pair<QString, QString> openRelay(const QString &relayId, const QString &portKey);

    void sendText(const QString &relayId, const QString &end, const QByteArray &json);
    void closeEnd(const QString &relayId, const QString &end, int code, const QString &reason);
    // Drops the TCP connection of an end without a close.
    void dropEnd(const QString &relayId, const QString &end);
    // The sizes of the binary messages an end sent, in order.
    QList<qsizetype> messageSizes(const QString &relayId, const QString &end) const;
    QString lastTarget() const { return m_lastTarget; }
    int connectionCount() const { return int(m_ends.size()); }
    // The most any end's socket ever had waiting to be sent.
    qint64 peakBacklog() const { return m_peakBacklog; }
    bool isReadingPaused(const QString &relayId, const QString &end) const;

private:
    struct End
    {
        QTcpSocket *socket = nullptr;
        WebSocketCodec codec{WebSocketCodec::Role::Server};
        QString ticket;
        Ticket spec;
        bool admitted = false;
        bool paused = false;
        QList<qsizetype> sizes;
    };

    void onConnection();
    void onReadable(End *end);
    void onWritten(End *end);
    void admit(End *end);
    End *find(const QString &relayId, const QString &end) const;
    End *partner(const End *end) const;
    void write(End *end, const QByteArray &bytes);

    QTcpServer m_server;
    QHash<QString, Ticket> m_tickets;
    QList<End *> m_ends;
    QString m_lastTarget;
    qint64 m_peakBacklog = 0;
    int m_nextTicket = 1;
};
