// Louth, the library's side: the pure parsers that turn received bytes into an answer (a datagram,
// a serial stream) and the test of an answer's form, apart from any I/O so that they can be fuzzed.
// The links that carry them are in link.cpp.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <zqhandler/louth.h>

static_assert(sizeof(ComHdr_louth) == ZQ_DATAGRAM_HEADER_SIZE + LOUTH_DATA_SIZE);

// A received datagram: the header, then the answer whose length is the low byte of `size`. Under
// 11 bytes, or fewer answer bytes than announced: S9P_ERR_PROTOCOL, `answer` untouched; else the
// bytes and len are stored.
e_s9p_err louth_parse_datagram(std::span<const uint8_t> datagram, t_louth_command* answer);

// An answer in hand, judged as a transport judges it: a frame (0x02) needs at least 3 bytes
// (S9P_ERR_PROTOCOL) and its checksum (S9P_ERR_CHECKSUM); anything else passes.
e_s9p_err louth_check_answer(const t_louth_command& answer);

// Collects one answer from a byte stream as a serial line delivers it: the first byte tells the
// form (0x04 one byte, 0x05 two, 0x02 the byte count that follows + 3); it takes nothing past the
// answer's end. Fails on any other first byte and on a byte count above LOUTH_MAX_COUNT.
class LouthAnswerAssembler {
  public:
    static constexpr size_t kCapacity = LOUTH_MAX_FRAME;

    // Bytes still needed: to learn the length, then to end the answer; 0 once complete or failed.
    size_t missing() const { return failed() ? 0 : expected() - size_; }
    bool complete() const { return !failed() && size_ == expected(); }
    bool failed() const;
    // The answer's length is known: its form, and for a frame its byte count, are in hand.
    bool length_known() const { return size_ >= 1 && (bytes_[0] != LOUTH_START || size_ >= 2); }
    // Takes from the front of `bytes` what the answer lacks; returns how many it took.
    size_t take(std::span<const uint8_t> bytes);
    std::span<const uint8_t> bytes() const { return {bytes_.data(), size_}; }

  private:
    size_t expected() const;
    std::array<uint8_t, kCapacity> bytes_{};
    size_t size_ = 0;
};
