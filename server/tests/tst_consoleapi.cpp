// Live Console on the service: a computer's HTTP and socket side, the
// browser's API and its watcher socket, against the real service in this
// process on a loopback port.
#include "codemailer.h"
#include "cloudservice.h"
#include "consolehub.h"
#include "consolesocketclient.h"
#include "noticeframes.h"
#include "rawhttp.h"
#include "watcherqueue.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QNetworkRequest>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QWebSocket>
#include <QtTest>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

struct KeptCodes : CodeMailer
{
    QHash<QString, QString> codes;
    void sendCode(const QString &email, const QString &code, int) override { codes.insert(email, code); }
};

constexpr qint64 kStart = 1'790'000'000'000;
const QString kCid = QStringLiteral("3f0c2b1e-8a7d-4c55-9e21-0d6b5a4f7c10");

QJsonObject objectOf(const QString &text)
{
    return QJsonDocument::fromJson(text.toUtf8()).object();
}

// A watcher that reads only when told to: a plain non-blocking socket with a
// small receive buffer, so what the service sends piles up on the service's
// side while it is not read (a Qt socket would keep draining the kernel into
// its own buffer while the event loop runs).
class StalledWatcher
{
public:
    ~StalledWatcher()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    bool open(quint16 port, const QString &token, const QString &cid)
    {
        m_fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
        const int small = 4096;
        ::setsockopt(m_fd, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (::connect(m_fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 && errno != EINPROGRESS)
            return false;
        if (!writeAll("GET " + QByteArray(ConsoleHub::kWatchPath) + " HTTP/1.1\r\nHost: 127.0.0.1\r\n"
                      "Upgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Version: 13\r\n"
                      "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n"))
            return false;
        if (!QTest::qWaitFor([this] { return readSome() && m_raw.contains("\r\n\r\n"); }, 5000)
            || !m_raw.startsWith("HTTP/1.1 101"))
            return false;
        m_raw.remove(0, m_raw.indexOf("\r\n\r\n") + 4);
        // A client's frame is masked; the mask is arbitrary. Its length
        // takes the shortest form, as a peer must.
        const QByteArray text = QJsonDocument(QJsonObject{{"type", "watch"}, {"access_token", token}, {"cid", cid}})
                                    .toJson(QJsonDocument::Compact);
        QByteArray frame("\x81");
        if (text.size() < 126) {
            frame += char(0x80 | text.size());
        } else {
            frame += char(0x80 | 126);
            frame += char(text.size() >> 8);
            frame += char(text.size() & 0xff);
        }
        const char mask[4] = {0x12, 0x34, 0x56, 0x78};
        frame.append(mask, 4);
        for (qsizetype i = 0; i < text.size(); ++i)
            frame += char(text[i] ^ mask[i % 4]);
        return writeAll(frame);
    }
    // Reads what the kernel holds now; false when the service closed.
    bool readSome()
    {
        char chunk[65536];
        for (;;) {
            const ssize_t got = ::recv(m_fd, chunk, sizeof chunk, 0);
            if (got > 0) {
                m_raw.append(chunk, got);
                continue;
            }
            if (got == 0)
                return false;
            return errno == EAGAIN || errno == EWOULDBLOCK;
        }
    }
    // Whole messages out of what was read (the service's frames are not masked).
    QList<QJsonObject> messages()
    {
        for (;;) {
            if (m_raw.size() < 2)
                break;
            const int opcode = quint8(m_raw[0]) & 0x0f;
            const bool final = quint8(m_raw[0]) & 0x80;
            qint64 length = quint8(m_raw[1]) & 0x7f;
            qsizetype head = 2;
            if (length == 126) {
                if (m_raw.size() < 4)
                    break;
                length = (quint8(m_raw[2]) << 8) | quint8(m_raw[3]);
                head = 4;
            } else if (length == 127) {
                if (m_raw.size() < 10)
                    break;
                length = 0;
                for (int i = 2; i < 10; ++i)
                    length = (length << 8) | quint8(m_raw[i]);
                head = 10;
            }
            if (m_raw.size() < head + length)
                break;
            if (opcode == 0x1 || opcode == 0x0)
                m_message += m_raw.mid(head, length);
            m_raw.remove(0, head + length);
            if (final && (opcode == 0x1 || opcode == 0x0)) {
                m_messages.append(QJsonDocument::fromJson(m_message).object());
                m_message.clear();
            }
        }
        return m_messages;
    }

private:
    bool writeAll(const QByteArray &bytes)
    {
        qsizetype done = 0;
        return QTest::qWaitFor([&] {
            const ssize_t wrote = ::send(m_fd, bytes.constData() + done, size_t(bytes.size() - done), MSG_NOSIGNAL);
            if (wrote > 0)
                done += wrote;
            return done == bytes.size();
        }, 5000);
    }

    int m_fd = -1;
    QByteArray m_raw;
    QByteArray m_message;
    QList<QJsonObject> m_messages;
};

QJsonObject trafficEvent(const QString &text, int seq)
{
    return {{"port_key", "p1"}, {"event_type", "rx"}, {"payload_text", text}, {"seq", seq}, {"client_time", kStart}};
}

} // namespace

class TestConsoleApi : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void watcherQueueDropsOldestTrafficAndSaysHowMuch_data();
    void watcherQueueDropsOldestTrafficAndSaysHowMuch();
    void commandsLiveInTheDatabaseFromIssueToResult();
    void commandsWaitForTheSocketAndSurviveARestart();
    void aCidBelongsToTheAccountThatFirstUsedIt();
    void watchersAreToldToTheComputerAndSeeItsTraffic();
    void watchersAreRefusedWithAReason_data();
    void watchersAreRefusedWithAReason();
    void aWatcherThatStopsReadingLosesItsOldestTraffic();
    void aWatcherIsToldAndClosedWhenItsTokenExpires();
    void trafficCountsAgainstTheQuota();
    void noticesBetweenInstancesArriveWholeInPieces_data();
    void noticesBetweenInstancesArriveWholeInPieces();
    void brokenNoticePiecesAreCountedAndBounded();
    void badConsoleInputGetsAnEnvelope_data();
    void badConsoleInputGetsAnEnvelope();
    void thePageIsServedWithAStrictPolicy_data();
    void thePageIsServedWithAStrictPolicy();

private:
    bool startService(qint64 quota = 0);
    QString signUp(const QString &email);
    QJsonObject heartbeat(const QString &token, const QString &cid = kCid);
    QString issue(const QString &token, const QJsonObject &command);

    std::unique_ptr<QTemporaryDir> m_dir;
    std::atomic<qint64> m_now = kStart;
    KeptCodes m_mailer;
    std::unique_ptr<CloudService> m_service;
    quint16 m_port = 0;
};

bool TestConsoleApi::startService(qint64 quota)
{
    m_service.reset();
    ServiceConfig config;
    config.listenAddress = QHostAddress(QHostAddress::LocalHost);
    config.port = 0;
    config.database = m_dir->filePath(QStringLiteral("cloud.sqlite"));
    config.argon2 = {256, 1, 1};
    config.monthlyQuotaBytes = quota;
    m_service = std::make_unique<CloudService>();
    QString error;
    const bool ok = m_service->start(config, &error, [this] { return m_now.load(); }, &m_mailer);
    if (!ok)
        qWarning() << error;
    m_port = m_service->port();
    return ok;
}

void TestConsoleApi::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    m_now = kStart;
    QVERIFY(startService());
}

void TestConsoleApi::cleanup()
{
    m_service.reset();
    m_dir.reset();
}

QString TestConsoleApi::signUp(const QString &email)
{
    httpJson(m_port, "POST", "/api/v3/account/register/code", {{"email", email}});
    return httpJson(m_port, "POST", "/api/v3/account/register",
                    {{"email", email}, {"username", "Ada"}, {"password", "correct horse"},
                     {"code", m_mailer.codes.value(email)}, {"device_name", "bench"}, {"client_version", "6.6.7"}})
        .json.value("access_token")
        .toString();
}

QJsonObject TestConsoleApi::heartbeat(const QString &token, const QString &cid)
{
    return httpJson(m_port, "POST", "/api/v3/console/heartbeat",
                    {{"cid", cid}, {"session_id", "s1"}, {"version", "6.6.7"}, {"hostname", "bench-pc"}, {"poll", true}},
                    token)
        .json;
}

QString TestConsoleApi::issue(const QString &token, const QJsonObject &command)
{
    const RawResponse reply = httpJson(m_port, "POST", "/api/v3/console/computers/" + kCid.toUtf8() + "/commands",
                                       command, token);
    return reply.json.value("command_id").toString();
}

void TestConsoleApi::watcherQueueDropsOldestTrafficAndSaysHowMuch_data()
{
    QTest::addColumn<int>("maxMessages");
    QTest::addColumn<QList<int>>("pushed");  // events per message, 0: a control message
    QTest::addColumn<QList<QByteArray>>("taken");

    QTest::newRow("fits") << 4 << QList<int>{1, 0, 2} << QList<QByteArray>{"m0", "m1", "m2"};
    QTest::newRow("oldest traffic goes first") << 3 << QList<int>{0, 2, 3, 1, 4}
                                               << QList<QByteArray>{"{\"type\":\"lost\",\"events\":5,\"messages\":0}",
                                                                    "m0", "m3", "m4"};
    QTest::newRow("only control messages") << 2 << QList<int>{0, 0, 0}
                                           << QList<QByteArray>{"{\"type\":\"lost\",\"events\":0,\"messages\":1}",
                                                                "m1", "m2"};
}

void TestConsoleApi::watcherQueueDropsOldestTrafficAndSaysHowMuch()
{
    QFETCH(int, maxMessages);
    QFETCH(QList<int>, pushed);
    QFETCH(QList<QByteArray>, taken);
    WatcherQueue queue({maxMessages, 1 << 20});
    for (int i = 0; i < pushed.size(); ++i)
        queue.push("m" + QByteArray::number(i), pushed[i]);
    QVERIFY(queue.size() <= maxMessages);
    QList<QByteArray> out;
    while (!queue.isEmpty())
        out.append(queue.take());
    QCOMPARE(out, taken);
    QCOMPARE(queue.bytes(), 0);

    // The byte bound holds as well, a lone large message aside.
    WatcherQueue bytes({100, 10});
    bytes.push("12345678", 1);
    bytes.push("12345678", 1);
    QCOMPARE(bytes.size(), 1);
    QCOMPARE(bytes.lostEvents(), 1);
    bytes.push(QByteArray(64, 'x'), 1);
    QCOMPARE(bytes.size(), 1);
}

void TestConsoleApi::commandsLiveInTheDatabaseFromIssueToResult()
{
    const QString token = signUp(QStringLiteral("ada@example.org"));
    const QJsonObject beat = heartbeat(token);
    QVERIFY2(beat.value("status").toBool(), qPrintable(beat.value("description").toString()));
    QCOMPARE(beat.value("ws"), QJsonValue(true));
    QCOMPARE(beat.value("watching"), QJsonValue(false));
    QCOMPARE(beat.value("authoritative"), QJsonValue(true));

    const QString id = issue(token, {{"command", "send_text"},
                                     {"payload", QJsonObject{{"port_key", "p1"}, {"text", "hello"}, {"line_ending", "crlf"}}}});
    QVERIFY(!id.isEmpty());
    const QByteArray poll = "/api/v3/console/commands/poll?cid=" + kCid.toUtf8() + "&limit=16";
    // Polled but not acknowledged: offered again.
    for (int round = 0; round < 2; ++round) {
        const QJsonArray commands = httpRequest(m_port, "GET", poll, {}, token).json.value("commands").toArray();
        QCOMPARE(commands.size(), 1);
        QCOMPARE(commands[0].toObject().value("command_id").toString(), id);
        QCOMPARE(commands[0].toObject().value("command").toString(), QStringLiteral("send_text"));
        QCOMPARE(commands[0].toObject().value("payload").toObject().value("line_ending").toString(), QStringLiteral("crlf"));
    }
    const QJsonObject identity{{"cid", kCid}, {"session_id", "s1"}};
    QVERIFY(httpJson(m_port, "POST", "/api/v3/console/commands/" + id.toUtf8() + "/ack", identity, token).ok());
    QVERIFY(httpRequest(m_port, "GET", poll, {}, token).json.value("commands").toArray().isEmpty());
    QCOMPARE(httpRequest(m_port, "GET", "/api/v3/console/commands/" + id.toUtf8(), {}, token)
                 .json.value("command").toObject().value("state").toString(),
             QStringLiteral("acknowledged"));

    QJsonObject result = identity;
    result.insert("status", "failed");
    result.insert("error_code", "permission_denied");
    result.insert("message", "remote send is disabled on the device");
    // A result delivered twice is confirmed twice; the first one stands.
    for (int round = 0; round < 2; ++round) {
        const RawResponse confirmed = httpJson(m_port, "POST", "/api/v3/console/commands/" + id.toUtf8() + "/result",
                                               result, token);
        QVERIFY(confirmed.ok());
        QCOMPARE(confirmed.json.value("command_id").toString(), id);
        result.insert("message", "changed");
    }
    const QJsonObject stored = httpRequest(m_port, "GET", "/api/v3/console/commands/" + id.toUtf8(), {}, token)
                                   .json.value("command").toObject();
    QCOMPARE(stored.value("state").toString(), QStringLiteral("done"));
    QCOMPARE(stored.value("result").toObject().value("message").toString(),
             QStringLiteral("remote send is disabled on the device"));
    QVERIFY(!stored.value("result").toObject().contains("session_id"));

    // A result nobody asked for is refused with its id, so the computer lets it go.
    const RawResponse unknown = httpJson(m_port, "POST", "/api/v3/console/commands/999/result", result, token);
    QCOMPARE(unknown.status, 404);
    QCOMPARE(unknown.json.value("command_id").toString(), QStringLiteral("999"));

    const QJsonArray computers = httpRequest(m_port, "GET", "/api/v3/console/computers", {}, token)
                                     .json.value("computers").toArray();
    QCOMPARE(computers.size(), 1);
    const QJsonObject computer = computers[0].toObject();
    QCOMPARE(computer.value("cid").toString(), kCid);
    QCOMPARE(computer.value("hostname").toString(), QStringLiteral("bench-pc"));
    QCOMPARE(computer.value("version").toString(), QStringLiteral("6.6.7"));
    QCOMPARE(computer.value("online"), QJsonValue(true));
    m_now += 120'000;  // no heartbeat for two minutes
    QCOMPARE(httpRequest(m_port, "GET", "/api/v3/console/computers", {}, token)
                 .json.value("computers").toArray()[0].toObject().value("online"),
             QJsonValue(false));
}

void TestConsoleApi::commandsWaitForTheSocketAndSurviveARestart()
{
    const QString token = signUp(QStringLiteral("ada@example.org"));
    QVERIFY(heartbeat(token).value("status").toBool());
    const QString first = issue(token, {{"command", "request_snapshot"}});
    QVERIFY(!first.isEmpty());
    QVERIFY(startService());  // nothing of the command lived in memory only

    SocketClient computer;
    QVERIFY(computer.open(m_port, ConsoleHub::kComputerPath, token));
    computer.send({{"type", "hello"}, {"cid", kCid}, {"session_id", "s2"}, {"version", "6.6.7"}, {"hostname", "bench-pc"}});
    QTRY_VERIFY_WITH_TIMEOUT(!computer.received.isEmpty(), 5000);
    QCOMPARE(computer.received[0].value("type").toString(), QStringLiteral("hello"));
    QCOMPARE(computer.received[0].value("status"), QJsonValue(true));
    QCOMPARE(computer.received[0].value("watching"), QJsonValue(false));
    QCOMPARE(computer.received[0].value("authoritative"), QJsonValue(true));
    QTRY_VERIFY_WITH_TIMEOUT(!computer.ofType("console").isEmpty(), 5000);
    const QJsonArray waiting = computer.ofType("console").first().value("commands").toArray();
    QCOMPARE(waiting.size(), 1);
    QCOMPARE(waiting[0].toObject().value("command_id").toString(), first);

    // Issued while the socket is up: pushed at once.
    const QString second = issue(token, {{"command", "close_port"}, {"payload", QJsonObject{{"port_key", "p1"}}}});
    QTRY_COMPARE_WITH_TIMEOUT(computer.ofType("console").size(), 2, 5000);
    QCOMPARE(computer.ofType("console").last().value("commands").toArray()[0].toObject().value("command_id").toString(),
             second);

    // Results over the socket are confirmed by id; the one it never ran
    // waits for the next poll after the socket is gone.
    computer.send({{"type", "result"}, {"command_id", first},
                   {"result", QJsonObject{{"cid", kCid}, {"status", "succeeded"}}}});
    QTRY_VERIFY_WITH_TIMEOUT(computer.find("command_id", first) >= 0, 5000);
    computer.socket.close();
    QTRY_COMPARE_WITH_TIMEOUT(m_service->console().computerSockets(), 0, 5000);
    const QJsonArray polled = httpRequest(m_port, "GET", "/api/v3/console/commands/poll?cid=" + kCid.toUtf8(), {}, token)
                                  .json.value("commands").toArray();
    QCOMPARE(polled.size(), 1);
    QCOMPARE(polled[0].toObject().value("command_id").toString(), second);
}

void TestConsoleApi::aCidBelongsToTheAccountThatFirstUsedIt()
{
    const QString ada = signUp(QStringLiteral("ada@example.org"));
    const QString max = signUp(QStringLiteral("max@example.org"));
    QVERIFY(heartbeat(ada).value("status").toBool());
    const QJsonObject refused = heartbeat(max);
    QCOMPARE(refused.value("code").toString(), QStringLiteral("cid_mismatch"));

    SocketClient computer;
    QVERIFY(computer.open(m_port, ConsoleHub::kComputerPath, max));
    computer.send({{"type", "hello"}, {"cid", kCid}, {"session_id", "s2"}, {"version", "6.6.7"}, {"hostname", "x"}});
    QTRY_VERIFY_WITH_TIMEOUT(computer.closed, 5000);
    QCOMPARE(computer.received.size(), 1);
    QCOMPARE(computer.received[0].value("type").toString(), QStringLiteral("hello"));
    QCOMPARE(computer.received[0].value("status"), QJsonValue(false));
    QCOMPARE(computer.received[0].value("code").toString(), QStringLiteral("cid_mismatch"));

    // Nor does the other account see it, read it or command it.
    QVERIFY(httpRequest(m_port, "GET", "/api/v3/console/computers", {}, max).json.value("computers").toArray().isEmpty());
    QCOMPARE(httpRequest(m_port, "GET", "/api/v3/console/computers/" + kCid.toUtf8() + "/ports", {}, max).code(),
             QStringLiteral("computer_not_found"));
    const QString own = issue(ada, {{"command", "request_snapshot"}});
    QCOMPARE(httpRequest(m_port, "GET", "/api/v3/console/commands/" + own.toUtf8(), {}, max).code(),
             QStringLiteral("command_not_found"));
}

void TestConsoleApi::watchersAreToldToTheComputerAndSeeItsTraffic()
{
    const QString token = signUp(QStringLiteral("ada@example.org"));
    SocketClient computer;
    QVERIFY(computer.open(m_port, ConsoleHub::kComputerPath, token));
    computer.send({{"type", "hello"}, {"cid", kCid}, {"session_id", "s1"}, {"version", "6.6.7"}, {"hostname", "pc"}});
    QTRY_COMPARE_WITH_TIMEOUT(computer.received.size(), 1, 5000);
    QVERIFY(computer.received[0].value("status").toBool());

    SocketClient watcher;
    QVERIFY(watcher.open(m_port, ConsoleHub::kWatchPath));
    watcher.send({{"type", "watch"}, {"access_token", token}, {"cid", kCid}});
    QTRY_VERIFY_WITH_TIMEOUT(watcher.find("type", "watchers") >= 0, 5000);
    QCOMPARE(watcher.received[0].value("type").toString(), QStringLiteral("watch"));
    QCOMPARE(watcher.received[0].value("online"), QJsonValue(true));
    QCOMPARE(watcher.ofType("watchers").last().value("count").toInt(), 1);
    // The computer hears it with authority, and is asked for its ports.
    QTRY_VERIFY_WITH_TIMEOUT(computer.find("watching", true) >= 0, 5000);
    const QJsonObject told = computer.received[computer.find("watching", true)];
    QCOMPARE(told.value("authoritative"), QJsonValue(true));
    QCOMPARE(told.value("need_snapshot"), QJsonValue(true));
    QCOMPARE(httpRequest(m_port, "GET", "/api/v3/console/computers", {}, token)
                 .json.value("computers").toArray()[0].toObject().value("watchers").toInt(),
             1);

    const QJsonArray ports{QJsonObject{{"port_key", "p1"}, {"connection_mode", 0}, {"port_name", "/dev/ttyUSB0"}, {"open", true}}};
    computer.send({{"type", "snapshot"}, {"cid", kCid}, {"session_id", "s1"}, {"ports", ports}});
    computer.send({{"type", "events"}, {"cid", kCid}, {"session_id", "s1"},
                   {"events", QJsonArray{trafficEvent("ok\r\n", 1), trafficEvent("\u00e9", 2)}}, {"dropped", 3}});
    QTRY_VERIFY_WITH_TIMEOUT(!watcher.ofType("events").isEmpty(), 5000);
    const QJsonObject events = watcher.ofType("events").first();
    QCOMPARE(events.value("events").toArray().size(), 2);
    QCOMPARE(events.value("events").toArray()[1].toObject().value("payload_text").toString(), QStringLiteral("\u00e9"));
    QCOMPARE(events.value("dropped").toInt(), 3);
    QTRY_VERIFY_WITH_TIMEOUT(watcher.ofType("snapshot").size() >= 2, 5000);
    QCOMPARE(watcher.ofType("snapshot").last().value("ports").toArray(), ports);
    QCOMPARE(httpRequest(m_port, "GET", "/api/v3/console/computers/" + kCid.toUtf8() + "/ports", {}, token)
                 .json.value("ports").toArray(),
             ports);

    // A result reaches the watchers too.
    const QString id = issue(token, {{"command", "send_text"}, {"payload", QJsonObject{{"port_key", "p1"}, {"text", "x"}}}});
    QTRY_VERIFY_WITH_TIMEOUT(!computer.ofType("console").isEmpty() && computer.ofType("console").last().contains("commands"),
                             5000);
    computer.send({{"type", "result"}, {"command_id", id}, {"result", QJsonObject{{"cid", kCid}, {"status", "succeeded"}, {"bytes", 3}}}});
    QTRY_VERIFY_WITH_TIMEOUT(!watcher.ofType("result").isEmpty(), 5000);
    QCOMPARE(watcher.ofType("result").first().value("command_id").toString(), id);
    QCOMPARE(watcher.ofType("result").first().value("result").toObject().value("bytes").toInt(), 3);

    // The last watcher gone: the computer stops streaming at once.
    const int before = int(computer.received.size());
    watcher.socket.close();
    QTRY_VERIFY_WITH_TIMEOUT(computer.find("watching", false, before) >= 0, 5000);
    QCOMPARE(computer.received[computer.find("watching", false, before)].value("authoritative"), QJsonValue(true));
}

void TestConsoleApi::aWatcherThatStopsReadingLosesItsOldestTraffic()
{
    const QString token = signUp(QStringLiteral("ada@example.org"));
    SocketClient computer;
    QVERIFY(computer.open(m_port, ConsoleHub::kComputerPath, token));
    computer.send({{"type", "hello"}, {"cid", kCid}, {"session_id", "s1"}, {"version", "6.6.7"}, {"hostname", "pc"}});
    QTRY_COMPARE_WITH_TIMEOUT(computer.received.size(), 1, 5000);

    StalledWatcher watcher;
    QVERIFY(watcher.open(m_port, token, kCid));
    QTRY_VERIFY_WITH_TIMEOUT(watcher.readSome() && !watcher.messages().isEmpty(), 5000);
    QCOMPARE(watcher.messages().first().value("status"), QJsonValue(true));
    QTRY_VERIFY_WITH_TIMEOUT(computer.find("watching", true) >= 0, 5000);

    // The watcher stops reading; the computer streams until the service
    // has to drop (a bound on count and time, far beyond what the kernel,
    // the socket's share and the queue hold together).
    ConsoleHub &hub = m_service->console();
    constexpr int kEventsPerBatch = 32;
    const QString payload(4000, QLatin1Char('x'));
    constexpr qint64 kBacklogBound = ConsoleHub::kWatcherSocketHighWater + WatcherQueueLimits{}.maxBytes + 2 * 140'000;
    int sent = 0;
    qint64 largestBacklog = 0;
    QElapsedTimer clock;
    clock.start();
    for (int batch = 0; batch < 400 && clock.elapsed() < 30000; ++batch) {
        QJsonArray events;
        for (int i = 0; i < kEventsPerBatch; ++i)
            events.append(trafficEvent(payload, ++sent));
        computer.send({{"type", "events"}, {"cid", kCid}, {"session_id", "s1"}, {"events", events}});
        QVERIFY(QTest::qWaitFor([&] { return computer.socket.bytesToWrite() == 0; }, 5000));
        QTest::qWait(2);
        largestBacklog = qMax(largestBacklog, hub.largestWatcherBacklog());
        if (hub.lostEvents() >= 4 * kEventsPerBatch)
            break;
    }
    QVERIFY2(hub.lostEvents() > 0, qPrintable(QStringLiteral("%1 events sent, none dropped").arg(sent)));
    // What waits for it stays within the queue's and the socket's share.
    QVERIFY2(largestBacklog <= kBacklogBound, qPrintable(QString::number(largestBacklog)));
    // A marker after the drops: the newest traffic is kept.
    computer.send({{"type", "events"}, {"cid", kCid}, {"session_id", "s1"},
                   {"events", QJsonArray{trafficEvent("end", ++sent)}}});

    // Reading again, the watcher gets every event it was not told it lost,
    // in order, and the notice comes before the traffic that follows the gap.
    qint64 delivered = 0;
    qint64 lost = 0;
    int lastSeq = 0;
    bool inOrder = true;
    bool toldBeforeGap = true;
    qsizetype seen = 0;
    const bool all = QTest::qWaitFor([&] {
        if (!watcher.readSome())
            return true;
        const QList<QJsonObject> messages = watcher.messages();
        for (; seen < messages.size(); ++seen) {
            const QJsonObject &m = messages[seen];
            if (m.value("type").toString() == QLatin1String("lost")) {
                lost += m.value("events").toInteger();
                continue;
            }
            if (m.value("type").toString() != QLatin1String("events"))
                continue;
            for (const QJsonValue &event : m.value("events").toArray()) {
                const int seq = event["seq"].toInt();
                inOrder = inOrder && seq > lastSeq;
                // A gap before this event must be covered by what was told lost.
                toldBeforeGap = toldBeforeGap && (seq - 1 - delivered <= lost);
                lastSeq = seq;
                ++delivered;
            }
        }
        return lastSeq == sent;
    }, 20000);
    QVERIFY2(all, qPrintable(QStringLiteral("last seq %1 of %2").arg(lastSeq).arg(sent)));
    QVERIFY(inOrder);
    QVERIFY(toldBeforeGap);
    QVERIFY(lost > 0);
    QCOMPARE(delivered + lost, qint64(sent));
    QCOMPARE(lost, hub.lostEvents());
}

void TestConsoleApi::watchersAreRefusedWithAReason_data()
{
    QTest::addColumn<QString>("first");  // the watcher's first message; %1 the token, %2 the cid
    QTest::addColumn<QString>("code");
    QTest::newRow("not a watch") << "{\"type\":\"hello\"}" << "bad_request";
    QTest::newRow("forged token") << "{\"type\":\"watch\",\"access_token\":\"forged\",\"cid\":\"%2\"}" << "invalid_token";
    QTest::newRow("unknown computer") << "{\"type\":\"watch\",\"access_token\":\"%1\",\"cid\":\"00000000-0000\"}"
                                      << "computer_not_found";
    QTest::newRow("not a cid") << "{\"type\":\"watch\",\"access_token\":\"%1\",\"cid\":\"../x\"}" << "invalid_cid";
}

void TestConsoleApi::watchersAreRefusedWithAReason()
{
    QFETCH(QString, first);
    QFETCH(QString, code);
    const QString token = signUp(QStringLiteral("ada@example.org"));
    QVERIFY(heartbeat(token).value("status").toBool());
    SocketClient watcher;
    QVERIFY(watcher.open(m_port, ConsoleHub::kWatchPath));
    watcher.socket.sendTextMessage(QString(first).replace(QLatin1String("%1"), token).replace(QLatin1String("%2"), kCid));
    QTRY_VERIFY_WITH_TIMEOUT(watcher.closed, 5000);
    QCOMPARE(watcher.received.size(), 1);
    QCOMPARE(watcher.received[0].value("type").toString(), QStringLiteral("watch"));
    QCOMPARE(watcher.received[0].value("status"), QJsonValue(false));
    QCOMPARE(watcher.received[0].value("code").toString(), code);
    QCOMPARE(watcher.socket.closeCode(), QWebSocketProtocol::CloseCodePolicyViolated);
}

void TestConsoleApi::aWatcherIsToldAndClosedWhenItsTokenExpires()
{
    const QString token = signUp(QStringLiteral("ada@example.org"));
    QCOMPARE(heartbeat(token).value("status"), QJsonValue(true));
    SocketClient watcher;
    QVERIFY(watcher.open(m_port, ConsoleHub::kWatchPath));
    watcher.send({{"type", "watch"}, {"access_token", token}, {"cid", kCid}});
    QTRY_VERIFY_WITH_TIMEOUT(watcher.find("type", "watchers") >= 0, 5000);
    // Still valid a moment before the end of its life (900 s by default).
    m_now += 899 * 1000;
    QTest::qWait(2 * ConsoleHub::kExpiryCheckMs);
    QVERIFY(!watcher.closed);
    QCOMPARE(watcher.find("code", "token_expired"), -1);
    m_now += 2 * 1000;
    QTRY_VERIFY_WITH_TIMEOUT(watcher.closed, 5000);
    const int told = watcher.find("code", "token_expired");
    QVERIFY(told >= 0);
    QCOMPARE(watcher.received[told].value("type").toString(), QStringLiteral("watch"));
    QCOMPARE(watcher.received[told].value("status"), QJsonValue(false));
    QCOMPARE(watcher.socket.closeCode(), QWebSocketProtocol::CloseCodePolicyViolated);
    // The same token does not admit it again.
    SocketClient again;
    QVERIFY(again.open(m_port, ConsoleHub::kWatchPath));
    again.send({{"type", "watch"}, {"access_token", token}, {"cid", kCid}});
    QTRY_VERIFY_WITH_TIMEOUT(again.closed, 5000);
    QCOMPARE(again.received.value(0).value("code").toString(), QStringLiteral("token_expired"));
}

void TestConsoleApi::noticesBetweenInstancesArriveWholeInPieces_data()
{
    QTest::addColumn<QByteArray>("message");
    QTest::addColumn<int>("pieces");
    // A one-byte lead puts every cut inside a character.
    const QByteArray cut = "a" + QString(NoticeFrames::kMaxPieceBytes / 3 + 1, QChar(0x4e2d)).toUtf8();
    QTest::newRow("small") << QByteArray("{\"kind\":\"command\"}") << 1;
    QTest::newRow("exactly one piece") << QByteArray(NoticeFrames::kMaxPieceBytes, 'a') << 1;
    QTest::newRow("one byte over") << QByteArray(NoticeFrames::kMaxPieceBytes + 1, 'a') << 2;
    QTest::newRow("three-byte characters across a cut") << cut << 2;
    QTest::newRow("four-byte characters") << "ab" + QString(5000, QChar(0xd83d)).replace(QChar(0xd83d), QStringLiteral("\U0001F600")).toUtf8() << 3;
    QTest::newRow("largest") << QByteArray(NoticeFrames::kMaxMessageBytes - 1, 'z')
                             << int((NoticeFrames::kMaxMessageBytes + NoticeFrames::kMaxPieceBytes - 1) / NoticeFrames::kMaxPieceBytes);
}

void TestConsoleApi::noticesBetweenInstancesArriveWholeInPieces()
{
    QFETCH(QByteArray, message);
    QFETCH(int, pieces);
    const QList<QByteArray> first = NoticeFrames::split("aaaa", 7, message);
    const QList<QByteArray> second = NoticeFrames::split("bbbb", 7, message + "!");
    QCOMPARE(first.size(), pieces);
    for (const QByteArray &payload : first) {
        QVERIFY(payload.size() < 8000);  // the database's limit
        QVERIFY(QString::fromUtf8(payload).toUtf8() == payload);  // valid UTF-8: no character cut
    }
    // Two senders' pieces interleaved, each in its own order.
    NoticeFrames frames;
    QList<NoticeFrames::Joined> joined;
    for (int i = 0; i < qMax(first.size(), second.size()); ++i) {
        for (const QList<QByteArray> *list : {&first, &second}) {
            if (i < list->size()) {
                if (auto whole = frames.feed(list->at(i)))
                    joined.append(*whole);
            }
        }
    }
    QCOMPARE(joined.size(), 2);
    QCOMPARE(joined[0].origin, QByteArray("aaaa"));
    QCOMPARE(joined[0].message, message);
    QCOMPARE(joined[1].origin, QByteArray("bbbb"));
    QCOMPARE(joined[1].message, message + "!");
    QCOMPARE(frames.pending(), 0);
    QCOMPARE(frames.malformed() + frames.abandoned(), 0);
}

void TestConsoleApi::brokenNoticePiecesAreCountedAndBounded()
{
    NoticeFrames frames;
    // Not ours, or lying about its size.
    for (const QByteArray &bad : {QByteArray("no header"), QByteArray("x 1 0\n{}"), QByteArray("x 1 2 2\n{}"),
                                  QByteArray("x 1 0 100000\n{}"), QByteArray(" 1 0 1\n{}"),
                                  QByteArray("x 1 0 1\n") + QByteArray(NoticeFrames::kMaxPieceBytes + 1, 'a')})
        QVERIFY(!frames.feed(bad));
    QCOMPARE(frames.malformed(), 6);
    // Too large to send at all.
    QVERIFY(NoticeFrames::split("x", 1, QByteArray(NoticeFrames::kMaxMessageBytes + 1, 'a')).isEmpty());

    // A piece lost: that message is given up, the next one arrives.
    const QByteArray big(3 * NoticeFrames::kMaxPieceBytes, 'q');
    QList<QByteArray> lost = NoticeFrames::split("x", 1, big);
    lost.removeAt(1);
    for (const QByteArray &payload : lost)
        QVERIFY(!frames.feed(payload));
    QCOMPARE(frames.abandoned(), 1);
    std::optional<NoticeFrames::Joined> whole;
    for (const QByteArray &payload : NoticeFrames::split("x", 2, big))
        whole = frames.feed(payload);
    QVERIFY(whole && whole->message == big);

    // Senders that never finish hold at most kMaxPending messages; the
    // oldest is given up first, so a newer one still completes.
    QList<QList<QByteArray>> unfinished;
    for (int i = 0; i < NoticeFrames::kMaxPending + 5; ++i) {
        unfinished.append(NoticeFrames::split("s" + QByteArray::number(i), 1, big));
        QVERIFY(!frames.feed(unfinished.last()[0]));
    }
    QCOMPARE(frames.pending(), NoticeFrames::kMaxPending);
    const qint64 abandonedBefore = frames.abandoned();
    QVERIFY(!frames.feed(unfinished[0][1]));  // given up already
    QCOMPARE(frames.abandoned(), abandonedBefore + 1);
    QVERIFY(!frames.feed(unfinished.last()[1]));
    QVERIFY(frames.feed(unfinished.last()[2]));
}

void TestConsoleApi::trafficCountsAgainstTheQuota()
{
    QVERIFY(startService(100));
    const QString token = signUp(QStringLiteral("ada@example.org"));
    QCOMPARE(heartbeat(token).value("up_remaining").toInteger(), 100);
    const auto post = [&](const QString &text) {
        return httpJson(m_port, "POST", "/api/v3/console/events",
                        {{"cid", kCid}, {"session_id", "s1"}, {"events", QJsonArray{trafficEvent(text, 1)}}}, token);
    };
    const RawResponse taken = post(QString(60, u'a'));
    QVERIFY(taken.ok());
    QCOMPARE(taken.json.value("up_remaining").toInteger(), 40);
    // Counted in bytes of UTF-8, not characters.
    const RawResponse refused = post(QString(21, u'\u00e9'));
    QCOMPARE(refused.status, 429);
    QCOMPARE(refused.code(), QStringLiteral("quota_exceeded"));

    // Over the socket: the batch past the remaining bytes stops it.
    SocketClient computer;
    QVERIFY(computer.open(m_port, ConsoleHub::kComputerPath, token));
    computer.send({{"type", "hello"}, {"cid", kCid}, {"session_id", "s1"}, {"version", "6.6.7"}, {"hostname", "pc"}});
    QTRY_COMPARE_WITH_TIMEOUT(computer.received.size(), 1, 5000);
    QCOMPARE(computer.received[0].value("up_remaining").toInteger(), 40);
    computer.send({{"type", "events"}, {"cid", kCid}, {"events", QJsonArray{trafficEvent(QString(41, u'b'), 2)}}});
    QTRY_VERIFY_WITH_TIMEOUT(computer.find("code", "quota_exceeded") >= 0, 5000);
    QCOMPARE(computer.received[computer.find("code", "quota_exceeded")].value("status"), QJsonValue(false));
}

void TestConsoleApi::badConsoleInputGetsAnEnvelope_data()
{
    QTest::addColumn<QByteArray>("method");
    QTest::addColumn<QByteArray>("path");
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("code");
    const QByteArray cid = kCid.toUtf8();
    QTest::newRow("event without port") << QByteArray("POST") << QByteArray("/api/v3/console/events")
                                        << "{\"cid\":\"" + cid + "\",\"events\":[{\"event_type\":\"rx\",\"payload_text\":\"x\",\"seq\":1,\"client_time\":1}]}"
                                        << 400 << "invalid_events";
    QTest::newRow("event of no direction") << QByteArray("POST") << QByteArray("/api/v3/console/events")
                                           << "{\"cid\":\"" + cid + "\",\"events\":[{\"port_key\":\"p1\",\"event_type\":\"up\",\"payload_text\":\"x\",\"seq\":1,\"client_time\":1}]}"
                                           << 400 << "invalid_events";
    QTest::newRow("event text too long") << QByteArray("POST") << QByteArray("/api/v3/console/events")
                                         << "{\"cid\":\"" + cid + "\",\"events\":[{\"port_key\":\"p1\",\"event_type\":\"rx\",\"payload_text\":\""
                                                + QByteArray(8193, 'x') + "\",\"seq\":1,\"client_time\":1}]}"
                                         << 400 << "invalid_events";
    QTest::newRow("unknown command") << QByteArray("POST") << "/api/v3/console/computers/" + cid + "/commands"
                                     << QByteArray("{\"command\":\"open_relay\"}") << 400 << "unknown_command";
    QTest::newRow("payload not an object") << QByteArray("POST") << "/api/v3/console/computers/" + cid + "/commands"
                                           << QByteArray("{\"command\":\"send_text\",\"payload\":[1]}") << 400 << "invalid_field";
    QTest::newRow("snapshot port without key") << QByteArray("POST") << QByteArray("/api/v3/console/ports/snapshot")
                                               << "{\"cid\":\"" + cid + "\",\"ports\":[{\"open\":true}]}" << 400 << "invalid_ports";
    QTest::newRow("result of no status") << QByteArray("POST") << QByteArray("/api/v3/console/commands/1/result")
                                         << "{\"cid\":\"" + cid + "\",\"status\":\"maybe\"}" << 400 << "invalid_result";
    QTest::newRow("ack of a command id not a number") << QByteArray("POST") << QByteArray("/api/v3/console/commands/x/ack")
                                                      << "{\"cid\":\"" + cid + "\"}" << 404 << "command_not_found";
    QTest::newRow("ports of a computer not announced") << QByteArray("GET")
                                                       << QByteArray("/api/v3/console/computers/00000000-0001/ports")
                                                       << QByteArray() << 404 << "computer_not_found";
    QTest::newRow("not a cid") << QByteArray("POST") << QByteArray("/api/v3/console/heartbeat")
                               << QByteArray("{\"cid\":\"a b\"}") << 400 << "invalid_cid";
}

void TestConsoleApi::badConsoleInputGetsAnEnvelope()
{
    QFETCH(QByteArray, method);
    QFETCH(QByteArray, path);
    QFETCH(QByteArray, body);
    QFETCH(int, status);
    QFETCH(QString, code);
    const QString token = signUp(QStringLiteral("ada@example.org"));
    QVERIFY(heartbeat(token).value("status").toBool());
    const RawResponse reply = httpRequest(m_port, method, path, body, token);
    QCOMPARE(reply.status, status);
    QCOMPARE(reply.type(), QStringLiteral("console"));
    QCOMPARE(reply.code(), code);
    // Without a token, nothing of the console answers.
    QCOMPARE(httpRequest(m_port, method, path, body).status, 401);
}

void TestConsoleApi::thePageIsServedWithAStrictPolicy_data()
{
    QTest::addColumn<QByteArray>("path");
    QTest::addColumn<QByteArray>("type");
    QTest::newRow("page") << QByteArray("/") << QByteArray("text/html; charset=utf-8");
    QTest::newRow("script") << QByteArray("/console.js") << QByteArray("text/javascript; charset=utf-8");
    QTest::newRow("shared script") << QByteArray("/pagekit.js") << QByteArray("text/javascript; charset=utf-8");
    QTest::newRow("style") << QByteArray("/console.css") << QByteArray("text/css; charset=utf-8");
    QTest::newRow("icon") << QByteArray("/favicon.svg") << QByteArray("image/svg+xml");
}

void TestConsoleApi::thePageIsServedWithAStrictPolicy()
{
    QFETCH(QByteArray, path);
    QFETCH(QByteArray, type);
    const RawResponse reply = httpRequest(m_port, "GET", path);
    QCOMPARE(reply.status, 200);
    QCOMPARE(reply.header("content-type"), type);
    const QByteArray policy = reply.header("content-security-policy");
    QVERIFY(policy.contains("default-src 'none'"));
    QVERIFY(policy.contains("script-src 'self';"));
    QVERIFY(!policy.contains("unsafe"));
    QCOMPARE(reply.header("x-content-type-options"), QByteArray("nosniff"));
    // Nothing from another host, no inline script, no token kept by the browser.
    // (An SVG names its namespace by a URL that is never fetched.)
    const QByteArray body = QByteArray(reply.body).replace("xmlns=\"http://www.w3.org/2000/svg\"", "");
    QVERIFY(!body.contains("http://") && !body.contains("https://"));
    QVERIFY(!reply.body.contains("localStorage") && !reply.body.contains("sessionStorage")
            && !reply.body.contains("document.cookie"));
    if (path == "/") {
        QCOMPARE(reply.body.count("<script"), 2);
        QVERIFY(reply.body.contains("<script src=\"/pagekit.js\" defer></script>"));
        QVERIFY(reply.body.contains("<script src=\"/console.js\" defer></script>"));
        QVERIFY(!QRegularExpression(QStringLiteral(" on[a-z]+=")).match(QString::fromUtf8(reply.body)).hasMatch());
    }
    // The page is the page only: other files are not.
    QCOMPARE(httpRequest(m_port, "GET", "/console.js.map").status, 404);
    QCOMPARE(httpRequest(m_port, "POST", path).status, 404);
}

QTEST_GUILESS_MAIN(TestConsoleApi)
#include "tst_consoleapi.moc"
