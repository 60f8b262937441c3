#include "cloud/accountreplyhandler.h"

#include "cloud/accountsession.h"
#include "cloud/networkservices.h"
#include "cloud/sessionsynccoordinator.h"

AccountReplyHandler::AccountReplyHandler(NetworkServices *network, AccountSession *session,
                                         SessionSyncCoordinator *sync, QObject *parent)
    : QObject(parent), m_network(network), m_session(session), m_sync(sync)
{
    connect(m_network, &NetworkServices::accountResponse, this, &AccountReplyHandler::handleAccountResponse);
}

QString AccountReplyHandler::myAccountTitle()
{
    return tr("My Account");
}

void AccountReplyHandler::handleAccountResponse(const QJsonObject &response)
{
    const bool ok = response.value(QLatin1String("status")).toBool();
    const QString description = response.value(QLatin1String("description")).toString();
    const QString code = response.value(QLatin1String("code")).toString();
    if (ok && !response.value(QLatin1String("access_token")).toString().isEmpty()) {
        m_session->applyLogin(response);
        emit signedIn();
        m_network->fetchCloudQuota(m_session->accessToken());
    } else if (ok) {
        emit accountInfo(response);
    } else if (m_session->isSignedIn() && isRefusedRefresh(code)) {
        // The refresh was refused: the sign-in has ended.
        emit notice(myAccountTitle(), tr("Sign in has expired."));
        if (!m_session->isAccessTokenValid())
            m_session->clear();
    } else if (code.startsWith(QLatin1String("device_"))) {
        emit notice(myAccountTitle(), description.isEmpty() ? tr("Device binding failed.") : description);
    } else {
        emit notice(myAccountTitle(), description.isEmpty() ? tr("Request failed.") : description);
    }
    if (m_sync)
        m_sync->handleAccountResponse(response);
}

bool AccountReplyHandler::isRefusedRefresh(const QString &code)
{
    // The service's words for a refresh token it will not renew.
    return code == QLatin1String("invalid_refresh_token") || code == QLatin1String("refresh_token_expired")
        || code == QLatin1String("refresh_token_reused");
}

void AccountReplyHandler::signOut()
{
    m_network->signOut(m_session->accessToken(), m_session->refreshToken());
    m_session->clear();
    emit statusMessage(tr("You signed out."), 5000);
}
