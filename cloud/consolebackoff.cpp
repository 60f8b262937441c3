#include "cloud/consolebackoff.h"

#include <QRandomGenerator>

ConsoleBackoff::ConsoleBackoff(qint64 baseMs, qint64 capMs) : m_baseMs(baseMs), m_capMs(capMs) {}

qint64 ConsoleBackoff::ceilingMs(int attempt) const
{
    if (attempt < 0)
        attempt = 0;
    return attempt < kDoublingAttempts ? m_baseMs << attempt : m_capMs;
}

qint64 ConsoleBackoff::next(QRandomGenerator &random)
{
    const qint64 ceiling = ceilingMs(m_attempt);
    ++m_attempt;
    return qint64(random.bounded(quint64(ceiling) + 1));
}
