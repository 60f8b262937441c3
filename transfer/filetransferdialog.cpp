#include "transfer/filetransferdialog.h"

#include "transfer/xferport.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QDir>
#include <QFileDialog>
#include <QFileInfo>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSettings>
#include <QSpinBox>
#include <QStandardPaths>
#include <QVBoxLayout>

namespace {
const QString kGreyStyle = QStringLiteral("QLabel { color: palette(mid); }");
}

FileTransferDialog::FileTransferDialog(FileTransferSession::Direction direction, const ConnectionConfig &connection,
                                       XferPort *port, QWidget *parent)
    : QDialog(parent), m_direction(direction), m_port(port),
      m_serialWithoutRtsCts(lacksHardwareFlowControl(connection))
{
    setObjectName(QStringLiteral("fileTransferDialog"));
    setWindowTitle(direction == FileTransferSession::Direction::Send ? tr("Send File") : tr("Receive File"));
    buildForm(connection);
    updateForProtocol();
}

QString FileTransferDialog::describeConnection(const ConnectionConfig &c)
{
    switch (c.mode) {
    case ConnectionMode::TcpClient: return tr("TCP %1:%2").arg(c.targetHost).arg(c.targetPort);
    case ConnectionMode::TcpServer: return tr("TCP server, port %1").arg(c.targetPort);
    case ConnectionMode::RemoteSerialRfc2217: return tr("RFC 2217 %1:%2").arg(c.targetHost).arg(c.targetPort);
    case ConnectionMode::Serial:
    case ConnectionMode::RemoteSerialRelay: {
        QString flow;
        switch (c.flowControl) {
        case QSerialPort::HardwareControl: flow = tr("RTS/CTS"); break;
        case QSerialPort::SoftwareControl: flow = tr("XON/XOFF"); break;
        default: flow = tr("no flow control"); break;
        }
        const QString name = c.mode == ConnectionMode::Serial ? c.portName : c.relayPortName;
        return tr("%1, %2").arg(name, flow);
    }
    default:
        return connectionModeTag(c.mode);
    }
}

bool FileTransferDialog::lacksHardwareFlowControl(const ConnectionConfig &c)
{
    const bool serialLine = c.mode == ConnectionMode::Serial || c.mode == ConnectionMode::RemoteSerialRfc2217
                            || c.mode == ConnectionMode::RemoteSerialRelay;
    return serialLine && c.flowControl != QSerialPort::HardwareControl;
}

void FileTransferDialog::buildForm(const ConnectionConfig &connection)
{
    QSettings settings;
    const bool sending = m_direction == FileTransferSession::Direction::Send;
    auto *form = new QFormLayout;

    m_connectionLabel = new QLabel(describeConnection(connection), this);
    m_connectionLabel->setObjectName(QStringLiteral("connectionLabel"));
    m_connectionLabel->setStyleSheet(kGreyStyle);
    form->addRow(m_connectionLabel);

    const QStringList clients = m_port ? m_port->clientLabels() : QStringList();
    if (connection.mode == ConnectionMode::TcpServer && clients.size() > 1) {
        m_client = new QComboBox(this);
        m_client->setObjectName(QStringLiteral("clientBox"));
        m_client->addItems(clients);
        m_clientLabel = new QLabel(tr("Client:"), this);
        form->addRow(m_clientLabel, m_client);
    }

    m_protocol = new QComboBox(this);
    m_protocol->setObjectName(QStringLiteral("protocolBox"));
    m_protocol->addItem(tr("XMODEM (128 bytes, checksum)"), 0);
    m_protocol->addItem(tr("XMODEM-CRC (128 bytes, CRC-16)"), 1);
    m_protocol->addItem(tr("XMODEM-1K (1024 bytes)"), 2);
    m_protocol->addItem(tr("YMODEM"), 3);
    m_protocol->addItem(tr("YMODEM-G (streaming, no retries)"), 4);
    const int last = settings.value(QLatin1String(kLastProtocolKey), toInt(XmodemVariant::Ymodem)).toInt();
    m_protocol->setCurrentIndex(isValidXmodemVariant(last) ? last : toInt(XmodemVariant::Ymodem));
    form->addRow(tr("Protocol:"), m_protocol);

    m_hint = new QLabel(this);
    m_hint->setObjectName(QStringLiteral("protocolHint"));
    m_hint->setStyleSheet(kGreyStyle);
    m_hint->setWordWrap(true);
    form->addRow(m_hint);

    if (sending) {
        m_blockSize = new QComboBox(this);
        m_blockSize->setObjectName(QStringLiteral("blockSizeBox"));
        m_blockSize->addItem(tr("1024"), 1024);
        m_blockSize->addItem(tr("128"), 128);
        m_blockSizeLabel = new QLabel(tr("Block size:"), this);
        form->addRow(m_blockSizeLabel, m_blockSize);
    }

    m_path = new QLineEdit(this);
    m_path->setObjectName(sending ? QStringLiteral("fileEdit") : QStringLiteral("folderEdit"));
    // Room for a whole typical path: its start says where, its end what.
    m_path->setMinimumWidth(m_path->fontMetrics().averageCharWidth() * 44);
    auto *browse = new QPushButton(tr("Browse..."), this);
    browse->setObjectName(QStringLiteral("browseButton"));
    connect(browse, &QPushButton::clicked, this, &FileTransferDialog::browse);
    auto *pathRow = new QHBoxLayout;
    pathRow->addWidget(m_path, 1);
    pathRow->addWidget(browse);
    if (sending) {
        form->addRow(tr("File:"), pathRow);
    } else {
        QString folder = settings.value(QLatin1String(kLastRecvDirKey)).toString();
        if (folder.isEmpty())
            folder = QStandardPaths::writableLocation(QStandardPaths::DownloadLocation);
        m_path->setText(QDir::toNativeSeparators(folder));
        form->addRow(tr("Save into:"), pathRow);

        m_saveAs = new QLineEdit(QStringLiteral("received.bin"), this);
        m_saveAs->setObjectName(QStringLiteral("saveAsEdit"));
        m_saveAsLabel = new QLabel(tr("Save as:"), this);
        form->addRow(m_saveAsLabel, m_saveAs);

        m_cap = new QSpinBox(this);
        m_cap->setObjectName(QStringLiteral("capSpin"));
        m_cap->setRange(0, kMaxRecvCapMiB);
        m_cap->setSuffix(tr(" MB"));
        m_cap->setSpecialValueText(tr("no limit"));
        m_cap->setValue(qBound(0, settings.value(QLatin1String(kRecvCapKey), 0).toInt(), kMaxRecvCapMiB));
        form->addRow(tr("Stop after (MB):"), m_cap);
    }

    m_keepOpen = new QCheckBox(tr("Keep this window open afterwards"), this);
    m_keepOpen->setObjectName(QStringLiteral("keepOpenBox"));
    form->addRow(m_keepOpen);

    m_status = new QLabel(this);
    m_status->setObjectName(QStringLiteral("statusLabel"));
    m_status->setWordWrap(true);
    m_status->setTextInteractionFlags(Qt::TextSelectableByMouse);
    m_status->hide();

    m_buttons = new QDialogButtonBox(QDialogButtonBox::Close, this);
    m_startButton = m_buttons->addButton(tr("Start"), QDialogButtonBox::AcceptRole);
    m_startButton->setObjectName(QStringLiteral("startButton"));
    m_startButton->setEnabled(m_port != nullptr);
    m_startButton->setDefault(true);
    connect(m_startButton, &QPushButton::clicked, this, [this] { start(); });
    connect(m_buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);

    auto *layout = new QVBoxLayout(this);
    layout->addLayout(form);
    layout->addWidget(m_status);
    layout->addWidget(m_buttons);

    connect(m_protocol, &QComboBox::currentIndexChanged, this, &FileTransferDialog::updateForProtocol);
}

XmodemVariant FileTransferDialog::protocol() const
{
    return XmodemVariant(m_protocol->currentData().toInt());
}

void FileTransferDialog::setProtocol(XmodemVariant protocol)
{
    m_protocol->setCurrentIndex(m_protocol->findData(toInt(protocol)));
}

void FileTransferDialog::setFilePath(const QString &path)
{
    if (m_direction == FileTransferSession::Direction::Send)
        m_path->setText(path);
}

void FileTransferDialog::setFolder(const QString &folder)
{
    if (m_direction == FileTransferSession::Direction::Receive)
        m_path->setText(folder);
}

void FileTransferDialog::setSaveAs(const QString &name)
{
    if (m_saveAs)
        m_saveAs->setText(name);
}

void FileTransferDialog::setReceiveCapMiB(int mib)
{
    if (m_cap)
        m_cap->setValue(mib);
}

void FileTransferDialog::setKeepOpen(bool keep)
{
    m_keepOpen->setChecked(keep);
}

QStringList FileTransferDialog::hints() const
{
    return m_hint->text().isEmpty() ? QStringList() : m_hint->text().split(QLatin1Char('\n'));
}

QString FileTransferDialog::errorText() const
{
    return m_status->isVisibleTo(this) ? m_status->text() : QString();
}

void FileTransferDialog::updateForProtocol()
{
    const XmodemVariant p = protocol();
    const bool sending = m_direction == FileTransferSession::Direction::Send;
    const bool xmodem = !isYmodemVariant(p);
    QStringList lines;
    if (p == XmodemVariant::YmodemG && m_serialWithoutRtsCts)
        lines << tr("YMODEM-G does not resend anything, so it needs hardware flow control (RTS/CTS). This connection has none: a single error would abandon the whole transfer.");
    if (xmodem)
        lines << (sending ? tr("XMODEM carries no file name or length. The device will receive the data padded up to a whole number of blocks.")
                          : tr("XMODEM carries no file name or length, so you must supply the name, and the received file is always padded up to a whole number of blocks."));
    m_hint->setText(lines.join(QLatin1Char('\n')));
    m_hint->setVisible(!lines.isEmpty());

    if (m_blockSize) {
        m_blockSize->setVisible(canSendLongBlocks(p));
        m_blockSizeLabel->setVisible(canSendLongBlocks(p));
    }
    if (m_saveAs) {
        m_saveAs->setVisible(xmodem);
        m_saveAsLabel->setVisible(xmodem);
    }
}

void FileTransferDialog::browse()
{
    QSettings settings;
    if (m_direction == FileTransferSession::Direction::Send) {
        const QString start = m_path->text().isEmpty() ? settings.value(QLatin1String(kLastSendDirKey)).toString()
                                                       : QFileInfo(m_path->text()).absolutePath();
        const QString file = QFileDialog::getOpenFileName(this, tr("File to send"), start);
        if (!file.isEmpty())
            m_path->setText(QDir::toNativeSeparators(file));
    } else {
        const QString start = m_path->text().isEmpty() ? settings.value(QLatin1String(kLastRecvDirKey)).toString()
                                                       : m_path->text();
        const QString folder = QFileDialog::getExistingDirectory(this, tr("Save into"), start);
        if (!folder.isEmpty())
            m_path->setText(QDir::toNativeSeparators(folder));
    }
}

void FileTransferDialog::showError(const QString &text)
{
    m_status->setText(text);
    m_status->setVisible(!text.isEmpty());
}

bool FileTransferDialog::start()
{
    if (!m_port || (m_session && m_session->isRunning()))
        return false;
    const bool sending = m_direction == FileTransferSession::Direction::Send;
    const QString path = QDir::fromNativeSeparators(m_path->text().trimmed());
    if (path.isEmpty()) {
        showError(sending ? tr("Choose a file to send.") : tr("Choose a folder to save into."));
        return false;
    }
    if (m_client && !m_port->selectClient(m_client->currentText())) {
        showError(tr("The selected client is no longer connected."));
        return false;
    }
    showError(QString());

    FileTransferSession::Request request;
    request.protocol = protocol();
    request.direction = m_direction;
    QSettings settings;
    settings.setValue(QLatin1String(kLastProtocolKey), toInt(request.protocol));
    if (sending) {
        request.filePath = path;
        request.blockSize = m_blockSize->currentData().toInt();
        settings.setValue(QLatin1String(kLastSendDirKey), QFileInfo(path).absolutePath());
    } else {
        request.folder = path;
        request.fileName = isYmodemVariant(request.protocol) ? QString() : m_saveAs->text();
        request.receiveCapBytes = qint64(m_cap->value()) * 1048576;
        settings.setValue(QLatin1String(kLastRecvDirKey), path);
        settings.setValue(QLatin1String(kRecvCapKey), m_cap->value());
    }

    QObject *owner = parent() ? parent() : this;
    m_session = new FileTransferSession(m_port, request, owner);
    connect(m_session, &FileTransferSession::finished, this, &FileTransferDialog::onSessionFinished);
    connect(m_session, &FileTransferSession::finished, m_session, &QObject::deleteLater);
    emit sessionStarted(m_session);
    FileTransferSession *session = m_session;
    session->start();
    if (!m_keepOpen->isChecked())
        accept();
    else if (session->isRunning())
        m_startButton->setEnabled(false);
    return true;
}

void FileTransferDialog::onSessionFinished(bool success, const QString &summary)
{
    Q_UNUSED(success);
    m_startButton->setEnabled(m_port != nullptr);
    if (m_keepOpen->isChecked()) {
        m_status->setText(summary);
        m_status->show();
    }
}
