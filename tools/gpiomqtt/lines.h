// What the program knows of the eight GPI lines, and what one event of the daemon makes it
// publish. A line's level is unknown from the start until its first change; a pulse (status 2:
// the line changed and changed back between two polls of the board) is the other level, then the
// level again, so that a subscriber sees both edges.
#pragma once

#include "ids.h"
#include "is07.h"

#include <array>
#include <cstdint>
#include <span>
#include <vlmgpiod/gpio_event.h>

namespace gpiomqtt {

struct LineState {
    bool known = false;
    bool level = false;
    TaiTime origin; // when the event that set it arrived
};

// Events that publish nothing, by cause.
enum class Unpublished {
    NotEightBytes,   // a datagram of another size
    LineOutOfRange,  // not 0 to 7: the daemon relays whatever reaches port 42002
    StatusOutOfRange, // not 0, 1 or 2
    PulseOfUnknownLine, // status 2 before the line's level is known
    Count
};
const char* unpublished_text(Unpublished cause);

// What one event asks for: `count` states of `line` (0, 1 or 2), their values in order.
struct Publication {
    int line = -1;
    int count = 0;
    std::array<bool, 2> values{};
};

class GpiLines {
  public:
    // Takes one datagram (any bytes) that arrived at `received`: updates the line and says what
    // to publish.
    Publication take(std::span<const uint8_t> datagram, TaiTime received);
    const LineState& line(int line) const { return lines_[static_cast<size_t>(line)]; }
    uint64_t unpublished(Unpublished cause) const {
        return unpublished_[static_cast<size_t>(cause)];
    }

  private:
    std::array<LineState, kLines> lines_{};
    std::array<uint64_t, static_cast<size_t>(Unpublished::Count)> unpublished_{};
};

} // namespace gpiomqtt
