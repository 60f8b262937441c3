#pragma once

#include <QTemporaryDir>

// Points every QSettings of the test process at a private temporary folder
// and puts QStandardPaths in test mode, so tests never touch a real user
// store. Create one in initTestCase and keep it for the test's life.
class SettingsSandbox
{
public:
    SettingsSandbox();
    ~SettingsSandbox();

    QString path() const { return m_dir.path(); }
    // Removes every stored key of the program's settings store.
    void clear();

private:
    QTemporaryDir m_dir;
};
