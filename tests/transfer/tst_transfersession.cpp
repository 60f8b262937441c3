// The transfer session with real files on a scripted port: received file
// names, numbered and partial files, modification times, the summary lines
// and the stop reasons.
#include "transfer/filetransfersession.h"
#include "transfer/xferfilesink.h"
#include "transfer/xferport.h"

#include <QtTest>

namespace {

constexpr char EOT = 0x04, ACK = 0x06, CAN = 0x18;

// The pane's side: takes every write at once, remembers it all.
class ScriptPort : public XferPort
{
public:
    bool write(const QByteArray &bytes) override
    {
        if (!open)
            return false;
        written += bytes;
        return true;
    }
    qint64 bytesToWrite() const override { return stuck; }
    bool isOpen() const override { return open; }
    void lock(bool on) override { locks << on; }
    void writeNote(const QString &text) override { notes << text; }

    bool open = true;
    qint64 stuck = 0;  // bytes the peer never takes
    QByteArray written;
    QList<bool> locks;
    QStringList notes;
};

QByteArray block(int number, const QByteArray &data)
{
    return XmodemCodec::makeBlock(number, data, true);
}

QByteArray header(const QString &name, qint64 size, qint64 mtime = 0)
{
    return block(0, XmodemCodec::makeHeaderData(name, size, mtime));
}

// Plays the device: feeds bytes and lets the session finish its writes.
struct Device
{
    FileTransferSession &session;
    void send(const QByteArray &bytes)
    {
        session.feedReceived(bytes);
        for (int i = 0; i < 5; ++i)
            QCoreApplication::processEvents();
    }
};

FileTransferSession::Request receiveRequest(XmodemVariant protocol, const QString &folder,
                                            const QString &name = QString())
{
    FileTransferSession::Request r;
    r.protocol = protocol;
    r.direction = FileTransferSession::Direction::Receive;
    r.folder = folder;
    r.fileName = name;
    return r;
}

QStringList filesIn(const QString &folder)
{
    return QDir(folder).entryList(QDir::Files | QDir::Hidden, QDir::Name);
}

} // namespace

class TestTransferSession : public QObject
{
    Q_OBJECT

private slots:
    void receivedNamesAreMadeSafe_data();
    void receivedNamesAreMadeSafe();
    void takenNamesGetNumbers();
    void ymodemReceptionNamesTheFileItSaved();
    void failedReceptionKeepsWhatArrivedAside();
    void successSummaryGivesBytesTimeRateAndRetries();
    void stopReasons_data();
    void stopReasons();
    void unreadableSourceEndsAtOnceAndReleasesThePort();
    void fileChangedWhileSendingIsReported();
    void fullDiskRefusesTheOffer();
    void peerThatTakesNothingEndsTheTransfer();
};

void TestTransferSession::receivedNamesAreMadeSafe_data()
{
    QTest::addColumn<QString>("requested");
    QTest::addColumn<QString>("expected");
    QTest::newRow("path and stream") << "../../etc/COM3.txt:stream" << "_COM3.txt";
    QTest::newRow("windows path") << "C:\\temp\\log.txt" << "log.txt";
    QTest::newRow("spaces and dots") << "  report. . ." << "report";
    QTest::newRow("device names") << "nul" << "_nul";
    QTest::newRow("device with suffix") << "Lpt9.tar.gz" << "_Lpt9.tar.gz";
    QTest::newRow("not a device") << "COM10.txt" << "COM10.txt";
    QTest::newRow("empty") << "" << "received_20240102-030405.bin";
    QTest::newRow("only dots") << "..." << "received_20240102-030405.bin";
    QTest::newRow("long utf-8") << QString(300, QChar(0x00E9)) << QString(127, QChar(0x00E9));
    QTest::newRow("non-ascii kept") << "données 数据.bin" << "données 数据.bin";
}

void TestTransferSession::receivedNamesAreMadeSafe()
{
    QFETCH(QString, requested);
    QFETCH(QString, expected);
    const QDateTime now(QDate(2024, 1, 2), QTime(3, 4, 5));
    const QString got = XferFileSink::sanitisedName(requested, now);
    QCOMPARE(got, expected);
    QVERIFY(got.toUtf8().size() <= 255);
}

void TestTransferSession::takenNamesGetNumbers()
{
    QTemporaryDir dir;
    for (const char *name : {"data.bin", "data (1).bin", "README", ".profile"}) {
        QFile f(dir.filePath(QString::fromLatin1(name)));
        QVERIFY(f.open(QIODevice::WriteOnly));
    }
    QCOMPARE(XferFileSink::freeName(dir.path(), "data.bin"), QStringLiteral("data (2).bin"));
    QCOMPARE(XferFileSink::freeName(dir.path(), "README"), QStringLiteral("README (1)"));
    QCOMPARE(XferFileSink::freeName(dir.path(), ".profile"), QStringLiteral(".profile (1)"));
    QCOMPARE(XferFileSink::freeName(dir.path(), "new.bin"), QStringLiteral("new.bin"));
}

void TestTransferSession::ymodemReceptionNamesTheFileItSaved()
{
    QTemporaryDir dir;
    const QByteArray data(300, 'd');
    const qint64 in1990 = QDateTime(QDate(1990, 6, 1), QTime(0, 0)).toSecsSinceEpoch();
    struct Case { QString announced; qint64 mtime; QString savedAs; QStringList notes; };
    const QList<Case> cases = {
        {"data.bin", 1620000000, "data.bin", {}},
        {"data.bin", in1990, "data (1).bin",
         {"A file of that name already existed, so this one was saved as \"data (1).bin\"."}},
        {"../../etc/COM3.txt:stream", 0, "_COM3.txt",
         {"The device asked for the name \"../../etc/COM3.txt:stream\"; it was saved as \"_COM3.txt\"."}},
    };
    for (const Case &c : cases) {
        ScriptPort port;
        FileTransferSession session(&port, receiveRequest(XmodemVariant::Ymodem, dir.path()));
        QSignalSpy finished(&session, &FileTransferSession::finished);
        Device device{session};
        session.start();
        QCOMPARE(port.written, QByteArray("C"));
        QCOMPARE(session.title(), QStringLiteral("Receiving with YMODEM"));
        device.send(header(c.announced, data.size(), c.mtime));
        device.send(block(1, data.left(128)));
        device.send(block(2, data.mid(128, 128)));
        device.send(block(3, data.mid(256) + QByteArray(84, 0x1A)));
        device.send(QByteArray(1, EOT));
        device.send(block(0, QByteArray(128, '\0')));
        QCOMPARE(finished.count(), 1);
        QVERIFY(finished.at(0).at(0).toBool());
        const QStringList lines = finished.at(0).at(1).toString().split('\n');
        QVERIFY2(lines.first().startsWith("Transfer complete: 300 bytes in "), qPrintable(lines.first()));
        QCOMPARE(lines.mid(1), c.notes);
        QCOMPARE(session.destinationPath(), dir.filePath(c.savedAs));
        QFile saved(dir.filePath(c.savedAs));
        QVERIFY(saved.open(QIODevice::ReadOnly));
        QCOMPARE(saved.readAll(), data);
        const qint64 mtime = QFileInfo(saved).lastModified().toSecsSinceEpoch();
        if (c.mtime == 1620000000)
            QCOMPARE(mtime, c.mtime);
        else  // no time, or an implausible one: the file keeps the time it was written
            QVERIFY(qAbs(mtime - QDateTime::currentSecsSinceEpoch()) < 120);
        QCOMPARE(port.locks, (QList<bool>{true, false}));
        QCOMPARE(port.notes, (QStringList{"Receiving with YMODEM", finished.at(0).at(1).toString()}));
    }
    QCOMPARE(filesIn(dir.path()), (QStringList{"_COM3.txt", "data (1).bin", "data.bin"}));
}

void TestTransferSession::failedReceptionKeepsWhatArrivedAside()
{
    QTemporaryDir dir;
    QFile existing(dir.filePath("data.bin.partial"));
    QVERIFY(existing.open(QIODevice::WriteOnly));
    existing.close();

    ScriptPort port;
    FileTransferSession session(&port, receiveRequest(XmodemVariant::Ymodem, dir.path()));
    QSignalSpy finished(&session, &FileTransferSession::finished);
    QSignalSpy progress(&session, &FileTransferSession::progress);
    Device device{session};
    session.start();
    const QByteArray piece(128, 'p');
    device.send(header("data.bin", 10 * 128));
    for (int i = 1; i <= 3; ++i)
        device.send(block(i, piece));
    QVERIFY(filesIn(dir.path()).contains(".data.bin.part"));
    QVERIFY(!filesIn(dir.path()).contains("data.bin"));
    device.send(QByteArray(2, CAN));

    QCOMPARE(finished.count(), 1);
    QVERIFY(!finished.at(0).at(0).toBool());
    QCOMPARE(finished.at(0).at(1).toString(),
             QStringLiteral("Transfer failed: The device cancelled the transfer. (30% transferred)\n"
                            "What arrived was kept as \"data.bin (1).partial\"."));
    QCOMPARE(session.errorCode(), int(XmodemError::DeviceCancelled));
    QCOMPARE(session.stopReason(), FileTransferSession::StopReason::DeviceCancel);
    // Never under the final name, no hidden leftover, no cancel sequence
    // back to a device that cancelled.
    QCOMPARE(filesIn(dir.path()), (QStringList{"data.bin (1).partial", "data.bin.partial"}));
    QFile kept(dir.filePath("data.bin (1).partial"));
    QVERIFY(kept.open(QIODevice::ReadOnly));
    QCOMPARE(kept.readAll(), piece.repeated(3));
    QVERIFY(!port.written.contains(char(CAN)));
    QVERIFY(!progress.isEmpty());
    QCOMPARE(progress.last().at(0).toLongLong(), 384);
    QCOMPARE(progress.last().at(1).toLongLong(), 1280);
}

void TestTransferSession::successSummaryGivesBytesTimeRateAndRetries()
{
    QTemporaryDir dir;
    qint64 now = 1000;
    ScriptPort port;
    FileTransferSession session(&port, receiveRequest(XmodemVariant::XmodemCrc, dir.path(), "typed.bin"), nullptr,
                                [&now] { return now; });
    QSignalSpy finished(&session, &FileTransferSession::finished);
    Device device{session};
    session.start();
    QCOMPARE(session.fileName(), QStringLiteral("typed.bin"));
    QByteArray damaged = block(1, QByteArray(128, 'a'));
    damaged[10] = 'x';
    device.send(damaged);  // one retry
    for (int i = 1; i <= 80; ++i)
        device.send(block(i, QByteArray(128, 'a')));
    now += 2500;
    device.send(QByteArray(1, EOT));
    QTRY_COMPARE_WITH_TIMEOUT(finished.count(), 1, 5000);
    QCOMPARE(finished.at(0).at(1).toString(),
             QStringLiteral("Transfer complete: 10240 bytes in 2.5 s, 4.0 KB/s, 1 retries"));
    QCOMPARE(QFileInfo(dir.filePath("typed.bin")).size(), 10240);
}

void TestTransferSession::stopReasons_data()
{
    QTest::addColumn<bool>("sending");
    QTest::addColumn<int>("reason");
    QTest::addColumn<bool>("portOpen");
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("message");
    using R = FileTransferSession::StopReason;
    QTest::newRow("user, sending") << true << int(R::UserCancel) << true << 4
                                   << "Cancelled. The device may still have received up to one more block of data -- if this was a firmware update, run the whole update again.";
    QTest::newRow("user, receiving") << false << int(R::UserCancel) << true << 4 << "Cancelled.";
    QTest::newRow("device") << false << int(R::DeviceCancel) << true << 3 << "The device cancelled the transfer.";
    QTest::newRow("closed") << true << int(R::ConnectionClosed) << false << 5
                            << "The connection was closed, so the transfer stopped. If this was a firmware update the device may be left with an incomplete image -- run the update again.";
    QTest::newRow("lost") << false << int(R::ConnectionLost) << false << 5
                          << "The connection was lost, so the transfer stopped. If this was a firmware update the device may be left with an incomplete image -- run the update again.";
}

void TestTransferSession::stopReasons()
{
    QFETCH(bool, sending);
    QFETCH(int, reason);
    QFETCH(bool, portOpen);
    QFETCH(int, code);
    QFETCH(QString, message);

    QTemporaryDir dir;
    const QString source = dir.filePath("fw.bin");
    {
        QFile f(source);
        QVERIFY(f.open(QIODevice::WriteOnly));
        f.write(QByteArray(2048, 'f'));
    }
    FileTransferSession::Request request = receiveRequest(XmodemVariant::Xmodem1K, dir.path(), "in.bin");
    if (sending) {
        request.direction = FileTransferSession::Direction::Send;
        request.filePath = source;
    }
    ScriptPort port;
    FileTransferSession session(&port, request);
    QSignalSpy finished(&session, &FileTransferSession::finished);
    Device device{session};
    session.start();
    if (sending) {
        QCOMPARE(session.title(), QStringLiteral("Sending fw.bin (XMODEM-1K, 2048 bytes)"));
        device.send("C");
        device.send(QByteArray(1, ACK));
    } else {
        device.send(block(1, QByteArray(1024, 'r')));
    }
    port.written.clear();
    port.open = portOpen;
    session.stop(FileTransferSession::StopReason(reason));
    session.stop(FileTransferSession::StopReason::UserCancel);  // an ended session ignores it

    QCOMPARE(finished.count(), 1);
    QCOMPARE(session.errorCode(), code);
    QCOMPARE(session.failureMessage(), message);
    QCOMPARE(finished.at(0).at(1).toString().section('\n', 0, 0),
             QStringLiteral("Transfer failed: %1%2").arg(message, sending ? " (50% transferred)" : ""));
    QCOMPARE(port.written, portOpen ? XmodemCodec::cancelSequence() : QByteArray());
    QCOMPARE(port.locks, (QList<bool>{true, false}));
    if (!sending)
        QCOMPARE(filesIn(dir.path()), (QStringList{"fw.bin", "in.bin.partial"}));
}

void TestTransferSession::unreadableSourceEndsAtOnceAndReleasesThePort()
{
    QTemporaryDir dir;
    ScriptPort port;
    FileTransferSession::Request request;
    request.protocol = XmodemVariant::Ymodem;
    request.filePath = dir.filePath("missing.bin");
    FileTransferSession session(&port, request);
    QSignalSpy finished(&session, &FileTransferSession::finished);
    session.start();
    QCOMPARE(finished.count(), 1);
    QVERIFY(!finished.at(0).at(0).toBool());
    QCOMPARE(finished.at(0).at(1).toString(),
             QStringLiteral("Transfer failed: Could not open missing.bin: No such file or directory"));
    QCOMPARE(port.locks, (QList<bool>{true, false}));
    QVERIFY(port.written.isEmpty());
}

void TestTransferSession::fileChangedWhileSendingIsReported()
{
    QTemporaryDir dir;
    const QString path = dir.filePath("grows.log");
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(QByteArray(200, 'g'));
    file.flush();
    ScriptPort port;
    FileTransferSession::Request request;
    request.protocol = XmodemVariant::XmodemCrc;
    request.filePath = path;
    FileTransferSession session(&port, request);
    QSignalSpy finished(&session, &FileTransferSession::finished);
    Device device{session};
    session.start();
    device.send("C");
    device.send(QByteArray(1, ACK));
    file.write(QByteArray(50, 'h'));
    file.flush();
    device.send(QByteArray(1, ACK));
    QCOMPARE(finished.count(), 1);
    QCOMPARE(session.errorCode(), int(XmodemError::FileChanged));
    QCOMPARE(finished.at(0).at(1).toString(),
             QStringLiteral("Transfer failed: The file changed while it was being sent. (100% transferred)"));
    QVERIFY(port.written.endsWith(XmodemCodec::cancelSequence()));
}

void TestTransferSession::fullDiskRefusesTheOffer()
{
    QTemporaryDir dir;
    ScriptPort port;
    FileTransferSession session(&port, receiveRequest(XmodemVariant::Ymodem, dir.path()));
    QSignalSpy finished(&session, &FileTransferSession::finished);
    Device device{session};
    session.start();
    const qint64 huge = qint64(1) << 55;  // more than any test machine has
    device.send(header("huge.img", huge));
    QCOMPARE(finished.count(), 1);
    QCOMPARE(session.errorCode(), int(XmodemError::CreateFailed));
    const QString summary = finished.at(0).at(1).toString();
    QVERIFY2(summary.startsWith("Transfer failed: Could not create the destination file. "), qPrintable(summary));
    QVERIFY2(summary.contains(QStringLiteral("MB free but the file needs %1 MB. Choose another location.").arg(huge / 1048576)),
             qPrintable(summary));
    QVERIFY(port.written.endsWith(XmodemCodec::cancelSequence()));
    QVERIFY(filesIn(dir.path()).isEmpty());
}

// A write the peer never takes holds the codec (it waits for the write to
// finish before its own timeouts start): the session ends it once nothing
// has gone out for a minute, and not while bytes still trickle out.
void TestTransferSession::peerThatTakesNothingEndsTheTransfer()
{
    QTemporaryDir dir;
    qint64 now = 0;
    ScriptPort port;
    port.stuck = 100;
    FileTransferSession session(&port, receiveRequest(XmodemVariant::Ymodem, dir.path(), QString()), nullptr,
                                [&now] { return now; });
    QSignalSpy finished(&session, &FileTransferSession::finished);
    session.start();
    QCOMPARE(port.written, QByteArray("C"));
    now += FileTransferSession::kWriteStallMs - 1000;
    session.onPortBytesWritten();  // some went out
    QTest::qWait(0);
    now += FileTransferSession::kWriteStallMs - 1000;
    session.onTick();
    QCOMPARE(finished.count(), 0);
    now += 1000;
    session.onTick();
    QCOMPARE(finished.count(), 1);
    QCOMPARE(finished.at(0).at(1).toString(),
             QStringLiteral("Transfer failed: The connection stopped taking data for 60 s, so the transfer stopped."));
    QCOMPARE(port.locks, (QList<bool>{true, false}));
}

QTEST_GUILESS_MAIN(TestTransferSession)
#include "tst_transfersession.moc"
