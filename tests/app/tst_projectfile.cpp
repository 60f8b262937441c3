#include "app/projectfile.h"
#include "support/settingssandbox.h"

#include <QFile>
#include <QSettings>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>
#include <sys/resource.h>
#include <unistd.h>

#include <memory>

class ProjectFileTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { m_sandbox = std::make_unique<SettingsSandbox>(); }

    void panesOfEveryKindRoundTrip();
    void fileUsesTheFormatsKeys();
    void rotationIsReadButNeverWritten();
    void garbledValueKeepsDefault_data();
    void garbledValueKeepsDefault();
    void countsAreBounded_data();
    void countsAreBounded();
    void missingFileChangesNothing();
    void failedSaveKeepsPreviousFile_data();
    void failedSaveKeepsPreviousFile();
    void randomBytesNeverCrash();

private:
    static Project sampleProject();
    static ProjectPane defaults();
    std::unique_ptr<SettingsSandbox> m_sandbox;
};

ProjectPane ProjectFileTest::defaults()
{
    ProjectPane d;
    d.settings.options.logRotateAtSize = true;
    d.settings.options.logRotateSize = 33;
    d.settings.options.logRotateAtTime = true;
    d.settings.options.logRotateTime = QTime(4, 5, 6);
    d.settings.options.needHourTimeStamp = true;
    return d;
}

Project ProjectFileTest::sampleProject()
{
    Project p;
    p.columnNumber = 2;
    p.quickView = false;
    p.quickSettings.showReceive = false;
    p.quickSettings.groupOrder = {"send", "receive", "connection", "controlLines"};
    p.quickSettings.fieldOrder.insert("send", {"txLoop", "txFormat"});
    p.quickSettings.hiddenFields.insert("connection", {"parity"});

    ProjectPane serial = defaults();
    auto &sc = serial.settings.connection;
    sc.portName = "/dev/ttyUSB3";
    sc.baudRate = 12345;
    sc.dataBits = QSerialPort::Data7;
    sc.parity = QSerialPort::EvenParity;
    sc.stopBits = QSerialPort::TwoStop;
    sc.flowControl = QSerialPort::HardwareControl;
    sc.dtrOn = false;
    auto &so = serial.settings.options;
    so.receiveFormat = MessageFormat::Hex;
    so.fontFamily = "DejaVu Sans Mono";
    so.fontSize = 13;
    so.fontWeight = 700;
    so.formatDisplayColor = "#123456";
    so.sendTextColor = "#00ff00";
    so.receiveTextColor = "#ff0000";
    so.splitterLeft = 321;
    so.splitterRight = 654;
    so.showControlLineLeds = false;
    serial.sendList = {"AT", "a, b; \"quoted\"", "=x=", ""};

    ProjectPane tcp = defaults();
    auto &tc = tcp.settings.connection;
    tc.mode = ConnectionMode::TcpClient;
    tc.targetHost = "device.local";
    tc.recentTargetHosts = {"device.local", "192.0.2.7", "::1"};
    tc.targetPort = 2323;
    auto &to = tcp.settings.options;
    to.sendFormat = MessageFormat::Hex;
    to.sendChecksum = 4;
    to.txAutoFeedLine = true;
    to.txLineEnding = LineEnding::LfCr;
    to.terminalEnterMode = LineEnding::CrLf;
    to.autoSend = true;
    to.sendInterval = 7;
    to.sendTimeUnit = SendTimeUnit::Seconds;
    to.supportComment = true;
    to.formatSend = true;
    to.sendEncoding = "GB18030";
    to.logSaveFlag = true;
    to.logFilePath = "/tmp/some logs";
    to.logTimestampEnabled = false;
    to.logTimestamp = "<%h%m>";

    ProjectPane udp = defaults();
    auto &uc = udp.settings.connection;
    uc.mode = ConnectionMode::UdpClient;
    uc.targetHost = "127.0.0.1";
    uc.recentTargetHosts = {"127.0.0.1"};
    uc.udpLocalPort = 0;
    uc.udpServerPort = 40000;
    auto &uo = udp.settings.options;
    uo.rxAutoFeedLine = true;
    uo.rxLineEnding = LineEnding::Lf;
    uo.autoFeedInterval = 150;
    uo.displaySendMsg = false;
    uo.localEcho = true;
    uo.displayTime = true;
    uo.rxTimeFormat = "<hh>";
    uo.txTimeFormat = "[mm]";
    uo.receiveEncoding = "Shift_JIS";
    uo.displayBufferSize = 2000;

    ProjectPane relay = defaults();
    auto &rc = relay.settings.connection;
    rc.mode = ConnectionMode::RemoteSerialRelay;
    rc.relayCid = "cid-1";
    rc.relayPortName = "COM3";
    rc.relayPortKey = "k/3";
    rc.relayShareLabel = "Lab bench";
    rc.relayGuestName = "Ana";
    ProjectPane rfc = defaults();
    rfc.settings.connection.mode = ConnectionMode::RemoteSerialRfc2217;
    rfc.settings.connection.useRemoteSerialConfig = true;

    p.panes = {serial, tcp, udp, relay, rfc};
    return p;
}

void ProjectFileTest::panesOfEveryKindRoundTrip()
{
    QTemporaryDir dir;
    const QString file = dir.filePath("p.tsl");
    const Project written = sampleProject();
    const Result saved = ProjectFile::writeFile(file, written);
    QVERIFY2(saved.isOk(), qPrintable(saved.errorText()));

    const ValueResult<Project> read = ProjectFile::readSettingFile(file, ProjectPane{});
    QVERIFY2(read.isOk(), qPrintable(read.errorText()));
    QCOMPARE(read.value().panes.size(), written.panes.size());
    QCOMPARE(read.value().columnNumber, 2);
    QCOMPARE(read.value().quickView, false);
    QVERIFY(read.value().quickSettings == written.quickSettings);
    for (qsizetype i = 0; i < written.panes.size(); ++i) {
        // Rotation is not saved, so it comes from the defaults handed in.
        ProjectPane expected = written.panes.at(i);
        const PaneOptions plain;
        expected.settings.options.logRotateAtSize = plain.logRotateAtSize;
        expected.settings.options.logRotateSize = plain.logRotateSize;
        expected.settings.options.logRotateAtTime = plain.logRotateAtTime;
        expected.settings.options.logRotateTime = plain.logRotateTime;
        expected.settings.options.needHourTimeStamp = plain.needHourTimeStamp;
        const ProjectPane &got = read.value().panes.at(i);
        QVERIFY2(got.settings.connection == expected.settings.connection, qPrintable(QString::number(i)));
        QVERIFY2(got.settings.options == expected.settings.options, qPrintable(QString::number(i)));
        QCOMPARE(got.sendList, expected.sendList);
    }
}

void ProjectFileTest::fileUsesTheFormatsKeys()
{
    QTemporaryDir dir;
    const QString file = dir.filePath("p.tsl");
    QVERIFY(ProjectFile::writeFile(file, sampleProject()).isOk());
    QFile raw(file);
    QVERIFY(raw.open(QIODevice::ReadOnly));
    const QByteArray text = raw.readAll();
    QVERIFY(text.contains("PortNumber=5\n"));
    QVERIFY(text.contains("ColumnNumber=2\n"));
    QVERIFY(text.contains("LastTargetHost=device.local-||-192.0.2.7-||-::1\n"));
    QVERIFY(text.contains("ReceiveMsgForamt=1\n"));
    QVERIFY(text.contains("LogFontFamily=DejaVu Sans Mono\n"));
    QVERIFY(text.contains("BaudRate=12345\n"));
    QVERIFY(text.contains("RelayShareLabel=Lab bench\n"));
    QVERIFY(text.contains("[QuickSettings]\n"));
    QVERIFY(text.contains("GroupOrder=send, receive, connection, controlLines\n"));
    QVERIFY(text.contains("[0]\n") && text.contains("[4]\n") && !text.contains("[5]\n"));
}

void ProjectFileTest::rotationIsReadButNeverWritten()
{
    QTemporaryDir dir;
    const QString file = dir.filePath("p.tsl");
    QVERIFY(ProjectFile::writeFile(file, sampleProject()).isOk());
    {
        QSettings s(file, QSettings::IniFormat);
        for (const char *key : {"LogRotateAtSize", "LogRotateSize", "LogRotateAtTime", "LogRotateTime",
                                "NeedHourTimeStamp"})
            QVERIFY2(!s.contains(QStringLiteral("0/") + key), key);
        // A file that carries them (an older save, a hand edit) is obeyed.
        s.setValue("1/LogRotateAtSize", "true");
        s.setValue("1/LogRotateSize", "77");
        s.setValue("1/LogRotateTime", "13:14:15");
    }
    const ValueResult<Project> read = ProjectFile::readSettingFile(file, defaults());
    QVERIFY(read.isOk());
    const PaneOptions &o0 = read.value().panes.at(0).settings.options;
    QCOMPARE(o0.logRotateSize, 33);
    QCOMPARE(o0.logRotateTime, QTime(4, 5, 6));
    const PaneOptions &o1 = read.value().panes.at(1).settings.options;
    QCOMPARE(o1.logRotateAtSize, true);
    QCOMPARE(o1.logRotateSize, 77);
    QCOMPARE(o1.logRotateTime, QTime(13, 14, 15));
}

void ProjectFileTest::garbledValueKeepsDefault_data()
{
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("value");
    QTest::newRow("baud text") << "BaudRate" << "fast";
    QTest::newRow("data bits 9") << "DataBits" << "9";
    QTest::newRow("parity 1") << "Parity" << "1";
    QTest::newRow("mode text") << "ConnMode" << "serial";
    QTest::newRow("bool word") << "DtrOn" << "maybe";
    QTest::newRow("format 3") << "ReceiveMsgForamt" << "3";
    QTest::newRow("checksum 9") << "SendChecksum" << "9";
    QTest::newRow("rotation time") << "LogRotateTime" << "25:99";
    QTest::newRow("empty hosts") << "LastTargetHost" << "-||--||-";
    QTest::newRow("font size list") << "LogFontSize" << "1,2";
}

void ProjectFileTest::garbledValueKeepsDefault()
{
    QFETCH(QString, key);
    QFETCH(QString, value);
    QTemporaryDir dir;
    const QString file = dir.filePath("p.tsl");
    Project project = sampleProject();
    QVERIFY(ProjectFile::writeFile(file, project).isOk());
    {
        QFile raw(file);
        QVERIFY(raw.open(QIODevice::Append));
        raw.write(QStringLiteral("\n[0]\n%1=%2\n").arg(key, value).toUtf8());
    }
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression("^readFile: read parameter FAILED!"));
    const ValueResult<Project> read = ProjectFile::readSettingFile(file, defaults());
    QVERIFY(read.isOk());
    QCOMPARE(read.value().panes.size(), 5);

    // The garbled key falls back to its default; every other value of the
    // same pane is still the file's.
    const PaneSettings &got = read.value().panes.at(0).settings;
    const PaneSettings fallback = defaults().settings;
    if (key == "BaudRate")
        QCOMPARE(got.connection.baudRate, fallback.connection.baudRate);
    if (key == "DataBits")
        QCOMPARE(got.connection.dataBits, fallback.connection.dataBits);
    if (key == "DtrOn")
        QCOMPARE(got.connection.dtrOn, fallback.connection.dtrOn);
    if (key == "ReceiveMsgForamt")
        QCOMPARE(got.options.receiveFormat, fallback.options.receiveFormat);
    if (key != "BaudRate")
        QCOMPARE(got.connection.baudRate, 12345);
    QCOMPARE(got.options.fontFamily, QStringLiteral("DejaVu Sans Mono"));
    QCOMPARE(read.value().panes.at(0).sendList, project.panes.at(0).sendList);
}

void ProjectFileTest::countsAreBounded_data()
{
    QTest::addColumn<QString>("portNumber");
    QTest::addColumn<QString>("columnNumber");
    QTest::addColumn<int>("panes");
    QTest::addColumn<int>("columns");
    QTest::newRow("huge") << "100000000" << "99" << Project::kMaxPanes << 16;
    QTest::newRow("zero") << "0" << "0" << 1 << 1;
    QTest::newRow("negative") << "-4" << "-1" << 1 << 1;
    QTest::newRow("text") << "many" << "few" << 1 << 1;
    QTest::newRow("plain") << "3" << "2" << 3 << 2;
}

void ProjectFileTest::countsAreBounded()
{
    QFETCH(QString, portNumber);
    QFETCH(QString, columnNumber);
    QFETCH(int, panes);
    QFETCH(int, columns);
    QTemporaryDir dir;
    const QString file = dir.filePath("p.tsl");
    {
        QFile raw(file);
        QVERIFY(raw.open(QIODevice::WriteOnly));
        raw.write(QStringLiteral("[General]\nPortNumber=%1\nColumnNumber=%2\n").arg(portNumber, columnNumber).toUtf8());
    }
    if (portNumber == "many")
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("^readFile: read parameter FAILED!"));
    if (columnNumber == "few")
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("^readFile: read parameter FAILED!"));
    const ValueResult<Project> read = ProjectFile::readSettingFile(file, defaults());
    QVERIFY(read.isOk());
    QCOMPARE(read.value().panes.size(), panes);
    QCOMPARE(read.value().columnNumber, columns);
    QVERIFY(read.value().panes.constFirst() == defaults());
}

void ProjectFileTest::missingFileChangesNothing()
{
    QTemporaryDir dir;
    const ValueResult<Project> read = ProjectFile::readSettingFile(dir.filePath("none.tsl"), defaults());
    QVERIFY(!read.isOk());
    QVERIFY(read.errorText().contains("none.tsl"));
}

void ProjectFileTest::failedSaveKeepsPreviousFile_data()
{
    QTest::addColumn<bool>("fullDisk");
    QTest::newRow("read-only folder") << false;
    QTest::newRow("full disk") << true;
}

void ProjectFileTest::failedSaveKeepsPreviousFile()
{
    QFETCH(bool, fullDisk);
    if (!fullDisk && ::geteuid() == 0)
        QSKIP("the superuser writes into read-only folders");
    QTemporaryDir dir;
    const QString file = dir.filePath("p.tsl");
    QVERIFY(ProjectFile::writeFile(file, sampleProject()).isOk());
    QFile raw(file);
    QVERIFY(raw.open(QIODevice::ReadOnly));
    const QByteArray before = raw.readAll();
    raw.close();

    Project other = sampleProject();
    other.panes.removeLast();
    Result r = Result::success();
    if (fullDisk) {
        // Writes past the limit fail with "File too large", as on a full disk.
        rlimit old{};
        QCOMPARE(::getrlimit(RLIMIT_FSIZE, &old), 0);
        rlimit small = old;
        small.rlim_cur = 512;
        ::signal(SIGXFSZ, SIG_IGN);
        QCOMPARE(::setrlimit(RLIMIT_FSIZE, &small), 0);
        r = ProjectFile::writeFile(file, other);
        ::setrlimit(RLIMIT_FSIZE, &old);
    } else {
        QVERIFY(QFile::setPermissions(dir.path(), QFile::ReadOwner | QFile::ExeOwner));
        r = ProjectFile::writeFile(file, other);
        QFile::setPermissions(dir.path(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }
    QVERIFY(!r.isOk());
    QVERIFY(r.errorText().contains("p.tsl"));
    QVERIFY(raw.open(QIODevice::ReadOnly));
    QCOMPARE(raw.readAll(), before);
}

void ProjectFileTest::randomBytesNeverCrash()
{
    QTemporaryDir dir;
    const QString file = dir.filePath("junk.tsl");
    QRandomGenerator rng(7);
    QTest::failOnWarning(QRegularExpression("^(?!readFile: read parameter FAILED!).*"));
    for (int round = 0; round < 50; ++round) {
        QByteArray bytes = "[General]\nPortNumber=3\n[1]\n";
        for (int i = 0; i < 400; ++i)
            bytes.append(char(rng.bounded(256)));
        QFile raw(file);
        QVERIFY(raw.open(QIODevice::WriteOnly | QIODevice::Truncate));
        raw.write(bytes);
        raw.close();
        const ValueResult<Project> read = ProjectFile::readSettingFile(file, defaults());
        QVERIFY(read.isOk());
        QVERIFY(read.value().panes.size() >= 1 && read.value().panes.size() <= Project::kMaxPanes);
    }
}

QTEST_GUILESS_MAIN(ProjectFileTest)
#include "tst_projectfile.moc"
