#pragma once

#include <QString>
#include <QTemporaryDir>

// A throwaway PostgreSQL 15 cluster in a temporary folder, reached only
// through its socket folder (no TCP port), run as an unprivileged user
// when the test runs as root (initdb refuses root). Stopped when destroyed.
class PostgresCluster
{
public:
    PostgresCluster() = default;
    ~PostgresCluster();
    PostgresCluster(const PostgresCluster &) = delete;
    PostgresCluster &operator=(const PostgresCluster &) = delete;

    bool start();
    void stop();
    // The database URL the service takes.
    QString url() const { return m_url; }
    QString errorText() const { return m_error; }

private:
    bool runAsOwner(const QString &program, const QStringList &arguments);

    QTemporaryDir m_dir;
    QString m_user;
    QString m_url;
    QString m_error;
    bool m_running = false;
};
