#pragma once

#include "support/ptypair.h"
#include "support/ser2netserver.h"

#include <QSerialPort>
#include <QString>

// A device on a serial line, served over the network by ser2net: a pty pair
// whose end A the test opens and plays as the device (`far`), and whose end
// B ser2net serves once the test starts it with the protocol it wants.
// Members are torn down in reverse: ser2net first, the line last.
struct ServedDevice
{
    // Makes the line and opens the device's end; on failure `error` says why.
    bool start(QString *error);
    // The served end's line settings as the kernel holds them ("stty -a",
    // white space folded: "speed 19200 baud; ..."); empty when stty fails.
    QString servedLineSettings() const;
    // Every byte value in order, `rounds` times.
    static QByteArray everyByte(int rounds);

    PtyPair pty;
    QSerialPort far;
    Ser2netServer ser2net;
};
