#pragma once

#include "common/result.h"
#include "common/wiretextcodec.h"

#include <QCoreApplication>
#include <QString>
#include <QStringList>

// The text encodings a pane offers for receiving and sending, and the one
// place that turns an encoding name into a codec.
class WireTextCodecRegistry
{
    Q_DECLARE_TR_FUNCTIONS(WireTextCodecRegistry)

public:
    // "UTF-8", the default of both directions.
    static QString defaultName();

    // The names offered in the encoding boxes, default first, limited to
    // those this system can actually convert.
    static QStringList names();

    // Resolves an offered name (any letter case) or any other name or alias
    // the system knows, so that a stored choice keeps working. Unknown names
    // fail with unknownEncodingText().
    static ValueResult<WireTextCodec> resolve(const QString &name);
    static bool isAvailable(const QString &name);

    static QString unknownEncodingText(const QString &name);
};
