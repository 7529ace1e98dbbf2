// Detaching the daemon from its terminal, and allocation that never hands back null.
#pragma once

#include <cstddef>

// Descriptors 0 up to MAXFD - 1 are the ones daemonize closes; higher ones stay open.
constexpr int MAXFD = 3;

// Forks twice with a new session between (SIGHUP ignored), so the surviving grandchild can never
// acquire a controlling terminal. Unless `nochdir`, changes to "/"; unless `noclose`, points
// descriptors 0 to 2 at /dev/null. Each parent ends with _exit(0). Returns 0 in the grandchild, or
// -1 with errno set when a step failed (in whichever process got there).
int daemonize(int nochdir, int noclose);

// malloc that never returns null: on failure perror("malloc") and exit with the error number.
void* _malloc(size_t size);
// free for blocks of _malloc. A null pointer is a programming error: the process stops on an
// assertion failure.
void _free(void* ptr);
