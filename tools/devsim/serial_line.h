// The frames of a serial line as a deck's receiver takes them: whole frames by their byte count,
// and after bytes that form no valid frame one answer at most before the line is in step again.
#pragma once

#include "piece.h"

#include <cstddef>

namespace devsim {

// What the receiver does next with the bytes it holds, front first.
struct LineStep {
    enum Kind {
        wait,    // nothing yet: a frame is still coming (or nothing is held)
        frame,   // the first `length` bytes are a valid frame: answer it
        garbage, // the first `length` bytes start no valid frame: drop them unanswered
        bad,     // the first `length` bytes are a frame that is not valid, with no valid frame
                 // after it: answer it once (its NAK or refusal), then skip
    } kind;
    size_t length = 0;
};

// The next step on `held`, for a Sony 9-pin line (`louth` false: CMD1's low nibble counts the
// data bytes, the last byte sums the others) or a Louth one (02, a count, the bytes counted and
// a checksum that brings their sum to 0):
// - a valid frame in front is answered;
// - a frame whose count is not all there yet is waited for, unless the line has gone `quiet`
//   (silent for longer than a deck's inter-byte gap): then it never comes, and the bytes up to
//   the next valid frame in `held` are dropped (all of them when there is none);
// - a frame that is all there but not valid is dropped unanswered when a valid frame follows it
//   in `held` (that frame's answer is the answer), and answered once when none does;
// - while `skipping` (after that answer, until the line is in step again), bytes that start no
//   valid frame are dropped unanswered and a valid frame is looked for past a count not all
//   there, so that the rest of a bad frame, however its count falls, is never taken for a frame.
LineStep next_line_step(const Bytes& held, bool louth, bool skipping, bool quiet);

// A serial line's receiver: the bytes held, and whether it is skipping or quiet, as above.
class SerialLine {
  public:
    void add(const uint8_t* bytes, size_t count);
    // The line has been silent for longer than the inter-byte gap.
    void quiet() { quiet_ = true; }
    bool holds() const { return !held_.empty(); }
    // The next step on a Sony or a Louth line, and its bytes taken off the line (none for
    // `wait`). The line is in step again once a valid frame ends what it holds, or once what it
    // held when it went quiet is all answered or dropped.
    LineStep next(bool louth, Bytes& taken);
    void clear();

  private:
    Bytes held_;
    bool skipping_ = false, quiet_ = false;
};

} // namespace devsim
