#pragma once

#include "common/result.h"
#include "tools/crcparams.h"

#include <QString>

// Checks the calculator's "Custom" fields in order and stops at the first
// failure: width (decimal, 1..64), then polynomial (hexadecimal, fits the
// width, not zero), initial value and final XOR (hexadecimal, fit the width).
// Texts are in the context "CrcCalculator".
ValueResult<CrcParams> validateCustomCrcParams(const QString &width, const QString &poly, const QString &init,
                                               const QString &xorout, bool refin, bool refout);
