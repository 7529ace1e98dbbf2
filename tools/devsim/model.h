// The server behind every link of one emulator: its transport, a position that moves in real time
// at the video standard's rate, one clip store that the Sony, Odetics and Louth sides share, the
// edit points and modes a deck keeps, and the front panel's local switch.
#pragma once

#include "playhead.h"
#include "wire.h"

#include <array>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace devsim {

// The video standards: the frame rate the position moves at, and how its timecode counts. At 50
// and 59.94 the timecode counts pairs of frames (25 and 29.97 drop-frame timecode).
enum class Standard { pal25, ntsc2997df, ntsc30, pal50, ntsc5994df };

// "25", "29.97df", "30", "50" or "59.94df"; nullopt for anything else.
std::optional<Standard> standard_from_text(const std::string& text);
const char* standard_name(Standard standard);

// Frames (counted at the standard's rate) to 4 BCD bytes, frames first, 0x40 in the frames byte
// for drop-frame, and back; timecodes run over 24 hours.
Bytes frames_to_bcd(Standard standard, int64_t frames);
int64_t bcd_to_frames(Standard standard, const uint8_t* bcd);
// "HH:MM:SS:FF" (";" before the frames for drop-frame) of 4 BCD bytes, frames first.
std::string bcd_text(const uint8_t* bcd);

// An ID as the store keeps it: padded with spaces or cut to 8 bytes.
std::string clip_id(const std::string& id);

// Thread-safe: every link's serving code and a test may call it at once.
//
// The position moves in real time, but only when the model is called: every operation and every
// reader of the transport, the position or the clip store first brings the model up to now (a
// play reaching its clip's end or its edit's end point stops there, a recording grows its clip).
// Those readers therefore change the model and are not const; the const ones read what time
// does not touch (the standard, the edit points, the loaded clip).
class Model {
  public:
    enum class State {
        stopped,
        playing,
        still,
        fast_forward,
        rewind,
        jog,
        var,
        shuttle,
        recording,
        ejected
    };
    struct Clip {
        std::string id;                // 8 bytes, padded with spaces
        int64_t start = 0, length = 0; // frames
        uint8_t status = 0;
    };
    // The edit points a deck keeps, in the order of their commands (IN, OUT, audio IN, audio OUT).
    enum class Point { in, out, audio_in, audio_out };
    // What an edit command set going: the transport went to a point less the preroll time and, but
    // for a preroll, plays on to the end point.
    enum class Edit { none, preroll, preview, review, auto_edit };

    // Everything a front panel shows, read at one instant.
    struct Snapshot {
        Standard standard;
        State state;
        double speed; // play speeds; negative backwards
        int64_t position;
        bool cued;          // cue-up complete
        bool local;         // the front panel's switch: transport commands are refused
        bool local_enabled; // the front panel's keys work beside remote control
        Edit edit;
        std::string loaded; // 8 bytes, or empty
        std::vector<Clip> clips;
        std::array<std::optional<int64_t>, 4> points;
        std::array<uint8_t, 16> latched; // status bits the commands set and clear themselves
    };

    Model();

    void set_standard(Standard standard); // keeps the position's timecode
    Standard standard() const;
    void set_local(bool local);
    void set_local_enabled(bool enabled);

    // The transport. Speeds are in play speeds (1 plays, -1 plays backwards); fast forward and
    // rewind run at 10 times play speed. A cue stops the transport, moves the position and
    // reports cue-up complete until the transport moves again; cueing to a timecode unloads the
    // loaded clip. Any of these ends an edit under way.
    void command(State state, double speed = 1);
    void step(int64_t frames); // moves the position and leaves the transport in still
    void cue(int64_t frames);
    // Cues to `from`; but for a preroll, then plays and stops (still) at `until` when given.
    void edit(Edit edit, int64_t from, std::optional<int64_t> until);
    State state();
    int64_t position();

    // The edit points: set to the position (entry) or a value (preset), moved by frames (shift),
    // cleared (reset; recall brings back the value a reset cleared).
    void entry(Point point);
    void preset(Point point, int64_t frames);
    void shift(Point point, int64_t frames);
    void reset(Point point);
    void recall(Point point);
    std::optional<int64_t> point(Point point) const;
    // A status bit a command sets or clears, such as auto mode (byte 3, 0x80).
    void latch(size_t byte, uint8_t mask, bool on);

    Snapshot snapshot();
    // 16 Sony status bytes, from the table in model.cpp.
    Bytes status();

    // The clip store, in the order clips were added. IDs are padded or cut to 8 bytes.
    void add_clip(const std::string& id, int64_t start, int64_t length, uint8_t status = 0);
    // Adds a clip that starts where the store's last clip ends (an ID there is added again).
    void append_clip(const std::string& id, int64_t length, uint8_t status = 0);
    // Erases one clip (true when it was there), or every clip when `id` is empty.
    bool erase(const std::string& id);
    std::vector<Clip> clips();
    std::optional<Clip> clip(const std::string& id);
    // Record cue-up: creates the clip (empty, where the store's last clip ends) unless it exists,
    // loads it and cues to its start; recording then fills its length.
    void record_cue(const std::string& id);
    // Loads the clip and cues to its start; play then stops at its end. False: no such clip.
    bool load(const std::string& id);
    std::string loaded() const; // 8 bytes, or empty

    // The store as text, one line a clip: its ID (8 bytes), its start and its length as
    // timecodes ("NEWS     00:00:10:00 00:00:04:00\n"); one clip's line (from 0), or nullopt.
    Bytes listing();
    std::optional<Bytes> listing_line(size_t clip);

  private:
    using Clock = std::chrono::steady_clock;
    std::string line_locked(const Clip& clip) const;
    // The one step of time: moves the playhead on to now and applies the clip's end, the edit's
    // end and the record length. Under the lock, first thing in every caller that reads or
    // changes what time moves.
    void advance(Clock::time_point now);
    void move_locked(State state, double speed);
    Clip* find(const std::string& id);
    int64_t end_locked() const; // where the store's last clip ends

    mutable std::mutex mutex_;
    Standard standard_ = Standard::pal25;
    bool local_ = false, local_enabled_ = true;
    State state_ = State::stopped;
    Playhead playhead_;
    bool cued_ = false;
    Edit edit_ = Edit::none;
    std::optional<int64_t> edit_end_;
    std::vector<Clip> clips_;
    std::string loaded_;
    std::array<std::optional<int64_t>, 4> points_, cleared_;
    std::array<uint8_t, 16> latched_{};
};

// The 16 status bytes a snapshot stands for (Model::status).
Bytes status_bytes(const Model::Snapshot& s);

} // namespace devsim
