// Library sockets: calls pass through with the system's results and error numbers.
#include "loopback.h"
#include "mysocket.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <netinet/in.h>

namespace {

TEST(MySocket, datagram_round_trip_through_the_library_calls) {
    EXPECT_EQ(mysocket_init(), 0);
    int fd = mysocket_open(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    ASSERT_GE(fd, 0);
    sockaddr_in local = loopback_address(0);
    ASSERT_EQ(mysocket_bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof local), 0);

    UdpEndpoint peer;
    sockaddr_in to = peer.address();
    const uint8_t frame[] = {0x10, 0x01, 0x11};
    EXPECT_EQ(mysocket_sendto(fd, frame, sizeof frame, 0, reinterpret_cast<sockaddr*>(&to),
                              sizeof to),
              3);
    sockaddr_in from{};
    auto got = peer.receive(1000, &from);
    EXPECT_EQ(hex(got), "10 01 11");
    peer.send_to(from, {0xAA, 0xBB});

    uint8_t answer[8];
    sockaddr_in sender{};
    socklen_t length = sizeof sender;
    EXPECT_EQ(mysocket_recvfrom(fd, answer, sizeof answer, 0, reinterpret_cast<sockaddr*>(&sender),
                                &length),
              2);
    EXPECT_EQ(ntohs(sender.sin_port), peer.port());
    EXPECT_EQ(mysocket_close(fd), 0);
    mysocket_free();
}

TEST(MySocket, stream_calls_pass_through) {
    int listener = mysocket_open(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = loopback_address(0);
    ASSERT_EQ(mysocket_bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(mysocket_listen(listener, 1), 0);
    socklen_t length = sizeof address;
    getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);

    int client = mysocket_open(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(mysocket_connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    int server = accept(listener, nullptr, nullptr);
    EXPECT_EQ(mysocket_write(client, "aliv", 4), 4);
    char buffer[4];
    EXPECT_EQ(mysocket_read(server, buffer, sizeof buffer), 4);
    EXPECT_EQ(std::string(buffer, 4), "aliv");
    for (int fd : {server, client, listener})
        EXPECT_EQ(mysocket_close(fd), 0);
}

TEST(MySocket, failures_return_minus_one_with_the_system_error) {
    errno = 0;
    EXPECT_EQ(mysocket_close(-1), -1);
    EXPECT_EQ(errno, EBADF);
    errno = 0;
    EXPECT_EQ(mysocket_open(AF_INET, 12345, 0), -1);
    EXPECT_NE(errno, 0);
    char byte;
    EXPECT_EQ(mysocket_read(-1, &byte, 1), -1);
    EXPECT_EQ(errno, EBADF);
}

} // namespace
