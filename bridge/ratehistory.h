#pragma once

#include <QList>
#include <QtGlobal>

#include <array>

// Bytes per second over the last two minutes, one bucket per second of a
// monotonic clock; the time comes in with every call. Seconds without
// traffic read as zero.
class RateHistory
{
public:
    static constexpr int kSeconds = 120;

    void add(qint64 bytes, qint64 nowMs);
    // The completed seconds, oldest first: kSeconds values.
    QList<qint64> points(qint64 nowMs) const;
    // The last completed second.
    qint64 lastSecond(qint64 nowMs) const;
    // Whether each of the last `seconds` completed seconds carried more
    // than `bytesPerSecond`.
    bool above(qint64 bytesPerSecond, int seconds, qint64 nowMs) const;
    // The current second and the `seconds` completed ones before it.
    qint64 total(int seconds, qint64 nowMs) const;
    void clear();

private:
    // Bytes of second s (s = ms / 1000); 0 when that second is out of range.
    qint64 bucket(qint64 second) const;
    void advanceTo(qint64 second);

    std::array<qint64, kSeconds + 1> m_buckets{};
    qint64 m_currentSecond = -1;
};
