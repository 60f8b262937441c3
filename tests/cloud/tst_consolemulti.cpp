// Live Console across two instances of the real tessaline-cloud on one
// throwaway PostgreSQL cluster, each behind its own haproxy front: the
// program (CloudConsoleService with a pane on a pty pair) holds its socket
// through the first, the browser's watcher socket and REST calls go
// through the second.
#include "cloud/accountsession.h"
#include "cloud/cloudconsoleservice.h"
#include "cloud/consolesocket.h"
#include "cloud/networkservices.h"
#include "cloudservicerunner.h"
#include "support/haproxyfront.h"
#include "support/postgrescluster.h"
#include "support/ptypair.h"
#include "support/settingssandbox.h"
#include "terminal/portsession.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QSerialPort>
#include <QSettings>
#include <QTemporaryDir>
#include <QWebSocket>
#include <QtTest>

#include <unistd.h>

#include <optional>

namespace {

constexpr int kWait = 15000;

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

class ConsoleMultiTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void aBrowserOnAnotherInstanceSeesTheFarEndAndDrivesIt_data();
    void aBrowserOnAnotherInstanceSeesTheFarEndAndDrivesIt();

private:
    QJsonObject browserJson(const QByteArray &method, const QString &path, const QJsonObject &body = {});

    QTemporaryDir m_dir;
    PostgresCluster m_database;
    CloudServiceRunner m_holder;  // behind the program's front
    CloudServiceRunner m_other;   // behind the browser's front
    QProcess m_haproxy;
    int m_listeners[2] = {-1, -1};
    quint16 m_programFront = 0;
    quint16 m_browserFront = 0;
    std::unique_ptr<SettingsSandbox> m_sandbox;
    QNetworkAccessManager m_browser;
    QString m_browserToken;
    int m_accounts = 0;
};

void ConsoleMultiTest::initTestCase()
{
    m_sandbox = std::make_unique<SettingsSandbox>();
    QVERIFY2(m_database.start(), qPrintable(m_database.errorText()));
    const QStringList options{"--database", m_database.url(), "--trusted-proxy", "127.0.0.1"};
    QVERIFY(m_holder.start(options));
    QVERIFY(m_other.start(options));

    m_listeners[0] = inheritableListener(m_programFront);
    m_listeners[1] = inheritableListener(m_browserFront);
    QVERIFY(m_listeners[0] >= 0 && m_listeners[1] >= 0);
    QFile config(m_dir.filePath(QStringLiteral("haproxy.cfg")));
    QVERIFY(config.open(QIODevice::WriteOnly));
    config.write(QStringLiteral("global\n    maxconn 200\n"
                                "defaults\n    mode http\n    option forwardfor\n    timeout connect 5s\n"
                                "    timeout client 60s\n    timeout server 60s\n    timeout tunnel 1h\n"
                                "frontend program\n    bind fd@%1\n    default_backend holder\n"
                                "frontend browser\n    bind fd@%2\n    default_backend other\n"
                                "backend holder\n    server holder 127.0.0.1:%3\n"
                                "backend other\n    server other 127.0.0.1:%4\n")
                     .arg(m_listeners[0])
                     .arg(m_listeners[1])
                     .arg(m_holder.port())
                     .arg(m_other.port())
                     .toUtf8());
    config.close();
    m_haproxy.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    m_haproxy.start(QStringLiteral("haproxy"), {"-f", config.fileName(), "-db"});
    QVERIFY2(m_haproxy.waitForStarted(5000), "haproxy (package haproxy) is not installed");
    qputenv("TSL_HOST", QStringLiteral("http://127.0.0.1:%1").arg(m_programFront).toUtf8());
}

void ConsoleMultiTest::cleanupTestCase()
{
    m_haproxy.terminate();
    m_haproxy.waitForFinished(5000);
    for (int fd : m_listeners) {
        if (fd >= 0)
            ::close(fd);
    }
    m_holder.stop();
    m_other.stop();
    m_database.stop();
    qunsetenv("TSL_HOST");
}

QJsonObject ConsoleMultiTest::browserJson(const QByteArray &method, const QString &path, const QJsonObject &body)
{
    QNetworkRequest request(QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(m_browserFront).arg(path)));
    request.setRawHeader("Authorization", "Bearer " + m_browserToken.toUtf8());
    request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
    QNetworkReply *reply = method == "GET" ? m_browser.get(request)
                                           : m_browser.post(request, QJsonDocument(body).toJson(QJsonDocument::Compact));
    QTest::qWaitFor([reply] { return reply->isFinished(); }, kWait);
    const QJsonObject answer = QJsonDocument::fromJson(reply->readAll()).object();
    reply->deleteLater();
    return answer;
}

void ConsoleMultiTest::aBrowserOnAnotherInstanceSeesTheFarEndAndDrivesIt_data()
{
    QTest::addColumn<bool>("remoteSend");
    QTest::newRow("remote send on") << true;
    QTest::newRow("remote send off") << false;
}

void ConsoleMultiTest::aBrowserOnAnotherInstanceSeesTheFarEndAndDrivesIt()
{
    QFETCH(bool, remoteSend);
    m_sandbox->clear();
    QSettings().setValue(QStringLiteral("CloudConsoleAllowRemoteSend"), remoteSend);

    // The program's account, through the program's front.
    NetworkServices network;
    AccountSession account(&network);
    const QString email = QStringLiteral("multi%1@example.org").arg(++m_accounts);
    QSignalSpy replies(&network, &NetworkServices::accountResponse);
    network.requestRegistrationCode({}, email);
    QVERIFY(replies.wait(kWait));
    network.registerAccount({}, email, QStringLiteral("Ann"), QStringLiteral("correct horse"), m_holder.codeFor(email),
                            QString::number(AccountSession::deviceValue()), QStringLiteral("6.6.7"));
    QVERIFY(replies.wait(kWait));
    account.applyLogin(replies.last().at(0).toJsonObject());
    QVERIFY(account.isAccessTokenValid());
    // The browser signs in on its own, through its front.
    QNetworkRequest signIn(QUrl(QStringLiteral("http://127.0.0.1:%1/api/v3/account/login").arg(m_browserFront)));
    signIn.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
    QNetworkReply *login = m_browser.post(signIn, QJsonDocument(QJsonObject{{"email", email}, {"password", "correct horse"},
                                                                          {"device_name", "browser"}})
                                                      .toJson(QJsonDocument::Compact));
    QVERIFY(QTest::qWaitFor([login] { return login->isFinished(); }, kWait));
    m_browserToken = QJsonDocument::fromJson(login->readAll()).object().value("access_token").toString();
    login->deleteLater();
    QVERIFY(!m_browserToken.isEmpty());

    PtyPair pty;
    QVERIFY2(pty.start(), qPrintable(pty.errorText()));
    PortSession port(1);
    ConnectionConfig config;
    config.portName = pty.pathA();
    config.baudRate = 115200;
    port.applySettings(config, {}, {});
    QVERIFY(port.openConnection());
    QSerialPort far(pty.pathB());
    QVERIFY(far.open(QIODevice::ReadWrite));

    CloudConsoleService service(&network, &account, [&port] { return QList<PortSession *>{&port}; });
    CloudConsoleService::Timing timing;
    timing.uploadMs = 100;
    timing.snapshotSettleMs = 10;
    service.setTiming(timing);
    service.setEnabled(true);
    QVERIFY(QTest::qWaitFor([&service] { return service.socket()->isReady(); }, kWait));

    // Listed online by the other instance.
    const QJsonArray computers = browserJson("GET", QStringLiteral("/api/v3/console/computers")).value("computers").toArray();
    QCOMPARE(computers.size(), 1);
    QCOMPARE(computers.at(0).toObject().value("cid").toString(), service.cid());
    QCOMPARE(computers.at(0).toObject().value("online").toBool(), true);

    Watcher watcher;
    QVERIFY(watcher.watch(m_browserFront, m_browserToken, service.cid()));
    QCOMPARE(watcher.ofType("watch").first().value("online").toBool(), true);
    QTRY_VERIFY_WITH_TIMEOUT(service.isWatching(), kWait);
    QTRY_VERIFY_WITH_TIMEOUT(!watcher.ofType("snapshot").isEmpty()
                                 && !watcher.ofType("snapshot").last().value("ports").toArray().isEmpty(),
                             kWait);
    const QString portKey = watcher.ofType("snapshot").last().value("ports").toArray()[0].toObject()
                                .value("port_key").toString();
    QCOMPARE(portKey, port.portKey());

    QVERIFY(far.write("boot ok\r\n") == 9 && far.waitForBytesWritten(kWait));
    QTRY_COMPARE_WITH_TIMEOUT(watcher.received(), QStringLiteral("boot ok\r\n"), kWait);

    const QString id = browserJson("POST", QStringLiteral("/api/v3/console/computers/%1/commands").arg(service.cid()),
                                   {{"command", "send_text"},
                                    {"payload", QJsonObject{{"port_key", portKey}, {"text", "hello"}, {"line_ending", "crlf"}}}})
                           .value("command_id").toString();
    QVERIFY(!id.isEmpty());
    QTRY_VERIFY_WITH_TIMEOUT(watcher.resultOf(id).has_value(), kWait);
    const QJsonObject result = *watcher.resultOf(id);
    QByteArray arrived;
    if (remoteSend) {
        QCOMPARE(result.value("status").toString(), QStringLiteral("succeeded"));
        QTRY_VERIFY_WITH_TIMEOUT((arrived += far.readAll()).size() >= 7, kWait);
        QCOMPARE(arrived, QByteArray("hello\r\n"));
    } else {
        QCOMPARE(result.value("error_code").toString(), QStringLiteral("permission_denied"));
        QCOMPARE(result.value("message").toString(), QStringLiteral("remote send is disabled on the device"));
    }
    QCOMPARE(browserJson("GET", QStringLiteral("/api/v3/console/commands/%1").arg(id))
                 .value("command").toObject().value("state").toString(),
             QStringLiteral("done"));
    QTest::qWait(100);
    QCOMPARE(arrived + far.readAll(), remoteSend ? QByteArray("hello\r\n") : QByteArray());

    // The watcher gone on its instance, the program stops streaming.
    watcher.socket.close();
    QTRY_VERIFY_WITH_TIMEOUT(!service.isWatching(), kWait);
}

QTEST_GUILESS_MAIN(ConsoleMultiTest)
#include "tst_consolemulti.moc"
