#include "consolebus.h"

#include "servicelog.h"
#include "storage.h"
#include "workerpool.h"

#include <QJsonDocument>
#include <QTimer>

ConsoleBus::ConsoleBus(WorkerPool &pool, const QString &instanceId, QObject *parent)
    : QObject(parent), m_pool(pool), m_check(new QTimer(this)), m_instance(instanceId.toLatin1())
{
    m_check->setInterval(kCheckIntervalMs);
    connect(m_check, &QTimer::timeout, this, &ConsoleBus::check);
}

ConsoleBus::~ConsoleBus() = default;

bool ConsoleBus::start(const QString &database, QString *error)
{
    m_database = database;
    if (!listen(error))
        return false;
    m_check->start();
    qCInfo(lcService) << "console notices between instances on channel" << kChannel << "as instance"
                      << m_instance.constData();
    return true;
}

bool ConsoleBus::listen(QString *error)
{
    m_listen.reset();
    auto storage = std::make_unique<Storage>();
    if (!storage->open(m_database, error, false))
        return false;
    if (!storage->subscribe(QLatin1String(kChannel))) {
        *error = QStringLiteral("cannot LISTEN on %1").arg(QLatin1String(kChannel));
        return false;
    }
    connect(storage->driver(), &QSqlDriver::notification, this, &ConsoleBus::onNotification);
    m_listen = std::move(storage);
    return true;
}

void ConsoleBus::check()
{
    // A server that went away, or a connection cut on the way, shows as
    // our own notices no longer coming back. Opening again waits for the
    // database at most its connect time-out (3 s), and only then.
    if (!m_heardSelf && !m_sending) {
        QString error;
        ++m_reconnects;
        if (listen(&error))
            qCWarning(lcService) << "console notices: listening again after a lost connection";
        else
            qCWarning(lcService) << "console notices: cannot listen:" << error;
    }
    m_heardSelf = false;
    publish({{QStringLiteral("kind"), QStringLiteral("alive")}});
}

void ConsoleBus::publish(const QJsonObject &notice)
{
    const QByteArray text = QJsonDocument(notice).toJson(QJsonDocument::Compact);
    const QList<QByteArray> payloads = NoticeFrames::split(m_instance, ++m_serial, text);
    qint64 bytes = 0;
    for (const QByteArray &payload : payloads)
        bytes += payload.size();
    if (payloads.isEmpty() || m_outboxBytes + bytes > kMaxOutboxBytes) {
        if (m_dropped++ % 1000 == 0)
            qCWarning(lcService) << "console notice dropped:" << (payloads.isEmpty() ? "too large" : "outbox full");
        return;
    }
    for (const QByteArray &payload : payloads)
        m_outbox.push_back(payload);
    m_outboxBytes += bytes;
    sendNext();
}

void ConsoleBus::sendNext()
{
    if (m_sending || m_outbox.empty())
        return;
    QList<QByteArray> batch;
    while (!m_outbox.empty() && batch.size() < kMaxBatchPayloads) {
        m_outboxBytes -= m_outbox.front().size();
        batch.append(std::move(m_outbox.front()));
        m_outbox.pop_front();
    }
    m_sending = true;
    const QString channel = QLatin1String(kChannel);
    m_pool.submit(QStringLiteral("console"),
                  [channel, batch](WorkerContext &context) -> ApiOutcome {
                      if (!context.storage().notify(channel, batch))
                          return ApiReply::failure(QStringLiteral("console"), 500, QStringLiteral("internal_error"),
                                                   QStringLiteral("The notice was not sent."));
                      return ApiReply::ok(QStringLiteral("console"));
                  },
                  [this, count = batch.size()](const WorkReply &reply) {
                      m_sending = false;
                      // Not sent (database away, pool full): those notices
                      // are lost; what must last waits in the database.
                      if (reply.status >= 400) {
                          m_dropped += count;
                          qCWarning(lcService) << "console notices not sent:" << reply.code;
                      }
                      sendNext();
                  });
}

void ConsoleBus::onNotification(const QString &name, QSqlDriver::NotificationSource, const QVariant &payload)
{
    if (name != QLatin1String(kChannel))
        return;
    const QByteArray text = payload.toString().toUtf8();
    if (text.startsWith(m_instance + ' ')) {
        m_heardSelf = true;  // our own, heard back: the connection works
        return;
    }
    const std::optional<NoticeFrames::Joined> joined = m_frames.feed(text);
    if (!joined)
        return;
    QJsonObject notice = QJsonDocument::fromJson(joined->message).object();
    if (notice.isEmpty())
        return;
    notice.insert(QStringLiteral("origin"), QString::fromLatin1(joined->origin));
    emit noticeReceived(notice);
}
