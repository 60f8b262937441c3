#include "app/screenshotrunner.h"

#include <QApplication>
#include <QDebug>
#include <QPixmap>
#include <QTimer>
#include <QWidget>

ScreenshotRunner::ScreenshotRunner(QWidget *mainWindow, const CommandLine &request,
                                   ScreenshotDialogs dialogs, QObject *parent)
    : QObject(parent)
    , m_window(mainWindow)
    , m_request(request)
    , m_dialogs(std::move(dialogs))
{
}

void ScreenshotRunner::start()
{
    if (m_window) {
        m_window->resize(1280, 800);
        m_window->move(80, 80);
        m_window->raise();
        m_window->activateWindow();
    }
    if (m_request.screenshotMode == CommandLine::ScreenshotMode::Dialog)
        QTimer::singleShot(kDelayMs, this, &ScreenshotRunner::captureDialog);
    else
        QTimer::singleShot(kDelayMs, this, &ScreenshotRunner::captureWindow);
}

void ScreenshotRunner::captureWindow()
{
    if (!m_window) {
        finish(false);
        return;
    }
    // No focus frame in the picture.
    if (QWidget *focused = QApplication::focusWidget())
        focused->clearFocus();
    finish(m_window->grab().save(m_request.screenshotPath));
}

void ScreenshotRunner::captureDialog()
{
    QWidget *dialog = m_dialogs.create(m_request.dialogName, m_window);
    if (!dialog) {
        qWarning().noquote() << "--screenshot-dialog: unknown dialog" << m_request.dialogName
                             << "(known:" << m_dialogs.names().join(QStringLiteral(", ")) + QLatin1Char(')');
        QCoreApplication::exit(1);
        return;
    }
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    if (m_request.dialogSize.isValid() && !m_request.dialogSize.isEmpty())
        dialog->resize(m_request.dialogSize);
    dialog->show();
    dialog->raise();
    // Let the dialog lay itself out and paint before it is grabbed.
    QTimer::singleShot(300, this, [this, dialog] {
        if (QWidget *focused = QApplication::focusWidget())
            focused->clearFocus();
        const bool saved = dialog->grab().save(m_request.screenshotPath);
        dialog->close();
        finish(saved);
    });
}

void ScreenshotRunner::finish(bool saved)
{
    qInfo().noquote() << "screenshot" << m_request.screenshotPath << (saved ? "saved" : "FAILED");
    QCoreApplication::exit(saved ? 0 : 1);
}
