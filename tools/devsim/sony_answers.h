// The server's own answers to Sony-family frames (Sony 9-pin, its Odetics extensions and the
// server's media commands): transport commands drive the model, the status bytes, the current
// time and the clip senses answer from it, other senses from values a test or the command line
// can set.
#pragma once

#include "model.h"

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace devsim {

using Bytes = std::vector<uint8_t>;

// Thread-safe: the serving thread answers while a test sets values.
class SonyAnswers {
  public:
    explicit SonyAnswers(Model& model);

    // The answer (CMD1, CMD2, data; no checksum) to `request` (CMD1 .. checksum):
    // - a sense request of group 6 (60 xx, 61 xx sel, 62/69 ...) gets group 7 with its CMD2 and
    //   the sense's value as data; 61 20 ab gets b status bytes from byte a; 61 0C 04 (current
    //   time) answers 74 04 and the position's timecode; 61 C1 01 the loaded ID;
    // - 00 11 (device type) gets 12 11 and its value;
    // - transport commands (20 00 stop, 20 01 play, 20 02 record, 20 04 continue, 20 05 still,
    //   20 0F eject, 20 10 / 20 20 fast forward / rewind, 2x 11-13 / 21-23 jog, var, shuttle with
    //   speed N (N 64 is play speed, each 32 ten times faster), 2x 14 / 24 step, 24 31 cue) move
    //   the model and are acknowledged;
    // - Odetics: A0 14 / A0 15 walk the clip store (88 14 / 88 15 and the ID, 80 at its end);
    //   A8 18 id gets 81 18 and the ID's status; 69 C1 03 id gets 74 C1 and its length;
    //   A8 02 / AC 02 (record cue-up with an ID) create the clip; 48 14 / 4C 14 (in preset with
    //   an ID) load it; A0 1C (storage timecode) 84 1C, A0 21 (device ID) 88 21;
    // - every other frame is a command: ACK (10 01). Erasing an ID or all of them, setting the
    //   device ID and saving a menu section change what the senses then answer.
    Bytes answer(const Bytes& request);

    // The value (answer data) of the sense whose request has this CMD2 and no data, or with
    // `selector` as its first data byte (61 B3 00, 61 C1 02 ...). Keys are CMD2 alone: no two
    // senses of the library share one. The status bytes are the value of CMD2 0x20. A value set
    // for the status bytes (20), the current time (0C.04) or the loaded ID (C1.01) answers
    // instead of the model from then on.
    void set_sense(uint8_t cmd2, Bytes value);
    void set_sense(uint8_t cmd2, uint8_t selector, Bytes value);

    // A clip at the end of the model's store. `length` is 4 BCD bytes.
    void add_clip(const std::string& id, uint8_t status = 0, Bytes length = {0, 0, 0, 0});
    void clear_clips();

  private:
    static int key(uint8_t cmd2, int selector) { return cmd2 | (selector + 1) << 8; }
    Bytes sense(uint8_t cmd2, int selector) const;
    Bytes odetics(uint8_t cmd1, uint8_t cmd2, const Bytes& data);
    void transport(uint8_t cmd1, uint8_t cmd2, const Bytes& data);
    bool has(uint8_t cmd2, int selector) const { return senses_.count(key(cmd2, selector)) > 0; }

    Model& model_;
    mutable std::mutex mutex_;
    std::map<int, Bytes> senses_;
    size_t next_clip_ = 0;
};

// "CMD2=HEX" or "CMD2.SEL=HEX" (hex digits, spaces allowed in HEX) from the command line into
// `answers`; false when the text is not of that form or the value is longer than 15 bytes.
bool set_sense_from_text(SonyAnswers& answers, const std::string& text);

} // namespace devsim
