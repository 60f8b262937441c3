// File-transfer throughput against lrzsz: 4 MiB with each variant over TCP
// loopback and over a socat pty pair, our side sending and receiving, beside
// lrzsz against itself over the same kind of link in the same run. Asked
// for by name ("bench_transfer noisy"), 1 MiB XMODEM-CRC and YMODEM from
// lrzsz through a pty line that drops or flips one byte in about 20,000
// each way, received by us and by lrzsz's own receiver over the same line
// (same seed). Times
// run from the start until both ends are done, so lrzsz's fixed pauses
// weigh on every pairing alike. The event loop's worst stall while our side
// runs is printed too. One figure per line: name, value, unit.
#include "support/benchsupport.h"
#include "transfer/filetransfersession.h"
#include "transfer/xferport.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRandomGenerator>
#include <QSerialPort>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <memory>

namespace {

constexpr qint64 kFileBytes = 4 * 1024 * 1024;
constexpr int kTimeoutMs = 180000;

bool spinUntil(const std::function<bool()> &done, qint64 timeoutMs = kTimeoutMs)
{
    return BenchSupport::runUntil(done, timeoutMs);
}


struct Variant
{
    const char *tag;
    XmodemVariant protocol;
    const char *sendCommand;     // lrzsz as the sender
    const char *receiveCommand;  // lrzsz as the receiver; empty: lrzsz cannot receive it
};

const Variant kVariants[] = {
    {"xmodem", XmodemVariant::Xmodem, "sx -q data.bin", "rx -q out.bin"},
    {"xmodem_crc", XmodemVariant::XmodemCrc, "sx -q data.bin", "rx -q -c out.bin"},
    {"xmodem_1k", XmodemVariant::Xmodem1K, "sx -q -k data.bin", "rx -q -c out.bin"},
    {"ymodem_1k", XmodemVariant::Ymodem, "sb -q -k data.bin", "rb -q -y"},
    {"ymodem_g", XmodemVariant::YmodemG, "sb -q -k data.bin", ""},
};

void print(const QString &name, double value, const char *unit)
{
    std::printf("%s %.1f %s\n", qPrintable(name), value, unit);
    std::fflush(stdout);
}

// The largest gap between ticks of a 5 ms timer while it runs.
class StallMeter
{
public:
    StallMeter()
    {
        m_timer.setInterval(5);
        QObject::connect(&m_timer, &QTimer::timeout, [this] {
            m_worst = qMax(m_worst, m_clock.restart());
        });
        m_clock.start();
        m_timer.start();
    }
    qint64 worst() const { return m_worst; }

private:
    QTimer m_timer;
    QElapsedTimer m_clock;
    qint64 m_worst = 0;
};

class DevicePort : public XferPort
{
public:
    explicit DevicePort(QIODevice *device) : m_device(device) {}
    // Pushed out at once: the other end answers every block, so bytes left
    // for the next turn of the event loop cost a round of latency each.
    bool write(const QByteArray &bytes) override
    {
        if (m_device->write(bytes) != bytes.size())
            return false;
        if (auto *serial = qobject_cast<QSerialPort *>(m_device))
            serial->flush();
        else if (auto *socket = qobject_cast<QAbstractSocket *>(m_device))
            socket->flush();
        return true;
    }
    qint64 bytesToWrite() const override { return m_device->bytesToWrite(); }
    bool isOpen() const override { return m_device->isOpen(); }
    void lock(bool) override {}
    void writeNote(const QString &) override {}

private:
    QIODevice *m_device;
};

// A shell script running `command` in `folder`, so socat needs no quoting.
QString writeScript(const QTemporaryDir &scripts, const QString &folder, const QString &command)
{
    static int serial = 0;
    const QString path = scripts.filePath(QStringLiteral("peer%1.sh").arg(++serial));
    QFile f(path);
    if (!f.open(QIODevice::WriteOnly))
        return QString();
    f.write(QStringLiteral("#!/bin/sh\ncd '%1' && exec %2 2>/dev/null\n").arg(folder, command).toUtf8());
    f.close();
    f.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    return path;
}

bool startSocat(QProcess &p, const QStringList &args)
{
    p.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    p.start(QStringLiteral("socat"), args);
    return p.waitForStarted(5000);
}

bool finished(const QProcess &p)
{
    return p.state() == QProcess::NotRunning;
}

// Two linked ptys; the paths exist once socat has made them.
bool startPtyPair(QProcess &socat, const QString &a, const QString &b)
{
    if (!startSocat(socat, {QStringLiteral("pty,raw,echo=0,link=%1").arg(a),
                            QStringLiteral("pty,raw,echo=0,link=%1").arg(b)}))
        return false;
    return spinUntil([&] { return QFileInfo::exists(a) && QFileInfo::exists(b); }, 5000);
}

constexpr qint64 kNoisyFileBytes = 1024 * 1024;
constexpr int kNoisyOneIn = 20000;
constexpr quint32 kNoisySeed = 20;

// A serial line with its two ends at `a` (the receiver's) and `b` (the
// sender's); noisy, it is two pty pairs with a byte-losing relay between.
struct PtyLine
{
    QProcess near, far, relay;
    bool start(const QTemporaryDir &scripts, const QString &name, bool noisy, QString *a, QString *b)
    {
        *a = scripts.filePath(name + QStringLiteral("A"));
        *b = scripts.filePath(name + QStringLiteral("B"));
        for (const QString &path : {*a, *b, *a + QStringLiteral("r"), *b + QStringLiteral("r")})
            QFile::remove(path);
        if (!noisy)
            return startPtyPair(near, *a, *b);
        if (!startPtyPair(near, *a, *a + QStringLiteral("r")) || !startPtyPair(far, *b + QStringLiteral("r"), *b))
            return false;
        relay.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        relay.start(QStringLiteral(TSL_NOISYLINE),
                    {*b + QStringLiteral("r"), *a + QStringLiteral("r"), QString::number(kNoisySeed),
                     QString::number(kNoisyOneIn), QStringLiteral("both")});
        return relay.waitForStarted(5000);
    }
    ~PtyLine()
    {
        relay.terminate();
        relay.waitForFinished(3000);
        for (QProcess *p : {&near, &far}) {
            if (p->state() != QProcess::NotRunning) {
                p->kill();
                p->waitForFinished(3000);
            }
        }
    }
};

qint64 timeoutFor(const QString &link)
{
    return link == QLatin1String("noisy") ? 3 * kTimeoutMs : kTimeoutMs;
}

struct Run
{
    bool ok = false;
    qint64 ms = 0;
    qint64 worstStallMs = -1;
};

// lrzsz against itself.
Run lrzszPair(const QString &link, const Variant &v, const QString &src, const QString &dst,
              const QTemporaryDir &scripts)
{
    Run run;
    const QString sender = writeScript(scripts, src, QString::fromLatin1(v.sendCommand));
    const QString receiver = writeScript(scripts, dst, QString::fromLatin1(v.receiveCommand));
    QProcess a, b;
    PtyLine line;
    QElapsedTimer clock;
    clock.start();
    if (link == QLatin1String("tcp")) {
        QTcpServer probe;
        probe.listen(QHostAddress::LocalHost, 0);
        const quint16 port = probe.serverPort();
        probe.close();
        if (!startSocat(a, {QStringLiteral("TCP-LISTEN:%1,bind=127.0.0.1,reuseaddr").arg(port),
                            QStringLiteral("EXEC:%1").arg(receiver)})
            || !startSocat(b, {QStringLiteral("TCP:127.0.0.1:%1,retry=100,interval=0.02").arg(port),
                               QStringLiteral("EXEC:%1").arg(sender)}))
            return run;
    } else {
        QString ttyA, ttyB;
        if (!line.start(scripts, QStringLiteral("ref"), link == QLatin1String("noisy"), &ttyA, &ttyB)
            || !startSocat(a, {QStringLiteral("%1,raw,echo=0").arg(ttyA), QStringLiteral("EXEC:%1").arg(receiver)})
            || !startSocat(b, {QStringLiteral("%1,raw,echo=0").arg(ttyB), QStringLiteral("EXEC:%1").arg(sender)}))
            return run;
    }
    run.ok = spinUntil([&] { return finished(a) && finished(b); }, timeoutFor(link));
    run.ms = clock.elapsed();
    for (QProcess *p : {&a, &b}) {
        if (p->state() != QProcess::NotRunning) {
            p->kill();
            p->waitForFinished(3000);
        }
    }
    return run;
}

// Our session against lrzsz running `command` in `folder`.
Run oursAgainst(const QString &link, const FileTransferSession::Request &request, const QString &folder,
                const QString &command, const QTemporaryDir &scripts)
{
    Run run;
    const QString script = writeScript(scripts, folder, command);
    QProcess peer;
    PtyLine line;
    std::unique_ptr<QIODevice> device;
    QTcpServer server;
    QElapsedTimer clock;
    clock.start();
    if (link == QLatin1String("tcp")) {
        server.listen(QHostAddress::LocalHost, 0);
        if (!startSocat(peer, {QStringLiteral("TCP:127.0.0.1:%1").arg(server.serverPort()),
                               QStringLiteral("EXEC:%1").arg(script)})
            || !spinUntil([&] { return server.hasPendingConnections(); }, 10000))
            return run;
        device.reset(server.nextPendingConnection());
        device->setParent(nullptr);
    } else {
        QString ttyA, ttyB;
        if (!line.start(scripts, QStringLiteral("ours"), link == QLatin1String("noisy"), &ttyA, &ttyB)
            || !startSocat(peer, {QStringLiteral("%1,raw,echo=0").arg(ttyB), QStringLiteral("EXEC:%1").arg(script)}))
            return run;
        auto *serial = new QSerialPort(ttyA);
        device.reset(serial);
        if (!serial->open(QIODevice::ReadWrite))
            return run;
    }
    DevicePort port(device.get());
    FileTransferSession session(&port, request);
    QIODevice *io = device.get();
    QObject::connect(io, &QIODevice::readyRead, &session, [io, &session] { session.feedReceived(io->readAll()); });
    QObject::connect(io, &QIODevice::bytesWritten, &session, &FileTransferSession::onPortBytesWritten);
    bool success = false;
    bool done = false;
    QObject::connect(&session, &FileTransferSession::finished, [&](bool ok, const QString &summary) {
        success = ok;
        done = true;
        if (!ok)
            std::fprintf(stderr, "%s\n", qPrintable(summary));
    });
    StallMeter stalls;
    session.start();
    run.ok = spinUntil([&] { return done && finished(peer); }, timeoutFor(link)) && success;
    run.ms = clock.elapsed();
    run.worstStallMs = stalls.worst();
    device->close();
    for (QProcess *p : {&peer}) {
        if (p->state() != QProcess::NotRunning) {
            p->kill();
            p->waitForFinished(3000);
        }
    }
    return run;
}

void report(const QString &name, const Run &run, qint64 bytes = kFileBytes)
{
    if (!run.ok) {
        std::printf("%s failed - -\n", qPrintable(name));
        std::fflush(stdout);
        return;
    }
    print(name, double(bytes) / 1024.0 / (double(qMax<qint64>(1, run.ms)) / 1000.0), "KB/s");
    print(name + QStringLiteral("_time"), double(run.ms) / 1000.0, "s");
    if (run.worstStallMs >= 0)
        print(name + QStringLiteral("_worst_stall"), double(run.worstStallMs), "ms");
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    // "bench_transfer pty xmodem" runs only the pairings whose names hold
    // every word given.
    const QStringList only = app.arguments().mid(1);
    QTemporaryDir scripts;
    QTemporaryDir src;
    QByteArray data(kFileBytes, Qt::Uninitialized);
    QRandomGenerator rng(42);
    for (qsizetype i = 0; i < data.size(); ++i)
        data[i] = char(rng.bounded(256));
    {
        QFile f(src.filePath(QStringLiteral("data.bin")));
        if (!f.open(QIODevice::WriteOnly) || f.write(data) != data.size()) {
            std::fprintf(stderr, "cannot write the test file\n");
            return 1;
        }
    }

    int failures = 0;
    if (only.contains(QStringLiteral("noisy"))) {
        // The same line for both receivers: lrzsz's own and ours.
        QTemporaryDir noisySrc;
        {
            QFile f(noisySrc.filePath(QStringLiteral("data.bin")));
            if (!f.open(QIODevice::WriteOnly) || f.write(data.left(kNoisyFileBytes)) != kNoisyFileBytes)
                return 1;
        }
        for (const Variant &v : kVariants) {
            if (v.protocol != XmodemVariant::XmodemCrc && v.protocol != XmodemVariant::Ymodem)
                continue;
            const QString base = QStringLiteral("transfer_noisy_%1").arg(QLatin1String(v.tag));
            QTemporaryDir dst;
            const Run ref = lrzszPair(QStringLiteral("noisy"), v, noisySrc.path(), dst.path(), scripts);
            report(base + QStringLiteral("_lrzsz_to_lrzsz"), ref, kNoisyFileBytes);
            QTemporaryDir dst2;
            FileTransferSession::Request receive;
            receive.protocol = v.protocol;
            receive.direction = FileTransferSession::Direction::Receive;
            receive.folder = dst2.path();
            receive.fileName = QStringLiteral("out.bin");
            const Run ours = oursAgainst(QStringLiteral("noisy"), receive, noisySrc.path(),
                                         QString::fromLatin1(v.sendCommand), scripts);
            report(base + QStringLiteral("_lrzsz_to_ours"), ours, kNoisyFileBytes);
            QFile got(dst2.filePath(QStringLiteral("out.bin")));
            const bool intact = got.open(QIODevice::ReadOnly) && got.read(kNoisyFileBytes) == data.left(kNoisyFileBytes);
            print(base + QStringLiteral("_ours_intact"), intact ? 1 : 0, "yes");
            if (ref.ok && ours.ok)
                print(base + QStringLiteral("_ours_speed_vs_lrzsz"), double(ref.ms) / double(qMax<qint64>(1, ours.ms)),
                      "ratio");
            failures += (!ref.ok) + (!ours.ok) + (!intact);
        }
        return failures == 0 ? 0 : 1;
    }
    for (const QString &link : {QStringLiteral("tcp"), QStringLiteral("pty")}) {
        for (const Variant &v : kVariants) {
            const QString base = QStringLiteral("transfer_%1_%2").arg(link, QLatin1String(v.tag));
            if (std::any_of(only.begin(), only.end(), [&](const QString &w) { return !base.contains(w); }))
                continue;
            if (*v.receiveCommand) {
                QTemporaryDir dst;
                const Run ref = lrzszPair(link, v, src.path(), dst.path(), scripts);
                report(base + QStringLiteral("_lrzsz_to_lrzsz"), ref);

                QTemporaryDir dst2;
                FileTransferSession::Request send;
                send.protocol = v.protocol;
                send.filePath = src.filePath(QStringLiteral("data.bin"));
                const Run sent = oursAgainst(link, send, dst2.path(), QString::fromLatin1(v.receiveCommand), scripts);
                report(base + QStringLiteral("_ours_to_lrzsz"), sent);
                failures += (!ref.ok) + (!sent.ok);
            }
            QTemporaryDir dst3;
            FileTransferSession::Request receive;
            receive.protocol = v.protocol;
            receive.direction = FileTransferSession::Direction::Receive;
            receive.folder = dst3.path();
            receive.fileName = QStringLiteral("out.bin");
            const Run received = oursAgainst(link, receive, src.path(), QString::fromLatin1(v.sendCommand), scripts);
            report(base + QStringLiteral("_lrzsz_to_ours"), received);
            failures += !received.ok;
        }
    }
    return failures == 0 ? 0 : 1;
}
