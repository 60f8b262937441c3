#pragma once

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QTimer>

#include <chrono>
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

// Like runUntil, but sleeps in the event loop between checks instead of
// spinning, for benchmarks whose peers share the machine's cores.
inline bool waitUntil(const std::function<bool()> &done, qint64 timeoutMs, int checkEveryMs = 5)
{
    if (done())
        return true;
    QEventLoop loop;
    bool met = false;
    QTimer check;
    QObject::connect(&check, &QTimer::timeout, &loop, [&] {
        if (done()) {
            met = true;
            loop.quit();
        }
    });
    check.start(checkEveryMs);
    QTimer::singleShot(std::chrono::milliseconds(timeoutMs), &loop, &QEventLoop::quit);
    loop.exec();
    return met;
}

} // namespace BenchSupport
