#include "loopwatch.h"

#include <QTimer>

LoopWatch::LoopWatch(QObject *parent) : QObject(parent), m_timer(new QTimer(this))
{
    m_timer->setTimerType(Qt::PreciseTimer);
    m_timer->setInterval(kIntervalMs);
    connect(m_timer, &QTimer::timeout, this, &LoopWatch::onTick);
    m_timer->start();
    m_since.start();
}

void LoopWatch::onTick()
{
    const qint64 late = m_since.nsecsElapsed() - qint64(kIntervalMs) * 1'000'000;
    m_longestNs = qMax(m_longestNs, late);
    m_since.restart();
}
