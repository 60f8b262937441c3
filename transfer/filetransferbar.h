#pragma once

#include "transfer/filetransfersession.h"

#include <QPointer>
#include <QWidget>

class QLabel;
class QProgressBar;
class QPushButton;

// The strip a port pane shows while a transfer runs: what moves where,
// how far it got, the rate, the time left, retries, and "Cancel".
class FileTransferBar : public QWidget
{
    Q_OBJECT

public:
    explicit FileTransferBar(QWidget *parent = nullptr);

    // Follows `session` until it finishes; the bar then hides itself.
    void setSession(FileTransferSession *session);
    FileTransferSession *session() const { return m_session; }

    static QString titleText(FileTransferSession::Direction direction, const QString &fileName,
                             const QString &protocolName, const QString &destination);
    static QString counterText(qint64 bytesDone, qint64 totalBytes, int totalRetries, qint64 elapsedMs);

    QString title() const;
    QString counter() const;
    // -1 while the bar shows a busy indicator (unknown total).
    int percent() const;

signals:
    void transferFinished(bool success, const QString &summary);

private:
    void onProgress(qint64 bytesDone, qint64 totalBytes, int totalRetries, qint64 elapsedMs);
    void onFinished(bool success, const QString &summary);
    void onCancel();
    void refreshTitle();

    QPointer<FileTransferSession> m_session;
    QLabel *m_title;
    QProgressBar *m_progress;
    QLabel *m_counter;
    QPushButton *m_cancel;
};
