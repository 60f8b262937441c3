#pragma once

#include <QDateTime>

#include <functional>

// Wall-clock milliseconds since the epoch. Token expiry, code expiry,
// attempt windows and the quota month all read time through one of these,
// so tests can move time instead of sleeping.
using ServiceClock = std::function<qint64()>;

inline ServiceClock systemServiceClock()
{
    return [] { return QDateTime::currentMSecsSinceEpoch(); };
}
