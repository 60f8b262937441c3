#pragma once

#include "cloud/consolecommandledger.h"
#include "cloud/consolecommandtable.h"
#include "cloud/consoleportcommands.h"
#include "cloud/consoletrafficbuffer.h"
#include "cloud/consolewatchstate.h"

#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QPointer>

#include <optional>

class AccountSession;
class ConsoleSocket;
class NetworkServices;
class PortSession;
class QTimer;

// Live Console: announces this computer to the cloud service, takes the
// commands a watcher sends, runs them on the ports and reports their
// results, and streams the ports' traffic while somebody watches. Its own
// socket carries all of it when the service allows one; without it, HTTP
// through NetworkServices does (heartbeats, command polls, result posts).
// Nothing here blocks: timers and replies drive it.
class CloudConsoleService : public QObject
{
    Q_OBJECT
public:
    // The intervals of the timers; tests shorten them.
    struct Timing
    {
        int heartbeatMs = 20000;
        ConsolePollSchedule::Intervals pollMs = ConsolePollSchedule::kIntervalsMs;
        int uploadMs = 2000;
        int resultRetryMs = 30000;
        int watchdogMs = 15000;
        int snapshotMs = 60000;
        // Port changes while watched (opened, closed, added, removed) are
        // gathered this long into one snapshot.
        int snapshotSettleMs = 250;
    };
    using PortList = ConsolePortCommands::PortList;

    CloudConsoleService(NetworkServices *network, AccountSession *account, PortList ports, QObject *parent = nullptr);
    ~CloudConsoleService() override;

    void setTiming(const Timing &timing);
    ConsoleSocket *socket() const { return m_socket; }
    // The command table; relays and shares add their commands and gate.
    ConsoleCommandTable &commands() { return m_commands; }

    void setEnabled(bool on);
    bool isEnabled() const { return m_enabled; }
    bool isWatching() const { return m_watch.isWatching(); }
    bool isSocketAllowed() const { return m_socketAllowed; }
    QString cid() const { return m_cid; }
    QString sessionId() const { return m_sessionId; }
    int pollIntervalMs() const;
    const ConsoleTrafficBuffer &traffic() const { return m_traffic; }
    const ConsoleCommandLedger &ledger() const { return m_ledger; }
    // Bytes the account may still upload this month, once the service said.
    std::optional<qint64> uploadRemaining() const { return m_uploadRemaining; }

    static QString quotaStopText();

public Q_SLOTS:
    // The window's panes changed (added, removed).
    void portsChanged();
    // The owner changed what watchers may do: the ports say so again.
    void consentChanged();
    void sendSnapshot();

    void onHeartbeatTick();
    void onPollTick();
    void onUploadTick();
    void onResultRetryTick();
    void onSocketWatchdogTick();
    void onConsoleResponse(const QJsonObject &response);
    void onSocketReady();
    void onSocketDisconnected();
    void onPortTraffic(const QString &portKey, bool isTx, const QString &text);
    void onPortSourceDestroyed(QObject *source);

Q_SIGNALS:
    void stoppedItself(const QString &reason);
    void watchingChanged(bool watching);
    // A command ran (once, however often it was delivered).
    void commandRun(const QString &commandId, const QString &command, const QJsonObject &result);

private:
    enum class Channel { Http, Socket };

    void handleResponse(const QJsonObject &response, Channel channel);
    void applyWatching(bool watching, bool authoritative);
    void beginWatching();
    void endWatching(bool uploadFirst);
    void tap(PortSession *session);
    void untapAll();
    void scheduleSnapshot();
    void runCommands(const QJsonArray &commands, Channel channel);
    void deliverResult(const QString &commandId, const QJsonObject &result);
    void startSocket();
    void stopForQuota();
    void onAccountChanged();
    // The access token to send now: empty while signed out or while a
    // renewal is awaited (which this asks for).
    QString usableToken() const;
    QJsonObject identity() const;
    QJsonObject hello() const;

    NetworkServices *m_network;
    AccountSession *m_account;
    PortList m_ports;
    ConsoleSocket *m_socket;
    Timing m_timing;
    ConsoleCommandTable m_commands;
    ConsoleCommandLedger m_ledger;
    ConsoleTrafficBuffer m_traffic;
    ConsoleWatchState m_watch;
    ConsolePollSchedule m_poll;

    QTimer *m_heartbeatTimer;
    QTimer *m_pollTimer;
    QTimer *m_uploadTimer;
    QTimer *m_resultRetryTimer;
    QTimer *m_watchdogTimer;
    QTimer *m_snapshotTimer;
    QTimer *m_snapshotSettleTimer;

    bool m_enabled = false;
    bool m_socketAllowed = false;
    const QString m_sessionId;
    QString m_cid;
    qint32 m_cidAccount = 0;
    bool m_hadToken = false;
    std::optional<qint64> m_uploadRemaining;
    QList<QPointer<PortSession>> m_tapped;
};
