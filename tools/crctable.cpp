#include "tools/crctable.h"

#include "tools/crcengine.h"

#include <QtEndian>

namespace {

constexpr int slices = 16;

template <typename Word>
constexpr int wordBits = int(8 * sizeof(Word));

template <typename Word>
inline Word lookup(const Word *t, int slice, quint64 byte)
{
    return t[slice * 256 + int(byte)];
}

// One step of sixteen bytes. Reflected registers sit in the low bits of the
// word and take the bytes little-endian; normal registers sit in the top bits
// and take them big-endian.
template <typename Word, bool Reflected>
inline Word step16(const Word *t, Word reg, const uchar *p)
{
    constexpr int bits = wordBits<Word>;
    if constexpr (Reflected) {
        const quint64 a = quint64(reg) ^ qFromLittleEndian<quint64>(p);
        const quint64 b = qFromLittleEndian<quint64>(p + 8);
        return lookup(t, 15, a & 0xFF) ^ lookup(t, 14, (a >> 8) & 0xFF) ^ lookup(t, 13, (a >> 16) & 0xFF)
            ^ lookup(t, 12, (a >> 24) & 0xFF) ^ lookup(t, 11, (a >> 32) & 0xFF) ^ lookup(t, 10, (a >> 40) & 0xFF)
            ^ lookup(t, 9, (a >> 48) & 0xFF) ^ lookup(t, 8, a >> 56) ^ lookup(t, 7, b & 0xFF)
            ^ lookup(t, 6, (b >> 8) & 0xFF) ^ lookup(t, 5, (b >> 16) & 0xFF) ^ lookup(t, 4, (b >> 24) & 0xFF)
            ^ lookup(t, 3, (b >> 32) & 0xFF) ^ lookup(t, 2, (b >> 40) & 0xFF) ^ lookup(t, 1, (b >> 48) & 0xFF)
            ^ lookup(t, 0, b >> 56);
    } else {
        const quint64 a = (quint64(reg) << (64 - bits)) ^ qFromBigEndian<quint64>(p);
        const quint64 b = qFromBigEndian<quint64>(p + 8);
        return lookup(t, 15, a >> 56) ^ lookup(t, 14, (a >> 48) & 0xFF) ^ lookup(t, 13, (a >> 40) & 0xFF)
            ^ lookup(t, 12, (a >> 32) & 0xFF) ^ lookup(t, 11, (a >> 24) & 0xFF) ^ lookup(t, 10, (a >> 16) & 0xFF)
            ^ lookup(t, 9, (a >> 8) & 0xFF) ^ lookup(t, 8, a & 0xFF) ^ lookup(t, 7, b >> 56)
            ^ lookup(t, 6, (b >> 48) & 0xFF) ^ lookup(t, 5, (b >> 40) & 0xFF) ^ lookup(t, 4, (b >> 32) & 0xFF)
            ^ lookup(t, 3, (b >> 24) & 0xFF) ^ lookup(t, 2, (b >> 16) & 0xFF) ^ lookup(t, 1, (b >> 8) & 0xFF)
            ^ lookup(t, 0, b & 0xFF);
    }
}

template <typename Word, bool Reflected>
inline Word step1(const Word *t, Word reg, uchar byte)
{
    constexpr int bits = wordBits<Word>;
    if constexpr (Reflected)
        return Word(reg >> 8) ^ lookup(t, 0, (reg ^ byte) & 0xFF);
    else
        return Word(reg << 8) ^ lookup(t, 0, (reg >> (bits - 8)) ^ byte);
}

template <typename Word>
inline Word applyMap(const std::vector<quint64> &columns, Word reg)
{
    Word out = 0;
    for (int bit = 0; reg != 0; ++bit, reg >>= 1) {
        if (reg & 1)
            out ^= Word(columns[size_t(bit)]);
    }
    return out;
}

// The map applied twice.
std::vector<quint64> squared(const std::vector<quint64> &map)
{
    std::vector<quint64> out(map.size());
    for (size_t bit = 0; bit < map.size(); ++bit)
        out[bit] = applyMap<quint64>(map, map[bit]);
    return out;
}

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

// Table k advances a byte through k further zero bytes.
template <typename Word>
void CrcTable::build(std::vector<Word> &table)
{
    constexpr int bits = wordBits<Word>;
    table.assign(size_t(slices) * 256, 0);
    Word *t0 = table.data();
    const quint64 poly = m_params.poly & m_params.mask();
    const bool reflected = m_params.refin;
    if (reflected) {
        const Word rpoly = Word(reflectBits(poly, m_params.width));
        for (int i = 0; i < 256; ++i) {
            Word x = Word(i);
            for (int bit = 0; bit < 8; ++bit)
                x = (x & 1) ? Word(x >> 1) ^ rpoly : Word(x >> 1);
            t0[i] = x;
        }
    } else {
        const Word apoly = Word(poly << (bits - m_params.width));
        for (int i = 0; i < 256; ++i) {
            Word x = Word(Word(i) << (bits - 8));
            for (int bit = 0; bit < 8; ++bit)
                x = (x >> (bits - 1)) ? Word(x << 1) ^ apoly : Word(x << 1);
            t0[i] = x;
        }
    }
    for (int k = 1; k < slices; ++k) {
        for (int i = 0; i < 256; ++i) {
            const Word prev = table[size_t(k - 1) * 256 + i];
            table[size_t(k) * 256 + i] =
                reflected ? step1<Word, true>(t0, prev, 0) : step1<Word, false>(t0, prev, 0);
        }
    }

    // The register is linear in its start value: one zero byte maps each bit
    // to a column, and squaring doubles the distance up to a whole lane.
    std::vector<quint64> map(bits);
    for (int bit = 0; bit < bits; ++bit) {
        const Word unit = Word(Word(1) << bit);
        map[size_t(bit)] = reflected ? step1<Word, true>(t0, unit, 0) : step1<Word, false>(t0, unit, 0);
    }
    for (qsizetype distance = 1; distance < LaneBytes; distance *= 2)
        map = squared(map);
    m_skipLane = map;
    m_skipTwoLanes = squared(map);
}

template <typename Word, bool Reflected>
quint64 CrcTable::run(const std::vector<Word> &table, QByteArrayView data) const
{
    constexpr int bits = wordBits<Word>;
    const Word *t = table.data();
    const auto *p = reinterpret_cast<const uchar *>(data.data());
    qsizetype n = data.size();
    const int align = Reflected ? 0 : bits - m_params.width;
    Word reg = Word((m_params.init & m_params.mask()) << align);

    // Three lanes: the first carries the register, the other two start from
    // zero; the skip maps move each result to the end of the round.
    for (; n >= 3 * LaneBytes; n -= 3 * LaneBytes, p += 3 * LaneBytes) {
        Word a = reg;
        Word b = 0;
        Word c = 0;
        for (qsizetype k = 0; k < LaneBytes; k += slices) {
            a = step16<Word, Reflected>(t, a, p + k);
            b = step16<Word, Reflected>(t, b, p + LaneBytes + k);
            c = step16<Word, Reflected>(t, c, p + 2 * LaneBytes + k);
        }
        reg = applyMap(m_skipTwoLanes, a) ^ applyMap(m_skipLane, b) ^ c;
    }
    for (; n >= slices; n -= slices, p += slices)
        reg = step16<Word, Reflected>(t, reg, p);
    for (; n > 0; --n, ++p)
        reg = step1<Word, Reflected>(t, reg, *p);

    quint64 value = quint64(reg) >> align;
    if (m_params.refout != m_params.refin)
        value = reflectBits(value, m_params.width);
    return (value ^ m_params.xorout) & m_params.mask();
}

quint64 CrcTable::compute(QByteArrayView data) const
{
    if (!m_params.isValid())
        return 0;
    if (m_params.width <= 32)
        return m_params.refin ? run<quint32, true>(m_narrow, data) : run<quint32, false>(m_narrow, data);
    return m_params.refin ? run<quint64, true>(m_wide, data) : run<quint64, false>(m_wide, data);
}
