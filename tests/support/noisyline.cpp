// A serial line that loses bytes: relays between two terminal devices (pty
// ends) and, on the way from the first to the second (and back, with
// "both"), drops or flips one byte in about n. The choice is drawn per byte
// from a seeded generator, so the same seed damages the same places of the
// same stream, whatever the chunking. Runs until killed; on SIGTERM prints
// what it relayed and damaged to standard error.
//
//   noisyline <device A> <device B> <seed> <n> [forward|both]
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

namespace {

volatile std::sig_atomic_t g_stop = 0;

struct Direction
{
    int from = -1;
    int to = -1;
    bool noisy = false;
    std::mt19937 rng;
    long long relayed = 0;
    long long dropped = 0;
    long long flipped = 0;
};

int openRaw(const char *path)
{
    const int fd = ::open(path, O_RDWR | O_NOCTTY);
    if (fd < 0)
        return -1;
    termios t{};
    if (::tcgetattr(fd, &t) == 0) {
        ::cfmakeraw(&t);
        ::tcsetattr(fd, TCSANOW, &t);
    }
    return fd;
}

bool writeAll(int fd, const unsigned char *data, size_t size)
{
    while (size > 0) {
        const ssize_t n = ::write(fd, data, size);
        if (n < 0) {
            if (errno == EINTR || errno == EAGAIN) {
                pollfd p{fd, POLLOUT, 0};
                ::poll(&p, 1, 100);
                continue;
            }
            return false;
        }
        data += n;
        size -= size_t(n);
    }
    return true;
}

// Moves what is readable; false when the device went away.
bool relay(Direction &d, unsigned oneIn)
{
    unsigned char in[4096], out[4096];
    const ssize_t n = ::read(d.from, in, sizeof in);
    if (n <= 0)
        return n < 0 && (errno == EINTR || errno == EAGAIN);
    size_t kept = 0;
    for (ssize_t i = 0; i < n; ++i) {
        unsigned char byte = in[i];
        if (d.noisy && d.rng() % oneIn == 0) {
            if (d.rng() % 2 == 0) {
                ++d.dropped;
                continue;
            }
            byte ^= static_cast<unsigned char>(1u << (d.rng() % 8));
            ++d.flipped;
        }
        out[kept++] = byte;
    }
    d.relayed += n;
    return writeAll(d.to, out, kept);
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 5) {
        std::fprintf(stderr, "usage: noisyline <device A> <device B> <seed> <n> [forward|both]\n");
        return 2;
    }
    const unsigned seed = unsigned(std::strtoul(argv[3], nullptr, 10));
    const unsigned oneIn = unsigned(std::strtoul(argv[4], nullptr, 10));
    const bool both = argc > 5 && std::strcmp(argv[5], "both") == 0;
    const int a = openRaw(argv[1]);
    const int b = openRaw(argv[2]);
    if (a < 0 || b < 0 || oneIn == 0) {
        std::perror("noisyline");
        return 1;
    }
    struct sigaction stop{};
    stop.sa_handler = [](int) { g_stop = 1; };
    ::sigaction(SIGTERM, &stop, nullptr);
    ::sigaction(SIGINT, &stop, nullptr);

    Direction forward, backward;
    forward.from = a;
    forward.to = b;
    forward.noisy = true;
    forward.rng.seed(seed);
    backward.from = b;
    backward.to = a;
    backward.noisy = both;
    backward.rng.seed(seed ^ 0x9E3779B9u);
    while (!g_stop) {
        pollfd p[2] = {{a, POLLIN, 0}, {b, POLLIN, 0}};
        if (::poll(p, 2, 200) < 0)
            continue;
        // A pty end whose other side is not open yet reports POLLHUP:
        // wait for it instead of spinning.
        bool idle = true;
        if (p[0].revents & POLLIN) {
            idle = false;
            if (!relay(forward, oneIn))
                break;
        }
        if (p[1].revents & POLLIN) {
            idle = false;
            if (!relay(backward, oneIn))
                break;
        }
        if (idle && ((p[0].revents | p[1].revents) & (POLLHUP | POLLERR)))
            ::usleep(10000);
    }
    std::fprintf(stderr, "relayed %lld/%lld dropped %lld/%lld flipped %lld/%lld\n", forward.relayed,
                 backward.relayed, forward.dropped, backward.dropped, forward.flipped, backward.flipped);
    return 0;
}
