#include "bridge/bridgesdialog.h"

#include "bridge/bridgeeditdialog.h"
#include "bridge/bridgeengine.h"
#include "bridge/bridgemanager.h"
#include "bridge/panedirectory.h"
#include "bridge/ratesparkline.h"

#include <QDialogButtonBox>
#include <QGridLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLocale>
#include <QMessageBox>
#include <QPushButton>
#include <QTableWidget>
#include <QTimer>
#include <QVBoxLayout>

namespace {

QColor stateColor(BridgeEngine::State state)
{
    switch (state) {
    case BridgeEngine::State::Running: return QColor(0x1e, 0x84, 0x49);
    case BridgeEngine::State::Waiting: return QColor(0xb9, 0x77, 0x0e);
    case BridgeEngine::State::Suspended:
    case BridgeEngine::State::Failed: return QColor(0xb0, 0x00, 0x20);
    case BridgeEngine::State::Disabled: break;
    }
    return {};
}

} // namespace

BridgesDialog::BridgesDialog(BridgeManager *manager, QWidget *parent)
    : QDialog(parent)
    , m_manager(manager)
    , m_table(new QTableWidget(0, ColumnCount, this))
    , m_refresh(new QTimer(this))
{
    setObjectName(QStringLiteral("BridgesDialog"));
    setWindowTitle(tr("Bridges"));
    auto *layout = new QVBoxLayout(this);

    m_table->setObjectName(QStringLiteral("bridgeTable"));
    m_table->setHorizontalHeaderLabels({tr("Name"), tr("State"), QStringLiteral("A → B"), QStringLiteral("B → A")});
    m_table->setSelectionBehavior(QAbstractItemView::SelectRows);
    m_table->setSelectionMode(QAbstractItemView::SingleSelection);
    m_table->setEditTriggers(QAbstractItemView::NoEditTriggers);
    m_table->verticalHeader()->hide();
    m_table->horizontalHeader()->setSectionResizeMode(NameColumn, QHeaderView::Stretch);
    m_table->horizontalHeader()->setSectionResizeMode(StateColumn, QHeaderView::ResizeToContents);
    m_table->horizontalHeader()->setSectionResizeMode(AToBColumn, QHeaderView::ResizeToContents);
    m_table->horizontalHeader()->setSectionResizeMode(BToAColumn, QHeaderView::ResizeToContents);
    layout->addWidget(m_table, 1);

    auto *buttonRow = new QHBoxLayout;
    m_add = new QPushButton(tr("Add..."), this);
    m_edit = new QPushButton(tr("Edit..."), this);
    m_enable = new QPushButton(tr("Enable"), this);
    m_disable = new QPushButton(tr("Disable"), this);
    m_remove = new QPushButton(tr("Remove"), this);
    m_add->setObjectName(QStringLiteral("addButton"));
    m_edit->setObjectName(QStringLiteral("editButton"));
    m_enable->setObjectName(QStringLiteral("enableButton"));
    m_disable->setObjectName(QStringLiteral("disableButton"));
    m_remove->setObjectName(QStringLiteral("removeButton"));
    m_enable->setToolTip(tr("Start the bridge, or resume it after the flood guard suspended it"));
    for (QPushButton *b : {m_add, m_edit, m_enable, m_disable, m_remove})
        buttonRow->addWidget(b);
    buttonRow->addStretch(1);
    layout->addLayout(buttonRow);

    auto *details = new QGroupBox(tr("Selected Bridge"), this);
    auto *grid = new QGridLayout(details);
    m_stateText = new QLabel(details);
    m_stateText->setObjectName(QStringLiteral("stateText"));
    m_stateText->setWordWrap(true);
    m_stateText->setTextInteractionFlags(Qt::TextSelectableByMouse);
    grid->addWidget(m_stateText, 0, 0, 1, 2);
    m_notice = new QLabel(details);
    m_notice->setObjectName(QStringLiteral("noticeText"));
    m_notice->setWordWrap(true);
    m_notice->setStyleSheet(QStringLiteral("color: #7b7d7d;"));
    grid->addWidget(m_notice, 1, 0, 1, 2);
    for (int d : {0, 1}) {
        auto *title = new QLabel(QStringLiteral("<b>%1</b>").arg(d == 0 ? QStringLiteral("A → B") : QStringLiteral("B → A")),
                                 details);
        grid->addWidget(title, 2, d);
        m_sparklines[d] = new RateSparkline(details);
        m_sparklines[d]->setObjectName(d == 0 ? QStringLiteral("sparklineAToB") : QStringLiteral("sparklineBToA"));
        m_sparklines[d]->setToolTip(tr("Bytes per second over the last two minutes"));
        grid->addWidget(m_sparklines[d], 3, d);
        m_counters[d] = new QLabel(details);
        m_counters[d]->setObjectName(d == 0 ? QStringLiteral("countersAToB") : QStringLiteral("countersBToA"));
        m_counters[d]->setTextInteractionFlags(Qt::TextSelectableByMouse);
        grid->addWidget(m_counters[d], 4, d, Qt::AlignTop);
    }
    m_gatewayTable = new QTableWidget(0, 5, details);
    m_gatewayTable->setObjectName(QStringLiteral("gatewayCounters"));
    m_gatewayTable->setHorizontalHeaderLabels(
        {tr("Client or unit"), tr("Requests"), tr("Replies"), tr("Timeouts"), tr("Exceptions")});
    m_gatewayTable->setEditTriggers(QAbstractItemView::NoEditTriggers);
    m_gatewayTable->verticalHeader()->hide();
    m_gatewayTable->horizontalHeader()->setSectionResizeMode(0, QHeaderView::Stretch);
    m_gatewayTable->setMinimumHeight(120);
    grid->addWidget(m_gatewayTable, 5, 0, 1, 2);
    m_gatewaySummary = new QLabel(details);
    m_gatewaySummary->setObjectName(QStringLiteral("gatewaySummary"));
    grid->addWidget(m_gatewaySummary, 6, 0, 1, 2);
    layout->addWidget(details);

    auto *close = new QDialogButtonBox(QDialogButtonBox::Close, this);
    connect(close, &QDialogButtonBox::rejected, this, &QDialog::reject);
    layout->addWidget(close);

    connect(m_add, &QPushButton::clicked, this, &BridgesDialog::addBridge);
    connect(m_edit, &QPushButton::clicked, this, &BridgesDialog::editBridge);
    connect(m_table, &QTableWidget::cellDoubleClicked, this, &BridgesDialog::editBridge);
    connect(m_remove, &QPushButton::clicked, this, &BridgesDialog::removeBridge);
    connect(m_enable, &QPushButton::clicked, this, [this] { m_manager->setEnabled(currentIndex(), true); });
    connect(m_disable, &QPushButton::clicked, this, [this] { m_manager->setEnabled(currentIndex(), false); });
    connect(m_table, &QTableWidget::itemSelectionChanged, this, [this] {
        refreshDetails();
        updateButtons();
    });
    connect(m_manager, &BridgeManager::listChanged, this, &BridgesDialog::rebuild);
    connect(m_manager, &BridgeManager::bridgeStateChanged, this, &BridgesDialog::refresh);
    m_refresh->setInterval(1000);
    connect(m_refresh, &QTimer::timeout, this, &BridgesDialog::refresh);
    m_refresh->start();
    rebuild();
    resize(720, 520);
}

int BridgesDialog::currentIndex() const
{
    const QList<QTableWidgetItem *> selected = m_table->selectedItems();
    return selected.isEmpty() ? -1 : selected.first()->row();
}

void BridgesDialog::selectBridge(int index)
{
    if (index >= 0 && index < m_table->rowCount())
        m_table->selectRow(index);
}

void BridgesDialog::rebuild()
{
    const int current = currentIndex();
    m_table->setRowCount(m_manager->count());
    for (int row = 0; row < m_manager->count(); ++row) {
        for (int column = 0; column < ColumnCount; ++column) {
            if (!m_table->item(row, column))
                m_table->setItem(row, column, new QTableWidgetItem);
        }
    }
    if (current >= 0)
        selectBridge(qMin(current, m_manager->count() - 1));
    else if (m_manager->count() > 0)
        selectBridge(0);
    refresh();
    updateButtons();
}

void BridgesDialog::refresh()
{
    for (int row = 0; row < m_manager->count() && row < m_table->rowCount(); ++row) {
        const BridgeEngine *engine = m_manager->engine(row);
        m_table->item(row, NameColumn)->setText(engine->record().name);
        QTableWidgetItem *state = m_table->item(row, StateColumn);
        state->setText(BridgeEngine::stateName(engine->state()));
        state->setForeground(stateColor(engine->state()));
        state->setToolTip(engine->stateText());
        for (int d : {0, 1}) {
            const bool used = engine->record().forwardsFrom(d == 0 ? BridgeRecord::kA : BridgeRecord::kB);
            m_table->item(row, d == 0 ? AToBColumn : BToAColumn)
                ->setText(used ? RateSparkline::rateText(engine->rate(d)) : QStringLiteral("—"));
        }
    }
    refreshDetails();
    updateButtons();
}

void BridgesDialog::refreshDetails()
{
    const BridgeEngine *engine = m_manager->engine(currentIndex());
    if (!engine) {
        m_stateText->setText(m_manager->count() == 0 ? tr("No bridges yet. Add one to forward data between two ports.")
                                                     : QString());
        m_notice->clear();
        for (int d : {0, 1}) {
            m_counters[d]->clear();
            m_sparklines[d]->setPoints({});
        }
        m_gatewayTable->hide();
        m_gatewaySummary->hide();
        return;
    }
    m_stateText->setText(engine->stateText());
    m_notice->setText(engine->lastNotice());
    const QLocale locale;
    for (int d : {0, 1}) {
        const BridgeEngine::Counters c = engine->counters(d);
        m_counters[d]->setText(tr("Frames: %1\nBytes: %2\nDropped: %3 frames, %4 bytes\nNot forwarded: %5 bytes\nQueued: %6 bytes")
                                   .arg(locale.toString(c.frames), locale.toString(c.bytes),
                                        locale.toString(c.droppedFrames), locale.toString(c.droppedBytes),
                                        locale.toString(c.unroutedBytes), locale.toString(c.queuedBytes)));
        m_sparklines[d]->setPoints(engine->ratePoints(d));
    }
    refreshGateway(engine);
}

void BridgesDialog::refreshGateway(const BridgeEngine *engine)
{
    const bool gateway = engine->record().kind == BridgeKind::ModbusGateway;
    m_gatewayTable->setVisible(gateway);
    m_gatewaySummary->setVisible(gateway);
    if (!gateway)
        return;
    const BridgeEngine::GatewayCounters counters = engine->gatewayCounters();
    const QLocale locale;
    m_gatewayTable->setRowCount(int(counters.clients.size() + counters.units.size()));
    int row = 0;
    const auto put = [this, &row, &locale](const QString &name, const ModbusArbiter::Counters &c) {
        const QStringList cells = {name, locale.toString(c.requests), locale.toString(c.replies),
                                   locale.toString(c.timeouts), locale.toString(c.exceptions)};
        for (int column = 0; column < cells.size(); ++column) {
            QTableWidgetItem *item = m_gatewayTable->item(row, column);
            if (!item) {
                item = new QTableWidgetItem;
                m_gatewayTable->setItem(row, column, item);
            }
            item->setText(cells[column]);
            item->setTextAlignment(column == 0 ? Qt::AlignLeft | Qt::AlignVCenter : Qt::AlignRight | Qt::AlignVCenter);
        }
        ++row;
    };
    for (const auto &[client, c] : counters.clients)
        put(tr("Client %1").arg(client), c);
    for (const auto &[unit, c] : counters.units)
        put(unit == 0 ? tr("Unit 0 (broadcast)") : tr("Unit %1").arg(unit), c);
    m_gatewaySummary->setText(tr("Replies discarded (damaged, from another unit, or unasked): %1")
                                  .arg(locale.toString(counters.discardedReplies)));
}

void BridgesDialog::updateButtons()
{
    const BridgeEngine *engine = m_manager->engine(currentIndex());
    const bool running = engine
        && (engine->state() == BridgeEngine::State::Running || engine->state() == BridgeEngine::State::Waiting);
    m_edit->setEnabled(engine);
    m_remove->setEnabled(engine);
    m_enable->setEnabled(engine && !running);
    m_disable->setEnabled(engine && (running || engine->record().enabled));
}

void BridgesDialog::addBridge()
{
    BridgeRecord record;
    record.name = tr("Bridge %1").arg(m_manager->count() + 1);
    record.ends[BridgeRecord::kA].kind = BridgeEndSpec::Kind::Listener;
    const QStringList panes = m_manager->panes()->labels();
    record.ends[BridgeRecord::kB].pane = panes.value(0);
    BridgeEditDialog dialog(record, panes, this);
    dialog.setWindowTitle(tr("Add Bridge"));
    dialog.setAcceptor([this](const BridgeRecord &r) { return m_manager->add(r); });
    if (dialog.exec() == QDialog::Accepted)
        selectBridge(m_manager->count() - 1);
}

void BridgesDialog::editBridge()
{
    const int index = currentIndex();
    const BridgeEngine *engine = m_manager->engine(index);
    if (!engine)
        return;
    BridgeEditDialog dialog(engine->record(), m_manager->panes()->labels(), this);
    dialog.setAcceptor([this, index](const BridgeRecord &r) { return m_manager->replace(index, r); });
    dialog.exec();
}

void BridgesDialog::removeBridge()
{
    const int index = currentIndex();
    const BridgeEngine *engine = m_manager->engine(index);
    if (!engine)
        return;
    if (QMessageBox::question(this, tr("Remove Bridge"),
                              tr("Remove the bridge \"%1\"? Its link stops at once.").arg(engine->record().name))
        != QMessageBox::Yes)
        return;
    m_manager->remove(index);
}
