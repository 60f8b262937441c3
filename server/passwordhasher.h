#pragma once

#include "apioutcome.h"

#include <QString>

// The cost of an Argon2id hash: memory in KiB, passes over it, lanes.
struct Argon2Cost
{
    // OWASP's figures for a server: 19 MiB, 2 passes, 1 lane; about 30 ms
    // of one core here.
    quint32 memoryKiB = 19 * 1024;
    quint32 passes = 2;
    quint32 lanes = 1;
};

// Password hashes: Argon2id in the PHC string format
// ("$argon2id$v=19$m=19456,t=2,p=1$<salt>$<hash>") through Debian's
// libargon2. Older hashes ("pbkdf2-sha256$<iterations>$<salt>$<hash>")
// still verify and count as outdated, like Argon2id hashes of another cost,
// so a sign-in replaces them. Safe to use from several threads at once.
class PasswordHasher
{
public:
    explicit PasswordHasher(Argon2Cost cost = {});

    QString hash(const QString &password) const;
    bool verify(const QString &password, const QString &stored) const;
    // Whether `stored` is of another kind or cost than hash() makes now.
    bool needsRehash(const QString &stored) const;
    // Does `work`: a hash, or a check with the replacement hash when the
    // stored one is outdated.
    PasswordResult run(const PasswordWork &work) const;
    // A hash that takes as long to check as a real one: compared against
    // when the account does not exist, so timing does not tell.
    const QString &decoy() const { return m_decoy; }
    const Argon2Cost &cost() const { return m_cost; }

    // A PBKDF2-SHA256 hash as this service made them before Argon2id, so
    // tests can plant one.
    static QString pbkdf2Hash(const QString &password, int iterations);

private:
    Argon2Cost m_cost;
    QString m_prefix;  // "$argon2id$v=19$m=...,t=...,p=...$"
    QString m_decoy;
};
