#pragma once

#include "bridge/bridgerecord.h"

#include <QDialog>
#include <functional>

class BridgeEndForm;
class BridgeFramingForm;
class ModbusGatewayForm;
class QCheckBox;
class QComboBox;
class QLabel;
class QLineEdit;
class QSpinBox;

// Adds or edits one bridge. Every field is checked when OK is pressed; a
// field that does not hold keeps the dialog open with the message beside the
// buttons.
class BridgeEditDialog : public QDialog
{
    Q_OBJECT

public:
    // `accept`: called with the record once it checks out; a failure it
    // returns is shown like a field's (the manager may still refuse).
    using Acceptor = std::function<Result(const BridgeRecord &)>;

    BridgeEditDialog(const BridgeRecord &record, const QStringList &panes, QWidget *parent = nullptr);

    void setAcceptor(Acceptor acceptor) { m_acceptor = std::move(acceptor); }
    // What the fields say now, or the text of the first that does not hold.
    ValueResult<BridgeRecord> record() const;

    void accept() override;

private:
    void setRecord(const BridgeRecord &record);

    Acceptor m_acceptor;
    QLineEdit *m_name;
    QComboBox *m_kind;
    QCheckBox *m_enabled;
    QComboBox *m_direction;
    BridgeEndForm *m_ends[2];
    BridgeFramingForm *m_framing[2];
    ModbusGatewayForm *m_modbus;
    QSpinBox *m_high;
    QSpinBox *m_low;
    QComboBox *m_policy;
    QCheckBox *m_echo;
    QSpinBox *m_rateLimit;
    QSpinBox *m_floodSeconds;
    QCheckBox *m_capture;
    QLineEdit *m_captureFolder;
    QSpinBox *m_captureRotate;
    QLabel *m_error;
};
