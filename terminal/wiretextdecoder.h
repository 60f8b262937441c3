#pragma once

#include "common/wiretextcodec.h"

#include <QByteArrayView>
#include <QString>
#include <QStringDecoder>

#include <memory>

// Turns a byte stream into text chunk by chunk. The state between chunks is
// kept, so a multibyte character split across two reads comes out whole
// with the second read. Invalid bytes become U+FFFD and decoding goes on
// with the next byte, so one bad byte never garbles what follows.
class WireTextDecoder
{
public:
    WireTextDecoder();  // UTF-8
    explicit WireTextDecoder(const WireTextCodec &codec);
    ~WireTextDecoder();
    WireTextDecoder(WireTextDecoder &&other) noexcept;
    WireTextDecoder &operator=(WireTextDecoder &&other) noexcept;
    WireTextDecoder(const WireTextDecoder &) = delete;
    WireTextDecoder &operator=(const WireTextDecoder &) = delete;

    const WireTextCodec &codec() const { return m_codec; }
    QString name() const { return m_codec.name(); }

    QString decode(QByteArrayView bytes);
    // Ends the stream: a partly received character left over becomes one
    // U+FFFD, and the next decode() starts afresh.
    QString finish();
    // Forgets a partly received character.
    void reset();

private:
    struct LegacyState;

    // Bytes at the end of the previous chunk that may start a character.
    qsizetype incompleteTail(QByteArrayView bytes) const;

    WireTextCodec m_codec;
    QStringDecoder m_decoder;
    QByteArray m_carry;
    std::unique_ptr<LegacyState> m_legacy;
};
