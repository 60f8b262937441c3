#include "support/listenport.h"

#include <QFile>
#include <QRandomGenerator>
#include <QTcpServer>

namespace {

// The first port the system hands out for port 0 and outgoing connections.
int ephemeralLow()
{
    QFile range(QStringLiteral("/proc/sys/net/ipv4/ip_local_port_range"));
    if (range.open(QIODevice::ReadOnly)) {
        bool ok = false;
        const int low = QString::fromLatin1(range.readAll()).simplified().section(QLatin1Char(' '), 0, 0).toInt(&ok);
        if (ok && low > 2048)
            return low;
    }
    return 32768;
}

} // namespace

quint16 unusedListenPort()
{
    const int first = 1024 + 1;
    const int span = ephemeralLow() - first;
    const int start = int(QRandomGenerator::global()->bounded(span));
    for (int i = 0; i < 200; ++i) {
        const quint16 port = quint16(first + (start + i * 7919) % span);
        QTcpServer probe;
        if (probe.listen(QHostAddress::LocalHost, port))
            return port;
    }
    return 0;
}
