#include "cloud/consolewatchstate.h"

#include <algorithm>

ConsoleWatchState::Change ConsoleWatchState::report(bool watching, bool authoritative)
{
    if (watching) {
        m_notWatchingCount = 0;
        if (m_watching)
            return Change::None;
        m_watching = true;
        return Change::Began;
    }
    if (!m_watching)
        return Change::None;
    if (!authoritative && ++m_notWatchingCount < 2)
        return Change::None;
    return end();
}

ConsoleWatchState::Change ConsoleWatchState::end()
{
    m_notWatchingCount = 0;
    if (!m_watching)
        return Change::None;
    m_watching = false;
    return Change::Ended;
}

int ConsolePollSchedule::afterIdlePoll()
{
    const int interval = intervalMs();
    m_level = std::min(m_level + 1, kTopLevel);
    return interval;
}
