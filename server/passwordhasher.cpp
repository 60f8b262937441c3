#include "passwordhasher.h"

#include "tokens.h"

#include <QCryptographicHash>
#include <QPasswordDigestor>
#include <QRandomGenerator>
#include <QStringList>

namespace {
constexpr int kSaltBytes = 16;
constexpr int kKeyBytes = 32;
const QString kScheme = QStringLiteral("pbkdf2-sha256");

QByteArray derive(const QString &password, const QByteArray &salt, int iterations)
{
    return QPasswordDigestor::deriveKeyPbkdf2(QCryptographicHash::Sha256, password.toUtf8(), salt,
                                              iterations, kKeyBytes);
}
} // namespace

PasswordHasher::PasswordHasher(int iterations) : m_iterations(qMax(1, iterations))
{
    m_decoy = hash(Tokens::random(12));
}

QString PasswordHasher::hash(const QString &password) const
{
    QByteArray salt(kSaltBytes, Qt::Uninitialized);
    for (int i = 0; i < kSaltBytes; ++i)
        salt[i] = static_cast<char>(QRandomGenerator::system()->bounded(256));
    return QStringLiteral("%1$%2$%3$%4")
        .arg(kScheme)
        .arg(m_iterations)
        .arg(QString::fromLatin1(salt.toBase64()), QString::fromLatin1(derive(password, salt, m_iterations).toBase64()));
}

bool PasswordHasher::verify(const QString &password, const QString &stored) const
{
    const QStringList parts = stored.split(u'$');
    if (parts.size() != 4 || parts[0] != kScheme)
        return false;
    bool numberOk = false;
    const int iterations = parts[1].toInt(&numberOk);
    // Bounded so that a damaged row cannot stall the service.
    if (!numberOk || iterations < 1 || iterations > 10'000'000)
        return false;
    const QByteArray salt = QByteArray::fromBase64(parts[2].toLatin1());
    const QByteArray expected = QByteArray::fromBase64(parts[3].toLatin1());
    return Tokens::equalConstantTime(derive(password, salt, iterations), expected);
}
