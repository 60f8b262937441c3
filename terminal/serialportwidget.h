#pragma once

#include "connection/connectionconfig.h"
#include "connection/connectioncontroller.h"
#include "terminal/displaychunk.h"
#include "terminal/displayformatter.h"
#include "terminal/linestepper.h"
#include "terminal/logwriter.h"
#include "terminal/paneoptions.h"
#include "terminal/receiveview.h"
#include "terminal/receiveingest.h"
#include "terminal/sendhistory.h"
#include "terminal/serialportwidgetui.h"
#include "terminal/wiretextdecoder.h"

#include <QElapsedTimer>
#include <QWidget>

class QTimer;

// One port pane: the user's handle on one connection. It opens and closes
// the connection, shows what arrives and sends what the user types, records
// the data log, watches for a lost port and reconnects. The transport is its
// ConnectionController; the byte handling is the terminal core's; this class
// owns the slots and the widgets.
class SerialPortWidget : public QWidget
{
    Q_OBJECT

public:
    enum class ViewState { Normal, Paused, Transfer };

    static constexpr int kRefreshIntervalMs = 20;
    static constexpr int kPortListIntervalMs = 1000;
    static constexpr int kReconnectIntervalMs = 2000;
    static constexpr int kSaveIntervalMs = 5000;
    // A drain stops early once it has taken this long, so that the event
    // loop keeps answering when the view cannot keep up.
    static constexpr int kDrainTimeLimitMs = 18;
    static constexpr int kRecentHostLimit = 10;

    explicit SerialPortWidget(int paneId, QWidget *parent = nullptr);
    ~SerialPortWidget() override;

    int paneId() const { return m_paneId; }
    // "%1-%2": the mode's tag and the pane's identifier.
    QString connectionLabel() const;
    ConnectionController *controller() const { return m_controller; }
    ReceiveView *receiveView() const;

    // Settings: applied under the loading mark, so nothing is announced.
    void applySettings(const ConnectionConfig &config, const PaneOptions &options, const QStringList &sendHistory);
    ConnectionConfig connectionConfig() const { return m_config; }
    PaneOptions paneOptions() const { return m_options; }
    QStringList sendHistory() const { return m_history.entries(); }
    void clearSendHistory();

    // Connection
    bool openConnection(const QString &portName = {}, bool silent = false);
    void closeConnection();
    bool isConnectionOpen() const;
    void setAutoReconnect(bool on) { m_autoReconnect = on; }
    bool isReconnecting() const { return m_reconnecting; }
    // The one send path that other parts (console, relay, transfer) use.
    bool sendBytes(const QByteArray &data, bool echo = true);
    void setSendText(const QString &text);
    QString sendText() const;

    // View
    ViewState viewState() const { return m_viewState; }
    void setPaused(bool paused);
    void clearDisplay();
    void writeNote(const QString &note);
    quint64 txCount() const { return m_txCount; }
    quint64 rxCount() const { return m_ingest.rxCount(); }
    void resetCounters();
    qint64 pendingDisplayBytes() const { return m_ingest.pendingBytes(); }
    void openFindBar();

    // File transfer lock: while set, actions that would disturb the
    // transfer are refused with a message.
    void setTransferActive(bool active);
    bool isTransferActive() const { return m_viewState == ViewState::Transfer; }
    // Why a transfer cannot start now; empty when it can.
    QString transferRefusal() const;

    // Data log
    bool isLogging() const { return m_log.isOpen(); }
    QString currentLogFile() const { return m_log.filePath(); }

public Q_SLOTS:
    // Receive path
    void onReadData();
    void onRefreshDisplay();
    QString decodeBufferForUi(const DisplayChunk &rxData);
    QString decodeBufferForLog(const DisplayChunk &buffer);
    void displayPortBuffer(qint64 byteBudget = -1);

    // Send path
    void on_sendButton_clicked();
    void onSendData();
    void on_autoSendBox_clicked();
    void on_sendIntervelSB_valueChanged(int value);
    void on_cbLinebyLine_stateChanged(int state);
    void on_sendChecksumBox_activated(int index);
    void on_terminalEnterBox_currentIndexChanged(int index);
    void on_sendBox_activated(int index);

    // Pane control
    void onSerialPortLost();
    void onReconnectTick();
    void disarmReconnect();
    void onRefreshAvalablePorts();
    void onSerialParamsEdited();
    void onConnectionConfigChanged();
    void changeConnState(bool open);
    void changeUdpConnState();
    void disconnectTcpClient();
    void onReceiveContextMenuRequested(const QPoint &pos);
    QString currentRealPortName() const;

Q_SIGNALS:
    void settingsChanged();
    void transferStateChanged(bool active);
    void peerLost(const QString &peer);
    void peerArrived(const QString &peer);
    void bridgeCloseRequested();
    void rxTapped(const QByteArray &data);
    void consoleTraffic(const QString &portKey, bool isTx, const QString &text);
    // For the main window's status bar.
    void statusMessage(const QString &message, int timeoutMs);

private Q_SLOTS:
    void on_closeButton_clicked();
    void on_pauseButton_toggled(bool checked);
    void on_clearButton_clicked();
    void on_findButton_clicked();
    void on_resetCountersButton_clicked();
    void on_logFolderButton_clicked();

private:
    void connectController();
    void connectOptionWidgets();
    void showOptions();
    void readOptionsFromWidgets();
    void announceSettingsChange();
    void onControlLineToggled(ConnectionController::ControlLine line, bool on);
    void ingestReceived(const QByteArray &data, const QString &peer = {});
    void applyReadThrottle();
    void drain(qint64 byteBudget, bool toLog);
    void queueSentEcho(const QByteArray &frame);
    bool sendFrameText(const QString &text, bool fromSendBox);
    bool writeToConnection(const QByteArray &data);
    void showFailure(const QString &text);
    void showStatus(const QString &text, int timeoutMs);
    void updateCounters();
    void updateOpenState();
    void updateTargets();
    void updateControlLineAvailability();
    void restartAutoSendTimer();
    int autoSendIntervalMs() const;
    void startLog();
    void stopLog();
    void onSaveTick();
    void startReconnecting();
    void rememberTargetHost();
    bool refuseSettingsChangeDuringTransfer();
    void onTerminalKeys(const QString &text);
    QString openedMessage() const;
    QString endpointText() const;

    SerialPortWidgetUi ui;
    int m_paneId;
    ConnectionController *m_controller;
    ConnectionConfig m_config;
    PaneOptions m_options;
    bool m_loading = false;

    // Receive path
    ReceiveIngest m_ingest;
    DisplayFormatter m_viewFormatter;
    DisplayFormatter m_logFormatter;
    WireTextDecoder m_consoleDecoder;
    ViewState m_viewState = ViewState::Normal;

    // Send path
    SendHistory m_history;
    LineStepper m_lineStepper;
    quint64 m_txCount = 0;

    // Connection state
    bool m_open = false;
    bool m_userClosing = false;
    bool m_reconnecting = false;
    bool m_autoReconnect = true;
    bool m_autoSendBeforeTransfer = false;
    bool m_wasConnected = false;  // the stream socket connected at least once

    LogWriter m_log;
    QElapsedTimer m_drainClock;
    // While a drain runs, decoded text collects here for one insert.
    QList<ReceiveView::Segment> *m_drainSegments = nullptr;

    QTimer *m_refreshTimer;
    QTimer *m_sendTimer;
    QTimer *m_portListTimer;
    QTimer *m_reconnectTimer;
    QTimer *m_saveTimer;
};
