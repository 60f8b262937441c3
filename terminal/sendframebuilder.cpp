#include "terminal/sendframebuilder.h"

#include "common/wiretextcodecregistry.h"
#include "tools/hexparser.h"
#include "tools/sendchecksum.h"

SendFrameBuilder::Options SendFrameBuilder::Options::fromPaneOptions(const PaneOptions &pane)
{
    Options o;
    o.format = pane.sendFormat;
    o.appendLineEnding = pane.txAutoFeedLine;
    o.lineEnding = pane.txLineEnding;
    o.encoding = pane.sendEncoding;
    o.checksum = pane.sendChecksum;
    return o;
}

QString SendFrameBuilder::lineEndingText(LineEnding ending)
{
    switch (ending) {
    case LineEnding::None:
        return QString();
    case LineEnding::Cr:
        return QStringLiteral("\r");
    case LineEnding::Lf:
        return QStringLiteral("\n");
    case LineEnding::CrLf:
        return QStringLiteral("\r\n");
    case LineEnding::LfCr:
        return QStringLiteral("\n\r");
    }
    return QString();
}

ValueResult<SendFrameBuilder::Frame> SendFrameBuilder::build(const QString &text, const Options &options)
{
    if (text.isEmpty())
        return Frame();

    Frame frame;
    if (options.format == MessageFormat::Hex) {
        ValueResult<QByteArray> bytes = HexParser::parse(text, HexParser::Grouping::Tokens);
        if (!bytes)
            return ValueResult<Frame>::failure(bytes.errorText());
        frame.bytes = bytes.value();
        frame.normalisedHex = HexParser::toHexText(frame.bytes);
    } else {
        QString payload = text;
        if (options.appendLineEnding) {
            // A typed or pasted CR LF is one line end like a bare LF; the
            // line ending is inserted as characters, so that a wide
            // encoding such as UTF-16 gets it in its own code units.
            payload.replace(QStringLiteral("\r\n"), QStringLiteral("\n"));
            if (!payload.endsWith(u'\n'))
                payload += u'\n';
            payload.replace(u'\n', lineEndingText(options.lineEnding));
        }
        ValueResult<WireTextCodec> codec = WireTextCodecRegistry::resolve(options.encoding);
        if (!codec)
            return ValueResult<Frame>::failure(codec.errorText());
        ValueResult<QByteArray> bytes = codec.value().encode(payload);
        if (!bytes)
            return ValueResult<Frame>::failure(bytes.errorText());
        frame.bytes = bytes.value();
    }
    frame.bytes = appendSendChecksum(frame.bytes, options.checksum);
    return frame;
}
