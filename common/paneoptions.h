#pragma once

#include <QString>
#include <QStringList>
#include <QTime>

// How bytes are shown or typed: as text through an encoding, or as hex.
// The numbers are persisted.
enum class MessageFormat : int {
    Hex = 1,
    Text = 2,
};

// Line endings of the send box and of the receive line handling; the
// numbers are persisted.
enum class LineEnding : int {
    None = 0,
    Cr = 1,
    Lf = 2,
    CrLf = 3,
    LfCr = 4,
};

// Unit of the auto-send interval.
enum class SendTimeUnit : int {
    Milliseconds = 0,
    Seconds = 1,
};

// Every option of a port pane besides its connection: receive display, send
// framing, data log and look. A new pane starts from the last-used values.
struct PaneOptions
{
    // Receive display
    MessageFormat receiveFormat = MessageFormat::Text;
    QString receiveEncoding = QStringLiteral("UTF-8");
    bool rxAutoFeedLine = false;
    LineEnding rxLineEnding = LineEnding::None;
    int autoFeedInterval = 20;  // ms of silence before a new line is started
    bool displaySendMsg = true;
    bool displayTime = false;
    QString rxTimeFormat = QStringLiteral("[Rx][hh:mm:ss.zzz] ");
    QString txTimeFormat = QStringLiteral("[Tx][hh:mm:ss.zzz] ");
    int displayBufferSize = 1000000;  // characters in the view, bytes while paused

    // Send framing
    MessageFormat sendFormat = MessageFormat::Text;
    QString sendEncoding = QStringLiteral("UTF-8");
    int sendChecksum = 0;  // SendChecksumKind
    bool txAutoFeedLine = false;
    LineEnding txLineEnding = LineEnding::CrLf;
    LineEnding terminalEnterMode = LineEnding::Cr;
    bool localEcho = false;
    bool autoSend = false;
    int sendInterval = 1000;
    SendTimeUnit sendTimeUnit = SendTimeUnit::Milliseconds;
    bool lineByLine = false;
    bool supportComment = false;
    bool formatSend = false;

    // Look
    int splitterLeft = 10000;
    int splitterRight = 50000;
    QString fontFamily;  // empty: the first installed monospaced family
    int fontSize = 10;
    int fontWeight = 400;
    QString formatDisplayColor = QStringLiteral("#000000");
    QString sendTextColor = QStringLiteral("#000000");
    QString receiveTextColor = QStringLiteral("#000000");
    bool showControlLineLeds = true;

    // Data log
    bool logSaveFlag = false;
    QString logFilePath = defaultLogFolder();
    QString logFileName = QStringLiteral("tsl_%S-%Y%M%D.log");
    bool logTimestampEnabled = true;
    QString logTimestamp = QStringLiteral("[%h:%m:%s.%z] ");
    bool logRotateAtSize = false;
    int logRotateSize = 10;  // MiB as the user enters it
    bool logRotateAtTime = false;
    QTime logRotateTime = QTime(0, 0, 0);
    bool needHourTimeStamp = false;

    bool operator==(const PaneOptions &other) const = default;

    static QString defaultLogFolder();
};
