#pragma once

#include "common/result.h"

#include <QCoreApplication>
#include <QList>
#include <QString>

// Reads the builder's "Values" field for a function code: parts separated by
// white space or commas; coil states (0x0F) are "0" or "1", register values
// (0x06, 0x10) hexadecimal within 16 bits, and 0x06 takes exactly one.
// Other functions take no values from the field and give an empty list.
class ModbusValuesParser
{
    Q_DECLARE_TR_FUNCTIONS(ModbusValuesParser)

public:
    static ValueResult<QList<quint16>> parse(quint8 functionCode, const QString &text);
    // The field's hint for a function, empty where the field is unused.
    static QString placeholder(quint8 functionCode);
};
