#include "app/cloudconsolemenu.h"
#include "app/languagechoice.h"
#include "app/mainwindow.h"
#include "app/panetransfers.h"
#include "app/projectfile.h"
#include "settings/portsettingsdialog.h"
#include "settings/quicksettingscatalog.h"
#include "settings/quicksettingsdialog.h"
#include "settings/formrows.h"
#include "app/setconfigfilepathdialog.h"
#include "app/windowplacement.h"
#include "cloud/cloudconsoleservice.h"
#include "connection/connectioncontroller.h"
#include "terminal/controllinelights.h"
#include "common/monospacefont.h"
#include "terminal/receiveview.h"
#include "terminal/serialportwidget.h"
#include "support/listenport.h"
#include "support/lrzszpeer.h"
#include "support/ptypair.h"
#include "support/settingssandbox.h"
#include "transfer/filetransferbar.h"
#include "transfer/filetransferdialog.h"

#include <QAction>
#include <QComboBox>
#include <QFormLayout>
#include <QGroupBox>
#include <QTabWidget>
#include <QTreeWidget>
#include <QSplitter>
#include <QStatusBar>
#include <QTemporaryDir>
#include <QCheckBox>
#include <QUdpSocket>
#include <QApplication>
#include <QDialogButtonBox>
#include <QLabel>
#include <QMenu>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QScreen>
#include <QSettings>
#include <QScrollBar>
#include <QScrollArea>
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
    void customLayoutPlacesPanesInRows_data();
    void customLayoutPlacesPanesInRows();
    void otherArrangementsFillRows();
    void splitterSizesSurviveRebuild();
    void modifiedMarkAndSavePrompt();
    void projectSavedAndReopenedThroughWindow();
    void failedSaveIsReportedAndKeepsMark();
    void removePortKeepsTheLastOne();
    void paneTakesFontAndLightsFromItsOptions();
    void settingsDialogKeepsWhatItShows();
    void restoreDefaultsAsksFirst_data();
    void restoreDefaultsAsksFirst();
    void quickSettingsCatalogueAndUnknownIds();
    void quickSettingsEditorMovesAndRefuses();
    void quickSettingsShapeEveryPane();
    void transfersRunFromTheMenuWithABar();
    void transferRefusedOrCancelledFromTheMenu();
    void panesGoWhileTransfersRun();
    void liveConsoleSwitchesAreKeptAndWatchingIsShown();
    void logRecordingFollowsTheMenu();
    void projectsKeepListenAddressAndRefuseOtherFiles();
    void onlyPanesOpenAtExitAreRestored();
    void settingsAndRestoreDefaultsFromTheMenu();
    void twoPanesFitSideBySide_data();
    void twoPanesFitSideBySide();

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
        // The menu marks the choice, and only that one.
        QVERIFY(w.findChild<QAction *>(action)->isChecked());
        QCOMPARE(w.findChild<QAction *>("actionChinese")->isChecked(), value == 1);
    }
    // A new window marks what is stored.
    MainWindow again;
    QVERIFY(again.findChild<QAction *>("actionEnglish")->isChecked());
    QVERIFY(!again.findChild<QAction *>("actionChinese")->isChecked());
}

void MainWindowTest::paneStartsFromLastUsedAndSavesChanges()
{
    {
        QSettings settings;
        settings.setValue("LastBaudrate", 115200);
        settings.setValue("LastReceiveEncoding", "GBK");
        settings.setValue("LastDisplaySendTime", false);
        // Written by every save of the record and read where it is used:
        // the log name a new pane starts with.
        settings.setValue("LastLogFileName", "bench_%S.log");
        settings.setValue("LastListenAddress", int(QHostAddress::LocalHost));
    }
    MainWindow w;
    QCOMPARE(w.panes().size(), 1);
    SerialPortWidget *pane = w.panes().constFirst();
    QCOMPARE(pane->connectionConfig().baudRate, 115200);
    QCOMPARE(pane->paneOptions().receiveEncoding, QString("GBK"));
    QCOMPARE(pane->paneOptions().logFileName, QString("bench_%S.log"));
    QCOMPARE(pane->connectionConfig().listenAddress, QHostAddress::LocalHost);

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
    const quint16 port = unusedListenPort();  // a server pane needs a number
    QVERIFY(port != 0);
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

// Answers the next modal message box with `button`; records its text.
static void answerNextBox(QMessageBox::StandardButton button, QString *text = nullptr)
{
    QTimer::singleShot(0, [button, text] {
        if (auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget())) {
            if (text)
                *text = box->text();
            box->button(button)->click();
        }
    });
}

void MainWindowTest::customLayoutPlacesPanesInRows_data()
{
    QTest::addColumn<int>("panes");
    QTest::addColumn<int>("perRow");
    for (int k : {1, 2, 3, 4, 16}) {
        for (int n = 1; n <= 17; ++n)
            QTest::addRow("%d panes, %d per row", n, k) << n << k;
    }
}

void MainWindowTest::customLayoutPlacesPanesInRows()
{
    QFETCH(int, panes);
    QFETCH(int, perRow);
    MainWindow w;
    w.setArrangement(PortArrangement::Layout::Custom);
    w.setColumnNumber(perRow);
    while (w.panes().size() < panes)
        w.addPane();
    auto *outer = w.findChild<QSplitter *>("portSplitter");
    QVERIFY(outer);
    QCOMPARE(outer->orientation(), Qt::Vertical);
    QCOMPARE(outer->count(), (panes + perRow - 1) / perRow);
    QCOMPARE(outer->handleWidth(), 8);
    QVERIFY(!outer->childrenCollapsible());
    for (int i = 0; i < panes; ++i) {
        auto *row = qobject_cast<QSplitter *>(w.panes().at(i)->parentWidget());
        QVERIFY(row);
        QCOMPARE(row->objectName(), QString("portRowSplitter%1").arg(i / perRow));
        QCOMPARE(row->indexOf(w.panes().at(i)), i % perRow);
        QCOMPARE(row->orientation(), Qt::Horizontal);
        QCOMPARE(row->handleWidth(), 8);
        QVERIFY(!row->childrenCollapsible());
        QCOMPARE(outer->indexOf(row), i / perRow);
    }
}

void MainWindowTest::otherArrangementsFillRows()
{
    using L = PortArrangement::Layout;
    QCOMPARE(PortArrangement::rowSizes(L::Horizontal, 5, 2), (QList<int>{5}));
    QCOMPARE(PortArrangement::rowSizes(L::Vertical, 3, 2), (QList<int>{1, 1, 1}));
    QCOMPARE(PortArrangement::rowSizes(L::Grid, 5, 1), (QList<int>{3, 2}));
    QCOMPARE(PortArrangement::rowSizes(L::Grid, 4, 1), (QList<int>{2, 2}));
    QCOMPARE(PortArrangement::rowSizes(L::Custom, 0, 3), (QList<int>{}));

    MainWindow w;
    w.addPane();
    w.addPane();
    w.setArrangement(L::Vertical);
    QCOMPARE(w.findChild<QSplitter *>("portSplitter")->count(), 3);
    w.setArrangement(L::Horizontal);
    QCOMPARE(w.findChild<QSplitter *>("portSplitter")->count(), 1);
    QCOMPARE(w.findChild<QSplitter *>("portRowSplitter0")->count(), 3);
}

void MainWindowTest::splitterSizesSurviveRebuild()
{
    MainWindow w;
    // Wide enough that both panes can take the chosen shares.
    w.resize(2800, 1000);
    w.setColumnNumber(2);
    w.addPane();
    w.show();
    QVERIFY(QTest::qWaitForWindowExposed(&w));
    auto *row = w.findChild<QSplitter *>("portRowSplitter0");
    const int total = row->sizes().at(0) + row->sizes().at(1);
    const QList<int> chosen{total * 2 / 3, total - total * 2 / 3};
    row->setSizes(chosen);
    QCOMPARE(row->sizes(), chosen);
    w.setArrangement(PortArrangement::Layout::Custom);
    QTRY_COMPARE_WITH_TIMEOUT(w.findChild<QSplitter *>("portRowSplitter0")->sizes(), chosen, 2000);
}

void MainWindowTest::modifiedMarkAndSavePrompt()
{
    QTemporaryDir dir;
    auto w = std::make_unique<MainWindow>();
    w->show();
    QCOMPARE(w->windowTitle(), QString("Untitled[*] - Tessaline"));
    QVERIFY(!w->isWindowModified());
    w->findChild<QAction *>("acEditAdd")->trigger();
    QVERIFY(w->isWindowModified());

    // Cancel keeps the window and the changes.
    QString question;
    answerNextBox(QMessageBox::Cancel, &question);
    QVERIFY(!w->close());
    QCOMPARE(question, QString("The document has been modified.\nDo you want to save your changes?"));
    QVERIFY(w->isVisible());
    QCOMPARE(w->panes().size(), 2);

    // Replacing the project asks too; Discard lets it go.
    answerNextBox(QMessageBox::Discard);
    w->findChild<QAction *>("acFileNew")->trigger();
    QCOMPARE(w->panes().size(), 1);
    QVERIFY(!w->isWindowModified());

    // Save writes the named project before closing.
    const QString file = dir.filePath("named.tsl");
    QVERIFY(w->saveProjectTo(file));
    QCOMPARE(w->windowTitle(), QString("named.tsl[*] - Tessaline"));
    w->setColumnNumber(3);
    w->findChild<QAction *>("acEditAdd")->trigger();
    answerNextBox(QMessageBox::Save);
    QVERIFY(w->close());
    const ValueResult<Project> saved = ProjectFile::readSettingFile(file, ProjectPane{});
    QVERIFY(saved.isOk());
    QCOMPARE(saved.value().panes.size(), 2);
    QCOMPARE(saved.value().columnNumber, 3);
}

void MainWindowTest::projectSavedAndReopenedThroughWindow()
{
    QTemporaryDir dir;
    const QString file = dir.filePath("four.tsl");
    QList<ConnectionConfig> configs;
    {
        MainWindow w;
        w.setArrangement(PortArrangement::Layout::Custom);
        w.setColumnNumber(2);
        for (int i = 0; i < 3; ++i)
            w.addPane();
        SerialPortWidget *tcp = w.panes().at(1);
        ConnectionConfig c = tcp->connectionConfig();
        c.mode = ConnectionMode::TcpClient;
        c.targetHost = "192.0.2.9";
        c.recentTargetHosts = {"192.0.2.9", "127.0.0.1"};
        c.targetPort = 4001;
        PaneOptions o = tcp->paneOptions();
        o.receiveFormat = MessageFormat::Hex;
        tcp->applySettings(c, o, {"ping", "pong"});
        SerialPortWidget *udp = w.panes().at(3);
        ConnectionConfig u = udp->connectionConfig();
        u.mode = ConnectionMode::UdpServer;
        u.udpLocalPort = 0;
        udp->applySettings(u, udp->paneOptions(), {});
        for (SerialPortWidget *pane : w.panes())
            configs.append(pane->connectionConfig());
        QVERIFY(w.saveProjectTo(file));
        QVERIFY(w.close());
    }
    // A fresh start brings back the project that was open at exit.
    MainWindow again;
    QCOMPARE(again.currentFile(), file);
    QCOMPARE(again.windowTitle(), QString("four.tsl[*] - Tessaline"));
    QVERIFY(!again.isWindowModified());
    QCOMPARE(again.panes().size(), 4);
    QCOMPARE(again.columnNumber(), 2);
    for (int i = 0; i < 4; ++i)
        QVERIFY2(again.panes().at(i)->connectionConfig() == configs.at(i), qPrintable(QString::number(i)));
    QCOMPARE(again.panes().at(1)->paneOptions().receiveFormat, MessageFormat::Hex);
    QCOMPARE(again.panes().at(1)->sendHistory(), (QStringList{"ping", "pong"}));
    QCOMPARE(again.findChild<QSplitter *>("portSplitter")->count(), 2);
    QSettings settings;
    QCOMPARE(settings.value("RecentFiles").toStringList().value(0), QFileInfo(file).absoluteFilePath());
}

void MainWindowTest::failedSaveIsReportedAndKeepsMark()
{
    QTemporaryDir dir;
    MainWindow w;
    w.findChild<QAction *>("acEditAdd")->trigger();
    const QString file = dir.filePath("missing/folder/p.tsl");
    QVERIFY(!w.saveProjectTo(file));
    QVERIFY(w.statusBar()->currentMessage().contains("p.tsl"));
    QVERIFY(w.isWindowModified());
    QVERIFY(w.currentFile().isEmpty());
}

void MainWindowTest::removePortKeepsTheLastOne()
{
    MainWindow w;
    w.addPane();
    QAction *remove = w.findChild<QAction *>("acEditRemove");
    remove->trigger();
    QCOMPARE(w.panes().size(), 1);
    remove->trigger();
    QCOMPARE(w.panes().size(), 1);
    QVERIFY(w.findChild<QSplitter *>("portRowSplitter0"));
}

void MainWindowTest::paneTakesFontAndLightsFromItsOptions()
{
    MainWindow w;
    w.show();
    SerialPortWidget *pane = w.panes().constFirst();
    auto *view = pane->findChild<ReceiveView *>();
    auto *lights = pane->findChild<ControlLineLights *>();
    QVERIFY(view && lights);
    // An empty family means the first installed of the preference list.
    QCOMPARE(view->font().family(), MonospaceFont::preferredFamily());
    QVERIFY(lights->isVisibleTo(pane));

    PaneOptions o = pane->paneOptions();
    o.fontSize = 17;
    o.fontWeight = 700;
    o.showControlLineLeds = false;
    pane->applySettings(pane->connectionConfig(), o, {});
    QCOMPARE(view->font().pointSize(), 17);
    QCOMPARE(view->font().weight(), QFont::Bold);
    QVERIFY(!lights->isVisibleTo(pane));
}

void MainWindowTest::settingsDialogKeepsWhatItShows()
{
    PaneSettings in;
    in.connection.mode = ConnectionMode::TcpClient;
    in.connection.targetHost = "192.0.2.4";
    in.connection.recentTargetHosts = {"192.0.2.4"};
    in.connection.targetPort = 9100;
    PaneOptions &o = in.options;
    o.fontSize = 14;
    o.fontWeight = 700;
    o.receiveTextColor = "#aa0000";
    o.sendTextColor = "#0000aa";
    o.formatDisplayColor = "#00aa00";
    o.showControlLineLeds = false;
    o.displayBufferSize = 50000;
    o.rxTimeFormat = "<hh:mm>";
    o.logSaveFlag = true;
    o.logFilePath = "/tmp/logs here";
    o.logFileName = "dev_%Y.log";
    o.logTimestampEnabled = false;
    o.logTimestamp = "%h%m";
    o.logRotateAtSize = true;
    o.logRotateSize = 5;
    o.logRotateAtTime = true;
    o.logRotateTime = QTime(6, 30, 0);
    o.needHourTimeStamp = true;
    // Every receive and send option of the quick strip is here too.
    o.receiveFormat = MessageFormat::Hex;
    o.receiveEncoding = "GBK";
    o.rxLineEnding = LineEnding::CrLf;
    o.rxAutoFeedLine = true;
    o.autoFeedInterval = 75;
    o.displayTime = true;
    o.sendFormat = MessageFormat::Hex;
    o.sendEncoding = "ISO-8859-1";
    o.autoSend = true;
    o.sendInterval = 3;
    o.sendTimeUnit = SendTimeUnit::Seconds;
    o.txAutoFeedLine = true;
    o.txLineEnding = LineEnding::LfCr;
    o.terminalEnterMode = LineEnding::Lf;
    o.sendChecksum = 4;
    o.displaySendMsg = false;
    o.localEcho = true;
    o.lineByLine = true;
    PortSettingsDialog dialog(in);
    auto *tabs = dialog.findChild<QTabWidget *>("settingsTabs");
    QStringList pages;
    for (int i = 0; i < tabs->count(); ++i)
        pages << tabs->tabText(i);
    QCOMPARE(pages, (QStringList{"Connection", "Receive", "Send", "Display", "Data Log"}));
    QCOMPARE(dialog.findChild<QComboBox *>("sendChecksumBox")->currentText(), QString("CRC-16/MODBUS"));
    const PaneSettings out = dialog.settings();
    QVERIFY(out.connection == in.connection);
    QVERIFY(out.options == in.options);
}

void MainWindowTest::restoreDefaultsAsksFirst_data()
{
    QTest::addColumn<bool>("confirm");
    QTest::newRow("ok") << true;
    QTest::newRow("cancel") << false;
}

void MainWindowTest::restoreDefaultsAsksFirst()
{
    QFETCH(bool, confirm);
    PaneSettings changed;
    changed.options.fontSize = 20;
    changed.options.logRotateAtSize = true;
    PortSettingsDialog dialog(changed);
    QSignalSpy restored(&dialog, &PortSettingsDialog::restoreDefaultsRequested);
    QString question;
    answerNextBox(confirm ? QMessageBox::Ok : QMessageBox::Cancel, &question);
    dialog.findChild<QPushButton *>("pbRestoreDefaults")->click();
    QCOMPARE(question, PortSettingsDialog::restoreDefaultsQuestion());
    QCOMPARE(restored.count(), confirm ? 1 : 0);
    QCOMPARE(dialog.settings().options.fontSize, confirm ? PaneOptions().fontSize : 20);
    QCOMPARE(dialog.settings().options.logRotateAtSize, !confirm);
}

void MainWindowTest::quickSettingsCatalogueAndUnknownIds()
{
    const QList<QuickSettingsCatalog::Group> groups = QuickSettingsCatalog::groups();
    QStringList ids;
    for (const auto &g : groups) {
        ids.append(g.id + ":");
        for (const auto &f : g.fields)
            ids.append(f.id);
    }
    QCOMPARE(ids.join(' '), QString("connection: baudRate dataBits parity stopBits flowControl indicatorLights "
                                    "receive: rxFormat rxAutoFeed rxDisplayTime send: txFormat txLoop txAutoFeed "
                                    "txTerminalEnter txChecksum txDisplaySend txLocalEcho txLineByLine"));
    QCOMPARE(groups.at(0).fields.at(4).label, QString("Flow Type"));
    QCOMPARE(groups.at(2).fields.at(3).toolTip, QString("Bytes sent when Enter is pressed in the receive terminal"));

    QuickSettingsLayout stored;
    stored.groupOrder = {"bogus", "send", "send", "receive"};
    stored.fieldOrder.insert("send", {"nope", "txChecksum"});
    stored.hiddenFields.insert("receive", {"rxFormat", "gone"});
    stored.hiddenFields.insert("controlLines", {"dtr"});
    QCOMPARE(QuickSettingsCatalog::groupOrder(stored), (QStringList{"send", "receive", "connection"}));
    QCOMPARE(QuickSettingsCatalog::fieldOrder(stored, "send", false).mid(0, 2), (QStringList{"txChecksum", "txFormat"}));
    QCOMPARE(QuickSettingsCatalog::fieldOrder(stored, "receive", true), (QStringList{"rxAutoFeed", "rxDisplayTime"}));
    const QuickSettingsLayout clean = QuickSettingsCatalog::cleaned(stored);
    QCOMPARE(clean.groupOrder, (QStringList{"send", "receive", "connection", "controlLines"}));
    QCOMPARE(clean.hiddenFields.value("receive"), QStringList{"rxFormat"});
    QVERIFY(!clean.hiddenFields.contains("controlLines"));
}

void MainWindowTest::quickSettingsEditorMovesAndRefuses()
{
    QuickSettingsDialog dialog{QuickSettingsLayout{}};
    auto *tree = dialog.findChild<QTreeWidget *>("quickSettingsTree");
    QVERIFY(tree);
    QCOMPARE(tree->topLevelItemCount(), 3);
    // Move "Send Settings" up once, and "Loop Send" down once.
    tree->setCurrentItem(tree->topLevelItem(2));
    dialog.findChild<QPushButton *>("quickSettingsMoveUpButton")->click();
    tree->setCurrentItem(tree->topLevelItem(1)->child(1));
    dialog.findChild<QPushButton *>("quickSettingsMoveDownButton")->click();
    tree->topLevelItem(0)->child(2)->setCheckState(0, Qt::Unchecked);  // parity
    QuickSettingsLayout chosen = dialog.layout();
    QCOMPARE(chosen.groupOrder, (QStringList{"connection", "controlLines", "send", "receive"}));
    QCOMPARE(chosen.fieldOrder.value("send").mid(0, 3), (QStringList{"txFormat", "txAutoFeed", "txLoop"}));
    QCOMPARE(chosen.hiddenFields.value("connection"), QStringList{"parity"});

    for (int i = 0; i < 3; ++i)
        tree->topLevelItem(i)->setCheckState(0, Qt::Unchecked);
    QString warning;
    answerNextBox(QMessageBox::Ok, &warning);
    dialog.accept();
    QCOMPARE(warning, QString("Select at least one quick settings group to show."));
    QCOMPARE(dialog.result(), int(QDialog::Rejected));
}

void MainWindowTest::quickSettingsShapeEveryPane()
{
    QSettings settings;
    QuickSettingsLayout layout;
    layout.showReceive = false;
    layout.hiddenFields.insert("send", {"txChecksum"});
    // The rows follow the chosen order; unknown ids are dropped, missing
    // ones come last in catalogue order.
    layout.fieldOrder.insert("send", {"txLineByLine", "bogus", "txFormat", "txLocalEcho"});
    layout.fieldOrder.insert("connection", {"flowControl", "baudRate"});
    layout.save(settings);
    MainWindow w;
    w.addPane();
    w.show();
    const auto rowsOf = [](QWidget *group, const QStringList &names) {
        auto *form = qobject_cast<QFormLayout *>(group->layout());
        QList<int> rows;
        for (const QString &name : names)
            rows.append(FormRows::rowOf(form, group->findChild<QWidget *>(name)));
        return rows;
    };
    for (SerialPortWidget *pane : w.panes()) {
        QVERIFY(!pane->findChild<QGroupBox *>("receiveGroup")->isVisibleTo(pane));
        QVERIFY(pane->findChild<QGroupBox *>("sendGroup")->isVisibleTo(pane));
        QVERIFY(!pane->findChild<QComboBox *>("sendChecksumBox")->isVisibleTo(pane));
        QVERIFY(pane->findChild<QComboBox *>("terminalEnterBox")->isVisibleTo(pane));
        const QList<int> sendRows =
            rowsOf(pane->findChild<QGroupBox *>("sendGroup"),
                   {"cbLinebyLine", "hexSendBox", "localEchoBox", "autoSendBox", "appendLineEndingBox",
                    "terminalEnterBox", "sendChecksumBox", "displaySendBox"});
        QCOMPARE(sendRows, (QList<int>{0, 1, 2, 3, 4, 5, 6, 7}));
        // Every row keeps its own label.
        auto *sendForm = qobject_cast<QFormLayout *>(pane->findChild<QGroupBox *>("sendGroup")->layout());
        auto *loopLabel = qobject_cast<QLabel *>(sendForm->itemAt(3, QFormLayout::LabelRole)->widget());
        QCOMPARE(loopLabel->text(), QString("Loop Send"));
        auto *settingsWidget = pane->findChild<QWidget *>("connectionSettings");
        QVERIFY(settingsWidget);
        const QList<int> serialRows = rowsOf(settingsWidget, {"flowControlBox", "baudRateBox", "dataBitsBox", "parityBox", "stopBitsBox"});
        QVERIFY2(std::is_sorted(serialRows.begin(), serialRows.end()) && serialRows.constFirst() >= 0,
                 qPrintable(QDebug::toString(serialRows)));
    }
    w.findChild<QAction *>("acViewQuickSettings")->trigger();
    QVERIFY(w.isWindowModified());
    QVERIFY(!w.panes().constFirst()->findChild<QGroupBox *>("sendGroup")->isVisibleTo(w.panes().constFirst()));
    QCOMPARE(w.currentProject().quickView, false);
    QVERIFY(w.currentProject().quickSettings == layout);
}

namespace {

QByteArray transferPattern(int size)
{
    QByteArray data(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i)
        data[i] = char((i * 131 + 7) ^ (i >> 9));
    return data;
}

QByteArray fileContents(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

SerialPortWidget *openSerialPane(MainWindow &window, const QString &portName)
{
    SerialPortWidget *pane = window.panes().constFirst();
    ConnectionConfig config = pane->connectionConfig();
    config.mode = ConnectionMode::Serial;
    config.portName = portName;
    config.baudRate = 115200;
    pane->applySettings(config, pane->paneOptions(), {});
    return pane->openConnection(portName) ? pane : nullptr;
}

// Runs the dialog the action opened on `pane` and watches the transfer's
// bar until it goes; returns the summary.
QString runTransferDialog(MainWindow &window, SerialPortWidget *pane, const char *action, XmodemVariant protocol,
                          const std::function<void(FileTransferDialog *)> &fill)
{
    window.findChild<QAction *>(QLatin1String(action))->trigger();
    auto *dialog = pane->findChild<FileTransferDialog *>();
    if (!dialog)
        return QStringLiteral("no dialog");
    dialog->setProtocol(protocol);
    fill(dialog);
    if (!dialog->start())
        return dialog->errorText();
    const QPointer<FileTransferSession> session = dialog->session();
    auto *bar = pane->findChild<FileTransferBar *>(QStringLiteral("fileTransferBar"));
    if (!bar || bar->session() != session.data())
        return QStringLiteral("no bar");
    QSignalSpy finished(bar, &FileTransferBar::transferFinished);
    // XMODEM announces no size: the bar is busy and counts bytes only.
    // Checked on each report, after the bar took it.
    bool sawProgress = false;
    QObject::connect(session, &FileTransferSession::progress, bar, [&](qint64 done) {
        if (done > 0 && (bar->percent() > 0 || (bar->percent() < 0 && !bar->counter().startsWith(QLatin1Char('0')))))
            sawProgress = true;
    });
    if (!window.findChild<QAction *>(QStringLiteral("acXferCancel"))->isEnabled())
        return QStringLiteral("cancel not offered");
    if (!finished.wait(60000))
        return QStringLiteral("no end");
    if (!sawProgress)
        return QStringLiteral("no progress shown");
    return finished.at(0).at(0).toBool() ? QString() : finished.at(0).at(1).toString();
}

} // namespace

// A user sends a file from a pane with YMODEM to rb on a serial line and
// takes one back with XMODEM-1K from sx, through the menu, the dialog and
// the pane's bar.
void MainWindowTest::transfersRunFromTheMenuWithABar()
{
    PtyPair pty;
    QVERIFY2(pty.start(), qPrintable(pty.errorText()));
    QTemporaryDir ours, theirs;
    const QByteArray outgoing = transferPattern(1024 * 1024);
    const QByteArray incoming = transferPattern(1024 * 1024 - 1024).toBase64().left(1024 * 1024);
    {
        QFile out(ours.filePath(QStringLiteral("firmware image.bin")));
        QVERIFY(out.open(QIODevice::WriteOnly) && out.write(outgoing) == outgoing.size());
        QFile in(theirs.filePath(QStringLiteral("capture.bin")));
        QVERIFY(in.open(QIODevice::WriteOnly) && in.write(incoming) == incoming.size());
    }
    MainWindow window;
    window.show();
    SerialPortWidget *pane = openSerialPane(window, pty.pathA());
    QVERIFY(pane);
    const QString peerEnd = QStringLiteral("%1,raw,echo=0").arg(pty.pathB());

    {
        LrzszPeer peer;
        QVERIFY(peer.start(peerEnd, theirs.path(), QStringLiteral("rb -q")));
        const QString failure = runTransferDialog(window, pane, "acXferSend", XmodemVariant::Ymodem,
                                                  [&](FileTransferDialog *dialog) {
                                                      dialog->setFilePath(ours.filePath("firmware image.bin"));
                                                  });
        QVERIFY2(failure.isEmpty(), qPrintable(failure));
        QCOMPARE(peer.waitForExit(15000), 0);
        QCOMPARE(fileContents(theirs.filePath(QStringLiteral("firmware image.bin"))), outgoing);
    }
    QTRY_VERIFY_WITH_TIMEOUT(!pane->findChild<FileTransferBar *>(QStringLiteral("fileTransferBar")), 5000);
    QVERIFY(!pane->isTransferActive());
    QVERIFY(!window.findChild<QAction *>(QStringLiteral("acXferCancel"))->isEnabled());
    // The dialog went once the transfer started.
    QTRY_VERIFY_WITH_TIMEOUT(!pane->findChild<FileTransferDialog *>(), 2000);

    {
        LrzszPeer peer;
        QVERIFY(peer.start(peerEnd, theirs.path(), QStringLiteral("sx -k -q capture.bin")));
        const QString failure = runTransferDialog(window, pane, "acXferReceive", XmodemVariant::Xmodem1K,
                                                  [&](FileTransferDialog *dialog) {
                                                      dialog->setFolder(ours.path());
                                                      dialog->setSaveAs(QStringLiteral("capture.bin"));
                                                  });
        QVERIFY2(failure.isEmpty(), qPrintable(failure));
        QCOMPARE(peer.waitForExit(15000), 0);
        // A whole number of 1 KiB blocks: nothing padded.
        QCOMPARE(fileContents(ours.filePath(QStringLiteral("capture.bin"))), incoming);
    }
    // YMODEM-G on a line without RTS/CTS: the pane says what that risks
    // while it runs, and the Rx counter counts what the transfer took.
    {
        LrzszPeer peer;
        QVERIFY(peer.start(peerEnd, theirs.path(), QStringLiteral("sb -k -q capture.bin")));
        QString hint;
        const auto watch = connect(pane, &SerialPortWidget::transferStateChanged, this, [&](bool active) {
            if (auto *label = pane->findChild<QLabel *>(QStringLiteral("ymodemGHint")); label && active)
                hint = label->text();
        });
        const quint64 rxBefore = pane->rxCount();
        QTemporaryDir again;
        const QString failure = runTransferDialog(window, pane, "acXferReceive", XmodemVariant::YmodemG,
                                                  [&](FileTransferDialog *dialog) { dialog->setFolder(again.path()); });
        disconnect(watch);
        QVERIFY2(failure.isEmpty(), qPrintable(failure));
        QCOMPARE(peer.waitForExit(15000), 0);
        QCOMPARE(hint, QString("YMODEM-G does not retransmit, so it needs hardware flow control (RTS/CTS). "
                               "This connection has none."));
        QTRY_VERIFY_WITH_TIMEOUT(!pane->findChild<QLabel *>(QStringLiteral("ymodemGHint")), 5000);
        QVERIFY(pane->rxCount() >= rxBefore + quint64(incoming.size()));
        QCOMPARE(fileContents(again.filePath(QStringLiteral("capture.bin"))), incoming);
    }
    // The pane's view is its own again.
    QVERIFY(!pane->isTransferActive());
    QVERIFY(pane->sendBytes("after\n"));
}

void MainWindowTest::transferRefusedOrCancelledFromTheMenu()
{
    MainWindow window;
    window.show();
    SerialPortWidget *pane = window.panes().constFirst();
    auto *send = window.findChild<QAction *>(QStringLiteral("acXferSend"));
    QCOMPARE(send->shortcut(), QKeySequence(QStringLiteral("Ctrl+Shift+S")));
    QCOMPARE(window.findChild<QAction *>(QStringLiteral("acXferReceive"))->shortcut(),
             QKeySequence(QStringLiteral("Ctrl+Shift+R")));

    // Closed: refused in the pane, no dialog.
    send->trigger();
    QVERIFY(!pane->findChild<FileTransferDialog *>());
    auto *error = pane->findChild<QLabel *>(QStringLiteral("errorLabel"));
    QCOMPARE(error->text(), QString("The connection is not open."));

    // Open on a silent line: a receive waits until the user cancels it,
    // and the partial file never takes the final name.
    PtyPair pty;
    QVERIFY2(pty.start(), qPrintable(pty.errorText()));
    QVERIFY(openSerialPane(window, pty.pathA()));
    QTemporaryDir folder;
    window.findChild<QAction *>(QStringLiteral("acXferReceive"))->trigger();
    // A second press raises the same dialog instead of a second one.
    window.findChild<QAction *>(QStringLiteral("acXferReceive"))->trigger();
    QCOMPARE(pane->findChildren<FileTransferDialog *>().size(), 1);
    auto *dialog = pane->findChild<FileTransferDialog *>();
    dialog->setProtocol(XmodemVariant::XmodemCrc);
    dialog->setFolder(folder.path());
    dialog->setSaveAs(QStringLiteral("never.bin"));
    QVERIFY(dialog->start());
    QVERIFY(pane->isTransferActive());
    auto *cancel = window.findChild<QAction *>(QStringLiteral("acXferCancel"));
    QTRY_VERIFY_WITH_TIMEOUT(cancel->isEnabled(), 2000);
    // While it runs, a second transfer is refused in the pane, and closing
    // the window asks first.
    send->trigger();
    QCOMPARE(error->text(), QString("A file transfer is already running on this port."));
    QString question;
    answerNextBox(QMessageBox::No, &question);
    QVERIFY(!window.close());
    QVERIFY(question.startsWith("A file transfer is running."));
    QVERIFY(pane->isTransferActive());
    cancel->trigger();
    QTRY_VERIFY_WITH_TIMEOUT(!pane->isTransferActive(), 5000);
    QTRY_VERIFY_WITH_TIMEOUT(!cancel->isEnabled(), 2000);
    QTRY_VERIFY_WITH_TIMEOUT(!pane->findChild<FileTransferBar *>(QStringLiteral("fileTransferBar")), 2000);
    QVERIFY(!QFile::exists(folder.filePath(QStringLiteral("never.bin"))));
}

// Removing a pane, or closing the window, in the middle of a transfer ends
// it without touching what is already gone and without leaving files.
void MainWindowTest::panesGoWhileTransfersRun()
{
    PtyPair ptyA, ptyB;
    QVERIFY2(ptyA.start() && ptyB.start(), qPrintable(ptyA.errorText() + ptyB.errorText()));
    QTemporaryDir folder;
    auto window = std::make_unique<MainWindow>();
    window->show();
    SerialPortWidget *second = window->addPane();
    QVERIFY(openSerialPane(*window, ptyA.pathA()));
    ConnectionConfig config = second->connectionConfig();
    config.mode = ConnectionMode::Serial;
    config.portName = ptyB.pathA();
    second->applySettings(config, second->paneOptions(), {});
    QVERIFY(second->openConnection(ptyB.pathA()));
    for (SerialPortWidget *pane : window->panes()) {
        FileTransferDialog *dialog = window->transfers()->openDialog(pane, FileTransferSession::Direction::Receive);
        QVERIFY(dialog);
        dialog->setProtocol(XmodemVariant::XmodemCrc);
        dialog->setFolder(folder.path());
        dialog->setSaveAs(QStringLiteral("pane%1.bin").arg(pane->paneId()));
        QVERIFY(dialog->start());
        QVERIFY(pane->isTransferActive());
    }
    window->removePane(second);
    QPointer<SerialPortWidget> gone = second;
    QTRY_COMPARE_WITH_TIMEOUT(window->panes().size(), 1, 2000);
    QTRY_VERIFY_WITH_TIMEOUT(!gone, 2000);
    QVERIFY(window->panes().constFirst()->isTransferActive());
    window.reset();
    // Nothing had arrived: no temporary file is left, and nothing under
    // the final names.
    const QStringList left = QDir(folder.path()).entryList(QDir::Files | QDir::Hidden);
    QVERIFY2(left.isEmpty(), qPrintable(left.join(u',')));
}

void MainWindowTest::liveConsoleSwitchesAreKeptAndWatchingIsShown()
{
    {
        MainWindow window;
        auto *console = window.findChild<QAction *>("acCloudConsole");
        auto *send = window.findChild<QAction *>("acCloudConsoleAllowSend");
        auto *control = window.findChild<QAction *>("acCloudConsoleAllowPortControl");
        QVERIFY(console && send && control);
        QCOMPARE(console->text(), QString("Live Console"));
        QCOMPARE(send->text(), QString("Allow Remote Send"));
        QCOMPARE(control->text(), QString("Allow Remote Port Control"));
        // The guest shares sit in the same menu, with their badge in the status bar.
        auto *share = window.findChild<QAction *>("acCloudShareGuest");
        auto *manage = window.findChild<QAction *>("acCloudManageShares");
        QVERIFY(share && manage);
        QCOMPARE(share->text(), QString("Share Port with a Guest…"));
        QCOMPARE(manage->text(), QString("Manage Guest Shares…"));
        auto *cloudMenu = window.findChild<QMenu *>("menuCloud");
        QVERIFY(cloudMenu && cloudMenu->actions().contains(share) && cloudMenu->actions().contains(manage));
        auto *shareBadge = window.statusBar()->findChild<QLabel *>("shareBadge");
        QVERIFY(shareBadge && shareBadge->isHidden());
        // Everything off on a fresh installation.
        QVERIFY(!console->isChecked() && !send->isChecked() && !control->isChecked());
        QVERIFY(!window.consoleMenu()->service()->isEnabled());
        console->trigger();
        send->trigger();
        QVERIFY(window.consoleMenu()->service()->isEnabled());
        QCOMPARE(QSettings().value("CloudConsoleAllowRemoteSend").toBool(), true);
        QCOMPARE(QSettings().value("CloudConsoleAllowPortControl", false).toBool(), false);
    }
    // The switch comes back at the next start.
    MainWindow window;
    CloudConsoleService *service = window.consoleMenu()->service();
    QVERIFY(window.findChild<QAction *>("acCloudConsole")->isChecked());
    QVERIFY(service->isEnabled());
    QVERIFY(window.findChild<QAction *>("acCloudConsoleAllowSend")->isChecked());

    auto *badge = window.statusBar()->findChild<QLabel *>("consoleBadge");
    QVERIFY(badge);
    QVERIFY(badge->isHidden());
    service->onConsoleResponse({{"type", "console"}, {"status", true}, {"watching", true}, {"authoritative", true}});
    QVERIFY(service->isWatching());
    QVERIFY(!badge->isHidden());
    QCOMPARE(badge->text(), QString("Being watched"));
    QCOMPARE(badge->toolTip(), QString("Live Console \u00b7 somebody is watching now\nCloud > Live Console to stop"));

    // A pane added while watched is heard at once; one removed is not missed.
    SerialPortWidget *added = window.addPane();
    added->session()->ingestReceived("late pane");
    QCOMPARE(service->traffic().eventCount(), 1);
    window.removePane(added);
    QTRY_COMPARE_WITH_TIMEOUT(window.panes().size(), 1, 5000);

    window.findChild<QAction *>("acCloudConsole")->trigger();
    QVERIFY(!service->isEnabled());
    QVERIFY(badge->isHidden());
    QCOMPARE(QSettings().value("LastCloudConsole").toBool(), false);
}

namespace {

// A pane listening for UDP on a port the system picks, logging into folder.
void makeUdpPane(SerialPortWidget *pane, const QString &folder, bool log)
{
    ConnectionConfig c = pane->connectionConfig();
    c.mode = ConnectionMode::UdpServer;
    c.udpLocalPort = 0;
    PaneOptions o = pane->paneOptions();
    o.logFilePath = folder;
    o.logSaveFlag = log;
    pane->applySettings(c, o, {});
}

QString readAll(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

} // namespace

void MainWindowTest::logRecordingFollowsTheMenu()
{
    QTemporaryDir logs;
    MainWindow w;
    w.addPane();
    for (SerialPortWidget *pane : w.panes())
        makeUdpPane(pane, logs.path(), false);
    SerialPortWidget *pane = w.panes().constFirst();
    QVERIFY(pane->openConnection());
    QAction *record = w.findChild<QAction *>("acFileRecordDataLog");
    QVERIFY(!record->isChecked());

    // Nothing recorded yet: the user is told so in the log's own words.
    w.findChild<QAction *>("acFileViewCurrentDataLog")->trigger();
    auto *warning = w.findChild<QMessageBox *>("windowWarning");
    QVERIFY(warning);
    QCOMPARE(warning->windowTitle(), QString("Warning"));
    QCOMPARE(warning->text(), QString("Current log file does not exist."));
    warning->close();

    // On an open port the menu starts the log at once, and stops it.
    record->trigger();
    QVERIFY(record->isChecked());
    QVERIFY(pane->isLogging());
    QVERIFY(!w.panes().at(1)->isLogging());  // closed: it logs once it opens
    QVERIFY(w.panes().at(1)->paneOptions().logSaveFlag);
    QUdpSocket device;
    device.writeDatagram("recorded\n", QHostAddress::LocalHost, pane->controller()->udpLocalPort());
    QTRY_VERIFY_WITH_TIMEOUT(pane->rxCount() == 9, 5000);
    const QString file = pane->currentLogFile();
    record->trigger();
    QVERIFY(!record->isChecked());
    QVERIFY(!pane->isLogging());
    QVERIFY(readAll(file).contains("recorded"));

    // The mark follows the panes: one pane logging alone does not check it,
    // all of them do.
    PaneOptions o = pane->paneOptions();
    o.logSaveFlag = true;
    pane->applySettings(pane->connectionConfig(), o, {});
    QVERIFY(pane->isLogging());
    QCOMPARE(pane->currentLogFile(), file);
    QTest::mouseClick(w.panes().at(1)->findChild<QCheckBox *>("logSaveBox"), Qt::LeftButton);
    QVERIFY(record->isChecked());

    // A project whose panes log brings the mark with it.
    const QString project = logs.filePath("logging.tsl");
    QVERIFY(w.saveProjectTo(project));
    record->trigger();
    QVERIFY(!record->isChecked());
    QVERIFY(w.openProject(project));
    QVERIFY(record->isChecked());
    QVERIFY(w.panes().constFirst()->paneOptions().logSaveFlag);
    w.close();
}

void MainWindowTest::projectsKeepListenAddressAndRefuseOtherFiles()
{
    QTemporaryDir dir;
    const quint16 port = unusedListenPort();  // a server pane needs a number
    QVERIFY(port != 0);
    const QString file = dir.filePath("local.tsl");
    {
        MainWindow w;
        SerialPortWidget *pane = w.panes().constFirst();
        ConnectionConfig c = pane->connectionConfig();
        c.mode = ConnectionMode::TcpServer;
        c.targetPort = port;
        c.listenAddress = QHostAddress::LocalHost;
        pane->applySettings(c, pane->paneOptions(), {});
        QVERIFY(w.saveProjectTo(file));
        w.close();
    }
    QCOMPARE(QSettings(file, QSettings::IniFormat).value("0/ListenAddress").toInt(), int(QHostAddress::LocalHost));
    MainWindow again;
    QCOMPARE(again.currentFile(), file);
    SerialPortWidget *server = again.panes().constFirst();
    QCOMPARE(server->connectionConfig().listenAddress, QHostAddress::LocalHost);
    QVERIFY(server->openConnection());
    QCOMPARE(server->controller()->serverAddressText(), QString("127.0.0.1:%1").arg(port));
    server->closeConnection();

    // A file named .tsl that holds no project changes nothing.
    const QString bogus = dir.filePath("photo.tsl");
    {
        QFile f(bogus);
        QVERIFY(f.open(QIODevice::WriteOnly));
        f.write(QByteArray("\x89PNG\r\n\x1a\n\0\0\0\rIHDR", 16) + QByteArray(200, '\x07'));
    }
    const QString text = dir.filePath("notes.tsl");
    {
        QFile f(text);
        QVERIFY(f.open(QIODevice::WriteOnly));
        f.write("shopping list\nmilk\n");
    }
    for (const QString &path : {bogus, text}) {
        QVERIFY(!again.openProject(path));
        QCOMPARE(again.currentFile(), file);
        QCOMPARE(again.panes().size(), 1);
        QCOMPARE(again.panes().constFirst()->connectionConfig().mode, ConnectionMode::TcpServer);
        QVERIFY(again.statusBar()->currentMessage().contains("does not hold Tessaline settings"));
    }
    // A project from before the key existed listens on every interface.
    QSettings old(file, QSettings::IniFormat);
    old.remove("0/ListenAddress");
    old.sync();
    QVERIFY(again.openProject(file));
    QCOMPARE(again.panes().constFirst()->connectionConfig().listenAddress, QHostAddress::Any);
    again.close();
}

void MainWindowTest::onlyPanesOpenAtExitAreRestored()
{
    QTemporaryDir logs;
    QSettings().setValue("OpenLastConnection", true);
    {
        MainWindow w;
        w.addPane();
        w.addPane();
        for (SerialPortWidget *pane : w.panes())
            makeUdpPane(pane, logs.path(), false);
        QVERIFY(w.panes().at(1)->openConnection());
        QVERIFY(w.saveProjectTo(logs.filePath("three.tsl")));
        QVERIFY(w.close());
    }
    MainWindow again;
    QCOMPARE(again.panes().size(), 3);
    again.restoreLastConnection();
    QVERIFY(!again.panes().at(0)->isConnectionOpen());
    QVERIFY(again.panes().at(1)->isConnectionOpen());
    QVERIFY(!again.panes().at(2)->isConnectionOpen());
    again.close();
}

// Through the Tools menu, as a user: with Quick Settings closed the full
// panel still changes how a pane sends; Restore Default Settings closes the
// open port and brings every option back.
void MainWindowTest::settingsAndRestoreDefaultsFromTheMenu()
{
    QTemporaryDir logs;
    MainWindow w;
    w.show();
    SerialPortWidget *pane = w.panes().constFirst();
    makeUdpPane(pane, logs.path(), true);
    QVERIFY(pane->openConnection());
    QVERIFY(pane->isLogging());
    w.findChild<QAction *>("acViewQuickSettings")->trigger();  // closes the strip
    QAction *settingsAction = w.findChild<QAction *>("acToolsSetting");

    auto withDialog = [](const std::function<void(PortSettingsDialog *)> &act) {
        QTimer::singleShot(0, [act] {
            auto *dialog = qobject_cast<PortSettingsDialog *>(QApplication::activeModalWidget());
            QVERIFY(dialog);
            act(dialog);
        });
    };
    withDialog([](PortSettingsDialog *dialog) {
        auto *checksum = dialog->findChild<QComboBox *>("sendChecksumBox");
        checksum->setCurrentIndex(checksum->findData(3));
        dialog->findChild<QCheckBox *>("hexSendBox")->setChecked(true);
        dialog->accept();
    });
    settingsAction->trigger();
    QCOMPARE(pane->paneOptions().sendChecksum, 3);
    QCOMPARE(pane->paneOptions().sendFormat, MessageFormat::Hex);
    QVERIFY(pane->isConnectionOpen());  // options only: the port stays open
    QVERIFY(w.isWindowModified());

    withDialog([](PortSettingsDialog *dialog) {
        answerNextBox(QMessageBox::Ok);
        dialog->findChild<QPushButton *>("pbRestoreDefaults")->click();
        dialog->reject();
    });
    settingsAction->trigger();
    QVERIFY(!pane->isConnectionOpen());
    QVERIFY(!pane->isLogging());
    QVERIFY(pane->paneOptions() == PaneOptions());
    QCOMPARE(pane->connectionConfig().mode, ConnectionMode::Serial);
    QVERIFY(!w.findChild<QAction *>("acFileRecordDataLog")->isChecked());
    QCOMPARE(w.statusBar()->currentMessage(), QString("Default settings restored."));
    // New panes start from the defaults too.
    QVERIFY(w.addPane()->paneOptions() == PaneOptions());
    answerNextBox(QMessageBox::Discard);
    QVERIFY(w.close());
}

void MainWindowTest::twoPanesFitSideBySide_data()
{
    QTest::addColumn<int>("width");
    QTest::addColumn<bool>("quickSettings");
    QTest::newRow("1600 px with Quick Settings") << 1600 << true;
    QTest::newRow("1280 px without") << 1280 << false;
}

// Two panes side by side on a common screen, without the window scrolling
// sideways; a TCP server pane, whose rows are the widest.
void MainWindowTest::twoPanesFitSideBySide()
{
    QFETCH(int, width);
    QFETCH(bool, quickSettings);
    MainWindow w;
    w.setColumnNumber(2);
    w.addPane();
    ConnectionConfig server = w.panes().at(1)->connectionConfig();
    server.mode = ConnectionMode::TcpServer;
    w.panes().at(1)->applySettings(server, w.panes().at(1)->paneOptions(), {});
    if (!quickSettings)
        w.findChild<QAction *>("acViewQuickSettings")->trigger();
    w.resize(width, 860);
    w.show();
    QVERIFY(QTest::qWaitForWindowExposed(&w));
    QCoreApplication::processEvents();
    auto *scroll = w.findChild<QScrollArea *>("portScrollArea");
    QVERIFY(scroll);
    QVERIFY2(scroll->horizontalScrollBar()->maximum() == 0,
             qPrintable(QString("the panes need %1 px more").arg(scroll->horizontalScrollBar()->maximum())));
    for (SerialPortWidget *pane : w.panes())
        QVERIFY(pane->width() >= pane->minimumSizeHint().width());
    answerNextBox(QMessageBox::Discard);
    w.close();
}

QTEST_MAIN(MainWindowTest)
#include "tst_mainwindow.moc"
