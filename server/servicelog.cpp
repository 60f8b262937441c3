#include "servicelog.h"

#include <QDateTime>

#include <algorithm>
#include <cstdio>
#include <cstring>

Q_LOGGING_CATEGORY(lcService, "cloud.service", QtInfoMsg)
Q_LOGGING_CATEGORY(lcHttp, "cloud.http", QtInfoMsg)
Q_LOGGING_CATEGORY(lcStore, "cloud.storage", QtInfoMsg)
Q_LOGGING_CATEGORY(lcMail, "cloud.mail", QtInfoMsg)

namespace ServiceLog {

namespace {

thread_local int quietDepth = 0;

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
    if (quietDepth > 0 && (!context.category || std::strcmp(context.category, "default") == 0))
        return;
    // Peers' bytes reach messages as request paths, addresses, e-mail
    // addresses and database texts; one escape here covers every field.
    const QByteArray line = QStringLiteral("%1 %2 %3: %4\n")
                                .arg(QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs),
                                     QString::fromLatin1(levelWord(type)),
                                     QString::fromLatin1(context.category ? context.category : "default"),
                                     escaped(message))
                                .toUtf8();
    std::fwrite(line.constData(), 1, static_cast<size_t>(line.size()), stderr);
    std::fflush(stderr);
}

} // namespace

QuietQtWarnings::QuietQtWarnings()
{
    ++quietDepth;
}

QuietQtWarnings::~QuietQtWarnings()
{
    --quietDepth;
}

QString escaped(const QString &text)
{
    const auto needsEscape = [](char16_t c) {
        return c < 0x20 || c == 0x7f || (c >= 0x80 && c <= 0x9f) || c == 0x2028 || c == 0x2029 || c == u'\\';
    };
    if (std::none_of(text.cbegin(), text.cend(), [&](QChar c) { return needsEscape(c.unicode()); }))
        return text;
    QString out;
    out.reserve(text.size() + 16);
    for (const QChar c : text) {
        const char16_t u = c.unicode();
        if (!needsEscape(u))
            out.append(c);
        else if (u == u'\\')
            out.append(QLatin1String("\\\\"));
        else if (u <= 0xff)
            out.append(QStringLiteral("\\x%1").arg(uint(u), 2, 16, QLatin1Char('0')));
        else
            out.append(QStringLiteral("\\u%1").arg(uint(u), 4, 16, QLatin1Char('0')));
    }
    return out;
}

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
