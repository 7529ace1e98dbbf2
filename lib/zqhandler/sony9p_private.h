// Sony frame layer, the library's side: the checksum test and the framing of a computed frame, the
// pure parsers that turn received bytes into an answer frame (a datagram, a serial stream), and
// the one way a record reports its failure. Every protocol module builds on it; it includes no
// other module.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <zqhandler/sony9p.h>

// True when `frame` holds 3 to 18 bytes whose last is the checksum of the others.
bool s9p_checksum_ok(const t_s9p_command& frame);

// Writes `frame` (CMD1 .. last data byte, at most S9P_MAX_FRAME - 1 bytes) and its checksum into
// `cmd` and sets len, touching no other field and checking no count: for builders whose frame is
// computed rather than fixed. Returns 0, or -1 for a null record.
int s9p_set_frame(t_s9p_command* cmd, std::span<const uint8_t> frame);

// The one way an operation on a record fails: the code goes into the record's err_status (a
// t_s9p_command, t_louth_command, t_cnxn_command or any record of the same kind) and the caller
// gets -1.
template <typename Record>
requires requires(Record* record) {
    record->err_status;
}
int fail(Record* record, e_s9p_err code) {
    record->err_status = code;
    return -1;
}

// A received datagram: header, then the frame whose length is the low byte of `size`. A datagram
// under 13 bytes, a length under 3 or above 18, or fewer frame bytes than announced give
// S9P_ERR_PROTOCOL and leave `answer` untouched; otherwise the frame and len are stored.
e_s9p_err s9p_parse_datagram(std::span<const uint8_t> datagram, t_s9p_command* answer);

// Copies from the front of `bytes` into `buffer` (holding `size` bytes so far) what `missing()`
// says is still lacking, asking again after each copy, since the bytes taken may tell how many
// more are needed (an answer's length is in its first bytes). Returns how many it took.
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

// Collects one frame from a byte stream as a serial line delivers it: CMD1, CMD2 and one more
// byte first, then as many as CMD1's data count announces. Never holds more than one frame.
class S9pFrameAssembler {
  public:
    static constexpr size_t kCapacity = S9P_MAX_FRAME;

    // Bytes still needed: of the first three, then of the whole frame.
    size_t missing() const { return expected() - size_; }
    bool complete() const { return missing() == 0; }
    bool failed() const { return false; } // any bytes make a frame
    // CMD1, CMD2 and one more byte are in hand: the frame's length is known.
    bool length_known() const { return size_ >= S9P_MIN_FRAME; }
    // Takes from the front of `bytes` what the frame lacks, up to its end once CMD1 has told
    // its length; returns how many it took.
    size_t take(std::span<const uint8_t> bytes) {
        return take_missing(bytes, bytes_.data(), size_, [this] { return missing(); });
    }
    std::span<const uint8_t> bytes() const { return {bytes_.data(), size_}; }

  private:
    size_t expected() const {
        return size_ < S9P_MIN_FRAME ? S9P_MIN_FRAME : (bytes_[0] & 0x0Fu) + S9P_MIN_FRAME;
    }
    std::array<uint8_t, kCapacity> bytes_{};
    size_t size_ = 0;
};
