#pragma once

#include <QProcess>
#include <QString>
#include <QTemporaryDir>

// Runs tessaline-cloud on a free loopback port with its own database and
// reads its log, where registration codes appear.
class CloudServiceRunner
{
public:
    CloudServiceRunner();
    ~CloudServiceRunner();

    // Starts (or restarts, keeping the database); false when it did not
    // report its port within a few seconds.
    // `options` are added to the command line; one naming "--database"
    // replaces the runner's own SQLite file.
    bool start(const QStringList &options = {});
    void stop();
    QString baseUrl() const { return QStringLiteral("http://127.0.0.1:%1").arg(m_port); }
    quint16 port() const { return m_port; }
    qint64 processId() const { return m_process.processId(); }
    // The newest code the log shows for this address, waiting up to 5 s.
    QString codeFor(const QString &email);

private:
    void readLog();

    QTemporaryDir m_dir;
    QProcess m_process;
    QByteArray m_log;
    quint16 m_port = 0;
};
