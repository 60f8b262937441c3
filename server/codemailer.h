#pragma once

#include "serviceconfig.h"
#include "smtpdialog.h"

#include <QObject>
#include <QPointer>
#include <QQueue>

#include <memory>

class QSslSocket;
class QTimer;

// Delivers registration codes. Delivery is asynchronous: the request that
// asked for a code is answered before the mail leaves.
class CodeMailer
{
public:
    virtual ~CodeMailer() = default;
    virtual void sendCode(const QString &email, const QString &code, int ttlMinutes) = 0;
};

// Hands each code to another mailer on the thread of `context` (the event
// loop), whichever thread asks: requests run on the worker pool's threads,
// mailers that talk to an SMTP server live on the event loop.
class QueuedCodeMailer : public CodeMailer
{
public:
    QueuedCodeMailer(CodeMailer &target, QObject *context) : m_target(target), m_context(context) {}
    void sendCode(const QString &email, const QString &code, int ttlMinutes) override;

private:
    CodeMailer &m_target;
    QObject *m_context;
};

// Without an SMTP server the code goes to the service log, where the
// person running the service reads it.
class LogCodeMailer : public CodeMailer
{
public:
    void sendCode(const QString &email, const QString &code, int ttlMinutes) override;
};

// Sends each code as its own SMTP conversation, one at a time.
class SmtpCodeMailer : public QObject, public CodeMailer
{
    Q_OBJECT
public:
    // Codes waiting beyond this many are dropped with a warning: the
    // requester may ask again later.
    static constexpr int kMaxQueued = 100;

    explicit SmtpCodeMailer(SmtpSettings settings, QObject *parent = nullptr);
    ~SmtpCodeMailer() override;

    void sendCode(const QString &email, const QString &code, int ttlMinutes) override;

signals:
    void delivered(const QString &email);
    void failed(const QString &email, const QString &reason);

private:
    void startNext();
    void apply(SmtpDialog::Step step);
    void finish();

    SmtpSettings m_settings;
    QQueue<SmtpDialog::Message> m_queue;
    std::unique_ptr<SmtpDialog> m_dialog;
    QString m_current;
    bool m_sent = false;
    QPointer<QSslSocket> m_socket;
    QTimer *m_timer;
};
