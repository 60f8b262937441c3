// The Live Console's decisions with no socket and no timer: the reconnect
// back-off, watching with and without authority, the poll schedule, the
// traffic buffer and its bounds, the command ledger, the command table's
// permission checks and the device identity.
#include "cloud/consolebackoff.h"
#include "cloud/consolecommandledger.h"
#include "cloud/consolecommandtable.h"
#include "cloud/consoleidentity.h"
#include "cloud/consoletrafficbuffer.h"
#include "cloud/consolewatchstate.h"
#include "support/settingssandbox.h"

#include <QJsonArray>
#include <QRandomGenerator>
#include <QtTest>

class ConsoleLogicTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void backoffWaitsAreFullJitterUnderTheirCeiling_data();
    void backoffWaitsAreFullJitterUnderTheirCeiling();
    void backoffStartsAgainAfterReset();
    void watchingFollowsReports_data();
    void watchingFollowsReports();
    void idlePollsBackOffAndWatchingResetsThem();
    void trafficJoinsCloseReadsOfOnePortAndDirection();
    void trafficIsCutAndBatched();
    void fullTrafficBufferDropsOldestAndCounts();
    void utf8LengthCountsWhatTheQuotaCounts();
    void ledgerRunsACommandOnceWithinItsMemory();
    void ledgerKeepsResultsUntilConfirmedWithinItsBound();
    void tableChecksConsentAndShares_data();
    void tableChecksConsentAndShares();
    void unknownCommandIsUnsupported();
    void cidIsKeptPerAccount();

private:
    std::unique_ptr<SettingsSandbox> m_sandbox;
};

using Change = ConsoleWatchState::Change;
using Requirement = ConsoleCommandTable::Requirement;

void ConsoleLogicTest::initTestCase()
{
    m_sandbox = std::make_unique<SettingsSandbox>();
}

void ConsoleLogicTest::backoffWaitsAreFullJitterUnderTheirCeiling_data()
{
    QTest::addColumn<int>("attempt");
    QTest::addColumn<qint64>("ceiling");
    const qint64 ceilings[] = {1000, 2000, 4000, 8000, 16000, 32000, 60000, 60000};
    for (int a = 0; a < 8; ++a)
        QTest::addRow("attempt %d", a) << a << ceilings[a];
}

void ConsoleLogicTest::backoffWaitsAreFullJitterUnderTheirCeiling()
{
    QFETCH(int, attempt);
    QFETCH(qint64, ceiling);
    QRandomGenerator random(1234 + quint32(attempt));
    qint64 low = ceiling, high = 0;
    for (int draw = 0; draw < 400; ++draw) {
        ConsoleBackoff backoff;
        for (int a = 0; a < attempt; ++a)
            backoff.next(random);
        const qint64 wait = backoff.next(random);
        QVERIFY2(wait >= 0 && wait <= ceiling, qPrintable(QString::number(wait)));
        low = qMin(low, wait);
        high = qMax(high, wait);
    }
    // Spread over the whole range, not a fixed delay with a little noise.
    QVERIFY(low < ceiling / 10);
    QVERIFY(high > ceiling * 9 / 10);
}

void ConsoleLogicTest::backoffStartsAgainAfterReset()
{
    QRandomGenerator random(7);
    ConsoleBackoff backoff(10, 600);
    for (int a = 0; a < 9; ++a)
        backoff.next(random);
    QCOMPARE(backoff.attempt(), 9);
    QCOMPARE(backoff.ceilingMs(backoff.attempt()), qint64(600));
    backoff.reset();
    QCOMPARE(backoff.ceilingMs(backoff.attempt()), qint64(10));
    QVERIFY(backoff.next(random) <= 10);
}

void ConsoleLogicTest::watchingFollowsReports_data()
{
    // Each report: 'W' watching, 'a' nobody (authoritative), 'n' nobody
    // (not authoritative); each change: '+' began, '-' ended, '.' none.
    QTest::addColumn<QString>("reports");
    QTest::addColumn<QString>("changes");
    QTest::newRow("begins once") << "WWW" << "+..";
    QTest::newRow("authoritative nobody ends at once") << "Wa" << "+-";
    QTest::newRow("one hearsay nobody keeps watching") << "Wn" << "+.";
    QTest::newRow("second hearsay nobody ends") << "Wnn" << "+.-";
    QTest::newRow("a watcher between resets the count") << "WnWn" << "+...";
    QTest::newRow("nobody while not watched is nothing") << "anna" << "....";
    QTest::newRow("hearsay then authority") << "Wna" << "+.-";
}

void ConsoleLogicTest::watchingFollowsReports()
{
    QFETCH(QString, reports);
    QFETCH(QString, changes);
    ConsoleWatchState state;
    QString seen;
    for (const QChar r : reports) {
        const Change change = state.report(r == 'W', r == 'a');
        seen += change == Change::Began ? '+' : change == Change::Ended ? '-' : '.';
    }
    QCOMPARE(seen, changes);
    QCOMPARE(state.isWatching(), changes.lastIndexOf('+') > changes.lastIndexOf('-'));
}

void ConsoleLogicTest::idlePollsBackOffAndWatchingResetsThem()
{
    ConsolePollSchedule schedule;
    QList<int> waits;
    for (int i = 0; i < 6; ++i)
        waits.append(schedule.afterIdlePoll());
    QCOMPARE(waits, (QList<int>{2000, 5000, 10000, 30000, 30000, 30000}));
    QCOMPARE(schedule.level(), 3);
    schedule.reset();
    QCOMPARE(schedule.intervalMs(), 2000);
}

void ConsoleLogicTest::trafficJoinsCloseReadsOfOnePortAndDirection()
{
    ConsoleTrafficBuffer buffer;
    buffer.append("p1", false, u"ab", 1000);
    buffer.append("p1", false, u"cd", 1020);                // joins
    buffer.append("p1", true, u"TX", 1021);                 // other direction
    buffer.append("p1", true, u"more", 1021 + ConsoleTrafficBuffer::kJoinWindowMs);  // too late to join
    buffer.append("p2", true, u"other", 1080);              // other port
    buffer.append("p2", true, u"", 1081);                   // nothing
    QCOMPARE(buffer.eventCount(), 4);
    QCOMPARE(buffer.bytes(), qint64(4 + 2 + 4 + 5));
    const QJsonArray batch = buffer.takeBatch();
    QCOMPARE(batch.at(0).toObject(), (QJsonObject{{"port_key", "p1"},
                                                  {"event_type", "rx"},
                                                  {"payload_text", "abcd"},
                                                  {"seq", 1},
                                                  {"client_time", 1000}}));
    QCOMPARE(batch.at(1)["event_type"].toString(), QString("tx"));
    QCOMPARE(batch.at(2)["payload_text"].toString(), QString("more"));
    QCOMPARE(batch.at(3)["seq"].toInt(), 4);
    QVERIFY(buffer.isEmpty());
    QCOMPARE(buffer.bytes(), qint64(0));
}

void ConsoleLogicTest::trafficIsCutAndBatched()
{
    ConsoleTrafficBuffer buffer;
    // A long read is cut, and never inside a surrogate pair.
    QString longText(ConsoleTrafficBuffer::kMaxPayloadChars - 1, 'x');
    longText += QString::fromUtf8("😀tail");
    buffer.append("p1", false, longText, 0);
    // A join never makes an event longer than the cut.
    buffer.append("p1", false, u"yy", 1);
    QCOMPARE(buffer.eventCount(), 2);
    QCOMPARE(buffer.takeBatch(1).at(0)["payload_text"].toString(), QString(ConsoleTrafficBuffer::kMaxPayloadChars - 1, 'x'));
    buffer.takeBatch();

    for (int i = 0; i < 150; ++i)
        buffer.append(i % 2 ? "p1" : "p2", false, u"e", i);
    QList<int> sizes;
    qint64 lastSeq = 0;
    while (!buffer.isEmpty()) {
        const QJsonArray batch = buffer.takeBatch();
        sizes.append(int(batch.size()));
        for (const QJsonValue &event : batch) {
            QVERIFY(event["seq"].toInteger() > lastSeq);
            lastSeq = event["seq"].toInteger();
        }
    }
    QCOMPARE(sizes, (QList<int>{64, 64, 22}));
}

void ConsoleLogicTest::fullTrafficBufferDropsOldestAndCounts()
{
    ConsoleTrafficBuffer byEvents(3, 1 << 20);
    for (int i = 0; i < 5; ++i)
        byEvents.append(QStringLiteral("p%1").arg(i), false, u"abc", i);
    QCOMPARE(byEvents.eventCount(), 3);
    QCOMPARE(byEvents.takeDropped(), quint64(2));
    QCOMPARE(byEvents.takeDropped(), quint64(0));
    QCOMPARE(byEvents.takeBatch(1).at(0)["port_key"].toString(), QString("p2"));

    ConsoleTrafficBuffer byBytes(100, 10);
    byBytes.append("p1", false, u"12345", 0);
    byBytes.append("p2", false, u"12345", 0);
    byBytes.append("p3", false, u"123", 0);
    QCOMPARE(byBytes.bytes(), qint64(8));
    QCOMPARE(byBytes.droppedTotal(), quint64(1));
    // Clearing is not dropping.
    byBytes.clear();
    QCOMPARE(byBytes.droppedTotal(), quint64(1));
    QVERIFY(byBytes.isEmpty());
}

void ConsoleLogicTest::utf8LengthCountsWhatTheQuotaCounts()
{
    for (const QString &text : {QString("plain"), QString::fromUtf8("状态 ok"), QString::fromUtf8("é😀x")}) {
        QCOMPARE(ConsoleTrafficBuffer::utf8Length(text), qint64(text.toUtf8().size()));
    }
}

void ConsoleLogicTest::ledgerRunsACommandOnceWithinItsMemory()
{
    ConsoleCommandLedger ledger(4, 4);
    QVERIFY(ledger.markHandled("a"));
    QVERIFY(!ledger.markHandled("a"));
    for (const char *id : {"b", "c", "d"})
        QVERIFY(ledger.markHandled(id));
    QVERIFY(!ledger.markHandled("a"));
    // The fifth newer id pushes the oldest out of memory.
    QVERIFY(ledger.markHandled("e"));
    QVERIFY(!ledger.isHandled("a"));
    QVERIFY(ledger.isHandled("e"));
}

void ConsoleLogicTest::ledgerKeepsResultsUntilConfirmedWithinItsBound()
{
    ConsoleCommandLedger ledger(16, 3);
    for (const char *id : {"a", "b", "c"})
        ledger.addResult(id, {{"id", id}});
    QVERIFY(ledger.confirm("b"));
    QVERIFY(!ledger.confirm("b"));
    QVERIFY(!ledger.confirm("never"));
    ledger.addResult("d", {{"id", "d"}});
    ledger.addResult("e", {{"id", "e"}});
    QCOMPARE(ledger.givenUpResults(), quint64(1));
    QStringList ids;
    for (const auto &[id, result] : ledger.pending())
        ids.append(id);
    QCOMPARE(ids, (QStringList{"c", "d", "e"}));
    QVERIFY(!ledger.pendingResult("a"));
    QCOMPARE(ledger.pendingResult("d")->value("id").toString(), QString("d"));
}

void ConsoleLogicTest::tableChecksConsentAndShares_data()
{
    QTest::addColumn<int>("requirement");
    QTest::addColumn<bool>("consented");
    QTest::addColumn<QString>("share");  // share id: "" none, "s1" held with level below, "gone" unknown
    QTest::addColumn<QString>("level");
    QTest::addColumn<QString>("code");  // "" for success
    QTest::addColumn<QString>("message");

    const QString denied = "permission_denied";
    QTest::newRow("snapshot needs nothing") << int(Requirement::Nothing) << false << "" << "" << "" << "";
    QTest::newRow("send off") << int(Requirement::RemoteSend) << false << "" << "" << denied
                              << "remote send is disabled on the device";
    QTest::newRow("send on") << int(Requirement::RemoteSend) << true << "" << "" << "" << "";
    QTest::newRow("control off") << int(Requirement::PortControl) << false << "" << "" << denied
                                 << "remote port control is disabled on the device";
    QTest::newRow("relay off") << int(Requirement::Relay) << false << "" << "" << denied
                               << "cloud relay is disabled on the device";
    QTest::newRow("share view cannot send") << int(Requirement::RemoteSend) << true << "s1" << "view" << denied
                                            << "the share does not allow sending from a browser";
    QTest::newRow("share send sends, owner switch off") << int(Requirement::RemoteSend) << false << "s1" << "send"
                                                        << "" << "";
    QTest::newRow("share control sends") << int(Requirement::RemoteSend) << false << "s1" << "control" << "" << "";
    QTest::newRow("share send cannot control") << int(Requirement::PortControl) << true << "s1" << "send" << denied
                                               << "the share does not allow port control from a browser";
    QTest::newRow("share control controls") << int(Requirement::PortControl) << false << "s1" << "control" << ""
                                            << "";
    QTest::newRow("unknown share") << int(Requirement::RemoteSend) << true << "gone" << "" << "share_not_found"
                                   << "this computer holds no such share";
    QTest::newRow("share of an earlier run") << int(Requirement::PortControl) << true << "old" << ""
                                             << "session_mismatch" << "the share belongs to an earlier run";
}

void ConsoleLogicTest::tableChecksConsentAndShares()
{
    QFETCH(int, requirement);
    QFETCH(bool, consented);
    QFETCH(QString, share);
    QFETCH(QString, level);
    QFETCH(QString, code);
    QFETCH(QString, message);

    ConsoleCommandTable table;
    table.setConsentSource([consented] { return ConsoleConsent{consented, consented, consented}; });
    table.setShareGate([level](const QString &id, Requirement) {
        if (id == "s1")
            return ConsoleCommandTable::ShareAccess{true, {}, {}, level};
        if (id == "old")
            return ConsoleCommandTable::ShareAccess{false, "session_mismatch", "the share belongs to an earlier run", {}};
        return ConsoleCommandTable::ShareAccess{};
    });
    int ran = 0;
    table.add("cmd", Requirement(requirement), [&ran](const QJsonObject &) {
        ++ran;
        return ConsoleOutcome::success({{"done", true}});
    });
    QJsonObject payload{{"port_key", "p1"}};
    if (!share.isEmpty())
        payload.insert("share_id", share);
    const QJsonObject result = table.run("cmd", payload).toResult("cid-1");
    if (code.isEmpty()) {
        QCOMPARE(result, (QJsonObject{{"cid", "cid-1"}, {"status", "succeeded"}, {"done", true}}));
        QCOMPARE(ran, 1);
    } else {
        QCOMPARE(result, (QJsonObject{{"cid", "cid-1"}, {"status", "failed"}, {"error_code", code}, {"message", message}}));
        QCOMPARE(ran, 0);
    }
}

void ConsoleLogicTest::unknownCommandIsUnsupported()
{
    ConsoleCommandTable table;
    const ConsoleOutcome outcome = table.run("reboot", {});
    QVERIFY(!outcome.succeeded);
    QCOMPARE(outcome.errorCode, QString("unsupported_command"));
    QCOMPARE(outcome.message, QString("unsupported command: reboot"));
}

void ConsoleLogicTest::cidIsKeptPerAccount()
{
    m_sandbox->clear();
    const QString first = ConsoleIdentity::cidFor(7);
    QVERIFY(!QUuid::fromString(first).isNull());
    QVERIFY(!first.startsWith('{'));
    QCOMPARE(ConsoleIdentity::cidFor(7), first);  // a restart or a new sign-in
    const QString other = ConsoleIdentity::cidFor(8);
    QVERIFY(other != first);
    QVERIFY(ConsoleIdentity::cidFor(7) != first);  // the store holds one account's
    QVERIFY(ConsoleIdentity::newIdentifier() != ConsoleIdentity::newIdentifier());
}

QTEST_GUILESS_MAIN(ConsoleLogicTest)
#include "tst_consolelogic.moc"
