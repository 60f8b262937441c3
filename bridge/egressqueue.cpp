#include "bridge/egressqueue.h"

#include <algorithm>

EgressQueue::EgressQueue(const Options &options)
    : m_options(options)
{
    m_options.highWatermark = std::max<qint64>(1, m_options.highWatermark);
    m_options.lowWatermark = std::clamp<qint64>(m_options.lowWatermark, 0, m_options.highWatermark);
}

EgressQueue::PushResult EgressQueue::push(QByteArray frame)
{
    PushResult result;
    if (frame.isEmpty())
        return result;
    const qint64 size = frame.size();
    const bool over = m_bytes + size > m_options.highWatermark;
    switch (m_options.policy) {
    case Policy::PauseSource:
        break;
    case Policy::DropNewest:
        if (over)
            m_dropping = true;
        if (m_dropping) {
            result.droppedFrames = 1;
            result.droppedBytes = size;
            return result;
        }
        break;
    case Policy::DropOldest:
        if (over) {
            while (!m_frames.empty() && m_bytes + size > m_options.lowWatermark) {
                result.droppedBytes += m_frames.front().size();
                ++result.droppedFrames;
                m_bytes -= m_frames.front().size();
                m_frames.pop_front();
            }
        }
        break;
    case Policy::Disconnect:
        if (over) {
            result = clear();
            ++result.droppedFrames;
            result.droppedBytes += size;
            result.disconnect = true;
            return result;
        }
        break;
    }
    m_bytes += size;
    m_frames.push_back(std::move(frame));
    return result;
}

QByteArray EgressQueue::takeUpTo(qint64 maxBytes)
{
    if (m_frames.empty())
        return {};
    QByteArray block = std::move(m_frames.front());
    m_frames.pop_front();
    if (!m_frames.empty() && block.size() + m_frames.front().size() <= maxBytes) {
        qint64 total = block.size();
        for (auto it = m_frames.begin(); it != m_frames.end() && total + it->size() <= maxBytes; ++it)
            total += it->size();
        block.reserve(total);
        while (!m_frames.empty() && block.size() + m_frames.front().size() <= maxBytes) {
            block.append(m_frames.front());
            m_frames.pop_front();
        }
    }
    m_bytes -= block.size();
    afterTake();
    return block;
}

QByteArray EgressQueue::takeFrame()
{
    if (m_frames.empty())
        return {};
    QByteArray frame = std::move(m_frames.front());
    m_frames.pop_front();
    m_bytes -= frame.size();
    afterTake();
    return frame;
}

void EgressQueue::afterTake()
{
    if (m_dropping && m_bytes <= m_options.lowWatermark)
        m_dropping = false;
}

EgressQueue::PushResult EgressQueue::clear()
{
    PushResult result;
    result.droppedFrames = qint64(m_frames.size());
    result.droppedBytes = m_bytes;
    m_frames.clear();
    m_bytes = 0;
    m_dropping = false;
    return result;
}
