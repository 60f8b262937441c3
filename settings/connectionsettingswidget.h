#pragma once

#include "connection/connectionconfig.h"

#include <QWidget>

class QCheckBox;
class QComboBox;
class QFormLayout;
class QLabel;
class QLineEdit;
class QSpinBox;

// The form that edits a pane's connection record: which port or network
// endpoint, and the serial parameters. It only edits; the pane decides
// whether a change needs a reopen or can be applied in place.
class ConnectionSettingsWidget : public QWidget
{
    Q_OBJECT

public:
    // A serial port the system reports: its name and a short description.
    struct PortEntry {
        QString name;
        QString description;
    };

    explicit ConnectionSettingsWidget(QWidget *parent = nullptr);

    // Shows a record without announcing it as an edit.
    void setConfig(const ConnectionConfig &config);
    ConnectionConfig config() const;

    // Refills the serial entries of the port box, keeping the current choice
    // (a typed name such as a pseudo-terminal path stays as typed).
    void setAvailablePorts(const QList<PortEntry> &ports);
    QStringList listedPortNames() const;

    // Serial parameter rows left out of a pane's quick settings, by field id
    // ("baudRate", "dataBits", "parity", "stopBits", "flowControl").
    void setHiddenFields(const QStringList &ids);
    // The serial parameter rows in this order of quick-settings ids
    // ("baudRate", "dataBits", "parity", "stopBits", "flowControl").
    void setFieldOrder(const QStringList &ids);

    // While a file transfer owns the port nothing here may change.
    void setLocked(bool locked);

    // The entry that stands for a port when the system reports none.
    static QString defaultPortLabel();
    static QString defaultPortName() { return QStringLiteral("COM2"); }
    static QList<qint32> standardBaudRates();

Q_SIGNALS:
    // The user changed something that needs the connection reopened.
    void connectionEdited();
    // The user changed only baud rate, data bits, parity, stop bits or flow
    // control: an open serial port can take them in place.
    void serialParametersEdited();
    // The user wants to pick the remote port of a Live Relay connection.
    void relayTargetRequested();

private:
    enum class PortKind { Serial, Network, Rfc2217, Relay };

    void buildForm();
    void fillPortBox(const QList<PortEntry> &ports, const QString &keepText);
    PortKind currentKind() const;
    ConnectionMode currentMode() const;
    void updateVisibility();
    void onBaudChosen(int index);
    void announceConnectionEdit();
    void announceSerialEdit();
    void setRowVisible(QWidget *field, bool visible);

    QFormLayout *m_form = nullptr;
    QComboBox *m_portBox = nullptr;
    QComboBox *m_modeBox = nullptr;
    QComboBox *m_hostBox = nullptr;
    QSpinBox *m_targetPort = nullptr;
    QSpinBox *m_udpLocalPort = nullptr;
    QSpinBox *m_udpRemotePort = nullptr;
    QComboBox *m_listenAddress = nullptr;
    QComboBox *m_baudBox = nullptr;
    QComboBox *m_dataBitsBox = nullptr;
    QComboBox *m_parityBox = nullptr;
    QComboBox *m_stopBitsBox = nullptr;
    QComboBox *m_flowBox = nullptr;
    QCheckBox *m_useRemoteConfig = nullptr;
    QWidget *m_relayRow = nullptr;
    QLabel *m_relayTarget = nullptr;
    // Fields the form does not show but must hand back unchanged.
    ConnectionConfig m_hidden;
    QStringList m_quickHidden;
    bool m_loading = false;
};
