// Readiness waits on one descriptor, the library's only way of waiting on its sockets and lines.
#pragma once

// Waits until `fd` is readable (selectin) or writable (selectout).
// timeout_ms > 0 bounds the wait, 0 polls, < 0 waits without limit; an interrupted wait goes on.
// Returns > 0 when ready, 0 when the time-out ran out, -1 when `fd` is negative or not below
// FD_SETSIZE (nothing printed) or when the wait failed (perror "select").
// selectin also returns -1 when interruptions used up the time-out.
int selectin(int fd, int timeout_ms);
int selectout(int fd, int timeout_ms);
