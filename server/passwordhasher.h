#pragma once

#include <QString>

// Salted PBKDF2-SHA256 password hashes, stored as
// "pbkdf2-sha256$<iterations>$<salt base64>$<hash base64>" so the work
// factor can be raised later without breaking older hashes.
class PasswordHasher
{
public:
    // 60000 iterations cost about 65 ms of one core here: affordable on a
    // 2-core machine under sign-in bursts (sign-in attempts are limited),
    // costly for an offline guesser.
    static constexpr int kDefaultIterations = 60000;

    explicit PasswordHasher(int iterations = kDefaultIterations);

    QString hash(const QString &password) const;
    bool verify(const QString &password, const QString &stored) const;
    // A hash that takes as long to check as a real one: compared against
    // when the account does not exist, so timing does not tell.
    const QString &decoy() const { return m_decoy; }

private:
    int m_iterations;
    QString m_decoy;
};
