#pragma once

#include "apireply.h"
#include "servicetime.h"

#include <QJsonObject>
#include <QList>
#include <QString>

#include <functional>
#include <memory>

class ConsoleLive;
class ConsoleService;
class Storage;
struct Caller;
struct ShareRow;

// Every bound on what owners and guests can make the share side keep.
struct SharePolicy
{
    // Links are "<publicUrl>/join/<CODE>". Set once before the first
    // request is served (the listening port may be known only then).
    std::shared_ptr<QString> publicUrl = std::make_shared<QString>(QStringLiteral("http://127.0.0.1:8437"));
    int maxLiveSharesPerComputer = 16;  // beyond: "share_limit"
    int maxListed = 256;                // shares in one account listing
    int maxGuestsPerShare = 16;         // browser credentials kept; a newer join drops the oldest
    int wrongPerAddress = 5;            // wrong passcodes per share and address in the window: refused
    qint64 addressWindowMs = 10LL * 60 * 1000;
    int wrongPerShare = 20;             // in all: the share ends with "too_many_attempts"
    qint64 endedListedMs = 10LL * 60 * 1000;
    // A share whose computer has neither beaten nor held a socket this long is stale.
    qint64 staleAfterMs = 3LL * 60 * 1000;
    qint64 onlineWindowMs = 65 * 1000;  // as the console counts a computer without a socket online
    qint64 revokedWindowMs = 24LL * 3600 * 1000;
};

// Invite codes: 12 characters of an alphabet without look-alikes, shown
// in three groups of four.
namespace InviteCode {
QString generate();
// The code a guest typed or pasted (a link's last path part, lower case,
// spaces and dashes), or empty when it cannot be one.
QString normalize(const QString &input);
QString display(const QString &code);
} // namespace InviteCode

// Passcodes are short and live a day at most; a salted SHA-256 is kept so
// that the database does not hold them readable.
namespace Passcode {
QString hash(const QString &passcode);
bool matches(const QString &stored, const QString &given);
} // namespace Passcode

// A relay session opened for a joining guest: the client's ticket and
// relay id, or a refusal.
using RelayOpener = std::function<ApiReply(const ShareRow &share, const QString &guestName)>;
// Ends the relay session of a share that ended; false on a database failure.
using RelayEnder = std::function<bool(const QString &relayId)>;

// Guest shares apart from HTTP and sockets: owners create, list and end
// them; guests peek at a code, join with the passcode (browser or relay),
// and browser guests watch and command the one port. Ends found on the way
// (expiry, a gone run) are written as they are found and told to the
// event loop through ConsoleLive. Runs on a database thread.
class ShareService
{
public:
    ShareService(Storage &storage, ConsoleService &console, ConsoleLive &live, SharePolicy policy, ServiceClock clock);

    // The owner's side.
    ApiReply create(const Caller &caller, const QJsonObject &body);
    ApiReply listForComputer(const Caller &caller, const QString &cid);
    ApiReply listForAccount(const Caller &caller);
    ApiReply revoke(const Caller &caller, const QString &shareId);

    // The guest's side; `address` is the client's, for the attempt limits.
    ApiReply peek(const QString &code);
    ApiReply joinWeb(const QString &code, const QJsonObject &body, const QString &address);
    ApiReply joinRelay(const QJsonObject &body, const QString &address);
    void setRelayOpener(RelayOpener opener) { m_openRelay = std::move(opener); }
    void setRelayEnder(RelayEnder ender) { m_endRelay = std::move(ender); }

    // The guest's socket: what a credential admits (the share, its port's
    // snapshot entry), and a command from it, checked against the level.
    ApiReply admitGuest(const QString &token);
    ApiReply guestCommand(qint64 shareId, const QJsonObject &message);
    // Which of these shares have ended, and why ({"ended":[{share_id, reason}]}).
    ApiReply endedAmong(const QList<qint64> &shareIds);

    // The level a browser command needs, or empty when a guest may not send it at all.
    static QString levelNeeded(const QString &command);
    static bool levelAllows(const QString &web, const QString &needed);

private:
    // Ends `share` when it expired or its run is gone; false on a database failure.
    bool settle(ShareRow &share);
    bool end(ShareRow &share, const QString &reason);
    QJsonObject shareJson(const ShareRow &share) const;
    // Whether the relay guest the share last admitted is still on (its relay not ended).
    bool relayGuestPresent(const ShareRow &share) const;
    // The share behind `code` for a guest, checked for passcode and
    // limits; on refusal `refusal` is set.
    bool admitJoin(const QString &code, const QString &passcode, const QString &address, ShareRow &share,
                   ApiReply &refusal);

    Storage &m_storage;
    ConsoleService &m_console;
    ConsoleLive &m_live;
    SharePolicy m_policy;
    ServiceClock m_clock;
    RelayOpener m_openRelay;
    RelayEnder m_endRelay;
};
