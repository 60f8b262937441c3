#include "settings/portsettingsdialog.h"

#include "settings/connectionsettingswidget.h"
#include "settings/optionboxes.h"
#include "common/monospacefont.h"

#include <QCheckBox>
#include <QColorDialog>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QFileDialog>
#include <QFontComboBox>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QSerialPortInfo>
#include <QSpinBox>
#include <QTabWidget>
#include <QTimeEdit>
#include <QToolButton>
#include <QVBoxLayout>

PortSettingsDialog::PortSettingsDialog(const PaneSettings &settings, QWidget *parent)
    : QDialog(parent)
    , m_settings(settings)
{
    setObjectName(QStringLiteral("PortSettingsDialog"));
    setWindowTitle(tr("Settings"));
    auto *tabs = new QTabWidget(this);
    tabs->setObjectName(QStringLiteral("settingsTabs"));
    m_connection = new ConnectionSettingsWidget;
    QList<ConnectionSettingsWidget::PortEntry> ports;
    for (const QSerialPortInfo &info : QSerialPortInfo::availablePorts())
        ports.append({info.portName(), info.description()});
    m_connection->setAvailablePorts(ports);
    tabs->addTab(m_connection, tr("Connection"));
    tabs->addTab(buildReceivePage(), tr("Receive"));
    tabs->addTab(buildSendPage(), tr("Send"));
    tabs->addTab(buildDisplayPage(), tr("Display"));
    tabs->addTab(buildLogPage(), tr("Data Log"));

    auto *buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, this);
    auto *restore = buttons->addButton(tr("Restore Default Settings"), QDialogButtonBox::ResetRole);
    restore->setObjectName(QStringLiteral("pbRestoreDefaults"));
    connect(restore, &QPushButton::clicked, this, &PortSettingsDialog::on_pbRestoreDefaults_clicked);
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);

    auto *layout = new QVBoxLayout(this);
    layout->addWidget(tabs);
    layout->addWidget(buttons);
    show(settings);
    resize(560, 460);
}

namespace {

template <typename T>
T *named(T *widget, const char *name)
{
    widget->setObjectName(QLatin1String(name));
    return widget;
}

QHBoxLayout *rowOf(std::initializer_list<QWidget *> widgets)
{
    auto *row = new QHBoxLayout;
    for (QWidget *w : widgets)
        row->addWidget(w);
    row->addStretch(1);
    return row;
}

} // namespace

QWidget *PortSettingsDialog::buildReceivePage()
{
    auto *page = new QWidget;
    auto *form = new QFormLayout(page);
    m_rxFormat = named(new QComboBox(page), "rxFormatBox");
    OptionBoxes::addFormats(m_rxFormat);
    m_rxEncoding = named(new QComboBox(page), "rxEncodingBox");
    OptionBoxes::addEncodings(m_rxEncoding);
    form->addRow(tr("Format"), rowOf({m_rxFormat, m_rxEncoding}));
    m_rxLineEnding = named(new QComboBox(page), "rxLineEndingBox");
    OptionBoxes::addLineEndings(m_rxLineEnding, true);
    m_rxLineEnding->setToolTip(tr("Start a new line after an idle interval"));
    m_autoFeedInterval = named(new QSpinBox(page), "autoFeedIntervalBox");
    m_autoFeedInterval->setRange(1, 600000);
    m_autoFeedInterval->setSuffix(tr(" ms"));
    form->addRow(tr("Auto Line Feed"), rowOf({m_rxLineEnding, m_autoFeedInterval}));
    m_displayTime = named(new QCheckBox(tr("Display Time"), page), "displayTimeBox");
    m_displayTime->setToolTip(tr("Prefix received data with a timestamp"));
    form->addRow(QString(), m_displayTime);
    return page;
}

QWidget *PortSettingsDialog::buildSendPage()
{
    auto *page = new QWidget;
    auto *form = new QFormLayout(page);
    m_hexSend = named(new QCheckBox(tr("Hex"), page), "hexSendBox");
    m_txEncoding = named(new QComboBox(page), "txEncodingBox");
    OptionBoxes::addEncodings(m_txEncoding);
    form->addRow(tr("Format"), rowOf({m_hexSend, m_txEncoding}));
    m_autoSend = named(new QCheckBox(page), "autoSendBox");
    m_autoSend->setToolTip(tr("Resend automatically at an interval"));
    m_sendInterval = named(new QSpinBox(page), "sendIntervalBox");
    m_sendInterval->setRange(1, 86400000);
    m_sendTimeUnit = named(new QComboBox(page), "sendTimeUnitBox");
    OptionBoxes::addTimeUnits(m_sendTimeUnit);
    form->addRow(tr("Loop Send"), rowOf({m_autoSend, m_sendInterval, m_sendTimeUnit}));
    m_appendLineEnding = named(new QCheckBox(page), "appendLineEndingBox");
    m_appendLineEnding->setToolTip(tr("Ending appended to each send"));
    m_txLineEnding = named(new QComboBox(page), "txLineEndingBox");
    OptionBoxes::addLineEndings(m_txLineEnding, false);
    form->addRow(tr("Append Line Ending"), rowOf({m_appendLineEnding, m_txLineEnding}));
    m_terminalEnter = named(new QComboBox(page), "terminalEnterBox");
    OptionBoxes::addLineEndings(m_terminalEnter, false);
    m_terminalEnter->setToolTip(tr("Bytes sent when Enter is pressed in the receive terminal"));
    form->addRow(tr("Enter Sends"), rowOf({m_terminalEnter}));
    m_checksum = named(new QComboBox(page), "sendChecksumBox");
    OptionBoxes::addChecksums(m_checksum);
    m_checksum->setToolTip(tr("Checksum appended to each send"));
    form->addRow(tr("Append Checksum"), rowOf({m_checksum}));
    m_displaySend = named(new QCheckBox(tr("Display Send"), page), "displaySendBox");
    m_displaySend->setToolTip(tr("Echo sent data in the display"));
    form->addRow(QString(), m_displaySend);
    m_localEcho = named(new QCheckBox(tr("Local Echo"), page), "localEchoBox");
    m_localEcho->setToolTip(tr("Echo keys typed into the receive terminal"));
    form->addRow(QString(), m_localEcho);
    m_lineByLine = named(new QCheckBox(tr("Line by Line"), page), "lineByLineBox");
    m_lineByLine->setToolTip(tr("Send multi-line input line by line"));
    form->addRow(QString(), m_lineByLine);
    return page;
}

QWidget *PortSettingsDialog::buildDisplayPage()
{
    auto *page = new QWidget;
    auto *form = new QFormLayout(page);
    m_fontFamily = new QFontComboBox(page);
    m_fontFamily->setFontFilters(QFontComboBox::MonospacedFonts);
    m_fontSize = new QSpinBox(page);
    m_fontSize->setRange(1, 200);
    m_fontBold = new QCheckBox(tr("Bold"), page);
    auto *fontRow = new QHBoxLayout;
    fontRow->addWidget(m_fontFamily, 1);
    fontRow->addWidget(m_fontSize);
    fontRow->addWidget(m_fontBold);
    form->addRow(tr("Font"), fontRow);

    m_receiveColor = new QPushButton(page);
    m_sendColor = new QPushButton(page);
    m_formatColor = new QPushButton(page);
    for (QPushButton *button : {m_receiveColor, m_sendColor, m_formatColor})
        connect(button, &QPushButton::clicked, this, [this, button] { chooseColor(button); });
    form->addRow(tr("Received text colour"), m_receiveColor);
    form->addRow(tr("Sent text colour"), m_sendColor);
    form->addRow(tr("Timestamp colour"), m_formatColor);

    m_rxTimeFormat = new QLineEdit(page);
    m_txTimeFormat = new QLineEdit(page);
    form->addRow(tr("Receive timestamp"), m_rxTimeFormat);
    form->addRow(tr("Send timestamp"), m_txTimeFormat);
    m_bufferSize = new QSpinBox(page);
    m_bufferSize->setRange(1000, 100000000);
    m_bufferSize->setSingleStep(100000);
    form->addRow(tr("Display buffer"), m_bufferSize);
    m_showLeds = new QCheckBox(tr("Show the TX/RX and control line indicators"), page);
    form->addRow(QString(), m_showLeds);
    return page;
}

QWidget *PortSettingsDialog::buildLogPage()
{
    auto *page = new QWidget;
    auto *form = new QFormLayout(page);
    m_logSave = new QCheckBox(tr("Save received and sent data to a log file"), page);
    form->addRow(QString(), m_logSave);
    m_logFolder = new QLineEdit(page);
    auto *browse = new QToolButton(page);
    browse->setText(tr("..."));
    connect(browse, &QToolButton::clicked, this, [this] {
        const QString folder = QFileDialog::getExistingDirectory(this, tr("Log Folder"), m_logFolder->text());
        if (!folder.isEmpty())
            m_logFolder->setText(folder);
    });
    auto *folderRow = new QHBoxLayout;
    folderRow->addWidget(m_logFolder, 1);
    folderRow->addWidget(browse);
    form->addRow(tr("Folder"), folderRow);
    m_logFileName = new QLineEdit(page);
    m_logFileName->setToolTip(tr("%S port, %Y year, %M month, %D day"));
    form->addRow(tr("File name"), m_logFileName);
    m_logTimestamp = new QCheckBox(tr("Timestamps"), page);
    m_logTimestampPattern = new QLineEdit(page);
    m_logTimestampPattern->setToolTip(tr("%h hours, %m minutes, %s seconds, %z milliseconds"));
    auto *stampRow = new QHBoxLayout;
    stampRow->addWidget(m_logTimestamp);
    stampRow->addWidget(m_logTimestampPattern, 1);
    form->addRow(QString(), stampRow);
    m_rotateAtSize = new QCheckBox(tr("Start a new file after"), page);
    m_rotateSize = new QSpinBox(page);
    m_rotateSize->setRange(1, 1024 * 1024);
    m_rotateSize->setSuffix(tr(" MiB"));
    auto *sizeRow = new QHBoxLayout;
    sizeRow->addWidget(m_rotateAtSize);
    sizeRow->addWidget(m_rotateSize);
    sizeRow->addStretch();
    form->addRow(tr("Rotation"), sizeRow);
    m_rotateAtTime = new QCheckBox(tr("Start a new file every day at"), page);
    m_rotateTime = new QTimeEdit(page);
    m_rotateTime->setDisplayFormat(QStringLiteral("HH:mm:ss"));
    auto *timeRow = new QHBoxLayout;
    timeRow->addWidget(m_rotateAtTime);
    timeRow->addWidget(m_rotateTime);
    timeRow->addStretch();
    form->addRow(QString(), timeRow);
    m_hourStamp = new QCheckBox(tr("Add the hour to rotated file names"), page);
    form->addRow(QString(), m_hourStamp);
    return page;
}

void PortSettingsDialog::show(const PaneSettings &s)
{
    const PaneOptions &o = s.options;
    m_connection->setConfig(s.connection);
    OptionBoxes::selectValue(m_rxFormat, int(o.receiveFormat));
    OptionBoxes::selectEncoding(m_rxEncoding, o.receiveEncoding);
    OptionBoxes::selectValue(m_rxLineEnding, int(o.rxLineEnding));
    m_autoFeedInterval->setValue(o.autoFeedInterval);
    m_displayTime->setChecked(o.displayTime);
    m_hexSend->setChecked(o.sendFormat == MessageFormat::Hex);
    OptionBoxes::selectEncoding(m_txEncoding, o.sendEncoding);
    m_autoSend->setChecked(o.autoSend);
    m_sendInterval->setValue(o.sendInterval);
    OptionBoxes::selectValue(m_sendTimeUnit, int(o.sendTimeUnit));
    m_appendLineEnding->setChecked(o.txAutoFeedLine);
    OptionBoxes::selectValue(m_txLineEnding, int(o.txLineEnding));
    OptionBoxes::selectValue(m_terminalEnter, int(o.terminalEnterMode));
    OptionBoxes::selectValue(m_checksum, o.sendChecksum);
    m_displaySend->setChecked(o.displaySendMsg);
    m_localEcho->setChecked(o.localEcho);
    m_lineByLine->setChecked(o.lineByLine);
    m_fontFamily->setCurrentFont(MonospaceFont::make(o.fontFamily, o.fontSize, o.fontWeight));
    m_fontSize->setValue(o.fontSize);
    m_fontBold->setChecked(o.fontWeight >= QFont::Bold);
    showColor(m_receiveColor, o.receiveTextColor);
    showColor(m_sendColor, o.sendTextColor);
    showColor(m_formatColor, o.formatDisplayColor);
    m_rxTimeFormat->setText(o.rxTimeFormat);
    m_txTimeFormat->setText(o.txTimeFormat);
    m_bufferSize->setValue(o.displayBufferSize);
    m_showLeds->setChecked(o.showControlLineLeds);
    m_logSave->setChecked(o.logSaveFlag);
    m_logFolder->setText(o.logFilePath);
    m_logFileName->setText(o.logFileName);
    m_logTimestamp->setChecked(o.logTimestampEnabled);
    m_logTimestampPattern->setText(o.logTimestamp);
    m_rotateAtSize->setChecked(o.logRotateAtSize);
    m_rotateSize->setValue(o.logRotateSize);
    m_rotateAtTime->setChecked(o.logRotateAtTime);
    m_rotateTime->setTime(o.logRotateTime);
    m_hourStamp->setChecked(o.needHourTimeStamp);
}

PaneSettings PortSettingsDialog::settings() const
{
    PaneSettings s = m_settings;
    s.connection = m_connection->config();
    PaneOptions &o = s.options;
    o.receiveFormat = MessageFormat(m_rxFormat->currentData().toInt());
    o.receiveEncoding = m_rxEncoding->currentText();
    o.rxLineEnding = LineEnding(m_rxLineEnding->currentData().toInt());
    o.rxAutoFeedLine = o.rxLineEnding != LineEnding::None;
    o.autoFeedInterval = m_autoFeedInterval->value();
    o.displayTime = m_displayTime->isChecked();
    o.sendFormat = m_hexSend->isChecked() ? MessageFormat::Hex : MessageFormat::Text;
    o.sendEncoding = m_txEncoding->currentText();
    o.autoSend = m_autoSend->isChecked();
    o.sendInterval = m_sendInterval->value();
    o.sendTimeUnit = SendTimeUnit(m_sendTimeUnit->currentData().toInt());
    o.txAutoFeedLine = m_appendLineEnding->isChecked();
    o.txLineEnding = LineEnding(m_txLineEnding->currentData().toInt());
    o.terminalEnterMode = LineEnding(m_terminalEnter->currentData().toInt());
    o.sendChecksum = m_checksum->currentData().toInt();
    o.displaySendMsg = m_displaySend->isChecked();
    o.localEcho = m_localEcho->isChecked();
    o.lineByLine = m_lineByLine->isChecked();
    // The family is kept empty while it is the preferred one, so a project
    // moved to another system picks that system's preference.
    const QString family = m_fontFamily->currentFont().family();
    if (!(o.fontFamily.isEmpty() && family == MonospaceFont::preferredFamily()))
        o.fontFamily = family;
    o.fontSize = m_fontSize->value();
    o.fontWeight = m_fontBold->isChecked() ? int(QFont::Bold) : (o.fontWeight >= QFont::Bold ? int(QFont::Normal) : o.fontWeight);
    o.receiveTextColor = m_receiveColor->property("colorName").toString();
    o.sendTextColor = m_sendColor->property("colorName").toString();
    o.formatDisplayColor = m_formatColor->property("colorName").toString();
    o.rxTimeFormat = m_rxTimeFormat->text();
    o.txTimeFormat = m_txTimeFormat->text();
    o.displayBufferSize = m_bufferSize->value();
    o.showControlLineLeds = m_showLeds->isChecked();
    o.logSaveFlag = m_logSave->isChecked();
    if (!m_logFolder->text().trimmed().isEmpty())
        o.logFilePath = m_logFolder->text().trimmed();
    if (!m_logFileName->text().trimmed().isEmpty())
        o.logFileName = m_logFileName->text().trimmed();
    o.logTimestampEnabled = m_logTimestamp->isChecked();
    o.logTimestamp = m_logTimestampPattern->text();
    o.logRotateAtSize = m_rotateAtSize->isChecked();
    o.logRotateSize = m_rotateSize->value();
    o.logRotateAtTime = m_rotateAtTime->isChecked();
    o.logRotateTime = m_rotateTime->time();
    o.needHourTimeStamp = m_hourStamp->isChecked();
    return s;
}

void PortSettingsDialog::showColor(QPushButton *button, const QString &name)
{
    const QColor color = QColor::fromString(name);
    const QString shown = color.isValid() ? color.name() : QStringLiteral("#000000");
    button->setProperty("colorName", shown);
    button->setText(shown);
    button->setStyleSheet(QStringLiteral("QPushButton { color: %1; }").arg(shown));
}

void PortSettingsDialog::chooseColor(QPushButton *button)
{
    const QColor chosen = QColorDialog::getColor(QColor::fromString(button->property("colorName").toString()), this);
    if (chosen.isValid())
        showColor(button, chosen.name());
}

QString PortSettingsDialog::restoreDefaultsQuestion()
{
    return tr("All connection, receive, send, log, display and Quick Settings options of every port return to "
              "their defaults.\nYour account, saved settings files and log files are not changed.\n"
              "Active connections are stopped when you press OK; Cancel changes nothing.");
}

void PortSettingsDialog::on_pbRestoreDefaults_clicked()
{
    const auto answer = QMessageBox::question(this, tr("Restore Default Settings"), restoreDefaultsQuestion(),
                                              QMessageBox::Ok | QMessageBox::Cancel, QMessageBox::Cancel);
    if (answer != QMessageBox::Ok)
        return;
    m_settings = PaneSettings{};
    show(m_settings);
    emit restoreDefaultsRequested();
}
