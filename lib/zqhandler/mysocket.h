// The library's socket calls: plain pass-throughs to POSIX, no retry, no message, no time-out.
#pragma once

#include <cstddef>
#include <sys/socket.h>

// Each returns what the underlying call returned (bytes for data calls, 0 or -1 otherwise),
// with errno as the call left it. Waiting is the caller's business (selectin / selectout).
int mysocket_init();
void mysocket_free();
int mysocket_open(int domain, int type, int protocol);
int mysocket_close(int fd);
int mysocket_bind(int fd, const sockaddr* address, socklen_t length);
int mysocket_connect(int fd, const sockaddr* address, socklen_t length);
int mysocket_listen(int fd, int backlog);
int mysocket_sendto(int fd, const void* buffer, size_t length, int flags, const sockaddr* to,
                    socklen_t to_length);
int mysocket_recvfrom(int fd, void* buffer, size_t length, int flags, sockaddr* from,
                      socklen_t* from_length);
int mysocket_read(int fd, void* buffer, size_t length);
int mysocket_write(int fd, const void* buffer, size_t length);
