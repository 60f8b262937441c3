#pragma once

#include <QByteArray>
#include <QList>
#include <QtGlobal>

#include <utility>

// What a wire codec answers to every call. Codecs (file transfer, Telnet and
// the like) own no socket, timer or file: their owner feeds them received
// bytes and the current time, writes `write` to the peer in order, acts on
// `events`, and calls the codec's tick() again at `wakeAtMs` (monotonic
// milliseconds). A codec that wants no call back leaves kNoWake.
template <typename Event>
struct CodecStep
{
    static constexpr qint64 kNoWake = -1;

    QByteArray write;
    QList<Event> events;
    qint64 wakeAtMs = kNoWake;

    bool wantsWake() const { return wakeAtMs != kNoWake; }

    // Appends what a later call produced: its bytes go after ours, its
    // events after ours, and its wake time replaces ours (the codec's latest
    // word on when it wants to be called).
    void append(CodecStep &&later)
    {
        write += later.write;
        events += std::move(later.events);
        wakeAtMs = later.wakeAtMs;
    }
};
