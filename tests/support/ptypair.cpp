#include "support/ptypair.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>

namespace {
// Lock files of the serial library are named after the path, so the pair's
// names must differ between test processes running at the same time: the
// temporary folder's unique name takes care of that.
constexpr char kReadyLine[] = "starting data transfer loop";
}

PtyPair::PtyPair()
    : m_dir(QDir::tempPath() + QStringLiteral("/tsl-pty-XXXXXX"))
{
    m_pathA = m_dir.filePath(QStringLiteral("ttyA"));
    m_pathB = m_dir.filePath(QStringLiteral("ttyB"));
    m_socat.setProcessChannelMode(QProcess::SeparateChannels);
}

PtyPair::~PtyPair()
{
    stop(true);
}

bool PtyPair::start(int timeoutMs)
{
    m_error.clear();
    if (!m_dir.isValid()) {
        m_error = QStringLiteral("cannot create a temporary folder: %1").arg(m_dir.errorString());
        return false;
    }
    if (isRunning())
        return true;
    const QString socat = QStandardPaths::findExecutable(QStringLiteral("socat"));
    if (socat.isEmpty()) {
        m_error = QStringLiteral("socat is not installed (scripts/setup.sh installs it)");
        return false;
    }
    // Links left by a killed socat would make the new one fail.
    QFile::remove(m_pathA);
    QFile::remove(m_pathB);

    m_socat.start(socat, {QStringLiteral("-d"), QStringLiteral("-d"),
                          QStringLiteral("pty,raw,echo=0,link=%1").arg(m_pathA),
                          QStringLiteral("pty,raw,echo=0,link=%1").arg(m_pathB)});
    QDeadlineTimer deadline(timeoutMs);
    if (!m_socat.waitForStarted(int(deadline.remainingTime()))) {
        m_error = QStringLiteral("socat did not start: %1").arg(m_socat.errorString());
        return false;
    }
    QByteArray log;
    while (!deadline.hasExpired()) {
        m_socat.waitForReadyRead(int(qMin<qint64>(50, qMax<qint64>(1, deadline.remainingTime()))));
        log += m_socat.readAllStandardError();
        if (log.contains(kReadyLine) && QFileInfo::exists(m_pathA) && QFileInfo::exists(m_pathB))
            return true;
        if (m_socat.state() == QProcess::NotRunning)
            break;
    }
    m_error = QStringLiteral("socat did not make the pty pair in %1 ms: %2")
                  .arg(timeoutMs)
                  .arg(QString::fromLocal8Bit(log).trimmed());
    stop(false);
    return false;
}

void PtyPair::kill()
{
    stop(false);
}

void PtyPair::terminate()
{
    stop(true);
}

bool PtyPair::restart(int timeoutMs)
{
    stop(true);
    return start(timeoutMs);
}

bool PtyPair::isRunning() const
{
    return m_socat.state() != QProcess::NotRunning;
}

void PtyPair::stop(bool politely)
{
    if (m_socat.state() == QProcess::NotRunning)
        return;
    if (politely)
        m_socat.terminate();
    else
        m_socat.kill();
    if (!m_socat.waitForFinished(3000)) {
        m_socat.kill();
        m_socat.waitForFinished(3000);
    }
}
