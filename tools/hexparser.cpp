#include "tools/hexparser.h"

#include <QCoreApplication>

#include <array>

namespace {

constexpr std::array<qint8, 128> digitTable = [] {
    std::array<qint8, 128> t{};
    for (auto &v : t)
        v = -1;
    for (int c = '0'; c <= '9'; ++c)
        t[c] = qint8(c - '0');
    for (int c = 'a'; c <= 'f'; ++c)
        t[c] = qint8(c - 'a' + 10);
    for (int c = 'A'; c <= 'F'; ++c)
        t[c] = qint8(c - 'A' + 10);
    return t;
}();

inline int digitValue(QChar c)
{
    const char16_t u = c.unicode();
    return u < 128 ? digitTable[u] : -1;
}

ValueResult<QByteArray> invalidAt(qsizetype index)
{
    // Everything before the first invalid character is a digit or white
    // space, all in the basic plane, so the UTF-16 index is the character
    // position even when the invalid character is an emoji.
    return ValueResult<QByteArray>::failure(HexParser::invalidCharacterText(index + 1));
}

ValueResult<QByteArray> parseStream(QStringView text)
{
    QByteArray out(text.size() / 2, Qt::Uninitialized);
    char *dst = out.data();
    int high = -1;
    for (qsizetype i = 0; i < text.size(); ++i) {
        const QChar c = text.at(i);
        const int v = digitValue(c);
        if (v < 0) {
            if (c.isSpace())
                continue;
            return invalidAt(i);
        }
        if (high < 0) {
            high = v;
        } else {
            *dst++ = char((high << 4) | v);
            high = -1;
        }
    }
    if (high >= 0)
        return ValueResult<QByteArray>::failure(HexParser::incompleteBytesText());
    out.truncate(dst - out.constData());
    return out;
}

inline bool isTokenSeparator(QChar c)
{
    return c == u' ' || c == u',' || c.isSpace();
}

ValueResult<QByteArray> parseTokens(QStringView text)
{
    QByteArray out;
    out.reserve(text.size() / 2 + 1);
    qsizetype i = 0;
    while (i < text.size()) {
        if (isTokenSeparator(text.at(i))) {
            ++i;
            continue;
        }
        qsizetype start = i;
        while (i < text.size() && !isTokenSeparator(text.at(i)))
            ++i;
        if (i - start > 2 && text.at(start) == u'0' && (text.at(start + 1) == u'x' || text.at(start + 1) == u'X'))
            start += 2;
        for (qsizetype k = start; k < i; ++k) {
            if (digitValue(text.at(k)) < 0)
                return invalidAt(k);
        }
        const qsizetype length = i - start;
        // A lone digit is a whole byte ("a" is 0A); longer tokens hold pairs.
        if (length == 1) {
            out.append(char(digitValue(text.at(start))));
            continue;
        }
        if (length % 2 != 0)
            return ValueResult<QByteArray>::failure(HexParser::incompleteBytesText());
        for (qsizetype k = start; k < i; k += 2)
            out.append(char((digitValue(text.at(k)) << 4) | digitValue(text.at(k + 1))));
    }
    return out;
}

} // namespace

std::optional<quint64> HexParser::parseNumber(QStringView digits)
{
    if (digits.isEmpty())
        return std::nullopt;
    quint64 value = 0;
    for (QChar c : digits) {
        const int digit = digitValue(c);
        if (digit < 0 || (value >> 60) != 0)
            return std::nullopt;
        value = (value << 4) | quint64(digit);
    }
    return value;
}

ValueResult<QByteArray> HexParser::parse(QStringView text, Grouping grouping)
{
    return grouping == Grouping::Tokens ? parseTokens(text) : parseStream(text);
}

QString HexParser::toHexText(const QByteArray &bytes)
{
    return QString::fromLatin1(bytes.toHex(' ').toUpper());
}

QString HexParser::invalidCharacterText(qsizetype position)
{
    return QCoreApplication::translate("HexParser", "Invalid hex character at position %1.").arg(position);
}

QString HexParser::incompleteBytesText()
{
    return QCoreApplication::translate("HexParser", "Hex input must contain complete bytes.");
}
