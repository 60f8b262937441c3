// Transfers against lrzsz (sx, rx, sb, rb), both directions, over TCP
// loopback and over a socat pty pair with lrzsz behind a second socat.
// Received files must be byte-identical (XMODEM: padded to whole blocks)
// and carry the sender's modification time where YMODEM sends it.
#include "support/lrzszpeer.h"
#include "support/ptypair.h"
#include "transfer/filetransfersession.h"
#include "transfer/xferport.h"
#include "transfer/xmodemcodec.h"

#include <QtTest>
#include <QProcess>
#include <QSerialPort>
#include <QTcpServer>
#include <QTcpSocket>

namespace {

constexpr int kTransferTimeoutMs = 60000;
const QDateTime kSourceTime = QDateTime::fromSecsSinceEpoch(1620000000);  // May 2021

// Line noise on one direction of the link: flips one bit in every n-th
// block-sized chunk (past its first three bytes, so the block is still
// recognised as one and answered at once), a bounded number of times.
struct LineNoise
{
    explicit LineNoise(quint32 seed = 0, int faults = 0) : rng(seed), faultsLeft(faults) {}

    QByteArray apply(QByteArray chunk)
    {
        if (faultsLeft <= 0 || chunk.size() < 133 || ++chunks % 7 != 0)
            return chunk;
        --faultsLeft;
        const qsizetype at = 3 + rng.bounded(chunk.size() - 3);
        chunk[at] = char(chunk.at(at) ^ (1 << rng.bounded(8)));
        return chunk;
    }

    QRandomGenerator rng;
    int faultsLeft;
    int chunks = 0;
};

// The test's side of the link: any open QIODevice as the session's port.
class DevicePort : public XferPort
{
public:
    explicit DevicePort(QIODevice *device) : m_device(device) {}

    bool write(const QByteArray &bytes) override
    {
        const QByteArray out = outgoingNoise ? outgoingNoise->apply(bytes) : bytes;
        written += out;
        return m_device->write(out) == out.size();
    }
    qint64 bytesToWrite() const override { return m_device->bytesToWrite(); }
    bool isOpen() const override { return m_device->isOpen(); }
    void lock(bool on) override { locks << on; }
    void writeNote(const QString &text) override { notes << text; }

    QList<bool> locks;
    QStringList notes;
    QByteArray written;
    LineNoise *outgoingNoise = nullptr;

private:
    QIODevice *m_device;
};

void attach(QIODevice *device, FileTransferSession *session, LineNoise *incomingNoise)
{
    QObject::connect(device, &QIODevice::readyRead, session, [device, session, incomingNoise] {
        const QByteArray bytes = device->readAll();
        session->feedReceived(incomingNoise ? incomingNoise->apply(bytes) : bytes);
    });
    QObject::connect(device, &QIODevice::bytesWritten, session, &FileTransferSession::onPortBytesWritten);
}

QByteArray pattern(qsizetype size)
{
    QByteArray data(size, Qt::Uninitialized);
    QRandomGenerator rng(quint32(size) * 2654435761u);
    for (qsizetype i = 0; i < size; ++i)
        data[i] = char(rng.bounded(256));
    return data;
}

// What an XMODEM receiver ends up with: the data filled with SUB up to the
// blocks the sender used.
QByteArray xmodemPadded(const QByteArray &data, bool longBlocks)
{
    qsizetype total = 0;
    while (total < data.size()) {
        const qsizetype remaining = data.size() - total;
        total += (longBlocks && remaining > 128) ? 1024 : 128;
    }
    return data + QByteArray(total - data.size(), 0x1A);
}

} // namespace

class TestTransferPeers : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void sendToLrzsz_data();
    void sendToLrzsz();
    void receiveFromLrzsz_data();
    void receiveFromLrzsz();
    void noisyLineRecoversWithRetries_data();
    void noisyLineRecoversWithRetries();
    void receiveThroughALossyLine_data();
    void receiveThroughALossyLine();
    void ymodemToRbOnAPtyEndsFinished();

private:
    void addRows(bool sending);
    // Runs one transfer; the session is created once the link is up.
    void runTransfer(const QString &transport, const QString &peerCommand, const QString &peerFolder,
                     const FileTransferSession::Request &request, bool *success, QString *summary,
                     LineNoise *noise = nullptr, int *retries = nullptr);
};

void TestTransferPeers::initTestCase()
{
    for (const char *tool : {"socat", "sx", "rx", "sb", "rb"})
        QVERIFY2(!QStandardPaths::findExecutable(QString::fromLatin1(tool)).isEmpty(),
                 qPrintable(QStringLiteral("%1 is missing: run scripts/setup.sh").arg(QLatin1String(tool))));
}

void TestTransferPeers::addRows(bool sending)
{
    QTest::addColumn<QString>("transport");
    QTest::addColumn<int>("protocol");
    QTest::addColumn<int>("size");
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("peerOptions");

    const int x = 0, xc = 1, x1k = 2, y = 3, yg = 4;
    const QString plain = QStringLiteral("data.bin");
    const QString odd = QStringLiteral("my file é 数据.bin");
    const int mib = 1024 * 1024;
    struct Row { const char *transport; int protocol; int size; QString name; const char *options; };
    QList<Row> rows;
    if (sending) {
        // lrzsz receives: rx asks for checksums unless -c.
        rows = {
            {"tcp", x, 1, plain, ""}, {"tcp", x, 128, plain, ""}, {"tcp", x, 129, plain, ""},
            {"tcp", xc, 0, plain, "-c"}, {"tcp", xc, 127, plain, "-c"}, {"tcp", xc, 1025, plain, "-c"},
            {"tcp", x1k, 1023, plain, "-c"}, {"tcp", x1k, 1024, plain, "-c"}, {"tcp", x1k, 1025, plain, "-c"},
            {"tcp", x1k, mib, plain, "-c"},
            {"tcp", y, 0, plain, ""}, {"tcp", y, 1, odd, ""}, {"tcp", y, 128, plain, ""},
            {"tcp", y, 129, odd, ""}, {"tcp", y, mib, odd, ""},
            // rb cannot ask for streaming: a YMODEM-G sender goes on as YMODEM.
            {"tcp", yg, 1025, plain, ""},
            {"pty", x, 129, plain, ""}, {"pty", xc, 128, plain, "-c"}, {"pty", x1k, 1025, plain, "-c"},
            {"pty", y, 1023, odd, ""}, {"pty", y, mib, plain, ""},
        };
    } else {
        // lrzsz sends: sx/sb follow what the receiver asks for; -k for 1K.
        rows = {
            {"tcp", x, 0, plain, ""}, {"tcp", x, 1, plain, ""}, {"tcp", x, 129, plain, ""},
            {"tcp", xc, 128, plain, ""}, {"tcp", xc, 1023, plain, ""},
            {"tcp", x1k, 1024, plain, "-k"}, {"tcp", x1k, 1025, plain, "-k"}, {"tcp", x1k, mib, plain, "-k"},
            {"tcp", y, 0, plain, ""}, {"tcp", y, 127, odd, ""}, {"tcp", y, 1025, plain, "-k"},
            {"tcp", y, mib, odd, "-k"}, {"tcp", y, mib, plain, ""},
            {"tcp", yg, 1, plain, "-k"}, {"tcp", yg, 1025, odd, "-k"}, {"tcp", yg, mib, plain, "-k"},
            {"pty", x, 128, plain, ""}, {"pty", xc, 1024, plain, ""}, {"pty", x1k, mib, plain, "-k"},
            {"pty", y, 129, odd, ""}, {"pty", y, mib, odd, "-k"},
            {"pty", yg, 1025, plain, "-k"},
        };
    }
    for (const Row &r : rows) {
        QTest::addRow("%s %s %d%s", r.transport,
                      qPrintable(FileTransferSession::protocolName(XmodemVariant(r.protocol))), r.size,
                      r.name == plain ? "" : " odd name")
            << QString::fromLatin1(r.transport) << r.protocol << r.size << r.name << QString::fromLatin1(r.options);
    }
}

void TestTransferPeers::runTransfer(const QString &transport, const QString &peerCommand, const QString &peerFolder,
                                    const FileTransferSession::Request &request, bool *success, QString *summary,
                                    LineNoise *noise, int *retries)
{
    LrzszPeer peer;
    std::unique_ptr<QIODevice> device;
    QTcpServer server;
    PtyPair pty;
    if (transport == QLatin1String("tcp")) {
        QVERIFY(server.listen(QHostAddress::LocalHost, 0));
        QVERIFY(peer.start(QStringLiteral("TCP:127.0.0.1:%1").arg(server.serverPort()), peerFolder,
                          peerCommand));
        QVERIFY(server.waitForNewConnection(10000));
        device.reset(server.nextPendingConnection());
        device->setParent(nullptr);
    } else {
        QVERIFY2(pty.start(), qPrintable(pty.errorText()));
        QVERIFY(peer.start(QStringLiteral("%1,raw,echo=0").arg(pty.pathB()), peerFolder, peerCommand));
        auto *serial = new QSerialPort;
        serial->setPortName(pty.pathA());
        serial->setBaudRate(115200);
        device.reset(serial);
        QVERIFY2(serial->open(QIODevice::ReadWrite), qPrintable(serial->errorString()));
    }

    DevicePort port(device.get());
    const bool sending = request.direction == FileTransferSession::Direction::Send;
    port.outgoingNoise = sending ? noise : nullptr;
    FileTransferSession session(&port, request);
    attach(device.get(), &session, sending ? nullptr : noise);
    QSignalSpy finished(&session, &FileTransferSession::finished);
    session.start();
    QElapsedTimer clock;
    clock.start();
    // An event loop, not a polling wait: polling would sleep between the
    // blocks and measure the test instead of the transfer.
    QVERIFY(finished.wait(kTransferTimeoutMs));
    qInfo("%s: %lld ms", QTest::currentDataTag(), clock.elapsed());
    *success = finished.at(0).at(0).toBool();
    *summary = finished.at(0).at(1).toString();
    if (retries)
        *retries = session.progressSnapshot().totalRetries;
    QCOMPARE(port.locks, (QList<bool>{true, false}));
    QCOMPARE(port.notes.last(), *summary);
    // lrzsz leaves by itself once it has our last answer, and says whether
    // it was content with the transfer.
    const int peerStatus = peer.waitForExit(15000);
    device->close();
    QVERIFY2(peerStatus >= 0, "lrzsz did not finish after the transfer");
    QCOMPARE(peerStatus, 0);
}

void TestTransferPeers::sendToLrzsz_data()
{
    addRows(true);
}

void TestTransferPeers::sendToLrzsz()
{
    QFETCH(QString, transport);
    QFETCH(int, protocol);
    QFETCH(int, size);
    QFETCH(QString, name);
    QFETCH(QString, peerOptions);
    const XmodemVariant v = XmodemVariant(protocol);

    QTemporaryDir src, dst;
    const QByteArray data = pattern(size);
    const QString path = src.filePath(name);
    {
        QFile f(path);
        QVERIFY(f.open(QIODevice::WriteOnly));
        QCOMPARE(f.write(data), qint64(data.size()));
        QVERIFY(f.flush());  // a later flush would move the time again
        QVERIFY(f.setFileTime(kSourceTime, QFileDevice::FileModificationTime));
    }
    const bool ymodem = isYmodemVariant(v);
    const QString received = ymodem ? name : QStringLiteral("out.bin");
    const QString command = ymodem ? QStringLiteral("rb -q %1").arg(peerOptions)
                                   : QStringLiteral("rx -q %1 %2").arg(peerOptions, LrzszPeer::shellQuote(received));
    FileTransferSession::Request request;
    request.protocol = v;
    request.direction = FileTransferSession::Direction::Send;
    request.filePath = path;
    bool ok = false;
    QString summary;
    runTransfer(transport, command, dst.path(), request, &ok, &summary);
    if (QTest::currentTestFailed())
        return;
    QVERIFY2(ok, qPrintable(summary));
    QVERIFY(summary.startsWith(QStringLiteral("Transfer complete: %1 bytes in ").arg(size)));

    QFile out(dst.filePath(received));
    QVERIFY2(out.open(QIODevice::ReadOnly), qPrintable(QDir(dst.path()).entryList(QDir::AllEntries | QDir::Hidden).join(", ")));
    const QByteArray got = out.readAll();
    if (ymodem) {
        QCOMPARE(got, data);
        QCOMPARE(QFileInfo(out).lastModified().toSecsSinceEpoch(), kSourceTime.toSecsSinceEpoch());
    } else {
        QCOMPARE(got, xmodemPadded(data, v == XmodemVariant::Xmodem1K));
    }
}

void TestTransferPeers::receiveFromLrzsz_data()
{
    addRows(false);
}

void TestTransferPeers::receiveFromLrzsz()
{
    QFETCH(QString, transport);
    QFETCH(int, protocol);
    QFETCH(int, size);
    QFETCH(QString, name);
    QFETCH(QString, peerOptions);
    const XmodemVariant v = XmodemVariant(protocol);

    QTemporaryDir src, dst;
    const QByteArray data = pattern(size);
    {
        QFile f(src.filePath(name));
        QVERIFY(f.open(QIODevice::WriteOnly));
        QCOMPARE(f.write(data), qint64(data.size()));
        QVERIFY(f.flush());  // a later flush would move the time again
        QVERIFY(f.setFileTime(kSourceTime, QFileDevice::FileModificationTime));
    }
    const bool ymodem = isYmodemVariant(v);
    const QString command = QStringLiteral("%1 -q %2 %3").arg(ymodem ? QStringLiteral("sb") : QStringLiteral("sx"), peerOptions, LrzszPeer::shellQuote(name));
    FileTransferSession::Request request;
    request.protocol = v;
    request.direction = FileTransferSession::Direction::Receive;
    request.folder = dst.path();
    request.fileName = QStringLiteral("typed name.bin");
    bool ok = false;
    QString summary;
    runTransfer(transport, command, src.path(), request, &ok, &summary);
    if (QTest::currentTestFailed())
        return;
    QVERIFY2(ok, qPrintable(summary));

    const QString savedAs = ymodem ? name : request.fileName;
    QCOMPARE(QDir(dst.path()).entryList(QDir::Files | QDir::Hidden), QStringList{savedAs});
    QFile in(dst.filePath(savedAs));
    QVERIFY(in.open(QIODevice::ReadOnly));
    const QByteArray got = in.readAll();
    if (ymodem) {
        QCOMPARE(got, data);
        QCOMPARE(QFileInfo(in).lastModified().toSecsSinceEpoch(), kSourceTime.toSecsSinceEpoch());
    } else {
        QCOMPARE(got, xmodemPadded(data, peerOptions.contains(QLatin1String("-k"))));
    }
}

void TestTransferPeers::noisyLineRecoversWithRetries_data()
{
    QTest::addColumn<bool>("sending");
    QTest::addColumn<int>("protocol");
    QTest::addColumn<QString>("peerOptions");
    QTest::addColumn<quint32>("seed");
    const quint32 seed = QRandomGenerator::global()->generate();
    QTest::addRow("to rx, XMODEM-CRC, seed %u", seed) << true << 1 << "-c" << seed;
    QTest::addRow("to rb, YMODEM, seed %u", seed + 1) << true << 3 << "" << seed + 1;
    QTest::addRow("from sx, XMODEM-1K, seed %u", seed + 2) << false << 2 << "-k" << seed + 2;
    QTest::addRow("from sb, YMODEM, seed %u", seed + 3) << false << 3 << "-k" << seed + 3;
}

// Flipped bits on the way to lrzsz (it asks again) or on the way to us (we
// ask again): the file still arrives whole, and the retries show.
void TestTransferPeers::noisyLineRecoversWithRetries()
{
    QFETCH(bool, sending);
    QFETCH(int, protocol);
    QFETCH(QString, peerOptions);
    QFETCH(quint32, seed);
    const XmodemVariant v = XmodemVariant(protocol);
    const bool ymodem = isYmodemVariant(v);
    QTemporaryDir src, dst;
    const QByteArray data = pattern(64 * 1024 + 77);
    {
        QFile f(src.filePath(QStringLiteral("noisy.bin")));
        QVERIFY(f.open(QIODevice::WriteOnly));
        QCOMPARE(f.write(data), qint64(data.size()));
    }
    FileTransferSession::Request request;
    request.protocol = v;
    QString command;
    QString folder;
    if (sending) {
        request.filePath = src.filePath(QStringLiteral("noisy.bin"));
        command = ymodem ? QStringLiteral("rb -q") : QStringLiteral("rx -q %1 noisy.bin").arg(peerOptions);
        folder = dst.path();
    } else {
        request.direction = FileTransferSession::Direction::Receive;
        request.folder = dst.path();
        request.fileName = QStringLiteral("noisy.bin");
        command = QStringLiteral("%1 -q %2 noisy.bin").arg(ymodem ? QStringLiteral("sb") : QStringLiteral("sx"), peerOptions);
        folder = src.path();
    }
    LineNoise noise(seed, 5);
    bool ok = false;
    QString summary;
    int retries = 0;
    runTransfer(QStringLiteral("tcp"), command, folder, request, &ok, &summary, &noise, &retries);
    if (QTest::currentTestFailed())
        return;
    QVERIFY2(ok, qPrintable(summary));
    QCOMPARE(noise.faultsLeft, 0);
    QVERIFY2(retries >= 5 || sending, qPrintable(summary));  // each damaged block cost us a request
    QFile in(dst.filePath(QStringLiteral("noisy.bin")));
    QVERIFY(in.open(QIODevice::ReadOnly));
    const QByteArray got = in.readAll();
    QCOMPARE(got.left(data.size()), data);
    QCOMPARE(got.size(), ymodem ? data.size() : xmodemPadded(data, v == XmodemVariant::Xmodem1K || !sending).size());
}

void TestTransferPeers::receiveThroughALossyLine_data()
{
    QTest::addColumn<int>("protocol");
    QTest::addColumn<quint32>("seed");
    // Fixed seeds: the line damages the same places on every run.
    QTest::newRow("from sx, XMODEM-CRC") << toInt(XmodemVariant::XmodemCrc) << 11u;
    QTest::newRow("from sb, YMODEM") << toInt(XmodemVariant::Ymodem) << 12u;
}

// lrzsz on one pty pair, us on another, and between them a line that drops
// or flips about one byte in 2000 on the way to us. A dropped byte leaves a
// block that never completes: the silence after it must bring a request at
// once, so the file arrives whole well within the transfer's time.
void TestTransferPeers::receiveThroughALossyLine()
{
    QFETCH(int, protocol);
    QFETCH(quint32, seed);
    const XmodemVariant v = XmodemVariant(protocol);
    const bool ymodem = isYmodemVariant(v);
    QTemporaryDir src, dst;
    const QByteArray data = pattern(12 * 1024 + 5);
    {
        QFile f(src.filePath(QStringLiteral("lossy.bin")));
        QVERIFY(f.open(QIODevice::WriteOnly));
        QCOMPARE(f.write(data), qint64(data.size()));
    }
    PtyPair farSide, nearSide;
    QVERIFY2(farSide.start(), qPrintable(farSide.errorText()));
    QVERIFY2(nearSide.start(), qPrintable(nearSide.errorText()));
    QProcess line;
    line.setProcessChannelMode(QProcess::SeparateChannels);
    line.start(QStringLiteral(TSL_NOISYLINE), {farSide.pathA(), nearSide.pathB(), QString::number(seed),
                                               QStringLiteral("2000"), QStringLiteral("forward")});
    QVERIFY2(line.waitForStarted(5000), qPrintable(line.errorString()));
    QSerialPort serial;
    serial.setPortName(nearSide.pathA());
    QVERIFY2(serial.open(QIODevice::ReadWrite), qPrintable(serial.errorString()));
    LrzszPeer peer;
    QVERIFY(peer.start(QStringLiteral("%1,raw,echo=0").arg(farSide.pathB()), src.path(),
                       QStringLiteral("%1 -q lossy.bin").arg(ymodem ? QStringLiteral("sb") : QStringLiteral("sx"))));

    FileTransferSession::Request request;
    request.protocol = v;
    request.direction = FileTransferSession::Direction::Receive;
    request.folder = dst.path();
    request.fileName = QStringLiteral("lossy.bin");
    DevicePort port(&serial);
    FileTransferSession session(&port, request);
    attach(&serial, &session, nullptr);
    QSignalSpy finished(&session, &FileTransferSession::finished);
    session.start();
    QElapsedTimer clock;
    clock.start();
    QVERIFY(finished.wait(kTransferTimeoutMs));
    qInfo("%s: %lld ms, %d retries", QTest::currentDataTag(), clock.elapsed(),
          session.progressSnapshot().totalRetries);
    line.terminate();
    QVERIFY(line.waitForFinished(5000));
    const QByteArray damage = line.readAllStandardError();
    qInfo("%s", damage.trimmed().constData());
    QVERIFY2(finished.at(0).at(0).toBool(), qPrintable(finished.at(0).at(1).toString()));
    QVERIFY2(damage.contains(" dropped ") && !damage.contains("dropped 0/"), damage.constData());
    QVERIFY(session.progressSnapshot().totalRetries > 0);
    QFile in(dst.filePath(QStringLiteral("lossy.bin")));
    QVERIFY(in.open(QIODevice::ReadOnly));
    const QByteArray got = in.readAll();
    QCOMPARE(got, ymodem ? data : xmodemPadded(data, false));
    serial.close();
    peer.waitForExit(5000);
}

QTEST_GUILESS_MAIN(TestTransferPeers)
// rb run straight on a tty, as a user runs it on a serial line (not behind
// socat): it acknowledges the end-of-batch header and flushes its tty as it
// leaves, so that acknowledgement never arrives. The send still ends as
// finished, at once after the wait for it, and leaves no cancel on the line.
void TestTransferPeers::ymodemToRbOnAPtyEndsFinished()
{
    QTemporaryDir src, dst;
    const QByteArray data = pattern(3000);
    const QString path = src.filePath(QStringLiteral("firmware.bin"));
    {
        QFile f(path);
        QVERIFY(f.open(QIODevice::WriteOnly));
        QCOMPARE(f.write(data), qint64(data.size()));
    }
    PtyPair pty;
    QVERIFY2(pty.start(), qPrintable(pty.errorText()));
    QProcess rb;
    rb.setWorkingDirectory(dst.path());
    rb.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    rb.start(QStringLiteral("/bin/sh"), {QStringLiteral("-c"),
                                         QStringLiteral("exec <\"$1\" >\"$1\"; stty raw -echo; exec rb -q"),
                                         QStringLiteral("sh"), pty.pathB()});
    QVERIFY(rb.waitForStarted(5000));
    QSerialPort serial;
    serial.setPortName(pty.pathA());
    serial.setBaudRate(115200);
    QVERIFY2(serial.open(QIODevice::ReadWrite), qPrintable(serial.errorString()));

    FileTransferSession::Request request;
    request.protocol = XmodemVariant::Ymodem;
    request.direction = FileTransferSession::Direction::Send;
    request.filePath = path;
    DevicePort port(&serial);
    FileTransferSession session(&port, request);
    attach(&serial, &session, nullptr);
    QSignalSpy finished(&session, &FileTransferSession::finished);
    session.start();
    QVERIFY(finished.wait(kTransferTimeoutMs));
    QVERIFY2(finished.at(0).at(0).toBool(), qPrintable(finished.at(0).at(1).toString()));
    QVERIFY(finished.at(0).at(1).toString().startsWith(QStringLiteral("Transfer complete: 3000 bytes in ")));
    // (rb also flushes its input after each acknowledgement, so an EOT sent
    // at once may be lost and asked for again: retries are allowed.)
    QVERIFY(!port.written.contains(XmodemCodec::cancelSequence()));
    QVERIFY(rb.state() == QProcess::NotRunning || rb.waitForFinished(15000));
    QCOMPARE(rb.exitStatus(), QProcess::NormalExit);
    QCOMPARE(rb.exitCode(), 0);
    QFile out(dst.filePath(QStringLiteral("firmware.bin")));
    QVERIFY(out.open(QIODevice::ReadOnly));
    QCOMPARE(out.readAll(), data);
}

#include "tst_transferpeers.moc"
