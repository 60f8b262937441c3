#pragma once

#include "noticeframes.h"

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QSqlDriver>

#include <deque>
#include <memory>

class QTimer;
class Storage;
class WorkerPool;

// Live Console notices between service instances that share one
// PostgreSQL database: a command issued here for a computer whose socket
// another instance holds, traffic for watchers on another instance, how
// many watch a computer here. Every instance LISTENs on one channel
// through a connection of its own on the event loop (it only ever reads
// what the server already sent, so the loop never waits on it); notices
// are sent with NOTIFY through the worker pool, one batch at a time so
// they leave in the order they were published. Large notices travel in
// pieces (NoticeFrames). SQLite serves one instance and has no bus.
class ConsoleBus : public QObject
{
    Q_OBJECT
public:
    static constexpr const char *kChannel = "tsl_console";
    // Payloads waiting to be sent; a notice that does not fit is dropped
    // and counted (commands still reach their computer by its next poll
    // or hello, traffic is the watchers' loss and they hear nothing of it).
    static constexpr qint64 kMaxOutboxBytes = 8 * 1024 * 1024;
    // Payloads sent in one transaction at most.
    static constexpr int kMaxBatchPayloads = 128;
    // The listening connection is proved alive this often: when none of
    // our own notices came back within one period, it is opened again.
    static constexpr int kCheckIntervalMs = 10000;

    // `instanceId` is the service's own (--instance-id or its random one):
    // it names this instance's notices, as it names its relay tickets.
    ConsoleBus(WorkerPool &pool, const QString &instanceId, QObject *parent = nullptr);
    ~ConsoleBus() override;

    // Opens the listening connection and LISTENs; false with `error` when not.
    bool start(const QString &database, QString *error);

    // Sends `notice` to every other instance.
    void publish(const QJsonObject &notice);

    QByteArray instanceId() const { return m_instance; }
    qint64 droppedNotices() const { return m_dropped; }
    qint64 lostNotices() const { return m_frames.abandoned() + m_frames.malformed(); }
    int reconnects() const { return m_reconnects; }

signals:
    // A notice another instance published; "origin" names that instance.
    void noticeReceived(const QJsonObject &notice);

private:
    void onNotification(const QString &name, QSqlDriver::NotificationSource source, const QVariant &payload);
    void sendNext();
    bool listen(QString *error);
    void check();

    WorkerPool &m_pool;
    std::unique_ptr<Storage> m_listen;
    NoticeFrames m_frames;
    QByteArray m_instance;
    quint64 m_serial = 0;
    std::deque<QByteArray> m_outbox;
    qint64 m_outboxBytes = 0;
    bool m_sending = false;
    qint64 m_dropped = 0;
    QString m_database;
    QTimer *m_check;
    bool m_heardSelf = true;
    int m_reconnects = 0;
};
