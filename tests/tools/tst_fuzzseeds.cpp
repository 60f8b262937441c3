#include "toolstests.h"

#include "fuzztargets.h"

#include <QDir>
#include <QFile>
#include <QtTest>

// Replays the fuzzers' seed inputs (tests/fuzz/corpus) through the same
// target bodies, so the ordinary build keeps them passing.
class FuzzSeedTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void seeds_data();
    void seeds();
};

void FuzzSeedTest::seeds_data()
{
    QTest::addColumn<QString>("target");
    QTest::addColumn<QString>("path");
    const QDir corpus(QStringLiteral(TSL_FUZZ_CORPUS));
    for (const char *target : {"hexparser", "modbusvalues", "crcparams"}) {
        const QDir dir(corpus.filePath(QString::fromLatin1(target)));
        const QStringList files = dir.entryList(QDir::Files, QDir::Name);
        QVERIFY2(!files.isEmpty(), qPrintable("no seeds in " + dir.path()));
        for (const QString &file : files)
            QTest::addRow("%s/%s", target, qPrintable(file)) << QString::fromLatin1(target) << dir.filePath(file);
    }
}

void FuzzSeedTest::seeds()
{
    QFETCH(QString, target);
    QFETCH(QString, path);
    QFile file(path);
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QByteArray input = file.readAll();
    const auto *data = reinterpret_cast<const uint8_t *>(input.constData());
    const size_t size = size_t(input.size());
    QString failure;
    if (target == u"hexparser")
        failure = fuzzHexParser(data, size);
    else if (target == u"modbusvalues")
        failure = fuzzModbusValues(data, size);
    else
        failure = fuzzCustomCrcParams(data, size);
    QVERIFY2(failure.isEmpty(), qPrintable(failure));
}

int runFuzzSeedTests(int argc, char **argv)
{
    FuzzSeedTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_fuzzseeds.moc"
