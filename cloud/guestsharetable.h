#pragma once

#include "cloud/consolecommandtable.h"
#include "cloud/guestshare.h"
#include "common/result.h"

#include <QCoreApplication>
#include <QHash>
#include <QList>
#include <QString>

#include <functional>
#include <optional>

// The guest shares this computer holds for this run of the program, and
// the decisions about them, fed the time and the service's replies: what
// the owner may ask for, when a share is past its time, what a listing
// from the service ends or changes, and what a guest's command may do.
// Times are this computer's milliseconds since 1970: a share's times are
// moved onto this clock when it arrives, by how far the service's clock is
// from ours when it created the share, so a computer whose clock is off
// still ends its shares when the service does.
class GuestShareTable
{
    Q_DECLARE_TR_FUNCTIONS(GuestShareTable)

public:
    // At most this many shares at once; the owner is told to stop one first.
    static constexpr int kMaxShares = 16;
    // Of the service's listing of this computer, the first this many are kept.
    static constexpr int kMaxListing = 64;

    // What the owner asks for in the form.
    struct Request
    {
        QString portKey;
        int ttlSeconds = 3600;
        QString label;
        QString passcode;
        QString web = QStringLiteral("view");
        bool relay = false;
    };
    // The form's checks, in the order the owner meets them.
    static Result check(const Request &request);

    struct Ended
    {
        GuestShare share;
        QString reason;
    };
    struct ListingOutcome
    {
        QList<GuestShare> changed;
        QList<Ended> ended;
    };

    explicit GuestShareTable(QString sessionId = {});

    const QList<GuestShare> &shares() const { return m_shares; }
    bool isEmpty() const { return m_shares.isEmpty(); }
    bool isFull() const { return m_shares.size() >= kMaxShares; }
    const GuestShare *find(const QString &shareId) const;

    // A share the service created for this run, arrived at `nowMs`.
    const GuestShare &add(GuestShare share, qint64 nowMs);
    std::optional<GuestShare> take(const QString &shareId);
    QList<GuestShare> takeIf(const std::function<bool(const GuestShare &)> &ends);
    QList<GuestShare> takeExpired(qint64 nowMs);
    void clear();
    // The relay guest left (the owner disconnected it): false when there was none.
    bool clearGuest(const QString &shareId);

    // This computer's shares as the service listed them, in answer to a
    // request sent at `askedAtMs`: guests come and go, and a share the
    // service ended, or no longer lists although it was held before the
    // request went out, ends here too.
    ListingOutcome applyListing(const QList<GuestShare> &listed, qint64 askedAtMs);
    // The last listing (live and recently ended shares of this computer).
    const QList<GuestShare> &listing() const { return m_listing; }

    // What a guest's command naming `shareId` may do at `nowMs`.
    ConsoleCommandTable::ShareAccess access(const QString &shareId, qint64 nowMs) const;

    qint64 clockOffsetMs() const { return m_offsetMs; }

private:
    QString m_sessionId;
    QList<GuestShare> m_shares;
    QHash<QString, qint64> m_heldSince;
    QList<GuestShare> m_listing;
    qint64 m_offsetMs = 0;
};
