#pragma once

#include <QLoggingCategory>
#include <QString>

// The service's log: one line per event on standard error, with the time
// in UTC, the level and the category.
Q_DECLARE_LOGGING_CATEGORY(lcService)  // start, stop, configuration
Q_DECLARE_LOGGING_CATEGORY(lcHttp)     // one line per request
Q_DECLARE_LOGGING_CATEGORY(lcStore)    // database
Q_DECLARE_LOGGING_CATEGORY(lcMail)     // registration codes and SMTP

namespace ServiceLog {

// Installs the line format; `level` is "debug", "info", "warning" or
// "error". False for any other word.
bool install(const QString &level);

// `text` with every control character (C0, DEL, C1, the Unicode line and
// paragraph separators) written as \xNN or \uNNNN and the backslash doubled,
// so nothing a peer sends can start a line of its own or fake an escape.
// Every line the service writes passes through it.
QString escaped(const QString &text);

// While one lives on a thread, Qt's own warnings from that thread (the
// "default" category) are dropped: for known noise, such as the SQL driver
// failing to free the statements of a connection already known to be lost.
class QuietQtWarnings
{
public:
    QuietQtWarnings();
    ~QuietQtWarnings();
    QuietQtWarnings(const QuietQtWarnings &) = delete;
    QuietQtWarnings &operator=(const QuietQtWarnings &) = delete;
};

} // namespace ServiceLog
