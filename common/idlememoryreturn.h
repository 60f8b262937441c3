#pragma once

#include <QtGlobal>

// Gives memory back to the system once a burst of traffic is over. After a
// storm the allocator keeps the freed pages for reuse, so a window that
// carried a few hundred megabytes for a minute would hold them for good;
// asking it to release them is cheap once, and pointless while traffic
// flows. Fed the running byte count and the time; pure, no timer inside.
class IdleMemoryReturn
{
public:
    // Traffic since the last release that makes one worth it.
    static constexpr qint64 kBurstBytes = 16 * 1024 * 1024;
    // How long the count must stand still first.
    static constexpr qint64 kQuietMs = 1000;

    // True when memory should be released now (the caller then calls
    // release()); the count may go down (counters reset), which counts as
    // traffic.
    bool update(qint64 totalBytes, qint64 nowMs);

    // Returns the allocator's free pages to the system where it can.
    static void release();

private:
    qint64 m_lastTotal = 0;
    qint64 m_sinceRelease = 0;
    qint64 m_lastChangeMs = 0;
};
