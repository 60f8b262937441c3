#include "app/panetransfers.h"

#include "terminal/serialportwidget.h"
#include "transfer/filetransferbar.h"
#include "transfer/filetransferdialog.h"
#include "transfer/portsessionxferport.h"

#include <QLabel>

PaneTransfers::PaneTransfers(QObject *parent)
    : QObject(parent)
{
}

FileTransferDialog *PaneTransfers::openDialog(SerialPortWidget *pane, FileTransferSession::Direction direction)
{
    if (!pane)
        return nullptr;
    // The dialog offers the choice of client itself.
    const QString refusal = pane->session()->transferRefusal(PortSession::ClientChoice::ChosenByCaller);
    if (!refusal.isEmpty()) {
        pane->session()->reportFailure(refusal);
        return nullptr;
    }
    // One dialog per pane: two could start two transfers on one port.
    if (auto *open = qobject_cast<FileTransferDialog *>(m_dialogs.value(pane).data())) {
        if (open->direction() == direction) {
            open->raise();
            open->activateWindow();
            return open;
        }
        open->close();
    }
    // One port adapter per pane, living as long as the pane: every
    // transfer started there goes through it.
    auto *port = pane->findChild<PortSessionXferPort *>(QString(), Qt::FindDirectChildrenOnly);
    if (!port)
        port = new PortSessionXferPort(pane->session(), pane);
    auto *dialog = new FileTransferDialog(direction, pane->connectionConfig(), port, pane);
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    m_dialogs.insert(pane, dialog);
    connect(dialog, &QObject::destroyed, this, [this, pane](QObject *gone) {
        // Still a QWidget here, no longer a dialog: compared as a widget.
        if (m_dialogs.value(pane) == gone)
            m_dialogs.remove(pane);
    });
    connect(dialog, &FileTransferDialog::sessionStarted, this, [this, pane, port](FileTransferSession *transfer) {
        port->attach(transfer);
        adopt(pane, transfer);
    });
    dialog->show();
    dialog->raise();
    dialog->activateWindow();
    return dialog;
}

void PaneTransfers::adopt(SerialPortWidget *pane, FileTransferSession *transfer)
{
    m_running.insert(pane, transfer);
    auto *bar = new FileTransferBar(pane);
    bar->setSession(transfer);
    pane->addStrip(bar);
    bar->show();
    connect(transfer, &FileTransferSession::finished, bar, &QObject::deleteLater);
    if (transfer->protocol() == XmodemVariant::YmodemG
        && FileTransferDialog::lacksHardwareFlowControl(pane->connectionConfig())) {
        // Said in the pane for as long as the transfer runs.
        auto *hint = new QLabel(ymodemGHint(), pane);
        hint->setObjectName(QStringLiteral("ymodemGHint"));
        hint->setStyleSheet(QStringLiteral("QLabel { color: palette(mid); }"));
        hint->setWordWrap(true);
        hint->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
        pane->addStrip(hint);
        hint->show();
        connect(transfer, &FileTransferSession::finished, hint, &QObject::deleteLater);
    }
    connect(transfer, &FileTransferSession::finished, this, [this, pane, transfer] {
        if (m_running.value(pane) == transfer)
            m_running.remove(pane);
        emit runningChanged();
    });
    // The transfer belongs to the pane: removing the pane ends it too.
    connect(transfer, &QObject::destroyed, this, [this, pane] {
        if (!m_running.value(pane))
            m_running.remove(pane);
    });
    emit runningChanged();
}

QString PaneTransfers::ymodemGHint()
{
    return tr("YMODEM-G does not retransmit, so it needs hardware flow control (RTS/CTS). This connection has none.");
}

bool PaneTransfers::cancel(SerialPortWidget *pane)
{
    FileTransferSession *transfer = running(pane);
    if (!transfer)
        return false;
    transfer->stop(FileTransferSession::StopReason::UserCancel);
    return true;
}

FileTransferSession *PaneTransfers::running(SerialPortWidget *pane) const
{
    // Started or about to start: the dialog hands the transfer over just
    // before starting it.
    return m_running.value(pane).data();
}

bool PaneTransfers::anyRunning() const
{
    for (const QPointer<FileTransferSession> &transfer : m_running) {
        if (transfer)
            return true;
    }
    return false;
}
