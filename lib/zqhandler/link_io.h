// What the Sony and Louth transports do alike on the handle's links: one datagram in (its sender
// becomes the peer), late datagrams drained before a send, a frame written on the serial line,
// the line's time-outs, and the deadline test of a read.
#pragma once

#include "mytime.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <zqhandler/sony9p.h>

// Waits at most `timeout_ms` for one datagram and receives it into `buffer`, storing its size in
// `*size`; its sender becomes the handle's peer, so later commands go to whoever answered.
// S9P_RCV_TIMEOUT when nothing was readable in time, S9P_ERR_PROTOCOL when the receive failed.
e_s9p_err datagram_receive(t_s9p_handle* hdl, std::span<uint8_t> buffer, int timeout_ms,
                           size_t* size);

// Reads and discards the datagrams already waiting, so that an answer that came after its command
// gave up is not taken for the next one's. At most 256: a peer flooding the socket cannot hold
// the caller for ever. Each sender becomes the peer, as any answer's does.
void datagram_drain(t_s9p_handle* hdl);

// Sets the line's write time-out to `timeout_ms` when it differs, drops unread input and writes
// `frame`. False when fewer bytes were written.
bool serial_send_frame(t_s9p_handle* hdl, std::span<const uint8_t> frame, int timeout_ms);

// Sets the line's read time-out to `timeout_ms` when it differs, keeping the write time-out.
void serial_use_read_timeout(t_s9p_handle* hdl, int timeout_ms);

// More than `timeout_ms` have passed since `start`; never for a negative time-out.
bool past(const MyTick& start, int timeout_ms);
