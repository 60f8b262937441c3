#pragma once

#include "common/codecstep.h"

#include <QByteArray>
#include <QByteArrayView>
#include <QList>

// Cuts one direction's byte stream into the frames a bridge forwards, fed
// bytes as they arrived and the time. It owns no timer: the owner calls
// tick() at wakeAtMs. At most one frame is buffered, and no frame is longer
// than the maximum size. Nothing is ever dropped: a partial frame goes out
// when it reaches the maximum size or its hold time has passed.
class BridgeFramer
{
public:
    enum class Mode {
        None,         // bytes as they came, cut at the maximum size
        IdleGap,      // a frame ends when the line is quiet for the gap
        Delimiter,    // a frame ends with the delimiter (kept or stripped)
        FixedLength,  // every so many bytes
    };

    struct Options
    {
        Mode mode = Mode::None;
        int idleGapMs = 20;
        QByteArray delimiter = QByteArray("\n");
        bool keepDelimiter = true;
        int fixedLength = 16;
        int maxFrameSize = 16384;
        // A partial frame goes out this long after its first byte; 0 waits
        // for the frame to end however long that takes.
        int holdMs = 0;

        bool operator==(const Options &other) const = default;
    };

    struct Frame
    {
        enum class End {
            Complete,  // the mode's own end: gap, delimiter, length, a read
            MaxSize,   // cut at the maximum size
            Hold,      // the hold time passed
        };
        QByteArray bytes;
        End end = End::Complete;
    };
    using Step = CodecStep<Frame>;

    BridgeFramer() : BridgeFramer(Options{}) {}
    explicit BridgeFramer(const Options &options);

    const Options &options() const { return m_options; }
    Step feed(QByteArrayView bytes, qint64 nowMs);
    Step tick(qint64 nowMs);
    // Bytes of a partial frame waiting.
    qsizetype pendingBytes() const { return m_buffer.size(); }
    // The partial frame goes out now (its source went away).
    Step flush();
    // Forgets the partial frame; returns how many bytes it held.
    qsizetype discard();

private:
    // Takes every frame the buffer completes by size or delimiter.
    void cutComplete(Step &step);
    qint64 wakeAt() const;

    Options m_options;
    QByteArray m_buffer;
    // Where the delimiter search goes on: bytes before it hold none.
    qsizetype m_scanned = 0;
    qint64 m_firstByteMs = 0;
    qint64 m_lastByteMs = 0;
};
