#pragma once

#include <QSerialPort>
#include <QString>

#include <optional>

// Serial parameters as they travel in text (remote commands, sharing status)
// and as they are shown to the user.
namespace SerialParameterText {

inline constexpr char kBaudRateKey[] = "baud_rate";
inline constexpr char kDataBitsKey[] = "data_bits";
inline constexpr char kParityKey[] = "parity";
inline constexpr char kStopBitsKey[] = "stop_bits";
inline constexpr char kFlowControlKey[] = "flow_control";

// Answers to a parameter request that cannot be carried out.
inline constexpr char kNotSerialError[] = "only a serial port has parameters";

QString parityWord(QSerialPort::Parity parity);              // "none", "even", ...
std::optional<QSerialPort::Parity> parityFromWord(const QString &word);
QString flowControlWord(QSerialPort::FlowControl flow);      // "none", "rtscts", "xonxoff"
std::optional<QSerialPort::FlowControl> flowControlFromWord(const QString &word);
double stopBitsNumber(QSerialPort::StopBits stopBits);       // 1, 1.5, 2
std::optional<QSerialPort::StopBits> stopBitsFromNumber(double number);

// Capitalised forms for display: "None", "Even", "RTS/CTS", "XON/XOFF".
QString parityDisplayName(QSerialPort::Parity parity);
QString flowControlDisplayName(QSerialPort::FlowControl flow);

} // namespace SerialParameterText
