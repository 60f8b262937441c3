#include "accountservice.h"

#include "codemailer.h"
#include "jsonfields.h"
#include "passwordhasher.h"
#include "servicelog.h"
#include "storage.h"
#include "tokens.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>

namespace {

const QString kType = QStringLiteral("account");
constexpr int kMaxEmail = 254;
constexpr int kMaxName = 64;
constexpr int kMaxVersion = 32;
constexpr int kMinPassword = 8;
constexpr int kMaxPassword = 256;
constexpr int kMaxToken = 256;
constexpr int kCodeDigits = 6;

qint64 seconds(qint64 ms)
{
    return ms / 1000;
}

QJsonObject userJson(const UserRow &user)
{
    return {{QStringLiteral("id"), user.id},
            {QStringLiteral("email"), user.email},
            {QStringLiteral("username"), user.username},
            {QStringLiteral("created_at"), seconds(user.createdAt)}};
}

ApiReply badRequest(const QString &code, const QString &description, QJsonObject members = {})
{
    return ApiReply::failure(kType, Http::BadRequest, code, description, std::move(members));
}

ApiReply tooManyAttempts()
{
    return ApiReply::failure(kType, Http::TooManyRequests, QStringLiteral("too_many_attempts"),
                             QStringLiteral("Too many attempts. Please wait a few minutes and try again."));
}

ApiReply waitBeforeSignIn(qint64 waitMs)
{
    const qint64 seconds = (waitMs + 999) / 1000;
    ApiReply reply = ApiReply::failure(
        kType, Http::TooManyRequests, QStringLiteral("too_many_attempts"),
        QStringLiteral("Too many failed sign-ins. Please wait %1 seconds and try again.").arg(seconds),
        {{QStringLiteral("retry_after"), seconds}});
    reply.retryAfterSeconds = int(seconds);
    return reply;
}

// The wait after `failures` failures of a bucket that allows `free` of them.
qint64 delayAfter(int failures, int free, const AccountPolicy &policy)
{
    if (failures < free)
        return 0;
    const int doublings = qMin(failures - free, 30);
    return qMin(policy.firstDelayMs << doublings, policy.maxDelayMs);
}

ApiReply pendingReview()
{
    return ApiReply::failure(kType, Http::Forbidden, QStringLiteral("account_pending_review"),
                             QStringLiteral("Your account is waiting for an administrator's approval."));
}

QString codeHash(const QString &email, const QString &code)
{
    return Tokens::hash(email + u':' + code);
}

} // namespace

QJsonObject deviceJson(const DeviceRow &device)
{
    return {{QStringLiteral("id"), device.id},
            {QStringLiteral("cid"), device.cid},
            {QStringLiteral("name"), device.name},
            {QStringLiteral("client_version"), device.clientVersion},
            {QStringLiteral("bound_at"), seconds(device.boundAt)},
            {QStringLiteral("last_seen_at"), seconds(device.lastSeenAt)}};
}

AccountService::AccountService(Storage &storage, const PasswordHasher &hasher, CodeMailer &mailer,
                               AccountPolicy policy, ServiceClock clock)
    : m_storage(storage), m_hasher(hasher), m_mailer(mailer), m_policy(policy), m_clock(std::move(clock))
{
}

QString AccountService::normaliseEmail(const QString &email)
{
    return email.trimmed().toLower();
}

bool AccountService::isValidEmail(const QString &email)
{
    static const QRegularExpression pattern(QStringLiteral("^[^@\\s<>\"]+@[^@\\s<>\"]+\\.[^@\\s<>\"]+$"));
    return !email.isEmpty() && email.size() <= kMaxEmail && pattern.match(email).hasMatch();
}

bool AccountService::limitReached(const QString &bucket, int limit, qint64 now, bool &ok)
{
    int failures = 0;
    ok = m_storage.failuresSince(bucket, now - m_policy.attemptWindowMs, failures);
    return ok && failures >= limit;
}

// --- registration -----------------------------------------------------------

ApiReply AccountService::requestCode(const QJsonObject &body, const QString &remoteAddress)
{
    JsonFields fields(body, kType);
    const QString email = normaliseEmail(fields.string("email", kMaxEmail));
    if (fields.failed())
        return fields.failure();
    if (!isValidEmail(email))
        return badRequest(QStringLiteral("invalid_email"), QStringLiteral("Please enter a valid e-mail address."));

    const qint64 now = m_clock();
    bool ok = true;
    const QString addressBucket = QStringLiteral("code-address:") + remoteAddress;
    if (limitReached(addressBucket, m_policy.maxCodeRequestsPerAddress, now, ok))
        return tooManyAttempts();
    if (!ok || !m_storage.recordFailure(addressBucket, now, m_policy.attemptWindowMs))
        return internalError(kType);

    if (const std::optional<ApiReply> taken = refuseTakenEmail(email))
        return *taken;
    CodeRow existing;
    const Storage::Found found = m_storage.codeFor(email, existing);
    if (found == Storage::Found::Error)
        return internalError(kType);
    if (found == Storage::Found::Yes && existing.expiresAt >= now && now - existing.sentAt < m_policy.codeResendMs)
        return ApiReply::failure(kType, Http::TooManyRequests, QStringLiteral("code_recently_sent"),
                                 QStringLiteral("A code was sent less than a minute ago. Please wait before asking again."));
    int pending = 0;
    if (!m_storage.countCodes(now, pending))
        return internalError(kType);
    if (found == Storage::Found::No && pending >= m_policy.maxPendingCodes)
        return ApiReply::failure(kType, Http::Unavailable, QStringLiteral("try_later"),
                                 QStringLiteral("The service is busy. Please try again later."));

    const QString code = Tokens::numericCode(kCodeDigits);
    const CodeRow row{codeHash(email, code), now + m_policy.codeTtlMs, m_policy.codeTries, now};
    if (!m_storage.putCode(email, row))
        return internalError(kType);
    const int minutes = static_cast<int>(m_policy.codeTtlMs / 60000);
    m_mailer.sendCode(email, code, minutes);
    return ApiReply::ok(kType, {{QStringLiteral("description"),
                                 QStringLiteral("We sent a code to %1. It is valid for %2 minutes.").arg(email).arg(minutes)},
                                {QStringLiteral("code_expires_in"), seconds(m_policy.codeTtlMs)}});
}

ApiOutcome AccountService::registerAccount(const QJsonObject &body, const QString &remoteAddress)
{
    Q_UNUSED(remoteAddress);
    JsonFields fields(body, kType);
    const QString email = normaliseEmail(fields.string("email", kMaxEmail));
    QString username = fields.string("username", kMaxName, false).trimmed();
    const QString password = fields.string("password", kMaxPassword);
    const QString code = fields.string("code", 32).trimmed();
    const QString deviceName = fields.string("device_name", kMaxName, false).trimmed();
    const QString clientVersion = fields.string("client_version", kMaxVersion, false).trimmed();
    if (fields.failed())
        return fields.failure();
    if (!isValidEmail(email))
        return badRequest(QStringLiteral("invalid_email"), QStringLiteral("Please enter a valid e-mail address."));
    if (password.size() < kMinPassword)
        return badRequest(QStringLiteral("weak_password"),
                          QStringLiteral("The password needs at least %1 characters.").arg(kMinPassword));
    if (username.isEmpty())
        username = email.section(u'@', 0, 0).left(kMaxName);

    const qint64 now = m_clock();
    if (const std::optional<ApiReply> taken = refuseTakenEmail(email))
        return *taken;
    CodeRow stored;
    switch (m_storage.codeFor(email, stored)) {
    case Storage::Found::Error:
        return internalError(kType);
    case Storage::Found::No:
        return badRequest(QStringLiteral("code_invalid"), QStringLiteral("Please ask for a code first."));
    case Storage::Found::Yes:
        break;
    }
    if (stored.expiresAt < now || stored.triesLeft <= 0) {
        m_storage.deleteCode(email);
        return badRequest(QStringLiteral("code_expired"), QStringLiteral("The code has expired. Please ask for a new one."));
    }
    if (!Tokens::equalConstantTime(codeHash(email, code).toLatin1(), stored.codeHash.toLatin1())) {
        const int left = stored.triesLeft - 1;
        if (!(left > 0 ? m_storage.setCodeTries(email, left) : m_storage.deleteCode(email)))
            return internalError(kType);
        return badRequest(QStringLiteral("code_invalid"),
                          left > 0 ? QStringLiteral("The code is wrong. %1 tries left.").arg(left)
                                   : QStringLiteral("The code is wrong. Please ask for a new one."),
                          {{QStringLiteral("tries_left"), left}});
    }
    const UserRow user{0, email, username, QString(),
                       m_policy.approvalMode ? QStringLiteral("pending") : QStringLiteral("active"), now};
    return PasswordStep{{PasswordWork::Kind::Hash, password, {}},
                        [user, deviceName, clientVersion](ServiceSet &services, const PasswordResult &result) {
                            return services.accounts.finishRegistration(user, deviceName, clientVersion, result);
                        }};
}

ApiOutcome AccountService::finishRegistration(const UserRow &registered, const QString &deviceName,
                                              const QString &clientVersion, const PasswordResult &result)
{
    UserRow user = registered;
    user.passwordHash = result.newHash;
    if (!m_storage.begin())
        return internalError(kType);
    // The code was checked before the hash was made; another request may
    // have used it meanwhile.
    if (const std::optional<ApiReply> taken = refuseTakenEmail(user.email)) {
        m_storage.rollback();
        return *taken;
    }
    CodeRow code;
    if (m_storage.codeFor(user.email, code) != Storage::Found::Yes) {
        m_storage.rollback();
        return badRequest(QStringLiteral("code_invalid"), QStringLiteral("Please ask for a code first."));
    }
    if (!m_storage.insertUser(user) || !m_storage.deleteCode(user.email) || !m_storage.commit()) {
        m_storage.rollback();
        return internalError(kType);
    }
    qCInfo(lcService).noquote() << "registered account" << user.id << user.email
                                << (m_policy.approvalMode ? "(waiting for approval)" : "");
    if (m_policy.approvalMode)
        return pendingReview();
    return issueSession(user, deviceName, clientVersion);
}

std::optional<ApiReply> AccountService::refuseTakenEmail(const QString &email)
{
    UserRow user;
    switch (m_storage.userByEmail(email, user)) {
    case Storage::Found::Error:
        return internalError(kType);
    case Storage::Found::Yes:
        return ApiReply::failure(kType, Http::Conflict, QStringLiteral("email_taken"),
                                 QStringLiteral("An account with this e-mail address already exists."));
    case Storage::Found::No:
        break;
    }
    return std::nullopt;
}

// --- sign-in and tokens ---------------------------------------------------------

struct AccountService::SignInAttempt
{
    QString address;
    QString email;
    bool known = false;
    UserRow user;
    QString deviceName;
    QString clientVersion;
};

qint64 AccountService::signInWait(const QString &address, const QString &email, qint64 now)
{
    qint64 wait = 0;
    const struct
    {
        QString bucket;
        int free;
    } buckets[] = {{QStringLiteral("pair:%1 %2").arg(address, email), m_policy.freeFailuresPerPair},
                   {QStringLiteral("address:%1").arg(address), m_policy.freeFailuresPerAddress}};
    for (const auto &bucket : buckets) {
        SignInFailures failures;
        switch (m_storage.signInFailures(bucket.bucket, now, m_policy.attemptWindowMs, failures)) {
        case Storage::Found::Error:
            return -1;
        case Storage::Found::No:
            break;
        case Storage::Found::Yes:
            wait = qMax(wait, failures.lastFailureAt + delayAfter(failures.failures, bucket.free, m_policy) - now);
            break;
        }
    }
    return wait;
}

ApiOutcome AccountService::login(const QJsonObject &body, const QString &remoteAddress)
{
    JsonFields fields(body, kType);
    SignInAttempt attempt;
    attempt.address = remoteAddress;
    attempt.email = normaliseEmail(fields.string("email", kMaxEmail));
    const QString password = fields.string("password", kMaxPassword);
    attempt.deviceName = fields.string("device_name", kMaxName, false).trimmed();
    attempt.clientVersion = fields.string("client_version", kMaxVersion, false).trimmed();
    if (fields.failed())
        return fields.failure();

    const qint64 wait = signInWait(attempt.address, attempt.email, m_clock());
    if (wait < 0)
        return internalError(kType);
    if (wait > 0)
        return waitBeforeSignIn(wait);
    const Storage::Found found = m_storage.userByEmail(attempt.email, attempt.user);
    if (found == Storage::Found::Error)
        return internalError(kType);
    attempt.known = found == Storage::Found::Yes;
    // An unknown address costs as much time as a wrong password.
    const QString stored = attempt.known ? attempt.user.passwordHash : m_hasher.decoy();
    return PasswordStep{{PasswordWork::Kind::Verify, password, stored},
                        [attempt](ServiceSet &services, const PasswordResult &result) {
                            return services.accounts.finishLogin(attempt, result);
                        }};
}

ApiOutcome AccountService::finishLogin(const SignInAttempt &attempt, const PasswordResult &result)
{
    const qint64 now = m_clock();
    const QString pairBucket = QStringLiteral("pair:%1 %2").arg(attempt.address, attempt.email);
    if (!attempt.known || !result.matches) {
        if (!m_storage.recordSignInFailure(pairBucket, now, m_policy.attemptWindowMs)
            || !m_storage.recordSignInFailure(QStringLiteral("address:%1").arg(attempt.address), now,
                                              m_policy.attemptWindowMs))
            return internalError(kType);
        return ApiReply::failure(kType, Http::Unauthorized, QStringLiteral("invalid_credentials"),
                                 QStringLiteral("The e-mail address or the password is wrong."));
    }
    if (!result.newHash.isEmpty()) {
        // An older kind or cost of hash: replaced now that the password is known.
        if (!m_storage.replacePasswordHash(attempt.user.id, attempt.user.passwordHash, result.newHash))
            return internalError(kType);
        qCInfo(lcService) << "rehashed the password of account" << attempt.user.id;
    }
    if (attempt.user.state == QLatin1String("pending"))
        return pendingReview();
    m_storage.clearSignInFailures(pairBucket);
    return issueSession(attempt.user, attempt.deviceName, attempt.clientVersion);
}

bool AccountService::findOrBindDevice(qint64 userId, const QString &name, const QString &clientVersion, qint64 now,
                                      DeviceRow &device, bool &limitHit)
{
    limitHit = false;
    switch (m_storage.deviceByName(userId, name, device)) {
    case Storage::Found::Error:
        return false;
    case Storage::Found::Yes:
        device.clientVersion = clientVersion;
        device.lastSeenAt = now;
        return m_storage.touchDevice(device.id, clientVersion, now);
    case Storage::Found::No:
        break;
    }
    int count = 0;
    if (!m_storage.countDevices(userId, count))
        return false;
    if (count >= m_policy.maxDevices) {
        limitHit = true;
        return true;
    }
    device = DeviceRow{0, Tokens::random(12), name, clientVersion, now, now};
    return m_storage.insertDevice(userId, device);
}

namespace {

// The pair a rotation handed out, readable only with the rotated token.
QString sealedPair(const QString &rotatedToken, const AccountService::IssuedTokens &tokens)
{
    const QByteArray plain = QJsonDocument(QJsonObject{{QStringLiteral("access_token"), tokens.accessToken},
                                                       {QStringLiteral("refresh_token"), tokens.refreshToken},
                                                       {QStringLiteral("expires_at"), tokens.accessExpiresAt}})
                                 .toJson(QJsonDocument::Compact);
    return QString::fromLatin1(Tokens::sealed(rotatedToken, plain).toBase64());
}

bool openPair(const QString &rotatedToken, const QString &sealed, AccountService::IssuedTokens &out)
{
    if (sealed.isEmpty())
        return false;
    const QJsonObject pair =
        QJsonDocument::fromJson(Tokens::sealed(rotatedToken, QByteArray::fromBase64(sealed.toLatin1()))).object();
    out.accessToken = pair.value(QLatin1String("access_token")).toString();
    out.refreshToken = pair.value(QLatin1String("refresh_token")).toString();
    out.accessExpiresAt = pair.value(QLatin1String("expires_at")).toInteger();
    return !out.accessToken.isEmpty() && !out.refreshToken.isEmpty();
}

} // namespace

ApiReply AccountService::issueSession(const UserRow &user, const QString &deviceName, const QString &clientVersion)
{
    const qint64 now = m_clock();
    if (!m_storage.begin())
        return internalError(kType);
    DeviceRow device;
    bool limitHit = false;
    qint64 sessionId = 0;
    IssuedTokens tokens;
    // A sign-in names its computer; a full device list does not stop the
    // sign-in, the computer stays unbound until one is removed.
    const bool ok = (deviceName.isEmpty() || findOrBindDevice(user.id, deviceName, clientVersion, now, device, limitHit))
                    && m_storage.insertSession(user.id, limitHit ? 0 : device.id, now, sessionId)
                    && m_storage.trimSessions(user.id, m_policy.maxSessions) && issueTokens(sessionId, now, tokens)
                    && m_storage.commit();
    if (!ok) {
        m_storage.rollback();
        return internalError(kType);
    }
    ApiReply reply = tokenReply(user, tokens, now);
    if (device.id > 0 && !limitHit)
        reply.body.insert(QStringLiteral("device"), deviceJson(device));
    return reply;
}

bool AccountService::issueTokens(qint64 sessionId, qint64 now, IssuedTokens &out)
{
    out.refreshToken = Tokens::random();
    out.accessToken = Tokens::random();
    out.accessExpiresAt = now + m_policy.accessTtlMs;
    return m_storage.insertRefreshToken(sessionId, Tokens::hash(out.refreshToken), now, now + m_policy.refreshTtlMs)
           && m_storage.insertAccessToken(sessionId, Tokens::hash(out.accessToken), out.accessExpiresAt);
}

ApiReply AccountService::tokenReply(const UserRow &user, const IssuedTokens &tokens, qint64 now)
{
    return ApiReply::ok(kType, {{QStringLiteral("user"), userJson(user)},
                                {QStringLiteral("access_token"), tokens.accessToken},
                                {QStringLiteral("refresh_token"), tokens.refreshToken},
                                {QStringLiteral("token_type"), QStringLiteral("Bearer")},
                                {QStringLiteral("expires_in"), seconds(qMax<qint64>(0, tokens.accessExpiresAt - now))}});
}

ApiReply AccountService::signInEnded(const QString &code)
{
    return ApiReply::failure(kType, Http::Unauthorized, code,
                             QStringLiteral("Your sign-in has ended. Please sign in again."));
}

ApiReply AccountService::refresh(const QJsonObject &body)
{
    JsonFields fields(body, kType);
    const QString token = fields.string("refresh_token", kMaxToken);
    if (fields.failed())
        return fields.failure();
    const qint64 now = m_clock();
    RefreshRow row;
    switch (m_storage.refreshToken(Tokens::hash(token), row)) {
    case Storage::Found::Error:
        return internalError(kType);
    case Storage::Found::No:
        return signInEnded(QStringLiteral("invalid_refresh_token"));
    case Storage::Found::Yes:
        break;
    }
    if (row.expiresAt < now)
        return signInEnded(QStringLiteral("refresh_token_expired"));
    if (row.rotated)
        return refreshAgain(row, token, now);
    UserRow user;
    switch (m_storage.userById(row.userId, user)) {
    case Storage::Found::Error:
        return internalError(kType);
    case Storage::Found::No:
        return signInEnded(QStringLiteral("invalid_refresh_token"));
    case Storage::Found::Yes:
        break;
    }
    // The rotation, the new pair and its sealed copy are one transaction:
    // whoever loses a race on the token finds the copy in place.
    if (!m_storage.begin())
        return internalError(kType);
    bool won = false;
    if (!m_storage.rotateRefreshToken(row.id, now, won)) {
        m_storage.rollback();
        return internalError(kType);
    }
    if (!won) {
        m_storage.rollback();
        if (m_storage.refreshToken(Tokens::hash(token), row) != Storage::Found::Yes)
            return signInEnded(QStringLiteral("invalid_refresh_token"));
        return refreshAgain(row, token, now);
    }
    IssuedTokens tokens;
    const bool ok = issueTokens(row.sessionId, now, tokens)
                    && m_storage.setRefreshSuccessor(row.id, sealedPair(token, tokens))
                    && m_storage.trimRotated(row.sessionId, m_policy.keepRotatedTokens) && m_storage.commit();
    if (!ok) {
        m_storage.rollback();
        return internalError(kType);
    }
    return tokenReply(user, tokens, now);
}

ApiReply AccountService::refreshAgain(const RefreshRow &row, const QString &token, qint64 now)
{
    IssuedTokens tokens;
    if (now - row.rotatedAt <= m_policy.refreshGraceMs && openPair(token, row.successor, tokens)) {
        // The same token again right after its rotation, while the pair it
        // brought is unused: most likely that reply was lost on the way.
        // The holder gets the same pair. Once the new refresh token has
        // been used, its holder evidently had the pair: no grace then.
        RefreshRow successor;
        const Storage::Found found = m_storage.refreshToken(Tokens::hash(tokens.refreshToken), successor);
        if (found == Storage::Found::Error)
            return internalError(kType);
        if (found == Storage::Found::Yes && !successor.rotated) {
            UserRow user;
            switch (m_storage.userById(row.userId, user)) {
            case Storage::Found::Error:
                return internalError(kType);
            case Storage::Found::No:
                return signInEnded(QStringLiteral("invalid_refresh_token"));
            case Storage::Found::Yes:
                return tokenReply(user, tokens, now);
            }
        }
    }
    // A used token came back: whoever holds the chain may have stolen it,
    // so the whole chain ends, the rightful holder's tokens too.
    qCWarning(lcService) << "refresh token reused; ended session" << row.sessionId << "of account" << row.userId;
    if (!m_storage.deleteSession(row.sessionId))
        return internalError(kType);
    return ApiReply::failure(kType, Http::Unauthorized, QStringLiteral("refresh_token_reused"),
                             QStringLiteral("This sign-in was ended for safety because its token was used twice. "
                                            "Please sign in again."));
}

ApiReply AccountService::logout(const QJsonObject &body)
{
    JsonFields fields(body, kType);
    const QString token = fields.string("refresh_token", kMaxToken);
    if (fields.failed())
        return fields.failure();
    RefreshRow row;
    const Storage::Found found = m_storage.refreshToken(Tokens::hash(token), row);
    if (found == Storage::Found::Error || (found == Storage::Found::Yes && !m_storage.deleteSession(row.sessionId)))
        return internalError(kType);
    // Unknown tokens sign out too: the client's state is what matters.
    return ApiReply::ok(kType, {{QStringLiteral("description"), QStringLiteral("You signed out.")}});
}

std::variant<Caller, ApiReply> AccountService::authenticate(const QByteArray &authorization, const QString &type)
{
    const QByteArray prefix = "Bearer ";
    if (!authorization.startsWith(prefix) || authorization.size() > prefix.size() + kMaxToken)
        return ApiReply::failure(type, Http::Unauthorized, QStringLiteral("unauthorized"),
                                 QStringLiteral("Please sign in first."));
    const QString token = QString::fromLatin1(authorization.mid(prefix.size()).trimmed());
    AccessRow row;
    switch (m_storage.accessToken(Tokens::hash(token), row)) {
    case Storage::Found::Error:
        return internalError(type);
    case Storage::Found::No:
        return ApiReply::failure(type, Http::Unauthorized, QStringLiteral("invalid_token"),
                                 QStringLiteral("Your sign-in is not valid. Please sign in again."));
    case Storage::Found::Yes:
        break;
    }
    if (row.expiresAt < m_clock())
        return ApiReply::failure(type, Http::Unauthorized, QStringLiteral("token_expired"),
                                 QStringLiteral("Your sign-in has expired. Please sign in again."));
    return Caller{row.userId, row.sessionId, row.deviceId, row.email, row.username, row.userCreatedAt, row.expiresAt};
}

// --- profile and devices ----------------------------------------------------------

ApiReply AccountService::me(const Caller &caller)
{
    // The token's lookup read the account along.
    const UserRow user{caller.userId, caller.email, caller.username, {}, {}, caller.createdAt};
    QJsonObject members{{QStringLiteral("user"), userJson(user)}};
    QList<DeviceRow> list;
    if (!m_storage.devices(caller.userId, list))
        return internalError(kType);
    for (const DeviceRow &device : std::as_const(list)) {
        if (device.id == caller.deviceId)
            members.insert(QStringLiteral("device"), deviceJson(device));
    }
    members.insert(QStringLiteral("device_count"), static_cast<int>(list.size()));
    return ApiReply::ok(kType, members);
}

ApiReply AccountService::devices(const Caller &caller)
{
    QList<DeviceRow> list;
    if (!m_storage.devices(caller.userId, list))
        return internalError(kType);
    QJsonArray array;
    for (const DeviceRow &device : std::as_const(list)) {
        QJsonObject entry = deviceJson(device);
        entry.insert(QStringLiteral("current"), device.id == caller.deviceId);
        array.append(entry);
    }
    return ApiReply::ok(kType, {{QStringLiteral("devices"), array}, {QStringLiteral("max_devices"), m_policy.maxDevices}});
}

ApiReply AccountService::bindDevice(const Caller &caller, const QJsonObject &body)
{
    JsonFields fields(body, kType);
    const QString name = fields.string("device_name", kMaxName * 4, false).trimmed();
    const QString clientVersion = fields.string("client_version", kMaxVersion, false).trimmed();
    if (fields.failed())
        return fields.failure();
    if (name.isEmpty() || name.size() > kMaxName)
        return badRequest(QStringLiteral("device_name_invalid"),
                          QStringLiteral("A device name has 1 to %1 characters.").arg(kMaxName));
    const qint64 now = m_clock();
    if (!m_storage.begin())
        return internalError(kType);
    DeviceRow device;
    bool limitHit = false;
    if (!findOrBindDevice(caller.userId, name, clientVersion, now, device, limitHit)) {
        m_storage.rollback();
        return internalError(kType);
    }
    if (limitHit) {
        m_storage.rollback();
        return ApiReply::failure(kType, Http::Conflict, QStringLiteral("device_limit_reached"),
                                 QStringLiteral("This account already has %1 devices. Remove one first.")
                                     .arg(m_policy.maxDevices));
    }
    if (!m_storage.setSessionDevice(caller.sessionId, device.id) || !m_storage.commit()) {
        m_storage.rollback();
        return internalError(kType);
    }
    return ApiReply::ok(kType, {{QStringLiteral("device"), deviceJson(device)},
                                {QStringLiteral("description"), QStringLiteral("This computer is bound as %1.").arg(name)}});
}

ApiReply AccountService::removeDevice(const Caller &caller, const QString &device)
{
    const auto notFound = [] {
        return ApiReply::failure(kType, Http::NotFound, QStringLiteral("device_not_found"),
                                 QStringLiteral("That device is not bound to this account."));
    };
    QList<DeviceRow> list;
    if (!m_storage.devices(caller.userId, list))
        return internalError(kType);
    // Named by its number or by its cloud identifier.
    qint64 id = 0;
    for (const DeviceRow &row : std::as_const(list)) {
        if (QString::number(row.id) == device || row.cid == device)
            id = row.id;
    }
    if (id == 0)
        return notFound();
    bool deleted = false;
    if (!m_storage.deleteDevice(caller.userId, id, deleted))
        return internalError(kType);
    if (!deleted)
        return notFound();
    return ApiReply::ok(kType, {{QStringLiteral("removed"), id},
                                {QStringLiteral("description"), QStringLiteral("The device was removed.")}});
}

bool AccountService::approve(const QString &email)
{
    return m_storage.setUserState(normaliseEmail(email), QStringLiteral("active"));
}

bool AccountService::pendingAccounts(QList<UserRow> &out)
{
    return m_storage.pendingUsers(out);
}
