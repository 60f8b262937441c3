#pragma once

#include "common/result.h"
#include "terminal/displaychunk.h"
#include "common/paneoptions.h"
#include "terminal/wiretextdecoder.h"

#include <QByteArrayView>
#include <QDateTime>
#include <QList>
#include <QString>

// Turns display chunks into the text shown in the receive view and written
// to the data log: decoded text or hexadecimal, with timestamps and the
// automatic line feed. It keeps the state that spans chunks (the two
// streaming decoders, a line end split across reads, whether the text so
// far ends at a line start), so one formatter serves one text stream: the
// view has its own, and a log that formats chunks itself needs another.
//
// Every line end in the output is "\n": CR LF and LF CR pairs count as one
// line end, a lone CR or LF as one each, so the text goes into the view
// without further line-end handling.
class DisplayFormatter
{
public:
    struct Options
    {
        MessageFormat format = MessageFormat::Text;
        bool showTimestamps = false;
        QString rxTimeFormat = QStringLiteral("[Rx][hh:mm:ss.zzz] ");
        QString txTimeFormat = QStringLiteral("[Tx][hh:mm:ss.zzz] ");
        bool autoFeed = false;
        int autoFeedIntervalMs = 20;

        // The receive line-ending mode switches the automatic line feed on
        // when it is not "None".
        static Options fromPaneOptions(const PaneOptions &pane);
        bool operator==(const Options &other) const = default;
    };

    DisplayFormatter();  // UTF-8 both ways

    void setOptions(const Options &options);
    const Options &options() const { return m_options; }

    // A new name builds a new decoder; the same name keeps the current one
    // and its state. An unknown name fails and keeps the current decoder.
    Result setReceiveEncoding(const QString &name);
    Result setSendEncoding(const QString &name);
    QString receiveEncoding() const { return m_rxDecoder.name(); }
    QString sendEncoding() const { return m_txDecoder.name(); }

    // Where the timestamps lie in a formatted text, so the view can draw
    // them in their own colour: each starts at one of `starts` and is
    // `length` characters long.
    struct StampPlaces
    {
        QList<qsizetype> starts;
        qsizetype length = 0;
    };

    // The text for one chunk; empty when it adds nothing visible yet (for
    // instance the first half of a split character). `stamps`, when given,
    // receives where its timestamps are.
    QString format(const DisplayChunk &chunk, StampPlaces *stamps = nullptr);

    // Whether the text produced so far ends with a line feed (an empty view
    // counts as one). The owner of the view sets it when the view is cleared.
    bool endsWithLineFeed() const { return m_atLineStart; }
    void setEndsWithLineFeed(bool atLineStart)
    {
        m_atLineStart = atLineStart;
        m_breakBeforeNext = m_breakBeforeNext && !atLineStart;
    }

    // Starts afresh, as for an emptied view: decoders, split line ends,
    // the line state and the time of the previous chunk are forgotten.
    void reset();

    // Two upper-case hex digits and a space for every byte, the last one
    // included: "01 AB ".
    static QString toHex(QByteArrayView bytes);

    // Appends text to out with stamp at the start of every line; lineStart
    // says whether out is at a line start and is kept current.
    static void appendStampedLines(QString &out, QStringView text, const QString &stamp, bool &lineStart,
                                   StampPlaces *stamps = nullptr);

private:
    struct Stream
    {
        // The line-end character ('\r' or '\n') that ended this direction's
        // text so far, waiting to pair with the next character.
        char16_t openLineEnd = 0;
    };

    QString foldLineEnds(QStringView text, Stream &stream) const;

    Options m_options;
    WireTextDecoder m_rxDecoder;
    WireTextDecoder m_txDecoder;
    Stream m_rxStream;
    Stream m_txStream;
    QDateTime m_previousTime;
    ChunkDirection m_lineDirection = ChunkDirection::Received;
    bool m_atLineStart = true;
    // The format changed in the middle of a line.
    bool m_breakBeforeNext = false;
};
