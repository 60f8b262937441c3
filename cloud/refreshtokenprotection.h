#pragma once

#include <QByteArray>
#include <QString>

// Keeps the stored refresh token from casual reading of the settings
// store: XOR with a key stream derived from a fixed key and the
// installation's `ValueD`, then Base64. An obfuscation, not encryption.
namespace RefreshTokenProtection {

// n bytes of the key stream for the given `ValueD`.
QByteArray keyStream(int valueD, int n);
QString protect(const QString &token, int valueD);
// An empty stored value yields an empty token; a damaged one yields garbage
// that the server will refuse.
QString unprotect(const QString &stored, int valueD);

} // namespace RefreshTokenProtection
