#pragma once

#include "common/result.h"
#include "common/paneoptions.h"

#include <QByteArray>
#include <QString>

// Turns the send box's text into the bytes of one frame: text through the
// send encoding with the chosen line ending, or hexadecimal, and then the
// checksum over everything before it.
class SendFrameBuilder
{
public:
    struct Options
    {
        MessageFormat format = MessageFormat::Text;
        bool appendLineEnding = false;
        LineEnding lineEnding = LineEnding::CrLf;
        QString encoding = QStringLiteral("UTF-8");
        int checksum = 0;  // SendChecksumKind

        static Options fromPaneOptions(const PaneOptions &pane);
        bool operator==(const Options &other) const = default;
    };

    struct Frame
    {
        QByteArray bytes;
        // Hex mode: the payload written back as upper-case byte pairs
        // ("01 0A FF"), for the send box and the history. Empty in text mode.
        QString normalisedHex;

        bool isEmpty() const { return bytes.isEmpty(); }
    };

    // An empty text builds an empty frame, which sends nothing. Failures
    // carry the user's text: an unknown encoding, a character the encoding
    // lacks, or hex that is not whole bytes.
    static ValueResult<Frame> build(const QString &text, const Options &options);

    // The characters a line end becomes in text mode: "", "\r", "\n",
    // "\r\n" or "\n\r".
    static QString lineEndingText(LineEnding ending);
};
