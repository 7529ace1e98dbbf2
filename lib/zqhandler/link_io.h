// What the Sony and Louth transports do alike on the serial line: a frame written, the line's
// time-outs, and the deadline test of a read. Their datagram steps are in datagram.h.
#pragma once

#include "mytime.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <zqhandler/sony9p.h>

// Sets the line's write time-out to `timeout_ms` when it differs, drops unread input and writes
// `frame`. False when fewer bytes were written.
bool serial_send_frame(t_s9p_handle* hdl, std::span<const uint8_t> frame, int timeout_ms);

// Sets the line's read time-out to `timeout_ms` when it differs, keeping the write time-out.
void serial_use_read_timeout(t_s9p_handle* hdl, int timeout_ms);

// More than `timeout_ms` have passed since `start`; never for a negative time-out.
bool past(const MyTick& start, int timeout_ms);

// Copies from the front of `bytes` into `buffer` (holding `size` bytes so far) what `missing()`
// says is still lacking, asking again after each copy, since the bytes taken may tell how many
// more are needed (a frame's length is in its first bytes). Returns how many it took.
template <typename Missing>
size_t take_missing(std::span<const uint8_t> bytes, uint8_t* buffer, size_t& size,
                    Missing&& missing) {
    size_t taken = 0;
    while (taken < bytes.size() && missing() > 0) {
        const size_t n = std::min(missing(), bytes.size() - taken);
        std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(taken), n, buffer + size);
        size += n;
        taken += n;
    }
    return taken;
}
