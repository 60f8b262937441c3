#include "cloud/relaypacer.h"

#include <algorithm>

RelayPacer::RelayPacer(qint64 bytesPerSecond)
{
    setLineRate(bytesPerSecond);
}

void RelayPacer::setLineRate(qint64 bytesPerSecond)
{
    m_rate = std::max<qint64>(0, bytesPerSecond);
    m_window = m_rate > 0 ? std::clamp(m_rate / 4, kMinWindow, kMaxWindow) : kMaxWindow;
}

void RelayPacer::push(const QByteArray &bytes)
{
    if (bytes.isEmpty())
        return;
    m_queue.append(bytes);
    m_queued += bytes.size();
}

void RelayPacer::clear()
{
    m_queue.clear();
    m_queued = 0;
}

RelayPacer::Step RelayPacer::step(qint64 portBacklog, bool portWritable)
{
    Step step;
    qint64 room = portWritable ? m_window - std::max<qint64>(0, portBacklog) : 0;
    while (room > 0 && !m_queue.isEmpty()) {
        QByteArray &first = m_queue.first();
        if (first.size() <= room) {
            room -= first.size();
            m_queued -= first.size();
            step.write += m_queue.takeFirst();
        } else {
            step.write += first.left(room);
            first.remove(0, room);
            m_queued -= room;
            room = 0;
        }
    }

    if (!m_holding && m_queued > kQueueHigh) {
        m_holding = true;
        step.read = Read::Pause;
    } else if (m_holding && m_queued < kQueueLow) {
        m_holding = false;
        step.read = Read::Resume;
    }

    if (m_queued > 0) {
        if (!portWritable || m_rate == 0) {
            step.wakeInMs = portWritable ? kUntimedStepMs : kMaxStepMs;
        } else {
            // Until about half the window has gone out of the port.
            const qint64 ahead = std::max<qint64>(0, portBacklog) + step.write.size() - m_window / 2;
            step.wakeInMs = std::clamp<qint64>(ahead * 1000 / m_rate, 1, kMaxStepMs);
        }
    }
    return step;
}
