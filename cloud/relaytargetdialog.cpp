#include "cloud/relaytargetdialog.h"

#include "cloud/accountsession.h"
#include "cloud/networkservices.h"

#include <QDialogButtonBox>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QTimer>
#include <QTreeWidget>
#include <QVBoxLayout>

namespace {
constexpr int kCidRole = Qt::UserRole;
constexpr int kPortKeyRole = Qt::UserRole + 1;
constexpr int kPortNameRole = Qt::UserRole + 2;
} // namespace

RelayTargetDialog::RelayTargetDialog(NetworkServices *network, AccountSession *account, const QString &ownCid,
                                     QWidget *parent)
    : QDialog(parent)
    , m_network(network)
    , m_account(account)
    , m_ownCid(ownCid)
    , m_peekTimer(new QTimer(this))
    , m_portWait(new QTimer(this))
{
    setObjectName(QStringLiteral("RelayTargetDialog"));
    setWindowTitle(tr("Select a Remote Serial Port"));
    auto *layout = new QVBoxLayout(this);

    auto *inviteBox = new QGroupBox(tr("Join with an invite code"), this);
    auto *inviteForm = new QFormLayout(inviteBox);
    m_codeEdit = new QLineEdit(inviteBox);
    m_codeEdit->setObjectName(QStringLiteral("inviteCodeEdit"));
    m_codeEdit->setPlaceholderText(tr("XXXX-XXXX-XXXX or the invite link"));
    inviteForm->addRow(tr("Invite code"), m_codeEdit);
    m_inviteStatus = new QLabel(inviteBox);
    m_inviteStatus->setObjectName(QStringLiteral("inviteStatus"));
    m_inviteStatus->setWordWrap(true);
    inviteForm->addRow(QString(), m_inviteStatus);
    m_nameEdit = new QLineEdit(RelayTargets::guestName(), inviteBox);
    m_nameEdit->setObjectName(QStringLiteral("guestNameEdit"));
    m_nameEdit->setPlaceholderText(tr("The name the host will see"));
    m_nameEdit->setToolTip(tr("The name the host will see"));
    inviteForm->addRow(tr("Your name"), m_nameEdit);
    m_passcodeEdit = new QLineEdit(inviteBox);
    m_passcodeEdit->setObjectName(QStringLiteral("passcodeEdit"));
    m_passcodeEdit->setEchoMode(QLineEdit::Password);
    m_passcodeLabel = new QLabel(tr("Passcode"), inviteBox);
    inviteForm->addRow(m_passcodeLabel, m_passcodeEdit);
    inviteForm->setRowVisible(m_passcodeEdit, false);
    layout->addWidget(inviteBox);

    auto *devicesBox = new QGroupBox(tr("Or choose one of your own devices"), this);
    auto *devicesLayout = new QVBoxLayout(devicesBox);
    m_devices = new QTreeWidget(devicesBox);
    m_devices->setObjectName(QStringLiteral("deviceTree"));
    m_devices->setHeaderLabels({tr("Device / Port"), tr("Status")});
    m_devices->header()->setSectionResizeMode(0, QHeaderView::Stretch);
    m_devices->setMinimumHeight(160);
    devicesLayout->addWidget(m_devices);
    auto *statusRow = new QHBoxLayout;
    m_devicesStatus = new QLabel(devicesBox);
    m_devicesStatus->setObjectName(QStringLiteral("devicesStatus"));
    m_devicesStatus->setWordWrap(true);
    statusRow->addWidget(m_devicesStatus, 1);
    m_refresh = new QPushButton(tr("Refresh"), devicesBox);
    m_refresh->setObjectName(QStringLiteral("refreshButton"));
    statusRow->addWidget(m_refresh);
    devicesLayout->addLayout(statusRow);
    layout->addWidget(devicesBox, 1);

    m_buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, this);
    layout->addWidget(m_buttons);
    connect(m_buttons, &QDialogButtonBox::accepted, this, [this] {
        if (!m_nameEdit->text().trimmed().isEmpty())
            RelayTargets::setGuestName(m_nameEdit->text().trimmed());
        accept();
    });
    connect(m_buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);

    m_peekTimer->setObjectName(QStringLiteral("peekTimer"));
    m_peekTimer->setSingleShot(true);
    m_peekTimer->setInterval(kPeekDelayMs);
    connect(m_peekTimer, &QTimer::timeout, this, &RelayTargetDialog::peek);
    connect(m_codeEdit, &QLineEdit::textEdited, this, [this] {
        m_peekTimer->start();  // again after every keystroke
        updateAccept();
    });
    m_portWait->setSingleShot(true);
    m_portWait->setInterval(kPortWaitMs);
    connect(m_portWait, &QTimer::timeout, this, [this] {
        askForDevices(tr("Waiting for the device to report its ports…"));
    });
    connect(m_refresh, &QPushButton::clicked, this, &RelayTargetDialog::refresh);
    connect(m_devices, &QTreeWidget::itemSelectionChanged, this, &RelayTargetDialog::updateAccept);
    connect(m_devices, &QTreeWidget::itemDoubleClicked, this, [this] {
        if (m_buttons->button(QDialogButtonBox::Ok)->isEnabled())
            m_buttons->accepted();
    });
    connect(network, &NetworkServices::relayResponse, this, &RelayTargetDialog::onRelayResponse);
    connect(network, &NetworkServices::relayPeekResponse, this, &RelayTargetDialog::onRelayPeekResponse);
    connect(network, &NetworkServices::networkError, this, &RelayTargetDialog::onNetworkError);

    resize(520, 460);
    updateAccept();
    if (m_account->isSignedIn()) {
        m_portWaits = 0;
        askForDevices(tr("Looking for your devices…"));
    } else {
        setDevicesStatus(tr("Sign in to see your own devices."));
        m_refresh->setEnabled(false);
    }
}

void RelayTargetDialog::setPortWaitInterval(int ms)
{
    m_portWait->setInterval(ms);
}

QString RelayTargetDialog::devicesStatus() const
{
    return m_devicesStatus->text();
}

QString RelayTargetDialog::inviteStatus() const
{
    return m_inviteStatus->text();
}

void RelayTargetDialog::setDevicesStatus(const QString &text)
{
    m_devicesStatus->setText(text);
}

// ------------------------------------------------------------------ devices

void RelayTargetDialog::refresh()
{
    if (!m_account->isSignedIn()) {
        setDevicesStatus(tr("Sign in to see your own devices."));
        return;
    }
    m_portWaits = 0;
    askForDevices(tr("Asking for the port list…"));
}

void RelayTargetDialog::askForDevices(const QString &status)
{
    m_portWait->stop();
    m_waitingForDevices = true;
    setDevicesStatus(status);
    m_network->fetchRelayTargets(m_account->accessToken(), m_ownCid);
}

void RelayTargetDialog::onRelayResponse(const QJsonObject &response)
{
    if (!m_waitingForDevices)
        return;
    const bool ok = response.value(QLatin1String("status")).toBool();
    if (ok && !response.contains(QLatin1String("devices")))
        return;  // another relay reply (a session's end)
    m_waitingForDevices = false;
    if (!ok) {
        const QString description = response.value(QLatin1String("description")).toString();
        setDevicesStatus(description.isEmpty() ? tr("The relay could not be opened.") : description);
        return;
    }
    showDevices(RelayTargets::parseDevices(response));
}

void RelayTargetDialog::showDevices(const QList<RelayTargets::Device> &devices)
{
    const QString keepCid = chosenPort() ? chosenPort()->data(0, kCidRole).toString() : QString();
    const QString keepKey = chosenPort() ? chosenPort()->data(0, kPortKeyRole).toString() : QString();
    m_devices->clear();
    if (devices.isEmpty()) {
        setDevicesStatus(tr("No devices are bound to this account yet."));
        updateAccept();
        return;
    }
    bool silentDevice = false;
    for (const RelayTargets::Device &device : devices) {
        auto *deviceItem = new QTreeWidgetItem(m_devices, {device.name, device.online ? tr("Online") : tr("Offline")});
        deviceItem->setData(0, kCidRole, device.cid);
        deviceItem->setFlags(Qt::ItemIsEnabled);
        if (device.ports.isEmpty()) {
            auto *none = new QTreeWidgetItem(deviceItem, {tr("No ports reported yet"), QString()});
            none->setFlags(Qt::NoItemFlags);
            silentDevice = silentDevice || device.online;
        }
        for (const RelayTargets::Port &port : device.ports) {
            QString status;
            if (!device.online)
                status = tr("Offline");
            else if (!port.relayAllowed)
                status = tr("Relay not allowed there");
            else
                status = port.open ? tr("Open") : tr("Closed");
            const QString name = port.label.isEmpty() || port.label == port.name
                ? port.name
                : QStringLiteral("%1 (%2)").arg(port.name, port.label);
            auto *portItem = new QTreeWidgetItem(deviceItem, {name, status});
            portItem->setData(0, kCidRole, device.cid);
            portItem->setData(0, kPortKeyRole, port.key);
            portItem->setData(0, kPortNameRole, port.name);
            const bool usable = device.online && port.relayAllowed && port.open;
            portItem->setFlags(usable ? Qt::ItemIsEnabled | Qt::ItemIsSelectable : Qt::NoItemFlags);
            if (usable && device.cid == keepCid && port.key == keepKey)
                portItem->setSelected(true);
        }
        deviceItem->setExpanded(true);
    }
    if (silentDevice && m_portWaits < kPortWaitTries) {
        ++m_portWaits;
        setDevicesStatus(tr("Waiting for the device to report its ports…"));
        m_portWait->start();
    } else if (silentDevice) {
        setDevicesStatus(tr("The device has not reported its ports. Press Refresh to ask again."));
    } else {
        setDevicesStatus(QString());
    }
    updateAccept();
}

const QTreeWidgetItem *RelayTargetDialog::chosenPort() const
{
    const QList<QTreeWidgetItem *> selected = m_devices->selectedItems();
    if (selected.isEmpty() || selected.constFirst()->data(0, kPortKeyRole).toString().isEmpty())
        return nullptr;
    return selected.constFirst();
}

// ------------------------------------------------------------------- invites

void RelayTargetDialog::peek()
{
    const QString code = RelayTargets::inviteCode(m_codeEdit->text());
    m_peekedCode = code;
    m_peekLabel.clear();
    if (code.isEmpty()) {
        // Judged without the separators, so a code typed half way is not
        // called wrong; a link is whole once pasted.
        QString bare = m_codeEdit->text();
        bare.remove(QLatin1Char(' ')).remove(QLatin1Char('-'));
        const bool complete = bare.size() >= RelayTargets::kInviteCodeLength || bare.contains(QLatin1Char('/'));
        m_inviteStatus->setText(complete ? tr("That does not look like an invite code.") : QString());
        return;
    }
    m_inviteStatus->setText(tr("Checking the code…"));
    m_network->peekInvite(m_account->accessToken(), code);
}

void RelayTargetDialog::onRelayPeekResponse(const QString &code, const QJsonObject &response)
{
    if (code != m_peekedCode)
        return;  // an answer about a code no longer typed
    auto *form = qobject_cast<QFormLayout *>(m_passcodeEdit->parentWidget()->layout());
    if (!response.value(QLatin1String("status")).toBool()) {
        form->setRowVisible(m_passcodeEdit, false);
        m_inviteStatus->setText(response.value(QLatin1String("code")).toString() == QLatin1String("too_many_attempts")
                                    ? tr("Too many tries. Wait a minute.")
                                    : tr("That code is not valid or has expired."));
        return;
    }
    QString label = response.value(QLatin1String("label")).toString();
    if (label.isEmpty())
        label = response.value(QLatin1String("device_name")).toString();
    m_peekLabel = label;
    if (!response.value(QLatin1String("online")).toBool(true))
        m_inviteStatus->setText(tr("%1 — the host is offline right now.").arg(label));
    else if (response.value(QLatin1String("busy")).toBool())
        m_inviteStatus->setText(tr("%1 — someone is already connected to that port.").arg(label));
    else
        m_inviteStatus->setText(tr("%1 — ready.").arg(label));
    form->setRowVisible(m_passcodeEdit, response.value(QLatin1String("passcode_required")).toBool());
}

void RelayTargetDialog::onNetworkError(const QString &domain, const QString &message, const QString &detail)
{
    Q_UNUSED(detail);
    if (domain == QLatin1String("relay") && m_waitingForDevices) {
        m_waitingForDevices = false;
        setDevicesStatus(message);
    } else if (domain == QLatin1String("relaypeek:") + m_peekedCode && !m_peekedCode.isEmpty()) {
        m_inviteStatus->setText(message);
    }
}

// -------------------------------------------------------------------- result

void RelayTargetDialog::updateAccept()
{
    const bool invite = !RelayTargets::inviteCode(m_codeEdit->text()).isEmpty();
    m_buttons->button(QDialogButtonBox::Ok)->setEnabled(invite || chosenPort());
}

RelayTargetDialog::Choice RelayTargetDialog::choice() const
{
    Choice choice;
    choice.guestName = m_nameEdit->text().trimmed();
    const QString code = RelayTargets::inviteCode(m_codeEdit->text());
    if (!code.isEmpty()) {
        choice.invite = true;
        choice.code = code;
        choice.passcode = m_passcodeEdit->text();
        choice.label = m_peekLabel.isEmpty() ? RelayTargets::displayInviteCode(code) : m_peekLabel;
        return choice;
    }
    if (const QTreeWidgetItem *port = chosenPort()) {
        choice.cid = port->data(0, kCidRole).toString();
        choice.portKey = port->data(0, kPortKeyRole).toString();
        choice.portName = port->data(0, kPortNameRole).toString();
        choice.label = QStringLiteral("%1 / %2").arg(port->parent()->text(0), choice.portName);
    }
    return choice;
}
