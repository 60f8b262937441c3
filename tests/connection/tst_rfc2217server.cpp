// The server end of a shared serial port, fed bytes and time against a port
// that refuses what a real driver refuses: every setting must be answered
// with what the port holds afterwards, and every input gives the same result
// however the network split it.
#include "connection/rfc2217clientsession.h"
#include "connection/rfc2217serversession.h"

#include <QtTest>

using Server = Rfc2217ServerSession;
using Mode = Server::Mode;
using Line = Server::Line;

Q_DECLARE_METATYPE(SerialParameters)

namespace {

QByteArray hex(const char *text)
{
    return QByteArray::fromHex(text);
}

const QByteArray kServerOffer = hex("fffd2c fffb00 fffd00 fffb03 fffd03");
const QByteArray kClientWill = hex("fffb2c");

// A port that keeps what it is told, refuses what a pty refuses (DTR, RTS)
// and, like some drivers, 7 data bits and rates above 4 Mbaud.
class FakePort : public Server::Port
{
public:
    void write(const QByteArray &data) override { written += data; log << QStringLiteral("write %1").arg(QString::fromLatin1(data.toHex())); }
    SerialParameters parameters() const override { return current; }
    SerialParameters apply(const SerialParameters &wanted) override
    {
        log << QStringLiteral("apply");
        if (wanted.dataBits == QSerialPort::Data7 || wanted.baudRate > 4000000)
            return current;  // refused: all five stay as they were
        current = wanted;
        return current;
    }
    bool level(Line line) const override { return levels[int(line)]; }
    bool setLevel(Line line, bool on) override
    {
        if (line != Line::Break)
            return levels[int(line)];  // the ioctl fails on a pty
        levels[int(line)] = on;
        return on;
    }
    void purge(bool received, bool toSend) override { log << QStringLiteral("purge %1 %2").arg(received).arg(toSend); }
    quint8 modemLines() const override { return modem; }
    quint8 lineState() const override { return line; }

    SerialParameters current{9600, QSerialPort::Data8, QSerialPort::NoParity, QSerialPort::OneStop,
                             QSerialPort::NoFlowControl};
    bool levels[3] = {true, true, false};
    quint8 modem = 0x30;  // CTS and DSR up
    quint8 line = 0x60;
    QByteArray written;
    QStringList log;
};

// What a whole input gives: everything written back and the events.
struct Outcome
{
    QByteArray write;
    QList<Server::Event> events;
    QByteArray toLine;
    SerialParameters parameters;
};

Outcome run(const QList<QByteArray> &chunks, FakePort port = FakePort())
{
    Server server;
    Outcome out;
    server.start(0);
    for (const QByteArray &chunk : chunks) {
        const Server::Step step = server.feed(chunk, 1, port);
        out.write += step.write;
        out.events += step.events;
    }
    out.toLine = port.written;
    out.parameters = port.current;
    return out;
}

QByteArray reply(const char *hexBody)
{
    return hex("fffa2c") + hex(hexBody) + hex("fff0");
}

} // namespace

class Rfc2217ServerTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void telnetOrRawIsDecidedByTheFirstByte_data();
    void telnetOrRawIsDecidedByTheFirstByte();
    void aSilentClientGetsTheRawStreamAfterTheWait();
    void settingsAreAnsweredWithWhatThePortHolds_data();
    void settingsAreAnsweredWithWhatThePortHolds();
    void everySplitGivesTheSameResult();
    void dataIsUnescapedInAndEscapedOut();
    void suspendHoldsDataUntilResumed();
    void noticesRespectTheClientsMasks();
    void ourClientAndServerAgreeAndConfirm();
};

void Rfc2217ServerTest::telnetOrRawIsDecidedByTheFirstByte_data()
{
    QTest::addColumn<QByteArray>("input");
    QTest::addColumn<int>("mode");
    QTest::addColumn<QByteArray>("toLine");
    QTest::addColumn<QByteArray>("written");

    QTest::newRow("raw text") << QByteArray("AT\r") << int(Mode::Raw) << QByteArray("AT\r") << QByteArray();
    QTest::newRow("raw keeps 0xFF whole") << hex("01ffff02fffb2c") << int(Mode::Raw) << hex("01ffff02fffb2c") << QByteArray();
    // Our offer first, then the answer to the client's DO of our side; on
    // agreement the modem lines as they stand.
    const QByteArray lines = reply("6b30");
    QTest::newRow("telnet offer") << kClientWill << int(Mode::Telnet) << QByteArray() << (kServerOffer + lines);
    QTest::newRow("telnet with data behind") << (kClientWill + hex("41ffff42")) << int(Mode::Telnet) << hex("41ff42")
                                             << (kServerOffer + lines);
    QTest::newRow("client asks for our side") << hex("fffd2c") << int(Mode::Telnet) << QByteArray()
                                              << (kServerOffer + hex("fffb2c") + lines);
    QTest::newRow("unknown option refused") << hex("fffb18") << int(Mode::Telnet) << QByteArray()
                                            << (kServerOffer + hex("fffe18"));
}

void Rfc2217ServerTest::telnetOrRawIsDecidedByTheFirstByte()
{
    QFETCH(QByteArray, input);
    QFETCH(int, mode);
    QFETCH(QByteArray, toLine);
    QFETCH(QByteArray, written);

    FakePort port;
    Server server;
    QCOMPARE(server.start(0).write, QByteArray());  // silent until the client speaks
    const Server::Step step = server.feed(input, 10, port);
    QCOMPARE(int(server.mode()), mode);
    QCOMPARE(port.written.toHex(), toLine.toHex());
    QCOMPARE(step.write.toHex(), written.toHex());
    QCOMPARE(step.wakeAtMs, Server::Step::kNoWake);
    QVERIFY(server.canTakeData());
    QCOMPARE(server.encode(hex("ff")), mode == int(Mode::Raw) ? hex("ff") : hex("ffff"));
}

void Rfc2217ServerTest::aSilentClientGetsTheRawStreamAfterTheWait()
{
    Server server;
    const Server::Step started = server.start(1000);
    QCOMPARE(started.wakeAtMs, 1000 + Server::kDecisionWaitMs);
    QVERIFY(!server.canTakeData());
    QVERIFY(server.tick(1000 + Server::kDecisionWaitMs - 1).events.isEmpty());
    const Server::Step decided = server.tick(1000 + Server::kDecisionWaitMs);
    QCOMPARE(decided.events, (QList<Server::Event>{{Server::Event::Kind::Decided, qint64(Mode::Raw), {}}}));
    QCOMPARE(decided.wakeAtMs, Server::Step::kNoWake);
    // A Telnet command after that is the client's data, sent on as it came.
    FakePort port;
    QVERIFY(server.feed(kClientWill, 2000, port).write.isEmpty());
    QCOMPARE(port.written, kClientWill);
}

void Rfc2217ServerTest::settingsAreAnsweredWithWhatThePortHolds_data()
{
    QTest::addColumn<QByteArray>("command");
    QTest::addColumn<QByteArray>("answer");
    QTest::addColumn<SerialParameters>("after");
    QTest::addColumn<QStringList>("log");

    const SerialParameters start{9600, QSerialPort::Data8, QSerialPort::NoParity, QSerialPort::OneStop,
                                 QSerialPort::NoFlowControl};
    auto with = [&](auto change) {
        SerialParameters p = start;
        change(p);
        return p;
    };
    const QStringList applied{QStringLiteral("apply")};

    // Settings taken: confirmed as asked.
    QTest::newRow("baud 115200") << reply("0100 01c200") << reply("6500 01c200")
                                 << with([](SerialParameters &p) { p.baudRate = 115200; }) << applied;
    QTest::newRow("baud 0xFF bytes doubled") << reply("01 00 ffff ffff ffff")
                                             << reply("65 0000 2580") << start << applied;  // 16777215 > 4 Mbaud: refused
    QTest::newRow("data size 5") << reply("0205") << reply("6605")
                                 << with([](SerialParameters &p) { p.dataBits = QSerialPort::Data5; }) << applied;
    QTest::newRow("parity even") << reply("0303") << reply("6703")
                                 << with([](SerialParameters &p) { p.parity = QSerialPort::EvenParity; }) << applied;
    QTest::newRow("parity space") << reply("0305") << reply("6705")
                                  << with([](SerialParameters &p) { p.parity = QSerialPort::SpaceParity; }) << applied;
    QTest::newRow("stop two") << reply("0402") << reply("6802")
                              << with([](SerialParameters &p) { p.stopBits = QSerialPort::TwoStop; }) << applied;
    QTest::newRow("stop one and a half") << reply("0403") << reply("6803")
                                         << with([](SerialParameters &p) { p.stopBits = QSerialPort::OneAndHalfStop; })
                                         << applied;
    QTest::newRow("flow rts/cts") << reply("0503") << reply("6903")
                                  << with([](SerialParameters &p) { p.flowControl = QSerialPort::HardwareControl; })
                                  << applied;
    QTest::newRow("flow xon/xoff") << reply("0502") << reply("6902")
                                   << with([](SerialParameters &p) { p.flowControl = QSerialPort::SoftwareControl; })
                                   << applied;
    // Refused by the port: the answer is what stayed.
    QTest::newRow("data size 7 refused") << reply("0207") << reply("6608") << start << applied;
    // Questions: the values in force, nothing applied.
    QTest::newRow("baud question") << reply("0100000000") << reply("6500002580") << start << QStringList();
    QTest::newRow("data size question") << reply("0200") << reply("6608") << start << QStringList();
    QTest::newRow("parity question") << reply("0300") << reply("6701") << start << QStringList();
    QTest::newRow("stop question") << reply("0400") << reply("6801") << start << QStringList();
    QTest::newRow("flow question") << reply("0500") << reply("6901") << start << QStringList();
    // Values off the map change nothing and are answered with what holds.
    QTest::newRow("data size 9") << reply("0209") << reply("6608") << start << QStringList();
    QTest::newRow("parity 6") << reply("0306") << reply("6701") << start << QStringList();
    QTest::newRow("baud of 3 bytes") << reply("01000102") << reply("6500002580") << start << QStringList();
    // Control lines: DTR and RTS are refused by this port, Break is taken.
    QTest::newRow("dtr off refused") << reply("0509") << reply("6908") << start << QStringList();
    QTest::newRow("rts off refused") << reply("050c") << reply("690b") << start << QStringList();
    QTest::newRow("break on") << reply("0505") << reply("6905") << start << QStringList();
    QTest::newRow("break question") << reply("0504") << reply("6906") << start << QStringList();
    QTest::newRow("dtr question") << reply("0507") << reply("6908") << start << QStringList();
    QTest::newRow("rts question") << reply("050a") << reply("690b") << start << QStringList();
    // Purges act on the port and are acknowledged; an undefined one is not.
    QTest::newRow("purge received") << reply("0c01") << reply("7001") << start << QStringList{QStringLiteral("purge 1 0")};
    QTest::newRow("purge to send") << reply("0c02") << reply("7002") << start << QStringList{QStringLiteral("purge 0 1")};
    QTest::newRow("purge both") << reply("0c03") << reply("7003") << start << QStringList{QStringLiteral("purge 1 1")};
    QTest::newRow("purge 4") << reply("0c04") << QByteArray() << start << QStringList();
    // Masks are acknowledged; a signature question is answered with ours.
    QTest::newRow("modem mask") << reply("0b10") << reply("6f10") << start << QStringList();
    QTest::newRow("line mask") << reply("0affff") << reply("6effff") << start << QStringList();
    QTest::newRow("signature question") << reply("00") << (hex("fffa2c64") + QByteArray("Tessaline") + hex("fff0"))
                                        << start << QStringList();
    QTest::newRow("client signature") << (reply("00") .left(4) + QByteArray("pyserial") + hex("fff0")) << QByteArray()
                                      << start << QStringList();
}

void Rfc2217ServerTest::settingsAreAnsweredWithWhatThePortHolds()
{
    QFETCH(QByteArray, command);
    QFETCH(QByteArray, answer);
    QFETCH(SerialParameters, after);
    QFETCH(QStringList, log);

    FakePort port;
    Server server;
    server.start(0);
    server.feed(kClientWill, 0, port);  // agreed; the lines' first notice goes with it
    port.log.clear();
    const Server::Step step = server.feed(command, 0, port);
    QCOMPARE(step.write.toHex(' '), answer.toHex(' '));
    QCOMPARE(port.current, after);
    QCOMPARE(port.log, log);
}

void Rfc2217ServerTest::everySplitGivesTheSameResult()
{
    // A session's worth: the offer, settings, data with 0xFF, a purge, a mask.
    const QByteArray input = kClientWill + hex("fffd00 fffb00") + reply("0100 01c200") + hex("41ffff42")
                             + reply("0303") + reply("0c03") + hex("ff f1") + QByteArray("tail") + reply("0b30");
    const Outcome whole = run({input});
    QCOMPARE(whole.toLine.toHex(), (hex("41ff42") + QByteArray("tail")).toHex());
    QCOMPARE(whole.parameters.baudRate, 115200);
    QCOMPARE(whole.parameters.parity, QSerialPort::EvenParity);
    for (qsizetype cut = 1; cut < input.size(); ++cut) {
        const Outcome split = run({input.left(cut), input.mid(cut)});
        QVERIFY2(split.write == whole.write && split.toLine == whole.toLine && split.events == whole.events,
                 qPrintable(QStringLiteral("split at %1").arg(cut)));
    }
    QList<QByteArray> bytes;
    for (char c : input)
        bytes.append(QByteArray(1, c));
    const Outcome single = run(bytes);
    QCOMPARE(single.write.toHex(), whole.write.toHex());
    QCOMPARE(single.toLine, whole.toLine);
}

void Rfc2217ServerTest::dataIsUnescapedInAndEscapedOut()
{
    QByteArray all;
    for (int i = 0; i < 256; ++i)
        all.append(char(i));
    const QByteArray run255(1000, char(0xFF));
    FakePort port;
    Server server;
    server.start(0);
    server.feed(kClientWill, 0, port);
    const QByteArray payload = all + run255;
    server.feed(server.encode(payload), 0, port);  // the client escapes as we do
    QCOMPARE(port.written, payload);
    const QByteArray out = server.encode(payload);
    QCOMPARE(out.size(), payload.size() + 1 + run255.size());
    QCOMPARE(out.count(char(0xFF)), 2 * (1 + run255.size()));
}

void Rfc2217ServerTest::suspendHoldsDataUntilResumed()
{
    FakePort port;
    Server server;
    server.start(0);
    server.feed(kClientWill, 0, port);
    QVERIFY(server.canTakeData());
    Server::Step step = server.feed(reply("08") + reply("08"), 0, port);
    QCOMPARE(step.events, (QList<Server::Event>{{Server::Event::Kind::Suspended, 0, {}}}));
    QVERIFY(!server.canTakeData());
    QVERIFY(step.write.isEmpty());
    step = server.feed(reply("09"), 0, port);
    QCOMPARE(step.events, (QList<Server::Event>{{Server::Event::Kind::Resumed, 0, {}}}));
    QVERIFY(server.canTakeData());
}

void Rfc2217ServerTest::noticesRespectTheClientsMasks()
{
    FakePort port;
    Server server;
    server.start(0);
    // Agreement tells the lines as they stand, within the default mask (all).
    QCOMPARE(server.feed(kClientWill, 0, port).write.toHex(' '), (kServerOffer + reply("6b30")).toHex(' '));
    QVERIFY(server.portStateChanged(port).isEmpty());  // nothing changed

    // Only CTS and its change matter to this client.
    server.feed(reply("0b11"), 0, port);
    port.modem = 0x10;  // DSR dropped: outside the mask
    QVERIFY(server.portStateChanged(port).isEmpty());
    port.modem = 0x00;  // CTS dropped
    QCOMPARE(server.portStateChanged(port).toHex(' '), reply("6b01").toHex(' '));
    port.modem = 0x10;
    QCOMPARE(server.portStateChanged(port).toHex(' '), reply("6b11").toHex(' '));

    // Line state: silent under the default mask, told when a masked bit moves.
    port.line = 0x00;
    QVERIFY(server.portStateChanged(port).isEmpty());
    server.feed(reply("0a60"), 0, port);
    port.line = 0x60;
    QCOMPARE(server.portStateChanged(port).toHex(' '), reply("6a60").toHex(' '));
    QVERIFY(server.portStateChanged(port).isEmpty());

    // A raw client is told nothing.
    Server raw;
    raw.start(0);
    raw.feed("x", 0, port);
    port.modem = 0xF0;
    QVERIFY(raw.portStateChanged(port).isEmpty());
}

void Rfc2217ServerTest::ourClientAndServerAgreeAndConfirm()
{
    const SerialParameters wanted{57600, QSerialPort::Data7, QSerialPort::OddParity, QSerialPort::TwoStop,
                                  QSerialPort::SoftwareControl};
    Rfc2217ClientSession client(wanted, false);
    FakePort port;
    Server server;
    server.start(0);

    QList<Rfc2217ClientSession::Event> heard;
    QByteArray toServer = client.start(0).write;
    for (int round = 0; round < 10 && !toServer.isEmpty(); ++round) {
        const Server::Step answer = server.feed(toServer, 0, port);
        const Rfc2217ClientSession::Step step = client.feed(answer.write, 0);
        heard += step.events;
        toServer = step.write;
    }
    QCOMPARE(client.negotiation(), Rfc2217ClientSession::Negotiation::Rfc2217);
    QCOMPARE(server.clientSignature(), QStringLiteral("Tessaline"));
    QCOMPARE(server.modemStateMask(), Rfc2217ClientSession::kModemStateMask);
    // Everything but the 7 data bits this port refuses is in force and
    // confirmed; the client hears 8 bits back.
    QCOMPARE(port.current.baudRate, 57600);
    QCOMPARE(port.current.parity, QSerialPort::OddParity);
    QCOMPARE(port.current.stopBits, QSerialPort::TwoStop);
    QCOMPARE(port.current.flowControl, QSerialPort::SoftwareControl);
    QCOMPARE(port.current.dataBits, QSerialPort::Data8);
    auto valueOf = [&](Rfc2217ClientSession::Event::Kind kind) {
        for (const auto &event : std::as_const(heard)) {
            if (event.kind == kind)
                return event.value;
        }
        return qint64(-1);
    };
    QCOMPARE(valueOf(Rfc2217ClientSession::Event::Kind::RemoteBaudRate), 57600);
    QCOMPARE(valueOf(Rfc2217ClientSession::Event::Kind::RemoteDataBits), qint64(QSerialPort::Data8));
    QCOMPARE(valueOf(Rfc2217ClientSession::Event::Kind::RemoteParity), qint64(QSerialPort::OddParity));
    QCOMPARE(valueOf(Rfc2217ClientSession::Event::Kind::RemoteFlowControl), qint64(QSerialPort::SoftwareControl));
    QCOMPARE(valueOf(Rfc2217ClientSession::Event::Kind::ModemState), 0x30);
}

QTEST_GUILESS_MAIN(Rfc2217ServerTest)
#include "tst_rfc2217server.moc"
