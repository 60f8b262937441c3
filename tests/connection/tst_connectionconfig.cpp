#include "connection/connectionconfig.h"
#include "connection/serialparametertext.h"

#include <QtTest>

class ConnectionConfigTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void tagsAndLabels_data();
    void tagsAndLabels();
    void defaults();
    void comparison();
    void textForms();
};

void ConnectionConfigTest::tagsAndLabels_data()
{
    QTest::addColumn<int>("mode");
    QTest::addColumn<QString>("tag");
    QTest::newRow("0") << 0 << "ser";
    QTest::newRow("1") << 1 << "tcps";
    QTest::newRow("2") << 2 << "tcpc";
    QTest::newRow("3 unassigned") << 3 << "port";
    QTest::newRow("4") << 4 << "udps";
    QTest::newRow("5") << 5 << "udpc";
    QTest::newRow("6") << 6 << "udpg";
    QTest::newRow("7") << 7 << "rser";
    QTest::newRow("8") << 8 << "crly";
    QTest::newRow("9 above range") << 9 << "port";
    QTest::newRow("negative") << -1 << "port";
}

void ConnectionConfigTest::tagsAndLabels()
{
    QFETCH(int, mode);
    QFETCH(QString, tag);
    QCOMPARE(connectionModeTag(connectionModeFromInt(mode)), tag);
    QCOMPARE(connectionLabel(connectionModeFromInt(mode), 3), tag + "-3");
}

void ConnectionConfigTest::defaults()
{
    const ConnectionConfig c;
    QCOMPARE(c.mode, ConnectionMode::Serial);
    QCOMPARE(c.baudRate, 9600);
    QCOMPARE(int(c.dataBits), 8);
    QCOMPARE(int(c.parity), 0);
    QCOMPARE(int(c.stopBits), 1);
    QCOMPARE(int(c.flowControl), 0);
    QVERIFY(c.dtrOn && c.rtsOn);
    QCOMPARE(c.targetHost, QString("127.0.0.1"));
    QCOMPARE(c.recentTargetHosts, QStringList{"127.0.0.1"});
    QCOMPARE(c.targetPort, 6000);
    QCOMPARE(c.udpLocalPort, quint16(60001));
    QCOMPARE(c.udpServerPort, quint16(60000));
    // The persisted codes are the serial library's.
    QCOMPARE(int(QSerialPort::EvenParity), 2);
    QCOMPARE(int(QSerialPort::MarkParity), 5);
    QCOMPARE(int(QSerialPort::OneAndHalfStop), 3);
    QCOMPARE(int(QSerialPort::SoftwareControl), 2);
    QVERIFY(isStreamMode(ConnectionMode::TcpClient) && isStreamMode(ConnectionMode::RemoteSerialRfc2217));
    QVERIFY(!isStreamMode(ConnectionMode::TcpServer));
    QVERIFY(isUdpMode(ConnectionMode::UdpGeneric) && !isUdpMode(ConnectionMode::Serial));
}

void ConnectionConfigTest::comparison()
{
    ConnectionConfig a;
    ConnectionConfig b = a;
    QVERIFY(a == b);
    QVERIFY(!a.differsOnlyInSerialParameters(b));

    b.parity = QSerialPort::OddParity;
    b.baudRate = 250000;
    QVERIFY(a != b);
    QVERIFY(a.differsOnlyInSerialParameters(b));

    b.portName = "COM9";  // another port needs a reopen
    QVERIFY(!a.differsOnlyInSerialParameters(b));

    ConnectionConfig c = a;
    c.rtsOn = false;  // a control line level is not a serial parameter
    QVERIFY(a != c);
    QVERIFY(!a.differsOnlyInSerialParameters(c));

    ConnectionConfig d = a;
    d.relayGuestName = "guest";
    QVERIFY(a != d);
}

void ConnectionConfigTest::textForms()
{
    using namespace SerialParameterText;
    for (auto p : {QSerialPort::NoParity, QSerialPort::EvenParity, QSerialPort::OddParity,
                   QSerialPort::MarkParity, QSerialPort::SpaceParity})
        QCOMPARE(parityFromWord(parityWord(p)), std::optional(p));
    QCOMPARE(parityWord(QSerialPort::SpaceParity), QString("space"));
    QCOMPARE(parityDisplayName(QSerialPort::MarkParity), QString("Mark"));
    QVERIFY(!parityFromWord("bogus").has_value());
    QCOMPARE(flowControlWord(QSerialPort::HardwareControl), QString("rtscts"));
    QCOMPARE(flowControlFromWord("xonxoff"), std::optional(QSerialPort::SoftwareControl));
    QCOMPARE(flowControlDisplayName(QSerialPort::SoftwareControl), QString("XON/XOFF"));
    QCOMPARE(flowControlDisplayName(QSerialPort::HardwareControl), QString("RTS/CTS"));
    QCOMPARE(stopBitsNumber(QSerialPort::OneAndHalfStop), 1.5);
    QCOMPARE(stopBitsFromNumber(2), std::optional(QSerialPort::TwoStop));
    QVERIFY(!stopBitsFromNumber(3).has_value());
}

QTEST_GUILESS_MAIN(ConnectionConfigTest)
#include "tst_connectionconfig.moc"
