#pragma once

#include <array>

// Whether somebody watches this computer through the Live Console, from the
// service's reports. A report of nobody watching that is not authoritative
// (an instance that may not know every watcher) ends watching only when it
// comes twice in a row; an authoritative one ends it at once.
class ConsoleWatchState
{
public:
    enum class Change { None, Began, Ended };

    Change report(bool watching, bool authoritative);
    // Switched off or signed out: whatever the service thinks, it is over.
    Change end();

    bool isWatching() const { return m_watching; }
    int notWatchingCount() const { return m_notWatchingCount; }

private:
    bool m_watching = false;
    int m_notWatchingCount = 0;
};

// How long the console waits between command polls while nobody watches:
// 2, 5, 10 and then 30 s, back to 2 s as soon as somebody watches.
class ConsolePollSchedule
{
public:
    using Intervals = std::array<int, 4>;
    static constexpr Intervals kIntervalsMs = {2000, 5000, 10000, 30000};
    static constexpr int kTopLevel = 3;

    explicit ConsolePollSchedule(const Intervals &intervalsMs = kIntervalsMs) : m_intervalsMs(intervalsMs) {}

    void reset() { m_level = 0; }
    int level() const { return m_level; }
    int intervalMs() const { return m_intervalsMs[m_level]; }
    // After a poll nobody watched: the wait before the next one, and one
    // level further back.
    int afterIdlePoll();

private:
    Intervals m_intervalsMs;
    int m_level = 0;
};
