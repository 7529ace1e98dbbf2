// Loopback UDP helpers for tests.
#include "loopback.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

UdpEndpoint::UdpEndpoint(uint16_t port) : fd_(socket(AF_INET, SOCK_DGRAM, 0)) {
    sockaddr_in address = loopback_address(port);
    if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        perror("UdpEndpoint");
        abort();
    }
    socklen_t length = sizeof address;
    getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
}

UdpEndpoint::~UdpEndpoint() { close(fd_); }

sockaddr_in UdpEndpoint::address() const { return loopback_address(port_); }

void UdpEndpoint::send_to(const sockaddr_in& to, const std::vector<uint8_t>& bytes) const {
    sendto(fd_, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
}

std::vector<uint8_t> UdpEndpoint::receive(int timeout_ms, sockaddr_in* from) const {
    pollfd p{fd_, POLLIN, 0};
    if (poll(&p, 1, timeout_ms) <= 0)
        return {};
    std::vector<uint8_t> buffer(65536);
    sockaddr_in sender{};
    socklen_t length = sizeof sender;
    ssize_t n = recvfrom(fd_, buffer.data(), buffer.size(), 0,
                         reinterpret_cast<sockaddr*>(&sender), &length);
    buffer.resize(n > 0 ? static_cast<size_t>(n) : 0);
    if (from)
        *from = sender;
    return buffer;
}
