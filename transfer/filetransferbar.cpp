#include "transfer/filetransferbar.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>

#include <cmath>

FileTransferBar::FileTransferBar(QWidget *parent)
    : QWidget(parent),
      m_title(new QLabel(this)),
      m_progress(new QProgressBar(this)),
      m_counter(new QLabel(this)),
      m_cancel(new QPushButton(tr("Cancel"), this))
{
    setObjectName(QStringLiteral("fileTransferBar"));
    m_title->setObjectName(QStringLiteral("transferTitle"));
    m_counter->setObjectName(QStringLiteral("transferCounter"));
    m_progress->setObjectName(QStringLiteral("transferProgress"));
    m_cancel->setObjectName(QStringLiteral("transferCancel"));
    m_progress->setRange(0, 100);
    m_progress->setTextVisible(true);
    m_progress->setMaximumWidth(260);

    auto *layout = new QHBoxLayout(this);
    layout->setContentsMargins(4, 2, 4, 2);
    layout->addWidget(m_title, 1);
    layout->addWidget(m_progress);
    layout->addWidget(m_counter);
    layout->addWidget(m_cancel);

    connect(m_cancel, &QPushButton::clicked, this, &FileTransferBar::onCancel);
}

void FileTransferBar::setSession(FileTransferSession *session)
{
    if (m_session)
        disconnect(m_session, nullptr, this, nullptr);
    m_session = session;
    m_cancel->setEnabled(session != nullptr);
    if (!session)
        return;
    connect(session, &FileTransferSession::progress, this, &FileTransferBar::onProgress);
    connect(session, &FileTransferSession::finished, this, &FileTransferBar::onFinished);
    refreshTitle();
    const XmodemProgress p = session->progressSnapshot();
    onProgress(p.bytesDone, p.totalBytes, p.totalRetries, session->elapsedMs());
    show();
}

QString FileTransferBar::titleText(FileTransferSession::Direction direction, const QString &fileName,
                                   const QString &protocolName, const QString &destination)
{
    const QString name = fileName.isEmpty() ? FileTransferSession::tr("(unnamed)") : fileName;
    QString text = direction == FileTransferSession::Direction::Send
                       ? tr("Sending %1 (%2)").arg(name, protocolName)
                       : tr("Receiving %1 (%2)").arg(name, protocolName);
    if (!destination.isEmpty())
        text += tr(" -> %1").arg(destination);
    return text;
}

QString FileTransferBar::counterText(qint64 bytesDone, qint64 totalBytes, int totalRetries, qint64 elapsedMs)
{
    QString text = totalBytes >= 0 ? tr("%1 / %2 bytes").arg(bytesDone).arg(totalBytes)
                                   : tr("%1 bytes").arg(bytesDone);
    const double bytesPerSecond = elapsedMs > 0 ? double(bytesDone) * 1000.0 / double(elapsedMs) : 0.0;
    if (bytesPerSecond > 0) {
        text += tr("  %1 KB/s").arg(QString::number(bytesPerSecond / 1024.0, 'f', 1));
        if (totalBytes > bytesDone)
            text += tr("  %1s left").arg(qint64(std::ceil(double(totalBytes - bytesDone) / bytesPerSecond)));
    }
    if (totalRetries > 0)
        text += tr("  %1 retries").arg(totalRetries);
    return text;
}

QString FileTransferBar::title() const
{
    return m_title->text();
}

QString FileTransferBar::counter() const
{
    return m_counter->text();
}

int FileTransferBar::percent() const
{
    return m_progress->maximum() == 0 ? -1 : m_progress->value();
}

void FileTransferBar::refreshTitle()
{
    if (!m_session)
        return;
    m_title->setText(titleText(m_session->direction(), m_session->fileName(),
                               FileTransferSession::protocolName(m_session->protocol()),
                               m_session->destinationPath()));
}

void FileTransferBar::onProgress(qint64 bytesDone, qint64 totalBytes, int totalRetries, qint64 elapsedMs)
{
    refreshTitle();
    if (totalBytes > 0) {
        m_progress->setRange(0, 100);
        m_progress->setValue(int(qMin<qint64>(100, bytesDone * 100 / totalBytes)));
    } else if (totalBytes == 0) {
        m_progress->setRange(0, 100);
        m_progress->setValue(100);
    } else {
        m_progress->setRange(0, 0);  // busy: the length is not known
    }
    m_counter->setText(counterText(bytesDone, totalBytes, totalRetries, elapsedMs));
}

void FileTransferBar::onFinished(bool success, const QString &summary)
{
    m_cancel->setEnabled(false);
    if (m_progress->maximum() == 0)
        m_progress->setRange(0, 100);
    if (success)
        m_progress->setValue(100);
    hide();
    emit transferFinished(success, summary);
}

void FileTransferBar::onCancel()
{
    if (m_session)
        m_session->stop(FileTransferSession::StopReason::UserCancel);
}
