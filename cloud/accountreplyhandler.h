#pragma once

#include <QJsonObject>
#include <QObject>

class AccountSession;
class NetworkServices;
class SessionSyncCoordinator;

// What the main window does with account replies, without the window: sign
// in on a token, end an expired sign-in, word failures, sign out. The Cloud
// menu and the status bar connect to its signals and stay thin.
class AccountReplyHandler : public QObject
{
    Q_OBJECT
public:
    AccountReplyHandler(NetworkServices *network, AccountSession *session, SessionSyncCoordinator *sync,
                        QObject *parent = nullptr);

    // Sends the sign-out, forgets the account and says so.
    void signOut();

    static QString myAccountTitle();
    // Whether a failure code is the service refusing a token refresh.
    static bool isRefusedRefresh(const QString &code);

signals:
    // A reply carried a token: refresh the account menu and badges.
    void signedIn();
    // A successful reply without a token (profile, devices, binding).
    void accountInfo(const QJsonObject &response);
    void statusMessage(const QString &text, int timeoutMs);
    // A failure for a message box with this title.
    void notice(const QString &title, const QString &text);

public slots:
    void handleAccountResponse(const QJsonObject &response);

private:
    NetworkServices *m_network;
    AccountSession *m_session;
    SessionSyncCoordinator *m_sync;
};
