#pragma once

#include <QtGlobal>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

// Plain sockets on 127.0.0.1 for the peer processes of benchmarks, which
// write as fast as the kernel takes it, outside any event loop.
namespace BenchSupport {

inline sockaddr_in loopbackAddress(quint16 port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

// A socket of `type` bound and listening on `port` (0: a free one), or
// connected to it; -1 on failure.
inline int loopbackSocket(int type, quint16 port, bool listen, int backlog = 1)
{
    const int fd = ::socket(AF_INET, type, 0);
    if (fd < 0)
        return -1;
    const sockaddr_in address = loopbackAddress(port);
    const int rc = listen ? ::bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address)
                          : ::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address);
    if (rc != 0 || (listen && type == SOCK_STREAM && ::listen(fd, backlog) != 0)) {
        ::close(fd);
        return -1;
    }
    return fd;
}

inline quint16 boundPort(int fd)
{
    sockaddr_in address{};
    socklen_t length = sizeof address;
    ::getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length);
    return ntohs(address.sin_port);
}

} // namespace BenchSupport
