#include "transfer/xmodemcodec.h"

#include "tools/crctable.h"
#include "transfer/xfersink.h"
#include "transfer/xfersource.h"

bool isValidXmodemVariant(int value)
{
    return value >= toInt(XmodemVariant::Xmodem) && value <= toInt(XmodemVariant::YmodemG);
}

bool isYmodemVariant(XmodemVariant v)
{
    return v == XmodemVariant::Ymodem || v == XmodemVariant::YmodemG;
}

bool canSendLongBlocks(XmodemVariant v)
{
    return v == XmodemVariant::Xmodem1K || isYmodemVariant(v);
}

XmodemCodec::XmodemCodec(XmodemVariant variant, XferSource *source)
    : m_direction(Direction::Send), m_variant(variant), m_source(source)
{
}

XmodemCodec::XmodemCodec(XmodemVariant variant, XferSink *sink)
    : m_direction(Direction::Receive), m_variant(variant), m_sink(sink)
{
}

void XmodemCodec::setSendFileInfo(const QString &name, qint64 modificationTimeSecs)
{
    m_fileName = name;
    m_mtime = modificationTimeSecs;
}

// ---- wire pieces -------------------------------------------------------

QByteArray XmodemCodec::cancelSequence()
{
    return QByteArray(8, CAN) + QByteArray(8, BS);
}

quint16 XmodemCodec::crc16(QByteArrayView data)
{
    // CRC-16/XMODEM: polynomial 0x1021, zero start, no reflection, no final XOR.
    static const CrcTable table(CrcParams{16, 0x1021, 0, 0, false, false});
    return quint16(table.compute(data));
}

quint8 XmodemCodec::checksum8(QByteArrayView data)
{
    quint8 sum = 0;
    for (char c : data)
        sum = quint8(sum + quint8(c));
    return sum;
}

QByteArray XmodemCodec::makeBlock(int number, QByteArrayView data, bool crc)
{
    QByteArray block;
    block.reserve(3 + data.size() + 2);
    block.append(data.size() <= 128 ? SOH : STX);
    block.append(char(number & 0xFF));
    block.append(char(~number & 0xFF));
    block.append(data.data(), data.size());
    if (crc) {
        const quint16 value = crc16(data);
        block.append(char(value >> 8));
        block.append(char(value & 0xFF));
    } else {
        block.append(char(checksum8(data)));
    }
    return block;
}

QByteArray XmodemCodec::makeHeaderData(const QString &name, qint64 size, qint64 mtime)
{
    QByteArray utf8 = name.toUtf8();
    if (utf8.size() > 100) {
        // Cut at a character boundary so the receiver still reads valid UTF-8.
        qsizetype cut = 100;
        while (cut > 0 && (quint8(utf8.at(cut)) & 0xC0) == 0x80)
            --cut;
        utf8.truncate(cut);
    }
    QByteArray data = utf8;
    data.append('\0');
    data.append(QByteArray::number(size < 0 ? 0 : size));
    if (mtime > 0) {
        data.append(' ');
        data.append(QByteArray::number(mtime, 8));
    }
    data.append('\0');
    data.truncate(128);
    data.append(128 - data.size(), '\0');
    return data;
}

// ---- the call frame ------------------------------------------------------

XmodemAction XmodemCodec::conclude(qint64 nowMs)
{
    XmodemAction action;
    action.write = m_out.write;
    if (m_out.ended) {
        action.events.append(m_out.end);
        m_deadline = -1;
        m_pendingTimeout = -1;
        m_writePending = false;
    } else if (!m_out.write.isEmpty()) {
        // The wait starts once the bytes are on their way.
        m_writePending = true;
        m_pendingTimeout = m_out.timeoutMs == kKeepDeadline ? -1 : m_out.timeoutMs;
        m_deadline = -1;
    } else if (m_out.timeoutMs != kKeepDeadline) {
        m_deadline = m_out.timeoutMs >= 0 ? nowMs + m_out.timeoutMs : -1;
    }
    action.wakeAtMs = (m_out.ended || m_writePending) ? XmodemAction::kNoWake : m_deadline;
    if (!m_out.ended && !m_writePending && holdsPartialBlock()) {
        const qint64 charDeadline = m_lastInputMs + kCharTimeoutMs;
        action.wakeAtMs = m_deadline < 0 ? charDeadline : qMin(m_deadline, charDeadline);
    }
    m_out = Pending();
    return action;
}

bool XmodemCodec::holdsPartialBlock() const
{
    // YMODEM-G cannot ask again: its own timeout ends it.
    return m_direction == Direction::Receive && !m_streaming && !isEnded() && !m_input.isEmpty()
        && (m_input.at(0) == SOH || m_input.at(0) == STX);
}

void XmodemCodec::emitBytes(const QByteArray &bytes, qint64 timeoutMs)
{
    m_out.write += bytes;
    m_out.timeoutMs = timeoutMs;
}

void XmodemCodec::succeed()
{
    m_state = State::Done;
    m_out.ended = true;
    m_out.end = XmodemEnd{true, XmodemError::None, QString()};
    m_input.clear();
}

void XmodemCodec::fail(int code, const QString &message, bool sendCancel)
{
    m_state = State::Failed;
    m_out.ended = true;
    m_out.end = XmodemEnd{false, code, message};
    if (sendCancel)
        m_out.write += cancelSequence();
    m_input.clear();
}

bool XmodemCodec::retryAllowed()
{
    ++m_retries;
    ++m_totalRetries;
    return m_retries < kMaxRetries + 1;
}

QString XmodemCodec::gaveUpText() const
{
    return tr("Gave up after %1 retries.").arg(kMaxRetries);
}

// ---- events --------------------------------------------------------------

XmodemAction XmodemCodec::startSend(qint64 nowMs)
{
    if (m_state != State::Idle || m_direction != Direction::Send || !m_source)
        return {};
    m_state = State::SendWaitRequest;
    m_offset = 0;
    m_blockNumber = 1;
    m_out.timeoutMs = kFirstRequestMs;
    return conclude(nowMs);
}

XmodemAction XmodemCodec::startReceive(const QString &fileName, qint64 nowMs)
{
    if (m_state != State::Idle || m_direction != Direction::Receive || !m_sink)
        return {};
    m_crcMode = m_variant != XmodemVariant::Xmodem;
    m_streaming = m_variant == XmodemVariant::YmodemG;
    m_startMs = nowMs;
    m_startAttempts = 1;
    // YMODEM opens the file from the header: data before it are out of step.
    m_expectedBlock = isYmodemVariant(m_variant) ? 0 : 1;
    m_lastAccepted = -1;
    if (!isYmodemVariant(m_variant)) {
        m_fileName = fileName;
        if (!m_sink->open(fileName, -1)) {
            fail(XmodemError::CreateFailed, tr("Could not create the destination file."), true);
            return conclude(nowMs);
        }
    }
    m_state = State::RecvStarting;
    emitBytes(QByteArray(1, startChar()), startRepeatMs());
    return conclude(nowMs);
}

XmodemAction XmodemCodec::onBytes(QByteArrayView data, qint64 nowMs)
{
    if (isEnded() || m_state == State::Idle)
        return {};
    // A large read is taken a buffer's worth at a time; only while our own
    // write is in flight can the buffer fill, and then the excess is lost.
    XmodemAction action;
    do {
        const qsizetype room = qMax<qsizetype>(0, kMaxInputBuffer - m_input.size());
        const qsizetype take = qMin(room, data.size());
        m_input.append(data.data(), take);
        data = data.sliced(take);
        if (take > 0)
            m_lastInputMs = nowMs;
        if (!m_writePending)
            process(nowMs);
        action.append(conclude(nowMs));
    } while (!data.isEmpty() && !isEnded() && m_input.size() < kMaxInputBuffer);
    return action;
}

XmodemAction XmodemCodec::onBytesWritten(qint64 nowMs)
{
    if (isEnded() || m_state == State::Idle)
        return {};
    m_writePending = false;
    if (m_pendingTimeout >= 0) {
        m_deadline = nowMs + m_pendingTimeout;
        m_pendingTimeout = -1;
    }
    process(nowMs);
    return conclude(nowMs);
}

XmodemAction XmodemCodec::tick(qint64 nowMs)
{
    if (isEnded() || m_state == State::Idle)
        return {};
    if (!m_writePending && holdsPartialBlock() && nowMs - m_lastInputMs >= kCharTimeoutMs) {
        // The line fell silent inside a block: a byte of it was lost,
        // unless what came last was the device cancelling.
        if (endsWithCancel(m_input))
            failDeviceCancelled();
        else
            badBlock();
        return conclude(nowMs);
    }
    if (m_writePending || m_deadline < 0 || nowMs < m_deadline)
        return conclude(nowMs);
    m_deadline = -1;
    if (m_direction == Direction::Send)
        sendTimeout();
    else
        receiveTimeout(nowMs);
    return conclude(nowMs);
}

XmodemAction XmodemCodec::cancel(qint64 nowMs)
{
    if (isEnded())
        return {};
    m_out = Pending();
    fail(XmodemError::LocalCancel, tr("Cancelled."), true);
    return conclude(nowMs);
}

XmodemProgress XmodemCodec::progress() const
{
    XmodemProgress p;
    p.fileName = m_fileName;
    p.totalRetries = m_totalRetries;
    if (m_direction == Direction::Send) {
        p.bytesDone = m_offset;
        p.totalBytes = m_source ? m_source->size() : -1;
    } else {
        p.bytesDone = m_written;
        p.totalBytes = m_fileSize;
    }
    return p;
}

// ---- input ---------------------------------------------------------------

// Counts CAN bytes; true when the byte was a CAN (consumed).
bool XmodemCodec::countCan(char byte)
{
    if (byte != CAN) {
        m_canCount = 0;
        return false;
    }
    if (++m_canCount >= 2)
        failDeviceCancelled();
    return true;
}

void XmodemCodec::process(qint64 nowMs)
{
    qsizetype used = 0;
    // Stop as soon as something is to be written: replies to it are read
    // only after it has gone out.
    while (!isEnded() && !m_writePending && m_out.write.isEmpty()) {
        if (m_direction == Direction::Send) {
            if (used >= m_input.size()) {
                if (m_state == State::SendStreaming)
                    advanceAfterData();
                break;
            }
            const char byte = m_input.at(used++);
            if (!countCan(byte))
                processSend(byte);
        } else {
            if (m_input.isEmpty())
                break;
            bool needMore = false;
            processReceive(nowMs, &needMore);
            if (needMore)
                break;
        }
    }
    if (!isEnded())
        m_input.remove(0, qMin(used, m_input.size()));
}

// ---- sending -------------------------------------------------------------

void XmodemCodec::processSend(char byte)
{
    const bool ymodem = isYmodemVariant(m_variant);
    switch (m_state) {
    case State::SendWaitRequest:
        if (byte == CRC_REQUEST) {
            m_crcMode = true;
        } else if (byte == STREAM_REQUEST) {
            m_crcMode = true;
            m_streaming = true;
        } else if (byte == NAK) {
            m_crcMode = false;
        } else {
            return;
        }
        if (ymodem) {
            sendHeader();
        } else {
            m_blockNumber = 1;
            sendDataBlock();
        }
        return;
    case State::SendWaitAck:
        if (byte == ACK) {
            m_retries = 0;
            switch (m_lastPacket) {
            case Packet::Header:
                m_state = State::SendWaitDataStart;
                m_out.timeoutMs = kWaitMs;
                return;
            case Packet::Data:
                advanceAfterData();
                return;
            case Packet::Eot:
                if (ymodem) {
                    m_state = State::SendWaitBatchEnd;
                    m_out.timeoutMs = kWaitMs;
                } else {
                    succeed();
                }
                return;
            case Packet::BatchEnd:
                succeed();
                return;
            case Packet::None:
                return;
            }
            return;
        }
        if (byte == NAK) {
            if (m_streaming)
                fail(XmodemError::RetriesExhausted,
                     tr("The device reported an error. YMODEM-G cannot resend a block, so the transfer has been abandoned."),
                     true);
            else if (retryAllowed())
                resendPacket();
            else
                fail(XmodemError::RetriesExhausted, gaveUpText(), true);
            return;
        }
        if ((byte == CRC_REQUEST || byte == STREAM_REQUEST) && m_lastPacket == Packet::Eot && ymodem)
            sendBatchEnd();
        return;
    case State::SendWaitDataStart:
        if (byte == CRC_REQUEST || byte == STREAM_REQUEST) {
            m_blockNumber = 1;
            m_streaming = byte == STREAM_REQUEST;
            sendDataBlock();
        }
        return;
    case State::SendWaitBatchEnd:
        if (byte == CRC_REQUEST || byte == STREAM_REQUEST)
            sendBatchEnd();
        return;
    case State::SendStreaming:
        if (byte == NAK)
            fail(XmodemError::RetriesExhausted,
                 tr("The device reported an error. YMODEM-G cannot resend a block, so the transfer has been abandoned."),
                 true);
        return;
    default:
        return;
    }
}

void XmodemCodec::sendHeader()
{
    m_packet = makeBlock(0, makeHeaderData(m_fileName, m_source->size(), m_mtime), m_crcMode);
    m_lastPacket = Packet::Header;
    m_headerSent = true;
    m_state = State::SendWaitAck;
    emitBytes(m_packet, kWaitMs);
}

void XmodemCodec::sendDataBlock()
{
    const qint64 size = m_source->size();
    if (m_offset >= size) {
        if (!m_source->unchanged()) {
            fail(XmodemError::FileChanged, tr("The file changed while it was being sent."), true);
            return;
        }
        m_packet = QByteArray(1, EOT);
        m_lastPacket = Packet::Eot;
        m_retries = 0;
        m_state = State::SendWaitAck;
        emitBytes(m_packet, kWaitMs);
        return;
    }
    const qint64 remaining = size - m_offset;
    const bool shortOnly = m_variant == XmodemVariant::Xmodem || m_variant == XmodemVariant::XmodemCrc
                           || m_forceShortBlocks;
    const qint64 blockSize = (shortOnly || remaining <= 128) ? 128 : 1024;
    QByteArray data = m_source->read(m_offset, qMin(blockSize, remaining));
    if (m_source->lastReadFailed() || data.isEmpty()) {
        fail(XmodemError::ReadFailed, tr("Could not read the file being sent."), true);
        return;
    }
    if (data.size() > blockSize)
        data.truncate(blockSize);
    m_blockLength = data.size();
    data.append(blockSize - data.size(), SUB);
    m_packet = makeBlock(m_blockNumber, data, m_crcMode);
    m_lastPacket = Packet::Data;
    m_retries = 0;
    m_state = m_streaming ? State::SendStreaming : State::SendWaitAck;
    emitBytes(m_packet, kWaitMs);
}

void XmodemCodec::sendBatchEnd()
{
    m_packet = makeBlock(0, QByteArray(128, '\0'), m_crcMode);
    m_lastPacket = Packet::BatchEnd;
    m_state = State::SendWaitAck;
    emitBytes(m_packet, kWaitMs);
}

void XmodemCodec::resendPacket()
{
    // Anything still buffered answered an earlier copy; read only the
    // answer to this one.
    m_input.clear();
    emitBytes(m_packet, kWaitMs);
}

void XmodemCodec::advanceAfterData()
{
    m_offset += m_blockLength;
    m_blockLength = 0;
    m_blockNumber = (m_blockNumber + 1) & 0xFF;
    sendDataBlock();
}

void XmodemCodec::sendTimeout()
{
    const QString stopped =
        tr("The device stopped responding. YMODEM-G has no retransmission, so the transfer has failed.");
    switch (m_state) {
    case State::SendWaitRequest:
        fail(XmodemError::NeverStarted,
             tr("The device did not request the transfer. Check that it is waiting to receive and that the baud rate matches."),
             false);
        return;
    case State::SendWaitAck:
        if (m_lastPacket == Packet::BatchEnd) {
            // The file was delivered. lrzsz's rb acknowledges the
            // end-of-batch header and flushes its line as it leaves, which
            // on a tty throws the acknowledgement away: nobody is left to
            // answer, and a cancel would only wait on the line for the next
            // transfer.
            succeed();
        } else if (m_streaming)
            fail(XmodemError::RetriesExhausted, stopped, true);
        else if (retryAllowed())
            resendPacket();
        else
            fail(XmodemError::RetriesExhausted, gaveUpText(), true);
        return;
    case State::SendWaitDataStart:
        if (retryAllowed())
            m_out.timeoutMs = kWaitMs;
        else
            fail(XmodemError::RetriesExhausted, gaveUpText(), true);
        return;
    case State::SendWaitBatchEnd:
        // The file was delivered; a receiver that never asks for the
        // end-of-batch header is tolerated.
        succeed();
        return;
    case State::SendStreaming:
        fail(XmodemError::RetriesExhausted, stopped, true);
        return;
    default:
        return;
    }
}

// ---- receiving -----------------------------------------------------------

char XmodemCodec::startChar() const
{
    if (!m_crcMode)
        return NAK;
    return m_streaming ? STREAM_REQUEST : CRC_REQUEST;
}

qint64 XmodemCodec::startRepeatMs() const
{
    return m_crcMode ? kCrcStartRepeatMs : kChecksumStartRepeatMs;
}

void XmodemCodec::processReceive(qint64 nowMs, bool *needMore)
{
    Q_UNUSED(nowMs);
    const char first = m_input.at(0);
    if (first == CAN) {
        m_input.remove(0, 1);
        countCan(first);
        return;
    }
    m_canCount = 0;
    if (first == EOT) {
        m_input.remove(0, 1);
        // A sender's EOT is followed by silence while it waits for the
        // answer; one with more behind it is a damaged byte inside a block.
        if (m_input.isEmpty())
            handleEot();
        return;
    }
    if (first != SOH && first != STX) {
        // Drop the whole run of bytes that cannot start anything at once.
        qsizetype junk = 1;
        while (junk < m_input.size()) {
            const char c = m_input.at(junk);
            if (c == SOH || c == STX || c == EOT || c == CAN)
                break;
            ++junk;
        }
        m_input.remove(0, junk);
        return;
    }
    const qsizetype dataLength = first == SOH ? 128 : 1024;
    const qsizetype total = 3 + dataLength + (m_crcMode ? 2 : 1);
    if (m_input.size() < total) {
        *needMore = true;
        return;
    }
    const QByteArray block = m_input.left(total);
    m_input.remove(0, total);
    const int number = quint8(block.at(1));
    const int complement = quint8(block.at(2));
    const QByteArray data = block.mid(3, dataLength);
    bool good = (number ^ complement) == 0xFF;
    if (good) {
        if (m_crcMode) {
            const quint16 got = quint16((quint8(block.at(total - 2)) << 8) | quint8(block.at(total - 1)));
            good = got == crc16(data);
        } else {
            good = quint8(block.at(total - 1)) == checksum8(data);
        }
    }
    if (!good) {
        badBlock();
        return;
    }
    m_retries = 0;
    handleBlock(number, data);
}

void XmodemCodec::badBlock()
{
    // A receiver still starting stays so: a damaged first block may come
    // from a sender that uses checksums, which the fallback then reaches.
    ++m_retries;
    ++m_totalRetries;
    if (m_streaming)
        fail(XmodemError::RetriesExhausted,
             tr("A block failed its checksum. YMODEM-G cannot ask for it again, so the transfer has failed."), true);
    else if (m_retries < kMaxRetries + 1) {
        // What follows a damaged block is out of frame (a stray byte could
        // even read as EOT): drop it, the sender repeats the block.
        m_input.clear();
        emitBytes(QByteArray(1, NAK), kWaitMs);
    }
    else
        fail(XmodemError::RetriesExhausted,
             tr("Data kept failing its checksum. This is usually a baud rate mismatch or line noise."), true);
}

void XmodemCodec::handleEot()
{
    // Before the YMODEM header no file is open that an EOT could end: it is
    // line noise, and the start character keeps asking for the header.
    if (isYmodemVariant(m_variant) && !m_headerReceived)
        return;
    if (m_state == State::RecvWaitBatchEnd) {
        // Our answer to the first EOT was lost: answer again, the file is
        // already in place.
        emitBytes(QByteArray(1, ACK) + QByteArray(1, startChar()), kWaitMs);
        return;
    }
    // Even short of an announced size: the sender says the file ends here.
    acceptEot();
}

void XmodemCodec::acceptEot()
{
    if (!m_sink->finish(m_written)) {
        fail(XmodemError::SaveFailed, tr("The data was received but could not be saved."), false);
        return;
    }
    if (!isYmodemVariant(m_variant)) {
        m_out.write += QByteArray(1, ACK);
        succeed();
        return;
    }
    m_state = State::RecvWaitBatchEnd;
    emitBytes(QByteArray(1, ACK) + QByteArray(1, startChar()), kWaitMs);
}

void XmodemCodec::failDeviceCancelled()
{
    // The device said so itself: no cancel sequence goes back.
    fail(XmodemError::DeviceCancelled, tr("The device cancelled the transfer."), false);
}

bool XmodemCodec::endsWithCancel(const QByteArray &bytes)
{
    // Two or more CANs, optionally followed by the backspaces that erase
    // them on a terminal.
    qsizetype end = bytes.size();
    while (end > 0 && bytes.at(end - 1) == BS)
        --end;
    return end >= 2 && bytes.at(end - 1) == CAN && bytes.at(end - 2) == CAN;
}

void XmodemCodec::handleBlock(int number, const QByteArray &data)
{
    const QByteArray ack = m_streaming ? QByteArray() : QByteArray(1, ACK);
    if (m_state == State::RecvWaitBatchEnd) {
        // Only the first file of a batch is received: whatever comes now
        // ends it.
        m_out.write += QByteArray(1, ACK);
        succeed();
        return;
    }
    if (isYmodemVariant(m_variant) && number == 0 && !m_headerReceived) {
        handleHeader(data);
        return;
    }
    if (number == m_lastAccepted) {
        m_state = State::RecvBlocks;
        emitBytes(ack, kWaitMs);
        return;
    }
    if (number != m_expectedBlock) {
        fail(XmodemError::OutOfStep,
             tr("Block %1 arrived when block %2 was expected; the transfer is out of step.")
                 .arg(number)
                 .arg(m_expectedBlock),
             true);
        return;
    }
    QByteArray chunk = data;
    if (m_fileSize >= 0)
        chunk.truncate(qMax<qint64>(0, m_fileSize - m_written));
    if (!chunk.isEmpty()) {
        if (!m_sink->write(chunk)) {
            fail(XmodemError::WriteFailed, tr("Writing to disk failed."), true);
            return;
        }
        m_written += chunk.size();
    }
    if (m_recvCap > 0 && m_written > m_recvCap) {
        fail(XmodemError::SizeCap,
             tr("Received %1 bytes without an end of transfer. XMODEM has no length field, so there is no way to tell when it should stop.")
                 .arg(m_written),
             true);
        return;
    }
    m_lastAccepted = number;
    m_expectedBlock = (number + 1) & 0xFF;
    m_state = State::RecvBlocks;
    emitBytes(ack, kWaitMs);
}

void XmodemCodec::handleHeader(const QByteArray &data)
{
    const qsizetype nul = data.indexOf('\0');
    if (nul < 0) {
        fail(XmodemError::OutOfStep, tr("The device sent a malformed file header."), true);
        return;
    }
    const QString name = QString::fromUtf8(data.left(nul));
    if (name.isEmpty()) {
        // An empty batch: nothing to receive.
        m_out.write += QByteArray(1, ACK);
        succeed();
        return;
    }
    QByteArray rest = data.mid(nul + 1);
    const qsizetype end = rest.indexOf('\0');
    if (end >= 0)
        rest.truncate(end);
    const QList<QByteArray> fields = rest.split(' ');
    QList<QByteArray> present;
    for (const QByteArray &f : fields) {
        if (!f.isEmpty())
            present.append(f);
    }
    if (!present.isEmpty()) {
        bool ok = false;
        const qint64 size = present.at(0).toLongLong(&ok, 10);
        if (ok && size >= 0)
            m_fileSize = size;
    }
    if (present.size() > 1) {
        bool ok = false;
        const qint64 mtime = present.at(1).toLongLong(&ok, 8);
        if (ok && mtime > 0)
            m_mtime = mtime;
    }
    m_fileName = name;
    if (m_recvCap > 0 && m_fileSize > m_recvCap) {
        fail(XmodemError::SizeCap,
             tr("The device offered a %1 byte file, which is over the receive limit.").arg(m_fileSize), true);
        return;
    }
    m_sink->setModificationTime(m_mtime);
    if (!m_sink->open(name, m_fileSize)) {
        fail(XmodemError::CreateFailed, tr("Could not create the destination file."), true);
        return;
    }
    m_headerReceived = true;
    m_expectedBlock = 1;
    m_lastAccepted = 0;
    m_state = State::RecvBlocks;
    emitBytes(QByteArray(1, ACK) + QByteArray(1, startChar()), kWaitMs);
}

void XmodemCodec::receiveTimeout(qint64 nowMs)
{
    switch (m_state) {
    case State::RecvStarting:
        if (nowMs - m_startMs < kStartLimitMs) {
            ++m_startAttempts;
            if (!isYmodemVariant(m_variant) && m_crcMode && m_startAttempts >= kChecksumFallbackAttempt)
                m_crcMode = false;
            // A half block from before is stale now.
            m_input.clear();
            emitBytes(QByteArray(1, startChar()), startRepeatMs());
        } else {
            fail(XmodemError::NeverStarted,
                 tr("The device did not start sending. Check that it is ready to send and that the baud rate matches."),
                 false);
        }
        return;
    case State::RecvBlocks:
        if (m_streaming) {
            fail(XmodemError::RetriesExhausted,
                 tr("The device stopped sending. YMODEM-G cannot recover, so the transfer has failed."), true);
        } else if (endsWithCancel(m_input)) {
            // A device that cancels in the middle of a block sends its CANs
            // where data was expected; the silence after them tells them
            // apart from data.
            failDeviceCancelled();
        } else if (retryAllowed()) {
            m_input.clear();
            const char ask = (m_written == 0 && m_crcMode) ? startChar() : NAK;
            emitBytes(QByteArray(1, ask), kWaitMs);
        } else {
            fail(XmodemError::RetriesExhausted, gaveUpText(), true);
        }
        return;
    case State::RecvWaitBatchEnd:
        succeed();
        return;
    default:
        return;
    }
}
