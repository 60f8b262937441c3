// Bridges against real peers on loopback and pseudo-terminals: a TCP client
// through the bridge's listener to a serial pane and the far end of its
// line, both ways at once, byte-exact and in order; two clients with fan-out;
// each overflow policy with a client that reads slowly; a cable looped back
// with socat tripping the flood guard; UDP targets; a pane waited for.

#include "bridge/bridgeengine.h"
#include "bridge/listenerbridgeend.h"
#include "bridge/panedirectory.h"
#include "connection/connectioncontroller.h"
#include "support/ptypair.h"
#include "support/settingssandbox.h"
#include "terminal/portsession.h"

#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
#include <QSerialPort>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>
#include <QUdpSocket>

#include <memory>

namespace {

constexpr int kWait = 20000;

QByteArray randomBytes(qint64 size, quint32 seed)
{
    QRandomGenerator random(seed);
    QByteArray bytes(size, Qt::Uninitialized);
    auto *words = reinterpret_cast<quint32 *>(bytes.data());
    random.fillRange(words, size / 4);
    for (qint64 i = size / 4 * 4; i < size; ++i)
        bytes[i] = char(random.bounded(256));
    return bytes;
}

// Writes a block to a device in pieces as it takes them, and keeps what
// comes back; optionally reads only so much per tick (a slow reader).
class Peer : public QObject
{
public:
    Peer(QIODevice *device, QByteArray toSend = {})
        : m_device(device)
        , m_toSend(std::move(toSend))
    {
        connect(device, &QIODevice::bytesWritten, this, &Peer::pump);
        connect(device, &QIODevice::readyRead, this, [this] {
            if (!m_slowTimer.isActive())
                received += m_device->readAll();
        });
        connect(&m_slowTimer, &QTimer::timeout, this, [this] { received += m_device->read(m_slowChunk); });
    }

    void start() { pump(); }
    bool allSent() const { return m_sent == m_toSend.size() && m_device->bytesToWrite() == 0; }
    // Reads at most `bytes` every `everyMs` until readFast() is called.
    void readSlowly(qint64 bytes, int everyMs)
    {
        m_slowChunk = bytes;
        m_slowTimer.start(everyMs);
    }
    void readFast()
    {
        m_slowTimer.stop();
        received += m_device->readAll();
    }

    QByteArray received;

private:
    void pump()
    {
        while (m_sent < m_toSend.size() && m_device->bytesToWrite() < 256 * 1024) {
            const qint64 n = qMin<qint64>(64 * 1024, m_toSend.size() - m_sent);
            const qint64 w = m_device->write(m_toSend.constData() + m_sent, n);
            if (w <= 0)
                return;
            m_sent += w;
        }
    }

    QIODevice *m_device;
    QByteArray m_toSend;
    qint64 m_sent = 0;
    QTimer m_slowTimer;
    qint64 m_slowChunk = 0;
};

BridgeRecord gatewayRecord(const QString &paneLabel)
{
    BridgeRecord record;
    record.name = QStringLiteral("gateway");
    record.ends[BridgeRecord::kA].kind = BridgeEndSpec::Kind::Listener;
    record.ends[BridgeRecord::kA].listenAddress = QStringLiteral("127.0.0.1");
    record.ends[BridgeRecord::kA].listenPort = 0;
    record.ends[BridgeRecord::kB].kind = BridgeEndSpec::Kind::Pane;
    record.ends[BridgeRecord::kB].pane = paneLabel;
    record.direction = BridgeDirection::Both;
    record.flood.echoCheck = false;
    return record;
}

} // namespace

class BridgeEngineTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void gatewayMovesBytesBothWaysExactlyAndInOrder();
    void twoClientsKeepTheirFramesAndBothGetEverything();
    void pauseSourceLosesNothingAndKeepsTheQueueBounded();
    void dropPoliciesCountExactlyWhatASlowClientMisses_data();
    void dropPoliciesCountExactlyWhatASlowClientMisses();
    void disconnectPolicyDropsTheSlowClient();
    void cableLoopTripsTheFloodGuard();
    void aSustainedFloodSuspendsTheBridgeUntilEnabled();
    void udpTargetsGetEachFrameAsOneDatagram();
    void aMissingPaneIsWaitedForAndLinkedWhileAttached();

private:
    // The pane over the pair's end A, with a view that drains what it shows.
    void openPane(quint32 seedUnused = 0);
    ListenerBridgeEnd *listener(BridgeEngine &engine) const
    {
        return qobject_cast<ListenerBridgeEnd *>(engine.end(BridgeRecord::kA));
    }
    std::unique_ptr<QTcpSocket> connectClient(BridgeEngine &engine, int receiveBuffer = 0);

    std::unique_ptr<SettingsSandbox> m_settings;
    std::unique_ptr<PtyPair> m_pty;
    std::unique_ptr<PaneDirectory> m_panes;
    std::unique_ptr<PortSession> m_session;
    std::unique_ptr<QSerialPort> m_far;
    QTimer m_view;
};

void BridgeEngineTest::initTestCase()
{
    m_settings = std::make_unique<SettingsSandbox>();
    // The view of a pane: what it received is taken off its queue.
    m_view.setInterval(20);
    connect(&m_view, &QTimer::timeout, this, [this] {
        if (m_session)
            m_session->takeForView(-1, -1);
    });
}

void BridgeEngineTest::init()
{
    m_pty = std::make_unique<PtyPair>();
    QVERIFY2(m_pty->start(), qPrintable(m_pty->errorText()));
    m_panes = std::make_unique<PaneDirectory>();
    m_far = std::make_unique<QSerialPort>();
    m_far->setPortName(m_pty->pathB());
    QVERIFY2(m_far->open(QIODevice::ReadWrite), qPrintable(m_far->errorString()));
}

void BridgeEngineTest::cleanup()
{
    m_view.stop();
    m_far.reset();
    m_session.reset();
    m_panes.reset();
    m_pty.reset();
}

void BridgeEngineTest::openPane(quint32)
{
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
}

std::unique_ptr<QTcpSocket> BridgeEngineTest::connectClient(BridgeEngine &engine, int receiveBuffer)
{
    auto socket = std::make_unique<QTcpSocket>();
    if (receiveBuffer > 0)
        socket->setSocketOption(QAbstractSocket::ReceiveBufferSizeSocketOption, receiveBuffer);
    socket->connectToHost(QHostAddress::LocalHost, listener(engine)->listeningPort());
    if (!socket->waitForConnected(5000))
        return nullptr;
    if (receiveBuffer > 0)
        socket->setReadBufferSize(receiveBuffer);
    return socket;
}

void BridgeEngineTest::gatewayMovesBytesBothWaysExactlyAndInOrder()
{
    openPane();
    const QString label = PaneDirectory::endpointLabel(m_session->config());
    BridgeEngine engine(gatewayRecord(label), m_panes.get());
    engine.start();
    QCOMPARE(engine.state(), BridgeEngine::State::Running);
    auto client = connectClient(engine);
    QVERIFY(client);
    QTRY_COMPARE_WITH_TIMEOUT(listener(engine)->outlets().size(), 1, kWait);

    // Kept CI-sized; scripts/bench.sh moves 100 MB each way the same way.
    constexpr qint64 kBytes = 8 * 1024 * 1024;
    const QByteArray up = randomBytes(kBytes, 1);
    const QByteArray down = randomBytes(kBytes, 2);
    Peer clientPeer(client.get(), up);
    Peer farPeer(m_far.get(), down);
    clientPeer.start();
    farPeer.start();
    QTRY_VERIFY_WITH_TIMEOUT(farPeer.received.size() >= kBytes && clientPeer.received.size() >= kBytes, 120000);
    QVERIFY(farPeer.received == up);
    QVERIFY(clientPeer.received == down);

    for (int d : {BridgeRecord::kAToB, BridgeRecord::kBToA}) {
        const BridgeEngine::Counters c = engine.counters(d);
        QCOMPARE(c.bytes, quint64(kBytes));
        QCOMPARE(c.droppedBytes, quint64(0));
        QCOMPARE(c.unroutedBytes, quint64(0));
        QCOMPARE(c.queuedBytes, 0);
    }
    // The pane counted what went through it, both ways.
    QCOMPARE(m_session->rxCount(), quint64(kBytes));
    QTRY_COMPARE_WITH_TIMEOUT(m_session->txCount(), quint64(kBytes), kWait);
}

void BridgeEngineTest::twoClientsKeepTheirFramesAndBothGetEverything()
{
    openPane();
    BridgeRecord record = gatewayRecord(PaneDirectory::endpointLabel(m_session->config()));
    // Toward the line, requests are lines: two clients' lines never mix.
    record.framing[BridgeRecord::kAToB].mode = BridgeFramer::Mode::Delimiter;
    record.framing[BridgeRecord::kAToB].delimiter = "\n";
    BridgeEngine engine(record, m_panes.get());
    engine.start();
    auto first = connectClient(engine);
    auto second = connectClient(engine);
    QVERIFY(first && second);
    QTRY_COMPARE_WITH_TIMEOUT(listener(engine)->outlets().size(), 2, kWait);

    constexpr int kLines = 20000;
    const auto lines = [](char tag) {
        QByteArray text;
        for (int i = 0; i < kLines; ++i)
            text += QByteArray(1, tag) + ' ' + QByteArray::number(i) + ' ' + QByteArray(40, char('a' + i % 26)) + '\n';
        return text;
    };
    constexpr qint64 kDown = 4 * 1024 * 1024;
    const QByteArray down = randomBytes(kDown, 3);
    Peer one(first.get(), lines('1'));
    Peer two(second.get(), lines('2'));
    Peer far(m_far.get(), down);
    one.start();
    two.start();
    far.start();
    const qint64 upBytes = 2 * lines('1').size();
    QTRY_VERIFY_WITH_TIMEOUT(far.received.size() >= upBytes && one.received.size() >= kDown
                                 && two.received.size() >= kDown,
                             120000);
    // Fan-out: each client got the line's whole stream.
    QVERIFY(one.received == down);
    QVERIFY(two.received == down);
    // Each client's lines arrived whole and in its own order.
    QCOMPARE(far.received.size(), upBytes);
    int next[2] = {0, 0};
    for (const QByteArray &line : far.received.split('\n')) {
        if (line.isEmpty())
            continue;
        const QList<QByteArray> parts = line.split(' ');
        QCOMPARE(parts.size(), 3);
        const int who = parts.at(0) == "1" ? 0 : 1;
        QCOMPARE(parts.at(1).toInt(), next[who]);
        QCOMPARE(parts.at(2).size(), 40);
        ++next[who];
    }
    QCOMPARE(next[0], kLines);
    QCOMPARE(next[1], kLines);
    QCOMPARE(engine.counters(BridgeRecord::kAToB).frames, quint64(2 * kLines));
}

void BridgeEngineTest::pauseSourceLosesNothingAndKeepsTheQueueBounded()
{
    openPane();
    BridgeRecord record = gatewayRecord(PaneDirectory::endpointLabel(m_session->config()));
    record.direction = BridgeDirection::BToA;
    record.egress = {256 * 1024, 64 * 1024, EgressQueue::Policy::PauseSource};
    BridgeEngine engine(record, m_panes.get());
    engine.start();
    auto client = connectClient(engine, 16 * 1024);
    QVERIFY(client);
    QTRY_COMPARE_WITH_TIMEOUT(listener(engine)->outlets().size(), 1, kWait);

    // More than every buffer on the way holds, so the client's not reading
    // reaches the bridge's queue.
    constexpr qint64 kBytes = 16 * 1024 * 1024;
    const QByteArray down = randomBytes(kBytes, 4);
    Peer far(m_far.get(), down);
    Peer slow(client.get());
    slow.readSlowly(0, 10);
    qint64 largestQueue = 0;
    QTimer watch;
    connect(&watch, &QTimer::timeout, this, [&] {
        largestQueue = qMax(largestQueue, engine.counters(BridgeRecord::kBToA).queuedBytes);
    });
    watch.start(1);
    far.start();
    // The bridge holds the pane's reading: the line waits, memory does not grow.
    QTRY_VERIFY_WITH_TIMEOUT(m_session->controller()->isReadPaused(), kWait);
    const quint64 whenHeld = engine.counters(BridgeRecord::kBToA).bytes;
    QTest::qWait(200);
    QCOMPARE(engine.counters(BridgeRecord::kBToA).bytes, whenHeld);
    QVERIFY(!far.allSent());
    // Slowly, then at full speed: everything arrives, in order.
    slow.readSlowly(32 * 1024, 10);
    QTRY_VERIFY_WITH_TIMEOUT(slow.received.size() >= 2 * 1024 * 1024, kWait);
    slow.readFast();
    QTRY_VERIFY_WITH_TIMEOUT(slow.received.size() >= kBytes, 120000);
    QVERIFY(slow.received == down);
    const BridgeEngine::Counters c = engine.counters(BridgeRecord::kBToA);
    QCOMPARE(c.droppedBytes, quint64(0));
    QCOMPARE(c.bytes, quint64(kBytes));
    // Bounded: the high watermark and at most one read of the pane on top.
    QVERIFY2(largestQueue <= record.egress.highWatermark + PortTransport::kReadBufferSize,
             qPrintable(QString::number(largestQueue)));
}

void BridgeEngineTest::dropPoliciesCountExactlyWhatASlowClientMisses_data()
{
    QTest::addColumn<int>("policy");
    QTest::newRow("drop oldest") << int(EgressQueue::Policy::DropOldest);
    QTest::newRow("drop newest") << int(EgressQueue::Policy::DropNewest);
}

void BridgeEngineTest::dropPoliciesCountExactlyWhatASlowClientMisses()
{
    QFETCH(int, policy);
    openPane();
    BridgeRecord record = gatewayRecord(PaneDirectory::endpointLabel(m_session->config()));
    record.direction = BridgeDirection::BToA;
    constexpr int kFrame = 100;
    record.framing[BridgeRecord::kBToA].mode = BridgeFramer::Mode::FixedLength;
    record.framing[BridgeRecord::kBToA].fixedLength = kFrame;
    record.egress = {128 * 1024, 32 * 1024, EgressQueue::Policy(policy)};
    BridgeEngine engine(record, m_panes.get());
    engine.start();
    auto client = connectClient(engine, 16 * 1024);
    QVERIFY(client);
    QTRY_COMPARE_WITH_TIMEOUT(listener(engine)->outlets().size(), 1, kWait);

    // Numbered frames, far more than the kernel's buffers hold.
    constexpr int kFrames = 120000;
    QByteArray down;
    down.reserve(qsizetype(kFrames) * kFrame);
    for (int i = 0; i < kFrames; ++i)
        down += QByteArray::number(i).rightJustified(10, '0') + QByteArray(kFrame - 10, char('A' + i % 26));
    Peer far(m_far.get(), down);
    Peer slow(client.get());
    // The slowest reader: nothing until the line has said everything.
    slow.readSlowly(0, 10);
    far.start();
    QTRY_VERIFY_WITH_TIMEOUT(far.allSent() && engine.counters(BridgeRecord::kBToA).frames == quint64(kFrames), 120000);
    slow.readFast();
    const auto delivered = [&] { return (slow.received.size()) / kFrame; };
    QTRY_VERIFY_WITH_TIMEOUT(engine.counters(BridgeRecord::kBToA).queuedBytes == 0
                                 && quint64(delivered()) + engine.counters(BridgeRecord::kBToA).droppedFrames
                                        == quint64(kFrames),
                             kWait);
    const BridgeEngine::Counters c = engine.counters(BridgeRecord::kBToA);
    QVERIFY(c.droppedFrames > 0);
    QCOMPARE(c.droppedBytes, c.droppedFrames * kFrame);
    QCOMPARE(slow.received.size() % kFrame, 0);
    // What arrived is whole frames, in order, with gaps only where frames
    // were dropped.
    int last = -1;
    for (qsizetype at = 0; at < slow.received.size(); at += kFrame) {
        const int number = slow.received.mid(at, 10).toInt();
        QVERIFY(number > last);
        QCOMPARE(slow.received.mid(at + 10, kFrame - 10), QByteArray(kFrame - 10, char('A' + number % 26)));
        last = number;
    }
    if (EgressQueue::Policy(policy) == EgressQueue::Policy::DropOldest)
        QCOMPARE(last, kFrames - 1);  // the newest frames always arrive
}

void BridgeEngineTest::disconnectPolicyDropsTheSlowClient()
{
    openPane();
    BridgeRecord record = gatewayRecord(PaneDirectory::endpointLabel(m_session->config()));
    record.direction = BridgeDirection::BToA;
    record.egress = {128 * 1024, 32 * 1024, EgressQueue::Policy::Disconnect};
    BridgeEngine engine(record, m_panes.get());
    engine.start();
    auto client = connectClient(engine, 16 * 1024);
    QVERIFY(client);
    QTRY_COMPARE_WITH_TIMEOUT(listener(engine)->outlets().size(), 1, kWait);
    QSignalSpy gone(client.get(), &QTcpSocket::disconnected);

    constexpr qint64 kBytes = 12 * 1024 * 1024;
    const QByteArray down = randomBytes(kBytes, 5);
    Peer far(m_far.get(), down);
    Peer slow(client.get());
    slow.readSlowly(0, 10);
    far.start();
    QTRY_VERIFY_WITH_TIMEOUT(far.allSent() && engine.counters(BridgeRecord::kBToA).bytes == quint64(kBytes), 120000);
    slow.readFast();
    QTRY_VERIFY_WITH_TIMEOUT(!gone.isEmpty() || client->state() == QAbstractSocket::UnconnectedState, kWait);
    QTRY_COMPARE_WITH_TIMEOUT(listener(engine)->outlets().size(), 0, kWait);
    const BridgeEngine::Counters c = engine.counters(BridgeRecord::kBToA);
    QVERIFY(c.droppedBytes > 0);
    // Forwarded = handed to the client + dropped with it + with no client left.
    const quint64 handed = c.bytes - c.droppedBytes - c.unroutedBytes;
    slow.received += client->readAll();
    QVERIFY(quint64(slow.received.size()) <= handed);
    QVERIFY(slow.received == down.first(slow.received.size()));
    QCOMPARE(engine.state(), BridgeEngine::State::Running);
}

void BridgeEngineTest::cableLoopTripsTheFloodGuard()
{
    // The far end of the line is looped back onto itself.
    m_far.reset();
    QProcess loop;
    loop.start(QStandardPaths::findExecutable(QStringLiteral("socat")),
               {QStringLiteral("FILE:%1,raw,echo=0").arg(m_pty->pathB()), QStringLiteral("PIPE")});
    QVERIFY2(loop.waitForStarted(5000), qPrintable(loop.errorString()));
    openPane();
    BridgeRecord record = gatewayRecord(PaneDirectory::endpointLabel(m_session->config()));
    record.flood = {true, 0, 1};
    BridgeEngine engine(record, m_panes.get());
    engine.start();
    auto client = connectClient(engine);
    QVERIFY(client);
    QTRY_COMPARE_WITH_TIMEOUT(listener(engine)->outlets().size(), 1, kWait);

    // A device talking steadily: every request comes straight back.
    QTimer talk;
    quint32 seed = 10;
    connect(&talk, &QTimer::timeout, this, [&] { client->write(randomBytes(2048, seed++)); });
    talk.start(20);
    // One second of loop is the configured time; the exact moment is the
    // guard's own test, on a virtual clock.
    QTRY_COMPARE_WITH_TIMEOUT(engine.state(), BridgeEngine::State::Suspended, 10000);
    talk.stop();
    QVERIFY2(engine.stateText().contains(PaneDirectory::endpointLabel(m_session->config())),
             qPrintable(engine.stateText()));
    QVERIFY(engine.stateText().contains(QStringLiteral("Enable")));
    // Suspended means let go: no listener, no link, no hold on the pane.
    QVERIFY(m_session->bridgeLinks().isEmpty());
    QTRY_VERIFY_WITH_TIMEOUT(client->state() == QAbstractSocket::UnconnectedState, kWait);
    loop.kill();
    loop.waitForFinished(5000);
}

void BridgeEngineTest::aSustainedFloodSuspendsTheBridgeUntilEnabled()
{
    openPane();
    BridgeRecord record = gatewayRecord(PaneDirectory::endpointLabel(m_session->config()));
    record.direction = BridgeDirection::AToB;
    record.flood = {false, 1000, 3};
    qint64 now = 0;
    BridgeEngine engine(record, m_panes.get());
    engine.setClock([&now] { return now; });
    engine.start();
    auto client = connectClient(engine);
    QVERIFY(client);
    QTRY_COMPARE_WITH_TIMEOUT(listener(engine)->outlets().size(), 1, kWait);

    // Twice the limit in each of three seconds: the seconds are judged once
    // they are over, so the bridge runs until the fourth one begins.
    for (int second = 0; second < 3; ++second) {
        now = second * 1000 + 500;
        client->write(QByteArray(2000, 'x'));
        QTRY_COMPARE_WITH_TIMEOUT(engine.counters(BridgeRecord::kAToB).bytes, quint64(2000) * (second + 1), kWait);
        QCOMPARE(engine.state(), BridgeEngine::State::Running);
    }
    QByteArray atFar;
    QTRY_VERIFY_WITH_TIMEOUT((atFar += m_far->readAll()).size() == 6000, kWait);
    QCOMPARE(atFar, QByteArray(6000, 'x'));
    atFar.clear();
    now = 3100;
    client->write("y");
    QTRY_COMPARE_WITH_TIMEOUT(engine.state(), BridgeEngine::State::Suspended, kWait);
    // Why, which way, and how to go on.
    const QString text = engine.stateText();
    QVERIFY2(text.contains(QStringLiteral("A → B")) && text.contains(QStringLiteral("bytes/s"))
                 && text.contains(QStringLiteral("for 3 s")) && text.contains(QStringLiteral("Enable")),
             qPrintable(text));
    QVERIFY(m_session->bridgeLinks().isEmpty());
    QTRY_VERIFY_WITH_TIMEOUT(client->state() == QAbstractSocket::UnconnectedState, kWait);

    // Enable resumes with fresh counters and rates; a quiet line stays up.
    now = 10'000;
    engine.start();
    QCOMPARE(engine.state(), BridgeEngine::State::Running);
    QCOMPARE(engine.counters(BridgeRecord::kAToB).bytes, quint64(0));
    client = connectClient(engine);
    QVERIFY(client);
    QTRY_COMPARE_WITH_TIMEOUT(listener(engine)->outlets().size(), 1, kWait);
    for (int second = 0; second < 5; ++second) {
        now = 10'000 + second * 1000 + 500;
        client->write("ping\n");
        QTRY_COMPARE_WITH_TIMEOUT((atFar += m_far->readAll()).count("ping\n"), qsizetype(second + 1), kWait);
    }
    // The frame that tripped the guard may have been on its way already.
    if (atFar.startsWith('y'))
        atFar.remove(0, 1);
    QCOMPARE(atFar, QByteArray("ping\n").repeated(5));
    QCOMPARE(engine.state(), BridgeEngine::State::Running);
}

void BridgeEngineTest::udpTargetsGetEachFrameAsOneDatagram()
{
    openPane();
    QUdpSocket first;
    QUdpSocket second;
    QVERIFY(first.bind(QHostAddress::LocalHost, 0));
    QVERIFY(second.bind(QHostAddress::LocalHost, 0));
    BridgeRecord record;
    record.name = QStringLiteral("telemetry");
    record.ends[BridgeRecord::kA].kind = BridgeEndSpec::Kind::Pane;
    record.ends[BridgeRecord::kA].pane = PaneDirectory::endpointLabel(m_session->config());
    record.ends[BridgeRecord::kB].kind = BridgeEndSpec::Kind::Udp;
    record.ends[BridgeRecord::kB].udpTargets = {QStringLiteral("127.0.0.1:%1").arg(first.localPort()),
                                                QStringLiteral("127.0.0.1:%1").arg(second.localPort())};
    record.direction = BridgeDirection::AToB;
    record.framing[BridgeRecord::kAToB].mode = BridgeFramer::Mode::Delimiter;
    record.framing[BridgeRecord::kAToB].delimiter = "\r\n";
    record.framing[BridgeRecord::kAToB].keepDelimiter = false;
    QTemporaryDir captures;
    record.capture.enabled = true;
    record.capture.folder = captures.path();
    QVERIFY2(record.validate(), qPrintable(record.validate().errorText()));
    BridgeEngine engine(record, m_panes.get());
    engine.start();
    QCOMPARE(engine.state(), BridgeEngine::State::Running);

    // Lines in odd pieces: a datagram is a line, never a piece of one.
    constexpr int kLines = 200;
    QList<QByteArray> expected;
    QByteArray text;
    for (int i = 0; i < kLines; ++i) {
        expected.append("T=" + QByteArray::number(20 + i % 10) + " seq=" + QByteArray::number(i));
        text += expected.last() + "\r\n";
    }
    QList<QByteArray> got[2];
    for (int i : {0, 1}) {
        QUdpSocket *socket = i == 0 ? &first : &second;
        connect(socket, &QUdpSocket::readyRead, this, [socket, &got, i] {
            while (socket->hasPendingDatagrams()) {
                QByteArray datagram(socket->pendingDatagramSize(), Qt::Uninitialized);
                socket->readDatagram(datagram.data(), datagram.size());
                got[i].append(datagram);
            }
        });
    }
    // Paced like a device, so that no burst overruns a receiver's buffer.
    qsizetype at = 0;
    QTimer device;
    connect(&device, &QTimer::timeout, this, [&] {
        m_far->write(text.mid(at, 37));
        at += 37;
        if (at >= text.size())
            device.stop();
    });
    device.start(1);
    QTRY_VERIFY_WITH_TIMEOUT(got[0].size() >= kLines && got[1].size() >= kLines, kWait);
    for (QList<QByteArray> &datagrams : got) {
        // Loopback keeps them in order, but nothing promises it.
        std::sort(datagrams.begin(), datagrams.end());
        QList<QByteArray> sorted = expected;
        std::sort(sorted.begin(), sorted.end());
        QCOMPARE(datagrams, sorted);
    }
    QCOMPARE(engine.counters(BridgeRecord::kAToB).frames, quint64(kLines));
    QCOMPARE(engine.counters(BridgeRecord::kAToB).droppedFrames, quint64(0));

    // The capture log has every frame, in hex, once the bridge stops.
    const QString captureFile = engine.captureFile();
    engine.stop();
    QFile capture(captureFile);
    QVERIFY2(capture.open(QIODevice::ReadOnly), qPrintable(captureFile));
    const QByteArray log = capture.readAll();
    QCOMPARE(log.count("A \xe2\x86\x92 B "), qsizetype(kLines));
    QVERIFY(log.contains(" A \xe2\x86\x92 B 10: 54 3D 32 30 20 73 65 71 3D 30\n"));  // "T=20 seq=0"
}

void BridgeEngineTest::aMissingPaneIsWaitedForAndLinkedWhileAttached()
{
    const QString label = QStringLiteral("ser-") + m_pty->pathA();
    BridgeEngine engine(gatewayRecord(label), m_panes.get());
    engine.start();
    QCOMPARE(engine.state(), BridgeEngine::State::Waiting);
    QVERIFY2(engine.stateText().contains(label), qPrintable(engine.stateText()));

    // A client that speaks before the pane is there waits: nothing is lost.
    auto client = connectClient(engine);
    QVERIFY(client);
    client->write("early bird\n");

    openPane();
    QTRY_COMPARE_WITH_TIMEOUT(engine.state(), BridgeEngine::State::Running, kWait);
    QByteArray atFar;
    QTRY_VERIFY_WITH_TIMEOUT((atFar += m_far->readAll()) == "early bird\n", kWait);
    QCOMPARE(m_session->bridgeLinks(), QStringList{QStringLiteral("gateway")});
    QCOMPARE(m_session->transferRefusal(),
             QStringLiteral("This port is part of a bridge link. Remove the link before transferring a file."));

    // The pane closes: the bridge waits for it and says so.
    m_session->closeConnection();
    QTRY_COMPARE_WITH_TIMEOUT(engine.state(), BridgeEngine::State::Waiting, kWait);
    QVERIFY(m_session->openConnection());
    QTRY_COMPARE_WITH_TIMEOUT(engine.state(), BridgeEngine::State::Running, kWait);

    engine.stop();
    QCOMPARE(engine.state(), BridgeEngine::State::Disabled);
    QVERIFY(m_session->bridgeLinks().isEmpty());
    QVERIFY(m_session->transferRefusal().isEmpty());
}

QTEST_GUILESS_MAIN(BridgeEngineTest)
#include "tst_bridgeengine.moc"
