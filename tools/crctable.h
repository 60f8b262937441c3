#pragma once

#include "tools/crcparams.h"

#include <QByteArrayView>

#include <vector>

// Table-driven CRC for any parameters. Gives exactly the results of
// computeCrc(), including its handling of init with reflected input; the
// property tests hold it to that.
//
// Sixteen bytes per step (slicing-by-16); long inputs run as three
// interleaved lanes whose registers are joined by precomputed "skip" maps,
// so the processor overlaps their table look-ups. Widths up to 32 use 32-bit
// tables (16 KiB), wider ones 64-bit tables (32 KiB): build one per model
// and keep it.
class CrcTable
{
public:
    explicit CrcTable(const CrcParams &params);

    const CrcParams &params() const { return m_params; }
    quint64 compute(QByteArrayView data) const;

    // Bytes per lane in one round of three lanes.
    static constexpr qsizetype LaneBytes = 4096;

private:
    template <typename Word>
    void build(std::vector<Word> &table);
    template <typename Word, bool Reflected>
    quint64 run(const std::vector<Word> &table, QByteArrayView data) const;

    CrcParams m_params;
    std::vector<quint32> m_narrow;
    std::vector<quint64> m_wide;
    // Linear maps as columns (one per register bit): what a register becomes
    // after one lane, and after two lanes, of zero bytes.
    std::vector<quint64> m_skipLane;
    std::vector<quint64> m_skipTwoLanes;
};
