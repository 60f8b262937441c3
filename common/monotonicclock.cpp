#include "common/monotonicclock.h"

#include <QElapsedTimer>

MonotonicClock systemMonotonicClock()
{
    return [] {
        static const QElapsedTimer started = [] {
            QElapsedTimer timer;
            timer.start();
            return timer;
        }();
        return started.elapsed();
    };
}
