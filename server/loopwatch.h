#pragma once

#include <QElapsedTimer>
#include <QObject>

class QTimer;

// How long the event loop was held up: a 10 ms timer notes how late it
// fires. The longest delay is the longest time nothing on the loop (no
// connection, no answer) could move.
class LoopWatch : public QObject
{
    Q_OBJECT
public:
    static constexpr int kIntervalMs = 10;

    explicit LoopWatch(QObject *parent = nullptr);
    qint64 longestStallMs() const { return m_longestNs / 1'000'000; }

private:
    void onTick();

    QTimer *m_timer;
    QElapsedTimer m_since;
    qint64 m_longestNs = 0;
};
