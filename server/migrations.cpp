#include "migrations.h"

namespace {

// The few words the two databases spell differently.
QString dialectText(QString sql, SqlDialect dialect)
{
    const bool pg = dialect == SqlDialect::Postgres;
    sql.replace(QLatin1String("%ID%"), pg ? QLatin1String("BIGSERIAL PRIMARY KEY")
                                          : QLatin1String("INTEGER PRIMARY KEY AUTOINCREMENT"));
    return sql;
}

} // namespace

QList<Migration> migrations(SqlDialect dialect)
{
    QList<Migration> steps = {
        {1,
         {
             QStringLiteral("CREATE TABLE users ("
                            " id %ID%,"
                            " email TEXT NOT NULL UNIQUE,"
                            " username TEXT NOT NULL,"
                            " password_hash TEXT NOT NULL,"
                            " state TEXT NOT NULL,"
                            " created_at BIGINT NOT NULL)"),
             QStringLiteral("CREATE TABLE registration_codes ("
                            " email TEXT PRIMARY KEY,"
                            " code_hash TEXT NOT NULL,"
                            " expires_at BIGINT NOT NULL,"
                            " tries_left INTEGER NOT NULL,"
                            " sent_at BIGINT NOT NULL)"),
             QStringLiteral("CREATE TABLE devices ("
                            " id %ID%,"
                            " user_id BIGINT NOT NULL REFERENCES users(id) ON DELETE CASCADE,"
                            " cid TEXT NOT NULL UNIQUE,"
                            " name TEXT NOT NULL,"
                            " client_version TEXT NOT NULL,"
                            " bound_at BIGINT NOT NULL,"
                            " last_seen_at BIGINT NOT NULL,"
                            " UNIQUE (user_id, name))"),
             // A session is one chain of refresh tokens, from a sign-in to
             // its sign-out; deleting it ends every token of the chain.
             QStringLiteral("CREATE TABLE sessions ("
                            " id %ID%,"
                            " user_id BIGINT NOT NULL REFERENCES users(id) ON DELETE CASCADE,"
                            " device_id BIGINT REFERENCES devices(id) ON DELETE CASCADE,"
                            " created_at BIGINT NOT NULL)"),
             QStringLiteral("CREATE TABLE refresh_tokens ("
                            " id %ID%,"
                            " session_id BIGINT NOT NULL REFERENCES sessions(id) ON DELETE CASCADE,"
                            " token_hash TEXT NOT NULL UNIQUE,"
                            " created_at BIGINT NOT NULL,"
                            " expires_at BIGINT NOT NULL,"
                            " rotated_at BIGINT)"),
             QStringLiteral("CREATE INDEX refresh_tokens_session ON refresh_tokens (session_id)"),
             QStringLiteral("CREATE TABLE access_tokens ("
                            " token_hash TEXT PRIMARY KEY,"
                            " session_id BIGINT NOT NULL REFERENCES sessions(id) ON DELETE CASCADE,"
                            " expires_at BIGINT NOT NULL)"),
             QStringLiteral("CREATE INDEX access_tokens_session ON access_tokens (session_id)"),
             QStringLiteral("CREATE INDEX access_tokens_expiry ON access_tokens (expires_at)"),
             QStringLiteral("CREATE TABLE attempts ("
                            " bucket TEXT PRIMARY KEY,"
                            " window_start BIGINT NOT NULL,"
                            " failures INTEGER NOT NULL)"),
             QStringLiteral("CREATE TABLE sync_items ("
                            " user_id BIGINT NOT NULL REFERENCES users(id) ON DELETE CASCADE,"
                            " namespace TEXT NOT NULL,"
                            " item_key TEXT NOT NULL,"
                            " revision BIGINT NOT NULL,"
                            " payload TEXT NOT NULL,"
                            " updated_at BIGINT NOT NULL,"
                            " PRIMARY KEY (user_id, namespace, item_key))"),
             QStringLiteral("CREATE TABLE traffic ("
                            " user_id BIGINT NOT NULL REFERENCES users(id) ON DELETE CASCADE,"
                            " month TEXT NOT NULL,"
                            " bytes BIGINT NOT NULL,"
                            " PRIMARY KEY (user_id, month))"),
         }},
        {2,
         {
             // Sign-in failures per (address, account) pair and per
             // address; they set delays, they lock nothing. The old
             // per-account and per-address lock buckets go.
             QStringLiteral("CREATE TABLE sign_in_failures ("
                            " bucket TEXT PRIMARY KEY,"
                            " failures INTEGER NOT NULL,"
                            " last_failure_at BIGINT NOT NULL)"),
             QStringLiteral("CREATE INDEX sign_in_failures_last ON sign_in_failures (last_failure_at)"),
             QStringLiteral("DELETE FROM attempts WHERE bucket LIKE 'login-%'"),
             // The pair a rotation handed out, sealed with the rotated
             // token, for a client that asks again within the grace time.
             QStringLiteral("ALTER TABLE refresh_tokens ADD COLUMN successor TEXT"),
             QStringLiteral("CREATE INDEX refresh_tokens_successor ON refresh_tokens (rotated_at)"
                            " WHERE successor IS NOT NULL"),
         }},
        {3,
         {
             // A computer of the Live Console, bound to the account that
             // first announced its cid; its last port snapshot rides along.
             QStringLiteral("CREATE TABLE console_computers ("
                            " cid TEXT PRIMARY KEY,"
                            " user_id BIGINT NOT NULL REFERENCES users(id) ON DELETE CASCADE,"
                            " hostname TEXT NOT NULL,"
                            " version TEXT NOT NULL,"
                            " session_id TEXT NOT NULL,"
                            " last_seen_at BIGINT NOT NULL,"
                            " ports TEXT,"
                            " ports_at BIGINT)"),
             QStringLiteral("CREATE INDEX console_computers_user ON console_computers (user_id)"),
             // A command lives from its issue to its result: "queued",
             // "delivered" (pushed or polled), "acknowledged" (the computer
             // took it over HTTP), "done" (its result is in).
             QStringLiteral("CREATE TABLE console_commands ("
                            " id %ID%,"
                            " cid TEXT NOT NULL REFERENCES console_computers(cid) ON DELETE CASCADE,"
                            " command TEXT NOT NULL,"
                            " payload TEXT NOT NULL,"
                            " state TEXT NOT NULL,"
                            " created_at BIGINT NOT NULL,"
                            " result TEXT,"
                            " finished_at BIGINT)"),
             QStringLiteral("CREATE INDEX console_commands_open ON console_commands (cid, state)"),
             QStringLiteral("CREATE INDEX console_commands_age ON console_commands (created_at)"),
         }},
        {4,
         {
             // A Live Relay from its opening to its end. Only hashes of its
             // one-time tickets and of a guest's token are kept; the
             // instance that issued the tickets holds both ends.
             QStringLiteral("CREATE TABLE relay_sessions ("
                            " relay_id TEXT PRIMARY KEY,"
                            " user_id BIGINT NOT NULL REFERENCES users(id) ON DELETE CASCADE,"
                            " cid TEXT NOT NULL,"
                            " port_key TEXT NOT NULL,"
                            " share_id TEXT,"
                            " guest_name TEXT,"
                            " guest_token_hash TEXT,"
                            " host_ticket_hash TEXT NOT NULL UNIQUE,"
                            " client_ticket_hash TEXT NOT NULL UNIQUE,"
                            " tickets_expire_at BIGINT NOT NULL,"
                            " host_used_at BIGINT,"
                            " client_used_at BIGINT,"
                            " host_command_id BIGINT,"
                            " instance_id TEXT NOT NULL,"
                            " created_at BIGINT NOT NULL,"
                            " paired_at BIGINT,"
                            " ended_at BIGINT,"
                            " end_kind TEXT,"
                            " end_reason TEXT,"
                            " bytes BIGINT NOT NULL DEFAULT 0)"),
             QStringLiteral("CREATE INDEX relay_sessions_port ON relay_sessions (cid, port_key)"),
             QStringLiteral("CREATE INDEX relay_sessions_instance ON relay_sessions (instance_id, ended_at)"),
             QStringLiteral("CREATE INDEX relay_sessions_command ON relay_sessions (host_command_id)"),
         }},
        {5,
         {
             // A port lent to a guest for a while: found by its invite
             // code, ended ("expired", "revoked", "stale",
             // "too_many_attempts") but kept a day for the owner's
             // listings. Only a salted hash of the passcode is kept.
             QStringLiteral("CREATE TABLE shares ("
                            " id %ID%,"
                            " code TEXT NOT NULL UNIQUE,"
                            " user_id BIGINT NOT NULL REFERENCES users(id) ON DELETE CASCADE,"
                            " cid TEXT NOT NULL REFERENCES console_computers(cid) ON DELETE CASCADE,"
                            " session_id TEXT NOT NULL,"
                            " port_key TEXT NOT NULL,"
                            " port_name TEXT NOT NULL,"
                            " device_name TEXT NOT NULL,"
                            " label TEXT NOT NULL,"
                            " web TEXT NOT NULL,"
                            " relay INTEGER NOT NULL,"
                            " passcode_hash TEXT NOT NULL,"
                            " created_at BIGINT NOT NULL,"
                            " expires_at BIGINT NOT NULL,"
                            " state TEXT NOT NULL,"
                            " end_reason TEXT,"
                            " ended_at BIGINT,"
                            " wrong_passcodes INTEGER NOT NULL,"
                            " guest_name TEXT,"
                            " guest_since BIGINT,"
                            " relay_id TEXT)"),
             QStringLiteral("CREATE INDEX shares_computer ON shares (cid, state)"),
             QStringLiteral("CREATE INDEX shares_account ON shares (user_id, state)"),
             // A browser guest's credential: it admits that one share's
             // port, for as long as the share lives. Hashes only.
             QStringLiteral("CREATE TABLE share_guests ("
                            " token_hash TEXT PRIMARY KEY,"
                            " share_id BIGINT NOT NULL REFERENCES shares(id) ON DELETE CASCADE,"
                            " name TEXT NOT NULL,"
                            " joined_at BIGINT NOT NULL)"),
             QStringLiteral("CREATE INDEX share_guests_share ON share_guests (share_id, joined_at)"),
         }},
    };
    for (Migration &step : steps) {
        for (QString &sql : step.statements)
            sql = dialectText(sql, dialect);
    }
    return steps;
}
