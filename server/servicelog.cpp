#include "servicelog.h"

#include <QDateTime>

#include <cstdio>

Q_LOGGING_CATEGORY(lcService, "cloud.service", QtInfoMsg)
Q_LOGGING_CATEGORY(lcHttp, "cloud.http", QtInfoMsg)
Q_LOGGING_CATEGORY(lcStore, "cloud.storage", QtInfoMsg)
Q_LOGGING_CATEGORY(lcMail, "cloud.mail", QtInfoMsg)

namespace ServiceLog {

namespace {

const char *levelWord(QtMsgType type)
{
    switch (type) {
    case QtDebugMsg: return "debug";
    case QtInfoMsg: return "info";
    case QtWarningMsg: return "warning";
    case QtCriticalMsg: return "error";
    case QtFatalMsg: return "fatal";
    }
    return "info";
}

void writeLine(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    const QByteArray line = QStringLiteral("%1 %2 %3: %4\n")
                                .arg(QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs),
                                     QString::fromLatin1(levelWord(type)),
                                     QString::fromLatin1(context.category ? context.category : "default"),
                                     message)
                                .toUtf8();
    std::fwrite(line.constData(), 1, static_cast<size_t>(line.size()), stderr);
    std::fflush(stderr);
}

} // namespace

bool install(const QString &level)
{
    QString rules;
    if (level == QLatin1String("debug"))
        rules = QStringLiteral("cloud.*.debug=true");
    else if (level == QLatin1String("info"))
        rules = QStringLiteral("cloud.*.debug=false");
    else if (level == QLatin1String("warning"))
        rules = QStringLiteral("cloud.*.debug=false\ncloud.*.info=false");
    else if (level == QLatin1String("error"))
        rules = QStringLiteral("cloud.*.debug=false\ncloud.*.info=false\ncloud.*.warning=false");
    else
        return false;
    QLoggingCategory::setFilterRules(rules);
    qInstallMessageHandler(writeLine);
    return true;
}

} // namespace ServiceLog
