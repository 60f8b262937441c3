// The remote serial port client against real servers on loopback: ser2net
// serving one end of a socat pty pair (the test holds the other end), ser2net
// as plain Telnet, and plain TCP servers of the test's own. A small driver
// stands where the connection controller will: it moves bytes between the
// socket and the session and keeps the session's one timer.
#include "connection/rfc2217clientsession.h"
#include "support/serveddevice.h"

#include <QElapsedTimer>
#include <QProcess>
#include <QSerialPort>
#include <QStandardPaths>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTimer>
#include <QtTest>

using Session = Rfc2217ClientSession;
using SKind = Session::Event::Kind;
using Negotiation = Session::Negotiation;

namespace {

constexpr int kWaitMs = 5000;

const QByteArray kOffer = QByteArray::fromHex("fffb2c fffb00 fffd00 fffb03 fffd03");

// The far port's line settings word by word ("speed", "19200", "cstopb", ...).
QStringList sttyWords(const ServedDevice &device)
{
    return device.servedLineSettings().split(QRegularExpression(QStringLiteral("[\\s;]+")), Qt::SkipEmptyParts);
}

// A TCP server of our own that records what it receives and, if asked,
// sends it straight back.
class PlainServer : public QObject
{
public:
    explicit PlainServer(bool echo)
        : m_echo(echo)
    {
        m_server.listen(QHostAddress::LocalHost, 0);
        QObject::connect(&m_server, &QTcpServer::newConnection, this, [this] {
            while (QTcpSocket *socket = m_server.nextPendingConnection()) {
                QObject::connect(socket, &QTcpSocket::readyRead, this, [this, socket] {
                    const QByteArray bytes = socket->readAll();
                    received += bytes;
                    if (m_echo)
                        socket->write(bytes);
                });
            }
        });
    }
    quint16 port() const { return m_server.serverPort(); }

    QByteArray received;

private:
    QTcpServer m_server;
    bool m_echo;
};

} // namespace

// Where the connection controller will stand: socket in, session, socket out.
class SessionDriver : public QObject
{
    Q_OBJECT
public:
    SessionDriver(const Session::SerialParameters &parameters, bool useRemoteConfig)
        : m_session(parameters, useRemoteConfig)
    {
        m_clock.start();
        m_timer.setSingleShot(true);
        connect(&m_timer, &QTimer::timeout, this, [this] { apply(m_session.tick(now())); });
    }

    void connectTo(quint16 port)
    {
        m_socket = new QTcpSocket(this);
        connect(m_socket, &QTcpSocket::connected, this, [this] { apply(m_session.start(now())); });
        connect(m_socket, &QTcpSocket::readyRead, this, [this] { apply(m_session.feed(m_socket->readAll(), now())); });
        m_socket->connectToHost(QHostAddress::LocalHost, port);
    }

    void disconnectFromRemote()
    {
        m_timer.stop();
        m_socket->abort();
        m_socket->deleteLater();
        m_socket = nullptr;
    }

    void send(const QByteArray &data) { apply(m_session.send(data, now())); }
    QByteArray setSerialParameters(const Session::SerialParameters &p) { return apply(m_session.setSerialParameters(p)); }
    QByteArray setBreak(bool on) { return apply(m_session.setBreak(on)); }
    QByteArray setDtr(bool on) { return apply(m_session.setDtr(on)); }
    QByteArray setRts(bool on) { return apply(m_session.setRts(on)); }

    Negotiation negotiation() const { return m_session.negotiation(); }

    QList<Session::Event> ofKind(SKind kind) const
    {
        QList<Session::Event> out;
        for (const Session::Event &event : events)
            if (event.kind == kind)
                out.append(event);
        return out;
    }
    bool heard(SKind kind, qint64 value) const
    {
        for (const Session::Event &event : events)
            if (event.kind == kind && event.value == value)
                return true;
        return false;
    }

    QList<Session::Event> events;
    QByteArray received;

private:
    qint64 now() const { return m_clock.elapsed(); }

    QByteArray apply(Session::Step &&step)
    {
        if (m_socket && !step.write.isEmpty())
            m_socket->write(step.write);
        for (const Session::Event &event : std::as_const(step.events)) {
            if (event.kind == SKind::Payload)
                received += event.bytes;
            else
                events.append(event);
        }
        if (step.wantsWake())
            m_timer.start(int(qMax<qint64>(0, step.wakeAtMs - now())));
        else
            m_timer.stop();
        return step.write;
    }

    Session m_session;
    QTcpSocket *m_socket = nullptr;
    QTimer m_timer;
    QElapsedTimer m_clock;
};

class Rfc2217PeerTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        m_device = std::make_unique<ServedDevice>();
        QString error;
        QVERIFY2(m_device->start(&error), qPrintable(error));
    }
    void cleanup() { m_device.reset(); }

    void everyByteBothWaysAndAgainAfterReconnecting()
    {
        QVERIFY2(m_device->ser2net.start(m_device->pty.pathB(), Ser2netServer::Protocol::Rfc2217), qPrintable(m_device->ser2net.errorText()));
        SessionDriver driver({}, false);
        const QByteArray data = ServedDevice::everyByte(64);
        for (int connection = 1; connection <= 2; ++connection) {
            driver.connectTo(m_device->ser2net.port());
            QTRY_COMPARE_WITH_TIMEOUT(driver.ofKind(SKind::ModeDecided).size(), connection, kWaitMs);
            QCOMPARE(driver.negotiation(), Negotiation::Rfc2217);
            QCOMPARE(driver.ofKind(SKind::ModeDecided).last().text, QStringLiteral("The remote port accepted serial parameter control."));

            driver.send(data);
            QByteArray atFar;
            QTRY_VERIFY_WITH_TIMEOUT((atFar += m_device->far.readAll()).size() >= data.size(), kWaitMs);
            QCOMPARE(atFar, data);

            driver.received.clear();
            m_device->far.write(data);
            QTRY_VERIFY_WITH_TIMEOUT(driver.received.size() >= data.size(), kWaitMs);
            QCOMPARE(driver.received, data);

            driver.disconnectFromRemote();
        }
    }

    void parametersReachTheFarPort()
    {
        QVERIFY2(m_device->ser2net.start(m_device->pty.pathB(), Ser2netServer::Protocol::Rfc2217), qPrintable(m_device->ser2net.errorText()));
        const Session::SerialParameters first{19200, QSerialPort::Data7, QSerialPort::OddParity, QSerialPort::TwoStop,
                                              QSerialPort::NoFlowControl};
        SessionDriver driver(first, false);
        driver.connectTo(m_device->ser2net.port());
        QTRY_VERIFY_WITH_TIMEOUT(driver.heard(SKind::RemoteBaudRate, 19200), kWaitMs);
        QTRY_VERIFY_WITH_TIMEOUT(driver.heard(SKind::RemoteStopBits, QSerialPort::TwoStop), kWaitMs);
        QVERIFY(driver.heard(SKind::RemoteDataBits, QSerialPort::Data7));
        QVERIFY(driver.heard(SKind::RemoteParity, QSerialPort::OddParity));
        QVERIFY(driver.heard(SKind::RemoteFlowControl, QSerialPort::NoFlowControl));
        QCOMPARE(driver.ofKind(SKind::RemoteBaudRate).first().text, QStringLiteral("The remote port is now at 19200 baud."));

        // The pty keeps speed, stop bits and the odd-parity flag; this kernel
        // pins a pty to 8 bits without a parity bit, so for those the
        // remote's confirmation above is the proof.
        QStringList line = sttyWords(*m_device);
        QVERIFY2(line.join(u' ').contains(QStringLiteral("speed 19200 baud")), qPrintable(line.join(u' ')));
        QVERIFY2(line.contains(QStringLiteral("cstopb")), qPrintable(line.join(u' ')));
        QVERIFY2(line.contains(QStringLiteral("parodd")), qPrintable(line.join(u' ')));

        // Data bits stay: only the three changes go out.
        driver.events.clear();
        const Session::SerialParameters second{57600, QSerialPort::Data7, QSerialPort::EvenParity, QSerialPort::OneStop,
                                               QSerialPort::NoFlowControl};
        const QByteArray sent = driver.setSerialParameters(second);
        QCOMPARE(sent.count(QByteArray::fromHex("fffa2c")), 3);
        QCOMPARE(sent.left(4), QByteArray::fromHex("fffa2c01"));
        QTRY_VERIFY_WITH_TIMEOUT(driver.heard(SKind::RemoteStopBits, QSerialPort::OneStop), kWaitMs);
        QVERIFY(driver.heard(SKind::RemoteBaudRate, 57600));
        line = sttyWords(*m_device);
        QVERIFY2(line.join(u' ').contains(QStringLiteral("speed 57600 baud")), qPrintable(line.join(u' ')));
        QVERIFY2(line.contains(QStringLiteral("-cstopb")), qPrintable(line.join(u' ')));
        QVERIFY2(line.contains(QStringLiteral("-parodd")), qPrintable(line.join(u' ')));
        QVERIFY(driver.setSerialParameters(second).isEmpty());
    }

    void remoteConfigurationIsReported()
    {
        QVERIFY2(m_device->ser2net.start(m_device->pty.pathB(), Ser2netServer::Protocol::Rfc2217), qPrintable(m_device->ser2net.errorText()));
        SessionDriver driver(Session::SerialParameters{300, QSerialPort::Data5, QSerialPort::EvenParity,
                                                       QSerialPort::TwoStop, QSerialPort::HardwareControl},
                             true);
        driver.connectTo(m_device->ser2net.port());
        QTRY_VERIFY_WITH_TIMEOUT(driver.heard(SKind::RemoteFlowControl, QSerialPort::NoFlowControl), kWaitMs);
        QVERIFY(driver.heard(SKind::RemoteBaudRate, 115200));
        QCOMPARE(driver.ofKind(SKind::RemoteBaudRate).first().text, QStringLiteral("The remote port is now at 115200 baud."));
        QVERIFY(driver.heard(SKind::RemoteDataBits, QSerialPort::Data8));
        QVERIFY(driver.heard(SKind::RemoteParity, QSerialPort::NoParity));
        QVERIFY(driver.heard(SKind::RemoteStopBits, QSerialPort::OneStop));
        // The pane's own values never went out.
        QVERIFY(sttyWords(*m_device).join(u' ').contains(QStringLiteral("speed 115200 baud")));
    }

    void breakAndControlLinesDoNotWait()
    {
        QVERIFY2(m_device->ser2net.start(m_device->pty.pathB(), Ser2netServer::Protocol::Rfc2217), qPrintable(m_device->ser2net.errorText()));
        SessionDriver driver({}, false);
        driver.connectTo(m_device->ser2net.port());
        QTRY_COMPARE_WITH_TIMEOUT(driver.negotiation(), Negotiation::Rfc2217, kWaitMs);

        QCOMPARE(driver.setBreak(true), QByteArray::fromHex("fffa2c0505fff0"));
        QTRY_VERIFY_WITH_TIMEOUT(driver.heard(SKind::RemoteBreak, 1), kWaitMs);
        QCOMPARE(driver.setBreak(false), QByteArray::fromHex("fffa2c0506fff0"));

        // A pty refuses DTR and RTS and ser2net never answers: data right
        // behind the requests still flows.
        QVERIFY(!driver.setDtr(false).isEmpty());
        QVERIFY(!driver.setRts(false).isEmpty());
        QVERIFY(!driver.setDtr(true).isEmpty());
        QVERIFY(!driver.setRts(true).isEmpty());
        driver.send("after the lines");
        QByteArray atFar;
        QTRY_VERIFY_WITH_TIMEOUT((atFar += m_device->far.readAll()).endsWith("after the lines"), kWaitMs);
        m_device->far.write("and back");
        QTRY_VERIFY_WITH_TIMEOUT(driver.received.endsWith("and back"), kWaitMs);
    }

    void plainTelnetServer()
    {
        QVERIFY2(m_device->ser2net.start(m_device->pty.pathB(), Ser2netServer::Protocol::Telnet), qPrintable(m_device->ser2net.errorText()));
        SessionDriver driver({}, false);
        driver.connectTo(m_device->ser2net.port());
        QTRY_COMPARE_WITH_TIMEOUT(driver.ofKind(SKind::ModeDecided).size(), 1, kWaitMs);
        QCOMPARE(driver.negotiation(), Negotiation::PlainTelnet);
        QCOMPARE(driver.ofKind(SKind::ModeDecided).last().text,
                 QStringLiteral("The remote does not support serial parameter control; continuing as plain Telnet."));
        QVERIFY(driver.setSerialParameters({57600}).isEmpty());
        QVERIFY(driver.setDtr(false).isEmpty());

        const QByteArray data = ServedDevice::everyByte(8);
        driver.send(data);
        QByteArray atFar;
        QTRY_VERIFY_WITH_TIMEOUT((atFar += m_device->far.readAll()).size() >= data.size(), kWaitMs);
        QCOMPARE(atFar, data);
        m_device->far.write(data);
        QTRY_VERIFY_WITH_TIMEOUT(driver.received.size() >= data.size(), kWaitMs);
        QCOMPARE(driver.received, data);
    }

    void plainTcpServer_data()
    {
        QTest::addColumn<bool>("echo");
        QTest::newRow("echoing") << true;
        QTest::newRow("silent") << false;
    }
    void plainTcpServer()
    {
        QFETCH(bool, echo);
        PlainServer server(echo);
        QVERIFY(server.port() != 0);
        SessionDriver driver({}, false);
        QElapsedTimer clock;
        clock.start();
        driver.connectTo(server.port());
        QTRY_COMPARE_WITH_TIMEOUT(driver.ofKind(SKind::ModeDecided).size(), 1, kWaitMs);
        QCOMPARE(driver.negotiation(), Negotiation::TransparentTcp);
        QCOMPARE(driver.ofKind(SKind::ModeDecided).last().text,
                 QStringLiteral("The remote is not an RFC 2217 server; continuing as transparent TCP. "
                                "The handshake bytes may have reached the remote serial line."));
        // Usable at once: the decision takes no more than the short wait.
        QVERIFY2(clock.elapsed() < 2000, qPrintable(QString::number(clock.elapsed())));

        driver.send(QByteArray("\xff", 1));
        QTRY_COMPARE_WITH_TIMEOUT(server.received, kOffer + QByteArray("\xff", 1), kWaitMs);
        QVERIFY(driver.setBreak(true).isEmpty());
        if (echo)
            QTRY_COMPARE_WITH_TIMEOUT(driver.received, kOffer + QByteArray("\xff", 1), kWaitMs);
    }

private:
    std::unique_ptr<ServedDevice> m_device;
};

QTEST_GUILESS_MAIN(Rfc2217PeerTest)
#include "tst_rfc2217peer.moc"
