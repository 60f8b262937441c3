// The relay's wire: the WebSocket codec fed bytes split anywhere, and the
// relay socket against a loopback stand-in of the service's relay endpoint
// (pairing, control messages, close codes, the pair deadline, message
// sizes, and reading held back while paused).
#include "cloud/relaysocket.h"
#include "cloud/websocketcodec.h"
#include "relaypeer.h"
#include "support/listenport.h"

#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QtTest>

namespace {

using Codec = WebSocketCodec;
using Kind = Codec::Event::Kind;

// A client and a server codec joined back to back.
struct Pair
{
    Codec client{Codec::Role::Client};
    Codec server{Codec::Role::Server};
    QList<Codec::Event> clientEvents;
    QList<Codec::Event> serverEvents;

    void toServer(const QByteArray &bytes)
    {
        Codec::Step step = server.feed(bytes);
        serverEvents += step.events;
        if (!step.write.isEmpty())
            toClient(step.write);
    }
    void toClient(const QByteArray &bytes)
    {
        Codec::Step step = client.feed(bytes);
        clientEvents += step.events;
        if (!step.write.isEmpty())
            toServer(step.write);
    }
    bool open()
    {
        toServer(client.start(QStringLiteral("relay.example:8437"), "/ws/relay/v1?ticket=abc").write);
        return client.isOpen() && server.isOpen();
    }
};

QByteArray bytesOf(qsizetype size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    for (qsizetype i = 0; i < size; ++i)
        bytes[i] = char((i * 131 + 7) & 0xff);
    return bytes;
}

} // namespace

class TestRelaySocket : public QObject
{
    Q_OBJECT

private slots:
    void handshakeSurvivesAnySplit();
    void messagesKeepTheirSizeBothWays_data();
    void messagesKeepTheirSizeBothWays();
    void fragmentsAndPingsAreHandled();
    void closeCodesArriveAsSent_data();
    void closeCodesArriveAsSent();
    void protocolFaultsFail_data();
    void protocolFaultsFail();

    void controlMessagesAreParsed_data();
    void controlMessagesAreParsed();
    void bytesAreSplitIntoMessages();
    void relayUrlFollowsTheAddress();

    void endsPairAndCarryBytes();
    void controlMessagesEndOrNotice_data();
    void controlMessagesEndOrNotice();
    void serverClosesAreReported_data();
    void serverClosesAreReported();
    void aLargeWriteGoesOutInMessagesOf8192();
    void aTicketWithoutAnAddressStopsAtOnce();
    void thePairDeadlineEndsAWait_data();
    void thePairDeadlineEndsAWait();
    void aRefusedConnectionIsTheGateway();
    void pausedReadingHoldsTheSenderBack();
};

// ------------------------------------------------------------------ codec

void TestRelaySocket::handshakeSurvivesAnySplit()
{
    Pair reference;
    QVERIFY(reference.open());
    QCOMPARE(reference.server.requestTarget(), QByteArray("/ws/relay/v1?ticket=abc"));

    // The same handshake and a first message, fed one cut at a time.
    Codec client(Codec::Role::Client);
    Codec server(Codec::Role::Server);
    const QByteArray request = client.start(QStringLiteral("h"), "/x").write;
    Codec::Step accepted = server.feed(request);
    QCOMPARE(accepted.events.size(), 1);
    const QByteArray stream = accepted.write + server.binaryMessage("hello");
    for (qsizetype cut = 0; cut <= stream.size(); ++cut) {
        Codec fresh = client;
        Codec::Step first = fresh.feed(stream.left(cut));
        Codec::Step second = fresh.feed(stream.mid(cut));
        first.append(std::move(second));
        QCOMPARE(first.events.size(), 2);
        QCOMPARE(first.events.at(0).kind, Kind::Opened);
        QCOMPARE(first.events.at(1).kind, Kind::Binary);
        QCOMPARE(first.events.at(1).payload, QByteArray("hello"));
    }
}

void TestRelaySocket::messagesKeepTheirSizeBothWays_data()
{
    QTest::addColumn<qsizetype>("size");
    for (qsizetype size : {0, 1, 125, 126, 8192, 65535, 65536, 300000})
        QTest::addRow("%lld", qlonglong(size)) << size;
}

void TestRelaySocket::messagesKeepTheirSizeBothWays()
{
    QFETCH(qsizetype, size);
    Pair pair;
    QVERIFY(pair.open());
    const QByteArray payload = bytesOf(size);
    const QByteArray fromClient = pair.client.binaryMessage(payload);
    QVERIFY(quint8(fromClient.at(1)) & 0x80);  // a client masks
    pair.toServer(fromClient);
    const QByteArray fromServer = pair.server.binaryMessage(payload);
    QVERIFY(!(quint8(fromServer.at(1)) & 0x80));
    pair.toClient(fromServer);
    QCOMPARE(pair.serverEvents.last().kind, Kind::Binary);
    QCOMPARE(pair.serverEvents.last().payload, payload);
    QCOMPARE(pair.clientEvents.last().payload, payload);
}

void TestRelaySocket::fragmentsAndPingsAreHandled()
{
    Pair pair;
    QVERIFY(pair.open());
    // "ab" + ping + "cd" as a fragmented text message from the server.
    const QByteArray stream = QByteArray::fromHex("0102") + "ab" + QByteArray::fromHex("8901") + "p"
        + QByteArray::fromHex("8002") + "cd";
    Codec::Step step = pair.client.feed(stream);
    QCOMPARE(step.events.size(), 1);
    QCOMPARE(step.events.at(0).kind, Kind::Text);
    QCOMPARE(step.events.at(0).payload, QByteArray("abcd"));
    // The pong carries the ping's payload back, masked.
    QCOMPARE(quint8(step.write.at(0)), quint8(0x8A));
    QCOMPARE(quint8(step.write.at(1)), quint8(0x81));
}

void TestRelaySocket::closeCodesArriveAsSent_data()
{
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("reason");
    QTest::newRow("1013 with a reason") << 1013 << "busy";
    QTest::newRow("1000 without") << 1000 << QString();
    QTest::newRow("4001") << 4001 << QStringLiteral("é");
}

void TestRelaySocket::closeCodesArriveAsSent()
{
    QFETCH(int, code);
    QFETCH(QString, reason);
    Pair pair;
    QVERIFY(pair.open());
    pair.toClient(pair.server.close(code, reason));
    QCOMPARE(pair.clientEvents.last().kind, Kind::Closed);
    QCOMPARE(pair.clientEvents.last().closeCode, code);
    QCOMPARE(pair.clientEvents.last().text, reason);
    // The client answered, and the server heard the same code back.
    QCOMPARE(pair.serverEvents.last().kind, Kind::Closed);
    QCOMPARE(pair.serverEvents.last().closeCode, code);
    QCOMPARE(pair.client.state(), Codec::State::Closed);

    Codec client(Codec::Role::Client);
    QVERIFY(client.start(QStringLiteral("h"), "/").write.size() > 0);
}

void TestRelaySocket::protocolFaultsFail_data()
{
    QTest::addColumn<QByteArray>("frame");
    QTest::addColumn<int>("code");
    QTest::newRow("masked from a server") << QByteArray::fromHex("828100000000") + "x" << Codec::kProtocolError;
    QTest::newRow("reserved bit") << QByteArray::fromHex("c200") << Codec::kProtocolError;
    QTest::newRow("unknown opcode") << QByteArray::fromHex("8300") << Codec::kProtocolError;
    QTest::newRow("text not UTF-8") << QByteArray::fromHex("8102c328") << Codec::kInvalidPayload;
    QTest::newRow("continuation first") << QByteArray::fromHex("8001") + "x" << Codec::kProtocolError;
    QTest::newRow("huge length, nothing buffered") << QByteArray::fromHex("827f0000010000000000")
                                                  << Codec::kMessageTooBig;
    QTest::newRow("close code 1005 on the wire") << QByteArray::fromHex("880203ed") << Codec::kProtocolError;
}

void TestRelaySocket::protocolFaultsFail()
{
    QFETCH(QByteArray, frame);
    QFETCH(int, code);
    Pair pair;
    QVERIFY(pair.open());
    const Codec::Step step = pair.client.feed(frame);
    QCOMPARE(step.events.size(), 1);
    QCOMPARE(step.events.at(0).kind, Kind::Failed);
    QCOMPARE(step.events.at(0).closeCode, code);
    QVERIFY(!step.events.at(0).text.isEmpty());
    QCOMPARE(pair.client.state(), Codec::State::Closed);
    // Our close frame tells the server why.
    QCOMPARE(quint8(step.write.at(0)), quint8(0x88));

    // A server that does not switch protocols, or answers with a wrong key.
    Codec refused(Codec::Role::Client);
    refused.start(QStringLiteral("h"), "/");
    const Codec::Step notFound = refused.feed("HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n");
    QCOMPARE(notFound.events.at(0).kind, Kind::Failed);
    QVERIFY(notFound.events.at(0).text.contains(QLatin1String("404 Not Found")));
    Codec forged(Codec::Role::Client);
    forged.start(QStringLiteral("h"), "/");
    const Codec::Step wrongKey = forged.feed("HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\n"
                                             "Connection: Upgrade\r\nSec-WebSocket-Accept: AAAA\r\n\r\n");
    QCOMPARE(wrongKey.events.at(0).kind, Kind::Failed);
}

// ------------------------------------------------------------ pure pieces

void TestRelaySocket::controlMessagesAreParsed_data()
{
    using Stop = RelaySocket::Stop;
    using CK = RelaySocket::Control::Kind;
    QTest::addColumn<QByteArray>("message");
    QTest::addColumn<int>("kind");
    QTest::addColumn<int>("stop");
    QTest::addColumn<QString>("text");
    QTest::newRow("ready") << QByteArray(R"({"type":"ready","relay_id":"r1","port_key":"p3"})") << int(CK::Ready)
                           << 0 << QString();
    QTest::newRow("rate limited") << QByteArray(R"({"type":"rate_limited","limit_bytes_per_sec":20000})")
                                  << int(CK::Notice) << 0
                                  << "The relay is rate limited to 20000 bytes per second.";
    QTest::newRow("refused: not allowed") << QByteArray(R"({"type":"peer_refused","reason":"permission_denied"})")
                                          << int(CK::Stopped) << int(Stop::PeerAbsent)
                                          << "The remote computer does not allow Live Relay on that port.";
    QTest::newRow("refused: busy") << QByteArray(R"({"type":"peer_refused","reason":"relay_busy"})")
                                   << int(CK::Stopped) << int(Stop::PeerAbsent)
                                   << "The remote port already has a relay session.";
    QTest::newRow("refused: session") << QByteArray(R"({"type":"peer_refused","reason":"session_mismatch"})")
                                      << int(CK::Stopped) << int(Stop::PeerAbsent)
                                      << "The remote computer's ports changed. Choose the port again.";
    QTest::newRow("refused: port") << QByteArray(R"({"type":"peer_refused","reason":"port_not_found"})")
                                   << int(CK::Stopped) << int(Stop::PeerAbsent)
                                   << "The remote computer's ports changed. Choose the port again.";
    QTest::newRow("refused: other") << QByteArray(R"({"type":"peer_refused","reason":"internal_error"})")
                                    << int(CK::Stopped) << int(Stop::PeerAbsent)
                                    << "The remote computer declined the relay (internal_error).";
    QTest::newRow("refused: none") << QByteArray(R"({"type":"peer_refused"})") << int(CK::Stopped)
                                   << int(Stop::PeerAbsent) << "The remote computer declined the relay.";
    QTest::newRow("peer gone") << QByteArray(R"({"type":"peer_gone"})") << int(CK::Stopped) << int(Stop::PeerGone)
                               << "The remote end disconnected.";
    QTest::newRow("quota") << QByteArray(R"({"type":"quota_exhausted"})") << int(CK::Stopped)
                           << int(Stop::QuotaExhausted) << "The monthly cloud traffic quota is exhausted.";
    QTest::newRow("closing") << QByteArray(R"({"type":"closing"})") << int(CK::Stopped) << int(Stop::Closing)
                             << "The server closed the relay.";
    QTest::newRow("unknown type") << QByteArray(R"({"type":"hello"})") << int(CK::Ignored) << 0 << QString();
    QTest::newRow("not JSON") << QByteArray("ready") << int(CK::Ignored) << 0 << QString();
}

void TestRelaySocket::controlMessagesAreParsed()
{
    QFETCH(QByteArray, message);
    QFETCH(int, kind);
    QFETCH(int, stop);
    QFETCH(QString, text);
    const RelaySocket::Control control = RelaySocket::parseControl(message);
    QCOMPARE(int(control.kind), kind);
    QCOMPARE(control.text, text);
    if (control.kind == RelaySocket::Control::Kind::Stopped)
        QCOMPARE(int(control.stop), stop);
    if (control.kind == RelaySocket::Control::Kind::Ready) {
        QCOMPARE(control.relayId, QStringLiteral("r1"));
        QCOMPARE(control.portKey, QStringLiteral("p3"));
    }
}

void TestRelaySocket::bytesAreSplitIntoMessages()
{
    const QByteArray bytes = bytesOf(20000);
    const QList<QByteArray> parts = RelaySocket::split(bytes);
    QCOMPARE(parts.size(), 3);
    QCOMPARE(parts.at(0).size(), 8192);
    QCOMPARE(parts.at(1).size(), 8192);
    QCOMPARE(parts.at(2).size(), 3616);
    QCOMPARE(parts.join(), bytes);
    QCOMPARE(RelaySocket::split(bytesOf(8192)).size(), 1);
    QVERIFY(RelaySocket::split({}).isEmpty());
}

void TestRelaySocket::relayUrlFollowsTheAddress()
{
    QCOMPARE(RelaySocket::relayUrl(QStringLiteral("https://cloud.example"), QStringLiteral("a b+c")).toString(
                 QUrl::FullyEncoded),
             QStringLiteral("wss://cloud.example/ws/relay/v1?ticket=a%20b%2Bc"));
    QCOMPARE(RelaySocket::relayUrl(QStringLiteral("http://127.0.0.1:8437"), QStringLiteral("t")).toString(),
             QStringLiteral("ws://127.0.0.1:8437/ws/relay/v1?ticket=t"));
}

// ---------------------------------------------------- against the stand-in

void TestRelaySocket::endsPairAndCarryBytes()
{
    RelayPeer peer;
    QVERIFY(peer.listen());
    const auto [hostTicket, clientTicket] = peer.openRelay(QStringLiteral("r1"), QStringLiteral("p7"));
    RelaySocket host;
    RelaySocket client;
    QSignalSpy hostPaired(&host, &RelaySocket::paired);
    QSignalSpy clientPaired(&client, &RelaySocket::paired);
    QSignalSpy atHost(&host, &RelaySocket::binaryReceived);
    QSignalSpy atClient(&client, &RelaySocket::binaryReceived);
    QCOMPARE(client.send("early"), qint64(-1));  // nothing before pairing
    host.open(peer.address(), hostTicket);
    client.open(peer.address(), clientTicket);
    QTRY_COMPARE_WITH_TIMEOUT(clientPaired.size(), 1, 5000);
    QTRY_COMPARE_WITH_TIMEOUT(hostPaired.size(), 1, 5000);
    QCOMPARE(clientPaired.at(0).at(0).toString(), QStringLiteral("r1"));
    QCOMPARE(clientPaired.at(0).at(1).toString(), QStringLiteral("p7"));
    QVERIFY(client.isPaired() && client.isConnected());
    QCOMPARE(peer.lastTarget(), QStringLiteral("/ws/relay/v1?ticket=") + clientTicket);

    QCOMPARE(client.send("to the host"), qint64(11));
    QCOMPARE(host.send("to the client"), qint64(13));
    QTRY_COMPARE_WITH_TIMEOUT(atHost.size(), 1, 5000);
    QTRY_COMPARE_WITH_TIMEOUT(atClient.size(), 1, 5000);
    QCOMPARE(atHost.at(0).at(0).toByteArray(), QByteArray("to the host"));
    QCOMPARE(atClient.at(0).at(0).toByteArray(), QByteArray("to the client"));

    // Closing one end reports nothing there; the other end hears it once.
    QSignalSpy hostStopped(&host, &RelaySocket::stopped);
    QSignalSpy clientStopped(&client, &RelaySocket::stopped);
    client.close();
    QTRY_COMPARE_WITH_TIMEOUT(hostStopped.size(), 1, 5000);
    QCOMPARE(hostStopped.at(0).at(0).value<RelaySocket::Stop>(), RelaySocket::Stop::PeerGone);
    QCOMPARE(hostStopped.at(0).at(1).toString(), QStringLiteral("The remote end disconnected."));
    QTest::qWait(100);
    QCOMPARE(hostStopped.size(), 1);
    QCOMPARE(clientStopped.size(), 0);
}

void TestRelaySocket::controlMessagesEndOrNotice_data()
{
    QTest::addColumn<QByteArray>("message");
    QTest::addColumn<bool>("stops");
    QTest::addColumn<QString>("text");
    QTest::newRow("relay busy") << QByteArray(R"({"type":"peer_refused","reason":"relay_busy"})") << true
                                << "The remote port already has a relay session.";
    QTest::newRow("quota") << QByteArray(R"({"type":"quota_exhausted"})") << true
                           << "The monthly cloud traffic quota is exhausted.";
    QTest::newRow("closing") << QByteArray(R"({"type":"closing"})") << true << "The server closed the relay.";
    QTest::newRow("rate limited") << QByteArray(R"({"type":"rate_limited","limit_bytes_per_sec":1000})") << false
                                  << "The relay is rate limited to 1000 bytes per second.";
}

void TestRelaySocket::controlMessagesEndOrNotice()
{
    QFETCH(QByteArray, message);
    QFETCH(bool, stops);
    QFETCH(QString, text);
    RelayPeer peer;
    QVERIFY(peer.listen());
    peer.addTicket(QStringLiteral("t"), {QStringLiteral("r2"), QStringLiteral("client"), QStringLiteral("p1"), 0, {},
                                         true});
    RelaySocket socket;
    QSignalSpy stopped(&socket, &RelaySocket::stopped);
    QSignalSpy noticed(&socket, &RelaySocket::noticed);
    socket.open(peer.address(), QStringLiteral("t"));
    QTRY_VERIFY_WITH_TIMEOUT(socket.isConnected(), 5000);
    peer.sendText(QStringLiteral("r2"), QStringLiteral("client"), message);
    if (stops) {
        QTRY_COMPARE_WITH_TIMEOUT(stopped.size(), 1, 5000);
        QCOMPARE(stopped.at(0).at(1).toString(), text);
        QTest::qWait(50);  // the connection's end adds nothing
        QCOMPARE(stopped.size(), 1);
    } else {
        QTRY_COMPARE_WITH_TIMEOUT(noticed.size(), 1, 5000);
        QCOMPARE(noticed.at(0).at(0).toString(), text);
        QVERIFY(stopped.isEmpty());
    }
}

void TestRelaySocket::serverClosesAreReported_data()
{
    using Stop = RelaySocket::Stop;
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("reason");
    QTest::addColumn<int>("stop");
    QTest::addColumn<QString>("detail");
    QTest::newRow("1013 rejected") << 1013 << "That end of the relay is already connected." << int(Stop::Rejected)
                                   << "That end of the relay is already connected.";
    QTest::newRow("1000 without a reason") << 1000 << QString() << int(Stop::Transport)
                                           << "The relay connection was closed (code 1000).";
    QTest::newRow("1008 with a reason") << 1008 << "The relay ticket is not valid or has expired."
                                        << int(Stop::Transport) << "The relay ticket is not valid or has expired.";
}

void TestRelaySocket::serverClosesAreReported()
{
    QFETCH(int, code);
    QFETCH(QString, reason);
    QFETCH(int, stop);
    QFETCH(QString, detail);
    RelayPeer peer;
    QVERIFY(peer.listen());
    peer.addTicket(QStringLiteral("t"), {QStringLiteral("r"), QStringLiteral("client"), {}, code, reason});
    RelaySocket socket;
    QSignalSpy stopped(&socket, &RelaySocket::stopped);
    socket.open(peer.address(), QStringLiteral("t"));
    QTRY_COMPARE_WITH_TIMEOUT(stopped.size(), 1, 5000);
    QCOMPARE(int(stopped.at(0).at(0).value<RelaySocket::Stop>()), stop);
    QCOMPARE(stopped.at(0).at(1).toString(), detail);

    // A ticket used twice: the second use is refused by the service.
    RelaySocket again;
    QSignalSpy againStopped(&again, &RelaySocket::stopped);
    again.open(peer.address(), QStringLiteral("t"));
    QTRY_COMPARE_WITH_TIMEOUT(againStopped.size(), 1, 5000);
    QCOMPARE(againStopped.at(0).at(1).toString(), QStringLiteral("The relay ticket is not valid or has expired."));

    // A connection that simply drops is the gateway's fault.
    const auto [hostTicket, clientTicket] = peer.openRelay(QStringLiteral("d"), QStringLiteral("p"));
    Q_UNUSED(hostTicket);
    RelaySocket dropped;
    QSignalSpy droppedStopped(&dropped, &RelaySocket::stopped);
    dropped.open(peer.address(), clientTicket);
    QTRY_VERIFY_WITH_TIMEOUT(dropped.isConnected(), 5000);
    QTRY_VERIFY_WITH_TIMEOUT(peer.messageSizes(QStringLiteral("d"), QStringLiteral("client")).isEmpty(), 100);
    peer.dropEnd(QStringLiteral("d"), QStringLiteral("client"));
    QTRY_COMPARE_WITH_TIMEOUT(droppedStopped.size(), 1, 5000);
    QCOMPARE(droppedStopped.at(0).at(0).value<RelaySocket::Stop>(), RelaySocket::Stop::Transport);
    QVERIFY(droppedStopped.at(0).at(1).toString().startsWith(QLatin1String("The relay gateway could not be reached")));
}

void TestRelaySocket::aLargeWriteGoesOutInMessagesOf8192()
{
    RelayPeer peer;
    QVERIFY(peer.listen());
    const auto [hostTicket, clientTicket] = peer.openRelay(QStringLiteral("r3"), QStringLiteral("p"));
    RelaySocket host;
    RelaySocket client;
    QSignalSpy atHost(&host, &RelaySocket::binaryReceived);
    host.open(peer.address(), hostTicket);
    client.open(peer.address(), clientTicket);
    QTRY_VERIFY_WITH_TIMEOUT(client.isPaired() && host.isPaired(), 5000);
    const QByteArray bytes = bytesOf(20000);
    QCOMPARE(client.send(bytes), qint64(20000));
    QTRY_COMPARE_WITH_TIMEOUT(atHost.size(), 3, 5000);
    QCOMPARE(peer.messageSizes(QStringLiteral("r3"), QStringLiteral("client")), (QList<qsizetype>{8192, 8192, 3616}));
    QByteArray joined;
    for (const QList<QVariant> &args : std::as_const(atHost))
        joined += args.at(0).toByteArray();
    QCOMPARE(joined, bytes);
}

void TestRelaySocket::aTicketWithoutAnAddressStopsAtOnce()
{
    RelaySocket socket;
    QSignalSpy stopped(&socket, &RelaySocket::stopped);
    socket.open(QString(), QStringLiteral("ticket"));
    QCOMPARE(stopped.size(), 1);
    QCOMPARE(stopped.at(0).at(0).value<RelaySocket::Stop>(), RelaySocket::Stop::Transport);
    QCOMPARE(stopped.at(0).at(1).toString(), QStringLiteral("Missing relay address or ticket."));
    socket.open(QStringLiteral("http://127.0.0.1:1"), QStringLiteral("ticket"));  // stopped: stays so
    QCOMPARE(stopped.size(), 1);

    RelaySocket noTicket;
    QSignalSpy noTicketStopped(&noTicket, &RelaySocket::stopped);
    noTicket.open(QStringLiteral("http://127.0.0.1:1"), QString());
    QCOMPARE(noTicketStopped.size(), 1);
}

void TestRelaySocket::thePairDeadlineEndsAWait_data()
{
    QTest::addColumn<bool>("handshakeAnswered");
    QTest::addColumn<int>("stop");
    QTest::addColumn<QString>("detail");
    QTest::newRow("connected, nobody joins")
        << true << int(RelaySocket::Stop::PeerAbsent)
        << "The remote computer did not join the relay. Check that it is online and that Live Relay is allowed on "
           "that port.";
    QTest::newRow("never connected") << false << int(RelaySocket::Stop::Transport)
                                     << "The relay gateway could not be reached.";
}

void TestRelaySocket::thePairDeadlineEndsAWait()
{
    QFETCH(bool, handshakeAnswered);
    QFETCH(int, stop);
    QFETCH(QString, detail);
    RelayPeer peer;
    QVERIFY(peer.listen());
    peer.addTicket(QStringLiteral("t"), {QStringLiteral("r"), QStringLiteral("client"), {}, 0, {}, true});
    // A server that takes the connection and never answers the handshake.
    QTcpServer silent;
    QVERIFY(silent.listen(QHostAddress::LocalHost));
    const QString address = handshakeAnswered ? peer.address()
                                              : QStringLiteral("http://127.0.0.1:%1").arg(silent.serverPort());
    RelaySocket socket;
    socket.setPairDeadline(300);
    QSignalSpy stopped(&socket, &RelaySocket::stopped);
    socket.open(address, QStringLiteral("t"));
    QTRY_COMPARE_WITH_TIMEOUT(stopped.size(), 1, 5000);
    QCOMPARE(int(stopped.at(0).at(0).value<RelaySocket::Stop>()), stop);
    QCOMPARE(stopped.at(0).at(1).toString(), detail);
}

void TestRelaySocket::aRefusedConnectionIsTheGateway()
{
    const RefusingPort refusing;
    const quint16 port = refusing.port();
    QVERIFY(port != 0);
    RelaySocket socket;
    QSignalSpy stopped(&socket, &RelaySocket::stopped);
    socket.open(QStringLiteral("http://127.0.0.1:%1").arg(port), QStringLiteral("t"));
    QTRY_COMPARE_WITH_TIMEOUT(stopped.size(), 1, 5000);
    QCOMPARE(stopped.at(0).at(0).value<RelaySocket::Stop>(), RelaySocket::Stop::Transport);
    QVERIFY2(stopped.at(0).at(1).toString().startsWith(QLatin1String("The relay gateway could not be reached: ")),
             qPrintable(stopped.at(0).at(1).toString()));
}

void TestRelaySocket::pausedReadingHoldsTheSenderBack()
{
    RelayPeer peer;
    QVERIFY(peer.listen());
    const auto [hostTicket, clientTicket] = peer.openRelay(QStringLiteral("r4"), QStringLiteral("p"));
    RelaySocket host;
    RelaySocket client;
    host.open(peer.address(), hostTicket);
    client.open(peer.address(), clientTicket);
    QTRY_VERIFY_WITH_TIMEOUT(client.isPaired() && host.isPaired(), 5000);

    QByteArray received;
    connect(&host, &RelaySocket::binaryReceived, this, [&](const QByteArray &bytes) { received += bytes; });
    host.setReadPaused(true);
    const QByteArray bytes = bytesOf(16 * 1024 * 1024);
    qint64 offered = 0;
    QElapsedTimer clock;
    clock.start();
    // The client offers only while its own socket takes it, like a pane does.
    while (clock.elapsed() < 3000 && !peer.isReadingPaused(QStringLiteral("r4"), QStringLiteral("client"))) {
        if (client.bytesToWrite() < 1024 * 1024 && offered < bytes.size()) {
            client.send(bytes.mid(offered, 65536));
            offered += 65536;
        }
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    }
    QVERIFY2(peer.isReadingPaused(QStringLiteral("r4"), QStringLiteral("client")), "the service never held back");
    QCOMPARE(received.size(), 0);
    QVERIFY(peer.peakBacklog() < 2 * 1024 * 1024);

    host.setReadPaused(false);
    while (clock.elapsed() < 20000 && received.size() < bytes.size()) {
        if (client.bytesToWrite() < 1024 * 1024 && offered < bytes.size()) {
            client.send(bytes.mid(offered, 65536));
            offered += 65536;
        }
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    }
    QCOMPARE(received.size(), bytes.size());
    QVERIFY(received == bytes);
}

QTEST_MAIN(TestRelaySocket)
#include "tst_relaysocket.moc"
