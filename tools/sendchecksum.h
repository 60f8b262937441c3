#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

// The checksum a port can append to every frame it sends. The numbers are
// persisted and used as combo box item data.
enum class SendChecksumKind : int {
    None = 0,
    Sum8 = 1,
    Xor8 = 2,
    Crc8 = 3,
    Crc16Modbus = 4,
    Crc32 = 5,
};

// The payload with its checksum appended in wire order (CRC-16/MODBUS low
// byte first, CRC-32 least significant byte first). An empty payload, kind
// None or an unknown kind returns the payload unchanged.
QByteArray appendSendChecksum(const QByteArray &payload, SendChecksumKind kind);
inline QByteArray appendSendChecksum(const QByteArray &payload, int kind)
{
    return appendSendChecksum(payload, static_cast<SendChecksumKind>(kind));
}

// The six labels in value order, untranslated (wrap each in tr() context
// "SendChecksum" when showing them).
QStringList sendChecksumLabels();
// The same six labels through the translation, for combo boxes.
QStringList translatedSendChecksumLabels();
bool isKnownSendChecksum(int value);
