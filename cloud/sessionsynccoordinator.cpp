#include "cloud/sessionsynccoordinator.h"

#include "cloud/accountsession.h"
#include "cloud/networkservices.h"
#include "common/appidentity.h"
#include "common/logging.h"

#include <QJsonArray>
#include <QSettings>
#include <QTimer>

namespace {
const QString kRevisionKey = QStringLiteral("AccountSyncRevision");
const QString kLastSyncKey = QStringLiteral("AccountLastSyncAt");

// The service refuses a refresh token for good with these: the sign-in has ended.
bool endsTheSignIn(const QString &code)
{
    return code == QLatin1String("invalid_refresh_token") || code == QLatin1String("refresh_token_expired")
           || code == QLatin1String("refresh_token_reused");
}

// Refusals of requests made with an access token: answers to some other
// account request, never to a refresh.
bool refusesAnAccessToken(const QString &code)
{
    return code == QLatin1String("unauthorized") || code == QLatin1String("invalid_token")
           || code == QLatin1String("token_expired");
}
} // namespace

SessionSyncCoordinator::SessionSyncCoordinator(NetworkServices *network, AccountSession *session,
                                               LocalState localState, QObject *parent)
    : QObject(parent),
      m_network(network),
      m_session(session),
      m_localState(std::move(localState)),
      m_deviceName(QString::number(AccountSession::deviceValue())),
      m_autoTimer(new QTimer(this))
{
    qRegisterMetaType<SessionState>();
    connect(m_network, &NetworkServices::syncResponse, this, &SessionSyncCoordinator::handleSyncResponse);
    connect(m_network, &NetworkServices::networkError, this, &SessionSyncCoordinator::handleNetworkError);
    connect(m_autoTimer, &QTimer::timeout, this, &SessionSyncCoordinator::syncAutomatically);
    reloadAutoSync();
}

void SessionSyncCoordinator::setWriter(const QString &cid, const QString &deviceName)
{
    m_cid = cid;
    m_deviceName = deviceName;
}

QString SessionSyncCoordinator::syncedText() { return tr("Settings synced"); }
QString SessionSyncCoordinator::appliedText() { return tr("Cloud settings applied"); }
QString SessionSyncCoordinator::deferredText() { return tr("Cloud settings changed; use Sync Now to resolve."); }
QString SessionSyncCoordinator::conflictTitle() { return tr("Sync Settings"); }
QString SessionSyncCoordinator::conflictText() { return tr("Cloud settings are different from this computer."); }
QString SessionSyncCoordinator::conflictQuestion() { return tr("Choose which settings to keep for this manual sync."); }

QString SessionSyncCoordinator::lastSyncedText()
{
    const QDateTime at = QSettings().value(kLastSyncKey).toDateTime();
    if (!at.isValid())
        return tr("Not synced yet");
    return tr("Last synced: %1").arg(QLocale().toString(at.toLocalTime(), QLocale::ShortFormat));
}

void SessionSyncCoordinator::reloadAutoSync()
{
    QSettings settings;
    const bool on = settings.value(kAutoSyncKey, false).toBool();
    const int minutes = qBound(1, settings.value(kIntervalKey, kDefaultAutoSyncMinutes).toInt(), 24 * 60);
    if (on) {
        m_autoTimer->start(minutes * 60 * 1000);
    } else {
        m_autoTimer->stop();
    }
}

qint64 SessionSyncCoordinator::storedRevision() const
{
    return QSettings().value(kRevisionKey, 0).toLongLong();
}

bool SessionSyncCoordinator::includeSendHistory() const
{
    return QSettings().value(kSendHistoryKey, false).toBool();
}

QJsonObject SessionSyncCoordinator::buildDocument(const SessionState &state) const
{
    SessionState shown = state;
    shown.hasSendHistory = includeSendHistory();
    if (!shown.hasSendHistory)
        shown.sendHistory.clear();
    return {{QStringLiteral("schema"), kSchema},
            {QStringLiteral("version"), 1},
            {QStringLiteral("app_version"), QString::fromLatin1(AppIdentity::kVersion)},
            {QStringLiteral("updated_by"),
             QJsonObject{{QStringLiteral("cid"), m_cid}, {QStringLiteral("device_name"), m_deviceName}}},
            {QStringLiteral("settings"), shown.toJson()}};
}

void SessionSyncCoordinator::syncNow()
{
    start(true);
}

void SessionSyncCoordinator::syncAutomatically()
{
    if (m_session->isSignedIn())
        start(false);
}

void SessionSyncCoordinator::start(bool manual)
{
    if (isBusy())
        return;
    if (!m_session->isSignedIn()) {
        if (manual)
            emit failed(tr("Sign in to sync your settings."));
        return;
    }
    m_manual = manual;
    if (!m_session->isAccessTokenValid()) {
        // The refresh sent a moment ago failed and the session holds new
        // ones back for a few seconds: no reply would come to wait for.
        if (!m_refreshFailure.isEmpty() && m_session->isRefreshPending()) {
            emit failed(m_refreshFailure);
            return;
        }
        m_refreshFailure.clear();
        if (!m_session->requestRefresh()) {
            emit signInExpired(!manual);
            return;
        }
        m_phase = Phase::WaitingForToken;
        return;
    }
    m_phase = Phase::Listing;
    emit began();
    m_network->listSyncItems(m_session->accessToken(), kNamespace);
}

void SessionSyncCoordinator::handleAccountResponse(const QJsonObject &response)
{
    const bool ok = response.value(QLatin1String("status")).toBool();
    const bool carriesToken = ok && !response.value(QLatin1String("access_token")).toString().isEmpty();
    if (carriesToken)
        m_refreshFailure.clear();
    if (m_phase != Phase::WaitingForToken)
        return;
    const QString code = response.value(QLatin1String("code")).toString();
    if (ok && !carriesToken)
        return;  // another account reply (a profile, say): still waiting
    if (!ok && refusesAnAccessToken(code))
        return;
    if (ok || endsTheSignIn(code)) {
        m_phase = Phase::Idle;
        if (m_session->isAccessTokenValid())
            start(m_manual);
        else
            emit signInExpired(!m_manual);
        return;
    }
    // The refresh failed without ending the sign-in (the service was busy
    // or could not reach its database): this sync ends, the next may work.
    refreshFailed(response.value(QLatin1String("description")).toString());
}

void SessionSyncCoordinator::refreshFailed(const QString &message)
{
    fail(message);
    m_refreshFailure = message.isEmpty() ? tr("Request failed.") : message;
}

void SessionSyncCoordinator::write(const SessionState &state, qint64 baseRevision)
{
    m_phase = Phase::Writing;
    m_network->writeSyncItem(m_session->accessToken(), kNamespace, kKey, baseRevision, buildDocument(state));
}

void SessionSyncCoordinator::handleSyncResponse(const QJsonObject &response)
{
    if (m_phase != Phase::Listing && m_phase != Phase::Writing)
        return;
    const bool ok = response.value(QLatin1String("status")).toBool();
    if (m_phase == Phase::Listing) {
        if (!ok) {
            fail(response.value(QLatin1String("description")).toString());
            return;
        }
        QJsonObject cloud;
        for (const QJsonValue &value : response.value(QLatin1String("items")).toArray()) {
            const QJsonObject item = value.toObject();
            if (item.value(QLatin1String("namespace")).toString() == kNamespace
                && item.value(QLatin1String("item_key")).toString() == kKey)
                cloud = item;
        }
        if (cloud.isEmpty()) {
            write(m_localState(), 0);
            return;
        }
        const qint64 revision = cloud.value(QLatin1String("revision")).toInteger();
        if (revision == storedRevision()) {
            write(m_localState(), revision);
            return;
        }
        onCloudNewer(cloud);
        return;
    }
    // Writing
    if (ok) {
        finishSucceeded(response.value(QLatin1String("item")).toObject().value(QLatin1String("revision")).toInteger());
        return;
    }
    if (response.value(QLatin1String("code")).toString() == QLatin1String("revision_conflict")) {
        onCloudNewer(response.value(QLatin1String("server_item")).toObject());
        return;
    }
    fail(response.value(QLatin1String("description")).toString());
}

void SessionSyncCoordinator::onCloudNewer(const QJsonObject &item)
{
    m_cloudItem = item;
    if (m_manual) {
        m_phase = Phase::AwaitingChoice;
        emit conflictChoiceNeeded();
        return;
    }
    m_phase = Phase::Idle;
    emit conflictDeferred();
}

void SessionSyncCoordinator::resolveConflict(Choice choice)
{
    if (m_phase != Phase::AwaitingChoice)
        return;
    const qint64 cloudRevision = m_cloudItem.value(QLatin1String("revision")).toInteger();
    const QJsonObject payload = m_cloudItem.value(QLatin1String("payload")).toObject();
    if (choice == Choice::KeepLocal) {
        write(m_localState(), cloudRevision);
        return;
    }
    if (payload.value(QLatin1String("schema")).toString() != kSchema) {
        m_phase = Phase::Idle;
        emit incompatible();
        return;
    }
    const SessionState cloud = SessionState::fromJson(payload.value(QLatin1String("settings")).toObject());
    if (choice == Choice::UseCloud) {
        emit cloudApplied(cloud, cloud.language, false);
        finishSucceeded(cloudRevision);
        return;
    }
    const SessionState merged = SessionState::mergeLists(m_localState(), cloud);
    emit cloudApplied(merged, merged.language, true);
    write(merged, cloudRevision);
}

void SessionSyncCoordinator::cancelConflict()
{
    if (m_phase != Phase::AwaitingChoice)
        return;
    m_phase = Phase::Idle;
    m_cloudItem = {};
    emit cancelled();
}

void SessionSyncCoordinator::finishSucceeded(qint64 revision)
{
    QSettings settings;
    settings.setValue(kRevisionKey, revision);
    settings.setValue(kLastSyncKey, QDateTime::currentDateTimeUtc());
    m_phase = Phase::Idle;
    m_cloudItem = {};
    qCInfo(lcCloud) << "[SessionSyncCoordinator] synced at revision" << revision;
    emit succeeded(m_manual);
}

void SessionSyncCoordinator::fail(const QString &message)
{
    m_phase = Phase::Idle;
    m_cloudItem = {};
    emit failed(message.isEmpty() ? tr("Request failed.") : message);
}

void SessionSyncCoordinator::handleNetworkError(const QString &domain, const QString &message, const QString &detail)
{
    Q_UNUSED(detail);
    if (domain == QLatin1String("account") && m_phase == Phase::WaitingForToken) {
        // The refresh never reached the service or its reply never came back.
        refreshFailed(message);
        return;
    }
    if (domain != QLatin1String("sync") || (m_phase != Phase::Listing && m_phase != Phase::Writing))
        return;
    fail(message);
}
