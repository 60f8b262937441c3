#include "cloud/relayconnector.h"

#include "cloud/networkservices.h"
#include "cloud/relaytargets.h"
#include "common/logging.h"

namespace {
int g_nextOperation = 1;
} // namespace

RelayConnector::RelayConnector(NetworkServices *network, QObject *parent)
    : QObject(parent)
    , m_network(network)
    , m_tag(QStringLiteral("relayop:%1").arg(g_nextOperation++))
{
    connect(network, &NetworkServices::relayResponse, this, &RelayConnector::onRelayResponse);
    connect(network, &NetworkServices::relayOperationResponse, this, &RelayConnector::onRelayOperationResponse);
    connect(network, &NetworkServices::networkError, this, &RelayConnector::onNetworkError);
}

void RelayConnector::connectToPort(const QString &accessToken, const QString &ownCid, const QString &cid,
                                   const QString &portKey, const QString &portName)
{
    m_portName = portName.isEmpty() ? portKey : portName;
    if (m_stage != Stage::Idle)
        return;
    m_accessToken = accessToken;
    m_cid = cid;
    m_portKey = portKey;
    m_stage = Stage::Targets;
    m_network->fetchRelayTargets(accessToken, ownCid);
}

void RelayConnector::joinInvite(const QString &accessToken, const QString &text, const QString &passcode,
                                const QString &guestName)
{
    if (m_stage != Stage::Idle)
        return;
    const QString code = RelayTargets::inviteCode(text);
    if (code.isEmpty()) {
        // Said from the event loop: whoever asked is ready to hear it.
        m_stage = Stage::Opening;
        QMetaObject::invokeMethod(
            this, [this] { fail(Failure::Other, tr("That does not look like an invite code.")); },
            Qt::QueuedConnection);
        return;
    }
    m_stage = Stage::Opening;
    m_network->joinByInvite(accessToken, code, passcode, guestName, m_tag);
}

void RelayConnector::onRelayResponse(const QJsonObject &response)
{
    // Other relay replies (ends of sessions, another window's list) share
    // this signal: the targets carry "devices".
    if (m_stage != Stage::Targets)
        return;
    const bool ok = response.value(QLatin1String("status")).toBool();
    if (ok && !response.contains(QLatin1String("devices")))
        return;
    if (!ok) {
        const QString description = response.value(QLatin1String("description")).toString();
        fail(Failure::Other, description.isEmpty() ? tr("The relay could not be opened.") : description);
        return;
    }
    const QList<RelayTargets::Device> devices = RelayTargets::parseDevices(response);
    const RelayTargets::Device *device = RelayTargets::findDevice(devices, m_cid);
    if (!device) {
        fail(Failure::TargetGone, tr("That computer is no longer bound to this account."));
        return;
    }
    m_deviceName = device->name;
    if (!device->online) {
        fail(Failure::Other, tr("%1 is offline.").arg(device->name));
        return;
    }
    if (!device->port(m_portKey)) {
        fail(Failure::TargetGone,
             tr("%1 no longer shares a port called \"%2\". Choose it again.").arg(device->name, m_portName));
        return;
    }
    m_stage = Stage::Opening;
    m_network->openRelaySession(m_accessToken, m_cid, device->sessionId, m_portKey, m_tag);
}

void RelayConnector::onRelayOperationResponse(const QString &requestTag, const QJsonObject &response)
{
    if (requestTag != m_tag || m_stage != Stage::Opening)
        return;
    if (!response.value(QLatin1String("status")).toBool()) {
        const QString description = response.value(QLatin1String("description")).toString();
        fail(Failure::Other, description.isEmpty() ? tr("The relay could not be opened.") : description);
        return;
    }
    const QString ticket = response.value(QLatin1String("ticket")).toString();
    if (ticket.isEmpty()) {
        fail(Failure::Other, tr("The server did not return a relay ticket."));
        return;
    }
    m_stage = Stage::Done;
    emit ready(ticket, response.value(QLatin1String("relay_id")).toString(),
               response.value(QLatin1String("port_key")).toString(),
               response.value(QLatin1String("guest_token")).toString());
}

void RelayConnector::onNetworkError(const QString &domain, const QString &message, const QString &detail)
{
    const bool mine = (m_stage == Stage::Targets && domain == QLatin1String("relay"))
        || (m_stage == Stage::Opening && domain == m_tag);
    if (!mine)
        return;
    qCWarning(lcCloud).noquote() << "[RelayConnector]" << message << detail;
    fail(Failure::Other, message);
}

void RelayConnector::fail(Failure failure, const QString &reason)
{
    if (m_stage == Stage::Done)
        return;
    m_stage = Stage::Done;
    m_failure = failure;
    emit failed(reason);
}

QString RelayConnector::paneText(Failure failure, const QString &reason, bool rememberedTarget,
                                 const QString &portName)
{
    if (failure == Failure::TargetGone && rememberedTarget)
        return tr("The port this project used (%1) is not available right now.").arg(portName);
    return reason;
}
