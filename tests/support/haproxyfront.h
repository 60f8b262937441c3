#pragma once

#include <QByteArray>
#include <QList>
#include <QProcess>
#include <QString>
#include <QTemporaryDir>

// A listening socket on a loopback port the system picks, left open across
// exec for a child (haproxy's "fd@N"); -1 when the system refused.
int inheritableListener(quint16 &port);

// haproxy run from the shipped configuration (server/deploy/haproxy.cfg)
// as it stands, but for where it listens (sockets of its own on loopback),
// its servers (the given instances, named in the file's order) and what
// only a system daemon does. Stopped when destroyed.
class HaproxyFront
{
public:
    struct Server
    {
        QString name;  // must be the shipped file's name at that place
        quint16 port = 0;
    };

    HaproxyFront() = default;
    ~HaproxyFront();
    HaproxyFront(const HaproxyFront &) = delete;
    HaproxyFront &operator=(const HaproxyFront &) = delete;

    // `fronts` listening ports on the one frontend; with `tlsBundle` (the
    // certificate and its key in one PEM file) they speak TLS, else plain
    // HTTP. `extraBackendLines` go after the shipped backend's own, with
    // "@FRONT<i>@" standing for the port of front i.
    bool start(const QString &shippedConfig, const QList<Server> &servers, int fronts = 1,
               const QString &tlsBundle = {}, const QByteArray &extraBackendLines = {});
    void stop();
    quint16 port(int front = 0) const { return m_ports.value(front); }
    QString errorText() const { return m_error; }

private:
    bool fail(const QString &text);

    QTemporaryDir m_dir;
    QProcess m_process;
    QList<int> m_listeners;
    QList<quint16> m_ports;
    QString m_error;
};
