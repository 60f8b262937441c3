#pragma once

#include "bridge/ratehistory.h"

#include <QByteArray>
#include <QByteArrayView>
#include <QtGlobal>

#include <array>
#include <optional>

// Notices a bridge feeding on itself. Fed what the bridge wrote to each end,
// what each end received and the forwarded rates, with the time; it owns no
// timer. Two signs trip it:
// - echo: nine bytes in ten that an end receives are what the bridge wrote
//   to that end moments before (a cable looped back, a device mirroring the
//   line), for the configured time and at some volume;
// - rate: a direction above the configured rate in every second of the
//   configured time.
class FloodGuard
{
public:
    struct Options
    {
        bool echoCheck = true;
        qint64 rateLimit = 0;  // bytes per second; 0: no rate check
        int seconds = 5;

        bool operator==(const Options &other) const = default;
    };

    struct Trip
    {
        enum class Kind { Echo, Rate };
        Kind kind = Kind::Echo;
        int end = 0;         // Echo: the end that echoes (0 A, 1 B)
        int direction = 0;   // Rate: 0 A to B, 1 B to A
        qint64 bytesPerSecond = 0;
    };

    // The output remembered per end to recognise it coming back.
    static constexpr qsizetype kEchoWindowBytes = 64 * 1024;
    // Bytes compared to find where an echo starts in that window.
    static constexpr qsizetype kEchoProbeBytes = 16;
    // Less echo than this over the whole time is a device's echo of a
    // command now and then, not a loop.
    static constexpr qint64 kMinEchoBytesPerSecond = 64;
    // A search of the window costs far more than following an echo along:
    // between searches, reads that do not go on from a known echo are not
    // judged at all, so a busy bridge pays for a hundred searches a second
    // at most, and a loop is still seen in every read once found.
    static constexpr qint64 kSearchIntervalMs = 10;

    FloodGuard() : FloodGuard(Options{}) {}
    explicit FloodGuard(const Options &options);

    const Options &options() const { return m_options; }
    void noteWritten(int end, QByteArrayView bytes);
    std::optional<Trip> noteReceived(int end, QByteArrayView bytes, qint64 nowMs);
    std::optional<Trip> checkRate(int direction, const RateHistory &forwarded, qint64 nowMs) const;
    void reset();

private:
    struct EndState
    {
        QByteArray window;   // the newest output, oldest first
        qint64 windowStart = 0;  // stream offset of window[0]
        qint64 expected = -1;    // stream offset the echo should go on at
        RateHistory received;
        RateHistory echoed;
        qint64 streakSinceMs = -1;  // first echo of the current streak
        qint64 nextSearchMs = 0;
    };

    // The echoed bytes at the start of `bytes`; -1 when the read is not
    // judged (a search would come too soon after the last one).
    qsizetype echoedPrefix(EndState &state, QByteArrayView bytes, qint64 nowMs) const;

    Options m_options;
    std::array<EndState, 2> m_ends;
};
