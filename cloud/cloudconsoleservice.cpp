#include "cloud/cloudconsoleservice.h"

#include "cloud/accountsession.h"
#include "cloud/consoleidentity.h"
#include "cloud/consolesocket.h"
#include "cloud/networkservices.h"
#include "common/appidentity.h"
#include "common/logging.h"
#include "terminal/portsession.h"

#include <QDateTime>
#include <QJsonArray>
#include <QSysInfo>
#include <QTimer>

namespace {

QString commandIdOf(const QJsonValue &value)
{
    // Ids are strings; a service that numbers them is understood too.
    if (value.isString())
        return value.toString();
    if (value.isDouble())
        return QString::number(qint64(value.toDouble()));
    return {};
}

} // namespace

CloudConsoleService::CloudConsoleService(NetworkServices *network, AccountSession *account, PortList ports,
                                         QObject *parent)
    : QObject(parent)
    , m_network(network)
    , m_account(account)
    , m_ports(std::move(ports))
    , m_socket(new ConsoleSocket(this))
    , m_heartbeatTimer(new QTimer(this))
    , m_pollTimer(new QTimer(this))
    , m_uploadTimer(new QTimer(this))
    , m_resultRetryTimer(new QTimer(this))
    , m_watchdogTimer(new QTimer(this))
    , m_snapshotTimer(new QTimer(this))
    , m_snapshotSettleTimer(new QTimer(this))
    , m_sessionId(ConsoleIdentity::newIdentifier())
{
    setTiming(m_timing);
    m_snapshotSettleTimer->setSingleShot(true);
    connect(m_heartbeatTimer, &QTimer::timeout, this, &CloudConsoleService::onHeartbeatTick);
    connect(m_pollTimer, &QTimer::timeout, this, &CloudConsoleService::onPollTick);
    connect(m_uploadTimer, &QTimer::timeout, this, &CloudConsoleService::onUploadTick);
    connect(m_resultRetryTimer, &QTimer::timeout, this, &CloudConsoleService::onResultRetryTick);
    connect(m_watchdogTimer, &QTimer::timeout, this, &CloudConsoleService::onSocketWatchdogTick);
    connect(m_snapshotTimer, &QTimer::timeout, this, &CloudConsoleService::sendSnapshot);
    connect(m_snapshotSettleTimer, &QTimer::timeout, this, &CloudConsoleService::sendSnapshot);

    connect(m_network, &NetworkServices::consoleResponse, this, &CloudConsoleService::onConsoleResponse);
    connect(m_socket, &ConsoleSocket::consoleResponse, this, &CloudConsoleService::onConsoleResponse);
    connect(m_socket, &ConsoleSocket::ready, this, &CloudConsoleService::onSocketReady);
    connect(m_socket, &ConsoleSocket::disconnected, this, &CloudConsoleService::onSocketDisconnected);
    connect(m_account, &AccountSession::changed, this, &CloudConsoleService::onAccountChanged);

    ConsolePortCommands::addTo(m_commands, m_ports);
    m_commands.add(QStringLiteral("request_snapshot"), ConsoleCommandTable::Requirement::Nothing,
                   [this](const QJsonObject &) {
                       sendSnapshot();
                       return ConsoleOutcome::success();
                   });
    onAccountChanged();
}

CloudConsoleService::~CloudConsoleService()
{
    // No traffic reaches a service on its way out.
    untapAll();
}

void CloudConsoleService::setTiming(const Timing &timing)
{
    m_timing = timing;
    m_poll = ConsolePollSchedule(timing.pollMs);
    m_heartbeatTimer->setInterval(timing.heartbeatMs);
    m_pollTimer->setInterval(m_poll.intervalMs());
    m_uploadTimer->setInterval(timing.uploadMs);
    m_resultRetryTimer->setInterval(timing.resultRetryMs);
    m_watchdogTimer->setInterval(timing.watchdogMs);
    m_snapshotTimer->setInterval(timing.snapshotMs);
    m_snapshotSettleTimer->setInterval(timing.snapshotSettleMs);
}

int CloudConsoleService::pollIntervalMs() const
{
    return m_pollTimer->interval();
}

QString CloudConsoleService::quotaStopText()
{
    return tr("Live Console stopped: monthly traffic quota used up. Please top up to continue.");
}

// ------------------------------------------------------------- on and off

void CloudConsoleService::setEnabled(bool on)
{
    if (on == m_enabled)
        return;
    m_enabled = on;
    if (on) {
        m_poll.reset();
        m_pollTimer->setInterval(m_poll.intervalMs());
        m_heartbeatTimer->start();
        m_pollTimer->start();
        m_resultRetryTimer->start();
        m_watchdogTimer->start();
        onHeartbeatTick();
        onPollTick();
        return;
    }
    for (QTimer *timer : {m_heartbeatTimer, m_pollTimer, m_uploadTimer, m_resultRetryTimer, m_watchdogTimer,
                          m_snapshotTimer, m_snapshotSettleTimer})
        timer->stop();
    m_socket->stop();
    if (m_watch.end() == ConsoleWatchState::Change::Ended) {
        untapAll();
        emit watchingChanged(false);
    }
    m_socketAllowed = false;
    m_traffic.clear();
    m_ledger.clearPending();
}

void CloudConsoleService::stopForQuota()
{
    setEnabled(false);
    emit stoppedItself(quotaStopText());
}

void CloudConsoleService::onAccountChanged()
{
    const bool signedIn = m_account->isSignedIn();
    if (!signedIn || m_account->userId() != m_cidAccount) {
        // Another account, or none: nothing of the last one carries over.
        if (!m_cid.isEmpty()) {
            m_socket->stop();
            if (m_watch.end() == ConsoleWatchState::Change::Ended)
                endWatching(false);
            m_ledger.clear();
            m_traffic.clear();
            m_uploadRemaining.reset();
        }
        m_cid = signedIn ? ConsoleIdentity::cidFor(m_account->userId()) : QString();
        m_cidAccount = signedIn ? m_account->userId() : 0;
    }
    const QString token = signedIn ? m_account->accessToken() : QString();
    m_socket->setAccessToken(token);
    const bool hasToken = !token.isEmpty();
    if (hasToken && !std::exchange(m_hadToken, true) && m_enabled) {
        // A renewed sign-in: say so now rather than at the next tick.
        onHeartbeatTick();
        onPollTick();
    }
    m_hadToken = hasToken;
}

QString CloudConsoleService::usableToken() const
{
    if (!m_account->isSignedIn() || m_cid.isEmpty())
        return {};
    if (m_account->isAccessTokenValid())
        return m_account->accessToken();
    // An expiry nobody told us: try the token and let the service judge.
    if (!m_account->accessExpiry().isValid() && !m_account->accessToken().isEmpty())
        return m_account->accessToken();
    m_account->requestRefresh();
    return {};
}

QJsonObject CloudConsoleService::identity() const
{
    return {{QStringLiteral("cid"), m_cid}, {QStringLiteral("session_id"), m_sessionId}};
}

QJsonObject CloudConsoleService::hello() const
{
    QJsonObject object = identity();
    object.insert(QStringLiteral("type"), QStringLiteral("hello"));
    object.insert(QStringLiteral("version"), QString::fromLatin1(AppIdentity::kVersion));
    object.insert(QStringLiteral("hostname"), QSysInfo::machineHostName());
    return object;
}

void CloudConsoleService::startSocket()
{
    if (!m_enabled || !m_socketAllowed || m_socket->isRunning())
        return;
    const QString token = usableToken();
    if (!token.isEmpty())
        m_socket->start(NetworkServices::baseUrl(), token, hello());
}

// ------------------------------------------------------------------ ticks

void CloudConsoleService::onHeartbeatTick()
{
    if (!m_enabled || m_socket->isReady())
        return;
    const QString token = usableToken();
    if (token.isEmpty())
        return;
    startSocket();
    QJsonObject body = hello();
    body.remove(QStringLiteral("type"));
    body.insert(QStringLiteral("poll"), true);
    m_network->sendConsoleHeartbeat(token, body);
}

void CloudConsoleService::onPollTick()
{
    if (!m_enabled || m_socket->isReady())
        return;
    const QString token = usableToken();
    if (token.isEmpty())
        return;
    for (const auto &[id, result] : m_ledger.pending())
        deliverResult(id, result);
    m_network->pollConsoleCommands(token, m_cid);
    if (!isWatching())
        m_pollTimer->setInterval(m_poll.afterIdlePoll());
}

void CloudConsoleService::onResultRetryTick()
{
    if (!m_socket->isReady())
        return;  // each poll tick posts them meanwhile
    for (const auto &[id, result] : m_ledger.pending())
        deliverResult(id, result);
}

void CloudConsoleService::onSocketWatchdogTick()
{
    if (m_enabled && !m_socket->isReady())
        startSocket();
}

void CloudConsoleService::onSocketReady()
{
    m_snapshotTimer->stop();
    if (isWatching())
        sendSnapshot();
    // What waited while the socket was down goes now, not at the next retry.
    for (const auto &[id, result] : m_ledger.pending())
        deliverResult(id, result);
}

void CloudConsoleService::onSocketDisconnected()
{
    if (!m_enabled)
        return;
    if (isWatching())
        m_snapshotTimer->start();
    // Back to HTTP at once: the computer stays online and commands keep
    // coming while the socket finds its way back.
    onHeartbeatTick();
    onPollTick();
}

// ---------------------------------------------------------------- replies

void CloudConsoleService::onConsoleResponse(const QJsonObject &response)
{
    handleResponse(response, sender() == m_socket ? Channel::Socket : Channel::Http);
}

void CloudConsoleService::handleResponse(const QJsonObject &response, Channel channel)
{
    if (!m_enabled)
        return;
    const QJsonValue cid = response.value(QLatin1String("cid"));
    if (!cid.isUndefined() && cid.toString() != m_cid)
        return;
    const QJsonValue status = response.value(QLatin1String("status"));
    if (status.isBool() && !status.toBool()) {
        const QString code = response.value(QLatin1String("code")).toString();
        qCInfo(lcCloud).noquote() << "[CloudConsoleService] refused:" << code
                                  << response.value(QLatin1String("description")).toString();
        if (code == QLatin1String("quota_exceeded")) {
            stopForQuota();
            return;
        }
        // A result the service refuses will not be taken by sending it
        // again: it leaves the pending set like a confirmed one.
        if (const QString refused = commandIdOf(response.value(QLatin1String("command_id"))); !refused.isEmpty())
            m_ledger.confirm(refused);
        return;
    }
    if (const QJsonValue ws = response.value(QLatin1String("ws")); ws.isBool()) {
        m_socketAllowed = ws.toBool();
        if (m_socketAllowed)
            startSocket();
    }
    if (const QString confirmed = commandIdOf(response.value(QLatin1String("command_id"))); !confirmed.isEmpty())
        m_ledger.confirm(confirmed);
    if (const QJsonValue remaining = response.value(QLatin1String("up_remaining")); remaining.isDouble())
        m_uploadRemaining = qint64(remaining.toDouble());
    if (const QJsonValue watching = response.value(QLatin1String("watching")); watching.isBool())
        applyWatching(watching.toBool(), response.value(QLatin1String("authoritative")).toBool());
    if (response.value(QLatin1String("need_snapshot")).toBool())
        sendSnapshot();
    if (const QJsonValue commands = response.value(QLatin1String("commands")); commands.isArray())
        runCommands(commands.toArray(), channel);
}

// --------------------------------------------------------------- commands

void CloudConsoleService::runCommands(const QJsonArray &commands, Channel channel)
{
    for (const QJsonValue &value : commands) {
        if (!m_enabled)
            return;  // a command may have ended it all
        const QJsonObject command = value.toObject();
        const QString id = commandIdOf(command.value(QLatin1String("command_id")));
        if (id.isEmpty())
            continue;  // nowhere to send a result
        if (channel == Channel::Http) {
            // Acknowledged before it runs: the service stops offering it.
            if (const QString token = usableToken(); !token.isEmpty())
                m_network->acknowledgeCommand(token, id, identity());
        }
        if (!m_ledger.markHandled(id)) {
            // Delivered again: it ran; its result, if still unconfirmed,
            // goes once more instead.
            if (const auto result = m_ledger.pendingResult(id))
                deliverResult(id, *result);
            continue;
        }
        const QString name = command.value(QLatin1String("command")).toString();
        const ConsoleOutcome outcome = m_commands.run(name, command.value(QLatin1String("payload")).toObject());
        const QJsonObject result = outcome.toResult(m_cid);
        qCInfo(lcCloud).noquote() << "[CloudConsoleService] command" << name << id
                                  << result.value(QLatin1String("status")).toString()
                                  << result.value(QLatin1String("error_code")).toString();
        m_ledger.addResult(id, result);
        deliverResult(id, result);
        emit commandRun(id, name, result);
    }
}

void CloudConsoleService::deliverResult(const QString &commandId, const QJsonObject &result)
{
    if (m_socket->isReady()) {
        m_socket->send({{QStringLiteral("type"), QStringLiteral("result")},
                        {QStringLiteral("command_id"), commandId},
                        {QStringLiteral("result"), result}});
        return;
    }
    const QString token = usableToken();
    if (token.isEmpty())
        return;  // it stays pending
    QJsonObject body = result;
    body.insert(QStringLiteral("session_id"), m_sessionId);
    m_network->reportCommandResult(token, commandId, body);
}

// --------------------------------------------------------------- watching

void CloudConsoleService::applyWatching(bool watching, bool authoritative)
{
    if (watching) {
        m_poll.reset();
        if (m_pollTimer->interval() != m_poll.intervalMs())
            m_pollTimer->setInterval(m_poll.intervalMs());
    }
    switch (m_watch.report(watching, authoritative)) {
    case ConsoleWatchState::Change::Began:
        beginWatching();
        break;
    case ConsoleWatchState::Change::Ended:
        endWatching(true);
        break;
    case ConsoleWatchState::Change::None:
        break;
    }
}

void CloudConsoleService::beginWatching()
{
    for (PortSession *session : m_ports())
        tap(session);
    m_uploadTimer->start();
    sendSnapshot();
    if (!m_socket->isReady())
        m_snapshotTimer->start();
    emit watchingChanged(true);
}

void CloudConsoleService::endWatching(bool uploadFirst)
{
    untapAll();
    if (uploadFirst)
        onUploadTick();
    m_uploadTimer->stop();
    m_snapshotTimer->stop();
    m_snapshotSettleTimer->stop();
    m_traffic.clear();
    emit watchingChanged(false);
}

void CloudConsoleService::tap(PortSession *session)
{
    if (!session)
        return;
    for (const QPointer<PortSession> &tapped : std::as_const(m_tapped)) {
        if (tapped == session)
            return;
    }
    m_tapped.append(session);
    connect(session, &PortSession::consoleTraffic, this, &CloudConsoleService::onPortTraffic);
    connect(session, &QObject::destroyed, this, &CloudConsoleService::onPortSourceDestroyed);
    connect(session, &PortSession::stateChanged, this, &CloudConsoleService::scheduleSnapshot);
    connect(session, &PortSession::configChanged, this, &CloudConsoleService::scheduleSnapshot);
}

void CloudConsoleService::untapAll()
{
    for (const QPointer<PortSession> &session : std::as_const(m_tapped)) {
        if (session)
            disconnect(session, nullptr, this, nullptr);
    }
    m_tapped.clear();
}

void CloudConsoleService::onPortSourceDestroyed(QObject *source)
{
    m_tapped.removeIf([source](const QPointer<PortSession> &p) { return !p || p == source; });
    scheduleSnapshot();
}

void CloudConsoleService::portsChanged()
{
    if (!isWatching())
        return;
    for (PortSession *session : m_ports())
        tap(session);
    scheduleSnapshot();
}

void CloudConsoleService::consentChanged()
{
    if (isWatching())
        scheduleSnapshot();
}

void CloudConsoleService::scheduleSnapshot()
{
    if (isWatching() && !m_snapshotSettleTimer->isActive())
        m_snapshotSettleTimer->start();
}

void CloudConsoleService::sendSnapshot()
{
    if (!m_enabled)
        return;
    QJsonObject body = identity();
    body.insert(QStringLiteral("ports"), ConsolePortCommands::entries(m_ports(), m_commands.consent()));
    if (m_socket->isReady()) {
        body.insert(QStringLiteral("type"), QStringLiteral("snapshot"));
        m_socket->send(body);
        return;
    }
    if (const QString token = usableToken(); !token.isEmpty())
        m_network->sendPortSnapshot(token, body);
}

// ---------------------------------------------------------------- traffic

void CloudConsoleService::onPortTraffic(const QString &portKey, bool isTx, const QString &text)
{
    if (isWatching())
        m_traffic.append(portKey, isTx, text, QDateTime::currentMSecsSinceEpoch());
}

void CloudConsoleService::onUploadTick()
{
    if (m_traffic.isEmpty())
        return;
    const QString token = usableToken();
    if (token.isEmpty())
        return;
    if (m_uploadRemaining && m_traffic.bytes() > *m_uploadRemaining) {
        m_traffic.clear();
        stopForQuota();
        return;
    }
    quint64 dropped = m_traffic.takeDropped();
    while (!m_traffic.isEmpty()) {
        const qint64 before = m_traffic.bytes();
        QJsonObject body = identity();
        body.insert(QStringLiteral("events"), m_traffic.takeBatch(ConsoleTrafficBuffer::kBatchEvents));
        if (dropped) {
            // The watchers learn that the oldest events did not fit.
            body.insert(QStringLiteral("dropped"), qint64(dropped));
            dropped = 0;
        }
        if (m_uploadRemaining)
            *m_uploadRemaining -= before - m_traffic.bytes();
        if (m_socket->isReady()) {
            body.insert(QStringLiteral("type"), QStringLiteral("events"));
            m_socket->send(body);
        } else {
            m_network->sendConsoleEvents(token, body);
        }
    }
}
