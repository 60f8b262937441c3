#include "connection/porttransport.h"

void PortTransport::setReadPaused(bool paused)
{
    if (paused == m_readPaused || (paused && !canPause()))
        return;
    m_readPaused = paused;
    applyReadPaused(paused);
    // Bytes that arrived while paused raise no new notification.
    if (!paused && hasWaitingData())
        announceData();
}

void PortTransport::announceData()
{
    emit readable();
    if (!m_readPaused)
        deliverAvailable();
}

void PortTransport::deliverAvailable()
{
    const QByteArray data = takeAvailable();
    if (!data.isEmpty())
        emit received(data, QString());
}

void PortTransport::reportFailure(const QString &text)
{
    emit errorOccurred(text);
    emit statusMessage(text, kFailureTimeout);
}
