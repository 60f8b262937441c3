#pragma once

#include "cloud/sessionstate.h"

#include <QObject>
#include <QPointer>

#include <functional>

class AccountDialog;
class AccountReplyHandler;
class AccountSession;
class MyAccountDialog;
class NetworkServices;
class QAction;
class QLabel;
class QStatusBar;
class QWidget;
class SessionSyncCoordinator;

// The account part of the Cloud menu and its status-bar badge: sign in,
// My Account, Sync Now, Sync Settings..., Sign Out. It wires the account
// session, the reply handler and the settings sync to the window; the window
// only says where the synced settings come from and how to apply them.
class CloudAccountMenu : public QObject
{
    Q_OBJECT
public:
    struct Actions
    {
        QAction *signIn = nullptr;
        QAction *myAccount = nullptr;
        QAction *syncNow = nullptr;
        QAction *syncSettings = nullptr;
        QAction *signOut = nullptr;
    };
    using LocalState = std::function<SessionState()>;
    using ApplyState = std::function<void(const SessionState &state, int language)>;

    CloudAccountMenu(const Actions &actions, QStatusBar *statusBar, LocalState localState, ApplyState applyState,
                     QWidget *window);

    // A kept sign-in renews its access token at start.
    void resumeSignIn();

    AccountSession *session() const { return m_session; }
    SessionSyncCoordinator *sync() const { return m_sync; }
    AccountDialog *signInDialog() const;
    MyAccountDialog *myAccountDialog() const;
    QLabel *badge() const { return m_badge; }

    void openSignIn();
    void openMyAccount();
    void openSyncSettings();
    void syncNow();

private:
    void updateState();
    void showStatus(const QString &text, int timeoutMs);
    void showNotice(const QString &title, const QString &text);
    void askConflictChoice();
    void takeDevice(const QJsonObject &response);
    void connectSync();

    Actions m_actions;
    QStatusBar *m_statusBar;
    ApplyState m_applyState;
    QWidget *m_window;
    NetworkServices *m_network;
    AccountSession *m_session;
    SessionSyncCoordinator *m_sync;
    AccountReplyHandler *m_replies;
    QLabel *m_badge;
    QPointer<AccountDialog> m_signInDialog;
    QPointer<MyAccountDialog> m_myAccountDialog;
    bool m_applying = false;
    // This computer's identifier at the cloud, once a reply named it.
    QString m_cid;
};
