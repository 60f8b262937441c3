#pragma once

#include "terminal/chunkqueue.h"
#include "terminal/displaychunk.h"
#include "terminal/pausedbuffer.h"
#include "terminal/readthrottle.h"

#include <QByteArray>
#include <QDateTime>
#include <QList>

// Where a pane's received and echoed bytes wait for the view: the pending
// chunk queue, the paused buffer, the Rx byte count and the read throttle.
// Every received byte is counted, whether it is queued or kept while paused.
class ReceiveIngest
{
public:
    // The view's drain budget per refresh.
    static constexpr qint64 kRefreshByteBudget = 262144;
    // Larger reads are queued as several chunks of at most this size.
    static constexpr qsizetype kMaxChunkBytes = 4 * 1024;

    explicit ReceiveIngest(qsizetype displayBufferSize = 1000000);

    // Also the limit of the paused buffer, in bytes.
    void setDisplayBufferSize(qsizetype size);
    qsizetype displayBufferSize() const { return m_paused.limit(); }

    // Received bytes: counted, then queued, or kept in the paused buffer
    // while the view is paused. Empty reads do nothing.
    void ingestReceived(const QByteArray &bytes, const QDateTime &now);
    // An echo of sent bytes; not counted as received. Queued even while the
    // view is paused, to show once it drains again.
    void queueSent(const QByteArray &bytes, const QDateTime &now);

    // See ChunkQueue::takeBatch.
    QList<DisplayChunk> takeBatch(qint64 byteBudget = kRefreshByteBudget);
    qint64 pendingBytes() const { return m_queue.pendingBytes(); }
    bool hasPending() const { return !m_queue.isEmpty(); }

    // Pausing sends received bytes to the paused buffer instead of the
    // queue. Resuming queues what the buffer kept as one received chunk
    // stamped with the resume time, so nothing kept is lost.
    void pause();
    void resume(const QDateTime &now);
    bool isPaused() const { return m_isPaused; }
    const QByteArray &pausedBytes() const { return m_paused.bytes(); }

    quint64 rxCount() const { return m_rxCount; }
    void resetRxCount() { m_rxCount = 0; }
    // Bytes received that someone else took (a file transfer) still count.
    void countTaken(qsizetype bytes) { m_rxCount += quint64(bytes); }

    // Call after each ingest and each drain; the caller pauses or resumes
    // reading from the connection as told.
    ReadThrottle::Action readThrottleAction() { return m_throttle.update(m_queue.pendingBytes()); }
    ReadThrottle &readThrottle() { return m_throttle; }
    const ReadThrottle &readThrottle() const { return m_throttle; }

    // Drops what waits (the view was cleared); the Rx count stays.
    void clear();

private:
    void enqueueSplit(const QByteArray &bytes, const QDateTime &now, ChunkDirection direction);

    ChunkQueue m_queue;
    PausedBuffer m_paused;
    ReadThrottle m_throttle;
    quint64 m_rxCount = 0;
    bool m_isPaused = false;
};
