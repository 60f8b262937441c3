// A computer with Live Console on, for the browser tests and the Live Relay
// tests: the program's real CloudConsoleService with one pane (a
// PortSession) on a socat pty pair, signed in to the service given on the
// command line, with its own settings folder. The far end of the pty is
// driven over a line protocol on stdin/stdout, so a test in another
// language (or another process) can play the device:
//   stdout: "ready <json>" once Live Console's socket is up ({cid, port_key});
//           "far <hex>" for bytes that reached the far end; "watching 0|1";
//           "relay <port_key>" when a relay engages, "relay-ended <port_key>";
//           "message <size>" for each message the relay brings while traced;
//           "error <text>" before a non-zero exit.
//   stdin:  "write <hex>" writes bytes at the far end;
//           "allow-send 0|1" switches "Allow Remote Send", "allow-control 0|1"
//           "Allow Remote Port Control", "allow-relay 0|1" Live Relay (each
//           answered "ok"); "trace-messages 0|1" reports the relay's
//           messages from the next relay on ("ok");
//           "share <web> <passcode or -> [relay]" shares the pane for an hour
//           (with "relay": to a guest's Tessaline too), answered by
//           "share <json>" ({share_id, code, link}) or "share-failed <text>";
//           "unshare <share_id>" stops sharing; "disconnect <share_id>" ends
//           its relay guest's session ("ok" or "no-guest"); "close" closes the pane's
//           port ("ok"); "quit".
// With --port the pane opens that device instead, and its far end belongs to
// whoever started this program ("write" is then refused).
#include "cloud/accountsession.h"
#include "cloud/cloudconsoleservice.h"
#include "cloud/consolesocket.h"
#include "cloud/guestsharekeeper.h"
#include "cloud/networkservices.h"
#include "cloud/relaycommand.h"
#include "cloud/relaycontroller.h"
#include "support/ptypair.h"
#include "support/settingssandbox.h"
#include "terminal/portsession.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSerialPort>
#include <QSettings>
#include <QSocketNotifier>
#include <QTimer>

#include <cstdio>
#include <memory>
#include <unistd.h>

namespace {

void say(const QByteArray &line)
{
    std::fwrite(line.constData(), 1, size_t(line.size()), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

[[noreturn]] void fail(const QString &text)
{
    say("error " + text.toUtf8());
    std::exit(1);
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    SettingsSandbox sandbox;
    QCommandLineParser parser;
    parser.addOptions({{"service", "service base URL", "url"},
                       {"email", "account e-mail", "email"},
                       {"password", "account password", "password"},
                       {"port", "serial device for the pane instead of a pty of its own", "path"}});
    parser.process(app);
    qputenv("TSL_HOST", parser.value("service").toUtf8());
    constexpr int kStartMs = 15000;

    NetworkServices network;
    AccountSession account(&network);
    const bool ownPty = !parser.isSet("port");
    PtyPair pty;
    if (ownPty && !pty.start())
        fail(pty.errorText());
    PortSession port(1);
    ConnectionConfig config;
    config.portName = ownPty ? pty.pathA() : parser.value("port");
    config.baudRate = 115200;
    port.applySettings(config, {}, {});
    if (!port.openConnection())
        fail(QStringLiteral("the pane's port did not open"));
    QSerialPort far(ownPty ? pty.pathB() : QString());
    if (ownPty && !far.open(QIODevice::ReadWrite))
        fail(far.errorString());
    QObject::connect(&far, &QSerialPort::readyRead, [&far] { say("far " + far.readAll().toHex()); });
    // Nobody looks at the pane: what it shows is taken as a view would.
    QTimer view;
    view.setInterval(50);
    QObject::connect(&view, &QTimer::timeout, &app, [&port] { port.takeForView(-1, -1); });
    view.start();

    CloudConsoleService console(&network, &account, [&port] { return QList<PortSession *>{&port}; });
    // A browser test waits for each byte: upload often, not on the 2 s tick.
    CloudConsoleService::Timing timing;
    timing.uploadMs = 100;
    timing.snapshotSettleMs = 10;
    timing.shareCreateMs = 20;
    console.setTiming(timing);
    RelayCommand::addTo(console, [&port] { return QList<PortSession *>{&port}; }, &NetworkServices::baseUrl);
    bool traceMessages = false;
    QObject::connect(&console, &CloudConsoleService::relayEngaged, &app,
                     [&port, &traceMessages](const QString &portKey, const QString &) {
                         say("relay " + portKey.toUtf8());
                         RelayController *relay = RelayController::of(&port);
                         if (traceMessages && relay)
                             QObject::connect(relay->socket(), &RelaySocket::binaryReceived, relay,
                                              [](const QByteArray &bytes) { say("message " + QByteArray::number(bytes.size())); });
                     });
    QObject::connect(&console, &CloudConsoleService::relayEnded, &app,
                     [](const QString &portKey) { say("relay-ended " + portKey.toUtf8()); });
    GuestShareKeeper *shares = console.shares();
    QObject::connect(shares, &GuestShareKeeper::shareCreated, &app, [](const GuestShare &share) {
        say("share " + QJsonDocument(QJsonObject{{"share_id", share.shareId}, {"code", share.code}, {"link", share.link}})
                           .toJson(QJsonDocument::Compact));
    });
    QObject::connect(shares, &GuestShareKeeper::shareFailed, &app,
                     [](const QString &message) { say("share-failed " + message.toUtf8()); });

    QObject::connect(&network, &NetworkServices::accountResponse, &app, [&](const QJsonObject &reply) {
        if (!reply.value("status").toBool())
            fail(QStringLiteral("sign-in refused: ") + reply.value("description").toString());
        account.applyLogin(reply);
        console.setEnabled(true);
    });
    QTimer readiness;
    readiness.setInterval(20);
    QObject::connect(&readiness, &QTimer::timeout, &app, [&] {
        if (!console.socket()->isReady())
            return;
        readiness.stop();
        say("ready " + QJsonDocument(QJsonObject{{"cid", console.cid()}, {"port_key", port.portKey()}})
                           .toJson(QJsonDocument::Compact));
    });
    readiness.start();
    QTimer::singleShot(kStartMs, &app, [&] {
        if (readiness.isActive())
            fail(QStringLiteral("Live Console's socket did not come up"));
    });
    bool watching = false;
    QTimer watchLook;
    watchLook.setInterval(20);
    QObject::connect(&watchLook, &QTimer::timeout, &app, [&] {
        if (console.isWatching() != watching) {
            watching = console.isWatching();
            say(watching ? "watching 1" : "watching 0");
        }
    });
    watchLook.start();

    QByteArray input;
    QSocketNotifier stdinReady(STDIN_FILENO, QSocketNotifier::Read);
    QObject::connect(&stdinReady, &QSocketNotifier::activated, &app, [&] {
        char chunk[4096];
        const ssize_t got = ::read(STDIN_FILENO, chunk, sizeof chunk);
        if (got <= 0) {
            app.quit();  // the test went away
            return;
        }
        input.append(chunk, got);
        for (qsizetype end; (end = input.indexOf('\n')) >= 0;) {
            const QByteArray line = input.left(end).trimmed();
            input.remove(0, end + 1);
            if (line.startsWith("write ")) {
                if (far.isOpen())
                    far.write(QByteArray::fromHex(line.mid(6)));
                else
                    say("error the far end is not this program's");
            } else if (line.startsWith("allow-send ")) {
                QSettings().setValue(QStringLiteral("CloudConsoleAllowRemoteSend"), line.endsWith('1'));
                say("ok");
            } else if (line.startsWith("allow-control ")) {
                QSettings().setValue(QStringLiteral("CloudConsoleAllowPortControl"), line.endsWith('1'));
                say("ok");
            } else if (line.startsWith("allow-relay ")) {
                QSettings().setValue(QStringLiteral("CloudConsoleAllowRelay"), line.endsWith('1'));
                console.consentChanged();
                say("ok");
            } else if (line.startsWith("trace-messages ")) {
                traceMessages = line.endsWith('1');
                say("ok");
            } else if (line == "close") {
                port.closeConnection();
                say("ok");
            } else if (line.startsWith("share ")) {
                const QList<QByteArray> words = line.split(' ');
                const QString passcode = words.value(2) == "-" ? QString() : QString::fromUtf8(words.value(2));
                const Result asked = shares->requestShare({port.portKey(), 3600, QStringLiteral("bench board"), passcode,
                                                           QString::fromUtf8(words.value(1)), words.value(3) == "relay"});
                if (!asked)
                    say("share-failed " + asked.errorText().toUtf8());
            } else if (line.startsWith("disconnect ")) {
                // The guest is known from the share listing, as the dialog knows it:
                // ask for it, then try for a while.
                const QString shareId = QString::fromUtf8(line.mid(11));
                shares->refreshShares();
                auto *retry = new QTimer(&app);
                auto tries = std::make_shared<int>(0);
                retry->setInterval(100);
                QObject::connect(retry, &QTimer::timeout, &app, [retry, tries, shares, shareId] {
                    const bool done = shares->disconnectGuest(shareId);
                    if (done || ++*tries >= 50) {
                        say(done ? "ok" : "no-guest");
                        retry->deleteLater();
                    } else if (*tries % 10 == 0) {
                        shares->refreshShares();
                    }
                });
                retry->start();
            } else if (line.startsWith("unshare ")) {
                shares->stopShare(QString::fromUtf8(line.mid(8)));
                say("ok");
            } else if (line == "quit") {
                app.quit();
            }
        }
    });

    network.signIn({}, parser.value("email"), parser.value("password"),
                   QString::number(AccountSession::deviceValue()), QStringLiteral("6.6.7"));
    return app.exec();
}
