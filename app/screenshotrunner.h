#pragma once

#include "app/commandline.h"
#include "app/screenshotdialogs.h"

#include <QObject>
#include <QPointer>

class QWidget;

// Produces a documentation picture of the main window or of one dialog
// without a human, then ends the event loop with 0 (saved) or 1 (not saved).
class ScreenshotRunner : public QObject
{
    Q_OBJECT

public:
    static constexpr int kDelayMs = 1500;

    ScreenshotRunner(QWidget *mainWindow, const CommandLine &request, ScreenshotDialogs dialogs,
                     QObject *parent = nullptr);

    // Places the window and arms the timer.
    void start();

private:
    void captureWindow();
    void captureDialog();
    void finish(bool saved);

    QPointer<QWidget> m_window;
    CommandLine m_request;
    ScreenshotDialogs m_dialogs;
};
