#include "tools/hexparser.h"

#include <QCoreApplication>

namespace {

int digitValue(char16_t c)
{
    if (c >= u'0' && c <= u'9')
        return c - u'0';
    if (c >= u'a' && c <= u'f')
        return c - u'a' + 10;
    if (c >= u'A' && c <= u'F')
        return c - u'A' + 10;
    return -1;
}

// 1-based position counted in characters, so a character outside the basic
// plane counts once.
qsizetype characterPosition(QStringView text, qsizetype index)
{
    qsizetype position = 0;
    for (qsizetype i = 0; i <= index && i < text.size(); ++i) {
        if (!(text.at(i).isLowSurrogate() && i > 0 && text.at(i - 1).isHighSurrogate()))
            ++position;
    }
    return position;
}

ValueResult<QByteArray> parseStream(QStringView text)
{
    QByteArray out;
    out.reserve(text.size() / 2);
    int high = -1;
    for (qsizetype i = 0; i < text.size(); ++i) {
        const QChar c = text.at(i);
        if (c.isSpace())
            continue;
        const int v = digitValue(c.unicode());
        if (v < 0)
            return ValueResult<QByteArray>::failure(HexParser::invalidCharacterText(characterPosition(text, i)));
        if (high < 0) {
            high = v;
        } else {
            out.append(char((high << 4) | v));
            high = -1;
        }
    }
    if (high >= 0)
        return ValueResult<QByteArray>::failure(HexParser::incompleteBytesText());
    return out;
}

bool isTokenSeparator(QChar c)
{
    return c.isSpace() || c == u',';
}

ValueResult<QByteArray> parseTokens(QStringView text)
{
    QByteArray out;
    qsizetype i = 0;
    while (i < text.size()) {
        if (isTokenSeparator(text.at(i))) {
            ++i;
            continue;
        }
        qsizetype start = i;
        while (i < text.size() && !isTokenSeparator(text.at(i)))
            ++i;
        QStringView token = text.mid(start, i - start);
        if (token.size() > 2 && token.at(0) == u'0' && (token.at(1) == u'x' || token.at(1) == u'X')) {
            token = token.mid(2);
            start += 2;
        }
        for (qsizetype k = 0; k < token.size(); ++k) {
            if (digitValue(token.at(k).unicode()) < 0)
                return ValueResult<QByteArray>::failure(HexParser::invalidCharacterText(characterPosition(text, start + k)));
        }
        if (token.size() == 1) {
            out.append(char(digitValue(token.at(0).unicode())));
            continue;
        }
        if (token.size() % 2 != 0)
            return ValueResult<QByteArray>::failure(HexParser::incompleteBytesText());
        for (qsizetype k = 0; k < token.size(); k += 2)
            out.append(char((digitValue(token.at(k).unicode()) << 4) | digitValue(token.at(k + 1).unicode())));
    }
    return out;
}

} // namespace

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
