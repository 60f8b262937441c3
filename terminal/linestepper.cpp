#include "terminal/linestepper.h"

#include <QStringList>

QString LineStepper::next(const QString &text)
{
    const QStringList lines = text.split(u'\n');
    const QString line = lines.at(qsizetype(m_index % lines.size()));
    ++m_index;
    return line;
}
