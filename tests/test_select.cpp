// Readiness waits: ready, idle, full send buffer, bad descriptors, signals during a wait.
#include "capture.h"
#include "common.h"
#include "loopback.h"
#include "select.h"

#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>

namespace {

// A stream socket pair whose first end can no longer be written: its send buffer is full.
struct FullPipe {
    int ends[2];
    FullPipe() {
        socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends);
        char block[4096] = {};
        while (write(ends[0], block, sizeof block) > 0) {
        }
    }
    ~FullPipe() {
        close(ends[0]);
        close(ends[1]);
    }
};

// Delivers SIGALRM once after `ms`, to a handler that does nothing and does not restart calls.
struct AlarmAfter {
    explicit AlarmAfter(int ms) {
        struct sigaction action {};
        action.sa_handler = [](int) {};
        sigaction(SIGALRM, &action, &previous);
        ualarm(static_cast<useconds_t>(ms) * 1000, 0);
    }
    ~AlarmAfter() {
        ualarm(0, 0);
        sigaction(SIGALRM, &previous, nullptr);
    }
    struct sigaction previous {};
};

TEST(Select, each_wait_reports_readiness_time_out_or_failure_with_its_texts) {
    UdpEndpoint idle, busy, sender;
    sender.send_to(busy.address(), {1, 2, 3}); // loopback delivery is done when sendto returns
    FullPipe full;
    const int closed = dup2(idle.fd(), 100); // far above what the captures below take; closed,
    close(closed);                           // but inside the process's descriptor table
    const std::string badFd = std::string("select: ") + strerror(EBADF) + "\n";
    struct Case {
        const char* name;
        int (*wait)(int, int);
        int fd, timeout_ms, expected;
        long min_ms;
        std::string out, err;
    } const cases[] = {
        {"idle, polled", selectin, idle.fd(), 0, 0, 0, "", ""},
        {"idle, 20 ms", selectin, idle.fd(), 20, 0, 19, "", ""},
        {"datagram waiting", selectin, busy.fd(), 0, 1, 0, "", ""},
        {"full send buffer", selectout, full.ends[0], 0, 0, 0, "", "select:187> not selout2\n"},
        {"closed descriptor", selectin, closed, 10, -1, 0,
         "selin2 errno: " + std::to_string(EBADF) + "\r\n", badFd},
        {"descriptor -1", selectout, -1, 0, -1, 0, "", ""},
        {"descriptor FD_SETSIZE", selectin, FD_SETSIZE, 0, -1, 0, "", ""},
    };
    for (const Case& c : cases) {
        CapturedStdout out;
        CapturedStderr err;
        auto start = Clock::now();
        EXPECT_EQ(c.wait(c.fd, c.timeout_ms), c.expected) << c.name;
        EXPECT_GE(elapsed_ms(start), c.min_ms) << c.name;
        EXPECT_EQ(out.text(), c.out) << c.name;
        EXPECT_EQ(err.text(), c.err) << c.name;
    }
}

// A signal during a timed wait is reported on stdout, then the wait goes on with what is left.
TEST(Select, signal_during_a_timed_wait_is_reported_and_the_rest_is_waited) {
    UdpEndpoint idle;
    // The wait reads the clock in whole seconds: start it early in one, so that none passes.
    timeval now{};
    gettimeofday(&now, nullptr);
    usleep(static_cast<useconds_t>((1100000 - now.tv_usec) % 1000000));
    CapturedStdout out;
    auto start = Clock::now();
    int ready;
    {
        AlarmAfter alarm(30);
        ready = selectin(idle.fd(), 300);
    }
    EXPECT_EQ(ready, 0);
    EXPECT_GE(elapsed_ms(start), 250);
    EXPECT_EQ(out.text(), "selin2 errno: 4\r\n");
}

} // namespace
