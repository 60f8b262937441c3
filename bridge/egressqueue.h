#pragma once

#include <QByteArray>
#include <QtGlobal>

#include <deque>

// Frames waiting for one outlet of a bridge (a pane, a listener client),
// bounded by a high and a low watermark in bytes and a policy for when the
// outlet does not keep up. Only whole frames are queued, taken and dropped,
// and every drop is reported to the caller, who counts it.
class EgressQueue
{
public:
    enum class Policy {
        // Keep everything; ask for the source to stop reading at the high
        // watermark and to go on at the low one. Nothing is lost: the
        // source's own flow control holds the sender back.
        PauseSource,
        // At the high watermark the oldest frames make room, down to the
        // low watermark, so what is lost is one gap, not a sieve.
        DropOldest,
        // From the high watermark on, arriving frames are dropped until the
        // queue is back at the low watermark.
        DropNewest,
        // Past the high watermark the outlet is dropped with what it holds.
        Disconnect,
    };

    struct Options
    {
        qint64 highWatermark = 1024 * 1024;
        qint64 lowWatermark = 256 * 1024;
        Policy policy = Policy::PauseSource;

        bool operator==(const Options &other) const = default;
    };

    struct PushResult
    {
        qint64 droppedFrames = 0;
        qint64 droppedBytes = 0;
        // Disconnect: the outlet must go; its frames are already counted
        // in the drop above and the queue is empty.
        bool disconnect = false;
    };

    EgressQueue() : EgressQueue(Options{}) {}
    explicit EgressQueue(const Options &options);

    const Options &options() const { return m_options; }
    PushResult push(QByteArray frame);
    // Whole frames, at least one while any waits, joined into one block of
    // about maxBytes (a frame larger than that comes whole).
    QByteArray takeUpTo(qint64 maxBytes);
    // The oldest frame alone (datagram outlets keep frames apart).
    QByteArray takeFrame();

    bool isEmpty() const { return m_frames.empty(); }
    qint64 bytes() const { return m_bytes; }
    qsizetype frames() const { return qsizetype(m_frames.size()); }
    // Pause source: whether the source should stop now, and may go on.
    bool wantsSourcePaused() const { return m_bytes >= m_options.highWatermark; }
    bool letsSourceResume() const { return m_bytes <= m_options.lowWatermark; }
    // Empties the queue; what it held is returned as a drop.
    PushResult clear();

private:
    void afterTake();

    Options m_options;
    std::deque<QByteArray> m_frames;
    qint64 m_bytes = 0;
    bool m_dropping = false;  // drop newest: between the watermarks
};
