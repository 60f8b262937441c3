#include "tools/crccustomparams.h"

#include <QCoreApplication>

#include <optional>

namespace {

QString fitsWidthText(const char *field)
{
    return QCoreApplication::translate("CrcCalculator", "%1 must be a hexadecimal value that fits the width.")
        .arg(QCoreApplication::translate("CrcCalculator", field));
}

// Hexadecimal digits only (surrounding white space ignored, leading zeros
// allowed); none when the text is empty, holds anything else or overflows.
std::optional<quint64> parseHex(QStringView text)
{
    text = text.trimmed();
    if (text.isEmpty())
        return std::nullopt;
    quint64 value = 0;
    for (QChar c : text) {
        const char16_t u = c.unicode();
        int digit;
        if (u >= u'0' && u <= u'9')
            digit = u - u'0';
        else if (u >= u'a' && u <= u'f')
            digit = u - u'a' + 10;
        else if (u >= u'A' && u <= u'F')
            digit = u - u'A' + 10;
        else
            return std::nullopt;
        if (value >> 60)
            return std::nullopt;
        value = (value << 4) | quint64(digit);
    }
    return value;
}

} // namespace

ValueResult<CrcParams> validateCustomCrcParams(const QString &width, const QString &poly, const QString &init,
                                               const QString &xorout, bool refin, bool refout)
{
    bool ok = false;
    const int w = width.toInt(&ok, 10);
    if (!ok || w < 1 || w > 64)
        return ValueResult<CrcParams>::failure(
            QCoreApplication::translate("CrcCalculator", "Width must be between 1 and 64."));

    CrcParams params;
    params.width = w;
    params.refin = refin;
    params.refout = refout;
    const quint64 largest = params.mask();

    const std::optional<quint64> p = parseHex(poly);
    if (!p || *p > largest)
        return ValueResult<CrcParams>::failure(fitsWidthText(QT_TRANSLATE_NOOP("CrcCalculator", "Polynomial")));
    if (*p == 0)
        return ValueResult<CrcParams>::failure(
            QCoreApplication::translate("CrcCalculator", "Polynomial must not be zero."));
    params.poly = *p;

    const std::optional<quint64> i = parseHex(init);
    if (!i || *i > largest)
        return ValueResult<CrcParams>::failure(fitsWidthText(QT_TRANSLATE_NOOP("CrcCalculator", "Initial value")));
    params.init = *i;

    const std::optional<quint64> x = parseHex(xorout);
    if (!x || *x > largest)
        return ValueResult<CrcParams>::failure(fitsWidthText(QT_TRANSLATE_NOOP("CrcCalculator", "Final XOR")));
    params.xorout = *x;

    return params;
}
