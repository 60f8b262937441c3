#pragma once

#include <QHostAddress>
#include <QObject>

class QSocketNotifier;
class QTimer;

// The listening socket, with its own accept loop. QTcpServer (Qt 6.4)
// retries a failing accept() at once when the process is out of file
// descriptors, a core busy until a descriptor frees up; here accepting
// pauses instead and tries again after a short rest or as soon as a
// connection ends (resume()).
class ConnectionListener : public QObject
{
    Q_OBJECT
public:
    // How long accepting rests after running out of descriptors.
    static constexpr int kRestMs = 250;

    explicit ConnectionListener(QObject *parent = nullptr);
    ~ConnectionListener() override;

    // The port actually bound (useful with port 0), or 0 with `error` set.
    quint16 listen(const QHostAddress &address, quint16 port, QString *error);

    // While paused the kernel keeps new connections in its backlog.
    void pause();
    void resume();
    bool isPaused() const { return m_paused; }
    // Whether accepting is resting after running out of descriptors.
    bool isOutOfDescriptors() const { return m_outOfDescriptors; }

signals:
    // An accepted connection, non-blocking and close-on-exec. Whoever
    // listens takes the descriptor (and may pause() from here).
    void accepted(qintptr descriptor);
    void descriptorsExhausted();

private:
    void onReadable();
    void updateNotifier();

    int m_fd = -1;
    QSocketNotifier *m_notifier = nullptr;
    QTimer *m_rest;
    bool m_paused = false;
    bool m_outOfDescriptors = false;
};
