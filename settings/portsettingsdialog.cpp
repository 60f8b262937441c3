#include "settings/portsettingsdialog.h"

#include "settings/connectionsettingswidget.h"
#include "common/monospacefont.h"

#include <QCheckBox>
#include <QColorDialog>
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
