#pragma once

#include "tools/crcmodel.h"

#include <QByteArrayView>
#include <QList>

#include <optional>

// Catalogue ids, equal to the row positions.
namespace CrcModelId {
enum : int {
    Crc4Itu = 0,
    Crc5Itu = 1,
    Crc5Usb = 2,
    Crc6Itu = 3,
    Crc8 = 4,
    Crc16Modbus = 5,
    Crc16Usb = 6,
    Crc32 = 7,
    Custom = 8,
};
} // namespace CrcModelId

// The nine named models in id order, built once on first use (from any
// thread) and shared read-only afterwards. "Custom" holds only the defaults
// the calculator shows.
const QList<CrcModel> &crcCatalogue();
std::optional<CrcModel> findCrcModel(int id);

// The CRC of a catalogue row through its precomputed tables (the "Custom"
// row uses its defaults). Unknown ids give 0.
quint64 computeCatalogueCrc(int id, QByteArrayView data);
