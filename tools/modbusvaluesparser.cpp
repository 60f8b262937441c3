#include "tools/modbusvaluesparser.h"

#include "tools/hexparser.h"

#include <QRegularExpression>

#include <optional>

namespace {

using Values = ValueResult<QList<quint16>>;

// Leading zeros are fine; anything past 16 bits is not.
std::optional<quint16> parseRegister(QStringView part)
{
    const std::optional<quint64> value = HexParser::parseNumber(part);
    if (!value || *value > 0xFFFF)
        return std::nullopt;
    return quint16(*value);
}

} // namespace

ValueResult<QList<quint16>> ModbusValuesParser::parse(quint8 functionCode, const QString &text)
{
    if (functionCode != 0x06 && functionCode != 0x0F && functionCode != 0x10)
        return QList<quint16>{};

    static const QRegularExpression separators(QStringLiteral("[\\s,]+"));
    const QStringList parts = text.split(separators, Qt::SkipEmptyParts);
    QList<quint16> values;
    values.reserve(parts.size());
    for (const QString &part : parts) {
        if (functionCode == 0x0F) {
            if (part != u"0" && part != u"1")
                return Values::failure(tr("Coil states must be 0 or 1, got \"%1\".").arg(part));
            values.append(part == u"1" ? 1 : 0);
        } else {
            const std::optional<quint16> value = parseRegister(part);
            if (!value)
                return Values::failure(tr("\"%1\" is not a 16-bit HEX value.").arg(part));
            values.append(*value);
        }
    }
    if (functionCode == 0x06 && values.size() != 1)
        return Values::failure(tr("Write Single Register takes exactly one value."));
    return values;
}

QString ModbusValuesParser::placeholder(quint8 functionCode)
{
    switch (functionCode) {
    case 0x06:
        return tr("Register value in HEX, e.g. 00 0A");
    case 0x10:
        return tr("Register values in HEX, e.g. 000A 0102");
    case 0x0F:
        return tr("Coil states 0/1, e.g. 1 0 1 1");
    default:
        return {};
    }
}
