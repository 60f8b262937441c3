#pragma once

#include "connection/connectionconfig.h"

#include <QSerialPort>

// The five settings of a serial line, as a local port applies them and as a
// remote port is asked to take them.
struct SerialParameters
{
    qint32 baudRate = 9600;
    QSerialPort::DataBits dataBits = QSerialPort::Data8;
    QSerialPort::Parity parity = QSerialPort::NoParity;
    QSerialPort::StopBits stopBits = QSerialPort::OneStop;
    QSerialPort::FlowControl flowControl = QSerialPort::NoFlowControl;

    static SerialParameters from(const ConnectionConfig &config)
    {
        return {config.baudRate, config.dataBits, config.parity, config.stopBits, config.flowControl};
    }
    bool operator==(const SerialParameters &other) const = default;
};
