#pragma once

#include <QString>

// Line-by-line auto send: each tick takes the next line of the send text,
// wrapping around. Lines are split at "\n" and empty lines are kept, so a
// text ending with a line feed has an empty last line.
class LineStepper
{
public:
    // The line at the current index (modulo the line count), then advances.
    QString next(const QString &text);
    qint64 index() const { return m_index; }
    void reset() { m_index = 0; }

private:
    qint64 m_index = 0;
};
