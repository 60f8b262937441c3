#include "terminal/readthrottle.h"

#include <algorithm>

ReadThrottle::ReadThrottle(qint64 highWatermark, qint64 lowWatermark)
{
    setWatermarks(highWatermark, lowWatermark);
}

void ReadThrottle::setWatermarks(qint64 highWatermark, qint64 lowWatermark)
{
    m_high = std::max<qint64>(0, highWatermark);
    m_low = std::clamp<qint64>(lowWatermark, 0, m_high);
}

ReadThrottle::Action ReadThrottle::update(qint64 pendingBytes)
{
    if (!m_paused && pendingBytes > m_high) {
        m_paused = true;
        return Action::PauseReading;
    }
    // An empty queue always resumes, even with a low watermark of zero.
    if (m_paused && (pendingBytes < m_low || pendingBytes <= 0)) {
        m_paused = false;
        return Action::ResumeReading;
    }
    return Action::None;
}
