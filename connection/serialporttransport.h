#pragma once

#include "common/result.h"
#include "connection/connectionconfig.h"
#include "connection/porttransport.h"
#include "connection/serialparameters.h"

#include <QSerialPort>

// A local serial port: open and close with the record's settings, the
// control lines (DTR, RTS, Break) with their stored levels, parameter
// changes on an open port, and recognising a device that went away.
class SerialPortTransport : public PortTransport
{
    Q_OBJECT

public:
    enum class ControlLine { Dtr = 0, Rts = 1, Break = 2 };
    Q_ENUM(ControlLine)

    using Parameters = SerialParameters;

    explicit SerialPortTransport(QObject *parent = nullptr);
    ~SerialPortTransport() override;

    // portName overrides the record's; silent keeps an open failure out of
    // errorOccurred and statusMessage (it is still logged).
    bool open(const ConnectionConfig &settings, const QString &portName = {}, bool silent = false);
    // Closes with the close report under portName (the open name if empty).
    void closeAs(const QString &portName);
    void close() override { closeAs({}); }
    bool isOpen() const override;
    // Writing to a closed port opens it first: deliberate.
    bool write(const QByteArray &data, const ConnectionConfig &settings, const QString &portName = {});
    bool send(const QByteArray &data, const SendTarget &target) override;
    qint64 bytesToWrite() const override;
    QByteArray takeAvailable() override;

    QString portName() const;
    bool setControlLine(ControlLine line, bool on);
    bool dtrLevel() const { return m_dtr; }
    bool rtsLevel() const { return m_rts; }
    bool breakLevel() const { return m_break; }
    void setStoredLineLevels(bool dtr, bool rts);

    // Forgets what was received and not yet read, and what waits to be sent.
    void purge(bool received, bool toSend);
    // CTS 0x10, DSR 0x20, RI 0x40 and CD 0x80 as the port reports them; 0
    // where it cannot say (a pty has no modem lines).
    quint8 modemLines() const;

    Result applyParameters(const Parameters &parameters);
    Parameters currentParameters() const;
    // What the device itself holds, read back from it where the system
    // allows (some drivers, a pty among them, keep 8 data bits whatever
    // they are told and say nothing); the rate is the port's.
    Parameters deviceParameters() const;

    void setWatchForLoss(bool on) { m_watchForLoss = on; }
    bool watchesForLoss() const { return m_watchForLoss; }

Q_SIGNALS:
    void serialPortLost();

protected:
    void applyReadPaused(bool paused) override;
    bool hasWaitingData() const override;

private:
    void onError(QSerialPort::SerialPortError error);
    void handleLostPort();
    bool deviceVanished() const;
    bool applyDtr(bool on, bool withMessages);
    bool applyRts(bool on, bool withMessages);

    QSerialPort *m_serial;
    ConnectionConfig m_lastSettings;
    bool m_dtr = true;
    bool m_rts = true;
    bool m_break = false;
    bool m_watchForLoss = true;
    bool m_handlingLoss = false;
    int m_readErrorStreak = 0;
};
