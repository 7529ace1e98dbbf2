// The link layer under every protocol of the library: a frame of the Sony family or of Louth sent
// on the handle's link (datagram, serial line, connection-protocol stream) and one answer read
// back, behind one dispatch table; and the datagram steps the management protocol shares.
#pragma once

#include "louth_private.h"
#include "select.h"
#include "sony9p_private.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <zqhandler/cnxn.h>

// --- the datagram steps ---------------------------------------------------------------------

// Waits up to `timeout_ms` for the socket to be writable. Without `retry`, false only when the
// wait failed (a time-out sends all the same); with it, a wait that did not report writable is
// followed 5 ms later by a second one, and false only when that one failed.
bool datagram_wait_writable(const t_s9p_handle* hdl, int timeout_ms, bool retry);

// Sends `length` bytes to the link's peer; sendto's result.
int datagram_send(const t_s9p_handle* hdl, const void* bytes, size_t length);

// Receives one datagram of up to `capacity` bytes without waiting (the caller has waited); its
// sender becomes the link's peer, so later requests go to whoever answered last. recvfrom's
// result; on failure the peer is left alone.
int datagram_receive(t_s9p_handle* hdl, void* buffer, size_t capacity);

// --- one frame on the handle's link ---------------------------------------------------------
//
// Time-outs are the handle's, in ms: 0 polls, negative waits without limit (but see the serial
// line below). Each returns 0, or -1 with the record's err_status set: S9P_ERR_NOT_CONNECTED when
// the handle has no link that carries the record's protocol (Louth has no stream link).
//
// Sending. Datagram: the 10-byte header and the frame, after dropping the answers already waiting
// (a Sony send drops every one, at most kMaxStaleReads; a Louth send one), each read as an answer
// is, so that its sender becomes the peer; a failed wait for writing is S9P_SEND_TIMEOUT (Sony
// waits a second time 5 ms after the first wait ran out), a failed send S9P_ERR_SYSTEM (Sony) or
// S9P_INVAL_ARG (Louth). Serial: unread input is dropped, then the frame written; a short write
// is S9P_SEND_TIMEOUT. Stream (Sony): the frame in a "s9p " message after the input flush. A Sony
// record whose len is not 3 to 18 is refused with S9P_INVAL_ARG.
//
// Reading. The record is cleared first; a frame's checksum is then tested (S9P_ERR_CHECKSUM).
// Datagram: nothing within the time-out is S9P_RCV_TIMEOUT, a malformed datagram
// S9P_ERR_PROTOCOL; its sender becomes the peer. Serial: a Sony frame is waited for as long as the
// time-out lasts, checked between reads, and the read that told the frame's length does not count
// against it; a failed read is S9P_ERR_COMM. A Louth answer ends at the first read that brings
// nothing within the line's 0.1 s, or fails, with S9P_RCV_TIMEOUT, and the time-out is checked
// before each read of the bytes after the length. Stream (Sony): the "s9p " answer header, then
// the frame (S9P_ERR_COMM for a wrong header, the raw read's code or S9P_RCV_TIMEOUT for the
// frame).
template <typename Record> int link_send(t_s9p_handle* hdl, Record* cmd, int timeout_ms);
template <typename Record> int link_read(t_s9p_handle* hdl, Record* ans, int timeout_ms);

// The Sony names of the above, and the branches the Sony transport has always had.
int s9p_send_cmd(t_s9p_handle* hdl, t_s9p_command* cmd, int timeout_ms);
int s9p_read_answer(t_s9p_handle* hdl, t_s9p_command* ans, int timeout_ms);
int s9p_send_cmd_eth(t_s9p_handle* hdl, t_s9p_command* cmd, int timeout_ms);
int s9p_read_answer_serial(t_s9p_handle* hdl, t_s9p_command* ans, int timeout_ms);

// The 12-byte header of a stream answer: the tag must be "s9p " and its byte 7 (the frame's
// length) 3 to 18, else S9P_ERR_COMM. The frame's bytes follow the header on the stream.
e_s9p_err s9p_parse_stream_header(std::span<const uint8_t, CNXN_HEADER_SIZE> header,
                                  uint8_t* frame_len);
