// Readiness waits: ready, idle, full send buffer, bad descriptors, signals during a wait.
#include "capture.h"
#include "loopback.h"
#include "select.h"

#include <chrono>
#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <thread>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

long elapsed_ms(Clock::time_point since) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since).count();
}

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
class AlarmAfter {
  public:
    explicit AlarmAfter(int ms) {
        struct sigaction action {};
        action.sa_handler = [](int) {};
        sigaction(SIGALRM, &action, &previous_);
        itimerval timer{};
        timer.it_value.tv_usec = ms * 1000;
        setitimer(ITIMER_REAL, &timer, nullptr);
    }
    ~AlarmAfter() {
        itimerval off{};
        setitimer(ITIMER_REAL, &off, nullptr);
        sigaction(SIGALRM, &previous_, nullptr);
    }

  private:
    struct sigaction previous_ {};
};

// Sleeps until `usec` microseconds past a whole second of the wall clock. The waits read that clock
// in whole seconds, so where an interruption falls against a second boundary decides the rest.
void align_to_second(long usec) {
    timeval now{};
    gettimeofday(&now, nullptr);
    long delay = usec - now.tv_usec;
    usleep(static_cast<useconds_t>(delay >= 0 ? delay : delay + 1000000));
}

TEST(Select, zero_timeout_polls_readiness_at_once) {
    UdpEndpoint idle, busy, sender;
    sender.send_to(busy.address(), {1, 2, 3}); // loopback delivery is done when sendto returns
    struct Case {
        const char* name;
        int (*wait)(int, int);
        int fd;
        int expected;
    };
    const Case cases[] = {
        {"selectin idle", selectin, idle.fd(), 0},
        {"selectin datagram waiting", selectin, busy.fd(), 1},
        {"selectout fresh socket", selectout, idle.fd(), 1},
    };
    for (const Case& c : cases) {
        auto start = Clock::now();
        EXPECT_EQ(c.wait(c.fd, 0), c.expected) << c.name;
        EXPECT_LT(elapsed_ms(start), 1000) << c.name;
    }
}

TEST(Select, idle_wait_returns_zero_after_its_time_out) {
    UdpEndpoint idle;
    auto start = Clock::now();
    EXPECT_EQ(selectin(idle.fd(), 20), 0);
    long waited = elapsed_ms(start);
    EXPECT_GE(waited, 19);
    EXPECT_LT(waited, 2000);
}

TEST(Select, full_send_buffer_is_not_writable_and_traced) {
    FullPipe pipe;
    CapturedStderr err;
    EXPECT_EQ(selectout(pipe.ends[0], 0), 0);
    EXPECT_EQ(err.text(), "select:187> not selout2\n");
}

TEST(Select, descriptors_select_cannot_watch_are_refused_silently) {
    for (int fd : {-1, -5, FD_SETSIZE, FD_SETSIZE + 100}) {
        CapturedStdout out;
        CapturedStderr err;
        EXPECT_EQ(selectin(fd, 0), -1) << fd;
        EXPECT_EQ(selectout(fd, 0), -1) << fd;
        EXPECT_EQ(out.text(), "") << fd;
        EXPECT_EQ(err.text(), "") << fd;
    }
}

TEST(Select, closed_descriptor_fails_with_the_select_message) {
    CapturedStdout out;
    CapturedStderr err;
    int fd = socket(AF_INET, SOCK_DGRAM, 0); // opened after the captures, so nothing reuses it
    close(fd);
    EXPECT_EQ(selectin(fd, 10), -1);
    EXPECT_EQ(out.text(), "selin2 errno: " + std::to_string(EBADF) + "\r\n");
    EXPECT_EQ(err.text(), std::string("select: ") + strerror(EBADF) + "\n");
}

TEST(Select, signal_during_timed_wait_is_reported_and_the_wait_goes_on) {
    UdpEndpoint idle;
    CapturedStdout out;
    align_to_second(100000);
    auto start = Clock::now();
    int ready;
    {
        AlarmAfter alarm(30);
        ready = selectin(idle.fd(), 300);
    }
    long waited = elapsed_ms(start);
    EXPECT_EQ(ready, 0);
    EXPECT_GE(waited, 250);
    EXPECT_EQ(out.text(), "selin2 errno: " + std::to_string(EINTR) + "\r\n");
    EXPECT_EQ(EINTR, 4);
}

TEST(Select, signal_during_timed_write_wait_is_reported_on_stdout) {
    FullPipe pipe;
    CapturedStdout out;
    CapturedStderr err;
    align_to_second(100000);
    int ready;
    {
        AlarmAfter alarm(30);
        ready = selectout(pipe.ends[0], 100);
    }
    EXPECT_EQ(ready, 0);
    EXPECT_EQ(out.text(), "selout2 errno: 4\n");
    EXPECT_EQ(err.text(), "select:187> not selout2\n");
}

TEST(Select, interruption_after_a_second_boundary_shortens_the_wait_by_that_second) {
    UdpEndpoint idle;
    CapturedStdout out;
    align_to_second(850000);
    auto start = Clock::now();
    int ready;
    {
        AlarmAfter alarm(300); // falls in the next second: 1000 ms come off the 1500
        ready = selectin(idle.fd(), 1500);
    }
    long waited = elapsed_ms(start);
    EXPECT_EQ(ready, 0);
    EXPECT_GE(waited, 700);
    EXPECT_LT(waited, 1400);
    EXPECT_EQ(out.text(), "selin2 errno: 4\r\n");
}

TEST(Select, interruption_that_uses_up_the_time_out_fails_or_gives_up) {
    UdpEndpoint idle;
    FullPipe pipe;
    CapturedStdout out;
    CapturedStderr err;
    align_to_second(850000);
    {
        AlarmAfter alarm(300);
        EXPECT_EQ(selectin(idle.fd(), 400), -1);
    }
    align_to_second(850000);
    {
        AlarmAfter alarm(300);
        EXPECT_EQ(selectout(pipe.ends[0], 400), 0);
    }
    EXPECT_EQ(out.text(), "selin2 errno: 4\r\nselout2 errno: 4\n");
    EXPECT_EQ(err.text(), std::string("select: ") + strerror(EINTR) + "\nselect:180> not selout1\n");
}

TEST(Select, unlimited_wait_survives_a_signal_and_returns_when_readable) {
    UdpEndpoint target, sender;
    CapturedStdout out;
    std::thread later([&] {
        sigset_t alarm_only;
        sigemptyset(&alarm_only);
        sigaddset(&alarm_only, SIGALRM);
        pthread_sigmask(SIG_BLOCK, &alarm_only, nullptr); // the alarm is for the waiting thread
        usleep(80000);
        sender.send_to(target.address(), {0x10, 0x01, 0x11});
    });
    int ready;
    {
        AlarmAfter alarm(20);
        ready = selectin(target.fd(), -1);
    }
    later.join();
    EXPECT_EQ(ready, 1);
    EXPECT_EQ(out.text(), "");
}

} // namespace
