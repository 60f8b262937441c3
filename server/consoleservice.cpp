#include "consoleservice.h"

#include "accountservice.h"
#include "consolelive.h"
#include "jsonfields.h"
#include "quotaservice.h"
#include "storage.h"

#include <QJsonDocument>
#include <QRegularExpression>

namespace {

const QString kType = QStringLiteral("console");

QByteArray compact(const QJsonObject &object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

QByteArray compact(const QJsonArray &array)
{
    return QJsonDocument(array).toJson(QJsonDocument::Compact);
}

ApiReply quotaExceeded(const QString &type = kType)
{
    return ApiReply::failure(type, Http::TooManyRequests, QStringLiteral("quota_exceeded"),
                             QStringLiteral("This month's cloud traffic allowance is used up."));
}

ApiReply commandNotFound(const QString &commandId)
{
    // The id goes back: the computer stops offering a result nobody takes.
    return ApiReply::failure(kType, Http::NotFound, QStringLiteral("command_not_found"),
                             QStringLiteral("This service knows no such command."),
                             {{QStringLiteral("command_id"), commandId}});
}

qint64 commandNumber(const QString &commandId)
{
    bool ok = false;
    const qint64 id = commandId.toLongLong(&ok);
    return ok && id > 0 && commandId.size() <= 19 ? id : 0;
}

} // namespace

ConsoleService::ConsoleService(Storage &storage, QuotaService &quota, ConsoleLive &live, ConsolePolicy policy,
                               ServiceClock clock)
    : m_storage(storage), m_quota(quota), m_live(live), m_policy(policy), m_clock(std::move(clock))
{
}

bool ConsoleService::isValidCid(const QString &cid)
{
    static const QRegularExpression pattern(QStringLiteral("^[A-Za-z0-9-]{8,64}$"));
    return pattern.match(cid).hasMatch();
}

const QStringList &ConsoleService::knownCommands()
{
    // Relays are opened through their own API, which hands out tickets.
    static const QStringList names = {QStringLiteral("send_text"),   QStringLiteral("send_hex"),
                                      QStringLiteral("open_port"),   QStringLiteral("close_port"),
                                      QStringLiteral("set_port_config"), QStringLiteral("request_snapshot")};
    return names;
}

QJsonObject ConsoleService::commandJson(const ConsoleCommandRow &row)
{
    QJsonObject out{{QStringLiteral("command_id"), QString::number(row.id)},
                    {QStringLiteral("cid"), row.cid},
                    {QStringLiteral("command"), row.command},
                    {QStringLiteral("payload"), QJsonDocument::fromJson(row.payload.toUtf8()).object()},
                    {QStringLiteral("state"), row.state},
                    {QStringLiteral("created_at"), row.createdAt}};
    if (!row.result.isEmpty()) {
        out.insert(QStringLiteral("result"), QJsonDocument::fromJson(row.result.toUtf8()).object());
        out.insert(QStringLiteral("finished_at"), row.finishedAt);
    }
    return out;
}

std::optional<ApiReply> ConsoleService::checkEvents(const QJsonArray &events, const ConsolePolicy &policy,
                                                    qint64 &bytes)
{
    bytes = 0;
    const auto invalid = [](const QString &description) {
        return ApiReply::failure(kType, Http::BadRequest, QStringLiteral("invalid_events"), description);
    };
    if (events.size() > policy.maxEventsPerBatch)
        return invalid(QStringLiteral("A batch holds at most %1 events.").arg(policy.maxEventsPerBatch));
    for (const QJsonValue &value : events) {
        const QJsonObject event = value.toObject();
        const QJsonValue key = event.value(QLatin1String("port_key"));
        const QString kind = event.value(QLatin1String("event_type")).toString();
        const QJsonValue text = event.value(QLatin1String("payload_text"));
        if (!value.isObject() || !key.isString() || key.toString().isEmpty() || key.toString().size() > 64)
            return invalid(QStringLiteral("Every event names its port in \"port_key\"."));
        if (kind != QLatin1String("tx") && kind != QLatin1String("rx"))
            return invalid(QStringLiteral("\"event_type\" is \"tx\" or \"rx\"."));
        if (!text.isString() || text.toString().size() > policy.maxEventText)
            return invalid(QStringLiteral("\"payload_text\" is a text of at most %1 characters.").arg(policy.maxEventText));
        if (!event.value(QLatin1String("seq")).isDouble() || !event.value(QLatin1String("client_time")).isDouble())
            return invalid(QStringLiteral("\"seq\" and \"client_time\" are numbers."));
        bytes += text.toString().toUtf8().size();
    }
    return std::nullopt;
}

bool ConsoleService::ownComputer(const Caller &caller, const QString &cid, ApiReply &refusal)
{
    if (!isValidCid(cid)) {
        refusal = ApiReply::failure(kType, Http::BadRequest, QStringLiteral("invalid_cid"),
                                    QStringLiteral("\"cid\" is 8 to 64 letters, digits or dashes."));
        return false;
    }
    ConsoleComputerRow row;
    switch (m_storage.consoleComputer(cid, row)) {
    case Storage::Found::Error:
        refusal = internalError(kType);
        return false;
    case Storage::Found::Yes:
        if (row.userId == caller.userId)
            return true;
        [[fallthrough]];
    case Storage::Found::No:
        break;
    }
    refusal = ApiReply::failure(kType, Http::NotFound, QStringLiteral("computer_not_found"),
                                QStringLiteral("This account has no computer with that id."));
    return false;
}

std::optional<qint64> ConsoleService::uploadRemaining(qint64 userId, bool &ok)
{
    return m_quota.remaining(userId, ok);
}

QJsonObject ConsoleService::liveMembers(const QString &cid) const
{
    // Every reply tells the computer whether anybody watches; this
    // service always knows, so it says so with authority.
    return {{QStringLiteral("cid"), cid},
            {QStringLiteral("ws"), true},
            {QStringLiteral("watching"), m_live.watchers(cid) > 0},
            {QStringLiteral("authoritative"), true}};
}

std::optional<ApiReply> ConsoleService::announce(const Caller &caller, const QJsonObject &body, const QString &type)
{
    JsonFields fields(body, type);
    ConsoleComputerRow computer;
    computer.cid = fields.string("cid", 64);
    computer.sessionId = fields.string("session_id", 64, false);
    computer.version = fields.string("version", 32, false);
    computer.hostname = fields.string("hostname", 255, false);
    if (fields.failed())
        return fields.failure();
    if (!isValidCid(computer.cid))
        return ApiReply::failure(type, Http::BadRequest, QStringLiteral("invalid_cid"),
                                 QStringLiteral("\"cid\" is 8 to 64 letters, digits or dashes."));
    computer.userId = caller.userId;
    computer.lastSeenAt = m_clock();
    bool limitReached = false;
    switch (m_storage.announceComputer(computer, m_policy.maxComputersPerAccount, limitReached)) {
    case Storage::Found::Error:
        return internalError(type);
    case Storage::Found::No:
        return ApiReply::failure(type, Http::Forbidden, QStringLiteral("cid_mismatch"),
                                 QStringLiteral("This computer's id belongs to another account."));
    case Storage::Found::Yes:
        break;
    }
    if (limitReached)
        return ApiReply::failure(type, Http::Conflict, QStringLiteral("computer_limit_reached"),
                                 QStringLiteral("This account already has %1 computers in Live Console.")
                                     .arg(m_policy.maxComputersPerAccount));
    return std::nullopt;
}

// --- the computer's side -----------------------------------------------------------

ApiReply ConsoleService::heartbeat(const Caller &caller, const QJsonObject &body)
{
    if (auto refusal = announce(caller, body, kType))
        return *refusal;
    const QString cid = body.value(QLatin1String("cid")).toString();
    QJsonObject members = liveMembers(cid);
    bool ok = true;
    if (const auto remaining = uploadRemaining(caller.userId, ok))
        members.insert(QStringLiteral("up_remaining"), *remaining);
    if (!ok)
        return internalError(kType);
    return ApiReply::ok(kType, members);
}

ApiReply ConsoleService::hello(const Caller &caller, const QJsonObject &body)
{
    const QString type = QStringLiteral("hello");
    if (auto refusal = announce(caller, body, type))
        return *refusal;
    const QString cid = body.value(QLatin1String("cid")).toString();
    QJsonObject members = liveMembers(cid);
    members.remove(QStringLiteral("ws"));
    bool ok = true;
    if (const auto remaining = uploadRemaining(caller.userId, ok))
        members.insert(QStringLiteral("up_remaining"), *remaining);
    if (!ok)
        return internalError(type);
    return ApiReply::ok(type, members);
}

ApiReply ConsoleService::poll(const Caller &caller, const QString &cid, const QString &limitText)
{
    ApiReply refusal;
    if (!ownComputer(caller, cid, refusal)) {
        // A computer polls at once as it beats: its first poll may pass
        // its first heartbeat, which binds it. Nothing waits for it yet.
        ConsoleComputerRow row;
        if (refusal.code() == QLatin1String("computer_not_found")
            && m_storage.consoleComputer(cid, row) == Storage::Found::No) {
            QJsonObject members = liveMembers(cid);
            members.insert(QStringLiteral("commands"), QJsonArray());
            return ApiReply::ok(kType, members);
        }
        return refusal;
    }
    bool given = false;
    const int limit = qBound(1, limitText.toInt(&given), m_policy.maxPollLimit);
    QList<ConsoleCommandRow> rows;
    if (!m_storage.touchConsoleComputers({cid}, m_clock())
        || !m_storage.deliverConsoleCommands(cid, given ? limit : 16, false, rows))
        return internalError(kType);
    QJsonArray commands;
    for (const ConsoleCommandRow &row : std::as_const(rows))
        commands.append(commandJson(row));
    QJsonObject members = liveMembers(cid);
    members.insert(QStringLiteral("commands"), commands);
    bool ok = true;
    if (const auto remaining = uploadRemaining(caller.userId, ok))
        members.insert(QStringLiteral("up_remaining"), *remaining);
    if (!ok)
        return internalError(kType);
    return ApiReply::ok(kType, members);
}

ApiReply ConsoleService::pending(const QString &cid, bool all)
{
    QList<ConsoleCommandRow> rows;
    if (!m_storage.deliverConsoleCommands(cid, 16, !all, rows))
        return internalError(kType);
    QJsonArray commands;
    for (const ConsoleCommandRow &row : std::as_const(rows))
        commands.append(commandJson(row));
    return ApiReply::ok(kType, {{QStringLiteral("commands"), commands}});
}

ApiReply ConsoleService::acknowledge(const Caller &caller, const QString &commandId, const QJsonObject &body)
{
    const QString cid = body.value(QLatin1String("cid")).toString();
    ApiReply refusal;
    if (!ownComputer(caller, cid, refusal))
        return refusal;
    const qint64 id = commandNumber(commandId);
    if (id == 0)
        return ApiReply::failure(kType, Http::NotFound, QStringLiteral("command_not_found"),
                                 QStringLiteral("This service knows no such command."));
    switch (m_storage.acknowledgeConsoleCommand(cid, id)) {
    case Storage::Found::Error:
        return internalError(kType);
    case Storage::Found::Yes:
        return ApiReply::ok(kType);
    case Storage::Found::No:
        break;
    }
    // Its result may be in already (it came over the socket first).
    ConsoleCommandRow row;
    const Storage::Found found = m_storage.consoleCommand(id, row);
    if (found == Storage::Found::Error)
        return internalError(kType);
    if (found == Storage::Found::Yes && row.cid == cid)
        return ApiReply::ok(kType);
    return ApiReply::failure(kType, Http::NotFound, QStringLiteral("command_not_found"),
                             QStringLiteral("This service knows no such command."));
}

ApiReply ConsoleService::result(const Caller &caller, const QString &commandId, const QJsonObject &body)
{
    const QString cid = body.value(QLatin1String("cid")).toString();
    ApiReply refusal;
    if (!ownComputer(caller, cid, refusal))
        return refusal;
    QJsonObject outcome = body;
    outcome.remove(QStringLiteral("session_id"));
    return storeResult(cid, commandId, outcome, true);
}

ApiReply ConsoleService::storeResult(const QString &cid, const QString &commandId, const QJsonObject &result,
                                     bool notify)
{
    const qint64 id = commandNumber(commandId);
    if (id == 0)
        return commandNotFound(commandId.left(32));
    const QString status = result.value(QLatin1String("status")).toString();
    if (status != QLatin1String("succeeded") && status != QLatin1String("failed"))
        return ApiReply::failure(kType, Http::BadRequest, QStringLiteral("invalid_result"),
                                 QStringLiteral("A result's \"status\" is \"succeeded\" or \"failed\"."),
                                 {{QStringLiteral("command_id"), commandId}});
    const QByteArray text = compact(result);
    if (text.size() > m_policy.maxPayloadBytes)
        return ApiReply::failure(kType, Http::PayloadTooLarge, QStringLiteral("payload_too_large"),
                                 QStringLiteral("A result is at most %1 KiB.").arg(m_policy.maxPayloadBytes / 1024),
                                 {{QStringLiteral("command_id"), commandId}});
    const qint64 now = m_clock();
    ConsoleCommandRow row;
    switch (m_storage.finishConsoleCommand(cid, id, QString::fromUtf8(text), now, row)) {
    case Storage::Found::Error:
        return internalError(kType);
    case Storage::Found::No:
        return commandNotFound(commandId);
    case Storage::Found::Yes:
        break;
    }
    // A result delivered again is confirmed again, and told once.
    const bool fresh = row.finishedAt == now && row.result == QString::fromUtf8(text);
    if (notify && fresh) {
        emit m_live.resultStored(cid, {{QStringLiteral("type"), QStringLiteral("result")},
                                       {QStringLiteral("cid"), cid},
                                       {QStringLiteral("command_id"), commandId},
                                       {QStringLiteral("command"), row.command},
                                       {QStringLiteral("result"), result}});
    }
    return ApiReply::ok(kType, {{QStringLiteral("command_id"), commandId}, {QStringLiteral("command"), row.command},
                                {QStringLiteral("fresh"), fresh}});
}

ApiReply ConsoleService::events(const Caller &caller, const QJsonObject &body)
{
    const QString cid = body.value(QLatin1String("cid")).toString();
    ApiReply refusal;
    if (!ownComputer(caller, cid, refusal))
        return refusal;
    const QJsonArray events = body.value(QLatin1String("events")).toArray();
    qint64 bytes = 0;
    if (auto invalid = checkEvents(events, m_policy, bytes))
        return *invalid;
    bool ok = true;
    if (!m_quota.allows(caller.userId, bytes, ok))
        return ok ? quotaExceeded() : internalError(kType);
    if (!m_quota.record(caller.userId, bytes))
        return internalError(kType);
    QJsonObject message{{QStringLiteral("type"), QStringLiteral("events")},
                        {QStringLiteral("cid"), cid},
                        {QStringLiteral("events"), events}};
    const qint64 dropped = body.value(QLatin1String("dropped")).toInteger();
    if (dropped > 0)
        message.insert(QStringLiteral("dropped"), dropped);
    if (!events.isEmpty() || dropped > 0)
        emit m_live.eventsArrived(cid, message, int(events.size()));
    QJsonObject members = liveMembers(cid);
    if (const auto remaining = uploadRemaining(caller.userId, ok))
        members.insert(QStringLiteral("up_remaining"), *remaining);
    return ApiReply::ok(kType, members);
}

ApiReply ConsoleService::charge(qint64 userId, qint64 bytes)
{
    bool ok = true;
    if (!m_quota.allows(userId, bytes, ok))
        return ok ? quotaExceeded() : internalError(kType);
    if (!m_quota.record(userId, bytes))
        return internalError(kType);
    QJsonObject members;
    if (const auto remaining = uploadRemaining(userId, ok))
        members.insert(QStringLiteral("up_remaining"), *remaining);
    return ApiReply::ok(kType, members);
}

ApiReply ConsoleService::touch(const QStringList &cids)
{
    if (!m_storage.touchConsoleComputers(cids, m_clock()))
        return internalError(kType);
    return ApiReply::ok(kType);
}

ApiReply ConsoleService::snapshot(const Caller &caller, const QJsonObject &body)
{
    const QString cid = body.value(QLatin1String("cid")).toString();
    ApiReply refusal;
    if (!ownComputer(caller, cid, refusal))
        return refusal;
    const ApiReply stored = storePorts(cid, body.value(QLatin1String("ports")).toArray(), true);
    if (!stored.isOk())
        return stored;
    return ApiReply::ok(kType, liveMembers(cid));
}

ApiReply ConsoleService::storePorts(const QString &cid, const QJsonArray &ports, bool notify)
{
    if (ports.size() > m_policy.maxPorts)
        return ApiReply::failure(kType, Http::BadRequest, QStringLiteral("invalid_ports"),
                                 QStringLiteral("A snapshot holds at most %1 ports.").arg(m_policy.maxPorts));
    for (const QJsonValue &port : ports) {
        const QJsonValue key = port.toObject().value(QLatin1String("port_key"));
        if (!key.isString() || key.toString().isEmpty() || key.toString().size() > 64)
            return ApiReply::failure(kType, Http::BadRequest, QStringLiteral("invalid_ports"),
                                     QStringLiteral("Every port names itself in \"port_key\"."));
    }
    const QByteArray text = compact(ports);
    if (text.size() > m_policy.maxPorts * 1024)
        return ApiReply::failure(kType, Http::PayloadTooLarge, QStringLiteral("payload_too_large"),
                                 QStringLiteral("The snapshot is too large."));
    const qint64 now = m_clock();
    if (!m_storage.setConsolePorts(cid, QString::fromUtf8(text), now))
        return internalError(kType);
    if (notify)
        emit m_live.portsStored(cid, {{QStringLiteral("type"), QStringLiteral("snapshot")},
                                      {QStringLiteral("cid"), cid},
                                      {QStringLiteral("ports"), ports},
                                      {QStringLiteral("updated_at"), now}});
    return ApiReply::ok(kType, {{QStringLiteral("updated_at"), now}});
}

// --- the browser's side ------------------------------------------------------------

ApiReply ConsoleService::computers(const Caller &caller)
{
    QList<ConsoleComputerRow> rows;
    if (!m_storage.consoleComputers(caller.userId, rows))
        return internalError(kType);
    const qint64 now = m_clock();
    QJsonArray list;
    for (const ConsoleComputerRow &row : std::as_const(rows)) {
        const bool online = m_live.holdsSocket(row.cid) || now - row.lastSeenAt < m_policy.onlineWindowMs;
        list.append(QJsonObject{{QStringLiteral("cid"), row.cid},
                                {QStringLiteral("hostname"), row.hostname},
                                {QStringLiteral("version"), row.version},
                                {QStringLiteral("online"), online},
                                {QStringLiteral("last_seen_at"), row.lastSeenAt},
                                {QStringLiteral("watchers"), m_live.watchers(row.cid)},
                                {QStringLiteral("ports_at"), row.portsAt}});
    }
    return ApiReply::ok(kType, {{QStringLiteral("computers"), list}});
}

ApiReply ConsoleService::ports(const Caller &caller, const QString &cid)
{
    ApiReply refusal;
    if (!ownComputer(caller, cid, refusal))
        return refusal;
    ConsoleComputerRow row;
    if (m_storage.consoleComputer(cid, row) != Storage::Found::Yes)
        return internalError(kType);
    return ApiReply::ok(kType, {{QStringLiteral("cid"), cid},
                                {QStringLiteral("ports"), QJsonDocument::fromJson(row.ports.toUtf8()).array()},
                                {QStringLiteral("updated_at"), row.portsAt}});
}

ApiReply ConsoleService::mayWatch(const Caller &caller, const QString &cid)
{
    ApiReply refusal;
    if (!ownComputer(caller, cid, refusal))
        return refusal;
    ConsoleComputerRow row;
    if (m_storage.consoleComputer(cid, row) != Storage::Found::Yes)
        return internalError(kType);
    // A socket held by another instance shows as a recent sighting: its
    // holder marks it seen every 20 s.
    const bool online = m_live.holdsSocket(cid) || m_clock() - row.lastSeenAt < m_policy.onlineWindowMs;
    return ApiReply::ok(kType, {{QStringLiteral("cid"), cid},
                                {QStringLiteral("ports"), QJsonDocument::fromJson(row.ports.toUtf8()).array()},
                                {QStringLiteral("updated_at"), row.portsAt},
                                {QStringLiteral("online"), online},
                                {QStringLiteral("token_expires_at"), caller.tokenExpiresAt}});
}

ApiReply ConsoleService::issue(const Caller &caller, const QString &cid, const QJsonObject &body)
{
    ApiReply refusal;
    if (!ownComputer(caller, cid, refusal))
        return refusal;
    JsonFields fields(body, kType);
    const QString name = fields.string("command", 32);
    const QJsonObject payload = fields.object("payload", false);
    if (fields.failed())
        return fields.failure();
    if (!knownCommands().contains(name))
        return ApiReply::failure(kType, Http::BadRequest, QStringLiteral("unknown_command"),
                                 QStringLiteral("A browser may send %1.").arg(knownCommands().join(QStringLiteral(", "))));
    const QByteArray text = compact(payload);
    if (text.size() > m_policy.maxPayloadBytes)
        return ApiReply::failure(kType, Http::PayloadTooLarge, QStringLiteral("payload_too_large"),
                                 QStringLiteral("A command's payload is at most %1 KiB.").arg(m_policy.maxPayloadBytes / 1024));
    int open = 0;
    if (!m_storage.countOpenCommands(cid, open))
        return internalError(kType);
    if (open >= m_policy.maxOpenCommands)
        return ApiReply::failure(kType, Http::TooManyRequests, QStringLiteral("too_many_commands"),
                                 QStringLiteral("This computer has %1 commands waiting already.").arg(open));
    ConsoleCommandRow row;
    row.cid = cid;
    row.command = name;
    row.payload = QString::fromUtf8(text);
    row.createdAt = m_clock();
    if (!m_storage.insertConsoleCommand(row))
        return internalError(kType);
    emit m_live.commandQueued(cid);
    return ApiReply::ok(kType, {{QStringLiteral("command_id"), QString::number(row.id)},
                                {QStringLiteral("command"), commandJson(row)}});
}

ApiReply ConsoleService::command(const Caller &caller, const QString &commandId)
{
    const qint64 id = commandNumber(commandId);
    ConsoleCommandRow row;
    const Storage::Found found = id ? m_storage.consoleCommand(id, row) : Storage::Found::No;
    if (found == Storage::Found::Error)
        return internalError(kType);
    ApiReply refusal;
    if (found == Storage::Found::No || !ownComputer(caller, row.cid, refusal))
        return ApiReply::failure(kType, Http::NotFound, QStringLiteral("command_not_found"),
                                 QStringLiteral("This account has no such command."));
    return ApiReply::ok(kType, {{QStringLiteral("command"), commandJson(row)}});
}
