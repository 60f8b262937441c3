#include "common/wiretextcodec.h"

#include <QList>
#include <QTextCodec>

namespace {

bool hasUnpairedSurrogate(QStringView text)
{
    for (qsizetype i = 0; i < text.size(); ++i) {
        const QChar c = text.at(i);
        if (c.isHighSurrogate()) {
            if (i + 1 >= text.size() || !text.at(i + 1).isLowSurrogate())
                return true;
            ++i;
        } else if (c.isLowSurrogate()) {
            return true;
        }
    }
    return false;
}

// Start index of every code point, plus the end.
QList<qsizetype> codePointBoundaries(QStringView text)
{
    QList<qsizetype> bounds;
    bounds.reserve(text.size() + 1);
    for (qsizetype i = 0; i < text.size(); ++i) {
        bounds.append(i);
        if (text.at(i).isHighSurrogate() && i + 1 < text.size() && text.at(i + 1).isLowSurrogate())
            ++i;
    }
    bounds.append(text.size());
    return bounds;
}

} // namespace

WireTextCodec WireTextCodec::fromEncoding(const QString &name, QStringConverter::Encoding encoding)
{
    WireTextCodec codec;
    codec.m_name = name;
    codec.m_encoding = encoding;
    return codec;
}

WireTextCodec WireTextCodec::fromLegacy(const QString &name, QTextCodec *legacy)
{
    WireTextCodec codec;
    codec.m_name = name;
    codec.m_legacy = legacy;
    return codec;
}

std::pair<QByteArray, bool> WireTextCodec::encodeRaw(QStringView text) const
{
    if (m_encoding) {
        // A fresh encoder per call; its state is what counts the failures.
        QStringEncoder encoder(*m_encoding);
        QByteArray bytes = encoder.encode(text);
        return {bytes, encoder.hasError()};
    }
    QTextCodec::ConverterState state(QTextCodec::IgnoreHeader);
    QByteArray bytes = m_legacy->fromUnicode(text.data(), int(text.size()), &state);
    return {bytes, state.invalidChars > 0 || state.remainingChars > 0};
}

ValueResult<QByteArray> WireTextCodec::encode(QStringView text) const
{
    if (!isValid())
        return ValueResult<QByteArray>::failure(unencodableMessageText(m_name));
    if (text.isEmpty())
        return QByteArray();
    // Half a surrogate pair is no character at all, so none can be named;
    // some converters would even drop it silently.
    if (hasUnpairedSurrogate(text))
        return ValueResult<QByteArray>::failure(unencodableMessageText(m_name));

    auto [bytes, failed] = encodeRaw(text);
    if (!failed)
        return bytes;

    // Name the first character that fails: the shortest failing prefix ends
    // with it. Bisection keeps a long pasted message cheap to diagnose.
    const QList<qsizetype> bounds = codePointBoundaries(text);
    qsizetype good = 0;                 // prefix of this many code points encodes
    qsizetype bad = bounds.size() - 1;  // prefix of this many fails
    while (bad - good > 1) {
        const qsizetype mid = (good + bad) / 2;
        if (encodeRaw(text.first(bounds.at(mid))).second)
            bad = mid;
        else
            good = mid;
    }
    const QStringView culprit = text.mid(bounds.at(bad - 1), bounds.at(bad) - bounds.at(bad - 1));
    if (!encodeRaw(culprit).second)
        return ValueResult<QByteArray>::failure(unencodableMessageText(m_name));
    return ValueResult<QByteArray>::failure(unencodableCharacterText(culprit.toString(), m_name));
}

QString WireTextCodec::unencodableCharacterText(const QString &character, const QString &encodingName)
{
    return tr("The character '%1' cannot be encoded as %2. Change the encoding or edit the message.")
        .arg(character, encodingName);
}

QString WireTextCodec::unencodableMessageText(const QString &encodingName)
{
    return tr("This message cannot be encoded as %1. Change the encoding or edit the message.")
        .arg(encodingName);
}
