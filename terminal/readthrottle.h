#pragma once

#include <QtGlobal>

// Decides when to stop and restart reading from the connection so that the
// bytes waiting for the view stay bounded however fast the sender is. Two
// watermarks keep it from flapping: reading stops above the high one and
// resumes only below the low one. Nothing is dropped; the unread bytes wait
// in the transport (and, for TCP, the sender is slowed by flow control).
class ReadThrottle
{
public:
    enum class Action {
        None,
        PauseReading,
        ResumeReading,
    };

    // About 16 refreshes' worth of the view's drain budget before reading
    // stops; resumes once four or fewer are left.
    static constexpr qint64 kDefaultHighWatermark = 4 * 1024 * 1024;
    static constexpr qint64 kDefaultLowWatermark = 1024 * 1024;

    explicit ReadThrottle(qint64 highWatermark = kDefaultHighWatermark,
                          qint64 lowWatermark = kDefaultLowWatermark);

    // A low watermark above the high one is lowered to it.
    void setWatermarks(qint64 highWatermark, qint64 lowWatermark);
    qint64 highWatermark() const { return m_high; }
    qint64 lowWatermark() const { return m_low; }

    // Feed the pending byte count after every ingest and every drain; acts
    // only on a change of state.
    Action update(qint64 pendingBytes);
    bool isReadingPaused() const { return m_paused; }
    // Forget a pause, e.g. when the connection closes.
    void reset() { m_paused = false; }

private:
    qint64 m_high;
    qint64 m_low;
    bool m_paused = false;
};
