#pragma once

#include "common/monotonicclock.h"
#include "connection/rfc2217clientsession.h"
#include "connection/serialporttransport.h"
#include "connection/streamclienttransport.h"

#include <QByteArray>

#include <optional>

class QTimer;

// A serial port on another machine, reached over a TCP connection that
// speaks Telnet with serial port control: the stream transport with an
// Rfc2217ClientSession between its socket and the pane. Every connection
// starts with a fresh session (so a reconnect negotiates anew); what the
// socket delivers is reduced to payload before anyone sees it, and what the
// pane sends is escaped as the negotiated mode needs. Parameter changes and
// control lines are forwarded when the remote accepted control; nothing here
// waits for the remote's replies (some never come).
class Rfc2217Transport : public StreamClientTransport
{
    Q_OBJECT

public:
    using SerialParameters = Rfc2217ClientSession::SerialParameters;
    using Negotiation = Rfc2217ClientSession::Negotiation;
    using RemoteSetting = Rfc2217ClientSession::Event::Kind;

    // Data the pane sends before the socket connects waits here, to be
    // escaped after the offer. Past this size further sends are refused
    // rather than growing without end.
    static constexpr qsizetype kMaxWaitingBytes = 1024 * 1024;

    explicit Rfc2217Transport(QObject *parent = nullptr);
    ~Rfc2217Transport() override;

    void setClock(MonotonicClock clock) { m_clock = std::move(clock); }
    // What the next connection asks for: the pane's parameters, and whether
    // it adopts the remote's own instead of pushing these.
    void setConfiguration(const SerialParameters &parameters, bool useRemoteSerialConfig);

    void close() override;
    bool send(const QByteArray &data, const SendTarget &target) override;
    qint64 bytesToWrite() const override;
    QByteArray takeAvailable() override;

    // Sends the parameters that changed since the remote last confirmed
    // them (with control accepted and the pane's own configuration).
    void setSerialParameters(const SerialParameters &parameters);
    // Returns whether the request went out: only with control accepted.
    bool setControlLine(SerialPortTransport::ControlLine line, bool on);
    bool breakLevel() const { return m_break; }

    // Undecided while not connected.
    Negotiation negotiation() const;

Q_SIGNALS:
    // A text for the user: the outcome of the negotiation, a parameter the
    // remote reports, a line fault.
    void notice(const QString &text);
    // What the remote port reports for one of its settings (value as in
    // Rfc2217ClientSession::Event).
    void remoteSetting(Rfc2217ClientSession::Event::Kind kind, qint64 value);
    void lineStateChanged(quint8 lineState);
    void modemStateChanged(quint8 modemState);

private:
    void onConnected();
    void onTick();
    void forget();
    qint64 now() const { return m_clock(); }
    // Writes the step's bytes, acts on its events and re-arms the timer;
    // returns the payload that came after the last event (payload before an
    // event is pushed through received() first, to keep the order).
    QByteArray apply(Rfc2217ClientSession::Step &&step);

    MonotonicClock m_clock = systemMonotonicClock();
    SerialParameters m_parameters;
    bool m_useRemoteSerialConfig = false;
    std::optional<Rfc2217ClientSession> m_session;
    QByteArray m_waiting;
    bool m_break = false;
    QTimer *m_timer;
};
