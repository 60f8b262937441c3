// The Live Console's port commands on a real port session, with a socat
// pseudo-terminal pair as the device: what reaches the far end, what the
// port looks like after open, close and new parameters, and every refusal.
#include "cloud/consolecommandtable.h"
#include "cloud/consoleportcommands.h"
#include "support/ptypair.h"
#include "terminal/portsession.h"

#include <QJsonArray>
#include <QSerialPort>
#include <QtTest>

namespace {
constexpr int kWait = 5000;
}

class ConsolePortsTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void sendWritesThroughThePortsEncoding_data();
    void sendWritesThroughThePortsEncoding();
    void refusals_data();
    void refusals();
    void openAndCloseReportThePort();
    void setPortConfigTakesTheTextForms();
    void snapshotCarriesWhatTheOwnerAllows();

private:
    ConsoleOutcome run(const QString &command, QJsonObject payload);

    std::unique_ptr<PtyPair> m_pty;
    std::unique_ptr<PortSession> m_port;
    std::unique_ptr<PortSession> m_network;
    ConsoleConsent m_consent{true, true, false};
    ConsoleCommandTable m_table;
};

void ConsolePortsTest::init()
{
    m_pty = std::make_unique<PtyPair>();
    QVERIFY2(m_pty->start(), qPrintable(m_pty->errorText()));
    m_port = std::make_unique<PortSession>(1);
    ConnectionConfig config;
    config.portName = m_pty->pathA();
    config.baudRate = 115200;
    m_port->applySettings(config, {}, {});
    m_network = std::make_unique<PortSession>(2);
    ConnectionConfig tcp;
    tcp.mode = ConnectionMode::TcpClient;
    m_network->applySettings(tcp, {}, {});
    m_consent = {true, true, false};
    m_table = ConsoleCommandTable();
    m_table.setConsentSource([this] { return m_consent; });
    ConsolePortCommands::addTo(m_table, [this] { return QList<PortSession *>{m_port.get(), m_network.get()}; });
}

void ConsolePortsTest::cleanup()
{
    m_port.reset();
    m_network.reset();
    m_pty.reset();
}

ConsoleOutcome ConsolePortsTest::run(const QString &command, QJsonObject payload)
{
    if (!payload.contains("port_key"))
        payload.insert("port_key", m_port->portKey());
    return m_table.run(command, payload);
}

void ConsolePortsTest::sendWritesThroughThePortsEncoding_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QString>("encoding");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("ending");
    QTest::addColumn<QByteArray>("far");
    QTest::newRow("no ending") << "send_text" << "UTF-8" << "AT" << "none" << QByteArray("AT");
    QTest::newRow("each line ends as asked") << "send_text" << "UTF-8" << "a\nb" << "crlf" << QByteArray("a\r\nb\r\n");
    QTest::newRow("cr") << "send_text" << "UTF-8" << "x" << "cr" << QByteArray("x\r");
    QTest::newRow("port's own encoding") << "send_text" << "GBK" << QString::fromUtf8("状态") << "lf"
                                         << QByteArray("\xd7\xb4\xcc\xac\n");
    QTest::newRow("hex tokens") << "send_hex" << "UTF-8" << "0x01 a FF" << "none" << QByteArray("\x01\x0a\xff");
    QTest::newRow("hex then line ending") << "send_hex" << "UTF-8" << "4F4B" << "crlf" << QByteArray("OK\r\n");
}

void ConsolePortsTest::sendWritesThroughThePortsEncoding()
{
    QFETCH(QString, command);
    QFETCH(QString, encoding);
    QFETCH(QString, text);
    QFETCH(QString, ending);
    QFETCH(QByteArray, far);
    PaneOptions options;
    options.sendEncoding = encoding;
    QVERIFY(m_port->setOptions(options));
    QVERIFY(m_port->openConnection());
    QSerialPort device(m_pty->pathB());
    QVERIFY(device.open(QIODevice::ReadWrite));

    const ConsoleOutcome outcome = run(command, {{"text", text}, {"line_ending", ending}});
    QVERIFY2(outcome.succeeded, qPrintable(outcome.message));
    QCOMPARE(outcome.members, (QJsonObject{{"bytes", far.size()}}));
    QByteArray got;
    QTRY_COMPARE_WITH_TIMEOUT((got += device.readAll()), far, kWait);
    QCOMPARE(m_port->txCount(), quint64(far.size()));
}

void ConsolePortsTest::refusals_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QJsonObject>("payload");
    QTest::addColumn<QString>("state");  // "closed", "open", "transfer"
    QTest::addColumn<QString>("code");
    QTest::addColumn<QString>("message");
    const QJsonObject hello{{"text", "hello"}};
    QTest::newRow("empty text") << "send_text" << QJsonObject{{"text", ""}} << "open" << "invalid_payload"
                                << "empty payload";
    QTest::newRow("unknown port") << "send_text" << QJsonObject{{"text", "x"}, {"port_key", "p999999"}} << "open"
                                  << "port_not_found" << "no such port: p999999";
    QTest::newRow("closed port") << "send_text" << hello << "closed" << "port_closed" << "the port is not open";
    QTest::newRow("bad hex") << "send_hex" << QJsonObject{{"text", "4G"}} << "open" << "invalid_payload"
                             << "the text is not hexadecimal bytes";
    QTest::newRow("bad line ending") << "send_text" << QJsonObject{{"text", "x"}, {"line_ending", "crcr"}} << "open"
                                     << "invalid_payload" << "unknown line_ending: crcr";
    QTest::newRow("send during a transfer") << "send_text" << hello << "transfer" << "port_busy"
                                            << "a file transfer is using this port";
    QTest::newRow("close during a transfer") << "close_port" << QJsonObject{} << "transfer" << "port_busy"
                                             << "a file transfer is using this port";
    QTest::newRow("parameters during a transfer") << "set_port_config" << QJsonObject{{"baud_rate", 9600}}
                                                  << "transfer" << "port_busy" << "a file transfer is using this port";
    QTest::newRow("bad parity") << "set_port_config" << QJsonObject{{"parity", "sometimes"}} << "open"
                                << "invalid_payload" << "invalid parity: sometimes";
    QTest::newRow("bad data bits") << "set_port_config" << QJsonObject{{"data_bits", 9}} << "open"
                                   << "invalid_payload" << "invalid data_bits: 9";
    QTest::newRow("no parameters") << "set_port_config" << QJsonObject{} << "open" << "invalid_payload"
                                   << "no serial parameters given";
}

void ConsolePortsTest::refusals()
{
    QFETCH(QString, command);
    QFETCH(QJsonObject, payload);
    QFETCH(QString, state);
    QFETCH(QString, code);
    QFETCH(QString, message);
    if (state != "closed")
        QVERIFY(m_port->openConnection());
    if (state == "transfer")
        m_port->setTransferActive(true);
    const ConnectionConfig before = m_port->config();
    const ConsoleOutcome outcome = run(command, payload);
    QVERIFY(!outcome.succeeded);
    QCOMPARE(outcome.errorCode, code);
    QCOMPARE(outcome.message, message);
    // A refusal changes nothing.
    QCOMPARE(m_port->config(), before);
    QCOMPARE(m_port->isStarted(), state != "closed");
    QCOMPARE(m_port->txCount(), quint64(0));
    m_port->setTransferActive(false);
}

void ConsolePortsTest::openAndCloseReportThePort()
{
    QSignalSpy state(m_port.get(), &PortSession::stateChanged);
    ConsoleOutcome opened = run("open_port", {});
    QVERIFY2(opened.succeeded, qPrintable(opened.message));
    QVERIFY(m_port->isConnectionOpen());
    QVERIFY(!state.isEmpty());  // the pane follows as after its own button
    QCOMPARE(opened.members.value("port").toObject(), m_port->snapshotEntry());
    QVERIFY(opened.members.value("port")["open"].toBool());
    // Opening an open port is no failure.
    QVERIFY(run("open_port", {}).succeeded);

    const ConsoleOutcome closed = run("close_port", {});
    QVERIFY(closed.succeeded);
    QVERIFY(!m_port->isStarted());
    QCOMPARE(closed.members.value("port")["open"].toBool(), false);

    // A port that cannot open says why.
    m_pty->terminate();
    const ConsoleOutcome failed = run("open_port", {});
    QVERIFY(!failed.succeeded);
    QCOMPARE(failed.errorCode, QString("internal_error"));
    QVERIFY(!failed.message.isEmpty());
}

void ConsolePortsTest::setPortConfigTakesTheTextForms()
{
    QVERIFY(m_port->openConnection());
    QSignalSpy configChanged(m_port.get(), &PortSession::configChanged);
    const ConsoleOutcome outcome = run("set_port_config", {{"baud_rate", 57600},
                                                           {"data_bits", 8},
                                                           {"parity", "odd"},
                                                           {"stop_bits", 2},
                                                           {"flow_control", "rtscts"}});
    QVERIFY2(outcome.succeeded, qPrintable(outcome.message));
    QCOMPARE(m_port->config().baudRate, 57600);
    QCOMPARE(m_port->config().parity, QSerialPort::OddParity);
    QCOMPARE(m_port->config().stopBits, QSerialPort::TwoStop);
    QCOMPARE(m_port->config().flowControl, QSerialPort::HardwareControl);
    QCOMPARE(configChanged.size(), 1);  // the pane's form shows it
    const QJsonObject port = outcome.members.value("port").toObject();
    QCOMPARE(port.value("baud_rate").toInt(), 57600);
    QCOMPARE(port.value("parity").toString(), QString("odd"));
    QCOMPARE(port.value("stop_bits").toDouble(), 2.0);
    QCOMPARE(port.value("flow_control").toString(), QString("rtscts"));

    // Only a serial port has parameters.
    const ConsoleOutcome network = run("set_port_config", {{"port_key", m_network->portKey()}, {"baud_rate", 9600}});
    QCOMPARE(network.errorCode, QString("not_serial"));
    QCOMPARE(network.message, QString("only a serial port has parameters"));
}

void ConsolePortsTest::snapshotCarriesWhatTheOwnerAllows()
{
    m_consent = {true, false, true};
    const QJsonArray entries = ConsolePortCommands::entries({m_port.get(), nullptr, m_network.get()}, m_consent);
    QCOMPARE(entries.size(), 2);
    QCOMPARE(entries.at(0)["capabilities"].toArray(), (QJsonArray{"send", "open_relay"}));
    QCOMPARE(entries.at(1)["port_key"].toString(), m_network->portKey());
    QCOMPARE(ConsolePortCommands::entry(*m_port, {})["capabilities"].toArray(), QJsonArray());
}

QTEST_GUILESS_MAIN(ConsolePortsTest)
#include "tst_consoleports.moc"
