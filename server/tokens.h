#pragma once

#include <QByteArray>
#include <QString>

// Secrets handed to clients: random from the system generator, stored only
// as their SHA-256, compared in constant time.
namespace Tokens {

// `bytes` random bytes as unpadded base64url text.
QString random(int bytes = 32);
// A code of `digits` decimal digits, uniformly drawn.
QString numericCode(int digits);
// Hex SHA-256 of the token's UTF-8 bytes: what the database keeps.
QString hash(const QString &token);
bool equalConstantTime(const QByteArray &a, const QByteArray &b);
// `data` XORed with a key stream that only `secret` gives (SHA-256 in
// counter mode over a key derived from it, unlike hash()): sealing and
// opening are the same call. For data kept beside a secret's hash that the
// secret's holder, and nobody who reads the database, may read back.
QByteArray sealed(const QString &secret, const QByteArray &data);

} // namespace Tokens
