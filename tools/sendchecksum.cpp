#include "tools/sendchecksum.h"

#include "tools/crccatalogue.h"

#include <QCoreApplication>
#include <QtEndian>

namespace {

quint8 sum8(QByteArrayView data)
{
    quint8 sum = 0;
    for (char c : data)
        sum = quint8(sum + quint8(c));
    return sum;
}

quint8 xor8(QByteArrayView data)
{
    quint8 x = 0;
    for (char c : data)
        x ^= quint8(c);
    return x;
}

} // namespace

QByteArray appendSendChecksum(const QByteArray &payload, SendChecksumKind kind)
{
    if (payload.isEmpty())
        return payload;
    // The CRC kinds are the catalogue's rows of the same names, so both share
    // the table-driven code.
    switch (kind) {
    case SendChecksumKind::Sum8:
        return payload + char(sum8(payload));
    case SendChecksumKind::Xor8:
        return payload + char(xor8(payload));
    case SendChecksumKind::Crc8:
        return payload + char(computeCatalogueCrc(CrcModelId::Crc8, payload));
    case SendChecksumKind::Crc16Modbus: {
        char le[2];
        qToLittleEndian(quint16(computeCatalogueCrc(CrcModelId::Crc16Modbus, payload)), le);
        return QByteArray(payload).append(le, 2);
    }
    case SendChecksumKind::Crc32: {
        char le[4];
        qToLittleEndian(quint32(computeCatalogueCrc(CrcModelId::Crc32, payload)), le);
        return QByteArray(payload).append(le, 4);
    }
    case SendChecksumKind::None:
        break;
    }
    return payload;
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

QStringList translatedSendChecksumLabels()
{
    QStringList result;
    for (const QString &label : sendChecksumLabels())
        result.append(QCoreApplication::translate("SendChecksum", label.toLatin1().constData()));
    return result;
}

bool isKnownSendChecksum(int value)
{
    return value >= int(SendChecksumKind::None) && value <= int(SendChecksumKind::Crc32);
}
