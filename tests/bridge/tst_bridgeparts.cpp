// The pure parts of a bridge on a virtual clock: the framer in every mode
// (with frames split across reads at every position and the hold time), the
// egress queue under each overflow policy, the flood guard and the rate
// history.

#include "bridge/bridgecapturelog.h"
#include "bridge/bridgeframer.h"
#include "bridge/egressqueue.h"
#include "bridge/floodguard.h"
#include "bridge/ratehistory.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTest>

using Frame = BridgeFramer::Frame;
using End = BridgeFramer::Frame::End;

Q_DECLARE_METATYPE(BridgeFramer::Options)

namespace {

struct Collected
{
    QList<QByteArray> frames;
    QList<End> ends;
};

void collect(Collected &out, const BridgeFramer::Step &step)
{
    for (const Frame &frame : step.events) {
        out.frames.append(frame.bytes);
        out.ends.append(frame.end);
    }
}

BridgeFramer::Options framing(BridgeFramer::Mode mode, int maxFrame = 64)
{
    BridgeFramer::Options o;
    o.mode = mode;
    o.maxFrameSize = maxFrame;
    return o;
}

QByteArray randomBytes(int size, quint32 seed)
{
    QRandomGenerator random(seed);
    QByteArray bytes(size, Qt::Uninitialized);
    for (char &c : bytes)
        c = char(random.bounded(256));
    return bytes;
}

} // namespace

class BridgePartsTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void framesDoNotDependOnHowReadsSplitThem_data();
    void framesDoNotDependOnHowReadsSplitThem();
    void noFramingPassesBytesOnCutAtTheMaximum();
    void idleGapEndsAFrameWhenTheLineIsQuiet();
    void holdTimeSendsAPartialFrame_data();
    void holdTimeSendsAPartialFrame();
    void flushSendsWhatASourceLeftBehind();

    void pauseSourceKeepsEverythingBetweenTheWatermarks();
    void dropPoliciesCountExactlyWhatTheyDrop_data();
    void dropPoliciesCountExactlyWhatTheyDrop();
    void disconnectDropsTheOutletWithWhatItHolds();
    void takeJoinsWholeFramesOnly();

    void rateHistoryKeepsTwoMinutesOfSeconds();
    void rateCheckNeedsEverySecondAboveTheLimit();
    void loopedOutputTripsTheEchoCheckAfterItsTime();
    void unrelatedTrafficAndACommandEchoDoNotTrip_data();
    void unrelatedTrafficAndACommandEchoDoNotTrip();

    void captureLogWritesFramesAndDropsAndRotates();
};

void BridgePartsTest::framesDoNotDependOnHowReadsSplitThem_data()
{
    QTest::addColumn<BridgeFramer::Options>("options");
    QTest::addColumn<QByteArray>("input");
    QTest::addColumn<QList<QByteArray>>("expected");
    QTest::addColumn<QByteArray>("leftOver");

    BridgeFramer::Options crlf = framing(BridgeFramer::Mode::Delimiter);
    crlf.delimiter = "\r\n";
    QTest::newRow("delimiter kept") << crlf << QByteArray("ab\r\nc\r\n\r\nxyz")
                                    << QList<QByteArray>{"ab\r\n", "c\r\n", "\r\n"} << QByteArray("xyz");
    BridgeFramer::Options stripped = crlf;
    stripped.keepDelimiter = false;
    // A stripped delimiter straight after another leaves no empty frame.
    QTest::newRow("delimiter stripped") << stripped << QByteArray("ab\r\nc\r\n\r\nxyz")
                                        << QList<QByteArray>{"ab", "c"} << QByteArray("xyz");
    BridgeFramer::Options longDelimiter = framing(BridgeFramer::Mode::Delimiter);
    longDelimiter.delimiter = "END";
    QTest::newRow("delimiter with a repeated start") << longDelimiter << QByteArray("aEENDbENENDc")
                                                     << QList<QByteArray>{"aEEND", "bENEND"} << QByteArray("c");
    BridgeFramer::Options shortMax = crlf;
    shortMax.maxFrameSize = 4;
    QTest::newRow("delimiter beyond the maximum") << shortMax << QByteArray("abcdefg\r\nh\r\n")
                                                  << QList<QByteArray>{"abcd", "efg\r", "\nh\r\n"} << QByteArray();
    BridgeFramer::Options fixed = framing(BridgeFramer::Mode::FixedLength);
    fixed.fixedLength = 3;
    QTest::newRow("fixed length") << fixed << QByteArray("abcdefgh") << QList<QByteArray>{"abc", "def"}
                                  << QByteArray("gh");
    BridgeFramer::Options gap = framing(BridgeFramer::Mode::IdleGap, 4);
    QTest::newRow("idle gap cut at the maximum") << gap << QByteArray("abcdefghij")
                                                 << QList<QByteArray>{"abcd", "efgh"} << QByteArray("ij");
}

void BridgePartsTest::framesDoNotDependOnHowReadsSplitThem()
{
    QFETCH(BridgeFramer::Options, options);
    QFETCH(QByteArray, input);
    QFETCH(QList<QByteArray>, expected);
    QFETCH(QByteArray, leftOver);

    // Two reads split at every position, then one byte per read; all at
    // the same moment, so only the bytes decide.
    QList<QList<QByteArrayView>> splits;
    for (qsizetype at = 0; at <= input.size(); ++at)
        splits.append({QByteArrayView(input).first(at), QByteArrayView(input).sliced(at)});
    QList<QByteArrayView> single;
    for (qsizetype i = 0; i < input.size(); ++i)
        single.append(QByteArrayView(input).sliced(i, 1));
    splits.append(single);

    for (const QList<QByteArrayView> &reads : std::as_const(splits)) {
        BridgeFramer framer(options);
        Collected got;
        for (QByteArrayView read : reads)
            collect(got, framer.feed(read, 1000));
        QCOMPARE(got.frames, expected);
        QCOMPARE(framer.pendingBytes(), leftOver.size());
        Collected rest;
        collect(rest, framer.flush());
        QCOMPARE(rest.frames, leftOver.isEmpty() ? QList<QByteArray>{} : QList<QByteArray>{leftOver});
    }
}

void BridgePartsTest::noFramingPassesBytesOnCutAtTheMaximum()
{
    BridgeFramer framer(framing(BridgeFramer::Mode::None, 1000));
    const QByteArray input = randomBytes(4500, 7);
    Collected got;
    collect(got, framer.feed(QByteArrayView(input).first(2500), 0));
    collect(got, framer.feed(QByteArrayView(input).sliced(2500), 0));
    QCOMPARE(got.frames.size(), 5);  // 1000 1000 500, then 1000 1000
    QCOMPARE(got.frames.join(), input);
    for (const QByteArray &frame : std::as_const(got.frames))
        QVERIFY(frame.size() <= 1000);
    QCOMPARE(framer.pendingBytes(), 0);
}

void BridgePartsTest::idleGapEndsAFrameWhenTheLineIsQuiet()
{
    BridgeFramer::Options o = framing(BridgeFramer::Mode::IdleGap, 1024);
    o.idleGapMs = 10;
    BridgeFramer framer(o);
    Collected got;
    BridgeFramer::Step step = framer.feed("ab", 100);
    QCOMPARE(step.wakeAtMs, 110);
    step = framer.feed("cd", 105);  // within the gap: the same frame
    QCOMPARE(step.wakeAtMs, 115);
    collect(got, framer.tick(114));
    QVERIFY(got.frames.isEmpty());
    collect(got, framer.tick(115));
    QCOMPARE(got.frames, QList<QByteArray>{"abcd"});
    QCOMPARE(got.ends, QList<End>{End::Complete});

    // A tick that comes late: the next read still starts a frame of its own.
    collect(got, framer.feed("ef", 200));
    collect(got, framer.feed("gh", 260));
    QCOMPARE(got.frames, (QList<QByteArray>{"abcd", "ef"}));
    collect(got, framer.tick(270));
    QCOMPARE(got.frames.last(), QByteArray("gh"));
    QCOMPARE(framer.tick(300).wakeAtMs, BridgeFramer::Step::kNoWake);
}

void BridgePartsTest::holdTimeSendsAPartialFrame_data()
{
    QTest::addColumn<BridgeFramer::Options>("options");
    BridgeFramer::Options delimiter = framing(BridgeFramer::Mode::Delimiter);
    delimiter.holdMs = 50;
    QTest::newRow("delimiter") << delimiter;
    BridgeFramer::Options fixed = framing(BridgeFramer::Mode::FixedLength);
    fixed.fixedLength = 10;
    fixed.holdMs = 50;
    QTest::newRow("fixed length") << fixed;
    // A line that never goes quiet still gets its bytes out.
    BridgeFramer::Options gap = framing(BridgeFramer::Mode::IdleGap);
    gap.idleGapMs = 20;
    gap.holdMs = 50;
    QTest::newRow("idle gap") << gap;
}

void BridgePartsTest::holdTimeSendsAPartialFrame()
{
    QFETCH(BridgeFramer::Options, options);
    BridgeFramer framer(options);
    Collected got;
    // A byte every 10 ms from t = 1000: the frame's first byte sets the hold.
    for (int i = 0; i < 4; ++i)
        collect(got, framer.feed("x", 1000 + 10 * i));
    const BridgeFramer::Step step = framer.feed("y", 1040);
    QCOMPARE(step.wakeAtMs, 1050);
    collect(got, framer.tick(1049));
    QVERIFY(got.frames.isEmpty());
    collect(got, framer.tick(1050));
    QCOMPARE(got.frames, QList<QByteArray>{"xxxxy"});
    QCOMPARE(got.ends, QList<End>{End::Hold});
    // The next frame's hold counts from its own first byte.
    QCOMPARE(framer.feed("z", 1200).wakeAtMs, options.mode == BridgeFramer::Mode::IdleGap ? 1220 : 1250);
}

void BridgePartsTest::flushSendsWhatASourceLeftBehind()
{
    BridgeFramer framer(framing(BridgeFramer::Mode::Delimiter));
    Collected got;
    collect(got, framer.feed("partial", 0));
    QVERIFY(got.frames.isEmpty());
    collect(got, framer.flush());
    QCOMPARE(got.frames, QList<QByteArray>{"partial"});
    QCOMPARE(framer.pendingBytes(), 0);
    QVERIFY(framer.flush().events.isEmpty());
}

void BridgePartsTest::pauseSourceKeepsEverythingBetweenTheWatermarks()
{
    EgressQueue queue({100, 40, EgressQueue::Policy::PauseSource});
    for (int i = 0; i < 9; ++i)
        QCOMPARE(queue.push(QByteArray(10, char('a' + i))).droppedFrames, 0);
    QVERIFY(!queue.wantsSourcePaused());
    queue.push(QByteArray(10, 'j'));
    QVERIFY(queue.wantsSourcePaused());
    // Still nothing is dropped above the mark: the source is asked to stop.
    QCOMPARE(queue.push(QByteArray(10, 'k')).droppedBytes, 0);
    QCOMPARE(queue.bytes(), 110);
    QByteArray taken;
    while (!queue.letsSourceResume())
        taken += queue.takeFrame();
    QCOMPARE(queue.bytes(), 40);
    QCOMPARE(taken, QByteArray("aaaaaaaaaabbbbbbbbbbccccccccccddddddddddeeeeeeeeeeffffffffff")
                        + QByteArray("gggggggggg"));
}

void BridgePartsTest::dropPoliciesCountExactlyWhatTheyDrop_data()
{
    QTest::addColumn<int>("policy");
    QTest::addColumn<QByteArray>("delivered");
    QTest::addColumn<qint64>("droppedFrames");
    // High 10, low 4, frames of 3 bytes "a".."h"; one frame taken after "d"
    // came and again after "f".
    // Newest: "d" finds the queue full; "e" and "f" come before it is back
    // at the low mark.
    QTest::newRow("drop newest") << int(EgressQueue::Policy::DropNewest) << QByteArray("aaabbbcccggghhh") << qint64(3);
    // Oldest: "d" pushes out a, b and c at once, down to the low mark.
    QTest::newRow("drop oldest") << int(EgressQueue::Policy::DropOldest) << QByteArray("dddeeefffggghhh") << qint64(3);
}

void BridgePartsTest::dropPoliciesCountExactlyWhatTheyDrop()
{
    QFETCH(int, policy);
    QFETCH(QByteArray, delivered);
    QFETCH(qint64, droppedFrames);

    EgressQueue queue({10, 4, EgressQueue::Policy(policy)});
    qint64 frames = 0;
    qint64 bytes = 0;
    QByteArray out;
    const auto push = [&](char c) {
        const EgressQueue::PushResult r = queue.push(QByteArray(3, c));
        frames += r.droppedFrames;
        bytes += r.droppedBytes;
        QVERIFY(!r.disconnect);
        QVERIFY(queue.bytes() <= 10);
    };
    for (char c : QByteArray("abcd"))
        push(c);
    out += queue.takeFrame();
    for (char c : QByteArray("ef"))
        push(c);
    out += queue.takeFrame();
    for (char c : QByteArray("gh"))
        push(c);
    while (!queue.isEmpty())
        out += queue.takeFrame();
    // Whatever did not arrive was counted, frame by frame.
    QCOMPARE(frames, droppedFrames);
    QCOMPARE(bytes, 3 * droppedFrames);
    QCOMPARE(out, delivered);
    QCOMPARE(out.size() + bytes, 24);
}

void BridgePartsTest::disconnectDropsTheOutletWithWhatItHolds()
{
    EgressQueue queue({10, 4, EgressQueue::Policy::Disconnect});
    queue.push("aaaa");
    queue.push("bbbb");
    const EgressQueue::PushResult r = queue.push("cccc");
    QVERIFY(r.disconnect);
    QCOMPARE(r.droppedFrames, 3);
    QCOMPARE(r.droppedBytes, 12);
    QVERIFY(queue.isEmpty());
}

void BridgePartsTest::takeJoinsWholeFramesOnly()
{
    EgressQueue queue({1000, 10, EgressQueue::Policy::PauseSource});
    for (const char *frame : {"aaa", "bbbb", "cc", "ddddddd"})
        queue.push(frame);
    QCOMPARE(queue.takeUpTo(8), QByteArray("aaabbbb"));
    // A frame larger than the room still comes whole.
    QCOMPARE(queue.takeUpTo(1), QByteArray("cc"));
    QCOMPARE(queue.takeUpTo(100), QByteArray("ddddddd"));
    QVERIFY(queue.takeUpTo(100).isEmpty());
    QCOMPARE(queue.bytes(), 0);
}

void BridgePartsTest::rateHistoryKeepsTwoMinutesOfSeconds()
{
    RateHistory history;
    history.add(100, 10'000);
    history.add(50, 10'999);
    history.add(7, 12'500);
    QList<qint64> points = history.points(13'000);
    QCOMPARE(points.size(), RateHistory::kSeconds);
    QCOMPARE(points.last(), 7);                 // second 12
    QCOMPARE(points.at(points.size() - 2), 0);  // second 11
    QCOMPARE(points.at(points.size() - 3), 150);  // second 10
    QCOMPARE(history.lastSecond(13'000), 7);
    // Two minutes on, second 10 is the oldest point; a second later it is gone.
    points = history.points(10'000 + 120'000);
    QCOMPARE(points.first(), 150);
    QCOMPARE(points.at(2), 7);
    points = history.points(11'000 + 120'000);
    QCOMPARE(points.first(), 0);
    QCOMPARE(points.at(1), 7);
    points = history.points(10'000 + 1'000'000);
    QCOMPARE(std::count(points.begin(), points.end(), 0), RateHistory::kSeconds);
    history.add(1, 2'000'000);
    QCOMPARE(history.points(2'001'000).last(), 1);
}

void BridgePartsTest::rateCheckNeedsEverySecondAboveTheLimit()
{
    FloodGuard guard({false, 1000, 3});
    RateHistory history;
    for (int s = 0; s < 3; ++s)
        history.add(5000, s * 1000 + 500);
    QVERIFY(!guard.checkRate(0, history, 2999));  // two full seconds so far
    const auto trip = guard.checkRate(1, history, 3000);
    QVERIFY(trip);
    QCOMPARE(trip->kind, FloodGuard::Trip::Kind::Rate);
    QCOMPARE(trip->direction, 1);
    // A quiet second in between resets it.
    RateHistory dip;
    for (int s : {0, 1, 3, 4})
        dip.add(5000, s * 1000);
    QVERIFY(!guard.checkRate(0, dip, 5000));
    QVERIFY(!FloodGuard({false, 0, 3}).checkRate(0, history, 3000));
}

void BridgePartsTest::loopedOutputTripsTheEchoCheckAfterItsTime()
{
    FloodGuard guard({true, 0, 2});
    qint64 now = 0;
    int reads = 0;
    std::optional<FloodGuard::Trip> trip;
    // 1 KiB written to end B every 50 ms and read back in odd pieces.
    while (!trip && now < 10'000) {
        const QByteArray out = randomBytes(1024, quint32(now));
        guard.noteWritten(1, out);
        for (qsizetype at = 0; at < out.size() && !trip; at += 300) {
            trip = guard.noteReceived(1, QByteArrayView(out).sliced(at, qMin<qsizetype>(300, out.size() - at)), now + 5);
            ++reads;
        }
        now += 50;
    }
    QVERIFY(trip);
    QCOMPARE(trip->kind, FloodGuard::Trip::Kind::Echo);
    QCOMPARE(trip->end, 1);
    // Not before the configured time, and not long after it.
    QVERIFY2(now >= 2000 && now <= 2200, qPrintable(QString::number(now)));
}

void BridgePartsTest::unrelatedTrafficAndACommandEchoDoNotTrip_data()
{
    QTest::addColumn<bool>("commandEcho");
    QTest::newRow("unrelated") << false;
    QTest::newRow("a console echoing commands") << true;
}

void BridgePartsTest::unrelatedTrafficAndACommandEchoDoNotTrip()
{
    QFETCH(bool, commandEcho);
    FloodGuard guard({true, 0, 2});
    for (qint64 now = 0; now < 20'000; now += 50) {
        const QByteArray out = commandEcho ? QByteArray("show interfaces brief\r") : randomBytes(1024, quint32(now));
        guard.noteWritten(1, out);
        if (commandEcho && now % 1000 == 0) {
            // The device echoes the command, then answers.
            QVERIFY(!guard.noteReceived(1, out, now + 5));
            QVERIFY(!guard.noteReceived(1, QByteArray("eth0 up 1000M\r\n").repeated(4), now + 6));
        } else if (!commandEcho) {
            QVERIFY(!guard.noteReceived(1, randomBytes(1024, quint32(now + 1)), now + 5));
        }
    }
}

void BridgePartsTest::captureLogWritesFramesAndDropsAndRotates()
{
    QTemporaryDir folder;
    QVERIFY(folder.isValid());
    QDateTime now(QDate(2024, 3, 5), QTime(10, 20, 30, 456));
    BridgeCaptureLog capture([&now] { return now; });
    BridgeCaptureOptions options;
    options.enabled = true;
    options.folder = folder.path();
    options.rotateSizeBytes = 4096;
    QVERIFY(capture.open(options, QStringLiteral("plc/gateway")));
    // The name stands for the bridge, made safe for a file name.
    QCOMPARE(QFileInfo(capture.filePath()).fileName(), QStringLiteral("bridge_plc_gateway-20240305.log"));
    QVERIFY(capture.frame(0, QByteArray("Hi\x00\xff", 4)));
    QVERIFY(capture.drop(1, 3, 300, QStringLiteral("127.0.0.1:5555"), QStringLiteral("the queue reached its high watermark")));
    QVERIFY(capture.flush());
    QFile file(capture.filePath());
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QString text = QString::fromUtf8(file.readAll());
    QVERIFY2(text.contains(QStringLiteral("[2024-03-05 10:20:30.456] A → B 4: 48 69 00 FF\n")), qPrintable(text));
    QVERIFY2(text.contains(QStringLiteral("[2024-03-05 10:20:30.456] B → A dropped 3 frames, 300 bytes (127.0.0.1:5555): "
                                          "the queue reached its high watermark\n")),
             qPrintable(text));
    file.close();

    // Past the size, a later save starts a new file and keeps the old one.
    for (int i = 0; i < 100; ++i)
        QVERIFY(capture.frame(1, QByteArray(20, char(i))));
    now = now.addSecs(60);
    QVERIFY(capture.flush());
    QVERIFY(capture.frame(0, "after"));
    QVERIFY(capture.flush());
    capture.close();
    const QStringList files = QDir(folder.path()).entryList(QDir::Files);
    QCOMPARE(files.size(), 2);
    QFile current(folder.filePath(QStringLiteral("bridge_plc_gateway-20240305.log")));
    QVERIFY(current.open(QIODevice::ReadOnly));
    QVERIFY(current.readAll().contains("A \xe2\x86\x92 B 5: 61 66 74 65 72"));
}

QTEST_APPLESS_MAIN(BridgePartsTest)
#include "tst_bridgeparts.moc"
