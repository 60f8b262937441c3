#include "terminal/logwriter.h"

#include <QtTest>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <csignal>
#include <sys/resource.h>

namespace {

QByteArray readAll(const QString &path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

// The file's text after its five header lines.
QString body(const QString &path)
{
    const QString all = QString::fromUtf8(readAll(path));
    qsizetype pos = 0;
    for (int i = 0; i < 5 && pos >= 0; ++i)
        pos = all.indexOf(u'\n', pos) + 1;
    return all.mid(pos);
}

bool put(LogWriter &writer, QStringView text)
{
    return writer.append(text) && writer.writePending();
}

// Stands in for a disk that fills up: files of this process cannot grow
// past the limit until it is lifted again.
class FileSizeLimit
{
public:
    FileSizeLimit() { getrlimit(RLIMIT_FSIZE, &m_saved); std::signal(SIGXFSZ, SIG_IGN); }
    ~FileSizeLimit() { lift(); }
    bool limitTo(rlim_t bytes)
    {
        rlimit limit = m_saved;
        limit.rlim_cur = bytes;
        return setrlimit(RLIMIT_FSIZE, &limit) == 0;
    }
    void lift() { setrlimit(RLIMIT_FSIZE, &m_saved); }

private:
    rlimit m_saved{};
};

} // namespace

class LogWriterTest : public QObject
{
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_dir;
    QDateTime m_now;  // the writer's clock, moved by hand

    LogWriter::Clock clock() { return [this] { return m_now; }; }
    int fileCount() const { return QDir(m_dir->path()).entryList(QDir::Files).size(); }
    LogWriter::Options options() const
    {
        LogWriter::Options o;
        o.folder = m_dir->path();
        o.portStamp = "ser-ttyUSB0";
        o.timestampEnabled = false;
        return o;
    }
    QString logPath() const { return m_dir->filePath("tsl_ser-ttyUSB0-20240305.log"); }

private Q_SLOTS:
    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        QVERIFY(m_dir->isValid());
        m_now = QDateTime(QDate(2024, 3, 5), QTime(10, 20, 30, 400));
    }

    void fileNames_data()
    {
        QTest::addColumn<QString>("pattern");
        QTest::addColumn<QString>("port");
        QTest::addColumn<bool>("hour");
        QTest::addColumn<QString>("name");
        QTest::newRow("hour stamp") << "tsl_%S-%Y%M%D.log" << "tcpc-1" << true << "tsl_tcpc-1-20240305-10.log";
        QTest::newRow("no extension with hour") << "log%Y" << "x" << true << "log2024-10";
        QTest::newRow("device path made safe") << "%S.txt" << "/dev/ttyS0" << false << "_dev_ttyS0.txt";
        QTest::newRow("address made safe") << "%S.txt" << "127.0.0.1:6000" << false << "127.0.0.1_6000.txt";
        QTest::newRow("no port") << "%S.txt" << "" << false << "port.txt";
        QTest::newRow("percent kept") << "100%%_%Q.log" << "x" << false << "100%_%Q.log";
    }

    void fileNames()
    {
        QFETCH(QString, pattern);
        QFETCH(QString, port);
        QFETCH(bool, hour);
        QFETCH(QString, name);
        QCOMPARE(LogWriter::expandFileName(pattern, port, m_now, hour), name);
    }

    void timestampPattern()
    {
        const QDateTime t(QDate(2024, 1, 2), QTime(3, 4, 5, 6));
        QCOMPARE(LogWriter::formatTimestamp("%Y-%M-%D %h%", t), QString("2024-01-02 03%"));
        QCOMPARE(LogWriter::archiveFilePath("/logs/tsl_a-20240102.log", t),
                 QString("/logs/tsl_a-20240102-20240102-030405-006.log"));
        QCOMPARE(LogWriter::archiveFilePath("/logs/plain", t), QString("/logs/plain-20240102-030405-006"));
    }

    void headerAndUtf8()
    {
        LogWriter::Options o = options();
        o.folder = m_dir->filePath("deep/er");  // missing folders are created
        LogWriter writer(clock());
        const QString missing = "Current log file does not exist.";
        QCOMPARE(writer.checkCurrentFile().errorText(), missing);
        QVERIFY(writer.open(o));
        const QString path = m_dir->filePath("deep/er/tsl_ser-ttyUSB0-20240305.log");
        QCOMPARE(writer.filePath(), path);
        QVERIFY(writer.checkCurrentFile());
        QVERIFY(writer.append(QString::fromUtf8("温度 25℃\n")));
        QVERIFY(!body(path).contains(u'℃'));  // only written when asked
        QVERIFY(writer.writePending());
        QCOMPARE(writer.pendingBytes(), 0);
        const QStringList lines = QString::fromUtf8(readAll(path)).split(u'\n');
        QCOMPARE(lines.mid(0, 5), (QStringList{"  Product: Tessaline", "  Version: 6.6.7", "File Name: " + path,
                                               "Launch at: " + LogWriter::launchTime().toString("yyyy-MM-dd'T'hh:mm:ss"),
                                               "Current Time: 2024-03-05T10:20:30"}));
        // Opened again, the file goes on without a second header.
        writer.close();
        LogWriter again(clock());
        QVERIFY(again.open(o));
        QVERIFY(again.append(u"more\n"));
        again.close();  // writes what is pending
        QCOMPARE(QString::fromUtf8(readAll(path)).count("Product:"), 1);
        QCOMPARE(body(path), QString::fromUtf8("温度 25℃\nmore\n"));
        QVERIFY(QFile::remove(path));
        QCOMPARE(again.checkCurrentFile().errorText(), missing);
    }

    void fullDiskKeepsTextUntilItRecovers()
    {
        LogWriter writer(clock());
        QVERIFY(writer.open(options()));
        QVERIFY(put(writer, u"before\n"));
        const qint64 full = QFileInfo(logPath()).size();

        // The disk is full: nothing accepted is lost, and the error is the
        // system's own.
        FileSizeLimit disk;
        QVERIFY(disk.limitTo(rlim_t(full)));
        QString expected;
        for (int i = 0; i < 1000; ++i) {
            const QString line = QStringLiteral("line %1\n").arg(i);
            expected += line;
            writer.append(line);
        }
        const Result failed = writer.writePending();
        QVERIFY(!failed);
        QVERIFY2(failed.errorText().startsWith("Could not write log file '" + logPath() + "': "),
                 qPrintable(failed.errorText()));
        QVERIFY(!failed.errorText().contains("Please input correct log file name!"));
        QCOMPARE(writer.pendingBytes(), expected.toUtf8().size());

        // Space comes back: the next write carries on where it stopped.
        disk.lift();
        QVERIFY(writer.writePending());
        QCOMPARE(body(logPath()), "before\n" + expected);

        // Past its own bound the writer drops the oldest text and says so.
        QVERIFY(disk.limitTo(rlim_t(QFileInfo(logPath()).size())));
        const QByteArray block(1024 * 1024 - 1, 'x');
        for (qint64 i = 0; i <= LogWriter::kPendingLimitBytes / block.size() + 2; ++i)
            writer.append(QString::fromLatin1(block + '\n'));
        QVERIFY(!writer.writePending());
        QVERIFY(writer.pendingBytes() <= LogWriter::kPendingLimitBytes);
        disk.lift();
        QVERIFY(writer.writePending());
        QVERIFY(writer.append(u"after\n") && writer.writePending());
        const QString text = body(logPath());
        QVERIFY(text.contains(" bytes of log text were lost here: they could not be written in time --\n"));
        QVERIFY(text.endsWith("x\nafter\n"));
    }

    void diskFullPastTheBoundCountsTheGapOnce()
    {
        LogWriter writer(clock());
        QVERIFY(writer.open(options()));
        QVERIFY(put(writer, u"before\n"));

        // Room for part of the next write only: the system takes some of it
        // and refuses the rest, and the user must read why.
        FileSizeLimit disk;
        QVERIFY(disk.limitTo(rlim_t(QFileInfo(logPath()).size() + 100)));
        const QString block = QString(1024 * 1024 - 1, u'x') + u'\n';
        qint64 appended = 0;
        QStringList errors;
        for (int tick = 0; tick < 4; ++tick) {
            for (int i = 0; i < 8; ++i) {
                // Only the first batch past the threshold tries the disk;
                // while it refuses, the rest wait for the tick.
                const Result r = writer.append(block);
                if (!r)
                    errors.append(r.errorText());
                appended += block.size();
            }
            errors.append(writer.writePending().errorText());
            QVERIFY(writer.pendingBytes() <= LogWriter::kPendingLimitBytes);
        }
        for (const QString &error : std::as_const(errors))
            QVERIFY2(error.startsWith("Could not write log file '" + logPath() + "': "), qPrintable(error));

        disk.lift();
        QVERIFY(writer.writePending());
        const QString text = body(logPath());
        const QRegularExpression note(QStringLiteral("\n-- ([0-9,. ]+) bytes of log text were lost here"));
        QCOMPARE(text.count(note), 1);
        const QString counted = note.match(text).captured(1);
        const qint64 dropped = QString(counted).remove(QRegularExpression(QStringLiteral("[^0-9]"))).toLongLong();
        const qint64 kept = text.size() - QStringLiteral("before\n").size() - LogWriter::gapNoteText(dropped).size();
        QVERIFY(dropped >= appended - LogWriter::kPendingLimitBytes - 100);
        QCOMPARE(dropped + kept, appended);
        QVERIFY(text.endsWith("x\n"));
    }

    void timestampsPerLineAndBigBatches()
    {
        LogWriter::Options o = options();
        o.timestampEnabled = true;
        LogWriter writer(clock());
        QVERIFY(writer.open(o));
        QVERIFY(writer.append(u"a\nb"));
        m_now = m_now.addMSecs(1250);
        QVERIFY(put(writer, u"c\n\nd\n"));  // "c" goes on with the line begun with "b"
        QCOMPARE(body(writer.filePath()),
                 QString("[10:20:30.400] a\n[10:20:30.400] bc\n[10:20:31.650] \n[10:20:31.650] d\n"));
        // A batch over the threshold is written without waiting for the tick.
        QVERIFY(writer.open(options()));
        QString batch;
        while (batch.size() < LogWriter::kWriteThresholdBytes)
            batch += QString(99, u'x') + u'\n';
        QVERIFY(writer.append(batch));
        QCOMPARE(writer.pendingBytes(), 0);
        QVERIFY(body(writer.filePath()).endsWith("d\n" + batch));
    }

    void rotationBySize()
    {
        LogWriter::Options o = options();
        o.rotateAtSize = true;
        o.rotateSizeBytes = 300;
        LogWriter writer(clock());
        QVERIFY(writer.open(o));
        const QString first = QString(250, u'1') + u'\n';
        QVERIFY(put(writer, first));  // header and 251 bytes: now over the limit
        QVERIFY(QFileInfo(logPath()).size() > 300);
        QCOMPARE(fileCount(), 1);
        m_now = m_now.addSecs(60);
        QVERIFY(put(writer, u"second\n"));
        QCOMPARE(fileCount(), 2);
        QCOMPARE(body(LogWriter::archiveFilePath(logPath(), m_now)), first);
        QCOMPARE(body(logPath()), QString("second\n"));
        QVERIFY(readAll(logPath()).startsWith("  Product: Tessaline\n"));
        QCOMPARE(writer.filePath(), logPath());  // the name does not change
        m_now = m_now.addSecs(60);
        QVERIFY(put(writer, first));  // a modest file is left alone
        QCOMPARE(fileCount(), 2);
        // Something already sits under the archive name: the rename fails,
        // and the file is kept and written on.
        m_now = m_now.addSecs(60);
        QVERIFY(QDir().mkpath(LogWriter::archiveFilePath(logPath(), m_now) + "/occupied"));
        QVERIFY(writer.append(u"also kept\n"));
        const Result rotated = writer.writePending();
        QVERIFY2(rotated.errorText().startsWith("Could not rotate log file '" + logPath() + "': "),
                 qPrintable(rotated.errorText()));
        QCOMPARE(body(logPath()), "second\n" + first + "also kept\n");
        QCOMPARE(writer.pendingBytes(), 0);
        QVERIFY(writer.isOpen());
    }

    void rotationAtTime_data()
    {
        QTest::addColumn<QTime>("openedAt");
        QTest::addColumn<QTime>("checkedAt");
        QTest::addColumn<int>("daysLater");
        QTest::addColumn<bool>("rotates");
        // Rotation is at 18:00; the save tick comes every few seconds.
        QTest::newRow("on the time") << QTime(17, 59, 50) << QTime(18, 0) << 0 << true;
        QTest::newRow("200 ms after") << QTime(17, 59, 50) << QTime(18, 0, 0, 200) << 0 << true;
        QTest::newRow("a save tick after") << QTime(17, 59, 58) << QTime(18, 0, 3) << 0 << true;
        QTest::newRow("just before") << QTime(17, 59, 50) << QTime(17, 59, 59, 999) << 0 << false;
        QTest::newRow("opened after the time") << QTime(18, 0, 0, 100) << QTime(18, 0, 1) << 0 << false;
        QTest::newRow("next day before the time") << QTime(19, 0) << QTime(8, 0) << 1 << false;
        QTest::newRow("days of silence") << QTime(19, 0) << QTime(8, 0) << 3 << true;
    }

    void rotationAtTime()
    {
        QFETCH(QTime, openedAt);
        QFETCH(QTime, checkedAt);
        QFETCH(int, daysLater);
        QFETCH(bool, rotates);
        LogWriter::Options o = options();
        o.rotateAtTime = true;
        o.rotateTime = QTime(18, 0);
        m_now = QDateTime(QDate(2024, 3, 5), openedAt);
        LogWriter writer(clock());
        QVERIFY(writer.open(o));
        QVERIFY(put(writer, u"before\n"));
        m_now = QDateTime(QDate(2024, 3, 5).addDays(daysLater), checkedAt);
        QVERIFY(put(writer, u"after\n"));
        QCOMPARE(fileCount(), rotates ? 2 : 1);
        QCOMPARE(body(logPath()), QString(rotates ? "after\n" : "before\nafter\n"));
        if (!rotates)
            return;
        QCOMPARE(body(LogWriter::archiveFilePath(logPath(), m_now)), QString("before\n"));
        m_now = m_now.addSecs(45);  // later checks the same day do not rotate again
        QVERIFY(put(writer, u"later\n"));
        QCOMPARE(fileCount(), 2);
    }

    void rotationGuard()
    {
        LogWriter::Options o = options();
        o.rotateAtSize = true;
        o.rotateSizeBytes = 10;  // the header alone passes it
        o.rotateAtTime = true;
        o.rotateTime = QTime(0, 0);
        m_now = QDateTime(QDate(2024, 3, 5), QTime(23, 59, 30));
        LogWriter writer(clock());
        QVERIFY(writer.open(o));
        const QDateTime rotated(QDate(2024, 3, 5), QTime(23, 59, 45));
        m_now = rotated;
        QVERIFY(put(writer, u"one\n"));  // rotates by size
        QCOMPARE(fileCount(), 2);
        // Midnight 16 s later, and 29.9 s later: too soon after that rotation.
        m_now = QDateTime(QDate(2024, 3, 6), QTime(0, 0, 1));
        QVERIFY(put(writer, u"two\n"));
        m_now = rotated.addMSecs(LogWriter::kRotationGuardMs - 100);
        QVERIFY(writer.writePending());
        QCOMPARE(fileCount(), 2);
        QCOMPARE(body(logPath()), QString("one\ntwo\n"));
        m_now = rotated.addMSecs(LogWriter::kRotationGuardMs);  // 30 s: rotates by size again
        QVERIFY(put(writer, u"three\n"));
        QCOMPARE(fileCount(), 3);
        QCOMPARE(body(logPath()), QString("three\n"));
    }

    void openFailures_data()
    {
        QTest::addColumn<QString>("pattern");
        QTest::addColumn<QString>("folder");    // under the test folder; empty: none
        QTest::addColumn<QString>("obstacle");  // put in the way first, then taken away
        QTest::addColumn<QString>("error");     // %1: the test folder; the reason follows an open error
        const QString logFile = "tsl_%S-%Y%M%D.log";
        const QString badName = "Please input correct log file name!";
        QTest::newRow("empty name") << "" << "." << "" << badName;
        QTest::newRow("name with a folder") << "sub/%S.log" << "." << "" << badName;
        QTest::newRow("no folder") << logFile << "" << "" << badName;
        QTest::newRow("path is a directory") << logFile << "." << "tsl_ser-ttyUSB0-20240305.log/"
                                             << "Log path is a directory, not a file: %1/tsl_ser-ttyUSB0-20240305.log";
        QTest::newRow("folder cannot be created") << logFile << "blocker/logs" << "blocker"
                                                  << "Could not create log directory '%1/blocker/logs'";
        QTest::newRow("file cannot be opened") << logFile << "." << "tsl_ser-ttyUSB0-20240305.log"
                                               << "Could not open log file '%1/tsl_ser-ttyUSB0-20240305.log': ";
    }

    void openFailures()
    {
        QFETCH(QString, pattern);
        QFETCH(QString, folder);
        QFETCH(QString, obstacle);
        QFETCH(QString, error);
        error.replace("%1", m_dir->path());
        LogWriter::Options o = options();
        o.fileNamePattern = pattern;
        o.folder = folder.isEmpty() ? QString() : QDir::cleanPath(m_dir->filePath(folder));
        const QString blocker = m_dir->filePath(obstacle);
        if (obstacle.endsWith(u'/'))
            QVERIFY(QDir().mkpath(blocker));
        else if (obstacle == u"blocker")  // no folder can live inside a plain file, whoever runs this
            QVERIFY(QFile(blocker).open(QIODevice::WriteOnly));
        else if (!obstacle.isEmpty())  // a link to a folder that is not there
            QVERIFY(QFile::link(m_dir->filePath("missing/x.log"), blocker));
        LogWriter writer(clock());
        const Result opened = writer.open(o);
        QVERIFY(!opened && !writer.isOpen());
        if (error.endsWith(u' '))
            QVERIFY2(opened.errorText().startsWith(error) && opened.errorText().size() > error.size(),
                     qPrintable(opened.errorText()));
        else
            QCOMPARE(opened.errorText(), error);
        // The text is kept, and each write reports the problem rather than
        // losing it quietly; once the obstacle is gone it reaches the file.
        QVERIFY(writer.append(u"kept\n"));
        const Result written = writer.writePending();
        QCOMPARE(written.errorText().left(error.size()), error);
        QCOMPARE(writer.pendingBytes(), 5);
        if (obstacle.isEmpty())
            return;
        QVERIFY(QFileInfo(blocker).isDir() ? QDir(blocker).removeRecursively() : QFile::remove(blocker));
        QVERIFY(put(writer, u"later\n"));
        QCOMPARE(body(writer.filePath()), QString("kept\nlater\n"));
    }
};

QTEST_GUILESS_MAIN(LogWriterTest)
#include "tst_logwriter.moc"
