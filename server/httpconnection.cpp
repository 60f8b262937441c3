#include "httpconnection.h"

#include <QDeadlineTimer>
#include <QTcpSocket>
#include <QTimer>

#include <sys/socket.h>

namespace {

constexpr qint64 kPeekChunk = 64 * 1024;

QByteArray reasonPhrase(int status)
{
    switch (status) {
    case 200: return "OK";
    case 400: return "Bad Request";
    case 401: return "Unauthorized";
    case 403: return "Forbidden";
    case 404: return "Not Found";
    case 405: return "Method Not Allowed";
    case 408: return "Request Timeout";
    case 409: return "Conflict";
    case 410: return "Gone";
    case 413: return "Content Too Large";
    case 414: return "URI Too Long";
    case 417: return "Expectation Failed";
    case 429: return "Too Many Requests";
    case 431: return "Request Header Fields Too Large";
    case 500: return "Internal Server Error";
    case 501: return "Not Implemented";
    case 503: return "Service Unavailable";
    case 505: return "HTTP Version Not Supported";
    default: return "Status";
    }
}

} // namespace

HttpConnection::HttpConnection(QTcpSocket *socket, HttpLimits limits, QObject *parent)
    : QObject(parent), m_socket(socket), m_parser(limits), m_limits(limits), m_timer(new QTimer(this))
{
    m_socket->setParent(this);
    m_timer->setSingleShot(true);
    m_timer->setTimerType(Qt::CoarseTimer);
    connect(m_timer, &QTimer::timeout, this, &HttpConnection::onTimer);
}

HttpConnection::~HttpConnection() = default;

qint64 HttpConnection::nowMs()
{
    return QDeadlineTimer::current().deadline();
}

void HttpConnection::start()
{
    m_peerAddress = m_socket->peerAddress();
    m_peerPort = m_socket->peerPort();
    // Room for a whole head and a little more: when Qt's buffer is full,
    // what it holds is either a complete head or more than a head may be,
    // so the parser never waits for bytes Qt will not read.
    m_socket->setReadBufferSize(qint64(m_limits.maxHeadBytes) * 2 + 16 * 1024);
    connect(m_socket, &QTcpSocket::readyRead, this, &HttpConnection::pump);
    connect(m_socket, &QTcpSocket::bytesWritten, this, &HttpConnection::onBytesWritten);
    connect(m_socket, &QTcpSocket::disconnected, this, &HttpConnection::onDisconnected);
    apply(m_parser.start(nowMs()));
    pump();
}

bool HttpConnection::isIdle() const
{
    return m_idle;
}

void HttpConnection::updateIdle()
{
    const bool idle = m_phase == Phase::Reading && m_parser.isIdle() && m_unread == 0 && m_socket
                      && m_socket->bytesAvailable() == 0;
    if (idle == m_idle)
        return;
    m_idle = idle;
    emit idleChanged(idle);
}

void HttpConnection::schedulePump()
{
    if (m_pumpQueued)
        return;
    m_pumpQueued = true;
    QMetaObject::invokeMethod(this, &HttpConnection::pump, Qt::QueuedConnection);
}

void HttpConnection::pump()
{
    m_pumpQueued = false;
    if (!m_socket)
        return;
    if (m_phase == Phase::Lingering) {
        const qint64 available = m_socket->bytesAvailable();
        m_socket->skip(available);
        m_lingered += available;
        if (m_lingered > kLingerBytes)
            finish();
        return;
    }
    while (m_phase == Phase::Reading) {
        const qint64 available = m_socket->bytesAvailable();
        if (available <= m_unread)
            break;
        const QByteArray bytes = m_socket->peek(qMin(available, m_unread + kPeekChunk));
        if (bytes.size() <= m_unread)
            break;
        HttpRequestParser::Step step = m_parser.feed(QByteArrayView(bytes).sliced(m_unread), nowMs());
        m_unread += step.consumed;
        // Only a request head (a possible WebSocket handshake) stays in
        // the socket; a body is read as it is parsed.
        if (m_parser.state() == HttpRequestParser::State::Body || m_parser.state() == HttpRequestParser::State::Closed)
            skipUnread();
        const bool progressed = step.consumed > 0 || !step.events.isEmpty();
        apply(std::move(step));
        if (!progressed)
            break;
    }
    updateIdle();
}

void HttpConnection::skipUnread()
{
    if (m_unread > 0 && m_socket)
        m_socket->skip(m_unread);
    m_unread = 0;
}

void HttpConnection::apply(HttpRequestParser::Step step)
{
    if (!step.write.isEmpty())
        m_socket->write(step.write);
    arm(step.wakeAtMs);
    for (const HttpRequestParser::Event &event : std::as_const(step.events)) {
        switch (event.kind) {
        case HttpRequestParser::EventKind::Request:
            m_phase = Phase::Answering;
            m_answerIsHead = event.request.method == "HEAD";
            updateIdle();
            emit requestReceived(event.request);
            break;
        case HttpRequestParser::EventKind::Refuse:
            m_phase = Phase::Answering;
            m_answerIsHead = false;
            m_closeAfterWrite = true;
            updateIdle();
            emit refused(event);
            break;
        case HttpRequestParser::EventKind::Close:
            if (m_phase == Phase::Reading || m_phase == Phase::Flushing)
                finish();  // nothing owed: an idle connection's time is up
            else
                m_closeAfterWrite = true;
            break;
        }
        if (m_phase == Phase::Finished)
            return;
    }
}

void HttpConnection::arm(qint64 wakeAtMs)
{
    if (wakeAtMs == HttpRequestParser::kNoWake) {
        m_timer->stop();
        return;
    }
    m_timer->start(int(qBound(qint64(0), wakeAtMs - nowMs(), qint64(24) * 3600 * 1000)));
}

void HttpConnection::onTimer()
{
    if (m_phase == Phase::Lingering || m_phase == Phase::Closing) {
        finish();
        return;
    }
    if (m_phase == Phase::Reading || m_phase == Phase::Flushing)
        apply(m_parser.tick(nowMs()));
}

void HttpConnection::respond(const HttpResponse &response)
{
    if (m_phase != Phase::Answering || !m_socket)
        return;
    skipUnread();
    const HttpRequestParser::Step next = m_parser.answered(nowMs());
    for (const HttpRequestParser::Event &event : next.events)
        m_closeAfterWrite = m_closeAfterWrite || event.kind == HttpRequestParser::EventKind::Close;
    m_closeAfterWrite = m_closeAfterWrite || response.close;

    QByteArray out;
    out.reserve(256 + (m_answerIsHead ? 0 : response.body.size()));
    out += "HTTP/1.1 " + QByteArray::number(response.status) + ' ' + reasonPhrase(response.status) + "\r\n";
    out += "Content-Type: " + response.contentType + "\r\n";
    out += "Content-Length: " + QByteArray::number(response.body.size()) + "\r\n";
    if (m_closeAfterWrite)
        out += "Connection: close\r\n";
    for (const auto &[name, value] : response.headers)
        out += name + ": " + value + "\r\n";
    out += "\r\n";
    if (!m_answerIsHead)
        out += response.body;
    m_socket->write(out);
    // Sent now rather than on the loop's next turn: one turn and one
    // write-readiness round less per answer. A peer gone meanwhile has
    // finished this connection.
    m_socket->flush();
    if (m_phase == Phase::Finished || !m_socket)
        return;

    if (m_closeAfterWrite) {
        m_phase = Phase::Closing;
        m_timer->start(m_limits.idleTimeoutMs);  // a peer that never reads does not keep us
        onBytesWritten();
        return;
    }
    m_phase = Phase::Flushing;
    arm(next.wakeAtMs);
    onBytesWritten();
}

void HttpConnection::onBytesWritten()
{
    if (!m_socket)
        return;
    if (m_phase == Phase::Flushing && m_socket->bytesToWrite() <= kWriteHighWater) {
        m_phase = Phase::Reading;
        schedulePump();
    } else if (m_phase == Phase::Closing && m_socket->bytesToWrite() == 0) {
        startLingering();
    }
}

void HttpConnection::startLingering()
{
    // The answer has left: say we are done, then read and drop what the
    // peer still sends, so closing with unread bytes does not reset the
    // connection before the peer has read our answer.
    m_phase = Phase::Lingering;
    ::shutdown(int(m_socket->socketDescriptor()), SHUT_WR);
    m_timer->start(kLingerMs);
    pump();
}

QTcpSocket *HttpConnection::releaseForUpgrade()
{
    if (m_phase != Phase::Answering || !m_socket)
        return nullptr;
    QTcpSocket *socket = m_socket;
    disconnect(socket, nullptr, this, nullptr);
    socket->setParent(nullptr);
    m_socket = nullptr;
    m_unread = 0;
    finish();
    return socket;
}

void HttpConnection::close()
{
    finish();
}

void HttpConnection::onDisconnected()
{
    finish();
}

void HttpConnection::finish()
{
    if (m_phase == Phase::Finished)
        return;
    m_phase = Phase::Finished;
    m_timer->stop();
    if (m_idle) {
        m_idle = false;
        emit idleChanged(false);
    }
    if (m_socket) {
        disconnect(m_socket, nullptr, this, nullptr);
        m_socket->abort();
    }
    emit finished();
    deleteLater();
}
