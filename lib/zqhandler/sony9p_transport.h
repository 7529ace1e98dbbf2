// Sony transport layer: a frame on the handle's three links (the datagram header, sending a
// command, reading one answer) and the pure parsers that turn received bytes into an answer frame.
// Built on the frame layer and on the connection protocol, which carries the stream link.
#pragma once

#include "cnxn.h"
#include "sony9p.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

// A frame in a UDP datagram. The 16-bit fields are held in network byte order (htons). A datagram
// carries the 10-byte header and exactly the frame's bytes, not the whole record.
struct ComHdr {
    uint16_t type;    // 1, a Sony frame; ignored on receipt
    uint16_t size;    // the frame's length; on receipt only its low byte counts
    uint16_t msgType; // 0
    uint16_t seqID;   // 0
    uint16_t seqNum;  // 0
    uint8_t data[S9P_MAX_FRAME];
};
inline constexpr size_t COMHDR_HEADER_SIZE = 10;
static_assert(sizeof(ComHdr) == COMHDR_HEADER_SIZE + S9P_MAX_FRAME);

// Time-outs are the handle's, in ms: 0 polls, negative waits without limit.
// Each returns 0, or -1 with the record's err_status set (S9P_ERR_NOT_CONNECTED when the handle
// has no transport). A record whose len is not 3 to 18 is refused with S9P_INVAL_ARG.
int s9p_send_cmd(t_s9p_handle* hdl, t_s9p_command* cmd, int timeout_ms);
// The datagram branch of s9p_send_cmd: drains stale answers first, then sends 10 + len bytes.
int s9p_send_cmd_eth(t_s9p_handle* hdl, t_s9p_command* cmd, int timeout_ms);
// Reads one answer into `ans` (cleared first) and checks its checksum. Over UDP the sender
// becomes the handle's peer.
int s9p_read_answer(t_s9p_handle* hdl, t_s9p_command* ans, int timeout_ms);
// The serial branch of s9p_read_answer, without the checksum test. The time-out is checked after
// each read: the first three bytes stop being waited for once it has passed, but when they are in
// hand by then, the rest of the frame still gets one more read.
int s9p_read_answer_serial(t_s9p_handle* hdl, t_s9p_command* ans, int timeout_ms);

// A received datagram: header, then the frame whose length is the low byte of `size`. A datagram
// under 13 bytes, a length under 3 or above 18, or fewer frame bytes than announced give
// S9P_ERR_PROTOCOL and leave `answer` untouched; otherwise the frame and len are stored.
e_s9p_err s9p_parse_datagram(std::span<const uint8_t> datagram, t_s9p_command* answer);

// The 12-byte header of a stream answer: the tag must be "s9p " and its byte 7 (the frame's
// length) 3 to 18, else S9P_ERR_COMM. The frame's bytes follow the header on the stream.
e_s9p_err s9p_parse_stream_header(std::span<const uint8_t, CNXN_HEADER_SIZE> header,
                                  uint8_t* frame_len);

// Collects one frame from a byte stream as a serial line delivers it: CMD1, CMD2 and one more
// byte first, then as many as CMD1's data count announces. Never holds more than one frame.
class S9pFrameAssembler {
  public:
    // Bytes still needed: of the first three, then of the whole frame.
    size_t missing() const { return expected() - size_; }
    bool complete() const { return missing() == 0; }
    // CMD1, CMD2 and one more byte are in hand: the frame's length is known.
    bool header_complete() const { return size_ >= S9P_MIN_FRAME; }
    // Takes from the front of `bytes` what the frame lacks, up to its end once CMD1 has told
    // its length; returns how many it took.
    size_t take(std::span<const uint8_t> bytes);
    std::span<const uint8_t> frame() const { return {bytes_.data(), size_}; }

  private:
    size_t expected() const {
        return size_ < S9P_MIN_FRAME ? S9P_MIN_FRAME : (bytes_[0] & 0x0Fu) + S9P_MIN_FRAME;
    }
    std::array<uint8_t, S9P_MAX_FRAME> bytes_{};
    size_t size_ = 0;
};
