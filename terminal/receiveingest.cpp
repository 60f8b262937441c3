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
    if (m_isPaused)
        m_paused.append(bytes);
    else
        m_queue.enqueue(DisplayChunk{now, ChunkDirection::Received, bytes});
}

void ReceiveIngest::queueSent(const QByteArray &bytes, const QDateTime &now)
{
    m_queue.enqueue(DisplayChunk{now, ChunkDirection::Sent, bytes});
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
    m_queue.enqueue(DisplayChunk{now, ChunkDirection::Received, m_paused.take()});
}

void ReceiveIngest::clear()
{
    m_queue.clear();
    m_paused.clear();
}
