#pragma once

#include "connection/connectionconfig.h"
#include "settings/quicksettingslayout.h"
#include "common/paneoptions.h"

#include <QStringList>

class QSettings;

// The settings of the most recently configured pane, remembered between runs
// as flat top-level keys; every new pane starts from them.
//
// The asymmetries are deliberate: "LastLogFileName", "OpenLastConnection"
// and "AutoReconnect" are written by save() but read where they are used;
// "LastLogFile" is read by load() but written with "LastFile"; the serial
// parameters are only written when the saved mode is the serial port, so a
// network pane never overwrites the user's preferred serial settings.
struct LastUsedRecord
{
    QStringList recentFiles;
    QString lastFile;
    QString lastLogFile;
    QString lastDirectory;
    ConnectionConfig connection;
    PaneOptions pane;
    QuickSettingsLayout quickSettings;
    QStringList sendList;
    bool lastConnectionOpen = false;
    bool openLastConnection = kDefaultOpenLastConnection;
    bool autoReconnect = kDefaultAutoReconnect;

    static constexpr bool kDefaultOpenLastConnection = false;
    static constexpr bool kDefaultAutoReconnect = true;

    void load(QSettings &settings);
    void save(QSettings &settings) const;

    static void saveLastFiles(QSettings &settings, const QString &lastFile, const QString &lastLogFile);
    // The data-log file name new panes take, read where it is used.
    static QString readLogFileName(const QSettings &settings, const QString &fallback);
    static bool readOpenLastConnection(QSettings &settings);
    static bool readAutoReconnect(QSettings &settings);
};
