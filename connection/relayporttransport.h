#pragma once

#include "connection/porttransport.h"

#include <QPointer>

class RelayTransport;

// A serial port on another computer through the cloud relay: holds the
// attached relay session and the bytes it delivered that were not read yet.
class RelayPortTransport : public PortTransport
{
    Q_OBJECT

public:
    explicit RelayPortTransport(QObject *parent = nullptr);
    ~RelayPortTransport() override;

    // Takes ownership and returns true; returns false (leaving the relay to
    // the caller) while another relay is attached.
    bool attach(RelayTransport *relay);
    bool hasRelay() const { return m_relay != nullptr; }
    void close() override;
    bool isOpen() const override;
    bool send(const QByteArray &data, const SendTarget &target) override;
    bool write(const QByteArray &data);
    qint64 bytesToWrite() const override;
    QByteArray takeAvailable() override;

Q_SIGNALS:
    void connected();
    void peerChanged(const QString &peer);
    void ended(const QString &reason);

protected:
    bool hasWaitingData() const override { return !m_buffer.isEmpty(); }
    // The relay stops reading, so what waits here stays small.
    void applyReadPaused(bool paused) override;

private:
    // Guarded: the relay is ours, but a cloud object might still delete it.
    QPointer<RelayTransport> m_relay;
    QByteArray m_buffer;
};
