#include "tools/modbuscodec.h"

#include "tools/crccatalogue.h"

#include <QCoreApplication>
#include <QtEndian>

#include <cctype>
#include <optional>

namespace {

constexpr int AddressSpace = 65536;

ValueResult<QByteArray> failure(const QString &text)
{
    return ValueResult<QByteArray>::failure(text);
}

void appendU16(QByteArray &out, quint16 value)
{
    out.append(char(value >> 8));
    out.append(char(value & 0xFF));
}

std::optional<QString> checkCount(const ModbusCodec::Function &function, qsizetype count)
{
    if (count < 1 || count > function.maxCount)
        return ModbusCodec::tr("%1 must be between %2 and %3.")
            .arg(ModbusCodec::tr(function.countName), QString::number(1), QString::number(function.maxCount));
    return std::nullopt;
}

std::optional<QString> checkAddressSpace(quint16 address, qsizetype count)
{
    if (int(address) + count > AddressSpace)
        return ModbusCodec::tr("Address %1 plus count %2 exceeds the 65536 address space.")
            .arg(QString::number(address), QString::number(count));
    return std::nullopt;
}

const ModbusCodec::Function *findFunction(quint8 code)
{
    for (const ModbusCodec::Function &f : ModbusCodec::functions()) {
        if (f.code == code)
            return &f;
    }
    return nullptr;
}

} // namespace

const QList<ModbusCodec::Function> &ModbusCodec::functions()
{
    static const QList<Function> table = {
        {0x01, QT_TRANSLATE_NOOP("ModbusCodec", "01  Read Coils"), QT_TRANSLATE_NOOP("ModbusCodec", "Coil count"), 2000},
        {0x02, QT_TRANSLATE_NOOP("ModbusCodec", "02  Read Discrete Inputs"), "Coil count", 2000},
        {0x03, QT_TRANSLATE_NOOP("ModbusCodec", "03  Read Holding Registers"),
         QT_TRANSLATE_NOOP("ModbusCodec", "Register count"), 125},
        {0x04, QT_TRANSLATE_NOOP("ModbusCodec", "04  Read Input Registers"), "Register count", 125},
        {0x05, QT_TRANSLATE_NOOP("ModbusCodec", "05  Write Single Coil"), nullptr, 1},
        {0x06, QT_TRANSLATE_NOOP("ModbusCodec", "06  Write Single Register"), nullptr, 1},
        {0x0F, QT_TRANSLATE_NOOP("ModbusCodec", "0F  Write Multiple Coils"), "Coil count", 1968},
        {0x10, QT_TRANSLATE_NOOP("ModbusCodec", "10  Write Multiple Registers"), "Register count", 123},
    };
    return table;
}

QString ModbusCodec::functionLabel(const Function &function)
{
    return tr(function.label);
}

ValueResult<QByteArray> ModbusCodec::buildPdu(const ModbusRequest &request)
{
    if (request.slaveId > 247)
        return failure(tr("Slave ID must be between 0 and 247."));

    const quint8 code = request.functionCode;
    const Function *function = findFunction(code);
    if (!function)
        return failure(tr("Unsupported function code 0x%1.")
                           .arg(QString::number(code, 16).toUpper().rightJustified(2, u'0')));

    QByteArray pdu;
    pdu.append(char(code));
    switch (code) {
    case 0x01:
    case 0x02:
    case 0x03:
    case 0x04: {
        if (auto error = checkCount(*function, request.quantity))
            return failure(*error);
        if (auto error = checkAddressSpace(request.startAddress, request.quantity))
            return failure(*error);
        appendU16(pdu, request.startAddress);
        appendU16(pdu, request.quantity);
        break;
    }
    case 0x05:
        if (request.values.size() != 1)
            return failure(tr("Write Single Coil needs exactly one value."));
        appendU16(pdu, request.startAddress);
        appendU16(pdu, request.values.first() > 0 ? 0xFF00 : 0x0000);
        break;
    case 0x06:
        if (request.values.size() != 1)
            return failure(tr("Write Single Register needs exactly one value."));
        appendU16(pdu, request.startAddress);
        appendU16(pdu, request.values.first());
        break;
    case 0x0F: {
        const qsizetype count = request.values.size();
        if (auto error = checkCount(*function, count))
            return failure(*error);
        if (auto error = checkAddressSpace(request.startAddress, count))
            return failure(*error);
        appendU16(pdu, request.startAddress);
        appendU16(pdu, quint16(count));
        const qsizetype byteCount = (count + 7) / 8;
        pdu.append(char(byteCount));
        const qsizetype dataStart = pdu.size();
        pdu.append(byteCount, '\0');
        // First state in the least significant bit of the first byte.
        for (qsizetype i = 0; i < count; ++i) {
            if (request.values.at(i) > 0)
                pdu[dataStart + i / 8] = char(quint8(pdu.at(dataStart + i / 8)) | (1u << (i % 8)));
        }
        break;
    }
    case 0x10: {
        const qsizetype count = request.values.size();
        if (auto error = checkCount(*function, count))
            return failure(*error);
        if (auto error = checkAddressSpace(request.startAddress, count))
            return failure(*error);
        appendU16(pdu, request.startAddress);
        appendU16(pdu, quint16(count));
        pdu.append(char(2 * count));
        for (quint16 value : request.values)
            appendU16(pdu, value);
        break;
    }
    }
    return pdu;
}

ValueResult<QByteArray> ModbusCodec::buildRtuFrame(const ModbusRequest &request)
{
    ValueResult<QByteArray> pdu = buildPdu(request);
    if (!pdu)
        return pdu;
    return rtuFrame(request.slaveId, pdu.value());
}

ValueResult<QByteArray> ModbusCodec::buildAsciiFrame(const ModbusRequest &request)
{
    ValueResult<QByteArray> pdu = buildPdu(request);
    if (!pdu)
        return pdu;
    return asciiFrame(request.slaveId, pdu.value());
}

QByteArray ModbusCodec::rtuFrame(quint8 unit, QByteArrayView pdu)
{
    QByteArray frame;
    frame.reserve(pdu.size() + 3);
    frame.append(char(unit));
    frame.append(pdu);
    char crc[2];
    qToLittleEndian(quint16(computeCatalogueCrc(CrcModelId::Crc16Modbus, frame)), crc);
    frame.append(crc, 2);
    return frame;
}

QByteArray ModbusCodec::asciiFrame(quint8 unit, QByteArrayView pdu)
{
    QByteArray body;
    body.reserve(pdu.size() + 2);
    body.append(char(unit));
    body.append(pdu);
    body.append(char(lrc(body)));
    return QByteArray(":") + body.toHex().toUpper() + "\r\n";
}

qsizetype ModbusCodec::rtuReplyLength(QByteArrayView bytes)
{
    if (bytes.size() < 2)
        return 0;
    const quint8 function = quint8(bytes[1]);
    if (function & 0x80)
        return 5;  // unit, function, exception code, CRC
    switch (function) {
    case 0x01:
    case 0x02:
    case 0x03:
    case 0x04:
        return bytes.size() < 3 ? 0 : 5 + quint8(bytes[2]);
    case 0x05:
    case 0x06:
    case 0x0F:
    case 0x10:
        return 8;  // the request's address and value or count, echoed
    default:
        return -1;
    }
}

ValueResult<ModbusCodec::Frame> ModbusCodec::readRtuFrame(QByteArrayView frame)
{
    if (frame.size() < 4)
        return ValueResult<Frame>::failure(tr("A frame of %n byte(s) is too short.", nullptr, int(frame.size())));
    const QByteArrayView body = frame.first(frame.size() - 2);
    const quint16 stated = qFromLittleEndian<quint16>(frame.data() + body.size());
    const quint16 computed = quint16(computeCatalogueCrc(CrcModelId::Crc16Modbus, body));
    if (stated != computed) {
        return ValueResult<Frame>::failure(tr("CRC mismatch: the frame says %1, its bytes give %2.")
                                               .arg(stated, 4, 16, QLatin1Char('0'))
                                               .arg(computed, 4, 16, QLatin1Char('0')));
    }
    return Frame{quint8(body[0]), body.sliced(1).toByteArray()};
}

ValueResult<ModbusCodec::Frame> ModbusCodec::readAsciiFrame(QByteArrayView frame)
{
    if (frame.size() < 9 || frame[0] != ':' || !frame.endsWith("\r\n") || (frame.size() - 3) % 2 != 0)
        return ValueResult<Frame>::failure(tr("Not an ASCII frame: it must be \":\", pairs of hex digits and CR LF."));
    const QByteArrayView hex = frame.sliced(1, frame.size() - 3);
    for (char c : hex) {
        if (!std::isxdigit(static_cast<unsigned char>(c)))
            return ValueResult<Frame>::failure(tr("Not an ASCII frame: it must be \":\", pairs of hex digits and CR LF."));
    }
    const QByteArray body = QByteArray::fromHex(hex.toByteArray());
    const QByteArrayView data = QByteArrayView(body).first(body.size() - 1);
    const quint8 stated = quint8(body.back());
    if (lrc(data) != stated) {
        return ValueResult<Frame>::failure(tr("LRC mismatch: the frame says %1, its bytes give %2.")
                                               .arg(stated, 2, 16, QLatin1Char('0'))
                                               .arg(lrc(data), 2, 16, QLatin1Char('0')));
    }
    return Frame{quint8(data[0]), data.sliced(1).toByteArray()};
}

ValueResult<QByteArray> ModbusCodec::buildFrame(const ModbusRequest &request, ModbusFraming framing)
{
    return framing == ModbusFraming::Ascii ? buildAsciiFrame(request) : buildRtuFrame(request);
}

quint8 ModbusCodec::lrc(QByteArrayView bytes)
{
    quint8 sum = 0;
    for (char c : bytes)
        sum = quint8(sum + quint8(c));
    return quint8(-sum);
}

QString ModbusCodec::asciiPreviewText(const QByteArray &frame)
{
    if (frame.endsWith("\r\n"))
        return QString::fromLatin1(frame.left(frame.size() - 2)) + QStringLiteral("<CR><LF>");
    return QString::fromLatin1(frame);
}
