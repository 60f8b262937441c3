#pragma once

#include "common/result.h"
#include "transfer/xfersource.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QFile>

// A file on disk as the data of a transfer. It remembers the size and the
// modification time seen at opening: a file that changes under a running
// transfer would arrive as a mix of two versions.
class XferFileSource : public XferSource
{
    Q_DECLARE_TR_FUNCTIONS(XferFileSource)

public:
    explicit XferFileSource(const QString &path);

    Result open();

    qint64 size() const override { return m_size; }
    QByteArray read(qint64 offset, qint64 length) override;
    bool lastReadFailed() const override { return m_readFailed; }
    bool unchanged() const override;

    QString path() const { return m_file.fileName(); }
    QString fileName() const;
    // Seconds since 1970, 0 when the system does not say.
    qint64 modificationTime() const;

private:
    QFile m_file;
    qint64 m_size = -1;
    QDateTime m_modified;
    bool m_readFailed = false;
};
