#pragma once

// What the service's benchmarks share: tessaline-cloud as its own process,
// a throwaway PostgreSQL cluster, haproxy in front, and a blocking request
// for the set-up (never for a measurement).
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QTcpSocket>

#include <cstdio>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

inline const QString kPostgresBin = QStringLiteral("/usr/lib/postgresql/15/bin");

// A blocking request for the set-up, outside the measurement.
inline QJsonObject call(quint16 port, const QByteArray &path, const QJsonObject &body, const QByteArray &method = "POST",
                        const QString &token = {})
{
    QTcpSocket socket;
    socket.connectToHost(QHostAddress::LocalHost, port);
    if (!socket.waitForConnected(5000))
        return {};
    const QByteArray data = QJsonDocument(body).toJson(QJsonDocument::Compact);
    const QByteArray authorization = token.isEmpty() ? QByteArray() : "Authorization: Bearer " + token.toLatin1() + "\r\n";
    socket.write(method + ' ' + path + " HTTP/1.1\r\nHost: x\r\nConnection: close\r\n" + authorization
                 + "Content-Length: " + QByteArray::number(method == "GET" ? 0 : data.size()) + "\r\n\r\n"
                 + (method == "GET" ? QByteArray() : data));
    QByteArray reply;
    while (socket.waitForReadyRead(10000))
        reply += socket.readAll();
    reply += socket.readAll();
    return QJsonDocument::fromJson(reply.mid(reply.indexOf("\r\n\r\n") + 4)).object();
}

// tessaline-cloud as its own process; its log is read as it comes.
class Service
{
public:
    ~Service() { stop(); }
    bool start(const QStringList &arguments)
    {
        m_process.setProcessChannelMode(QProcess::SeparateChannels);
        QObject::connect(&m_process, &QProcess::readyReadStandardError, [this] { read(); });
        m_process.start(QStringLiteral(TSL_CLOUD_BINARY), QStringList{"--listen", "127.0.0.1:0"} + arguments);
        const QRegularExpression listening(QStringLiteral("listening on 127\\.0\\.0\\.1:(\\d+)"));
        QElapsedTimer waited;
        waited.start();
        while (m_port == 0 && waited.elapsed() < 15000 && m_process.state() != QProcess::NotRunning) {
            m_process.waitForReadyRead(100);
            read();
            m_port = quint16(listening.match(QString::fromUtf8(m_log)).captured(1).toUInt());
        }
        if (m_port == 0)
            std::fprintf(stderr, "the service did not start\n%s\n", m_log.constData());
        return m_port != 0;
    }
    // The newest registration code the log shows for `email`.
    QString codeFor(const QString &email)
    {
        const QRegularExpression line(QStringLiteral("code for %1: (\\d+)").arg(QRegularExpression::escape(email)));
        QString code;
        for (int i = 0; i < 100 && code.isEmpty(); ++i) {
            m_process.waitForReadyRead(50);
            read();
            code = line.match(QString::fromUtf8(m_log)).captured(1);
        }
        return code;
    }
    // From now on only the lines that matter to the figures are kept.
    void keepLogShort() { m_short = true; }
    // Stops the service; the longest event-loop stall it reported.
    qint64 stop()
    {
        if (m_process.state() == QProcess::NotRunning)
            return m_stallMs;
        m_process.terminate();
        m_process.waitForFinished(10000);
        read();
        return m_stallMs;
    }
    quint16 port() const { return m_port; }
    qint64 pid() const { return m_process.processId(); }

private:
    void read()
    {
        const QByteArray more = m_process.readAllStandardError();
        // A line per request arrives while the figures are taken: only a
        // plain search runs on each read.
        if (more.contains("longest event-loop stall")) {
            static const QRegularExpression stall(QStringLiteral("longest event-loop stall: (\\d+) ms"));
            const QRegularExpressionMatch match = stall.match(QString::fromUtf8(more));
            if (match.hasMatch())
                m_stallMs = match.captured(1).toLongLong();
        }
        if (!m_short)
            m_log += more;
    }

    QProcess m_process;
    QByteArray m_log;
    quint16 m_port = 0;
    qint64 m_stallMs = -1;
    bool m_short = false;
};

// A throwaway PostgreSQL 15 cluster at its default settings, reached
// through a socket folder; as root it runs as "nobody" (initdb refuses root).
class Postgres
{
public:
    bool start(const QString &folder)
    {
        m_folder = folder;
        m_user = ::geteuid() == 0 ? QStringLiteral("nobody") : qEnvironmentVariable("USER");
        QDir().mkpath(folder + QStringLiteral("/run"));
        if (::geteuid() == 0 && QProcess::execute(QStringLiteral("chown"), {"-R", m_user, folder}) != 0)
            return false;
        const int port = 20000 + int(::getpid() % 20000);  // names the socket file only
        m_url = QStringLiteral("postgresql://%1@/postgres?host=%2/run&port=%3").arg(m_user, folder).arg(port);
        m_running = run(kPostgresBin + QStringLiteral("/initdb"),
                        {"-D", folder + QStringLiteral("/data"), "-U", m_user, "--auth=trust", "-E", "UTF8"})
                    && run(kPostgresBin + QStringLiteral("/pg_ctl"),
                           {"-D", folder + QStringLiteral("/data"), "-w", "-l", folder + QStringLiteral("/pg.log"), "-o",
                            QStringLiteral("-k %1/run -p %2 -c listen_addresses='' -c max_connections=100")
                                .arg(folder)
                                .arg(port),
                            "start"});
        return m_running;
    }
    ~Postgres()
    {
        if (m_running)
            run(kPostgresBin + QStringLiteral("/pg_ctl"), {"-D", m_folder + QStringLiteral("/data"), "-m", "fast", "-w", "stop"});
    }
    QString url() const { return m_url; }

private:
    bool run(const QString &program, const QStringList &arguments)
    {
        QProcess process;
        process.setProcessChannelMode(QProcess::MergedChannels);
        if (::geteuid() == 0)
            process.start(QStringLiteral("runuser"), QStringList{"-u", m_user, "--", program} + arguments);
        else
            process.start(program, arguments);
        const bool ok = process.waitForFinished(120000) && process.exitCode() == 0;
        if (!ok)
            std::fprintf(stderr, "%s\n", process.readAll().right(2000).constData());
        return ok;
    }

    QString m_folder;
    QString m_user;
    QString m_url;
    bool m_running = false;
};

// haproxy in front of the given ports, on a listening socket this process
// opened (port chosen by the system) and hands over as "fd@N".
class Haproxy
{
public:
    // With `names` (the instances' --instance-id), relay sockets go to the
    // instance their ticket names, as in deploy/haproxy.cfg.
    bool start(const QString &folder, const QList<quint16> &backends, const QStringList &names = {})
    {
        m_fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (m_fd < 0 || ::bind(m_fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0
            || ::listen(m_fd, 511) != 0 || ::getsockname(m_fd, reinterpret_cast<sockaddr *>(&address), &length) != 0)
            return false;
        m_port = ntohs(address.sin_port);
        QString servers;
        if (!names.isEmpty())
            servers += QStringLiteral("    http-request set-var(txn.relay_instance) urlp(ticket),field(1,.) if { path /ws/relay/v1 }\n");
        for (qsizetype i = 0; i < names.size(); ++i)
            servers += QStringLiteral("    use-server %1 if { var(txn.relay_instance) -m str %1 }\n").arg(names[i]);
        for (qsizetype i = 0; i < backends.size(); ++i)
            servers += QStringLiteral("    server %1 127.0.0.1:%2 check inter 1s\n")
                           .arg(names.value(i, QStringLiteral("s%1").arg(i)))
                           .arg(backends[i]);
        QFile config(folder + QStringLiteral("/haproxy.cfg"));
        if (!config.open(QIODevice::WriteOnly))
            return false;
        config.write(QStringLiteral("global\n    maxconn 4000\ndefaults\n    mode http\n    option forwardfor\n"
                                    "    timeout connect 5s\n    timeout client 60s\n    timeout server 60s\n    timeout tunnel 1h\n"
                                    "frontend cloud\n    bind fd@%1\n    default_backend instances\n"
                                    "backend instances\n    balance roundrobin\n    option httpchk GET /healthz\n%2")
                         .arg(m_fd)
                         .arg(servers)
                         .toUtf8());
        config.close();
        m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_process.start(QStringLiteral("haproxy"), {"-f", config.fileName(), "-db"});
        return m_process.waitForStarted(5000);
    }
    ~Haproxy()
    {
        m_process.terminate();
        m_process.waitForFinished(5000);
        if (m_fd >= 0)
            ::close(m_fd);
    }
    quint16 port() const { return m_port; }

private:
    QProcess m_process;
    int m_fd = -1;
    quint16 m_port = 0;
};

