#pragma once

#include "bridge/bridgepath.h"
#include "connection/rfc2217serversession.h"

#include <memory>
#include <unordered_map>

class PortSession;
class QTimer;

// A pane's serial port shared over the network: end A is a listener whose
// clients each get an Rfc2217ServerSession (serial port control, plain
// Telnet or a raw stream), end B the pane. What clients send goes to the
// line through the pane's send path (the pane shows it as sent data); what
// the line receives goes to every client. Settings and control lines a
// client asks for are applied to the pane's port and answered with what the
// port then holds.
//
// Nothing is dropped. Toward the clients: a client that cannot take data
// now (still being identified, suspended by FLOWCONTROL-SUSPEND, or holding
// kClientWindowBytes unsent) keeps what the line delivered meanwhile and the
// pane's reading is held until it has taken it, so the port is read no
// faster than its slowest client reads and memory stays flat. Toward the
// line: while the pane holds kLineWindowBytes unsent, the clients' reading
// is held. Client payload counts as A → B frames, the line's data as B → A.
class Rfc2217SharePath : public BridgePath
{
    Q_OBJECT

public:
    static constexpr qint64 kClientWindowBytes = 256 * 1024;
    static constexpr qint64 kLineWindowBytes = 256 * 1024;
    // How often the modem lines and line state are looked at while a
    // client asked for serial port control.
    static constexpr int kPollIntervalMs = 100;

    explicit Rfc2217SharePath(BridgePathHost *host, QObject *parent = nullptr);
    ~Rfc2217SharePath() override;

    void received(int end, const QByteArray &bytes, const QString &source) override;
    void sourceGone(int end, const QString &source) override;
    void endChanged(int end) override;
    void drained(int end) override;
    qint64 queuedBytes(int direction) const override;
    void stop() override;

    // For tests: how a client was taken ("" when unknown).
    const Rfc2217ServerSession *clientSession(const QString &label) const;
    bool isHoldingLine() const { return m_holdingLine; }

Q_SIGNALS:
    // How a client took the port; the text names it.
    void clientNotice(const QString &text);

private:
    struct Client;
    class LinePort;

    PortSession *paneSession() const;
    void addClient(const QString &label);
    void take(Client &client, Rfc2217ServerSession::Step step);
    void pump(Client &client);
    void updateHolds();
    void poll();
    void armTimer(Client &client, qint64 wakeAtMs);
    // A client can go in the middle of a loop over clients (a write that
    // fails): it is marked and erased once the loop is over.
    void removeLater(Client &client);
    void sweep();

    std::unordered_map<QString, std::unique_ptr<Client>> m_clients;
    std::unique_ptr<LinePort> m_port;
    QTimer *m_poll;
    bool m_holdingLine = false;
    bool m_holdingClients = false;
    bool m_stopped = false;
    bool m_sweepPosted = false;
};
