#pragma once

#include "apireply.h"

#include <QString>

#include <functional>
#include <variant>

class AccountService;
class ConsoleService;
class QuotaService;
class ShareService;
class RelayService;
class SyncService;

// The domain services of one database connection: what a request runs
// against on the thread that owns that connection.
struct ServiceSet
{
    AccountService &accounts;
    SyncService &sync;
    QuotaService &quota;
    ConsoleService &console;
    ShareService &shares;
    RelayService &relay;
};

// Password work, done apart from the database work (it costs tens of
// milliseconds of one core, a database statement far less).
struct PasswordWork
{
    enum class Kind { Hash, Verify };
    Kind kind = Kind::Verify;
    QString password;
    QString stored;  // Verify: the stored hash
};

struct PasswordResult
{
    bool matches = false;  // Verify: the password fits the stored hash
    QString newHash;       // Hash, or a Verify that matched an outdated hash
};

struct PasswordStep;

// What handling a request gives: the answer, or password work to do first
// and what follows with its result.
using ApiOutcome = std::variant<ApiReply, PasswordStep>;

struct PasswordStep
{
    PasswordWork work;
    std::function<ApiOutcome(ServiceSet &, const PasswordResult &)> then;
};
