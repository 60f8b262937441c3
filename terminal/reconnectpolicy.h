#pragma once

#include <QtGlobal>

// When a lost connection is tried again. Explicit states on a monotonic
// clock passed in by the caller, so the policy runs the same under a real
// timer and a test's virtual clock. Attempts repeat every interval until
// one succeeds or the user disarms it; there is no attempt limit, since a
// device that comes back after an hour should still be picked up.
class ReconnectPolicy
{
public:
    enum class State {
        Idle,     // nothing lost, or the user gave up on it
        Waiting,  // lost; the next attempt is due at nextAttemptAtMs()
    };

    static constexpr qint64 kIntervalMs = 2000;
    // A timer may fire this much early (coarse timers allow 5 %); such a
    // tick still counts, or every other tick would be lost.
    static constexpr qint64 kEarlyToleranceMs = 100;

    State state() const { return m_state; }
    bool isWaiting() const { return m_state == State::Waiting; }
    qint64 nextAttemptAtMs() const { return m_nextAttemptAtMs; }

    // The connection was lost at nowMs: the first attempt is one interval on.
    void arm(qint64 nowMs);
    // Whether an attempt is due at nowMs; if so the next one is scheduled
    // an interval later (a slow attempt does not shorten the gap).
    bool takeAttempt(qint64 nowMs);
    // Reconnected, or the user closed the connection.
    void disarm();

private:
    State m_state = State::Idle;
    qint64 m_nextAttemptAtMs = 0;
};
