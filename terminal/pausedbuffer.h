#pragma once

#include <QByteArray>
#include <QByteArrayView>

// Received bytes kept while the view is paused: only the newest ones, up to
// the display buffer size, so a long pause cannot eat the memory.
class PausedBuffer
{
public:
    explicit PausedBuffer(qsizetype limit = 0);

    void setLimit(qsizetype limit);
    qsizetype limit() const { return m_limit; }

    // Appends and then drops the oldest bytes beyond the limit.
    void append(QByteArrayView bytes);

    const QByteArray &bytes() const { return m_bytes; }
    qsizetype size() const { return m_bytes.size(); }
    bool isEmpty() const { return m_bytes.isEmpty(); }
    QByteArray take();
    void clear() { m_bytes.clear(); }

private:
    void trim();

    QByteArray m_bytes;
    qsizetype m_limit = 0;
};
