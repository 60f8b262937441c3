#include "postgrescluster.h"

#include <QDir>
#include <QFile>
#include <QProcess>

#include <unistd.h>

namespace {
const QString kBin = QStringLiteral("/usr/lib/postgresql/15/bin");
}

PostgresCluster::~PostgresCluster()
{
    stop();
}

bool PostgresCluster::runAsOwner(const QString &program, const QStringList &arguments)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    if (::geteuid() == 0)
        process.start(QStringLiteral("runuser"), QStringList{"-u", m_user, "--", program} + arguments);
    else
        process.start(program, arguments);
    const bool ok = process.waitForFinished(60000) && process.exitStatus() == QProcess::NormalExit
                    && process.exitCode() == 0;
    if (!ok)
        m_error = program + QLatin1String(": ") + QString::fromLocal8Bit(process.readAll().right(2000));
    return ok;
}

bool PostgresCluster::start()
{
    if (!QFile::exists(kBin + QStringLiteral("/initdb"))) {
        m_error = QStringLiteral("PostgreSQL 15 (package postgresql) is not installed");
        return false;
    }
    m_user = ::geteuid() == 0 ? QStringLiteral("nobody") : qEnvironmentVariable("USER");
    const QString data = m_dir.filePath(QStringLiteral("data"));
    const QString sockets = m_dir.filePath(QStringLiteral("run"));
    if (!QDir().mkpath(sockets))
        return false;
    if (::geteuid() == 0) {
        if (QProcess::execute(QStringLiteral("chown"), {"-R", m_user, m_dir.path()}) != 0)
            return false;
        QFile::setPermissions(m_dir.path(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner | QFile::ExeGroup
                                                | QFile::ExeOther);
    }
    if (!runAsOwner(kBin + QStringLiteral("/initdb"),
                    {"-D", data, "-U", m_user, "--auth=trust", "--no-sync", "-E", "UTF8"}))
        return false;
    // Only the socket file is named by the port; nothing listens on TCP.
    const int port = 20000 + int(::getpid() % 20000);
    const QString options = QStringLiteral("-k %1 -p %2 -c listen_addresses='' -c fsync=off").arg(sockets).arg(port);
    if (!runAsOwner(kBin + QStringLiteral("/pg_ctl"),
                    {"-D", data, "-w", "-t", "30", "-l", m_dir.filePath("pg.log"), "-o", options, "start"}))
        return false;
    m_running = true;
    m_url = QStringLiteral("postgresql://%1@/postgres?host=%2&port=%3").arg(m_user, sockets).arg(port);
    return true;
}

void PostgresCluster::stop()
{
    if (!m_running)
        return;
    m_running = false;
    runAsOwner(kBin + QStringLiteral("/pg_ctl"), {"-D", m_dir.filePath("data"), "-m", "immediate", "-w", "stop"});
}
