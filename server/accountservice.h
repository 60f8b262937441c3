#pragma once

#include "apioutcome.h"
#include "apireply.h"
#include "servicetime.h"

#include <QJsonObject>
#include <QList>
#include <QString>

#include <optional>
#include <variant>

class CodeMailer;
class PasswordHasher;
class Storage;
struct UserRow;
struct DeviceRow;
struct RefreshRow;

// Limits and lifetimes of the account side; every bound on what peers can
// make the service store is here.
struct AccountPolicy
{
    qint64 accessTtlMs = 15 * 60 * 1000;
    qint64 refreshTtlMs = 30LL * 24 * 3600 * 1000;
    qint64 codeTtlMs = 10 * 60 * 1000;
    int codeTries = 5;
    qint64 codeResendMs = 60 * 1000;
    int maxPendingCodes = 10000;           // beyond: "try_later"
    int maxCodeRequestsPerAddress = 20;    // per attempt window
    qint64 attemptWindowMs = 15 * 60 * 1000;  // also: failures are forgotten this long after the last
    // Failed sign-ins make the next attempt wait, never lock: after
    // `freeFailures` the wait starts at firstDelayMs and doubles with each
    // failure up to maxDelayMs. Counted per (address, account) pair, which
    // nobody elsewhere can push, and per address, which bounds guessing
    // across accounts.
    int freeFailuresPerPair = 3;
    int freeFailuresPerAddress = 20;
    qint64 firstDelayMs = 1000;
    qint64 maxDelayMs = 60 * 1000;
    // A refresh token just rotated may come again this long (a reply lost
    // on the way) and gets the same new pair; later it ends the chain.
    qint64 refreshGraceMs = 30 * 1000;
    int maxDevices = 20;                   // beyond: "device_limit_reached"
    int maxSessions = 20;                  // beyond: the oldest sign-in ends
    int keepRotatedTokens = 100;           // per session, for reuse detection
    bool approvalMode = false;
};

// The signed-in caller of a request, as its access token says.
struct Caller
{
    qint64 userId = 0;
    qint64 sessionId = 0;
    qint64 deviceId = 0;
    QString email;
    QString username;
    qint64 createdAt = 0;  // of the account
    qint64 tokenExpiresAt = 0;  // of the access token that identified the caller
};

// Registration, sign-in, tokens and devices. Knows nothing of HTTP: it takes
// decoded bodies and answers envelopes of the "account" family. Password
// hashing is left to its caller (registration and sign-in hand back a
// PasswordStep), so the database work around it can run elsewhere.
class AccountService
{
public:
    AccountService(Storage &storage, const PasswordHasher &hasher, CodeMailer &mailer, AccountPolicy policy,
                   ServiceClock clock);

    ApiReply requestCode(const QJsonObject &body, const QString &remoteAddress);
    ApiOutcome registerAccount(const QJsonObject &body, const QString &remoteAddress);
    ApiOutcome login(const QJsonObject &body, const QString &remoteAddress);
    ApiReply refresh(const QJsonObject &body);
    ApiReply logout(const QJsonObject &body);

    // The caller behind an "Authorization" header value, or the envelope
    // (of family `type`) that refuses the request.
    std::variant<Caller, ApiReply> authenticate(const QByteArray &authorization, const QString &type);

    ApiReply me(const Caller &caller);
    ApiReply devices(const Caller &caller);
    ApiReply bindDevice(const Caller &caller, const QJsonObject &body);
    ApiReply removeDevice(const Caller &caller, const QString &device);

    // Administration from the command line.
    bool approve(const QString &email);
    bool pendingAccounts(QList<UserRow> &out);

    static QString normaliseEmail(const QString &email);
    static bool isValidEmail(const QString &email);

    // A new pair of tokens as handed out.
    struct IssuedTokens
    {
        QString accessToken;
        QString refreshToken;
        qint64 accessExpiresAt = 0;
    };

private:
    struct SignInAttempt;

    // How long sign-ins from `address` for `email` must wait: 0 when they
    // may go ahead; -1 on a storage failure.
    qint64 signInWait(const QString &address, const QString &email, qint64 now);
    ApiOutcome finishLogin(const SignInAttempt &attempt, const PasswordResult &result);
    ApiOutcome finishRegistration(const UserRow &user, const QString &deviceName, const QString &clientVersion,
                                  const PasswordResult &result);
    ApiReply issueSession(const UserRow &user, const QString &deviceName, const QString &clientVersion);
    bool issueTokens(qint64 sessionId, qint64 now, IssuedTokens &out);
    ApiReply tokenReply(const UserRow &user, const IssuedTokens &tokens, qint64 now);
    ApiReply refreshAgain(const RefreshRow &row, const QString &token, qint64 now);
    bool limitReached(const QString &bucket, int limit, qint64 now, bool &ok);
    bool findOrBindDevice(qint64 userId, const QString &name, const QString &clientVersion, qint64 now,
                          DeviceRow &device, bool &limitHit);
    ApiReply signInEnded(const QString &code);
    // The refusal when `email` already has an account (or cannot be looked
    // up); nothing when it is free.
    std::optional<ApiReply> refuseTakenEmail(const QString &email);

    Storage &m_storage;
    const PasswordHasher &m_hasher;
    CodeMailer &m_mailer;
    AccountPolicy m_policy;
    ServiceClock m_clock;
};

QJsonObject deviceJson(const DeviceRow &device);
