#pragma once

// Helpers shared by the unit and the peer tests of the tools.

#include "tools/crcparams.h"
#include "tools/modbusrequest.h"

#include <QMetaType>
#include <QRandomGenerator>
#include <QString>

inline QByteArray randomBytes(QRandomGenerator &rng, qsizetype size)
{
    QByteArray data(size, Qt::Uninitialized);
    for (char &c : data)
        c = char(rng.bounded(256));
    return data;
}

// Random parameters of the given width; the polynomial is never zero.
inline CrcParams randomParams(QRandomGenerator &rng, int width, bool refin, bool refout)
{
    CrcParams p{width, 0, 0, 0, refin, refout};
    p.poly = qMax<quint64>(rng.generate64() & p.mask(), 1);
    p.init = rng.generate64() & p.mask();
    p.xorout = rng.generate64() & p.mask();
    return p;
}

// "width poly init xorout refin refout data" in hex ("-" for no data): the
// peers' input line, and how a failing case is named.
inline QString crcCaseLine(const CrcParams &p, const QByteArray &data)
{
    const QString bytes = data.isEmpty() ? QStringLiteral("-") : QString::fromLatin1(data.toHex());
    return QStringLiteral("%1 %2 %3 %4 %5 %6 ").arg(p.width).arg(p.poly, 0, 16).arg(p.init, 0, 16).arg(p.xorout, 0, 16)
               .arg(int(p.refin)).arg(int(p.refout)) + bytes;
}

inline ModbusRequest request(int slave, int function, int address, int quantity, QList<quint16> values = {})
{
    return {quint8(slave), quint8(function), quint16(address), quint16(quantity), std::move(values)};
}

Q_DECLARE_METATYPE(CrcParams)
Q_DECLARE_METATYPE(ModbusRequest)
