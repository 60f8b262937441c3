#pragma once

#include <QHash>
#include <QJsonArray>
#include <QJsonObject>
#include <QObject>
#include <QSet>
#include <QString>

#include <mutex>

// What the console sockets on the event loop and the database threads
// share. The loop says which computers hold a socket here and how many
// watch each; requests on database threads read it (under a lock) to
// answer "watching" and the online state. Database threads tell the loop
// what they stored through its signals, which reach the loop queued.
class ConsoleLive : public QObject
{
    Q_OBJECT
public:
    using QObject::QObject;

    int watchers(const QString &cid) const;
    bool holdsSocket(const QString &cid) const;
    void setWatchers(const QString &cid, int count);
    void setHoldsSocket(const QString &cid, bool held);
    // Browser guests watching a share now, for the owner's listings.
    int shareGuests(qint64 shareId) const;
    void setShareGuests(qint64 shareId, int count);

signals:
    // A command was issued for `cid`.
    void commandQueued(const QString &cid);
    // Somebody needs the ports of `cid` as they are now (a relay target list).
    void snapshotWanted(const QString &cid);
    // A command's result came in (by HTTP): {"type":"result", ...} for watchers.
    void resultStored(const QString &cid, const QJsonObject &message);
    // A snapshot came in (by HTTP): {"type":"snapshot", ...} for watchers.
    void portsStored(const QString &cid, const QJsonObject &message);
    // Traffic came in (by HTTP): {"type":"events", ...} for watchers.
    void eventsArrived(const QString &cid, const QJsonObject &message, int eventCount);
    // A share ended ("expired", "revoked", "stale", "too_many_attempts"):
    // its browser guests are told and let go.
    void shareEnded(qint64 shareId, const QString &reason);

private:
    mutable std::mutex m_mutex;
    QHash<QString, int> m_watchers;
    QSet<QString> m_sockets;
    QHash<qint64, int> m_shareGuests;
};
