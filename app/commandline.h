#pragma once

#include <QSize>
#include <QString>
#include <QStringList>

// What the command line asks for: help or the version text, a port or a
// project file to open at start, or a picture of the window or of one
// dialog for the documentation.
struct CommandLine
{
    enum class ScreenshotMode { None, Window, Dialog };
    // Help and Version are answered on standard output and the program
    // ends before any window exists, so they work without a display.
    enum class Request { Start, Help, Version };

    Request request = Request::Start;
    ScreenshotMode screenshotMode = ScreenshotMode::None;
    QString screenshotPath;
    QString dialogName;
    QSize dialogSize;  // invalid when no usable "WxH" was given
    QString portName;  // empty when none is to be opened
    // A first argument ending in ".tsl" names a project file rather than a
    // port; it is opened in every mode, screenshots included.
    QString projectPath;

    // args as QCoreApplication::arguments(): the program name first.
    static CommandLine parse(const QStringList &args);
    // "800x600" -> (800, 600); a part that does not parse gives 0; anything
    // but exactly two parts around a lower-case "x" leaves the size unset.
    static QSize parseDialogSize(const QString &text);
    static bool isProjectFileName(const QString &argument);

    // Needs a QCoreApplication (for the program name and the translation).
    static QString helpText();
    static QString versionText();
};
