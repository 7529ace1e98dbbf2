// Detaching into a daemon, checked in forked processes; allocation; the Gpio datagram.
#include "daemonize.h"
#include "gpio.h"

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

extern "C" const char* __asan_default_options() {
    return "allocator_may_return_null=1";
}

namespace {

std::string linkTarget(const std::string& path) {
    char target[PATH_MAX];
    ssize_t n = readlink(path.c_str(), target, sizeof target - 1);
    return std::string(target, n > 0 ? static_cast<size_t>(n) : 0);
}

// What the process that survives daemonize says of itself: directory, descriptors 0 to 2.
struct Survivor {
    pid_t starter = 0, pid = 0, session = 0;
    std::string where;
};

// A starter process calls daemonize from /tmp; the survivor reports through descriptor 3, which
// daemonize leaves open, and leaves.
Survivor daemonizeFromTmp(int nochdir, int noclose) {
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    Survivor survivor;
    survivor.starter = fork();
    if (survivor.starter == 0) {
        dup2(ends[1], 3);
        if (chdir("/tmp") != 0 || daemonize(nochdir, noclose) != 0)
            _exit(1);
        std::string report = std::to_string(getpid()) + " " + std::to_string(getsid(0));
        for (const char* link : {"cwd", "fd/0", "fd/1", "fd/2"})
            report += " " + linkTarget(std::string("/proc/self/") + link);
        (void)!write(3, report.data(), report.size());
        _exit(0);
    }
    close(ends[1]);
    int status = 0;
    EXPECT_EQ(waitpid(survivor.starter, &status, 0), survivor.starter);
    EXPECT_EQ(status, 0) << "the starter leaves with _exit(0)";
    char text[1024] = {};
    (void)!read(ends[0], text, sizeof text - 1); // the survivor's one write, or nothing
    close(ends[0]);
    std::istringstream fields(text);
    fields >> survivor.pid >> survivor.session >> std::ws;
    std::getline(fields, survivor.where);
    return survivor;
}

TEST(Daemonize, survivor_is_a_grandchild_in_root_on_dev_null_leading_no_session) {
    Survivor survivor = daemonizeFromTmp(0, 0);
    EXPECT_EQ(survivor.where, "/ /dev/null /dev/null /dev/null");
    EXPECT_GT(survivor.pid, 0);
    EXPECT_NE(survivor.pid, survivor.starter);
    EXPECT_NE(survivor.session, getsid(0)) << "a session of its own";
    EXPECT_NE(survivor.session, survivor.pid) << "whose leader has left";
}

TEST(Daemonize, nochdir_and_noclose_keep_directory_and_descriptors) {
    std::string ours;
    for (const char* fd : {"0", "1", "2"})
        ours += " " + linkTarget(std::string("/proc/self/fd/") + fd);
    EXPECT_EQ(daemonizeFromTmp(1, 1).where, "/tmp" + ours);
}

TEST(Alloc, free_of_null_stops_on_the_assertion) {
    EXPECT_DEATH(_free(nullptr),
                 "_libc:23: _free: Assertion `ptr != \\(\\(void \\*\\)0\\)' failed");
}

TEST(Alloc, allocation_failure_ends_the_process_with_its_error_number) {
    EXPECT_EXIT(_malloc(SIZE_MAX), testing::ExitedWithCode(ENOMEM),
                std::string("malloc: ") + strerror(ENOMEM));
}

TEST(Gpio, datagram_is_lines_then_status_big_endian) {
    Gpio* gpio = gpioCreate(255, 0x1F3);
    EXPECT_EQ(gpioEncode(*gpio), (GpioDatagram{0, 0, 0, 0xFF, 0, 0, 1, 0xF3}));
    gpioDestroy(gpio);
    Gpio back = gpioDecode({0xFF, 0xFF, 0xFF, 0xFE, 0x80, 0, 0, 0});
    EXPECT_EQ(back.lines, -2);
    EXPECT_EQ(back.status, INT32_MIN);
}

} // namespace
