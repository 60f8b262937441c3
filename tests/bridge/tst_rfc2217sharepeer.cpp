// A pane's serial port shared over RFC 2217 against real peers: pyserial's
// rfc2217:// client and our own remote serial port client on one side, a
// socat pty pair as the serial line on the other.

#include "bridge/bridgeengine.h"
#include "bridge/listenerbridgeend.h"
#include "bridge/panedirectory.h"
#include "connection/connectioncontroller.h"
#include "support/ptypair.h"
#include "support/settingssandbox.h"
#include "terminal/portsession.h"

#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
#include <QSerialPort>
#include <QSignalSpy>
#include <QTcpSocket>
#include <QTest>
#include <QTimer>

#include <functional>
#include <memory>

namespace {

constexpr int kWait = 15000;

BridgeRecord shareRecord(const QString &paneLabel)
{
    BridgeRecord record;
    record.name = QStringLiteral("shared");
    record.kind = BridgeKind::Rfc2217Share;
    record.ends[BridgeRecord::kA].kind = BridgeEndSpec::Kind::Listener;
    record.ends[BridgeRecord::kA].listenAddress = QStringLiteral("127.0.0.1");
    record.ends[BridgeRecord::kA].listenPort = 0;
    record.ends[BridgeRecord::kB].kind = BridgeEndSpec::Kind::Pane;
    record.ends[BridgeRecord::kB].pane = paneLabel;
    return record;
}

QByteArray testPattern(qsizetype size, quint32 seed)
{
    QRandomGenerator rng(seed);
    QByteArray out;
    out.reserve(size);
    while (out.size() < size) {
        if (rng.bounded(3) == 0)
            out.append(QByteArray(int(rng.bounded(1, 3000)), char(0xFF)));
        for (int i = int(rng.bounded(1, 4000)); i > 0; --i)
            out.append(char(rng.bounded(256)));
    }
    out.truncate(size);
    return out;
}

qint64 residentKiB()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : status.readAll().split('\n')) {
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').value(0).toLongLong();
    }
    return -1;
}

} // namespace

class Rfc2217SharePeerTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanup();

    void pyserialSetsEverySettingAndTheLineShowsIt();
    void pyserialMovesBytesExactlyBothWays();
    void ourOwnClientTakesControlAndMovesBytes();
    void anAddressOffTheAllowlistIsRefused();
    void exclusiveModeRefusesASecondClient();
    void aClientThatNeverReadsKeepsMemoryFlat();

private:
    void startShare(const BridgeRecord *custom = nullptr);
    quint16 port() const { return qobject_cast<ListenerBridgeEnd *>(m_engine->end(BridgeRecord::kA))->listeningPort(); }
    QString url() const { return QStringLiteral("rfc2217://127.0.0.1:%1").arg(port()); }
    // Runs the pyserial script, answering its WAIT lines with `onWait`.
    QList<QByteArray> runPyserial(const QStringList &arguments, int timeoutMs,
                                  const std::function<void(const QByteArray &)> &onWait = {});

    std::unique_ptr<SettingsSandbox> m_settings;
    std::unique_ptr<PtyPair> m_pty;
    std::unique_ptr<PaneDirectory> m_panes;
    std::unique_ptr<PortSession> m_session;
    std::unique_ptr<BridgeEngine> m_engine;
    QTimer m_view;
};

void Rfc2217SharePeerTest::initTestCase()
{
    m_settings = std::make_unique<SettingsSandbox>();
    m_view.setInterval(20);
    connect(&m_view, &QTimer::timeout, this, [this] {
        if (m_session)
            m_session->takeForView(-1, -1);
    });
}

void Rfc2217SharePeerTest::cleanup()
{
    m_view.stop();
    m_engine.reset();
    m_session.reset();
    m_panes.reset();
    m_pty.reset();
}

void Rfc2217SharePeerTest::startShare(const BridgeRecord *custom)
{
    m_pty = std::make_unique<PtyPair>();
    QVERIFY2(m_pty->start(), qPrintable(m_pty->errorText()));
    m_panes = std::make_unique<PaneDirectory>();
    m_session = std::make_unique<PortSession>(1);
    ConnectionConfig config;
    config.mode = ConnectionMode::Serial;
    config.portName = m_pty->pathA();
    config.baudRate = 115200;
    PaneOptions options;
    options.logSaveFlag = false;
    m_session->applySettings(config, options, {});
    QVERIFY(m_session->openConnection());
    m_panes->add(m_session.get());
    m_view.start();

    BridgeRecord record = custom ? *custom : shareRecord(PaneDirectory::endpointLabel(m_session->config()));
    record.ends[BridgeRecord::kB].pane = PaneDirectory::endpointLabel(m_session->config());
    QVERIFY2(record.validate(), qPrintable(record.validate().errorText()));
    m_engine = std::make_unique<BridgeEngine>(record, m_panes.get());
    m_engine->start();
    QTRY_COMPARE_WITH_TIMEOUT(m_engine->state(), BridgeEngine::State::Running, kWait);
    QCOMPARE(m_session->bridgeLinks(), QStringList{QStringLiteral("shared")});  // the pane's badge
}

QList<QByteArray> Rfc2217SharePeerTest::runPyserial(const QStringList &arguments, int timeoutMs,
                                                     const std::function<void(const QByteArray &)> &onWait)
{
    QProcess client;
    client.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    client.start(QStringLiteral("/usr/bin/python3"), QStringList{QFINDTESTDATA("peers/rfc2217_client.py")} + arguments);
    if (!client.waitForStarted(5000)) {
        qWarning() << client.errorString();
        return {};
    }
    QList<QByteArray> lines;
    QByteArray partial;
    QDeadlineTimer deadline(timeoutMs);
    while (!deadline.hasExpired()) {
        QTest::qWait(10);
        partial += client.readAllStandardOutput();
        qsizetype newline;
        while ((newline = partial.indexOf('\n')) >= 0) {
            const QByteArray line = partial.left(newline).trimmed();
            partial.remove(0, newline + 1);
            lines.append(line);
            if (line.startsWith("WAIT ")) {
                if (onWait)
                    onWait(line.mid(5));
                client.write("go\n");
            }
        }
        if (lines.contains("DONE") || client.state() == QProcess::NotRunning)
            break;
    }
    if (!client.waitForFinished(5000)) {
        client.kill();
        client.waitForFinished(2000);
    }
    return lines;
}

void Rfc2217SharePeerTest::pyserialSetsEverySettingAndTheLineShowsIt()
{
    startShare();
    if (QTest::currentTestFailed())
        return;
    QSignalSpy status(m_session.get(), &PortSession::statusMessage);
    QSerialPort far(m_pty->pathB());
    QVERIFY(far.open(QIODevice::ReadWrite));
    QByteArray atFar;
    QStringList problems;

    const QList<QByteArray> lines = runPyserial(
        {url(), m_pty->pathA(), m_pty->pathB(), QStringLiteral("settings")}, 120000, [&](const QByteArray &what) {
            ConnectionController *controller = m_session->controller();
            if (what == "dtr-off" || what == "rts-off") {
                // The pty refused: the pane says so, and the level the
                // client was told is the one the pane keeps.
                const QByteArray name = what.left(3).toUpper();
                bool said = false;
                for (const QList<QVariant> &args : std::as_const(status))
                    said = said || args.value(0).toString().contains(QString::fromLatin1(name));
                if (!said)
                    problems << QStringLiteral("no refusal shown for %1").arg(QString::fromLatin1(name));
            } else if (what == "break-on" && !controller->breakLevel()) {
                problems << QStringLiteral("Break is not on");
            } else if (what == "break-off" && controller->breakLevel()) {
                problems << QStringLiteral("Break is still on");
            } else if (what == "purge") {
                QTRY_VERIFY_WITH_TIMEOUT((atFar += far.readAll()).contains("after purge\xff\r\n"), kWait);
            }
        });
    const QByteArray shown = lines.join('\n');
    qInfo().noquote() << shown;
    QVERIFY2(lines.contains("DONE"), shown.constData());
    for (const QByteArray &line : lines)
        QVERIFY2(!line.startsWith("FAIL"), shown.constData());
    QVERIFY2(problems.isEmpty(), qPrintable(problems.join(QStringLiteral("; "))));
    // Every setting on the list was either taken or truthfully refused.
    QCOMPARE(lines.count("PASS open at 9600"), 1);
    int settled = 0;
    for (const QByteArray &line : lines)
        settled += line.startsWith("PASS ") ? 1 : 0;
    QCOMPARE(settled, 15);
    // DTR and RTS do not exist on a pty: the client heard that they kept their level.
    QVERIFY2(shown.contains("REFUSED dtr") && shown.contains("REFUSED rts"), shown.constData());
    // The pane follows what the client set last, and shows the client's data as sent.
    QCOMPARE(m_session->config().baudRate, 230400);
    QCOMPARE(m_session->controller()->currentSerialParameters().baudRate, 230400);
    QVERIFY(m_session->txCount() >= quint64(qstrlen("after purge\xff\r\n")));
}

void Rfc2217SharePeerTest::pyserialMovesBytesExactlyBothWays()
{
    startShare();
    if (QTest::currentTestFailed())
        return;
    const QList<QByteArray> lines = runPyserial(
        {url(), m_pty->pathA(), m_pty->pathB(), QStringLiteral("transfer"), QStringLiteral("10")}, 280000);
    const QByteArray shown = lines.join('\n');
    QVERIFY2(lines.contains("DONE"), shown.constData());
    QVERIFY2(lines.contains("PASS up 10485760 bytes exact"), shown.constData());
    QVERIFY2(lines.contains("PASS down 10485760 bytes exact"), shown.constData());
    QCOMPARE(m_engine->counters(BridgeRecord::kAToB).droppedBytes, quint64(0));
    QCOMPARE(m_engine->counters(BridgeRecord::kBToA).droppedBytes, quint64(0));
    QCOMPARE(m_engine->counters(BridgeRecord::kAToB).bytes, quint64(10485760));
    QCOMPARE(m_engine->counters(BridgeRecord::kBToA).bytes, quint64(10485760));
}

void Rfc2217SharePeerTest::ourOwnClientTakesControlAndMovesBytes()
{
    startShare();
    if (QTest::currentTestFailed())
        return;
    QSerialPort far(m_pty->pathB());
    QVERIFY(far.open(QIODevice::ReadWrite));

    PortSession remote(2);
    ConnectionConfig config;
    config.mode = ConnectionMode::RemoteSerialRfc2217;
    config.targetHost = QStringLiteral("127.0.0.1");
    config.targetPort = port();
    config.baudRate = 38400;
    config.parity = QSerialPort::OddParity;
    config.stopBits = QSerialPort::TwoStop;
    PaneOptions options;
    options.logSaveFlag = false;
    options.displaySendMsg = false;
    remote.applySettings(config, options, {});
    QByteArray atRemote;
    connect(&remote, &PortSession::rxTapped, this, [&](const QByteArray &bytes) { atRemote += bytes; });
    QTimer remoteView;  // the remote pane's view takes what it shows
    connect(&remoteView, &QTimer::timeout, &remote, [&remote] { remote.takeForView(-1, -1); });
    remoteView.start(20);
    QVERIFY(remote.openConnection());
    QTRY_COMPARE_WITH_TIMEOUT(remote.controller()->remoteNegotiation(), ConnectionController::RemoteNegotiation::Rfc2217,
                              kWait);
    // The shared pane took the client's settings, but for the parity a pty
    // cannot have: the line keeps none, and so does the pane.
    QTRY_COMPARE_WITH_TIMEOUT(m_session->controller()->currentSerialParameters(),
                              (SerialParameters{38400, QSerialPort::Data8, QSerialPort::NoParity,
                                                QSerialPort::TwoStop, QSerialPort::NoFlowControl}),
                              kWait);
    QCOMPARE(m_session->config().parity, QSerialPort::NoParity);
    // A change made later goes through too.
    ConnectionConfig changed = remote.config();
    changed.baudRate = 19200;
    QVERIFY(remote.setSerialParameters(changed));
    QTRY_COMPARE_WITH_TIMEOUT(m_session->controller()->currentSerialParameters().baudRate, 19200, kWait);

    // A megabyte each way with runs of 0xFF.
    const QByteArray up = testPattern(1 << 20, 7);
    const QByteArray down = testPattern(1 << 20, 8);
    QByteArray atFar;
    for (qsizetype i = 0; i < up.size(); i += 64 * 1024) {
        QTRY_VERIFY_WITH_TIMEOUT(remote.peerBacklog() < 512 * 1024, kWait);
        QVERIFY(remote.sendBytes(up.mid(i, 64 * 1024), false));
        far.write(down.mid(i, 64 * 1024));
        atFar += far.readAll();
    }
    QTRY_VERIFY_WITH_TIMEOUT((atFar += far.readAll()).size() >= up.size() && atRemote.size() >= down.size(), 60000);
    QCOMPARE(atFar.size(), up.size());
    QVERIFY(atFar == up);
    QCOMPARE(atRemote.size(), down.size());
    QVERIFY(atRemote == down);
    remote.closeConnection();
}

void Rfc2217SharePeerTest::anAddressOffTheAllowlistIsRefused()
{
    BridgeRecord record = shareRecord(QString());
    record.ends[BridgeRecord::kA].allowlist = {QStringLiteral("10.20.30.0/24")};
    startShare(&record);
    if (QTest::currentTestFailed())
        return;
    QSignalSpy notices(m_engine.get(), &BridgeEngine::notice);
    QTcpSocket client;
    client.connectToHost(QHostAddress::LocalHost, port());
    QVERIFY(client.waitForConnected(5000));
    const QString label = QStringLiteral("127.0.0.1:%1").arg(client.localPort());
    QTRY_COMPARE_WITH_TIMEOUT(client.state(), QAbstractSocket::UnconnectedState, kWait);
    QVERIFY(!notices.isEmpty());
    QCOMPARE(notices.last().value(0).toString(),
             QStringLiteral("Refused %1: not on the address allowlist").arg(label));
    QCOMPARE(m_engine->lastNotice(), notices.last().value(0).toString());
}

void Rfc2217SharePeerTest::exclusiveModeRefusesASecondClient()
{
    BridgeRecord record = shareRecord(QString());
    record.ends[BridgeRecord::kA].exclusive = true;
    startShare(&record);
    if (QTest::currentTestFailed())
        return;
    QSignalSpy notices(m_engine.get(), &BridgeEngine::notice);
    QSerialPort far(m_pty->pathB());
    QVERIFY(far.open(QIODevice::ReadWrite));

    QTcpSocket first;
    first.connectToHost(QHostAddress::LocalHost, port());
    QVERIFY(first.waitForConnected(5000));
    first.write("hello");  // a raw client: its first byte is not IAC
    QByteArray atFar;
    QTRY_VERIFY_WITH_TIMEOUT((atFar += far.readAll()).contains("hello"), kWait);

    QTcpSocket second;
    second.connectToHost(QHostAddress::LocalHost, port());
    QVERIFY(second.waitForConnected(5000));
    const QString label = QStringLiteral("127.0.0.1:%1").arg(second.localPort());
    QTRY_COMPARE_WITH_TIMEOUT(second.state(), QAbstractSocket::UnconnectedState, kWait);
    QTRY_VERIFY_WITH_TIMEOUT(!notices.isEmpty(), kWait);
    QCOMPARE(notices.last().value(0).toString(),
             QStringLiteral("Refused %1: the port already has a client (exclusive mode)").arg(label));

    // The first keeps the port, raw both ways: 0xFF is not doubled.
    far.write(QByteArray::fromHex("41ff42"));
    QByteArray atFirst;
    QTRY_VERIFY_WITH_TIMEOUT((atFirst += first.readAll()) == QByteArray::fromHex("41ff42"), kWait);
    QCOMPARE(first.state(), QAbstractSocket::ConnectedState);
}

void Rfc2217SharePeerTest::aClientThatNeverReadsKeepsMemoryFlat()
{
    startShare();
    if (QTest::currentTestFailed())
        return;
    // A client that takes its first bytes and then reads nothing more.
    QTcpSocket stuck;
    stuck.setReadBufferSize(4096);
    stuck.connectToHost(QHostAddress::LocalHost, port());
    QVERIFY(stuck.waitForConnected(5000));
    stuck.write("x");
    QTRY_VERIFY_WITH_TIMEOUT(m_session->txCount() >= 1, kWait);

    // 64 MiB offered at the line's far end; the line is read only as fast
    // as the client takes it, so almost all of it stays unsent there.
    QSerialPort far(m_pty->pathB());
    QVERIFY(far.open(QIODevice::ReadWrite));
    const QByteArray block = testPattern(1 << 20, 3);
    const qint64 before = residentKiB();
    qint64 offered = 0;
    qint64 largestQueue = 0;
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < 4000 && offered < 64LL << 20) {
        if (far.bytesToWrite() < (1 << 20)) {
            far.write(block);
            offered += block.size();
        }
        QTest::qWait(5);
        largestQueue = std::max(largestQueue, m_engine->counters(BridgeRecord::kBToA).queuedBytes);
    }
    const qint64 after = residentKiB();
    const BridgeEngine::Counters toClients = m_engine->counters(BridgeRecord::kBToA);
    qInfo("offered %lld bytes, the pane read %llu, largest queue %lld bytes, resident %lld -> %lld KiB", offered,
          m_session->rxCount(), largestQueue, before, after);
    // What the bridge holds for the client stays within one window and a read.
    QVERIFY2(largestQueue <= 1024 * 1024, qPrintable(QString::number(largestQueue)));
    QCOMPARE(toClients.droppedBytes, quint64(0));
    // The pane read a few hundred KiB at most, not the 64 MiB offered.
    QVERIFY2(m_session->rxCount() < quint64(8 << 20), qPrintable(QString::number(m_session->rxCount())));
    QVERIFY2(after - before < 48 * 1024, qPrintable(QStringLiteral("%1 KiB -> %2 KiB").arg(before).arg(after)));
    QCOMPARE(stuck.state(), QAbstractSocket::ConnectedState);
    // The line is held back: its far end still has bytes it cannot hand over.
    QVERIFY(far.bytesToWrite() > 0);
}

QTEST_MAIN(Rfc2217SharePeerTest)
#include "tst_rfc2217sharepeer.moc"
