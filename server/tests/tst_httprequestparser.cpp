// The HTTP request reader fed bytes and a virtual clock, no sockets.
#include "httprequestparser.h"

#include <QtTest>

namespace {

using Parser = HttpRequestParser;
constexpr qint64 kT0 = 1'000'000;

HttpLimits smallLimits()
{
    HttpLimits limits;
    limits.maxBodyBytes = 64;
    limits.maxHeadBytes = 256;
    limits.maxTargetBytes = 64;
    limits.maxHeaderCount = 8;
    return limits;
}

// Feeds `bytes` in pieces cut at `cuts`, answering each request at once,
// and collects every request (or the refusal).
struct Run
{
    QList<HttpRequest> requests;
    QList<Parser::Event> refusals;
    QByteArray written;
    qsizetype consumed = 0;
};

Run feedInPieces(const QByteArray &bytes, const QList<qsizetype> &cuts, HttpLimits limits = smallLimits())
{
    Run run;
    Parser parser(limits);
    parser.start(kT0);
    QByteArray pending;
    qsizetype from = 0;
    QList<qsizetype> ends = cuts;
    ends.append(bytes.size());
    for (const qsizetype end : ends) {
        pending += bytes.mid(from, end - from);
        from = end;
        // The owner offers what it holds until the parser takes no more.
        for (;;) {
            const Parser::Step step = parser.feed(pending, kT0);
            run.written += step.write;
            run.consumed += step.consumed;
            pending.remove(0, step.consumed);
            bool answered = false;
            for (const Parser::Event &event : step.events) {
                if (event.kind == Parser::EventKind::Request) {
                    run.requests.append(event.request);
                    parser.answered(kT0);
                    answered = true;
                } else if (event.kind == Parser::EventKind::Refuse) {
                    run.refusals.append(event);
                }
            }
            if (!answered || pending.isEmpty() || parser.state() == Parser::State::Closed)
                break;
        }
        if (parser.state() == Parser::State::Closed)
            break;
    }
    return run;
}

} // namespace

class TestHttpRequestParser : public QObject
{
    Q_OBJECT

private slots:
    void readsRequestsSplitAnywhere_data();
    void readsRequestsSplitAnywhere();
    void takesNothingPastTheRequestInHand();
    void refusesWhatBreaksTheRules_data();
    void refusesWhatBreaksTheRules();
    void keepsItsDeadlines_data();
    void keepsItsDeadlines();
    void asksForTheBodyOnlyWhenOneComes();
    void connectionCloseEndsAfterTheAnswer_data();
    void connectionCloseEndsAfterTheAnswer();
    void readsTheFuzzSeeds();
};

void TestHttpRequestParser::readsRequestsSplitAnywhere_data()
{
    QTest::addColumn<QByteArray>("raw");
    QTest::addColumn<QList<QByteArray>>("bodies");
    QTest::addColumn<QList<QByteArray>>("targets");
    QTest::newRow("GET") << QByteArray("GET /api/v3/account/me HTTP/1.1\r\nHost: x\r\nAuthorization: Bearer t\r\n\r\n")
                         << QList<QByteArray>{""} << QList<QByteArray>{"/api/v3/account/me"};
    QTest::newRow("leading empty lines") << QByteArray("\r\n\r\nGET / HTTP/1.1\r\nHost: x\r\n\r\n")
                                         << QList<QByteArray>{""} << QList<QByteArray>{"/"};
    QTest::newRow("length") << QByteArray("POST /a?x=1 HTTP/1.1\r\nHost: x\r\nContent-Length: 5\r\n\r\nhello")
                            << QList<QByteArray>{"hello"} << QList<QByteArray>{"/a?x=1"};
    QTest::newRow("chunked with extension and trailer")
        << QByteArray("PUT /b HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n"
                      "5;name=v\r\nhello\r\n1 \r\n!\r\n0\r\nTrailer: yes\r\n\r\n")
        << QList<QByteArray>{"hello!"} << QList<QByteArray>{"/b"};
    QTest::newRow("pipelined") << QByteArray("POST /1 HTTP/1.1\r\nHost: x\r\nContent-Length: 2\r\n\r\nab"
                                             "GET /2 HTTP/1.1\r\nHost: x\r\n\r\n"
                                             "POST /3 HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n1\r\nc\r\n0\r\n\r\n")
                               << QList<QByteArray>{"ab", "", "c"} << QList<QByteArray>{"/1", "/2", "/3"};
    QTest::newRow("HTTP/1.0 without Host") << QByteArray("GET /old HTTP/1.0\r\n\r\n") << QList<QByteArray>{""}
                                           << QList<QByteArray>{"/old"};
}

void TestHttpRequestParser::readsRequestsSplitAnywhere()
{
    QFETCH(QByteArray, raw);
    QFETCH(QList<QByteArray>, bodies);
    QFETCH(QList<QByteArray>, targets);
    QList<QList<qsizetype>> splits{{}};
    for (qsizetype cut = 1; cut < raw.size(); ++cut)
        splits.append(QList<qsizetype>{cut});
    QList<qsizetype> everyByte;
    for (qsizetype cut = 1; cut < raw.size(); ++cut)
        everyByte.append(cut);
    splits.append(everyByte);
    for (const QList<qsizetype> &cuts : std::as_const(splits)) {
        const Run run = feedInPieces(raw, cuts);
        const QByteArray where = "cut at " + QByteArray::number(cuts.value(0)) + (cuts.size() > 1 ? " and on" : "");
        QVERIFY2(run.refusals.isEmpty(), qPrintable(where + ": " + run.refusals.value(0).code.toLatin1()));
        QCOMPARE(run.requests.size(), bodies.size());
        for (qsizetype i = 0; i < bodies.size(); ++i) {
            QCOMPARE(run.requests[i].body, bodies[i]);
            QCOMPARE(run.requests[i].target, targets[i]);
        }
        QCOMPARE(run.consumed, raw.size());
    }
    const HttpRequest first = feedInPieces(raw, {}).requests.first();
    QCOMPARE(first.path(), targets.first().split('?').first());
    QVERIFY(first.keepAlive == (first.minorVersion == 1));
}

void TestHttpRequestParser::takesNothingPastTheRequestInHand()
{
    // What follows a request stays with the owner until it has answered:
    // for a WebSocket hand-over the handshake must still be whole.
    Parser parser(smallLimits());
    parser.start(kT0);
    const QByteArray head = "GET /ws HTTP/1.1\r\nHost: x\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n\r\n";
    const Parser::Step step = parser.feed(head + "\x81\x05hello", kT0);
    QCOMPARE(step.consumed, head.size());
    QCOMPARE(step.events.size(), 1);
    QVERIFY(step.events[0].request.hasToken("connection", "upgrade"));
    QVERIFY(step.events[0].request.hasToken("upgrade", "WebSocket"));
    QCOMPARE(parser.state(), Parser::State::AwaitingAnswer);
    QCOMPARE(parser.feed("more", kT0).consumed, 0);
    QCOMPARE(step.wakeAtMs, Parser::kNoWake);  // no deadline while the answer is ours to give
}

void TestHttpRequestParser::refusesWhatBreaksTheRules_data()
{
    QTest::addColumn<QByteArray>("raw");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("code");
    const auto row = [](const char *name, const QByteArray &raw, int status, const char *code) {
        QTest::newRow(name) << raw << status << QString::fromLatin1(code);
    };
    row("bare LF", "GET / HTTP/1.1\nHost: x\r\n\r\n", 400, "bad_request");
    row("bare CR", "GET / HTTP/1.1\r\nHost: x\rY: z\r\n\r\n", 400, "bad_request");
    row("folded header", "GET / HTTP/1.1\r\nHost: x\r\nA: b\r\n c\r\n\r\n", 400, "bad_request");
    row("space before colon", "GET / HTTP/1.1\r\nHost : x\r\n\r\n", 400, "bad_request");
    row("control character in a value", "GET / HTTP/1.1\r\nHost: x\r\nA: b\x01\r\n\r\n", 400, "bad_request");
    row("no Host", "GET / HTTP/1.1\r\nA: b\r\n\r\n", 400, "bad_request");
    row("two Hosts", "GET / HTTP/1.1\r\nHost: x\r\nHost: y\r\n\r\n", 400, "bad_request");
    row("relative target", "GET api HTTP/1.1\r\nHost: x\r\n\r\n", 400, "bad_request");
    row("three spaces", "GET / x HTTP/1.1\r\nHost: x\r\n\r\n", 400, "bad_request");
    row("unknown version", "GET / HTTP/2.0\r\nHost: x\r\n\r\n", 505, "http_version_not_supported");
    row("not a version", "GET / HTTQ/1.1\r\nHost: x\r\n\r\n", 400, "bad_request");
    // Two ways to tell the length: how requests are smuggled.
    row("length and chunked", "POST / HTTP/1.1\r\nHost: x\r\nContent-Length: 3\r\nTransfer-Encoding: chunked\r\n\r\n", 400,
        "bad_request");
    row("two lengths", "POST / HTTP/1.1\r\nHost: x\r\nContent-Length: 3\r\nContent-Length: 4\r\n\r\nabcd", 400,
        "bad_request");
    row("length list", "POST / HTTP/1.1\r\nHost: x\r\nContent-Length: 3, 4\r\n\r\nabcd", 400, "bad_request");
    row("signed length", "POST / HTTP/1.1\r\nHost: x\r\nContent-Length: +3\r\n\r\nabc", 400, "bad_request");
    row("chunked on HTTP/1.0", "POST / HTTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n", 400, "bad_request");
    row("chunked not last", "POST / HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked, gzip\r\n\r\n", 400, "bad_request");
    row("another coding", "POST / HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: gzip, chunked\r\n\r\n", 501,
        "not_implemented");
    row("bad chunk size", "POST / HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n", 400, "bad_request");
    row("chunk without its CR LF", "POST / HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n1\r\nab\r\n", 400,
        "bad_request");
    row("unknown expectation", "GET / HTTP/1.1\r\nHost: x\r\nExpect: magic\r\n\r\n", 417, "expectation_failed");
    // Bounds: whatever the headers say, the body cap holds.
    row("declared body too large", "POST / HTTP/1.1\r\nHost: x\r\nContent-Length: 65\r\n\r\n", 413, "payload_too_large");
    row("declared body too large, Upgrade",
        "POST / HTTP/1.1\r\nHost: x\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nContent-Length: 99999999999\r\n\r\n",
        413, "payload_too_large");
    row("chunks too large", "POST / HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n20\r\n" + QByteArray(32, 'a')
                                + "\r\n21\r\n",
        413, "payload_too_large");
    row("huge chunk size", "POST / HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\nffffffffffffffffff\r\n", 413,
        "payload_too_large");
    row("target too long", "GET /" + QByteArray(200, 'a') + " HTTP/1.1\r\nHost: x\r\n\r\n", 414, "uri_too_long");
    row("head too large", "GET / HTTP/1.1\r\nHost: x\r\nA: " + QByteArray(300, 'a') + "\r\n\r\n", 431,
        "headers_too_large");
    row("endless head", "GET / HTTP/1.1\r\n" + QByteArray(1000, 'a'), 431, "headers_too_large");
    row("too many headers", "GET / HTTP/1.1\r\nHost: x\r\n" + QByteArray("A: b\r\n").repeated(8) + "\r\n", 431,
        "headers_too_large");
    row("trailers too large", "POST / HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n"
                                  + QByteArray("T: " + QByteArray(50, 't') + "\r\n").repeated(6),
        431, "headers_too_large");
}

void TestHttpRequestParser::refusesWhatBreaksTheRules()
{
    QFETCH(QByteArray, raw);
    QFETCH(int, status);
    QFETCH(QString, code);
    for (const QList<qsizetype> &cuts : {QList<qsizetype>{}, QList<qsizetype>{raw.size() / 2}}) {
        const Run run = feedInPieces(raw, cuts);
        QVERIFY(run.requests.isEmpty());
        QCOMPARE(run.refusals.size(), 1);
        QCOMPARE(run.refusals[0].status, status);
        QCOMPARE(run.refusals[0].code, code);
        QVERIFY(!run.refusals[0].description.isEmpty());
    }
}

void TestHttpRequestParser::keepsItsDeadlines_data()
{
    QTest::addColumn<QByteArray>("first");   // sent at once, answered if complete
    QTest::addColumn<QByteArray>("second");  // sent 1 s later
    QTest::addColumn<qint64>("deadline");    // from the start
    QTest::addColumn<int>("status");         // 0: closed without an answer
    HttpLimits limits;
    const QByteArray get = "GET / HTTP/1.1\r\nHost: x\r\n\r\n";
    QTest::newRow("silent connection") << QByteArray() << QByteArray() << qint64(limits.headTimeoutMs) << 0;
    QTest::newRow("first head trickles") << QByteArray("G") << QByteArray("ET / HT") << qint64(limits.headTimeoutMs)
                                         << 408;
    QTest::newRow("kept-alive, then quiet") << get << QByteArray() << qint64(limits.idleTimeoutMs) << 0;
    QTest::newRow("next head trickles") << get << QByteArray("GET /") << qint64(1000 + limits.headTimeoutMs) << 408;
    QTest::newRow("body trickles") << QByteArray("POST / HTTP/1.1\r\nHost: x\r\nContent-Length: 9\r\n\r\nab")
                                   << QByteArray("c") << qint64(limits.bodyTimeoutMs) << 408;
}

void TestHttpRequestParser::keepsItsDeadlines()
{
    QFETCH(QByteArray, first);
    QFETCH(QByteArray, second);
    QFETCH(qint64, deadline);
    QFETCH(int, status);
    Parser parser;
    Parser::Step step = parser.start(kT0);
    qint64 wake = step.wakeAtMs;
    const auto take = [&](const Parser::Step &s) {
        wake = s.wakeAtMs;
        for (const Parser::Event &event : s.events) {
            if (event.kind == Parser::EventKind::Request)
                wake = parser.answered(kT0).wakeAtMs;
        }
    };
    if (!first.isEmpty())
        take(parser.feed(first, kT0));
    if (!second.isEmpty())
        take(parser.feed(second, kT0 + 1000));
    QCOMPARE(wake, kT0 + deadline);
    QVERIFY(parser.tick(kT0 + deadline - 1).events.isEmpty());  // early ticks are harmless
    step = parser.tick(kT0 + deadline);
    QCOMPARE(step.events.size(), 1);
    QCOMPARE(step.events[0].kind, status == 0 ? Parser::EventKind::Close : Parser::EventKind::Refuse);
    QCOMPARE(step.events[0].status, status);
    QCOMPARE(parser.state(), Parser::State::Closed);
}

void TestHttpRequestParser::asksForTheBodyOnlyWhenOneComes()
{
    const QByteArray expect = "Expect: 100-continue\r\n";
    Run run = feedInPieces("POST / HTTP/1.1\r\nHost: x\r\n" + expect + "Content-Length: 2\r\n\r\nab", {});
    QCOMPARE(run.written, QByteArray("HTTP/1.1 100 Continue\r\n\r\n"));
    QCOMPARE(run.requests.value(0).body, QByteArray("ab"));
    run = feedInPieces("GET / HTTP/1.1\r\nHost: x\r\n" + expect + "\r\n", {});
    QCOMPARE(run.written, QByteArray());
    // Refused bodies are not asked for either.
    run = feedInPieces("POST / HTTP/1.1\r\nHost: x\r\n" + expect + "Content-Length: 100\r\n\r\n", {});
    QCOMPARE(run.written, QByteArray());
    QCOMPARE(run.refusals.value(0).status, 413);
}

void TestHttpRequestParser::connectionCloseEndsAfterTheAnswer_data()
{
    QTest::addColumn<QByteArray>("raw");
    QTest::addColumn<bool>("keepAlive");
    QTest::newRow("1.1") << QByteArray("GET / HTTP/1.1\r\nHost: x\r\n\r\n") << true;
    QTest::newRow("1.1 close") << QByteArray("GET / HTTP/1.1\r\nHost: x\r\nConnection: Close\r\n\r\n") << false;
    QTest::newRow("1.1 close in a list") << QByteArray("GET / HTTP/1.1\r\nHost: x\r\nConnection: te, close\r\n\r\n") << false;
    QTest::newRow("1.0") << QByteArray("GET / HTTP/1.0\r\n\r\n") << false;
    QTest::newRow("1.0 keep-alive") << QByteArray("GET / HTTP/1.0\r\nConnection: keep-alive\r\n\r\n") << true;
}

void TestHttpRequestParser::connectionCloseEndsAfterTheAnswer()
{
    QFETCH(QByteArray, raw);
    QFETCH(bool, keepAlive);
    Parser parser;
    parser.start(kT0);
    const Parser::Step step = parser.feed(raw + raw, kT0);
    QCOMPARE(step.events.size(), 1);
    QCOMPARE(step.events[0].request.keepAlive, keepAlive);
    const Parser::Step after = parser.answered(kT0);
    QCOMPARE(after.events.size(), keepAlive ? 0 : 1);
    QCOMPARE(parser.state(), keepAlive ? Parser::State::Idle : Parser::State::Closed);
    // Whatever came after a closing request is not read as a request.
    QCOMPARE(parser.feed(raw, kT0).events.size(), keepAlive ? 1 : 0);
}

void TestHttpRequestParser::readsTheFuzzSeeds()
{
    // The fuzzer's seeds, each fed whole and byte by byte: no crash, and
    // every request or refusal accounted for.
    const QDir seeds(QStringLiteral(TSL_HTTP_SEEDS));
    const QStringList files = seeds.entryList(QDir::Files);
    QVERIFY(files.size() >= 5);
    for (const QString &name : files) {
        QFile file(seeds.filePath(name));
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QByteArray raw = file.readAll();
        QList<qsizetype> everyByte;
        for (qsizetype cut = 1; cut < raw.size(); ++cut)
            everyByte.append(cut);
        const Run whole = feedInPieces(raw, {}, HttpLimits());
        const Run bytes = feedInPieces(raw, everyByte, HttpLimits());
        QCOMPARE(bytes.requests.size(), whole.requests.size());
        QCOMPARE(bytes.refusals.size(), whole.refusals.size());
    }
}

QTEST_GUILESS_MAIN(TestHttpRequestParser)
#include "tst_httprequestparser.moc"
