// A port session (no widget) on a remote serial port: ser2net serving one end
// of a socat pty pair whose other end the test holds, and a plain TCP echo
// server standing in for a device that speaks no Telnet.
#include "connection/connectioncontroller.h"
#include "support/serveddevice.h"
#include "terminal/portsession.h"

#include <QProcess>
#include <QRegularExpression>
#include <QSerialPort>
#include <QTcpServer>
#include <QTcpSocket>
#include <QtTest>

namespace {

constexpr int kWait = 5000;

const QString kAccepted = QStringLiteral("The remote port accepted serial parameter control.");
const QString kTransparent = QStringLiteral("The remote is not an RFC 2217 server; continuing as transparent TCP. "
                                            "The handshake bytes may have reached the remote serial line.");
const QByteArray kOffer = QByteArray::fromHex("fffb2c fffb00 fffd00 fffb03 fffd03");

bool hasWord(const QString &line, const QString &word)
{
    return line.split(QRegularExpression(QStringLiteral("[\\s;]+")), Qt::SkipEmptyParts).contains(word);
}

int count(const QSignalSpy &spy, const QString &text)
{
    int n = 0;
    for (const QList<QVariant> &args : spy)
        n += args.at(0).toString() == text;
    return n;
}

// Everything the session received, and where it stood at each note.
struct Recorder
{
    explicit Recorder(PortSession &session)
    {
        QObject::connect(&session, &PortSession::rxTapped, &session, [this](const QByteArray &d) { bytes += d; });
        QObject::connect(&session, &PortSession::note, &session, [this](const QString &text) {
            notes.append(text);
            bytesAtNote.append(bytes.size());
        });
    }
    QByteArray afterNote(int index) const { return bytes.mid(bytesAtNote.at(index)); }

    QByteArray bytes;
    QStringList notes;
    QList<qsizetype> bytesAtNote;
};

} // namespace

class RemoteSerialSessionTest : public QObject
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

    void everyByteBothWaysAndBreak()
    {
        QVERIFY2(m_device->ser2net.start(m_device->pty.pathB(), Ser2netServer::Protocol::Rfc2217), qPrintable(m_device->ser2net.errorText()));
        PortSession session(1);
        session.applySettings(config(m_device->ser2net.port()), PaneOptions(), {});
        Recorder rx(session);
        QSignalSpy status(&session, &PortSession::statusMessage);
        QVERIFY(session.openConnection());
        // Sent before the connection is up: waits, goes out after the offer.
        const QByteArray data = ServedDevice::everyByte(32);
        QVERIFY(session.sendBytes(data));
        QTRY_VERIFY_WITH_TIMEOUT(rx.notes.contains(kAccepted), kWait);
        QVERIFY(count(status, kAccepted) == 1);

        QByteArray atFar;
        QTRY_VERIFY_WITH_TIMEOUT((atFar += m_device->far.readAll()).size() >= data.size(), kWait);
        QCOMPARE(atFar, data);
        m_device->far.write(data);
        QTRY_VERIFY_WITH_TIMEOUT(rx.bytes.size() >= data.size(), kWait);
        QCOMPARE(rx.bytes, data);
        QCOMPARE(session.rxCount(), quint64(data.size()));

        QVERIFY(session.sendBreak(true));
        QVERIFY(count(status, "Sent Break to the remote port; it is released when you let go.") == 1);
        QVERIFY(session.sendBreak(false));
        // DTR and RTS go out although a pty refuses them and ser2net stays
        // silent: data right behind still flows.
        session.setControlLine(true, false);
        session.setControlLine(false, false);
        QVERIFY(session.sendBytes("after the lines"));
        QTRY_VERIFY_WITH_TIMEOUT((atFar += m_device->far.readAll()).endsWith("after the lines"), kWait);
    }

    void parameterChangeReachesThePty_data()
    {
        QTest::addColumn<int>("baudRate");
        QTest::addColumn<int>("stopBits");
        QTest::addColumn<int>("parity");
        QTest::addColumn<QStringList>("words");
        QTest::newRow("baud") << 57600 << int(QSerialPort::OneStop) << int(QSerialPort::NoParity)
                              << QStringList{"-cstopb", "-parenb"};
        QTest::newRow("two stop bits") << 115200 << int(QSerialPort::TwoStop) << int(QSerialPort::NoParity)
                                       << QStringList{"cstopb"};
        QTest::newRow("odd parity") << 115200 << int(QSerialPort::OneStop) << int(QSerialPort::OddParity)
                                    << QStringList{"parodd", "-cstopb"};
        QTest::newRow("all three") << 4800 << int(QSerialPort::TwoStop) << int(QSerialPort::OddParity)
                                   << QStringList{"parodd", "cstopb"};
    }
    void parameterChangeReachesThePty()
    {
        QFETCH(int, baudRate);
        QFETCH(int, stopBits);
        QFETCH(int, parity);
        QFETCH(QStringList, words);
        QVERIFY2(m_device->ser2net.start(m_device->pty.pathB(), Ser2netServer::Protocol::Rfc2217), qPrintable(m_device->ser2net.errorText()));
        PortSession session(2);
        session.applySettings(config(m_device->ser2net.port()), PaneOptions(), {});
        Recorder rx(session);
        QVERIFY(session.openConnection());
        QTRY_VERIFY_WITH_TIMEOUT(rx.notes.contains(kAccepted), kWait);
        QTRY_VERIFY_WITH_TIMEOUT(rx.notes.contains("The remote port is now at 115200 baud."), kWait);

        ConnectionConfig edited = session.config();
        edited.baudRate = baudRate;
        edited.stopBits = QSerialPort::StopBits(stopBits);
        edited.parity = QSerialPort::Parity(parity);
        QVERIFY(session.setSerialParameters(edited));
        QCOMPARE(session.config(), edited);
        if (baudRate != 115200)
            QTRY_VERIFY_WITH_TIMEOUT(rx.notes.contains(QString("The remote port is now at %1 baud.").arg(baudRate)), kWait);
        QString line;
        QTRY_VERIFY2_WITH_TIMEOUT([&] {
            line = m_device->servedLineSettings();
            for (const QString &word : words)
                if (!hasWord(line, word))
                    return false;
            return line.contains(QString("speed %1 baud").arg(baudRate));
        }(), qPrintable(line), kWait);
    }

    void remoteSettingsAreAdopted()
    {
        QVERIFY2(m_device->ser2net.start(m_device->pty.pathB(), Ser2netServer::Protocol::Rfc2217), qPrintable(m_device->ser2net.errorText()));
        PortSession session(3);
        ConnectionConfig mine = config(m_device->ser2net.port());
        mine.useRemoteSerialConfig = true;
        mine.baudRate = 300;
        mine.dataBits = QSerialPort::Data5;
        mine.parity = QSerialPort::EvenParity;
        mine.stopBits = QSerialPort::TwoStop;
        mine.flowControl = QSerialPort::HardwareControl;
        session.applySettings(mine, PaneOptions(), {});
        Recorder rx(session);
        QSignalSpy changed(&session, &PortSession::configChanged);
        QSignalSpy saved(&session, &PortSession::settingsChanged);
        QVERIFY(session.openConnection());
        QTRY_COMPARE_WITH_TIMEOUT(session.config().flowControl, QSerialPort::NoFlowControl, kWait);
        QTRY_COMPARE_WITH_TIMEOUT(session.config().stopBits, QSerialPort::OneStop, kWait);
        QCOMPARE(session.config().baudRate, 115200);
        QCOMPARE(session.config().dataBits, QSerialPort::Data8);
        QCOMPARE(session.config().parity, QSerialPort::NoParity);
        QVERIFY(!changed.isEmpty() && !saved.isEmpty());
        QVERIFY(rx.notes.contains("The remote port is now at 115200 baud."));
        // Nothing of ours went out: the pty kept ser2net's own speed.
        QVERIFY(m_device->servedLineSettings().contains("speed 115200 baud"));

        // Editing while the remote keeps its own settings sends nothing.
        ConnectionConfig edited = session.config();
        edited.baudRate = 9600;
        QVERIFY(session.setSerialParameters(edited));
        QTest::qWait(300);
        QVERIFY(m_device->servedLineSettings().contains("speed 115200 baud"));
    }

    void plainTcpEchoServerIsTransparent()
    {
        QTcpServer device;
        QVERIFY(device.listen(QHostAddress::LocalHost, 0));
        QByteArray heard;
        connect(&device, &QTcpServer::newConnection, this, [&] {
            QTcpSocket *s = device.nextPendingConnection();
            connect(s, &QTcpSocket::readyRead, s, [s, &heard] {
                const QByteArray bytes = s->readAll();
                heard += bytes;
                s->write(bytes);
            });
        });
        PortSession session(4);
        session.applySettings(config(device.serverPort()), PaneOptions(), {});
        Recorder rx(session);
        QSignalSpy status(&session, &PortSession::statusMessage);
        QVERIFY(session.openConnection());
        QTRY_VERIFY_WITH_TIMEOUT(rx.notes.contains(kTransparent), kWait);
        QCOMPARE(rx.notes.count(kTransparent), 1);
        QVERIFY(count(status, kTransparent) == 1);
        // The echoed offer is the device's data now.
        QCOMPARE(rx.bytes, kOffer);

        QVERIFY(session.sendBytes(QByteArray("a\xff" "b", 3)));
        QTRY_COMPARE_WITH_TIMEOUT(heard, kOffer + QByteArray("a\xff" "b", 3), kWait);
        QTRY_COMPARE_WITH_TIMEOUT(rx.afterNote(0), QByteArray("a\xff" "b", 3), kWait);

        QVERIFY(!session.sendBreak(true));
        QVERIFY(count(status, "The remote peer did not accept RFC 2217 com-port control, so Break cannot be sent.") == 1);
    }

    void reconnectNegotiatesAfreshAndKeepsEveryByte()
    {
        QVERIFY2(m_device->ser2net.start(m_device->pty.pathB(), Ser2netServer::Protocol::Rfc2217), qPrintable(m_device->ser2net.errorText()));
        const quint16 port = m_device->ser2net.port();
        qint64 now = 0;
        PortSession session(5);
        session.setClock([&now] { return now; });
        session.applySettings(config(port), PaneOptions(), {});
        Recorder rx(session);
        QVERIFY(session.openConnection());
        QTRY_VERIFY_WITH_TIMEOUT(rx.notes.contains(kAccepted), kWait);

        // The far port is talking when the remote goes away.
        const QByteArray first = ServedDevice::everyByte(256);
        m_device->far.write(first);
        QTRY_VERIFY_WITH_TIMEOUT(!rx.bytes.isEmpty(), kWait);
        m_device->ser2net.stop();
        QTRY_VERIFY_WITH_TIMEOUT(session.isReconnecting(), kWait);
        QVERIFY(session.isStarted());
        // What the far port said into the void is not replayed later. The
        // rest of it may still be on its way through the line, so the
        // served end is read up to a mark sent behind it (falling bytes never
        // occur in the rising pattern).
        {
            const QByteArray mark("\xfe\xfd\xfc\xfb", 4);
            m_device->far.write(mark);
            QSerialPort serverSide;
            serverSide.setPortName(m_device->pty.pathB());
            QVERIFY2(serverSide.open(QIODevice::ReadWrite), qPrintable(serverSide.errorString()));
            QByteArray drained;
            QTRY_VERIFY_WITH_TIMEOUT((drained += serverSide.readAll()).contains(mark), kWait);
        }
        QVERIFY2(m_device->ser2net.start(m_device->pty.pathB(), Ser2netServer::Protocol::Rfc2217, port),
                 qPrintable(m_device->ser2net.errorText()));

        now += ReconnectPolicy::kIntervalMs;
        session.onReconnectTick();
        // Sent while the new connection is still coming up.
        const QByteArray outgoing = ServedDevice::everyByte(4);
        QVERIFY(session.sendBytes(outgoing));
        QTRY_COMPARE_WITH_TIMEOUT(rx.notes.count(kAccepted), 2, kWait);
        QTRY_VERIFY_WITH_TIMEOUT(!session.isReconnecting(), kWait);

        QByteArray atFar;
        QTRY_VERIFY_WITH_TIMEOUT((atFar += m_device->far.readAll()).size() >= outgoing.size(), kWait);
        QCOMPARE(atFar, outgoing);

        const int second = rx.notes.lastIndexOf(kAccepted);
        const QByteArray after = ServedDevice::everyByte(64);
        m_device->far.write(after);
        QTRY_VERIFY_WITH_TIMEOUT(rx.afterNote(second).size() >= after.size(), kWait);
        QTest::qWait(100);
        QCOMPARE(rx.afterNote(second), after);
    }

private:
    static ConnectionConfig config(quint16 port)
    {
        ConnectionConfig c;
        c.mode = ConnectionMode::RemoteSerialRfc2217;
        c.targetHost = QStringLiteral("127.0.0.1");
        c.targetPort = port;
        c.baudRate = 115200;
        return c;
    }

    std::unique_ptr<ServedDevice> m_device;
};

QTEST_GUILESS_MAIN(RemoteSerialSessionTest)
#include "tst_remoteserialsession.moc"
