#include "fuzztargets.h"

#include "tools/crccustomparams.h"
#include "tools/crcengine.h"
#include "tools/crcformat.h"
#include "tools/crctable.h"
#include "tools/hexparser.h"
#include "tools/modbuscodec.h"
#include "tools/modbusvaluesparser.h"

#include <QByteArray>
#include <QStringList>

namespace {

// The first byte steers the target; the rest is text, read as UTF-8 or, with
// bit 7 of the steering byte, as raw UTF-16 (lone surrogates included).
QString textFrom(uint8_t steer, const uint8_t *data, size_t size)
{
    if (steer & 0x80)
        return QString::fromUtf16(reinterpret_cast<const char16_t *>(data), qsizetype(size / 2));
    return QString::fromUtf8(reinterpret_cast<const char *>(data), qsizetype(size));
}

bool isHexDigit(QChar c)
{
    return QStringView(u"0123456789abcdefABCDEF").contains(c);
}

// A failure must name the first offending character, or come from an odd
// number of digits.
QString checkFailure(const QString &text, HexParser::Grouping grouping, const QString &error)
{
    const bool stream = grouping == HexParser::Grouping::DigitStream;
    if (error == HexParser::incompleteBytesText()) {
        if (!stream)
            return {};
        qsizetype digits = 0;
        for (QChar c : text) {
            if (isHexDigit(c))
                ++digits;
            else if (!c.isSpace())
                return QStringLiteral("complete-bytes text although a character is invalid");
        }
        return digits % 2 == 1 ? QString() : QStringLiteral("complete-bytes text for an even digit count");
    }
    static const QString prefix = QStringLiteral("Invalid hex character at position ");
    if (error.startsWith(prefix) && error.endsWith(u'.')) {
        bool ok = false;
        const qsizetype position = error.mid(prefix.size(), error.size() - prefix.size() - 1).toLongLong(&ok);
        if (!ok || position < 1 || position > text.size())
            return QStringLiteral("position out of the text: ") + error;
        const QChar c = text.at(position - 1);
        if (isHexDigit(c) || c.isSpace() || (!stream && c == u','))
            return QStringLiteral("position %1 names a valid character").arg(position);
        if (stream) {
            for (qsizetype i = 0; i + 1 < position; ++i) {
                if (!isHexDigit(text.at(i)) && !text.at(i).isSpace())
                    return QStringLiteral("an earlier invalid character than position %1").arg(position);
            }
        }
        return {};
    }
    return QStringLiteral("unexpected error text: ") + error;
}

} // namespace

QString fuzzHexParser(const uint8_t *data, size_t size)
{
    if (size == 0)
        return {};
    const uint8_t steer = data[0];
    const QString text = textFrom(steer, data + 1, size - 1);
    const auto grouping = (steer & 1) ? HexParser::Grouping::Tokens : HexParser::Grouping::DigitStream;
    const ValueResult<QByteArray> r = HexParser::parse(text, grouping);
    if (!r)
        return checkFailure(text, grouping, r.errorText());

    const QByteArray &bytes = r.value();
    if (grouping == HexParser::Grouping::DigitStream) {
        QByteArray digits;
        for (QChar c : text) {
            if (isHexDigit(c))
                digits.append(char(c.unicode()));
        }
        if (QByteArray::fromHex(digits) != bytes)
            return QStringLiteral("%1 differs from the digits %2").arg(QString::fromLatin1(bytes.toHex()),
                                                                       QString::fromLatin1(digits));
    }
    // What the send box shows after a send must read back as the same bytes.
    const QString shown = HexParser::toHexText(bytes);
    for (auto g : {HexParser::Grouping::DigitStream, HexParser::Grouping::Tokens}) {
        const ValueResult<QByteArray> again = HexParser::parse(shown, g);
        if (!again || again.value() != bytes)
            return QStringLiteral("normalised text does not read back: ") + shown;
    }
    return {};
}

QString fuzzModbusValues(const uint8_t *data, size_t size)
{
    if (size == 0)
        return {};
    const uint8_t steer = data[0];
    static const quint8 codes[] = {0x06, 0x0F, 0x10};
    const quint8 function = (steer & 0x40) ? quint8(steer & 0x3F) : codes[(steer & 0x3F) % 3];
    const QString text = textFrom(steer, data + 1, size - 1);
    const ValueResult<QList<quint16>> r = ModbusValuesParser::parse(function, text);
    if (!r)
        return r.errorText().isEmpty() ? QStringLiteral("failure without a text") : QString();

    const QList<quint16> &values = r.value();
    // Parts are separated by ASCII white space and commas only.
    qsizetype parts = 0;
    bool inPart = false;
    for (QChar c : text) {
        const bool separator = c == u',' || c == u' ' || (c >= u'\t' && c <= u'\r');
        if (!separator && !inPart)
            ++parts;
        inPart = !separator;
    }
    if ((function == 0x06 || function == 0x0F || function == 0x10) && values.size() != parts)
        return QStringLiteral("%1 values from %2 parts").arg(values.size()).arg(parts);
    if (function != 0x06 && function != 0x0F && function != 0x10)
        return values.isEmpty() ? QString() : QStringLiteral("values for a function without a values field");
    if (function == 0x06 && values.size() != 1)
        return QStringLiteral("0x06 accepted %1 values").arg(values.size());
    if (function == 0x0F) {
        for (quint16 v : values) {
            if (v > 1)
                return QStringLiteral("coil state %1").arg(v);
        }
    }

    // What the dialog does next: build both frames and check them.
    ModbusRequest request;
    request.slaveId = steer % 248;
    request.functionCode = function;
    request.startAddress = quint16(steer) * 97;
    request.values = values;
    const ValueResult<QByteArray> rtu = ModbusCodec::buildRtuFrame(request);
    const ValueResult<QByteArray> ascii = ModbusCodec::buildAsciiFrame(request);
    if (rtu.isOk() != ascii.isOk())
        return QStringLiteral("RTU and ASCII disagree");
    if (!rtu)
        return rtu.errorText().isEmpty() ? QStringLiteral("frame failure without a text") : QString();
    const QByteArray body = QByteArray::fromHex(ascii.value().mid(1, ascii.value().size() - 3));
    if (body.chopped(1) != rtu.value().chopped(2))
        return QStringLiteral("ASCII and RTU carry different requests");
    if (ModbusCodec::lrc(body) != 0)
        return QStringLiteral("LRC does not balance");
    return {};
}

QString fuzzCustomCrcParams(const uint8_t *data, size_t size)
{
    if (size == 0)
        return {};
    const uint8_t steer = data[0];
    const QStringList fields = textFrom(steer, data + 1, size - 1).split(u'\n');
    auto field = [&fields](int i) { return i < fields.size() ? fields.at(i) : QString(); };
    const ValueResult<CrcParams> r =
        validateCustomCrcParams(field(0), field(1), field(2), field(3), steer & 1, steer & 2);
    if (!r)
        return r.errorText().isEmpty() ? QStringLiteral("failure without a text") : QString();

    const CrcParams &p = r.value();
    if (p.width < 1 || p.width > 64 || p.poly == 0 || p.poly > p.mask() || p.init > p.mask() || p.xorout > p.mask())
        return QStringLiteral("accepted out-of-range parameters");

    QByteArray sample = QByteArray(reinterpret_cast<const char *>(data), qsizetype(size));
    // Sometimes long enough for the table's interleaved lanes.
    if (steer & 4) {
        const qsizetype wanted = 3 * CrcTable::LaneBytes + qsizetype(size % 97);
        sample = sample.repeated(wanted / sample.size() + 1).left(wanted);
    }
    const quint64 slow = computeCrc(sample, p);
    const quint64 fast = CrcTable(p).compute(sample);
    if (slow != fast)
        return QStringLiteral("table %1, engine %2").arg(fast, 0, 16).arg(slow, 0, 16);
    if (slow > p.mask())
        return QStringLiteral("result wider than the width");
    for (int base : {2, 8, 10, 16}) {
        bool ok = false;
        const quint64 back = formatCrcValue(slow, base, p.width).toULongLong(&ok, base);
        if (!ok || back != slow)
            return QStringLiteral("base %1 does not read back").arg(base);
    }
    const QByteArray wire = crcWireBytes(slow, p.width, CrcByteOrder::LittleEndian);
    quint64 back = 0;
    for (qsizetype i = wire.size() - 1; i >= 0; --i)
        back = (back << 8) | quint8(wire.at(i));
    if (wire.size() != (p.width + 7) / 8 || back != slow)
        return QStringLiteral("wire bytes do not read back");
    return {};
}
