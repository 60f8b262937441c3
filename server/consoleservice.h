#pragma once

#include "apireply.h"
#include "servicetime.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QString>
#include <QStringList>

#include <optional>

class ConsoleLive;
class QuotaService;
class Storage;
struct Caller;
struct ConsoleCommandRow;

// Every bound on what a computer or a browser can make the console side
// store or send.
struct ConsolePolicy
{
    int maxComputersPerAccount = 50;  // beyond: "computer_limit_reached"
    int maxOpenCommands = 64;         // per computer, not yet answered; beyond: "too_many_commands"
    int maxPollLimit = 64;
    int maxEventsPerBatch = 256;      // the program sends at most 64
    int maxEventText = 8192;          // characters of one event's "payload_text"
    int maxPorts = 256;
    int maxPayloadBytes = 64 * 1024;  // a command's payload, a result, as compact JSON
    // A computer without a socket here counts as online this long after
    // its last heartbeat (it beats every 20 s).
    qint64 onlineWindowMs = 65 * 1000;
    qint64 commandKeepMs = 7LL * 24 * 3600 * 1000;
};

// The console side of the API, apart from HTTP and sockets: computers
// announce themselves, take commands and report results and traffic;
// browsers list computers, read ports and results and issue commands.
// Runs on a database thread; what the event loop must hear goes through
// ConsoleLive.
class ConsoleService
{
public:
    ConsoleService(Storage &storage, QuotaService &quota, ConsoleLive &live, ConsolePolicy policy, ServiceClock clock);

    // The computer's side, by HTTP.
    ApiReply heartbeat(const Caller &caller, const QJsonObject &body);
    ApiReply poll(const Caller &caller, const QString &cid, const QString &limit);
    ApiReply acknowledge(const Caller &caller, const QString &commandId, const QJsonObject &body);
    ApiReply result(const Caller &caller, const QString &commandId, const QJsonObject &body);
    ApiReply events(const Caller &caller, const QJsonObject &body);
    ApiReply snapshot(const Caller &caller, const QJsonObject &body);

    // The computer's side, for its socket: the hello (its answer has type
    // "hello"), the commands to push, a result, a snapshot, traffic bytes
    // to count. `notify` false: the socket's owner tells watchers itself.
    ApiReply hello(const Caller &caller, const QJsonObject &body);
    // The commands to push: those never delivered, or with `all` every
    // one without a result (a socket that just said hello).
    ApiReply pending(const QString &cid, bool all);
    ApiReply storeResult(const QString &cid, const QString &commandId, const QJsonObject &result, bool notify);
    ApiReply storePorts(const QString &cid, const QJsonArray &ports, bool notify);
    ApiReply charge(qint64 userId, qint64 bytes);
    // The computers holding a socket are online: seen now.
    ApiReply touch(const QStringList &cids);

    // The browser's side.
    ApiReply computers(const Caller &caller);
    ApiReply ports(const Caller &caller, const QString &cid);
    ApiReply issue(const Caller &caller, const QString &cid, const QJsonObject &body);
    ApiReply command(const Caller &caller, const QString &commandId);
    // Stores a command checked already (known, allowed) for `cid`, within
    // the payload and waiting-command bounds. Guests' commands come here too.
    ApiReply queue(const QString &cid, const QString &name, const QJsonObject &payload);
    // Whether `caller` may watch `cid`; the answer carries the computer.
    ApiReply mayWatch(const Caller &caller, const QString &cid);

    // Checks a batch of traffic events; on success `bytes` holds the size
    // of their texts (what the quota counts). Pure, for the socket too.
    static std::optional<ApiReply> checkEvents(const QJsonArray &events, const ConsolePolicy &policy, qint64 &bytes);
    static bool isValidCid(const QString &cid);
    static QJsonObject commandJson(const ConsoleCommandRow &row);
    static const QStringList &knownCommands();

private:
    // The computer `cid` of the caller's account: nothing (and `refusal`
    // set) when it is not.
    bool ownComputer(const Caller &caller, const QString &cid, ApiReply &refusal);
    // Heartbeat and hello alike: binds or refreshes the computer.
    std::optional<ApiReply> announce(const Caller &caller, const QJsonObject &body, const QString &type);
    QJsonObject liveMembers(const QString &cid) const;
    std::optional<qint64> uploadRemaining(qint64 userId, bool &ok);

    Storage &m_storage;
    QuotaService &m_quota;
    ConsoleLive &m_live;
    ConsolePolicy m_policy;
    ServiceClock m_clock;
};
