#pragma once

#include <QDialog>
#include <QJsonObject>

class AccountSession;
class NetworkServices;
class QLabel;
class QPushButton;
class QTreeWidget;

// "My Account": who is signed in on which server, this month's cloud
// traffic, and the computers bound to the account, any of which the user
// can remove. Everything shown comes from the server's replies; the dialog
// asks again on "Refresh" and after a removal.
class MyAccountDialog : public QDialog
{
    Q_OBJECT
public:
    MyAccountDialog(NetworkServices *network, AccountSession *session, QWidget *parent = nullptr);

    // Asks for the devices and the quota.
    void refresh();

    static QString quotaText(const QJsonObject &quota);

public slots:
    void handleAccountResponse(const QJsonObject &response);
    void handleQuotaResponse(const QJsonObject &response);
    void handleNetworkError(const QString &domain, const QString &message, const QString &detail);

private:
    void showDevices(const QJsonArray &devices);
    void removeSelectedDevice();
    void showIdentity();

    NetworkServices *m_network;
    AccountSession *m_session;
    QLabel *m_name;
    QLabel *m_email;
    QLabel *m_server;
    QLabel *m_quota;
    QLabel *m_status;
    QTreeWidget *m_devices;
    QPushButton *m_remove;
};
