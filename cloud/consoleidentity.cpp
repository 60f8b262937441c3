#include "cloud/consoleidentity.h"

#include <QSettings>
#include <QUuid>

namespace {
const QString kCidKey = QStringLiteral("CloudConsoleCid");
const QString kCidAccountKey = QStringLiteral("CloudConsoleCidAccount");
} // namespace

QString ConsoleIdentity::newIdentifier()
{
    return QUuid::createUuid().toString(QUuid::WithoutBraces);
}

QString ConsoleIdentity::cidFor(qint32 userId)
{
    QSettings settings;
    const QString stored = settings.value(kCidKey).toString();
    if (!stored.isEmpty() && settings.value(kCidAccountKey).toInt() == userId)
        return stored;
    const QString cid = newIdentifier();
    settings.setValue(kCidKey, cid);
    settings.setValue(kCidAccountKey, userId);
    return cid;
}
