#pragma once

#include <QJsonObject>
#include <QMetaType>
#include <QString>
#include <QStringList>

// The session settings that travel between computers: the "settings"
// object of the synced document, member by member.
struct SessionState
{
    // connection
    int connMode = 0;
    QString portName;
    int baudRate = 9600;
    int dataBits = 8;
    int stopBits = 1;
    int parity = 0;
    int flowControl = 0;
    QString targetHost = QStringLiteral("127.0.0.1");
    QStringList targetHosts;
    int targetPort = 6000;
    int udpLocalPort = 60001;
    int udpServerPort = 60000;
    // display
    int receiveMsgFormat = 2;
    int sendMsgFormat = 2;
    QString receiveEncoding = QStringLiteral("UTF-8");
    QString sendEncoding = QStringLiteral("UTF-8");
    int sendChecksum = 0;
    bool rxAutoFeedLine = false;
    int rxLineEndingMode = 0;
    bool txAutoFeedLine = false;
    int txLineEndingMode = 3;
    int terminalEnterMode = 1;
    int autoFeedInterval = 20;
    int splitterLeft = 10000;
    int splitterRight = 50000;
    bool displaySendMsg = true;
    bool localEcho = false;
    bool displayMsgTime = false;
    QString rxTimeFormat = QStringLiteral("[Rx][hh:mm:ss.zzz] ");
    QString txTimeFormat = QStringLiteral("[Tx][hh:mm:ss.zzz] ");
    int displayBufferSize = 1000000;
    QString fontFamily;
    int fontPointSize = 10;
    bool formatDisplayColor = true;
    QString sendTextColor = QStringLiteral("#000000");
    QString receiveTextColor = QStringLiteral("#000000");
    // behaviour
    bool autoReconnect = true;
    bool restoreLastConnection = false;
    int language = 0;
    // present only when the send history is synced
    bool hasSendHistory = false;
    QStringList sendHistory;

    bool operator==(const SessionState &other) const = default;

    QJsonObject toJson() const;
    // Members that are missing or of the wrong kind keep their defaults.
    static SessionState fromJson(const QJsonObject &settings);
    // The list-valued settings of both: ours first, then theirs that we
    // lack, compared exactly; everything else stays ours.
    static SessionState mergeLists(const SessionState &ours, const SessionState &theirs);
};

Q_DECLARE_METATYPE(SessionState)
