#pragma once

#include "terminal/displaychunk.h"

#include <QList>

#include <deque>

// The first-in first-out list of chunks waiting for the view. It is drained
// in batches bounded by a byte budget so that one refresh never takes long,
// however much has piled up.
class ChunkQueue
{
public:
    // Empty chunks are not queued: they would show nothing.
    void enqueue(DisplayChunk chunk);

    // Takes the oldest chunks off the queue until their bytes reach the
    // budget; the chunk that crosses it is taken whole. A negative budget
    // takes everything. At least one chunk is taken when any is queued.
    QList<DisplayChunk> takeBatch(qint64 byteBudget = -1);

    bool isEmpty() const { return m_chunks.empty(); }
    qsizetype count() const { return qsizetype(m_chunks.size()); }
    qint64 pendingBytes() const { return m_bytes; }
    void clear();

private:
    std::deque<DisplayChunk> m_chunks;
    qint64 m_bytes = 0;
};
