#include "cloud/accountsession.h"

#include "cloud/networkservices.h"
#include "cloud/refreshtokenprotection.h"

#include <QCoreApplication>
#include <QRandomGenerator>
#include <QSettings>

namespace {
const QString kUserId = QStringLiteral("AccountUserId");
const QString kEmail = QStringLiteral("AccountEmail");
const QString kUsername = QStringLiteral("AccountUsername");
const QString kRememberMe = QStringLiteral("AccountRememberMe");
const QString kRefreshToken = QStringLiteral("AccountRefreshToken");
const QString kSyncRevision = QStringLiteral("AccountSyncRevision");
} // namespace

AccountSession::AccountSession(NetworkServices *network, QObject *parent)
    : QObject(parent), m_network(network), m_clock([] { return QDateTime::currentDateTimeUtc(); })
{
    load();
}

AccountSession *AccountSession::instance()
{
    static AccountSession *shared = new AccountSession(NetworkServices::instance(), QCoreApplication::instance());
    return shared;
}

int AccountSession::deviceValue()
{
    return QSettings().value(QStringLiteral("ValueD"), 0).toInt();
}

void AccountSession::ensureDeviceValue()
{
    QSettings settings;
    if (!settings.contains(QStringLiteral("ValueD")))
        settings.setValue(QStringLiteral("ValueD"), QRandomGenerator::system()->bounded(1, 2147483647));
}

void AccountSession::load()
{
    QSettings settings;
    m_userId = settings.value(kUserId, 0).toInt();
    m_email = settings.value(kEmail).toString();
    m_username = settings.value(kUsername).toString();
    m_rememberMe = settings.value(kRememberMe, true).toBool();
    m_refreshToken = RefreshTokenProtection::unprotect(settings.value(kRefreshToken).toString(), deviceValue());
}

void AccountSession::save()
{
    QSettings settings;
    settings.setValue(kUserId, m_userId);
    settings.setValue(kEmail, m_email);
    settings.setValue(kUsername, m_username);
    settings.setValue(kRememberMe, m_rememberMe);
    if (!m_rememberMe || m_refreshToken.isEmpty())
        settings.remove(kRefreshToken);
    else
        settings.setValue(kRefreshToken, RefreshTokenProtection::protect(m_refreshToken, deviceValue()));
}

bool AccountSession::isAccessTokenValid() const
{
    return !m_accessToken.isEmpty() && m_accessExpiry.isValid()
           && m_clock().addSecs(kExpiryMarginSeconds) < m_accessExpiry;
}

bool AccountSession::isRefreshPending() const
{
    return m_lastRefreshRequest.isValid() && m_lastRefreshRequest.msecsTo(m_clock()) < kRefreshThrottleMs;
}

bool AccountSession::requestRefresh()
{
    if (m_refreshToken.isEmpty())
        return false;
    if (isRefreshPending())
        return true;
    m_lastRefreshRequest = m_clock();
    m_network->refreshToken(m_accessToken, m_refreshToken);
    return true;
}

QString AccountSession::displayName() const
{
    if (!m_username.isEmpty())
        return m_username;
    if (!m_email.isEmpty())
        return m_email;
    return tr("Not signed in");
}

void AccountSession::applyLogin(const QJsonObject &response)
{
    const QJsonObject user = response.value(QLatin1String("user")).toObject();
    m_userId = user.value(QLatin1String("id")).toInt();
    m_email = user.value(QLatin1String("email")).toString();
    m_username = user.value(QLatin1String("username")).toString();
    m_accessToken = response.value(QLatin1String("access_token")).toString();
    const QString refresh = response.value(QLatin1String("refresh_token")).toString();
    if (!refresh.isEmpty())
        m_refreshToken = refresh;
    const qint64 expiresIn = response.value(QLatin1String("expires_in")).toInteger();
    m_accessExpiry = expiresIn > 0 ? m_clock().addSecs(expiresIn) : QDateTime();
    save();
    emit changed();
}

void AccountSession::setRememberMe(bool on)
{
    if (on == m_rememberMe)
        return;
    m_rememberMe = on;
    QSettings settings;
    settings.setValue(kRememberMe, on);
    if (!on)
        settings.remove(kRefreshToken);
    else if (!m_refreshToken.isEmpty())
        settings.setValue(kRefreshToken, RefreshTokenProtection::protect(m_refreshToken, deviceValue()));
    emit changed();
}

void AccountSession::clear()
{
    m_userId = 0;
    m_email.clear();
    m_username.clear();
    m_accessToken.clear();
    m_refreshToken.clear();
    m_accessExpiry = QDateTime();
    m_lastRefreshRequest = QDateTime();
    QSettings settings;
    for (const QString &key : {kUserId, kEmail, kUsername, kRefreshToken, kSyncRevision})
        settings.remove(key);
    emit changed();
}
