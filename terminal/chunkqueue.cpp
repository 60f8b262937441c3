#include "terminal/chunkqueue.h"

void ChunkQueue::enqueue(DisplayChunk chunk)
{
    if (chunk.bytes.isEmpty())
        return;
    m_bytes += chunk.bytes.size();
    m_chunks.push_back(std::move(chunk));
}

QList<DisplayChunk> ChunkQueue::takeBatch(qint64 byteBudget)
{
    QList<DisplayChunk> batch;
    qint64 taken = 0;
    while (!m_chunks.empty()) {
        DisplayChunk chunk = std::move(m_chunks.front());
        m_chunks.pop_front();
        taken += chunk.bytes.size();
        m_bytes -= chunk.bytes.size();
        batch.append(std::move(chunk));
        if (byteBudget >= 0 && taken >= byteBudget)
            break;
    }
    return batch;
}

void ChunkQueue::clear()
{
    m_chunks.clear();
    m_bytes = 0;
}
