#include "bridge/ratehistory.h"

#include <algorithm>

namespace {

qint64 secondOf(qint64 ms)
{
    return ms >= 0 ? ms / 1000 : (ms - 999) / 1000;
}

} // namespace

void RateHistory::advanceTo(qint64 second)
{
    if (m_currentSecond < 0 || second - m_currentSecond > qint64(m_buckets.size())) {
        m_buckets.fill(0);
    } else {
        for (qint64 s = m_currentSecond + 1; s <= second; ++s)
            m_buckets[size_t(s % qint64(m_buckets.size()))] = 0;
    }
    m_currentSecond = second;
}

void RateHistory::add(qint64 bytes, qint64 nowMs)
{
    const qint64 second = secondOf(nowMs);
    // A clock that went back (it should not) counts into the current second.
    if (second > m_currentSecond)
        advanceTo(second);
    m_buckets[size_t(m_currentSecond % qint64(m_buckets.size()))] += bytes;
}

qint64 RateHistory::bucket(qint64 second) const
{
    if (m_currentSecond < 0 || second < 0 || second > m_currentSecond
        || m_currentSecond - second >= qint64(m_buckets.size()))
        return 0;
    return m_buckets[size_t(second % qint64(m_buckets.size()))];
}

QList<qint64> RateHistory::points(qint64 nowMs) const
{
    const qint64 last = secondOf(nowMs) - 1;
    QList<qint64> result;
    result.reserve(kSeconds);
    for (qint64 s = last - kSeconds + 1; s <= last; ++s)
        result.append(bucket(s));
    return result;
}

qint64 RateHistory::lastSecond(qint64 nowMs) const
{
    return bucket(secondOf(nowMs) - 1);
}

bool RateHistory::above(qint64 bytesPerSecond, int seconds, qint64 nowMs) const
{
    if (seconds <= 0 || seconds > kSeconds)
        return false;
    const qint64 last = secondOf(nowMs) - 1;
    for (qint64 s = last - seconds + 1; s <= last; ++s) {
        if (bucket(s) <= bytesPerSecond)
            return false;
    }
    return true;
}

qint64 RateHistory::total(int seconds, qint64 nowMs) const
{
    const qint64 now = secondOf(nowMs);
    qint64 sum = 0;
    for (qint64 s = now - std::clamp(seconds, 0, kSeconds); s <= now; ++s)
        sum += bucket(s);
    return sum;
}

void RateHistory::clear()
{
    m_buckets.fill(0);
    m_currentSecond = -1;
}
