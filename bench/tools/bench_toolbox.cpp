// How long the CRC calculator keeps the window busy with a 64 MiB input,
// pasted as text, pasted as hex and loaded from a file, beside the engine
// alone and beside what showing such text in a plain text box would cost.
// Every figure is the time of one synchronous step, i.e. how long the event
// loop is blocked. Runs on the offscreen platform unless one is chosen.

#include "tools/crccatalogue.h"
#include "tools/toolbox.h"

#include <QApplication>
#include <QClipboard>
#include <QElapsedTimer>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QRadioButton>
#include <QTemporaryDir>
#include <QTest>

#include <cstdio>
#include <functional>

namespace {

constexpr qsizetype kInputBytes = qsizetype(64) << 20;

void report(const char *name, double value, const char *unit)
{
    std::printf("%s %.2f %s\n", name, value, unit);
    std::fflush(stdout);
}

double millisecondsOf(const std::function<void()> &step)
{
    QElapsedTimer clock;
    clock.start();
    step();
    return double(clock.nsecsElapsed()) / 1e6;
}

template <typename T>
T *child(QWidget *parent, const char *name)
{
    T *w = parent->findChild<T *>(QString::fromLatin1(name));
    if (!w)
        qFatal("no widget %s", name);
    return w;
}

// Printable text of the given size, lines of 80 characters.
QString sampleText(qsizetype size)
{
    QByteArray text(size, Qt::Uninitialized);
    for (qsizetype i = 0; i < size; ++i)
        text[i] = (i % 81 == 80) ? '\n' : char('!' + (i * 7) % 90);
    return QString::fromLatin1(text);
}

// Pastes through the clipboard with Ctrl+V, as a user does.
double pasteInto(QPlainTextEdit *edit, const QString &text)
{
    QApplication::clipboard()->setText(text);
    edit->setFocus();
    return millisecondsOf([edit] { QTest::keyClick(edit, Qt::Key_V, Qt::ControlModifier); });
}

} // namespace

int main(int argc, char **argv)
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);

    ToolBox box;
    box.show();
    box.showCrcCalculator();
    auto *input = child<QPlainTextEdit>(&box, "inputCrc");
    auto *calculate = child<QPushButton>(&box, "calculateCRC");
    auto *result = child<QLineEdit>(&box, "leResult");

    const QString text = sampleText(kInputBytes);
    const QByteArray bytes = text.toLatin1();
    const double mib = double(kInputBytes) / (1 << 20);

    // The engine alone, as the floor.
    quint64 engineValue = 0;
    const double engineMs =
        millisecondsOf([&] { engineValue = computeCatalogueCrc(CrcModelId::Crc16Modbus, bytes); });
    report("crc16_engine_64MiB", engineMs, "ms");
    report("crc16_engine_rate", mib / engineMs * 1000.0, "MiB/s");

    // Text pasted and hashed as UTF-8.
    report("paste_text_64MiB", pasteInto(input, text), "ms");
    report("calculate_text_64MiB", millisecondsOf([&] { QTest::mouseClick(calculate, Qt::LeftButton); }), "ms");
    const QString expected = QStringLiteral("%1").arg(engineValue, 4, 16, QLatin1Char('0')).toUpper();
    if (result->text() != expected) {
        std::fprintf(stderr, "wrong result for pasted text: %s, expected %s\n", qPrintable(result->text()),
                     qPrintable(expected));
        return 1;
    }

    // The same bytes pasted as hex pairs (three characters a byte).
    {
        const QString hexText = QString::fromLatin1(bytes.toHex(' '));
        child<QRadioButton>(&box, "rbHex")->setChecked(true);
        report("paste_hex_192Mchars", pasteInto(input, hexText), "ms");
        report("calculate_hex_64MiB", millisecondsOf([&] { QTest::mouseClick(calculate, Qt::LeftButton); }), "ms");
        if (result->text() != expected) {
            std::fprintf(stderr, "wrong result for pasted hex: %s\n", qPrintable(result->text()));
            return 1;
        }
    }

    // A 64 MiB file.
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("input.bin"));
    {
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size()) {
            std::fprintf(stderr, "cannot write %s\n", qPrintable(path));
            return 1;
        }
    }
    bool loaded = false;
    report("load_file_64MiB", millisecondsOf([&] { loaded = bool(box.loadCrcInputFile(path)); }), "ms");
    report("calculate_file_64MiB", millisecondsOf([&] { QTest::mouseClick(calculate, Qt::LeftButton); }), "ms");
    if (!loaded || result->text() != expected) {
        std::fprintf(stderr, "wrong result for the file: %s\n", qPrintable(result->text()));
        return 1;
    }

    // What the held-aside path avoids: 8 MiB shown in a plain text box.
    QPlainTextEdit plain;
    plain.resize(600, 300);
    plain.show();
    const QString eighth = text.left(kInputBytes / 8);
    report("plain_box_set_8MiB", millisecondsOf([&] {
               plain.setPlainText(eighth);
               QCoreApplication::processEvents();
           }),
           "ms");
    report("plain_box_read_8MiB", millisecondsOf([&] { (void)plain.toPlainText().toUtf8(); }), "ms");
    return 0;
}
