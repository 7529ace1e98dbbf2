// The daemon's socket calls. Setting a socket up either works or ends the process (perror with the
// call's name, exit status the error number); data calls return the system's result and repeat a
// call that a signal interrupted. None applies a time-out: they block as the descriptor does.
#pragma once

#include <cstddef>
#include <sys/socket.h>
#include <sys/types.h>

void socketInit();
int socketSocket(int domain, int type, int protocol);
void socketBind(int fd, const sockaddr* address, socklen_t length);
void socketListen(int fd, int backlog);
int socketAccept(int fd, sockaddr* address, socklen_t* length);
void socketSetSockOpt(int fd, int level, int name, const void* value, socklen_t length);
void socketShutdown(int fd, int how);

// One receive or send (flags 0): bytes moved, 0 at end of stream, -1 with errno.
ssize_t socketRead(int fd, void* buffer, size_t length);
ssize_t socketWrite(int fd, const void* buffer, size_t length);
// Receives until `length` bytes came: the count (short when the peer closed first), or -1.
ssize_t socketReadn(int fd, void* buffer, size_t length);
ssize_t socketSendTo(int fd, const void* message, size_t length, int flags, const sockaddr* to,
                     socklen_t toLength);
ssize_t socketRecvFrom(int fd, void* buffer, size_t length, int flags, sockaddr* from,
                       socklen_t* fromLength);
