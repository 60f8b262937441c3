#include "tools/crccustomparams.h"

#include "tools/hexparser.h"

#include <QCoreApplication>

#include <optional>

namespace {

QString fitsWidthText(const char *field)
{
    return QCoreApplication::translate("CrcCalculator", "%1 must be a hexadecimal value that fits the width.")
        .arg(QCoreApplication::translate("CrcCalculator", field));
}

// Surrounding white space is forgiven, as a user may paste it.
std::optional<quint64> parseHex(QStringView text)
{
    return HexParser::parseNumber(text.trimmed());
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
