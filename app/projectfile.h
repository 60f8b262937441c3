#pragma once

#include "common/result.h"
#include "settings/quicksettingslayout.h"
#include "settings/panesettings.h"

#include <QCoreApplication>
#include <QList>
#include <QStringList>

// One pane as a project keeps it.
struct ProjectPane
{
    PaneSettings settings;
    QStringList sendList;

    bool operator==(const ProjectPane &other) const = default;
};

// The whole arrangement of the main window.
struct Project
{
    int columnNumber = 1;
    bool quickView = true;
    QuickSettingsLayout quickSettings;
    QList<ProjectPane> panes;

    bool operator==(const Project &other) const = default;

    static constexpr int kMinColumnNumber = 1;
    static constexpr int kMaxColumnNumber = 16;
    // A hand-edited count must not make the window build thousands of panes.
    static constexpr int kMaxPanes = 64;
};

// Reads and writes project files (INI). Each store names the pane fields in
// its own words; these are the project file's, with its quirks kept: the
// receive format key's spelling, the host list joined into one value, and
// the log rotation keys that are read but never written (a saved project
// takes its rotation settings from the last-used record).
class ProjectFile
{
    Q_DECLARE_TR_FUNCTIONS(ProjectFile)

public:
    // Writes the whole file or nothing: the previous file stays as it was
    // when the folder is read-only or the disk is full.
    static Result writeFile(const QString &fileName, const Project &project);

    // `defaults` fills every key that is missing or cannot be read; each
    // unreadable value is logged and skipped, the rest of its pane applies.
    static ValueResult<Project> readSettingFile(const QString &fileName, const ProjectPane &defaults);

    // "-||-" joins the remote host list into one value.
    static QString joinHosts(const ConnectionConfig &config);
    static bool splitHosts(const QString &value, ConnectionConfig &config);
};
