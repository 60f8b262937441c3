#pragma once

#include <QProcess>
#include <QString>
#include <QTemporaryDir>

// ser2net serving one serial device on a loopback port, started and stopped
// by a test or a benchmark. The accepter speaks Telnet with serial port
// control, plain Telnet, or raw TCP.
class Ser2netServer
{
public:
    enum class Protocol { Rfc2217, Telnet, RawTcp };

    Ser2netServer() = default;
    ~Ser2netServer();
    Ser2netServer(const Ser2netServer &) = delete;
    Ser2netServer &operator=(const Ser2netServer &) = delete;

    // Starts on a free port (port 0) or the given one and waits, at most a
    // few seconds, until it listens there (seen in the kernel's socket
    // table, so that the test's own connection is ser2net's first). On failure errorText() says
    // why.
    bool start(const QString &device, Protocol protocol, quint16 port = 0);
    void stop();
    bool isRunning() const { return m_process.state() == QProcess::Running; }

    quint16 port() const { return m_port; }
    QString errorText() const { return m_error; }

    static quint16 freeLoopbackPort();

private:
    bool waitUntilListening();
    bool isListening() const;

    QTemporaryDir m_dir;
    QProcess m_process;
    quint16 m_port = 0;
    QString m_error;
};
