#pragma once

#include <QByteArray>
#include <QHash>
#include <QList>

#include <optional>

// Cuts a message between service instances into NOTIFY payloads and joins
// them again. PostgreSQL refuses a payload of 8000 bytes or more, while a
// console message (a batch of traffic) may be far larger, so each payload
// is one piece: a header line "<origin> <serial> <index> <count>" and up to
// kMaxPieceBytes of the message, cut between UTF-8 characters (a payload
// must be valid text). Pure: no database, no sockets.
class NoticeFrames
{
public:
    static constexpr int kMaxPieceBytes = 7800;
    // A message longer than this is not sent at all (split returns nothing).
    static constexpr qint64 kMaxMessageBytes = 4 * 1024 * 1024;
    // Messages being joined at once; beyond, the oldest is given up.
    static constexpr int kMaxPending = 64;

    static QList<QByteArray> split(const QByteArray &origin, quint64 serial, const QByteArray &message);

    struct Joined
    {
        QByteArray origin;
        QByteArray message;
    };
    // A whole message once its last piece is fed; nothing for a piece of
    // one still incomplete or for a malformed payload (counted).
    std::optional<Joined> feed(const QByteArray &payload);

    qint64 malformed() const { return m_malformed; }
    // Messages given up incomplete: a piece missing, or too many pending.
    qint64 abandoned() const { return m_abandoned; }
    int pending() const { return int(m_pending.size()); }

private:
    struct Partial
    {
        int count = 0;
        int next = 0;  // pieces of one message come in order
        QByteArray text;
        quint64 age = 0;
    };

    QHash<QByteArray, Partial> m_pending;  // by "origin serial"
    quint64 m_age = 0;
    qint64 m_malformed = 0;
    qint64 m_abandoned = 0;
};
