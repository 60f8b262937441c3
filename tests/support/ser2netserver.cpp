#include "support/ser2netserver.h"

#include "support/listenport.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QStandardPaths>
#include <QTest>

Ser2netServer::~Ser2netServer()
{
    stop();
}

quint16 Ser2netServer::freeLoopbackPort()
{
    return unusedListenPort();
}

bool Ser2netServer::start(const QString &device, Protocol protocol, quint16 port)
{
    const QString program = QStandardPaths::findExecutable(QStringLiteral("ser2net"));
    if (program.isEmpty()) {
        m_error = QStringLiteral("ser2net is not installed (scripts/setup.sh installs it)");
        return false;
    }
    QString accepter;
    switch (protocol) {
    case Protocol::Rfc2217: accepter = QStringLiteral("telnet(rfc2217),tcp"); break;
    case Protocol::Telnet: accepter = QStringLiteral("telnet,tcp"); break;
    case Protocol::RawTcp: accepter = QStringLiteral("tcp"); break;
    }
    // Another process may take a probed port before ser2net binds it: a
    // free port is tried a few times; a given one is retried while the old
    // listener lets go of it.
    for (int attempt = 0; attempt < 5; ++attempt) {
        m_port = port ? port : freeLoopbackPort();
        const QString config = m_dir.filePath(QStringLiteral("ser2net.yaml"));
        QFile file(config);
        if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
            m_error = file.errorString();
            return false;
        }
        file.write(QStringLiteral("connection: &port\n"
                                  "    accepter: %1,127.0.0.1,%2\n"
                                  "    connector: serialdev,%3,115200n81,local\n")
                       .arg(accepter)
                       .arg(m_port)
                       .arg(device)
                       .toUtf8());
        file.close();
        m_process.setProcessChannelMode(QProcess::MergedChannels);
        m_process.start(program, {QStringLiteral("-d"), QStringLiteral("-l"), QStringLiteral("-c"), config});
        if (!m_process.waitForStarted(3000)) {
            m_error = m_process.errorString();
            return false;
        }
        if (waitUntilListening())
            return true;
        m_error = QStringLiteral("ser2net did not listen: %1").arg(QString::fromLocal8Bit(m_process.readAll()));
        stop();
        if (port)
            QTest::qWait(200);
    }
    return false;
}

void Ser2netServer::stop()
{
    if (m_process.state() == QProcess::NotRunning)
        return;
    m_process.terminate();
    if (!m_process.waitForFinished(3000)) {
        m_process.kill();
        m_process.waitForFinished(3000);
    }
}

bool Ser2netServer::waitUntilListening()
{
    // Watched from outside rather than probed with a connection: a probe
    // makes ser2net open the device and close it again, and a test's own
    // connection arriving while that close is still under way is refused
    // (one connection per port), its bytes going nowhere.
    QDeadlineTimer deadline(3000);
    while (!deadline.hasExpired() && m_process.state() == QProcess::Running) {
        if (isListening())
            return true;
        QTest::qWait(20);
    }
    return false;
}

bool Ser2netServer::isListening() const
{
    // The kernel's table of TCP sockets: a row in the listening state (0A)
    // on our loopback port whose socket is one of ser2net's own files.
    QFile table(QStringLiteral("/proc/net/tcp"));
    if (!table.open(QIODevice::ReadOnly | QIODevice::Text))
        return false;
    const QByteArray local = QStringLiteral("0100007F:%1").arg(m_port, 4, 16, QLatin1Char('0')).toUpper().toLatin1();
    QByteArrayList inodes;
    table.readLine();  // column titles
    while (!table.atEnd()) {
        const QByteArrayList fields = table.readLine().simplified().split(' ');
        if (fields.size() > 9 && fields.at(1) == local && fields.at(3) == "0A")
            inodes << fields.at(9);
    }
    if (inodes.isEmpty())
        return false;
    const QString fdFolder = QStringLiteral("/proc/%1/fd").arg(m_process.processId());
    const QStringList fds = QDir(fdFolder).entryList(QDir::Files | QDir::System | QDir::NoDotAndDotDot);
    for (const QString &fd : fds) {
        const QByteArray target = QFile::symLinkTarget(fdFolder + u'/' + fd).toLatin1();
        for (const QByteArray &inode : std::as_const(inodes))
            if (target.endsWith("socket:[" + inode + "]"))
                return true;
    }
    return false;
}
