// The pcap writer of recorded links: classic pcap, written big-endian whatever the host's order
// (readers take either order from the magic number), microsecond time stamps.
#include "pcap_writer.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <unistd.h>

namespace pcap {

namespace {

constexpr uint32_t kMagic = 0xA1B2C3D4;
constexpr uint32_t kSnapLength = 262144;
constexpr uint8_t kLinkDatagram = 1, kLinkSerial = 2, kLinkStream = 3;
constexpr uint8_t kProtocolOfHeader = 0, kProtocolConnection = 4;
constexpr uint8_t kToDevice = 1, kFromDevice = 2;

void put32(std::vector<uint8_t>& out, uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8)
        out.push_back(static_cast<uint8_t>(value >> shift));
}

void put16(std::vector<uint8_t>& out, uint16_t value) {
    out.push_back(static_cast<uint8_t>(value >> 8));
    out.push_back(static_cast<uint8_t>(value));
}

// An IPv4 address and port as they are held: already in network (big-endian) order.
void put_end(std::vector<uint8_t>& out, const sockaddr_in& end) {
    const auto* address = reinterpret_cast<const uint8_t*>(&end.sin_addr.s_addr);
    const auto* port = reinterpret_cast<const uint8_t*>(&end.sin_port);
    out.insert(out.end(), address, address + 4);
    out.insert(out.end(), port, port + 2);
}

} // namespace

bool Writer::begin() {
    std::vector<uint8_t> header;
    put32(header, kMagic);
    put16(header, 2); // version 2.4
    put16(header, 4);
    put32(header, 0); // time zone offset and accuracy
    put32(header, 0);
    put32(header, kSnapLength);
    put32(header, kLinkType);
    std::lock_guard lock(mutex_);
    return write_all(header);
}

bool Writer::datagram(Direction direction, const sockaddr_in& local, const sockaddr_in& peer,
                      std::span<const uint8_t> bytes) {
    return record(direction, kLinkDatagram, kProtocolOfHeader, &local, &peer, 0, bytes);
}

bool Writer::stream(Direction direction, const sockaddr_in& local, const sockaddr_in& peer,
                    std::span<const uint8_t> bytes) {
    do {
        const auto piece = bytes.first(std::min(bytes.size(), kMaxRecord));
        if (!record(direction, kLinkStream, kProtocolConnection, &local, &peer, 0, piece))
            return false;
        bytes = bytes.subspan(piece.size());
    } while (!bytes.empty());
    return true;
}

bool Writer::serial(Direction direction, Serial protocol, uint16_t line,
                    std::span<const uint8_t> bytes) {
    return record(direction, kLinkSerial, static_cast<uint8_t>(protocol), nullptr, nullptr, line,
                  bytes);
}

bool Writer::record(Direction direction, uint8_t link, uint8_t protocol, const sockaddr_in* local,
                    const sockaddr_in* peer, uint16_t line, std::span<const uint8_t> bytes) {
    if (bytes.size() > kMaxRecord) {
        errno = EMSGSIZE;
        return false;
    }
    constexpr size_t kRecordHeader = 16;
    const auto length = static_cast<uint32_t>(kRecordHeader + bytes.size());
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    std::vector<uint8_t> out;
    out.reserve(16 + length);
    put32(out, static_cast<uint32_t>(now.tv_sec));
    put32(out, static_cast<uint32_t>(now.tv_nsec / 1000));
    put32(out, length);
    put32(out, length);

    const bool device = role_ == Role::device;
    out.push_back(1);
    out.push_back((direction == Direction::received) == device ? kToDevice : kFromDevice);
    out.push_back(link);
    out.push_back(protocol);
    if (local && peer) {
        put_end(out, device ? *peer : *local);
        put_end(out, device ? *local : *peer);
    } else {
        out.insert(out.end(), 10, 0);
        put16(out, line);
    }
    out.insert(out.end(), bytes.begin(), bytes.end());
    std::lock_guard lock(mutex_);
    return write_all(out);
}

bool Writer::write_all(const std::vector<uint8_t>& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = write(fd_, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            if (n == 0)
                errno = EIO;
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

} // namespace pcap
