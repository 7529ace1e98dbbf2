// Connection protocol transfers on the handle's TCP stream: requests, answer headers, raw bytes
// with the keep-alive, and the input flush. Built on the Sony frame layer (its records, codes and
// the link record); the Sony transport builds on this for its stream link.
#pragma once

#include "sony9p_private.h"
#include "wire.h"

#include <zqhandler/cnxn.h>

#include <cstdint>
#include <cstring>
#include <span>

// Time-outs are in ms and unsigned: a negative int handed down from the handle becomes a bound
// that never runs out, so the handle's "negative waits without limit" holds here too.
// Every operation needs `connected` non-zero, else S9P_ERR_NOT_CONNECTED (7).

// Sends the message's len bytes, then payload_len payload bytes. 0, or -1 with err_status:
// S9P_SEND_TIMEOUT (not all sent in time), S9P_ERR_SYSTEM (send failed), S9P_INVAL_ARG (len above
// CNXN_MAX_MESSAGE).
int cnxn_send_cmd(t_s9p_handle* hdl, t_cnxn_command* msg, unsigned timeout_ms);
// Receives exactly one 12-byte header into ans->data (the record is cleared first); the tag is
// the caller's to check. 0, or -1 with err_status S9P_RCV_TIMEOUT or S9P_ERR_COMM.
int cnxn_rcv_cmd(t_s9p_handle* hdl, t_cnxn_command* ans, unsigned timeout_ms);
// Sends `count` raw bytes, 1 ms apart per send. 0, or -4 (time-out), -6 (send failed), -7.
int cnxn_send_data(t_s9p_handle* hdl, const uint8_t* bytes, uint32_t count, unsigned timeout_ms);
// Receives exactly `count` bytes; while nothing arrives, sends one "aliv" request per 20 ms slice.
// Returns count (0 when count <= 0), or -2 (wait or recv failed), -5 (time-out: `buffer` keeps the
// bytes received so far), -7.
int cnxn_rcv_data(t_s9p_handle* hdl, uint8_t* buffer, int count, unsigned timeout_ms);
// Drops the bytes already waiting on the stream: at most kMaxStaleReads reads of 510 bytes, so
// that a server that never stops sending cannot hold the caller.
void cnxn_flush_input(t_s9p_handle* hdl);

// Header fields of a message or answer held in `header` (at least 12 bytes).
inline bool cnxn_tag_is(const uint8_t* header, const char (&tag)[5]) {
    return std::memcmp(header, tag, 4) == 0;
}
inline uint32_t cnxn_arg1(const uint8_t* header) {
    return get_be32(header + 4);
}
inline uint32_t cnxn_arg2(const uint8_t* header) {
    return get_be32(header + 8);
}

// How a transfer's answer header stands against what its operation asked for: the tag it expects,
// and a size announced in arg1 (unsigned: 2^31 and above exceed every capacity) that `capacity`
// bytes must hold. A negative capacity holds nothing.
enum class CnxnAnnounce { fits, wrong_tag, too_big };
CnxnAnnounce cnxn_check_announce(std::span<const uint8_t, CNXN_HEADER_SIZE> header,
                                 const char (&tag)[5], int32_t capacity);
