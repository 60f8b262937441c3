// The SMTP conversation that delivers registration codes, fed a server's
// replies split at every position and moved through time.
#include "smtpdialog.h"

#include <QtTest>

namespace {

SmtpDialog::Message message()
{
    return {QStringLiteral("cloud@example.org"), QStringLiteral("ann@example.org"), QStringLiteral("Code"),
            QStringLiteral("Your code is 123456.\n.a line that starts with a dot")};
}

// Runs a whole conversation: `replies` are what the server says after each
// thing the client writes. Returns what the client wrote, in order.
struct Run
{
    QList<QByteArray> written;
    QList<SmtpDialog::Event> events;
};

Run converse(SmtpDialog &dialog, const QList<QByteArray> &replies, int splitAt)
{
    Run run;
    SmtpDialog::Step step = dialog.start(0);
    for (const QByteArray &reply : replies) {
        const int cut = qMin<int>(splitAt, reply.size());
        step = dialog.feed(reply.left(cut), 1);
        SmtpDialog::Step rest = dialog.feed(reply.mid(cut), 2);
        step.write += rest.write;
        step.events += rest.events;
        if (!step.write.isEmpty())
            run.written.append(step.write);
        run.events += step.events;
        for (const SmtpDialog::Event &event : std::as_const(step.events)) {
            if (event.kind == SmtpDialog::EventKind::StartTls) {
                SmtpDialog::Step again = dialog.tlsReady(3);
                run.written.append(again.write);
            }
        }
    }
    return run;
}

} // namespace

class TestSmtpDialog : public QObject
{
    Q_OBJECT

private slots:
    void deliversWithStartTlsAndSignIn();
    void refusalsEndTheConversation_data();
    void refusalsEndTheConversation();
    void silenceTimesOut();
    void headerInjectionIsRefused();
};

void TestSmtpDialog::deliversWithStartTlsAndSignIn()
{
    const QList<QByteArray> replies = {"220 mail ready\r\n",
                                       "250-mail\r\n250-STARTTLS\r\n250 AUTH PLAIN\r\n",
                                       "220 go ahead\r\n",
                                       "250-mail\r\n250 AUTH PLAIN\r\n",
                                       "235 ok\r\n",
                                       "250 sender ok\r\n",
                                       "250 recipient ok\r\n",
                                       "354 go\r\n",
                                       "250 queued\r\n",
                                       "221 bye\r\n"};
    for (int split = 0; split < 20; ++split) {
        SmtpDialog dialog(message(), QStringLiteral("user"), QStringLiteral("pw"), true, QStringLiteral("host"));
        const Run run = converse(dialog, replies, split);
        QCOMPARE(run.written.value(0), QByteArray("EHLO host\r\n"));
        QCOMPARE(run.written.value(1), QByteArray("STARTTLS\r\n"));
        QCOMPARE(run.written.value(2), QByteArray("EHLO host\r\n"));
        QCOMPARE(run.written.value(3), QByteArray("AUTH PLAIN " + QByteArray("\0user\0pw", 8).toBase64() + "\r\n"));
        QCOMPARE(run.written.value(4), QByteArray("MAIL FROM:<cloud@example.org>\r\n"));
        QCOMPARE(run.written.value(5), QByteArray("RCPT TO:<ann@example.org>\r\n"));
        QCOMPARE(run.written.value(6), QByteArray("DATA\r\n"));
        QVERIFY(run.written.value(7).contains("\r\nYour code is 123456.\r\n..a line"));
        QVERIFY(run.written.value(7).endsWith("\r\n.\r\n"));
        QCOMPARE(run.written.value(8), QByteArray("QUIT\r\n"));
        QCOMPARE(run.events.last().kind, SmtpDialog::EventKind::Sent);
        QVERIFY(dialog.isFinished());
    }
}

void TestSmtpDialog::refusalsEndTheConversation_data()
{
    QTest::addColumn<QList<QByteArray>>("replies");
    QTest::addColumn<QString>("reason");
    QTest::newRow("greeting") << QList<QByteArray>{"554 go away\r\n"} << "refused the connection";
    QTest::newRow("sign-in") << QList<QByteArray>{"220 hi\r\n", "250 ok\r\n", "535 bad credentials\r\n"}
                             << "refused the sign-in: 535";
    QTest::newRow("recipient") << QList<QByteArray>{"220 hi\r\n", "250 ok\r\n", "235 ok\r\n", "250 ok\r\n", "550 no such user\r\n"}
                               << "refused the recipient";
    QTest::newRow("garbage") << QList<QByteArray>{"hello\r\n"} << "malformed";
    QTest::newRow("endless line") << QList<QByteArray>{QByteArray(70000, '2')} << "overlong";
}

void TestSmtpDialog::refusalsEndTheConversation()
{
    QFETCH(QList<QByteArray>, replies);
    QFETCH(QString, reason);
    SmtpDialog dialog(message(), QStringLiteral("user"), QStringLiteral("pw"), false, QStringLiteral("host"));
    const Run run = converse(dialog, replies, 1);
    QVERIFY(dialog.isFinished());
    QCOMPARE(run.events.size(), 1);
    QCOMPARE(run.events.first().kind, SmtpDialog::EventKind::Failed);
    QVERIFY2(run.events.first().detail.contains(reason), qPrintable(run.events.first().detail));
}

void TestSmtpDialog::silenceTimesOut()
{
    SmtpDialog dialog(message(), {}, {}, false, QStringLiteral("host"));
    const SmtpDialog::Step first = dialog.start(1000);
    QCOMPARE(first.wakeAtMs, 1000 + SmtpDialog::kTimeoutMs);
    QVERIFY(dialog.tick(first.wakeAtMs - 1).events.isEmpty());
    const SmtpDialog::Step late = dialog.tick(first.wakeAtMs);
    QCOMPARE(late.events.size(), 1);
    QVERIFY(late.events.first().detail.contains("did not answer"));
}

void TestSmtpDialog::headerInjectionIsRefused()
{
    SmtpDialog::Message bad = message();
    bad.to = QStringLiteral("ann@example.org>\r\nRCPT TO:<mallory@example.org");
    SmtpDialog dialog(bad, {}, {}, false, QStringLiteral("host"));
    const SmtpDialog::Step step = dialog.start(0);
    QVERIFY(step.write.isEmpty());
    QCOMPARE(step.events.first().kind, SmtpDialog::EventKind::Failed);
}

QTEST_GUILESS_MAIN(TestSmtpDialog)
#include "tst_smtpdialog.moc"
