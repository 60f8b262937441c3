#include "cloud/guestsharekeeper.h"

#include "cloud/networkservices.h"
#include "common/logging.h"
#include "terminal/portsession.h"

#include <QDateTime>
#include <QJsonArray>
#include <QTimer>

#include <algorithm>
#include <limits>

namespace {
// A create that found no usable token waits for a renewal this many times.
constexpr int kCreateAttempts = 3;
// A listing not answered in this long is taken as lost (the client gives up
// on any request after 10 s).
constexpr qint64 kListingLostMs = 12000;
} // namespace

GuestShareKeeper::GuestShareKeeper(NetworkServices *network, const QString &sessionId, Hooks hooks, QObject *parent)
    : QObject(parent)
    , m_network(network)
    , m_sessionId(sessionId)
    , m_hooks(std::move(hooks))
    , m_clock(&QDateTime::currentMSecsSinceEpoch)
    , m_table(sessionId)
    , m_createTimer(new QTimer(this))
    , m_sweepTimer(new QTimer(this))
{
    qRegisterMetaType<GuestShare>();
    qRegisterMetaType<QList<GuestShare>>();
    m_createTimer->setSingleShot(true);
    setTiming(kCreateDelayMs, kSweepMs);
    connect(m_createTimer, &QTimer::timeout, this, &GuestShareKeeper::createNow);
    connect(m_sweepTimer, &QTimer::timeout, this, &GuestShareKeeper::onShareSweepTick);
    connect(m_network, &NetworkServices::relayShareResponse, this, &GuestShareKeeper::onRelayShareResponse);
    connect(m_network, &NetworkServices::relayShareOverviewResponse, this,
            &GuestShareKeeper::onRelayShareOverviewResponse);
    connect(m_network, &NetworkServices::networkError, this, &GuestShareKeeper::onNetworkError);
    m_cid = m_hooks.cid();
}

void GuestShareKeeper::setTiming(int createDelayMs, int sweepMs)
{
    m_createTimer->setInterval(createDelayMs);
    m_sweepTimer->setInterval(sweepMs);
}

bool GuestShareKeeper::isShareable(const PortSession &session)
{
    return session.config().mode == ConnectionMode::Serial && session.isStarted() && session.isConnectionOpen();
}

QList<PortSession *> GuestShareKeeper::shareablePorts() const
{
    QList<PortSession *> ports;
    for (PortSession *session : m_hooks.ports()) {
        if (session && isShareable(*session))
            ports.append(session);
    }
    return ports;
}

QString GuestShareKeeper::openSerialPortFirstText()
{
    return tr("Open a serial port connection first: only an open serial port can be shared.");
}

PortSession *GuestShareKeeper::portFor(const QString &portKey) const
{
    for (PortSession *session : m_hooks.ports()) {
        if (session && session->portKey() == portKey)
            return session;
    }
    return nullptr;
}

std::optional<GuestShare> GuestShareKeeper::share(const QString &shareId) const
{
    if (const GuestShare *held = m_table.find(shareId))
        return *held;
    return std::nullopt;
}

ConsoleCommandTable::ShareAccess GuestShareKeeper::access(const QString &shareId) const
{
    return m_table.access(shareId, now());
}

// --------------------------------------------------------------- creating

Result GuestShareKeeper::requestShare(const GuestShareTable::Request &request)
{
    if (!m_hooks.consoleOn())
        return Result::failure(tr("Switch Live Console on first: the share travels over its channel."));
    if (isCreating())
        return Result::failure(tr("A share is still being created; wait for it."));
    if (const Result checked = GuestShareTable::check(request); !checked)
        return checked;
    const PortSession *port = portFor(request.portKey);
    if (!port || !isShareable(*port))
        return Result::failure(openSerialPortFirstText());
    if (request.relay && !m_hooks.relayAllowed())
        return Result::failure(tr("Switch on Cloud > Live Relay first: a guest in Tessaline comes in through it."));
    if (m_table.isFull())
        return Result::failure(tr("This computer already holds %1 shares; stop one first.")
                                   .arg(GuestShareTable::kMaxShares));
    if (m_hooks.cid().isEmpty())
        return Result::failure(tr("Sign in first: a share belongs to your cloud account."));
    m_pending = request;
    m_createAttempts = 0;
    m_createTimer->start();
    return Result::success();
}

void GuestShareKeeper::createNow()
{
    if (!m_pending)
        return;
    const PortSession *port = portFor(m_pending->portKey);
    if (!port || !isShareable(*port)) {
        m_pending.reset();
        failCreate(openSerialPortFirstText());
        return;
    }
    const QString token = m_hooks.token();
    if (token.isEmpty()) {
        // A renewal may be on its way: wait for it a little.
        if (++m_createAttempts < kCreateAttempts) {
            m_createTimer->start();
            return;
        }
        m_pending.reset();
        failCreate(tr("Sign in first: a share belongs to your cloud account."));
        return;
    }
    const GuestShareTable::Request request = *std::exchange(m_pending, std::nullopt);
    m_createInFlight = true;
    m_network->createShare(token, {{QStringLiteral("cid"), m_hooks.cid()},
                                   {QStringLiteral("session_id"), m_sessionId},
                                   {QStringLiteral("port_key"), request.portKey},
                                   {QStringLiteral("ttl_seconds"), request.ttlSeconds},
                                   {QStringLiteral("label"), request.label},
                                   {QStringLiteral("passcode"), request.passcode},
                                   {QStringLiteral("web"), request.web},
                                   {QStringLiteral("relay"), request.relay}});
}

void GuestShareKeeper::failCreate(const QString &message)
{
    m_createInFlight = false;
    emit shareFailed(message);
}

void GuestShareKeeper::onCreated(const QJsonObject &object)
{
    const std::optional<GuestShare> share = GuestShare::fromJson(object);
    if (!m_createInFlight || !m_hooks.consoleOn()) {
        // Nobody waits for it any more (Live Console went off meanwhile):
        // it must not stay open at the service.
        if (const QString token = m_hooks.token(); share && !token.isEmpty())
            m_network->revokeShare(token, share->shareId);
        return;
    }
    m_createInFlight = false;
    if (!share) {
        emit shareFailed(tr("The server did not return the share."));
        return;
    }
    const GuestShare held = m_table.add(*share, now());
    qCInfo(lcCloud).noquote() << "[GuestShareKeeper] created" << held.shareId << "on" << held.portKey;
    if (!m_sweepTimer->isActive())
        m_sweepTimer->start();
    watch(portFor(held.portKey));
    emit shareCreated(held);
    checkPorts();  // closed while the request travelled
}

// ---------------------------------------------------------------- replies

void GuestShareKeeper::onRelayShareResponse(const QJsonObject &response)
{
    const bool ok = response.value(QLatin1String("status")).toBool();
    const QString shareId = response.value(QLatin1String("share_id")).toString();
    if (const QJsonValue shares = response.value(QLatin1String("shares")); ok && shares.isArray()) {
        onListing(shares.toArray());
    } else if (const QJsonValue share = response.value(QLatin1String("share")); ok && share.isObject()) {
        onCreated(share.toObject());
    } else if (!ok && !shareId.isEmpty()) {
        onShareRefused(shareId, response.value(QLatin1String("code")).toString());
    } else if (!ok && m_createInFlight) {
        QString message = response.value(QLatin1String("description")).toString();
        if (message.isEmpty())
            message = response.value(QLatin1String("code")).toString();
        failCreate(message.isEmpty() ? GuestShare::refusalText({}) : message);
    } else if (ok && !shareId.isEmpty()) {
        // A stop confirmed.
        if (m_stopping.removeOne(shareId))
            emitEnded(shareId, GuestShare::stoppedText());
    } else if (!ok) {
        if (m_listingsOutstanding > 0 && --m_listingsOutstanding == 0)
            m_listingAskedAt = 0;
        qCInfo(lcCloud).noquote() << "[GuestShareKeeper] refused:" << response.value(QLatin1String("code")).toString();
    }
}

void GuestShareKeeper::onShareRefused(const QString &shareId, const QString &code)
{
    const QString reason = GuestShare::refusalText(code);
    if (std::optional<GuestShare> held = m_table.take(shareId)) {
        end({*held}, reason, false);
    } else if (m_stopping.removeOne(shareId)) {
        emitEnded(shareId, reason);
    }
}

void GuestShareKeeper::onListing(const QJsonArray &shares)
{
    const qint64 askedAt = m_listingAskedAt;
    if (m_listingsOutstanding > 0 && --m_listingsOutstanding == 0)
        m_listingAskedAt = 0;
    QList<GuestShare> listed;
    for (const QJsonValue &value : shares) {
        if (std::optional<GuestShare> share = GuestShare::fromJson(value.toObject()))
            listed.append(std::move(*share));
    }
    // Without the time of the question, a share missing from the answer may
    // simply be newer: only what the service says ended ends then.
    const GuestShareTable::ListingOutcome outcome
        = m_table.applyListing(listed, askedAt > 0 ? askedAt : std::numeric_limits<qint64>::min());
    for (const GuestShareTable::Ended &ended : outcome.ended)
        end({ended.share}, ended.reason, false);
    for (const GuestShare &changed : outcome.changed)
        emit shareChanged(changed);
    emit listingChanged();
}

void GuestShareKeeper::onRelayShareOverviewResponse(const QJsonObject &response)
{
    if (!response.value(QLatin1String("status")).toBool()) {
        QString message = response.value(QLatin1String("description")).toString();
        if (message.isEmpty())
            message = response.value(QLatin1String("code")).toString();
        emit shareOverviewFailed(message);
        return;
    }
    QList<GuestShare> shares;
    for (const QJsonValue &value : response.value(QLatin1String("shares")).toArray()) {
        if (shares.size() == kMaxOverview)
            break;
        if (std::optional<GuestShare> share = GuestShare::fromJson(value.toObject()))
            shares.append(std::move(*share));
    }
    emit shareOverviewFetched(shares, qMax(0, response.value(QLatin1String("revoked")).toInt()));
}

void GuestShareKeeper::onNetworkError(const QString &domain, const QString &message, const QString &detail)
{
    Q_UNUSED(detail);
    if (domain == QLatin1String("shareall")) {
        emit shareOverviewFailed(message);
        return;
    }
    if (domain != QLatin1String("share"))
        return;
    // The client does not say which request failed: a waiting creation
    // hears it first; a lost listing is asked again by the next sweep.
    if (m_createInFlight) {
        failCreate(message);
        return;
    }
    if (m_listingsOutstanding > 0 && --m_listingsOutstanding == 0)
        m_listingAskedAt = 0;
}

// ----------------------------------------------------------------- asking

bool GuestShareKeeper::refreshShares()
{
    if (m_listingsOutstanding > 0 && now() - m_listingAskedAt < kListingLostMs)
        return true;  // one question at a time
    const QString cid = m_hooks.cid();
    if (cid.isEmpty() || !m_hooks.consoleOn())
        return false;
    const QString token = m_hooks.token();
    if (token.isEmpty())
        return false;
    if (m_listingsOutstanding == 0)
        m_listingAskedAt = now();
    ++m_listingsOutstanding;
    m_network->fetchShares(token, cid);
    return true;
}

bool GuestShareKeeper::fetchOverview()
{
    const QString token = m_hooks.token();
    if (token.isEmpty())
        return false;
    m_network->fetchAllShares(token);
    return true;
}

void GuestShareKeeper::stopShare(const QString &shareId)
{
    if (shareId.isEmpty())
        return;
    if (std::optional<GuestShare> held = m_table.take(shareId)) {
        end({*held}, GuestShare::stoppedText(), true);
        return;
    }
    const QString token = m_hooks.token();
    if (token.isEmpty())
        return;
    if (!m_stopping.contains(shareId)) {
        if (m_stopping.size() == kMaxStopping)
            m_stopping.removeFirst();  // its answer goes unheard; a refresh shows the truth
        m_stopping.append(shareId);
    }
    m_network->revokeShare(token, shareId);
}

bool GuestShareKeeper::disconnectGuest(const QString &shareId)
{
    const GuestShare *held = m_table.find(shareId);
    if (!held || !held->guest || held->guest->relayId.isEmpty())
        return false;
    const QString token = m_hooks.token();
    if (token.isEmpty())
        return false;
    m_network->endRelaySession(token, held->guest->relayId);
    m_table.clearGuest(shareId);
    emit shareChanged(*m_table.find(shareId));
    return true;
}

// ----------------------------------------------------------------- ending

void GuestShareKeeper::end(const QList<GuestShare> &ended, const QString &reason, bool revoke)
{
    if (ended.isEmpty())
        return;
    const QString token = revoke ? m_hooks.token() : QString();
    for (const GuestShare &share : ended) {
        qCInfo(lcCloud).noquote() << "[GuestShareKeeper] ended" << share.shareId << reason;
        if (!token.isEmpty())
            m_network->revokeShare(token, share.shareId);
    }
    unwatchUnused();
    if (m_table.isEmpty())
        m_sweepTimer->stop();
    for (const GuestShare &share : ended)
        emitEnded(share.shareId, reason);
}

void GuestShareKeeper::emitEnded(const QString &shareId, const QString &reason)
{
    emit shareEnded(shareId, reason);
}

void GuestShareKeeper::endAll(const QString &reason)
{
    const bool creating = isCreating();
    m_pending.reset();
    m_createTimer->stop();
    m_createInFlight = false;  // a late answer is revoked
    if (creating)
        emit shareFailed(reason);
    end(m_table.takeIf([](const GuestShare &) { return true; }), reason, true);
}

void GuestShareKeeper::consentChanged()
{
    if (m_hooks.relayAllowed())
        return;
    if (m_pending && m_pending->relay) {
        m_pending.reset();
        m_createTimer->stop();
        emit shareFailed(GuestShare::relayOffText());
    }
    end(m_table.takeIf([](const GuestShare &share) { return share.relay; }), GuestShare::relayOffText(), true);
}

void GuestShareKeeper::accountChanged()
{
    const QString cid = m_hooks.cid();
    if (cid == m_cid)
        return;
    m_cid = cid;
    // The shares were the last account's: its token is gone, the service
    // ends them when this run stops answering for them.
    m_pending.reset();
    m_createTimer->stop();
    m_createInFlight = false;
    m_stopping.clear();
    m_listingsOutstanding = 0;
    m_listingAskedAt = 0;
    end(m_table.takeIf([](const GuestShare &) { return true; }), GuestShare::refusalText({}), false);
}

void GuestShareKeeper::onShareSweepTick()
{
    end(m_table.takeExpired(now()), GuestShare::expiredText(), false);
    if (!m_table.isEmpty())
        refreshShares();
}

// ------------------------------------------------------------------ ports

void GuestShareKeeper::checkPorts()
{
    end(m_table.takeIf([this](const GuestShare &share) {
        const PortSession *port = portFor(share.portKey);
        return !port || port->config().mode != ConnectionMode::Serial || !port->isStarted();
    }), GuestShare::portClosedText(), true);
}

void GuestShareKeeper::watch(PortSession *session)
{
    if (!session || m_watched.contains(session))
        return;
    m_watched.insert(session, session->portKey());
    connect(session, &PortSession::stateChanged, this, &GuestShareKeeper::checkPorts);
    connect(session, &QObject::destroyed, this, &GuestShareKeeper::onPortDestroyed);
}

void GuestShareKeeper::unwatchUnused()
{
    // Only the keys are looked at: a session may be on its way out.
    for (auto it = m_watched.begin(); it != m_watched.end();) {
        const QString &portKey = it.value();
        const bool used = std::any_of(m_table.shares().cbegin(), m_table.shares().cend(),
                                      [&portKey](const GuestShare &share) { return share.portKey == portKey; });
        if (used) {
            ++it;
            continue;
        }
        disconnect(it.key(), nullptr, this, nullptr);
        it = m_watched.erase(it);
    }
}

void GuestShareKeeper::onPortDestroyed(QObject *session)
{
    const QString portKey = m_watched.take(session);
    end(m_table.takeIf([&portKey](const GuestShare &share) { return share.portKey == portKey; }),
        GuestShare::portClosedText(), true);
}
