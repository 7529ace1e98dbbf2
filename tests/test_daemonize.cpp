// Detaching into a daemon, checked in forked processes; allocation and Gpio records.
#include "daemonize.h"
#include "gpio.h"

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }

namespace {

std::string linkTarget(const std::string& path) {
    char target[PATH_MAX];
    ssize_t n = readlink(path.c_str(), target, sizeof target - 1);
    return std::string(target, n > 0 ? static_cast<size_t>(n) : 0);
}

// What a daemonized process says about itself, written by it to a pipe.
struct Report {
    std::string text;
    pid_t starter = 0;
    // The number after "key=" in the text, -1 if none.
    long number(const std::string& key) const {
        size_t at = text.find(" " + key + "=");
        return at == std::string::npos ? -1 : atol(text.c_str() + at + key.size() + 2);
    }
};

// Forks a starter that calls daemonize(nochdir, noclose); the surviving process writes its
// state through descriptor 3 (it stays open: daemonize only closes 0 to 2) and leaves.
Report daemonizeAndReport(int nochdir, int noclose) {
    int pipeEnds[2];
    EXPECT_EQ(pipe(pipeEnds), 0);
    Report report;
    report.starter = fork();
    if (report.starter == 0) {
        dup2(pipeEnds[1], 3);
        close(pipeEnds[0]);
        if (chdir("/tmp") != 0 || daemonize(nochdir, noclose) != 0)
            _exit(1);
        std::string state = "cwd=" + linkTarget("/proc/self/cwd");
        for (int fd = 0; fd < 3; ++fd)
            state += " " + std::to_string(fd) + "=" + linkTarget("/proc/self/fd/" + std::to_string(fd));
        state += " leader=" + std::to_string(getsid(0) == getpid());
        state += " session=" + std::to_string(getsid(0));
        state += " pid=" + std::to_string(getpid());
        (void)!write(3, state.data(), state.size());
        _exit(0);
    }
    close(pipeEnds[1]);
    int status = 0;
    EXPECT_EQ(waitpid(report.starter, &status, 0), report.starter);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the starter leaves with 0";
    char buffer[1024];
    ssize_t n;
    while ((n = read(pipeEnds[0], buffer, sizeof buffer)) > 0)
        report.text.append(buffer, static_cast<size_t>(n));
    close(pipeEnds[0]);
    return report;
}

TEST(Daemonize, grandchild_runs_in_root_on_dev_null_in_a_session_it_does_not_lead) {
    Report report = daemonizeAndReport(0, 0);
    EXPECT_NE(report.text.find("cwd=/ 0=/dev/null 1=/dev/null 2=/dev/null leader=0"),
              std::string::npos)
        << report.text;
    long session = report.number("session"), pid = report.number("pid");
    EXPECT_GT(pid, 0);
    EXPECT_NE(session, getsid(0)) << "a session of its own";
    EXPECT_NE(session, report.starter) << "started by the starter's child";
    EXPECT_NE(pid, report.starter) << "a grandchild, not the starter";
    EXPECT_NE(pid, session) << "no session leader";
}

TEST(Daemonize, nochdir_and_noclose_keep_directory_and_descriptors) {
    Report report = daemonizeAndReport(1, 1);
    std::string expected = "cwd=/tmp 0=" + linkTarget("/proc/self/fd/0") +
                           " 1=" + linkTarget("/proc/self/fd/1") +
                           " 2=" + linkTarget("/proc/self/fd/2") + " leader=0";
    EXPECT_NE(report.text.find(expected), std::string::npos) << report.text;
}

TEST(Alloc, free_of_null_stops_on_the_assertion) {
    EXPECT_DEATH(_free(nullptr), "_libc:23: _free: Assertion `ptr != \\(\\(void \\*\\)0\\)' failed");
}

TEST(Alloc, allocation_failure_ends_the_process_with_its_error_number) {
    EXPECT_EXIT(_malloc(SIZE_MAX), testing::ExitedWithCode(ENOMEM),
                std::string("malloc: ") + strerror(ENOMEM));
}

TEST(Gpio, datagram_is_lines_then_status_big_endian) {
    struct Case {
        Gpio gpio;
        GpioDatagram bytes;
    };
    const Case cases[] = {
        {{7, 1}, {0, 0, 0, 7, 0, 0, 0, 1}},
        {{255, 0x1F3}, {0, 0, 0, 0xFF, 0, 0, 1, 0xF3}},
        {{-1, INT32_MIN}, {0xFF, 0xFF, 0xFF, 0xFF, 0x80, 0, 0, 0}},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(gpioEncode(c.gpio), c.bytes) << c.gpio.lines;
        Gpio back = gpioDecode(c.bytes);
        EXPECT_EQ(back.lines, c.gpio.lines);
        EXPECT_EQ(back.status, c.gpio.status);
    }
    Gpio* created = gpioCreate(3, 2);
    EXPECT_EQ(created->lines, 3);
    EXPECT_EQ(created->status, 2);
    gpioDestroy(created);
}

} // namespace
