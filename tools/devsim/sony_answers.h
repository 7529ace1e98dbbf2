// The server's answers to Sony-family frames, as a BVW-class deck answers the public command
// tables, and as this system's server answers the requests of its own library (the Odetics
// extensions and the server's media commands): transport commands drive the model, the status
// bytes, the time senses, the edit points and the clip senses answer from it, other senses from
// values a test or a scenario can set. Where the two differ, the system's server wins on the
// requests its library sends (man/devsim.1 lists the choices).
#pragma once

#include "model.h"

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace devsim {

// Thread-safe: the serving thread answers while a test sets values.
class SonyAnswers {
  public:
    explicit SonyAnswers(Model& model);

    // The answer (CMD1, CMD2, data; no checksum) to `request` (CMD1 .. checksum):
    // - a frame cut short (or none at all) or whose checksum is wrong gets NAK 11 12 04; a frame
    //   neither the public tables nor the system define (names.h), or an answer frame, gets
    //   NAK 11 12 01; so does a transport or preset command (groups 2 and 4) while the front
    //   panel is local;
    // - a sense request of group 6 gets group 7 with its CMD2 and the sense's data: the status
    //   bytes (61 20 ab: b bytes from byte a), the current time in the form its sources ask for,
    //   the edit points, the loaded ID from the model; others from their values;
    // - transport and preset commands move the model and are acknowledged (10 01);
    // - Odetics: A0 14 / A0 15 walk the clip store (88 14 / 88 15 and the ID, 80 at its end);
    //   A8 18 id gets 81 18 and the ID's status; 69 C1 03 id gets 74 C1 and its length;
    //   A8 02 / AC 02 (record cue-up with an ID) create the clip; 48 14 / 4C 14 (in preset with
    //   an ID) load it; A0 1C (storage timecode) 84 1C, A0 21 (device ID) 88 21.
    // Erasing IDs, setting the device ID, saving a menu section and the presets (preroll, timer
    // mode, edit preset, loop mode, fields) change what their senses then answer.
    Bytes answer(const Bytes& request);

    // The value (answer data) of the sense whose request has this CMD2 and no data, or with
    // `selector` as its first data byte (61 B3 00, 61 C1 02 ...). Keys are CMD2 alone: no two
    // senses share one. The status bytes are the value of CMD2 0x20. A value set for the status
    // bytes (20), the current time (0C.sel: answered 7x 04) or the loaded ID (C1.01) answers
    // instead of the model from then on.
    void set_sense(uint8_t cmd2, Bytes value);
    void set_sense(uint8_t cmd2, uint8_t selector, Bytes value);

    // A clip at the end of the model's store. `length` is 4 BCD bytes.
    void add_clip(const std::string& id, uint8_t status = 0, Bytes length = {0, 0, 0, 0});
    void clear_clips();

    Model& model() { return model_; }

    // A request taken apart; what the deck's table rows get.
    struct Request {
        uint8_t cmd1, cmd2;
        Bytes data;
    };

  private:
    static int key(uint8_t cmd2, int selector) { return cmd2 | (selector + 1) << 8; }
    bool has(uint8_t cmd2, int selector) const { return senses_.count(key(cmd2, selector)) > 0; }
    Bytes sense(uint8_t cmd2, int selector) const;
    Bytes command(const Request& r);
    Bytes preset_command(const Request& r); // 4X
    Bytes sense_request(const Request& r);  // 6X
    Bytes current_time(uint8_t sources);
    Bytes odetics(const Request& r);

    Model& model_;
    mutable std::mutex mutex_;
    std::map<int, Bytes> senses_;
    Bytes user_bits_ = Bytes(4, 0);
    size_t next_clip_ = 0;
};

// "CMD2=HEX" or "CMD2.SEL=HEX" (hex digits, spaces allowed in HEX) into `answers`; false when the
// text is not of that form or the value is longer than 15 bytes.
bool set_sense_from_text(SonyAnswers& answers, const std::string& text);

} // namespace devsim
