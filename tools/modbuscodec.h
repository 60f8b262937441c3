#pragma once

#include "common/result.h"
#include "tools/modbusrequest.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QList>
#include <QString>

// Encodes one Modbus request: the PDU, the RTU frame (slave ID, PDU,
// CRC-16/MODBUS low byte first) or the ASCII frame (":", hex of slave ID, PDU
// and LRC, CR LF). Failures carry the user's text (context "ModbusCodec").
class ModbusCodec
{
    Q_DECLARE_TR_FUNCTIONS(ModbusCodec)

public:
    struct Function
    {
        quint8 code;
        const char *label;      // untranslated, e.g. "03  Read Holding Registers"
        const char *countName;  // "Coil count" or "Register count"; null for single writes
        int maxCount;           // 1 for single writes
    };

    // The eight supported functions in the builder's order.
    static const QList<Function> &functions();
    static QString functionLabel(const Function &function);

    static ValueResult<QByteArray> buildPdu(const ModbusRequest &request);
    static ValueResult<QByteArray> buildRtuFrame(const ModbusRequest &request);
    static ValueResult<QByteArray> buildAsciiFrame(const ModbusRequest &request);
    static ValueResult<QByteArray> buildFrame(const ModbusRequest &request, ModbusFraming framing);

    // A unit and PDU as the line carries them, for any function code.
    static QByteArray rtuFrame(quint8 unit, QByteArrayView pdu);
    static QByteArray asciiFrame(quint8 unit, QByteArrayView pdu);

    // A frame read back off the line.
    struct Frame
    {
        quint8 unit = 0;
        QByteArray pdu;
    };
    // How long the RTU reply starting `bytes` is, from its function code:
    // 0 while too few bytes are in to tell, -1 for a function whose replies
    // do not say (such a reply ends at a silence).
    static qsizetype rtuReplyLength(QByteArrayView bytes);
    // A whole RTU frame, its CRC checked.
    static ValueResult<Frame> readRtuFrame(QByteArrayView frame);
    // A whole ASCII frame from ":" to CR LF, its hex and LRC checked.
    static ValueResult<Frame> readAsciiFrame(QByteArrayView frame);

    // Two's complement of the 8-bit sum.
    static quint8 lrc(QByteArrayView bytes);
    // An ASCII frame as text with its final CR LF shown as "<CR><LF>".
    static QString asciiPreviewText(const QByteArray &frame);
};
