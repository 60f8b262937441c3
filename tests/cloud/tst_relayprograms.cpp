// Live Relay between two program instances through the real tessaline-cloud.
// The host is consolehost: its own process and settings folder, Live Console
// and Live Relay on, its pane on one end of a pty pair whose far end this
// process holds. This process is the other computer: a pane (PortSession)
// in connection mode 8 whose relay comes from RelayConnector and
// RelaySocketTransport, as the window builds it. The service runs alone, or
// as two instances on one PostgreSQL cluster behind the shipped haproxy
// configuration, the host's requests going to one instance and the
// client's to the other.
#include "cloud/accountsession.h"
#include "cloud/networkservices.h"
#include "cloud/relayconnector.h"
#include "cloud/relaysocket.h"
#include "cloud/relaysockettransport.h"
#include "cloudservicerunner.h"
#include "connection/connectioncontroller.h"
#include "support/haproxyfront.h"
#include "support/postgrescluster.h"
#include "support/ptypair.h"
#include "support/settingssandbox.h"
#include "terminal/portsession.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QRandomGenerator>
#include <QSerialPort>
#include <QSysInfo>
#include <QtTest>

#include <csignal>
#include <functional>

namespace {

constexpr int kWait = 15000;
// The whole bulk exchange, both ways at once.
constexpr int kBulkWaitMs = 60000;

// Runs the event loop until `done` holds, without QTest::qWaitFor's pause
// between turns (it would cap bulk traffic far below what a pty carries).
bool pumpUntil(const std::function<bool()> &done, int timeoutMs)
{
    QDeadlineTimer deadline(timeoutMs);
    while (!done()) {
        if (deadline.hasExpired())
            return false;
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 20);
    }
    return true;
}

QByteArray randomBytes(qsizetype size, quint32 seed)
{
    QByteArray bytes(size, Qt::Uninitialized);
    QRandomGenerator generator(seed);
    for (qsizetype i = 0; i < size; ++i)
        bytes[i] = char(generator.generate());
    return bytes;
}

// Where each computer sends its requests, and whose log holds the codes
// of registrations made by the client.
struct Topology
{
    QString hostUrl;
    QString clientUrl;
    CloudServiceRunner *clientInstance = nullptr;
};

// The host computer: consolehost in its own process, speaking its line
// protocol on stdin/stdout.
class HostProgram : public QObject
{
public:
    QProcess process;
    QList<QByteArray> lines;
    QJsonObject ready;

    HostProgram()
    {
        process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        connect(&process, &QProcess::readyReadStandardOutput, this, [this] {
            while (process.canReadLine())
                lines.append(process.readLine().trimmed());
        });
    }
    ~HostProgram() override
    {
        if (process.state() == QProcess::NotRunning)
            return;
        ::kill(pid_t(process.processId()), SIGCONT);  // a test may have stopped it
        process.closeWriteChannel();  // consolehost quits when its input ends
        if (!process.waitForFinished(5000)) {
            process.kill();
            process.waitForFinished(5000);
        }
    }
    bool start(const QString &service, const QString &email, const QString &port)
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("QT_LOGGING_RULES"), QStringLiteral("*.debug=false"));
        process.setProcessEnvironment(environment);
        process.start(QStringLiteral(TSL_CONSOLE_HOST),
                      {"--service", service, "--email", email, "--password", "correct horse", "--port", port});
        const QByteArray line = waitFor("ready ");
        ready = QJsonDocument::fromJson(line.mid(6)).object();
        return !ready.isEmpty();
    }
    // The first line since `from` that starts with `prefix`; empty after kWait.
    QByteArray waitFor(const QByteArray &prefix, qsizetype from = 0)
    {
        QByteArray found;
        pumpUntil([&] {
            for (qsizetype i = from; i < lines.size(); ++i) {
                if (lines.at(i).startsWith(prefix) || lines.at(i).startsWith("error ")) {
                    found = lines.at(i);
                    return true;
                }
            }
            return process.state() == QProcess::NotRunning;
        }, kWait);
        return found.startsWith(prefix) ? found : QByteArray();
    }
    // Sends a command and waits for its answer line.
    QByteArray ask(const QByteArray &line, const QByteArray &answer = "ok")
    {
        const qsizetype from = lines.size();
        process.write(line + '\n');
        return waitFor(answer, from);
    }
    QString cid() const { return ready.value("cid").toString(); }
    QString portKey() const { return ready.value("port_key").toString(); }
};

// The other computer's pane in mode 8, its relay built as the window
// builds it: a connector asks for the ticket, the transport opens it.
class ClientPane
{
public:
    NetworkServices *network;
    PortSession session{2};
    QByteArray shown;  // what the pane's receive path took in
    QStringList failures;
    QString guestToken;

    explicit ClientPane(NetworkServices *network) : network(network)
    {
        QObject::connect(&session, &PortSession::rxTapped, &session, [this](const QByteArray &bytes) { shown += bytes; });
        QObject::connect(&session, &PortSession::failure, &session, [this](const QString &text) { failures.append(text); });
    }
    // A port of the account's own computer.
    bool openToPort(const QString &accessToken, const QString &cid, const QString &portKey)
    {
        return open(cid, portKey, [=](RelayConnector *connector) {
            connector->connectToPort(accessToken, {}, cid, portKey, QStringLiteral("ttyS9"));
        });
    }
    // A share's invite, as a guest without an account.
    bool openToInvite(const QString &code, const QString &passcode, const QString &guestName)
    {
        return open({}, code, [=](RelayConnector *connector) {
            connector->joinInvite({}, code, passcode, guestName);
        });
    }
    bool isOpen() const { return session.isConnectionOpen(); }

private:
    bool open(const QString &cid, const QString &portKey, std::function<void(RelayConnector *)> ask)
    {
        ConnectionConfig config;
        config.mode = ConnectionMode::RemoteSerialRelay;
        config.relayCid = cid;
        config.relayPortKey = portKey;
        PaneOptions quiet;
        quiet.displaySendMsg = false;
        session.applySettings(config, quiet, {});
        NetworkServices *services = network;
        session.controller()->setRelayFactory([this, services, ask](const ConnectionConfig &) -> RelayTransport * {
            auto *transport = new RelaySocketTransport;
            auto *connector = new RelayConnector(services, transport);
            QObject::connect(connector, &RelayConnector::ready, transport,
                             [this, transport](const QString &ticket, const QString &relayId, const QString &,
                                               const QString &guest) {
                                 guestToken = guest;
                                 transport->open(NetworkServices::baseUrl(), ticket, relayId, guest);
                             });
            QObject::connect(connector, &RelayConnector::failed, transport,
                             [transport, connector](const QString &reason) {
                                 transport->fail(RelayConnector::paneText(connector->failure(), reason, false,
                                                                          QStringLiteral("ttyS9")));
                             });
            QMetaObject::invokeMethod(connector, [connector, ask] { ask(connector); }, Qt::QueuedConnection);
            return transport;
        });
        return session.openConnection();
    }
};

} // namespace

class RelayProgramsTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase();
    void tenMebibytesCrossEachWayAndTheHostsCloseEndsThePane_data();
    void tenMebibytesCrossEachWayAndTheHostsCloseEndsThePane();
    void refusalsReachTheClientPane_data();
    void refusalsReachTheClientPane();
    void theRelaySocketMeetsTheService();
    void anInviteGuestMovesAMebibyteUntilTheShareEnds_data();
    void anInviteGuestMovesAMebibyteUntilTheShareEnds();

private:
    Topology topology(const QString &name);
    // An account, the host program signed in to it, the client signed in too.
    // Empty when all is up, else what did not come up.
    QString startComputers(const Topology &where);
    // Moves `size` random bytes each way between the far end and the pane.
    void exchange(ClientPane &pane, qsizetype size);
    QJsonObject targetPort();

    std::unique_ptr<SettingsSandbox> m_sandbox;
    CloudServiceRunner m_alone;
    PostgresCluster m_database;
    CloudServiceRunner m_first;
    CloudServiceRunner m_second;
    HaproxyFront m_haproxy;
    int m_accounts = 0;

    std::unique_ptr<PtyPair> m_pty;
    std::unique_ptr<QSerialPort> m_far;
    std::unique_ptr<HostProgram> m_host;
    std::unique_ptr<NetworkServices> m_network;
    std::unique_ptr<AccountSession> m_account;
    QString m_email;
};

void RelayProgramsTest::initTestCase()
{
    m_sandbox = std::make_unique<SettingsSandbox>();
    QVERIFY(m_alone.start());
    QVERIFY2(m_database.start(), qPrintable(m_database.errorText()));
    // Named as the shipped configuration's servers, which route a relay
    // socket to the instance its ticket names.
    const QStringList shared{"--database", m_database.url(), "--trusted-proxy", "127.0.0.1"};
    QVERIFY(m_first.start(shared + QStringList{"--instance-id", "cloud8437"}));
    QVERIFY(m_second.start(shared + QStringList{"--instance-id", "cloud8438"}));
    // Two ports on the one front: everything but a relay socket that comes
    // through the first goes to the first instance, through the second to
    // the second, so the host's Live Console and the client's requests
    // land on different instances.
    QVERIFY2(m_haproxy.start(QStringLiteral(TSL_DEPLOY_DIR "/haproxy.cfg"),
                             {{"cloud8437", m_first.port()}, {"cloud8438", m_second.port()}}, 2, {},
                             "    use-server cloud8437 if { dst_port @FRONT0@ } !{ path /ws/relay/v1 }\n"
                             "    use-server cloud8438 if { dst_port @FRONT1@ } !{ path /ws/relay/v1 }\n"),
             qPrintable(m_haproxy.errorText()));
}

void RelayProgramsTest::cleanupTestCase()
{
    m_haproxy.stop();
    m_first.stop();
    m_second.stop();
    m_database.stop();
    m_alone.stop();
    qunsetenv("TSL_HOST");
}

void RelayProgramsTest::init()
{
    m_sandbox->clear();
    m_pty = std::make_unique<PtyPair>();
    QVERIFY2(m_pty->start(), qPrintable(m_pty->errorText()));
    m_far = std::make_unique<QSerialPort>(m_pty->pathB());
    QVERIFY(m_far->open(QIODevice::ReadWrite));
}

void RelayProgramsTest::cleanup()
{
    m_host.reset();
    m_account.reset();
    m_network.reset();
    m_far.reset();
    m_pty.reset();
}

Topology RelayProgramsTest::topology(const QString &name)
{
    if (name == QLatin1String("one instance"))
        return {m_alone.baseUrl(), m_alone.baseUrl(), &m_alone};
    return {QStringLiteral("http://127.0.0.1:%1").arg(m_haproxy.port(0)),
            QStringLiteral("http://127.0.0.1:%1").arg(m_haproxy.port(1)), &m_second};
}

QString RelayProgramsTest::startComputers(const Topology &where)
{
    qputenv("TSL_HOST", where.clientUrl.toUtf8());
    m_network = std::make_unique<NetworkServices>();
    m_account = std::make_unique<AccountSession>(m_network.get());
    m_email = QStringLiteral("relay%1@example.org").arg(++m_accounts);
    QSignalSpy replies(m_network.get(), &NetworkServices::accountResponse);
    m_network->requestRegistrationCode({}, m_email);
    if (!replies.wait(kWait))
        return QStringLiteral("no answer to the registration code request");
    m_network->registerAccount({}, m_email, QStringLiteral("Ann"), QStringLiteral("correct horse"),
                               where.clientInstance->codeFor(m_email), QString::number(AccountSession::deviceValue()),
                               QStringLiteral("6.6.7"));
    if (!replies.wait(kWait))
        return QStringLiteral("no answer to the registration");
    m_account->applyLogin(replies.last().at(0).toJsonObject());
    if (!m_account->isAccessTokenValid())
        return QStringLiteral("not signed in: ") + QString::fromUtf8(QJsonDocument(replies.last().at(0).toJsonObject()).toJson());

    m_host = std::make_unique<HostProgram>();
    if (!m_host->start(where.hostUrl, m_email, m_pty->pathA()))
        return QStringLiteral("the host program did not come up: ") + QString::fromUtf8(m_host->lines.join('\n'));
    if (m_host->ask("allow-relay 1").isEmpty())
        return QStringLiteral("the host program did not allow relays");
    // The service lists the port once the host's snapshot says relays are allowed there.
    if (!pumpUntil([this] { return targetPort().value("relay_allowed").toBool(); }, kWait))
        return QStringLiteral("the port was not listed for relays: ") + QString::fromUtf8(QJsonDocument(targetPort()).toJson());
    return {};
}

QJsonObject RelayProgramsTest::targetPort()
{
    QSignalSpy answered(m_network.get(), &NetworkServices::relayResponse);
    m_network->fetchRelayTargets(m_account->accessToken(), {});
    if (!answered.wait(kWait))
        return {};
    for (const QJsonValue &device : answered.last().at(0).toJsonObject().value("devices").toArray()) {
        if (device["cid"].toString() != m_host->cid())
            continue;
        QJsonObject found{{"online", device["online"]}, {"name", device["name"]}};
        for (const QJsonValue &port : device["ports"].toArray()) {
            const QJsonObject entry = port.toObject();
            if (entry.value("port_key").toString() == m_host->portKey()) {
                for (auto it = entry.begin(); it != entry.end(); ++it)
                    found.insert(it.key(), it.value());
            }
        }
        return found;
    }
    return {};
}

void RelayProgramsTest::exchange(ClientPane &pane, qsizetype size)
{
    const QByteArray toFar = randomBytes(size, 1);
    const QByteArray toPane = randomBytes(size, 2);
    const qsizetype shownBefore = pane.shown.size();
    const quint64 countedBefore = pane.session.rxCount();
    QByteArray atFar;
    qsizetype fromPane = 0;
    qsizetype fromFar = 0;
    constexpr qsizetype kChunk = 64 * 1024;
    QElapsedTimer clock;
    clock.start();
    const bool done = pumpUntil([&] {
        // Each side offers more only while what it offered before is moving.
        while (fromPane < size && !pane.session.isPeerBacklogged()) {
            if (!pane.session.sendBytes(toFar.mid(fromPane, kChunk), false))
                break;
            fromPane += qMin(kChunk, size - fromPane);
        }
        if (fromFar < size && m_far->bytesToWrite() < 4 * kChunk) {
            m_far->write(toPane.mid(fromFar, kChunk));
            fromFar += qMin(kChunk, size - fromFar);
        }
        atFar += m_far->readAll();
        pane.session.takeForView(-1, -1);  // what a view does with what it shows
        return atFar.size() >= size && pane.shown.size() - shownBefore >= size;
    }, kBulkWaitMs);
    QVERIFY2(done, qPrintable(QStringLiteral("%1 of %2 bytes reached the far end, %3 the pane")
                                  .arg(atFar.size())
                                  .arg(size)
                                  .arg(pane.shown.size() - shownBefore)));
    QCOMPARE(atFar.size(), size);
    QVERIFY2(atFar == toFar, "the host's port got other bytes than the client's pane sent");
    QVERIFY2(pane.shown.mid(shownBefore) == toPane, "the client's pane got other bytes than the far end sent");
    QCOMPARE(pane.session.rxCount() - countedBefore, quint64(size));
    qInfo("%lld bytes each way in %lld ms", qlonglong(size), qlonglong(clock.elapsed()));
}

void RelayProgramsTest::tenMebibytesCrossEachWayAndTheHostsCloseEndsThePane_data()
{
    QTest::addColumn<QString>("where");
    QTest::newRow("one instance") << "one instance";
    QTest::newRow("two instances behind haproxy") << "two instances";
}

void RelayProgramsTest::tenMebibytesCrossEachWayAndTheHostsCloseEndsThePane()
{
    QFETCH(QString, where);
    QCOMPARE(startComputers(topology(where)), QString());
    ClientPane pane(m_network.get());
    QVERIFY(pane.openToPort(m_account->accessToken(), m_host->cid(), m_host->portKey()));
    QVERIFY2(pumpUntil([&] { return pane.isOpen() || !pane.failures.isEmpty(); }, kWait),
             "the relay neither opened nor failed");
    QVERIFY2(pane.isOpen(), qPrintable(pane.failures.join('\n')));
    QVERIFY(!m_host->waitFor("relay ").isEmpty());

    exchange(pane, 10 * 1024 * 1024);

    // The host closes its port: the relay ends, and the pane says so.
    QVERIFY(!m_host->ask("close").isEmpty());
    QVERIFY(pumpUntil([&] { return !pane.failures.isEmpty(); }, kWait));
    QCOMPARE(pane.failures, QStringList{QStringLiteral("The remote end disconnected.")});
    QVERIFY(!pane.isOpen());
}

void RelayProgramsTest::refusalsReachTheClientPane_data()
{
    QTest::addColumn<QString>("refusal");
    QTest::addColumn<QString>("text");
    QTest::newRow("relay not allowed") << "not allowed" << "Live Relay is not allowed on that port.";
    QTest::newRow("port busy") << "busy" << "That port is relayed already.";
    QTest::newRow("port no longer shared") << "ports changed"
                                           << "%1 no longer shares a port called \"ttyS9\". Choose it again.";
}

void RelayProgramsTest::refusalsReachTheClientPane()
{
    QFETCH(QString, refusal);
    QFETCH(QString, text);
    QCOMPARE(startComputers(topology(QStringLiteral("one instance"))), QString());
    const QString deviceName = targetPort().value("name").toString();
    QVERIFY(!deviceName.isEmpty());
    QString portKey = m_host->portKey();
    std::unique_ptr<ClientPane> first;
    if (refusal == QLatin1String("not allowed")) {
        QVERIFY(!m_host->ask("allow-relay 0").isEmpty());
        QVERIFY(pumpUntil([this] { return targetPort().value("relay_allowed") == QJsonValue(false); }, kWait));
    } else if (refusal == QLatin1String("busy")) {
        first = std::make_unique<ClientPane>(m_network.get());
        QVERIFY(first->openToPort(m_account->accessToken(), m_host->cid(), portKey));
        QVERIFY(pumpUntil([&] { return first->isOpen() || !first->failures.isEmpty(); }, kWait));
        QVERIFY2(first->isOpen(), qPrintable(first->failures.join('\n')));
    } else {
        portKey = QStringLiteral("a-port-of-an-earlier-run");
    }
    ClientPane pane(m_network.get());
    pane.openToPort(m_account->accessToken(), m_host->cid(), portKey);
    QVERIFY(pumpUntil([&] { return !pane.failures.isEmpty(); }, kWait));
    QCOMPARE(pane.failures, QStringList{text.contains(QLatin1String("%1")) ? text.arg(deviceName) : text});
    QVERIFY(!pane.isOpen());
    if (first)
        QVERIFY2(first->isOpen() && first->failures.isEmpty(), "a refused second relay ended the first");
}

void RelayProgramsTest::theRelaySocketMeetsTheService()
{
    QCOMPARE(startComputers(topology(QStringLiteral("one instance"))), QString());
    const auto ticket = [this](QString *relayId = nullptr) {
        RelayConnector connector(m_network.get());
        QSignalSpy ready(&connector, &RelayConnector::ready);
        QSignalSpy failed(&connector, &RelayConnector::failed);
        connector.connectToPort(m_account->accessToken(), {}, m_host->cid(), m_host->portKey());
        pumpUntil([&] { return !ready.isEmpty() || !failed.isEmpty(); }, kWait);
        if (relayId && !ready.isEmpty())
            *relayId = ready.first().at(1).toString();
        return ready.isEmpty() ? QString() : ready.first().at(0).toString();
    };
    const QString address = m_alone.baseUrl();
    struct Stopped
    {
        RelaySocket::Stop kind = RelaySocket::Stop::Transport;
        QString text;
        bool seen = false;
    };
    const auto watch = [](RelaySocket &socket, Stopped &stopped) {
        QObject::connect(&socket, &RelaySocket::stopped, &socket, [&stopped](RelaySocket::Stop kind, const QString &text) {
            stopped = {kind, text, true};
        });
    };

    // The host does not answer while it is stopped: the client end waits
    // alone until its pair deadline.
    const pid_t host = pid_t(m_host->process.processId());
    QCOMPARE(::kill(host, SIGSTOP), 0);
    QString relayId;
    const QString lone = ticket(&relayId);
    QVERIFY(!lone.isEmpty());
    {
        RelaySocket waiting;
        Stopped stopped;
        watch(waiting, stopped);
        waiting.setPairDeadline(1500);
        waiting.open(address, lone);
        QVERIFY(pumpUntil([&] { return waiting.isConnected(); }, kWait));
        // A second socket with the same ticket while the first holds its end.
        RelaySocket again;
        Stopped refused;
        watch(again, refused);
        again.open(address, lone);
        QVERIFY(pumpUntil([&] { return refused.seen; }, kWait));
        QCOMPARE(refused.kind, RelaySocket::Stop::Rejected);
        QVERIFY(pumpUntil([&] { return stopped.seen; }, kWait));
        QCOMPARE(stopped.kind, RelaySocket::Stop::PeerAbsent);
        QCOMPARE(stopped.text, QStringLiteral("The remote computer did not join the relay. Check that it is online "
                                              "and that Live Relay is allowed on that port."));
    }
    // Its end gone, the ticket admits nobody again.
    {
        RelaySocket late;
        Stopped stopped;
        watch(late, stopped);
        late.open(address, lone);
        QVERIFY(pumpUntil([&] { return stopped.seen; }, kWait));
        QCOMPARE(stopped.kind, RelaySocket::Stop::Transport);
        QCOMPARE(stopped.text, QStringLiteral("ticket already used"));
    }
    QCOMPARE(::kill(host, SIGCONT), 0);
    // The host wakes to its old command; that relay ends without a partner.
    QVERIFY(pumpUntil([this] { return !targetPort().value("relay_busy").toBool(); }, kWait));

    // Paired with the host: a 20000-byte write reaches it as three messages.
    QVERIFY(!m_host->ask("trace-messages 1").isEmpty());
    QString fresh;
    QVERIFY(pumpUntil([&] { return !(fresh = ticket()).isEmpty(); }, kWait));
    RelaySocket client;
    Stopped stopped;
    watch(client, stopped);
    client.open(address, fresh);
    QVERIFY(pumpUntil([&] { return client.isPaired() || stopped.seen; }, kWait));
    QVERIFY2(client.isPaired(), qPrintable(stopped.text));
    const qsizetype from = m_host->lines.size();
    QCOMPARE(client.send(randomBytes(20000, 3)), qint64(20000));
    QByteArray atFar;
    QVERIFY(pumpUntil([&] { return (atFar += m_far->readAll()).size() >= 20000; }, kWait));
    QCOMPARE(atFar, randomBytes(20000, 3));
    // The host's own "relay" line may land among them: only message sizes count.
    const auto messages = [&] {
        QList<QByteArray> sizes;
        for (const QByteArray &line : m_host->lines.mid(from)) {
            if (line.startsWith("message "))
                sizes.append(line);
        }
        return sizes;
    };
    QVERIFY(pumpUntil([&] { return messages().size() >= 3; }, kWait));
    QCOMPARE(messages(), (QList<QByteArray>{"message 8192", "message 8192", "message 3616"}));
    client.close();
}

void RelayProgramsTest::anInviteGuestMovesAMebibyteUntilTheShareEnds_data()
{
    QTest::addColumn<QByteArray>("end");
    QTest::newRow("the owner stops sharing") << QByteArray("unshare");
    QTest::newRow("the owner disconnects the guest") << QByteArray("disconnect");
}

void RelayProgramsTest::anInviteGuestMovesAMebibyteUntilTheShareEnds()
{
    QFETCH(QByteArray, end);
    QCOMPARE(startComputers(topology(QStringLiteral("one instance"))), QString());
    const QByteArray shared = m_host->ask("share none 4711 relay", "share");
    QVERIFY2(shared.startsWith("share {"), shared.constData());
    const QJsonObject share = QJsonDocument::fromJson(shared.mid(6)).object();
    // The guest: another program with no account at all.
    NetworkServices guestNetwork;

    ClientPane wrong(&guestNetwork);
    QVERIFY(wrong.openToInvite(share.value("link").toString(), QStringLiteral("0000"), QStringLiteral("Grace")));
    QVERIFY(pumpUntil([&] { return !wrong.failures.isEmpty(); }, kWait));
    QVERIFY2(!wrong.isOpen() && !wrong.failures.first().isEmpty(), "a wrong passcode opened the relay");

    ClientPane pane(&guestNetwork);
    QVERIFY(pane.openToInvite(share.value("code").toString(), QStringLiteral("4711"), QStringLiteral("Grace")));
    QVERIFY(pumpUntil([&] { return pane.isOpen() || !pane.failures.isEmpty(); }, kWait));
    QVERIFY2(pane.isOpen(), qPrintable(pane.failures.join('\n')));
    QVERIFY(!pane.guestToken.isEmpty());
    exchange(pane, 1024 * 1024);

    // The guest is told by the service whichever way the owner ends it.
    QVERIFY(!m_host->ask(end + ' ' + share.value("share_id").toString().toUtf8()).isEmpty());
    QVERIFY(pumpUntil([&] { return !pane.failures.isEmpty(); }, kWait));
    QCOMPARE(pane.failures, QStringList{QStringLiteral("The remote end disconnected.")});
}

QTEST_GUILESS_MAIN(RelayProgramsTest)
#include "tst_relayprograms.moc"
