#include "connectionlistener.h"

#include <QSocketNotifier>
#include <QTimer>

#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// Connections the kernel queues while accepting pauses (it caps this at
// net.core.somaxconn).
constexpr int kBacklog = 511;

} // namespace

ConnectionListener::ConnectionListener(QObject *parent) : QObject(parent), m_rest(new QTimer(this))
{
    m_rest->setSingleShot(true);
    m_rest->setInterval(kRestMs);
    connect(m_rest, &QTimer::timeout, this, [this] {
        m_outOfDescriptors = false;
        updateNotifier();
    });
}

ConnectionListener::~ConnectionListener()
{
    delete m_notifier;
    if (m_fd >= 0)
        ::close(m_fd);
}

quint16 ConnectionListener::listen(const QHostAddress &address, quint16 port, QString *error)
{
    const bool v6 = address.protocol() == QAbstractSocket::IPv6Protocol;
    sockaddr_storage storage{};
    socklen_t length = 0;
    if (v6) {
        auto *in6 = reinterpret_cast<sockaddr_in6 *>(&storage);
        in6->sin6_family = AF_INET6;
        in6->sin6_port = htons(port);
        const Q_IPV6ADDR raw = address.toIPv6Address();
        std::memcpy(&in6->sin6_addr, &raw, sizeof raw);
        in6->sin6_scope_id = address.scopeId().toUInt();
        length = sizeof(sockaddr_in6);
    } else {
        auto *in4 = reinterpret_cast<sockaddr_in *>(&storage);
        in4->sin_family = AF_INET;
        in4->sin_port = htons(port);
        in4->sin_addr.s_addr = htonl(address.toIPv4Address());
        length = sizeof(sockaddr_in);
    }
    m_fd = ::socket(v6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const int on = 1;
    if (m_fd < 0 || ::setsockopt(m_fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0
        || ::bind(m_fd, reinterpret_cast<sockaddr *>(&storage), length) != 0 || ::listen(m_fd, kBacklog) != 0) {
        *error = QString::fromLocal8Bit(std::strerror(errno));
        if (m_fd >= 0)
            ::close(m_fd);
        m_fd = -1;
        return 0;
    }
    sockaddr_storage bound{};
    socklen_t boundLength = sizeof bound;
    ::getsockname(m_fd, reinterpret_cast<sockaddr *>(&bound), &boundLength);
    const quint16 actual = v6 ? ntohs(reinterpret_cast<sockaddr_in6 *>(&bound)->sin6_port)
                              : ntohs(reinterpret_cast<sockaddr_in *>(&bound)->sin_port);
    m_notifier = new QSocketNotifier(m_fd, QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, &ConnectionListener::onReadable);
    updateNotifier();
    return actual;
}

void ConnectionListener::pause()
{
    m_paused = true;
    updateNotifier();
}

void ConnectionListener::resume()
{
    m_paused = false;
    // A descriptor may just have come free.
    if (m_outOfDescriptors) {
        m_rest->stop();
        m_outOfDescriptors = false;
    }
    updateNotifier();
}

void ConnectionListener::updateNotifier()
{
    if (m_notifier)
        m_notifier->setEnabled(!m_paused && !m_outOfDescriptors);
}

void ConnectionListener::onReadable()
{
    // One readiness event may stand for many waiting connections.
    for (int i = 0; i < 64 && !m_paused && !m_outOfDescriptors; ++i) {
        const int fd = ::accept4(m_fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd >= 0) {
            emit accepted(fd);
            continue;
        }
        switch (errno) {
        case EINTR:
        case ECONNABORTED:
        case EPROTO:
            continue;  // that one connection is gone; others may wait
        case EMFILE:
        case ENFILE:
        case ENOBUFS:
        case ENOMEM:
            m_outOfDescriptors = true;
            updateNotifier();
            m_rest->start();
            emit descriptorsExhausted();
            return;
        default:
            return;  // EAGAIN: nobody waits any more
        }
    }
}
