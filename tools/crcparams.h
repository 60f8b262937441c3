#pragma once

#include <QtGlobal>

// The six parameters of a CRC in the Rocksoft model. `poly` is the generator
// without its top bit in normal (unreflected) form.
struct CrcParams
{
    int width = 16;
    quint64 poly = 0x1021;
    quint64 init = 0xFFFF;
    quint64 xorout = 0;
    bool refin = false;
    bool refout = false;

    bool isValid() const { return width >= 1 && width <= 64; }
    // All ones over the width (every bit at width 64).
    quint64 mask() const { return width >= 64 ? ~quint64(0) : (quint64(1) << width) - 1; }

    friend bool operator==(const CrcParams &, const CrcParams &) = default;
};
