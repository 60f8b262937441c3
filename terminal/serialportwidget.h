#pragma once

#include "common/idlememoryreturn.h"
#include "connection/connectionconfig.h"
#include "terminal/displaychunk.h"
#include "terminal/displaylinebreaker.h"
#include "common/paneoptions.h"
#include "terminal/portsession.h"
#include "terminal/receiveview.h"
#include "terminal/serialportwidgetui.h"

#include <QElapsedTimer>
#include <QWidget>

class ConnectionController;
class QTimer;

// One port pane: the view of one port session. It shows what the session
// received, reads the user's settings and text from its widgets and hands
// them to the session; the session owns the connection, the send path, the
// data log and the reconnecting. Its slots keep the names other parts know
// and forward to the session.
struct QuickSettingsLayout;

class SerialPortWidget : public QWidget
{
    Q_OBJECT

public:
    using ViewState = PortSession::ViewState;

    static constexpr int kRefreshIntervalMs = 20;
    static constexpr int kReconnectIntervalMs = int(ReconnectPolicy::kIntervalMs);
    // A drain stops early once it has taken this long, so that the event
    // loop keeps answering when the view cannot keep up.
    static constexpr int kDrainTimeLimitMs = 18;
    // The list of clients or peers to send to is refilled at most this
    // often, however fast peers come and go.
    static constexpr int kTargetRefreshMs = 250;

    explicit SerialPortWidget(int paneId, QWidget *parent = nullptr);
    ~SerialPortWidget() override;

    PortSession *session() const { return m_session; }
    int paneId() const { return m_session->paneId(); }
    QString connectionLabel() const { return m_session->connectionLabel(); }
    ConnectionController *controller() const { return m_session->controller(); }
    ReceiveView *receiveView() const;

    // Settings: applied under the loading mark, so nothing is announced.
    void applySettings(const ConnectionConfig &config, const PaneOptions &options, const QStringList &sendHistory);
    ConnectionConfig connectionConfig() const { return m_session->config(); }
    PaneOptions paneOptions() const { return m_session->options(); }
    QStringList sendHistory() const { return m_session->sendHistory(); }
    void clearSendHistory() { m_session->clearSendHistory(); }

    // Connection
    bool openConnection(const QString &portName = {}, bool silent = false);
    void closeConnection();
    bool isConnectionOpen() const { return m_session->isConnectionOpen(); }
    void setAutoReconnect(bool on) { m_session->setAutoReconnect(on); }
    bool isReconnecting() const { return m_session->isReconnecting(); }
    bool sendBytes(const QByteArray &data, bool echo = true) { return m_session->sendBytes(data, echo); }
    void setSendText(const QString &text);
    QString sendText() const;

    // View
    ViewState viewState() const { return m_session->viewState(); }
    void setPaused(bool paused);
    void clearDisplay();
    void writeNote(const QString &note);
    quint64 txCount() const { return m_session->txCount(); }
    quint64 rxCount() const { return m_session->rxCount(); }
    void resetCounters();
    // What waits for the view: received bytes still queued, plus characters
    // already formatted; zero once everything is shown.
    qint64 pendingDisplayBytes() const { return m_session->ingest().pendingBytes() + m_backlogChars; }
    void openFindBar();
    // Shows the options column as the quick settings say; `shown` false
    // closes it.
    void applyQuickSettings(const QuickSettingsLayout &layout, bool shown);

    void setTransferActive(bool active) { m_session->setTransferActive(active); }
    bool isTransferActive() const { return m_session->isTransferActive(); }
    QString transferRefusal() const { return m_session->transferRefusal(); }
    // A strip shown above the views while something runs on the pane (a
    // file transfer's progress); the pane takes ownership.
    void addStrip(QWidget *strip);

    bool isLogging() const { return m_session->isLogging(); }

    // The remote port of a Live Relay connection, as chosen in the target
    // dialog: it becomes the pane's record (reopened if it was open).
    void setRelayTarget(const ConnectionConfig &target);
    QString currentLogFile() const { return m_session->currentLogFile(); }

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
    QString currentRealPortName() const { return m_session->currentRealPortName(); }

Q_SIGNALS:
    void settingsChanged();
    void transferStateChanged(bool active);
    void peerLost(const QString &peer);
    void peerArrived(const QString &peer);
    void bridgeCloseRequested();
    // Raw received bytes. The console's text comes from the session
    // (PortSession::consoleTraffic), which decodes only while it is heard.
    void rxTapped(const QByteArray &data);
    // For the main window's status bar.
    void statusMessage(const QString &message, int timeoutMs);
    // The user wants to pick the remote port of this Live Relay pane.
    void relayTargetRequested();

private Q_SLOTS:
    void on_closeButton_clicked();
    void on_pauseButton_toggled(bool checked);
    void on_clearButton_clicked();
    void on_findButton_clicked();
    void on_resetCountersButton_clicked();
    void on_logFolderButton_clicked();

private:
    void connectSession();
    void connectOptionWidgets();
    void showOptions();
    void showSendHistory();
    PaneOptions optionsFromWidgets() const;
    void takeOptionsFromWidgets();
    void announceSettingsChange();
    void drain(qint64 byteBudget);
    // Adds formatted text to the view in one colour (an invalid colour is
    // the view's own), through the line breaker; returns what was added.
    QString addToView(QStringView formatted, const QColor &color);
    static QColor viewColor(const QString &name);
    QList<ReceiveView::Segment> takeBacklog(qsizetype maxChars);
    void showFailure(const QString &text);
    void updateCounters();
    void updateOpenState();
    void updateTargets();
    void scheduleTargetUpdate();
    void updateSendTarget();
    void updateControlLineAvailability();
    void onTransferStateChanged(bool active);
    void updateBridgeBadge();
    void onTerminalKeys(const QString &text);

    SerialPortWidgetUi ui;
    PortSession *m_session;
    bool m_loading = false;
    // While a drain runs, decoded text collects here for one insert.
    QList<ReceiveView::Segment> *m_drainSegments = nullptr;
    QTimer *m_refreshTimer;
    QTimer *m_targetTimer;
    bool m_targetsStale = false;
    DisplayLineBreaker m_lineBreaker;
    // Text formatted for the view but not inserted yet, and how many
    // characters one refresh inserts: it starts small, grows while the view
    // lays text out fast and shrinks while it is slow (text in scripts that
    // need font fallback costs far more per character than ASCII).
    QList<ReceiveView::Segment> m_viewBacklog;
    qsizetype m_backlogChars = 0;
    // Small at first: the first text in a script the view has not met yet
    // costs a font search on top of its layout.
    static constexpr qsizetype kFirstCharBudget = 256;
    static constexpr qsizetype kMinCharBudget = 256;
    static constexpr qsizetype kMaxCharBudget = 1024 * 1024;
    qsizetype m_charBudget = kFirstCharBudget;
    // Memory a storm of traffic left behind goes back once it is over.
    IdleMemoryReturn m_memoryReturn;
    QElapsedTimer m_sinceStart;
};
