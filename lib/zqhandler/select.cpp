// selectin / selectout: select(2) on one descriptor, with millisecond time-outs that survive
// signals.
#include "select.h"

#include "trace_private.h"

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <sys/select.h>

namespace {

enum class Direction { in, out };

// FD_SET on a descriptor at or above FD_SETSIZE would write past the set.
bool usable(int fd) {
    return fd >= 0 && fd < FD_SETSIZE;
}

// One select(2) call on `fd`; a null `tv` waits without limit.
int wait_once(int fd, Direction direction, timeval* tv) {
    fd_set set;
    FD_ZERO(&set);
    FD_SET(fd, &set);
    fd_set* reads = direction == Direction::in ? &set : nullptr;
    fd_set* writes = direction == Direction::out ? &set : nullptr;
    return select(fd + 1, reads, writes, nullptr, tv);
}

int wait_timed(int fd, Direction direction, int remaining_ms) {
    time_t noted = time(nullptr);
    for (;;) {
        timeval tv{remaining_ms / 1000, (remaining_ms % 1000) * 1000};
        int ready = wait_once(fd, direction, &tv);
        if (ready > 0)
            return ready;
        if (ready == 0) {
            if (direction == Direction::out)
                vlmlibtrace(VLMLIB_TRACE_TRANSPORT, "%s:%d> not selout2\n", "select", 187);
            return 0;
        }
        int error = errno;
        if (direction == Direction::in)
            printf("selin2 errno: %d\r\n", error);
        else
            printf("selout2 errno: %d\n", error);
        errno = error;
        if (error != EINTR) {
            perror("select");
            return -1;
        }
        // The clock is read in whole seconds: only a passed second boundary shortens the wait.
        time_t now = time(nullptr);
        if (now != noted) {
            remaining_ms -= static_cast<int>(now - noted) * 1000;
            noted = now;
        }
        if (remaining_ms >= 0)
            continue;
        if (direction == Direction::out) {
            vlmlibtrace(VLMLIB_TRACE_TRANSPORT, "%s:%d> not selout1\n", "select", 180);
            return 0;
        }
        errno = EINTR;
        perror("select");
        return -1;
    }
}

int wait_unlimited(int fd, Direction direction) {
    for (;;) {
        int ready = wait_once(fd, direction, nullptr);
        if (ready >= 0)
            return ready;
        if (errno != EINTR) {
            perror("select");
            return -1;
        }
        if (direction == Direction::out)
            vlmlibtrace(VLMLIB_TRACE_TRANSPORT, "%s:%d> EINTR\n", "select", 207);
    }
}

int wait_ready(int fd, Direction direction, int timeout_ms) {
    if (!usable(fd)) {
        errno = EBADF;
        return -1;
    }
    if (timeout_ms < 0)
        return wait_unlimited(fd, direction);
    return wait_timed(fd, direction, timeout_ms);
}

} // namespace

int selectin(int fd, int timeout_ms) {
    return wait_ready(fd, Direction::in, timeout_ms);
}

int selectout(int fd, int timeout_ms) {
    return wait_ready(fd, Direction::out, timeout_ms);
}
