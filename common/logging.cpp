#include "common/logging.h"

Q_LOGGING_CATEGORY(lcApp, "tsl.app", QtInfoMsg)
Q_LOGGING_CATEGORY(lcCore, "tsl.core", QtInfoMsg)
Q_LOGGING_CATEGORY(lcTerminal, "tsl.terminal", QtInfoMsg)
Q_LOGGING_CATEGORY(lcSettings, "tsl.settings", QtInfoMsg)
Q_LOGGING_CATEGORY(lcCloud, "tsl.cloud", QtInfoMsg)
