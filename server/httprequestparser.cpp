#include "httprequestparser.h"

#include <QStringList>

namespace {

constexpr int kMaxChunkLine = 1024;  // a chunk size with its extensions
const QByteArrayView kHeadEnd = "\r\n\r\n";

bool isTokenChar(char c)
{
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9'))
        return true;
    switch (c) {
    case '!': case '#': case '$': case '%': case '&': case '\'': case '*': case '+':
    case '-': case '.': case '^': case '_': case '`': case '|': case '~':
        return true;
    default:
        return false;
    }
}

bool isToken(QByteArrayView text)
{
    if (text.isEmpty())
        return false;
    for (const char c : text) {
        if (!isTokenChar(c))
            return false;
    }
    return true;
}

QByteArrayView trimmed(QByteArrayView text)
{
    while (!text.isEmpty() && (text.front() == ' ' || text.front() == '\t'))
        text = text.sliced(1);
    while (!text.isEmpty() && (text.back() == ' ' || text.back() == '\t'))
        text.chop(1);
    return text;
}

// The comma-separated elements of every value of header `name`, trimmed,
// empty ones dropped.
QList<QByteArray> listElements(const HttpRequest &request, QByteArrayView name)
{
    QList<QByteArray> out;
    for (const auto &[key, value] : request.headers) {
        if (key != name)
            continue;
        for (const QByteArray &part : value.split(',')) {
            const QByteArrayView element = trimmed(part);
            if (!element.isEmpty())
                out.append(element.toByteArray());
        }
    }
    return out;
}

bool isHexDigit(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

} // namespace

QByteArray HttpRequest::header(QByteArrayView name) const
{
    for (const auto &[key, value] : headers) {
        if (key == name)
            return value;
    }
    return {};
}

bool HttpRequest::hasHeader(QByteArrayView name) const
{
    for (const auto &entry : headers) {
        if (entry.first == name)
            return true;
    }
    return false;
}

bool HttpRequest::hasToken(QByteArrayView name, QByteArrayView token) const
{
    for (const QByteArray &element : listElements(*this, name)) {
        if (element.compare(token, Qt::CaseInsensitive) == 0)
            return true;
    }
    return false;
}

QByteArray HttpRequest::path() const
{
    QByteArrayView rest = target;
    if (!rest.startsWith('/')) {
        // absolute form: scheme://authority/path
        const qsizetype scheme = rest.indexOf("://");
        const qsizetype slash = scheme < 0 ? -1 : rest.indexOf('/', scheme + 3);
        if (slash < 0)
            return QByteArrayLiteral("/");
        rest = rest.sliced(slash);
    }
    const qsizetype query = rest.indexOf('?');
    return (query < 0 ? rest : rest.first(query)).toByteArray();
}

QByteArray HttpRequest::query() const
{
    const qsizetype at = target.indexOf('?');
    return at < 0 ? QByteArray() : target.mid(at + 1);
}

HttpRequestParser::HttpRequestParser(HttpLimits limits) : m_limits(limits) {}

HttpRequestParser::Step HttpRequestParser::start(qint64 nowMs)
{
    m_state = State::Idle;
    m_phaseStartMs = nowMs;
    m_firstRequest = true;
    return wake({});
}

qint64 HttpRequestParser::deadline() const
{
    switch (m_state) {
    case State::Idle:
        // A fresh connection owes its first head within the head time; a
        // kept-alive one may rest for the idle time.
        return m_phaseStartMs + (m_firstRequest ? m_limits.headTimeoutMs : m_limits.idleTimeoutMs);
    case State::Head:
        return m_phaseStartMs + m_limits.headTimeoutMs;
    case State::Body:
        return m_phaseStartMs + m_limits.bodyTimeoutMs;
    case State::AwaitingAnswer:
    case State::Closed:
        break;
    }
    return kNoWake;
}

HttpRequestParser::Step HttpRequestParser::wake(Step step) const
{
    step.wakeAtMs = deadline();
    return step;
}

HttpRequestParser::Step HttpRequestParser::refuse(int status, const QString &code, const QString &description)
{
    m_state = State::Closed;
    Step step;
    Event event;
    event.kind = EventKind::Refuse;
    event.request = m_request;
    event.request.body.clear();
    event.status = status;
    event.code = code;
    event.description = description;
    step.events.append(event);
    return step;
}

HttpRequestParser::Step HttpRequestParser::tick(qint64 nowMs)
{
    const qint64 due = deadline();
    if (due == kNoWake || nowMs < due)
        return wake({});
    if (m_state == State::Idle && m_head.isEmpty()) {
        // Nothing of a request arrived: nothing is owed an answer.
        m_state = State::Closed;
        Step step;
        step.events.append(Event{EventKind::Close, {}, 0, {}, {}});
        return step;
    }
    return refuse(408, QStringLiteral("request_timeout"), QStringLiteral("The request did not arrive in time."));
}

HttpRequestParser::Step HttpRequestParser::answered(qint64 nowMs)
{
    if (m_state != State::AwaitingAnswer)
        return wake({});
    if (!m_request.keepAlive) {
        m_state = State::Closed;
        Step step;
        step.events.append(Event{EventKind::Close, {}, 0, {}, {}});
        return step;
    }
    m_request = HttpRequest();
    m_head.clear();
    m_scanFrom = 0;
    m_firstRequest = false;
    m_state = State::Idle;
    m_phaseStartMs = nowMs;
    return wake({});
}

HttpRequestParser::Step HttpRequestParser::feed(QByteArrayView bytes, qint64 nowMs)
{
    Step step;
    if (m_state == State::Closed) {
        step.consumed = bytes.size();  // nothing more is read on this connection
        return step;
    }
    while (!bytes.isEmpty() && (m_state == State::Idle || m_state == State::Head)) {
        if (m_state == State::Idle) {
            if (!m_firstRequest)
                m_phaseStartMs = nowMs;
            m_state = State::Head;
        }
        // Take at most one byte past the limit: enough to know it was passed.
        const qsizetype room = qsizetype(m_limits.maxHeadBytes) + 1 - m_head.size();
        const QByteArrayView taken = bytes.first(qMin(bytes.size(), room));
        m_head.append(taken);
        // Empty lines before a request line are allowed and skipped.
        qsizetype skip = 0;
        while (m_head.size() - skip >= 2 && m_head[skip] == '\r' && m_head[skip + 1] == '\n')
            skip += 2;
        if (skip > 0) {
            m_head.remove(0, skip);
            m_scanFrom = qMax<qsizetype>(0, m_scanFrom - skip);
        }
        const qsizetype end = m_head.indexOf(kHeadEnd, qMax<qsizetype>(0, m_scanFrom - 3));
        if (end < 0) {
            step.consumed += taken.size();
            bytes = bytes.sliced(taken.size());
            m_scanFrom = m_head.size();
            if (m_head.indexOf("\r\n") < 0 && m_head.size() > m_limits.maxTargetBytes + 32) {
                Step refused = refuse(414, QStringLiteral("uri_too_long"), QStringLiteral("The request's address is too long."));
                refused.consumed = step.consumed;
                return refused;
            }
            if (m_head.size() > m_limits.maxHeadBytes) {
                Step refused = refuse(431, QStringLiteral("headers_too_large"),
                                      QStringLiteral("The request's headers are too large."));
                refused.consumed = step.consumed;
                return refused;
            }
            continue;
        }
        // The head ends inside what was just taken; the rest is not ours yet.
        const qsizetype beyond = m_head.size() - (end + kHeadEnd.size());
        m_head.truncate(end + kHeadEnd.size());
        step.consumed += taken.size() - beyond;
        bytes = bytes.sliced(taken.size() - beyond);
        if (!parseHead(step))
            return step;
        step = afterHead(nowMs, std::move(step));
        if (m_state == State::Closed)
            return step;
    }
    if (m_state == State::Body && !bytes.isEmpty()) {
        step.consumed += feedBody(bytes, step);
        if (m_state == State::Closed)
            return step;
    }
    return wake(std::move(step));
}

bool HttpRequestParser::parseHead(Step &step)
{
    const auto fail = [&](int status, const QString &code, const QString &description) {
        const qsizetype consumed = step.consumed;
        const QByteArray write = step.write;
        step = refuse(status, code, description);
        step.consumed = consumed;
        step.write = write;
        return false;
    };
    const auto badRequest = [&] {
        return fail(400, QStringLiteral("bad_request"), QStringLiteral("The request is not valid HTTP."));
    };
    const QByteArrayView head(m_head);
    // Lines end in CR LF and nowhere else: a lone CR or LF is how requests
    // are smuggled past proxies that read them differently.
    for (qsizetype i = 0; i < head.size(); ++i) {
        if (head[i] == '\n' && (i == 0 || head[i - 1] != '\r'))
            return badRequest();
        if (head[i] == '\r' && (i + 1 >= head.size() || head[i + 1] != '\n'))
            return badRequest();
    }
    const QByteArrayView lines = head.first(head.size() - kHeadEnd.size());
    qsizetype lineStart = 0;
    qsizetype lineEnd = lines.indexOf("\r\n");
    const QByteArrayView requestLine = lines.first(lineEnd < 0 ? lines.size() : lineEnd);

    const qsizetype sp1 = requestLine.indexOf(' ');
    const qsizetype sp2 = sp1 < 0 ? -1 : requestLine.indexOf(' ', sp1 + 1);
    if (sp1 <= 0 || sp2 < 0 || requestLine.indexOf(' ', sp2 + 1) >= 0)
        return badRequest();
    const QByteArrayView method = requestLine.first(sp1);
    const QByteArrayView target = requestLine.sliced(sp1 + 1, sp2 - sp1 - 1);
    const QByteArrayView version = requestLine.sliced(sp2 + 1);
    if (!isToken(method) || target.isEmpty())
        return badRequest();
    for (const char c : target) {
        if (c < 0x21 || c > 0x7e)
            return badRequest();
    }
    m_request.method = method.toByteArray();
    m_request.target = target.toByteArray();
    if (target.size() > m_limits.maxTargetBytes)
        return fail(414, QStringLiteral("uri_too_long"), QStringLiteral("The request's address is too long."));
    if (version == "HTTP/1.1") {
        m_request.minorVersion = 1;
    } else if (version == "HTTP/1.0") {
        m_request.minorVersion = 0;
    } else if (version.size() == 8 && version.startsWith("HTTP/") && version[5] >= '0' && version[5] <= '9'
               && version[6] == '.' && version[7] >= '0' && version[7] <= '9') {
        return fail(505, QStringLiteral("http_version_not_supported"),
                    QStringLiteral("This service speaks HTTP/1.1 and HTTP/1.0."));
    } else {
        return badRequest();
    }
    const bool absolute = target.startsWith("http://") || target.startsWith("https://");
    if (!target.startsWith('/') && !absolute)
        return badRequest();

    while (lineEnd >= 0) {
        lineStart = lineEnd + 2;
        lineEnd = lines.indexOf("\r\n", lineStart);
        const QByteArrayView line = lines.sliced(lineStart, (lineEnd < 0 ? lines.size() : lineEnd) - lineStart);
        if (line.front() == ' ' || line.front() == '\t')
            return badRequest();  // folded lines are obsolete and ambiguous
        const qsizetype colon = line.indexOf(':');
        if (colon <= 0 || !isToken(line.first(colon)))
            return badRequest();
        const QByteArrayView value = trimmed(line.sliced(colon + 1));
        for (const char c : value) {
            const auto u = static_cast<unsigned char>(c);
            if ((u < 0x20 && u != '\t') || u == 0x7f)
                return badRequest();
        }
        if (m_request.headers.size() >= m_limits.maxHeaderCount)
            return fail(431, QStringLiteral("headers_too_large"), QStringLiteral("The request's headers are too large."));
        m_request.headers.append({line.first(colon).toByteArray().toLower(), value.toByteArray()});
    }

    int hosts = 0;
    for (const auto &entry : std::as_const(m_request.headers))
        hosts += entry.first == "host" ? 1 : 0;
    if (m_request.minorVersion == 1 && hosts != 1)
        return badRequest();

    // Exactly one way to tell the body's length, or none.
    const QList<QByteArray> codings = listElements(m_request, "transfer-encoding");
    const bool declaresLength = m_request.hasHeader("content-length");
    if (!codings.isEmpty()) {
        if (m_request.minorVersion == 0 || declaresLength)
            return badRequest();
        if (codings.last().compare("chunked", Qt::CaseInsensitive) != 0)
            return badRequest();
        if (codings.size() > 1)
            return fail(501, QStringLiteral("not_implemented"),
                        QStringLiteral("This service takes request bodies as they are or in chunks, nothing else."));
        m_bodyMode = BodyMode::ChunkSize;
        m_bodyLeft = 0;
    } else if (declaresLength) {
        const QList<QByteArray> lengths = listElements(m_request, "content-length");
        if (lengths.isEmpty())
            return badRequest();
        for (const QByteArray &length : lengths) {
            if (length != lengths.first() || length.size() > 18)
                return badRequest();
            for (const char c : length) {
                if (c < '0' || c > '9')
                    return badRequest();
            }
        }
        m_bodyMode = BodyMode::Length;
        m_bodyLeft = lengths.first().toLongLong();
    } else {
        m_bodyMode = BodyMode::Length;
        m_bodyLeft = 0;
    }
    if (m_bodyMode == BodyMode::Length && m_bodyLeft > m_limits.maxBodyBytes)
        return fail(413, QStringLiteral("payload_too_large"),
                    QStringLiteral("The request is larger than this service accepts (%1 bytes).").arg(m_limits.maxBodyBytes));

    m_request.keepAlive = m_request.minorVersion == 1 ? !m_request.hasToken("connection", "close")
                                                      : m_request.hasToken("connection", "keep-alive");
    if (m_request.hasHeader("expect")) {
        if (m_request.header("expect").compare("100-continue", Qt::CaseInsensitive) != 0)
            return fail(417, QStringLiteral("expectation_failed"),
                        QStringLiteral("This service cannot meet the request's expectation."));
        const bool bodyComes = m_bodyMode != BodyMode::Length || m_bodyLeft > 0;
        if (bodyComes && m_request.minorVersion == 1)
            step.write += "HTTP/1.1 100 Continue\r\n\r\n";
    }
    return true;
}

HttpRequestParser::Step HttpRequestParser::afterHead(qint64 nowMs, Step step)
{
    m_head.clear();
    m_scanFrom = 0;
    if (m_bodyMode == BodyMode::Length && m_bodyLeft == 0) {
        m_state = State::AwaitingAnswer;
        step.events.append(Event{EventKind::Request, m_request, 0, {}, {}});
        return step;
    }
    m_state = State::Body;
    m_phaseStartMs = nowMs;
    m_line.clear();
    m_trailerBytes = 0;
    return step;
}

qsizetype HttpRequestParser::feedBody(QByteArrayView bytes, Step &step)
{
    const auto complete = [&] {
        m_state = State::AwaitingAnswer;
        step.events.append(Event{EventKind::Request, m_request, 0, {}, {}});
    };
    const auto fail = [&](int status, const QString &code, const QString &description) {
        const QByteArray write = step.write;
        const qsizetype consumed = step.consumed;
        step = refuse(status, code, description);
        step.write = write;
        step.consumed = consumed;
    };
    const auto badRequest = [&] {
        fail(400, QStringLiteral("bad_request"), QStringLiteral("The request is not valid HTTP."));
    };
    const auto tooLarge = [&] {
        fail(413, QStringLiteral("payload_too_large"),
             QStringLiteral("The request is larger than this service accepts (%1 bytes).").arg(m_limits.maxBodyBytes));
    };
    // Reads a CR LF ended line into m_line; true when it is complete.
    qsizetype used = 0;
    const auto readLine = [&](qsizetype maxLine, bool &broken) {
        broken = false;
        while (used < bytes.size()) {
            const char c = bytes[used++];
            m_line.append(c);
            if (c == '\n') {
                if (m_line.size() < 2 || m_line[m_line.size() - 2] != '\r')
                    broken = true;
                return true;
            }
            if (m_line.size() >= 2 && m_line[m_line.size() - 2] == '\r') {
                broken = true;  // a CR not followed by LF
                return true;
            }
            if (m_line.size() > maxLine)
                return true;
        }
        return false;
    };

    while (m_state == State::Body && used < bytes.size()) {
        switch (m_bodyMode) {
        case BodyMode::Length:
        case BodyMode::ChunkData: {
            const qsizetype take = qsizetype(qMin<qint64>(m_bodyLeft, bytes.size() - used));
            m_request.body.append(bytes.sliced(used, take));
            used += take;
            m_bodyLeft -= take;
            if (m_bodyLeft == 0) {
                if (m_bodyMode == BodyMode::Length) {
                    complete();
                } else {
                    m_bodyMode = BodyMode::ChunkDataEnd;
                    m_line.clear();
                }
            }
            break;
        }
        case BodyMode::ChunkDataEnd: {
            bool broken = false;
            if (!readLine(2, broken))
                break;
            if (broken || m_line != "\r\n")
                {
                badRequest();
                return used;
            }
            m_line.clear();
            m_bodyMode = BodyMode::ChunkSize;
            break;
        }
        case BodyMode::ChunkSize: {
            bool broken = false;
            if (!readLine(kMaxChunkLine, broken))
                break;
            if (broken || m_line.size() > kMaxChunkLine)
                {
                badRequest();
                return used;
            }
            const QByteArrayView line = QByteArrayView(m_line).first(m_line.size() - 2);
            qsizetype digits = 0;
            while (digits < line.size() && isHexDigit(line[digits]))
                ++digits;
            const QByteArrayView rest = trimmed(line.sliced(digits));
            if (digits == 0 || (!rest.isEmpty() && rest.front() != ';'))
                {
                badRequest();
                return used;
            }
            if (digits > 15)
                {
                tooLarge();
                return used;
            }
            bool ok = false;
            const qint64 size = line.first(digits).toByteArray().toLongLong(&ok, 16);
            if (!ok)
                {
                badRequest();
                return used;
            }
            m_line.clear();
            if (size == 0) {
                m_bodyMode = BodyMode::Trailers;
                break;
            }
            if (m_request.body.size() + size > m_limits.maxBodyBytes)
                {
                tooLarge();
                return used;
            }
            m_bodyMode = BodyMode::ChunkData;
            m_bodyLeft = size;
            break;
        }
        case BodyMode::Trailers: {
            // Trailer fields are read (within the head's bound) and dropped.
            bool broken = false;
            const qsizetype before = used;
            const bool done = readLine(m_limits.maxHeadBytes, broken);
            m_trailerBytes += used - before;
            if (m_trailerBytes > m_limits.maxHeadBytes) {
                fail(431, QStringLiteral("headers_too_large"), QStringLiteral("The request's headers are too large."));
                return used;
            }
            if (!done)
                break;
            if (broken)
                {
                badRequest();
                return used;
            }
            const bool last = m_line == "\r\n";
            m_line.clear();
            if (last)
                complete();
            break;
        }
        }
    }
    return used;
}
