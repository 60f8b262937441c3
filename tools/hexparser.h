#pragma once

#include "common/result.h"

#include <QByteArray>
#include <QString>
#include <QStringView>

#include <optional>

// The one reader of hexadecimal text, shared by the send box, the converter
// and the CRC calculator.
class HexParser
{
public:
    enum class Grouping {
        // Digits pair up in order; white space anywhere is skipped, even
        // between the two digits of a byte ("4 8" is 0x48).
        DigitStream,
        // White space or commas separate tokens; a one-digit token is one
        // byte ("1 a ff" is 01 0A FF), longer tokens hold whole bytes and may
        // start with "0x".
        Tokens,
    };

    static ValueResult<QByteArray> parse(QStringView text, Grouping grouping = Grouping::DigitStream);

    // A number written in hex digits only, leading zeros allowed (no prefix,
    // no white space); none when the text is empty, holds anything else or
    // does not fit 64 bits.
    static std::optional<quint64> parseNumber(QStringView digits);

    // Upper-case pairs separated by single spaces: "01 AB FF".
    static QString toHexText(const QByteArray &bytes);

    static QString invalidCharacterText(qsizetype position);
    static QString incompleteBytesText();
};
