#include "accountservice.h"

#include "codemailer.h"
#include "jsonfields.h"
#include "passwordhasher.h"
#include "servicelog.h"
#include "storage.h"
#include "tokens.h"

#include <QJsonArray>
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

ApiReply AccountService::registerAccount(const QJsonObject &body, const QString &remoteAddress)
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

    UserRow user{0, email, username, m_hasher.hash(password),
                 m_policy.approvalMode ? QStringLiteral("pending") : QStringLiteral("active"), now};
    if (!m_storage.begin())
        return internalError(kType);
    if (!m_storage.insertUser(user) || !m_storage.deleteCode(email) || !m_storage.commit()) {
        m_storage.rollback();
        return internalError(kType);
    }
    qCInfo(lcService).noquote() << "registered account" << user.id << email
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

ApiReply AccountService::login(const QJsonObject &body, const QString &remoteAddress)
{
    JsonFields fields(body, kType);
    const QString email = normaliseEmail(fields.string("email", kMaxEmail));
    const QString password = fields.string("password", kMaxPassword);
    const QString deviceName = fields.string("device_name", kMaxName, false).trimmed();
    const QString clientVersion = fields.string("client_version", kMaxVersion, false).trimmed();
    if (fields.failed())
        return fields.failure();

    const qint64 now = m_clock();
    const QString addressBucket = QStringLiteral("login-address:") + remoteAddress;
    const QString accountBucket = QStringLiteral("login-account:") + email;
    bool ok = true;
    if (limitReached(addressBucket, m_policy.maxFailuresPerAddress, now, ok)
        || limitReached(accountBucket, m_policy.maxFailuresPerAccount, now, ok))
        return tooManyAttempts();
    if (!ok)
        return internalError(kType);

    UserRow user;
    const Storage::Found found = m_storage.userByEmail(email, user);
    if (found == Storage::Found::Error)
        return internalError(kType);
    // An unknown address costs as much time as a wrong password.
    const bool passwordOk = m_hasher.verify(password, found == Storage::Found::Yes ? user.passwordHash : m_hasher.decoy())
                            && found == Storage::Found::Yes;
    if (!passwordOk) {
        if (!m_storage.recordFailure(addressBucket, now, m_policy.attemptWindowMs)
            || !m_storage.recordFailure(accountBucket, now, m_policy.attemptWindowMs))
            return internalError(kType);
        return ApiReply::failure(kType, Http::Unauthorized, QStringLiteral("invalid_credentials"),
                                 QStringLiteral("The e-mail address or the password is wrong."));
    }
    if (user.state == QLatin1String("pending"))
        return pendingReview();
    m_storage.clearFailures(accountBucket);
    return issueSession(user, deviceName, clientVersion);
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

ApiReply AccountService::issueSession(const UserRow &user, const QString &deviceName, const QString &clientVersion)
{
    const qint64 now = m_clock();
    if (!m_storage.begin())
        return internalError(kType);
    DeviceRow device;
    bool limitHit = false;
    qint64 sessionId = 0;
    // A sign-in names its computer; a full device list does not stop the
    // sign-in, the computer stays unbound until one is removed.
    const bool ok = (deviceName.isEmpty() || findOrBindDevice(user.id, deviceName, clientVersion, now, device, limitHit))
                    && m_storage.insertSession(user.id, limitHit ? 0 : device.id, now, sessionId)
                    && m_storage.trimSessions(user.id, m_policy.maxSessions);
    if (!ok) {
        m_storage.rollback();
        return internalError(kType);
    }
    ApiReply reply = tokenReply(user, sessionId, limitHit ? 0 : device.id, now);
    if (!reply.isOk() || !m_storage.commit()) {
        m_storage.rollback();
        return internalError(kType);
    }
    if (device.id > 0 && !limitHit)
        reply.body.insert(QStringLiteral("device"), deviceJson(device));
    return reply;
}

ApiReply AccountService::tokenReply(const UserRow &user, qint64 sessionId, qint64 deviceId, qint64 now)
{
    Q_UNUSED(deviceId);
    const QString refreshToken = Tokens::random();
    const QString accessToken = Tokens::random();
    if (!m_storage.insertRefreshToken(sessionId, Tokens::hash(refreshToken), now, now + m_policy.refreshTtlMs)
        || !m_storage.insertAccessToken(sessionId, Tokens::hash(accessToken), now + m_policy.accessTtlMs))
        return internalError(kType);
    return ApiReply::ok(kType, {{QStringLiteral("user"), userJson(user)},
                                {QStringLiteral("access_token"), accessToken},
                                {QStringLiteral("refresh_token"), refreshToken},
                                {QStringLiteral("token_type"), QStringLiteral("Bearer")},
                                {QStringLiteral("expires_in"), seconds(m_policy.accessTtlMs)}});
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
    bool won = false;
    if (!row.rotated && !m_storage.rotateRefreshToken(row.id, now, won))
        return internalError(kType);
    if (row.rotated || !won) {
        // A used token came back: whoever holds the chain may have stolen
        // it, so the whole chain ends, the rightful holder's tokens too.
        qCWarning(lcService) << "refresh token reused; ended session" << row.sessionId << "of account" << row.userId;
        if (!m_storage.deleteSession(row.sessionId))
            return internalError(kType);
        return ApiReply::failure(kType, Http::Unauthorized, QStringLiteral("refresh_token_reused"),
                                 QStringLiteral("This sign-in was ended for safety because its token was used twice. "
                                                "Please sign in again."));
    }
    UserRow user;
    switch (m_storage.userById(row.userId, user)) {
    case Storage::Found::Error:
        return internalError(kType);
    case Storage::Found::No:
        return signInEnded(QStringLiteral("invalid_refresh_token"));
    case Storage::Found::Yes:
        break;
    }
    if (!m_storage.begin())
        return internalError(kType);
    ApiReply reply = tokenReply(user, row.sessionId, row.deviceId, now);
    if (!reply.isOk() || !m_storage.trimRotated(row.sessionId, m_policy.keepRotatedTokens) || !m_storage.commit()) {
        m_storage.rollback();
        return internalError(kType);
    }
    return reply;
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
    return Caller{row.userId, row.sessionId, row.deviceId};
}

// --- profile and devices ----------------------------------------------------------

ApiReply AccountService::me(const Caller &caller)
{
    UserRow user;
    if (m_storage.userById(caller.userId, user) != Storage::Found::Yes)
        return internalError(kType);
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
