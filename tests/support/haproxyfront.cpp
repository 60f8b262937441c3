#include "haproxyfront.h"

#include <QFile>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

int inheritableListener(quint16 &port)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 || ::listen(fd, 128) != 0
        || ::getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length) != 0) {
        if (fd >= 0)
            ::close(fd);
        return -1;
    }
    port = ntohs(address.sin_port);
    return fd;
}

HaproxyFront::~HaproxyFront()
{
    stop();
}

bool HaproxyFront::fail(const QString &text)
{
    m_error = text;
    stop();
    return false;
}

bool HaproxyFront::start(const QString &shippedConfig, const QList<Server> &servers, int fronts,
                         const QString &tlsBundle, const QByteArray &extraBackendLines)
{
    for (int i = 0; i < fronts; ++i) {
        quint16 port = 0;
        const int fd = inheritableListener(port);
        if (fd < 0)
            return fail(QStringLiteral("no listening socket for haproxy"));
        m_listeners.append(fd);
        m_ports.append(port);
    }
    QFile shipped(shippedConfig);
    if (!shipped.open(QIODevice::ReadOnly | QIODevice::Text))
        return fail(QStringLiteral("cannot read %1").arg(shippedConfig));
    QByteArray text;
    int named = 0;
    bool bound = false;
    for (const QByteArray &line : shipped.readAll().split('\n')) {
        const QByteArray word = line.simplified();
        if (word.startsWith("log /dev/log") || word.startsWith("user ") || word.startsWith("group ")
            || word == "daemon" || word.startsWith("bind :80"))
            continue;
        // Plain HTTP in a test is not to be sent elsewhere.
        if (tlsBundle.isEmpty() && word.startsWith("http-request redirect scheme https"))
            continue;
        if (word.startsWith("bind :443 ssl crt ")) {
            for (const int fd : std::as_const(m_listeners)) {
                text += "    bind fd@" + QByteArray::number(fd);
                if (!tlsBundle.isEmpty())
                    text += " ssl crt " + QFile::encodeName(tlsBundle) + " alpn http/1.1";
                text += '\n';
            }
            bound = true;
        } else if (word.startsWith("server ")) {
            const QByteArray name = word.split(' ').value(1);
            if (named >= servers.size() || servers.at(named).name.toUtf8() != name)
                return fail(QStringLiteral("the shipped haproxy.cfg names server %1 where the test has another")
                                .arg(QString::fromUtf8(name)));
            text += "    server " + name + " 127.0.0.1:" + QByteArray::number(servers.at(named++).port) + '\n';
        } else {
            text += line + '\n';
        }
    }
    if (!bound || named != servers.size())
        return fail(QStringLiteral("the shipped haproxy.cfg changed its shape"));
    QByteArray extra = extraBackendLines;
    for (int i = 0; i < m_ports.size(); ++i)
        extra.replace("@FRONT" + QByteArray::number(i) + '@', QByteArray::number(m_ports.at(i)));
    text += extra;
    QFile config(m_dir.filePath(QStringLiteral("haproxy.cfg")));
    if (!config.open(QIODevice::WriteOnly) || config.write(text) != text.size())
        return fail(QStringLiteral("cannot write haproxy's configuration"));
    config.close();
    m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    m_process.start(QStringLiteral("haproxy"), {"-f", config.fileName(), "-db"});
    if (!m_process.waitForStarted(5000))
        return fail(QStringLiteral("haproxy (package haproxy) is not installed"));
    return true;
}

void HaproxyFront::stop()
{
    if (m_process.state() != QProcess::NotRunning) {
        m_process.terminate();
        if (!m_process.waitForFinished(5000))
            m_process.kill();
        m_process.waitForFinished(5000);
    }
    for (const int fd : std::as_const(m_listeners))
        ::close(fd);
    m_listeners.clear();
    m_ports.clear();
}
