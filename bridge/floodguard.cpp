#include "bridge/floodguard.h"

#include <algorithm>
#include <cstring>

namespace {

qsizetype commonPrefix(QByteArrayView a, QByteArrayView b)
{
    const qsizetype n = std::min(a.size(), b.size());
    const auto mismatch = std::mismatch(a.begin(), a.begin() + n, b.begin());
    return qsizetype(mismatch.first - a.begin());
}

// A probe shorter than this matches somewhere in any busy window by chance.
constexpr qsizetype kShortestProbe = 8;

} // namespace

FloodGuard::FloodGuard(const Options &options)
    : m_options(options)
{
    m_options.seconds = std::clamp(m_options.seconds, 1, RateHistory::kSeconds);
}

void FloodGuard::noteWritten(int end, QByteArrayView bytes)
{
    if (!m_options.echoCheck || end < 0 || end > 1 || bytes.isEmpty())
        return;
    EndState &state = m_ends[size_t(end)];
    if (bytes.size() >= kEchoWindowBytes) {
        state.windowStart += state.window.size() + bytes.size() - kEchoWindowBytes;
        state.window = bytes.sliced(bytes.size() - kEchoWindowBytes).toByteArray();
        return;
    }
    state.window.append(bytes.data(), bytes.size());
    // Trimmed in halves, so appending stays cheap.
    if (state.window.size() >= 2 * kEchoWindowBytes) {
        const qsizetype drop = state.window.size() - kEchoWindowBytes;
        state.window.remove(0, drop);
        state.windowStart += drop;
    }
}

qsizetype FloodGuard::echoedPrefix(EndState &state, QByteArrayView bytes, qint64 nowMs) const
{
    const QByteArrayView window(state.window);
    // Most often an echo goes on where the last one stopped.
    if (state.expected >= state.windowStart) {
        const qsizetype at = qsizetype(state.expected - state.windowStart);
        if (at < window.size()) {
            const qsizetype matched = commonPrefix(bytes, window.sliced(at));
            if (matched > 0 && (matched == bytes.size() || at + matched == window.size())) {
                state.expected += matched;
                return matched;
            }
        }
    }
    state.expected = -1;
    const qsizetype probe = std::min(kEchoProbeBytes, bytes.size());
    if (probe < kShortestProbe)
        return 0;
    if (nowMs < state.nextSearchMs)
        return -1;
    state.nextSearchMs = nowMs + kSearchIntervalMs;
    const void *found = ::memmem(window.data(), size_t(window.size()), bytes.data(), size_t(probe));
    if (!found)
        return 0;
    const qsizetype at = qsizetype(static_cast<const char *>(found) - window.data());
    const qsizetype matched = commonPrefix(bytes, window.sliced(at));
    state.expected = state.windowStart + at + matched;
    return matched;
}

std::optional<FloodGuard::Trip> FloodGuard::noteReceived(int end, QByteArrayView bytes, qint64 nowMs)
{
    if (!m_options.echoCheck || end < 0 || end > 1 || bytes.isEmpty())
        return std::nullopt;
    EndState &state = m_ends[size_t(end)];
    const qsizetype echoed = state.window.isEmpty() ? 0 : echoedPrefix(state, bytes, nowMs);
    if (echoed < 0)
        return std::nullopt;
    state.received.add(bytes.size(), nowMs);
    state.echoed.add(echoed, nowMs);

    const int seconds = m_options.seconds;
    const qint64 received = state.received.total(seconds, nowMs);
    const qint64 echoedTotal = state.echoed.total(seconds, nowMs);
    const bool mostlyEcho = echoedTotal * 10 >= received * 9;
    if (!mostlyEcho || echoedTotal == 0) {
        state.streakSinceMs = -1;
        return std::nullopt;
    }
    if (state.streakSinceMs < 0)
        state.streakSinceMs = nowMs;
    if (nowMs - state.streakSinceMs >= qint64(seconds) * 1000
        && echoedTotal >= kMinEchoBytesPerSecond * seconds) {
        Trip trip;
        trip.kind = Trip::Kind::Echo;
        trip.end = end;
        trip.bytesPerSecond = echoedTotal / (seconds + 1);
        return trip;
    }
    return std::nullopt;
}

std::optional<FloodGuard::Trip> FloodGuard::checkRate(int direction, const RateHistory &forwarded, qint64 nowMs) const
{
    if (m_options.rateLimit <= 0 || !forwarded.above(m_options.rateLimit, m_options.seconds, nowMs))
        return std::nullopt;
    Trip trip;
    trip.kind = Trip::Kind::Rate;
    trip.direction = direction;
    trip.bytesPerSecond = forwarded.lastSecond(nowMs);
    return trip;
}

void FloodGuard::reset()
{
    m_ends = {};
}
