// Daemon start: two forks and a new session, then "/" and /dev/null; checked allocation.
#undef NDEBUG // _free's stop must work in every build
#include <cassert>

#include "daemonize.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

namespace {

// Forks; the parent leaves at once, the child returns 0. -1 when the fork failed.
int continueInChild() {
    pid_t pid = fork();
    if (pid < 0)
        return -1;
    if (pid > 0)
        _exit(0);
    return 0;
}

} // namespace

int daemonize(int nochdir, int noclose) {
    if (continueInChild() != 0 || setsid() < 0)
        return -1;
    signal(SIGHUP, SIG_IGN);
    // The session leader leaves too: a process that leads no session cannot take a terminal.
    if (continueInChild() != 0)
        return -1;
    if (!nochdir && chdir("/") != 0)
        return -1;
    if (!noclose) {
        for (int fd = 0; fd < MAXFD; ++fd)
            close(fd);
        // The lowest free descriptors come back in order: 0 read-only, then 1 and 2.
        (void)open("/dev/null", O_RDONLY);
        (void)open("/dev/null", O_RDWR);
        (void)open("/dev/null", O_RDWR);
    }
    return 0;
}

void* _malloc(size_t size) {
    void* block = malloc(size);
    if (block == nullptr) {
        int error = errno;
        perror("malloc");
        exit(error);
    }
    return block;
}

void _free(void* ptr) {
    // The stop names the expression, source and line the daemon's operators know from its logs.
    if (ptr == nullptr)
        __assert_fail("ptr != ((void *)0)", "_libc", 23, "_free");
    free(ptr);
}
