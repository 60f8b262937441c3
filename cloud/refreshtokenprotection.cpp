#include "cloud/refreshtokenprotection.h"

#include <QCryptographicHash>

namespace RefreshTokenProtection {

namespace {
QByteArray xorWith(const QByteArray &data, int valueD)
{
    const QByteArray stream = keyStream(valueD, int(data.size()));
    QByteArray out = data;
    for (qsizetype i = 0; i < out.size(); ++i)
        out[i] = char(out[i] ^ stream[i]);
    return out;
}
} // namespace

QByteArray keyStream(int valueD, int n)
{
    const QByteArray material = QByteArrayLiteral("TSL.v4.storage.4c91e0") + ':' + QByteArray::number(valueD);
    QByteArray stream;
    QByteArray block = QCryptographicHash::hash(material + material, QCryptographicHash::Sha256);
    while (stream.size() < n) {
        stream += block;
        block = QCryptographicHash::hash(block + material, QCryptographicHash::Sha256);
    }
    return stream.left(n);
}

QString protect(const QString &token, int valueD)
{
    return QString::fromLatin1(xorWith(token.toUtf8(), valueD).toBase64());
}

QString unprotect(const QString &stored, int valueD)
{
    if (stored.isEmpty())
        return {};
    return QString::fromUtf8(xorWith(QByteArray::fromBase64(stored.toLatin1()), valueD));
}

} // namespace RefreshTokenProtection
