#include "watcherqueue.h"

#include <algorithm>

void WatcherQueue::push(QByteArray message, int events)
{
    // A lone message may exceed the byte limit: it is bounded by the
    // largest message the service reads at all.
    while (!m_items.empty()
           && (int(m_items.size()) >= m_limits.maxMessages || m_bytes + message.size() > m_limits.maxBytes))
        dropOne();
    m_bytes += message.size();
    m_items.push_back({std::move(message), events});
}

void WatcherQueue::dropOne()
{
    auto victim = std::find_if(m_items.begin(), m_items.end(), [](const Item &item) { return item.events > 0; });
    if (victim == m_items.end())
        victim = m_items.begin();
    if (victim->events > 0) {
        m_unreportedEvents += victim->events;
        m_lostEvents += victim->events;
    } else {
        ++m_unreportedMessages;
    }
    m_bytes -= victim->message.size();
    m_items.erase(victim);
}

QByteArray WatcherQueue::take()
{
    if (m_unreportedEvents > 0 || m_unreportedMessages > 0) {
        QByteArray notice = "{\"type\":\"lost\",\"events\":" + QByteArray::number(m_unreportedEvents)
                            + ",\"messages\":" + QByteArray::number(m_unreportedMessages) + "}";
        m_unreportedEvents = 0;
        m_unreportedMessages = 0;
        return notice;
    }
    if (m_items.empty())
        return {};
    QByteArray message = std::move(m_items.front().message);
    m_bytes -= message.size();
    m_items.pop_front();
    return message;
}
