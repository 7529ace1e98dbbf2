// The server's answers to Sony-family frames: a table of what each command does to the model, the
// current time in the form its sources ask for, sense values, the Odetics ID list.
#include "sony_answers.h"

#include "names.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <toolkit.h>
#include <tuple>

namespace devsim {

namespace {

using Request = SonyAnswers::Request;
using State = Model::State;
using Point = Model::Point;
using Edit = Model::Edit;

constexpr size_t kIdBytes = 8;
constexpr size_t kMaxData = 15;
constexpr uint8_t kUnknownCommand = 0x01, kChecksumError = 0x04;
const Bytes kAck = {0x10, 0x01};

Bytes nak(uint8_t bits) {
    return {0x11, 0x12, bits};
}

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

bool moving(State s) {
    return s != State::stopped && s != State::still && s != State::ejected;
}

// The transport commands of group 2 that set a state: CMD2, the state, and the direction of the
// speed byte they carry (0: none).
struct Motion {
    uint8_t cmd2;
    State state;
    int direction;
};
constexpr Motion kMotions[] = {
    {0x00, State::stopped, 0}, {0x01, State::playing, 0},      {0x02, State::recording, 0},
    {0x04, State::playing, 0}, // standby off: this system's server continues
    {0x05, State::still, 0},   // standby on: still
    {0x0F, State::ejected, 0}, {0x10, State::fast_forward, 0}, {0x20, State::rewind, 0},
    {0x34, State::playing, 0}, // sync play
    {0x11, State::jog, 1},     {0x21, State::jog, -1},         {0x12, State::var, 1},
    {0x22, State::var, -1},    {0x13, State::shuttle, 1},      {0x23, State::shuttle, -1},
    {0x38, State::var, 1},     {0x39, State::var, -1}, // program speed play +/-
};

// The edit commands of group 2: the edit, the point it starts from (less the preroll time) and
// the point it ends at.
struct EditCommand {
    uint8_t cmd2;
    Edit edit;
    Point from;
    bool to_out;
};
constexpr EditCommand kEdits[] = {
    {0x30, Edit::preroll, Point::in, false}, {0x40, Edit::preview, Point::in, true},
    {0x41, Edit::review, Point::in, true},   {0x42, Edit::auto_edit, Point::in, true},
    {0x43, Edit::preview, Point::out, true}, // outpoint preview
};

// Status bits that commands of group 2 and 4 set and clear: the command, the byte, the bits.
struct Latch {
    uint8_t cmd1, cmd2;
    uint8_t byte, mask;
    bool on;
};
constexpr Latch kLatches[] = {
    {0x20, 0x60, 4, 0xC0, false}, // full EE off: select EE too
    {0x20, 0x61, 4, 0x40, true},  {0x20, 0x63, 4, 0x80, true},  {0x20, 0x64, 4, 0x10, false},
    {0x20, 0x65, 4, 0x10, true},  {0x40, 0x40, 3, 0x80, false}, {0x40, 0x41, 3, 0x80, true},
};

// The presets a sense reads back: the preset's CMD1 and CMD2, the sense's CMD2.
constexpr std::tuple<uint8_t, uint8_t, uint8_t> kReadBack[] = {
    {0x44, 0x31, 0x31}, // preroll time
    {0x41, 0x36, 0x36}, // timer mode
    {0x41, 0x30, 0x30}, // edit preset, one byte...
    {0x42, 0x30, 0x30}, // ...or two
    {0x41, 0xB7, 0xB7}, // loop mode
    {0x44, 0xB4, 0xB4}, // field 0
    {0x44, 0xB5, 0xB5}, // last field
};

int64_t frames_of(const Model& model, const Bytes& bcd) {
    return bcd.size() == 4 ? bcd_to_frames(model.standard(), bcd.data()) : 0;
}

// The edit points' commands of group 4 and senses of group 6 are each a run of CMD2 from the IN
// point's, one a point (or a pair, + and -, for the shifts).
std::optional<Point> point_of(uint8_t cmd2, uint8_t first, int per_point = 1) {
    const int offset = cmd2 - first;
    if (offset < 0 || offset >= 4 * per_point)
        return std::nullopt;
    return static_cast<Point>(offset / per_point);
}

struct PointCommand {
    uint8_t cmd1, first;
    int per_point;
    void (*apply)(Model&, Point, const Request&);
};
constexpr PointCommand kPointCommands[] = {
    {0x40, 0x10, 1, [](Model& m, Point p, const Request&) { m.entry(p); }},
    {0x44, 0x14, 1, [](Model& m, Point p, const Request& r) { m.preset(p, frames_of(m, r.data)); }},
    {0x40, 0x18, 2, [](Model& m, Point p, const Request& r) { m.shift(p, r.cmd2 % 2 ? -1 : 1); }},
    {0x40, 0x20, 1, [](Model& m, Point p, const Request&) { m.reset(p); }},
    {0x40, 0x24, 1, [](Model& m, Point p, const Request&) { m.recall(p); }},
};

// The edits, the latched bits and the edit points' commands; false when `r` is none of them.
bool edit_point_command(Model& model, const Request& r, int64_t preroll) {
    for (const EditCommand& e : kEdits)
        if (r.cmd1 == 0x20 && r.cmd2 == e.cmd2) {
            const int64_t from = model.point(e.from).value_or(model.position());
            const auto out = e.to_out ? model.point(Point::out) : std::nullopt;
            model.edit(e.edit, from - preroll, out);
            return true;
        }
    for (const Latch& l : kLatches)
        if (r.cmd1 == l.cmd1 && r.cmd2 == l.cmd2) {
            model.latch(l.byte, l.mask, l.on);
            return true;
        }
    for (const PointCommand& c : kPointCommands)
        if (auto point = point_of(r.cmd2, c.first, c.per_point); point && r.cmd1 == c.cmd1) {
            c.apply(model, *point, r);
            return true;
        }
    return false;
}

} // namespace

SonyAnswers::SonyAnswers(Model& model) : model_(model) {
    // Plausible contents for every sense; tests set what they assert on.
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
        {0x30, {0x00, 0x00}},             // edit preset
        {0x38, {0x00}},
        {0x3E, {0x00}},
        {0x36, {0x00}}, // timer mode: timecode
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
    const size_t length = request.empty() ? 3 : (request[0] & 0x0Fu) + 3;
    if (request.size() < length ||
        byte_sum(std::span(request).first(length - 1)) != request[length - 1])
        return nak(kChecksumError);
    const uint8_t group = request[0] >> 4;
    const bool a_request = group == 0x0 || (group >= 0x2 && group <= 0x6) || group == 0xA;
    if (!a_request || !sony_name(std::span(request).first(length)))
        return nak(kUnknownCommand);
    if ((group == 0x2 || group == 0x4) && model_.snapshot().local)
        return nak(kUnknownCommand); // a deck in local takes no transport or preset command
    const Request r{request[0], request[1],
                    Bytes(request.begin() + 2, request.begin() + static_cast<long>(length - 1))};
    std::lock_guard lock(mutex_);
    return command(r);
}

Bytes SonyAnswers::command(const Request& r) {
    const uint8_t group = r.cmd1 >> 4;
    const Bytes& d = r.data;
    if (group == 0x0) {
        if (r.cmd2 == 0x0C || r.cmd2 == 0x1D) // local disable / enable
            model_.set_local_enabled(r.cmd2 == 0x1D);
        return r.cmd2 == 0x11 ? frame(0x10, 0x11, sense(0x11, -1)) : kAck;
    }
    if (group == 0xA)
        return odetics(r);
    if (group == 0x2) {
        for (const Motion& m : kMotions)
            if (r.cmd2 == m.cmd2) {
                const double speed = d.empty() ? 1 : speed_of(d[0]);
                model_.command(m.state, m.direction < 0 ? -speed : speed);
                return kAck;
            }
        if (r.cmd2 == 0x14 || r.cmd2 == 0x24) { // step: one frame, or the count
            const int64_t frames = d.empty() ? 1 : d[0];
            model_.step(r.cmd2 == 0x14 ? frames : -frames);
            return kAck;
        }
        if (r.cmd1 == 0x24 && r.cmd2 == 0x31) {
            model_.cue(frames_of(model_, d));
            return kAck;
        }
    }
    if (edit_point_command(model_, r, frames_of(model_, sense(0x31, -1))))
        return kAck;
    if (group == 0x4)
        return preset_command(r);
    return group == 0x6 ? sense_request(r) : kAck;
}

// A preset command: kept, for its sense to read back.
Bytes SonyAnswers::preset_command(const Request& r) {
    const Bytes& d = r.data;
    for (const auto& [cmd1, cmd2, sense_cmd2] : kReadBack)
        if (r.cmd1 == cmd1 && r.cmd2 == cmd2)
            senses_[key(sense_cmd2, -1)] = d;
    if (r.cmd1 == 0x44 && r.cmd2 == 0x05)
        user_bits_ = d;
    if (r.cmd2 == 0xC0 && !d.empty()) // a menu section written: read back as written
        senses_[key(0xC0, d[0])] = d;
    if (r.cmd2 == 0x14 && (r.cmd1 == 0x48 || r.cmd1 == 0x4C)) { // in preset with an ID
        model_.load(id_at(d, d.size() - kIdBytes));
        if (r.cmd1 == 0x4C)
            model_.preset(Point::in, frames_of(model_, Bytes(d.begin(), d.begin() + 4)));
    }
    return kAck;
}

Bytes SonyAnswers::sense_request(const Request& r) {
    const Bytes& d = r.data;
    const int first = d.empty() ? -1 : d[0];
    if (r.cmd2 == 0x0C && first >= 0)
        return has(0x0C, first) ? frame(0x70, 0x04, sense(0x0C, first))
                                : current_time(static_cast<uint8_t>(first));
    if (auto p = point_of(r.cmd2, 0x10); p && r.cmd1 == 0x60) {
        const auto at = model_.point(*p);
        return frame(0x70, r.cmd2, at ? frames_to_bcd(model_.standard(), *at) : Bytes(4, 0));
    }
    if ((r.cmd2 == 0x20 || r.cmd2 == 0x21 || r.cmd2 == 0x30) && first >= 0) {
        // A range of the status bytes (start, size), or the first bytes of the edit preset.
        const Bytes all = r.cmd2 == 0x21   ? Bytes(16, 0) // no extended status bit is set
                          : r.cmd2 == 0x30 ? sense(0x30, -1)
                          : has(0x20, -1)  ? sense(0x20, -1)
                                           : model_.status();
        const size_t start = r.cmd2 == 0x30 ? 0 : static_cast<size_t>(first >> 4);
        Bytes range(first & 0x0F, 0);
        for (size_t i = 0; i < range.size() && start + i < all.size(); ++i)
            range[i] = all[start + i];
        return frame(0x70, r.cmd2, range);
    }
    if (r.cmd2 == 0xC1 && first == 0x01 && !has(0xC1, 0x01)) {
        const std::string loaded = model_.loaded();
        Bytes value(1 + loaded.size(), 0x01); // sized first, as GCC 12 -Warray-bounds wants
        std::copy(loaded.begin(), loaded.end(), value.begin() + 1);
        return frame(0x70, 0xC1, value);
    }
    if (r.cmd2 == 0xC1 && first == 0x03) {
        const auto clip = model_.clip(id_at(d, 1));
        return frame(0x70, 0xC1,
                     clip ? frames_to_bcd(model_.standard(), clip->length) : Bytes(4, 0));
    }
    // Requests of one data byte, and the file queries, carry a selector; 62 9A carries a clip.
    const int selector = !d.empty() && (d.size() == 1 || r.cmd1 == 0x69) ? d[0] : -1;
    return frame(0x70, r.cmd2, sense(r.cmd2, selector));
}

// The current time as a deck reads it: LTC from the moving tape (corrected, 74 14, when it does
// not move), VITC from the picture (held, 74 16, at more than three times play speed); the two
// together are the auto choice, LTC while moving and VITC while not. This system's own request,
// 61 0C 04 (timer-1 in the public tables), reads the position as LTC, as its server answers it.
Bytes SonyAnswers::current_time(uint8_t sources) {
    const Model::Snapshot s = model_.snapshot();
    const Bytes time = frames_to_bcd(s.standard, s.position);
    if (sources == 0x04)
        return frame(0x70, 0x04, time);
    const bool runs = moving(s.state) && std::abs(s.speed) >= 0.1;
    const bool vitc_reads = !moving(s.state) || std::abs(s.speed) <= 3;
    enum { ltc, vitc, timer1, timer2, ltc_ub, vitc_ub } source;
    if ((sources & 0x03) == 0x03 || (sources & 0x3F) == 0)
        source = runs ? ltc : vitc;
    else if (sources & 0x01)
        source = ltc;
    else if (sources & 0x02)
        source = vitc;
    else if (sources & 0x04)
        source = timer1;
    else if (sources & 0x08)
        source = timer2;
    else if ((sources & 0x30) == 0x30)
        source = runs ? ltc_ub : vitc_ub;
    else
        source = sources & 0x10 ? ltc_ub : vitc_ub;
    Bytes time_and_bits = time;
    time_and_bits.insert(time_and_bits.end(), user_bits_.begin(), user_bits_.end());
    switch (source) {
    case ltc:
        return frame(0x70, runs ? 0x04 : 0x14, sources & 0x10 ? time_and_bits : time);
    case vitc:
        return frame(0x70, vitc_reads ? 0x06 : 0x16, sources & 0x20 ? time_and_bits : time);
    case timer1:
        return frame(0x70, 0x00, time);
    case timer2:
        return frame(0x70, 0x01, time);
    case ltc_ub:
        return frame(0x70, 0x05, user_bits_);
    case vitc_ub:
        break;
    }
    return frame(0x70, 0x07, user_bits_);
}

// IDs come last in the Odetics forms that carry a timecode too (AC 02: timecode, then ID).
Bytes SonyAnswers::odetics(const Request& r) {
    const Bytes& data = r.data;
    const std::string id = data.size() >= kIdBytes ? id_at(data, data.size() - kIdBytes) : "";
    switch (r.cmd2) {
    case 0x02: // record cue-up
        if ((r.cmd1 & 0x08) && !id.empty())
            model_.record_cue(id);
        return kAck;
    case 0x14:
        next_clip_ = 0;
        [[fallthrough]];
    case 0x15: {
        const auto clips = model_.clips();
        if (next_clip_ >= clips.size())
            return {0x80, r.cmd2};
        const std::string& next = clips[next_clip_++].id;
        return frame(0x80, r.cmd2, Bytes(next.begin(), next.end()));
    }
    case 0x18: {
        const auto clip = model_.clip(id);
        return frame(0x80, 0x18, {clip ? clip->status : uint8_t{0}});
    }
    case 0x1C:
    case 0x21:
        return frame(0x80, r.cmd2, sense(r.cmd2, -1));
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
