#include "app/lastusedrecord.h"

#include "common/logging.h"

#include <QSettings>

namespace {

// Reads an integer, keeping the fallback when the stored text is not one.
int readInt(const QSettings &settings, const QString &key, int fallback)
{
    const QVariant v = settings.value(key);
    if (!v.isValid())
        return fallback;
    bool ok = false;
    const int value = v.toInt(&ok);
    if (!ok) {
        qCWarning(lcSettings) << "ignoring unreadable setting" << key << v;
        return fallback;
    }
    return value;
}

bool readBool(const QSettings &settings, const QString &key, bool fallback)
{
    return settings.value(key, fallback).toBool();
}

QString readString(const QSettings &settings, const QString &key, const QString &fallback)
{
    return settings.value(key, fallback).toString();
}

} // namespace

void LastUsedRecord::load(QSettings &settings)
{
    const LastUsedRecord d;
    recentFiles = settings.value(QStringLiteral("RecentFiles"), d.recentFiles).toStringList();
    lastFile = readString(settings, QStringLiteral("LastFile"), d.lastFile);
    lastLogFile = readString(settings, QStringLiteral("LastLogFile"), d.lastLogFile);
    lastDirectory = readString(settings, QStringLiteral("LastDirectory"), d.lastDirectory);

    ConnectionConfig &c = connection;
    c.mode = connectionModeFromInt(readInt(settings, QStringLiteral("LastConnMode"), toInt(d.connection.mode)));
    c.portName = readString(settings, QStringLiteral("LastPortName"), d.connection.portName);
    c.baudRate = readInt(settings, QStringLiteral("LastBaudrate"), d.connection.baudRate);
    c.dataBits = QSerialPort::DataBits(readInt(settings, QStringLiteral("LastDatabits"), d.connection.dataBits));
    c.stopBits = QSerialPort::StopBits(readInt(settings, QStringLiteral("LastStopbits"), d.connection.stopBits));
    c.parity = QSerialPort::Parity(readInt(settings, QStringLiteral("LastParity"), d.connection.parity));
    c.flowControl = QSerialPort::FlowControl(readInt(settings, QStringLiteral("LastFlowControl"), d.connection.flowControl));
    c.dtrOn = readBool(settings, QStringLiteral("LastDtrOn"), d.connection.dtrOn);
    c.rtsOn = readBool(settings, QStringLiteral("LastRtsOn"), d.connection.rtsOn);
    c.targetHost = readString(settings, QStringLiteral("LastTargetHost"), d.connection.targetHost);
    c.recentTargetHosts = settings.value(QStringLiteral("LastTargetHosts"), d.connection.recentTargetHosts).toStringList();
    c.targetPort = readInt(settings, QStringLiteral("LastTargetPort"), d.connection.targetPort);
    c.udpLocalPort = quint16(readInt(settings, QStringLiteral("LastUdpLocalPort"), d.connection.udpLocalPort));
    c.udpServerPort = quint16(readInt(settings, QStringLiteral("LastUdpServerPort"), d.connection.udpServerPort));

    PaneOptions &p = pane;
    const PaneOptions &dp = d.pane;
    p.receiveFormat = MessageFormat(readInt(settings, QStringLiteral("LastReceiveMessageFormat"), int(dp.receiveFormat)));
    p.sendFormat = MessageFormat(readInt(settings, QStringLiteral("LastSendMessageFormat"), int(dp.sendFormat)));
    p.sendChecksum = readInt(settings, QStringLiteral("LastSendChecksum"), dp.sendChecksum);
    p.receiveEncoding = readString(settings, QStringLiteral("LastReceiveEncoding"), dp.receiveEncoding);
    p.sendEncoding = readString(settings, QStringLiteral("LastSendEncoding"), dp.sendEncoding);
    p.terminalEnterMode = LineEnding(readInt(settings, QStringLiteral("LastTerminalEnterMode"), int(dp.terminalEnterMode)));
    p.autoFeedInterval = readInt(settings, QStringLiteral("LastAutoFeedInterval"), dp.autoFeedInterval);
    p.splitterLeft = readInt(settings, QStringLiteral("LastSplitterLeft"), dp.splitterLeft);
    p.splitterRight = readInt(settings, QStringLiteral("LastSplitterRight"), dp.splitterRight);
    p.displaySendMsg = readBool(settings, QStringLiteral("LastDisplaySendMsg"), dp.displaySendMsg);
    p.localEcho = readBool(settings, QStringLiteral("LastLocalEcho"), dp.localEcho);
    p.displayTime = readBool(settings, QStringLiteral("LastDisplaySendTime"), dp.displayTime);
    p.rxTimeFormat = readString(settings, QStringLiteral("LastDisplayRxTimeFormat"), dp.rxTimeFormat);
    p.txTimeFormat = readString(settings, QStringLiteral("LastDisplayTxTimeFormat"), dp.txTimeFormat);
    p.displayBufferSize = readInt(settings, QStringLiteral("LastDisplayBufferSize"), dp.displayBufferSize);
    p.fontFamily = readString(settings, QStringLiteral("LastDisplayFontFamily"), dp.fontFamily);
    p.fontSize = readInt(settings, QStringLiteral("LastDisplayFontSize"), dp.fontSize);
    p.formatDisplayColor = readString(settings, QStringLiteral("LastFormatDisplayColor"), dp.formatDisplayColor);
    p.sendTextColor = readString(settings, QStringLiteral("LastSendTextColor"), dp.sendTextColor);
    p.receiveTextColor = readString(settings, QStringLiteral("LastReceiveTextColor"), dp.receiveTextColor);
    p.showControlLineLeds = readBool(settings, QStringLiteral("LastShowControlLineLeds"), dp.showControlLineLeds);
    p.logSaveFlag = readBool(settings, QStringLiteral("LastLogSaveFlag"), dp.logSaveFlag);
    p.logFilePath = readString(settings, QStringLiteral("LastLogFilePath"), dp.logFilePath);
    p.logTimestampEnabled = readBool(settings, QStringLiteral("LastLogTimestampEnabled"), dp.logTimestampEnabled);
    p.logTimestamp = readString(settings, QStringLiteral("LastLogTimestamp"), dp.logTimestamp);
    p.logRotateAtSize = readBool(settings, QStringLiteral("LastLogRotateAtSize"), dp.logRotateAtSize);
    p.logRotateSize = readInt(settings, QStringLiteral("LastLogRotateSize"), dp.logRotateSize);
    p.logRotateAtTime = readBool(settings, QStringLiteral("LastLogRotateAtTime"), dp.logRotateAtTime);
    const QTime rotateTime = settings.value(QStringLiteral("LastLogRotateTime"), dp.logRotateTime).toTime();
    p.logRotateTime = rotateTime.isValid() ? rotateTime : dp.logRotateTime;
    p.needHourTimeStamp = readBool(settings, QStringLiteral("LastNeedHourTimeStamp"), dp.needHourTimeStamp);

    quickSettings.load(settings);
    sendList = settings.value(QStringLiteral("SendList"), d.sendList).toStringList();
    lastConnectionOpen = readBool(settings, QStringLiteral("LastConnectionOpen"), d.lastConnectionOpen);
}

void LastUsedRecord::save(QSettings &settings) const
{
    settings.setValue(QStringLiteral("RecentFiles"), recentFiles);
    settings.setValue(QStringLiteral("LastDirectory"), lastDirectory);

    const ConnectionConfig &c = connection;
    settings.setValue(QStringLiteral("LastConnMode"), toInt(c.mode));
    settings.setValue(QStringLiteral("LastPortName"), c.portName);
    if (c.mode == ConnectionMode::Serial) {
        settings.setValue(QStringLiteral("LastBaudrate"), c.baudRate);
        settings.setValue(QStringLiteral("LastDatabits"), int(c.dataBits));
        settings.setValue(QStringLiteral("LastStopbits"), int(c.stopBits));
        settings.setValue(QStringLiteral("LastParity"), int(c.parity));
        settings.setValue(QStringLiteral("LastFlowControl"), int(c.flowControl));
    }
    settings.setValue(QStringLiteral("LastDtrOn"), c.dtrOn);
    settings.setValue(QStringLiteral("LastRtsOn"), c.rtsOn);
    settings.setValue(QStringLiteral("LastTargetHost"), c.targetHost);
    settings.setValue(QStringLiteral("LastTargetHosts"), c.recentTargetHosts);
    settings.setValue(QStringLiteral("LastTargetPort"), c.targetPort);
    settings.setValue(QStringLiteral("LastUdpLocalPort"), int(c.udpLocalPort));
    settings.setValue(QStringLiteral("LastUdpServerPort"), int(c.udpServerPort));

    const PaneOptions &p = pane;
    settings.setValue(QStringLiteral("LastReceiveMessageFormat"), int(p.receiveFormat));
    settings.setValue(QStringLiteral("LastSendMessageFormat"), int(p.sendFormat));
    settings.setValue(QStringLiteral("LastSendChecksum"), p.sendChecksum);
    settings.setValue(QStringLiteral("LastReceiveEncoding"), p.receiveEncoding);
    settings.setValue(QStringLiteral("LastSendEncoding"), p.sendEncoding);
    settings.setValue(QStringLiteral("LastTerminalEnterMode"), int(p.terminalEnterMode));
    settings.setValue(QStringLiteral("LastAutoFeedInterval"), p.autoFeedInterval);
    settings.setValue(QStringLiteral("LastSplitterLeft"), p.splitterLeft);
    settings.setValue(QStringLiteral("LastSplitterRight"), p.splitterRight);
    settings.setValue(QStringLiteral("LastDisplaySendMsg"), p.displaySendMsg);
    settings.setValue(QStringLiteral("LastLocalEcho"), p.localEcho);
    settings.setValue(QStringLiteral("LastDisplaySendTime"), p.displayTime);
    settings.setValue(QStringLiteral("LastDisplayRxTimeFormat"), p.rxTimeFormat);
    settings.setValue(QStringLiteral("LastDisplayTxTimeFormat"), p.txTimeFormat);
    settings.setValue(QStringLiteral("LastDisplayBufferSize"), p.displayBufferSize);
    settings.setValue(QStringLiteral("LastDisplayFontFamily"), p.fontFamily);
    settings.setValue(QStringLiteral("LastDisplayFontSize"), p.fontSize);
    settings.setValue(QStringLiteral("LastFormatDisplayColor"), p.formatDisplayColor);
    settings.setValue(QStringLiteral("LastSendTextColor"), p.sendTextColor);
    settings.setValue(QStringLiteral("LastReceiveTextColor"), p.receiveTextColor);
    settings.setValue(QStringLiteral("LastShowControlLineLeds"), p.showControlLineLeds);
    settings.setValue(QStringLiteral("LastLogSaveFlag"), p.logSaveFlag);
    settings.setValue(QStringLiteral("LastLogFilePath"), p.logFilePath);
    settings.setValue(QStringLiteral("LastLogFileName"), p.logFileName);
    settings.setValue(QStringLiteral("LastLogTimestampEnabled"), p.logTimestampEnabled);
    settings.setValue(QStringLiteral("LastLogTimestamp"), p.logTimestamp);
    settings.setValue(QStringLiteral("LastLogRotateAtSize"), p.logRotateAtSize);
    settings.setValue(QStringLiteral("LastLogRotateSize"), p.logRotateSize);
    settings.setValue(QStringLiteral("LastLogRotateAtTime"), p.logRotateAtTime);
    settings.setValue(QStringLiteral("LastLogRotateTime"), p.logRotateTime);
    settings.setValue(QStringLiteral("LastNeedHourTimeStamp"), p.needHourTimeStamp);

    quickSettings.save(settings);
    settings.setValue(QStringLiteral("SendList"), sendList);
    settings.setValue(QStringLiteral("OpenLastConnection"), openLastConnection);
    settings.setValue(QStringLiteral("LastConnectionOpen"), lastConnectionOpen);
    settings.setValue(QStringLiteral("AutoReconnect"), autoReconnect);
}

void LastUsedRecord::saveLastFiles(QSettings &settings, const QString &lastFile, const QString &lastLogFile)
{
    settings.setValue(QStringLiteral("LastFile"), lastFile);
    settings.setValue(QStringLiteral("LastLogFile"), lastLogFile);
}

bool LastUsedRecord::readOpenLastConnection(QSettings &settings)
{
    return settings.value(QStringLiteral("OpenLastConnection"), kDefaultOpenLastConnection).toBool();
}

bool LastUsedRecord::readAutoReconnect(QSettings &settings)
{
    return settings.value(QStringLiteral("AutoReconnect"), kDefaultAutoReconnect).toBool();
}
