#include "app/commandline.h"

namespace {

int sizePart(const QString &text)
{
    bool ok = false;
    const int value = text.toInt(&ok, 10);
    return ok ? value : 0;
}

} // namespace

QSize CommandLine::parseDialogSize(const QString &text)
{
    const QStringList parts = text.split(QLatin1Char('x'), Qt::KeepEmptyParts, Qt::CaseSensitive);
    if (parts.size() != 2)
        return QSize();
    return QSize(sizePart(parts.at(0)), sizePart(parts.at(1)));
}

CommandLine CommandLine::parse(const QStringList &args)
{
    CommandLine result;
    const qsizetype dialogAt = args.indexOf(QStringLiteral("--screenshot-dialog"));
    const qsizetype windowAt = args.indexOf(QStringLiteral("--screenshot"));

    if (dialogAt >= 0 && args.size() - dialogAt - 1 >= 2) {
        result.screenshotMode = ScreenshotMode::Dialog;
        result.dialogName = args.at(dialogAt + 1);
        result.screenshotPath = args.at(dialogAt + 2);
        if (dialogAt + 3 < args.size())
            result.dialogSize = parseDialogSize(args.at(dialogAt + 3));
        return result;
    }
    if (windowAt >= 0 && args.size() - windowAt - 1 >= 1) {
        result.screenshotMode = ScreenshotMode::Window;
        result.screenshotPath = args.at(windowAt + 1);
        return result;
    }
    // A first argument that is not a switch names a port to open.
    if (args.size() >= 2 && !args.at(1).isEmpty() && !args.at(1).startsWith(QLatin1String("--")))
        result.portName = args.at(1);
    return result;
}
