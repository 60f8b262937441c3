// Live Console end to end: the real tessaline-cloud on a loopback port,
// the program's CloudConsoleService with a pane on a pty pair, and a small
// watcher standing in for the browser (its socket and the REST calls the
// page makes).
#include "cloud/accountsession.h"
#include "cloud/cloudconsoleservice.h"
#include "cloud/consolesocket.h"
#include "cloud/guestsharekeeper.h"
#include "cloud/networkservices.h"
#include "cloudservicerunner.h"
#include "support/ptypair.h"
#include "support/settingssandbox.h"
#include "terminal/portsession.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QSerialPort>
#include <QSettings>
#include <QSysInfo>
#include <QTcpSocket>
#include <QWebSocket>
#include <QtTest>

#include <optional>

namespace {

constexpr int kWait = 10000;

// One HTTP exchange that blocks without running the event loop, so the
// program under test reads nothing meanwhile.
QJsonObject blockingJson(quint16 port, const QByteArray &method, const QByteArray &path, const QString &token,
                         const QJsonObject &body = {})
{
    QTcpSocket socket;
    socket.connectToHost(QHostAddress::LocalHost, port);
    if (!socket.waitForConnected(kWait))
        return {};
    const QByteArray content = method == "GET" ? QByteArray() : QJsonDocument(body).toJson(QJsonDocument::Compact);
    socket.write(method + ' ' + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\nAuthorization: Bearer "
                 + token.toUtf8() + "\r\nContent-Type: application/json\r\nContent-Length: "
                 + QByteArray::number(content.size()) + "\r\n\r\n" + content);
    QByteArray reply;
    QDeadlineTimer deadline(kWait);
    while (!deadline.hasExpired() && socket.state() == QAbstractSocket::ConnectedState) {
        if (socket.waitForReadyRead(int(qMax<qint64>(1, deadline.remainingTime()))))
            reply += socket.readAll();
    }
    reply += socket.readAll();
    return QJsonDocument::fromJson(reply.mid(reply.indexOf("\r\n\r\n") + 4)).object();
}

// The browser's side: its watcher socket and what it heard.
class Watcher : public QObject
{
public:
    QWebSocket socket;
    QList<QJsonObject> heard;

    Watcher()
    {
        connect(&socket, &QWebSocket::textMessageReceived, this,
                [this](const QString &text) { heard.append(QJsonDocument::fromJson(text.toUtf8()).object()); });
    }
    bool watch(quint16 port, const QString &token, const QString &cid)
    {
        connect(&socket, &QWebSocket::connected, this, [this, token, cid] {
            socket.sendTextMessage(QString::fromUtf8(
                QJsonDocument(QJsonObject{{"type", "watch"}, {"access_token", token}, {"cid", cid}})
                    .toJson(QJsonDocument::Compact)));
        });
        socket.open(QUrl(QStringLiteral("ws://127.0.0.1:%1/ws/console/watch/v1").arg(port)));
        return QTest::qWaitFor([this] { return !ofType("watch").isEmpty(); }, kWait)
               && ofType("watch").first().value("status").toBool();
    }
    // A share's browser guest, admitted by its credential.
    bool watchAsGuest(quint16 port, const QString &guestToken)
    {
        connect(&socket, &QWebSocket::connected, this, [this, guestToken] {
            send({{"type", "guest_watch"}, {"guest_token", guestToken}});
        });
        socket.open(QUrl(QStringLiteral("ws://127.0.0.1:%1/ws/console/watch/v1").arg(port)));
        return QTest::qWaitFor([this] { return !ofType("watch").isEmpty(); }, kWait)
               && ofType("watch").first().value("status").toBool();
    }
    void send(const QJsonObject &message)
    {
        socket.sendTextMessage(QString::fromUtf8(QJsonDocument(message).toJson(QJsonDocument::Compact)));
    }
    QList<QJsonObject> ofType(const QString &type) const
    {
        QList<QJsonObject> out;
        for (const QJsonObject &message : heard) {
            if (message.value("type").toString() == type)
                out.append(message);
        }
        return out;
    }
    QString received() const
    {
        QString text;
        for (const QJsonObject &message : ofType("events")) {
            for (const QJsonValue &event : message.value("events").toArray()) {
                if (event["event_type"].toString() == QLatin1String("rx"))
                    text += event["payload_text"].toString();
            }
        }
        return text;
    }
    std::optional<QJsonObject> resultOf(const QString &commandId) const
    {
        for (const QJsonObject &message : ofType("result")) {
            if (message.value("command_id").toString() == commandId)
                return message.value("result").toObject();
        }
        return std::nullopt;
    }
};

} // namespace

class ConsoleLiveTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase();
    void aWatcherSeesTheFarEndAndDrivesIt_data();
    void aWatcherSeesTheFarEndAndDrivesIt();
    void aCommandDeliveredByPollAndSocketRunsOnce();
    void aShareGuestInABrowserReachesThePortWithinItsLevel();

private:
    QString signUp(const QString &email);
    QString issue(const QString &command, const QJsonObject &payload);
    QByteArray readFar(qsizetype expected);

    CloudServiceRunner m_cloud;
    std::unique_ptr<SettingsSandbox> m_sandbox;
    std::unique_ptr<NetworkServices> m_network;
    std::unique_ptr<AccountSession> m_account;
    std::unique_ptr<PtyPair> m_pty;
    std::unique_ptr<PortSession> m_port;
    std::unique_ptr<QSerialPort> m_far;
    std::unique_ptr<CloudConsoleService> m_service;
    QByteArray m_farBytes;
    QString m_browserToken;
    int m_accounts = 0;
};

void ConsoleLiveTest::initTestCase()
{
    m_sandbox = std::make_unique<SettingsSandbox>();
    QVERIFY(m_cloud.start());
    qputenv("TSL_HOST", m_cloud.baseUrl().toUtf8());
}

void ConsoleLiveTest::cleanupTestCase()
{
    m_cloud.stop();
    qunsetenv("TSL_HOST");
}

QString ConsoleLiveTest::signUp(const QString &email)
{
    QSignalSpy replies(m_network.get(), &NetworkServices::accountResponse);
    m_network->requestRegistrationCode({}, email);
    if (!replies.wait(kWait))
        return {};
    m_network->registerAccount({}, email, QStringLiteral("Ann"), QStringLiteral("correct horse"), m_cloud.codeFor(email),
                               QString::number(AccountSession::deviceValue()), QStringLiteral("6.6.7"));
    if (!replies.wait(kWait))
        return {};
    m_account->applyLogin(replies.last().at(0).toJsonObject());
    // The browser signs in on its own.
    m_network->signIn({}, email, QStringLiteral("correct horse"), QStringLiteral("browser"), QStringLiteral("web"));
    if (!replies.wait(kWait))
        return {};
    return replies.last().at(0).toJsonObject().value("access_token").toString();
}

void ConsoleLiveTest::init()
{
    m_sandbox->clear();
    m_network = std::make_unique<NetworkServices>();
    m_account = std::make_unique<AccountSession>(m_network.get());
    m_browserToken = signUp(QStringLiteral("live%1@example.org").arg(++m_accounts));
    QVERIFY(m_account->isAccessTokenValid());
    QVERIFY(!m_browserToken.isEmpty());

    m_pty = std::make_unique<PtyPair>();
    QVERIFY2(m_pty->start(), qPrintable(m_pty->errorText()));
    m_port = std::make_unique<PortSession>(1);
    ConnectionConfig config;
    config.portName = m_pty->pathA();
    config.baudRate = 115200;
    m_port->applySettings(config, {}, {});
    QVERIFY(m_port->openConnection());
    m_far = std::make_unique<QSerialPort>(m_pty->pathB());
    QVERIFY(m_far->open(QIODevice::ReadWrite));
    m_farBytes.clear();

    m_service = std::make_unique<CloudConsoleService>(m_network.get(), m_account.get(),
                                                      [this] { return QList<PortSession *>{m_port.get()}; });
    CloudConsoleService::Timing timing;
    timing.uploadMs = 100;
    timing.snapshotSettleMs = 10;
    timing.shareCreateMs = 20;
    m_service->setTiming(timing);
    m_service->setEnabled(true);
    QVERIFY(QTest::qWaitFor([this] { return m_service->socket()->isReady(); }, kWait));
}

void ConsoleLiveTest::cleanup()
{
    m_service.reset();
    m_far.reset();
    m_port.reset();
    m_pty.reset();
    m_account.reset();
    m_network.reset();
}

QString ConsoleLiveTest::issue(const QString &command, const QJsonObject &payload)
{
    return blockingJson(m_cloud.port(), "POST", "/api/v3/console/computers/" + m_service->cid().toUtf8() + "/commands",
                        m_browserToken, {{"command", command}, {"payload", payload}})
        .value("command_id")
        .toString();
}

QByteArray ConsoleLiveTest::readFar(qsizetype expected)
{
    const bool enough = QTest::qWaitFor([&] {
        m_farBytes += m_far->readAll();
        return m_farBytes.size() >= expected;
    }, kWait);
    Q_UNUSED(enough);  // the caller compares what came
    return m_farBytes;
}

void ConsoleLiveTest::aWatcherSeesTheFarEndAndDrivesIt_data()
{
    QTest::addColumn<bool>("remoteSend");
    QTest::newRow("remote send on") << true;
    QTest::newRow("remote send off") << false;
}

void ConsoleLiveTest::aWatcherSeesTheFarEndAndDrivesIt()
{
    QFETCH(bool, remoteSend);
    QSettings().setValue(QStringLiteral("CloudConsoleAllowRemoteSend"), remoteSend);

    // The browser lists the computer, online, with its name and version.
    const QJsonArray computers = blockingJson(m_cloud.port(), "GET", "/api/v3/console/computers", m_browserToken)
                                     .value("computers").toArray();
    QCOMPARE(computers.size(), 1);
    QCOMPARE(computers.at(0).toObject().value("cid").toString(), m_service->cid());
    QCOMPARE(computers.at(0).toObject().value("online").toBool(), true);
    QCOMPARE(computers.at(0).toObject().value("hostname").toString(), QSysInfo::machineHostName());

    Watcher watcher;
    QVERIFY(watcher.watch(m_cloud.port(), m_browserToken, m_service->cid()));
    QTRY_VERIFY_WITH_TIMEOUT(m_service->isWatching(), kWait);
    // Its port, from the snapshot the computer sent when watching began.
    QTRY_VERIFY_WITH_TIMEOUT(!watcher.ofType("snapshot").isEmpty()
                                 && !watcher.ofType("snapshot").last().value("ports").toArray().isEmpty(),
                             kWait);
    const QJsonObject port = watcher.ofType("snapshot").last().value("ports").toArray()[0].toObject();
    const QString portKey = port.value("port_key").toString();
    QVERIFY(!portKey.isEmpty());
    QCOMPARE(port.value("open").toBool(), true);

    // Bytes written at the far end reach the watcher.
    QVERIFY(m_far->write("boot ok\r\n") == 9 && m_far->waitForBytesWritten(kWait));
    QTRY_COMPARE_WITH_TIMEOUT(watcher.received(), QStringLiteral("boot ok\r\n"), kWait);

    // What the watcher sends arrives exactly, or is refused with the device's words.
    const QString id = issue("send_text", {{"port_key", portKey}, {"text", "hello"}, {"line_ending", "crlf"}});
    QVERIFY(!id.isEmpty());
    QTRY_VERIFY_WITH_TIMEOUT(watcher.resultOf(id).has_value(), kWait);
    const QJsonObject result = *watcher.resultOf(id);
    if (remoteSend) {
        QCOMPARE(result.value("status").toString(), QStringLiteral("succeeded"));
        QCOMPARE(readFar(7), QByteArray("hello\r\n"));
    } else {
        QCOMPARE(result.value("status").toString(), QStringLiteral("failed"));
        QCOMPARE(result.value("error_code").toString(), QStringLiteral("permission_denied"));
        QCOMPARE(result.value("message").toString(), QStringLiteral("remote send is disabled on the device"));
        QCOMPARE(m_far->readAll(), QByteArray());
    }
    // The browser reads the same result back from the service.
    const QJsonObject stored = blockingJson(m_cloud.port(), "GET", "/api/v3/console/commands/" + id.toUtf8(),
                                            m_browserToken)
                                   .value("command").toObject();
    QCOMPARE(stored.value("state").toString(), QStringLiteral("done"));
    QCOMPARE(stored.value("result").toObject().value("status"), result.value("status"));
    QTRY_VERIFY_WITH_TIMEOUT(m_service->ledger().pending().empty(), kWait);

    // The watcher gone, the computer stops streaming at once.
    watcher.socket.close();
    QTRY_VERIFY_WITH_TIMEOUT(!m_service->isWatching(), kWait);
}

void ConsoleLiveTest::aCommandDeliveredByPollAndSocketRunsOnce()
{
    QSettings().setValue(QStringLiteral("CloudConsoleAllowRemoteSend"), true);
    QSignalSpy ran(m_service.get(), &CloudConsoleService::commandRun);
    // While the program reads nothing, the command is pushed on its socket
    // and also handed out by a poll with its own credentials, as after a
    // lost socket.
    const QString id = issue("send_text", {{"port_key", m_port->portKey()}, {"text", "once"}, {"line_ending", "lf"}});
    QVERIFY(!id.isEmpty());
    const QJsonObject polled = blockingJson(m_cloud.port(), "GET",
                                            "/api/v3/console/commands/poll?limit=16&cid=" + m_service->cid().toUtf8(),
                                            m_account->accessToken());
    QCOMPARE(polled.value("commands").toArray().size(), 1);
    QCOMPARE(polled.value("commands").toArray().at(0).toObject().value("command_id").toString(), id);
    m_service->onConsoleResponse(polled);  // the poll's answer, as NetworkServices hands it over

    QTRY_VERIFY_WITH_TIMEOUT(m_service->ledger().pending().empty() && ran.size() == 1, kWait);
    QCOMPARE(readFar(5), QByteArray("once\n"));
    // The socket's copy has been read by now; nothing more reached the port.
    const QJsonObject stored = blockingJson(m_cloud.port(), "GET", "/api/v3/console/commands/" + id.toUtf8(),
                                            m_browserToken)
                                   .value("command").toObject();
    QCOMPARE(stored.value("state").toString(), QStringLiteral("done"));
    QCOMPARE(stored.value("result").toObject().value("bytes").toInt(), 5);
    const QString marker = issue("request_snapshot", {});
    QTRY_COMPARE_WITH_TIMEOUT(ran.size(), 2, kWait);  // a later command passes the first's second copy
    QCOMPARE(ran.at(1).at(0).toString(), marker);
    QCOMPARE(m_far->readAll(), QByteArray());
}

void ConsoleLiveTest::aShareGuestInABrowserReachesThePortWithinItsLevel()
{
    // The owner's program shares its pane with level "send" and a passcode.
    GuestShareKeeper *keeper = m_service->shares();
    QSignalSpy created(keeper, &GuestShareKeeper::shareCreated);
    QSignalSpy ended(keeper, &GuestShareKeeper::shareEnded);
    QVERIFY(keeper->requestShare({m_port->portKey(), 86400, QStringLiteral("bench board"), QStringLiteral("4711"),
                                  QStringLiteral("send"), false}));
    QVERIFY(created.wait(kWait));
    const GuestShare share = created.first().first().value<GuestShare>();
    QCOMPARE(share.expiresAt - share.createdAt, 86400LL * 1000);
    QVERIFY(share.link.endsWith("/join/" + share.code));

    // The guest joins by the link's code: a wrong passcode first.
    const QByteArray join = "/api/v3/relay/join/" + share.code.toUtf8() + "/web";
    QCOMPARE(blockingJson(m_cloud.port(), "POST", join, {}, {{"passcode", "1234"}, {"guest_name", "Grace"}})
                 .value("code").toString(),
             QStringLiteral("wrong_passcode"));
    const QString guestToken = blockingJson(m_cloud.port(), "POST", join, {}, {{"passcode", "4711"}, {"guest_name", "Grace"}})
                                   .value("guest_token").toString();
    QVERIFY(!guestToken.isEmpty());
    Watcher guest;
    QVERIFY(guest.watchAsGuest(m_cloud.port(), guestToken));
    QTRY_VERIFY_WITH_TIMEOUT(m_service->isWatching(), kWait);

    QVERIFY(m_far->write("boot ok\r\n") == 9 && m_far->waitForBytesWritten(kWait));
    QTRY_COMPARE_WITH_TIMEOUT(guest.received(), QStringLiteral("boot ok\r\n"), kWait);

    guest.send({{"type", "command"}, {"ref", "send"}, {"command", "send_text"},
                {"payload", QJsonObject{{"text", "hi"}, {"line_ending", "crlf"}}}});
    QCOMPARE(readFar(4), QByteArray("hi\r\n"));
    guest.send({{"type", "command"}, {"ref", "open"}, {"command", "close_port"}, {"payload", QJsonObject{}}});
    QTRY_COMPARE_WITH_TIMEOUT(guest.ofType("command").size(), 2, kWait);
    const QJsonObject refused = guest.ofType("command").last();
    QCOMPARE(refused.value("ref").toString(), QStringLiteral("open"));
    QCOMPARE(refused.value("description").toString(), QStringLiteral("the share does not allow port control from a browser"));
    QVERIFY(m_port->isConnectionOpen());
    const QString sent = guest.ofType("command").first().value("command_id").toString();
    QTRY_VERIFY_WITH_TIMEOUT(guest.resultOf(sent).has_value(), kWait);
    QCOMPARE(guest.resultOf(sent)->value("bytes").toInt(), 4);

    // The owner stops sharing: the guest's page hears why and is let go.
    keeper->stopShare(share.shareId);
    QTRY_VERIFY_WITH_TIMEOUT(!guest.ofType("share_ended").isEmpty(), kWait);
    QCOMPARE(guest.ofType("share_ended").first().value("reason").toString(), QStringLiteral("revoked"));
    QTRY_COMPARE_WITH_TIMEOUT(guest.socket.state(), QAbstractSocket::UnconnectedState, kWait);
    QTRY_VERIFY_WITH_TIMEOUT(!m_service->isWatching(), kWait);
    QCOMPARE(ended.size(), 1);
}

QTEST_GUILESS_MAIN(ConsoleLiveTest)
#include "tst_consolelive.moc"
