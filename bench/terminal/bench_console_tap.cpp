// What a pane's receive path costs with and without a Live Console watcher:
// the console needs received bytes as text, a second decode beside the
// view's, and a pane nobody watches should not pay for it. Bytes go into the
// session as reads arrive and the queue is emptied as a view would take it.
// One line per figure: name, value, unit.

#include "terminal/portsession.h"
#include "terminal/serialportwidget.h"

#include <QApplication>
#include <QTextStream>

#include <ctime>

namespace {

constexpr qsizetype kStreamBytes = 32 * 1024 * 1024;
constexpr qsizetype kReadSize = 1024;

QTextStream &out()
{
    static QTextStream stream(stdout);
    return stream;
}

void report(const char *name, double value, const char *unit)
{
    out() << name << ' ' << QString::number(value, 'f', 2) << ' ' << unit << Qt::endl;
}

qint64 cpuNs()
{
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return qint64(t.tv_sec) * 1000000000 + t.tv_nsec;
}

// 80-character lines of mixed ASCII and CJK, cut into reads anywhere.
QList<QByteArray> reads()
{
    const QByteArray line = QString::fromUtf8("T=23.5C RH=41% 状态 正常 counter=0123456789 "
                                              "abcdefghijklmnopqrstuvwxyz\r\n")
                                .toUtf8();
    QByteArray stream;
    while (stream.size() < kStreamBytes)
        stream += line;
    QList<QByteArray> list;
    for (qsizetype pos = 0; pos < stream.size(); pos += kReadSize)
        list.append(stream.mid(pos, kReadSize));
    return list;
}

// CPU nanoseconds per received byte through the session's receive path.
double nsPerByte(PortSession *session, const QList<QByteArray> &data)
{
    qint64 bytes = 0;
    const qint64 start = cpuNs();
    for (const QByteArray &chunk : data) {
        session->ingestReceived(chunk);
        session->takeForView(-1, -1);
        bytes += chunk.size();
    }
    return double(cpuNs() - start) / double(bytes);
}

} // namespace

int main(int argc, char *argv[])
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    const QList<QByteArray> data = reads();

    PortSession bare(1);
    nsPerByte(&bare, data.mid(0, 1024));  // warm up
    report("console_tap_session_only", nsPerByte(&bare, data), "ns/byte");

    SerialPortWidget pane(2);
    report("console_tap_pane_unwatched", nsPerByte(pane.session(), data), "ns/byte");

    qint64 chars = 0;
    const auto watcher = QObject::connect(pane.session(), &PortSession::consoleTraffic,
                                          [&chars](const QString &, bool, const QString &text) { chars += text.size(); });
    report("console_tap_pane_watched", nsPerByte(pane.session(), data), "ns/byte");
    QObject::disconnect(watcher);
    report("console_tap_pane_unwatched_again", nsPerByte(pane.session(), data), "ns/byte");
    return chars > 0 ? 0 : 1;
}
