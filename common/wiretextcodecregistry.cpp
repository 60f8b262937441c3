#include "common/wiretextcodecregistry.h"

#include <QTextCodec>

namespace {

// What engineers meet on serial lines and sockets: Unicode, the East Asian
// double-byte families, the Latin, Cyrillic, Greek, Turkish, Hebrew, Arabic,
// Baltic and Thai code pages, and the DOS code pages of older equipment.
// Stateful 7-bit encodings (ISO-2022-*) are left out on purpose: they need a
// shift back at the end of every message, which a stream of frames lacks.
const char *const kOfferedNames[] = {
    "UTF-8",
    "GBK",
    "GB18030",
    "Big5",
    "Big5-HKSCS",
    "Shift_JIS",
    "EUC-JP",
    "EUC-KR",
    "ISO-8859-1",
    "ISO-8859-2",
    "ISO-8859-5",
    "ISO-8859-7",
    "ISO-8859-9",
    "ISO-8859-15",
    "Windows-1250",
    "Windows-1251",
    "Windows-1252",
    "Windows-1253",
    "Windows-1254",
    "Windows-1255",
    "Windows-1256",
    "Windows-1257",
    "Windows-1258",
    "KOI8-R",
    "KOI8-U",
    "TIS-620",
    "IBM437",
    "IBM850",
    "IBM866",
    "US-ASCII",
    "UTF-16LE",
    "UTF-16BE",
    "UTF-32LE",
    "UTF-32BE",
};

// Resolves without consulting the offered list.
WireTextCodec resolveDirect(const QString &displayName, const QString &lookupName)
{
    const std::optional<QStringConverter::Encoding> encoding =
        QStringConverter::encodingForName(lookupName.toLatin1().constData());
    // "System" follows the machine's locale, which is no wire encoding. The
    // byte-order sniffing forms of UTF-16 and UTF-32 are left to the legacy
    // codec, which keeps the order found at the start of the stream.
    if (encoding && *encoding != QStringConverter::System && *encoding != QStringConverter::Utf16
        && *encoding != QStringConverter::Utf32)
        return WireTextCodec::fromEncoding(displayName, *encoding);
    if (QTextCodec *legacy = QTextCodec::codecForName(lookupName.toLatin1()))
        return WireTextCodec::fromLegacy(displayName, legacy);
    return WireTextCodec();
}

bool isLatin1Name(const QString &name)
{
    for (const QChar c : name) {
        if (c.unicode() > 0x7e || c.unicode() < 0x20)
            return false;
    }
    return true;
}

} // namespace

QString WireTextCodecRegistry::defaultName()
{
    return QStringLiteral("UTF-8");
}

QStringList WireTextCodecRegistry::names()
{
    static const QStringList available = [] {
        QStringList list;
        for (const char *name : kOfferedNames) {
            const QString n = QString::fromLatin1(name);
            if (resolveDirect(n, n).isValid())
                list.append(n);
        }
        return list;
    }();
    return available;
}

ValueResult<WireTextCodec> WireTextCodecRegistry::resolve(const QString &name)
{
    const QString wanted = name.trimmed();
    if (wanted.isEmpty() || !isLatin1Name(wanted))
        return ValueResult<WireTextCodec>::failure(unknownEncodingText(name));
    for (const char *offered : kOfferedNames) {
        const QString n = QString::fromLatin1(offered);
        if (n.compare(wanted, Qt::CaseInsensitive) == 0) {
            WireTextCodec codec = resolveDirect(n, n);
            if (codec.isValid())
                return codec;
        }
    }
    WireTextCodec codec = resolveDirect(wanted, wanted);
    if (!codec.isValid())
        return ValueResult<WireTextCodec>::failure(unknownEncodingText(name));
    return codec;
}

bool WireTextCodecRegistry::isAvailable(const QString &name)
{
    return resolve(name).isOk();
}

QString WireTextCodecRegistry::unknownEncodingText(const QString &name)
{
    return tr("The text encoding \"%1\" is not available on this system.").arg(name);
}
