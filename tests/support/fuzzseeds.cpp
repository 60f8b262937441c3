#include "support/fuzzseeds.h"

#include <QDir>
#include <QFile>

namespace FuzzSeeds {

QString replay(const QString &target, Target body)
{
    const QFileInfoList seeds = QDir(QStringLiteral(TSL_FUZZ_CORPUS "/") + target).entryInfoList(QDir::Files);
    if (seeds.isEmpty())
        return QStringLiteral("no seeds for ") + target;
    for (const QFileInfo &seed : seeds) {
        QFile file(seed.filePath());
        if (!file.open(QIODevice::ReadOnly))
            return target + u'/' + seed.fileName() + QStringLiteral(": cannot be read");
        const QByteArray input = file.readAll();
        const QString failure = body(reinterpret_cast<const uint8_t *>(input.constData()), size_t(input.size()));
        if (!failure.isEmpty())
            return target + u'/' + seed.fileName() + QStringLiteral(": ") + failure;
    }
    return QString();
}

} // namespace FuzzSeeds
