#include "bridge/bridgecapturelog.h"

#include "common/paneoptions.h"
#include "tools/hexparser.h"

BridgeCaptureLog::BridgeCaptureLog(LogWriter::Clock clock)
    : m_writer(std::move(clock))
{
}

Result BridgeCaptureLog::open(const BridgeCaptureOptions &options, const QString &bridgeName)
{
    LogWriter::Options o;
    o.folder = options.folder.trimmed().isEmpty() ? PaneOptions::defaultLogFolder() : options.folder.trimmed();
    o.fileNamePattern = QStringLiteral("bridge_%S-%Y%M%D.log");
    o.portStamp = bridgeName;
    o.timestampEnabled = true;
    o.timestampPattern = QStringLiteral("[%Y-%M-%D %h:%m:%s.%z] ");
    o.rotateAtSize = options.rotateSizeBytes > 0;
    o.rotateSizeBytes = options.rotateSizeBytes;
    const Result opened = m_writer.open(o);
    m_open = opened.isOk();
    return opened;
}

void BridgeCaptureLog::close()
{
    if (!m_open)
        return;
    m_writer.close();
    m_open = false;
}

QString BridgeCaptureLog::frameLine(int direction, const QByteArray &bytes)
{
    return QStringLiteral("%1 %2: %3\n")
        .arg(BridgeRecord::directionName(direction))
        .arg(bytes.size())
        .arg(HexParser::toHexText(bytes));
}

Result BridgeCaptureLog::frame(int direction, const QByteArray &bytes)
{
    if (!m_open)
        return Result::success();
    return m_writer.append(frameLine(direction, bytes));
}

Result BridgeCaptureLog::drop(int direction, qint64 frames, qint64 bytes, const QString &outlet, const QString &why)
{
    if (!m_open)
        return Result::success();
    const QString where = outlet.isEmpty() ? QString() : QStringLiteral(" (%1)").arg(outlet);
    return m_writer.append(tr("%1 dropped %2 frames, %3 bytes%4: %5\n")
                               .arg(BridgeRecord::directionName(direction))
                               .arg(frames)
                               .arg(bytes)
                               .arg(where, why));
}

Result BridgeCaptureLog::note(const QString &text)
{
    if (!m_open)
        return Result::success();
    return m_writer.append(QStringLiteral("-- %1 --\n").arg(text));
}

Result BridgeCaptureLog::flush()
{
    if (!m_open)
        return Result::success();
    return m_writer.writePending();
}
