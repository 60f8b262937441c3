#include "app/lastusedrecord.h"

#include "common/logging.h"
#include "settings/panesettings.h"

#include <QSettings>

namespace {

// Which pane fields the record keeps, under which keys. Serial parameters
// are written only while the saved mode is the serial port; the log file
// name is written but read where it is used.
enum class KeyRule { ReadWrite, SerialOnlyOnSave, WriteOnly };

struct LastUsedKey
{
    const char *field;
    const char *key;
    KeyRule rule = KeyRule::ReadWrite;
};

constexpr LastUsedKey kPaneKeys[] = {
    {"mode", "LastConnMode"},
    {"portName", "LastPortName"},
    {"baudRate", "LastBaudrate", KeyRule::SerialOnlyOnSave},
    {"dataBits", "LastDatabits", KeyRule::SerialOnlyOnSave},
    {"stopBits", "LastStopbits", KeyRule::SerialOnlyOnSave},
    {"parity", "LastParity", KeyRule::SerialOnlyOnSave},
    {"flowControl", "LastFlowControl", KeyRule::SerialOnlyOnSave},
    {"dtrOn", "LastDtrOn"},
    {"rtsOn", "LastRtsOn"},
    {"targetHost", "LastTargetHost"},
    {"recentTargetHosts", "LastTargetHosts"},
    {"targetPort", "LastTargetPort"},
    {"udpLocalPort", "LastUdpLocalPort"},
    {"udpServerPort", "LastUdpServerPort"},
    {"listenAddress", "LastListenAddress"},
    {"receiveFormat", "LastReceiveMessageFormat"},
    {"sendFormat", "LastSendMessageFormat"},
    {"sendChecksum", "LastSendChecksum"},
    {"receiveEncoding", "LastReceiveEncoding"},
    {"sendEncoding", "LastSendEncoding"},
    {"terminalEnterMode", "LastTerminalEnterMode"},
    {"autoFeedInterval", "LastAutoFeedInterval"},
    {"splitterLeft", "LastSplitterLeft"},
    {"splitterRight", "LastSplitterRight"},
    {"displaySendMsg", "LastDisplaySendMsg"},
    {"localEcho", "LastLocalEcho"},
    {"displayTime", "LastDisplaySendTime"},
    {"rxTimeFormat", "LastDisplayRxTimeFormat"},
    {"txTimeFormat", "LastDisplayTxTimeFormat"},
    {"displayBufferSize", "LastDisplayBufferSize"},
    {"fontFamily", "LastDisplayFontFamily"},
    {"fontSize", "LastDisplayFontSize"},
    {"formatDisplayColor", "LastFormatDisplayColor"},
    {"sendTextColor", "LastSendTextColor"},
    {"receiveTextColor", "LastReceiveTextColor"},
    {"showControlLineLeds", "LastShowControlLineLeds"},
    {"logSaveFlag", "LastLogSaveFlag"},
    {"logFilePath", "LastLogFilePath"},
    {"logFileName", "LastLogFileName", KeyRule::WriteOnly},
    {"logTimestampEnabled", "LastLogTimestampEnabled"},
    {"logTimestamp", "LastLogTimestamp"},
    {"logRotateAtSize", "LastLogRotateAtSize"},
    {"logRotateSize", "LastLogRotateSize"},
    {"logRotateAtTime", "LastLogRotateAtTime"},
    {"logRotateTime", "LastLogRotateTime"},
    {"needHourTimeStamp", "LastNeedHourTimeStamp"},
};

const PaneField &fieldOf(const LastUsedKey &entry)
{
    const PaneField *field = PaneFields::find(QString::fromLatin1(entry.field));
    Q_ASSERT_X(field, "LastUsedRecord", entry.field);
    return *field;
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

    // A value that cannot be read, or lies outside what the field allows,
    // keeps the built-in default; numbers out of range are brought into it.
    PaneSettings pane{d.connection, d.pane};
    for (const LastUsedKey &entry : kPaneKeys) {
        const QString key = QString::fromLatin1(entry.key);
        if (entry.rule == KeyRule::WriteOnly || !settings.contains(key))
            continue;
        const QVariant value = settings.value(key);
        if (!fieldOf(entry).set(pane, value))
            qCWarning(lcSettings) << "ignoring unreadable setting" << key << value;
    }
    connection = pane.connection;
    this->pane = pane.options;

    quickSettings.load(settings);
    sendList = settings.value(QStringLiteral("SendList"), d.sendList).toStringList();
    lastConnectionOpen = readBool(settings, QStringLiteral("LastConnectionOpen"), d.lastConnectionOpen);
}

void LastUsedRecord::save(QSettings &settings) const
{
    settings.setValue(QStringLiteral("RecentFiles"), recentFiles);
    settings.setValue(QStringLiteral("LastDirectory"), lastDirectory);

    const PaneSettings saved{connection, pane};
    for (const LastUsedKey &entry : kPaneKeys) {
        if (entry.rule == KeyRule::SerialOnlyOnSave && connection.mode != ConnectionMode::Serial)
            continue;
        settings.setValue(QString::fromLatin1(entry.key), fieldOf(entry).get(saved));
    }

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

QString LastUsedRecord::readLogFileName(const QSettings &settings, const QString &fallback)
{
    PaneSettings read;
    read.options.logFileName = fallback;
    const QString key = QStringLiteral("LastLogFileName");
    if (settings.contains(key) && !PaneFields::find(QStringLiteral("logFileName"))->set(read, settings.value(key)))
        qCWarning(lcSettings) << "ignoring unreadable setting" << key;
    // An empty name would refuse every log: the built-in pattern instead.
    return read.options.logFileName.trimmed().isEmpty() ? fallback : read.options.logFileName;
}

bool LastUsedRecord::readOpenLastConnection(QSettings &settings)
{
    return settings.value(QStringLiteral("OpenLastConnection"), kDefaultOpenLastConnection).toBool();
}

bool LastUsedRecord::readAutoReconnect(QSettings &settings)
{
    return settings.value(QStringLiteral("AutoReconnect"), kDefaultAutoReconnect).toBool();
}
