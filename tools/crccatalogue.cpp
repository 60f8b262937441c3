#include "tools/crccatalogue.h"

#include "tools/crctable.h"

#include <QCoreApplication>

#include <memory>
#include <vector>

namespace {

struct Catalogue
{
    QList<CrcModel> rows;
    std::vector<std::unique_ptr<const CrcTable>> tables;
};

const Catalogue &catalogue()
{
    static const Catalogue instance = [] {
        Catalogue c;
        auto add = [&c](const char *name, int width, quint64 poly, quint64 init, bool refin, bool refout,
                        quint64 xorout) {
            const int id = int(c.rows.size());
            c.rows.append(CrcModel{id, QString::fromLatin1(name), width, poly, init, refin, refout, xorout});
            c.tables.push_back(std::make_unique<const CrcTable>(c.rows.last().params()));
        };
        add("CRC-4/ITU", 4, 0x3, 0x0, true, true, 0x0);
        add("CRC-5/ITU", 5, 0x15, 0x00, true, true, 0x00);
        add("CRC-5/USB", 5, 0x05, 0x1F, true, true, 0x1F);
        add("CRC-6/ITU", 6, 0x03, 0x00, true, true, 0x00);
        add("CRC-8", 8, 0x07, 0x00, false, false, 0x00);
        add("CRC-16/MODBUS", 16, 0x8005, 0xFFFF, true, true, 0x0000);
        add("CRC-16/USB", 16, 0x8005, 0xFFFF, true, true, 0xFFFF);
        add("CRC-32", 32, 0x04C11DB7, 0xFFFFFFFF, true, true, 0xFFFFFFFF);
        add(QT_TRANSLATE_NOOP("CrcCatalogue", "Custom"), 16, 0x1021, 0xFFFF, false, false, 0x0000);
        return c;
    }();
    return instance;
}

} // namespace

QString CrcModel::displayName() const
{
    return QCoreApplication::translate("CrcCatalogue", name.toLatin1().constData());
}

const QList<CrcModel> &crcCatalogue()
{
    return catalogue().rows;
}

std::optional<CrcModel> findCrcModel(int id)
{
    for (const CrcModel &model : catalogue().rows) {
        if (model.id == id)
            return model;
    }
    return std::nullopt;
}

quint64 computeCatalogueCrc(int id, QByteArrayView data)
{
    const Catalogue &c = catalogue();
    if (id < 0 || id >= int(c.tables.size()))
        return 0;
    return c.tables[size_t(id)]->compute(data);
}
