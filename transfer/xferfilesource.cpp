#include "transfer/xferfilesource.h"

#include <QFileInfo>

XferFileSource::XferFileSource(const QString &path)
    : m_file(path)
{
}

Result XferFileSource::open()
{
    if (!m_file.open(QIODevice::ReadOnly))
        return Result::failure(tr("Could not open %1: %2").arg(fileName(), m_file.errorString()));
    const QFileInfo info(m_file.fileName());
    m_size = m_file.size();
    m_modified = info.lastModified();
    return Result::success();
}

QByteArray XferFileSource::read(qint64 offset, qint64 length)
{
    m_readFailed = false;
    if (!m_file.isOpen() || !m_file.seek(offset)) {
        m_readFailed = true;
        return {};
    }
    QByteArray data = m_file.read(length);
    if (data.isEmpty() && length > 0 && (m_file.error() != QFileDevice::NoError || offset < m_size))
        m_readFailed = true;
    return data;
}

bool XferFileSource::unchanged() const
{
    const QFileInfo now(m_file.fileName());
    return now.exists() && now.size() == m_size && now.lastModified() == m_modified;
}

QString XferFileSource::fileName() const
{
    return QFileInfo(m_file.fileName()).fileName();
}

qint64 XferFileSource::modificationTime() const
{
    if (!m_modified.isValid())
        return 0;
    return qMax<qint64>(0, m_modified.toSecsSinceEpoch());
}
