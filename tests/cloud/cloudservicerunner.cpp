#include "cloudservicerunner.h"

#include <QDeadlineTimer>
#include <QRegularExpression>
#include <QTest>

CloudServiceRunner::CloudServiceRunner()
{
    QObject::connect(&m_process, &QProcess::readyReadStandardError, [this] { readLog(); });
}

CloudServiceRunner::~CloudServiceRunner()
{
    stop();
}

void CloudServiceRunner::readLog()
{
    m_log += m_process.readAllStandardError();
}

bool CloudServiceRunner::start(const QStringList &options)
{
    stop();
    m_log.clear();
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.remove(QStringLiteral("QT_LOGGING_RULES"));
    m_process.setProcessEnvironment(environment);
    QStringList arguments{"--listen", "127.0.0.1:0", "--argon2-memory", "256", "--argon2-passes", "1"};
    if (!options.contains(QStringLiteral("--database")))
        arguments << "--database" << m_dir.filePath("cloud.sqlite");
    m_process.start(QStringLiteral(TSL_CLOUD_BINARY), arguments + options);
    static const QRegularExpression listening(QStringLiteral("listening on 127\\.0\\.0\\.1:(\\d+)"));
    QDeadlineTimer deadline(10000);
    while (!deadline.hasExpired()) {
        const QRegularExpressionMatch match = listening.match(QString::fromUtf8(m_log));
        if (match.hasMatch()) {
            m_port = quint16(match.captured(1).toUInt());
            return true;
        }
        if (m_process.state() == QProcess::NotRunning)
            return false;
        QTest::qWait(20);
    }
    return false;
}

void CloudServiceRunner::stop()
{
    if (m_process.state() == QProcess::NotRunning)
        return;
    m_process.terminate();
    if (!m_process.waitForFinished(5000))
        m_process.kill();
    m_process.waitForFinished(2000);
}

QString CloudServiceRunner::codeFor(const QString &email)
{
    const QRegularExpression line(QStringLiteral("registration code for %1: (\\d+)").arg(QRegularExpression::escape(email)));
    QDeadlineTimer deadline(5000);
    while (!deadline.hasExpired()) {
        QRegularExpressionMatchIterator it = line.globalMatch(QString::fromUtf8(m_log));
        QString code;
        while (it.hasNext())
            code = it.next().captured(1);
        if (!code.isEmpty())
            return code;
        QTest::qWait(20);
    }
    return {};
}
