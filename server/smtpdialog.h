#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

// One SMTP conversation that delivers one message, as a state machine fed
// the server's bytes and the time. It owns no socket: its owner writes
// `write`, starts TLS when asked and calls tick() at `wakeAtMs`.
class SmtpDialog
{
public:
    enum class EventKind { StartTls, Sent, Failed };
    struct Event
    {
        EventKind kind;
        QString detail;
    };
    struct Step
    {
        static constexpr qint64 kNoWake = -1;
        QByteArray write;
        QList<Event> events;
        qint64 wakeAtMs = kNoWake;
    };
    struct Message
    {
        QString from;
        QString to;
        QString subject;
        QString text;
    };

    static constexpr qint64 kTimeoutMs = 30000;
    static constexpr int kMaxReplyBytes = 64 * 1024;

    SmtpDialog(Message message, QString user, QString password, bool startTls, QString heloName);

    Step start(qint64 nowMs);
    Step feed(QByteArrayView bytes, qint64 nowMs);
    Step tick(qint64 nowMs);
    // The owner finished the TLS handshake asked for by StartTls.
    Step tlsReady(qint64 nowMs);

    bool isFinished() const { return m_state == State::Done || m_state == State::Failed; }
    // The message as it goes after DATA: headers, body, dot-stuffed, ended.
    static QByteArray dataBlock(const Message &message, const QByteArray &date);

private:
    enum class State { Greeting, Ehlo, StartTls, TlsHandshake, EhloAgain, Auth, MailFrom, RcptTo, Data, Body, Quit, Done, Failed };

    Step onReply(int code, const QByteArray &text, qint64 nowMs);
    Step send(State next, const QByteArray &line, qint64 nowMs);
    Step fail(const QString &why);

    Message m_message;
    QString m_user;
    QString m_password;
    bool m_startTls;
    QString m_heloName;
    State m_state = State::Greeting;
    QByteArray m_buffer;
    QByteArray m_replyText;
    qint64 m_deadline = 0;
};
