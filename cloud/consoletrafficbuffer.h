#pragma once

#include <QJsonArray>
#include <QString>
#include <QStringView>

#include <deque>

// Port traffic captured for the Live Console's watchers, waiting for the
// next upload. Each event is one port's text in one direction; a read that
// follows the last event of the same port and direction closely is added to
// it, so a port delivering many small reads makes few events. The buffer is
// bounded in events and in bytes: when full, the oldest events go, and are
// counted, so a stalled upload never grows the program's memory.
class ConsoleTrafficBuffer
{
public:
    // An event's text is cut to this many characters.
    static constexpr qsizetype kMaxPayloadChars = 8192;
    static constexpr int kBatchEvents = 64;
    static constexpr qsizetype kMaxEvents = 2048;
    static constexpr qint64 kMaxBytes = 4 * 1024 * 1024;
    // Reads this close to an event's first one join it.
    static constexpr qint64 kJoinWindowMs = 50;

    explicit ConsoleTrafficBuffer(qsizetype maxEvents = kMaxEvents, qint64 maxBytes = kMaxBytes);

    // clientTimeMs: milliseconds since the epoch when the text passed.
    void append(const QString &portKey, bool isTx, QStringView text, qint64 clientTimeMs);

    bool isEmpty() const { return m_events.empty(); }
    qsizetype eventCount() const { return qsizetype(m_events.size()); }
    // UTF-8 bytes of every buffered text: what the upload costs the quota.
    qint64 bytes() const { return m_bytes; }

    // The oldest events, at most maxEvents, as the upload sends them:
    // "port_key", "event_type" ("tx" or "rx"), "payload_text", "seq" (a
    // running number; a gap means events were dropped) and "client_time".
    QJsonArray takeBatch(int maxEvents = kBatchEvents);
    // Events dropped for room since the last call.
    quint64 takeDropped() { return std::exchange(m_droppedSinceTaken, 0); }
    quint64 droppedTotal() const { return m_droppedTotal; }
    // Forgets what is buffered, without counting it as dropped.
    void clear();

    static qint64 utf8Length(QStringView text);

private:
    struct Event
    {
        QString portKey;
        bool isTx;
        QString text;
        qint64 bytes;
        qint64 seq;
        qint64 clientTimeMs;
    };
    void dropOldest();

    qsizetype m_maxEvents;
    qint64 m_maxBytes;
    std::deque<Event> m_events;
    qint64 m_bytes = 0;
    qint64 m_nextSeq = 1;
    quint64 m_droppedSinceTaken = 0;
    quint64 m_droppedTotal = 0;
};
