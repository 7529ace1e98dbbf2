// What the Sony and Louth transports do alike on the serial line: a frame written, the line's
// time-outs, and the deadline test of a read. Their datagram steps are in datagram.h.
#pragma once

#include "mytime.h"

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
