// Feeds arbitrary bytes to the HTTP request reader, cut into pieces at
// places the input itself chooses, answering each request at once, and
// checks what must always hold: it never takes more than it was given, a
// body never passes the cap, a refusal ends the connection.
#include "httprequestparser.h"

#include <cstdio>
#include <cstdlib>

namespace {

[[noreturn]] void fail(const char *what)
{
    std::fprintf(stderr, "%s\n", what);
    std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    HttpLimits limits;
    limits.maxBodyBytes = 512;
    limits.maxHeadBytes = 1024;
    limits.maxTargetBytes = 256;
    limits.maxHeaderCount = 16;
    HttpRequestParser parser(limits);
    qint64 now = 0;
    parser.start(now);
    // The first byte sets the piece size; the rest is the stream.
    const qsizetype piece = 1 + data[0] % 64;
    QByteArray pending;
    const QByteArrayView stream(reinterpret_cast<const char *>(data) + 1, qsizetype(size) - 1);
    for (qsizetype at = 0; at < stream.size() && parser.state() != HttpRequestParser::State::Closed; at += piece) {
        pending += stream.sliced(at, qMin(piece, stream.size() - at));
        now += 7;
        for (int rounds = 0; rounds < 1000 && !pending.isEmpty(); ++rounds) {
            const HttpRequestParser::Step step = parser.feed(pending, now);
            if (step.consumed < 0 || step.consumed > pending.size())
                fail("took more than it was given");
            pending.remove(0, step.consumed);
            bool answered = false;
            for (const HttpRequestParser::Event &event : step.events) {
                if (event.kind == HttpRequestParser::EventKind::Request) {
                    if (event.request.body.size() > limits.maxBodyBytes)
                        fail("a body passed the cap");
                    parser.answered(now);
                    answered = true;
                } else if (event.kind == HttpRequestParser::EventKind::Refuse) {
                    if (parser.state() != HttpRequestParser::State::Closed || event.status < 400 || event.status > 505)
                        fail("a refusal did not end the connection");
                }
            }
            if (!answered)
                break;
        }
    }
    parser.tick(now + 3'600'000);
    return 0;
}
