#pragma once

#include <QDialog>

class BridgeManager;
class BridgeEngine;
class QLabel;
class QPushButton;
class QTableWidget;
class QTimer;
class RateSparkline;

// Tools > Bridges...: every bridge with its state and rates; the selected
// one's counters, reason and two-minute sparkline per direction; and the
// buttons to add, edit, enable, disable and remove bridges.
class BridgesDialog : public QDialog
{
    Q_OBJECT

public:
    enum Column { NameColumn, StateColumn, AToBColumn, BToAColumn, ColumnCount };

    explicit BridgesDialog(BridgeManager *manager, QWidget *parent = nullptr);

    int currentIndex() const;
    void selectBridge(int index);

private:
    void rebuild();
    void refresh();
    void refreshDetails();
    void refreshGateway(const BridgeEngine *engine);
    void updateButtons();
    void addBridge();
    void editBridge();
    void removeBridge();

    BridgeManager *m_manager;
    QTableWidget *m_table;
    QLabel *m_stateText;
    QLabel *m_notice;
    QLabel *m_counters[2];
    // A Modbus gateway's counters per client and per unit.
    QTableWidget *m_gatewayTable;
    QLabel *m_gatewaySummary;
    RateSparkline *m_sparklines[2];
    QPushButton *m_add;
    QPushButton *m_edit;
    QPushButton *m_enable;
    QPushButton *m_disable;
    QPushButton *m_remove;
    QTimer *m_refresh;
};
