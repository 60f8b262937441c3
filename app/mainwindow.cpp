#include "app/mainwindow.h"

#include "app/languagechoice.h"
#include "app/logging.h"
#include "app/windowplacement.h"
#include "ui_mainwindow.h"

#include <QCloseEvent>
#include <QGuiApplication>
#include <QMessageBox>
#include <QScreen>
#include <QSettings>

MainWindow::MainWindow(QWidget *parent)
    : QMainWindow(parent)
    , ui(new Ui::MainWindow)
{
    ui->setupUi(this);
}

MainWindow::~MainWindow()
{
    delete ui;
}

void MainWindow::restoreGeometryFrom(const QSettings &settings)
{
    const QSize size = WindowPlacement::storedSize(settings);
    const QPoint position = WindowPlacement::storedPosition(settings);
    qCDebug(lcApp) << "### last window position:" << position;
    resize(size);

    const QScreen *screen = QGuiApplication::primaryScreen();
    if (screen && WindowPlacement::isRestorable(position, screen->availableGeometry().size())) {
        move(position);
        qCDebug(lcApp) << "### set geometry:" << position.x() << position.y() << size.width() << size.height();
        setGeometry(QRect(position, size));
    }
}

void MainWindow::closeEvent(QCloseEvent *event)
{
    QSettings settings;
    qCDebug(lcApp) << "### position:" << pos();
    WindowPlacement::store(settings, size(), pos());
    event->accept();
}

void MainWindow::on_acFileExit_triggered()
{
    close();
}

void MainWindow::on_actionEnglish_triggered()
{
    chooseLanguage(LanguageChoice::English);
}

void MainWindow::on_actionChinese_triggered()
{
    chooseLanguage(LanguageChoice::SimplifiedChinese);
}

void MainWindow::chooseLanguage(int value)
{
    QSettings settings;
    LanguageChoice::store(settings, value);
    QMessageBox::information(this, tr("Tessaline"),
                             tr("The changes will take effect when the program is restarted."));
}
