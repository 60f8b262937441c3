#pragma once

#include <QCoreApplication>

class ConnectionSettingsWidget;
class ControlLineLights;
class LedIndicator;
class QCheckBox;
class QComboBox;
class QGroupBox;
class QLabel;
class QLineEdit;
class QPlainTextEdit;
class QPushButton;
class QSpinBox;
class QSplitter;
class QToolButton;
class QVBoxLayout;
class QWidget;
class ReceiveFindBar;
class ReceiveView;

// The widgets of a port pane and their layout, kept apart from the pane's
// behaviour the way a generated form would be. Object names are those the
// pane's on_<name>_<signal> slots bind to.
struct SerialPortWidgetUi
{
    Q_DECLARE_TR_FUNCTIONS(SerialPortWidget)

public:
    void setupUi(QWidget *pane);

    QSplitter *splitter = nullptr;         // options left, views right
    QSplitter *viewSplitter = nullptr;     // receive above, send below
    QVBoxLayout *stripLayout = nullptr;    // progress strips above the views
    QLabel *bridgeBadge = nullptr;         // shown while bridges link the port

    // Connection
    QGroupBox *connectionGroup = nullptr;
    ConnectionSettingsWidget *connectionSettings = nullptr;
    ControlLineLights *indicatorLights = nullptr;

    // Receive options
    QComboBox *receiveFormatBox = nullptr;
    QComboBox *receiveEncodingBox = nullptr;
    QCheckBox *displayTimeBox = nullptr;
    QCheckBox *displaySendBox = nullptr;
    QComboBox *rxLineEndingBox = nullptr;
    QSpinBox *autoFeedIntervalSB = nullptr;
    QSpinBox *displayBufferSB = nullptr;
    QCheckBox *logSaveBox = nullptr;
    QLineEdit *logFolderEdit = nullptr;
    QToolButton *logFolderButton = nullptr;

    // Send options
    QCheckBox *hexSendBox = nullptr;
    QComboBox *sendEncodingBox = nullptr;
    QCheckBox *appendLineEndingBox = nullptr;
    QComboBox *txLineEndingBox = nullptr;
    QComboBox *sendChecksumBox = nullptr;
    QComboBox *terminalEnterBox = nullptr;
    QCheckBox *localEchoBox = nullptr;
    QCheckBox *autoSendBox = nullptr;
    QSpinBox *sendIntervelSB = nullptr;
    QComboBox *sendTimeUnitBox = nullptr;
    QCheckBox *cbLinebyLine = nullptr;

    // Views
    ReceiveFindBar *findBar = nullptr;
    ReceiveView *receiveView = nullptr;
    QLabel *statusLabel = nullptr;
    QLabel *errorLabel = nullptr;
    QLabel *txCountLabel = nullptr;
    QLabel *rxCountLabel = nullptr;
    QToolButton *resetCountersButton = nullptr;
    QToolButton *pauseButton = nullptr;
    QToolButton *clearButton = nullptr;
    QToolButton *findButton = nullptr;

    // Send area
    QComboBox *targetBox = nullptr;  // server client or UDP peer to send to
    QComboBox *sendBox = nullptr;    // the send history
    QPlainTextEdit *sendTextEdit = nullptr;
    QPushButton *sendButton = nullptr;
    QPushButton *closeButton = nullptr;
};
