#include "cloud/manageguestsharesdialog.h"

#include "cloud/guestsharekeeper.h"

#include <QClipboard>
#include <QDateTime>
#include <QDialogButtonBox>
#include <QGuiApplication>
#include <QHeaderView>
#include <QLabel>
#include <QMap>
#include <QPushButton>
#include <QTimer>
#include <QTreeWidget>
#include <QVBoxLayout>

namespace {
constexpr int kShareIdRole = Qt::UserRole;
constexpr int kCodeRole = Qt::UserRole + 1;
} // namespace

ManageGuestSharesDialog::ManageGuestSharesDialog(GuestShareKeeper *keeper, QWidget *parent)
    : QDialog(parent), m_keeper(keeper), m_refreshTimer(new QTimer(this))
{
    setWindowTitle(tr("Manage Guest Shares"));
    auto *layout = new QVBoxLayout(this);
    auto *intro = new QLabel(tr("Every invite live on any of your computers, and who is on each. Stopping one ends "
                                "its session too. Invites are created on the computer that owns the port: Cloud > "
                                "Share Port with a Guest…"),
                             this);
    intro->setWordWrap(true);
    layout->addWidget(intro);

    m_list = new QTreeWidget(this);
    m_list->setObjectName(QStringLiteral("shareList"));
    m_list->setHeaderLabels({tr("Device / Port"), tr("Code"), tr("Guest"), tr("Expires")});
    m_list->header()->setSectionResizeMode(PortColumn, QHeaderView::Stretch);
    m_list->header()->setStretchLastSection(false);
    for (int column : {CodeColumn, GuestColumn, ExpiresColumn})
        m_list->header()->setSectionResizeMode(column, QHeaderView::ResizeToContents);
    layout->addWidget(m_list, 1);

    m_status = new QLabel(this);
    m_status->setObjectName(QStringLiteral("shareListStatus"));
    m_status->setWordWrap(true);
    layout->addWidget(m_status);
    m_revoked = new QLabel(this);
    m_revoked->setObjectName(QStringLiteral("shareListRevoked"));
    m_revoked->setStyleSheet(QStringLiteral("QLabel { color: palette(mid); }"));
    m_revoked->hide();
    layout->addWidget(m_revoked);

    auto *buttons = new QDialogButtonBox(QDialogButtonBox::Close, this);
    m_stop = buttons->addButton(tr("Stop Sharing"), QDialogButtonBox::ActionRole);
    m_stop->setObjectName(QStringLiteral("stopShareButton"));
    m_copy = buttons->addButton(tr("Copy Code"), QDialogButtonBox::ActionRole);
    m_copy->setObjectName(QStringLiteral("copyShareCodeButton"));
    QPushButton *refreshButton = buttons->addButton(tr("Refresh"), QDialogButtonBox::ActionRole);
    refreshButton->setObjectName(QStringLiteral("refreshSharesButton"));
    for (QPushButton *button : {m_stop, m_copy, refreshButton})
        button->setAutoDefault(false);
    connect(m_stop, &QPushButton::clicked, this, &ManageGuestSharesDialog::stopSelected);
    connect(m_copy, &QPushButton::clicked, this, &ManageGuestSharesDialog::copySelectedCode);
    connect(refreshButton, &QPushButton::clicked, this, &ManageGuestSharesDialog::refresh);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    layout->addWidget(buttons);

    connect(m_list, &QTreeWidget::currentItemChanged, this, &ManageGuestSharesDialog::updateButtons);
    m_refreshTimer->setInterval(kRefreshMs);
    connect(m_refreshTimer, &QTimer::timeout, this, &ManageGuestSharesDialog::refresh);
    connect(m_keeper, &GuestShareKeeper::shareOverviewFetched, this, &ManageGuestSharesDialog::showShares);
    connect(m_keeper, &GuestShareKeeper::shareOverviewFailed, this, [this](const QString &message) {
        m_status->setText(tr("Could not load the share list: %1").arg(message));
    });
    connect(m_keeper, &GuestShareKeeper::shareEnded, this, &ManageGuestSharesDialog::onEnded);
    updateButtons();
    resize(620, 360);
}

void ManageGuestSharesDialog::showEvent(QShowEvent *event)
{
    QDialog::showEvent(event);
    m_refreshTimer->start();
    refresh();
}

void ManageGuestSharesDialog::hideEvent(QHideEvent *event)
{
    m_refreshTimer->stop();
    QDialog::hideEvent(event);
}

void ManageGuestSharesDialog::refresh()
{
    if (m_keeper->cid().isEmpty()) {
        m_list->clear();
        m_revoked->hide();
        m_status->setText(tr("Sign in to see your shares."));
        updateButtons();
        return;
    }
    // A stop in progress keeps its words until it is answered.
    if (m_stopping.isEmpty())
        m_status->setText(tr("Loading…"));
    m_keeper->fetchOverview();
}

void ManageGuestSharesDialog::showShares(const QList<GuestShare> &shares, int revoked)
{
    const QString selected = selectedShare() ? selectedShare()->data(PortColumn, kShareIdRole).toString() : QString();
    m_list->clear();
    // One group per computer, this one first, then by name.
    const QString ownCid = m_keeper->cid();
    QMap<std::pair<bool, QString>, QTreeWidgetItem *> groups;
    QTreeWidgetItem *reselect = nullptr;
    for (const GuestShare &share : shares) {
        if (share.ended)
            continue;
        const bool own = share.cid == ownCid;
        const std::pair<bool, QString> key{!own, share.deviceName + QLatin1Char('\n') + share.cid};
        QTreeWidgetItem *&group = groups[key];
        if (!group) {
            group = new QTreeWidgetItem;
            group->setText(PortColumn, own ? tr("%1 (this computer)").arg(share.deviceName) : share.deviceName);
            group->setFlags(Qt::ItemIsEnabled);
        }
        auto *item = new QTreeWidgetItem(group);
        item->setText(PortColumn, share.label.isEmpty() ? share.portName
                                                        : QStringLiteral("%1 — %2").arg(share.portName, share.label));
        item->setText(CodeColumn, share.code);
        item->setText(GuestColumn, guestText(share));
        item->setText(ExpiresColumn, expiresText(share.expiresAt));
        item->setData(PortColumn, kShareIdRole, share.shareId);
        item->setData(PortColumn, kCodeRole, share.code);
        if (share.shareId == selected)
            reselect = item;
    }
    for (QTreeWidgetItem *group : std::as_const(groups))
        m_list->addTopLevelItem(group);
    m_list->expandAll();
    if (reselect)
        m_list->setCurrentItem(reselect);
    if (m_stopping.isEmpty()) {
        const QString notice = std::exchange(m_notice, {});
        m_status->setText(!notice.isEmpty() ? notice
                                            : groups.isEmpty() ? tr("Nothing is shared right now.") : QString());
    }
    m_revoked->setText(tr("Revoked after wrong passcodes in the last 24 hours: %1").arg(revoked));
    m_revoked->setVisible(revoked > 0);
    updateButtons();
}

void ManageGuestSharesDialog::stopSelected()
{
    const QTreeWidgetItem *item = selectedShare();
    if (!item)
        return;
    const QString shareId = item->data(PortColumn, kShareIdRole).toString();
    m_stopping.insert(shareId);
    m_status->setText(tr("Stopping %1…").arg(item->data(PortColumn, kCodeRole).toString()));
    m_keeper->stopShare(shareId);
}

void ManageGuestSharesDialog::onEnded(const QString &shareId, const QString &reason)
{
    Q_UNUSED(reason);
    if (!m_stopping.remove(shareId))
        return;
    m_notice = GuestShare::stoppedText();
    m_status->setText(m_notice);
    m_keeper->fetchOverview();
}

void ManageGuestSharesDialog::copySelectedCode()
{
    if (const QTreeWidgetItem *item = selectedShare()) {
        QGuiApplication::clipboard()->setText(item->data(PortColumn, kCodeRole).toString());
        m_status->setText(tr("Code copied."));
    }
}

const QTreeWidgetItem *ManageGuestSharesDialog::selectedShare() const
{
    const QTreeWidgetItem *item = m_list->currentItem();
    return item && item->parent() ? item : nullptr;
}

void ManageGuestSharesDialog::updateButtons()
{
    const bool share = selectedShare() != nullptr;
    m_stop->setEnabled(share);
    m_copy->setEnabled(share);
}

QString ManageGuestSharesDialog::guestText(const GuestShare &share)
{
    QStringList parts;
    if (share.guest)
        parts.append(share.guest->name);
    if (share.webGuests > 0)
        parts.append(tr("%1 (browser)").arg(share.webGuests));
    return parts.isEmpty() ? tr("waiting") : parts.join(QStringLiteral(", "));
}

QString ManageGuestSharesDialog::expiresText(qint64 expiresAtMs)
{
    if (expiresAtMs <= 0)
        return {};
    return QDateTime::fromMSecsSinceEpoch(expiresAtMs).toString(QStringLiteral("MM-dd HH:mm"));
}
