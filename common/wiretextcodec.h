#pragma once

#include "common/result.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QString>
#include <QStringConverter>
#include <QStringView>

#include <optional>

class QTextCodec;

// One text encoding as the wire sees it, resolved by name: Qt's own
// converter where it has one, else a legacy codec. A cheap value; the
// legacy codec objects are owned by Qt for the life of the process.
class WireTextCodec
{
    Q_DECLARE_TR_FUNCTIONS(WireTextCodec)

public:
    WireTextCodec() = default;  // invalid; resolve through WireTextCodecRegistry
    static WireTextCodec fromEncoding(const QString &name, QStringConverter::Encoding encoding);
    static WireTextCodec fromLegacy(const QString &name, QTextCodec *codec);

    bool isValid() const { return m_encoding.has_value() || m_legacy != nullptr; }
    QString name() const { return m_name; }
    std::optional<QStringConverter::Encoding> encoding() const { return m_encoding; }
    QTextCodec *legacyCodec() const { return m_legacy; }

    // The text as bytes, or the user's reason why it cannot be sent. Nothing
    // is substituted: a character the encoding lacks fails the whole text.
    ValueResult<QByteArray> encode(QStringView text) const;

    static QString unencodableCharacterText(const QString &character, const QString &encodingName);
    static QString unencodableMessageText(const QString &encodingName);

private:
    // Bytes and whether any character could not be converted.
    std::pair<QByteArray, bool> encodeRaw(QStringView text) const;

    QString m_name;
    std::optional<QStringConverter::Encoding> m_encoding;
    QTextCodec *m_legacy = nullptr;
};
