// The real cloud service on a clock the browser tests move: the same options
// as tessaline-cloud, but the service's time is the system's plus an offset
// that grows when stdin says "advance <ms>" (answered "advanced <offset>" on
// stdout). A page can then see a share run out without the test waiting an
// hour.
#include "cloudservice.h"
#include "serviceconfig.h"
#include "servicelog.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDateTime>
#include <QProcessEnvironment>
#include <QSocketNotifier>

#include <atomic>
#include <cstdio>
#include <unistd.h>

namespace {

// Read from the storage workers as well as the loop.
std::atomic<qint64> offsetMs{0};

void say(const QByteArray &line)
{
    std::fwrite(line.constData(), 1, size_t(line.size()), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    ServiceOptions::declare(parser);
    parser.process(app);
    ServiceConfig config;
    QString error;
    if (!ServiceOptions::read(parser, QProcessEnvironment::systemEnvironment(), config, &error)) {
        std::fprintf(stderr, "steppedcloud: %s\n", qPrintable(error));
        return 2;
    }
    ServiceLog::install(config.logLevel);

    CloudService service;
    if (!service.start(config, &error, [] { return QDateTime::currentMSecsSinceEpoch() + offsetMs.load(); })) {
        qCCritical(lcService).noquote() << "cannot start:" << error;
        return 1;
    }
    qCInfo(lcService).noquote() << QStringLiteral("listening on %1:%2").arg(config.listenAddress.toString()).arg(service.port());

    QByteArray pending;
    QSocketNotifier commands(STDIN_FILENO, QSocketNotifier::Read);
    QObject::connect(&commands, &QSocketNotifier::activated, &app, [&] {
        char chunk[256];
        const ssize_t got = ::read(STDIN_FILENO, chunk, sizeof chunk);
        if (got <= 0) {
            app.quit();  // the test is gone
            return;
        }
        pending.append(chunk, got);
        for (qsizetype end; (end = pending.indexOf('\n')) >= 0; pending.remove(0, end + 1)) {
            const QByteArray line = pending.left(end).trimmed();
            if (line.startsWith("advance "))
                say("advanced " + QByteArray::number(offsetMs += line.mid(8).toLongLong()));
        }
    });
    return app.exec();
}
