#pragma once

#include "apioutcome.h"

#include <QByteArray>
#include <QHash>
#include <QObject>
#include <QString>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

class PasswordHasher;
class Storage;

// An answer ready to send, made on a worker thread (serialising the JSON
// there too, so the event loop only copies bytes).
struct WorkReply
{
    int status = 200;
    QByteArray body;
    QString code;  // empty on success
    int retryAfterSeconds = 0;

    static WorkReply from(const ApiReply &reply);
};
Q_DECLARE_METATYPE(WorkReply)

// What one database thread holds: its own connection and the domain
// services over it.
class WorkerContext
{
public:
    virtual ~WorkerContext() = default;
    virtual Storage &storage() = 0;
    virtual ServiceSet &services() = 0;
};

struct PoolLimits
{
    int databaseThreads = 4;
    int hashThreads = 2;
    // Requests waiting for a database thread beyond this are answered
    // "busy" (503) at once; so are password checks waiting for a hashing
    // thread beyond maxQueuedHashes.
    int maxQueued = 1024;
    int maxQueuedHashes = 256;
};

// The one place in the service with threads. Blocking work runs here, off
// the event loop: database statements on `databaseThreads` threads, each
// with its own connection (its WorkerContext), password hashing on
// `hashThreads` threads of its own, so a burst of sign-ins (tens of
// milliseconds of one core each) never keeps a plain request waiting
// behind it. A request's job runs on a database thread; when it hands back
// password work, that goes to a hashing thread, and what follows comes
// back to a database thread ahead of new requests. Answers return to the
// pool's own thread (the event loop) by a queued signal.
class WorkerPool : public QObject
{
    Q_OBJECT
public:
    using Job = std::function<ApiOutcome(WorkerContext &)>;
    using Done = std::function<void(const WorkReply &)>;
    // Builds a database thread's context on that thread; nothing on failure.
    using ContextFactory = std::function<std::unique_ptr<WorkerContext>(QString *error)>;

    WorkerPool(PoolLimits limits, ContextFactory factory, const PasswordHasher &hasher, QObject *parent = nullptr);
    ~WorkerPool() override;

    // Starts the threads and waits until every database thread has its
    // connection; false with `error` when one could not open it.
    bool start(QString *error);

    // Queues `job`; `done` runs on this object's thread with the answer (a
    // failure of family `family` when the database is out of reach or the
    // queue is full). `done` may be empty.
    void submit(const QString &family, Job job, Done done);

    // Whether the last work found the database reachable.
    bool databaseReachable() const { return m_reachable.load(); }
    int queuedRequests() const;

signals:
    // Emitted on worker threads, delivered queued on the pool's thread.
    void replyReady(quint64 ticket, const WorkReply &reply);

private:
    struct Task
    {
        quint64 ticket = 0;
        QString family;
        Job job;
        bool isRequest = true;  // a new request, counted against maxQueued
    };
    struct HashTask
    {
        quint64 ticket = 0;
        QString family;
        PasswordStep step;
    };

    void runDatabaseThread(int index);
    void runHashThread();
    void onReplyReady(quint64 ticket, const WorkReply &reply);
    void deliver(quint64 ticket, const ApiReply &reply);
    void stop();

    PoolLimits m_limits;
    ContextFactory m_factory;
    const PasswordHasher &m_hasher;
    std::vector<std::thread> m_threads;

    mutable std::mutex m_mutex;
    std::condition_variable m_databaseWork;
    std::condition_variable m_hashWork;
    std::condition_variable m_started;
    std::deque<Task> m_queue;         // continuations go to the front
    std::deque<HashTask> m_hashQueue;
    int m_queuedRequests = 0;         // tasks in m_queue that are new requests
    int m_startedThreads = 0;
    QString m_startError;
    bool m_stopping = false;
    std::atomic<bool> m_reachable{true};

    // On the pool's thread only.
    quint64 m_nextTicket = 1;
    QHash<quint64, Done> m_waiting;
};
