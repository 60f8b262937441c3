#include "passwordhasher.h"

#include "tokens.h"

#include <QCryptographicHash>
#include <QPasswordDigestor>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QStringList>

#include <argon2.h>

namespace {

constexpr int kSaltBytes = 16;
constexpr int kHashBytes = 32;
const QString kPbkdf2Scheme = QStringLiteral("pbkdf2-sha256");

// Bounds on the cost written in a stored hash, so that a damaged row
// cannot make one check take the machine.
constexpr quint32 kMaxMemoryKiB = 256 * 1024;
constexpr quint32 kMaxPasses = 16;
constexpr quint32 kMaxLanes = 16;
constexpr int kMaxPbkdf2Iterations = 10'000'000;

QByteArray randomSalt()
{
    QByteArray salt(kSaltBytes, Qt::Uninitialized);
    QRandomGenerator::system()->generate(salt.begin(), salt.end());
    return salt;
}

QByteArray pbkdf2(const QString &password, const QByteArray &salt, int iterations)
{
    return QPasswordDigestor::deriveKeyPbkdf2(QCryptographicHash::Sha256, password.toUtf8(), salt, iterations, 32);
}

bool verifyPbkdf2(const QString &password, const QString &stored)
{
    const QStringList parts = stored.split(u'$');
    if (parts.size() != 4 || parts[0] != kPbkdf2Scheme)
        return false;
    bool numberOk = false;
    const int iterations = parts[1].toInt(&numberOk);
    if (!numberOk || iterations < 1 || iterations > kMaxPbkdf2Iterations)
        return false;
    const QByteArray salt = QByteArray::fromBase64(parts[2].toLatin1());
    const QByteArray expected = QByteArray::fromBase64(parts[3].toLatin1());
    return Tokens::equalConstantTime(pbkdf2(password, salt, iterations), expected);
}

// The cost an Argon2id string names, when it is one of ours to check.
bool argon2CostOf(const QString &stored, Argon2Cost &cost)
{
    static const QRegularExpression format(
        QStringLiteral("^\\$argon2id\\$v=19\\$m=(\\d{1,7}),t=(\\d{1,3}),p=(\\d{1,3})\\$[A-Za-z0-9+/]+\\$[A-Za-z0-9+/]+$"));
    const QRegularExpressionMatch match = format.match(stored);
    if (!match.hasMatch())
        return false;
    cost.memoryKiB = match.captured(1).toUInt();
    cost.passes = match.captured(2).toUInt();
    cost.lanes = match.captured(3).toUInt();
    return cost.memoryKiB <= kMaxMemoryKiB && cost.passes >= 1 && cost.passes <= kMaxPasses && cost.lanes >= 1
           && cost.lanes <= kMaxLanes && cost.memoryKiB >= 8 * cost.lanes;
}

} // namespace

PasswordHasher::PasswordHasher(Argon2Cost cost)
    : m_cost(cost),
      m_prefix(QStringLiteral("$argon2id$v=19$m=%1,t=%2,p=%3$").arg(cost.memoryKiB).arg(cost.passes).arg(cost.lanes))
{
    m_decoy = hash(Tokens::random(12));
}

QString PasswordHasher::hash(const QString &password) const
{
    const QByteArray utf8 = password.toUtf8();
    const QByteArray salt = randomSalt();
    QByteArray encoded(int(argon2_encodedlen(m_cost.passes, m_cost.memoryKiB, m_cost.lanes, kSaltBytes, kHashBytes,
                                             Argon2_id)),
                       '\0');
    const int result = argon2id_hash_encoded(m_cost.passes, m_cost.memoryKiB, m_cost.lanes, utf8.constData(),
                                             size_t(utf8.size()), salt.constData(), size_t(salt.size()), kHashBytes,
                                             encoded.data(), size_t(encoded.size()));
    if (result != ARGON2_OK)
        qFatal("Argon2id failed: %s", argon2_error_message(result));  // only out of memory gets here
    return QString::fromLatin1(encoded.constData());
}

bool PasswordHasher::verify(const QString &password, const QString &stored) const
{
    if (stored.startsWith(kPbkdf2Scheme))
        return verifyPbkdf2(password, stored);
    Argon2Cost cost;
    if (!argon2CostOf(stored, cost))
        return false;
    const QByteArray utf8 = password.toUtf8();
    return argon2id_verify(stored.toLatin1().constData(), utf8.constData(), size_t(utf8.size())) == ARGON2_OK;
}

bool PasswordHasher::needsRehash(const QString &stored) const
{
    return !stored.startsWith(m_prefix);
}

PasswordResult PasswordHasher::run(const PasswordWork &work) const
{
    PasswordResult result;
    if (work.kind == PasswordWork::Kind::Hash) {
        result.matches = true;
        result.newHash = hash(work.password);
        return result;
    }
    result.matches = verify(work.password, work.stored);
    if (result.matches && needsRehash(work.stored))
        result.newHash = hash(work.password);
    return result;
}

QString PasswordHasher::pbkdf2Hash(const QString &password, int iterations)
{
    const QByteArray salt = randomSalt();
    return QStringLiteral("%1$%2$%3$%4")
        .arg(kPbkdf2Scheme)
        .arg(iterations)
        .arg(QString::fromLatin1(salt.toBase64()), QString::fromLatin1(pbkdf2(password, salt, iterations).toBase64()));
}
