#pragma once

#include "consoleservice.h"
#include "servicetime.h"
#include "watcherqueue.h"

#include <QElapsedTimer>
#include <QHash>
#include <QMultiMap>
#include <QJsonObject>
#include <QList>
#include <QObject>

#include <memory>
#include <optional>

class ConsoleBus;
class ConsoleLive;
class QTimer;
class QWebSocket;
class WorkerPool;
struct WorkReply;

// The live side of Live Console, on the event loop: the computers'
// sockets ("/ws/console/v1") and the browsers watching them
// (kWatchPath). Traffic from a computer fans out to its watchers at once,
// each through its own bounded WatcherQueue; everything that must last
// (computers, commands, results, snapshots, the traffic counted against
// the quota) goes to the database through the worker pool. Watchers
// coming and going are told to the computer ("watching", authoritative)
// and to the other watchers.
//
// With several instances on one PostgreSQL (a ConsoleBus), each instance
// tells the others through the bus how many watch each computer here and
// hears theirs; a command issued here for a computer held elsewhere, and
// what a computer held here says while another instance has watchers for
// it, go over the bus too. Without a bus everything stays in process.
class ConsoleHub : public QObject
{
    Q_OBJECT
public:
    static constexpr const char *kComputerPath = "/ws/console/v1";
    static constexpr const char *kWatchPath = "/ws/console/watch/v1";
    // A socket that has not said who it is within this long is closed.
    static constexpr int kGreetingMs = 10000;
    // Computers holding a socket here are seen this often.
    static constexpr int kTouchIntervalMs = 20000;
    // Beyond this, a browser is refused with "too_many_watchers".
    static constexpr int kMaxWatchersPerComputer = 16;
    // A watcher's socket is given more only while less than this waits in it.
    static constexpr qint64 kWatcherSocketHighWater = 256 * 1024;
    // Another instance's watcher count is forgotten when not repeated for
    // this long (it repeats its counts with every touch).
    static constexpr qint64 kRemoteCountKeepMs = 3 * kTouchIntervalMs + 5000;
    // Computers watched from other instances that are kept track of; a
    // count for a further one is ignored until others are forgotten.
    static constexpr int kMaxRemoteWatched = 100000;
    // How often watchers' access tokens are checked for expiry.
    static constexpr int kExpiryCheckMs = 1000;

    // `bus` may be null (one instance); `clock` decides when a watcher's
    // access token has expired.
    ConsoleHub(WorkerPool &pool, ConsoleLive &live, ConsolePolicy policy, ConsoleBus *bus,
               ServiceClock clock = systemServiceClock(), QObject *parent = nullptr);
    ~ConsoleHub() override;

    void addComputer(std::unique_ptr<QWebSocket> socket);
    void addWatcher(std::unique_ptr<QWebSocket> socket);

    int computerSockets() const { return int(m_computers.size()); }
    int watcherSockets() const { return int(m_watchers.size()); }
    // Events lost in watchers' queues so far, all watchers together.
    qint64 lostEvents() const { return m_lostEvents; }

private:
    struct Computer
    {
        QWebSocket *socket = nullptr;
        QString cid;
        qint64 userId = 0;
        bool greeting = false;  // the hello is being checked
        bool greeted = false;
        bool delivering = false;  // a fetch of its commands is running
        bool deliverAgain = false;
        bool deliverAll = true;  // the first push after the hello: everything without a result
        bool charging = false;
        qint64 unchargedBytes = 0;
        std::optional<qint64> upRemaining;
        bool quotaStopped = false;
    };
    struct Watcher
    {
        QWebSocket *socket = nullptr;
        QString cid;
        bool admitting = false;
        bool watching = false;
        qint64 tokenExpiresAt = 0;  // on the service's clock
        WatcherQueue queue;
    };
    struct RemoteCount
    {
        int count = 0;
        qint64 heardAtMs = 0;  // on m_uptime
    };

    void onComputerMessage(Computer *computer, const QString &text);
    void onComputerGone(Computer *computer);
    void greet(Computer *computer, const QJsonObject &hello);
    void deliver(Computer *computer);
    void charge(Computer *computer);
    void storeResult(Computer *computer, const QJsonObject &message);
    void sendToComputer(Computer *computer, const QJsonObject &message);
    void tellWatching(const QString &cid, bool needSnapshot);

    void onWatcherMessage(Watcher *watcher, const QString &text);
    void onWatcherGone(Watcher *watcher);
    void admit(Watcher *watcher, const QString &token, const QString &cid);
    void refuseWatcher(Watcher *watcher, const QString &code, const QString &description);
    void fanOut(const QString &cid, const QJsonObject &message, int events);
    // fanOut here and on every instance that has watchers of `cid`.
    void broadcast(const QString &cid, const QJsonObject &message, int events);
    void enqueue(Watcher *watcher, const QByteArray &message, int events);
    void flush(Watcher *watcher);
    // Local watchers of `cid` came or went; `arrived` when one was admitted.
    void watchersChanged(const QString &cid, bool arrived);
    int totalWatchers(const QString &cid) const;
    void countChanged(const QString &cid);
    void expireTokens();

    void onCommandQueued(const QString &cid);
    void onNotice(const QJsonObject &notice);
    void touchHeld();

    WorkerPool &m_pool;
    ConsoleLive &m_live;
    ConsolePolicy m_policy;
    ConsoleBus *m_bus;
    ServiceClock m_clock;
    QTimer *m_touch;
    QTimer *m_expiry;
    QElapsedTimer m_uptime;
    // Owned here; removed when their socket goes.
    QHash<QWebSocket *, Computer *> m_computers;
    QHash<QString, Computer *> m_computerOf;  // greeted, by cid
    QHash<QWebSocket *, Watcher *> m_watchers;
    QHash<QString, QList<Watcher *>> m_watchersOf;  // watching, by cid
    // Watchers on other instances: by cid, then by instance.
    QHash<QString, QHash<QString, RemoteCount>> m_remoteWatchers;
    // Admitted watchers by when their access token expires.
    QMultiMap<qint64, QWebSocket *> m_expiries;
    qint64 m_lostEvents = 0;
};
