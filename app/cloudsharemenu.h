#pragma once

#include "cloud/guestshare.h"

#include <QObject>
#include <QPointer>

class CloudConsoleService;
class GuestShareDialog;
class ManageGuestSharesDialog;
class QAction;
class QLabel;
class QStatusBar;
class QWidget;

// The guest-share part of the Cloud menu ("Share Port with a Guest…",
// "Manage Guest Shares…") and the "Live Share" badge in the status bar. It
// opens the dialogs on the console service's shares; sharing needs an open
// serial port and Live Console, which it offers to switch on.
class CloudShareMenu : public QObject
{
    Q_OBJECT
public:
    struct Actions
    {
        QAction *share = nullptr;
        QAction *manage = nullptr;
        QAction *console = nullptr;  // the Live Console switch
    };

    CloudShareMenu(const Actions &actions, CloudConsoleService *service, QStatusBar *statusBar, QWidget *window);

    QLabel *badge() const { return m_badge; }
    GuestShareDialog *shareDialog() const;
    ManageGuestSharesDialog *manageDialog() const;

    // "Live Share · %1" for the shares this computer holds; empty for none.
    static QString badgeText(const QList<GuestShare> &shares);

public Q_SLOTS:
    void openShareDialog();
    void openManageDialog();

private:
    void showShareDialog(const QString &portKey);
    QString workingPortKey() const;
    void updateBadge();

    Actions m_actions;
    CloudConsoleService *m_service;
    QWidget *m_window;
    QLabel *m_badge;
    QPointer<GuestShareDialog> m_shareDialog;
    QPointer<ManageGuestSharesDialog> m_manageDialog;
};
