#include "bridge/udpbridgeend.h"

#include "bridge/bridgerecord.h"
#include "common/peerlabel.h"

#include <QUdpSocket>

UdpBridgeEnd::UdpBridgeEnd(const QStringList &targets, QObject *parent)
    : BridgeEnd(parent)
    , m_socket(new QUdpSocket(this))
{
    for (const QString &text : targets) {
        Target target;
        if (BridgeRecord::parseUdpTarget(text, &target.address, &target.port)) {
            target.label = peerLabel(target.address, target.port);
            m_targets.append(target);
        }
    }
}

Result UdpBridgeEnd::start()
{
    if (m_open)
        return Result::success();
    // Bound to a port of its own so that every datagram leaves from one
    // address, and any answer is not mistaken for another program's.
    if (!m_socket->bind(QHostAddress::Any, 0) && !m_socket->bind(QHostAddress::AnyIPv4, 0)) {
        m_error = m_socket->errorString();
        return Result::failure(tr("cannot open a UDP socket: %1").arg(m_error));
    }
    m_open = true;
    emit readyChanged();
    emit outletsChanged();
    return Result::success();
}

void UdpBridgeEnd::stop()
{
    if (!m_open)
        return;
    m_socket->close();
    m_open = false;
    emit outletsChanged();
    emit readyChanged();
}

bool UdpBridgeEnd::isReady() const
{
    return m_open;
}

QString UdpBridgeEnd::waitingText() const
{
    return m_open ? QString() : tr("no UDP socket: %1").arg(m_error);
}

QString UdpBridgeEnd::description() const
{
    QStringList labels;
    for (const Target &target : m_targets)
        labels.append(target.label);
    return tr("UDP %1").arg(labels.join(QStringLiteral(", ")));
}

QStringList UdpBridgeEnd::outlets() const
{
    QStringList labels;
    if (!m_open)
        return labels;
    for (const Target &target : m_targets)
        labels.append(target.label);
    return labels;
}

bool UdpBridgeEnd::write(const QString &outlet, const QByteArray &bytes)
{
    for (const Target &target : std::as_const(m_targets)) {
        if (target.label == outlet)
            return m_socket->writeDatagram(bytes, target.address, target.port) == bytes.size();
    }
    return false;
}

qint64 UdpBridgeEnd::backlog(const QString &outlet) const
{
    Q_UNUSED(outlet);
    return 0;
}
