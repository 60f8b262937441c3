#pragma once

#include "tools/crcparams.h"

#include <QString>

// One row of the CRC catalogue; `id` equals its position.
struct CrcModel
{
    int id = 0;
    QString name;
    int width = 0;
    quint64 poly = 0;
    quint64 init = 0;
    bool refin = false;
    bool refout = false;
    quint64 xorout = 0;

    CrcParams params() const { return {width, poly, init, xorout, refin, refout}; }
    // The name for display: translated where it is a word ("Custom").
    QString displayName() const;
};
