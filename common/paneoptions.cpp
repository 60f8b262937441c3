#include "common/paneoptions.h"

#include <QStandardPaths>

QString PaneOptions::defaultLogFolder()
{
    return QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation)
        + QStringLiteral("/Tessaline/Log");
}
