#include "app/commandline.h"
#include "app/configfolder.h"
#include "app/languagechoice.h"
#include "app/lastusedrecord.h"
#include "app/projectfile.h"
#include "common/appidentity.h"
#include "buildinfo.h"
#include "settings/panesettings.h"
#include "app/windowplacement.h"
#include "support/settingssandbox.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QSettings>
#include <QTemporaryDir>
#include <QTranslator>
#include <QtTest>

#include <algorithm>
#include <memory>

class StartupTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();

    void commandLine_data();
    void commandLine();
    void dialogSize_data();
    void dialogSize();
    void desktopIdFollowsIdentity();
    void programAnswersWithoutDisplay_data();
    void programAnswersWithoutDisplay();
    void programOpensProjectNamedOnCommandLine_data();
    void programOpensProjectNamedOnCommandLine();

    void windowPosition_data();
    void windowPosition();
    void windowGeometryDefaultsAndRoundTrip();

    void languageChoice_data();
    void languageChoice();
    void chineseCatalogueTranslates();

    void lastUsedRoundTrip();
    void networkModeLeavesSerialKeys();
    void writeOnlyAndReadOnlyKeys();
    void unreadableValuesKeepDefaults();
    void everyPaneFieldRoundTrips();

    void configFolderProposalAndAccept();
    void configFolderRefusesAFile();

private:
    std::unique_ptr<SettingsSandbox> m_sandbox;
};

void StartupTest::initTestCase()
{
    m_sandbox = std::make_unique<SettingsSandbox>();
}

void StartupTest::init()
{
    m_sandbox->clear();
}

using Mode = CommandLine::ScreenshotMode;
Q_DECLARE_METATYPE(CommandLine::ScreenshotMode)

void StartupTest::commandLine_data()
{
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<Mode>("mode");
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("dialog");
    QTest::addColumn<QSize>("size");
    QTest::addColumn<QString>("port");
    QTest::addColumn<QString>("project");

    const QString exe = QStringLiteral("tessaline");
    const QString none;
    QTest::newRow("nothing") << QStringList{exe} << Mode::None << none << none << QSize() << none << none;
    QTest::newRow("port") << QStringList{exe, "COM3"} << Mode::None << none << none << QSize() << "COM3" << none;
    QTest::newRow("empty port") << QStringList{exe, ""} << Mode::None << none << none << QSize() << none << none;
    QTest::newRow("window") << QStringList{exe, "--screenshot", "a.png"} << Mode::Window << "a.png" << none << QSize() << none << none;
    QTest::newRow("window switch last, no path") << QStringList{exe, "--screenshot"} << Mode::None << none << none << QSize() << none << none;
    QTest::newRow("switch is case-sensitive") << QStringList{exe, "--Screenshot", "a.png"} << Mode::None << none << none << QSize() << none << none;
    QTest::newRow("dialog with size") << QStringList{exe, "--screenshot-dialog", "sign-in", "d.png", "800x600"}
                                      << Mode::Dialog << "d.png" << "sign-in" << QSize(800, 600) << none << none;
    QTest::newRow("dialog without size") << QStringList{exe, "--screenshot-dialog", "sign-in", "d.png"}
                                         << Mode::Dialog << "d.png" << "sign-in" << QSize() << none << none;
    QTest::newRow("dialog wins over window") << QStringList{exe, "--screenshot", "w.png", "--screenshot-dialog", "x", "d.png"}
                                             << Mode::Dialog << "d.png" << "x" << QSize() << none << none;
    QTest::newRow("dialog name only, window present") << QStringList{exe, "--screenshot", "w.png", "--screenshot-dialog", "x"}
                                                      << Mode::Window << "w.png" << none << QSize() << none << none;
    QTest::newRow("dialog name only, alone") << QStringList{exe, "--screenshot-dialog", "x"}
                                             << Mode::None << none << none << QSize() << none << none;
    // A picture named like a switch is still a picture.
    QTest::newRow("screenshot path --help") << QStringList{exe, "--screenshot", "--help"}
                                            << Mode::Window << "--help" << none << QSize() << none << none;
    QTest::newRow("port not opened in screenshot mode") << QStringList{exe, "COM3", "--screenshot", "w.png"}
                                                        << Mode::Window << "w.png" << none << QSize() << none << none;
    QTest::newRow("unknown switch first") << QStringList{exe, "--bogus", "COM3"} << Mode::None << none << none << QSize() << none << none;
    // Qt's own one-dash switches are not bundles of one-letter ones
    // ("-reverse" holds a "v", "-stylesheet" an "h").
    QTest::newRow("-reverse") << QStringList{exe, "-reverse"} << Mode::None << none << none << QSize() << "-reverse" << none;
    QTest::newRow("-stylesheet") << QStringList{exe, "-stylesheet"} << Mode::None << none << none << QSize() << "-stylesheet" << none;

    QTest::newRow("project") << QStringList{exe, "/home/ann/lab.tsl"} << Mode::None << none << none << QSize() << none << "/home/ann/lab.tsl";
    QTest::newRow("project, relative, upper-case suffix") << QStringList{exe, "LAB.TSL"} << Mode::None << none << none << QSize() << none << "LAB.TSL";
    QTest::newRow("suffix alone is a port") << QStringList{exe, ".tsl"} << Mode::None << none << none << QSize() << ".tsl" << none;
    QTest::newRow("tsl inside a port name") << QStringList{exe, "/dev/ttytsl0"} << Mode::None << none << none << QSize() << "/dev/ttytsl0" << none;
    QTest::newRow("project with window screenshot") << QStringList{exe, "lab.tsl", "--screenshot", "w.png"}
                                                    << Mode::Window << "w.png" << none << QSize() << none << "lab.tsl";
    QTest::newRow("project with dialog screenshot") << QStringList{exe, "lab.tsl", "--screenshot-dialog", "ascii", "d.png"}
                                                    << Mode::Dialog << "d.png" << "ascii" << QSize() << none << "lab.tsl";
    QTest::newRow("project only as first argument") << QStringList{exe, "COM3", "lab.tsl"} << Mode::None << none << none << QSize() << "COM3" << none;
}

void StartupTest::commandLine()
{
    QFETCH(QStringList, args);
    const CommandLine cl = CommandLine::parse(args);
    QCOMPARE(cl.request, CommandLine::Request::Start);
    QTEST(cl.screenshotMode, "mode");
    QTEST(cl.screenshotPath, "path");
    QTEST(cl.dialogName, "dialog");
    QTEST(cl.dialogSize, "size");
    QTEST(cl.portName, "port");
    QTEST(cl.projectPath, "project");
}

void StartupTest::dialogSize_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QSize>("size");
    QTest::newRow("plain") << "800x600" << QSize(800, 600);
    QTest::newRow("upper-case X is not split") << "800X600" << QSize();
    QTest::newRow("three parts") << "1x2x3" << QSize();
    QTest::newRow("no x") << "800" << QSize();
    QTest::newRow("empty parts kept, read as 0") << "x600" << QSize(0, 600);
    QTest::newRow("garbage part gives 0") << "abcx600" << QSize(0, 600);
    QTest::newRow("too large gives 0") << "800x99999999999" << QSize(800, 0);
}

void StartupTest::dialogSize()
{
    QFETCH(QString, text);
    QTEST(CommandLine::parseDialogSize(text), "size");
}

void StartupTest::desktopIdFollowsIdentity()
{
    // The launcher, icons and AppStream data are named after the reversed
    // organisation domain; a renamed domain must rename them too.
    QStringList parts = QString::fromLatin1(AppIdentity::kOrganisationDomain).split(QLatin1Char('.'));
    std::reverse(parts.begin(), parts.end());
    parts.append(QString::fromLatin1(AppIdentity::kApplicationName));
    QCOMPARE(QString::fromLatin1(BuildInfo::kDesktopId), parts.join(QLatin1Char('.')));
}

namespace {

// The real program in a private home and settings store. No display is
// offered unless `platform` names one, so a program that reached for a
// window before answering fails to start instead of passing.
struct ProgramRun
{
    int exitCode = -1;
    QString out;
    QString err;
};

ProgramRun runProgram(const QString &home, const QStringList &args, const QString &platform = {},
                      const QString &workingDirectory = {})
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    for (const char *name : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM", "LANG", "LC_ALL", "LANGUAGE"})
        env.remove(QString::fromLatin1(name));
    if (!platform.isEmpty())
        env.insert(QStringLiteral("QT_QPA_PLATFORM"), platform);
    env.insert(QStringLiteral("LC_ALL"), QStringLiteral("C.UTF-8"));
    env.insert(QStringLiteral("HOME"), home);
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), home + QStringLiteral("/config"));
    env.insert(QStringLiteral("XDG_DATA_HOME"), home + QStringLiteral("/data"));
    QProcess process;
    process.setProcessEnvironment(env);
    if (!workingDirectory.isEmpty())
        process.setWorkingDirectory(workingDirectory);
    process.start(QStringLiteral(TSL_TESSALINE_BINARY), args);
    ProgramRun run;
    if (!process.waitForFinished(30000)) {
        process.kill();
        process.waitForFinished(5000);
        run.err = QStringLiteral("did not finish within 30 s: ") + QString::fromLocal8Bit(process.readAllStandardError());
        return run;
    }
    run.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    run.out = QString::fromUtf8(process.readAllStandardOutput());
    run.err = QString::fromUtf8(process.readAllStandardError());
    return run;
}

QString settingsFileIn(const QString &home)
{
    return home + QStringLiteral("/config/MEROVAN/Tessaline.conf");
}

} // namespace

void StartupTest::programAnswersWithoutDisplay_data()
{
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<int>("language");  // stored "ValueL"
    QTest::addColumn<QString>("expected");  // "version", "help" or "help-zh"

    QTest::newRow("--version") << QStringList{"--version"} << 0 << "version";
    QTest::newRow("-v") << QStringList{"-v"} << 0 << "version";
    QTest::newRow("port then --version") << QStringList{"COM3", "--version"} << 0 << "version";
    QTest::newRow("--help") << QStringList{"--help"} << 0 << "help";
    QTest::newRow("-h") << QStringList{"-h"} << 0 << "help";
    QTest::newRow("help wins over version") << QStringList{"--version", "--help"} << 0 << "help";
    QTest::newRow("help after a Qt switch") << QStringList{"-platform", "xcb", "--help"} << 0 << "help";
    QTest::newRow("help in the stored language") << QStringList{"--help"} << 1 << "help-zh";
}

void StartupTest::programAnswersWithoutDisplay()
{
    QFETCH(QStringList, args);
    QFETCH(int, language);
    QFETCH(QString, expected);

    // No configuration folder is stored: reaching the first-start dialog
    // would hang the run rather than answer.
    QTemporaryDir home;
    QVERIFY(QDir().mkpath(home.path() + "/config/MEROVAN"));
    if (language != 0) {
        QSettings stored(settingsFileIn(home.path()), QSettings::IniFormat);
        stored.setValue(LanguageChoice::kSettingsKey, language);
    }

    const ProgramRun run = runProgram(home.path(), args);
    QVERIFY2(run.exitCode == 0, qPrintable(QStringLiteral("exit %1: %2").arg(run.exitCode).arg(run.err)));
    if (expected == QLatin1String("version")) {
        QCOMPARE(run.out, QStringLiteral("Tessaline %1\n").arg(QLatin1String(BuildInfo::kVersion)));
        return;
    }
    QVERIFY2(run.out.startsWith(QLatin1String("Usage: ")), qPrintable(run.out));
    for (const char *word : {"--help", "--version", "--screenshot <file>", "--screenshot-dialog <name>", "file.tsl"})
        QVERIFY2(run.out.contains(QLatin1String(word)), word);
    const bool english = run.out.contains(QLatin1String("Show this help and quit."));
    QCOMPARE(english, expected == QLatin1String("help"));
}

void StartupTest::programOpensProjectNamedOnCommandLine_data()
{
    QTest::addColumn<QString>("argument");  // as typed, relative to the working folder
    QTest::addColumn<bool>("opened");

    QTest::newRow("relative path") << "lab.tsl" << true;
    QTest::newRow("upper-case suffix") << "LAB2.TSL" << true;
    QTest::newRow("missing file") << "gone.tsl" << false;
}

void StartupTest::programOpensProjectNamedOnCommandLine()
{
    QFETCH(QString, argument);
    QFETCH(bool, opened);

    QTemporaryDir home;
    QVERIFY(QDir().mkpath(home.path() + "/config/MEROVAN"));
    QVERIFY(QDir().mkpath(home.path() + "/cfg"));
    {
        QSettings stored(settingsFileIn(home.path()), QSettings::IniFormat);
        stored.setValue(QStringLiteral("CONFIG_FILE_PATH"), home.path() + "/cfg");
    }
    QTemporaryDir work;
    Project project;
    project.columnNumber = 2;
    project.panes = {ProjectPane{}, ProjectPane{}, ProjectPane{}};
    for (const QString &name : {QStringLiteral("lab.tsl"), QStringLiteral("LAB2.TSL")}) {
        const Result written = ProjectFile::writeFile(work.filePath(name), project);
        QVERIFY2(written.isOk(), qPrintable(written.errorText()));
    }

    // The window screenshot ends the program by itself once it is shown.
    const ProgramRun run = runProgram(home.path(), {argument, "--screenshot", work.filePath("shot.png")},
                                      QStringLiteral("offscreen"), work.path());
    QVERIFY2(run.exitCode == 0, qPrintable(QStringLiteral("exit %1: %2").arg(run.exitCode).arg(run.err)));
    QVERIFY(QFile::exists(work.filePath("shot.png")));

    // An opened project enters the recent files under its absolute path.
    const QSettings stored(settingsFileIn(home.path()), QSettings::IniFormat);
    const QStringList recent = stored.value(QStringLiteral("RecentFiles")).toStringList();
    QCOMPARE(recent.contains(work.filePath(argument)), opened);
    QCOMPARE(recent.size(), opened ? 1 : 0);
}

void StartupTest::windowPosition_data()
{
    QTest::addColumn<QPoint>("position");
    QTest::addColumn<bool>("restored");
    const QSize area(1920, 1040);
    Q_UNUSED(area);
    QTest::newRow("x at 0") << QPoint(0, 100) << false;
    QTest::newRow("x at 1") << QPoint(1, 100) << true;
    QTest::newRow("y at 0") << QPoint(100, 0) << false;
    QTest::newRow("negative") << QPoint(-5, 100) << false;
    QTest::newRow("x at width") << QPoint(1920, 100) << false;
    QTest::newRow("just inside") << QPoint(1919, 1039) << true;
    QTest::newRow("y at height") << QPoint(100, 1040) << false;
}

void StartupTest::windowPosition()
{
    QFETCH(QPoint, position);
    QTEST(WindowPlacement::isRestorable(position, QSize(1920, 1040)), "restored");
}

void StartupTest::windowGeometryDefaultsAndRoundTrip()
{
    QSettings settings;
    QCOMPARE(WindowPlacement::storedSize(settings), QSize(1000, 800));
    QVERIFY(!WindowPlacement::isRestorable(WindowPlacement::storedPosition(settings), QSize(1920, 1080)));
    WindowPlacement::store(settings, QSize(1234, 567), QPoint(40, 50));
    QSettings again;
    QCOMPARE(WindowPlacement::storedSize(again), QSize(1234, 567));
    QCOMPARE(WindowPlacement::storedPosition(again), QPoint(40, 50));

    // A damaged size never makes a window larger than the screen.
    const QSize screen(1920, 1040);
    QCOMPARE(WindowPlacement::fittedSize(QSize(100000, 100000), screen), screen);
    QCOMPARE(WindowPlacement::fittedSize(QSize(1234, 567), screen), QSize(1234, 567));
    QCOMPARE(WindowPlacement::fittedSize(QSize(-1, 5), screen), QSize(1000, 800));
    QCOMPARE(WindowPlacement::fittedSize(QSize(10, 10), screen), QSize(320, 240));
    QCOMPARE(WindowPlacement::fittedSize(QSize(5000, 700), QSize()), QSize(1000, 700));
}

void StartupTest::languageChoice_data()
{
    QTest::addColumn<int>("value");
    QTest::addColumn<QString>("locale");
    QTest::addColumn<bool>("chinese");
    QTest::newRow("follow, zh_CN") << 0 << "zh_CN" << true;
    QTest::newRow("follow, zh_TW") << 0 << "zh_TW" << false;
    QTest::newRow("follow, zh") << 0 << "zh" << false;
    QTest::newRow("follow, en_US") << 0 << "en_US" << false;
    QTest::newRow("chinese anywhere") << 1 << "de_DE" << true;
    QTest::newRow("english on zh_CN") << 2 << "zh_CN" << false;
    QTest::newRow("unknown value") << 7 << "zh_CN" << false;
}

void StartupTest::languageChoice()
{
    QFETCH(int, value);
    QFETCH(QString, locale);
    QFETCH(bool, chinese);
    QCOMPARE(LanguageChoice::wantsChinese(value, locale), chinese);
    QCOMPARE(LanguageChoice::webLanguageCode(value, locale), chinese ? QStringLiteral("zh") : QStringLiteral("en"));

    QTranslator translator;
    QCOMPARE(LanguageChoice::install(*QCoreApplication::instance(), translator, value, locale), chinese);
    QCOMPARE(translator.isEmpty(), !chinese);
    QCoreApplication::removeTranslator(&translator);
}

void StartupTest::chineseCatalogueTranslates()
{
    QTranslator translator;
    QVERIFY(LanguageChoice::install(*QCoreApplication::instance(), translator, LanguageChoice::SimplifiedChinese, "en_US"));
    const QString english = QStringLiteral("The changes will take effect when the program is restarted.");
    const QString translated = QCoreApplication::translate("MainWindow", english.toUtf8().constData());
    QVERIFY2(translated != english, qPrintable(translated));
    QCoreApplication::removeTranslator(&translator);
    QCOMPARE(QCoreApplication::translate("MainWindow", english.toUtf8().constData()), english);
}

void StartupTest::lastUsedRoundTrip()
{
    QSettings settings;
    LastUsedRecord fresh;
    fresh.load(settings);
    // With nothing stored, load yields the built-in defaults.
    QCOMPARE(fresh.connection, ConnectionConfig());
    QCOMPARE(fresh.pane, PaneOptions());
    QCOMPARE(fresh.quickSettings, QuickSettingsLayout());

    LastUsedRecord record;
    record.recentFiles = {"/a.tsl", "/b.tsl"};
    record.lastDirectory = "/tmp";
    record.connection.portName = "/dev/ttyUSB0";
    record.connection.baudRate = 250000;  // custom rates are kept as typed
    record.connection.dataBits = QSerialPort::Data7;
    record.connection.parity = QSerialPort::MarkParity;
    record.connection.stopBits = QSerialPort::TwoStop;
    record.connection.flowControl = QSerialPort::HardwareControl;
    record.connection.dtrOn = false;
    record.connection.rtsOn = false;
    record.connection.targetHost = "example.org";
    record.connection.recentTargetHosts = {"example.org", "127.0.0.1"};
    record.connection.targetPort = 4001;
    record.connection.udpLocalPort = 7001;
    record.connection.udpServerPort = 7000;
    record.pane.receiveFormat = MessageFormat::Hex;
    record.pane.sendEncoding = "GBK";
    record.pane.sendChecksum = 4;
    record.pane.displayBufferSize = 4000;
    record.pane.receiveTextColor = "#123456";
    record.pane.logRotateTime = QTime(23, 30, 0);
    record.pane.logRotateAtTime = true;
    record.quickSettings.showSend = false;
    record.quickSettings.groupOrder = {"send", "receive", "connection", "controlLines"};
    record.quickSettings.fieldOrder.insert("send", {"txLoop", "txFormat"});
    record.quickSettings.hiddenFields.insert("receive", {"rxDisplayTime"});
    record.sendList = {"AT", "ATI"};
    record.lastConnectionOpen = true;
    record.save(settings);
    settings.sync();

    QSettings reread;
    LastUsedRecord loaded;
    loaded.load(reread);
    QCOMPARE(loaded.connection, record.connection);
    QCOMPARE(reread.value("LastBaudrate").toInt(), 250000);
    QCOMPARE(loaded.pane, record.pane);
    QCOMPARE(loaded.quickSettings, record.quickSettings);
    QCOMPARE(loaded.recentFiles, record.recentFiles);
    QCOMPARE(loaded.sendList, record.sendList);
    QCOMPARE(loaded.lastDirectory, record.lastDirectory);
    QVERIFY(loaded.lastConnectionOpen);
}

void StartupTest::networkModeLeavesSerialKeys()
{
    QSettings settings;
    LastUsedRecord serial;
    serial.connection.baudRate = 115200;
    serial.connection.parity = QSerialPort::EvenParity;
    serial.connection.flowControl = QSerialPort::SoftwareControl;
    serial.save(settings);

    for (ConnectionMode mode : {ConnectionMode::TcpClient, ConnectionMode::TcpServer, ConnectionMode::UdpClient,
                                ConnectionMode::RemoteSerialRfc2217, ConnectionMode::RemoteSerialRelay}) {
        LastUsedRecord network = serial;
        network.connection.mode = mode;
        network.connection.baudRate = 1200;
        network.connection.parity = QSerialPort::OddParity;
        network.connection.dataBits = QSerialPort::Data5;
        network.connection.stopBits = QSerialPort::OneAndHalfStop;
        network.connection.flowControl = QSerialPort::NoFlowControl;
        network.connection.targetPort = 9000;
        network.save(settings);

        LastUsedRecord loaded;
        loaded.load(settings);
        QCOMPARE(loaded.connection.mode, mode);
        QCOMPARE(loaded.connection.targetPort, 9000);
        QCOMPARE(loaded.connection.baudRate, 115200);
        QCOMPARE(loaded.connection.parity, QSerialPort::EvenParity);
        QCOMPARE(loaded.connection.dataBits, QSerialPort::Data8);
        QCOMPARE(loaded.connection.stopBits, QSerialPort::OneStop);
        QCOMPARE(loaded.connection.flowControl, QSerialPort::SoftwareControl);
    }
}

void StartupTest::writeOnlyAndReadOnlyKeys()
{
    QSettings settings;
    // Written by save, never read back by load.
    settings.setValue("OpenLastConnection", true);
    settings.setValue("AutoReconnect", false);
    LastUsedRecord loaded;
    loaded.load(settings);
    QCOMPARE(loaded.openLastConnection, LastUsedRecord::kDefaultOpenLastConnection);
    QCOMPARE(loaded.autoReconnect, LastUsedRecord::kDefaultAutoReconnect);
    QCOMPARE(LastUsedRecord::readOpenLastConnection(settings), true);
    QCOMPARE(LastUsedRecord::readAutoReconnect(settings), false);

    LastUsedRecord record;
    record.pane.logFileName = "mine_%S.log";
    record.lastFile = "/p.tsl";
    record.lastLogFile = "/l.log";
    record.save(settings);
    QCOMPARE(settings.value("LastLogFileName").toString(), QString("mine_%S.log"));
    // The record's save leaves the last files to the call that writes both.
    QVERIFY(!settings.contains("LastFile"));
    QVERIFY(!settings.contains("LastLogFile"));
    LastUsedRecord::saveLastFiles(settings, "/p.tsl", "/l.log");
    loaded.load(settings);
    QCOMPARE(loaded.lastFile, QString("/p.tsl"));
    QCOMPARE(loaded.lastLogFile, QString("/l.log"));
    // The file name pattern is not read back: the pane keeps its own.
    QCOMPARE(loaded.pane.logFileName, PaneOptions().logFileName);
}

void StartupTest::unreadableValuesKeepDefaults()
{
    QSettings settings;
    settings.setValue("LastBaudrate", "fast");
    settings.setValue("LastTargetPort", "");
    settings.setValue("LastLogRotateTime", "not a time");
    // Out of range: numbers are brought into range, choices outside the
    // list and oversized texts keep the default.
    settings.setValue("LastDisplayBufferSize", -5);
    settings.setValue("LastUdpLocalPort", 70000);
    settings.setValue("LastParity", 1);
    settings.setValue("LastDatabits", 9);
    settings.setValue("LastLogSaveFlag", "maybe");
    settings.setValue("LastTargetHost", QString(70000, 'h'));
    LastUsedRecord loaded;
    loaded.load(settings);
    QCOMPARE(loaded.connection.baudRate, 9600);
    QCOMPARE(loaded.connection.targetPort, 6000);
    QCOMPARE(loaded.pane.logRotateTime, QTime(0, 0, 0));
    QCOMPARE(loaded.pane.displayBufferSize, 1000);
    QCOMPARE(loaded.connection.udpLocalPort, quint16(65535));
    QCOMPARE(loaded.connection.parity, QSerialPort::NoParity);
    QCOMPARE(loaded.connection.dataBits, QSerialPort::Data8);
    QCOMPARE(loaded.pane.logSaveFlag, false);
    QCOMPARE(loaded.connection.targetHost, ConnectionConfig().targetHost);
}

void StartupTest::everyPaneFieldRoundTrips()
{
    // Each field carries a value other than its default through get() and
    // set(), so no field is silently read into another.
    PaneSettings changed;
    changed.connection.mode = ConnectionMode::UdpGeneric;
    changed.connection.portName = "/dev/ttyUSB7";
    changed.connection.baudRate = 12345;
    changed.connection.dataBits = QSerialPort::Data7;
    changed.connection.stopBits = QSerialPort::TwoStop;
    changed.connection.parity = QSerialPort::MarkParity;
    changed.connection.flowControl = QSerialPort::SoftwareControl;
    changed.connection.dtrOn = false;
    changed.connection.targetHost = "device.local";
    changed.connection.recentTargetHosts = {"a", "b"};
    changed.connection.targetPort = 23;
    changed.connection.udpLocalPort = 1;
    changed.connection.udpServerPort = 2;
    changed.connection.useRemoteSerialConfig = true;
    changed.options.receiveFormat = MessageFormat::Hex;
    changed.options.displayBufferSize = 5000;
    changed.options.sendChecksum = 5;
    changed.options.logRotateTime = QTime(23, 59, 58);
    changed.options.sendTimeUnit = SendTimeUnit::Seconds;
    changed.options.fontWeight = 700;
    PaneSettings copy;
    for (const PaneField &field : PaneFields::all())
        QVERIFY2(field.set(copy, field.get(changed)), qPrintable(field.id));
    QVERIFY(copy == changed);
    QCOMPARE(PaneFields::find("displayBufferSize")->get(changed).typeId(), QMetaType::Int);
    QCOMPARE(PaneFields::find("udpLocalPort")->get(changed).typeId(), QMetaType::Int);
}

void StartupTest::configFolderProposalAndAccept()
{
    QSettings settings;
    QVERIFY(ConfigFolder::stored(settings).isEmpty());
    QVERIFY(ConfigFolder::proposal(settings).endsWith("/Config"));

    QTemporaryDir base;
    const QString folder = base.path() + "/deep/er/Config";
    const Result r = ConfigFolder::accept(settings, folder);
    QVERIFY2(r.isOk(), qPrintable(r.errorText()));
    QVERIFY(QDir(folder).exists());
    QCOMPARE(ConfigFolder::stored(settings), folder);
    QCOMPARE(ConfigFolder::proposal(settings), folder);
}

void StartupTest::configFolderRefusesAFile()
{
    QSettings settings;
    QTemporaryDir base;
    QFile file(base.path() + "/plain");
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.close();
    const Result r = ConfigFolder::accept(settings, file.fileName());
    QVERIFY(!r.isOk());
    QVERIFY(r.errorText().contains("plain"));
    QVERIFY(ConfigFolder::stored(settings).isEmpty());
    QVERIFY(!ConfigFolder::accept(settings, "   ").isOk());
}

QTEST_GUILESS_MAIN(StartupTest)
#include "tst_startup.moc"
