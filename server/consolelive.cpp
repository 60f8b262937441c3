#include "consolelive.h"

int ConsoleLive::watchers(const QString &cid) const
{
    std::lock_guard lock(m_mutex);
    return m_watchers.value(cid);
}

bool ConsoleLive::holdsSocket(const QString &cid) const
{
    std::lock_guard lock(m_mutex);
    return m_sockets.contains(cid);
}

void ConsoleLive::setWatchers(const QString &cid, int count)
{
    std::lock_guard lock(m_mutex);
    if (count > 0)
        m_watchers.insert(cid, count);
    else
        m_watchers.remove(cid);
}

void ConsoleLive::setHoldsSocket(const QString &cid, bool held)
{
    std::lock_guard lock(m_mutex);
    if (held)
        m_sockets.insert(cid);
    else
        m_sockets.remove(cid);
}

int ConsoleLive::shareGuests(qint64 shareId) const
{
    std::lock_guard lock(m_mutex);
    return m_shareGuests.value(shareId);
}

void ConsoleLive::setShareGuests(qint64 shareId, int count)
{
    std::lock_guard lock(m_mutex);
    if (count > 0)
        m_shareGuests.insert(shareId, count);
    else
        m_shareGuests.remove(shareId);
}
