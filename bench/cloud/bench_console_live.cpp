// Live Console through the real service, as users feel it:
//  (1) a browser's send_text to the bytes leaving the far end of the pty
//      (the program's CloudConsoleService on its socket, a PortSession on
//      a socat pair), p50/p99, on one instance and across two instances on
//      PostgreSQL (the browser on the instance without the program's socket);
//  (2) the service's own added latency from an events batch arriving on a
//      computer's socket to its watcher receiving it, p50/p99 (measured
//      from outside, so it includes two loopback WebSocket hops), and the
//      end-to-end receive latency with the program's real 2 s upload tick;
//  (3) one instance with 100 computers each streaming 10 kB/s to 2
//      watchers each: events/s delivered, the service's CPU and RSS (at the
//      start and the end of the load), events lost.
// One line per figure: name, value, unit.
//
//   bench_console_live [load-seconds=30] [one,two]
#include "cloud/accountsession.h"
#include "cloud/cloudconsoleservice.h"
#include "cloud/consolesocket.h"
#include "cloud/networkservices.h"
#include "cloudservicerunner.h"
#include "support/postgrescluster.h"
#include "support/ptypair.h"
#include "support/settingssandbox.h"
#include "terminal/portsession.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QSerialPort>
#include <QSettings>
#include <QSignalSpy>
#include <QTimer>
#include <QTest>
#include <QUuid>
#include <QWebSocket>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <unistd.h>
#include <vector>

namespace {

constexpr int kWait = 15000;

// Runs the event loop until `done` holds, at most `timeoutMs`.
bool waitFor(const std::function<bool()> &done, int timeoutMs)
{
    return QTest::qWaitFor(done, timeoutMs);
}

void figure(const QByteArray &name, double value, const char *unit)
{
    std::printf("%s %.2f %s\n", name.constData(), value, unit);
    std::fflush(stdout);
}

double percentile(std::vector<double> values, double p)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    return values[std::min(values.size() - 1, size_t(p * double(values.size())))];
}

qint64 nowUs()
{
    static QElapsedTimer clock = [] {
        QElapsedTimer timer;
        timer.start();
        return timer;
    }();
    return clock.nsecsElapsed() / 1000;
}

QNetworkAccessManager &network()
{
    static QNetworkAccessManager manager;
    return manager;
}

QJsonObject json(quint16 port, const QByteArray &method, const QString &path, const QJsonObject &body = {},
                 const QString &token = {})
{
    QNetworkRequest request(QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(port).arg(path)));
    if (!token.isEmpty())
        request.setRawHeader("Authorization", "Bearer " + token.toUtf8());
    request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
    QNetworkReply *reply = method == "GET" ? network().get(request)
                                           : network().post(request, QJsonDocument(body).toJson(QJsonDocument::Compact));
    waitFor([reply] { return reply->isFinished(); }, kWait);
    const QJsonObject answer = QJsonDocument::fromJson(reply->readAll()).object();
    reply->deleteLater();
    return answer;
}

QString signUp(CloudServiceRunner &service, const QString &email)
{
    json(service.port(), "POST", QStringLiteral("/api/v3/account/register/code"), {{"email", email}});
    return json(service.port(), "POST", QStringLiteral("/api/v3/account/register"),
                {{"email", email}, {"password", "correct horse"}, {"code", service.codeFor(email)},
                 {"device_name", "bench"}, {"client_version", "6.6.7"}})
        .value("access_token")
        .toString();
}

// A raw console socket (a computer's or a watcher's) that counts what it hears.
class Socket : public QObject
{
public:
    QWebSocket socket;
    std::function<void(const QJsonObject &)> onMessage;

    Socket()
    {
        connect(&socket, &QWebSocket::textMessageReceived, this, [this](const QString &text) {
            if (onMessage)
                onMessage(QJsonDocument::fromJson(text.toUtf8()).object());
        });
    }
    void open(quint16 port, const char *path, const QString &token = {})
    {
        QNetworkRequest request(QUrl(QStringLiteral("ws://127.0.0.1:%1%2").arg(port).arg(QLatin1String(path))));
        if (!token.isEmpty())
            request.setRawHeader("Authorization", "Bearer " + token.toUtf8());
        socket.open(request);
    }
    void send(const QJsonObject &object)
    {
        socket.sendTextMessage(QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact)));
    }
};

// The program with one pane on a pty pair, Live Console on, remote send allowed.
struct Program
{
    NetworkServices network;
    AccountSession account{&network};
    PtyPair pty;
    std::unique_ptr<PortSession> port;
    std::unique_ptr<QSerialPort> far;
    std::unique_ptr<CloudConsoleService> console;

    bool start(CloudServiceRunner &service, const QString &email, qint64 uploadMs)
    {
        QSignalSpy replies(&network, &NetworkServices::accountResponse);
        network.requestRegistrationCode({}, email);
        if (!replies.wait(kWait))
            return false;
        network.registerAccount({}, email, QStringLiteral("Ann"), QStringLiteral("correct horse"), service.codeFor(email),
                                QString::number(AccountSession::deviceValue()), QStringLiteral("6.6.7"));
        if (!replies.wait(kWait))
            return false;
        account.applyLogin(replies.last().at(0).toJsonObject());
        if (!pty.start())
            return false;
        port = std::make_unique<PortSession>(1);
        ConnectionConfig config;
        config.portName = pty.pathA();
        config.baudRate = 115200;
        port->applySettings(config, {}, {});
        if (!port->openConnection())
            return false;
        far = std::make_unique<QSerialPort>(pty.pathB());
        if (!far->open(QIODevice::ReadWrite))
            return false;
        QSettings().setValue(QStringLiteral("CloudConsoleAllowRemoteSend"), true);
        console = std::make_unique<CloudConsoleService>(&network, &account,
                                                        [this] { return QList<PortSession *>{port.get()}; });
        CloudConsoleService::Timing timing;
        timing.uploadMs = uploadMs;
        console->setTiming(timing);
        console->setEnabled(true);
        return waitFor([this] { return console->socket()->isReady(); }, kWait);
    }
};

// (1) browser send -> bytes at the far end of the pty.
void sendLatency(const QByteArray &setup, CloudServiceRunner &holder, CloudServiceRunner &browserSide, int round)
{
    Program program;
    const QString email = QStringLiteral("send%1%2@example.org").arg(QString::fromLatin1(setup)).arg(round);
    if (!program.start(holder, email, 2000)) {
        std::fprintf(stderr, "the program did not start\n");
        return;
    }
    const QString token = json(browserSide.port(), "POST", QStringLiteral("/api/v3/account/login"),
                               {{"email", email}, {"password", "correct horse"}, {"device_name", "browser"}})
                              .value("access_token").toString();
    const QString path = QStringLiteral("/api/v3/console/computers/%1/commands").arg(program.console->cid());
    std::vector<double> latencies;
    int failures = 0;
    for (int i = 0; i < 200; ++i) {
        const QByteArray expected = "hello" + QByteArray::number(i) + "\r\n";
        QByteArray arrived;
        const qint64 start = nowUs();
        QNetworkRequest request(QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(browserSide.port()).arg(path)));
        request.setRawHeader("Authorization", "Bearer " + token.toUtf8());
        request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
        QNetworkReply *reply = network().post(
            request, QJsonDocument(QJsonObject{{"command", "send_text"},
                                               {"payload", QJsonObject{{"port_key", program.port->portKey()},
                                                                       {"text", QString::fromLatin1(expected.chopped(2))},
                                                                       {"line_ending", "crlf"}}}})
                         .toJson(QJsonDocument::Compact));
        const bool ok = waitFor([&] {
            arrived += program.far->readAll();
            return arrived.size() >= expected.size();
        }, kWait);
        const qint64 end = nowUs();
        waitFor([reply] { return reply->isFinished(); }, kWait);
        reply->deleteLater();
        if (!ok || arrived != expected) {
            ++failures;
            continue;
        }
        latencies.push_back(double(end - start) / 1000.0);
    }
    figure("send_to_far_end_p50_" + setup, percentile(latencies, 0.5), "ms");
    figure("send_to_far_end_p99_" + setup, percentile(latencies, 0.99), "ms");
    figure("send_to_far_end_failures_" + setup, failures, "commands");

    // End to end: bytes at the far end to the watcher, on the program's own
    // 2 s upload tick.
    Socket watcher;
    qint64 sentAt = 0;
    std::vector<double> receive;
    watcher.onMessage = [&](const QJsonObject &message) {
        if (message.value("type").toString() == QLatin1String("events") && sentAt > 0) {
            receive.push_back(double(nowUs() - sentAt) / 1000.0);
            sentAt = 0;
        }
    };
    watcher.open(browserSide.port(), "/ws/console/watch/v1");
    waitFor([&] { return watcher.socket.state() == QAbstractSocket::ConnectedState; }, kWait);
    watcher.send({{"type", "watch"}, {"access_token", token}, {"cid", program.console->cid()}});
    waitFor([&] { return program.console->isWatching(); }, kWait);
    QTest::qWait(500);
    for (int i = 0; i < 8; ++i) {
        QTest::qWait(300 + 211 * i % 1700);  // at different places of the tick
        sentAt = nowUs();
        program.far->write("tick\r\n");
        program.far->waitForBytesWritten(kWait);
        waitFor([&] { return sentAt == 0; }, kWait);
    }
    figure("far_end_to_watcher_p50_" + setup, percentile(receive, 0.5), "ms");
    figure("far_end_to_watcher_max_" + setup, percentile(receive, 1.0), "ms");
}

// (2) events batch on the computer's socket -> its watcher.
void addedLatency(const QByteArray &setup, CloudServiceRunner &holder, CloudServiceRunner &watcherSide)
{
    const QString token = signUp(holder, QStringLiteral("added%1@example.org").arg(QString::fromLatin1(setup)));
    const QString cid = QUuid::createUuid().toString(QUuid::WithoutBraces);
    Socket computer;
    bool greeted = false;
    computer.onMessage = [&](const QJsonObject &message) {
        if (message.value("type").toString() == QLatin1String("hello"))
            greeted = message.value("status").toBool();
    };
    computer.open(holder.port(), "/ws/console/v1", token);
    waitFor([&] { return computer.socket.state() == QAbstractSocket::ConnectedState; }, kWait);
    computer.send({{"type", "hello"}, {"cid", cid}, {"session_id", "b"}, {"version", "6.6.7"}, {"hostname", "bench"}});
    waitFor([&] { return greeted; }, kWait);

    Socket watcher;
    std::vector<double> latencies;
    bool admitted = false;
    watcher.onMessage = [&](const QJsonObject &message) {
        const QString type = message.value("type").toString();
        if (type == QLatin1String("watchers"))
            admitted = true;
        if (type == QLatin1String("events")) {
            const qint64 sent = message.value("events").toArray()[0].toObject().value("client_time").toInteger();
            latencies.push_back(double(nowUs() - sent) / 1000.0);
        }
    };
    watcher.open(watcherSide.port(), "/ws/console/watch/v1");
    waitFor([&] { return watcher.socket.state() == QAbstractSocket::ConnectedState; }, kWait);
    watcher.send({{"type", "watch"}, {"access_token", token}, {"cid", cid}});
    waitFor([&] { return admitted; }, kWait);
    QTest::qWait(500);  // the other instance hears of the watcher
    const int batches = 500;
    for (int i = 0; i < batches; ++i) {
        QJsonArray events;
        for (int e = 0; e < 8; ++e)
            events.append(QJsonObject{{"port_key", "p1"}, {"event_type", "rx"},
                                      {"payload_text", QString(64, QChar(u'a' + e))}, {"seq", i * 8 + e},
                                      {"client_time", nowUs()}});
        computer.send({{"type", "events"}, {"cid", cid}, {"session_id", "b"}, {"events", events}});
        QTest::qWait(10);
    }
    waitFor([&] { return int(latencies.size()) >= batches; }, kWait);
    figure("batch_to_watcher_p50_" + setup, percentile(latencies, 0.5), "ms");
    figure("batch_to_watcher_p99_" + setup, percentile(latencies, 0.99), "ms");
    figure("batch_to_watcher_lost_" + setup, batches - double(latencies.size()), "batches");
}

qint64 cpuTicks(qint64 pid)
{
    QFile file(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    const QByteArray text = file.readAll();
    const QList<QByteArray> fields = text.mid(text.lastIndexOf(')') + 2).split(' ');
    return fields.value(11).toLongLong() + fields.value(12).toLongLong();  // utime, stime
}

double rssMiB(qint64 pid)
{
    QFile file(QStringLiteral("/proc/%1/status").arg(pid));
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    for (const QByteArray &line : file.readAll().split('\n')) {
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').value(0).toDouble() / 1024.0;
    }
    return 0;
}

// (3) 100 computers streaming 10 kB/s each to 2 watchers each.
void load(CloudServiceRunner &service, int seconds)
{
    constexpr int kComputers = 100;
    constexpr int kWatchersEach = 2;
    constexpr int kEventsPerBatch = 20;   // one batch per 2 s tick
    constexpr int kEventChars = 1000;     // 20 kB a tick: 10 kB/s
    QStringList tokens;
    for (int account = 0; account < 2; ++account)
        tokens.append(signUp(service, QStringLiteral("load%1@example.org").arg(account)));
    std::vector<std::unique_ptr<Socket>> computers;
    std::vector<std::unique_ptr<Socket>> watchers;
    QStringList cids;
    int greeted = 0;
    for (int i = 0; i < kComputers; ++i) {
        cids.append(QUuid::createUuid().toString(QUuid::WithoutBraces));
        auto computer = std::make_unique<Socket>();
        computer->onMessage = [&greeted](const QJsonObject &message) {
            if (message.value("type").toString() == QLatin1String("hello") && message.value("status").toBool())
                ++greeted;
        };
        computer->open(service.port(), "/ws/console/v1", tokens[i % 2]);
        Socket *raw = computer.get();
        const QString cid = cids.last();
        QObject::connect(&raw->socket, &QWebSocket::connected, raw, [raw, cid] {
            raw->send({{"type", "hello"}, {"cid", cid}, {"session_id", "b"}, {"version", "6.6.7"}, {"hostname", "bench"}});
        });
        computers.push_back(std::move(computer));
    }
    if (!waitFor([&] { return greeted == kComputers; }, 30000)) {
        std::fprintf(stderr, "only %d of %d computers said hello\n", greeted, kComputers);
        return;
    }
    qint64 delivered = 0, lost = 0, gaps = 0;
    int admitted = 0;
    std::vector<qint64> nextSeq(kComputers * kWatchersEach, 0);
    for (int i = 0; i < kComputers * kWatchersEach; ++i) {
        auto watcher = std::make_unique<Socket>();
        Socket *raw = watcher.get();
        const QString cid = cids[i / kWatchersEach];
        const QString token = tokens[(i / kWatchersEach) % 2];
        watcher->onMessage = [&, i](const QJsonObject &message) {
            qint64 &expected = nextSeq[i];
            const QString type = message.value("type").toString();
            if (type == QLatin1String("watch") && message.value("status").toBool())
                ++admitted;
            else if (type == QLatin1String("lost"))
                lost += message.value("events").toInteger();
            else if (type == QLatin1String("events")) {
                for (const QJsonValue &event : message.value("events").toArray()) {
                    const qint64 seq = event.toObject().value("seq").toInteger();
                    if (seq != expected)
                        gaps += qAbs(seq - expected);
                    expected = seq + 1;
                    ++delivered;
                }
            }
        };
        QObject::connect(&raw->socket, &QWebSocket::connected, raw, [raw, cid, token] {
            raw->send({{"type", "watch"}, {"access_token", token}, {"cid", cid}});
        });
        watcher->open(service.port(), "/ws/console/watch/v1");
        watchers.push_back(std::move(watcher));
    }
    if (!waitFor([&] { return admitted == kComputers * kWatchersEach; }, 30000)) {
        std::fprintf(stderr, "only %d watchers admitted\n", admitted);
        return;
    }
    // Each computer uploads on its own 2 s tick, spread over the tick.
    std::vector<qint64> seqs(kComputers, 0);
    std::vector<std::unique_ptr<QTimer>> ticks;
    const QString text(kEventChars, QLatin1Char('x'));
    qint64 sent = 0;
    for (int i = 0; i < kComputers; ++i) {
        auto tick = std::make_unique<QTimer>();
        tick->setInterval(2000);
        QObject::connect(tick.get(), &QTimer::timeout, [&, i] {
            QJsonArray events;
            for (int e = 0; e < kEventsPerBatch; ++e)
                events.append(QJsonObject{{"port_key", "p1"}, {"event_type", "rx"}, {"payload_text", text},
                                          {"seq", seqs[i]++}, {"client_time", 0}});
            computers[i]->send({{"type", "events"}, {"cid", cids[i]}, {"session_id", "b"}, {"events", events}});
            sent += kEventsPerBatch;
        });
        QTimer::singleShot(i * 2000 / kComputers, tick.get(), [t = tick.get()] { t->start(); });
        ticks.push_back(std::move(tick));
    }
    const qint64 pid = service.processId();
    QTest::qWait(3000);  // every computer on its tick
    const double rssStart = rssMiB(pid);
    const qint64 cpuStart = cpuTicks(pid);
    const qint64 deliveredStart = delivered;
    QElapsedTimer clock;
    clock.start();
    QTest::qWait(seconds * 1000);
    const double elapsed = clock.elapsed() / 1000.0;
    const qint64 cpuEnd = cpuTicks(pid);
    const double rssEnd = rssMiB(pid);
    const qint64 deliveredInWindow = delivered - deliveredStart;
    for (auto &tick : ticks)
        tick->stop();
    waitFor([&] { return delivered >= sent * kWatchersEach; }, 10000);
    figure("load_events_in_per_second", double(deliveredInWindow) / kWatchersEach / elapsed, "events/s");
    figure("load_events_out_per_second", double(deliveredInWindow) / elapsed, "events/s");
    figure("load_bytes_out_per_second", double(deliveredInWindow) * kEventChars / elapsed / 1024.0, "KiB/s");
    figure("load_service_cpu", 100.0 * double(cpuEnd - cpuStart) / double(::sysconf(_SC_CLK_TCK)) / elapsed, "%core");
    figure("load_service_rss_start", rssStart, "MiB");
    figure("load_service_rss_end", rssEnd, "MiB");
    figure("load_events_dropped", double(lost), "events");
    figure("load_events_missing", double(sent * kWatchersEach - delivered), "events");
    figure("load_sequence_gaps", double(gaps), "events");
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList arguments = app.arguments();
    const int seconds = arguments.size() > 1 ? qMax(5, arguments[1].toInt()) : 30;
    const QStringList setups = (arguments.size() > 2 ? arguments[2] : QStringLiteral("one,two")).split(u',');
    SettingsSandbox sandbox;
    const QStringList common{"--max-connections-per-address", "1000"};
    if (setups.contains(QLatin1String("one"))) {
        CloudServiceRunner service;
        if (!service.start(common)) {
            std::fprintf(stderr, "the service did not start\n");
            return 1;
        }
        sendLatency("one_instance", service, service, 0);
        addedLatency("one_instance", service, service);
        load(service, seconds);
    }
    if (setups.contains(QLatin1String("two"))) {
        PostgresCluster database;
        if (!database.start()) {
            std::fprintf(stderr, "%s\n", qPrintable(database.errorText()));
            return 1;
        }
        CloudServiceRunner holder;
        CloudServiceRunner other;
        const QStringList options = common + QStringList{"--database", database.url()};
        if (!holder.start(options) || !other.start(options)) {
            std::fprintf(stderr, "the services did not start\n");
            return 1;
        }
        sendLatency("two_instances", holder, other, 1);
        addedLatency("two_instances", holder, other);
    }
    return 0;
}
