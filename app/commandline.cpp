#include "app/commandline.h"

#include "common/appidentity.h"
#include "buildinfo.h"

#include <QCommandLineOption>
#include <QCommandLineParser>
#include <QCoreApplication>

#include <string_view>

// The version the program shows and sends to the cloud is fixed in
// AppIdentity; packages are numbered from the CMake project. One number.
static_assert(std::string_view(AppIdentity::kVersion) == std::string_view(BuildInfo::kVersion),
              "AppIdentity::kVersion and the CMake project VERSION differ");

namespace {

int sizePart(const QString &text)
{
    bool ok = false;
    const int value = text.toInt(&ok, 10);
    return ok ? value : 0;
}

// The switches the program knows, declared once for recognising help and
// version and for writing the help text. The screenshot switches take
// their value here only so that "--screenshot --help" stays a file name.
struct DeclaredOptions
{
    QCommandLineOption help;
    QCommandLineOption version;
};

DeclaredOptions declare(QCommandLineParser &parser)
{
    // "-platform", "-style" and the like belong to Qt: never read them as
    // bundles of one-letter switches.
    parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
    parser.setApplicationDescription(
        QCoreApplication::translate("CommandLine", "A terminal for serial ports and networks."));
    // Our own help and version switches rather than Qt's, which would add a
    // "--help-all" promising options a plain application object lacks.
    DeclaredOptions options{
        QCommandLineOption({QStringLiteral("h"), QStringLiteral("help"), QStringLiteral("?")},
                           QCoreApplication::translate("CommandLine", "Show this help and quit.")),
        QCommandLineOption({QStringLiteral("v"), QStringLiteral("version")},
                           QCoreApplication::translate("CommandLine", "Show the version and quit.")),
    };
    parser.addOption(options.help);
    parser.addOption(options.version);
    parser.addOption(QCommandLineOption(
        QStringLiteral("screenshot"),
        QCoreApplication::translate("CommandLine", "Save a picture of the main window to <file> and quit."),
        QStringLiteral("file")));
    parser.addOption(QCommandLineOption(
        QStringLiteral("screenshot-dialog"),
        QCoreApplication::translate("CommandLine",
                                    "Save a picture of the dialog <name> to the file that follows, at the size "
                                    "WIDTHxHEIGHT when that follows too, and quit."),
        QStringLiteral("name")));
    parser.addPositionalArgument(
        QStringLiteral("port"),
        QCoreApplication::translate("CommandLine", "A serial port to open, or a project file (*.tsl) to open."),
        QStringLiteral("[port | file.tsl]"));
    return options;
}

CommandLine::Request requestOf(const QStringList &args)
{
    QCommandLineParser parser;
    const DeclaredOptions options = declare(parser);
    // Unknown switches are not errors here: the rest of the command line
    // keeps its own rules, and the parser still reports what it did know.
    parser.parse(args);
    if (parser.isSet(options.help))
        return CommandLine::Request::Help;
    if (parser.isSet(options.version))
        return CommandLine::Request::Version;
    return CommandLine::Request::Start;
}

} // namespace

QSize CommandLine::parseDialogSize(const QString &text)
{
    const QStringList parts = text.split(QLatin1Char('x'), Qt::KeepEmptyParts, Qt::CaseSensitive);
    if (parts.size() != 2)
        return QSize();
    return QSize(sizePart(parts.at(0)), sizePart(parts.at(1)));
}

bool CommandLine::isProjectFileName(const QString &argument)
{
    return argument.size() > 4 && argument.endsWith(QLatin1String(".tsl"), Qt::CaseInsensitive);
}

CommandLine CommandLine::parse(const QStringList &args)
{
    CommandLine result;
    if (args.isEmpty())
        return result;
    result.request = requestOf(args);
    if (result.request != Request::Start)
        return result;

    // A first argument that is not a switch names a port, or a project.
    QString first;
    if (args.size() >= 2 && !args.at(1).startsWith(QLatin1String("--")))
        first = args.at(1);
    if (isProjectFileName(first))
        result.projectPath = first;

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
    if (result.projectPath.isEmpty())
        result.portName = first;
    return result;
}

QString CommandLine::helpText()
{
    QCommandLineParser parser;
    declare(parser);
    return parser.helpText();
}

QString CommandLine::versionText()
{
    return QStringLiteral("%1 %2\n").arg(QLatin1String(AppIdentity::kApplicationName),
                                         QLatin1String(BuildInfo::kVersion));
}
