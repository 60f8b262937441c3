// Bridges in the settings store: every field round-trips, a garbled or
// unknown stored bridge is skipped with a message naming it while the others
// load, and every field of a record is checked with the user's text.

#include "bridge/bridgeengine.h"
#include "bridge/bridgemanager.h"
#include "bridge/bridgestore.h"
#include "support/settingssandbox.h"

#include <QSettings>
#include <QTest>

Q_DECLARE_METATYPE(BridgeRecord)

namespace {

// A record with every field away from its default.
BridgeRecord unusualRecord()
{
    BridgeRecord r;
    r.name = QStringLiteral("PLC gateway, line 2");
    r.enabled = false;
    r.direction = BridgeDirection::AToB;
    BridgeEndSpec &a = r.ends[BridgeRecord::kA];
    a.kind = BridgeEndSpec::Kind::Listener;
    a.listenAddress = QStringLiteral("::1");
    a.listenPort = 5020;
    a.allowlist = {QStringLiteral("192.168.1.0/24"), QStringLiteral("10.0.0.7")};
    a.exclusive = true;
    BridgeEndSpec &b = r.ends[BridgeRecord::kB];
    b.kind = BridgeEndSpec::Kind::Udp;
    b.udpTargets = {QStringLiteral("192.168.1.20:5000"), QStringLiteral("[::1]:6000")};
    BridgeFramer::Options &ab = r.framing[BridgeRecord::kAToB];
    ab.mode = BridgeFramer::Mode::Delimiter;
    ab.delimiter = QByteArray("\r\n\x00\xff", 4);
    ab.keepDelimiter = false;
    ab.maxFrameSize = 1400;
    ab.holdMs = 250;
    ab.idleGapMs = 7;
    ab.fixedLength = 12;
    BridgeFramer::Options &ba = r.framing[BridgeRecord::kBToA];
    ba.mode = BridgeFramer::Mode::IdleGap;
    ba.idleGapMs = 35;
    ba.maxFrameSize = 256;
    r.egress = {2 * 1024 * 1024, 100 * 1024, EgressQueue::Policy::DropOldest};
    r.flood = {false, 500000, 9};
    r.capture = {true, QStringLiteral("/var/tmp/captures"), 5 * 1024 * 1024};
    return r;
}

BridgeRecord paneToListener(const QString &name)
{
    BridgeRecord r;
    r.name = name;
    r.enabled = false;
    r.ends[BridgeRecord::kA].kind = BridgeEndSpec::Kind::Pane;
    r.ends[BridgeRecord::kA].pane = QStringLiteral("ser-/dev/ttyUSB0");
    r.ends[BridgeRecord::kB].kind = BridgeEndSpec::Kind::Listener;
    r.ends[BridgeRecord::kB].listenPort = 0;
    return r;
}

BridgeRecord modbusGateway()
{
    BridgeRecord r;
    r.name = QStringLiteral("meters");
    r.kind = BridgeKind::ModbusGateway;
    r.ends[BridgeRecord::kA].kind = BridgeEndSpec::Kind::Listener;
    r.ends[BridgeRecord::kA].listenPort = 502;
    r.ends[BridgeRecord::kB].pane = QStringLiteral("ser-/dev/ttyUSB1");
    r.modbus = {ModbusFraming::Ascii, 750, 40, true, 5, 50};
    return r;
}

BridgeRecord sharedPort()
{
    BridgeRecord r;
    r.name = QStringLiteral("bench port");
    r.kind = BridgeKind::Rfc2217Share;
    r.ends[BridgeRecord::kA].kind = BridgeEndSpec::Kind::Listener;
    r.ends[BridgeRecord::kA].listenPort = 2217;
    r.ends[BridgeRecord::kA].allowlist = {QStringLiteral("192.168.1.0/24"), QStringLiteral("10.0.0.7")};
    r.ends[BridgeRecord::kA].exclusive = true;
    r.ends[BridgeRecord::kB].pane = QStringLiteral("ser-/dev/ttyUSB2");
    return r;
}

} // namespace

class BridgeStoreTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { m_sandbox = std::make_unique<SettingsSandbox>(); }
    void init() { m_sandbox->clear(); }

    void everyFieldRoundTrips();
    void aGarbledBridgeIsSkippedWithAMessage_data();
    void aGarbledBridgeIsSkippedWithAMessage();
    void aGarbledCountLoadsNothingAndSaysSo();
    void theManagerSavesEveryChangeAndRestoresAtStart();
    void recordsAreCheckedFieldByField_data();
    void recordsAreCheckedFieldByField();

private:
    std::unique_ptr<SettingsSandbox> m_sandbox;
};

void BridgeStoreTest::everyFieldRoundTrips()
{
    const QList<BridgeRecord> records{unusualRecord(), paneToListener(QStringLiteral("second")), modbusGateway(),
                                      sharedPort()};
    QVERIFY2(records.first().validate(), qPrintable(records.first().validate().errorText()));
    {
        QSettings settings;
        BridgeStore::save(settings, records);
    }
    QSettings settings;
    QCOMPARE(settings.value(QStringLiteral("Bridge/Count")).toInt(), 4);
    QCOMPARE(settings.value(QStringLiteral("Bridge/2/Kind")).toString(), QStringLiteral("modbus"));
    QCOMPARE(settings.value(QStringLiteral("Bridge/3/Kind")).toString(), QStringLiteral("rfc2217"));
    QCOMPARE(settings.value(QStringLiteral("Bridge/2/ModbusFraming")).toString(), QStringLiteral("ascii"));
    QCOMPARE(settings.value(QStringLiteral("Bridge/0/Name")).toString(), QStringLiteral("PLC gateway, line 2"));
    QCOMPARE(settings.value(QStringLiteral("Bridge/0/AToBDelimiter")).toString(), QStringLiteral("0D 0A 00 FF"));
    const BridgeStore::Loaded loaded = BridgeStore::load(settings);
    QVERIFY2(loaded.skipped.isEmpty(), qPrintable(loaded.skipped.join('\n')));
    QCOMPARE(loaded.records.size(), 4);
    for (int i = 0; i < 4; ++i)
        QVERIFY2(loaded.records.at(i) == records.at(i), qPrintable(records.at(i).name));

    // Saving fewer leaves nothing of the old ones behind.
    BridgeStore::save(settings, {records.at(1)});
    QVERIFY(!settings.contains(QStringLiteral("Bridge/1/Name")));
    QCOMPARE(BridgeStore::load(settings).records.size(), 1);
}

void BridgeStoreTest::aGarbledBridgeIsSkippedWithAMessage_data()
{
    QTest::addColumn<QString>("field");
    QTest::addColumn<QString>("value");
    QTest::addColumn<QString>("message");
    QTest::newRow("unknown kind") << "Kind" << "teleport"
                                  << "Stored bridge 2 was skipped: its kind \"teleport\" is not known to this version.";
    QTest::newRow("port out of range") << "EndBPort" << "99999"
                                       << "Stored bridge 2 was skipped: EndBPort holds \"99999\", which it cannot take.";
    QTest::newRow("not a direction") << "Direction" << "sideways"
                                     << "Stored bridge 2 was skipped: Direction holds \"sideways\", which it cannot take.";
    QTest::newRow("delimiter not hex") << "AToBDelimiter" << "zz"
                                       << "Stored bridge 2 was skipped: AToBDelimiter holds \"zz\", which it cannot take.";
    QTest::newRow("not a flag") << "Enabled" << "perhaps"
                                << "Stored bridge 2 was skipped: Enabled holds \"perhaps\", which it cannot take.";
    QTest::newRow("a long garbled value is shortened")
        << "HighWatermark" << QString(300, QLatin1Char('9'))
        << "Stored bridge 2 was skipped: HighWatermark holds \"" + QString(40, QLatin1Char('9'))
               + "…\", which it cannot take.";
    // Each field reads, but together they do not make a bridge.
    QTest::newRow("UDP as a source") << "EndAKind" << "udp"
                                     << "Stored bridge 2 was skipped: End A: list at least one UDP target as address:port.";
    QTest::newRow("not a Modbus framing") << "ModbusFraming" << "binary"
                                          << "Stored bridge 2 was skipped: ModbusFraming holds \"binary\", which it cannot take.";
    QTest::newRow("no response timeout") << "ModbusTimeoutMs" << "0"
                                         << "Stored bridge 2 was skipped: ModbusTimeoutMs holds \"0\", which it cannot take.";
    QTest::newRow("a gateway with its ends swapped")
        << "Kind" << "modbus"
        << "Stored bridge 2 was skipped: A Modbus gateway takes its clients on a listener as end A and its line on a "
           "pane as end B.";
    QTest::newRow("a shared port with its ends swapped")
        << "Kind" << "rfc2217"
        << "Stored bridge 2 was skipped: RFC 2217 port sharing takes its clients on a listener as end A and the shared "
           "port on a pane as end B.";
    QTest::newRow("watermarks the wrong way round")
        << "LowWatermark" << "2000000" << "Stored bridge 2 was skipped: The low watermark must be below the high watermark.";
}

void BridgeStoreTest::aGarbledBridgeIsSkippedWithAMessage()
{
    QFETCH(QString, field);
    QFETCH(QString, value);
    QFETCH(QString, message);
    QSettings settings;
    BridgeStore::save(settings, {paneToListener("one"), paneToListener("two"), paneToListener("three")});
    settings.setValue(BridgeStore::key(1, field), value);
    const BridgeStore::Loaded loaded = BridgeStore::load(settings);
    QCOMPARE(loaded.skipped, QStringList{message});
    QCOMPARE(loaded.records.size(), 2);
    QCOMPARE(loaded.records.at(0).name, QStringLiteral("one"));
    QCOMPARE(loaded.records.at(1).name, QStringLiteral("three"));
}

void BridgeStoreTest::aGarbledCountLoadsNothingAndSaysSo()
{
    QSettings settings;
    BridgeStore::save(settings, {paneToListener("one")});
    settings.setValue(QStringLiteral("Bridge/Count"), QStringLiteral("lots"));
    BridgeStore::Loaded loaded = BridgeStore::load(settings);
    QVERIFY(loaded.records.isEmpty());
    QCOMPARE(loaded.skipped, QStringList{QStringLiteral(
                                 "The stored bridges were not loaded: Bridge/Count holds \"lots\", which is not a count.")});
    // A count beyond what is there: the missing ones read as defaults,
    // which name no pane.
    settings.setValue(QStringLiteral("Bridge/Count"), 2);
    loaded = BridgeStore::load(settings);
    QCOMPARE(loaded.records.size(), 1);
    QCOMPARE(loaded.skipped, QStringList{QStringLiteral("Stored bridge 2 was skipped: Give the bridge a name.")});
}

void BridgeStoreTest::theManagerSavesEveryChangeAndRestoresAtStart()
{
    {
        BridgeManager manager;
        QVERIFY(manager.add(paneToListener("one")));
        BridgeRecord enabled = paneToListener("two");
        enabled.enabled = true;
        QVERIFY(manager.add(enabled));
        // A record that does not hold changes nothing.
        BridgeRecord nameless = paneToListener(QString());
        QCOMPARE(manager.add(nameless).errorText(), QStringLiteral("Give the bridge a name."));
        QCOMPARE(manager.count(), 2);
        QCOMPARE(manager.engine(1)->state(), BridgeEngine::State::Waiting);
        manager.setEnabled(0, true);
        manager.setEnabled(1, false);
        QCOMPARE(manager.engine(1)->state(), BridgeEngine::State::Disabled);
    }
    QSettings settings;
    settings.setValue(BridgeStore::key(1, QStringLiteral("Kind")), QStringLiteral("modbus-gateway-v9"));
    BridgeManager restored;
    const QStringList skipped = restored.load(settings);
    QCOMPARE(skipped.size(), 1);
    QVERIFY(skipped.first().startsWith(QStringLiteral("Stored bridge 2 was skipped")));
    QCOMPARE(restored.count(), 1);
    QCOMPARE(restored.engine(0)->record().name, QStringLiteral("one"));
    // Enabled when stored: started, and waiting for its pane.
    QCOMPARE(restored.engine(0)->state(), BridgeEngine::State::Waiting);
    QVERIFY2(restored.engine(0)->stateText().contains(QStringLiteral("ser-/dev/ttyUSB0")),
             qPrintable(restored.engine(0)->stateText()));
    restored.remove(0);
    QCOMPARE(restored.count(), 0);
    QCOMPARE(QSettings().value(QStringLiteral("Bridge/Count")).toInt(), 0);
}

void BridgeStoreTest::recordsAreCheckedFieldByField_data()
{
    QTest::addColumn<BridgeRecord>("record");
    QTest::addColumn<QString>("message");
    const BridgeRecord good = paneToListener("ok");
    QTest::newRow("fine") << good << QString();
    BridgeRecord r = good;
    r.name = QString(65, QLatin1Char('x'));
    QTest::newRow("long name") << r << "A bridge name has at most 64 characters.";
    r = good;
    r.ends[BridgeRecord::kA].pane.clear();
    QTest::newRow("no pane") << r << "End A: choose a pane.";
    r = good;
    r.ends[BridgeRecord::kB] = r.ends[BridgeRecord::kA];
    QTest::newRow("same pane twice") << r << "Both ends name the same pane.";
    r = good;
    r.ends[BridgeRecord::kB].listenAddress = QStringLiteral("my-host");
    QTest::newRow("listen on a name") << r << "End B: \"my-host\" is not an IP address to listen on.";
    r = good;
    r.ends[BridgeRecord::kB].allowlist = {QStringLiteral("10.0.0.0/8"), QStringLiteral("garbage")};
    QTest::newRow("bad allowlist entry")
        << r << "End B: the allowlist entry \"garbage\" is neither an address nor a subnet such as 192.168.1.0/24.";
    r = good;
    r.ends[BridgeRecord::kB].kind = BridgeEndSpec::Kind::Udp;
    r.ends[BridgeRecord::kB].udpTargets = {QStringLiteral("10.0.0.1:70000")};
    r.direction = BridgeDirection::AToB;
    QTest::newRow("bad UDP target")
        << r << "End B: \"10.0.0.1:70000\" is not a UDP target; write address:port, such as 192.168.1.20:5000.";
    r.ends[BridgeRecord::kB].udpTargets = {QStringLiteral("10.0.0.1:7000")};
    r.direction = BridgeDirection::Both;
    QTest::newRow("UDP as a source") << r << "End B only sends UDP datagrams; choose a direction toward it.";
    r.direction = BridgeDirection::AToB;
    r.framing[BridgeRecord::kAToB].maxFrameSize = 65508;
    QTest::newRow("frame larger than a datagram")
        << r << QString("A → B: a frame for UDP targets must fit one datagram, at most %L1 bytes.").arg(65507);
    r = good;
    r.framing[BridgeRecord::kBToA].mode = BridgeFramer::Mode::FixedLength;
    r.framing[BridgeRecord::kBToA].fixedLength = 20000;
    QTest::newRow("fixed longer than the maximum")
        << r << QString("B → A: the fixed length must be between 1 and the maximum frame size (%L1 bytes).").arg(16384);
    r = good;
    r.framing[BridgeRecord::kAToB].mode = BridgeFramer::Mode::Delimiter;
    r.framing[BridgeRecord::kAToB].delimiter.clear();
    QTest::newRow("empty delimiter") << r << "A → B: the delimiter must be 1 to 16 bytes.";
    r = good;
    r.framing[BridgeRecord::kAToB].mode = BridgeFramer::Mode::IdleGap;
    r.framing[BridgeRecord::kAToB].idleGapMs = 0;
    QTest::newRow("no idle gap") << r << QString("A → B: the idle gap must be between 1 and %L1 ms.").arg(3600000);
    r = good;
    r.egress.highWatermark = 1000;
    r.egress.lowWatermark = 100;
    QTest::newRow("a frame does not fit the queue")
        << r << QString("The high watermark must hold at least one whole frame (%L1 bytes).").arg(16384);
    r = good;
    r.flood.seconds = 0;
    QTest::newRow("no flood time") << r << "The flood guard's time must be between 1 and 120 s.";
}

void BridgeStoreTest::recordsAreCheckedFieldByField()
{
    QFETCH(BridgeRecord, record);
    QFETCH(QString, message);
    QCOMPARE(record.validate().errorText(), message);
}

QTEST_GUILESS_MAIN(BridgeStoreTest)
#include "tst_bridgestore.moc"
