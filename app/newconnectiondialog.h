#pragma once

#include "connection/connectionconfig.h"

#include <QDialog>

class ConnectionSettingsWidget;
class QTabWidget;

// Chooses the connection of a new pane: a local serial port, or a network
// endpoint.
class NewConnectionDialog : public QDialog
{
    Q_OBJECT

public:
    // `serial` and `network` prefill the two pages.
    NewConnectionDialog(const ConnectionConfig &serial, const ConnectionConfig &network, QWidget *parent = nullptr);

    ConnectionConfig config() const;
    void showNetworkPage();

private:
    QTabWidget *m_pages;
    ConnectionSettingsWidget *m_serial;
    ConnectionSettingsWidget *m_network;
};
