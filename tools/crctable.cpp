#include "tools/crctable.h"

#include "tools/crcengine.h"

#include <QtEndian>

CrcTable::CrcTable(const CrcParams &params)
    : m_params(params)
{
    if (!params.isValid())
        return;
    const quint64 poly = params.poly & params.mask();
    m_alignShift = params.refin ? 0 : 64 - params.width;
    auto &t0 = m_table[0];
    if (params.refin) {
        const quint64 rpoly = reflectBits(poly, params.width);
        for (int i = 0; i < 256; ++i) {
            quint64 x = quint64(i);
            for (int bit = 0; bit < 8; ++bit)
                x = (x & 1) ? (x >> 1) ^ rpoly : x >> 1;
            t0[i] = x;
        }
        for (int k = 1; k < 8; ++k) {
            for (int i = 0; i < 256; ++i) {
                const quint64 prev = m_table[k - 1][i];
                m_table[k][i] = (prev >> 8) ^ t0[prev & 0xFF];
            }
        }
    } else {
        const quint64 apoly = poly << m_alignShift;
        for (int i = 0; i < 256; ++i) {
            quint64 x = quint64(i) << 56;
            for (int bit = 0; bit < 8; ++bit)
                x = (x >> 63) ? (x << 1) ^ apoly : x << 1;
            t0[i] = x;
        }
        for (int k = 1; k < 8; ++k) {
            for (int i = 0; i < 256; ++i) {
                const quint64 prev = m_table[k - 1][i];
                m_table[k][i] = (prev << 8) ^ t0[prev >> 56];
            }
        }
    }
}

quint64 CrcTable::update(quint64 reg, const uchar *p, qsizetype n) const
{
    const auto &t = m_table;
    if (m_params.refin) {
        for (; n >= 8; n -= 8, p += 8) {
            const quint64 x = reg ^ qFromLittleEndian<quint64>(p);
            reg = t[7][x & 0xFF] ^ t[6][(x >> 8) & 0xFF] ^ t[5][(x >> 16) & 0xFF]
                ^ t[4][(x >> 24) & 0xFF] ^ t[3][(x >> 32) & 0xFF] ^ t[2][(x >> 40) & 0xFF]
                ^ t[1][(x >> 48) & 0xFF] ^ t[0][x >> 56];
        }
        for (; n > 0; --n, ++p)
            reg = (reg >> 8) ^ t[0][(reg ^ *p) & 0xFF];
    } else {
        for (; n >= 8; n -= 8, p += 8) {
            const quint64 x = reg ^ qFromBigEndian<quint64>(p);
            reg = t[7][x >> 56] ^ t[6][(x >> 48) & 0xFF] ^ t[5][(x >> 40) & 0xFF]
                ^ t[4][(x >> 32) & 0xFF] ^ t[3][(x >> 24) & 0xFF] ^ t[2][(x >> 16) & 0xFF]
                ^ t[1][(x >> 8) & 0xFF] ^ t[0][x & 0xFF];
        }
        for (; n > 0; --n, ++p)
            reg = (reg << 8) ^ t[0][(reg >> 56) ^ *p];
    }
    return reg;
}

quint64 CrcTable::compute(QByteArrayView data) const
{
    if (!m_params.isValid())
        return 0;
    const quint64 mask = m_params.mask();
    quint64 reg = (m_params.init & mask) << m_alignShift;
    reg = update(reg, reinterpret_cast<const uchar *>(data.data()), data.size());
    reg >>= m_alignShift;
    if (m_params.refout != m_params.refin)
        reg = reflectBits(reg, m_params.width);
    return (reg ^ m_params.xorout) & mask;
}
