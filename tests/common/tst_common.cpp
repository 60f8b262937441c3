// The shared pieces: peer labels and the shape every wire codec follows,
// shown on a small request/retry codec driven by a virtual clock.
#include "common/codecstep.h"
#include "common/idlememoryreturn.h"
#include "common/peerlabel.h"

#include <QtTest>

namespace {

// A codec in the house shape: asks "PING?" and waits for "PONG", retrying
// twice a second apart. Fed bytes and the time; returns what to write,
// what happened and when to call it again. No socket, no timer.
class PingCodec
{
public:
    enum class Event { Answered, GaveUp };
    using Step = CodecStep<Event>;

    static constexpr qint64 kRetryMs = 1000;
    static constexpr int kMaxTries = 3;

    Step start(qint64 nowMs) { return ask(nowMs); }

    Step feed(QByteArrayView bytes, qint64 nowMs)
    {
        Q_UNUSED(nowMs);
        Step step;
        if (m_done)
            return step;
        m_heard += bytes;  // an answer may come split over several reads
        if (m_heard.contains("PONG")) {
            m_done = true;
            step.events.append(Event::Answered);
        } else {
            step.wakeAtMs = m_deadline;
        }
        return step;
    }

    Step tick(qint64 nowMs)
    {
        if (m_done || nowMs < m_deadline)
            return Step{{}, {}, m_done ? Step::kNoWake : m_deadline};
        if (m_tries == kMaxTries) {
            m_done = true;
            return Step{{}, {Event::GaveUp}, Step::kNoWake};
        }
        return ask(nowMs);
    }

private:
    Step ask(qint64 nowMs)
    {
        ++m_tries;
        m_deadline = nowMs + kRetryMs;
        return Step{QByteArrayLiteral("PING?"), {}, m_deadline};
    }

    QByteArray m_heard;
    qint64 m_deadline = 0;
    int m_tries = 0;
    bool m_done = false;
};

// Total byte counts and the times they were seen.
using Steps = QList<QPair<qint64, qint64>>;

} // namespace

class TestCommon : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void peerLabelsJoinAddressAndPort()
    {
        QCOMPARE(peerLabel(QHostAddress(QStringLiteral("127.0.0.1")), 7000), QStringLiteral("127.0.0.1:7000"));
        QCOMPARE(peerLabel(QHostAddress(QStringLiteral("::1")), 1), QStringLiteral("::1:1"));
        QCOMPARE(peerLabel(QStringLiteral("device.local"), 65535), QStringLiteral("device.local:65535"));
    }

    void codecAnswerSplitAcrossReadsEndsTheExchange()
    {
        PingCodec codec;
        PingCodec::Step step = codec.start(0);
        QCOMPARE(step.write, QByteArray("PING?"));
        QCOMPARE(step.wakeAtMs, 1000);

        step = codec.feed("PO", 400);
        QVERIFY(step.events.isEmpty());
        QCOMPARE(step.wakeAtMs, 1000);  // still waiting for the same deadline
        step = codec.feed("NG", 500);
        QCOMPARE(step.events, QList<PingCodec::Event>{PingCodec::Event::Answered});
        QVERIFY(!step.wantsWake());
    }

    void codecRetriesOnTheVirtualClockThenGivesUp()
    {
        PingCodec codec;
        PingCodec::Step all = codec.start(0);
        // An early tick changes nothing; each deadline asks again.
        all.append(codec.tick(999));
        QCOMPARE(all.write, QByteArray("PING?"));
        for (qint64 now = 1000; all.wantsWake(); now += 1000)
            all.append(codec.tick(now));
        QCOMPARE(all.write, QByteArray("PING?PING?PING?"));
        QCOMPARE(all.events, QList<PingCodec::Event>{PingCodec::Event::GaveUp});
    }

    void memoryGoesBackOnceABurstIsOver_data()
    {
        QTest::addColumn<Steps>("steps");  // total bytes, time
        QTest::addColumn<QList<bool>>("releases");
        constexpr qint64 burst = IdleMemoryReturn::kBurstBytes;
        constexpr qint64 quiet = IdleMemoryReturn::kQuietMs;
        QTest::newRow("a burst, then quiet")
            << Steps{{burst, 0}, {burst, quiet - 1}, {burst, quiet}, {burst, quiet + 500}}
            << QList<bool>{false, false, true, false};
        QTest::newRow("still flowing")
            << Steps{{burst, 0}, {burst + 1, quiet}, {burst + 2, 2 * quiet}}
            << QList<bool>{false, false, false};
        QTest::newRow("too little to bother")
            << Steps{{burst - 1, 0}, {burst - 1, 10 * quiet}} << QList<bool>{false, false};
        QTest::newRow("counters reset count as traffic")
            << Steps{{burst / 2, 0}, {0, 10}, {burst / 2, 20}, {burst / 2, 20 + quiet}}
            << QList<bool>{false, false, false, true};
        QTest::newRow("a second burst after a release")
            << Steps{{burst, 0}, {burst, quiet}, {2 * burst, 2 * quiet}, {2 * burst, 3 * quiet}}
            << QList<bool>{false, true, false, true};
    }

    void memoryGoesBackOnceABurstIsOver()
    {
        QFETCH(Steps, steps);
        QFETCH(QList<bool>, releases);
        IdleMemoryReturn policy;
        QList<bool> got;
        for (const auto &[total, now] : steps)
            got.append(policy.update(total, now));
        QCOMPARE(got, releases);
    }
};

QTEST_GUILESS_MAIN(TestCommon)
#include "tst_common.moc"
