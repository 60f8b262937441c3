#pragma once

#include <QtGlobal>

class QRandomGenerator;

// Full-jitter exponential back-off between the console socket's attempts:
// attempt a (counted from 0) waits a uniformly random time from 0 to
// base × 2^a, and from the seventh attempt on from 0 to the cap. Random
// waits keep many computers that lost the service at once from coming back
// in step.
class ConsoleBackoff
{
public:
    static constexpr qint64 kBaseMs = 1000;
    static constexpr qint64 kCapMs = 60000;
    // Attempts below this double the ceiling; later ones wait up to the cap.
    static constexpr int kDoublingAttempts = 6;

    explicit ConsoleBackoff(qint64 baseMs = kBaseMs, qint64 capMs = kCapMs);

    // The longest wait of attempt a.
    qint64 ceilingMs(int attempt) const;
    // The wait before the next attempt; counts the attempt.
    qint64 next(QRandomGenerator &random);
    // Attempts counted since the last reset.
    int attempt() const { return m_attempt; }
    void reset() { m_attempt = 0; }

private:
    qint64 m_baseMs;
    qint64 m_capMs;
    int m_attempt = 0;
};
