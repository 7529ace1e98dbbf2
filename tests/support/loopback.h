// Loopback UDP sockets for tests: a bound socket, its address, a datagram to it.
#pragma once

#include <cstdint>
#include <netinet/in.h>
#include <string>
#include <toolkit.h> // loopback_address, hex
#include <vector>

// A UDP socket bound to 127.0.0.1 on a port the system chose (or the one given). Closed on exit.
class UdpEndpoint {
  public:
    explicit UdpEndpoint(uint16_t port = 0);
    ~UdpEndpoint();
    UdpEndpoint(const UdpEndpoint&) = delete;
    UdpEndpoint& operator=(const UdpEndpoint&) = delete;

    int fd() const { return fd_; }
    uint16_t port() const { return port_; }
    sockaddr_in address() const;

    void send_to(const sockaddr_in& to, const std::vector<uint8_t>& bytes) const;
    // Waits up to `timeout_ms` for one datagram; empty when none came (or it was empty).
    std::vector<uint8_t> receive(int timeout_ms, sockaddr_in* from = nullptr) const;

  private:
    int fd_;
    uint16_t port_;
};
