// The emulator's own wire helpers, written apart from the library's on purpose: big-endian fields,
// BCD digits, the Sony checksum, and the headers in front of frames in a datagram (type 1 Sony,
// 3 management, 5 Louth) and on a connection-protocol stream (a four-character tag, two words).
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace devsim {

using Bytes = std::vector<uint8_t>;

constexpr size_t kDatagramHeader = 10; // type, size, msgType, seqID, seqNum
constexpr size_t kStreamHeader = 12;   // tag, arg1, arg2
constexpr size_t kMaxSonyFrame = 18;   // CMD1, CMD2, 15 data bytes, checksum
constexpr uint16_t kSonyDatagram = 1, kMgmtDatagram = 3, kLouthDatagram = 5;

constexpr uint16_t be16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] << 8 | p[1]);
}
constexpr uint32_t be32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
           static_cast<uint32_t>(p[2]) << 8 | p[3];
}
inline void put_be16(Bytes& out, size_t value) {
    out.push_back(static_cast<uint8_t>(value >> 8));
    out.push_back(static_cast<uint8_t>(value));
}
inline void put_be32(Bytes& out, uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8)
        out.push_back(static_cast<uint8_t>(value >> shift));
}

// Two decimal digits in one byte, and back (the byte's bits above `mask` are flags).
constexpr uint8_t to_bcd(int64_t value) {
    return static_cast<uint8_t>((value / 10) << 4 | value % 10);
}
constexpr int from_bcd(uint8_t byte, uint8_t mask = 0xFF) {
    byte &= mask;
    return (byte >> 4) * 10 + (byte & 0x0F);
}

// The low 8 bits of the sum of `bytes`: a Sony frame's last byte sums what comes before it.
inline uint8_t byte_sum(std::span<const uint8_t> bytes) {
    unsigned sum = 0;
    for (uint8_t b : bytes)
        sum += b;
    return static_cast<uint8_t>(sum);
}

// A datagram: the 10-byte header of `type` announcing `size` bytes (zero msgType and sequence
// words), then `payload`.
inline Bytes datagram(uint16_t type, std::span<const uint8_t> payload, size_t size) {
    Bytes out;
    out.reserve(kDatagramHeader + payload.size());
    put_be16(out, type);
    put_be16(out, size);
    out.resize(kDatagramHeader, 0);
    out.insert(out.end(), payload.begin(), payload.end());
    return out;
}
inline Bytes datagram(uint16_t type, std::span<const uint8_t> payload) {
    return datagram(type, payload, payload.size());
}

// A stream message: `tag` (4 characters), arg1 and arg2, then `payload` (a "s9p " frame).
inline Bytes stream_message(const std::string& tag, uint32_t arg1, uint32_t arg2,
                            std::span<const uint8_t> payload = {}) {
    Bytes out(tag.begin(), tag.begin() + 4);
    put_be32(out, arg1);
    put_be32(out, arg2);
    out.insert(out.end(), payload.begin(), payload.end());
    return out;
}

} // namespace devsim
