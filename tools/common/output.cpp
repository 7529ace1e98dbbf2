// Standard output behind a stream that notices every refused write, and the stop of programs that
// serve.
#include "output.h"

#include "cli.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace cli {

namespace {

std::atomic<bool> stdout_failed{false}, lost{false}, finished{false};
int lost_event = -1; // readable once output was lost

// A reader that went away: the program ends as SIGPIPE ends it, quietly, even where it ignores or
// blocks the signal for the sake of its sockets.
[[noreturn]] void end_by_sigpipe() {
    signal(SIGPIPE, SIG_DFL);
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_UNBLOCK, &pipe, nullptr);
    raise(SIGPIPE);
    _exit(128 + SIGPIPE);
}

void report(const std::string& what, int error) {
    if (error == EPIPE)
        end_by_sigpipe();
    if (lost.exchange(true))
        return;
    fprintf(stderr, "%s: %s: %s\n", program(), what.c_str(), strerror(error));
    if (lost_event >= 0) {
        const uint64_t one = 1;
        [[maybe_unused]] const ssize_t woken = write(lost_event, &one, sizeof one);
    }
}

ssize_t write_stdout(void*, const char* bytes, size_t size) {
    if (stdout_failed || finished)
        return -1;
    for (size_t done = 0; done < size;) {
        const ssize_t n = write(STDOUT_FILENO, bytes + done, size - done);
        if (n > 0) {
            done += static_cast<size_t>(n);
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else {
            stdout_failed = true;
            report("write error", n < 0 ? errno : EIO);
            return -1;
        }
    }
    return static_cast<ssize_t>(size);
}

// A standard descriptor that is closed gets one that refuses every transfer in its direction.
void keep_open(int fd) {
    if (fcntl(fd, F_GETFD) >= 0 || errno != EBADF)
        return;
    const int null = open("/dev/null", (fd == STDIN_FILENO ? O_WRONLY : O_RDONLY) | O_CLOEXEC);
    if (null >= 0 && null != fd) {
        dup2(null, fd); // without O_CLOEXEC: a program it starts finds it too
        close(null);
    }
    if (null == fd)
        fcntl(fd, F_SETFD, 0);
}

} // namespace

void check_output() {
    for (int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        keep_open(fd);
    lost_event = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    FILE* checked = fopencookie(nullptr, "w", {nullptr, write_stdout, nullptr, nullptr});
    if (!checked)
        return; // out of memory this early: the C library's stream, unchecked
    setvbuf(checked, nullptr, _IOLBF, BUFSIZ);
    fflush(stdout);
    stdout = checked;
}

bool output_lost() {
    return lost;
}

void file_lost(const std::string& path, int error) {
    report(path, error);
}

int finish_output(int status) {
    fflush(stdout);
    finished = true; // what would still be written after this is dropped
    if (!stdout_failed && close(STDOUT_FILENO) != 0 && errno != EINTR)
        report("write error", errno);
    return status == 0 && lost ? 1 : status;
}

StopSignals::StopSignals() {
    sigset_t stop;
    sigemptyset(&stop);
    for (int signal : {SIGINT, SIGTERM, SIGHUP})
        sigaddset(&stop, signal);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);
    signals_ = signalfd(-1, &stop, SFD_CLOEXEC);
}

StopSignals::~StopSignals() {
    close(signals_);
}

bool StopSignals::wait(int input) const {
    pollfd ready[] = {{signals_, POLLIN, 0}, {lost_event, POLLIN, 0}, {input, POLLIN, 0}};
    while (!lost) {
        const int n = poll(ready, input >= 0 ? 3 : 2, -1);
        if (n < 0 && errno != EINTR)
            return true;
        if (n > 0 && (ready[0].revents || ready[1].revents))
            return true;
        if (n > 0 && ready[2].revents)
            return false;
    }
    return true;
}

} // namespace cli
