// The daemon's socket calls: fatal set-up failures, short streams.
#include "loopback.h"
#include "socket.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <thread>
#include <unistd.h>

namespace {

TEST(Socket, set_up_failure_ends_the_process_with_the_call_name_and_error_number) {
    UdpEndpoint taken;
    sockaddr_in address = taken.address();
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    EXPECT_EXIT(socketBind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address),
                testing::ExitedWithCode(EADDRINUSE), "^bind: Address already in use\n$");
    EXPECT_EXIT(socketListen(-1, 1), testing::ExitedWithCode(EBADF), "^listen: ");
    close(fd);
}

TEST(Socket, readn_returns_what_came_before_the_peer_closed) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    std::thread peer([&] {
        (void)!write(ends[1], "abc", 3);
        usleep(20000); // the reader is waiting in the middle of the read
        (void)!write(ends[1], "de", 2);
        close(ends[1]);
    });
    char buffer[8];
    EXPECT_EQ(socketReadn(ends[0], buffer, sizeof buffer), 5);
    EXPECT_EQ(std::string(buffer, 5), "abcde");
    peer.join();
    close(ends[0]);
}

} // namespace
