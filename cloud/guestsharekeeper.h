#pragma once

#include "cloud/guestsharetable.h"

#include <QHash>
#include <QJsonObject>
#include <QList>
#include <QObject>

#include <functional>
#include <optional>

class NetworkServices;
class PortSession;
class QTimer;

// The guest shares of this computer, on the Live Console's behalf: creates
// the one share asked for (after a short wait, so the console has told the
// service about this run first), learns from the service who is on each,
// and ends a share when its time is up, its port closes, Live Console or
// Live Relay is switched off, or the service says it ended. The decisions
// live in GuestShareTable; this object adds the timers, the requests and
// the ports it watches. The console service owns it and passes its signals on.
class GuestShareKeeper : public QObject
{
    Q_OBJECT
public:
    // What the keeper asks of the console that owns it.
    struct Hooks
    {
        std::function<QString()> token;  // empty while none is usable
        std::function<QString()> cid;
        std::function<QList<PortSession *>()> ports;
        std::function<bool()> consoleOn;
        std::function<bool()> relayAllowed;
    };
    using WallClock = std::function<qint64()>;  // milliseconds since 1970

    static constexpr int kCreateDelayMs = 1500;
    static constexpr int kSweepMs = 30000;
    // Shares stopped on other computers whose answer is awaited.
    static constexpr int kMaxStopping = 64;
    // Of the service's overview of the account, the first this many are shown.
    static constexpr int kMaxOverview = 256;

    GuestShareKeeper(NetworkServices *network, const QString &sessionId, Hooks hooks, QObject *parent = nullptr);

    void setClock(WallClock clock) { m_clock = std::move(clock); }
    void setTiming(int createDelayMs, int sweepMs);
    qint64 now() const { return m_clock(); }
    QString cid() const { return m_hooks.cid(); }

    // Only an open serial port can be shared.
    static bool isShareable(const PortSession &session);
    QList<PortSession *> shareablePorts() const;
    static QString openSerialPortFirstText();

    // Asks for a share; the refusals come back at once, the outcome later as
    // shareCreated or shareFailed.
    Result requestShare(const GuestShareTable::Request &request);
    bool isCreating() const { return m_pending.has_value() || m_createInFlight; }
    // Ends a share of any computer of the account at the service; one of
    // this computer's ends here at once.
    void stopShare(const QString &shareId);
    // Ends the relay guest's session; false when the share has none.
    bool disconnectGuest(const QString &shareId);
    // Asks the service who is on this computer's shares: false when no
    // question is out (no usable token, Live Console off).
    bool refreshShares();
    // Asks for every share of the account; false when no token is usable.
    bool fetchOverview();

    // The console's own changes.
    void endAll(const QString &reason);
    void consentChanged();
    void checkPorts();
    void accountChanged();

    const GuestShareTable &table() const { return m_table; }
    QList<GuestShare> shares() const { return m_table.shares(); }
    std::optional<GuestShare> share(const QString &shareId) const;
    ConsoleCommandTable::ShareAccess access(const QString &shareId) const;

public Q_SLOTS:
    void onRelayShareResponse(const QJsonObject &response);
    void onRelayShareOverviewResponse(const QJsonObject &response);
    void onShareSweepTick();
    void onNetworkError(const QString &domain, const QString &message, const QString &detail);

Q_SIGNALS:
    void shareCreated(const GuestShare &share);
    void shareChanged(const GuestShare &share);
    void shareEnded(const QString &shareId, const QString &reason);
    void shareFailed(const QString &message);
    void shareOverviewFetched(const QList<GuestShare> &shares, int revoked);
    void shareOverviewFailed(const QString &message);
    // A new listing of this computer's shares arrived.
    void listingChanged();

private:
    void createNow();
    void failCreate(const QString &message);
    void onCreated(const QJsonObject &object);
    void onListing(const QJsonArray &shares);
    void onShareRefused(const QString &shareId, const QString &code);
    void end(const QList<GuestShare> &ended, const QString &reason, bool revoke);
    void emitEnded(const QString &shareId, const QString &reason);
    void watch(PortSession *session);
    void unwatchUnused();
    void onPortDestroyed(QObject *session);
    PortSession *portFor(const QString &portKey) const;

    NetworkServices *m_network;
    const QString m_sessionId;
    Hooks m_hooks;
    WallClock m_clock;
    GuestShareTable m_table;
    QTimer *m_createTimer;
    QTimer *m_sweepTimer;

    std::optional<GuestShareTable::Request> m_pending;
    int m_createAttempts = 0;
    bool m_createInFlight = false;
    // Listing requests not answered yet, and when the first of them went.
    int m_listingsOutstanding = 0;
    qint64 m_listingAskedAt = 0;
    QList<QString> m_stopping;
    QString m_cid;
    // The sessions whose closing ends a share, with their port keys.
    QHash<QObject *, QString> m_watched;
};
