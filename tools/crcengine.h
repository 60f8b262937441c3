#pragma once

#include "tools/crcparams.h"

#include <QByteArrayView>

// The reference CRC engine: one bit at a time, any width from 1 to 64.
//
// With reflected input the register starts at `init` exactly as given; it is
// not bit-reversed first. For the usual inits (all zeros or all ones) that is
// the textbook result; for other inits it deliberately differs from tools
// that reverse it. Invalid widths give 0.
quint64 computeCrc(QByteArrayView data, const CrcParams &params);

// `value` with its lowest `width` bits in reverse order (higher bits dropped).
quint64 reflectBits(quint64 value, int width);
