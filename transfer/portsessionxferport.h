#pragma once

#include "transfer/xferport.h"

#include <QObject>
#include <QPointer>

class FileTransferSession;
class PortSession;

// A port session as the port of a file transfer: writes go through the
// session's one send path (no echo), the transfer lock is the session's,
// every received chunk goes to the transfer while it runs, and a closed or
// lost connection stops it.
class PortSessionXferPort : public QObject, public XferPort
{
    Q_OBJECT

public:
    explicit PortSessionXferPort(PortSession *session, QObject *parent = nullptr);
    ~PortSessionXferPort() override;

    // The transfer this port feeds; set before FileTransferSession::start().
    void attach(FileTransferSession *transfer);

    bool write(const QByteArray &bytes) override;
    qint64 bytesToWrite() const override;
    bool isOpen() const override;
    void lock(bool on) override;
    void writeNote(const QString &text) override;
    QStringList clientLabels() const override;
    bool selectClient(const QString &label) override;

private:
    void onConnectionChanged();

    // The pane owns both: either may go first when the pane goes.
    QPointer<PortSession> m_session;
    QPointer<FileTransferSession> m_transfer;
    bool m_locked = false;
};
