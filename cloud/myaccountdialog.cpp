#include "cloud/myaccountdialog.h"

#include "cloud/accountreplyhandler.h"
#include "cloud/accountsession.h"
#include "cloud/networkservices.h"

#include <QDateTime>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QHeaderView>
#include <QJsonArray>
#include <QLabel>
#include <QLocale>
#include <QMessageBox>
#include <QPushButton>
#include <QSysInfo>
#include <QTreeWidget>
#include <QVBoxLayout>

namespace {
enum Column { NameColumn, VersionColumn, LastSeenColumn };
constexpr int kDeviceIdRole = Qt::UserRole;
constexpr int kCurrentRole = Qt::UserRole + 1;

QString whenText(qint64 seconds)
{
    if (seconds <= 0)
        return QString();
    return QLocale().toString(QDateTime::fromSecsSinceEpoch(seconds).toLocalTime(), QLocale::ShortFormat);
}
} // namespace

MyAccountDialog::MyAccountDialog(NetworkServices *network, AccountSession *session, QWidget *parent)
    : QDialog(parent), m_network(network), m_session(session)
{
    setWindowTitle(AccountReplyHandler::myAccountTitle());
    auto *layout = new QVBoxLayout(this);
    auto *form = new QFormLayout;
    m_name = new QLabel(this);
    m_email = new QLabel(this);
    m_server = new QLabel(NetworkServices::baseUrl(), this);
    m_quota = new QLabel(this);
    m_name->setObjectName(QStringLiteral("accountName"));
    m_email->setObjectName(QStringLiteral("accountEmail"));
    m_server->setObjectName(QStringLiteral("accountServer"));
    m_quota->setObjectName(QStringLiteral("accountQuota"));
    for (QLabel *label : {m_name, m_email, m_server, m_quota})
        label->setTextInteractionFlags(Qt::TextSelectableByMouse);
    form->addRow(tr("Username"), m_name);
    form->addRow(tr("Email"), m_email);
    form->addRow(tr("Server"), m_server);
    form->addRow(tr("Cloud traffic"), m_quota);
    layout->addLayout(form);

    m_devices = new QTreeWidget(this);
    m_devices->setObjectName(QStringLiteral("deviceList"));
    m_devices->setRootIsDecorated(false);
    m_devices->setHeaderLabels({tr("Computer"), tr("Version"), tr("Last seen")});
    m_devices->header()->setSectionResizeMode(NameColumn, QHeaderView::Stretch);
    layout->addWidget(m_devices, 1);

    m_status = new QLabel(this);
    m_status->setObjectName(QStringLiteral("accountStatus"));
    m_status->setWordWrap(true);
    m_status->setStyleSheet(QStringLiteral("QLabel { color: palette(mid); }"));
    layout->addWidget(m_status);

    auto *buttons = new QDialogButtonBox(QDialogButtonBox::Close, this);
    m_remove = buttons->addButton(tr("Remove Computer"), QDialogButtonBox::ActionRole);
    m_remove->setObjectName(QStringLiteral("removeDeviceButton"));
    m_remove->setEnabled(false);
    QPushButton *refreshButton = buttons->addButton(tr("Refresh"), QDialogButtonBox::ActionRole);
    connect(refreshButton, &QPushButton::clicked, this, &MyAccountDialog::refresh);
    connect(m_remove, &QPushButton::clicked, this, &MyAccountDialog::removeSelectedDevice);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    connect(m_devices, &QTreeWidget::currentItemChanged, this,
            [this](QTreeWidgetItem *item) { m_remove->setEnabled(item != nullptr); });
    layout->addWidget(buttons);

    connect(m_network, &NetworkServices::accountResponse, this, &MyAccountDialog::handleAccountResponse);
    connect(m_network, &NetworkServices::cloudQuotaResponse, this, &MyAccountDialog::handleQuotaResponse);
    connect(m_network, &NetworkServices::networkError, this, &MyAccountDialog::handleNetworkError);
    connect(m_session, &AccountSession::changed, this, &MyAccountDialog::showIdentity);
    showIdentity();
    resize(520, 360);
}

void MyAccountDialog::showIdentity()
{
    m_name->setText(m_session->displayName());
    m_email->setText(m_session->email());
}

void MyAccountDialog::refresh()
{
    m_server->setText(NetworkServices::baseUrl());
    m_status->setText(tr("Asking the server…"));
    const QString token = m_session->accessToken();
    m_network->fetchAccountDevices(token);
    m_network->fetchCloudQuota(token);
}

QString MyAccountDialog::quotaText(const QJsonObject &quota)
{
    const QLocale locale;
    const qint64 used = quota.value(QLatin1String("used_bytes")).toInteger();
    const qint64 limit = quota.value(QLatin1String("limit_bytes")).toInteger();
    if (!quota.value(QLatin1String("enforced")).toBool() || limit <= 0)
        return tr("%1 this month (no limit)").arg(locale.formattedDataSize(used));
    return tr("%1 of %2 this month").arg(locale.formattedDataSize(used), locale.formattedDataSize(limit));
}

void MyAccountDialog::handleAccountResponse(const QJsonObject &response)
{
    if (!response.value(QLatin1String("status")).toBool())
        return;  // the window words failures
    if (response.contains(QLatin1String("devices"))) {
        showDevices(response.value(QLatin1String("devices")).toArray());
        m_status->clear();
    } else if (response.contains(QLatin1String("removed"))) {
        m_network->fetchAccountDevices(m_session->accessToken());
    }
}

void MyAccountDialog::handleQuotaResponse(const QJsonObject &response)
{
    if (response.value(QLatin1String("status")).toBool())
        m_quota->setText(quotaText(response));
}

void MyAccountDialog::handleNetworkError(const QString &domain, const QString &message, const QString &detail)
{
    Q_UNUSED(detail);
    if (domain == QLatin1String("account") || domain == QLatin1String("cloud"))
        m_status->setText(message);
}

void MyAccountDialog::showDevices(const QJsonArray &devices)
{
    m_devices->clear();
    for (const QJsonValue &value : devices) {
        const QJsonObject device = value.toObject();
        const bool current = device.value(QLatin1String("current")).toBool();
        const QString stored = device.value(QLatin1String("name")).toString();
        QString name = stored;
        if (current) {
            // The service knows this computer by its number; people know it
            // by its name.
            const QString host = QSysInfo::machineHostName();
            name = tr("%1 (this computer)").arg(host.isEmpty() ? stored : host);
        }
        auto *item = new QTreeWidgetItem(m_devices, {name, device.value(QLatin1String("client_version")).toString(),
                                                     whenText(device.value(QLatin1String("last_seen_at")).toInteger())});
        item->setData(NameColumn, kDeviceIdRole, device.value(QLatin1String("id")).toVariant().toString());
        item->setToolTip(NameColumn, stored);
        item->setData(NameColumn, kCurrentRole, current);
    }
    m_remove->setEnabled(m_devices->currentItem() != nullptr);
}

void MyAccountDialog::removeSelectedDevice()
{
    QTreeWidgetItem *item = m_devices->currentItem();
    if (!item)
        return;
    const bool current = item->data(NameColumn, kCurrentRole).toBool();
    const QString question = current
        ? tr("Remove this computer from the account? It stays signed in until the sign-in ends.")
        : tr("Remove \"%1\" from the account?").arg(item->text(NameColumn));
    if (QMessageBox::question(this, windowTitle(), question) != QMessageBox::Yes)
        return;
    m_network->removeAccountDevice(m_session->accessToken(), item->data(NameColumn, kDeviceIdRole).toString());
}
