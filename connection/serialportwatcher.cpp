#include "connection/serialportwatcher.h"


#include <QCoreApplication>
#include <QSerialPortInfo>

SerialPortWatcher *SerialPortWatcher::instance()
{
    static SerialPortWatcher *watcher = nullptr;
    if (!watcher) {
        watcher = new SerialPortWatcher(QCoreApplication::instance());
        QObject::connect(watcher, &QObject::destroyed, [] { watcher = nullptr; });
    }
    return watcher;
}

SerialPortWatcher::SerialPortWatcher(QObject *parent)
    : QObject(parent)
{
    m_timer.setInterval(kPollIntervalMs);
    connect(&m_timer, &QTimer::timeout, this, &SerialPortWatcher::refresh);
}

void SerialPortWatcher::subscribe(QObject *listener)
{
    if (!listener || m_listeners.contains(listener))
        return;
    m_listeners.append(listener);
    connect(listener, &QObject::destroyed, this, [this, listener] { unsubscribe(listener); });
    if (!m_listed)
        refresh();
    if (!m_timer.isActive())
        m_timer.start();
}

void SerialPortWatcher::unsubscribe(QObject *listener)
{
    m_listeners.removeAll(listener);
    if (m_listeners.isEmpty())
        m_timer.stop();
}

void SerialPortWatcher::refresh()
{
    QList<Port> ports;
    const QList<QSerialPortInfo> infos = QSerialPortInfo::availablePorts();
    for (const QSerialPortInfo &info : infos) {
        const QString description = info.description().isEmpty() ? info.manufacturer() : info.description();
        ports.append({info.systemLocation(), description});
    }
    if (m_listed && ports == m_ports)
        return;
    m_listed = true;
    m_ports = ports;
    emit portsChanged();
}
