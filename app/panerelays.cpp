#include "app/panerelays.h"

#include "cloud/accountsession.h"
#include "cloud/cloudconsoleservice.h"
#include "cloud/networkservices.h"
#include "cloud/relaycommand.h"
#include "cloud/relayconnector.h"
#include "cloud/relaycontroller.h"
#include "cloud/relaysockettransport.h"
#include "cloud/relaytargetdialog.h"
#include "connection/connectioncontroller.h"
#include "terminal/serialportwidget.h"

#include <QAction>
#include <QSettings>

namespace {
const QString kAllowKey = QStringLiteral("CloudConsoleAllowRelay");
} // namespace

PaneRelays::PaneRelays(QAction *allowRelay, QWidget *window)
    : QObject(window)
    , m_allowRelay(allowRelay)
    , m_window(window)
    , m_network(NetworkServices::instance())
    , m_account(AccountSession::instance())
{
    m_allowRelay->setCheckable(true);
    {
        const QSignalBlocker blocker(m_allowRelay);
        m_allowRelay->setChecked(QSettings().value(kAllowKey, false).toBool());
    }
    connect(m_allowRelay, &QAction::toggled, this, &PaneRelays::setAllowed);
}

QString PaneRelays::switchedOffText()
{
    return tr("Live Relay was switched off on this computer.");
}

QString PaneRelays::ownCid(qint32 userId)
{
    // Written by the Live Console for the account it belongs to.
    const QSettings settings;
    if (settings.value(QStringLiteral("CloudConsoleCidAccount")).toInt() != userId)
        return {};
    return settings.value(QStringLiteral("CloudConsoleCid")).toString();
}

void PaneRelays::attachConsole(CloudConsoleService *console)
{
    m_console = console;
    RelayCommand::addTo(*console, [this] {
        QList<PortSession *> sessions;
        for (const QPointer<SerialPortWidget> &pane : std::as_const(m_panes)) {
            if (pane)
                sessions.append(pane->session());
        }
        return sessions;
    }, &NetworkServices::baseUrl);
}

void PaneRelays::setAllowed(bool on)
{
    QSettings().setValue(kAllowKey, on);
    if (m_console)
        m_console->consentChanged();  // the ports' "open_relay" capability
    if (on)
        return;
    for (const QPointer<SerialPortWidget> &pane : std::as_const(m_panes)) {
        if (RelayController *relay = pane ? RelayController::of(pane->session()) : nullptr)
            relay->end(switchedOffText());
    }
}

void PaneRelays::adopt(SerialPortWidget *pane)
{
    m_panes.removeAll(nullptr);
    m_panes.append(pane);
    pane->controller()->setRelayFactory(
        [this, pane](const ConnectionConfig &config) { return makeRelay(pane, config); });
    connect(pane, &SerialPortWidget::relayTargetRequested, this, [this, pane] { chooseTarget(pane); });
}

void PaneRelays::chooseTarget(SerialPortWidget *pane)
{
    if (m_dialog)
        m_dialog->close();
    m_dialog = new RelayTargetDialog(m_network, m_account, ownCid(m_account->userId()), m_window);
    m_dialog->setAttribute(Qt::WA_DeleteOnClose);
    const QPointer<SerialPortWidget> target(pane);
    connect(m_dialog, &QDialog::accepted, this, [this, target, dialog = m_dialog.data()] {
        if (!target)
            return;
        const RelayTargetDialog::Choice choice = dialog->choice();
        ConnectionConfig config = target->connectionConfig();
        config.mode = ConnectionMode::RemoteSerialRelay;
        // An invite is kept as its code, with no computer: the join asks
        // for a ticket again at every open.
        config.relayCid = choice.invite ? QString() : choice.cid;
        config.relayPortKey = choice.invite ? choice.code : choice.portKey;
        config.relayPortName = choice.invite ? QString() : choice.portName;
        config.relayShareLabel = choice.label;
        config.relayGuestName = choice.guestName;
        m_passcodes.insert(target->paneId(), choice.passcode);
        m_chosenThisRun.insert(target->paneId(), true);
        target->setRelayTarget(config);
    });
    m_dialog->open();
}

RelayTransport *PaneRelays::makeRelay(SerialPortWidget *pane, const ConnectionConfig &config)
{
    const bool invite = config.relayCid.isEmpty() && !config.relayPortKey.isEmpty();
    const bool device = !config.relayCid.isEmpty() && !config.relayPortKey.isEmpty();
    if (!invite && !device)
        return nullptr;  // "No remote port has been chosen for this connection yet."

    auto *transport = new RelaySocketTransport;
    auto *connector = new RelayConnector(m_network, transport);
    NetworkServices *network = m_network;
    AccountSession *account = m_account;
    transport->setEndHook([network, account](const QString &relayId, const QString &guestToken) {
        if (!guestToken.isEmpty())
            network->endRelaySessionAsGuest(guestToken, relayId);
        else
            network->endRelaySession(account->accessToken(), relayId);
    });
    connect(connector, &RelayConnector::ready, transport,
            [transport](const QString &ticket, const QString &relayId, const QString &, const QString &guestToken) {
                transport->open(NetworkServices::baseUrl(), ticket, relayId, guestToken);
            });
    const bool remembered = !m_chosenThisRun.value(pane->paneId());
    const QString portName = config.relayPortName.isEmpty() ? config.relayShareLabel : config.relayPortName;
    connect(connector, &RelayConnector::failed, transport,
            [transport, connector, remembered, portName](const QString &reason) {
                transport->fail(RelayConnector::paneText(connector->failure(), reason, remembered, portName));
            });
    const QString passcode = m_passcodes.value(pane->paneId());
    // Started from the event loop: the pane attaches the transport first,
    // so even an immediate failure reaches it.
    QMetaObject::invokeMethod(
        connector,
        [connector, transport, account, invite, config, passcode] {
            if (invite) {
                connector->joinInvite(account->accessToken(), config.relayPortKey, passcode, config.relayGuestName);
                return;
            }
            if (!account->isSignedIn()) {
                transport->fail(tr("Sign in to use a port of your own devices."));
                return;
            }
            auto ask = [connector, account, config] {
                connector->connectToPort(account->accessToken(), ownCid(account->userId()), config.relayCid,
                                         config.relayPortKey, config.relayPortName);
            };
            // An expired sign-in is renewed first; the request follows the new token.
            if (!account->isAccessTokenValid() && account->requestRefresh())
                connect(account, &AccountSession::changed, connector, ask, Qt::SingleShotConnection);
            else
                ask();
        },
        Qt::QueuedConnection);
    return transport;
}
