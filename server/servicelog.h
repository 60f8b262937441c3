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

} // namespace ServiceLog
