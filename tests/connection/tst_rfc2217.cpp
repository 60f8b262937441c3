// The Telnet codec and the remote serial port client, fed bytes and time:
// every input is also fed split at every position and byte by byte, and the
// two roles of the codec talk to each other.
#include "support/fuzzseeds.h"
#include "connection/rfc2217clientsession.h"
#include "connection/telnetcodec.h"
#include "telnetfuzztarget.h"

#include <QtTest>

using Role = TelnetCodec::Role;
using Kind = TelnetCodec::Event::Kind;
using Session = Rfc2217ClientSession;
using SKind = Session::Event::Kind;
using Negotiation = Session::Negotiation;

Q_DECLARE_METATYPE(TelnetCodec::Role)
Q_DECLARE_METATYPE(Rfc2217ClientSession::Negotiation)
Q_DECLARE_METATYPE(Rfc2217ClientSession::SerialParameters)

namespace {

QByteArray hex(const char *text)
{
    return QByteArray::fromHex(text);
}

const QByteArray kClientOffer = hex("fffb2c fffb00 fffd00 fffb03 fffd03");
const QByteArray kServerOffer = hex("fffd2c fffb00 fffd00 fffb03 fffd03");
// What ser2net sends on connect when it serves a port with serial control,
// then its first modem-state notice.
const QByteArray kSer2netOpening = hex("fffb03 fffd03 fffb01 fffe01 fffd00 fffb00 fffd2c fffa2c6b00fff0");
// The same ser2net without serial control: it refuses the option.
const QByteArray kSer2netPlainOpening = hex("fffb03 fffd03 fffb01 fffe01 fffd00 fffb00 fffe2c");

const QString kAgreedNotice = QStringLiteral("The remote port accepted serial parameter control.");
const QString kPlainNotice = QStringLiteral("The remote does not support serial parameter control; continuing as plain Telnet.");
const QString kTransparentNotice = QStringLiteral(
    "The remote is not an RFC 2217 server; continuing as transparent TCP. The handshake bytes may have reached the remote serial line.");

QString describe(const TelnetCodec::Event &event)
{
    static const char *const names[] = {"Data", "OptionAgreed", "OptionRefused", "Signature", "BaudRate",
                                        "DataSize", "Parity", "StopSize", "FlowControl", "Break", "Dtr", "Rts",
                                        "LineState", "ModemState", "ModemStateMask", "PurgeData", "Question",
                                        "InvalidValue", "LineStateMask", "FlowSuspend", "FlowResume"};
    const QString name = QString::fromLatin1(names[int(event.kind)]);
    switch (event.kind) {
    case Kind::Data:
    case Kind::Signature:
        return name + u' ' + QString::fromLatin1(event.bytes.toHex());
    case Kind::OptionAgreed:
    case Kind::OptionRefused:
        return name;
    case Kind::InvalidValue:
        return QStringLiteral("%1 %2 %3").arg(name).arg(int(event.command)).arg(QString::fromLatin1(event.bytes.toHex()));
    case Kind::Question:
        return QStringLiteral("%1 %2 %3").arg(name).arg(int(event.command)).arg(event.value);
    default:
        return QStringLiteral("%1 %2").arg(name).arg(event.value);
    }
}

// Payload split over several feeds comes back in several events; joined, it
// must read the same as unsplit.
QStringList describe(const QList<TelnetCodec::Event> &events)
{
    QStringList out;
    QByteArray data;
    for (const TelnetCodec::Event &event : events) {
        if (event.kind == Kind::Data) {
            data += event.bytes;
            continue;
        }
        if (!data.isEmpty())
            out << describe(TelnetCodec::Event{Kind::Data, {}, 0, data});
        data.clear();
        out << describe(event);
    }
    if (!data.isEmpty())
        out << describe(TelnetCodec::Event{Kind::Data, {}, 0, data});
    return out;
}

// Every way of cutting the input: unsplit, in two at each position, and one
// byte at a time.
QList<QList<QByteArray>> cuts(const QByteArray &input)
{
    QList<QList<QByteArray>> out;
    for (qsizetype at = 0; at <= input.size(); ++at)
        out.append({input.left(at), input.mid(at)});
    QList<QByteArray> bytes;
    for (char byte : input)
        bytes.append(QByteArray(1, byte));
    out.append(bytes);
    return out;
}

TelnetCodec::Step feedAll(TelnetCodec &codec, const QList<QByteArray> &parts)
{
    TelnetCodec::Step all;
    for (const QByteArray &part : parts)
        all.append(codec.feed(part));
    return all;
}

// A session's events with the payload of separate feeds joined.
QList<Session::Event> joined(const QList<Session::Event> &events)
{
    QList<Session::Event> out;
    for (const Session::Event &event : events) {
        if (event.kind == SKind::Payload && !out.isEmpty() && out.last().kind == SKind::Payload)
            out.last().bytes += event.bytes;
        else
            out.append(event);
    }
    return out;
}

QList<Session::Event> ofKind(const QList<Session::Event> &events, SKind kind)
{
    QList<Session::Event> out;
    for (const Session::Event &event : events)
        if (event.kind == kind)
            out.append(event);
    return out;
}

QByteArray payloadOf(const QList<Session::Event> &events)
{
    QByteArray out;
    for (const Session::Event &event : events)
        if (event.kind == SKind::Payload)
            out += event.bytes;
    return out;
}

QByteArray allBytes()
{
    QByteArray out(256, Qt::Uninitialized);
    for (int i = 0; i < 256; ++i)
        out[i] = char(i);
    return out;
}

Session::SerialParameters parameters(qint32 baud, QSerialPort::DataBits bits = QSerialPort::Data8,
                                     QSerialPort::Parity parity = QSerialPort::NoParity,
                                     QSerialPort::StopBits stop = QSerialPort::OneStop,
                                     QSerialPort::FlowControl flow = QSerialPort::NoFlowControl)
{
    return Session::SerialParameters{baud, bits, parity, stop, flow};
}

// A session that has agreed with the remote (which confirmed nothing yet).
Session agreedSession(const Session::SerialParameters &p = {}, bool useRemote = false)
{
    Session session(p, useRemote);
    session.start(0);
    session.feed(hex("fffd2c"), 5);
    return session;
}

// ser2net's replies confirming the given parameters.
QByteArray confirmations(const Session::SerialParameters &p)
{
    TelnetCodec server(Role::Server);
    return server.baudRateCommand(quint32(p.baudRate))
           + server.subcommand(TelnetCodec::Command::SetDataSize, TelnetCodec::dataSizeToWire(p.dataBits))
           + server.subcommand(TelnetCodec::Command::SetParity, TelnetCodec::parityToWire(p.parity))
           + server.subcommand(TelnetCodec::Command::SetStopSize, TelnetCodec::stopSizeToWire(p.stopBits))
           + server.controlCommand(TelnetCodec::flowControlToWire(p.flowControl));
}

} // namespace

class Rfc2217Test : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void offersAreExact_data()
    {
        QTest::addColumn<Role>("role");
        QTest::addColumn<QByteArray>("offer");
        QTest::newRow("client") << Role::Client << kClientOffer;
        QTest::newRow("server") << Role::Server << kServerOffer;
    }
    void offersAreExact()
    {
        QFETCH(Role, role);
        QFETCH(QByteArray, offer);
        TelnetCodec codec(role);
        const TelnetCodec::Step step = codec.start();
        QCOMPARE(step.write.toHex(' '), offer.toHex(' '));
        QVERIFY(step.events.isEmpty());
    }

    void receiverSplitAnywhere_data()
    {
        QTest::addColumn<Role>("role");
        QTest::addColumn<QByteArray>("input");
        QTest::addColumn<QStringList>("events");
        QTest::addColumn<QByteArray>("answers");

        const auto c = Role::Client;
        const auto s = Role::Server;
        QTest::newRow("plain data") << c << QByteArray("abc") << QStringList{"Data 616263"} << QByteArray();
        QTest::newRow("IAC IAC is one 0xFF") << c << hex("61ffff62") << QStringList{"Data 61ff62"} << QByteArray();
        QTest::newRow("other commands are dropped") << c << hex("61fff1fff062") << QStringList{"Data 6162"} << QByteArray();
        QTest::newRow("data around an agreement") << c << hex("61fffd2c62")
                                                  << QStringList{"Data 61", "OptionAgreed", "Data 62"} << QByteArray();
        QTest::newRow("ser2net's opening") << c << kSer2netOpening
                                           << QStringList{"OptionAgreed", "ModemState 0"} << hex("fffe01");
        QTest::newRow("WILL 44 is agreement, answered once") << c << hex("fffb2c fffb2c")
                                                             << QStringList{"OptionAgreed"} << hex("fffd2c");
        QTest::newRow("DONT 44 refuses a client") << c << hex("fffe2c") << QStringList{"OptionRefused"} << QByteArray();
        QTest::newRow("DONT 44 does not refuse a server") << s << hex("fffe2c") << QStringList{} << QByteArray();
        QTest::newRow("WONT 44 refuses a server") << s << hex("fffc2c") << QStringList{"OptionRefused"} << QByteArray();
        QTest::newRow("server's offer already asked for 44") << s << hex("fffb2c") << QStringList{"OptionAgreed"} << QByteArray();
        QTest::newRow("server answers DO 44 once") << s << hex("fffd2c fffd2c") << QStringList{"OptionAgreed"} << hex("fffb2c");
        QTest::newRow("unknown options refused once")
            << c << hex("fffb18 fffd18 fffb18 fffd18 fffc18 fffe18") << QStringList{} << hex("fffe18 fffc18");
        QTest::newRow("echo refused once") << c << hex("fffb01 fffd01 fffb01") << QStringList{} << hex("fffe01 fffc01");
        QTest::newRow("refusals need no answer") << c << hex("fffc05 fffe05") << QStringList{} << QByteArray();

        QTest::newRow("baud 115200") << c << hex("fffa2c6500 01c200 fff0") << QStringList{"BaudRate 115200"} << QByteArray();
        QTest::newRow("baud with doubled 0xFF") << c << hex("fffa2c65 00ffffffff00 fff0")
                                                << QStringList{"BaudRate 16776960"} << QByteArray();
        QTest::newRow("baud code without offset") << c << hex("fffa2c01 00002580 fff0") << QStringList{"BaudRate 9600"}
                                                  << QByteArray();
        QTest::newRow("baud too short") << c << hex("fffa2c65 01c200 fff0") << QStringList{"InvalidValue 1 01c200"}
                                        << QByteArray();
        QTest::newRow("baud zero in a reply") << c << hex("fffa2c65 00000000 fff0")
                                              << QStringList{"InvalidValue 1 00000000"} << QByteArray();
        QTest::newRow("baud zero asks a server") << s << hex("fffa2c01 00000000 fff0") << QStringList{"Question 1 0"}
                                                 << QByteArray();
        QTest::newRow("baud above 31 bits") << c << hex("fffa2c65 80000000 fff0")
                                            << QStringList{"InvalidValue 1 80000000"} << QByteArray();
        QTest::newRow("data sizes") << c << hex("fffa2c6605fff0 fffa2c6608fff0 fffa2c6604fff0 fffa2c6609fff0 fffa2c6600fff0")
                                    << QStringList{"DataSize 5", "DataSize 8", "InvalidValue 2 04", "InvalidValue 2 09",
                                                   "InvalidValue 2 00"}
                                    << QByteArray();
        QTest::newRow("parity map") << c
                                    << hex("fffa2c6701fff0 fffa2c6702fff0 fffa2c6703fff0 fffa2c6704fff0 fffa2c6705fff0 "
                                           "fffa2c6706fff0 fffa2c6700fff0")
                                    << QStringList{QStringLiteral("Parity %1").arg(QSerialPort::NoParity),
                                                   QStringLiteral("Parity %1").arg(QSerialPort::OddParity),
                                                   QStringLiteral("Parity %1").arg(QSerialPort::EvenParity),
                                                   QStringLiteral("Parity %1").arg(QSerialPort::MarkParity),
                                                   QStringLiteral("Parity %1").arg(QSerialPort::SpaceParity),
                                                   "InvalidValue 3 06", "InvalidValue 3 00"}
                                    << QByteArray();
        QTest::newRow("stop sizes") << c << hex("fffa2c6801fff0 fffa2c6802fff0 fffa2c6803fff0 fffa2c6804fff0")
                                    << QStringList{QStringLiteral("StopSize %1").arg(QSerialPort::OneStop),
                                                   QStringLiteral("StopSize %1").arg(QSerialPort::TwoStop),
                                                   QStringLiteral("StopSize %1").arg(QSerialPort::OneAndHalfStop),
                                                   "InvalidValue 4 04"}
                                    << QByteArray();
        QTest::newRow("control replies") << c
                                         << hex("fffa2c6901fff0 fffa2c6902fff0 fffa2c6903fff0 fffa2c6905fff0 fffa2c6906fff0 "
                                                "fffa2c6908fff0 fffa2c6909fff0 fffa2c690bfff0 fffa2c690cfff0 fffa2c690dfff0")
                                         << QStringList{QStringLiteral("FlowControl %1").arg(QSerialPort::NoFlowControl),
                                                        QStringLiteral("FlowControl %1").arg(QSerialPort::SoftwareControl),
                                                        QStringLiteral("FlowControl %1").arg(QSerialPort::HardwareControl),
                                                        "Break 1", "Break 0", "Dtr 1", "Dtr 0", "Rts 1", "Rts 0"}
                                         << QByteArray();
        QTest::newRow("control questions are invalid replies")
            << c << hex("fffa2c6900fff0 fffa2c6904fff0 fffa2c6907fff0 fffa2c690afff0")
            << QStringList{"InvalidValue 5 00", "InvalidValue 5 04", "InvalidValue 5 07", "InvalidValue 5 0a"} << QByteArray();
        QTest::newRow("control questions reach a server")
            << s << hex("fffa2c0500fff0 fffa2c0504fff0 fffa2c0507fff0 fffa2c050afff0")
            << QStringList{"Question 5 0", "Question 5 4", "Question 5 7", "Question 5 10"} << QByteArray();
        QTest::newRow("states and mask") << c << hex("fffa2c6a12fff0 fffa2c6bb0fff0 fffa2c6ff0fff0")
                                         << QStringList{"LineState 18", "ModemState 176", "ModemStateMask 240"} << QByteArray();
        QTest::newRow("purge is for servers") << c << hex("fffa2c7003fff0") << QStringList{} << QByteArray();
        QTest::newRow("purge reaches a server") << s << hex("fffa2c0c03fff0") << QStringList{"PurgeData 3"} << QByteArray();
        QTest::newRow("signature") << c << hex("fffa2c64") + "ser2net" + hex("fff0") << QStringList{"Signature 736572326e6574"}
                                   << QByteArray();
        QTest::newRow("empty value") << c << hex("fffa2c66fff0") << QStringList{"InvalidValue 2 "} << QByteArray();
        QTest::newRow("codes we do not speak") << c << hex("fffa2c7101fff0 fffa2c0d0ffff0") << QStringList{} << QByteArray();
        QTest::newRow("flow control and line mask") << c << hex("fffa2c08fff0 fffa2c6dfff0 fffa2c0a0ffff0")
                                                    << QStringList{"FlowSuspend 0", "FlowResume 0", "LineStateMask 15"}
                                                    << QByteArray();
        QTest::newRow("other options' subnegotiation") << c << hex("fffa1800 41fff0 42") << QStringList{"Data 42"}
                                                       << QByteArray();
        QTest::newRow("too short") << c << hex("fffa2cfff0 43") << QStringList{"Data 43"} << QByteArray();
        QTest::newRow("abandoned subnegotiation") << c << hex("fffa2c6500ff41 62") << QStringList{"Data 62"} << QByteArray();
        QTest::newRow("overlong subnegotiation dropped")
            << c << hex("fffa2c64") + QByteArray(TelnetCodec::kMaxSubnegotiation + 100, 'x') + hex("fff0 7a")
            << QStringList{"Data 7a"} << QByteArray();
    }
    void receiverSplitAnywhere()
    {
        QFETCH(Role, role);
        QFETCH(QByteArray, input);
        QFETCH(QStringList, events);
        QFETCH(QByteArray, answers);
        // The dropped overlong subnegotiation is logged once per cut.
        QLoggingCategory::setFilterRules(QStringLiteral("tsl.core.warning=false"));
        auto restoreLogging = qScopeGuard([] { QLoggingCategory::setFilterRules(QString()); });
        for (const QList<QByteArray> &parts : cuts(input)) {
            TelnetCodec codec(role);
            codec.start();
            const TelnetCodec::Step step = feedAll(codec, parts);
            QCOMPARE(describe(step.events), events);
            QCOMPARE(step.write.toHex(' '), answers.toHex(' '));
            QVERIFY(!step.wantsWake());
        }
    }

    void randomCommandSoupNeverDerailsTheReceiver()
    {
        // Random runs rich in command bytes, cut short anywhere. Whatever
        // state they leave behind, 00 IAC SE brings the receiver back to
        // data; answers stay within once per option and direction; a session
        // decides at most once.
        static const char alphabet[] = {char(0xff), char(0xff), char(0xfa), char(0xf0), char(0xfb), char(0xfc),
                                        char(0xfd), char(0xfe), char(0x2c), char(0x2c), 0x00, 0x01, 0x03,
                                        0x05, 0x65, 0x69, 'a'};
        QRandomGenerator random(2217);
        for (int round = 0; round < 3000; ++round) {
            QByteArray input(random.bounded(1, 120), Qt::Uninitialized);
            for (char &byte : input)
                byte = alphabet[random.bounded(int(sizeof alphabet))];
            for (Role role : {Role::Client, Role::Server}) {
                TelnetCodec codec(role);
                TelnetCodec::Step step = codec.start();
                step.write.clear();
                step.append(codec.feed(input));
                step.append(codec.feed(hex("00fff07a")));
                QVERIFY(!step.events.isEmpty());
                QCOMPARE(step.events.last().kind, Kind::Data);
                QVERIFY2(step.events.last().bytes.endsWith('z'), input.toHex(' ').constData());
                QVERIFY(step.write.size() <= 2 * 256 * 3);
            }
            Session session({}, round % 2);
            Session::Step all = session.start(0);
            all.append(session.feed(input.left(input.size() / 2), 1));
            all.append(session.feed(input.mid(input.size() / 2), 2));
            all.append(session.tick(Session::kDecisionWaitMs));
            all.append(session.feed(input, 400));
            QCOMPARE(ofKind(all.events, SKind::ModeDecided).size(), 1);
        }
    }

    void plainDataIsNotCopied()
    {
        TelnetCodec codec(Role::Client);
        codec.start();
        const QByteArray data("no command byte here");
        const TelnetCodec::Step step = codec.feed(data);
        QCOMPARE(step.events.size(), 1);
        QVERIFY(step.events.first().bytes.isSharedWith(data));
        QVERIFY(TelnetCodec::escape(data).isSharedWith(data));
        QCOMPARE(TelnetCodec::escape(hex("ff00ffff")), hex("ffff00ffffffff"));
    }

    void rolesAgreeWithEachOther_data()
    {
        QTest::addColumn<bool>("serverOffers");
        QTest::newRow("both offer") << true;
        QTest::newRow("server only answers") << false;
    }
    void rolesAgreeWithEachOther()
    {
        QFETCH(bool, serverOffers);
        TelnetCodec client(Role::Client);
        TelnetCodec server(Role::Server);
        QByteArray toServer = client.start().write;
        QByteArray toClient;
        if (serverOffers)
            toClient = server.start().write;
        // Answers only ever answer: the exchange dies down in a few rounds.
        int rounds = 0;
        for (; rounds < 10 && !(toServer.isEmpty() && toClient.isEmpty()); ++rounds) {
            const TelnetCodec::Step atServer = server.feed(toServer);
            const TelnetCodec::Step atClient = client.feed(toClient);
            toServer = atClient.write;
            toClient = atServer.write;
        }
        QVERIFY2(rounds <= 2, qPrintable(QStringLiteral("%1 rounds").arg(rounds)));
        QVERIFY(client.optionAgreed());
        QVERIFY(server.optionAgreed());
        QVERIFY(!client.optionRefused() && !server.optionRefused());

        // Every byte value both ways, escaped by one end and unescaped by the
        // other, whatever the cut.
        const QByteArray data = allBytes() + allBytes();
        for (TelnetCodec *from : {&client, &server}) {
            TelnetCodec *to = from == &client ? &server : &client;
            const QByteArray wire = TelnetCodec::escape(data);
            QCOMPARE(wire.size(), data.size() + 2);
            for (const QList<QByteArray> &parts : cuts(wire)) {
                const TelnetCodec::Step step = feedAll(*to, parts);
                QCOMPARE(describe(step.events), QStringList{QStringLiteral("Data ") + QString::fromLatin1(data.toHex())});
            }
        }

        // A question and its answer: the server numbers its reply 100 up.
        QCOMPARE(describe(server.feed(client.baudRateCommand(0)).events), QStringList{"Question 1 0"});
        const QByteArray reply = server.baudRateCommand(115200);
        QCOMPARE(reply.toHex(' '), QByteArray("ff fa 2c 65 00 01 c2 00 ff f0"));
        QCOMPARE(describe(client.feed(reply).events), QStringList{"BaudRate 115200"});
    }

    void sessionOfferAndWait()
    {
        Session session({}, false);
        Session::Step step = session.start(1000);
        QCOMPARE(step.write.toHex(' '), QByteArray("ff fb 2c ff fb 00 ff fd 00 ff fb 03 ff fd 03"));
        QCOMPARE(step.wakeAtMs, 1000 + Session::kDecisionWaitMs);
        QVERIFY(Session::kDecisionWaitMs <= 500);
        // Early ticks change nothing.
        step = session.tick(1000 + Session::kDecisionWaitMs - 1);
        QVERIFY(step.events.isEmpty() && step.write.isEmpty());
        QCOMPARE(step.wakeAtMs, 1000 + Session::kDecisionWaitMs);
        QCOMPARE(session.negotiation(), Negotiation::Undecided);
    }

    void sessionOutcome_data()
    {
        QTest::addColumn<QByteArray>("remote");
        QTest::addColumn<bool>("waits");
        QTest::addColumn<Negotiation>("negotiation");
        QTest::addColumn<QString>("notice");
        QTest::addColumn<QByteArray>("payload");

        QTest::newRow("ser2net with serial control") << kSer2netOpening << false << Negotiation::Rfc2217 << kAgreedNotice
                                                     << QByteArray();
        QTest::newRow("a server that offers the option") << hex("fffb2c fffd2c 41") << false << Negotiation::Rfc2217
                                                         << kAgreedNotice << QByteArray("A");
        QTest::newRow("ser2net without serial control") << kSer2netPlainOpening + "login: " << false
                                                        << Negotiation::PlainTelnet << kPlainNotice << QByteArray("login: ");
        QTest::newRow("telnet that never answers the option") << hex("fffb03 fffd03") + "login: " << true
                                                              << Negotiation::PlainTelnet << kPlainNotice
                                                              << QByteArray("login: ");
        QTest::newRow("silent device") << QByteArray() << true << Negotiation::TransparentTcp << kTransparentNotice
                                       << QByteArray();
        QTest::newRow("talking device") << QByteArray("hello\r\n") << true << Negotiation::TransparentTcp
                                        << kTransparentNotice << QByteArray("hello\r\n");
        QTest::newRow("echoing device") << kClientOffer + "x\xff" << false << Negotiation::TransparentTcp
                                        << kTransparentNotice << kClientOffer + "x\xff";
        QTest::newRow("echo cut short") << kClientOffer.left(7) << true << Negotiation::TransparentTcp
                                        << kTransparentNotice << kClientOffer.left(7);
    }
    void sessionOutcome()
    {
        QFETCH(QByteArray, remote);
        QFETCH(bool, waits);
        QFETCH(Negotiation, negotiation);
        QFETCH(QString, notice);
        QFETCH(QByteArray, payload);
        for (const QList<QByteArray> &parts : cuts(remote)) {
            Session session({}, false);
            Session::Step all = session.start(0);
            for (const QByteArray &part : parts)
                all.append(session.feed(part, 10));
            QCOMPARE(session.negotiation(), waits ? Negotiation::Undecided : negotiation);
            QCOMPARE(all.wantsWake(), waits);
            all.append(session.tick(Session::kDecisionWaitMs));
            QCOMPARE(session.negotiation(), negotiation);
            QVERIFY(!all.wantsWake());

            const QList<Session::Event> decided = ofKind(all.events, SKind::ModeDecided);
            QCOMPARE(decided.size(), 1);
            QCOMPARE(decided.first().value, int(negotiation));
            QCOMPARE(decided.first().text, notice);
            QCOMPARE(payloadOf(all.events), payload);
            // Nothing but the offer and option answers reaches a remote
            // without serial control.
            if (negotiation != Negotiation::Rfc2217)
                QVERIFY(!all.write.contains(hex("fffa")));
        }
    }

    void decidedOnce()
    {
        Session agreed = agreedSession();
        Session::Step step = agreed.feed(hex("fffc2c fffe2c 41"), 20);
        QVERIFY(ofKind(step.events, SKind::ModeDecided).isEmpty());
        QCOMPARE(agreed.negotiation(), Negotiation::Rfc2217);

        Session transparent({}, false);
        transparent.start(0);
        transparent.tick(Session::kDecisionWaitMs);
        step = transparent.feed(hex("fffd2c ffff"), 400);
        QCOMPARE(transparent.negotiation(), Negotiation::TransparentTcp);
        QVERIFY(ofKind(step.events, SKind::ModeDecided).isEmpty());
        QCOMPARE(payloadOf(step.events), hex("fffd2c ffff"));  // raw: nothing is a command any more
        QVERIFY(step.write.isEmpty());
    }

    void agreementPushesThePanesParameters()
    {
        Session session(parameters(19200, QSerialPort::Data7, QSerialPort::EvenParity, QSerialPort::TwoStop,
                                   QSerialPort::HardwareControl),
                        false);
        session.start(0);
        const Session::Step step = session.feed(hex("fffd2c"), 5);
        QCOMPARE(step.write.toHex(' '), (hex("fffa2c00") + "Tessaline" + hex("fff0 fffa2c0bf0fff0 fffa2c01 00004b00 fff0")
                                         + hex("fffa2c0207fff0 fffa2c0303fff0 fffa2c0402fff0 fffa2c0503fff0"))
                                            .toHex(' '));
        QCOMPARE(ofKind(step.events, SKind::ModeDecided).size(), 1);
    }

    void remoteConfigurationIsAskedForAndReported()
    {
        Session session(parameters(9600), true);
        session.start(0);
        Session::Step step = session.feed(hex("fffd2c"), 5);
        QCOMPARE(step.write.toHex(' '), (hex("fffa2c00") + "Tessaline"
                                         + hex("fff0 fffa2c0bf0fff0 fffa2c0100000000fff0 fffa2c0200fff0 fffa2c0300fff0 "
                                               "fffa2c0400fff0 fffa2c0500fff0 fffa2c0507fff0 fffa2c050afff0"))
                                            .toHex(' '));
        // ser2net's answers on a pty: it echoes the DTR and RTS questions.
        step = session.feed(hex("fffa2c64") + "ser2net"
                                + hex("fff0 fffa2c6500 01c200fff0 fffa2c6608fff0 fffa2c6701fff0 fffa2c6801fff0 "
                                      "fffa2c6901fff0 fffa2c6907fff0 fffa2c690afff0"),
                            10);
        const QList<Session::Event> expected{
            {SKind::RemoteSignature, 0, {}, QStringLiteral("ser2net")},
            {SKind::RemoteBaudRate, 115200, {}, QStringLiteral("The remote port is now at 115200 baud.")},
            {SKind::RemoteDataBits, QSerialPort::Data8, {}, {}},
            {SKind::RemoteParity, QSerialPort::NoParity, {}, {}},
            {SKind::RemoteStopBits, QSerialPort::OneStop, {}, {}},
            {SKind::RemoteFlowControl, QSerialPort::NoFlowControl, {}, {}},
            {SKind::InvalidReply, 0, {}, QStringLiteral("The remote port sent an invalid control value (07); the setting is kept.")},
            {SKind::InvalidReply, 0, {}, QStringLiteral("The remote port sent an invalid control value (0a); the setting is kept.")},
        };
        QCOMPARE(step.events, expected);
        QCOMPARE(session.remoteSignature(), QStringLiteral("ser2net"));
        // The pane adopts what it heard and pushes nothing of its own.
        QVERIFY(session.setSerialParameters(parameters(115200)).write.isEmpty());
        QVERIFY(session.setSerialParameters(parameters(300)).write.isEmpty());
    }

    void onlyChangesAreSent_data()
    {
        QTest::addColumn<Session::SerialParameters>("changed");
        QTest::addColumn<QByteArray>("sent");
        QTest::newRow("nothing") << parameters(9600) << QByteArray();
        QTest::newRow("baud") << parameters(57600) << hex("fffa2c01 0000e100 fff0");
        QTest::newRow("baud with 0xFF") << parameters(0xFF00) << hex("fffa2c01 0000ffff00 fff0");
        QTest::newRow("data bits") << parameters(9600, QSerialPort::Data6) << hex("fffa2c0206fff0");
        QTest::newRow("parity only") << parameters(9600, QSerialPort::Data8, QSerialPort::OddParity) << hex("fffa2c0302fff0");
        QTest::newRow("stop bits") << parameters(9600, QSerialPort::Data8, QSerialPort::NoParity, QSerialPort::OneAndHalfStop)
                                   << hex("fffa2c0403fff0");
        QTest::newRow("flow control") << parameters(9600, QSerialPort::Data8, QSerialPort::NoParity, QSerialPort::OneStop,
                                                    QSerialPort::SoftwareControl)
                                      << hex("fffa2c0502fff0");
    }
    void onlyChangesAreSent()
    {
        QFETCH(Session::SerialParameters, changed);
        QFETCH(QByteArray, sent);
        Session session = agreedSession(parameters(9600));
        session.feed(confirmations(parameters(9600)), 10);
        QCOMPARE(session.setSerialParameters(changed).write.toHex(' '), sent.toHex(' '));
        // Until the remote confirms, the change is still a change.
        QCOMPARE(session.setSerialParameters(changed).write.toHex(' '), sent.toHex(' '));
        session.feed(confirmations(changed), 20);
        QVERIFY(session.setSerialParameters(changed).write.isEmpty());
    }

    void parametersWaitForSerialControl_data()
    {
        QTest::addColumn<QByteArray>("remote");
        QTest::newRow("undecided") << QByteArray("x");
        QTest::newRow("plain telnet") << hex("fffe2c");
        QTest::newRow("transparent") << kClientOffer;
    }
    void parametersWaitForSerialControl()
    {
        QFETCH(QByteArray, remote);
        Session session(parameters(9600), false);
        session.start(0);
        session.feed(remote, 5);
        QVERIFY(session.setSerialParameters(parameters(38400)).write.isEmpty());
        QVERIFY(session.setBreak(true).write.isEmpty());
        QVERIFY(session.setDtr(false).write.isEmpty());
        QVERIFY(session.setRts(false).write.isEmpty());
    }

    void controlLines()
    {
        Session session = agreedSession();
        QCOMPARE(session.setBreak(true).write, hex("fffa2c0505fff0"));
        QCOMPARE(session.setBreak(false).write, hex("fffa2c0506fff0"));
        QCOMPARE(session.setDtr(true).write, hex("fffa2c0508fff0"));
        QCOMPARE(session.setDtr(false).write, hex("fffa2c0509fff0"));
        QCOMPARE(session.setRts(true).write, hex("fffa2c050bfff0"));
        const Session::Step step = session.setRts(false);
        QCOMPARE(step.write, hex("fffa2c050cfff0"));
        QVERIFY(!step.wantsWake());  // nothing waits for the remote's answer
    }

    void outgoingData_data()
    {
        QTest::addColumn<QByteArray>("remote");
        QTest::addColumn<bool>("decideByTick");
        QTest::addColumn<QByteArray>("sentBefore");
        QTest::addColumn<QByteArray>("sentAtDecision");
        QTest::addColumn<QByteArray>("sentAfter");
        const QByteArray data = hex("41ff42");
        const QByteArray doubled = hex("41ffff42");
        // What is sent while undecided, at the decision and after it.
        QTest::newRow("serial control") << hex("fffd2c") << false << QByteArray() << doubled << doubled;
        QTest::newRow("plain telnet") << hex("fffe2c") << false << QByteArray() << doubled << doubled;
        QTest::newRow("telnet heard, not yet decided") << hex("fffb03") << true << doubled << QByteArray() << doubled;
        QTest::newRow("transparent") << QByteArray("hi") << true << QByteArray() << data << data;
        QTest::newRow("echo") << kClientOffer << false << QByteArray() << data << data;
    }
    void outgoingData()
    {
        QFETCH(QByteArray, remote);
        QFETCH(bool, decideByTick);
        QFETCH(QByteArray, sentBefore);
        QFETCH(QByteArray, sentAtDecision);
        QFETCH(QByteArray, sentAfter);
        const QByteArray data = hex("41ff42");
        Session session({}, false);
        session.start(0);
        // Plain bytes go at once; a 0xFF waits while its fate is open.
        QCOMPARE(session.send("ab", 1).write, QByteArray("ab"));
        Session::Step step;
        if (sentBefore.isEmpty()) {
            QVERIFY(session.send(data, 2).write.isEmpty());
            step = session.feed(remote, 3);
        } else {
            step = session.feed(remote, 3);
            QCOMPARE(session.send(data, 4).write, sentBefore);
        }
        if (decideByTick)
            step.append(session.tick(Session::kDecisionWaitMs));
        QVERIFY(session.negotiation() != Negotiation::Undecided);
        QVERIFY2(step.write.endsWith(sentAtDecision), step.write.toHex(' ').constData());
        QCOMPARE(step.write.count(sentAtDecision.isEmpty() ? QByteArray("\xff\xff") : sentAtDecision),
                 sentAtDecision.isEmpty() ? 0 : 1);
        QCOMPARE(session.send(data, 500).write, sentAfter);

        const QByteArray plain("no 0xFF in here");
        QVERIFY(session.send(plain, 501).write.isSharedWith(plain));
    }

    void heldDataIsBounded()
    {
        Session session({}, false);
        session.start(0);
        const QByteArray chunk(1024, char(0xff));
        Session::Step all;
        qsizetype sent = 0;
        while (session.negotiation() == Negotiation::Undecided && sent <= Session::kMaxHeldBytes) {
            all.append(session.send(chunk, 1));
            sent += chunk.size();
        }
        QCOMPARE(session.negotiation(), Negotiation::TransparentTcp);
        QCOMPARE(all.write.size(), sent);
    }

    void lineAndModemState()
    {
        Session session = agreedSession();
        const Session::Step step = session.feed(hex("fffa2c6a0afff0 fffa2c6a60fff0 fffa2c6bb1fff0 fffa2c6ff0fff0"), 10);
        const QList<Session::Event> expected{
            {SKind::LineState, 0x0a, {}, QStringLiteral("The remote port reports: overrun error, framing error.")},
            {SKind::LineState, 0x60, {}, {}},
            {SKind::ModemState, 0xb1, {}, {}},
        };
        QCOMPARE(step.events, expected);
        QCOMPARE(session.remoteModemStateMask(), quint8(0xf0));
    }

    void receivedPayloadSurvivesEveryCut()
    {
        // Every byte value, doubled 0xFF included, around replies.
        const QByteArray data = allBytes();
        const QByteArray wire = hex("fffd2c") + TelnetCodec::escape(data) + hex("fffa2c6500002580fff0")
                                + TelnetCodec::escape(data);
        for (const QList<QByteArray> &parts : cuts(wire)) {
            Session session({}, false);
            Session::Step all = session.start(0);
            for (const QByteArray &part : parts)
                all.append(session.feed(part, 1));
            const QList<Session::Event> events = joined(all.events);
            QCOMPARE(events.size(), 4);
            QCOMPARE(events.at(0).kind, SKind::ModeDecided);
            QCOMPARE(events.at(1).bytes, data);
            QCOMPARE(events.at(2).kind, SKind::RemoteBaudRate);
            QCOMPARE(events.at(3).bytes, data);
        }
    }

    void startingAgainForgetsTheConnection()
    {
        Session session = agreedSession(parameters(9600));
        session.feed(confirmations(parameters(9600)), 10);
        QCOMPARE(session.start(1000).write, kClientOffer);
        QCOMPARE(session.negotiation(), Negotiation::Undecided);
        const Session::Step step = session.feed(hex("fffd2c"), 1001);
        // Nothing is confirmed on the new connection: all five go again.
        QCOMPARE(step.write.count(hex("fffa2c")), 2 + 5);
    }

    void fuzzSeeds()
    {
        const QString failure = FuzzSeeds::replay(QStringLiteral("telnet"), fuzzTelnetReceiver);
        QVERIFY2(failure.isEmpty(), qPrintable(failure));
    }
};

QTEST_GUILESS_MAIN(Rfc2217Test)
#include "tst_rfc2217.moc"
