#pragma once

#include <QMainWindow>

class QSettings;

namespace Ui {
class MainWindow;
}

// The one main window: it owns the port panes, the menus, the tool bar and
// the status bar.
class MainWindow : public QMainWindow
{
    Q_OBJECT

public:
    explicit MainWindow(QWidget *parent = nullptr);
    ~MainWindow() override;

    // Size from the settings, then the stored position when it lies inside
    // the primary screen's available area.
    void restoreGeometryFrom(const QSettings &settings);

protected:
    void closeEvent(QCloseEvent *event) override;

private Q_SLOTS:
    void on_acFileExit_triggered();
    void on_actionEnglish_triggered();
    void on_actionChinese_triggered();

private:
    void chooseLanguage(int value);

    Ui::MainWindow *ui;
};
