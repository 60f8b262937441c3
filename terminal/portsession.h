#pragma once

#include "common/monotonicclock.h"
#include "common/result.h"
#include "connection/connectionconfig.h"
#include "connection/porttransport.h"
#include "connection/rfc2217clientsession.h"
#include "terminal/displaychunk.h"
#include "terminal/displayformatter.h"
#include "terminal/linestepper.h"
#include "terminal/logwriter.h"
#include "common/paneoptions.h"
#include "terminal/receiveingest.h"
#include "terminal/reconnectpolicy.h"
#include "terminal/sendhistory.h"
#include "terminal/wiretextdecoder.h"

#include <QElapsedTimer>
#include <QJsonObject>
#include <QObject>
#include <QStringList>

#include <functional>

class ConnectionController;
class QTimer;

// One port as its users see it, without any widget: the connection and its
// controller, what was received waiting for a view, the send path (framing,
// history, line stepping, auto send), the data log, the reconnect policy,
// the file-transfer lock and the taps that copy traffic to the console and
// to bridges. A pane is a view over one session; the Live Console, the
// relay, a file transfer or a command-line front end can drive a session
// just the same.
class PortSession : public QObject
{
    Q_OBJECT

public:
    enum class ViewState { Normal, Paused, Transfer };

    static constexpr int kSaveIntervalMs = 5000;
    // The same log failure is said again at most this often.
    static constexpr qint64 kLogFailureRepeatMs = 30000;
    static constexpr int kRecentHostLimit = 10;

    // While a file transfer runs, received bytes go to this function instead
    // of the queue; it returns whether it took them.
    using ReceiveTaker = std::function<bool(const QByteArray &)>;

    explicit PortSession(int paneId, QObject *parent = nullptr);
    ~PortSession() override;

    int paneId() const { return m_paneId; }
    // "%1-%2": the mode's tag and the pane's identifier.
    QString connectionLabel() const;
    // How the Live Console names this port: "p" and a serial number given
    // once per session and never again in this run, so it stays the same
    // while the session lives whatever its mode or pane number.
    const QString &portKey() const { return m_portKey; }
    // What the Live Console tells a watcher about this port: "port_key",
    // "connection_mode", "mode_tag", "port_name", "label", "open" and, for a
    // serial port, its parameters in their text forms.
    QJsonObject snapshotEntry() const;
    ConnectionController *controller() const { return m_controller; }

    // Time for the reconnect policy; tests pass a virtual clock and call
    // onReconnectTick() themselves.
    void setClock(MonotonicClock clock) { m_clock = std::move(clock); }

    // ---- Settings ----
    // Replaces every setting; announces nothing.
    void applySettings(const ConnectionConfig &config, const PaneOptions &options, const QStringList &sendHistory);
    const ConnectionConfig &config() const { return m_config; }
    const PaneOptions &options() const { return m_options; }
    // Options that change how text is shown or sent, without reopening. What
    // is queued is shown as it was received, before the change. An unknown
    // encoding is refused with its message and the old one kept.
    Result setOptions(const PaneOptions &options);
    // A new connection record: a running connection is closed and reopened.
    void setConnectionConfig(const ConnectionConfig &config);
    // New serial parameters: applied to an open port first; refused ones
    // leave everything as it was (the message says why).
    Result setSerialParameters(const ConnectionConfig &edited);
    // Whether the line took the level (a pty refuses DTR and RTS).
    bool setControlLine(bool dtr, bool on);
    const QStringList &sendHistory() const { return m_history.entries(); }
    void clearSendHistory();

    // ---- Connection ----
    bool openConnection(const QString &portName = {}, bool silent = false);
    void closeConnection();
    // Whether the user's session is on (it may be waiting to reconnect).
    bool isStarted() const { return m_open; }
    bool isConnectionOpen() const;
    void setAutoReconnect(bool on) { m_autoReconnect = on; }
    bool autoReconnect() const { return m_autoReconnect; }
    bool isReconnecting() const { return m_reconnect.isWaiting(); }
    const ReconnectPolicy &reconnectPolicy() const { return m_reconnect; }
    // The port name in use, or the connection's endpoint text.
    QString currentRealPortName() const;
    QString endpointText() const;
    // The rich status line: opened, connecting, waiting or closed.
    QString statusLine() const;
    bool sendBreak(bool on);
    // Why the pane's control lines and Break do nothing in this mode; empty
    // where they act on a port.
    QString controlLineRefusal() const;
    static QString relayControlLineText();
    // Remote serial port: the last line-state and modem-state bytes the
    // remote reported (Rfc2217ClientSession's bits); 0 before any.
    quint8 remoteLineState() const { return m_remoteLineState; }
    quint8 remoteModemState() const { return m_remoteModemState; }

    // ---- Receive ----
    // Every received chunk comes through here (the controller pushes).
    void ingestReceived(const QByteArray &data, const QString &peer = {});
    // Pulls what the controller holds (nothing, usually: it pushes).
    void readPending();
    ReceiveIngest &ingest() { return m_ingest; }
    const ReceiveIngest &ingest() const { return m_ingest; }
    // The formatter that turns queued chunks into view text.
    DisplayFormatter &viewFormatter() { return m_viewFormatter; }
    // Takes chunks for the view within a byte budget (-1: all) and a time
    // limit (-1: none); at least one chunk when any waits. Reading resumes
    // when the backlog has shrunk.
    QList<DisplayChunk> takeForView(qint64 byteBudget, qint64 timeLimitMs);
    quint64 rxCount() const { return m_ingest.rxCount(); }
    // Bytes handed to the system: what sends gave the connection less what
    // still waits in it.
    quint64 txCount() const;
    void resetCounters();
    ViewState viewState() const { return m_viewState; }
    // Pausing keeps the newest received bytes aside; resuming queues them.
    void setPaused(bool paused);
    // Another consumer of the received bytes (a bridge, a relay) that
    // cannot keep up holds reading, beside the view's own throttle: the transport stays
    // paused while any holder or the view wants it.
    void setReadHold(const QObject *holder, bool held);

    // ---- Send ----
    // The text auto send and line stepping work on.
    void setSendText(const QString &text) { m_sendText = text; }
    const QString &sendText() const { return m_sendText; }
    // Where sends go in the modes with several peers.
    void setSendTarget(const SendTarget &target) { m_target = target; }
    const SendTarget &sendTarget() const { return m_target; }
    // Builds a frame from text and sends it (history, echo, counters). In
    // hex mode normalisedHex gets the tidied text. A build failure is
    // returned and nothing is sent.
    Result sendText(const QString &text, QString *normalisedHex = nullptr);
    // The one send path that other parts (console, relay, transfer) use.
    // A peer that is not reading (PortTransport::kWriteHighWatermark
    // unsent) is not sent more: the send is refused with a message.
    bool sendBytes(const QByteArray &data, bool echo = true);
    // Bytes another port's traffic brings (a bridge): sent, counted, logged
    // and echoed like a send, but shown with the view's next refresh rather
    // than at once, so that a steady stream is drawn in the view's budget.
    bool forwardBytes(const QByteArray &data);
    bool isPeerBacklogged() const;
    // What still waits for the peer the next send goes to.
    qint64 peerBacklog() const;
    void onSendData();
    void restartAutoSend();
    void resetLineStepper() { m_lineStepper.reset(); }

    // ---- File transfer ----
    void setTransferActive(bool active);
    bool isTransferActive() const { return m_viewState == ViewState::Transfer; }
    void setReceiveTaker(ReceiveTaker taker) { m_receiveTaker = std::move(taker); }
    // Why a transfer cannot start now; empty when it can. A caller that
    // lets the user pick the server client itself (the transfer dialog)
    // is not refused for several clients being connected.
    enum class ClientChoice { Required, ChosenByCaller };
    QString transferRefusal(ClientChoice clientChoice = ClientChoice::Required) const;
    // Bridges forwarding this port's traffic, by name; a linked port
    // refuses file transfers and its pane shows a badge.
    void setBridgeLink(const QObject *bridge, const QString &name);
    void clearBridgeLink(const QObject *bridge);
    QStringList bridgeLinks() const;
    // Shows a refusal or failure in the pane and the status bar.
    void reportFailure(const QString &text);

    // ---- Data log ----
    bool isLogging() const { return m_logActive; }
    QString currentLogFile() const { return m_log.filePath(); }
    qint64 pendingLogBytes() const { return m_log.pendingBytes(); }
    // Restarts the log under the current options (a new folder, say).
    void restartLog();
    void setLogEnabled(bool on);
    // Whether the current log file can be opened: the user's texts when not.
    Result checkCurrentLogFile() const { return m_log.checkCurrentFile(); }

    // Marks something in the view (a transfer's start and end, say).
    void writeNote(const QString &text) { emit note(text); }

    // The text the data log makes of a chunk (its own formatter).
    QString formatForLog(const DisplayChunk &chunk) { return m_logFormatter.format(chunk); }

public Q_SLOTS:
    void onReconnectTick();
    void disarmReconnect();
    void onSerialPortLost();
    void onStreamDisconnected();

Q_SIGNALS:
    // For the status bar.
    void statusMessage(const QString &message, int timeoutMs);
    // A failure the user must see in the pane (and the status bar).
    void failure(const QString &message);
    // The data log could not be opened or written; once per run of failures.
    void logFailed(const QString &message);
    // Cleared by a successful (re)connection.
    void failureCleared();
    // A lost port is being waited for; shown until failureCleared().
    void waiting(const QString &message);
    // Whether the session is started, connected or waiting changed.
    void stateChanged();
    // The list of peers (server clients, UDP senders) changed.
    void targetsChanged();
    void peerArrived(const QString &peer);
    void peerLost(const QString &peer);
    // Settings worth saving changed (history, recent hosts, control lines).
    void settingsChanged();
    void transferStateChanged(bool active);
    // A sent frame was queued as an echo: the view shows it at once.
    void echoQueued();
    // What is queued must reach the view now, with the formatting it was
    // received under (the formatting is about to change).
    void flushViewRequested();
    // The send history changed (the pane refills its list).
    void historyChanged();
    // The connection record changed from inside (port name, recent hosts).
    void configChanged();
    // Traffic for the activity lights.
    void received();
    void sent();
    // Taps: raw received bytes, and decoded text for the Live Console.
    void rxTapped(const QByteArray &data);
    void consoleTraffic(const QString &portKey, bool isTx, const QString &text);
    // A note for the view (a remote port's negotiation, settings, faults).
    void note(const QString &text);
    // The remote port's line or modem state changed.
    void remoteLinesChanged();
    void bridgeLinksChanged();

private:
    void connectController();
    void changeConnState(bool open);
    void startReconnecting();
    void onControllerError(const QString &message);
    void onPeerArrived(const QString &peer);
    void onRelayEnded(const QString &reason);
    void applyReadThrottle();
    // Pauses or resumes the transport when the view's throttle or a hold changed.
    void updateReadPause();
    void logChunk(const DisplayChunk &chunk);
    void noteLogResult(const Result &result);
    // Starts, stops or restarts the log after the options changed.
    void followLogOptions(const PaneOptions &before, const QString &portStampBefore);
    void startLog();
    void stopLog();
public Q_SLOTS:
    // Writes what the log holds (the save timer calls it).
    void onSaveTick();

private:
    void rememberTargetHost();
    bool send(const QByteArray &data, bool echo, bool showEchoAtOnce);
    int autoSendIntervalMs() const;
    static int autoSendIntervalOf(const PaneOptions &options);
    bool refuseDuringTransfer(const QString &what);
    bool isConsoleListening() const;
    bool sendRemoteBreak(bool on);
    void onRemoteNotice(const QString &text);
    void onRemoteSetting(Rfc2217ClientSession::Event::Kind kind, qint64 value);
    void onRemoteLineState(quint8 lineState);
    void onRemoteModemState(quint8 modemState);

    int m_paneId;
    QString m_portKey;
    ConnectionController *m_controller;
    ConnectionConfig m_config;
    PaneOptions m_options;
    MonotonicClock m_clock = systemMonotonicClock();

    // Receive
    ReceiveIngest m_ingest;
    DisplayFormatter m_viewFormatter;
    // Only while something listens to consoleTraffic; a decoder that
    // skipped reads starts afresh instead of joining stale bytes.
    WireTextDecoder m_consoleDecoder;
    bool m_consoleDecoderLive = false;
    ViewState m_viewState = ViewState::Normal;
    ReceiveTaker m_receiveTaker;
    QList<const QObject *> m_readHolds;
    bool m_readPauseApplied = false;
    QList<QPair<const QObject *, QString>> m_bridgeLinks;

    // Send
    QString m_sendText;
    SendTarget m_target;
    SendHistory m_history;
    LineStepper m_lineStepper;
    quint64 m_txAccepted = 0;

    // Connection
    bool m_open = false;
    bool m_userClosing = false;
    bool m_autoReconnect = true;
    bool m_autoSendBeforeTransfer = false;
    bool m_wasConnected = false;  // the stream socket connected at least once
    ReconnectPolicy m_reconnect;
    quint8 m_remoteLineState = 0;
    quint8 m_remoteModemState = 0;

    // The log formats every chunk itself, with its own decoders, so what it
    // records does not depend on whether or when a view drains.
    LogWriter m_log;
    DisplayFormatter m_logFormatter;
    bool m_logActive = false;
    bool m_logFailing = false;
    // The log's failure text last shown and when: repeats are held back.
    QString m_logFailureText;
    QElapsedTimer m_logFailureShown;

    QTimer *m_sendTimer;
    QTimer *m_reconnectTimer;
    QTimer *m_saveTimer;
};
