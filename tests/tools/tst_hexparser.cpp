#include "toolstests.h"

#include "tools/hexparser.h"

#include <QRandomGenerator>
#include <QtTest>

using Grouping = HexParser::Grouping;

class HexParserTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void parse_data();
    void parse();
    void toHexText();
    void roundTrip();
};

void HexParserTest::parse_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("grouping");
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QString>("error");

    const int stream = int(Grouping::DigitStream);
    const int tokens = int(Grouping::Tokens);
    const QString incomplete = "Hex input must contain complete bytes.";
    auto at = [](int position) { return QString("Invalid hex character at position %1.").arg(position); };

    // The converter and the CRC input: a stream of digits.
    QTest::newRow("stream: hello") << "48 65 6C 6C 6F" << stream << QByteArray("Hello") << QString();
    QTest::newRow("stream: space inside a byte") << "4 8" << stream << QByteArray("H") << QString();
    QTest::newRow("stream: no separators, any case") << "aBcD" << stream << QByteArray("\xAB\xCD") << QString();
    QTest::newRow("stream: tab to carriage return") << "\t4\n8\v6\f5\r" << stream << QByteArray("He") << QString();
    QTest::newRow("stream: U+0085 and U+00A0") << QString("4\u00858\u00A06") + "5" << stream << QByteArray("He")
                                              << QString();
    QTest::newRow("stream: ideographic space") << QString("4\u30008") << stream << QByteArray("H") << QString();
    QTest::newRow("stream: empty") << "" << stream << QByteArray() << QString();
    QTest::newRow("stream: only white space") << " \n " << stream << QByteArray() << QString();
    QTest::newRow("stream: G at 3") << "48G" << stream << QByteArray() << at(3);
    QTest::newRow("stream: comma is not white space") << "48,65" << stream << QByteArray() << at(3);
    QTest::newRow("stream: prefix") << "0x48" << stream << QByteArray() << at(2);
    QTest::newRow("stream: odd digits") << "486" << stream << QByteArray() << incomplete;
    QTest::newRow("stream: invalid wins over odd") << "4 8 6 z" << stream << QByteArray() << at(7);
    QTest::newRow("stream: fullwidth digit") << QString("4\uFF18") << stream << QByteArray() << at(2);
    QTest::newRow("stream: an emoji") << QString("4 8\U0001F600") << stream << QByteArray() << at(4);

    // The send box: tokens, one digit alone is a byte.
    QTest::newRow("tokens: 1 a ff") << "1 a ff" << tokens << QByteArray("\x01\x0A\xFF") << QString();
    QTest::newRow("tokens: ABC") << "ABC" << tokens << QByteArray() << incomplete;
    QTest::newRow("tokens: long token") << "0102" << tokens << QByteArray("\x01\x02") << QString();
    QTest::newRow("tokens: prefixed") << "0x1F 0Xa" << tokens << QByteArray("\x1F\x0A") << QString();
    QTest::newRow("tokens: commas") << "1,2,,3" << tokens << QByteArray("\x01\x02\x03") << QString();
    QTest::newRow("tokens: unicode spaces") << QString("\u00A0ff\u3000e\n") << tokens << QByteArray("\xFF\x0E")
                                           << QString();
    QTest::newRow("tokens: empty") << "" << tokens << QByteArray() << QString();
    QTest::newRow("tokens: 4 8 stays two bytes") << "4 8" << tokens << QByteArray("\x04\x08") << QString();
    QTest::newRow("tokens: bad digit") << "12 3g" << tokens << QByteArray() << at(5);
    QTest::newRow("tokens: bare prefix") << "0x" << tokens << QByteArray() << at(2);
    QTest::newRow("tokens: odd after prefix") << "0x123" << tokens << QByteArray() << incomplete;
    QTest::newRow("tokens: the first bad token decides") << "ABC zz" << tokens << QByteArray() << incomplete;
}

void HexParserTest::parse()
{
    QFETCH(QString, text);
    QFETCH(int, grouping);
    QFETCH(QByteArray, bytes);
    QFETCH(QString, error);
    const ValueResult<QByteArray> r = HexParser::parse(text, Grouping(grouping));
    if (error.isEmpty()) {
        QVERIFY2(r.isOk(), qPrintable(r.errorText()));
        QCOMPARE(r.value().toHex(' '), bytes.toHex(' '));
    } else {
        QVERIFY(!r.isOk());
        QCOMPARE(r.errorText(), error);
    }
}

void HexParserTest::toHexText()
{
    QCOMPARE(HexParser::toHexText(QByteArray("\x01\xAB\xFF\x00", 4)), QString("01 AB FF 00"));
    QCOMPARE(HexParser::toHexText(QByteArray()), QString());
}

void HexParserTest::roundTrip()
{
    QRandomGenerator rng(0x4E58);
    for (int size = 0; size < 300; size += 7) {
        QByteArray data(size, Qt::Uninitialized);
        for (char &c : data)
            c = char(rng.bounded(256));
        const QString text = HexParser::toHexText(data);
        QCOMPARE(HexParser::parse(text, Grouping::DigitStream).value(), data);
        QCOMPARE(HexParser::parse(text, Grouping::Tokens).value(), data);
        QCOMPARE(HexParser::parse(text.toLower().remove(u' '), Grouping::DigitStream).value(), data);
    }
}

int runHexParserTests(int argc, char **argv)
{
    HexParserTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_hexparser.moc"
