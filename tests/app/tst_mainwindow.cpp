#include "app/languagechoice.h"
#include "app/mainwindow.h"
#include "app/setconfigfilepathdialog.h"
#include "app/windowplacement.h"
#include "terminal/serialportwidget.h"
#include "support/settingssandbox.h"

#include <QAction>
#include <QCheckBox>
#include <QTcpServer>
#include <QApplication>
#include <QDialogButtonBox>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QScreen>
#include <QSettings>
#include <QTimer>
#include <QtTest>

#include <memory>

class MainWindowTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { m_sandbox = std::make_unique<SettingsSandbox>(); }
    void init() { m_sandbox->clear(); }

    void restoresSizeAndOnlyInsidePositions();
    void closeStoresGeometry();
    void languageActionsStoreChoice();
    void paneStartsFromLastUsedAndSavesChanges();
    void commandLinePortFailureWarns();
    void openConnectionIsRememberedAndRestored();
    void configDialogCreatesFolder();
    void configDialogKeepsOpenOnBadFolder();

private:
    std::unique_ptr<SettingsSandbox> m_sandbox;
};

void MainWindowTest::restoresSizeAndOnlyInsidePositions()
{
    const QSize area = QGuiApplication::primaryScreen()->availableGeometry().size();
    QSettings settings;
    WindowPlacement::store(settings, QSize(700, 500), QPoint(0, 10));
    MainWindow a;
    a.restoreGeometryFrom(settings);
    QCOMPARE(a.size(), QSize(700, 500));
    QCOMPARE(a.pos(), QPoint(0, 0));  // a corner at 0 is left to the window system

    WindowPlacement::store(settings, QSize(600, 400), QPoint(3, 7));
    MainWindow b;
    b.restoreGeometryFrom(settings);
    QCOMPARE(b.geometry(), QRect(3, 7, 600, 400));

    WindowPlacement::store(settings, QSize(600, 400), QPoint(area.width() + 5, 7));
    MainWindow c;
    c.restoreGeometryFrom(settings);
    QCOMPARE(c.pos().x() < area.width(), true);
}

void MainWindowTest::closeStoresGeometry()
{
    MainWindow w;
    w.resize(1100, 760);
    w.move(20, 30);
    w.show();
    QVERIFY(QTest::qWaitForWindowExposed(&w));
    w.close();
    QSettings settings;
    QCOMPARE(WindowPlacement::storedSize(settings), QSize(1100, 760));
    QCOMPARE(WindowPlacement::storedPosition(settings), w.pos());
}

void MainWindowTest::languageActionsStoreChoice()
{
    MainWindow w;
    QString boxText;
    auto closeBox = [&boxText] {
        if (auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget())) {
            boxText = box->text();
            box->accept();
        }
    };
    for (const auto &[action, value] : {std::pair{"actionChinese", 1}, std::pair{"actionEnglish", 2}}) {
        boxText.clear();
        QTimer::singleShot(0, closeBox);
        w.findChild<QAction *>(action)->trigger();
        QSettings settings;
        QCOMPARE(LanguageChoice::stored(settings), value);
        QCOMPARE(boxText, QString("The changes will take effect when the program is restarted."));
    }
}

void MainWindowTest::paneStartsFromLastUsedAndSavesChanges()
{
    {
        QSettings settings;
        settings.setValue("LastBaudrate", 115200);
        settings.setValue("LastReceiveEncoding", "GBK");
        settings.setValue("LastDisplaySendTime", false);
    }
    MainWindow w;
    QCOMPARE(w.panes().size(), 1);
    SerialPortWidget *pane = w.panes().constFirst();
    QCOMPARE(pane->connectionConfig().baudRate, 115200);
    QCOMPARE(pane->paneOptions().receiveEncoding, QString("GBK"));

    pane->findChild<QCheckBox *>("displayTimeBox")->click();
    QSettings settings;
    QCOMPARE(settings.value("LastDisplaySendTime").toBool(), true);
    QCOMPARE(settings.value("LastBaudrate").toInt(), 115200);
}

void MainWindowTest::commandLinePortFailureWarns()
{
    MainWindow w;
    QString boxText;
    QTimer::singleShot(0, [&boxText] {
        if (auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget())) {
            boxText = box->text();
            box->accept();
        }
    });
    QVERIFY(!w.openPortFromCommandLine("/nonexistent/ttyTess"));
    QCOMPARE(boxText, QString("Serial Port /nonexistent/ttyTess OPEN FAILED"));
    QCOMPARE(w.panes().constFirst()->connectionConfig().portName, QString("/nonexistent/ttyTess"));
}

void MainWindowTest::openConnectionIsRememberedAndRestored()
{
    QTcpServer probe;  // finds a free port for the pane to listen on
    QVERIFY(probe.listen(QHostAddress::LocalHost));
    const quint16 port = probe.serverPort();
    probe.close();
    {
        QSettings settings;
        settings.setValue("LastConnMode", 1);
        settings.setValue("LastTargetPort", port);
        settings.setValue("OpenLastConnection", true);
    }
    {
        MainWindow w;
        w.show();
        QVERIFY(w.panes().constFirst()->openConnection());
        w.close();
        QVERIFY(!w.panes().constFirst()->isConnectionOpen());
    }
    QSettings settings;
    QCOMPARE(settings.value("LastConnectionOpen").toBool(), true);
    MainWindow again;
    again.restoreLastConnection();
    QVERIFY(again.panes().constFirst()->isConnectionOpen());
    again.close();
    QCOMPARE(QSettings().value("LastConnectionOpen").toBool(), true);
}

void MainWindowTest::configDialogCreatesFolder()
{
    QTemporaryDir base;
    QSettings settings;
    SetConfigFilePathDialog dialog(settings);
    auto *edit = dialog.findChild<QLineEdit *>("lePath");
    QVERIFY(edit->text().endsWith("Config"));
    const QString folder = base.path() + "/a/b";
    edit->setText(folder);
    dialog.accept();
    QCOMPARE(dialog.result(), int(QDialog::Accepted));
    QVERIFY(QDir(folder).exists());
    QCOMPARE(settings.value("CONFIG_FILE_PATH").toString(), folder);
}

void MainWindowTest::configDialogKeepsOpenOnBadFolder()
{
    QTemporaryDir base;
    QFile file(base.path() + "/taken");
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.close();
    QSettings settings;
    SetConfigFilePathDialog dialog(settings);
    dialog.show();
    dialog.findChild<QLineEdit *>("lePath")->setText(file.fileName());
    dialog.accept();
    QVERIFY(dialog.isVisible());
    auto *error = dialog.findChild<QLabel *>("errorLabel");
    QVERIFY(error->isVisibleTo(&dialog));
    QVERIFY(error->text().contains("taken"));
    QVERIFY(!settings.contains("CONFIG_FILE_PATH"));

    dialog.findChild<QLineEdit *>("lePath")->setText(QString());
    QVERIFY(!dialog.findChild<QDialogButtonBox *>()->button(QDialogButtonBox::Ok)->isEnabled());
    dialog.reject();
    QCOMPARE(dialog.result(), int(QDialog::Rejected));
}

QTEST_MAIN(MainWindowTest)
#include "tst_mainwindow.moc"
