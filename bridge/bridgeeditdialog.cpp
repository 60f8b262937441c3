#include "bridge/bridgeeditdialog.h"

#include "bridge/bridgeendform.h"
#include "bridge/bridgeframingform.h"
#include "bridge/modbusgatewayform.h"
#include "common/paneoptions.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QFileDialog>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QSpinBox>
#include <QTabWidget>
#include <QToolButton>
#include <QVBoxLayout>

#include <limits>

namespace {

constexpr qint64 kMiB = 1024 * 1024;

} // namespace

BridgeEditDialog::BridgeEditDialog(const BridgeRecord &record, const QStringList &panes, QWidget *parent)
    : QDialog(parent)
{
    setObjectName(QStringLiteral("BridgeEditDialog"));
    setWindowTitle(record.name.isEmpty() ? tr("Add Bridge") : tr("Edit Bridge"));
    auto *layout = new QVBoxLayout(this);
    auto *tabs = new QTabWidget(this);
    tabs->setObjectName(QStringLiteral("bridgeTabs"));
    layout->addWidget(tabs);

    // ---- Ends ----
    auto *endsPage = new QWidget(tabs);
    auto *endsLayout = new QVBoxLayout(endsPage);
    auto *top = new QFormLayout;
    m_name = new QLineEdit(endsPage);
    m_name->setObjectName(QStringLiteral("nameEdit"));
    m_name->setMaxLength(BridgeRecord::kMaxNameLength);
    top->addRow(tr("Name"), m_name);
    m_kind = new QComboBox(endsPage);
    m_kind->setObjectName(QStringLiteral("kindBox"));
    for (auto kind : {BridgeKind::Forward, BridgeKind::ModbusGateway, BridgeKind::Rfc2217Share})
        m_kind->addItem(BridgeRecord::kindText(kind), int(kind));
    top->addRow(tr("Kind"), m_kind);
    m_direction = new QComboBox(endsPage);
    m_direction->setObjectName(QStringLiteral("directionBox"));
    for (auto d : {BridgeDirection::Both, BridgeDirection::AToB, BridgeDirection::BToA})
        m_direction->addItem(BridgeRecord::directionText(d), int(d));
    top->addRow(tr("Direction"), m_direction);
    m_enabled = new QCheckBox(tr("Enabled"), endsPage);
    m_enabled->setObjectName(QStringLiteral("enabledBox"));
    top->addRow(QString(), m_enabled);
    endsLayout->addLayout(top);
    auto *endsRow = new QHBoxLayout;
    for (int end : {BridgeRecord::kA, BridgeRecord::kB}) {
        m_ends[end] = new BridgeEndForm(tr("End %1").arg(BridgeRecord::endName(end)), panes, endsPage);
        endsRow->addWidget(m_ends[end]);
    }
    endsLayout->addLayout(endsRow);
    endsLayout->addStretch(1);
    tabs->addTab(endsPage, tr("Ends"));

    // ---- Framing ----
    auto *framingPage = new QWidget(tabs);
    auto *framingLayout = new QHBoxLayout(framingPage);
    for (int d : {BridgeRecord::kAToB, BridgeRecord::kBToA}) {
        m_framing[d] = new BridgeFramingForm(BridgeRecord::directionName(d), framingPage);
        framingLayout->addWidget(m_framing[d], 0, Qt::AlignTop);
    }
    const int framingTab = tabs->addTab(framingPage, tr("Framing"));

    // ---- Modbus gateway ----
    m_modbus = new ModbusGatewayForm(tabs);
    const int modbusTab = tabs->addTab(m_modbus, tr("Modbus Gateway"));
    // Only what the chosen kind uses can be edited.
    const auto kindChanged = [this, tabs, framingTab, modbusTab] {
        const BridgeKind kind = BridgeKind(m_kind->currentData().toInt());
        const bool gateway = kind != BridgeKind::Forward;
        tabs->setTabEnabled(framingTab, !gateway);
        tabs->setTabEnabled(modbusTab, kind == BridgeKind::ModbusGateway);
        m_direction->setEnabled(!gateway);
    };
    connect(m_kind, &QComboBox::currentIndexChanged, this, kindChanged);

    // ---- Queue and flood guard ----
    auto *queuePage = new QWidget(tabs);
    auto *queueLayout = new QFormLayout(queuePage);
    m_high = new QSpinBox(queuePage);
    m_high->setObjectName(QStringLiteral("highWatermarkBox"));
    m_high->setRange(1, int(BridgeRecord::kMaxWatermark));
    m_high->setSuffix(tr(" bytes"));
    m_high->setToolTip(tr("Queued bytes per target at which the overflow policy acts"));
    queueLayout->addRow(tr("High watermark"), m_high);
    m_low = new QSpinBox(queuePage);
    m_low->setObjectName(QStringLiteral("lowWatermarkBox"));
    m_low->setRange(0, int(BridgeRecord::kMaxWatermark));
    m_low->setSuffix(tr(" bytes"));
    m_low->setToolTip(tr("Queued bytes per target at which a paused source reads again, or dropping stops"));
    queueLayout->addRow(tr("Low watermark"), m_low);
    m_policy = new QComboBox(queuePage);
    m_policy->setObjectName(QStringLiteral("policyBox"));
    for (auto p : {EgressQueue::Policy::PauseSource, EgressQueue::Policy::DropOldest, EgressQueue::Policy::DropNewest,
                   EgressQueue::Policy::Disconnect})
        m_policy->addItem(BridgeRecord::policyText(p), int(p));
    m_policy->setToolTip(tr("What happens when a target takes data slower than it comes. Pausing the source loses "
                            "nothing; the other policies count every frame they drop."));
    queueLayout->addRow(tr("When a target falls behind"), m_policy);
    m_echo = new QCheckBox(tr("Suspend when an end sends back what it was sent (a cable loop)"), queuePage);
    m_echo->setObjectName(QStringLiteral("echoCheckBox"));
    queueLayout->addRow(tr("Flood guard"), m_echo);
    m_rateLimit = new QSpinBox(queuePage);
    m_rateLimit->setObjectName(QStringLiteral("rateLimitBox"));
    m_rateLimit->setRange(0, std::numeric_limits<int>::max());
    m_rateLimit->setSuffix(tr(" bytes/s"));
    m_rateLimit->setSpecialValueText(tr("no limit"));
    m_rateLimit->setToolTip(tr("Suspend when a direction stays above this rate for the time below"));
    queueLayout->addRow(tr("Rate limit"), m_rateLimit);
    m_floodSeconds = new QSpinBox(queuePage);
    m_floodSeconds->setObjectName(QStringLiteral("floodSecondsBox"));
    m_floodSeconds->setRange(1, RateHistory::kSeconds);
    m_floodSeconds->setSuffix(tr(" s"));
    queueLayout->addRow(tr("For"), m_floodSeconds);
    tabs->addTab(queuePage, tr("Queue and Flood Guard"));

    // ---- Capture ----
    auto *capturePage = new QWidget(tabs);
    auto *captureLayout = new QFormLayout(capturePage);
    m_capture = new QCheckBox(tr("Write every forwarded frame to a capture log"), capturePage);
    m_capture->setObjectName(QStringLiteral("captureBox"));
    captureLayout->addRow(QString(), m_capture);
    auto *folderRow = new QHBoxLayout;
    m_captureFolder = new QLineEdit(capturePage);
    m_captureFolder->setObjectName(QStringLiteral("captureFolderEdit"));
    m_captureFolder->setPlaceholderText(PaneOptions::defaultLogFolder());
    auto *browse = new QToolButton(capturePage);
    browse->setText(QStringLiteral("..."));
    browse->setToolTip(tr("Choose the folder"));
    connect(browse, &QToolButton::clicked, this, [this] {
        const QString folder = QFileDialog::getExistingDirectory(this, tr("Capture Folder"), m_captureFolder->text());
        if (!folder.isEmpty())
            m_captureFolder->setText(folder);
    });
    folderRow->addWidget(m_captureFolder, 1);
    folderRow->addWidget(browse);
    captureLayout->addRow(tr("Folder"), folderRow);
    m_captureRotate = new QSpinBox(capturePage);
    m_captureRotate->setObjectName(QStringLiteral("captureRotateBox"));
    m_captureRotate->setRange(0, 1024 * 1024);
    m_captureRotate->setSuffix(tr(" MiB"));
    m_captureRotate->setSpecialValueText(tr("never"));
    captureLayout->addRow(tr("Start a new file at"), m_captureRotate);
    tabs->addTab(capturePage, tr("Capture Log"));

    m_error = new QLabel(this);
    m_error->setObjectName(QStringLiteral("errorLabel"));
    m_error->setStyleSheet(QStringLiteral("color: #b00020;"));
    m_error->setWordWrap(true);
    m_error->hide();
    layout->addWidget(m_error);
    auto *buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, this);
    connect(buttons, &QDialogButtonBox::accepted, this, &BridgeEditDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    layout->addWidget(buttons);

    setRecord(record);
    kindChanged();
}

void BridgeEditDialog::setRecord(const BridgeRecord &record)
{
    m_name->setText(record.name);
    m_kind->setCurrentIndex(m_kind->findData(int(record.kind)));
    m_enabled->setChecked(record.enabled);
    m_direction->setCurrentIndex(m_direction->findData(int(record.direction)));
    for (int i : {0, 1}) {
        m_ends[i]->setSpec(record.ends[size_t(i)]);
        m_framing[i]->setOptions(record.framing[size_t(i)]);
    }
    m_modbus->setOptions(record.modbus);
    m_high->setValue(int(record.egress.highWatermark));
    m_low->setValue(int(record.egress.lowWatermark));
    m_policy->setCurrentIndex(m_policy->findData(int(record.egress.policy)));
    m_echo->setChecked(record.flood.echoCheck);
    m_rateLimit->setValue(int(qMin<qint64>(record.flood.rateLimit, std::numeric_limits<int>::max())));
    m_floodSeconds->setValue(record.flood.seconds);
    m_capture->setChecked(record.capture.enabled);
    m_captureFolder->setText(record.capture.folder);
    m_captureRotate->setValue(int(record.capture.rotateSizeBytes / kMiB));
}

ValueResult<BridgeRecord> BridgeEditDialog::record() const
{
    BridgeRecord r;
    r.name = m_name->text().trimmed();
    r.kind = BridgeKind(m_kind->currentData().toInt());
    r.enabled = m_enabled->isChecked();
    r.direction = BridgeDirection(m_direction->currentData().toInt());
    for (int i : {0, 1}) {
        r.ends[size_t(i)] = m_ends[i]->spec();
        const auto framing = m_framing[i]->options();
        if (!framing)
            return ValueResult<BridgeRecord>::failure(framing.errorText());
        r.framing[size_t(i)] = framing.value();
    }
    r.modbus = m_modbus->options();
    r.egress.highWatermark = m_high->value();
    r.egress.lowWatermark = m_low->value();
    r.egress.policy = EgressQueue::Policy(m_policy->currentData().toInt());
    r.flood.echoCheck = m_echo->isChecked();
    r.flood.rateLimit = m_rateLimit->value();
    r.flood.seconds = m_floodSeconds->value();
    r.capture.enabled = m_capture->isChecked();
    r.capture.folder = m_captureFolder->text().trimmed();
    r.capture.rotateSizeBytes = qint64(m_captureRotate->value()) * kMiB;
    if (const Result valid = r.validate(); !valid)
        return ValueResult<BridgeRecord>::failure(valid.errorText());
    return r;
}

void BridgeEditDialog::accept()
{
    const ValueResult<BridgeRecord> checked = record();
    Result outcome = checked ? Result::success() : Result::failure(checked.errorText());
    if (outcome && m_acceptor)
        outcome = m_acceptor(checked.value());
    if (!outcome) {
        m_error->setText(outcome.errorText());
        m_error->show();
        return;
    }
    m_error->hide();
    QDialog::accept();
}
