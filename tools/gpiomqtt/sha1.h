// SHA-1 of a byte string, for name-based UUIDs: the board's build has no crypto library, and a
// UUID's name needs no secrecy, only the digest every other implementation computes.
#pragma once

#include <array>
#include <cstdint>
#include <span>

namespace gpiomqtt {

using Sha1Digest = std::array<uint8_t, 20>;

// The digest of `bytes`, whatever the host's byte order.
Sha1Digest sha1(std::span<const uint8_t> bytes);

} // namespace gpiomqtt
