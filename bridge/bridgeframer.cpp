#include "bridge/bridgeframer.h"

#include <algorithm>
#include <utility>

BridgeFramer::BridgeFramer(const Options &options)
    : m_options(options)
{
    // Nonsense sizes would loop or never cut; the record refuses them, and
    // a framer built without that check still behaves.
    m_options.maxFrameSize = std::max(1, m_options.maxFrameSize);
    m_options.fixedLength = std::clamp(m_options.fixedLength, 1, m_options.maxFrameSize);
    if (m_options.mode == Mode::Delimiter && m_options.delimiter.isEmpty())
        m_options.mode = Mode::None;
}

BridgeFramer::Step BridgeFramer::feed(QByteArrayView bytes, qint64 nowMs)
{
    // A frame whose gap or hold time ran out before these bytes came ends
    // first, even when the tick that would have sent it is late.
    Step step = tick(nowMs);
    if (bytes.isEmpty())
        return step;

    const qsizetype max = m_options.maxFrameSize;
    if (m_options.mode == Mode::None) {
        for (qsizetype pos = 0; pos < bytes.size(); pos += max) {
            const qsizetype length = std::min(max, bytes.size() - pos);
            const bool cut = pos + length < bytes.size();
            step.events.append(Frame{bytes.sliced(pos, length).toByteArray(), cut ? Frame::End::MaxSize
                                                                                  : Frame::End::Complete});
        }
        return step;
    }

    const qsizetype held = m_buffer.size();
    if (held == 0)
        m_firstByteMs = nowMs;
    m_lastByteMs = nowMs;
    m_buffer.append(bytes.data(), bytes.size());
    cutComplete(step);
    // The frame now waiting began with these bytes unless it still holds
    // some that came before them.
    if (held > 0 && !m_buffer.isEmpty() && m_buffer.size() <= bytes.size())
        m_firstByteMs = nowMs;
    step.wakeAtMs = wakeAt();
    return step;
}

void BridgeFramer::cutComplete(Step &step)
{
    const qsizetype max = m_options.maxFrameSize;
    qsizetype pos = 0;
    switch (m_options.mode) {
    case Mode::None:
        break;
    case Mode::IdleGap:
        // Only the size ends a frame here; the gap ends it in tick().
        while (m_buffer.size() - pos >= max) {
            step.events.append(Frame{m_buffer.mid(pos, max), Frame::End::MaxSize});
            pos += max;
        }
        break;
    case Mode::FixedLength: {
        const qsizetype length = m_options.fixedLength;
        while (m_buffer.size() - pos >= length) {
            step.events.append(Frame{m_buffer.mid(pos, length), Frame::End::Complete});
            pos += length;
        }
        break;
    }
    case Mode::Delimiter: {
        const QByteArray &delimiter = m_options.delimiter;
        const qsizetype dlen = delimiter.size();
        qsizetype scan = m_scanned;
        for (;;) {
            const qsizetype at = m_buffer.indexOf(delimiter, std::max(scan, pos));
            if (at >= 0) {
                const qsizetype contentEnd = m_options.keepDelimiter ? at + dlen : at;
                if (contentEnd - pos <= max) {
                    // A stripped delimiter right after the previous one
                    // leaves nothing to send.
                    if (contentEnd > pos)
                        step.events.append(Frame{m_buffer.mid(pos, contentEnd - pos), Frame::End::Complete});
                    pos = at + dlen;
                    scan = pos;
                    continue;
                }
            }
            if (m_buffer.size() - pos >= max) {
                step.events.append(Frame{m_buffer.mid(pos, max), Frame::End::MaxSize});
                pos += max;
                continue;
            }
            // No delimiter starts before the last dlen - 1 bytes.
            scan = std::max(pos, m_buffer.size() - dlen + 1);
            break;
        }
        m_scanned = scan - pos;
        break;
    }
    }
    if (pos > 0)
        m_buffer.remove(0, pos);
    if (m_buffer.isEmpty())
        m_scanned = 0;
}

BridgeFramer::Step BridgeFramer::tick(qint64 nowMs)
{
    Step step;
    if (m_buffer.isEmpty())
        return step;
    const bool gapOver = m_options.mode == Mode::IdleGap && nowMs - m_lastByteMs >= m_options.idleGapMs;
    const bool holdOver = m_options.holdMs > 0 && nowMs - m_firstByteMs >= m_options.holdMs;
    if (gapOver || holdOver) {
        step.events.append(Frame{std::exchange(m_buffer, QByteArray()), gapOver ? Frame::End::Complete
                                                                                : Frame::End::Hold});
        m_scanned = 0;
    }
    step.wakeAtMs = wakeAt();
    return step;
}

qint64 BridgeFramer::wakeAt() const
{
    if (m_buffer.isEmpty())
        return Step::kNoWake;
    qint64 wake = Step::kNoWake;
    if (m_options.mode == Mode::IdleGap)
        wake = m_lastByteMs + m_options.idleGapMs;
    if (m_options.holdMs > 0) {
        const qint64 hold = m_firstByteMs + m_options.holdMs;
        wake = wake == Step::kNoWake ? hold : std::min(wake, hold);
    }
    return wake;
}

BridgeFramer::Step BridgeFramer::flush()
{
    Step step;
    m_scanned = 0;
    if (!m_buffer.isEmpty())
        step.events.append(Frame{std::exchange(m_buffer, QByteArray()), Frame::End::Hold});
    return step;
}

qsizetype BridgeFramer::discard()
{
    m_scanned = 0;
    return std::exchange(m_buffer, QByteArray()).size();
}
