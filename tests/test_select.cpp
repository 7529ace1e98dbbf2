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

// A signal during a timed wait: reported on stdout, then the wait goes on with what is left, less
// the whole seconds passed (the clock is read in seconds), or ends once nothing is left.
TEST(Select, signal_during_a_timed_wait_is_reported_and_the_rest_is_waited) {
    const std::string eintr = std::string("select: ") + strerror(EINTR) + "\n";
    struct Case {
        const char* name;
        bool write;
        long aligned_usec; // where in its second the wait starts
        int alarm_ms, timeout_ms, result;
        long min_ms, max_ms;
        std::string out, err;
    } const cases[] = {
        {"read, same second", false, 100000, 30, 300, 0, 250, 2000, "selin2 errno: 4\r\n", ""},
        {"write, same second", true, 100000, 30, 100, 0, 80, 2000, "selout2 errno: 4\n",
         "select:187> not selout2\n"},
        {"read, a second passed", false, 850000, 300, 1500, 0, 700, 1400, "selin2 errno: 4\r\n",
         ""},
        {"read, used up", false, 850000, 300, 400, -1, 250, 2000, "selin2 errno: 4\r\n", eintr},
        {"write, used up", true, 850000, 300, 400, 0, 250, 2000, "selout2 errno: 4\n",
         "select:180> not selout1\n"},
    };
    EXPECT_EQ(EINTR, 4);
    UdpEndpoint idle;
    FullPipe pipe;
    for (const Case& c : cases) {
        CapturedStdout out;
        CapturedStderr err;
        align_to_second(c.aligned_usec);
        auto start = Clock::now();
        int ready;
        {
            AlarmAfter alarm(c.alarm_ms);
            ready =
                c.write ? selectout(pipe.ends[0], c.timeout_ms) : selectin(idle.fd(), c.timeout_ms);
        }
        long waited = elapsed_ms(start);
        EXPECT_EQ(ready, c.result) << c.name;
        EXPECT_GE(waited, c.min_ms) << c.name;
        EXPECT_LT(waited, c.max_ms) << c.name;
        EXPECT_EQ(out.text(), c.out) << c.name;
        EXPECT_EQ(err.text(), c.err) << c.name;
    }
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
