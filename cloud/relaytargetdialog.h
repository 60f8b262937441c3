#pragma once

#include "cloud/relaytargets.h"

#include <QDialog>
#include <QJsonObject>

class AccountSession;
class NetworkServices;
class QDialogButtonBox;
class QLabel;
class QLineEdit;
class QPushButton;
class QTimer;
class QTreeWidget;
class QTreeWidgetItem;

// "Select a Remote Serial Port": join a guest share with an invite code
// (peeked at 500 ms after typing stops, with a passcode box when the share
// asks for one), or pick a port of one of the account's own computers.
class RelayTargetDialog : public QDialog
{
    Q_OBJECT

public:
    struct Choice
    {
        bool invite = false;
        QString code;  // the invite code, without dashes
        QString passcode;
        QString guestName;
        QString label;  // what the share is called, or "computer / port"
        QString cid;
        QString portKey;
        QString portName;
    };

    static constexpr int kPeekDelayMs = 500;
    // A computer that has not reported its ports is asked again this often,
    // this many times.
    static constexpr int kPortWaitMs = 3000;
    static constexpr int kPortWaitTries = 3;

    RelayTargetDialog(NetworkServices *network, AccountSession *account, const QString &ownCid,
                      QWidget *parent = nullptr);

    Choice choice() const;
    void setPortWaitInterval(int ms);
    QString devicesStatus() const;
    QString inviteStatus() const;

public Q_SLOTS:
    void refresh();
    void onRelayResponse(const QJsonObject &response);
    void onRelayPeekResponse(const QString &code, const QJsonObject &response);
    void onNetworkError(const QString &domain, const QString &message, const QString &detail);

private:
    void peek();
    void askForDevices(const QString &status);
    void showDevices(const QList<RelayTargets::Device> &devices);
    void setDevicesStatus(const QString &text);
    void updateAccept();
    const QTreeWidgetItem *chosenPort() const;

    NetworkServices *m_network;
    AccountSession *m_account;
    QString m_ownCid;
    QLineEdit *m_codeEdit;
    QLabel *m_inviteStatus;
    QLineEdit *m_nameEdit;
    QLabel *m_passcodeLabel;
    QLineEdit *m_passcodeEdit;
    QTreeWidget *m_devices;
    QLabel *m_devicesStatus;
    QPushButton *m_refresh;
    QDialogButtonBox *m_buttons;
    QTimer *m_peekTimer;
    QTimer *m_portWait;
    QString m_peekedCode;
    QString m_peekLabel;
    bool m_waitingForDevices = false;
    int m_portWaits = 0;
};
