#include "tools/crcformat.h"

#include <QtGlobal>

QString formatCrcValue(quint64 value, int base, int width)
{
    if (base != 2 && base != 8 && base != 10)
        base = 16;
    QString text = QString::number(value, base).toUpper();
    if (base == 10 || width < 1)
        return text;
    // A CRC has at most 64 bits; a larger width typed in the field must not
    // make a huge string.
    width = qMin(width, 64);
    int digits = width;
    if (base == 16)
        digits = (width + 3) / 4;
    else if (base == 8)
        digits = (width + 2) / 3;
    return text.rightJustified(digits, u'0');
}

QByteArray crcWireBytes(quint64 value, int width, CrcByteOrder order)
{
    if (width < 1)
        return {};
    const int count = qMin((width + 7) / 8, 8);
    QByteArray bytes(count, Qt::Uninitialized);
    for (int i = 0; i < count; ++i) {
        const char b = char((value >> (8 * i)) & 0xFF);
        if (order == CrcByteOrder::LittleEndian)
            bytes[i] = b;
        else
            bytes[count - 1 - i] = b;
    }
    return bytes;
}
