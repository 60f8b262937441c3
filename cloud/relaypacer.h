#pragma once

#include <QByteArray>
#include <QList>
#include <QtGlobal>

// The host's guard between a relay and its port: bytes from the relay wait
// here and go to the port only as fast as the port takes them, so a serial
// line at 9600 baud never has megabytes queued in its driver. Pure: the owner
// feeds it the port's backlog and does what each step says. Its own queue is
// bounded by pausing the relay above kQueueHigh (what is already on its way
// still arrives: at most one read of the relay socket more).
//
// Pacing rule: the port is kept at most one window ahead, about a quarter
// second of its line time (4 to 64 KiB), and the next step comes when about
// half the window should have drained, but never later than 250 ms.
class RelayPacer
{
public:
    static constexpr qint64 kMaxStepMs = 250;
    static constexpr qint64 kQueueHigh = 256 * 1024;
    static constexpr qint64 kQueueLow = 64 * 1024;
    static constexpr qint64 kMinWindow = 4 * 1024;
    static constexpr qint64 kMaxWindow = 64 * 1024;
    // Without a known line rate (a network port) the port reports what it
    // wrote; a step this often is only a safety net.
    static constexpr qint64 kUntimedStepMs = 20;
    static constexpr qint64 kNoWake = -1;

    enum class Read { Keep, Pause, Resume };
    struct Step
    {
        QByteArray write;         // to the port now
        Read read = Read::Keep;   // what to do with the relay's reading
        qint64 wakeInMs = kNoWake;
    };

    // bytesPerSecond: the port's line rate, 0 when it has none.
    explicit RelayPacer(qint64 bytesPerSecond = 0);

    void setLineRate(qint64 bytesPerSecond);
    qint64 window() const { return m_window; }
    void push(const QByteArray &bytes);
    qint64 queued() const { return m_queued; }
    bool isHoldingRelay() const { return m_holding; }
    // portBacklog: what the port has not written yet; portWritable false
    // while something else owns the port (a file transfer).
    Step step(qint64 portBacklog, bool portWritable = true);
    void clear();

private:
    qint64 m_rate = 0;
    qint64 m_window = kMaxWindow;
    QList<QByteArray> m_queue;
    qint64 m_queued = 0;
    bool m_holding = false;
};
