#include "codemailer.h"

#include "servicelog.h"

#include <QDateTime>
#include <QHostInfo>
#include <QSslSocket>
#include <QTimer>

namespace {
qint64 nowMs()
{
    return QDateTime::currentMSecsSinceEpoch();
}
} // namespace

void QueuedCodeMailer::sendCode(const QString &email, const QString &code, int ttlMinutes)
{
    CodeMailer *target = &m_target;
    QMetaObject::invokeMethod(
        m_context, [target, email, code, ttlMinutes] { target->sendCode(email, code, ttlMinutes); },
        Qt::QueuedConnection);
}

void LogCodeMailer::sendCode(const QString &email, const QString &code, int ttlMinutes)
{
    qCInfo(lcMail).noquote() << QStringLiteral("registration code for %1: %2 (valid for %3 minutes)")
                                    .arg(email, code)
                                    .arg(ttlMinutes);
}

SmtpCodeMailer::SmtpCodeMailer(SmtpSettings settings, QObject *parent)
    : QObject(parent), m_settings(std::move(settings)), m_timer(new QTimer(this))
{
    m_timer->setSingleShot(true);
    connect(m_timer, &QTimer::timeout, this, [this] {
        if (m_dialog)
            apply(m_dialog->tick(nowMs()));
    });
}

SmtpCodeMailer::~SmtpCodeMailer()
{
    if (m_socket)
        m_socket->abort();
}

void SmtpCodeMailer::sendCode(const QString &email, const QString &code, int ttlMinutes)
{
    if (m_queue.size() >= kMaxQueued) {
        qCWarning(lcMail).noquote() << "mail queue full; dropped the code for" << email;
        return;
    }
    m_queue.enqueue(SmtpDialog::Message{
        m_settings.from, email, QStringLiteral("Your Tessaline cloud code"),
        QStringLiteral("Your registration code is %1.\nIt is valid for %2 minutes.\n\n"
                       "If you did not ask for it, ignore this message.")
            .arg(code)
            .arg(ttlMinutes)});
    if (!m_dialog)
        startNext();
}

void SmtpCodeMailer::startNext()
{
    if (m_queue.isEmpty())
        return;
    const SmtpDialog::Message message = m_queue.dequeue();
    m_current = message.to;
    m_sent = false;
    m_dialog = std::make_unique<SmtpDialog>(message, m_settings.user, m_settings.password,
                                            m_settings.security == SmtpSettings::Security::StartTls,
                                            QHostInfo::localHostName());
    auto *socket = new QSslSocket(this);
    m_socket = socket;
    connect(socket, &QSslSocket::readyRead, this, [this, socket] {
        if (m_dialog && socket == m_socket)
            apply(m_dialog->feed(socket->readAll(), nowMs()));
    });
    connect(socket, &QSslSocket::encrypted, this, [this, socket] {
        if (m_dialog && socket == m_socket && m_settings.security == SmtpSettings::Security::StartTls)
            apply(m_dialog->tlsReady(nowMs()));
    });
    connect(socket, &QSslSocket::disconnected, this, [this, socket] {
        if (socket == m_socket && m_dialog && !m_dialog->isFinished()) {
            if (!m_sent)
                emit failed(m_current, QStringLiteral("the SMTP server closed the connection"));
            finish();
        }
    });
    connect(socket, &QSslSocket::errorOccurred, this, [this, socket](QAbstractSocket::SocketError) {
        if (socket != m_socket || !m_dialog)
            return;
        if (!m_sent) {
            qCWarning(lcMail).noquote() << "could not send the code to" << m_current << ":" << socket->errorString();
            emit failed(m_current, socket->errorString());
        }
        finish();
    });
    if (m_settings.security == SmtpSettings::Security::Tls)
        socket->connectToHostEncrypted(m_settings.host, m_settings.port);
    else
        socket->connectToHost(m_settings.host, m_settings.port);
    apply(m_dialog->start(nowMs()));
}

void SmtpCodeMailer::apply(SmtpDialog::Step step)
{
    if (!step.write.isEmpty() && m_socket)
        m_socket->write(step.write);
    for (const SmtpDialog::Event &event : step.events) {
        switch (event.kind) {
        case SmtpDialog::EventKind::StartTls:
            if (m_socket)
                m_socket->startClientEncryption();
            break;
        case SmtpDialog::EventKind::Sent:
            m_sent = true;
            qCInfo(lcMail).noquote() << "sent the registration code to" << m_current;
            emit delivered(m_current);
            break;
        case SmtpDialog::EventKind::Failed:
            qCWarning(lcMail).noquote() << "could not send the code to" << m_current << ":" << event.detail;
            emit failed(m_current, event.detail);
            break;
        }
    }
    if (m_dialog && m_dialog->isFinished()) {
        finish();
        return;
    }
    if (step.wakeAtMs != SmtpDialog::Step::kNoWake)
        m_timer->start(static_cast<int>(qBound<qint64>(0, step.wakeAtMs - nowMs(), SmtpDialog::kTimeoutMs)));
}

void SmtpCodeMailer::finish()
{
    m_timer->stop();
    m_dialog.reset();
    if (m_socket) {
        QSslSocket *socket = m_socket;
        m_socket = nullptr;
        socket->disconnect(this);
        socket->disconnectFromHost();
        socket->deleteLater();
    }
    QTimer::singleShot(0, this, &SmtpCodeMailer::startNext);
}
