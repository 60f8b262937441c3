#pragma once

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>

#include <functional>

// What every benchmark needs: an event loop run until something happened,
// bounded in time.
namespace BenchSupport {

// Runs the event loop until done() holds; false when timeoutMs passed first.
inline bool runUntil(const std::function<bool()> &done, qint64 timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    while (!done()) {
        if (clock.elapsed() > timeoutMs)
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    }
    return true;
}

} // namespace BenchSupport
