#include "transfer/filetransfersession.h"

#include "common/logging.h"
#include "transfer/xferfilesink.h"
#include "transfer/xferfilesource.h"
#include "transfer/xferport.h"

#include <QFileInfo>

FileTransferSession::FileTransferSession(XferPort *port, const Request &request, QObject *parent,
                                         MonotonicClock clock)
    : QObject(parent), m_port(port), m_request(request), m_clock(std::move(clock))
{
    m_timer.setSingleShot(true);
    connect(&m_timer, &QTimer::timeout, this, &FileTransferSession::onTick);
}

FileTransferSession::~FileTransferSession()
{
    // A session torn down while running still gives the port back and
    // keeps what arrived.
    if (m_runState == RunState::Running) {
        m_runState = RunState::Ended;
        if (m_sink)
            m_sink->abort(true);
        if (m_locked && m_port)
            m_port->lock(false);
    }
}

QString FileTransferSession::protocolName(XmodemVariant protocol)
{
    switch (protocol) {
    case XmodemVariant::Xmodem: return tr("XMODEM");
    case XmodemVariant::XmodemCrc: return tr("XMODEM-CRC");
    case XmodemVariant::Xmodem1K: return tr("XMODEM-1K");
    case XmodemVariant::Ymodem: return tr("YMODEM");
    case XmodemVariant::YmodemG: return tr("YMODEM-G");
    }
    return QString();
}

QString FileTransferSession::title() const
{
    if (m_request.direction == Direction::Receive)
        return tr("Receiving with %1").arg(protocolName(m_request.protocol));
    const QString name = fileName();
    const qint64 size = m_source ? m_source->size() : QFileInfo(m_request.filePath).size();
    return tr("Sending %1 (%2, %3 bytes)")
        .arg(name.isEmpty() ? tr("(unnamed)") : name, protocolName(m_request.protocol))
        .arg(size);
}

QString FileTransferSession::fileName() const
{
    if (m_request.direction == Direction::Send)
        return QFileInfo(m_request.filePath).fileName();
    if (m_codec && !m_codec->fileName().isEmpty())
        return m_codec->fileName();
    return isYmodemVariant(m_request.protocol) ? QString() : m_request.fileName;
}

QString FileTransferSession::destinationPath() const
{
    return m_sink ? m_sink->finalPath() : QString();
}

QString FileTransferSession::requestedName() const
{
    return m_sink ? m_sink->requestedName() : QString();
}

QString FileTransferSession::partialPath() const
{
    return m_sink ? m_sink->partialPath() : QString();
}

XmodemProgress FileTransferSession::progressSnapshot() const
{
    return m_codec ? m_codec->progress() : XmodemProgress();
}

qint64 FileTransferSession::elapsedMs() const
{
    if (m_runState == RunState::Idle)
        return 0;
    return (m_endMs >= 0 ? m_endMs : m_clock()) - m_startMs;
}

void FileTransferSession::start()
{
    if (m_runState != RunState::Idle || !m_port)
        return;
    m_startMs = m_clock();
    m_runState = RunState::Running;
    m_port->lock(true);
    m_locked = true;
    m_port->writeNote(title());
    qCInfo(lcCore).noquote() << "transfer:" << title();

    if (m_request.direction == Direction::Send) {
        m_source = std::make_unique<XferFileSource>(m_request.filePath);
        const Result opened = m_source->open();
        if (!opened) {
            end(false, XmodemError::ReadFailed, opened.errorText());
            return;
        }
        m_codec = std::make_unique<XmodemCodec>(m_request.protocol, m_source.get());
        m_codec->setSendFileInfo(m_source->fileName(), m_source->modificationTime());
        m_codec->setForceShortBlocks(canSendLongBlocks(m_request.protocol) && m_request.blockSize == 128);
        execute(m_codec->startSend(m_clock()));
    } else {
        m_sink = std::make_unique<XferFileSink>(m_request.folder);
        m_codec = std::make_unique<XmodemCodec>(m_request.protocol, m_sink.get());
        m_codec->setReceiveSizeCap(m_request.receiveCapBytes);
        execute(m_codec->startReceive(m_request.fileName, m_clock()));
    }
}

void FileTransferSession::feedReceived(const QByteArray &bytes)
{
    if (m_runState != RunState::Running || !m_codec)
        return;
    execute(m_codec->onBytes(bytes, m_clock()));
}

void FileTransferSession::onPortBytesWritten()
{
    if (m_runState != RunState::Running || !m_codec || !m_awaitingWritten)
        return;
    m_writeProgressMs = m_clock();
    if (m_port->bytesToWrite() > 0)
        return;
    m_awaitingWritten = false;
    execute(m_codec->onBytesWritten(m_clock()));
}

void FileTransferSession::onTick()
{
    if (m_runState != RunState::Running || !m_codec)
        return;
    if (m_awaitingWritten) {
        // The codec waits for the write; only a peer that takes nothing
        // more ends that wait.
        const qint64 quietMs = m_clock() - m_writeProgressMs;
        if (quietMs >= kWriteStallMs) {
            end(false, XmodemError::ConnectionGone,
                tr("The connection stopped taking data for %1 s, so the transfer stopped.").arg(kWriteStallMs / 1000));
            return;
        }
        m_timer.start(int(kWriteStallMs - quietMs));
        return;
    }
    execute(m_codec->tick(m_clock()));
}

void FileTransferSession::stop(StopReason reason, const QString &detail)
{
    if (m_runState != RunState::Running)
        return;
    m_runState = RunState::Stopping;
    m_stopReason = reason;
    if (m_codec) {
        const XmodemAction action = m_codec->cancel(m_clock());
        if (!action.write.isEmpty() && m_port->isOpen())
            m_port->write(action.write);
    }
    int code = XmodemError::LocalCancel;
    QString message;
    switch (reason) {
    case StopReason::UserCancel:
        code = XmodemError::LocalCancel;
        message = m_request.direction == Direction::Send
                      ? tr("Cancelled. The device may still have received up to one more block of data -- if this was a firmware update, run the whole update again.")
                      : tr("Cancelled.");
        break;
    case StopReason::DeviceCancel:
        code = XmodemError::DeviceCancelled;
        message = tr("The device cancelled the transfer.");
        break;
    case StopReason::ProtocolError:
        code = XmodemError::OutOfStep;
        message = detail.isEmpty() ? tr("Cancelled.") : detail;
        break;
    case StopReason::ConnectionClosed:
        code = XmodemError::ConnectionGone;
        message = tr("The connection was closed, so the transfer stopped. If this was a firmware update the device may be left with an incomplete image -- run the update again.");
        break;
    case StopReason::ConnectionLost:
        code = XmodemError::ConnectionGone;
        message = tr("The connection was lost, so the transfer stopped. If this was a firmware update the device may be left with an incomplete image -- run the update again.");
        break;
    }
    end(false, code, message);
}

void FileTransferSession::execute(const XmodemAction &action)
{
    if (!action.write.isEmpty() && !writeToPort(action.write) && !action.ended()) {
        end(false, XmodemError::ConnectionGone,
            tr("The connection was lost, so the transfer stopped. If this was a firmware update the device may be left with an incomplete image -- run the update again."));
        return;
    }
    if (action.ended()) {
        if (action.errorCode() == XmodemError::DeviceCancelled)
            m_stopReason = StopReason::DeviceCancel;
        else if (action.failed())
            m_stopReason = StopReason::ProtocolError;
        end(action.finished(), action.errorCode(), action.message());
        return;
    }
    if (action.wantsWake())
        m_timer.start(int(qBound<qint64>(qint64(0), action.wakeAtMs - m_clock(), qint64(24 * 3600 * 1000))));
    else if (m_awaitingWritten)
        m_timer.start(int(kWriteStallMs));  // the write must make progress
    else
        m_timer.stop();
    reportProgress(false);
}

bool FileTransferSession::writeToPort(const QByteArray &bytes)
{
    if (!m_port->isOpen() || !m_port->write(bytes))
        return false;
    m_awaitingWritten = true;
    m_writeProgressMs = m_clock();
    // A port that wrote at once reports nothing later: finish the write on
    // the next turn of the event loop.
    if (m_port->bytesToWrite() == 0)
        QMetaObject::invokeMethod(this, &FileTransferSession::onPortBytesWritten, Qt::QueuedConnection);
    return true;
}

void FileTransferSession::reportProgress(bool force)
{
    if (!m_codec)
        return;
    const qint64 now = m_clock();
    if (!force && m_lastProgressMs >= 0 && now - m_lastProgressMs < kProgressIntervalMs)
        return;
    m_lastProgressMs = now;
    const XmodemProgress p = m_codec->progress();
    emit progress(p.bytesDone, p.totalBytes, p.totalRetries, elapsedMs());
}

QString FileTransferSession::failureText(const QString &message) const
{
    QString text = tr("Transfer failed: %1").arg(message);
    const XmodemProgress p = progressSnapshot();
    if (p.totalBytes > 0)
        text += tr(" (%1% transferred)").arg(p.bytesDone * 100 / p.totalBytes);
    return text;
}

QStringList FileTransferSession::namingNotes() const
{
    QStringList notes;
    if (!m_sink || m_sink->requestedName().isEmpty())
        return notes;
    if (isYmodemVariant(m_request.protocol) && m_sink->sanitised() != m_sink->requestedName())
        notes << tr("The device asked for the name \"%1\"; it was saved as \"%2\".")
                     .arg(m_sink->requestedName(), m_sink->sanitised());
    if (!m_sink->finalName().isEmpty() && m_sink->finalName() != m_sink->sanitised())
        notes << tr("A file of that name already existed, so this one was saved as \"%1\".").arg(m_sink->finalName());
    if (!m_sink->partialPath().isEmpty())
        notes << tr("What arrived was kept as \"%1\".").arg(QFileInfo(m_sink->partialPath()).fileName());
    return notes;
}

void FileTransferSession::end(bool success, int code, const QString &message)
{
    if (m_runState == RunState::Ended)
        return;
    m_runState = RunState::Ended;
    m_endMs = m_clock();
    m_timer.stop();
    m_errorCode = success ? 0 : code;

    QString detail = message;
    if (!success && m_sink && !m_sink->errorText().isEmpty()
        && (code == XmodemError::CreateFailed || code == XmodemError::WriteFailed || code == XmodemError::SaveFailed))
        detail = message + QLatin1Char(' ') + m_sink->errorText();
    if (!success && m_sink)
        m_sink->abort(true);
    m_failureMessage = success ? QString() : detail;

    const XmodemProgress p = progressSnapshot();
    if (success) {
        const qint64 elapsed = qMax<qint64>(1, m_endMs - m_startMs);
        const double rate = double(p.bytesDone) * 1000.0 / double(elapsed) / 1024.0;
        m_summary = tr("Transfer complete: %1 bytes in %2 s, %3 KB/s, %4 retries")
                        .arg(p.bytesDone)
                        .arg(QString::number(double(m_endMs - m_startMs) / 1000.0, 'f', 1))
                        .arg(QString::number(rate, 'f', 1))
                        .arg(p.totalRetries);
    } else {
        m_summary = failureText(detail);
    }
    const QStringList notes = namingNotes();
    if (!notes.isEmpty())
        m_summary += QLatin1Char('\n') + notes.join(QLatin1Char('\n'));

    qCInfo(lcCore).noquote() << "transfer ended, code" << m_errorCode << ":" << m_summary;
    reportProgress(true);
    if (m_locked) {
        m_locked = false;
        m_port->lock(false);
    }
    m_port->writeNote(m_summary);
    emit finished(success, m_summary);
}
