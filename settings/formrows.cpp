#include "settings/formrows.h"

#include <QFormLayout>
#include <QWidget>

#include <algorithm>

namespace FormRows {

int rowOf(const QFormLayout *form, QWidget *widget)
{
    for (QWidget *w = widget; w; w = w->parentWidget()) {
        int row = -1;
        QFormLayout::ItemRole role;
        form->getWidgetPosition(w, &row, &role);
        if (row >= 0)
            return row;
        if (w == form->parentWidget())
            break;
    }
    return -1;
}

void arrange(QFormLayout *form, const QList<QWidget *> &widgets)
{
    QList<int> rows;
    for (QWidget *widget : widgets) {
        const int row = rowOf(form, widget);
        if (row < 0 || rows.contains(row))
            return;  // not a set of distinct rows of this form
        rows.append(row);
    }
    QList<int> places = rows;
    std::sort(places.begin(), places.end());
    if (places == rows)
        return;
    // Take the rows out from the bottom up, so the indices still hold, then
    // put them back top down into the same places in the new order.
    QList<bool> spanning;
    for (const int row : std::as_const(rows))
        spanning.append(form->itemAt(row, QFormLayout::SpanningRole) != nullptr);
    QList<QFormLayout::TakeRowResult> taken(rows.size());
    QList<int> byRowDescending = rows;
    std::sort(byRowDescending.begin(), byRowDescending.end(), std::greater<int>());
    for (const int row : std::as_const(byRowDescending))
        taken[rows.indexOf(row)] = form->takeRow(row);
    for (qsizetype i = 0; i < taken.size(); ++i) {
        const QFormLayout::TakeRowResult &item = taken.at(i);
        QWidget *label = item.labelItem ? item.labelItem->widget() : nullptr;
        QWidget *field = item.fieldItem ? item.fieldItem->widget() : nullptr;
        if (spanning.at(i))
            form->insertRow(places.at(i), field);
        else
            form->insertRow(places.at(i), label, field);  // a row without a label keeps its place
        delete item.labelItem;
        delete item.fieldItem;
    }
}

void setVisible(QFormLayout *form, QWidget *widget, bool visible)
{
    const int row = rowOf(form, widget);
    if (row >= 0)
        form->setRowVisible(row, visible);
}

} // namespace FormRows
