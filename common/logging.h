#pragma once

#include <QLoggingCategory>

// The program's five logging categories. Each is created with Info as its
// lowest enabled level, so debug output stays off unless rules enable it.
Q_DECLARE_LOGGING_CATEGORY(lcApp)
Q_DECLARE_LOGGING_CATEGORY(lcCore)
Q_DECLARE_LOGGING_CATEGORY(lcTerminal)
Q_DECLARE_LOGGING_CATEGORY(lcSettings)
Q_DECLARE_LOGGING_CATEGORY(lcCloud)
