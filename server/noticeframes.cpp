#include "noticeframes.h"

namespace {

bool isContinuationByte(char c)
{
    return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

} // namespace

QList<QByteArray> NoticeFrames::split(const QByteArray &origin, quint64 serial, const QByteArray &message)
{
    if (message.isEmpty() || message.size() > kMaxMessageBytes)
        return {};
    QList<qsizetype> cuts{0};
    qsizetype at = 0;
    while (message.size() - at > kMaxPieceBytes) {
        qsizetype end = at + kMaxPieceBytes;
        while (end > at + 1 && isContinuationByte(message.at(end)))
            --end;
        cuts.append(end);
        at = end;
    }
    cuts.append(message.size());
    const int count = int(cuts.size()) - 1;
    QList<QByteArray> payloads;
    payloads.reserve(count);
    for (int i = 0; i < count; ++i) {
        QByteArray payload = origin + ' ' + QByteArray::number(serial) + ' ' + QByteArray::number(i) + ' '
                             + QByteArray::number(count) + '\n';
        payload += QByteArrayView(message).sliced(cuts[i], cuts[i + 1] - cuts[i]);
        payloads.append(payload);
    }
    return payloads;
}

std::optional<NoticeFrames::Joined> NoticeFrames::feed(const QByteArray &payload)
{
    const qsizetype newline = payload.indexOf('\n');
    const QList<QByteArray> header = newline > 0 ? payload.left(newline).split(' ') : QList<QByteArray>{};
    bool serialOk = false, indexOk = false, countOk = false;
    if (header.size() == 4)
        header[1].toULongLong(&serialOk);
    const int index = header.size() == 4 ? header[2].toInt(&indexOk) : -1;
    const int count = header.size() == 4 ? header[3].toInt(&countOk) : 0;
    const qsizetype pieceBytes = payload.size() - newline - 1;
    if (!serialOk || !indexOk || !countOk || header[0].isEmpty() || count < 1 || index < 0 || index >= count
        || qint64(count) * kMaxPieceBytes > kMaxMessageBytes + kMaxPieceBytes || pieceBytes > kMaxPieceBytes) {
        ++m_malformed;
        return std::nullopt;
    }
    const QByteArrayView piece = QByteArrayView(payload).sliced(newline + 1);
    if (count == 1)
        return Joined{header[0], piece.toByteArray()};

    const QByteArray key = header[0] + ' ' + header[1];
    auto found = m_pending.find(key);
    if (found == m_pending.end()) {
        if (index != 0) {
            ++m_abandoned;  // its start was lost (or given up)
            return std::nullopt;
        }
        if (m_pending.size() >= kMaxPending) {
            auto oldest = m_pending.begin();
            for (auto it = m_pending.begin(); it != m_pending.end(); ++it) {
                if (it->age < oldest->age)
                    oldest = it;
            }
            m_pending.erase(oldest);
            ++m_abandoned;
        }
        found = m_pending.insert(key, Partial{count, 0, {}, ++m_age});
    }
    if (found->count != count || found->next != index) {
        m_pending.erase(found);
        ++m_abandoned;
        return std::nullopt;
    }
    found->text += piece;
    if (++found->next < count)
        return std::nullopt;
    Joined whole{header[0], std::move(found->text)};
    m_pending.erase(found);
    return whole;
}
