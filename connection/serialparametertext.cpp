#include "connection/serialparametertext.h"

#include <cmath>

namespace SerialParameterText {

QString parityWord(QSerialPort::Parity parity)
{
    switch (parity) {
    case QSerialPort::EvenParity: return QStringLiteral("even");
    case QSerialPort::OddParity: return QStringLiteral("odd");
    case QSerialPort::MarkParity: return QStringLiteral("mark");
    case QSerialPort::SpaceParity: return QStringLiteral("space");
    default: return QStringLiteral("none");
    }
}

std::optional<QSerialPort::Parity> parityFromWord(const QString &word)
{
    const QString w = word.trimmed().toLower();
    if (w == QLatin1String("none")) return QSerialPort::NoParity;
    if (w == QLatin1String("even")) return QSerialPort::EvenParity;
    if (w == QLatin1String("odd")) return QSerialPort::OddParity;
    if (w == QLatin1String("mark")) return QSerialPort::MarkParity;
    if (w == QLatin1String("space")) return QSerialPort::SpaceParity;
    return std::nullopt;
}

QString flowControlWord(QSerialPort::FlowControl flow)
{
    switch (flow) {
    case QSerialPort::HardwareControl: return QStringLiteral("rtscts");
    case QSerialPort::SoftwareControl: return QStringLiteral("xonxoff");
    default: return QStringLiteral("none");
    }
}

std::optional<QSerialPort::FlowControl> flowControlFromWord(const QString &word)
{
    const QString w = word.trimmed().toLower();
    if (w == QLatin1String("none")) return QSerialPort::NoFlowControl;
    if (w == QLatin1String("rtscts")) return QSerialPort::HardwareControl;
    if (w == QLatin1String("xonxoff")) return QSerialPort::SoftwareControl;
    return std::nullopt;
}

double stopBitsNumber(QSerialPort::StopBits stopBits)
{
    switch (stopBits) {
    case QSerialPort::OneAndHalfStop: return 1.5;
    case QSerialPort::TwoStop: return 2.0;
    default: return 1.0;
    }
}

std::optional<QSerialPort::StopBits> stopBitsFromNumber(double number)
{
    if (std::abs(number - 1.0) < 1e-9) return QSerialPort::OneStop;
    if (std::abs(number - 1.5) < 1e-9) return QSerialPort::OneAndHalfStop;
    if (std::abs(number - 2.0) < 1e-9) return QSerialPort::TwoStop;
    return std::nullopt;
}

QString parityDisplayName(QSerialPort::Parity parity)
{
    const QString word = parityWord(parity);
    return word.left(1).toUpper() + word.mid(1);
}

QString flowControlDisplayName(QSerialPort::FlowControl flow)
{
    switch (flow) {
    case QSerialPort::HardwareControl: return QStringLiteral("RTS/CTS");
    case QSerialPort::SoftwareControl: return QStringLiteral("XON/XOFF");
    default: return QStringLiteral("None");
    }
}

} // namespace SerialParameterText
