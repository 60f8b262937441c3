#pragma once

#include "transfer/xfersink.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QFile>

// Received data on disk. Data go to a hidden ".<name>.part" file in the
// target folder and take the final name only once complete, so a failed
// transfer never leaves a half file under the real name.
class XferFileSink : public XferSink
{
    Q_DECLARE_TR_FUNCTIONS(XferFileSink)

public:
    explicit XferFileSink(const QString &folder);
    ~XferFileSink() override;

    bool open(const QString &name, qint64 expectedSize) override;
    bool write(const QByteArray &bytes) override;
    bool finish(qint64 finalSize) override;
    void abort(bool keepPartial) override;
    void setModificationTime(qint64 secondsSinceEpoch) override;

    // A name safe to create in any folder: no path, no stream suffix, no
    // reserved device name, at most 255 bytes of UTF-8, never empty.
    static QString sanitisedName(const QString &requested, const QDateTime &now = QDateTime::currentDateTime());
    // `name` in `folder`, or the first free "base (n).suffix" form.
    static QString freeName(const QString &folder, const QString &name);
    // The sender's time is kept only when plausible (2000 to ten years ahead).
    static bool plausibleModificationTime(qint64 secondsSinceEpoch, const QDateTime &now = QDateTime::currentDateTime());

    QString folder() const { return m_folder; }
    QString requestedName() const { return m_requestedName; }
    QString sanitised() const { return m_sanitisedName; }
    QString finalName() const { return m_finalName; }
    QString finalPath() const { return m_finalPath; }
    QString temporaryPath() const { return m_tempPath; }
    QString partialPath() const { return m_partialPath; }
    qint64 bytesWritten() const { return m_written; }
    qint64 modificationTime() const { return m_mtime; }
    bool isFinished() const { return m_finished; }
    QString errorText() const { return m_error; }

private:
    QString m_folder;
    QString m_requestedName;
    QString m_sanitisedName;
    QString m_finalName;
    QString m_finalPath;
    QString m_tempPath;
    QString m_partialPath;
    QFile m_file;
    qint64 m_written = 0;
    qint64 m_mtime = 0;
    bool m_finished = false;
    QString m_error;
};
