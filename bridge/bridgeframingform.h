#pragma once

#include "bridge/bridgeframer.h"
#include "common/result.h"

#include <QGroupBox>

class QCheckBox;
class QComboBox;
class QLineEdit;
class QSpinBox;

// How one direction's stream is cut into frames, in the edit dialog: the
// mode and the fields it uses (the others are greyed out).
class BridgeFramingForm : public QGroupBox
{
    Q_OBJECT

public:
    explicit BridgeFramingForm(const QString &title, QWidget *parent = nullptr);

    void setOptions(const BridgeFramer::Options &options);
    // Fails, naming the field, when the delimiter is not hex bytes.
    ValueResult<BridgeFramer::Options> options() const;

private:
    void updateFields();

    QComboBox *m_mode;
    QSpinBox *m_gap;
    QLineEdit *m_delimiter;
    QCheckBox *m_keep;
    QSpinBox *m_fixed;
    QSpinBox *m_max;
    QSpinBox *m_hold;
};
