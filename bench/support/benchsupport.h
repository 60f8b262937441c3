#pragma once

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QTimer>

#include <chrono>
#include <cstring>
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

// A figure of the process from /proc/self/status in KiB ("VmRSS:" now,
// "VmHWM:" at its peak); -1 when it cannot be read.
inline qint64 procStatusKiB(const char *field)
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : status.readAll().split('\n')) {
        if (line.startsWith(field))
            return line.mid(qsizetype(std::strlen(field))).trimmed().split(' ').value(0).toLongLong();
    }
    return -1;
}

} // namespace BenchSupport
