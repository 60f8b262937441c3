#pragma once

#include <QList>
#include <QtGlobal>

// One Modbus request as the builder fills it. Read functions use `quantity`,
// write functions `values` (coil states are 0 or 1).
struct ModbusRequest
{
    quint8 slaveId = 1;  // 0..247, 0 is broadcast
    quint8 functionCode = 0x03;
    quint16 startAddress = 0;
    quint16 quantity = 1;
    QList<quint16> values;
};

// Item order of the builder's "Protocol" box.
enum class ModbusFraming : int {
    Rtu = 0,
    Ascii = 1,
};
