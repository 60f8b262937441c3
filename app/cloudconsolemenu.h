#pragma once

#include "cloud/cloudconsoleservice.h"

#include <QObject>

class QAction;
class QLabel;
class QStatusBar;
class QWidget;

// The Live Console part of the Cloud menu and its status-bar badge: the
// switch (`LastCloudConsole`, restored at start), what watchers may do
// ("Allow Remote Send", "Allow Remote Port Control") and "Being watched"
// while somebody is. It owns the console service; the window only says
// which ports it has and when they change.
class CloudConsoleMenu : public QObject
{
    Q_OBJECT
public:
    struct Actions
    {
        QAction *console = nullptr;
        QAction *allowSend = nullptr;
        QAction *allowPortControl = nullptr;
    };

    CloudConsoleMenu(const Actions &actions, QStatusBar *statusBar, CloudConsoleService::PortList ports,
                     QWidget *window);

    CloudConsoleService *service() const { return m_service; }
    QLabel *badge() const { return m_badge; }

    static QString watchedText();
    static QString watchedHint();

public Q_SLOTS:
    // Panes were added or removed.
    void portsChanged();

private:
    void setConsole(bool on);
    void setConsent(const QString &key, bool on);
    void showWatching(bool watching);
    void showStopped(const QString &reason);

    Actions m_actions;
    QStatusBar *m_statusBar;
    QWidget *m_window;
    CloudConsoleService *m_service;
    QLabel *m_badge;
};
