#include "tools/crcengine.h"

quint64 reflectBits(quint64 value, int width)
{
    quint64 out = 0;
    for (int i = 0; i < width; ++i) {
        out = (out << 1) | (value & 1);
        value >>= 1;
    }
    return out;
}

quint64 computeCrc(QByteArrayView data, const CrcParams &params)
{
    if (!params.isValid())
        return 0;
    const int width = params.width;
    const quint64 mask = params.mask();
    const quint64 poly = params.poly & mask;
    quint64 reg = params.init & mask;

    if (params.refin) {
        const quint64 rpoly = reflectBits(poly, width);
        for (char c : data) {
            reg ^= quint8(c);
            for (int bit = 0; bit < 8; ++bit)
                reg = (reg & 1) ? (reg >> 1) ^ rpoly : reg >> 1;
            reg &= mask;
        }
    } else if (width >= 8) {
        const quint64 top = quint64(1) << (width - 1);
        for (char c : data) {
            reg ^= quint64(quint8(c)) << (width - 8);
            for (int bit = 0; bit < 8; ++bit)
                reg = ((reg & top) ? (reg << 1) ^ poly : reg << 1) & mask;
        }
    } else {
        // Narrow registers run in the top bits of an 8-bit one.
        const int shift = 8 - width;
        const quint8 poly8 = quint8(poly << shift);
        quint8 reg8 = quint8(reg << shift);
        for (char c : data) {
            reg8 ^= quint8(c);
            for (int bit = 0; bit < 8; ++bit)
                reg8 = (reg8 & 0x80) ? quint8((reg8 << 1) ^ poly8) : quint8(reg8 << 1);
        }
        reg = reg8 >> shift;
    }

    if (params.refout != params.refin)
        reg = reflectBits(reg, width);
    return (reg ^ params.xorout) & mask;
}
