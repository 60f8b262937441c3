#pragma once

#include "tools/crcparams.h"

#include <QByteArrayView>

#include <array>

// Table-driven CRC for any parameters, eight bytes per step (slicing-by-8).
// Gives exactly the results of computeCrc(), including its handling of init
// with reflected input; the property tests hold it to that.
//
// A table is 16 KiB: build one per model and keep it.
class CrcTable
{
public:
    explicit CrcTable(const CrcParams &params);

    const CrcParams &params() const { return m_params; }
    quint64 compute(QByteArrayView data) const;

private:
    quint64 update(quint64 reg, const uchar *p, qsizetype n) const;

    CrcParams m_params;
    // Normal (unreflected) models keep the register in the top bits of a
    // 64-bit word, so every width shares one byte-at-a-time step.
    int m_alignShift = 0;
    std::array<std::array<quint64, 256>, 8> m_table{};
};
