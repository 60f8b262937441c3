#pragma once

#include <QByteArray>
#include <QString>

// Item order of the calculator's "Byte order" box.
enum class CrcByteOrder : int {
    BigEndian = 0,
    LittleEndian = 1,
};

// `value` in base 16, 10, 8 or 2 (any other base is taken as 16), upper-case
// letters, filled with leading zeros to the digits that `width` bits need:
// ceil(width / 4) in hex, ceil(width / 3) in octal, width in binary. Base 10
// and widths below 1 are not filled; widths above 64 fill as 64.
QString formatCrcValue(quint64 value, int base, int width);

// The ceil(width / 8) low bytes of `value` in the given order; none for
// widths below 1, at most eight.
QByteArray crcWireBytes(quint64 value, int width, CrcByteOrder order);
