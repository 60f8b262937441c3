#include "support/serveddevice.h"

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
