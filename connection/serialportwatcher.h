#pragma once

#include <QList>
#include <QObject>
#include <QString>
#include <QTimer>

// The system's serial ports, watched once for the whole program: every pane
// shows the same list, and the system is asked once a second however many
// panes are open. Polls only while somebody listens.
class SerialPortWatcher : public QObject
{
    Q_OBJECT

public:
    struct Port
    {
        QString name;         // the system location, as a port is opened
        QString description;  // description, else manufacturer

        bool operator==(const Port &other) const = default;
    };

    static constexpr int kPollIntervalMs = 1000;

    // The program's one watcher (created on first use, owned by the
    // application object).
    static SerialPortWatcher *instance();

    explicit SerialPortWatcher(QObject *parent = nullptr);

    // Listeners register so the watcher polls only while it has any.
    void subscribe(QObject *listener);
    const QList<Port> &ports() const { return m_ports; }
    // Reads the list now; emits portsChanged when it differs.
    void refresh();

Q_SIGNALS:
    void portsChanged();

private:
    void unsubscribe(QObject *listener);

    QList<Port> m_ports;
    QList<QObject *> m_listeners;
    QTimer m_timer;
    bool m_listed = false;
};
