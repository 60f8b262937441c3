#include "terminal/pausedbuffer.h"

#include <algorithm>

PausedBuffer::PausedBuffer(qsizetype limit)
    : m_limit(std::max<qsizetype>(0, limit))
{
}

void PausedBuffer::setLimit(qsizetype limit)
{
    m_limit = std::max<qsizetype>(0, limit);
    trim();
}

void PausedBuffer::append(QByteArrayView bytes)
{
    if (bytes.size() >= m_limit) {
        // Only the tail of this read survives; skip copying the rest.
        m_bytes = bytes.last(m_limit).toByteArray();
        return;
    }
    m_bytes.append(bytes);
    trim();
}

QByteArray PausedBuffer::take()
{
    QByteArray out;
    out.swap(m_bytes);
    return out;
}

void PausedBuffer::trim()
{
    // Removing from the front only moves the start of Qt's buffer, so this
    // stays cheap even for a large limit and small reads.
    if (m_bytes.size() > m_limit)
        m_bytes.remove(0, m_bytes.size() - m_limit);
}
