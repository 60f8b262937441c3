#include "storage.h"

#include "servicelog.h"

#include <QAtomicInt>
#include <QDeadlineTimer>
#include <QDir>
#include <QFileInfo>
#include <QSqlDriver>
#include <QSqlError>
#include <QSqlQuery>
#include <QUrl>
#include <QUrlQuery>
#include <QVariant>

namespace {

QAtomicInt connectionCounter;

constexpr int kConnectTimeoutSeconds = 3;
constexpr int kFirstRetryMs = 100;
constexpr int kLongestRetryMs = 5000;

bool isPostgresUrl(const QString &database)
{
    return database.startsWith(QLatin1String("postgres://")) || database.startsWith(QLatin1String("postgresql://"));
}

qint64 nullableId(const QVariant &value)
{
    return value.isNull() ? 0 : value.toLongLong();
}

// A null QString binds as SQL NULL; texts of ours are never NULL.
QString text(const QString &value)
{
    return value.isNull() ? QStringLiteral("") : value;
}

QVariant idOrNull(qint64 id)
{
    return id > 0 ? QVariant(id) : QVariant(QMetaType(QMetaType::LongLong));
}

} // namespace

Storage::Storage()
    : m_connectionName(QStringLiteral("tsl-cloud-%1").arg(connectionCounter.fetchAndAddRelaxed(1)))
{
}

Storage::~Storage()
{
    m_statements.clear();
    if (m_db.isValid()) {
        m_db.close();
        m_db = QSqlDatabase();
        QSqlDatabase::removeDatabase(m_connectionName);
    }
}

bool Storage::open(const QString &database, QString *error, bool migrate)
{
    if (isPostgresUrl(database)) {
        m_dialect = SqlDialect::Postgres;
        const QUrl url(database);
        const QUrlQuery query(url);
        m_db = QSqlDatabase::addDatabase(QStringLiteral("QPSQL"), m_connectionName);
        m_db.setHostName(query.hasQueryItem(QStringLiteral("host")) ? query.queryItemValue(QStringLiteral("host"))
                                                                      : url.host());
        const int port = query.hasQueryItem(QStringLiteral("port"))
                             ? query.queryItemValue(QStringLiteral("port")).toInt()
                             : url.port(5432);
        m_db.setPort(port);
        m_db.setDatabaseName(url.path().mid(1));
        m_db.setUserName(url.userName());
        m_db.setPassword(url.password());
        // A database host that does not answer holds a worker for at most
        // this long per attempt.
        QStringList options{QStringLiteral("connect_timeout=%1").arg(kConnectTimeoutSeconds)};
        if (query.hasQueryItem(QStringLiteral("sslmode")))
            options.append(QStringLiteral("sslmode=%1").arg(query.queryItemValue(QStringLiteral("sslmode"))));
        m_db.setConnectOptions(options.join(u';'));
    } else {
        m_dialect = SqlDialect::Sqlite;
        const QFileInfo file(database);
        if (!QDir().mkpath(file.absolutePath())) {
            *error = QStringLiteral("cannot create the folder %1").arg(file.absolutePath());
            return false;
        }
        m_db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), m_connectionName);
        m_db.setDatabaseName(database);
        m_db.setConnectOptions(QStringLiteral("QSQLITE_BUSY_TIMEOUT=5000"));
    }
    if (!m_db.isValid()) {
        *error = QStringLiteral("the Qt SQL driver for this database is not installed");
        return false;
    }
    if (!connect(error))
        return false;
    if (migrate)
        return this->migrate(error);
    const QList<Migration> steps = migrations(m_dialect);
    if (schemaVersion() != steps.last().version) {
        *error = QStringLiteral("the database schema is not at version %1").arg(steps.last().version);
        return false;
    }
    return true;
}

bool Storage::connect(QString *error)
{
    if (!m_db.open()) {
        *error = m_db.lastError().text();
        return false;
    }
    if (m_dialect == SqlDialect::Sqlite) {
        QSqlQuery pragma(m_db);
        // Write-ahead logging lets readers go on during a write; foreign
        // keys are off by default in SQLite and our cascades need them.
        for (const char *sql : {"PRAGMA journal_mode=WAL", "PRAGMA synchronous=NORMAL", "PRAGMA foreign_keys=ON"}) {
            if (!pragma.exec(QString::fromLatin1(sql))) {
                *error = pragma.lastError().text();
                return false;
            }
        }
    }
    return true;
}

bool Storage::beginWork()
{
    m_failed = false;
    if (!m_lost)
        return true;
    const qint64 now = QDeadlineTimer::current().deadline();
    if (now < m_retryAtMs)
        return false;
    {
        // Prepared on the old connection; the driver cannot free them there.
        ServiceLog::QuietQtWarnings quiet;
        m_statements.clear();
        m_db.close();
    }
    QString error;
    if (connect(&error)) {
        qCInfo(lcStore) << "database connection re-opened";
        m_lost = false;
        m_backoffMs = 0;
        return true;
    }
    m_backoffMs = qBound(kFirstRetryMs, m_backoffMs * 2, kLongestRetryMs);
    m_retryAtMs = now + m_backoffMs;
    qCWarning(lcStore).noquote() << "database still unavailable:" << error.trimmed();
    return false;
}

bool Storage::endWork()
{
    if (m_inTransaction)
        rollback();  // work that failed half-way leaves nothing open
    // Nor does a statement left on its first row (an INSERT ... RETURNING
    // read once holds SQLite's write lock until it is reset).
    releaseStatements();
    if (!m_failed || m_lost)
        return m_lost;
    m_failed = false;
    // A failed statement may have been a bad one or the server going away:
    // a trivial one tells which.
    releaseStatements();
    QSqlQuery probe(m_db);
    if (m_db.isOpen() && probe.exec(QStringLiteral("SELECT 1")))
        return false;
    qCWarning(lcStore).noquote() << "database connection lost:" << probe.lastError().text().trimmed();
    m_lost = true;
    m_backoffMs = 0;
    m_retryAtMs = 0;  // the next request tries at once
    return true;
}

bool Storage::migrate(QString *error)
{
    QSqlQuery query(m_db);
    // Instances starting together on one PostgreSQL migrate one at a time;
    // the lock ends with the session at the latest.
    if (m_dialect == SqlDialect::Postgres && !query.exec(QStringLiteral("SELECT pg_advisory_lock(7473251)"))) {
        *error = query.lastError().text();
        return false;
    }
    const bool ok = migrateLocked(error);
    if (m_dialect == SqlDialect::Postgres)
        query.exec(QStringLiteral("SELECT pg_advisory_unlock(7473251)"));
    return ok;
}

bool Storage::migrateLocked(QString *error)
{
    QSqlQuery query(m_db);
    if (!query.exec(QStringLiteral("CREATE TABLE IF NOT EXISTS schema_migrations ("
                                   " version INTEGER PRIMARY KEY, applied_at BIGINT NOT NULL)"))) {
        *error = query.lastError().text();
        return false;
    }
    const int current = schemaVersion();
    if (current < 0) {
        *error = QStringLiteral("cannot read the schema version");
        return false;
    }
    const QList<Migration> steps = migrations(m_dialect);
    if (!steps.isEmpty() && current > steps.last().version) {
        *error = QStringLiteral("the database has schema version %1, newer than this service knows (%2)")
                     .arg(current)
                     .arg(steps.last().version);
        return false;
    }
    for (const Migration &step : steps) {
        if (step.version <= current)
            continue;
        if (!m_db.transaction()) {
            *error = m_db.lastError().text();
            return false;
        }
        for (const QString &sql : step.statements) {
            if (!query.exec(sql)) {
                *error = QStringLiteral("migration %1 failed: %2").arg(step.version).arg(query.lastError().text());
                m_db.rollback();
                return false;
            }
        }
        query.prepare(QStringLiteral("INSERT INTO schema_migrations (version, applied_at) VALUES (?, ?)"));
        query.addBindValue(step.version);
        query.addBindValue(QDateTime::currentMSecsSinceEpoch());
        if (!query.exec() || !m_db.commit()) {
            *error = query.lastError().text();
            m_db.rollback();
            return false;
        }
        qCInfo(lcStore) << "applied schema migration" << step.version;
    }
    return true;
}

int Storage::schemaVersion()
{
    QSqlQuery query(m_db);
    if (!query.exec(QStringLiteral("SELECT COALESCE(MAX(version), 0) FROM schema_migrations")) || !query.next())
        return -1;
    return query.value(0).toInt();
}

QSqlQuery &Storage::prepare(const QString &sql)
{
    // Statements are prepared once per connection: on PostgreSQL each
    // fresh prepare costs a round trip of its own, and another to drop it.
    // Whatever an earlier statement still holds open is released first, so
    // no read snapshot lingers.
    releaseStatements();
    auto found = m_statements.find(sql);
    if (found != m_statements.end())
        return *found->second;
    auto query = std::make_unique<QSqlQuery>(m_db);
    query->setForwardOnly(true);
    query->prepare(sql);
    QSqlQuery &stored = *query;
    m_statements.emplace(sql, std::move(query));
    return stored;
}

void Storage::releaseStatements()
{
    for (auto &entry : m_statements) {
        if (entry.second->isActive())
            entry.second->finish();
    }
}

bool Storage::run(QSqlQuery &query, const char *what)
{
    if (query.exec())
        return true;
    m_failed = true;
    qCWarning(lcStore) << what << "failed:" << query.lastError().text();
    return false;
}

bool Storage::notify(const QString &channel, const QList<QByteArray> &payloads)
{
    if (m_dialect != SqlDialect::Postgres || !begin())
        return false;
    for (const QByteArray &payload : payloads) {
        QSqlQuery &q = prepare(QStringLiteral("SELECT pg_notify(?, ?)"));
        q.addBindValue(channel);
        q.addBindValue(QString::fromUtf8(payload));
        if (!run(q, "notify")) {
            rollback();
            return false;
        }
    }
    return commit();
}

bool Storage::subscribe(const QString &channel)
{
    if (m_dialect != SqlDialect::Postgres || !m_db.driver()->subscribeToNotification(channel)) {
        qCWarning(lcStore) << "listen failed:" << m_db.driver()->lastError().text();
        return false;
    }
    return true;
}

bool Storage::begin()
{
    releaseStatements();
    // SQLite: take the write lock at the start. A transaction that reads
    // first and writes later cannot wait for another connection's write
    // (SQLite refuses at once to avoid a deadlock); one that starts as a
    // writer waits for its turn under the busy time-out.
    const bool ok = m_dialect == SqlDialect::Sqlite ? QSqlQuery(m_db).exec(QStringLiteral("BEGIN IMMEDIATE"))
                                                    : m_db.transaction();
    if (ok) {
        m_inTransaction = true;
        return true;
    }
    m_failed = true;
    qCWarning(lcStore) << "begin failed:" << m_db.lastError().text();
    return false;
}

bool Storage::commit()
{
    releaseStatements();
    m_inTransaction = false;
    const bool ok = m_dialect == SqlDialect::Sqlite ? QSqlQuery(m_db).exec(QStringLiteral("COMMIT")) : m_db.commit();
    if (ok)
        return true;
    m_failed = true;
    qCWarning(lcStore) << "commit failed:" << m_db.lastError().text();
    rollback();
    return false;
}

void Storage::rollback()
{
    releaseStatements();
    m_inTransaction = false;
    if (m_dialect == SqlDialect::Sqlite)
        QSqlQuery(m_db).exec(QStringLiteral("ROLLBACK"));
    else
        m_db.rollback();
}

// --- accounts -------------------------------------------------------------

namespace {
UserRow userFrom(const QSqlQuery &q)
{
    return UserRow{q.value(0).toLongLong(), q.value(1).toString(), q.value(2).toString(),
                   q.value(3).toString(),   q.value(4).toString(), q.value(5).toLongLong()};
}
} // namespace

Storage::Found Storage::userByEmail(const QString &email, UserRow &out)
{
    QSqlQuery &q = prepare(QStringLiteral(
        "SELECT id, email, username, password_hash, state, created_at FROM users WHERE email = ?"));
    q.addBindValue(email);
    if (!run(q, "user by email"))
        return Found::Error;
    if (!q.next())
        return Found::No;
    out = userFrom(q);
    return Found::Yes;
}

Storage::Found Storage::userById(qint64 id, UserRow &out)
{
    QSqlQuery &q = prepare(QStringLiteral(
        "SELECT id, email, username, password_hash, state, created_at FROM users WHERE id = ?"));
    q.addBindValue(id);
    if (!run(q, "user by id"))
        return Found::Error;
    if (!q.next())
        return Found::No;
    out = userFrom(q);
    return Found::Yes;
}

bool Storage::insertUser(UserRow &user)
{
    QSqlQuery &q = prepare(QStringLiteral("INSERT INTO users (email, username, password_hash, state, created_at)"
                                         " VALUES (?, ?, ?, ?, ?) RETURNING id"));
    q.addBindValue(user.email);
    q.addBindValue(user.username);
    q.addBindValue(user.passwordHash);
    q.addBindValue(user.state);
    q.addBindValue(user.createdAt);
    if (!run(q, "insert user") || !q.next())
        return false;
    user.id = q.value(0).toLongLong();
    return true;
}

bool Storage::replacePasswordHash(qint64 userId, const QString &oldHash, const QString &newHash)
{
    QSqlQuery &q = prepare(QStringLiteral("UPDATE users SET password_hash = ? WHERE id = ? AND password_hash = ?"));
    q.addBindValue(newHash);
    q.addBindValue(userId);
    q.addBindValue(oldHash);
    return run(q, "replace password hash");
}

bool Storage::setUserState(const QString &email, const QString &state)
{
    QSqlQuery &q = prepare(QStringLiteral("UPDATE users SET state = ? WHERE email = ?"));
    q.addBindValue(state);
    q.addBindValue(email);
    return run(q, "set user state") && q.numRowsAffected() == 1;
}

bool Storage::pendingUsers(QList<UserRow> &out)
{
    QSqlQuery &q = prepare(QStringLiteral("SELECT id, email, username, password_hash, state, created_at"
                                         " FROM users WHERE state = 'pending' ORDER BY id"));
    if (!run(q, "pending users"))
        return false;
    while (q.next())
        out.append(userFrom(q));
    return true;
}

// --- registration codes ---------------------------------------------------

Storage::Found Storage::codeFor(const QString &email, CodeRow &out)
{
    QSqlQuery &q = prepare(QStringLiteral(
        "SELECT code_hash, expires_at, tries_left, sent_at FROM registration_codes WHERE email = ?"));
    q.addBindValue(email);
    if (!run(q, "code for"))
        return Found::Error;
    if (!q.next())
        return Found::No;
    out = CodeRow{q.value(0).toString(), q.value(1).toLongLong(), q.value(2).toInt(), q.value(3).toLongLong()};
    return Found::Yes;
}

bool Storage::putCode(const QString &email, const CodeRow &code)
{
    QSqlQuery &q = prepare(QStringLiteral(
        "INSERT INTO registration_codes (email, code_hash, expires_at, tries_left, sent_at)"
        " VALUES (?, ?, ?, ?, ?) ON CONFLICT (email) DO UPDATE SET code_hash = excluded.code_hash,"
        " expires_at = excluded.expires_at, tries_left = excluded.tries_left, sent_at = excluded.sent_at"));
    q.addBindValue(email);
    q.addBindValue(code.codeHash);
    q.addBindValue(code.expiresAt);
    q.addBindValue(code.triesLeft);
    q.addBindValue(code.sentAt);
    return run(q, "put code");
}

bool Storage::setCodeTries(const QString &email, int triesLeft)
{
    QSqlQuery &q = prepare(QStringLiteral("UPDATE registration_codes SET tries_left = ? WHERE email = ?"));
    q.addBindValue(triesLeft);
    q.addBindValue(email);
    return run(q, "set code tries");
}

bool Storage::deleteCode(const QString &email)
{
    QSqlQuery &q = prepare(QStringLiteral("DELETE FROM registration_codes WHERE email = ?"));
    q.addBindValue(email);
    return run(q, "delete code");
}

bool Storage::countCodes(qint64 now, int &count)
{
    QSqlQuery &q = prepare(QStringLiteral("SELECT COUNT(*) FROM registration_codes WHERE expires_at >= ?"));
    q.addBindValue(now);
    if (!run(q, "count codes") || !q.next())
        return false;
    count = q.value(0).toInt();
    return true;
}

// --- attempts ---------------------------------------------------------------

bool Storage::recordFailure(const QString &bucket, qint64 now, qint64 windowMs)
{
    // A bucket counts failures from its window's start; once the window
    // has passed, the next failure opens a new one.
    QSqlQuery &q = prepare(QStringLiteral(
        "INSERT INTO attempts (bucket, window_start, failures) VALUES (?, ?, 1)"
        " ON CONFLICT (bucket) DO UPDATE SET"
        " failures = CASE WHEN attempts.window_start < ? THEN 1 ELSE attempts.failures + 1 END,"
        " window_start = CASE WHEN attempts.window_start < ? THEN ? ELSE attempts.window_start END"));
    q.addBindValue(bucket);
    q.addBindValue(now);
    q.addBindValue(now - windowMs);
    q.addBindValue(now - windowMs);
    q.addBindValue(now);
    return run(q, "record failure");
}

bool Storage::failuresSince(const QString &bucket, qint64 windowStart, int &failures)
{
    QSqlQuery &q = prepare(QStringLiteral("SELECT failures FROM attempts WHERE bucket = ? AND window_start >= ?"));
    q.addBindValue(bucket);
    q.addBindValue(windowStart);
    if (!run(q, "failures since"))
        return false;
    failures = q.next() ? q.value(0).toInt() : 0;
    return true;
}

bool Storage::clearFailures(const QString &bucket)
{
    QSqlQuery &q = prepare(QStringLiteral("DELETE FROM attempts WHERE bucket = ?"));
    q.addBindValue(bucket);
    return run(q, "clear failures");
}

Storage::Found Storage::signInFailures(const QString &bucket, qint64 now, qint64 forgetAfterMs, SignInFailures &out)
{
    QSqlQuery &q = prepare(QStringLiteral(
        "SELECT failures, last_failure_at FROM sign_in_failures WHERE bucket = ? AND last_failure_at >= ?"));
    q.addBindValue(bucket);
    q.addBindValue(now - forgetAfterMs);
    if (!run(q, "sign-in failures"))
        return Found::Error;
    if (!q.next())
        return Found::No;
    out = SignInFailures{q.value(0).toInt(), q.value(1).toLongLong()};
    return Found::Yes;
}

bool Storage::recordSignInFailure(const QString &bucket, qint64 now, qint64 forgetAfterMs)
{
    // One statement, so failures racing on other instances all count.
    QSqlQuery &q = prepare(QStringLiteral(
        "INSERT INTO sign_in_failures (bucket, failures, last_failure_at) VALUES (?, 1, ?)"
        " ON CONFLICT (bucket) DO UPDATE SET"
        " failures = CASE WHEN sign_in_failures.last_failure_at < ? THEN 1 ELSE sign_in_failures.failures + 1 END,"
        " last_failure_at = excluded.last_failure_at"));
    q.addBindValue(bucket);
    q.addBindValue(now);
    q.addBindValue(now - forgetAfterMs);
    return run(q, "record sign-in failure");
}

bool Storage::clearSignInFailures(const QString &bucket)
{
    QSqlQuery &q = prepare(QStringLiteral("DELETE FROM sign_in_failures WHERE bucket = ?"));
    q.addBindValue(bucket);
    return run(q, "clear sign-in failures");
}

// --- devices ----------------------------------------------------------------

namespace {
DeviceRow deviceFrom(const QSqlQuery &q)
{
    return DeviceRow{q.value(0).toLongLong(), q.value(1).toString(),   q.value(2).toString(),
                     q.value(3).toString(),   q.value(4).toLongLong(), q.value(5).toLongLong()};
}
} // namespace

Storage::Found Storage::deviceByName(qint64 userId, const QString &name, DeviceRow &out)
{
    QSqlQuery &q = prepare(QStringLiteral("SELECT id, cid, name, client_version, bound_at, last_seen_at"
                                         " FROM devices WHERE user_id = ? AND name = ?"));
    q.addBindValue(userId);
    q.addBindValue(name);
    if (!run(q, "device by name"))
        return Found::Error;
    if (!q.next())
        return Found::No;
    out = deviceFrom(q);
    return Found::Yes;
}

bool Storage::insertDevice(qint64 userId, DeviceRow &device)
{
    QSqlQuery &q = prepare(QStringLiteral("INSERT INTO devices (user_id, cid, name, client_version, bound_at,"
                                         " last_seen_at) VALUES (?, ?, ?, ?, ?, ?) RETURNING id"));
    q.addBindValue(userId);
    q.addBindValue(device.cid);
    q.addBindValue(device.name);
    q.addBindValue(text(device.clientVersion));
    q.addBindValue(device.boundAt);
    q.addBindValue(device.lastSeenAt);
    if (!run(q, "insert device") || !q.next())
        return false;
    device.id = q.value(0).toLongLong();
    return true;
}

bool Storage::touchDevice(qint64 deviceId, const QString &clientVersion, qint64 now)
{
    QSqlQuery &q = prepare(QStringLiteral("UPDATE devices SET client_version = ?, last_seen_at = ? WHERE id = ?"));
    q.addBindValue(text(clientVersion));
    q.addBindValue(now);
    q.addBindValue(deviceId);
    return run(q, "touch device");
}

bool Storage::devices(qint64 userId, QList<DeviceRow> &out)
{
    QSqlQuery &q = prepare(QStringLiteral("SELECT id, cid, name, client_version, bound_at, last_seen_at"
                                         " FROM devices WHERE user_id = ? ORDER BY id"));
    q.addBindValue(userId);
    if (!run(q, "devices"))
        return false;
    while (q.next())
        out.append(deviceFrom(q));
    return true;
}

bool Storage::countDevices(qint64 userId, int &count)
{
    QSqlQuery &q = prepare(QStringLiteral("SELECT COUNT(*) FROM devices WHERE user_id = ?"));
    q.addBindValue(userId);
    if (!run(q, "count devices") || !q.next())
        return false;
    count = q.value(0).toInt();
    return true;
}

bool Storage::deleteDevice(qint64 userId, qint64 deviceId, bool &deleted)
{
    QSqlQuery &q = prepare(QStringLiteral("DELETE FROM devices WHERE user_id = ? AND id = ?"));
    q.addBindValue(userId);
    q.addBindValue(deviceId);
    if (!run(q, "delete device"))
        return false;
    deleted = q.numRowsAffected() > 0;
    return true;
}

// --- sessions and tokens ------------------------------------------------------

bool Storage::insertSession(qint64 userId, qint64 deviceId, qint64 now, qint64 &sessionId)
{
    QSqlQuery &q = prepare(QStringLiteral(
        "INSERT INTO sessions (user_id, device_id, created_at) VALUES (?, ?, ?) RETURNING id"));
    q.addBindValue(userId);
    q.addBindValue(idOrNull(deviceId));
    q.addBindValue(now);
    if (!run(q, "insert session") || !q.next())
        return false;
    sessionId = q.value(0).toLongLong();
    return true;
}

bool Storage::setSessionDevice(qint64 sessionId, qint64 deviceId)
{
    QSqlQuery &q = prepare(QStringLiteral("UPDATE sessions SET device_id = ? WHERE id = ?"));
    q.addBindValue(idOrNull(deviceId));
    q.addBindValue(sessionId);
    return run(q, "set session device");
}

bool Storage::deleteSession(qint64 sessionId)
{
    QSqlQuery &q = prepare(QStringLiteral("DELETE FROM sessions WHERE id = ?"));
    q.addBindValue(sessionId);
    return run(q, "delete session");
}

bool Storage::trimSessions(qint64 userId, int keep)
{
    QSqlQuery &q = prepare(QStringLiteral(
        "DELETE FROM sessions WHERE user_id = ? AND id NOT IN"
        " (SELECT id FROM sessions WHERE user_id = ? ORDER BY id DESC LIMIT ?)"));
    q.addBindValue(userId);
    q.addBindValue(userId);
    q.addBindValue(keep);
    return run(q, "trim sessions");
}

bool Storage::insertRefreshToken(qint64 sessionId, const QString &hash, qint64 now, qint64 expiresAt)
{
    QSqlQuery &q = prepare(QStringLiteral("INSERT INTO refresh_tokens (session_id, token_hash, created_at,"
                                         " expires_at) VALUES (?, ?, ?, ?)"));
    q.addBindValue(sessionId);
    q.addBindValue(hash);
    q.addBindValue(now);
    q.addBindValue(expiresAt);
    return run(q, "insert refresh token");
}

Storage::Found Storage::refreshToken(const QString &hash, RefreshRow &out)
{
    QSqlQuery &q = prepare(QStringLiteral(
        "SELECT r.id, r.session_id, s.user_id, s.device_id, r.expires_at, r.rotated_at, r.successor"
        " FROM refresh_tokens r JOIN sessions s ON s.id = r.session_id WHERE r.token_hash = ?"));
    q.addBindValue(hash);
    if (!run(q, "refresh token"))
        return Found::Error;
    if (!q.next())
        return Found::No;
    out = RefreshRow{q.value(0).toLongLong(), q.value(1).toLongLong(), q.value(2).toLongLong(),
                     nullableId(q.value(3)),  q.value(4).toLongLong(), !q.value(5).isNull(),
                     q.value(5).toLongLong(), q.value(6).toString()};
    return Found::Yes;
}

bool Storage::setRefreshSuccessor(qint64 tokenId, const QString &sealed)
{
    QSqlQuery &q = prepare(QStringLiteral("UPDATE refresh_tokens SET successor = ? WHERE id = ?"));
    q.addBindValue(sealed);
    q.addBindValue(tokenId);
    return run(q, "set refresh successor");
}

bool Storage::rotateRefreshToken(qint64 tokenId, qint64 now, bool &won)
{
    // Conditional, so two instances racing on one token cannot both win.
    QSqlQuery &q = prepare(QStringLiteral(
        "UPDATE refresh_tokens SET rotated_at = ? WHERE id = ? AND rotated_at IS NULL"));
    q.addBindValue(now);
    q.addBindValue(tokenId);
    if (!run(q, "rotate refresh token"))
        return false;
    won = q.numRowsAffected() == 1;
    return true;
}

bool Storage::trimRotated(qint64 sessionId, int keep)
{
    QSqlQuery &q = prepare(QStringLiteral(
        "DELETE FROM refresh_tokens WHERE session_id = ? AND rotated_at IS NOT NULL AND id NOT IN"
        " (SELECT id FROM refresh_tokens WHERE session_id = ? AND rotated_at IS NOT NULL"
        " ORDER BY id DESC LIMIT ?)"));
    q.addBindValue(sessionId);
    q.addBindValue(sessionId);
    q.addBindValue(keep);
    return run(q, "trim rotated");
}

bool Storage::insertAccessToken(qint64 sessionId, const QString &hash, qint64 expiresAt)
{
    QSqlQuery &q = prepare(QStringLiteral(
        "INSERT INTO access_tokens (token_hash, session_id, expires_at) VALUES (?, ?, ?)"));
    q.addBindValue(hash);
    q.addBindValue(sessionId);
    q.addBindValue(expiresAt);
    return run(q, "insert access token");
}

Storage::Found Storage::accessToken(const QString &hash, AccessRow &out)
{
    QSqlQuery &q = prepare(QStringLiteral(
        "SELECT a.session_id, s.user_id, s.device_id, a.expires_at, u.email, u.username, u.created_at"
        " FROM access_tokens a JOIN sessions s ON s.id = a.session_id JOIN users u ON u.id = s.user_id"
        " WHERE a.token_hash = ?"));
    q.addBindValue(hash);
    if (!run(q, "access token"))
        return Found::Error;
    if (!q.next())
        return Found::No;
    out = AccessRow{q.value(0).toLongLong(), q.value(1).toLongLong(), nullableId(q.value(2)),
                    q.value(3).toLongLong(), q.value(4).toString(), q.value(5).toString(),
                    q.value(6).toLongLong()};
    return Found::Yes;
}

// --- sync items ---------------------------------------------------------------

namespace {
SyncItemRow itemFrom(const QSqlQuery &q)
{
    return SyncItemRow{q.value(0).toString(), q.value(1).toString(), q.value(2).toLongLong(),
                       q.value(3).toString(), q.value(4).toLongLong()};
}
} // namespace

bool Storage::syncItems(qint64 userId, const QString &ns, QList<SyncItemRow> &out)
{
    QSqlQuery &q = prepare(ns.isEmpty()
                              ? QStringLiteral("SELECT namespace, item_key, revision, payload, updated_at"
                                               " FROM sync_items WHERE user_id = ? ORDER BY namespace, item_key")
                              : QStringLiteral("SELECT namespace, item_key, revision, payload, updated_at"
                                               " FROM sync_items WHERE user_id = ? AND namespace = ?"
                                               " ORDER BY item_key"));
    q.addBindValue(userId);
    if (!ns.isEmpty())
        q.addBindValue(ns);
    if (!run(q, "sync items"))
        return false;
    while (q.next())
        out.append(itemFrom(q));
    return true;
}

Storage::Found Storage::syncItem(qint64 userId, const QString &ns, const QString &key, SyncItemRow &out)
{
    QSqlQuery &q = prepare(QStringLiteral("SELECT namespace, item_key, revision, payload, updated_at"
                                         " FROM sync_items WHERE user_id = ? AND namespace = ? AND item_key = ?"));
    q.addBindValue(userId);
    q.addBindValue(ns);
    q.addBindValue(key);
    if (!run(q, "sync item"))
        return Found::Error;
    if (!q.next())
        return Found::No;
    out = itemFrom(q);
    return Found::Yes;
}

Storage::SyncWrite Storage::writeSyncItem(qint64 userId, const QString &ns, const QString &key,
                                          qint64 baseRevision, const QString &payload, qint64 now, int maxItems,
                                          const QString &month, qint64 bytes, SyncItemRow &result)
{
    // The usual write, the next revision of a stored item, conditional on
    // the base revision, so of two writers with the same base exactly one
    // wins, whichever instance serves them. On PostgreSQL it is one
    // statement with its traffic (one round trip, one commit to wait for);
    // SQLite, in the process, takes the same two steps in a transaction.
    bool updated = false;
    if (m_dialect == SqlDialect::Postgres) {
        QSqlQuery &q = prepare(QStringLiteral(
            "WITH written AS (UPDATE sync_items SET revision = revision + 1, payload = ?, updated_at = ?"
            " WHERE user_id = ? AND namespace = ? AND item_key = ? AND revision = ? RETURNING user_id),"
            " counted AS (INSERT INTO traffic (user_id, month, bytes) SELECT user_id, ?, ? FROM written"
            " ON CONFLICT (user_id, month) DO UPDATE SET bytes = traffic.bytes + excluded.bytes)"
            " SELECT COUNT(*) FROM written"));
        for (const QVariant &value : {QVariant(payload), QVariant(now), QVariant(userId), QVariant(ns), QVariant(key),
                                      QVariant(baseRevision), QVariant(month), QVariant(bytes)})
            q.addBindValue(value);
        if (!run(q, "update sync item") || !q.next())
            return SyncWrite::Error;
        updated = q.value(0).toInt() == 1;
    } else {
        if (!begin())
            return SyncWrite::Error;
        QSqlQuery &update = prepare(QStringLiteral(
            "UPDATE sync_items SET revision = revision + 1, payload = ?, updated_at = ?"
            " WHERE user_id = ? AND namespace = ? AND item_key = ? AND revision = ?"));
        for (const QVariant &value :
             {QVariant(payload), QVariant(now), QVariant(userId), QVariant(ns), QVariant(key), QVariant(baseRevision)})
            update.addBindValue(value);
        if (!run(update, "update sync item")) {
            rollback();
            return SyncWrite::Error;
        }
        updated = update.numRowsAffected() == 1;
        if (updated && (!addTraffic(userId, month, bytes) || !commit())) {
            rollback();
            return SyncWrite::Error;
        }
        if (!updated)
            rollback();
    }
    if (updated) {
        result = SyncItemRow{ns, key, baseRevision + 1, payload, now};
        return SyncWrite::Written;
    }
    switch (syncItem(userId, ns, key, result)) {
    case Found::Error:
        return SyncWrite::Error;
    case Found::Yes:
        return SyncWrite::Conflict;
    case Found::No:
        break;
    }
    // A new item: whatever base the writer had, there is nothing to lose.
    if (!begin())
        return SyncWrite::Error;
    QSqlQuery &count = prepare(QStringLiteral("SELECT COUNT(*) FROM sync_items WHERE user_id = ?"));
    count.addBindValue(userId);
    if (!run(count, "count sync items") || !count.next()) {
        rollback();
        return SyncWrite::Error;
    }
    if (count.value(0).toInt() >= maxItems) {
        rollback();
        return SyncWrite::LimitReached;
    }
    QSqlQuery &insert = prepare(QStringLiteral(
        "INSERT INTO sync_items (user_id, namespace, item_key, revision, payload, updated_at)"
        " VALUES (?, ?, ?, 1, ?, ?) ON CONFLICT (user_id, namespace, item_key) DO NOTHING"));
    insert.addBindValue(userId);
    insert.addBindValue(ns);
    insert.addBindValue(key);
    insert.addBindValue(payload);
    insert.addBindValue(now);
    if (!run(insert, "insert sync item")) {
        rollback();
        return SyncWrite::Error;
    }
    if (insert.numRowsAffected() == 1) {
        if (!addTraffic(userId, month, bytes) || !commit()) {
            rollback();
            return SyncWrite::Error;
        }
        result = SyncItemRow{ns, key, 1, payload, now};
        return SyncWrite::Written;
    }
    rollback();
    // Another writer created it a moment ago.
    return syncItem(userId, ns, key, result) == Found::Yes ? SyncWrite::Conflict : SyncWrite::Error;
}

// --- traffic ------------------------------------------------------------------

bool Storage::addTraffic(qint64 userId, const QString &month, qint64 bytes)
{
    QSqlQuery &q = prepare(QStringLiteral(
        "INSERT INTO traffic (user_id, month, bytes) VALUES (?, ?, ?)"
        " ON CONFLICT (user_id, month) DO UPDATE SET bytes = traffic.bytes + excluded.bytes"));
    q.addBindValue(userId);
    q.addBindValue(month);
    q.addBindValue(bytes);
    return run(q, "add traffic");
}

bool Storage::trafficOf(qint64 userId, const QString &month, qint64 &bytes)
{
    QSqlQuery &q = prepare(QStringLiteral("SELECT bytes FROM traffic WHERE user_id = ? AND month = ?"));
    q.addBindValue(userId);
    q.addBindValue(month);
    if (!run(q, "traffic of"))
        return false;
    bytes = q.next() ? q.value(0).toLongLong() : 0;
    return true;
}

// --- Live Console ---------------------------------------------------------------

namespace {

ConsoleComputerRow consoleComputerFrom(const QSqlQuery &q)
{
    ConsoleComputerRow row;
    row.cid = q.value(0).toString();
    row.userId = q.value(1).toLongLong();
    row.hostname = q.value(2).toString();
    row.version = q.value(3).toString();
    row.sessionId = q.value(4).toString();
    row.lastSeenAt = q.value(5).toLongLong();
    row.ports = q.value(6).toString();
    row.portsAt = q.value(7).toLongLong();
    return row;
}

ConsoleCommandRow consoleCommandFrom(const QSqlQuery &q)
{
    ConsoleCommandRow row;
    row.id = q.value(0).toLongLong();
    row.cid = q.value(1).toString();
    row.command = q.value(2).toString();
    row.payload = q.value(3).toString();
    row.state = q.value(4).toString();
    row.createdAt = q.value(5).toLongLong();
    row.result = q.value(6).toString();
    row.finishedAt = q.value(7).toLongLong();
    return row;
}

const char kComputerColumns[] = "cid, user_id, hostname, version, session_id, last_seen_at, ports, ports_at";
const char kCommandColumns[] = "id, cid, command, payload, state, created_at, result, finished_at";

} // namespace

Storage::Found Storage::announceComputer(const ConsoleComputerRow &computer, int maxComputers, bool &limitReached)
{
    limitReached = false;
    ConsoleComputerRow known;
    const Found found = consoleComputer(computer.cid, known);
    if (found == Found::Error)
        return Found::Error;
    if (found == Found::Yes) {
        if (known.userId != computer.userId)
            return Found::No;
        QSqlQuery &q = prepare(QStringLiteral("UPDATE console_computers SET hostname = ?, version = ?, session_id = ?,"
                                             " last_seen_at = ? WHERE cid = ?"));
        q.addBindValue(text(computer.hostname));
        q.addBindValue(text(computer.version));
        q.addBindValue(text(computer.sessionId));
        q.addBindValue(computer.lastSeenAt);
        q.addBindValue(computer.cid);
        return run(q, "touch console computer") ? Found::Yes : Found::Error;
    }
    QSqlQuery &count = prepare(QStringLiteral("SELECT COUNT(*) FROM console_computers WHERE user_id = ?"));
    count.addBindValue(computer.userId);
    if (!run(count, "count console computers") || !count.next())
        return Found::Error;
    const int computers = count.value(0).toInt();
    count.finish();
    if (computers >= maxComputers) {
        limitReached = true;
        return Found::Yes;
    }
    // Two first announcements may race: the loser's insert does nothing
    // and the owner is read again.
    QSqlQuery &q = prepare(QStringLiteral("INSERT INTO console_computers (cid, user_id, hostname, version, session_id,"
                                         " last_seen_at) VALUES (?, ?, ?, ?, ?, ?) ON CONFLICT (cid) DO NOTHING"));
    q.addBindValue(computer.cid);
    q.addBindValue(computer.userId);
    q.addBindValue(text(computer.hostname));
    q.addBindValue(text(computer.version));
    q.addBindValue(text(computer.sessionId));
    q.addBindValue(computer.lastSeenAt);
    if (!run(q, "insert console computer"))
        return Found::Error;
    const Found again = consoleComputer(computer.cid, known);
    if (again != Found::Yes)
        return Found::Error;
    return known.userId == computer.userId ? Found::Yes : Found::No;
}

Storage::Found Storage::consoleComputer(const QString &cid, ConsoleComputerRow &out)
{
    QSqlQuery &q = prepare(QStringLiteral("SELECT %1 FROM console_computers WHERE cid = ?")
                               .arg(QLatin1String(kComputerColumns)));
    q.addBindValue(cid);
    if (!run(q, "console computer"))
        return Found::Error;
    if (!q.next())
        return Found::No;
    out = consoleComputerFrom(q);
    q.finish();  // a read left open would hold an old snapshot into this connection's next write
    return Found::Yes;
}

bool Storage::consoleComputers(qint64 userId, QList<ConsoleComputerRow> &out)
{
    QSqlQuery &q = prepare(QStringLiteral("SELECT %1 FROM console_computers WHERE user_id = ? ORDER BY hostname, cid")
                               .arg(QLatin1String(kComputerColumns)));
    q.addBindValue(userId);
    if (!run(q, "console computers"))
        return false;
    while (q.next())
        out.append(consoleComputerFrom(q));
    return true;
}

bool Storage::touchConsoleComputers(const QStringList &cids, qint64 now)
{
    bool ok = true;
    for (const QString &cid : cids) {
        QSqlQuery &q = prepare(QStringLiteral("UPDATE console_computers SET last_seen_at = ? WHERE cid = ?"));
        q.addBindValue(now);
        q.addBindValue(cid);
        ok = run(q, "touch console computers") && ok;
    }
    return ok;
}

bool Storage::setConsolePorts(const QString &cid, const QString &ports, qint64 now)
{
    QSqlQuery &q = prepare(QStringLiteral("UPDATE console_computers SET ports = ?, ports_at = ?, last_seen_at = ?"
                                         " WHERE cid = ?"));
    q.addBindValue(ports);
    q.addBindValue(now);
    q.addBindValue(now);
    q.addBindValue(cid);
    return run(q, "set console ports");
}

bool Storage::countOpenCommands(const QString &cid, int &count)
{
    QSqlQuery &q = prepare(QStringLiteral("SELECT COUNT(*) FROM console_commands WHERE cid = ? AND state <> 'done'"));
    q.addBindValue(cid);
    if (!run(q, "count console commands") || !q.next())
        return false;
    count = q.value(0).toInt();
    q.finish();
    return true;
}

bool Storage::insertConsoleCommand(ConsoleCommandRow &command)
{
    QSqlQuery &q = prepare(QStringLiteral("INSERT INTO console_commands (cid, command, payload, state, created_at)"
                                         " VALUES (?, ?, ?, 'queued', ?) RETURNING id"));
    q.addBindValue(command.cid);
    q.addBindValue(command.command);
    q.addBindValue(command.payload);
    q.addBindValue(command.createdAt);
    if (!run(q, "insert console command") || !q.next())
        return false;
    command.id = q.value(0).toLongLong();
    q.finish();  // until then SQLite keeps the write open
    command.state = QStringLiteral("queued");
    return true;
}

Storage::Found Storage::consoleCommand(qint64 id, ConsoleCommandRow &out)
{
    QSqlQuery &q = prepare(QStringLiteral("SELECT %1 FROM console_commands WHERE id = ?").arg(QLatin1String(kCommandColumns)));
    q.addBindValue(id);
    if (!run(q, "console command"))
        return Found::Error;
    if (!q.next())
        return Found::No;
    out = consoleCommandFrom(q);
    q.finish();
    return Found::Yes;
}

bool Storage::deliverConsoleCommands(const QString &cid, int limit, bool onlyQueued, QList<ConsoleCommandRow> &out)
{
    QSqlQuery &q = prepare(QStringLiteral("SELECT %1 FROM console_commands WHERE cid = ? AND state IN ('queued', %2)"
                                         " ORDER BY id LIMIT ?")
                               .arg(QLatin1String(kCommandColumns),
                                    onlyQueued ? QStringLiteral("'queued'") : QStringLiteral("'delivered'")));
    q.addBindValue(cid);
    q.addBindValue(limit);
    if (!run(q, "open console commands"))
        return false;
    QList<ConsoleCommandRow> rows;
    while (q.next())
        rows.append(consoleCommandFrom(q));
    q.finish();
    for (ConsoleCommandRow &row : rows) {
        if (row.state != QLatin1String("queued"))
            continue;
        QSqlQuery &mark = prepare(QStringLiteral("UPDATE console_commands SET state = 'delivered' WHERE id = ?"
                                                " AND state = 'queued'"));
        mark.addBindValue(row.id);
        if (!run(mark, "deliver console command"))
            return false;
        row.state = QStringLiteral("delivered");
    }
    out = rows;
    return true;
}

Storage::Found Storage::acknowledgeConsoleCommand(const QString &cid, qint64 id)
{
    QSqlQuery &q = prepare(QStringLiteral("UPDATE console_commands SET state = 'acknowledged' WHERE id = ? AND cid = ?"
                                         " AND state <> 'done'"));
    q.addBindValue(id);
    q.addBindValue(cid);
    if (!run(q, "acknowledge console command"))
        return Found::Error;
    return q.numRowsAffected() > 0 ? Found::Yes : Found::No;
}

Storage::Found Storage::finishConsoleCommand(const QString &cid, qint64 id, const QString &result, qint64 now,
                                             ConsoleCommandRow &out)
{
    QSqlQuery &q = prepare(QStringLiteral("UPDATE console_commands SET state = 'done', result = ?, finished_at = ?"
                                         " WHERE id = ? AND cid = ? AND state <> 'done'"));
    q.addBindValue(result);
    q.addBindValue(now);
    q.addBindValue(id);
    q.addBindValue(cid);
    if (!run(q, "finish console command"))
        return Found::Error;
    const Found found = consoleCommand(id, out);
    if (found == Found::Yes && out.cid != cid)
        return Found::No;
    return found;
}

// --- housekeeping ---------------------------------------------------------------

// --- Live Relay ----------------------------------------------------------------

namespace {

const char kRelayColumns[] =
    "relay_id, user_id, cid, port_key, share_id, guest_name, guest_token_hash, host_ticket_hash,"
    " client_ticket_hash, tickets_expire_at, host_used_at, client_used_at, host_command_id, instance_id,"
    " created_at, paired_at, ended_at, end_kind, end_reason";

RelayRow relayFrom(const QSqlQuery &q)
{
    RelayRow row;
    row.relayId = q.value(0).toString();
    row.userId = q.value(1).toLongLong();
    row.cid = q.value(2).toString();
    row.portKey = q.value(3).toString();
    row.shareId = q.value(4).toString();
    row.guestName = q.value(5).toString();
    row.guestTokenHash = q.value(6).toString();
    row.hostTicketHash = q.value(7).toString();
    row.clientTicketHash = q.value(8).toString();
    row.ticketsExpireAt = q.value(9).toLongLong();
    row.hostUsedAt = nullableId(q.value(10));
    row.clientUsedAt = nullableId(q.value(11));
    row.hostCommandId = nullableId(q.value(12));
    row.instanceId = q.value(13).toString();
    row.createdAt = q.value(14).toLongLong();
    row.pairedAt = nullableId(q.value(15));
    row.endedAt = nullableId(q.value(16));
    row.endKind = q.value(17).toString();
    row.endReason = q.value(18).toString();
    return row;
}

QVariant textOrNull(const QString &text)
{
    return text.isEmpty() ? QVariant(QMetaType::fromType<QString>()) : QVariant(text);
}

} // namespace

bool Storage::insertRelay(const RelayRow &relay)
{
    QSqlQuery &q = prepare(QStringLiteral("INSERT INTO relay_sessions (relay_id, user_id, cid, port_key, share_id,"
                                         " guest_name, guest_token_hash, host_ticket_hash, client_ticket_hash,"
                                         " tickets_expire_at, instance_id, created_at)"
                                         " VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)"));
    q.addBindValue(relay.relayId);
    q.addBindValue(relay.userId);
    q.addBindValue(relay.cid);
    q.addBindValue(relay.portKey);
    q.addBindValue(textOrNull(relay.shareId));
    q.addBindValue(textOrNull(relay.guestName));
    q.addBindValue(textOrNull(relay.guestTokenHash));
    q.addBindValue(relay.hostTicketHash);
    q.addBindValue(relay.clientTicketHash);
    q.addBindValue(relay.ticketsExpireAt);
    q.addBindValue(relay.instanceId);
    q.addBindValue(relay.createdAt);
    return run(q, "insert relay");
}

Storage::Found Storage::relay(const QString &relayId, RelayRow &out)
{
    QSqlQuery &q = prepare(QStringLiteral("SELECT %1 FROM relay_sessions WHERE relay_id = ?").arg(QLatin1String(kRelayColumns)));
    q.addBindValue(relayId);
    if (!run(q, "relay"))
        return Found::Error;
    if (!q.next())
        return Found::No;
    out = relayFrom(q);
    q.finish();
    return Found::Yes;
}

Storage::Found Storage::relayByTicket(const QString &ticketHash, RelayRow &out, QString &end)
{
    QSqlQuery &q = prepare(QStringLiteral("SELECT %1 FROM relay_sessions WHERE host_ticket_hash = ? OR client_ticket_hash = ?")
                               .arg(QLatin1String(kRelayColumns)));
    q.addBindValue(ticketHash);
    q.addBindValue(ticketHash);
    if (!run(q, "relay by ticket"))
        return Found::Error;
    if (!q.next())
        return Found::No;
    out = relayFrom(q);
    q.finish();
    end = out.hostTicketHash == ticketHash ? QStringLiteral("host") : QStringLiteral("client");
    return Found::Yes;
}

bool Storage::relayBusy(const QString &cid, const QString &portKey, qint64 now, bool &busy)
{
    QSqlQuery &q = prepare(QStringLiteral("SELECT COUNT(*) FROM relay_sessions WHERE cid = ? AND port_key = ?"
                                         " AND ended_at IS NULL AND (paired_at IS NOT NULL OR tickets_expire_at > ?)"));
    q.addBindValue(cid);
    q.addBindValue(portKey);
    q.addBindValue(now);
    if (!run(q, "relay busy") || !q.next())
        return false;
    busy = q.value(0).toLongLong() > 0;
    q.finish();
    return true;
}

bool Storage::setRelayCommand(const QString &relayId, qint64 commandId)
{
    QSqlQuery &q = prepare(QStringLiteral("UPDATE relay_sessions SET host_command_id = ? WHERE relay_id = ?"));
    q.addBindValue(commandId);
    q.addBindValue(relayId);
    return run(q, "relay command");
}

bool Storage::useRelayTicket(const QString &relayId, const QString &end, qint64 now, bool &won)
{
    const QString column = end == QLatin1String("host") ? QStringLiteral("host_used_at") : QStringLiteral("client_used_at");
    QSqlQuery &q = prepare(QStringLiteral("UPDATE relay_sessions SET %1 = ? WHERE relay_id = ? AND %1 IS NULL"
                                         " AND ended_at IS NULL AND tickets_expire_at > ?")
                               .arg(column));
    q.addBindValue(now);
    q.addBindValue(relayId);
    q.addBindValue(now);
    if (!run(q, "use relay ticket"))
        return false;
    won = q.numRowsAffected() == 1;
    return true;
}

bool Storage::setRelayPaired(const QString &relayId, qint64 now)
{
    QSqlQuery &q = prepare(QStringLiteral("UPDATE relay_sessions SET paired_at = ? WHERE relay_id = ? AND paired_at IS NULL"));
    q.addBindValue(now);
    q.addBindValue(relayId);
    return run(q, "relay paired");
}

bool Storage::endRelay(const QString &relayId, const QString &kind, const QString &reason, qint64 now, bool &ended)
{
    QSqlQuery &q = prepare(QStringLiteral("UPDATE relay_sessions SET ended_at = ?, end_kind = ?, end_reason = ?"
                                         " WHERE relay_id = ? AND ended_at IS NULL"));
    q.addBindValue(now);
    q.addBindValue(kind);
    q.addBindValue(textOrNull(reason));
    q.addBindValue(relayId);
    if (!run(q, "end relay"))
        return false;
    ended = q.numRowsAffected() == 1;
    return true;
}

bool Storage::addRelayBytes(const QString &relayId, qint64 bytes)
{
    QSqlQuery &q = prepare(QStringLiteral("UPDATE relay_sessions SET bytes = bytes + ? WHERE relay_id = ?"));
    q.addBindValue(bytes);
    q.addBindValue(relayId);
    return run(q, "relay bytes");
}

bool Storage::relaysEndedSince(const QString &instanceId, qint64 since, QList<RelayEndRow> &out)
{
    QSqlQuery &q = prepare(QStringLiteral("SELECT relay_id, end_kind, end_reason FROM relay_sessions"
                                         " WHERE instance_id = ? AND ended_at >= ?"));
    q.addBindValue(instanceId);
    q.addBindValue(since);
    if (!run(q, "relays ended"))
        return false;
    while (q.next())
        out.append({q.value(0).toString(), q.value(1).toString(), q.value(2).toString()});
    return true;
}

bool Storage::relayHostAnswers(const QString &instanceId, qint64 since, QList<QPair<QString, QString>> &out)
{
    QSqlQuery &q = prepare(QStringLiteral("SELECT r.relay_id, c.result FROM relay_sessions r"
                                         " JOIN console_commands c ON c.id = r.host_command_id"
                                         " WHERE r.instance_id = ? AND r.ended_at IS NULL AND c.state = 'done'"
                                         " AND c.finished_at >= ?"));
    q.addBindValue(instanceId);
    q.addBindValue(since);
    if (!run(q, "relay host answers"))
        return false;
    while (q.next())
        out.append({q.value(0).toString(), q.value(1).toString()});
    return true;
}

namespace {
constexpr qint64 kShareKeepMs = 24LL * 3600 * 1000;
}

bool Storage::pruneExpired(qint64 now, qint64 attemptWindowMs, qint64 refreshGraceMs, qint64 commandKeepMs)
{
    struct Step
    {
        const char *what;
        QString sql;
        qint64 bound;
    };
    const Step steps[] = {
        {"prune access tokens", QStringLiteral("DELETE FROM access_tokens WHERE expires_at < ?"), now},
        {"prune refresh tokens", QStringLiteral("DELETE FROM refresh_tokens WHERE expires_at < ?"), now},
        // A session whose every live token has expired has ended.
        {"prune sessions",
         QStringLiteral("DELETE FROM sessions WHERE created_at < ? AND NOT EXISTS (SELECT 1 FROM refresh_tokens r"
                        " WHERE r.session_id = sessions.id AND r.rotated_at IS NULL)"),
         now},
        {"prune codes", QStringLiteral("DELETE FROM registration_codes WHERE expires_at < ?"), now},
        // Relays are kept a day after they ended.
        {"prune relays", QStringLiteral("DELETE FROM relay_sessions WHERE ended_at < ?"), now - 24LL * 3600 * 1000},
        {"prune unused relays",
         QStringLiteral("DELETE FROM relay_sessions WHERE paired_at IS NULL AND tickets_expire_at < ?"),
         now - 24LL * 3600 * 1000},
        {"prune attempts", QStringLiteral("DELETE FROM attempts WHERE window_start < ?"), now - attemptWindowMs},
        {"prune sign-in failures", QStringLiteral("DELETE FROM sign_in_failures WHERE last_failure_at < ?"),
         now - attemptWindowMs},
        // A rotated pair is kept sealed for the grace time only.
        {"prune successors",
         QStringLiteral("UPDATE refresh_tokens SET successor = NULL WHERE successor IS NOT NULL AND rotated_at < ?"),
         now - refreshGraceMs},
    };
    bool ok = true;
    for (const Step &step : steps) {
        QSqlQuery &q = prepare(step.sql);
        q.addBindValue(step.bound);
        ok = run(q, step.what) && ok;
    }
    {
        // Ended and expired shares stay a day for the owner's listings.
        QSqlQuery &q = prepare(QStringLiteral("DELETE FROM shares WHERE (state = 'ended' AND ended_at < ?)"
                                             " OR expires_at < ?"));
        q.addBindValue(now - kShareKeepMs);
        q.addBindValue(now - kShareKeepMs);
        ok = run(q, "prune shares") && ok;
    }
    if (commandKeepMs > 0) {
        // Console commands, answered or not, are kept this long.
        QSqlQuery &q = prepare(QStringLiteral("DELETE FROM console_commands WHERE created_at < ?"));
        q.addBindValue(now - commandKeepMs);
        ok = run(q, "prune console commands") && ok;
    }
    return ok;
}

namespace {

const char kShareColumns[] = "id, code, user_id, cid, session_id, port_key, port_name, device_name, label, web, relay,"
                             " passcode_hash, created_at, expires_at, state, end_reason, ended_at, wrong_passcodes,"
                             " guest_name, guest_since, relay_id";

ShareRow shareFrom(const QSqlQuery &q)
{
    ShareRow row;
    row.id = q.value(0).toLongLong();
    row.code = q.value(1).toString();
    row.userId = q.value(2).toLongLong();
    row.cid = q.value(3).toString();
    row.sessionId = q.value(4).toString();
    row.portKey = q.value(5).toString();
    row.portName = q.value(6).toString();
    row.deviceName = q.value(7).toString();
    row.label = q.value(8).toString();
    row.web = q.value(9).toString();
    row.relay = q.value(10).toInt() != 0;
    row.passcodeHash = q.value(11).toString();
    row.createdAt = q.value(12).toLongLong();
    row.expiresAt = q.value(13).toLongLong();
    row.state = q.value(14).toString();
    row.endReason = q.value(15).toString();
    row.endedAt = q.value(16).toLongLong();
    row.wrongPasscodes = q.value(17).toInt();
    row.guestName = q.value(18).toString();
    row.guestSince = q.value(19).toLongLong();
    row.relayId = q.value(20).toString();
    return row;
}

} // namespace

Storage::Found Storage::insertShare(ShareRow &share)
{
    QSqlQuery &q = prepare(QStringLiteral(
        "INSERT INTO shares (code, user_id, cid, session_id, port_key, port_name, device_name, label, web, relay,"
        " passcode_hash, created_at, expires_at, state, wrong_passcodes)"
        " VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, 'live', 0) ON CONFLICT (code) DO NOTHING RETURNING id"));
    q.addBindValue(share.code);
    q.addBindValue(share.userId);
    q.addBindValue(share.cid);
    q.addBindValue(text(share.sessionId));
    q.addBindValue(text(share.portKey));
    q.addBindValue(text(share.portName));
    q.addBindValue(text(share.deviceName));
    q.addBindValue(text(share.label));
    q.addBindValue(text(share.web));
    q.addBindValue(share.relay ? 1 : 0);
    q.addBindValue(text(share.passcodeHash));
    q.addBindValue(share.createdAt);
    q.addBindValue(share.expiresAt);
    if (!run(q, "insert share"))
        return Found::Error;
    if (!q.next())
        return Found::No;
    share.id = q.value(0).toLongLong();
    q.finish();
    share.state = QStringLiteral("live");
    return Found::Yes;
}

Storage::Found Storage::shareById(qint64 id, ShareRow &out)
{
    QSqlQuery &q = prepare(QStringLiteral("SELECT %1 FROM shares WHERE id = ?").arg(QLatin1String(kShareColumns)));
    q.addBindValue(id);
    if (!run(q, "share"))
        return Found::Error;
    if (!q.next())
        return Found::No;
    out = shareFrom(q);
    q.finish();
    return Found::Yes;
}

Storage::Found Storage::shareByCode(const QString &code, ShareRow &out)
{
    QSqlQuery &q = prepare(QStringLiteral("SELECT %1 FROM shares WHERE code = ?").arg(QLatin1String(kShareColumns)));
    q.addBindValue(code);
    if (!run(q, "share by code"))
        return Found::Error;
    if (!q.next())
        return Found::No;
    out = shareFrom(q);
    q.finish();
    return Found::Yes;
}

bool Storage::sharesOfComputer(const QString &cid, qint64 endedSince, QList<ShareRow> &out)
{
    QSqlQuery &q = prepare(QStringLiteral("SELECT %1 FROM shares WHERE cid = ? AND (state = 'live' OR ended_at >= ?)"
                                         " ORDER BY id")
                               .arg(QLatin1String(kShareColumns)));
    q.addBindValue(cid);
    q.addBindValue(endedSince);
    if (!run(q, "shares of computer"))
        return false;
    while (q.next())
        out.append(shareFrom(q));
    return true;
}

bool Storage::liveSharesOfAccount(qint64 userId, int limit, QList<ShareRow> &out)
{
    QSqlQuery &q = prepare(QStringLiteral("SELECT %1 FROM shares WHERE user_id = ? AND state = 'live'"
                                         " ORDER BY cid, id LIMIT ?")
                               .arg(QLatin1String(kShareColumns)));
    q.addBindValue(userId);
    q.addBindValue(limit);
    if (!run(q, "shares of account"))
        return false;
    while (q.next())
        out.append(shareFrom(q));
    return true;
}

bool Storage::countLiveShares(const QString &cid, int &count)
{
    QSqlQuery &q = prepare(QStringLiteral("SELECT COUNT(*) FROM shares WHERE cid = ? AND state = 'live'"));
    q.addBindValue(cid);
    if (!run(q, "count shares") || !q.next())
        return false;
    count = q.value(0).toInt();
    q.finish();
    return true;
}

bool Storage::countRevokedShares(qint64 userId, qint64 since, int &count)
{
    QSqlQuery &q = prepare(QStringLiteral("SELECT COUNT(*) FROM shares WHERE user_id = ? AND state = 'ended'"
                                         " AND end_reason IN ('revoked', 'too_many_attempts') AND ended_at >= ?"));
    q.addBindValue(userId);
    q.addBindValue(since);
    if (!run(q, "count revoked shares") || !q.next())
        return false;
    count = q.value(0).toInt();
    q.finish();
    return true;
}

bool Storage::endShare(qint64 id, const QString &reason, qint64 now, bool &ended)
{
    // Conditional, so that of two racing ends only the first reason stands.
    QSqlQuery &q = prepare(QStringLiteral("UPDATE shares SET state = 'ended', end_reason = ?, ended_at = ?"
                                         " WHERE id = ? AND state = 'live'"));
    q.addBindValue(reason);
    q.addBindValue(now);
    q.addBindValue(id);
    if (!run(q, "end share"))
        return false;
    ended = q.numRowsAffected() > 0;
    return true;
}

bool Storage::addWrongPasscode(qint64 id, int &total)
{
    QSqlQuery &q = prepare(QStringLiteral("UPDATE shares SET wrong_passcodes = wrong_passcodes + 1 WHERE id = ?"
                                         " RETURNING wrong_passcodes"));
    q.addBindValue(id);
    if (!run(q, "count wrong passcode") || !q.next())
        return false;
    total = q.value(0).toInt();
    q.finish();
    return true;
}

bool Storage::insertShareGuest(const QString &tokenHash, qint64 shareId, const QString &name, qint64 now, int keep)
{
    QSqlQuery &q = prepare(QStringLiteral("INSERT INTO share_guests (token_hash, share_id, name, joined_at)"
                                         " VALUES (?, ?, ?, ?)"));
    q.addBindValue(tokenHash);
    q.addBindValue(shareId);
    q.addBindValue(text(name));
    q.addBindValue(now);
    if (!run(q, "insert share guest"))
        return false;
    QSqlQuery &trim = prepare(QStringLiteral(
        "DELETE FROM share_guests WHERE share_id = ? AND token_hash NOT IN"
        " (SELECT token_hash FROM share_guests WHERE share_id = ? ORDER BY joined_at DESC, token_hash LIMIT ?)"));
    trim.addBindValue(shareId);
    trim.addBindValue(shareId);
    trim.addBindValue(keep);
    return run(trim, "trim share guests");
}

Storage::Found Storage::shareGuest(const QString &tokenHash, qint64 &shareId, QString &name)
{
    QSqlQuery &q = prepare(QStringLiteral("SELECT share_id, name FROM share_guests WHERE token_hash = ?"));
    q.addBindValue(tokenHash);
    if (!run(q, "share guest"))
        return Found::Error;
    if (!q.next())
        return Found::No;
    shareId = q.value(0).toLongLong();
    name = q.value(1).toString();
    q.finish();
    return Found::Yes;
}

bool Storage::setShareRelayGuest(qint64 id, const QString &name, qint64 since, const QString &relayId)
{
    QSqlQuery &q = prepare(QStringLiteral("UPDATE shares SET guest_name = ?, guest_since = ?, relay_id = ? WHERE id = ?"));
    q.addBindValue(text(name));
    q.addBindValue(since);
    q.addBindValue(text(relayId));
    q.addBindValue(id);
    return run(q, "set share relay guest");
}
