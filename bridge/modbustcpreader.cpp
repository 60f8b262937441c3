#include "bridge/modbustcpreader.h"

#include <QtEndian>

ModbusTcpReader::Read ModbusTcpReader::feed(QByteArrayView bytes)
{
    Read read;
    if (m_broken)
        return read;
    qsizetype at = 0;
    while (at < bytes.size()) {
        // Only as much as completes the header or the frame: never more
        // than one frame is held.
        qsizetype want = kHeaderSize - m_buffer.size();
        if (m_buffer.size() >= kHeaderSize) {
            const int length = qFromBigEndian<quint16>(m_buffer.constData() + 4);
            want = 6 + length - m_buffer.size();
        }
        const qsizetype take = std::min(want, bytes.size() - at);
        m_buffer.append(bytes.sliced(at, take));
        at += take;
        if (m_buffer.size() < kHeaderSize)
            break;
        const quint16 protocol = qFromBigEndian<quint16>(m_buffer.constData() + 2);
        const int length = qFromBigEndian<quint16>(m_buffer.constData() + 4);
        if (protocol != 0) {
            read.error = tr("its MBAP header names protocol %1, not Modbus (0).").arg(protocol);
        } else if (length < 2 || length > kMaxLength) {
            read.error = tr("its MBAP header gives a length of %1; Modbus allows 2 to %2.").arg(length).arg(kMaxLength);
        }
        if (!read.error.isEmpty()) {
            m_broken = true;
            m_buffer.clear();
            return read;
        }
        if (m_buffer.size() < 6 + length)
            continue;
        read.requests.append({qFromBigEndian<quint16>(m_buffer.constData()), quint8(m_buffer[6]), m_buffer.sliced(7)});
        m_buffer.clear();
    }
    return read;
}

QByteArray ModbusTcpReader::frame(quint16 transactionId, quint8 unit, QByteArrayView pdu)
{
    QByteArray out(kHeaderSize, '\0');
    qToBigEndian(transactionId, out.data());
    qToBigEndian(quint16(0), out.data() + 2);
    qToBigEndian(quint16(pdu.size() + 1), out.data() + 4);
    out[6] = char(unit);
    out.append(pdu);
    return out;
}
