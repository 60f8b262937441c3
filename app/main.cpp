#include "common/appidentity.h"
#include "app/commandline.h"
#include "app/configfolder.h"
#include "app/languagechoice.h"
#include "common/logging.h"
#include "app/mainwindow.h"
#include "app/screenshotrunner.h"
#include "app/setconfigfilepathdialog.h"
#include "terminal/logwriter.h"

#include <QApplication>
#include <QLocale>
#include <QSettings>
#include <QTranslator>

int main(int argc, char *argv[])
{
    QApplication app(argc, argv);
    AppIdentity::apply(app);
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
    if (commandLine.screenshotMode != CommandLine::ScreenshotMode::None) {
        auto *runner = new ScreenshotRunner(&window, commandLine, ScreenshotDialogs::standard(), &app);
        runner->start();
    } else if (!commandLine.portName.isEmpty()) {
        window.openPortFromCommandLine(commandLine.portName);
    } else {
        window.restoreLastConnection();
    }

    return app.exec();
}
