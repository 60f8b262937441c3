#include "terminal/reconnectpolicy.h"

void ReconnectPolicy::arm(qint64 nowMs)
{
    m_state = State::Waiting;
    m_nextAttemptAtMs = nowMs + kIntervalMs;
}

bool ReconnectPolicy::takeAttempt(qint64 nowMs)
{
    if (m_state != State::Waiting || nowMs + kEarlyToleranceMs < m_nextAttemptAtMs)
        return false;
    m_nextAttemptAtMs = nowMs + kIntervalMs;
    return true;
}

void ReconnectPolicy::disarm()
{
    m_state = State::Idle;
    m_nextAttemptAtMs = 0;
}
