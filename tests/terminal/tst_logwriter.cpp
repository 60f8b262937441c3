#include "terminal/logwriter.h"

#include <QtTest>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

namespace {

// A clock the test moves by hand.
struct FakeClock
{
    QDateTime now;
    LogWriter::Clock clock()
    {
        return [this] { return now; };
    }
};

QByteArray readAll(const QString &path)
{
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return QByteArray();
    return f.readAll();
}

// The file's text after its header (five lines).
QString body(const QString &path)
{
    const QString all = QString::fromUtf8(readAll(path));
    qsizetype pos = 0;
    for (int i = 0; i < 5 && pos >= 0; ++i)
        pos = all.indexOf(u'\n', pos) + 1;
    return all.mid(pos);
}

QStringList filesIn(const QString &folder)
{
    return QDir(folder).entryList(QDir::Files, QDir::Name);
}

} // namespace

class LogWriterTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();

    void fileNames_data();
    void fileNames();
    void timestampPattern();
    void headerAndUtf8();
    void timestampsPerLine();
    void bigBatchesAreWrittenAtOnce();
    void rotationBySize();
    void rotationAtTime_data();
    void rotationAtTime();
    void rotationGuard();
    void openFailures_data();
    void openFailures();
    void failedRotationKeepsTheFile();
    void failedWriteKeepsPendingText();
    void currentFileCheck();

private:
    LogWriter::Options options(const QString &subfolder = QString()) const;

    std::unique_ptr<QTemporaryDir> m_dir;
    FakeClock m_clock;
};

void LogWriterTest::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
    m_clock.now = QDateTime(QDate(2024, 3, 5), QTime(10, 20, 30, 400));
}

LogWriter::Options LogWriterTest::options(const QString &subfolder) const
{
    LogWriter::Options o;
    o.folder = subfolder.isEmpty() ? m_dir->path() : m_dir->filePath(subfolder);
    o.portStamp = "ser-ttyUSB0";
    o.timestampEnabled = false;
    return o;
}

void LogWriterTest::fileNames_data()
{
    QTest::addColumn<QString>("pattern");
    QTest::addColumn<QString>("port");
    QTest::addColumn<bool>("hour");
    QTest::addColumn<QString>("name");
    QTest::newRow("default") << "tsl_%S-%Y%M%D.log" << "ser-ttyUSB0" << false << "tsl_ser-ttyUSB0-20240305.log";
    QTest::newRow("hour stamp") << "tsl_%S-%Y%M%D.log" << "tcpc-1" << true << "tsl_tcpc-1-20240305-10.log";
    QTest::newRow("no extension with hour") << "log%Y" << "x" << true << "log2024-10";
    QTest::newRow("device path made safe") << "%S.txt" << "/dev/ttyS0" << false << "_dev_ttyS0.txt";
    QTest::newRow("address made safe") << "%S.txt" << "127.0.0.1:6000" << false << "127.0.0.1_6000.txt";
    QTest::newRow("no port") << "%S.txt" << "" << false << "port.txt";
    QTest::newRow("percent kept") << "100%%_%Q.log" << "x" << false << "100%_%Q.log";
}

void LogWriterTest::fileNames()
{
    QFETCH(QString, pattern);
    QFETCH(QString, port);
    QFETCH(bool, hour);
    QFETCH(QString, name);
    QCOMPARE(LogWriter::expandFileName(pattern, port, m_clock.now, hour), name);
}

void LogWriterTest::timestampPattern()
{
    const QDateTime t(QDate(2024, 1, 2), QTime(3, 4, 5, 6));
    QCOMPARE(LogWriter::formatTimestamp("[%h:%m:%s.%z] ", t), QString("[03:04:05.006] "));
    QCOMPARE(LogWriter::formatTimestamp("%Y-%M-%D %h%", t), QString("2024-01-02 03%"));
    QCOMPARE(LogWriter::archiveFilePath("/logs/tsl_a-20240102.log", t),
             QString("/logs/tsl_a-20240102-20240102-030405-006.log"));
    QCOMPARE(LogWriter::archiveFilePath("/logs/plain", t), QString("/logs/plain-20240102-030405-006"));
}

void LogWriterTest::headerAndUtf8()
{
    LogWriter writer(m_clock.clock());
    QVERIFY(writer.open(options("deep/er")));  // missing folders are created
    const QString path = m_dir->filePath("deep/er/tsl_ser-ttyUSB0-20240305.log");
    QCOMPARE(writer.filePath(), path);

    QVERIFY(writer.append(QString::fromUtf8("温度 25℃\n")));
    QVERIFY(!body(path).contains(u'℃'));  // only written when asked
    QVERIFY(writer.writePending());
    QCOMPARE(writer.pendingBytes(), 0);

    const QStringList lines = QString::fromUtf8(readAll(path)).split(u'\n');
    QCOMPARE(lines.value(0), QString("  Product: Tessaline"));
    QCOMPARE(lines.value(1), QString("  Version: 6.6.7"));
    QCOMPARE(lines.value(2), "File Name: " + path);
    QCOMPARE(lines.value(3), "Launch at: " + LogWriter::launchTime().toString("yyyy-MM-dd'T'hh:mm:ss"));
    QCOMPARE(lines.value(4), QString("Current Time: 2024-03-05T10:20:30"));
    QCOMPARE(lines.value(5), QString::fromUtf8("温度 25℃"));

    // Opened again, the file is continued without a second header.
    writer.close();
    LogWriter again(m_clock.clock());
    QVERIFY(again.open(options("deep/er")));
    QVERIFY(again.append(u"more\n"));
    again.close();  // writes what is pending
    QCOMPARE(QString::fromUtf8(readAll(path)).count("Product:"), 1);
    QCOMPARE(body(path), QString::fromUtf8("温度 25℃\nmore\n"));
}

void LogWriterTest::timestampsPerLine()
{
    LogWriter writer(m_clock.clock());
    LogWriter::Options o = options();
    o.timestampEnabled = true;
    QVERIFY(writer.open(o));
    QVERIFY(writer.append(u"a\nb"));
    m_clock.now = m_clock.now.addMSecs(1250);
    QVERIFY(writer.append(u"c\n\nd\n"));  // "c" continues the line begun with "b"
    QVERIFY(writer.writePending());
    QCOMPARE(body(writer.filePath()),
             QString("[10:20:30.400] a\n[10:20:30.400] bc\n[10:20:31.650] \n[10:20:31.650] d\n"));
}

void LogWriterTest::bigBatchesAreWrittenAtOnce()
{
    LogWriter writer(m_clock.clock());
    QVERIFY(writer.open(options()));
    const QString line = QString(99, u'x') + u'\n';
    QString batch;
    while (batch.size() < LogWriter::kWriteThresholdBytes)
        batch += line;
    QVERIFY(writer.append(batch));
    QCOMPARE(writer.pendingBytes(), 0);
    QCOMPARE(body(writer.filePath()).size(), batch.size());
}

void LogWriterTest::rotationBySize()
{
    LogWriter writer(m_clock.clock());
    LogWriter::Options o = options();
    o.rotateAtSize = true;
    o.rotateSizeBytes = 300;
    QVERIFY(writer.open(o));
    const QString path = writer.filePath();
    const QString first = QString(250, u'1') + u'\n';
    QVERIFY(writer.append(first));
    QVERIFY(writer.writePending());  // header + 251 bytes: now over the limit
    QVERIFY(QFileInfo(path).size() > 300);
    QCOMPARE(filesIn(m_dir->path()).size(), 1);

    m_clock.now = m_clock.now.addSecs(60);
    QVERIFY(writer.append(u"second\n"));
    QVERIFY(writer.writePending());
    const QString archive = LogWriter::archiveFilePath(path, m_clock.now);
    QStringList expectedFiles{QFileInfo(path).fileName(), QFileInfo(archive).fileName()};
    expectedFiles.sort();
    QCOMPARE(filesIn(m_dir->path()), expectedFiles);
    QCOMPARE(body(archive), first);
    QCOMPARE(body(path), QString("second\n"));
    QVERIFY(readAll(path).startsWith("  Product: Tessaline\n"));
    QCOMPARE(writer.filePath(), path);  // the name does not change

    // A modest file is left alone.
    m_clock.now = m_clock.now.addSecs(60);
    QVERIFY(writer.writePending());
    QCOMPARE(filesIn(m_dir->path()).size(), 2);
}

void LogWriterTest::rotationAtTime_data()
{
    QTest::addColumn<QTime>("openedAt");
    QTest::addColumn<QTime>("checkedAt");
    QTest::addColumn<int>("daysLater");
    QTest::addColumn<bool>("rotates");
    const QTime rotateAt(18, 0);
    Q_UNUSED(rotateAt);
    QTest::newRow("on the time") << QTime(17, 59, 50) << QTime(18, 0) << 0 << true;
    QTest::newRow("200 ms after") << QTime(17, 59, 50) << QTime(18, 0, 0, 200) << 0 << true;
    QTest::newRow("a save tick after") << QTime(17, 59, 58) << QTime(18, 0, 3) << 0 << true;
    QTest::newRow("just before") << QTime(17, 59, 50) << QTime(17, 59, 59, 999) << 0 << false;
    QTest::newRow("opened after the time") << QTime(18, 0, 0, 100) << QTime(18, 0, 1) << 0 << false;
    QTest::newRow("next day before the time") << QTime(19, 0) << QTime(8, 0) << 1 << false;
    QTest::newRow("days of silence") << QTime(19, 0) << QTime(8, 0) << 3 << true;
}

void LogWriterTest::rotationAtTime()
{
    QFETCH(QTime, openedAt);
    QFETCH(QTime, checkedAt);
    QFETCH(int, daysLater);
    QFETCH(bool, rotates);
    LogWriter writer(m_clock.clock());
    LogWriter::Options o = options();
    o.rotateAtTime = true;
    o.rotateTime = QTime(18, 0);
    m_clock.now = QDateTime(QDate(2024, 3, 5), openedAt);
    QVERIFY(writer.open(o));
    QVERIFY(writer.append(u"before\n"));
    QVERIFY(writer.writePending());

    m_clock.now = QDateTime(QDate(2024, 3, 5).addDays(daysLater), checkedAt);
    QVERIFY(writer.append(u"after\n"));
    QVERIFY(writer.writePending());
    QCOMPARE(filesIn(m_dir->path()).size(), rotates ? 2 : 1);
    QCOMPARE(body(writer.filePath()), QString(rotates ? "after\n" : "before\nafter\n"));
    if (rotates)
        QCOMPARE(body(LogWriter::archiveFilePath(writer.filePath(), m_clock.now)), QString("before\n"));

    if (!rotates)
        return;
    // Later checks on the same day do not rotate again.
    m_clock.now = m_clock.now.addSecs(45);
    QVERIFY(writer.append(u"later\n"));
    QVERIFY(writer.writePending());
    QCOMPARE(filesIn(m_dir->path()).size(), 2);
}

void LogWriterTest::rotationGuard()
{
    LogWriter writer(m_clock.clock());
    LogWriter::Options o = options();
    o.rotateAtSize = true;
    o.rotateSizeBytes = 10;
    o.rotateAtTime = true;
    o.rotateTime = QTime(0, 0);
    m_clock.now = QDateTime(QDate(2024, 3, 5), QTime(23, 59, 30));
    QVERIFY(writer.open(o));  // the header alone passes the size limit

    m_clock.now = QDateTime(QDate(2024, 3, 5), QTime(23, 59, 45));
    QVERIFY(writer.append(u"one\n"));
    QVERIFY(writer.writePending());  // rotates by size
    QCOMPARE(filesIn(m_dir->path()).size(), 2);

    // Midnight 16 s later: too soon after the last rotation, kept.
    m_clock.now = QDateTime(QDate(2024, 3, 6), QTime(0, 0, 1));
    QVERIFY(writer.append(u"two\n"));
    QVERIFY(writer.writePending());
    QCOMPARE(filesIn(m_dir->path()).size(), 2);
    QCOMPARE(body(writer.filePath()), QString("one\ntwo\n"));

    // 29.9 s after it: still kept; 30 s after it: rotates by size again.
    m_clock.now = QDateTime(QDate(2024, 3, 5), QTime(23, 59, 45)).addMSecs(LogWriter::kRotationGuardMs - 100);
    QVERIFY(writer.writePending());
    QCOMPARE(filesIn(m_dir->path()).size(), 2);
    m_clock.now = QDateTime(QDate(2024, 3, 5), QTime(23, 59, 45)).addMSecs(LogWriter::kRotationGuardMs);
    QVERIFY(writer.append(u"three\n"));
    QVERIFY(writer.writePending());
    QCOMPARE(filesIn(m_dir->path()).size(), 3);
    QCOMPARE(body(writer.filePath()), QString("three\n"));
}

void LogWriterTest::openFailures_data()
{
    QTest::addColumn<QString>("scenario");
    QTest::newRow("empty name") << "empty name";
    QTest::newRow("blank name") << "blank name";
    QTest::newRow("name with a folder") << "slash";
    QTest::newRow("no folder") << "no folder";
    QTest::newRow("path is a directory") << "directory";
    QTest::newRow("folder cannot be created") << "unwritable folder";
    QTest::newRow("file cannot be opened") << "unopenable file";
}

void LogWriterTest::openFailures()
{
    QFETCH(QString, scenario);
    LogWriter::Options o = options();
    const QString expectedPath = m_dir->filePath("tsl_ser-ttyUSB0-20240305.log");
    QString expected;
    if (scenario == "empty name") {
        o.fileNamePattern.clear();
        expected = "Please input correct log file name!";
    } else if (scenario == "blank name") {
        o.fileNamePattern = "   ";
        expected = "Please input correct log file name!";
    } else if (scenario == "slash") {
        o.fileNamePattern = "sub/%S.log";
        expected = "Please input correct log file name!";
    } else if (scenario == "no folder") {
        o.folder.clear();
        expected = "Please input correct log file name!";
    } else if (scenario == "directory") {
        QVERIFY(QDir().mkpath(expectedPath));
        expected = "Log path is a directory, not a file: " + expectedPath;
    } else if (scenario == "unwritable folder") {
        // A folder cannot live inside a plain file, whoever runs the test.
        QFile blocker(m_dir->filePath("blocker"));
        QVERIFY(blocker.open(QIODevice::WriteOnly));
        blocker.close();
        o.folder = m_dir->filePath("blocker/logs");
        expected = "Could not create log directory '" + m_dir->filePath("blocker/logs") + "'";
    } else {
        // The name points through a link to a folder that is not there.
        QVERIFY(QFile::link(m_dir->filePath("missing/x.log"), expectedPath));
        expected = "Could not open log file '" + expectedPath + "': ";
    }

    LogWriter writer(m_clock.clock());
    const Result opened = writer.open(o);
    QVERIFY(!opened);
    if (scenario == "unopenable file")
        QVERIFY2(opened.errorText().startsWith(expected) && opened.errorText().size() > expected.size(),
                 qPrintable(opened.errorText()));
    else
        QCOMPARE(opened.errorText(), expected);
    QVERIFY(!writer.isOpen());

    // Appending still works and keeps the text for a later write; the write
    // reports the same problem rather than losing the text quietly.
    QVERIFY(writer.append(u"kept\n"));
    QCOMPARE(writer.pendingBytes(), 5);
    const Result written = writer.writePending();
    QVERIFY(!written);
    QCOMPARE(written.errorText().left(expected.size()), expected);
    QCOMPARE(writer.pendingBytes(), 5);
}

void LogWriterTest::failedRotationKeepsTheFile()
{
    LogWriter writer(m_clock.clock());
    LogWriter::Options o = options();
    o.rotateAtSize = true;
    o.rotateSizeBytes = 10;
    QVERIFY(writer.open(o));
    QVERIFY(writer.append(u"kept\n"));
    QVERIFY(writer.writePending());

    // Something already sits under the archive name: the rename fails.
    m_clock.now = m_clock.now.addSecs(60);
    const QString archive = LogWriter::archiveFilePath(writer.filePath(), m_clock.now);
    QVERIFY(QDir().mkpath(archive + "/occupied"));
    QVERIFY(writer.append(u"also kept\n"));
    const Result rotated = writer.writePending();
    QVERIFY(!rotated);
    QVERIFY2(rotated.errorText().startsWith("Could not rotate log file '" + writer.filePath() + "': "),
             qPrintable(rotated.errorText()));
    QCOMPARE(body(writer.filePath()), QString("kept\nalso kept\n"));
    QCOMPARE(writer.pendingBytes(), 0);
    QVERIFY(writer.isOpen());
}

void LogWriterTest::failedWriteKeepsPendingText()
{
    LogWriter writer(m_clock.clock());
    LogWriter::Options o = options("later");
    QFile blocker(m_dir->filePath("later"));
    QVERIFY(blocker.open(QIODevice::WriteOnly));
    blocker.close();
    QVERIFY(!writer.open(o));
    QVERIFY(writer.append(u"first\n"));
    QVERIFY(!writer.writePending());

    // Once the folder can be made, the kept text reaches the file.
    QVERIFY(QFile::remove(m_dir->filePath("later")));
    QVERIFY(writer.append(u"second\n"));
    QVERIFY(writer.writePending());
    QVERIFY(writer.isOpen());
    QCOMPARE(body(writer.filePath()), QString("first\nsecond\n"));
}

void LogWriterTest::currentFileCheck()
{
    LogWriter writer(m_clock.clock());
    QCOMPARE(writer.checkCurrentFile().errorText(), QString("Current log file does not exist."));
    QVERIFY(writer.open(options()));
    QVERIFY(writer.checkCurrentFile());
    writer.close();
    QVERIFY(QFile::remove(writer.filePath()));
    QCOMPARE(writer.checkCurrentFile().errorText(), QString("Current log file does not exist."));
}

QTEST_GUILESS_MAIN(LogWriterTest)
#include "tst_logwriter.moc"
