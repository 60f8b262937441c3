#include "common/appidentity.h"
#include "app/commandline.h"
#include "app/configfolder.h"
#include "app/languagechoice.h"
#include "common/logging.h"
#include "app/mainwindow.h"
#include "app/screenshotrunner.h"
#include "app/setconfigfilepathdialog.h"
#include "terminal/logwriter.h"
#include "buildinfo.h"

#include <QApplication>
#include <QFileInfo>
#include <QLocale>
#include <QSettings>
#include <QTranslator>

#include <cstdio>

namespace {

QStringList rawArguments(int argc, char *argv[])
{
    QStringList args;
    for (int i = 0; i < argc; ++i)
        args.append(QString::fromLocal8Bit(argv[i]));
    return args;
}

// Help and the version are printed by a plain application object, before
// any window system is asked for, so both work without a display.
int answerWithoutWindow(int &argc, char *argv[], CommandLine::Request request)
{
    QCoreApplication app(argc, argv);
    AppIdentity::apply(app);
    QSettings settings;
    QTranslator translator;
    LanguageChoice::install(app, translator, LanguageChoice::stored(settings), QLocale::system().name());
    const QString text = request == CommandLine::Request::Help ? CommandLine::helpText() : CommandLine::versionText();
    std::fputs(text.toLocal8Bit().constData(), stdout);
    return std::fflush(stdout) == 0 ? 0 : 1;
}

} // namespace

int main(int argc, char *argv[])
{
    const CommandLine::Request request = CommandLine::parse(rawArguments(argc, argv)).request;
    if (request != CommandLine::Request::Start)
        return answerWithoutWindow(argc, argv, request);

    QApplication app(argc, argv);
    AppIdentity::apply(app);
    // Lets Wayland desktops match the window to the installed launcher.
    QGuiApplication::setDesktopFileName(QString::fromLatin1(BuildInfo::kDesktopId));
    LogWriter::launchTime();  // the data log's header reports the real start

    qCDebug(lcApp) << "argc:" << argc;
    for (int i = 0; i < argc; ++i)
        qCDebug(lcApp).noquote() << QStringLiteral("argv[%1]:").arg(i) << QString::fromLocal8Bit(argv[i]);

    QSettings settings;
    QTranslator translator;
    LanguageChoice::install(app, translator, LanguageChoice::stored(settings), QLocale::system().name());

    if (ConfigFolder::stored(settings).isEmpty()) {
        SetConfigFilePathDialog chooser(settings);
        chooser.setWindowTitle(QStringLiteral("Tessaline"));
        chooser.setModal(true);
        if (chooser.exec() != QDialog::Accepted)
            return 0;
    }

    MainWindow window;
    window.restoreGeometryFrom(settings);
    window.show();

    const CommandLine commandLine = CommandLine::parse(app.arguments());
    // A project named on the command line (a file manager's "Open With")
    // replaces the one restored at start; its ports stay closed until the
    // user opens them. A failure shows in the status bar, as from the menu.
    if (!commandLine.projectPath.isEmpty())
        window.openProject(QFileInfo(commandLine.projectPath).absoluteFilePath());

    if (commandLine.screenshotMode != CommandLine::ScreenshotMode::None) {
        auto *runner = new ScreenshotRunner(&window, commandLine, ScreenshotDialogs::standard(), &app);
        runner->start();
    } else if (!commandLine.portName.isEmpty()) {
        window.openPortFromCommandLine(commandLine.portName);
    } else if (commandLine.projectPath.isEmpty()) {
        window.restoreLastConnection();
    }

    return app.exec();
}
