#pragma once

#include <QProcess>
#include <QString>
#include <QTemporaryDir>

// lrzsz (sx, rx, sb, rb) behind socat on a pty end or a TCP address,
// working in a folder of its own. The command runs from a script, so file
// names need no socat escaping, and lrzsz's own exit status is kept apart
// from socat's: socat fails when it cannot hand over a byte that arrived
// after lrzsz was done (sb under YMODEM-G does not wait for the last
// acknowledgement).
class LrzszPeer
{
public:
    LrzszPeer();
    ~LrzszPeer();
    LrzszPeer(const LrzszPeer &) = delete;
    LrzszPeer &operator=(const LrzszPeer &) = delete;

    // `address` is a socat address ("TCP:127.0.0.1:4000", "/dev/pts/7,raw,echo=0").
    bool start(const QString &address, const QString &folder, const QString &command);
    // Waits at most timeoutMs for lrzsz to leave and returns its exit
    // status; -1 when it did not leave (it is killed then) or left no status.
    int waitForExit(int timeoutMs);
    QProcess &socat() { return m_socat; }

    static QString shellQuote(const QString &text);

private:
    QTemporaryDir m_scripts;
    QProcess m_socat;
    QString m_statusFile;
};
