// The service as its executable: options, the code in its log, a restart.
#include "rawhttp.h"

#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

class TestCloudServiceProcess : public QObject
{
    Q_OBJECT

private slots:
    void helpListsTheOptions();
    void badOptionsAreRefused_data();
    void badOptionsAreRefused();
    void registersWithTheLoggedCodeAndSurvivesARestart();

private:
    // Starts the service on a free port; the port it reports, or 0.
    quint16 start(QProcess &process, const QStringList &extra);
    QTemporaryDir m_dir;
};

quint16 TestCloudServiceProcess::start(QProcess &process, const QStringList &extra)
{
    process.setProgram(QStringLiteral(TSL_CLOUD_BINARY));
    // The request lines are part of what is checked here.
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.remove(QStringLiteral("QT_LOGGING_RULES"));
    process.setProcessEnvironment(environment);
    process.setArguments(QStringList{"--listen", "127.0.0.1:0", "--database", m_dir.filePath("cloud.sqlite"),
                                     "--argon2-memory", "256", "--argon2-passes", "1"}
                         + extra);
    process.start();
    if (!process.waitForStarted(5000))
        return 0;
    static const QRegularExpression listening(QStringLiteral("listening on 127\\.0\\.0\\.1:(\\d+)"));
    QByteArray log;
    QElapsedTimer waited;
    waited.start();
    while (waited.elapsed() < 10000 && process.state() == QProcess::Running) {
        process.waitForReadyRead(200);
        log += process.readAllStandardError();
        const QRegularExpressionMatch match = listening.match(QString::fromUtf8(log));
        if (match.hasMatch())
            return quint16(match.captured(1).toUInt());
    }
    return 0;
}

void TestCloudServiceProcess::helpListsTheOptions()
{
    QProcess process;
    process.start(QStringLiteral(TSL_CLOUD_BINARY), {"--help"});
    QVERIFY(process.waitForFinished(10000));
    QCOMPARE(process.exitCode(), 0);
    const QByteArray help = process.readAllStandardOutput();
    for (const char *option : {"--listen", "--database", "--smtp-host", "--quota-bytes", "--approval", "--log-level"})
        QVERIFY2(help.contains(option), option);
}

void TestCloudServiceProcess::badOptionsAreRefused_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::newRow("listen without port") << QStringList{"--listen", "127.0.0.1"};
    QTest::newRow("listen port out of range") << QStringList{"--listen", "127.0.0.1:70000"};
    QTest::newRow("log level") << QStringList{"--log-level", "loud"};
    QTest::newRow("smtp without sender") << QStringList{"--smtp-host", "mail.example.org"};
    QTest::newRow("negative quota") << QStringList{"--quota-bytes", "-1"};
}

void TestCloudServiceProcess::badOptionsAreRefused()
{
    QFETCH(QStringList, arguments);
    QProcess process;
    process.start(QStringLiteral(TSL_CLOUD_BINARY), arguments);
    QVERIFY(process.waitForFinished(10000));
    QCOMPARE(process.exitCode(), 2);
    QVERIFY(process.readAllStandardError().startsWith("tessaline-cloud: "));
}

void TestCloudServiceProcess::registersWithTheLoggedCodeAndSurvivesARestart()
{
    QString refresh;
    {
        QProcess service;
        const quint16 port = start(service, {});
        QVERIFY(port != 0);
        QVERIFY(httpJson(port, "POST", "/api/v3/account/register/code", {{"email", "zoe@example.org"}}).ok());
        // The person running the service reads the code from its log.
        static const QRegularExpression codeLine(QStringLiteral("registration code for zoe@example\\.org: (\\d{6})"));
        QString code;
        QByteArray log;
        QElapsedTimer waited;
        waited.start();
        while (code.isEmpty() && waited.elapsed() < 5000) {
            service.waitForReadyRead(100);
            log += service.readAllStandardError();
            code = codeLine.match(QString::fromUtf8(log)).captured(1);
        }
        QVERIFY(!code.isEmpty());
        const RawResponse registered = httpJson(port, "POST", "/api/v3/account/register",
                                                {{"email", "zoe@example.org"}, {"password", "a good password"},
                                                 {"code", code}, {"device_name", "1"}, {"client_version", "6.6.7"}});
        QVERIFY(registered.ok());
        refresh = registered.json.value("refresh_token").toString();
        // One log line per request.
        service.waitForReadyRead(200);
        log += service.readAllStandardError();
        QVERIFY(log.contains("POST /api/v3/account/register 200"));
        service.terminate();
        QVERIFY(service.waitForFinished(5000));
        QCOMPARE(service.exitStatus(), QProcess::NormalExit);
    }
    QProcess again;
    const quint16 port = start(again, {});
    QVERIFY(port != 0);
    QVERIFY(httpJson(port, "POST", "/api/v3/account/token/refresh", {{"refresh_token", refresh}}).ok());
    QVERIFY(httpJson(port, "POST", "/api/v3/account/login",
                     {{"email", "zoe@example.org"}, {"password", "a good password"}})
                .ok());
    again.terminate();
    QVERIFY(again.waitForFinished(5000));
}

QTEST_GUILESS_MAIN(TestCloudServiceProcess)
#include "tst_cloudserviceprocess.moc"
