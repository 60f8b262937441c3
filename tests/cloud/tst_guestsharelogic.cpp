// Guest shares with no socket and no timer: the form's checks, reading a
// share from the service (garbled ones included), the end and refusal
// texts, the time left, the table of held shares on a clock that differs
// from the service's, what a listing ends or changes, what a guest's
// command may do, and the status-bar badge.
#include "app/cloudsharemenu.h"
#include "cloud/guestshare.h"
#include "cloud/guestsharedialog.h"
#include "cloud/guestsharetable.h"
#include "cloud/manageguestsharesdialog.h"

#include <QDateTime>
#include <QJsonDocument>
#include <QtTest>

namespace {

constexpr qint64 kMinute = 60000;
constexpr qint64 kHour = 60 * kMinute;
constexpr qint64 kNow = 1750000000000;  // some day in 2025

GuestShare share(const QString &id, qint64 createdAt = kNow, qint64 ttlMs = kHour)
{
    GuestShare s;
    s.shareId = id;
    s.code = "ABCD-EFGH-JKMN";
    s.sessionId = "run-1";
    s.portKey = "p1";
    s.portName = "ttyUSB0";
    s.web = "send";
    s.createdAt = createdAt;
    s.expiresAt = createdAt + ttlMs;
    return s;
}

} // namespace

class GuestShareLogicTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void formChecks_data();
    void formChecks();
    void shareIsReadWithoutTrustingIt_data();
    void shareIsReadWithoutTrustingIt();
    void endAndRefusalTexts_data();
    void endAndRefusalTexts();
    void timeLeftIsWholeMinutesRoundedUp_data();
    void timeLeftIsWholeMinutesRoundedUp();
    void expiryAndGuestTexts();
    void heldSharesFollowTheServicesClock();
    void listingBringsGuestsAndEnds();
    void listingDoesNotEndWhatItCouldNotKnow();
    void listingNeverWidensWhatAShareGrants();
    void tableIsBounded();
    void guestCommandAccess();
    void badgeSaysWhetherAnybodyCame();
    void manageListTexts();
};

void GuestShareLogicTest::formChecks_data()
{
    QTest::addColumn<int>("ttl");
    QTest::addColumn<QString>("passcode");
    QTest::addColumn<QString>("web");
    QTest::addColumn<bool>("relay");
    QTest::addColumn<QString>("refusal");

    const QString passcodeText = "A passcode is 4–16 characters.";
    const QString wayInText = "Allow at least one way in: the browser, Tessaline, or both.";
    QTest::newRow("24 hours, no passcode") << 86400 << "" << "view" << false << "";
    QTest::newRow("a 5-hour share is not offered") << 18000 << "" << "view" << false
                                                   << "A share lasts 1, 4, 12 or 24 hours.";
    QTest::newRow("3-character passcode") << 3600 << "abc" << "view" << false << passcodeText;
    QTest::newRow("4 characters") << 3600 << "abcd" << "view" << false << "";
    QTest::newRow("16 characters") << 3600 << "abcdefghijklmnop" << "view" << false << "";
    QTest::newRow("17 characters") << 3600 << "abcdefghijklmnopq" << "view" << false << passcodeText;
    QTest::newRow("characters, not bytes") << 3600 << QString::fromUtf8("密码四个") << "send" << false << "";
    QTest::newRow("browser none without relay") << 14400 << "" << "none" << false << wayInText;
    QTest::newRow("relay alone") << 43200 << "" << "none" << true << "";
    QTest::newRow("an unknown level is no way in") << 3600 << "" << "admin" << false << wayInText;
}

void GuestShareLogicTest::formChecks()
{
    QFETCH(int, ttl);
    QFETCH(QString, passcode);
    QFETCH(QString, web);
    QFETCH(bool, relay);
    QFETCH(QString, refusal);
    const Result result = GuestShareTable::check({"p1", ttl, "label", passcode, web, relay});
    QCOMPARE(result.isOk(), refusal.isEmpty());
    QCOMPARE(result.errorText(), refusal);
}

void GuestShareLogicTest::shareIsReadWithoutTrustingIt_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<bool>("read");
    QTest::addColumn<QString>("id");
    QTest::addColumn<QString>("web");
    QTest::addColumn<bool>("guest");
    QTest::addColumn<qint64>("expiresAt");
    QTest::addColumn<QString>("endReason");

    QTest::newRow("whole") << QByteArray(R"({"share_id":"s1","web":"control","expires_at":1750003600000,
        "guest":{"name":"mei","since":1750000100000,"relay_id":"r9"},"web_guests":2,"state":"live"})")
                           << true << "s1" << "control" << true << qint64(1750003600000) << "";
    QTest::newRow("numbered id, null guest") << QByteArray(R"({"share_id":42,"web":"view","guest":null})") << true
                                             << "42" << "view" << false << qint64(0) << "";
    QTest::newRow("unknown level grants nothing") << QByteArray(R"({"share_id":"s2","web":"root"})") << true << "s2"
                                                  << "none" << false << qint64(0) << "";
    QTest::newRow("a time that is not one") << QByteArray(R"({"share_id":"s3","expires_at":-5})") << true << "s3"
                                            << "none" << false << qint64(0) << "";
    QTest::newRow("ended with its reason") << QByteArray(R"({"share_id":"s4","state":"ended","end_reason":"stale"})")
                                           << true << "s4" << "none" << false << qint64(0) << "stale";
    QTest::newRow("no id") << QByteArray(R"({"code":"ABCD-EFGH-JKMN"})") << false << "" << "" << false << qint64(0)
                           << "";
    QTest::newRow("id of the wrong kind") << QByteArray(R"({"share_id":{"x":1}})") << false << "" << "" << false
                                          << qint64(0) << "";
}

void GuestShareLogicTest::shareIsReadWithoutTrustingIt()
{
    QFETCH(QByteArray, json);
    QFETCH(bool, read);
    QFETCH(QString, id);
    QFETCH(QString, web);
    QFETCH(bool, guest);
    QFETCH(qint64, expiresAt);
    QFETCH(QString, endReason);
    const std::optional<GuestShare> parsed = GuestShare::fromJson(QJsonDocument::fromJson(json).object());
    QCOMPARE(parsed.has_value(), read);
    if (!read)
        return;
    QCOMPARE(parsed->shareId, id);
    QCOMPARE(parsed->web, web);
    QCOMPARE(parsed->guest.has_value(), guest);
    QCOMPARE(parsed->expiresAt, expiresAt);
    QCOMPARE(parsed->ended, !endReason.isEmpty());
    QCOMPARE(parsed->endReason, endReason);
    // What the dialogs and tests hand round reads back the same.
    QCOMPARE(GuestShare::fromJson(parsed->toJson()), parsed);
}

void GuestShareLogicTest::endAndRefusalTexts_data()
{
    QTest::addColumn<QString>("word");
    QTest::addColumn<QString>("inSentence");  // "%1: the share ended (%2)."
    QTest::addColumn<QString>("ended");       // "Sharing ended: %1"
    QTest::addColumn<QString>("refusal");     // a share reply with "status" false

    QTest::newRow("stale") << "stale" << "the computer restarted" << "the computer restarted" << "The share ended.";
    QTest::newRow("too many attempts") << "too_many_attempts" << "too many wrong passcodes"
                                       << "too many wrong passcodes"
                                       << "Too many wrong passcodes; the share was revoked.";
    QTest::newRow("session mismatch") << "session_mismatch" << "session_mismatch" << "The share ended."
                                      << "The share no longer matched this run.";
    QTest::newRow("expired") << "expired" << "it expired" << "The share expired." << "The share ended.";
    QTest::newRow("revoked") << "revoked" << "stopped by the owner" << "You stopped sharing." << "The share ended.";
    QTest::newRow("anything else") << "meteor" << "meteor" << "The share ended." << "The share ended.";
}

void GuestShareLogicTest::endAndRefusalTexts()
{
    QFETCH(QString, word);
    QFETCH(QString, inSentence);
    QFETCH(QString, ended);
    QFETCH(QString, refusal);
    QCOMPARE(GuestShare::endWordText(word), inSentence);
    QCOMPARE(GuestShare::endedText(word), ended);
    QCOMPARE(GuestShare::refusalText(word), refusal);
}

void GuestShareLogicTest::timeLeftIsWholeMinutesRoundedUp_data()
{
    QTest::addColumn<qint64>("msLeft");
    QTest::addColumn<QString>("text");
    QTest::newRow("a moment") << qint64(1) << "1 min";
    QTest::newRow("one minute") << kMinute << "1 min";
    QTest::newRow("just over") << kMinute + 1 << "2 min";
    QTest::newRow("under the hour") << 59 * kMinute << "59 min";
    QTest::newRow("the hour") << kHour << "1 h 0 min";
    QTest::newRow("hours and minutes") << 3 * kHour + 12 * kMinute << "3 h 12 min";
    QTest::newRow("a whole day") << 24 * kHour << "24 h 0 min";
}

void GuestShareLogicTest::timeLeftIsWholeMinutesRoundedUp()
{
    QFETCH(qint64, msLeft);
    QFETCH(QString, text);
    QCOMPARE(GuestShareDialog::timeLeftText(msLeft), text);
}

void GuestShareLogicTest::expiryAndGuestTexts()
{
    const QDateTime noon(QDate(2025, 6, 1), QTime(12, 0));
    const qint64 now = noon.toMSecsSinceEpoch();
    QCOMPARE(GuestShareDialog::expiryText(now + 90 * kMinute, now), QString("Expires at 13:30 (in 1 h 30 min)"));
    QCOMPARE(GuestShareDialog::expiryText(now + 14 * kHour, now), QString("Expires at 06-02 02:00 (in 14 h 0 min)"));
    QCOMPARE(GuestShareDialog::expiryText(now, now), QString("Expired — the share admits no new guests."));

    GuestShare s = share("s1", now);
    QCOMPARE(GuestShareDialog::guestLines(s), QStringList{"Waiting for a guest…"});
    s.webGuests = 3;
    s.guest = GuestShare::Guest{"mei", now + 5 * kMinute, "r1"};
    QCOMPARE(GuestShareDialog::guestLines(s), (QStringList{"mei connected since 12:05", "Watching in a browser: 3"}));

    QCOMPARE(GuestShareDialog::otherShareLine(s), QString("ttyUSB0 · ABCD-EFGH-JKMN · expires 06-01 13:00"));
    s.ended = true;
    s.endReason = "stale";
    QCOMPARE(GuestShareDialog::otherShareLine(s), QString("ttyUSB0 · ABCD-EFGH-JKMN: the share ended (the computer "
                                                          "restarted)."));
}

void GuestShareLogicTest::heldSharesFollowTheServicesClock()
{
    // The service's clock runs five minutes ahead of this computer's.
    const qint64 skew = 5 * kMinute;
    GuestShareTable table("run-1");
    const GuestShare &held = table.add(share("s1", kNow + skew, kHour), kNow);
    QCOMPARE(held.createdAt, kNow);
    QCOMPARE(held.expiresAt, kNow + kHour);
    QCOMPARE(table.clockOffsetMs(), skew);

    QVERIFY(table.takeExpired(kNow + kHour - 1).isEmpty());
    QVERIFY(table.access("s1", kNow + kHour - 1).held);
    QVERIFY(!table.access("s1", kNow + kHour).held);  // no rights past the time
    const QList<GuestShare> expired = table.takeExpired(kNow + kHour);
    QCOMPARE(expired.size(), 1);
    QCOMPARE(expired.first().shareId, QString("s1"));
    QVERIFY(table.isEmpty());
}

void GuestShareLogicTest::listingBringsGuestsAndEnds()
{
    GuestShareTable table("run-1");
    table.add(share("s1"), kNow);
    table.add(share("s2"), kNow);
    table.add(share("s3"), kNow);

    GuestShare withGuest = share("s1");
    withGuest.guest = GuestShare::Guest{"mei", kNow + kMinute, "r1"};
    withGuest.webGuests = 1;
    GuestShare stale = share("s2");
    stale.ended = true;
    stale.endReason = "stale";
    // s3 is gone from the listing altogether.
    GuestShareTable::ListingOutcome outcome = table.applyListing({withGuest, stale}, kNow + 10);

    QCOMPARE(outcome.changed.size(), 1);
    QCOMPARE(outcome.changed.first().guest->name, QString("mei"));
    QCOMPARE(outcome.changed.first().webGuests, 1);
    QCOMPARE(outcome.ended.size(), 2);
    QCOMPARE(outcome.ended.at(0).share.shareId, QString("s2"));
    QCOMPARE(outcome.ended.at(0).reason, QString("the computer restarted"));
    QCOMPARE(outcome.ended.at(1).share.shareId, QString("s3"));
    QCOMPARE(outcome.ended.at(1).reason, QString("The share ended."));
    QCOMPARE(table.shares().size(), 1);
    QCOMPARE(table.listing().size(), 2);

    // The same listing again changes nothing.
    outcome = table.applyListing({withGuest}, kNow + 20);
    QVERIFY(outcome.changed.isEmpty() && outcome.ended.isEmpty());
    // The guest leaves.
    outcome = table.applyListing({share("s1")}, kNow + 30);
    QCOMPARE(outcome.changed.size(), 1);
    QVERIFY(!outcome.changed.first().guest && outcome.changed.first().webGuests == 0);
}

void GuestShareLogicTest::listingDoesNotEndWhatItCouldNotKnow()
{
    GuestShareTable table("run-1");
    table.add(share("s1"), kNow + 100);  // arrived after the listing was asked for
    const GuestShareTable::ListingOutcome outcome = table.applyListing({}, kNow);
    QVERIFY(outcome.ended.isEmpty());
    QCOMPARE(table.shares().size(), 1);
}

void GuestShareLogicTest::listingNeverWidensWhatAShareGrants()
{
    GuestShareTable table("run-1");
    GuestShare viewOnly = share("s1");
    viewOnly.web = "view";
    table.add(viewOnly, kNow);
    GuestShare widened = viewOnly;
    widened.web = "control";
    widened.relay = true;
    widened.portKey = "p9";
    table.applyListing({widened}, kNow + 1);
    const ConsoleCommandTable::ShareAccess access = table.access("s1", kNow + 2);
    QVERIFY(access.held);
    QCOMPARE(access.level, QString("view"));
    QCOMPARE(access.portKey, QString("p1"));
    QVERIFY(!access.relay);
}

void GuestShareLogicTest::tableIsBounded()
{
    GuestShareTable table("run-1");
    for (int i = 0; i < GuestShareTable::kMaxShares; ++i) {
        QVERIFY(!table.isFull());
        table.add(share(QString("s%1").arg(i)), kNow);
    }
    QVERIFY(table.isFull());
    table.add(share("s0"), kNow);  // the same share again replaces itself
    QCOMPARE(table.shares().size(), GuestShareTable::kMaxShares);

    QList<GuestShare> many;
    for (int i = 0; i < 500; ++i)
        many.append(share(QString("s%1").arg(i)));
    table.applyListing(many, kNow + 1);
    QCOMPARE(table.listing().size(), GuestShareTable::kMaxListing);
    QCOMPARE(table.shares().size(), GuestShareTable::kMaxShares);  // nothing taken on from a listing
}

void GuestShareLogicTest::guestCommandAccess()
{
    GuestShareTable table("run-2");
    GuestShare mine = share("s1");
    mine.sessionId = "run-2";
    mine.relay = true;
    table.add(mine, kNow);
    GuestShare earlier = share("old");
    earlier.sessionId = "run-1";
    table.applyListing({mine, earlier}, kNow + 1);

    ConsoleCommandTable::ShareAccess access = table.access("s1", kNow + 2);
    QVERIFY(access.held);
    QCOMPARE(access.level, QString("send"));
    QCOMPARE(access.portKey, QString("p1"));
    QVERIFY(access.relay);

    access = table.access("old", kNow + 2);
    QVERIFY(!access.held);
    QCOMPARE(access.errorCode, QString("session_mismatch"));
    QVERIFY(!access.message.isEmpty());

    access = table.access("nobody", kNow + 2);
    QVERIFY(!access.held);
    QVERIFY(access.errorCode.isEmpty());  // the table's own "no such share"
}

void GuestShareLogicTest::badgeSaysWhetherAnybodyCame()
{
    const QDateTime noon(QDate(2025, 6, 1), QTime(12, 0));
    GuestShare first = share("s1", noon.toMSecsSinceEpoch(), 4 * kHour);
    GuestShare second = share("s2", noon.toMSecsSinceEpoch(), kHour);
    QCOMPARE(CloudShareMenu::badgeText({}), QString());
    QCOMPARE(CloudShareMenu::badgeText({first, second}), QString("Live Share · waiting for a guest"));
    first.webGuests = 1;
    QCOMPARE(CloudShareMenu::badgeText({first, second}), QString("Live Share · expires 13:00"));
}

void GuestShareLogicTest::manageListTexts()
{
    GuestShare s = share("s1");
    QCOMPARE(ManageGuestSharesDialog::guestText(s), QString("waiting"));
    s.webGuests = 2;
    QCOMPARE(ManageGuestSharesDialog::guestText(s), QString("2 (browser)"));
    s.guest = GuestShare::Guest{"mei", 0, {}};
    QCOMPARE(ManageGuestSharesDialog::guestText(s), QString("mei, 2 (browser)"));
    const QDateTime when(QDate(2025, 12, 24), QTime(18, 5));
    QCOMPARE(ManageGuestSharesDialog::expiresText(when.toMSecsSinceEpoch()), QString("12-24 18:05"));
}

QTEST_MAIN(GuestShareLogicTest)
#include "tst_guestsharelogic.moc"
