// tessaline-cloud: the self-hostable cloud service of Tessaline.
#include "accountservice.h"
#include "buildinfo.h"
#include "cloudservice.h"
#include "serviceconfig.h"
#include "servicelog.h"
#include "storage.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QProcessEnvironment>
#include <QSocketNotifier>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <sys/resource.h>
#include <unistd.h>

namespace {

int signalPipe[2] = {-1, -1};

void onSignal(int)
{
    const char byte = 1;
    [[maybe_unused]] const auto written = ::write(signalPipe[1], &byte, 1);
}

// SIGTERM and SIGINT end the event loop so the database is closed cleanly.
void quitOnSignals(QCoreApplication &app)
{
    if (::pipe(signalPipe) != 0)
        return;
    auto *notifier = new QSocketNotifier(signalPipe[0], QSocketNotifier::Read, &app);
    QObject::connect(notifier, &QSocketNotifier::activated, &app, [&app] {
        char byte;
        [[maybe_unused]] const auto got = ::read(signalPipe[0], &byte, 1);
        qCInfo(lcService) << "stopping";
        app.quit();
    });
    std::signal(SIGTERM, onSignal);
    std::signal(SIGINT, onSignal);
}

// Descriptors beyond the connections: database connections, the log,
// SMTP, the listening socket.
constexpr int kReservedDescriptors = 128;

// Raises the soft descriptor limit as far as the connection cap needs (the
// hard limit allowing) and warns when that is still too low: beyond the
// limit, new connections wait until one closes.
void checkDescriptorLimit(const ServiceConfig &config)
{
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return;
    const rlim_t wanted = rlim_t(config.maxConnections) + kReservedDescriptors + rlim_t(config.databaseThreads);
    if (limit.rlim_cur < wanted) {
        rlimit raised = limit;
        raised.rlim_cur = std::min(wanted, limit.rlim_max);
        if (::setrlimit(RLIMIT_NOFILE, &raised) == 0)
            limit = raised;
    }
    if (limit.rlim_cur < wanted)
        qCWarning(lcService).noquote()
            << QStringLiteral("this process may open %1 files, but %2 connections need about %3: raise LimitNOFILE "
                              "(or ulimit -n) or lower --max-connections")
                   .arg(qulonglong(limit.rlim_cur))
                   .arg(config.maxConnections)
                   .arg(qulonglong(wanted));
}

// Every request waits on the event loop, and its turns are short. Where
// the process may (LimitNICE in the unit, or CAP_SYS_NICE), the loop's
// thread runs ahead of the worker threads and of other processes, so a
// busy machine keeps it waiting for a core less. The worker threads were
// started before and keep their own priority.
constexpr int kLoopNiceness = -5;

void favourTheLoop()
{
    if (::setpriority(PRIO_PROCESS, pid_t(::gettid()), kLoopNiceness) != 0)
        qCDebug(lcService) << "the event loop keeps the default priority";
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("tessaline-cloud"));
    QCoreApplication::setApplicationVersion(QLatin1String(BuildInfo::kVersion));

    QCommandLineParser parser;
    ServiceOptions::declare(parser);
    parser.process(app);

    ServiceConfig config;
    QString error;
    if (!ServiceOptions::read(parser, QProcessEnvironment::systemEnvironment(), config, &error)) {
        std::fprintf(stderr, "tessaline-cloud: %s\n", qPrintable(error));
        return 2;
    }
    ServiceLog::install(config.logLevel);

    if (!config.approveEmail.isEmpty() || config.listPending) {
        // Administration runs against the database without listening.
        Storage storage;
        if (!storage.open(config.database, &error)) {
            qCCritical(lcService).noquote() << "cannot open the database:" << error;
            return 1;
        }
        if (config.listPending) {
            QList<UserRow> users;
            if (!storage.pendingUsers(users))
                return 1;
            for (const UserRow &user : std::as_const(users))
                std::printf("%s\t%s\n", qPrintable(user.email), qPrintable(user.username));
            return 0;
        }
        if (!storage.setUserState(config.approveEmail, QStringLiteral("active"))) {
            qCCritical(lcService).noquote() << "no account" << config.approveEmail;
            return 1;
        }
        qCInfo(lcService).noquote() << "approved" << config.approveEmail;
        return 0;
    }

    checkDescriptorLimit(config);
    CloudService service;
    if (!service.start(config, &error)) {
        qCCritical(lcService).noquote() << "cannot start:" << error;
        return 1;
    }
    qCInfo(lcService).noquote() << QStringLiteral("listening on %1:%2, database %3%4%5")
                                       .arg(config.listenAddress.toString())
                                       .arg(service.port())
                                       .arg(config.database.startsWith(QLatin1String("postgres"))
                                                ? QStringLiteral("PostgreSQL")
                                                : config.database,
                                            config.smtp.isConfigured() ? QStringLiteral(", codes by SMTP")
                                                                       : QStringLiteral(", codes in this log"),
                                            config.approvalMode ? QStringLiteral(", approval mode") : QString());
    favourTheLoop();
    quitOnSignals(app);
    return app.exec();
}
