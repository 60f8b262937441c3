#include "app/cloudsharemenu.h"

#include "cloud/cloudconsoleservice.h"
#include "cloud/guestsharedialog.h"
#include "cloud/guestsharekeeper.h"
#include "cloud/manageguestsharesdialog.h"
#include "terminal/portsession.h"
#include "terminal/serialportwidget.h"

#include <QAction>
#include <QApplication>
#include <QDateTime>
#include <QLabel>
#include <QMessageBox>
#include <QStatusBar>

CloudShareMenu::CloudShareMenu(const Actions &actions, CloudConsoleService *service, QStatusBar *statusBar,
                               QWidget *window)
    : QObject(window)
    , m_actions(actions)
    , m_service(service)
    , m_window(window)
    , m_badge(new QLabel(statusBar))
{
    m_badge->setObjectName(QStringLiteral("shareBadge"));
    m_badge->setStyleSheet(QStringLiteral("QLabel { color: #1f6feb; font-weight: bold; }"));
    m_badge->hide();
    statusBar->addPermanentWidget(m_badge);
    connect(m_actions.share, &QAction::triggered, this, &CloudShareMenu::openShareDialog);
    connect(m_actions.manage, &QAction::triggered, this, &CloudShareMenu::openManageDialog);
    for (auto signal : {&CloudConsoleService::shareCreated, &CloudConsoleService::shareChanged})
        connect(m_service, signal, this, &CloudShareMenu::updateBadge);
    connect(m_service, &CloudConsoleService::shareEnded, this, &CloudShareMenu::updateBadge);
}

GuestShareDialog *CloudShareMenu::shareDialog() const
{
    return m_shareDialog;
}

ManageGuestSharesDialog *CloudShareMenu::manageDialog() const
{
    return m_manageDialog;
}

QString CloudShareMenu::badgeText(const QList<GuestShare> &shares)
{
    if (shares.isEmpty())
        return {};
    qint64 soonest = 0;
    bool guests = false;
    for (const GuestShare &share : shares) {
        guests = guests || share.hasGuests();
        if (share.expiresAt > 0 && (soonest == 0 || share.expiresAt < soonest))
            soonest = share.expiresAt;
    }
    const QString what = guests && soonest > 0
        ? tr("expires %1").arg(QDateTime::fromMSecsSinceEpoch(soonest).toString(QStringLiteral("HH:mm")))
        : tr("waiting for a guest");
    return tr("Live Share · %1").arg(what);
}

void CloudShareMenu::updateBadge()
{
    const QString text = badgeText(m_service->shares()->shares());
    m_badge->setText(text);
    m_badge->setVisible(!text.isEmpty());
}

QString CloudShareMenu::workingPortKey() const
{
    // The pane the user works in holds the focus while the menu is open.
    for (QWidget *w = QApplication::focusWidget(); w; w = w->parentWidget()) {
        if (auto *pane = qobject_cast<SerialPortWidget *>(w))
            return pane->session()->portKey();
    }
    return {};
}

void CloudShareMenu::openShareDialog()
{
    const QString portKey = workingPortKey();
    if (m_service->shares()->shareablePorts().isEmpty()) {
        auto *box = new QMessageBox(QMessageBox::Information, m_actions.share->text(),
                                    GuestShareKeeper::openSerialPortFirstText(), QMessageBox::Ok, m_window);
        box->setObjectName(QStringLiteral("shareNeedsPortBox"));
        box->setAttribute(Qt::WA_DeleteOnClose);
        box->open();
        return;
    }
    if (m_service->isEnabled()) {
        showShareDialog(portKey);
        return;
    }
    // Not exec(): the replies behind a waiting box must not be held up.
    auto *box = new QMessageBox(QMessageBox::Question, m_actions.share->text(),
                                tr("Sharing needs Live Console switched on. Switch it on now?"),
                                QMessageBox::Yes | QMessageBox::No, m_window);
    box->setObjectName(QStringLiteral("shareNeedsConsoleBox"));
    box->setAttribute(Qt::WA_DeleteOnClose);
    connect(box, &QMessageBox::finished, this, [this, box, portKey] {
        if (box->clickedButton() != box->button(QMessageBox::Yes))
            return;
        m_actions.console->setChecked(true);
        showShareDialog(portKey);
    });
    box->open();
}

void CloudShareMenu::showShareDialog(const QString &portKey)
{
    if (!m_shareDialog) {
        // Without a pane in focus the form offers the first open serial port.
        QString key = portKey;
        if (const QList<PortSession *> ports = m_service->shares()->shareablePorts(); key.isEmpty() && !ports.isEmpty())
            key = ports.first()->portKey();
        m_shareDialog = new GuestShareDialog(m_service->shares(), key, m_window);
        m_shareDialog->setAttribute(Qt::WA_DeleteOnClose);
        // A port already shared shows its share rather than a new form.
        for (const GuestShare &share : m_service->shares()->shares()) {
            if (share.portKey == key) {
                m_shareDialog->watchShare(share.shareId);
                break;
            }
        }
    }
    m_shareDialog->show();
    m_shareDialog->raise();
    m_shareDialog->activateWindow();
}

void CloudShareMenu::openManageDialog()
{
    if (!m_manageDialog) {
        m_manageDialog = new ManageGuestSharesDialog(m_service->shares(), m_window);
        m_manageDialog->setAttribute(Qt::WA_DeleteOnClose);
    }
    m_manageDialog->show();
    m_manageDialog->raise();
    m_manageDialog->activateWindow();
}
