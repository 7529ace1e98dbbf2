// Readiness waits on one descriptor, the library's only way of waiting on its sockets and lines,
// and the bounded drop of input already waiting before a request.
#pragma once

// Waits until `fd` is readable (selectin) or writable (selectout).
// timeout_ms > 0 bounds the wait, 0 polls, < 0 waits without limit; an interrupted wait goes on.
// Returns > 0 when ready, 0 when the time-out ran out, -1 when `fd` is negative or not below
// FD_SETSIZE (nothing printed) or when the wait failed (perror "select").
// selectin also returns -1 when interruptions used up the time-out.
int selectin(int fd, int timeout_ms);
int selectout(int fd, int timeout_ms);

// A peer that floods a link must not hold the caller for ever: at most this many reads of input
// already waiting are dropped before one request (datagrams, or chunks of a stream).
inline constexpr int kMaxStaleReads = 256;

// While input is waiting on `fd` (a poll of 0 ms) and fewer than `most` reads were made, calls
// `drop`, which reads and discards some of it and returns false when the input has ended.
template <typename Drop> void drain_waiting(int fd, int most, Drop&& drop) {
    for (int n = 0; n < most && selectin(fd, 0) > 0; ++n)
        if (!drop())
            return;
}
