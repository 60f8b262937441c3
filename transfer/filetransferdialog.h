#pragma once

#include "connection/connectionconfig.h"
#include "transfer/filetransfersession.h"

#include <QDialog>
#include <QPointer>

class QCheckBox;
class QComboBox;
class QDialogButtonBox;
class QLabel;
class QLineEdit;
class QPushButton;
class QSpinBox;
class XferPort;

// Collects what a transfer needs and starts a FileTransferSession on the
// pane's port. The session belongs to the dialog's parent (the pane) and
// deletes itself once finished; sessionStarted() hands it to whoever
// routes the port's traffic to it and shows the transfer bar.
class FileTransferDialog : public QDialog
{
    Q_OBJECT

public:
    // Settings keys.
    static constexpr char kLastProtocolKey[] = "LastTransferProtocol";
    static constexpr char kLastSendDirKey[] = "LastTransferSendDir";
    static constexpr char kLastRecvDirKey[] = "LastTransferRecvDir";
    static constexpr char kRecvCapKey[] = "TransferRecvSizeCapMiB";
    static constexpr int kMaxRecvCapMiB = 65536;

    // `port` may be null (nothing to start, e.g. for a picture of the dialog).
    FileTransferDialog(FileTransferSession::Direction direction, const ConnectionConfig &connection, XferPort *port,
                       QWidget *parent = nullptr);

    static QString describeConnection(const ConnectionConfig &connection);
    // True when a lost byte would abandon a YMODEM-G transfer: a serial line
    // (local or remote) without RTS/CTS.
    static bool lacksHardwareFlowControl(const ConnectionConfig &connection);

    FileTransferSession::Direction direction() const { return m_direction; }
    XmodemVariant protocol() const;
    void setProtocol(XmodemVariant protocol);
    void setFilePath(const QString &path);
    void setFolder(const QString &folder);
    void setSaveAs(const QString &name);
    void setReceiveCapMiB(int mib);
    void setKeepOpen(bool keep);
    // The hint lines currently shown under the protocol box.
    QStringList hints() const;
    QString errorText() const;
    QPointer<FileTransferSession> session() const { return m_session; }

public slots:
    // Checks the fields, stores the settings and starts the session.
    bool start();

signals:
    void sessionStarted(FileTransferSession *session);

private:
    void buildForm(const ConnectionConfig &connection);
    void updateForProtocol();
    void browse();
    void showError(const QString &text);
    void onSessionFinished(bool success, const QString &summary);

    FileTransferSession::Direction m_direction;
    XferPort *m_port;
    bool m_serialWithoutRtsCts = false;
    QPointer<FileTransferSession> m_session;

    QLabel *m_connectionLabel = nullptr;
    QLabel *m_clientLabel = nullptr;
    QComboBox *m_client = nullptr;
    QComboBox *m_protocol = nullptr;
    QLabel *m_hint = nullptr;
    QLabel *m_blockSizeLabel = nullptr;
    QComboBox *m_blockSize = nullptr;
    QLineEdit *m_path = nullptr;
    QLabel *m_saveAsLabel = nullptr;
    QLineEdit *m_saveAs = nullptr;
    QSpinBox *m_cap = nullptr;
    QCheckBox *m_keepOpen = nullptr;
    QLabel *m_status = nullptr;
    QDialogButtonBox *m_buttons = nullptr;
    QPushButton *m_startButton = nullptr;
};
