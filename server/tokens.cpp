#include "tokens.h"

#include <QCryptographicHash>
#include <QRandomGenerator>

namespace Tokens {

QString random(int bytes)
{
    QByteArray raw(bytes, Qt::Uninitialized);
    for (int i = 0; i < bytes; ++i)
        raw[i] = static_cast<char>(QRandomGenerator::system()->bounded(256));
    return QString::fromLatin1(raw.toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals));
}

QString numericCode(int digits)
{
    QString code;
    code.reserve(digits);
    for (int i = 0; i < digits; ++i)
        code.append(QChar(u'0' + QRandomGenerator::system()->bounded(10)));
    return code;
}

QString hash(const QString &token)
{
    return QString::fromLatin1(
        QCryptographicHash::hash(token.toUtf8(), QCryptographicHash::Sha256).toHex());
}

bool equalConstantTime(const QByteArray &a, const QByteArray &b)
{
    if (a.size() != b.size())
        return false;
    unsigned char diff = 0;
    for (qsizetype i = 0; i < a.size(); ++i)
        diff |= static_cast<unsigned char>(a[i] ^ b[i]);
    return diff == 0;
}

QByteArray sealed(const QString &secret, const QByteArray &data)
{
    const QByteArray key = QCryptographicHash::hash("tsl.sealed:" + secret.toUtf8(), QCryptographicHash::Sha256);
    QByteArray out = data;
    QByteArray block;
    for (qsizetype i = 0; i < out.size(); ++i) {
        if (i % 32 == 0) {
            const quint32 counter = quint32(i / 32);
            const char bytes[4] = {char(counter >> 24), char(counter >> 16), char(counter >> 8), char(counter)};
            block = QCryptographicHash::hash(key + QByteArray(bytes, 4), QCryptographicHash::Sha256);
        }
        out[i] = char(out[i] ^ block[i % 32]);
    }
    return out;
}

} // namespace Tokens
