#include "workerpool.h"

#include "passwordhasher.h"
#include "servicelog.h"
#include "storage.h"

#include <QJsonDocument>

#include <sys/resource.h>
#include <unistd.h>

namespace {
constexpr int kHashNiceness = 10;
}

WorkReply WorkReply::from(const ApiReply &reply)
{
    return WorkReply{reply.httpStatus, QJsonDocument(reply.body).toJson(QJsonDocument::Compact), reply.code(),
                     reply.retryAfterSeconds};
}

WorkerPool::WorkerPool(PoolLimits limits, ContextFactory factory, const PasswordHasher &hasher, QObject *parent)
    : QObject(parent), m_limits(limits), m_factory(std::move(factory)), m_hasher(hasher)
{
    qRegisterMetaType<WorkReply>();
    connect(this, &WorkerPool::replyReady, this, &WorkerPool::onReplyReady, Qt::QueuedConnection);
}

WorkerPool::~WorkerPool()
{
    stop();
}

bool WorkerPool::start(QString *error)
{
    for (int i = 0; i < m_limits.databaseThreads; ++i)
        m_threads.emplace_back([this, i] { runDatabaseThread(i); });
    std::unique_lock lock(m_mutex);
    m_started.wait(lock, [this] { return m_startedThreads == m_limits.databaseThreads; });
    if (!m_startError.isEmpty()) {
        *error = m_startError;
        lock.unlock();
        stop();
        return false;
    }
    lock.unlock();
    for (int i = 0; i < m_limits.hashThreads; ++i)
        m_threads.emplace_back([this] { runHashThread(); });
    return true;
}

void WorkerPool::stop()
{
    {
        std::lock_guard lock(m_mutex);
        m_stopping = true;
    }
    m_databaseWork.notify_all();
    m_hashWork.notify_all();
    for (std::thread &thread : m_threads)
        thread.join();
    m_threads.clear();
}

int WorkerPool::queuedRequests() const
{
    std::lock_guard lock(m_mutex);
    return m_queuedRequests;
}

void WorkerPool::submit(const QString &family, Job job, Done done)
{
    const quint64 ticket = m_nextTicket++;
    {
        std::lock_guard lock(m_mutex);
        if (m_queuedRequests >= m_limits.maxQueued) {
            if (done)
                done(WorkReply::from(busy(family)));
            return;
        }
        ++m_queuedRequests;
        m_queue.push_back(Task{ticket, family, std::move(job), true});
    }
    if (done)
        m_waiting.insert(ticket, std::move(done));
    m_databaseWork.notify_one();
}

void WorkerPool::onReplyReady(quint64 ticket, const WorkReply &reply)
{
    const Done done = m_waiting.take(ticket);
    if (done)
        done(reply);
}

void WorkerPool::deliver(quint64 ticket, const ApiReply &reply)
{
    emit replyReady(ticket, WorkReply::from(reply));
}

void WorkerPool::runDatabaseThread(int index)
{
    QString error;
    std::unique_ptr<WorkerContext> context = m_factory(&error);
    {
        std::lock_guard lock(m_mutex);
        if (!context && m_startError.isEmpty())
            m_startError = error.isEmpty() ? QStringLiteral("database thread %1 did not start").arg(index) : error;
        ++m_startedThreads;
    }
    m_started.notify_all();
    if (!context)
        return;

    for (;;) {
        Task task;
        {
            std::unique_lock lock(m_mutex);
            m_databaseWork.wait(lock, [this] { return m_stopping || !m_queue.empty(); });
            if (m_stopping)
                break;
            task = std::move(m_queue.front());
            m_queue.pop_front();
            if (task.isRequest)
                --m_queuedRequests;
        }
        Storage &storage = context->storage();
        if (!storage.beginWork()) {
            m_reachable = false;
            deliver(task.ticket, databaseUnavailable(task.family));
            continue;
        }
        ApiOutcome outcome = task.job(*context);
        if (storage.endWork()) {
            m_reachable = false;
            deliver(task.ticket, databaseUnavailable(task.family));
            continue;
        }
        m_reachable = true;
        if (auto *reply = std::get_if<ApiReply>(&outcome)) {
            deliver(task.ticket, *reply);
            continue;
        }
        HashTask hashTask{task.ticket, task.family, std::get<PasswordStep>(std::move(outcome))};
        {
            std::lock_guard lock(m_mutex);
            if (int(m_hashQueue.size()) < m_limits.maxQueuedHashes) {
                m_hashQueue.push_back(std::move(hashTask));
                hashTask.ticket = 0;
            }
        }
        if (hashTask.ticket == 0) {
            m_hashWork.notify_one();
        } else {
            deliver(hashTask.ticket, busy(hashTask.family));
        }
    }
}

void WorkerPool::runHashThread()
{
    // Hashing yields the cores to everything else: a burst of sign-ins
    // waits a little longer rather than holding up requests that need no
    // hash, or the event loop.
    ::setpriority(PRIO_PROCESS, pid_t(::gettid()), kHashNiceness);
    for (;;) {
        HashTask task;
        {
            std::unique_lock lock(m_mutex);
            m_hashWork.wait(lock, [this] { return m_stopping || !m_hashQueue.empty(); });
            if (m_stopping)
                break;
            task = std::move(m_hashQueue.front());
            m_hashQueue.pop_front();
        }
        const PasswordResult result = m_hasher.run(task.step.work);
        auto then = std::move(task.step.then);
        {
            std::lock_guard lock(m_mutex);
            // What follows the password work goes before new requests: the
            // request has waited long enough.
            m_queue.push_front(Task{task.ticket, task.family,
                                    [then = std::move(then), result](WorkerContext &context) {
                                        return then(context.services(), result);
                                    },
                                    false});
        }
        m_databaseWork.notify_one();
    }
}
