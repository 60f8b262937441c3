#include "consolehub.h"

#include "accountservice.h"
#include "consolebus.h"
#include "consolelive.h"
#include "servicelog.h"
#include "shareservice.h"
#include "workerpool.h"

#include <QJsonArray>
#include <functional>
#include <QJsonDocument>
#include <QPointer>
#include <QTimer>
#include <QWebSocket>

namespace {

QByteArray compact(const QJsonObject &object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

QJsonObject objectOf(const QByteArray &json)
{
    return QJsonDocument::fromJson(json).object();
}

QJsonObject failure(const QString &type, const QString &code, const QString &description)
{
    return {{QStringLiteral("type"), type},
            {QStringLiteral("status"), false},
            {QStringLiteral("code"), code},
            {QStringLiteral("description"), description}};
}

QString commandIdOf(const QJsonValue &value)
{
    if (value.isString())
        return value.toString().left(32);
    if (value.isDouble())
        return QString::number(qint64(value.toDouble()));
    return {};
}

// Work for a database thread that needs the caller behind a token first.
using CallerWork = std::function<ApiReply(ServiceSet &, const Caller &)>;

WorkerPool::Job authenticated(const QByteArray &authorization, const QString &type,
                              std::shared_ptr<qint64> userId, CallerWork work)
{
    return [authorization, type, userId, work](WorkerContext &context) -> ApiOutcome {
        auto outcome = context.services().accounts.authenticate(authorization, type);
        if (auto *refusal = std::get_if<ApiReply>(&outcome))
            return *refusal;
        const Caller caller = std::get<Caller>(outcome);
        *userId = caller.userId;  // read on the loop after the queued answer
        return work(context.services(), caller);
    };
}

} // namespace

ConsoleHub::ConsoleHub(WorkerPool &pool, ConsoleLive &live, ConsolePolicy policy, ConsoleBus *bus,
                       ServiceClock clock, QObject *parent)
    : QObject(parent), m_pool(pool), m_live(live), m_policy(policy), m_bus(bus), m_clock(std::move(clock)),
      m_touch(new QTimer(this)), m_expiry(new QTimer(this)), m_shareSweep(new QTimer(this))
{
    m_uptime.start();
    connect(&m_live, &ConsoleLive::shareEnded, this, &ConsoleHub::endShare);
    m_shareSweep->setInterval(kShareSweepMs);
    connect(m_shareSweep, &QTimer::timeout, this, &ConsoleHub::sweepShares);
    connect(&m_live, &ConsoleLive::commandQueued, this, &ConsoleHub::onCommandQueued);
    connect(&m_live, &ConsoleLive::snapshotWanted, this, [this](const QString &cid) {
        // Asked here (a relay target list) for a computer held elsewhere:
        // its instance asks it.
        if (!m_computerOf.contains(cid) && m_bus)
            m_bus->publish({{QStringLiteral("kind"), QStringLiteral("snapshot")}, {QStringLiteral("cid"), cid}});
        tellWatching(cid, true);
    });
    connect(&m_live, &ConsoleLive::resultStored, this,
            [this](const QString &cid, const QJsonObject &message) { broadcast(cid, message, 0); });
    connect(&m_live, &ConsoleLive::portsStored, this,
            [this](const QString &cid, const QJsonObject &message) { broadcast(cid, message, 0); });
    connect(&m_live, &ConsoleLive::eventsArrived, this, &ConsoleHub::broadcast);
    if (m_bus)
        connect(m_bus, &ConsoleBus::noticeReceived, this, &ConsoleHub::onNotice);
    m_touch->setInterval(kTouchIntervalMs);
    connect(m_touch, &QTimer::timeout, this, &ConsoleHub::touchHeld);
    m_touch->start();
    m_expiry->setInterval(kExpiryCheckMs);
    connect(m_expiry, &QTimer::timeout, this, &ConsoleHub::expireTokens);
    m_expiry->start();
}

ConsoleHub::~ConsoleHub()
{
    for (Computer *computer : std::as_const(m_computers)) {
        computer->socket->disconnect(this);
        delete computer;
    }
    for (Watcher *watcher : std::as_const(m_watchers)) {
        watcher->socket->disconnect(this);
        delete watcher;
    }
}

// --- computers -------------------------------------------------------------------

void ConsoleHub::addComputer(std::unique_ptr<QWebSocket> owned)
{
    QWebSocket *socket = owned.release();
    socket->setParent(this);
    auto *computer = new Computer;
    computer->socket = socket;
    m_computers.insert(socket, computer);
    connect(socket, &QWebSocket::textMessageReceived, this, [this, socket](const QString &text) {
        if (Computer *c = m_computers.value(socket))
            onComputerMessage(c, text);
    });
    connect(socket, &QWebSocket::disconnected, this, [this, socket] {
        if (Computer *c = m_computers.value(socket))
            onComputerGone(c);
    });
    QTimer::singleShot(kGreetingMs, socket, [this, socket] {
        const Computer *c = m_computers.value(socket);
        if (c && !c->greeted)
            socket->close(QWebSocketProtocol::CloseCodePolicyViolated, QStringLiteral("no hello"));
    });
}

void ConsoleHub::onComputerGone(Computer *computer)
{
    QWebSocket *socket = computer->socket;
    m_computers.remove(socket);
    if (computer->greeted && m_computerOf.value(computer->cid) == computer) {
        m_computerOf.remove(computer->cid);
        m_live.setHoldsSocket(computer->cid, false);
        broadcast(computer->cid, {{QStringLiteral("type"), QStringLiteral("presence")},
                               {QStringLiteral("cid"), computer->cid},
                               {QStringLiteral("online"), false}},
               0);
        // What it had not counted yet is counted still.
        if (computer->unchargedBytes > 0 && !computer->charging) {
            const qint64 userId = computer->userId;
            const qint64 bytes = computer->unchargedBytes;
            m_pool.submit(QStringLiteral("console"),
                          [userId, bytes](WorkerContext &context) -> ApiOutcome {
                              return context.services().console.charge(userId, bytes);
                          },
                          {});
        }
    }
    delete computer;
    socket->deleteLater();
}

void ConsoleHub::sendToComputer(Computer *computer, const QJsonObject &message)
{
    computer->socket->sendTextMessage(QString::fromUtf8(compact(message)));
}

void ConsoleHub::onComputerMessage(Computer *computer, const QString &text)
{
    const QJsonObject message = QJsonDocument::fromJson(text.toUtf8()).object();
    const QString type = message.value(QLatin1String("type")).toString();
    if (!computer->greeted) {
        if (type != QLatin1String("hello")) {
            computer->socket->close(QWebSocketProtocol::CloseCodePolicyViolated, QStringLiteral("hello first"));
            return;
        }
        if (!computer->greeting)
            greet(computer, message);
        return;
    }
    // A computer speaks for its own cid only.
    const QJsonValue cid = message.value(QLatin1String("cid"));
    if (!cid.isUndefined() && cid.toString() != computer->cid)
        return;
    if (type == QLatin1String("events")) {
        const QJsonArray events = message.value(QLatin1String("events")).toArray();
        qint64 bytes = 0;
        if (auto invalid = ConsoleService::checkEvents(events, m_policy, bytes)) {
            sendToComputer(computer, invalid->body);
            return;
        }
        if (computer->quotaStopped)
            return;
        if (computer->upRemaining && bytes > *computer->upRemaining) {
            computer->quotaStopped = true;
            sendToComputer(computer, failure(QStringLiteral("console"), QStringLiteral("quota_exceeded"),
                                             QStringLiteral("This month's cloud traffic allowance is used up.")));
            return;
        }
        if (computer->upRemaining)
            *computer->upRemaining -= bytes;
        QJsonObject out{{QStringLiteral("type"), QStringLiteral("events")},
                        {QStringLiteral("cid"), computer->cid},
                        {QStringLiteral("events"), events}};
        const qint64 dropped = message.value(QLatin1String("dropped")).toInteger();
        if (dropped > 0)
            out.insert(QStringLiteral("dropped"), dropped);
        broadcast(computer->cid, out, int(events.size()));
        computer->unchargedBytes += bytes;
        charge(computer);
    } else if (type == QLatin1String("snapshot")) {
        const QJsonArray ports = message.value(QLatin1String("ports")).toArray();
        const QString cidText = computer->cid;
        QPointer<QWebSocket> socket(computer->socket);
        m_pool.submit(QStringLiteral("console"),
                      [cidText, ports](WorkerContext &context) -> ApiOutcome {
                          return context.services().console.storePorts(cidText, ports, false);
                      },
                      [this, socket, cidText, ports](const WorkReply &reply) {
                          const QJsonObject answer = objectOf(reply.body);
                          if (!answer.value(QLatin1String("status")).toBool()) {
                              if (Computer *c = socket ? m_computers.value(socket) : nullptr)
                                  sendToComputer(c, answer);
                              return;
                          }
                          broadcast(cidText, {{QStringLiteral("type"), QStringLiteral("snapshot")},
                                           {QStringLiteral("cid"), cidText},
                                           {QStringLiteral("ports"), ports},
                                           {QStringLiteral("updated_at"), answer.value(QLatin1String("updated_at"))}},
                                 0);
                      });
    } else if (type == QLatin1String("result")) {
        storeResult(computer, message);
    }
}

void ConsoleHub::greet(Computer *computer, const QJsonObject &hello)
{
    computer->greeting = true;
    QPointer<QWebSocket> socket(computer->socket);
    const QByteArray authorization = computer->socket->request().rawHeader("Authorization");
    auto userId = std::make_shared<qint64>(0);
    m_pool.submit(QStringLiteral("hello"),
                  authenticated(authorization, QStringLiteral("hello"), userId,
                                [hello](ServiceSet &services, const Caller &caller) {
                                    return services.console.hello(caller, hello);
                                }),
                  [this, socket, userId, hello](const WorkReply &reply) {
                      Computer *c = socket ? m_computers.value(socket) : nullptr;
                      if (!c)
                          return;
                      c->greeting = false;
                      QJsonObject answer = objectOf(reply.body);
                      answer.insert(QStringLiteral("type"), QStringLiteral("hello"));
                      if (!answer.value(QLatin1String("status")).toBool()) {
                          sendToComputer(c, answer);
                          c->socket->close(QWebSocketProtocol::CloseCodePolicyViolated, reply.code);
                          return;
                      }
                      c->greeted = true;
                      c->cid = hello.value(QLatin1String("cid")).toString();
                      c->userId = *userId;
                      if (const QJsonValue remaining = answer.value(QLatin1String("up_remaining")); remaining.isDouble())
                          c->upRemaining = remaining.toInteger();
                      // The same computer again (its last socket not yet
                      // seen gone): the newer socket is the one it uses.
                      if (Computer *old = m_computerOf.value(c->cid); old && old != c) {
                          m_computerOf.remove(c->cid);
                          old->greeted = false;
                          old->socket->close(QWebSocketProtocol::CloseCodeNormal, QStringLiteral("replaced"));
                      }
                      m_computerOf.insert(c->cid, c);
                      m_live.setHoldsSocket(c->cid, true);
                      // Watchers here and on other instances.
                      answer.insert(QStringLiteral("watching"), totalWatchers(c->cid) > 0);
                      answer.insert(QStringLiteral("authoritative"), true);
                      sendToComputer(c, answer);
                      broadcast(c->cid, {{QStringLiteral("type"), QStringLiteral("presence")},
                                      {QStringLiteral("cid"), c->cid},
                                      {QStringLiteral("online"), true}},
                             0);
                      deliver(c);
                  });
}

void ConsoleHub::deliver(Computer *computer)
{
    if (computer->delivering) {
        computer->deliverAgain = true;
        return;
    }
    computer->delivering = true;
    computer->deliverAgain = false;
    const bool all = std::exchange(computer->deliverAll, false);
    QPointer<QWebSocket> socket(computer->socket);
    const QString cid = computer->cid;
    m_pool.submit(QStringLiteral("console"),
                  [cid, all](WorkerContext &context) -> ApiOutcome { return context.services().console.pending(cid, all); },
                  [this, socket, all](const WorkReply &reply) {
                      Computer *c = socket ? m_computers.value(socket) : nullptr;
                      if (!c)
                          return;  // the commands wait for its next socket or poll
                      c->delivering = false;
                      if (reply.status >= 500 && all)
                          c->deliverAll = true;  // the next push tries again
                      const QJsonArray commands = objectOf(reply.body).value(QLatin1String("commands")).toArray();
                      if (c->greeted && !commands.isEmpty())
                          sendToComputer(c, {{QStringLiteral("type"), QStringLiteral("console")},
                                             {QStringLiteral("status"), true},
                                             {QStringLiteral("commands"), commands}});
                      if (c->deliverAgain && c->greeted)
                          deliver(c);
                  });
}

void ConsoleHub::charge(Computer *computer)
{
    if (computer->charging || computer->unchargedBytes <= 0)
        return;
    computer->charging = true;
    const qint64 bytes = std::exchange(computer->unchargedBytes, 0);
    const qint64 userId = computer->userId;
    QPointer<QWebSocket> socket(computer->socket);
    m_pool.submit(QStringLiteral("console"),
                  [userId, bytes](WorkerContext &context) -> ApiOutcome {
                      return context.services().console.charge(userId, bytes);
                  },
                  [this, socket, bytes](const WorkReply &reply) {
                      Computer *c = socket ? m_computers.value(socket) : nullptr;
                      if (!c)
                          return;
                      c->charging = false;
                      if (reply.status >= 500) {
                          // Not counted: counted with the next batch.
                          c->unchargedBytes += bytes;
                          return;
                      }
                      const QJsonObject answer = objectOf(reply.body);
                      if (reply.code == QLatin1String("quota_exceeded")) {
                          c->quotaStopped = true;
                          sendToComputer(c, answer);
                          return;
                      }
                      if (const QJsonValue remaining = answer.value(QLatin1String("up_remaining")); remaining.isDouble()) {
                          c->upRemaining = remaining.toInteger() - c->unchargedBytes;
                          sendToComputer(c, {{QStringLiteral("type"), QStringLiteral("console")},
                                             {QStringLiteral("status"), true},
                                             {QStringLiteral("up_remaining"), remaining}});
                      }
                      charge(c);
                  });
}

void ConsoleHub::storeResult(Computer *computer, const QJsonObject &message)
{
    const QString commandId = commandIdOf(message.value(QLatin1String("command_id")));
    if (commandId.isEmpty())
        return;
    QJsonObject result = message.value(QLatin1String("result")).toObject();
    const QString cid = computer->cid;
    QPointer<QWebSocket> socket(computer->socket);
    m_pool.submit(QStringLiteral("console"),
                  [cid, commandId, result](WorkerContext &context) -> ApiOutcome {
                      return context.services().console.storeResult(cid, commandId, result, false);
                  },
                  [this, socket, cid, commandId, result](const WorkReply &reply) {
                      QJsonObject answer = objectOf(reply.body);
                      const bool fresh = answer.take(QStringLiteral("fresh")).toBool();
                      const QString command = answer.take(QStringLiteral("command")).toString();
                      if (Computer *c = socket ? m_computers.value(socket) : nullptr) {
                          // A failure the database caused is not the result's:
                          // the computer keeps it and sends it again.
                          if (reply.status < 500)
                              sendToComputer(c, answer);
                      }
                      if (fresh)
                          broadcast(cid, {{QStringLiteral("type"), QStringLiteral("result")},
                                       {QStringLiteral("cid"), cid},
                                       {QStringLiteral("command_id"), commandId},
                                       {QStringLiteral("command"), command},
                                       {QStringLiteral("result"), result}},
                                 0);
                  });
}

void ConsoleHub::tellWatching(const QString &cid, bool needSnapshot)
{
    Computer *computer = m_computerOf.value(cid);
    if (!computer)
        return;  // a computer on HTTP hears it in its next poll's answer
    QJsonObject message{{QStringLiteral("type"), QStringLiteral("console")},
                        {QStringLiteral("status"), true},
                        {QStringLiteral("watching"), totalWatchers(cid) > 0},
                        {QStringLiteral("authoritative"), true}};
    if (needSnapshot)
        message.insert(QStringLiteral("need_snapshot"), true);
    sendToComputer(computer, message);
}

void ConsoleHub::onCommandQueued(const QString &cid)
{
    if (Computer *computer = m_computerOf.value(cid))
        deliver(computer);
    else if (m_bus)
        m_bus->publish({{QStringLiteral("kind"), QStringLiteral("command")}, {QStringLiteral("cid"), cid}});
}

void ConsoleHub::onNotice(const QJsonObject &notice)
{
    const QString kind = notice.value(QLatin1String("kind")).toString();
    const QString cid = notice.value(QLatin1String("cid")).toString();
    if (kind == QLatin1String("command")) {
        if (Computer *computer = m_computerOf.value(cid))
            deliver(computer);
    } else if (kind == QLatin1String("snapshot")) {
        tellWatching(cid, true);
    } else if (kind == QLatin1String("fan")) {
        fanOut(cid, notice.value(QLatin1String("message")).toObject(),
               notice.value(QLatin1String("events")).toInt());
    } else if (kind == QLatin1String("watchers")) {
        const QString origin = notice.value(QLatin1String("origin")).toString();
        const int count = notice.value(QLatin1String("count")).toInt();
        const int before = totalWatchers(cid);
        auto remote = m_remoteWatchers.find(cid);
        if (count > 0) {
            if (remote == m_remoteWatchers.end()) {
                if (m_remoteWatchers.size() >= kMaxRemoteWatched)
                    return;
                remote = m_remoteWatchers.insert(cid, {});
            }
            remote->insert(origin, {count, m_uptime.elapsed()});
        } else if (remote != m_remoteWatchers.end()) {
            remote->remove(origin);
            if (remote->isEmpty())
                m_remoteWatchers.erase(remote);
        }
        const int after = totalWatchers(cid);
        if (after != before)
            countChanged(cid);
        if (notice.value(QLatin1String("need_snapshot")).toBool())
            tellWatching(cid, true);
        else if ((after > 0) != (before > 0))
            tellWatching(cid, false);
    }
}

int ConsoleHub::totalWatchers(const QString &cid) const
{
    int total = int(m_watchersOf.value(cid).size());
    const auto remote = m_remoteWatchers.constFind(cid);
    if (remote != m_remoteWatchers.constEnd()) {
        for (const RemoteCount &count : *remote)
            total += count.count;
    }
    return total;
}

void ConsoleHub::touchHeld()
{
    if (m_bus) {
        // Our counts again, so an instance that started since hears them;
        // counts of an instance that stopped repeating its own are dropped.
        for (auto it = m_watchersOf.cbegin(); it != m_watchersOf.cend(); ++it)
            m_bus->publish({{QStringLiteral("kind"), QStringLiteral("watchers")},
                            {QStringLiteral("cid"), it.key()},
                            {QStringLiteral("count"), int(it->size())}});
        const qint64 now = m_uptime.elapsed();
        QStringList changed;
        for (auto cid = m_remoteWatchers.begin(); cid != m_remoteWatchers.end();) {
            bool forgot = false;
            for (auto entry = cid->begin(); entry != cid->end();) {
                const bool stale = now - entry->heardAtMs > kRemoteCountKeepMs;
                forgot = forgot || stale;
                entry = stale ? cid->erase(entry) : std::next(entry);
            }
            if (forgot)
                changed.append(cid.key());
            cid = cid->isEmpty() ? m_remoteWatchers.erase(cid) : std::next(cid);
        }
        for (const QString &cid : std::as_const(changed)) {
            countChanged(cid);
            if (totalWatchers(cid) == 0)
                tellWatching(cid, false);
        }
    }
    if (m_computerOf.isEmpty())
        return;
    const QStringList cids = m_computerOf.keys();
    m_pool.submit(QStringLiteral("console"),
                  [cids](WorkerContext &context) -> ApiOutcome { return context.services().console.touch(cids); },
                  {});
}

// --- watchers ----------------------------------------------------------------------

void ConsoleHub::addWatcher(std::unique_ptr<QWebSocket> owned)
{
    QWebSocket *socket = owned.release();
    socket->setParent(this);
    auto *watcher = new Watcher;
    watcher->socket = socket;
    m_watchers.insert(socket, watcher);
    connect(socket, &QWebSocket::textMessageReceived, this, [this, socket](const QString &text) {
        if (Watcher *w = m_watchers.value(socket))
            onWatcherMessage(w, text);
    });
    connect(socket, &QWebSocket::bytesWritten, this, [this, socket] {
        if (Watcher *w = m_watchers.value(socket))
            flush(w);
    });
    connect(socket, &QWebSocket::disconnected, this, [this, socket] {
        if (Watcher *w = m_watchers.value(socket))
            onWatcherGone(w);
    });
    QTimer::singleShot(kGreetingMs, socket, [this, socket] {
        const Watcher *w = m_watchers.value(socket);
        if (w && !w->watching)
            socket->close(QWebSocketProtocol::CloseCodePolicyViolated, QStringLiteral("no watch"));
    });
}

void ConsoleHub::onWatcherMessage(Watcher *watcher, const QString &text)
{
    if (watcher->watching && watcher->guest.isGuest()) {
        onGuestMessage(watcher, text);
        return;
    }
    if (watcher->watching || watcher->admitting)
        return;  // a watcher only listens once admitted
    const QJsonObject message = QJsonDocument::fromJson(text.toUtf8()).object();
    if (message.value(QLatin1String("type")).toString() == QLatin1String("guest_watch")) {
        admitGuest(watcher, message.value(QLatin1String("guest_token")).toString().left(512));
        return;
    }
    if (message.value(QLatin1String("type")).toString() != QLatin1String("watch")) {
        refuseWatcher(watcher, QStringLiteral("bad_request"),
                      QStringLiteral("The first message is {\"type\":\"watch\",\"access_token\":...,\"cid\":...}."));
        return;
    }
    admit(watcher, message.value(QLatin1String("access_token")).toString().left(512),
          message.value(QLatin1String("cid")).toString().left(64));
}

void ConsoleHub::refuseWatcher(Watcher *watcher, const QString &code, const QString &description)
{
    watcher->socket->sendTextMessage(QString::fromUtf8(compact(failure(QStringLiteral("watch"), code, description))));
    watcher->socket->close(QWebSocketProtocol::CloseCodePolicyViolated, code);
}

void ConsoleHub::admit(Watcher *watcher, const QString &token, const QString &cid)
{
    watcher->admitting = true;
    QPointer<QWebSocket> socket(watcher->socket);
    auto userId = std::make_shared<qint64>(0);
    m_pool.submit(QStringLiteral("watch"),
                  authenticated("Bearer " + token.toUtf8(), QStringLiteral("watch"), userId,
                                [cid](ServiceSet &services, const Caller &caller) {
                                    return services.console.mayWatch(caller, cid);
                                }),
                  [this, socket, cid](const WorkReply &reply) {
                      Watcher *w = socket ? m_watchers.value(socket) : nullptr;
                      if (!w)
                          return;
                      w->admitting = false;
                      const QJsonObject answer = objectOf(reply.body);
                      if (!answer.value(QLatin1String("status")).toBool()) {
                          refuseWatcher(w, answer.value(QLatin1String("code")).toString(),
                                        answer.value(QLatin1String("description")).toString());
                          return;
                      }
                      startWatching(w, cid,
                                    compact({{QStringLiteral("type"), QStringLiteral("watch")},
                                             {QStringLiteral("status"), true},
                                             {QStringLiteral("cid"), cid},
                                             {QStringLiteral("online"), m_computerOf.contains(cid)
                                                                   || answer.value(QLatin1String("online")).toBool()}}),
                                    answer);
                  });
}

void ConsoleHub::startWatching(Watcher *watcher, const QString &cid, const QByteArray &welcome,
                               const QJsonObject &snapshot)
{
    QList<Watcher *> &list = m_watchersOf[cid];
    if (list.size() >= kMaxWatchersPerComputer) {
        if (list.isEmpty())
            m_watchersOf.remove(cid);
        refuseWatcher(watcher, QStringLiteral("too_many_watchers"),
                      QStringLiteral("%1 browsers watch this computer already.").arg(kMaxWatchersPerComputer));
        return;
    }
    watcher->watching = true;
    watcher->cid = cid;
    // Only an account's watcher has an access token that runs out.
    watcher->tokenExpiresAt = watcher->guest.isGuest() ? 0 : snapshot.value(QLatin1String("token_expires_at")).toInteger();
    if (watcher->tokenExpiresAt > 0)
        m_expiries.insert(watcher->tokenExpiresAt, watcher->socket);
    list.append(watcher);
    enqueue(watcher, welcome, 0);
    enqueue(watcher,
            compact({{QStringLiteral("type"), QStringLiteral("snapshot")},
                     {QStringLiteral("cid"), cid},
                     {QStringLiteral("ports"), snapshot.value(QLatin1String("ports"))},
                     {QStringLiteral("updated_at"), snapshot.value(QLatin1String("updated_at"))}}),
            0);
    watchersChanged(cid, true);
}

// --- browser guests of a share ---------------------------------------------------

void ConsoleHub::admitGuest(Watcher *watcher, const QString &token)
{
    watcher->admitting = true;
    QPointer<QWebSocket> socket(watcher->socket);
    m_pool.submit(
        QStringLiteral("watch"),
        [token](WorkerContext &context) -> ApiOutcome { return context.services().shares.admitGuest(token); },
        [this, socket](const WorkReply &reply) {
            Watcher *w = socket ? m_watchers.value(socket) : nullptr;
            if (!w)
                return;
            w->admitting = false;
            const QJsonObject answer = objectOf(reply.body);
            if (!answer.value(QLatin1String("status")).toBool()) {
                QJsonObject refusal = failure(QStringLiteral("watch"), answer.value(QLatin1String("code")).toString(),
                                              answer.value(QLatin1String("description")).toString());
                if (answer.contains(QLatin1String("end_reason")))
                    refusal.insert(QStringLiteral("end_reason"), answer.value(QLatin1String("end_reason")));
                w->socket->sendTextMessage(QString::fromUtf8(compact(refusal)));
                w->socket->close(QWebSocketProtocol::CloseCodePolicyViolated, refusal.value(QLatin1String("code")).toString());
                return;
            }
            const qint64 shareId = answer.value(QLatin1String("share_id")).toString().toLongLong();
            const QString cid = answer.value(QLatin1String("cid")).toString();
            w->guest = GuestScope(shareId, answer.value(QLatin1String("port_key")).toString());
            QJsonObject welcome{{QStringLiteral("type"), QStringLiteral("watch")},
                                {QStringLiteral("status"), true},
                                {QStringLiteral("online"), m_computerOf.contains(cid)}};
            for (const char *member : {"share_id", "port_key", "name", "label", "device_name", "web", "expires_at"})
                welcome.insert(QLatin1String(member), answer.value(QLatin1String(member)));
            startWatching(w, cid, compact(welcome), answer);
            if (!w->watching)
                return;
            m_guestsOf[shareId].append(w);
            guestsChanged(shareId);
            if (!m_shareSweep->isActive())
                m_shareSweep->start();
        });
}

void ConsoleHub::onGuestMessage(Watcher *watcher, const QString &text)
{
    if (watcher->ended)
        return;
    const auto answer = [this, watcher](QJsonObject out) {
        out.insert(QStringLiteral("type"), QStringLiteral("command"));
        enqueue(watcher, compact(out), 0);
    };
    // A command's payload is bounded far below this; more is not read.
    const QJsonObject message = text.size() <= 2 * m_policy.maxPayloadBytes
                                    ? QJsonDocument::fromJson(text.toUtf8()).object()
                                    : QJsonObject();
    QJsonValue ref = message.value(QLatin1String("ref"));
    if (!ref.isDouble())
        ref = ref.isString() ? QJsonValue(ref.toString().left(64)) : QJsonValue();
    if (message.value(QLatin1String("type")).toString() != QLatin1String("command")) {
        answer(failure(QStringLiteral("command"), QStringLiteral("bad_request"),
                       QStringLiteral("A guest sends {\"type\":\"command\",\"command\":...,\"payload\":{...}}.")));
        return;
    }
    if (watcher->commandsInFlight >= kMaxGuestCommandsInFlight) {
        QJsonObject refusal = failure(QStringLiteral("command"), QStringLiteral("too_many_commands"),
                                      QStringLiteral("Wait for the commands already sent."));
        refusal.insert(QStringLiteral("ref"), ref);
        answer(refusal);
        return;
    }
    ++watcher->commandsInFlight;
    const qint64 shareId = watcher->guest.shareId();
    QPointer<QWebSocket> socket(watcher->socket);
    m_pool.submit(
        QStringLiteral("relay"),
        [shareId, message](WorkerContext &context) -> ApiOutcome {
            return context.services().shares.guestCommand(shareId, message);
        },
        [this, socket, ref](const WorkReply &reply) {
            Watcher *w = socket ? m_watchers.value(socket) : nullptr;
            if (!w)
                return;
            --w->commandsInFlight;
            const QJsonObject result = objectOf(reply.body);
            QJsonObject out{{QStringLiteral("type"), QStringLiteral("command")},
                            {QStringLiteral("status"), result.value(QLatin1String("status")).toBool()},
                            {QStringLiteral("ref"), ref}};
            if (out.value(QLatin1String("status")).toBool()) {
                const QString id = result.value(QLatin1String("command_id")).toString();
                w->guest.addCommand(id);
                out.insert(QStringLiteral("command_id"), id);
            } else {
                out.insert(QStringLiteral("code"), result.value(QLatin1String("code")));
                out.insert(QStringLiteral("description"), result.value(QLatin1String("description")));
            }
            enqueue(w, compact(out), 0);
        });
}

void ConsoleHub::endShare(qint64 shareId, const QString &reason)
{
    const QList<Watcher *> guests = m_guestsOf.value(shareId);
    for (Watcher *guest : guests) {
        if (guest->ended)
            continue;
        guest->ended = true;
        // Past its queue: the end is what the guest must read, whatever waits.
        guest->socket->sendTextMessage(QString::fromUtf8(compact({{QStringLiteral("type"), QStringLiteral("share_ended")},
                                                                   {QStringLiteral("share_id"), QString::number(shareId)},
                                                                   {QStringLiteral("reason"), reason}})));
        guest->socket->close(QWebSocketProtocol::CloseCodeNormal, QStringLiteral("share ended"));
    }
}

void ConsoleHub::sweepShares()
{
    if (m_guestsOf.isEmpty()) {
        m_shareSweep->stop();
        return;
    }
    if (m_sweeping)
        return;
    m_sweeping = true;
    const QList<qint64> shares = m_guestsOf.keys();
    m_pool.submit(
        QStringLiteral("relay"),
        [shares](WorkerContext &context) -> ApiOutcome { return context.services().shares.endedAmong(shares); },
        [this](const WorkReply &reply) {
            m_sweeping = false;
            const QJsonArray ended = objectOf(reply.body).value(QLatin1String("ended")).toArray();
            for (const QJsonValue &entry : ended) {
                const QJsonObject share = entry.toObject();
                endShare(share.value(QLatin1String("share_id")).toString().toLongLong(),
                         share.value(QLatin1String("reason")).toString());
            }
        });
}

void ConsoleHub::guestsChanged(qint64 shareId)
{
    m_live.setShareGuests(shareId, int(m_guestsOf.value(shareId).size()));
}

void ConsoleHub::onWatcherGone(Watcher *watcher)
{
    QWebSocket *socket = watcher->socket;
    m_watchers.remove(socket);
    if (watcher->watching && watcher->guest.isGuest()) {
        const qint64 shareId = watcher->guest.shareId();
        auto guests = m_guestsOf.find(shareId);
        if (guests != m_guestsOf.end()) {
            guests->removeOne(watcher);
            if (guests->isEmpty())
                m_guestsOf.erase(guests);
        }
        guestsChanged(shareId);
    }
    if (watcher->watching) {
        m_expiries.remove(watcher->tokenExpiresAt, socket);
        auto list = m_watchersOf.find(watcher->cid);
        if (list != m_watchersOf.end()) {
            list->removeOne(watcher);
            if (list->isEmpty())
                m_watchersOf.erase(list);
        }
        watchersChanged(watcher->cid, false);
    }
    delete watcher;
    socket->deleteLater();
}

void ConsoleHub::watchersChanged(const QString &cid, bool arrived)
{
    countChanged(cid);
    const int here = int(m_watchersOf.value(cid).size());
    if (m_bus) {
        QJsonObject notice{{QStringLiteral("kind"), QStringLiteral("watchers")},
                           {QStringLiteral("cid"), cid},
                           {QStringLiteral("count"), here}};
        if (arrived)
            notice.insert(QStringLiteral("need_snapshot"), true);
        m_bus->publish(notice);
    }
    if (arrived)
        tellWatching(cid, true);
    else if (totalWatchers(cid) == 0)
        tellWatching(cid, false);
}

void ConsoleHub::countChanged(const QString &cid)
{
    const int count = totalWatchers(cid);
    m_live.setWatchers(cid, count);
    fanOut(cid, {{QStringLiteral("type"), QStringLiteral("watchers")},
                 {QStringLiteral("cid"), cid},
                 {QStringLiteral("count"), count}},
           0);
}

void ConsoleHub::expireTokens()
{
    const qint64 now = m_clock();
    while (!m_expiries.isEmpty() && m_expiries.firstKey() < now) {
        QWebSocket *socket = m_expiries.first();
        m_expiries.erase(m_expiries.begin());
        if (Watcher *w = m_watchers.value(socket)) {
            w->tokenExpiresAt = 0;
            // Told past its queue: the browser signs in again and watches anew.
            socket->sendTextMessage(QString::fromUtf8(
                compact(failure(QStringLiteral("watch"), QStringLiteral("token_expired"),
                                QStringLiteral("Your sign-in has expired. Please sign in again.")))));
            socket->close(QWebSocketProtocol::CloseCodePolicyViolated, QStringLiteral("token_expired"));
        }
    }
}

void ConsoleHub::broadcast(const QString &cid, const QJsonObject &message, int events)
{
    fanOut(cid, message, events);
    if (m_bus && m_remoteWatchers.contains(cid))
        m_bus->publish({{QStringLiteral("kind"), QStringLiteral("fan")},
                        {QStringLiteral("cid"), cid},
                        {QStringLiteral("events"), events},
                        {QStringLiteral("message"), message}});
}

void ConsoleHub::fanOut(const QString &cid, const QJsonObject &message, int events)
{
    const auto list = m_watchersOf.constFind(cid);
    if (list == m_watchersOf.constEnd())
        return;
    const QByteArray text = compact(message);
    for (Watcher *watcher : *list) {
        if (!watcher->guest.isGuest()) {
            enqueue(watcher, text, events);
        } else if (const auto seen = watcher->guest.view(message)) {
            enqueue(watcher, compact(*seen), int(seen->value(QLatin1String("events")).toArray().size()));
        }
    }
}

void ConsoleHub::enqueue(Watcher *watcher, const QByteArray &message, int events)
{
    const qint64 lostBefore = watcher->queue.lostEvents();
    watcher->queue.push(message, events);
    m_lostEvents += watcher->queue.lostEvents() - lostBefore;
    flush(watcher);
}

qint64 ConsoleHub::largestWatcherBacklog() const
{
    qint64 largest = 0;
    for (const Watcher *watcher : m_watchers)
        largest = qMax(largest, watcher->queue.bytes() + watcher->socket->bytesToWrite());
    return largest;
}

void ConsoleHub::flush(Watcher *watcher)
{
    // The socket's own buffer holds little; the rest waits in the bounded queue.
    while (!watcher->queue.isEmpty() && watcher->socket->bytesToWrite() < kWatcherSocketHighWater)
        watcher->socket->sendTextMessage(QString::fromUtf8(watcher->queue.take()));
}
