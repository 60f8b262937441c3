#pragma once

#include "apireply.h"
#include "servicetime.h"

#include <QJsonObject>
#include <QString>

class ConsoleLive;
class QuotaService;
class RelayLive;
class Storage;
struct Caller;

struct RelayPolicy
{
    qint64 ticketTtlMs = 30 * 1000;  // a ticket admits its end this long after the opening
    qint64 onlineWindowMs = 65 * 1000;  // as the console's: a computer seen this recently is online
    int maxOpenCommands = 64;  // the console's bound on commands without a result
};

// One opening of a relay session: the owner's computer and port, and for
// a guest share the share and the guest's name. Both the owner's own
// opening and an invite's join go through RelayService::open().
struct RelayOpening
{
    qint64 ownerId = 0;  // the account owning the computer (the bytes count toward its quota)
    QString cid;
    QString sessionId;  // the host's run as the client saw it; empty: not checked
    QString portKey;
    QString shareId;    // a guest share: the host checks it instead of the relay switch
    QString guestName;
    bool guest = false;  // the answer then carries "guest_token"
};

// The relay side of the API on a database thread: targets, sessions and
// their one-time tickets, ending, and what the relay sockets need from the
// database (spending a ticket, counting bytes, what ended elsewhere).
class RelayService
{
public:
    RelayService(Storage &storage, QuotaService &quota, ConsoleLive &console, RelayLive &live, RelayPolicy policy,
                 QString instanceId, ServiceClock clock);

    // GET /relay/targets: the account's computers but `ownCid`, their ports
    // with "relay_allowed".
    ApiReply targets(const Caller &caller, const QString &ownCid);
    // POST /relay/sessions {cid, session_id, port_key}.
    ApiReply openSession(const Caller &caller, const QJsonObject &body);
    // The one way a relay opens. Checks the computer (online, its run, the
    // port, the relay switch unless a share is named, busy), issues the
    // two tickets and sends the host's to the computer as "open_relay".
    // Answers {"ticket" (the client's), "relay_id", "port_key"} and, for a
    // guest, "guest_token"; or status false with "code" "device_offline",
    // "port_not_found", "permission_denied", "relay_busy" and a description.
    ApiReply open(const RelayOpening &opening);
    // DELETE /relay/sessions/<relay_id>: by the owner (`caller` set) or by
    // the guest's token.
    ApiReply end(const Caller *caller, const QString &guestToken, const QString &relayId);
    // Ends a session whoever asked (its share ended): both ends hear
    // "peer_gone", wherever they are held. False on a database failure.
    bool endSession(const QString &relayId);

    // For the relay socket: spends a ticket. Answers "relay_id", "end",
    // "port_key", "user_id", "share_id" (empty when not a share's); or a failure whose "code" is "ticket_used"
    // (with "relay_id" and "end") or another refusal, with the close
    // reason in "description".
    ApiReply admit(const QString &ticket);
    ApiReply paired(const QString &relayId);
    // The socket's end; `kind` "peer_gone" and the like.
    ApiReply finish(const QString &relayId, const QString &kind, const QString &reason);
    // Counts relayed bytes toward the owner's month: "quota_exhausted" when
    // they no longer fit (they are counted all the same).
    ApiReply charge(qint64 userId, const QString &relayId, qint64 bytes);
    // What happened since `since` to relays held here: "ended" [{relay_id,
    // kind, reason}], the host's refusals among them.
    ApiReply changes(qint64 since);

    // The instance a ticket names ("<instance>.<secret>").
    static QString instanceOfTicket(const QString &ticket);
    static bool isValidInstanceId(const QString &id);

private:
    Storage &m_storage;
    QuotaService &m_quota;
    ConsoleLive &m_console;
    RelayLive &m_live;
    RelayPolicy m_policy;
    QString m_instanceId;
    ServiceClock m_clock;
};
