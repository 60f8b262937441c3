#pragma once

#include <QDialog>
#include <QJsonObject>
#include <QMessageBox>

class AccountSession;
class NetworkServices;
class QCheckBox;
class QLabel;
class QLineEdit;
class QPushButton;
class QTabWidget;
class QTimer;

// The modal dialog in which the user signs in, or registers an account
// with a code sent to the e-mail address. It shows the server in use and
// lets the user change it (the setting `HostAddress`).
class AccountDialog : public QDialog
{
    Q_OBJECT
public:
    static constexpr int kReplyTimeoutMs = 20000;

    AccountDialog(NetworkServices *network, AccountSession *session, QWidget *parent = nullptr);

signals:
    // Every message box the dialog shows, for the window's status and tests.
    void messageShown(QMessageBox::Icon icon, const QString &text);

public slots:
    void sendCode();
    void signIn();
    void registerAccount();
    void handleAccountResponse(const QJsonObject &response);
    void handleNetworkError(const QString &domain, const QString &message, const QString &detail);

private:
    void startRequest(QLabel *status, const QString &text);
    void setInputsEnabled(bool enabled);
    void showMessage(QMessageBox::Icon icon, const QString &text);
    void onReplyTimeout();
    void applyServer();
    QLabel *activeStatus() const;

    NetworkServices *m_network;
    AccountSession *m_session;
    QTimer *m_replyTimer;
    // A request of this dialog is out; a late answer (after the reply
    // timer gave up) is still taken.
    bool m_awaitingReply = false;
    QTabWidget *m_tabs;
    QLineEdit *m_server;
    QLineEdit *m_loginEmail;
    QLineEdit *m_loginPassword;
    QCheckBox *m_keepSignedIn;
    QPushButton *m_signInButton;
    QLabel *m_loginStatus;
    QLineEdit *m_registerEmail;
    QPushButton *m_sendCodeButton;
    QLineEdit *m_username;
    QLineEdit *m_registerPassword;
    QLineEdit *m_confirm;
    QLineEdit *m_code;
    QPushButton *m_registerButton;
    QLabel *m_registerStatus;
};
