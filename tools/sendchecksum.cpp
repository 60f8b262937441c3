#include "tools/sendchecksum.h"

#include <QtEndian>
#include <QtGlobal>

namespace {

quint8 sum8(const QByteArray &data)
{
    quint8 sum = 0;
    for (char c : data)
        sum = quint8(sum + quint8(c));
    return sum;
}

quint8 xor8(const QByteArray &data)
{
    quint8 x = 0;
    for (char c : data)
        x ^= quint8(c);
    return x;
}

quint8 crc8(const QByteArray &data)
{
    quint8 crc = 0;
    for (char c : data) {
        crc ^= quint8(c);
        for (int i = 0; i < 8; ++i)
            crc = (crc & 0x80) ? quint8((crc << 1) ^ 0x07) : quint8(crc << 1);
    }
    return crc;
}

quint16 crc16Modbus(const QByteArray &data)
{
    quint16 crc = 0xFFFF;
    for (char c : data) {
        crc ^= quint8(c);
        for (int i = 0; i < 8; ++i)
            crc = (crc & 1) ? quint16((crc >> 1) ^ 0xA001) : quint16(crc >> 1);
    }
    return crc;
}

quint32 crc32(const QByteArray &data)
{
    quint32 crc = 0xFFFFFFFFu;
    for (char c : data) {
        crc ^= quint8(c);
        for (int i = 0; i < 8; ++i)
            crc = (crc & 1) ? (crc >> 1) ^ 0xEDB88320u : crc >> 1;
    }
    return crc ^ 0xFFFFFFFFu;
}

} // namespace

QByteArray appendSendChecksum(const QByteArray &payload, SendChecksumKind kind)
{
    if (payload.isEmpty())
        return payload;
    QByteArray out = payload;
    switch (kind) {
    case SendChecksumKind::Sum8:
        out.append(char(sum8(payload)));
        break;
    case SendChecksumKind::Xor8:
        out.append(char(xor8(payload)));
        break;
    case SendChecksumKind::Crc8:
        out.append(char(crc8(payload)));
        break;
    case SendChecksumKind::Crc16Modbus: {
        char le[2];
        qToLittleEndian(crc16Modbus(payload), le);
        out.append(le, 2);
        break;
    }
    case SendChecksumKind::Crc32: {
        char le[4];
        qToLittleEndian(crc32(payload), le);
        out.append(le, 4);
        break;
    }
    default:
        break;
    }
    return out;
}

QStringList sendChecksumLabels()
{
    static const char *const labels[] = {
        QT_TRANSLATE_NOOP("SendChecksum", "None"),
        QT_TRANSLATE_NOOP("SendChecksum", "Checksum-8 (SUM)"),
        QT_TRANSLATE_NOOP("SendChecksum", "XOR (BCC)"),
        QT_TRANSLATE_NOOP("SendChecksum", "CRC-8"),
        QT_TRANSLATE_NOOP("SendChecksum", "CRC-16/MODBUS"),
        QT_TRANSLATE_NOOP("SendChecksum", "CRC-32"),
    };
    QStringList result;
    for (const char *label : labels)
        result.append(QString::fromLatin1(label));
    return result;
}

bool isKnownSendChecksum(int value)
{
    return value >= 0 && value <= 5;
}
