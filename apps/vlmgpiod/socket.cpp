// The daemon's socket calls: fatal set-up, data calls that survive signals.
#include "socket.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace {

[[noreturn]] void fatal(const char* call) {
    int error = errno;
    perror(call);
    exit(error);
}

// Repeats `call` while a signal interrupts it.
template <typename Call> auto retryInterrupted(Call call) {
    for (;;) {
        auto result = call();
        if (result >= 0 || errno != EINTR)
            return result;
    }
}

} // namespace

void socketInit() {}

int socketSocket(int domain, int type, int protocol) {
    int fd = socket(domain, type, protocol);
    if (fd < 0)
        fatal("socket");
    return fd;
}

void socketBind(int fd, const sockaddr* address, socklen_t length) {
    if (bind(fd, address, length) != 0)
        fatal("bind");
}

void socketListen(int fd, int backlog) {
    if (listen(fd, backlog) != 0)
        fatal("listen");
}

int socketAccept(int fd, sockaddr* address, socklen_t* length) {
    int accepted = retryInterrupted([&] { return accept(fd, address, length); });
    if (accepted < 0)
        fatal("accept");
    return accepted;
}

void socketSetSockOpt(int fd, int level, int name, const void* value, socklen_t length) {
    if (setsockopt(fd, level, name, value, length) != 0)
        fatal("setsockopt");
}

void socketShutdown(int fd, int how) {
    (void)shutdown(fd, how);
}

ssize_t socketRead(int fd, void* buffer, size_t length) {
    return retryInterrupted([&] { return recv(fd, buffer, length, 0); });
}

ssize_t socketWrite(int fd, const void* buffer, size_t length) {
    return retryInterrupted([&] { return send(fd, buffer, length, 0); });
}

ssize_t socketReadn(int fd, void* buffer, size_t length) {
    size_t count = 0;
    while (count < length) {
        ssize_t got = socketRead(fd, static_cast<char*>(buffer) + count, length - count);
        if (got < 0)
            return -1;
        if (got == 0)
            break;
        count += static_cast<size_t>(got);
    }
    return static_cast<ssize_t>(count);
}

ssize_t socketSendTo(int fd, const void* message, size_t length, int flags, const sockaddr* to,
                     socklen_t toLength) {
    return retryInterrupted([&] { return sendto(fd, message, length, flags, to, toLength); });
}

ssize_t socketRecvFrom(int fd, void* buffer, size_t length, int flags, sockaddr* from,
                       socklen_t* fromLength) {
    return retryInterrupted([&] { return recvfrom(fd, buffer, length, flags, from, fromLength); });
}
