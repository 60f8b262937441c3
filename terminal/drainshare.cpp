#include "terminal/drainshare.h"

#include <QSet>

namespace DrainShare {

namespace {
// Views live on the GUI thread only.
QSet<const void *> &waiting()
{
    static QSet<const void *> panes;
    return panes;
}
} // namespace

void setWaiting(const void *pane, bool isWaiting)
{
    if (isWaiting)
        waiting().insert(pane);
    else
        waiting().remove(pane);
}

qint64 limitMs(qint64 totalMs)
{
    return qMax<qint64>(1, totalMs / qMax<qsizetype>(1, waiting().size()));
}

} // namespace DrainShare
