#pragma once

#include <QString>
#include <QStringList>

#include <functional>

class QWidget;

// The dialogs that "--screenshot-dialog NAME" can show for documentation.
// Each entry builds its dialog as a child of the main window.
class ScreenshotDialogs
{
public:
    using Factory = std::function<QWidget *(QWidget *parent)>;

    // The program's full table.
    static ScreenshotDialogs standard();

    void add(const QString &name, Factory factory);
    bool contains(const QString &name) const;
    QStringList names() const;
    // nullptr for an unknown name.
    QWidget *create(const QString &name, QWidget *parent) const;

private:
    struct Entry {
        QString name;
        Factory factory;
    };
    QList<Entry> m_entries;
};
