// The daemon's socket calls: fatal set-up failures, short streams, signals during a receive.
#include "loopback.h"
#include "socket.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <sys/time.h>
#include <thread>
#include <unistd.h>

namespace {

TEST(Socket, set_up_failure_ends_the_process_with_the_call_name_and_error_number) {
    UdpEndpoint taken;
    sockaddr_in address = taken.address();
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    EXPECT_EXIT(socketBind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address),
                testing::ExitedWithCode(EADDRINUSE), "^bind: Address already in use\n$");
    int bad = -1;
    EXPECT_EXIT(socketSetSockOpt(fd, SOL_SOCKET, 99999, &bad, sizeof bad),
                testing::ExitedWithCode(ENOPROTOOPT), "^setsockopt: ");
    EXPECT_EXIT(socketSocket(AF_INET, 12345, 0), testing::ExitedWithCode(EINVAL), "^socket: ");
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

TEST(Socket, receive_goes_on_through_a_signal) {
    UdpEndpoint receiver, sender;
    struct sigaction action {}, previous{};
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, &previous); // no SA_RESTART: the receive sees EINTR
    itimerval timer{};
    timer.it_value.tv_usec = 20000;
    setitimer(ITIMER_REAL, &timer, nullptr);
    std::thread later([&] {
        sigset_t alarm;
        sigemptyset(&alarm);
        sigaddset(&alarm, SIGALRM);
        pthread_sigmask(SIG_BLOCK, &alarm, nullptr); // the alarm is for the receiving thread
        usleep(80000);
        sender.send_to(receiver.address(), {0, 0, 0, 7, 0, 0, 0, 1});
    });
    char buffer[8];
    sockaddr_in from{};
    socklen_t length = sizeof from;
    EXPECT_EQ(socketRecvFrom(receiver.fd(), buffer, sizeof buffer, 0,
                             reinterpret_cast<sockaddr*>(&from), &length),
              8);
    later.join();
    sigaction(SIGALRM, &previous, nullptr);
}

} // namespace
