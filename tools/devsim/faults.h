// The emulator's scripted faults: how it answers the next commands, its default answer, and the
// faults due at a command's count or at a frame of the position.
#pragma once

#include "wire.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <vector>

namespace devsim {

// A Sony frame from CMD1, CMD2 and data, with its checksum appended.
Bytes with_checksum(Bytes bytes);

// How the emulator answers one command, framed for the link the command came on: a ComHdr
// datagram, a "s9p " message, or the bare frame. Without a frame of its own, the answer is the
// server's (SonyAnswers, LouthServer).
struct Reply {
    Bytes frame;                     // the answer frame, checksum included; empty: the server's
    bool silent = false;             // answer nothing
    int delay_ms = 0;                // answer this late
    bool corrupt_checksum = false;   // the frame's last byte plus one
    bool from_other_address = false; // UDP: answer from the emulator's second socket
    Bytes raw;                       // when not empty, exactly these bytes go on the link
    // Louth links answer from their server's model, not with `frame`; these change that answer.
    Bytes louth;                // when not empty, this Louth answer (04, 05 xx or a frame)
    bool other_unit = false;    // Louth: the answer frame's CMD1 names the next unit
    std::vector<size_t> pieces; // send in pieces of these sizes, the rest in a last one...
    int piece_gap_ms = 0;       // ...this far apart
    // Instead of answering: the server restarts (every link drops: TCP clients are closed and
    // the listener with them, datagrams and serial bytes go unheard for `restart_ms`, then it
    // serves again from the same model); or, on TCP, it closes this client's connection (on the
    // other links it stays silent).
    int restart_ms = -1;
    bool close_connection = false;

    static Reply ack() { return answer({0x10, 0x01}); }
    static Reply nak(uint8_t error_bits) { return answer({0x11, 0x12, error_bits}); }
    // An answer frame given without its checksum.
    static Reply answer(Bytes frame_without_checksum);
    static Reply silence();
    static Reply late(int ms);
    static Reply bytes(Bytes raw);
    static Reply restart(int ms);
    static Reply close();
    // Louth: exactly this answer, framed for the link (behind the datagram header on UDP).
    static Reply louth_answer(Bytes answer);

    // Whether this is the server's own answer, at once: no fault and no frame of its own.
    bool own_answer() const;
    // Whether it answers at all: silence, a restart and a closed connection do not.
    bool instead_of_answer() const { return silent || restart_ms >= 0 || close_connection; }
};

// Thread-safe: a test scripts while the serving thread takes the replies.
class Faults {
  public:
    // Answers to the next commands, in order; once used up, the default answer.
    void script(Reply reply);
    void set_default(Reply reply);
    Reply default_reply() const;
    // `reply` answers the command-th command taken (counted from 1), or the first one taken once
    // the position has come to `frame` from before it: `position` is where it is now (while it
    // is past `frame`, the fault waits until a command finds the position before it). Each plays
    // once.
    void at_command(size_t command, Reply reply);
    void at_frame(int64_t frame, int64_t position, Reply reply);

    // The reply to the next command, the position being `position`: the next scripted one, else
    // a fault due, else the default.
    Reply next(int64_t position);

  private:
    struct Fault {
        size_t command; // 0: at `frame`
        int64_t frame;
        Reply reply;
        bool armed; // at `frame`: the position was seen before it
    };

    mutable std::mutex mutex_;
    std::deque<Reply> script_;
    std::vector<Fault> faults_;
    size_t commands_ = 0; // commands taken
    Reply default_;
};

} // namespace devsim
