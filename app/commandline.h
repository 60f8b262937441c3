#pragma once

#include <QSize>
#include <QString>
#include <QStringList>

// What the command line asks for: a port to open at start, or a picture of
// the window or of one dialog for the documentation.
struct CommandLine
{
    enum class ScreenshotMode { None, Window, Dialog };

    ScreenshotMode screenshotMode = ScreenshotMode::None;
    QString screenshotPath;
    QString dialogName;
    QSize dialogSize;  // invalid when no usable "WxH" was given
    QString portName;  // empty when none is to be opened

    // args as QCoreApplication::arguments(): the program name first.
    static CommandLine parse(const QStringList &args);
    // "800x600" -> (800, 600); a part that does not parse gives 0; anything
    // but exactly two parts around a lower-case "x" leaves the size unset.
    static QSize parseDialogSize(const QString &text);
};
