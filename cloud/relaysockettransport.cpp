#include "cloud/relaysockettransport.h"

#include "common/logging.h"

RelaySocketTransport::RelaySocketTransport(QObject *parent)
    : RelayTransport(parent)
    , m_socket(new RelaySocket(this))
{
    connect(m_socket, &RelaySocket::paired, this, [this] { emit connected(); });
    connect(m_socket, &RelaySocket::binaryReceived, this, &RelayTransport::dataReceived);
    connect(m_socket, &RelaySocket::noticed, this, [](const QString &text) {
        qCInfo(lcCloud).noquote() << "[RelaySocketTransport]" << text;
    });
    connect(m_socket, &RelaySocket::stopped, this, [this](RelaySocket::Stop kind, const QString &detail) {
        qCInfo(lcCloud).noquote() << "[RelaySocketTransport] ended:" << kind << detail;
        fail(detail);
    });
}

void RelaySocketTransport::open(const QString &relayAddress, const QString &ticket, const QString &relayId,
                                const QString &guestToken)
{
    m_guestToken = guestToken;
    m_relayId = relayId;
    m_socket->open(relayAddress, ticket);
}

void RelaySocketTransport::fail(const QString &reason)
{
    if (m_ended)
        return;
    m_ended = true;
    emit ended(reason);
}

void RelaySocketTransport::close()
{
    m_ended = true;
    const QString relayId = m_socket->relayId().isEmpty() ? m_relayId : m_socket->relayId();
    m_socket->close();
    if (m_endHook && !relayId.isEmpty())
        m_endHook(relayId, m_guestToken);
}
