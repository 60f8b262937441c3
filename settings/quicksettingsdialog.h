#pragma once

#include "settings/quicksettingslayout.h"

#include <QDialog>

class QTreeWidget;
class QTreeWidgetItem;

// The "Quick Settings" editor: which groups and fields the panes' strips
// show, and in which order.
class QuickSettingsDialog : public QDialog
{
    Q_OBJECT

public:
    explicit QuickSettingsDialog(const QuickSettingsLayout &layout, QWidget *parent = nullptr);

    // The layout as the tree shows it; unknown ids of the original are gone.
    QuickSettingsLayout layout() const;

public Q_SLOTS:
    void accept() override;

private:
    void move(int step);

    QuickSettingsLayout m_original;
    QTreeWidget *m_tree;
};
