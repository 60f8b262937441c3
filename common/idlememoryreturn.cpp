#include "common/idlememoryreturn.h"

#if defined(__GLIBC__)
#include <malloc.h>
#endif

bool IdleMemoryReturn::update(qint64 totalBytes, qint64 nowMs)
{
    if (totalBytes != m_lastTotal) {
        m_sinceRelease += qAbs(totalBytes - m_lastTotal);
        m_lastTotal = totalBytes;
        m_lastChangeMs = nowMs;
        return false;
    }
    if (m_sinceRelease < kBurstBytes || nowMs - m_lastChangeMs < kQuietMs)
        return false;
    m_sinceRelease = 0;
    return true;
}

void IdleMemoryReturn::release()
{
#if defined(__GLIBC__)
    malloc_trim(0);
#endif
}
