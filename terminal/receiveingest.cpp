#include "terminal/receiveingest.h"

ReceiveIngest::ReceiveIngest(qsizetype displayBufferSize)
    : m_paused(displayBufferSize)
{
}

void ReceiveIngest::setDisplayBufferSize(qsizetype size)
{
    m_paused.setLimit(size);
}

void ReceiveIngest::ingestReceived(const QByteArray &bytes, const QDateTime &now)
{
    if (bytes.isEmpty())
        return;
    m_rxCount += quint64(bytes.size());
    if (m_isPaused) {
        m_paused.append(bytes);
        return;
    }
    enqueueSplit(bytes, now, ChunkDirection::Received);
}

void ReceiveIngest::enqueueSplit(const QByteArray &bytes, const QDateTime &now, ChunkDirection direction)
{
    // A read after a long pause can hold megabytes; as one chunk it would be
    // one enormous insert that no drain budget could bound.
    if (bytes.size() <= kMaxChunkBytes) {
        m_queue.enqueue(DisplayChunk{now, direction, bytes});
        return;
    }
    for (qsizetype at = 0; at < bytes.size(); at += kMaxChunkBytes)
        m_queue.enqueue(DisplayChunk{now, direction, bytes.mid(at, kMaxChunkBytes)});
}

void ReceiveIngest::queueSent(const QByteArray &bytes, const QDateTime &now)
{
    enqueueSplit(bytes, now, ChunkDirection::Sent);
}

QList<DisplayChunk> ReceiveIngest::takeBatch(qint64 byteBudget)
{
    return m_queue.takeBatch(byteBudget);
}

void ReceiveIngest::pause()
{
    m_isPaused = true;
}

void ReceiveIngest::resume(const QDateTime &now)
{
    if (!m_isPaused)
        return;
    m_isPaused = false;
    const QByteArray kept = m_paused.take();
    if (!kept.isEmpty())
        enqueueSplit(kept, now, ChunkDirection::Received);
}

void ReceiveIngest::clear()
{
    m_queue.clear();
    m_paused.clear();
}
