#pragma once

#include "transfer/filetransferdialog.h"
#include "transfer/filetransfersession.h"

#include <QHash>
#include <QObject>
#include <QPointer>

class QWidget;
class SerialPortWidget;

// Starts file transfers on port panes from the main window's actions: the
// dialog for the pane the user worked in, the port adapter that routes the
// pane's traffic to the transfer, and the progress bar inside the pane.
// One transfer per pane; the pane's own lock refuses a second.
class PaneTransfers : public QObject
{
    Q_OBJECT

public:
    explicit PaneTransfers(QObject *parent = nullptr);

    // Opens the dialog on `pane`, or shows in the pane why no transfer can
    // start there. Returns the dialog (null when refused).
    FileTransferDialog *openDialog(SerialPortWidget *pane, FileTransferSession::Direction direction);
    // Stops the transfer running on `pane` as cancelled by the user; false
    // when none runs.
    bool cancel(SerialPortWidget *pane);
    FileTransferSession *running(SerialPortWidget *pane) const;
    bool anyRunning() const;
    // Shown in the pane while YMODEM-G runs on a line without RTS/CTS.
    static QString ymodemGHint();

signals:
    // A transfer started or ended on some pane.
    void runningChanged();

private:
    void adopt(SerialPortWidget *pane, FileTransferSession *transfer);

    QHash<SerialPortWidget *, QPointer<QWidget>> m_dialogs;
    QHash<SerialPortWidget *, QPointer<FileTransferSession>> m_running;
};
