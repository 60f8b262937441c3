#include "app/projectfile.h"

#include "common/logging.h"

#include <QDir>
#include <QFileInfo>
#include <QSaveFile>
#include <QSettings>
#include <QTemporaryDir>

#include <algorithm>

namespace {

const QString kHostSeparator = QStringLiteral("-||-");

// Pane field id and the project's key for it. Read-only keys are taken
// when a project is opened and left out when it is saved.
struct ProjectKey
{
    const char *field;
    const char *key;
    bool readOnly = false;
};

constexpr ProjectKey kPaneKeys[] = {
    {"mode", "ConnMode"},
    {"portName", "PortName"},
    {"baudRate", "BaudRate"},
    {"dataBits", "DataBits"},
    {"stopBits", "StopBits"},
    {"parity", "Parity"},
    {"flowControl", "FlowControl"},
    {"dtrOn", "DtrOn"},
    {"rtsOn", "RtsOn"},
    {"targetPort", "LastTargetPort"},
    {"udpLocalPort", "UdpLocalPort"},
    // Not among the older keys; without it every UDP pane of a project
    // would send to the last-used remote port.
    {"udpServerPort", "UdpServerPort"},
    // Also newer: without it a server bound to one interface came back
    // listening on every one. Files without it mean Any.
    {"listenAddress", "ListenAddress"},
    {"useRemoteSerialConfig", "UseRemoteSerialConfig"},
    {"relayCid", "RelayCid"},
    {"relayPortName", "RelayPortName"},
    {"relayPortKey", "RelayPortKey"},
    {"relayShareLabel", "RelayShareLabel"},
    {"relayGuestName", "RelayGuestName"},
    {"receiveFormat", "ReceiveMsgForamt"},
    {"receiveEncoding", "ReceiveEncoding"},
    {"rxAutoFeedLine", "RxAutoFeedLine"},
    {"rxLineEnding", "RxLineEndingMode"},
    {"autoFeedInterval", "AutoFeedInterval"},
    {"splitterLeft", "SplitterLeft"},
    {"splitterRight", "SplitterRight"},
    {"displaySendMsg", "DisplaySendMsg"},
    {"localEcho", "LocalEcho"},
    {"displayTime", "DisplayMsgTime"},
    {"rxTimeFormat", "RxTimeFormat"},
    {"txTimeFormat", "TxTimeFormat"},
    {"sendFormat", "SendMsgFormat"},
    {"sendEncoding", "SendEncoding"},
    {"sendChecksum", "SendChecksum"},
    {"txAutoFeedLine", "TxAutoFeedLine"},
    {"txLineEnding", "TxLineEndingMode"},
    {"terminalEnterMode", "TerminalEnterMode"},
    {"autoSend", "AutoSend"},
    {"sendInterval", "SendInterval"},
    {"sendTimeUnit", "SendTimeUnit"},
    {"supportComment", "SupportComment"},
    {"formatSend", "FormatSend"},
    {"logSaveFlag", "LogSaveFlag"},
    {"logFilePath", "LogFilePath"},
    {"logTimestampEnabled", "LogTimestampEnabled"},
    {"logTimestamp", "LogFileTime"},
    {"logRotateAtSize", "LogRotateAtSize", true},
    {"logRotateSize", "LogRotateSize", true},
    {"logRotateAtTime", "LogRotateAtTime", true},
    {"logRotateTime", "LogRotateTime", true},
    {"needHourTimeStamp", "NeedHourTimeStamp", true},
    {"displayBufferSize", "DisplayBufferSize"},
    {"fontFamily", "LogFontFamily"},
    {"fontSize", "LogFontSize"},
    {"fontWeight", "LogFontWeight"},
    {"formatDisplayColor", "FormatDisplayColor"},
    {"sendTextColor", "SendTextColor"},
    {"receiveTextColor", "ReceiveTextColor"},
    {"showControlLineLeds", "ShowControlLineLeds"},
};

const QString kHostKey = QStringLiteral("LastTargetHost");
const QString kSendListKey = QStringLiteral("SendList");
// Longest send history a project may bring in.
constexpr int kMaxSendList = 1000;
constexpr int kMaxSendEntry = 1024 * 1024;

const PaneField &fieldOf(const ProjectKey &entry)
{
    const PaneField *field = PaneFields::find(QString::fromLatin1(entry.field));
    Q_ASSERT_X(field, "ProjectFile", entry.field);
    return *field;
}

void readFailed(const QString &key, const QVariant &value)
{
    // The message is the file format's own; the key helps whoever reads it.
    qWarning() << "readFile: read parameter FAILED!" << key << value;
}

// A whole number inside [low, high], or nullopt.
std::optional<int> readCount(const QSettings &settings, const QString &key, int low, int high)
{
    if (!settings.contains(key))
        return std::nullopt;
    const QVariant value = settings.value(key);
    bool ok = false;
    const qint64 number = value.toString().trimmed().toLongLong(&ok);
    if (!ok) {
        readFailed(key, value);
        return std::nullopt;
    }
    return int(std::clamp<qint64>(number, low, high));
}

bool readBool(const QSettings &settings, const QString &key, bool fallback)
{
    if (!settings.contains(key))
        return fallback;
    const QVariant value = settings.value(key);
    const QString text = value.toString().trimmed().toLower();
    if (text == u"true" || text == u"1")
        return true;
    if (text == u"false" || text == u"0")
        return false;
    readFailed(key, value);
    return fallback;
}

ProjectPane readPane(QSettings &settings, const ProjectPane &defaults)
{
    // Built completely before it is handed out: a pane is never left with
    // half of a file's values.
    ProjectPane pane = defaults;
    // Files from before the listen address was kept listened everywhere.
    pane.settings.connection.listenAddress = QHostAddress::Any;
    for (const ProjectKey &entry : kPaneKeys) {
        const QString key = QString::fromLatin1(entry.key);
        if (!settings.contains(key))
            continue;
        const QVariant value = settings.value(key);
        if (!fieldOf(entry).set(pane.settings, value))
            readFailed(key, value);
    }
    if (settings.contains(kHostKey)) {
        const QVariant value = settings.value(kHostKey);
        if (value.typeId() == QMetaType::QStringList || !ProjectFile::splitHosts(value.toString(), pane.settings.connection))
            readFailed(kHostKey, value);
    }
    if (settings.contains(kSendListKey)) {
        const QVariant value = settings.value(kSendListKey);
        QStringList list = value.toStringList();
        bool fits = list.size() <= kMaxSendList;
        for (const QString &entry : std::as_const(list))
            fits = fits && entry.size() <= kMaxSendEntry;
        if (fits)
            pane.sendList = list;
        else
            readFailed(kSendListKey, QStringLiteral("(%1 entries)").arg(list.size()));
    }
    qCDebug(lcApp) << "readFile font:" << pane.settings.options.fontFamily << pane.settings.options.fontSize
                   << pane.settings.options.fontWeight;
    return pane;
}

void writePane(QSettings &settings, const ProjectPane &pane)
{
    for (const ProjectKey &entry : kPaneKeys) {
        if (!entry.readOnly)
            settings.setValue(QString::fromLatin1(entry.key), fieldOf(entry).get(pane.settings));
    }
    settings.setValue(kHostKey, ProjectFile::joinHosts(pane.settings.connection));
    settings.setValue(kSendListKey, pane.sendList);
}

// One text per value, so a value written and one read back compare alike.
QString comparable(const QVariant &value)
{
    if (value.typeId() == QMetaType::QStringList || !value.isValid())
        return value.toStringList().join(QChar(0x1f));
    return value.toString();
}

bool readsBackAs(const QByteArray &bytes, const QSettings &meant, const QString &checkFile)
{
    {
        QFile copy(checkFile);
        if (!copy.open(QIODevice::WriteOnly) || copy.write(bytes) != bytes.size() || !copy.flush())
            return false;
    }
    const QSettings back(checkFile, QSettings::IniFormat);
    const QStringList keys = meant.allKeys();
    if (back.status() != QSettings::NoError || back.allKeys().size() != keys.size())
        return false;
    for (const QString &key : keys) {
        if (comparable(back.value(key)) != comparable(meant.value(key)))
            return false;
    }
    return true;
}

} // namespace

QString ProjectFile::joinHosts(const ConnectionConfig &config)
{
    // The host in use first, then the others the pane remembers.
    QStringList hosts = config.recentTargetHosts;
    const QString current = config.targetHost.trimmed();
    if (!current.isEmpty()) {
        hosts.removeAll(current);
        hosts.prepend(current);
    }
    return hosts.join(kHostSeparator);
}

bool ProjectFile::splitHosts(const QString &value, ConnectionConfig &config)
{
    QStringList hosts;
    for (const QString &part : value.split(kHostSeparator)) {
        const QString host = part.trimmed();
        if (host.isEmpty())
            continue;
        if (host.size() > 255)
            return false;
        if (!hosts.contains(host))
            hosts.append(host);
    }
    if (hosts.isEmpty())
        return false;
    config.targetHost = hosts.constFirst();
    config.recentTargetHosts = hosts;
    return true;
}

Result ProjectFile::writeFile(const QString &fileName, const Project &project)
{
    qCDebug(lcApp) << "write settings to file >>" << fileName;

    // QSettings writes in place; the INI text is made in a scratch folder
    // and then moved over the old file in one step.
    QTemporaryDir scratch;
    if (!scratch.isValid())
        return Result::failure(tr("Cannot save %1: %2").arg(fileName, scratch.errorString()));
    const QString scratchFile = scratch.filePath(QStringLiteral("project.tsl"));
    QSettings settings(scratchFile, QSettings::IniFormat);
    settings.setValue(QStringLiteral("PortNumber"), QString::number(project.panes.size()));
    settings.setValue(QStringLiteral("ColumnNumber"), QString::number(project.columnNumber));
    settings.setValue(QStringLiteral("QuickView"), project.quickView);
    project.quickSettings.save(settings);
    for (qsizetype i = 0; i < project.panes.size(); ++i) {
        settings.beginGroup(QString::number(i));
        writePane(settings, project.panes.at(i));
        settings.endGroup();
    }
    settings.sync();
    if (settings.status() != QSettings::NoError)
        return Result::failure(tr("Cannot save %1: the settings could not be written.").arg(fileName));

    QFile text(scratchFile);
    if (!text.open(QIODevice::ReadOnly))
        return Result::failure(tr("Cannot save %1: %2").arg(fileName, text.errorString()));
    const QByteArray bytes = text.readAll();
    // QSettings does not notice a short write (a full disk); the text is
    // read back under another name, which the settings cache does not know,
    // and must say everything that was meant.
    if (!readsBackAs(bytes, settings, scratch.filePath(QStringLiteral("check.tsl"))))
        return Result::failure(tr("Cannot save %1: the disk is full or the file could not be written.")
                                   .arg(QDir::toNativeSeparators(fileName)));

    QSaveFile out(fileName);
    if (!out.open(QIODevice::WriteOnly))
        return Result::failure(tr("Cannot save %1: %2").arg(QDir::toNativeSeparators(fileName), out.errorString()));
    if (out.write(bytes) != bytes.size() || !out.commit())
        return Result::failure(tr("Cannot save %1: %2").arg(QDir::toNativeSeparators(fileName), out.errorString()));

    qCDebug(lcApp) << "writeFile: Write Success!";
    return Result::success();
}

ValueResult<Project> ProjectFile::readSettingFile(const QString &fileName, const ProjectPane &defaults)
{
    if (!QFileInfo(fileName).isFile()) {
        qCDebug(lcApp) << "readSettingFile: file not found:" << fileName;
        return ValueResult<Project>::failure(tr("File not found: %1").arg(QDir::toNativeSeparators(fileName)));
    }
    QSettings settings(fileName, QSettings::IniFormat);
    if (settings.status() == QSettings::AccessError)
        return ValueResult<Project>::failure(tr("Cannot read %1.").arg(QDir::toNativeSeparators(fileName)));
    // Every project says how many panes it has; a file without that (binary,
    // plain text, another program's) is refused before anything changes, so
    // it never becomes the file the next save overwrites.
    if (settings.status() == QSettings::FormatError || !settings.contains(QStringLiteral("PortNumber")))
        return ValueResult<Project>::failure(
            tr("%1 does not hold Tessaline settings. Nothing was changed.").arg(QDir::toNativeSeparators(fileName)));

    Project project;
    const int count = readCount(settings, QStringLiteral("PortNumber"), 1, Project::kMaxPanes).value_or(1);
    project.columnNumber = readCount(settings, QStringLiteral("ColumnNumber"), Project::kMinColumnNumber,
                                     Project::kMaxColumnNumber)
                               .value_or(project.columnNumber);
    project.quickView = readBool(settings, QStringLiteral("QuickView"), project.quickView);
    project.quickSettings.load(settings);
    for (int i = 0; i < count; ++i) {
        settings.beginGroup(QString::number(i));
        project.panes.append(readPane(settings, defaults));
        settings.endGroup();
    }
    return project;
}
