#pragma once

#include <QProcess>
#include <QString>
#include <QTemporaryDir>

// Two linked pseudo-terminals made by socat, standing in for a serial cable
// between two ports: what is written to one end arrives at the other. The
// ends are reached through symbolic links in a private temporary folder
// (open them by full path). Killing socat makes both ends vanish the way an
// unplugged adapter does; restart() makes a fresh pair under the same names.
class PtyPair
{
public:
    PtyPair();
    ~PtyPair();
    PtyPair(const PtyPair &) = delete;
    PtyPair &operator=(const PtyPair &) = delete;

    // Starts socat and waits (at most timeoutMs) until both links exist and
    // it moves data. On failure errorText() says why.
    bool start(int timeoutMs = 5000);
    // Kills socat at once (SIGKILL): the links stay behind, dangling.
    void kill();
    // Stops socat politely: it removes the links itself.
    void terminate();
    bool restart(int timeoutMs = 5000);
    bool isRunning() const;

    QString pathA() const { return m_pathA; }
    QString pathB() const { return m_pathB; }
    QString errorText() const { return m_error; }

private:
    void stop(bool politely);

    QTemporaryDir m_dir;
    QProcess m_socat;
    QString m_pathA;
    QString m_pathB;
    QString m_error;
};
