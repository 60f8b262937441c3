#include "support/serveddevice.h"

#include <QProcess>

bool ServedDevice::start(QString *error)
{
    if (!pty.start()) {
        *error = pty.errorText();
        return false;
    }
    far.setPortName(pty.pathA());
    if (!far.open(QIODevice::ReadWrite)) {
        *error = far.errorString();
        return false;
    }
    return true;
}

QString ServedDevice::servedLineSettings() const
{
    QProcess stty;
    stty.start(QStringLiteral("stty"), {QStringLiteral("-F"), pty.pathB(), QStringLiteral("-a")});
    if (!stty.waitForFinished(3000)) {
        stty.kill();
        stty.waitForFinished(1000);
        return {};
    }
    return QString::fromLocal8Bit(stty.readAllStandardOutput()).simplified();
}

QByteArray ServedDevice::everyByte(int rounds)
{
    QByteArray out;
    out.reserve(256 * rounds);
    for (int r = 0; r < rounds; ++r)
        for (int i = 0; i < 256; ++i)
            out.append(char(i));
    return out;
}
