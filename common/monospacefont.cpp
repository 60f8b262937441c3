#include "common/monospacefont.h"

#include <QFontDatabase>

namespace MonospaceFont {

QStringList preferenceList()
{
    return {QStringLiteral("Consolas"),         QStringLiteral("Menlo"),
            QStringLiteral("SF Mono"),          QStringLiteral("Monaco"),
            QStringLiteral("DejaVu Sans Mono"), QStringLiteral("Liberation Mono"),
            QStringLiteral("Noto Sans Mono"),   QStringLiteral("Courier New")};
}

QString firstInstalled(const QStringList &preferences, const QStringList &installed)
{
    for (const QString &family : preferences) {
        if (installed.contains(family, Qt::CaseInsensitive))
            return family;
    }
    return preferences.isEmpty() ? QString() : preferences.constLast();
}

QString preferredFamily()
{
    // Asking the font database is slow; the answer does not change while
    // the program runs.
    static const QString family = firstInstalled(preferenceList(), QFontDatabase::families());
    return family;
}

QFont make(const QString &family, int pointSize, int weight)
{
    QFont font(family.isEmpty() ? preferredFamily() : family, pointSize);
    font.setStyleHint(QFont::Monospace);
    font.setFixedPitch(true);
    font.setWeight(QFont::Weight(weight));
    return font;
}

} // namespace MonospaceFont
