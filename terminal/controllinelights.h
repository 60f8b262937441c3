#pragma once

#include <QWidget>

class LedIndicator;
class QLabel;
class QToolButton;

// The row of control-line buttons and data lights of a pane: DTR and RTS
// toggles, a Break button held for as long as the break should last, and
// lights for data sent and received.
class ControlLineLights : public QWidget
{
    Q_OBJECT

public:
    // What the pane's connection allows.
    enum class Availability {
        SerialPort,        // everything can be driven
        RtsByFlowControl,  // RTS/CTS flow control owns RTS
        NoSerialPort,      // a network connection has no control lines
        RemoteOwnConfig,   // a remote port left under its own configuration
        RemoteSerialPort,  // a remote port driven from here
        RelayedPort,       // a remote port through the Live Relay: data only
    };

    explicit ControlLineLights(QWidget *parent = nullptr);

    void setAvailability(Availability availability);
    Availability availability() const { return m_availability; }
    // Shows the levels without announcing a toggle.
    void setLevels(bool dtr, bool rts);
    void setLocked(bool locked);
    // The remote port's input lines (CTS, DSR, RI, CD), shown only for a
    // remote serial port.
    void setInputLevels(bool cts, bool dsr, bool ring, bool carrier);

    LedIndicator *txLight() const { return m_txLight; }
    LedIndicator *rxLight() const { return m_rxLight; }
    LedIndicator *ctsLight() const { return m_inputLights[0]; }
    LedIndicator *dsrLight() const { return m_inputLights[1]; }
    LedIndicator *ringLight() const { return m_inputLights[2]; }
    LedIndicator *carrierLight() const { return m_inputLights[3]; }

Q_SIGNALS:
    void dtrToggled(bool on);
    void rtsToggled(bool on);
    void breakPressed();
    void breakReleased();

private:
    void refreshTips();

    QToolButton *m_dtrButton;
    QToolButton *m_rtsButton;
    QToolButton *m_breakButton;
    LedIndicator *m_txLight;
    LedIndicator *m_rxLight;
    LedIndicator *m_inputLights[4];
    QWidget *m_inputRow;
    Availability m_availability = Availability::SerialPort;
    bool m_locked = false;
};
