// The server's own answers to Sony-family frames: acknowledgements, sense values, the Odetics ID
// list, the device ID and the menu sections.
#include "sony_answers.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <toolkit.h>
#include <tuple>

namespace devsim {

namespace {

constexpr size_t kIdBytes = 8;
constexpr size_t kMaxData = 15;
const Bytes kAck = {0x10, 0x01};

Bytes text(const char* s) {
    return Bytes(s, s + std::char_traits<char>::length(s));
}

// The 8-byte ID at `at` in `data`, empty when it is not all there.
std::string id_at(const Bytes& data, size_t at) {
    if (data.size() < at + kIdBytes)
        return {};
    return std::string(data.begin() + static_cast<long>(at),
                       data.begin() + static_cast<long>(at + kIdBytes));
}

// CMD1 of group `group` counting `data`, CMD2, then the data (at most 15 bytes).
Bytes frame(uint8_t group, uint8_t cmd2, const Bytes& data) {
    const size_t n = std::min(data.size(), kMaxData);
    Bytes out(2 + n);
    out[0] = static_cast<uint8_t>(group | n);
    out[1] = cmd2;
    std::copy_n(data.begin(), n, out.begin() + 2);
    return out;
}

// Play speeds of a Sony speed byte N: 64 is play speed, each 32 more ten times faster.
double speed_of(uint8_t n) {
    return std::pow(10.0, n / 32.0 - 2);
}

} // namespace

SonyAnswers::SonyAnswers(Model& model) : model_(model) {
    // Plausible contents for every sense of the library; tests set what they assert on.
    const std::pair<uint8_t, Bytes> plain[] = {
        {0x11, {0xF0, 0x20}},             // device type
        {0x95, {0x01, 0x00}},             // version
        {0xB1, text("DEVSIM")},           // product name
        {0xB2, text("DS00000042")},       // serial number, and the capture status
        {0xAA, {0x01}},                   // Odetics capability
        {0x1C, {0x00, 0x00, 0x10, 0x00}}, // storage timecode 00:10:00:00
        {0x21, text("DEVSIM01")},         // device ID
        {0x31, {0x00, 0x05, 0x00, 0x00}}, // preroll 00:00:05:00
        {0x3C, {0x00, 0x02, 0x00, 0x00}}, // postroll
        {0x2E, {0x40}},                   // speed: play
        {0x38, {0x00}},
        {0x3E, {0x00}},
        {0x36, {0x00}},
        {0x33, {0x01}},
        {0x50, {0x00}},
        {0x78, {0x00, 0x00}},
        {0x90, {0x01}},
        {0x91, {0x00}},
        {0xA2, {0x00, 0x00, 0x01, 0x00}},
        {0x9F, {0x00, 0x01, 0x00, 0x00}},
        {0xA1, text("DISK0")},
        {0xA8, {0x00, 0x10}},
        {0xA9, {0x00}},
        {0xAD, {0x08}},
        {0xAE, {0x01}},
        {0xB0, {0x01, 0x00}},
        {0xB3, {127, 0, 0, 1}},                                   // IP address
        {0xB4, {0x00, 0x00, 0x00, 0x00}},                         // field 0
        {0xB5, {0x00, 0x00, 0x10, 0x00}},                         // last field
        {0xB7, {0x00}},                                           // loop mode off
        {0x9A, {0, 0, 1, 0, 0, 0, 2, 0, 0x00, 0x07, 0x00, 0x09}}, // clip parameters
    };
    for (const auto& [cmd2, value] : plain)
        senses_[key(cmd2, -1)] = value;
    const std::tuple<uint8_t, uint8_t, Bytes> selected[] = {
        {0xC1, 0x00, {0x00, 0x00}},             // errors
        {0xC1, 0x02, {0x00, 0x01, 0x00, 0x42}}, // clip range 1 to 42
        {0x94, 0x01, {0x01, 0x10}},             // compression ratio
        {0xB0, 0x00, {0x00, 0x02, 0x01}},       // protocol version
        {0xB3, 0x00, {0x00, 0x01, 0x02, 0x03}}, // current video
        {0xB3, 0x02, {0x02, 0x01, 0x02, 0x03}}, // start-up video
        {0xB4, 0x00, {0x00, 0x02, 0x30}},       // current audio
        {0xB4, 0x02, {0x02, 0x02, 0x30}},       // start-up audio
        {0xBB, 0x01, {0x01, 0x01, 0x02, 0x03}}, // a file's video
        {0xBC, 0x01, {0x01, 0x02, 0x30}},       // a file's audio
    };
    for (const auto& [cmd2, selector, value] : selected)
        senses_[key(cmd2, selector)] = value;
}

void SonyAnswers::set_sense(uint8_t cmd2, Bytes value) {
    std::lock_guard lock(mutex_);
    senses_[key(cmd2, -1)] = std::move(value);
}

void SonyAnswers::set_sense(uint8_t cmd2, uint8_t selector, Bytes value) {
    std::lock_guard lock(mutex_);
    senses_[key(cmd2, selector)] = std::move(value);
}

void SonyAnswers::add_clip(const std::string& id, uint8_t status, Bytes length) {
    length.resize(4);
    model_.append_clip(id, bcd_to_frames(model_.standard(), length.data()), status);
}

void SonyAnswers::clear_clips() {
    model_.erase("");
}

// A sense with no value set answers its selector alone, or no data.
Bytes SonyAnswers::sense(uint8_t cmd2, int selector) const {
    auto found = senses_.find(key(cmd2, selector));
    if (found != senses_.end())
        return found->second;
    return selector < 0 ? Bytes{} : Bytes{static_cast<uint8_t>(selector)};
}

Bytes SonyAnswers::answer(const Bytes& request) {
    if (request.size() < 3)
        return kAck;
    const uint8_t cmd1 = request[0], cmd2 = request[1];
    // The data bytes that came (a datagram may carry fewer than CMD1 announces).
    const size_t count = std::min<size_t>(cmd1 & 0x0F, request.size() - 3);
    const Bytes data(request.begin() + 2, request.begin() + 2 + static_cast<long>(count));
    std::lock_guard lock(mutex_);
    switch (cmd1 >> 4) {
    case 0x0:
        return cmd2 == 0x11 ? frame(0x10, 0x11, sense(0x11, -1)) : kAck;
    case 0x2:
        transport(cmd1, cmd2, data);
        return kAck;
    case 0x4:
        if (cmd2 == 0xC0 && !data.empty()) // a menu section written: read back as written
            senses_[key(0xC0, data[0])] = data;
        if (cmd2 == 0x14 && (cmd1 & 0x08) && data.size() >= 8) // in preset with an ID: load it
            model_.load(id_at(data, data.size() - 8));
        return kAck;
    case 0x6:
        break;
    case 0xA:
        return odetics(cmd1, cmd2, data);
    default:
        return kAck;
    }
    // Sense requests of group 6.
    if (cmd2 == 0x0C && data.size() == 1 && data[0] == 0x04 && !has(0x0C, 0x04))
        return frame(0x70, 0x04, frames_to_bcd(model_.standard(), model_.position()));
    if (cmd2 == 0xC1 && data.size() == 1 && data[0] == 0x01 && !has(0xC1, 0x01)) {
        const std::string loaded = model_.loaded();
        Bytes value(1 + loaded.size(), 0x01); // sized first, as GCC 12 -Warray-bounds wants
        std::copy(loaded.begin(), loaded.end(), value.begin() + 1);
        return frame(0x70, 0xC1, value);
    }
    if (cmd2 == 0x20 && data.size() == 1) {
        const Bytes status = has(0x20, -1) ? sense(0x20, -1) : model_.status();
        Bytes range(data[0] & 0x0F, 0);
        for (size_t i = 0; i < range.size(); ++i)
            if ((data[0] >> 4) + i < status.size())
                range[i] = status[(data[0] >> 4) + i];
        return frame(0x70, 0x20, range);
    }
    if (cmd2 == 0xC1 && !data.empty() && data[0] == 0x03) {
        const auto clip = model_.clip(id_at(data, 1));
        return frame(0x70, 0xC1,
                     clip ? frames_to_bcd(model_.standard(), clip->length) : Bytes(4, 0));
    }
    // Requests of one data byte, and the file queries, carry a selector; 62 9A carries a clip.
    const int selector = !data.empty() && (data.size() == 1 || cmd1 == 0x69) ? data[0] : -1;
    return frame(0x70, cmd2 == 0x0C ? 0x04 : cmd2, sense(cmd2, selector));
}

void SonyAnswers::transport(uint8_t cmd1, uint8_t cmd2, const Bytes& data) {
    using State = Model::State;
    const double speed = data.empty() ? 1 : speed_of(data[0]);
    const int64_t frames = data.empty() ? 1 : data[0];
    switch (cmd2) {
    case 0x00:
        return model_.command(State::stopped);
    case 0x01:
        return model_.command(State::playing);
    case 0x02:
        return model_.command(State::recording);
    case 0x04:
        return model_.command(State::playing); // standby off: continue
    case 0x05:
        return model_.command(State::still);
    case 0x0F:
        return model_.command(State::ejected);
    case 0x10:
        return model_.command(State::fast_forward);
    case 0x20:
        return model_.command(State::rewind);
    case 0x11:
        return model_.command(State::jog, speed);
    case 0x21:
        return model_.command(State::jog, -speed);
    case 0x12:
        return model_.command(State::var, speed);
    case 0x22:
        return model_.command(State::var, -speed);
    case 0x13:
        return model_.command(State::shuttle, speed);
    case 0x23:
        return model_.command(State::shuttle, -speed);
    case 0x14:
        return model_.step(frames);
    case 0x24:
        return model_.step(-frames);
    case 0x31:
        if (cmd1 == 0x24 && data.size() == 4)
            model_.cue(bcd_to_frames(model_.standard(), data.data()));
        return;
    default:
        return;
    }
}

// IDs come last in the Odetics forms that carry a timecode too (AC 02: timecode, then ID).
Bytes SonyAnswers::odetics(uint8_t cmd1, uint8_t cmd2, const Bytes& data) {
    const std::string id = data.size() >= kIdBytes ? id_at(data, data.size() - kIdBytes) : "";
    switch (cmd2) {
    case 0x02: // record cue-up
        if ((cmd1 & 0x08) && !id.empty())
            model_.record_cue(id);
        return kAck;
    case 0x14:
        next_clip_ = 0;
        [[fallthrough]];
    case 0x15: {
        const auto clips = model_.clips();
        if (next_clip_ >= clips.size())
            return {0x80, cmd2};
        const std::string& next = clips[next_clip_++].id;
        return frame(0x80, cmd2, Bytes(next.begin(), next.end()));
    }
    case 0x18: {
        const auto clip = model_.clip(id);
        return frame(0x80, 0x18, {clip ? clip->status : uint8_t{0}});
    }
    case 0x1C:
    case 0x21:
        return frame(0x80, cmd2, sense(cmd2, -1));
    case 0x10: // erase all (no data) or one ID
        if (data.empty() || !id.empty())
            model_.erase(id);
        return kAck;
    case 0x20:
        if (data.size() == kIdBytes)
            senses_[key(0x21, -1)] = data;
        return kAck;
    default:
        return kAck;
    }
}

bool set_sense_from_text(SonyAnswers& answers, const std::string& text) {
    const size_t equals = text.find('=');
    Bytes value, key;
    if (equals == std::string::npos || !parse_hex(text.substr(equals + 1), value) ||
        value.size() > kMaxData)
        return false;
    const std::string name = text.substr(0, equals);
    if (name.size() == 2 && parse_hex(name, key)) {
        answers.set_sense(key[0], value);
        return true;
    }
    if (name.size() == 5 && name[2] == '.' && parse_hex(name.substr(0, 2) + name.substr(3), key)) {
        answers.set_sense(key[0], key[1], value);
        return true;
    }
    return false;
}

} // namespace devsim
