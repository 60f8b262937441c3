#pragma once

#include <QByteArray>
#include <QCoreApplication>
#include <QList>
#include <QString>

// Cuts one Modbus TCP client's stream into requests: the MBAP header
// (transaction id, protocol id 0, length, unit) and the PDU it announces.
// A header that cannot be Modbus makes the stream unreadable from there on:
// the reader says why and takes nothing more. It holds at most one frame.
class ModbusTcpReader
{
    Q_DECLARE_TR_FUNCTIONS(ModbusTcpReader)

public:
    static constexpr int kHeaderSize = 7;
    // Unit plus the longest PDU.
    static constexpr int kMaxLength = 254;

    struct Request
    {
        quint16 transactionId = 0;
        quint8 unit = 0;
        QByteArray pdu;
    };

    struct Read
    {
        QList<Request> requests;
        // Set once the stream is malformed; the requests before it stand.
        QString error;
    };

    Read feed(QByteArrayView bytes);
    bool isBroken() const { return m_broken; }

    // A reply (or any PDU) with its MBAP header.
    static QByteArray frame(quint16 transactionId, quint8 unit, QByteArrayView pdu);

private:
    QByteArray m_buffer;
    bool m_broken = false;
};
