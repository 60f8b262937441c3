#include "support/lrzszpeer.h"

#include <QFile>
#include <QSignalSpy>

LrzszPeer::LrzszPeer() = default;

LrzszPeer::~LrzszPeer()
{
    if (m_socat.state() != QProcess::NotRunning) {
        m_socat.kill();
        m_socat.waitForFinished(3000);
    }
}

QString LrzszPeer::shellQuote(const QString &text)
{
    QString quoted = text;
    quoted.replace(QLatin1String("'"), QLatin1String("'\\''"));
    return QLatin1Char('\'') + quoted + QLatin1Char('\'');
}

bool LrzszPeer::start(const QString &address, const QString &folder, const QString &command)
{
    if (!m_scripts.isValid())
        return false;
    const QString script = m_scripts.filePath(QStringLiteral("peer.sh"));
    m_statusFile = m_scripts.filePath(QStringLiteral("peer.status"));
    QFile::remove(m_statusFile);
    QFile file(script);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    file.write(QStringLiteral("#!/bin/sh\ncd %1 || exit 1\n%2\necho $? > %3\n")
                   .arg(shellQuote(folder), command, shellQuote(m_statusFile))
                   .toUtf8());
    file.close();
    file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    m_socat.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    m_socat.start(QStringLiteral("socat"), {address, QStringLiteral("EXEC:%1").arg(script)});
    return m_socat.waitForStarted(5000);
}

int LrzszPeer::waitForExit(int timeoutMs)
{
    // An event loop, not a blocking wait: the other end of the link may be
    // served by this very thread.
    QSignalSpy exited(&m_socat, &QProcess::finished);
    const bool left = m_socat.state() == QProcess::NotRunning || exited.wait(timeoutMs);
    if (!left) {
        m_socat.kill();
        m_socat.waitForFinished(3000);
        return -1;
    }
    QFile status(m_statusFile);
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    bool ok = false;
    const int code = status.readAll().trimmed().toInt(&ok);
    return ok ? code : -1;
}
