#include "cloud/sessionstatemapping.h"

#include "connection/connectionconfig.h"
#include "terminal/paneoptions.h"

namespace SessionStateMapping {

SessionState fromRecords(const ConnectionConfig &connection, const PaneOptions &pane, bool autoReconnect,
                         bool restoreLastConnection, int language, const QStringList &sendHistory,
                         bool withSendHistory)
{
    SessionState s;
    s.connMode = toInt(connection.mode);
    s.portName = connection.portName;
    s.baudRate = connection.baudRate;
    s.dataBits = int(connection.dataBits);
    s.stopBits = int(connection.stopBits);
    s.parity = int(connection.parity);
    s.flowControl = int(connection.flowControl);
    s.targetHost = connection.targetHost;
    s.targetHosts = connection.recentTargetHosts;
    s.targetPort = connection.targetPort;
    s.udpLocalPort = connection.udpLocalPort;
    s.udpServerPort = connection.udpServerPort;

    s.receiveMsgFormat = int(pane.receiveFormat);
    s.sendMsgFormat = int(pane.sendFormat);
    s.receiveEncoding = pane.receiveEncoding;
    s.sendEncoding = pane.sendEncoding;
    s.sendChecksum = pane.sendChecksum;
    s.rxAutoFeedLine = pane.rxAutoFeedLine;
    s.rxLineEndingMode = int(pane.rxLineEnding);
    s.txAutoFeedLine = pane.txAutoFeedLine;
    s.txLineEndingMode = int(pane.txLineEnding);
    s.terminalEnterMode = int(pane.terminalEnterMode);
    s.autoFeedInterval = pane.autoFeedInterval;
    s.splitterLeft = pane.splitterLeft;
    s.splitterRight = pane.splitterRight;
    s.displaySendMsg = pane.displaySendMsg;
    s.localEcho = pane.localEcho;
    s.displayMsgTime = pane.displayTime;
    s.rxTimeFormat = pane.rxTimeFormat;
    s.txTimeFormat = pane.txTimeFormat;
    s.displayBufferSize = pane.displayBufferSize;
    s.fontFamily = pane.fontFamily;
    s.fontPointSize = pane.fontSize;
    // The document carries a flag here, not the colour: format marks are
    // coloured whenever a colour is set.
    s.formatDisplayColor = !pane.formatDisplayColor.isEmpty();
    s.sendTextColor = pane.sendTextColor;
    s.receiveTextColor = pane.receiveTextColor;

    s.autoReconnect = autoReconnect;
    s.restoreLastConnection = restoreLastConnection;
    s.language = language;
    s.hasSendHistory = withSendHistory;
    if (withSendHistory)
        s.sendHistory = sendHistory;
    return s;
}

void toRecords(const SessionState &s, ConnectionConfig &connection, PaneOptions &pane)
{
    connection.mode = connectionModeFromInt(s.connMode);
    connection.portName = s.portName;
    connection.baudRate = s.baudRate;
    connection.dataBits = QSerialPort::DataBits(s.dataBits);
    connection.stopBits = QSerialPort::StopBits(s.stopBits);
    connection.parity = QSerialPort::Parity(s.parity);
    connection.flowControl = QSerialPort::FlowControl(s.flowControl);
    connection.targetHost = s.targetHost;
    connection.recentTargetHosts = s.targetHosts;
    connection.targetPort = s.targetPort;
    connection.udpLocalPort = quint16(s.udpLocalPort);
    connection.udpServerPort = quint16(s.udpServerPort);

    pane.receiveFormat = MessageFormat(s.receiveMsgFormat);
    pane.sendFormat = MessageFormat(s.sendMsgFormat);
    pane.receiveEncoding = s.receiveEncoding;
    pane.sendEncoding = s.sendEncoding;
    pane.sendChecksum = s.sendChecksum;
    pane.rxAutoFeedLine = s.rxAutoFeedLine;
    pane.rxLineEnding = LineEnding(s.rxLineEndingMode);
    pane.txAutoFeedLine = s.txAutoFeedLine;
    pane.txLineEnding = LineEnding(s.txLineEndingMode);
    pane.terminalEnterMode = LineEnding(s.terminalEnterMode);
    pane.autoFeedInterval = s.autoFeedInterval;
    pane.splitterLeft = s.splitterLeft;
    pane.splitterRight = s.splitterRight;
    pane.displaySendMsg = s.displaySendMsg;
    pane.localEcho = s.localEcho;
    pane.displayTime = s.displayMsgTime;
    pane.rxTimeFormat = s.rxTimeFormat;
    pane.txTimeFormat = s.txTimeFormat;
    pane.displayBufferSize = s.displayBufferSize;
    pane.fontFamily = s.fontFamily;
    pane.fontSize = s.fontPointSize;
    pane.sendTextColor = s.sendTextColor;
    pane.receiveTextColor = s.receiveTextColor;
}

} // namespace SessionStateMapping
