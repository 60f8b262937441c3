#pragma once

#include <QHash>
#include <QList>
#include <QObject>
#include <QPointer>

#include "cloud/relaytargetdialog.h"

class AccountSession;
class CloudConsoleService;
class NetworkServices;
class QAction;
class RelayTransport;
class SerialPortWidget;
struct ConnectionConfig;

// Live Relay in the window: each pane's relay transport for mode 8 (a
// ticket from the cloud, then the relay socket), the target dialog a pane
// opens to pick its remote port, and the Cloud menu's "Live Relay" switch
// (`CloudConsoleAllowRelay`), which, turned off, ends the relays this
// computer hosts.
class PaneRelays : public QObject
{
    Q_OBJECT

public:
    PaneRelays(QAction *allowRelay, QWidget *window);

    // The Live Console whose "open_relay" commands start the relays this
    // computer hosts, and whose snapshots say whether it allows them.
    void attachConsole(CloudConsoleService *console);
    void adopt(SerialPortWidget *pane);
    void chooseTarget(SerialPortWidget *pane);
    RelayTargetDialog *dialog() const { return m_dialog; }
    // This computer's Live Console identity for the signed-in account, or
    // empty when it has none yet.
    static QString ownCid(qint32 userId);
    static QString switchedOffText();

private:
    RelayTransport *makeRelay(SerialPortWidget *pane, const ConnectionConfig &config);
    void setAllowed(bool on);

    QAction *m_allowRelay;
    QWidget *m_window;
    NetworkServices *m_network;
    AccountSession *m_account;
    QPointer<CloudConsoleService> m_console;
    QList<QPointer<SerialPortWidget>> m_panes;
    // Chosen in this run (a remembered target reads differently when it is
    // gone), and an invite's passcode, never saved: by pane id.
    QHash<int, QString> m_passcodes;
    QHash<int, bool> m_chosenThisRun;
    QPointer<RelayTargetDialog> m_dialog;
};
