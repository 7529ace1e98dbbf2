// Pass-throughs from the library's socket names to the POSIX calls.
#include "mysocket.h"

#include <unistd.h>

int mysocket_init() {
    return 0;
}

void mysocket_free() {}

int mysocket_open(int domain, int type, int protocol) {
    return socket(domain, type, protocol);
}

int mysocket_close(int fd) {
    return close(fd);
}

int mysocket_bind(int fd, const sockaddr* address, socklen_t length) {
    return bind(fd, address, length);
}

int mysocket_connect(int fd, const sockaddr* address, socklen_t length) {
    return connect(fd, address, length);
}

int mysocket_listen(int fd, int backlog) {
    return listen(fd, backlog);
}

int mysocket_sendto(int fd, const void* buffer, size_t length, int flags, const sockaddr* to,
                    socklen_t to_length) {
    return static_cast<int>(sendto(fd, buffer, length, flags, to, to_length));
}

int mysocket_recvfrom(int fd, void* buffer, size_t length, int flags, sockaddr* from,
                      socklen_t* from_length) {
    return static_cast<int>(recvfrom(fd, buffer, length, flags, from, from_length));
}

int mysocket_read(int fd, void* buffer, size_t length) {
    return static_cast<int>(read(fd, buffer, length));
}

int mysocket_write(int fd, const void* buffer, size_t length) {
    return static_cast<int>(write(fd, buffer, length));
}
