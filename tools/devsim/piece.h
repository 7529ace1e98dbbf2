// What the emulator's models hand back for the serving thread to send: bytes, and how long after
// the previous piece they go.
#pragma once

#include <cstdint>
#include <vector>

namespace devsim {

using Bytes = std::vector<uint8_t>;

struct Piece {
    Bytes bytes;
    int delay_ms = 0; // after the previous piece of the same answer (or after the request)
};

} // namespace devsim
