#include "bridge/modbusarbiter.h"

#include "tools/modbuscodec.h"

#include <algorithm>

ModbusArbiter::ModbusArbiter(const Options &options)
    : m_options(options)
{
}

qint64 ModbusArbiter::silenceUs(int baud)
{
    return baud > 0 ? (35LL * 11 * 1000000 + 10LL * baud - 1) / (10LL * baud) : 0;
}

qint64 ModbusArbiter::lineTimeUs(int baud, qint64 bytes)
{
    return baud > 0 ? bytes * 11 * 1000000 / baud : 0;
}

qint64 ModbusArbiter::lineSilenceUs() const
{
    // ASCII frames carry their own start and end; only RTU needs the gap.
    return m_options.framing == ModbusFraming::Rtu ? silenceUs(m_baud) : 0;
}

qint64 ModbusArbiter::endSilenceUs() const
{
    return std::max(silenceUs(m_baud), kMinEndSilenceUs);
}

ModbusArbiter::Counters &ModbusArbiter::clientCounter(const QString &client)
{
    ClientEntry &entry = m_clients[client];
    if (entry.gone) {
        // The same address and port back again.
        entry.gone = false;
        m_gone.removeOne(client);
    }
    return entry.counters;
}

void ModbusArbiter::count(const Pending &pending, quint64 Counters::*field)
{
    ++(m_units[pending.unit].*field);
    m_unitSeen[pending.unit] = true;
    const auto it = m_clients.find(pending.client);
    if (it != m_clients.end())
        ++(it->counters.*field);
}

ModbusArbiter::Step ModbusArbiter::request(const QString &client, quint16 transactionId, quint8 unit,
                                           const QByteArray &pdu, qint64 nowUs)
{
    Step step;
    clientCounter(client);
    Pending pending{client, transactionId, unit, pdu, false};
    count(pending, &Counters::requests);
    QList<Pending> &queue = m_queues[client];
    if (queue.size() >= m_options.perClientLimit || m_queued >= m_options.totalLimit) {
        if (queue.isEmpty())
            m_queues.remove(client);
        answerException(step, pending, kServerBusy);
        count(pending, &Counters::exceptions);
    } else {
        if (queue.isEmpty())
            m_turns.append(client);
        queue.append(std::move(pending));
        ++m_queued;
        m_queuedBytes += pdu.size();
        pump(step, nowUs);
    }
    wake(step);
    return step;
}

ModbusArbiter::Step ModbusArbiter::lineBytes(QByteArrayView bytes, qint64 nowUs)
{
    Step step;
    if (m_current) {
        m_rx.append(bytes);
        m_lastRxUs = nowUs;
        takeLineFrames(step, nowUs, false);
    } else if (!bytes.isEmpty()) {
        // Nobody asked: a late reply after a timeout, or noise.
        ++m_discarded;
    }
    pump(step, nowUs);
    wake(step);
    return step;
}

ModbusArbiter::Step ModbusArbiter::tick(qint64 nowUs)
{
    Step step;
    if (m_current && !m_rx.isEmpty() && nowUs >= m_lastRxUs + endSilenceUs())
        takeLineFrames(step, nowUs, true);
    if (m_current && nowUs >= m_deadlineUs) {
        const Pending pending = *m_current;
        m_current.reset();
        m_rx.clear();
        if (!m_currentClientGone)
            answerException(step, pending, kTargetFailedToRespond);
        count(pending, &Counters::timeouts);
        m_quietUntilUs = nowUs + lineSilenceUs();
    }
    pump(step, nowUs);
    wake(step);
    return step;
}

void ModbusArbiter::clientGone(const QString &client)
{
    if (const auto it = m_queues.find(client); it != m_queues.end()) {
        for (const Pending &p : std::as_const(*it))
            m_queuedBytes -= p.pdu.size();
        m_queued -= int(it->size());
        m_queues.erase(it);
        m_turns.removeOne(client);
    }
    if (m_retry && m_retry->client == client)
        m_retry.reset();
    if (m_current && m_current->client == client)
        m_currentClientGone = true;
    const auto entry = m_clients.find(client);
    if (entry != m_clients.end() && !entry->gone) {
        entry->gone = true;
        m_gone.append(client);
        while (m_gone.size() > kMaxClientsGone)
            m_clients.remove(m_gone.takeFirst());
    }
}

void ModbusArbiter::pump(Step &step, qint64 nowUs)
{
    while (!m_current && nowUs >= m_quietUntilUs) {
        Pending next;
        if (m_retry) {
            next = std::move(*m_retry);
            m_retry.reset();
        } else if (!m_turns.isEmpty()) {
            // Round robin: one request per client per turn.
            const QString client = m_turns.takeFirst();
            QList<Pending> &queue = m_queues[client];
            next = queue.takeFirst();
            --m_queued;
            m_queuedBytes -= next.pdu.size();
            if (queue.isEmpty())
                m_queues.remove(client);
            else
                m_turns.append(client);
        } else {
            return;
        }
        send(step, std::move(next), nowUs);
    }
}

void ModbusArbiter::send(Step &step, Pending pending, qint64 nowUs)
{
    const QByteArray frame = m_options.framing == ModbusFraming::Ascii
                                 ? ModbusCodec::asciiFrame(pending.unit, pending.pdu)
                                 : ModbusCodec::rtuFrame(pending.unit, pending.pdu);
    step.write += frame;
    const qint64 sendingUs = lineTimeUs(m_baud, frame.size());
    if (pending.unit == 0) {
        // Broadcast: nobody answers; every unit needs the turnaround to act.
        m_quietUntilUs = nowUs + sendingUs + lineSilenceUs() + qint64(m_options.turnaroundMs) * 1000;
        return;
    }
    m_current = std::move(pending);
    m_currentClientGone = false;
    m_rx.clear();
    m_deadlineUs = nowUs + sendingUs + qint64(m_options.responseTimeoutMs) * 1000;
}

void ModbusArbiter::takeLineFrames(Step &step, qint64 nowUs, bool silent)
{
    while (m_current && !m_rx.isEmpty()) {
        if (m_options.framing == ModbusFraming::Rtu) {
            const qsizetype length = ModbusCodec::rtuReplyLength(m_rx);
            const bool known = length > 0;
            if (known && m_rx.size() >= length) {
                const QByteArray frame = m_rx.left(length);
                m_rx.remove(0, length);
                judge(step, frame, nowUs);
                continue;
            }
            // Cut short by a silence, or longer than any frame: as it is.
            if (silent || m_rx.size() >= 256) {
                const QByteArray frame = std::exchange(m_rx, {});
                judge(step, frame, nowUs);
            }
            return;
        }
        const qsizetype start = m_rx.indexOf(':');
        if (start < 0) {
            m_rx.clear();
            return;
        }
        m_rx.remove(0, start);
        const qsizetype end = m_rx.indexOf("\r\n");
        if (end < 0) {
            if (m_rx.size() > kMaxLineFrame) {
                m_rx.clear();
                judge(step, QByteArrayView(), nowUs);
            }
            return;
        }
        const QByteArray frame = m_rx.left(end + 2);
        m_rx.remove(0, end + 2);
        judge(step, frame, nowUs);
    }
}

void ModbusArbiter::judge(Step &step, QByteArrayView frame, qint64 nowUs)
{
    const ValueResult<ModbusCodec::Frame> read = m_options.framing == ModbusFraming::Ascii
                                                     ? ModbusCodec::readAsciiFrame(frame)
                                                     : ModbusCodec::readRtuFrame(frame);
    const quint8 function = quint8(m_current->pdu.at(0));
    const bool good = read && read.value().unit == m_current->unit && !read.value().pdu.isEmpty()
                      && (quint8(read.value().pdu.at(0)) & 0x7F) == function;
    if (!good) {
        ++m_discarded;
        if (m_options.retryOnce && !m_current->retried && !m_currentClientGone) {
            Pending again = std::move(*m_current);
            again.retried = true;
            m_retry = std::move(again);
            m_current.reset();
            m_rx.clear();
            m_quietUntilUs = nowUs + lineSilenceUs();
        }
        // Otherwise a good reply may still come before the timeout.
        return;
    }
    const Pending pending = std::move(*m_current);
    m_current.reset();
    m_rx.clear();
    const QByteArray &pdu = read.value().pdu;
    count(pending, (quint8(pdu.at(0)) & 0x80) ? &Counters::exceptions : &Counters::replies);
    if (!m_currentClientGone)
        step.replies.append({pending.client, pending.transactionId, pending.unit, pdu});
    m_quietUntilUs = nowUs + lineSilenceUs() + qint64(m_options.turnaroundMs) * 1000;
}

void ModbusArbiter::answerException(Step &step, const Pending &pending, quint8 code)
{
    QByteArray pdu;
    pdu.append(char(quint8(pending.pdu.isEmpty() ? 0 : pending.pdu.at(0)) | 0x80));
    pdu.append(char(code));
    step.replies.append({pending.client, pending.transactionId, pending.unit, pdu});
}

void ModbusArbiter::wake(Step &step) const
{
    qint64 at = kNoWake;
    const auto consider = [&at](qint64 t) { at = at == kNoWake ? t : std::min(at, t); };
    if (m_current) {
        consider(m_deadlineUs);
        if (!m_rx.isEmpty())
            consider(m_lastRxUs + endSilenceUs());
    } else if (m_retry || !m_turns.isEmpty()) {
        consider(m_quietUntilUs);
    }
    step.wakeAtUs = at;
}

QList<std::pair<QString, ModbusArbiter::Counters>> ModbusArbiter::clientCounters() const
{
    QList<std::pair<QString, Counters>> connected;
    for (auto it = m_clients.cbegin(); it != m_clients.cend(); ++it) {
        if (!it->gone)
            connected.append({it.key(), it->counters});
    }
    std::sort(connected.begin(), connected.end(), [](const auto &a, const auto &b) { return a.first < b.first; });
    for (const QString &client : m_gone)
        connected.append({client, m_clients.value(client).counters});
    return connected;
}

QList<std::pair<int, ModbusArbiter::Counters>> ModbusArbiter::unitCounters() const
{
    QList<std::pair<int, Counters>> units;
    for (int unit = 0; unit < 256; ++unit) {
        if (m_unitSeen[size_t(unit)])
            units.append({unit, m_units[size_t(unit)]});
    }
    return units;
}
