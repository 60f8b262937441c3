// Finding the other end of a relay: the connector and the target dialog
// against canned replies of the service's relay endpoints, served by a
// small loopback HTTP responder.
#include "cloud/accountsession.h"
#include "cloud/networkservices.h"
#include "cloud/relayconnector.h"
#include "cloud/relaytargetdialog.h"
#include "support/settingssandbox.h"

#include <QDialogButtonBox>
#include <QJsonDocument>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>
#include <QTreeWidget>
#include <QPointer>
#include <QtTest>

namespace {

constexpr int kWait = 5000;

// Answers "METHOD /path" with the JSON set for it (404 with an envelope
// otherwise) and keeps every request it saw.
class Responder : public QObject
{
public:
    Responder()
    {
        m_server.listen(QHostAddress::LocalHost);
        connect(&m_server, &QTcpServer::newConnection, this, [this] {
            while (QTcpSocket *socket = m_server.nextPendingConnection())
                connect(socket, &QTcpSocket::readyRead, socket, [this, socket] { serve(socket); });
        });
    }
    QString url() const { return QStringLiteral("http://127.0.0.1:%1").arg(m_server.serverPort()); }
    void set(const QByteArray &request, const QByteArray &json) { m_routes.insert(request, json); }
    // While held, requests are recorded but answered only on release().
    void hold() { m_holding = true; }
    void release()
    {
        m_holding = false;
        for (const QPointer<QTcpSocket> &socket : std::exchange(m_held, {}))
            if (socket)
                answer(socket);
    }
    struct Request
    {
        QByteArray line;
        QJsonObject body;
    };
    QList<Request> requests;

private:
    void serve(QTcpSocket *socket)
    {
        QByteArray &in = m_pending[socket];
        in += socket->readAll();
        const qsizetype end = in.indexOf("\r\n\r\n");
        if (end < 0)
            return;
        const QByteArray head = in.left(end);
        const qsizetype lengthAt = head.toLower().indexOf("content-length:");
        const int length = lengthAt < 0 ? 0 : head.mid(lengthAt + 15, head.indexOf('\r', lengthAt) - lengthAt - 15).trimmed().toInt();
        if (in.size() < end + 4 + length)
            return;
        const QList<QByteArray> first = head.left(head.indexOf('\r')).split(' ');
        const QByteArray key = first.value(0) + ' ' + first.value(1).split('?').constFirst();
        requests.append({key, QJsonDocument::fromJson(in.mid(end + 4, length)).object()});
        m_pending.remove(socket);
        m_keys.insert(socket, key);
        if (m_holding)
            m_held.append(socket);
        else
            answer(socket);
    }
    void answer(QTcpSocket *socket)
    {
        const QByteArray key = m_keys.take(socket);
        const bool known = m_routes.contains(key);
        const QByteArray body = known ? m_routes.value(key) : QByteArray(R"({"type":"relay","status":false})");
        socket->write("HTTP/1.1 " + QByteArray(known ? "200 OK" : "404 Not Found")
                      + "\r\nContent-Type: application/json\r\nContent-Length: " + QByteArray::number(body.size())
                      + "\r\nConnection: close\r\n\r\n" + body);
        socket->disconnectFromHost();
    }

    QTcpServer m_server;
    QHash<QByteArray, QByteArray> m_routes;
    QHash<QTcpSocket *, QByteArray> m_pending;
    QHash<QTcpSocket *, QByteArray> m_keys;
    QList<QPointer<QTcpSocket>> m_held;
    bool m_holding = false;
};

const QByteArray kTargets = R"({"type":"relay","status":true,"devices":[
    {"cid":"c1","name":"bench-pc","online":true,"session_id":"run-7","ports":[
        {"port_key":"p1","port_name":"/dev/ttyUSB0","open":true,"relay_allowed":true},
        {"port_key":"p2","port_name":"COM9","open":false,"relay_allowed":true},
        {"port_key":"p3","port_name":"COM4","open":true,"relay_allowed":false}]},
    {"cid":"c2","name":"lab-pc","online":false,"ports":[
        {"port_key":"p1","port_name":"COM1","open":true,"relay_allowed":true}]}]})";

} // namespace

class TestRelayTargets : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void connectorOpensASessionOnAPort();
    void connectorFailures_data();
    void connectorFailures();
    void connectorJoinsWithAnInvite();
    void dialogSignedOut();
    void dialogListsDevicesAndPorts();
    void dialogWaitsForPortsThenGivesUp();
    void dialogPeeksAtTheCode_data();
    void dialogPeeksAtTheCode();

private:
    void signIn();
    SettingsSandbox *m_settings = nullptr;
    std::unique_ptr<Responder> m_responder;
    std::unique_ptr<NetworkServices> m_network;
    std::unique_ptr<AccountSession> m_account;
};

void TestRelayTargets::initTestCase()
{
    m_settings = new SettingsSandbox;
}

void TestRelayTargets::init()
{
    m_settings->clear();
    m_responder = std::make_unique<Responder>();
    qputenv("TSL_HOST", m_responder->url().toUtf8());
    m_network = std::make_unique<NetworkServices>();
    m_account = std::make_unique<AccountSession>(m_network.get());
}

void TestRelayTargets::signIn()
{
    m_account->applyLogin(QJsonDocument::fromJson(R"({"user":{"id":5,"email":"a@example.org"},
        "access_token":"token-5","expires_in":3600})").object());
}

void TestRelayTargets::connectorOpensASessionOnAPort()
{
    m_responder->set("GET /api/v3/relay/targets", kTargets);
    m_responder->set("POST /api/v3/relay/sessions",
                     R"({"type":"relay","status":true,"ticket":"T1","relay_id":"R1","port_key":"p1"})");
    RelayConnector connector(m_network.get());
    QSignalSpy ready(&connector, &RelayConnector::ready);
    connector.connectToPort(QStringLiteral("token"), QStringLiteral("me"), QStringLiteral("c1"), QStringLiteral("p1"));
    QTRY_COMPARE_WITH_TIMEOUT(ready.size(), 1, kWait);
    QCOMPARE(ready.at(0).at(0).toString(), QStringLiteral("T1"));
    QCOMPARE(ready.at(0).at(1).toString(), QStringLiteral("R1"));
    QCOMPARE(ready.at(0).at(2).toString(), QStringLiteral("p1"));
    QCOMPARE(m_responder->requests.size(), 2);
    const QJsonObject opened = m_responder->requests.at(1).body;
    QCOMPARE(opened.value("cid").toString(), QStringLiteral("c1"));
    QCOMPARE(opened.value("session_id").toString(), QStringLiteral("run-7"));
    QCOMPARE(opened.value("port_key").toString(), QStringLiteral("p1"));
    QVERIFY(connector.requestTag().startsWith(QLatin1String("relayop:")));
}

void TestRelayTargets::connectorFailures_data()
{
    QTest::addColumn<QString>("cid");
    QTest::addColumn<QString>("portKey");
    QTest::addColumn<QByteArray>("session");
    QTest::addColumn<QString>("reason");
    QTest::addColumn<int>("failure");
    const int gone = int(RelayConnector::Failure::TargetGone);
    const int other = int(RelayConnector::Failure::Other);
    QTest::newRow("computer gone") << "c9" << "p1" << QByteArray() << "That computer is no longer bound to this account."
                                   << gone;
    QTest::newRow("offline") << "c2" << "p1" << QByteArray() << "lab-pc is offline." << other;
    QTest::newRow("port gone") << "c1" << "p8" << QByteArray()
                               << "bench-pc no longer shares a port called \"COM8\". Choose it again." << gone;
    QTest::newRow("refused with a text")
        << "c1" << "p1" << QByteArray(R"({"type":"relay","status":false,"code":"relay_busy","description":"Busy."})")
        << "Busy." << other;
    QTest::newRow("refused without") << "c1" << "p1" << QByteArray(R"({"type":"relay","status":false})")
                                     << "The relay could not be opened." << other;
    QTest::newRow("no ticket") << "c1" << "p1" << QByteArray(R"({"type":"relay","status":true,"relay_id":"R"})")
                               << "The server did not return a relay ticket." << other;
}

void TestRelayTargets::connectorFailures()
{
    QFETCH(QString, cid);
    QFETCH(QString, portKey);
    QFETCH(QByteArray, session);
    QFETCH(QString, reason);
    QFETCH(int, failure);
    m_responder->set("GET /api/v3/relay/targets", kTargets);
    if (!session.isEmpty())
        m_responder->set("POST /api/v3/relay/sessions", session);
    RelayConnector connector(m_network.get());
    QSignalSpy failed(&connector, &RelayConnector::failed);
    connector.connectToPort(QStringLiteral("token"), {}, cid, portKey, portKey == "p8" ? QStringLiteral("COM8") : QString());
    QTRY_COMPARE_WITH_TIMEOUT(failed.size(), 1, kWait);
    QCOMPARE(failed.at(0).at(0).toString(), reason);
    QCOMPARE(int(connector.failure()), failure);
}

void TestRelayTargets::connectorJoinsWithAnInvite()
{
    RelayConnector wrong(m_network.get());
    QSignalSpy wrongFailed(&wrong, &RelayConnector::failed);
    wrong.joinInvite({}, QStringLiteral("hello"), {}, {});
    QTRY_COMPARE_WITH_TIMEOUT(wrongFailed.size(), 1, kWait);
    QCOMPARE(wrongFailed.at(0).at(0).toString(), QStringLiteral("That does not look like an invite code."));
    QVERIFY(m_responder->requests.isEmpty());

    m_responder->set("POST /api/v3/relay/join", R"({"type":"relay","status":true,"ticket":"T2","relay_id":"R2",
        "port_key":"p4","guest_token":"G2","label":"Lab bench"})");
    RelayConnector connector(m_network.get());
    QSignalSpy ready(&connector, &RelayConnector::ready);
    connector.joinInvite({}, QStringLiteral("http://x/join/abcd-efgh-jkmn"), QStringLiteral("1234"),
                         QStringLiteral("Ana"));
    QTRY_COMPARE_WITH_TIMEOUT(ready.size(), 1, kWait);
    QCOMPARE(ready.at(0).at(3).toString(), QStringLiteral("G2"));
    const QJsonObject body = m_responder->requests.constLast().body;
    QCOMPARE(body.value("code").toString(), QStringLiteral("ABCDEFGHJKMN"));
    QCOMPARE(body.value("passcode").toString(), QStringLiteral("1234"));
    QCOMPARE(body.value("guest_name").toString(), QStringLiteral("Ana"));
}

void TestRelayTargets::dialogSignedOut()
{
    RelayTargetDialog dialog(m_network.get(), m_account.get(), {});
    QCOMPARE(dialog.windowTitle(), QStringLiteral("Select a Remote Serial Port"));
    QCOMPARE(dialog.devicesStatus(), QStringLiteral("Sign in to see your own devices."));
    QVERIFY(m_responder->requests.isEmpty());
    auto *ok = dialog.findChild<QDialogButtonBox *>()->button(QDialogButtonBox::Ok);
    QVERIFY(!ok->isEnabled());
}

void TestRelayTargets::dialogListsDevicesAndPorts()
{
    signIn();
    m_responder->set("GET /api/v3/relay/targets", kTargets);
    RelayTargetDialog dialog(m_network.get(), m_account.get(), QStringLiteral("me"));
    QCOMPARE(dialog.devicesStatus(), QStringLiteral("Looking for your devices…"));
    auto *tree = dialog.findChild<QTreeWidget *>(QStringLiteral("deviceTree"));
    QTRY_COMPARE_WITH_TIMEOUT(tree->topLevelItemCount(), 2, kWait);
    QCOMPARE(dialog.devicesStatus(), QString());
    const QTreeWidgetItem *bench = tree->topLevelItem(0);
    QCOMPARE(bench->text(1), QStringLiteral("Online"));
    QCOMPARE(bench->child(0)->text(1), QStringLiteral("Open"));
    QCOMPARE(bench->child(1)->text(1), QStringLiteral("Closed"));
    QCOMPARE(bench->child(2)->text(1), QStringLiteral("Relay not allowed there"));
    QCOMPARE(tree->topLevelItem(1)->text(1), QStringLiteral("Offline"));
    QCOMPARE(tree->topLevelItem(1)->child(0)->text(1), QStringLiteral("Offline"));
    QVERIFY(!(bench->child(2)->flags() & Qt::ItemIsSelectable));

    auto *ok = dialog.findChild<QDialogButtonBox *>()->button(QDialogButtonBox::Ok);
    QVERIFY(!ok->isEnabled());
    tree->setCurrentItem(bench->child(0));
    QVERIFY(ok->isEnabled());
    const RelayTargetDialog::Choice choice = dialog.choice();
    QVERIFY(!choice.invite);
    QCOMPARE(choice.cid, QStringLiteral("c1"));
    QCOMPARE(choice.portKey, QStringLiteral("p1"));
    QCOMPARE(choice.label, QStringLiteral("bench-pc / /dev/ttyUSB0"));

    m_responder->set("GET /api/v3/relay/targets", R"({"type":"relay","status":true,"devices":[]})");
    dialog.findChild<QPushButton *>(QStringLiteral("refreshButton"))->click();
    QCOMPARE(dialog.devicesStatus(), QStringLiteral("Asking for the port list…"));
    QTRY_COMPARE_WITH_TIMEOUT(dialog.devicesStatus(), QStringLiteral("No devices are bound to this account yet."),
                              kWait);
}

void TestRelayTargets::dialogWaitsForPortsThenGivesUp()
{
    signIn();
    m_responder->set("GET /api/v3/relay/targets",
                     R"({"type":"relay","status":true,"devices":[{"cid":"c1","name":"bench-pc","online":true}]})");
    RelayTargetDialog dialog(m_network.get(), m_account.get(), {});
    dialog.setPortWaitInterval(20);
    auto *tree = dialog.findChild<QTreeWidget *>(QStringLiteral("deviceTree"));
    QTRY_COMPARE_WITH_TIMEOUT(tree->topLevelItemCount(), 1, kWait);
    QCOMPARE(tree->topLevelItem(0)->child(0)->text(0), QStringLiteral("No ports reported yet"));
    QTRY_COMPARE_WITH_TIMEOUT(dialog.devicesStatus(),
                              QStringLiteral("The device has not reported its ports. Press Refresh to ask again."),
                              kWait);
    QCOMPARE(m_responder->requests.size(), 1 + RelayTargetDialog::kPortWaitTries);
}

void TestRelayTargets::dialogPeeksAtTheCode_data()
{
    QTest::addColumn<QByteArray>("reply");
    QTest::addColumn<QString>("shown");
    QTest::addColumn<bool>("passcodeBox");
    QTest::newRow("ready") << QByteArray(R"({"type":"relay","status":true,"label":"Lab bench","online":true})")
                           << "Lab bench — ready." << false;
    QTest::newRow("passcode") << QByteArray(R"({"type":"relay","status":true,"label":"Lab bench","online":true,
        "passcode_required":true})") << "Lab bench — ready." << true;
    QTest::newRow("offline") << QByteArray(R"({"type":"relay","status":true,"device_name":"bench-pc","online":false})")
                             << "bench-pc — the host is offline right now." << false;
    QTest::newRow("busy") << QByteArray(R"({"type":"relay","status":true,"label":"Lab","online":true,"busy":true})")
                          << "Lab — someone is already connected to that port." << false;
    QTest::newRow("too many") << QByteArray(R"({"type":"relay","status":false,"code":"too_many_attempts"})")
                              << "Too many tries. Wait a minute." << false;
    QTest::newRow("invalid") << QByteArray(R"({"type":"relay","status":false,"code":"invalid_code"})")
                             << "That code is not valid or has expired." << false;
}

void TestRelayTargets::dialogPeeksAtTheCode()
{
    QFETCH(QByteArray, reply);
    QFETCH(QString, shown);
    QFETCH(bool, passcodeBox);
    m_responder->set("GET /api/v3/relay/join/ABCDEFGHJKMN", reply);
    RelayTargetDialog dialog(m_network.get(), m_account.get(), {});
    dialog.show();
    auto *code = dialog.findChild<QLineEdit *>(QStringLiteral("inviteCodeEdit"));
    auto *timer = dialog.findChild<QTimer *>(QStringLiteral("peekTimer"));
    QVERIFY(timer && timer->isSingleShot());
    QCOMPARE(timer->interval(), RelayTargetDialog::kPeekDelayMs);
    QSignalSpy fired(timer, &QTimer::timeout);
    QTest::keyClicks(code, QStringLiteral("abcd-efgh-jkm"));
    QVERIFY(timer->isActive());
    QVERIFY(fired.wait(kWait));
    QVERIFY(m_responder->requests.isEmpty());  // not a whole code yet
    QCOMPARE(dialog.inviteStatus(), QString());

    m_responder->hold();
    QTest::keyClicks(code, QStringLiteral("n"));
    QVERIFY(timer->isActive());  // each keystroke starts the wait again
    QVERIFY(m_responder->requests.isEmpty());
    QVERIFY(fired.wait(kWait));
    QCOMPARE(dialog.inviteStatus(), QStringLiteral("Checking the code…"));
    QTRY_COMPARE_WITH_TIMEOUT(m_responder->requests.size(), 1, kWait);
    m_responder->release();
    QTRY_COMPARE_WITH_TIMEOUT(dialog.inviteStatus(), shown, kWait);
    QCOMPARE(m_responder->requests.size(), 1);
    QCOMPARE(dialog.findChild<QLineEdit *>(QStringLiteral("passcodeEdit"))->isVisible(), passcodeBox);
    QVERIFY(dialog.findChild<QDialogButtonBox *>()->button(QDialogButtonBox::Ok)->isEnabled());
    const RelayTargetDialog::Choice choice = dialog.choice();
    QVERIFY(choice.invite);
    QCOMPARE(choice.code, QStringLiteral("ABCDEFGHJKMN"));
}

QTEST_MAIN(TestRelayTargets)
#include "tst_relaytargets.moc"
