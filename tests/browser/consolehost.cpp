// A computer with Live Console on, for the browser tests: the program's real
// CloudConsoleService with one pane (a PortSession) on a socat pty pair,
// signed in to the service given on the command line. The far end of the pty
// is driven over a line protocol on stdin/stdout, so a test in another
// language can play the device:
//   stdout: "ready <json>" once Live Console's socket is up ({cid, port_key});
//           "far <hex>" for bytes that reached the far end; "watching 0|1";
//           "error <text>" before a non-zero exit.
//   stdin:  "write <hex>" writes bytes at the far end;
//           "allow-send 0|1" switches "Allow Remote Send", "allow-control 0|1"
//           "Allow Remote Port Control" (each answered "ok");
//           "share <web> <passcode or ->" shares the pane for an hour, answered
//           by "share <json>" ({share_id, code, link}) or "share-failed <text>";
//           "unshare <share_id>" stops sharing; "quit".
#include "cloud/accountsession.h"
#include "cloud/cloudconsoleservice.h"
#include "cloud/consolesocket.h"
#include "cloud/guestsharekeeper.h"
#include "cloud/networkservices.h"
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
                       {"password", "account password", "password"}});
    parser.process(app);
    qputenv("TSL_HOST", parser.value("service").toUtf8());
    constexpr int kStartMs = 15000;

    NetworkServices network;
    AccountSession account(&network);
    PtyPair pty;
    if (!pty.start())
        fail(pty.errorText());
    PortSession port(1);
    ConnectionConfig config;
    config.portName = pty.pathA();
    config.baudRate = 115200;
    port.applySettings(config, {}, {});
    if (!port.openConnection())
        fail(QStringLiteral("the pane's port did not open"));
    QSerialPort far(pty.pathB());
    if (!far.open(QIODevice::ReadWrite))
        fail(far.errorString());
    QObject::connect(&far, &QSerialPort::readyRead, [&far] { say("far " + far.readAll().toHex()); });

    CloudConsoleService console(&network, &account, [&port] { return QList<PortSession *>{&port}; });
    // A browser test waits for each byte: upload often, not on the 2 s tick.
    CloudConsoleService::Timing timing;
    timing.uploadMs = 100;
    timing.snapshotSettleMs = 10;
    timing.shareCreateMs = 20;
    console.setTiming(timing);
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
                far.write(QByteArray::fromHex(line.mid(6)));
            } else if (line.startsWith("allow-send ")) {
                QSettings().setValue(QStringLiteral("CloudConsoleAllowRemoteSend"), line.endsWith('1'));
                say("ok");
            } else if (line.startsWith("allow-control ")) {
                QSettings().setValue(QStringLiteral("CloudConsoleAllowPortControl"), line.endsWith('1'));
                say("ok");
            } else if (line.startsWith("share ")) {
                const QList<QByteArray> words = line.split(' ');
                const QString passcode = words.value(2) == "-" ? QString() : QString::fromUtf8(words.value(2));
                const Result asked = shares->requestShare({port.portKey(), 3600, QStringLiteral("bench board"), passcode,
                                                           QString::fromUtf8(words.value(1)), false});
                if (!asked)
                    say("share-failed " + asked.errorText().toUtf8());
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
