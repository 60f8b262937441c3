#include "app/windowplacement.h"

#include <QSettings>

namespace WindowPlacement {

QSize storedSize(const QSettings &settings)
{
    const QSize size = settings.value(QLatin1String(kSizeKey), QSize(1000, 800)).toSize();
    return size.isValid() ? size : QSize(1000, 800);
}

QPoint storedPosition(const QSettings &settings)
{
    return settings.value(QLatin1String(kPositionKey)).toPoint();
}

void store(QSettings &settings, QSize size, QPoint position)
{
    settings.setValue(QLatin1String(kSizeKey), size);
    settings.setValue(QLatin1String(kPositionKey), position);
}

bool isRestorable(QPoint position, QSize availableArea)
{
    return position.x() > 0 && position.x() < availableArea.width()
        && position.y() > 0 && position.y() < availableArea.height();
}

} // namespace WindowPlacement
