#pragma once

#include "bridge/bridgerecord.h"

#include <QGroupBox>

class QCheckBox;
class QComboBox;
class QLineEdit;
class QSpinBox;
class QStackedWidget;

// One end of a bridge in the edit dialog: its kind, and the fields of that
// kind (the pane's endpoint label, a listener's address, port, allowlist and
// exclusive mode, or UDP targets).
class BridgeEndForm : public QGroupBox
{
    Q_OBJECT

public:
    // `panes`: the endpoint labels of the open panes, offered first.
    BridgeEndForm(const QString &title, const QStringList &panes, QWidget *parent = nullptr);

    void setSpec(const BridgeEndSpec &spec);
    BridgeEndSpec spec() const;

Q_SIGNALS:
    void kindChanged();

private:
    QComboBox *m_kind;
    QStackedWidget *m_pages;
    QComboBox *m_pane;
    QLineEdit *m_address;
    QSpinBox *m_port;
    QLineEdit *m_allowlist;
    QCheckBox *m_exclusive;
    QLineEdit *m_targets;
};
