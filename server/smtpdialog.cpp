#include "smtpdialog.h"

#include <QDateTime>
#include <QLocale>

SmtpDialog::SmtpDialog(Message message, QString user, QString password, bool startTls, QString heloName)
    : m_message(std::move(message)),
      m_user(std::move(user)),
      m_password(std::move(password)),
      m_startTls(startTls),
      m_heloName(std::move(heloName))
{
}

SmtpDialog::Step SmtpDialog::start(qint64 nowMs)
{
    m_deadline = nowMs + kTimeoutMs;
    Step step;
    // Addresses go into commands and headers: a line break would let a
    // caller smuggle in commands of its own.
    for (const QString &address : {m_message.from, m_message.to}) {
        if (address.isEmpty() || address.contains(u'\r') || address.contains(u'\n') || address.contains(u'<')
            || address.contains(u'>'))
            return fail(QStringLiteral("invalid address %1").arg(address.simplified()));
    }
    step.wakeAtMs = m_deadline;
    return step;
}

SmtpDialog::Step SmtpDialog::fail(const QString &why)
{
    m_state = State::Failed;
    Step step;
    step.events.append({EventKind::Failed, why});
    return step;
}

SmtpDialog::Step SmtpDialog::send(State next, const QByteArray &line, qint64 nowMs)
{
    m_state = next;
    m_deadline = nowMs + kTimeoutMs;
    Step step;
    step.write = line;
    step.wakeAtMs = m_deadline;
    return step;
}

SmtpDialog::Step SmtpDialog::feed(QByteArrayView bytes, qint64 nowMs)
{
    Step result;
    if (isFinished() || m_state == State::TlsHandshake)
        return result;
    m_buffer.append(bytes.data(), bytes.size());
    if (m_buffer.size() > kMaxReplyBytes)
        return fail(QStringLiteral("the SMTP server sent an overlong reply"));
    qsizetype end;
    while (!isFinished() && (end = m_buffer.indexOf("\r\n")) >= 0) {
        const QByteArray line = m_buffer.left(end);
        m_buffer.remove(0, end + 2);
        if (line.size() < 3) {
            result = fail(QStringLiteral("the SMTP server sent a malformed reply"));
            break;
        }
        bool ok = false;
        const int code = line.left(3).toInt(&ok);
        if (!ok) {
            result = fail(QStringLiteral("the SMTP server sent a malformed reply"));
            break;
        }
        m_replyText += line.mid(4) + ' ';
        if (line.size() > 3 && line[3] == '-')
            continue;  // more lines of the same reply follow
        const QByteArray text = m_replyText.trimmed();
        m_replyText.clear();
        Step next = onReply(code, text, nowMs);
        result.write += next.write;
        result.events += next.events;
        result.wakeAtMs = next.wakeAtMs;
        if (m_state == State::TlsHandshake) {
            m_buffer.clear();  // nothing sent in the clear counts after STARTTLS
            break;
        }
    }
    if (!isFinished() && result.wakeAtMs == Step::kNoWake)
        result.wakeAtMs = m_deadline;
    return result;
}

SmtpDialog::Step SmtpDialog::tick(qint64 nowMs)
{
    if (isFinished())
        return {};
    if (nowMs < m_deadline) {
        Step step;
        step.wakeAtMs = m_deadline;
        return step;
    }
    return fail(QStringLiteral("the SMTP server did not answer in time"));
}

SmtpDialog::Step SmtpDialog::tlsReady(qint64 nowMs)
{
    if (m_state != State::TlsHandshake)
        return {};
    return send(State::EhloAgain, "EHLO " + m_heloName.toUtf8() + "\r\n", nowMs);
}

SmtpDialog::Step SmtpDialog::onReply(int code, const QByteArray &text, qint64 nowMs)
{
    const auto refused = [&](const char *what) {
        return fail(QStringLiteral("the SMTP server refused %1: %2 %3")
                        .arg(QString::fromLatin1(what))
                        .arg(code)
                        .arg(QString::fromUtf8(text)));
    };
    switch (m_state) {
    case State::Greeting:
        if (code != 220)
            return refused("the connection");
        return send(State::Ehlo, "EHLO " + m_heloName.toUtf8() + "\r\n", nowMs);
    case State::Ehlo:
    case State::EhloAgain:
        if (code != 250)
            return refused("EHLO");
        if (m_state == State::Ehlo && m_startTls)
            return send(State::StartTls, "STARTTLS\r\n", nowMs);
        if (!m_user.isEmpty()) {
            const QByteArray plain = '\0' + m_user.toUtf8() + '\0' + m_password.toUtf8();
            return send(State::Auth, "AUTH PLAIN " + plain.toBase64() + "\r\n", nowMs);
        }
        return send(State::MailFrom, "MAIL FROM:<" + m_message.from.toUtf8() + ">\r\n", nowMs);
    case State::StartTls: {
        if (code != 220)
            return refused("STARTTLS");
        m_state = State::TlsHandshake;
        m_deadline = nowMs + kTimeoutMs;
        Step step;
        step.events.append({EventKind::StartTls, {}});
        step.wakeAtMs = m_deadline;
        return step;
    }
    case State::Auth:
        if (code != 235)
            return refused("the sign-in");
        return send(State::MailFrom, "MAIL FROM:<" + m_message.from.toUtf8() + ">\r\n", nowMs);
    case State::MailFrom:
        if (code != 250)
            return refused("the sender");
        return send(State::RcptTo, "RCPT TO:<" + m_message.to.toUtf8() + ">\r\n", nowMs);
    case State::RcptTo:
        if (code != 250 && code != 251)
            return refused("the recipient");
        return send(State::Data, "DATA\r\n", nowMs);
    case State::Data:
        if (code != 354)
            return refused("DATA");
        return send(State::Body,
                    dataBlock(m_message, QLocale::c()
                                             .toString(QDateTime::currentDateTimeUtc(),
                                                       QStringLiteral("ddd, dd MMM yyyy hh:mm:ss +0000"))
                                             .toLatin1()),
                    nowMs);
    case State::Body: {
        if (code != 250)
            return refused("the message");
        Step step = send(State::Quit, "QUIT\r\n", nowMs);
        step.events.append({EventKind::Sent, {}});
        return step;
    }
    case State::Quit:
        m_state = State::Done;
        return {};
    case State::TlsHandshake:
    case State::Done:
    case State::Failed:
        break;
    }
    return {};
}

QByteArray SmtpDialog::dataBlock(const Message &message, const QByteArray &date)
{
    QByteArray block;
    block += "From: <" + message.from.toUtf8() + ">\r\n";
    block += "To: <" + message.to.toUtf8() + ">\r\n";
    block += "Subject: " + message.subject.simplified().toUtf8() + "\r\n";
    block += "Date: " + date + "\r\n";
    block += "MIME-Version: 1.0\r\nContent-Type: text/plain; charset=utf-8\r\nContent-Transfer-Encoding: 8bit\r\n\r\n";
    QByteArray body = message.text.toUtf8();
    body.replace("\r\n", "\n");
    const QList<QByteArray> lines = body.split('\n');
    for (const QByteArray &line : lines)
        block += (line.startsWith('.') ? "." + line : line) + "\r\n";
    block += ".\r\n";
    return block;
}
