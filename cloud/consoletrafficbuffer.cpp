#include "cloud/consoletrafficbuffer.h"

#include <QJsonObject>

#include <utility>

ConsoleTrafficBuffer::ConsoleTrafficBuffer(qsizetype maxEvents, qint64 maxBytes)
    : m_maxEvents(qMax<qsizetype>(1, maxEvents))
    , m_maxBytes(qMax<qint64>(1, maxBytes))
{
}

qint64 ConsoleTrafficBuffer::utf8Length(QStringView text)
{
    qint64 length = 0;
    for (qsizetype i = 0; i < text.size(); ++i) {
        const char16_t c = text[i].unicode();
        if (c < 0x80) {
            length += 1;
        } else if (c < 0x800) {
            length += 2;
        } else if (QChar::isHighSurrogate(c) && i + 1 < text.size() && QChar::isLowSurrogate(text[i + 1].unicode())) {
            length += 4;
            ++i;
        } else {
            length += 3;
        }
    }
    return length;
}

void ConsoleTrafficBuffer::append(const QString &portKey, bool isTx, QStringView text, qint64 clientTimeMs)
{
    if (text.isEmpty())
        return;
    if (text.size() > kMaxPayloadChars) {
        qsizetype cut = kMaxPayloadChars;
        // Never half a surrogate pair.
        if (text[cut - 1].isHighSurrogate())
            --cut;
        text = text.left(cut);
    }
    const qint64 bytes = utf8Length(text);
    if (!m_events.empty()) {
        Event &last = m_events.back();
        if (last.isTx == isTx && last.portKey == portKey && clientTimeMs - last.clientTimeMs < kJoinWindowMs
            && clientTimeMs >= last.clientTimeMs && last.text.size() + text.size() <= kMaxPayloadChars) {
            last.text += text;
            last.bytes += bytes;
            m_bytes += bytes;
            while (m_bytes > m_maxBytes && m_events.size() > 1)
                dropOldest();
            return;
        }
    }
    m_events.push_back(Event{portKey, isTx, text.toString(), bytes, m_nextSeq++, clientTimeMs});
    m_bytes += bytes;
    while (m_events.size() > 1 && (qsizetype(m_events.size()) > m_maxEvents || m_bytes > m_maxBytes))
        dropOldest();
}

void ConsoleTrafficBuffer::dropOldest()
{
    m_bytes -= m_events.front().bytes;
    m_events.pop_front();
    ++m_droppedSinceTaken;
    ++m_droppedTotal;
}

QJsonArray ConsoleTrafficBuffer::takeBatch(int maxEvents)
{
    QJsonArray batch;
    while (!m_events.empty() && batch.size() < maxEvents) {
        Event &event = m_events.front();
        batch.append(QJsonObject{
            {QStringLiteral("port_key"), event.portKey},
            {QStringLiteral("event_type"), event.isTx ? QStringLiteral("tx") : QStringLiteral("rx")},
            {QStringLiteral("payload_text"), event.text},
            {QStringLiteral("seq"), event.seq},
            {QStringLiteral("client_time"), event.clientTimeMs},
        });
        m_bytes -= event.bytes;
        m_events.pop_front();
    }
    return batch;
}

void ConsoleTrafficBuffer::clear()
{
    m_events.clear();
    m_bytes = 0;
}
