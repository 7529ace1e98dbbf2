// Loopback UDP sockets for tests: a bound socket, its address, a datagram to it.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <toolkit.h> // loopback_address, hex
#include <unistd.h>
#include <vector>

// A UDP socket bound to 127.0.0.1 on a port the system chose (or the one given). Closed on exit.
class UdpEndpoint {
  public:
    explicit UdpEndpoint(uint16_t port = 0) : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address = loopback_address(port);
        if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            perror("UdpEndpoint");
            abort();
        }
        socklen_t length = sizeof address;
        getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
    }
    ~UdpEndpoint() { close(fd_); }
    UdpEndpoint(const UdpEndpoint&) = delete;
    UdpEndpoint& operator=(const UdpEndpoint&) = delete;

    int fd() const { return fd_; }
    sockaddr_in address() const { return loopback_address(port_); }

    void send_to(const sockaddr_in& to, const std::vector<uint8_t>& bytes) const {
        sendto(fd_, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&to),
               sizeof to);
    }
    // Waits up to `timeout_ms` for one datagram; empty when none came (or it was empty).
    std::vector<uint8_t> receive(int timeout_ms) const {
        pollfd p{fd_, POLLIN, 0};
        if (poll(&p, 1, timeout_ms) <= 0)
            return {};
        std::vector<uint8_t> buffer(65536);
        ssize_t n = recv(fd_, buffer.data(), buffer.size(), 0);
        buffer.resize(n > 0 ? static_cast<size_t>(n) : 0);
        return buffer;
    }

  private:
    int fd_;
    uint16_t port_;
};
