#pragma once

#include <QByteArray>

#include <deque>

// What waits to be written to one watching browser. It never holds more
// than its limits: when a message does not fit, the oldest traffic goes
// first, then the oldest message of any kind; the watcher is told how
// many events (and other messages) it lost, before the next message it
// gets. No sockets here: the owner takes messages while the watcher's
// socket keeps up.
struct WatcherQueueLimits
{
    int maxMessages = 512;
    qint64 maxBytes = 1024 * 1024;
};

class WatcherQueue
{
public:
    using Limits = WatcherQueueLimits;

    explicit WatcherQueue(Limits limits = {}) : m_limits(limits) {}

    // `events` > 0: a batch of traffic holding that many events.
    void push(QByteArray message, int events);
    bool isEmpty() const { return m_items.empty() && m_unreportedEvents == 0 && m_unreportedMessages == 0; }
    // The next message to write: the notice of what was lost, when
    // something was, else the oldest message. Empty when nothing waits.
    QByteArray take();

    qsizetype size() const { return qsizetype(m_items.size()); }
    qint64 bytes() const { return m_bytes; }
    qint64 lostEvents() const { return m_lostEvents; }

private:
    struct Item
    {
        QByteArray message;
        int events = 0;
    };
    void dropOne();

    Limits m_limits;
    std::deque<Item> m_items;
    qint64 m_bytes = 0;
    qint64 m_unreportedEvents = 0;
    qint64 m_unreportedMessages = 0;
    qint64 m_lostEvents = 0;
};
