#pragma once

#include <QList>

class QFormLayout;
class QWidget;

// Rows of a form, addressed by a widget in them: the row's field itself, or
// a widget inside the holder that is the row's field.
namespace FormRows {

// The row of `form` that holds `widget`; -1 when it is in none.
int rowOf(const QFormLayout *form, QWidget *widget);
// Puts the rows holding `widgets` into that order, in the row slots they
// take up together; every other row keeps its place.
void arrange(QFormLayout *form, const QList<QWidget *> &widgets);
// Shows or hides the row holding `widget`.
void setVisible(QFormLayout *form, QWidget *widget, bool visible);

} // namespace FormRows
