#include "tools/crctable.h"

#include "tools/crcengine.h"

#include <QtEndian>

namespace {

constexpr int slices = 16;

template <typename Word>
constexpr int wordBits = int(8 * sizeof(Word));

} // namespace

CrcTable::CrcTable(const CrcParams &params)
    : m_params(params)
{
    if (!params.isValid())
        return;
    if (params.width <= 32)
        build(m_narrow);
    else
        build(m_wide);
}

// Reflected models keep the register in the low bits of the word; normal
// ones keep it in the top bits, so that narrow widths need no special case.
// Table k advances a byte through k further zero bytes.
template <typename Word>
void CrcTable::build(std::vector<Word> &table) const
{
    constexpr int bits = wordBits<Word>;
    table.assign(size_t(slices) * 256, 0);
    Word *t0 = table.data();
    const quint64 poly = m_params.poly & m_params.mask();
    if (m_params.refin) {
        const Word rpoly = Word(reflectBits(poly, m_params.width));
        for (int i = 0; i < 256; ++i) {
            Word x = Word(i);
            for (int bit = 0; bit < 8; ++bit)
                x = (x & 1) ? Word(x >> 1) ^ rpoly : Word(x >> 1);
            t0[i] = x;
        }
        for (int k = 1; k < slices; ++k) {
            for (int i = 0; i < 256; ++i) {
                const Word prev = table[size_t(k - 1) * 256 + i];
                table[size_t(k) * 256 + i] = Word(prev >> 8) ^ t0[prev & 0xFF];
            }
        }
    } else {
        const Word apoly = Word(poly << (bits - m_params.width));
        for (int i = 0; i < 256; ++i) {
            Word x = Word(Word(i) << (bits - 8));
            for (int bit = 0; bit < 8; ++bit)
                x = (x >> (bits - 1)) ? Word(x << 1) ^ apoly : Word(x << 1);
            t0[i] = x;
        }
        for (int k = 1; k < slices; ++k) {
            for (int i = 0; i < 256; ++i) {
                const Word prev = table[size_t(k - 1) * 256 + i];
                table[size_t(k) * 256 + i] = Word(prev << 8) ^ t0[prev >> (bits - 8)];
            }
        }
    }
}

template <typename Word>
quint64 CrcTable::run(const std::vector<Word> &table, QByteArrayView data) const
{
    constexpr int bits = wordBits<Word>;
    const Word *t = table.data();
    auto T = [t](int k, quint64 byte) { return t[k * 256 + int(byte)]; };
    const auto *p = reinterpret_cast<const uchar *>(data.data());
    qsizetype n = data.size();
    const int align = m_params.refin ? 0 : bits - m_params.width;
    Word reg = Word((m_params.init & m_params.mask()) << align);

    if (m_params.refin) {
        for (; n >= slices; n -= slices, p += slices) {
            const quint64 a = quint64(reg) ^ qFromLittleEndian<quint64>(p);
            const quint64 b = qFromLittleEndian<quint64>(p + 8);
            reg = T(15, a & 0xFF) ^ T(14, (a >> 8) & 0xFF) ^ T(13, (a >> 16) & 0xFF) ^ T(12, (a >> 24) & 0xFF)
                ^ T(11, (a >> 32) & 0xFF) ^ T(10, (a >> 40) & 0xFF) ^ T(9, (a >> 48) & 0xFF) ^ T(8, a >> 56)
                ^ T(7, b & 0xFF) ^ T(6, (b >> 8) & 0xFF) ^ T(5, (b >> 16) & 0xFF) ^ T(4, (b >> 24) & 0xFF)
                ^ T(3, (b >> 32) & 0xFF) ^ T(2, (b >> 40) & 0xFF) ^ T(1, (b >> 48) & 0xFF) ^ T(0, b >> 56);
        }
        for (; n > 0; --n, ++p)
            reg = Word(reg >> 8) ^ T(0, (reg ^ *p) & 0xFF);
    } else {
        for (; n >= slices; n -= slices, p += slices) {
            const quint64 a = (quint64(reg) << (64 - bits)) ^ qFromBigEndian<quint64>(p);
            const quint64 b = qFromBigEndian<quint64>(p + 8);
            reg = T(15, a >> 56) ^ T(14, (a >> 48) & 0xFF) ^ T(13, (a >> 40) & 0xFF) ^ T(12, (a >> 32) & 0xFF)
                ^ T(11, (a >> 24) & 0xFF) ^ T(10, (a >> 16) & 0xFF) ^ T(9, (a >> 8) & 0xFF) ^ T(8, a & 0xFF)
                ^ T(7, b >> 56) ^ T(6, (b >> 48) & 0xFF) ^ T(5, (b >> 40) & 0xFF) ^ T(4, (b >> 32) & 0xFF)
                ^ T(3, (b >> 24) & 0xFF) ^ T(2, (b >> 16) & 0xFF) ^ T(1, (b >> 8) & 0xFF) ^ T(0, b & 0xFF);
        }
        for (; n > 0; --n, ++p)
            reg = Word(reg << 8) ^ T(0, (reg >> (bits - 8)) ^ *p);
    }

    quint64 value = quint64(reg) >> align;
    if (m_params.refout != m_params.refin)
        value = reflectBits(value, m_params.width);
    return (value ^ m_params.xorout) & m_params.mask();
}

quint64 CrcTable::compute(QByteArrayView data) const
{
    if (!m_params.isValid())
        return 0;
    return m_params.width <= 32 ? run(m_narrow, data) : run(m_wide, data);
}
