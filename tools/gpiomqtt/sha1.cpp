// SHA-1 (FIPS 180-4): 64-byte blocks, big-endian words, the message length in bits at the end.
#include "sha1.h"

#include <cstring>

namespace gpiomqtt {

namespace {

constexpr uint32_t rotl(uint32_t value, int bits) {
    return value << bits | value >> (32 - bits);
}

uint32_t big_endian_word(const uint8_t* bytes) {
    return uint32_t{bytes[0]} << 24 | uint32_t{bytes[1]} << 16 | uint32_t{bytes[2]} << 8 |
           bytes[3];
}

void compress(std::array<uint32_t, 5>& state, const uint8_t* block) {
    uint32_t w[80];
    for (int i = 0; i < 16; ++i)
        w[i] = big_endian_word(block + 4 * i);
    for (int i = 16; i < 80; ++i)
        w[i] = rotl(w[i - 3] ^ w[i - 8] ^ w[i - 14] ^ w[i - 16], 1);
    uint32_t a = state[0], b = state[1], c = state[2], d = state[3], e = state[4];
    for (int i = 0; i < 80; ++i) {
        uint32_t f, k;
        if (i < 20)
            f = (b & c) | (~b & d), k = 0x5A827999;
        else if (i < 40)
            f = b ^ c ^ d, k = 0x6ED9EBA1;
        else if (i < 60)
            f = (b & c) | (b & d) | (c & d), k = 0x8F1BBCDC;
        else
            f = b ^ c ^ d, k = 0xCA62C1D6;
        const uint32_t next = rotl(a, 5) + f + e + k + w[i];
        e = d, d = c, c = rotl(b, 30), b = a, a = next;
    }
    state[0] += a, state[1] += b, state[2] += c, state[3] += d, state[4] += e;
}

} // namespace

Sha1Digest sha1(std::span<const uint8_t> bytes) {
    std::array<uint32_t, 5> state = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476, 0xC3D2E1F0};
    size_t whole = bytes.size() / 64 * 64;
    for (size_t at = 0; at < whole; at += 64)
        compress(state, bytes.data() + at);
    // The tail, the 0x80 marker and the 64-bit length fill one or two last blocks.
    uint8_t last[128] = {};
    const size_t tail = bytes.size() - whole;
    if (tail > 0)
        memcpy(last, bytes.data() + whole, tail);
    last[tail] = 0x80;
    const size_t blocks = tail < 56 ? 1 : 2;
    const uint64_t bits = uint64_t{bytes.size()} * 8;
    for (int i = 0; i < 8; ++i)
        last[blocks * 64 - 1 - i] = static_cast<uint8_t>(bits >> (8 * i));
    for (size_t block = 0; block < blocks; ++block)
        compress(state, last + 64 * block);
    Sha1Digest digest;
    for (size_t i = 0; i < digest.size(); ++i)
        digest[i] = static_cast<uint8_t>(state[i / 4] >> (24 - 8 * (i % 4)));
    return digest;
}

} // namespace gpiomqtt
