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

QSize fittedSize(QSize stored, QSize availableArea)
{
    const QSize minimum(320, 240);
    const QSize fallback(1000, 800);
    if (!stored.isValid())
        stored = fallback;
    QSize limit = availableArea.isValid() && !availableArea.isEmpty() ? availableArea : fallback;
    limit = limit.expandedTo(minimum);
    return stored.expandedTo(minimum).boundedTo(limit);
}

bool isRestorable(QPoint position, QSize availableArea)
{
    return position.x() > 0 && position.x() < availableArea.width()
        && position.y() > 0 && position.y() < availableArea.height();
}

} // namespace WindowPlacement
