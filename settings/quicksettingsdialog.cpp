#include "settings/quicksettingsdialog.h"

#include "settings/quicksettingscatalog.h"

#include <QDialogButtonBox>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <QTreeWidget>
#include <QVBoxLayout>

namespace {
constexpr int kIdRole = Qt::UserRole;
}

QuickSettingsDialog::QuickSettingsDialog(const QuickSettingsLayout &layout, QWidget *parent)
    : QDialog(parent)
    , m_original(layout)
    , m_tree(new QTreeWidget(this))
{
    setObjectName(QStringLiteral("QuickSettingsDialog"));
    setWindowTitle(tr("Quick Settings"));
    auto *hint = new QLabel(tr("Choose the groups and fields to show, and arrange their order."), this);
    hint->setWordWrap(true);
    m_tree->setObjectName(QStringLiteral("quickSettingsTree"));
    m_tree->setHeaderHidden(true);
    m_tree->setColumnCount(1);

    const QList<QuickSettingsCatalog::Group> groups = QuickSettingsCatalog::groups();
    for (const QString &groupId : QuickSettingsCatalog::groupOrder(layout)) {
        const QuickSettingsCatalog::Group *group = QuickSettingsCatalog::group(groups, groupId);
        auto *groupItem = new QTreeWidgetItem(m_tree, {group->title});
        groupItem->setData(0, kIdRole, group->id);
        groupItem->setToolTip(0, group->description);
        groupItem->setFlags(Qt::ItemIsEnabled | Qt::ItemIsSelectable | Qt::ItemIsUserCheckable);
        groupItem->setCheckState(0, QuickSettingsCatalog::isGroupShown(layout, groupId) ? Qt::Checked : Qt::Unchecked);
        const QStringList hidden = layout.hiddenFields.value(groupId);
        for (const QString &fieldId : QuickSettingsCatalog::fieldOrder(layout, groupId, false)) {
            for (const QuickSettingsCatalog::Field &field : group->fields) {
                if (field.id != fieldId)
                    continue;
                auto *item = new QTreeWidgetItem(groupItem, {field.label});
                item->setData(0, kIdRole, field.id);
                item->setToolTip(0, field.toolTip);
                item->setFlags(Qt::ItemIsEnabled | Qt::ItemIsSelectable | Qt::ItemIsUserCheckable);
                item->setCheckState(0, hidden.contains(field.id) ? Qt::Unchecked : Qt::Checked);
            }
        }
    }
    m_tree->expandAll();

    auto *up = new QPushButton(tr("Up"), this);
    up->setObjectName(QStringLiteral("quickSettingsMoveUpButton"));
    auto *down = new QPushButton(tr("Down"), this);
    down->setObjectName(QStringLiteral("quickSettingsMoveDownButton"));
    connect(up, &QPushButton::clicked, this, [this] { move(-1); });
    connect(down, &QPushButton::clicked, this, [this] { move(1); });
    auto *moveButtons = new QVBoxLayout;
    moveButtons->addWidget(up);
    moveButtons->addWidget(down);
    moveButtons->addStretch(1);
    auto *middle = new QHBoxLayout;
    middle->addWidget(m_tree, 1);
    middle->addLayout(moveButtons);

    auto *buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, this);
    connect(buttons, &QDialogButtonBox::accepted, this, &QuickSettingsDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    auto *outer = new QVBoxLayout(this);
    outer->addWidget(hint);
    outer->addLayout(middle, 1);
    outer->addWidget(buttons);
    resize(420, 520);
}

void QuickSettingsDialog::move(int step)
{
    QTreeWidgetItem *item = m_tree->currentItem();
    if (!item)
        return;
    QTreeWidgetItem *parent = item->parent();
    const int count = parent ? parent->childCount() : m_tree->topLevelItemCount();
    const int from = parent ? parent->indexOfChild(item) : m_tree->indexOfTopLevelItem(item);
    const int to = from + step;
    if (to < 0 || to >= count)
        return;
    const bool expanded = item->isExpanded();
    if (parent) {
        parent->takeChild(from);
        parent->insertChild(to, item);
    } else {
        m_tree->takeTopLevelItem(from);
        m_tree->insertTopLevelItem(to, item);
    }
    item->setExpanded(expanded);
    m_tree->setCurrentItem(item);
}

QuickSettingsLayout QuickSettingsDialog::layout() const
{
    QuickSettingsLayout result = QuickSettingsCatalog::cleaned(m_original);
    QStringList order;
    for (int g = 0; g < m_tree->topLevelItemCount(); ++g) {
        const QTreeWidgetItem *groupItem = m_tree->topLevelItem(g);
        const QString groupId = groupItem->data(0, kIdRole).toString();
        order.append(groupId);
        QuickSettingsCatalog::setGroupShown(result, groupId, groupItem->checkState(0) == Qt::Checked);
        QStringList fields;
        QStringList hidden;
        for (int f = 0; f < groupItem->childCount(); ++f) {
            const QTreeWidgetItem *item = groupItem->child(f);
            fields.append(item->data(0, kIdRole).toString());
            if (item->checkState(0) != Qt::Checked)
                hidden.append(fields.constLast());
        }
        result.fieldOrder.insert(groupId, fields);
        if (hidden.isEmpty())
            result.hiddenFields.remove(groupId);
        else
            result.hiddenFields.insert(groupId, hidden);
    }
    // "controlLines" has no entries of its own but keeps its place.
    const int controlLines = result.groupOrder.indexOf(QStringLiteral("controlLines"));
    order.insert(qBound(0, controlLines, int(order.size())), QStringLiteral("controlLines"));
    result.groupOrder = order;
    return result;
}

void QuickSettingsDialog::accept()
{
    const QuickSettingsLayout chosen = layout();
    if (!chosen.showConnection && !chosen.showReceive && !chosen.showSend) {
        QMessageBox::warning(this, tr("Warning"), tr("Select at least one quick settings group to show."));
        return;
    }
    QDialog::accept();
}
