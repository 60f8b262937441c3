#pragma once

#include "tools/crcparams.h"

#include <QByteArrayView>

#include <vector>

// Table-driven CRC for any parameters, sixteen bytes per step (slicing-by-16).
// Gives exactly the results of computeCrc(), including its handling of init
// with reflected input; the property tests hold it to that.
//
// Widths up to 32 use 32-bit tables (16 KiB), wider ones 64-bit tables
// (32 KiB): build one per model and keep it.
class CrcTable
{
public:
    explicit CrcTable(const CrcParams &params);

    const CrcParams &params() const { return m_params; }
    quint64 compute(QByteArrayView data) const;

private:
    template <typename Word>
    void build(std::vector<Word> &table) const;
    template <typename Word>
    quint64 run(const std::vector<Word> &table, QByteArrayView data) const;

    CrcParams m_params;
    std::vector<quint32> m_narrow;
    std::vector<quint64> m_wide;
};
