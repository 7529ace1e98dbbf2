// The server's model: transport, position, edit points and clip store.
#include "model.h"

#include <algorithm>
#include <cstdio>

namespace devsim {

namespace {

struct StandardInfo {
    Standard standard;
    const char* name;
    double rate;         // frames per second
    int timecode_rate;   // timecode frames per second
    int frames_per_code; // frames per timecode frame
    bool drop;
};

constexpr StandardInfo kStandards[] = {
    {Standard::pal25, "25", 25.0, 25, 1, false},
    {Standard::ntsc2997df, "29.97df", 30000.0 / 1001, 30, 1, true},
    {Standard::ntsc30, "30", 30.0, 30, 1, false},
    {Standard::pal50, "50", 50.0, 25, 2, false},
    {Standard::ntsc5994df, "59.94df", 60000.0 / 1001, 30, 2, true},
};

const StandardInfo& info(Standard standard) {
    return kStandards[static_cast<int>(standard)];
}

constexpr double kFastSpeed = 10;
constexpr int64_t kDay = 24 * 3600;

// Timecode frames in a day at this standard (drop-frame drops 2 labels a minute but every tenth).
int64_t codes_per_day(const StandardInfo& s) {
    return s.drop ? kDay * 30 - 2 * (24 * 60 - 24 * 6) : kDay * s.timecode_rate;
}

using State = Model::State;
using Edit = Model::Edit;

bool moving(State state) {
    return state != State::stopped && state != State::still && state != State::ejected;
}

// The status bits that follow from the model, a row a bit: byte, mask, when it is set.
struct StatusBit {
    uint8_t byte, mask;
    bool (*on)(const Model::Snapshot&);
};

template <State S> bool in_state(const Model::Snapshot& s) {
    return s.state == S;
}
template <Edit E> bool editing(const Model::Snapshot& s) {
    return s.edit == E;
}
template <size_t P> bool point_set(const Model::Snapshot& s) {
    return s.points[P].has_value();
}

constexpr StatusBit kStatusBits[] = {
    {0, 0x01, [](const Model::Snapshot& s) { return s.local; }},
    {1, 0x01, in_state<State::playing>},
    {1, 0x02, in_state<State::recording>},
    {1, 0x04, in_state<State::fast_forward>},
    {1, 0x08, in_state<State::rewind>},
    {1, 0x10, in_state<State::ejected>},
    {1, 0x20, in_state<State::stopped>},
    {1, 0x80, in_state<State::still>}, // standby
    {2, 0x01, [](const Model::Snapshot& s) { return s.cued; }},
    {2, 0x02, in_state<State::still>},
    {2, 0x04, [](const Model::Snapshot& s) { return s.speed < 0 && moving(s.state); }},
    {2, 0x08, in_state<State::var>},
    {2, 0x10, in_state<State::jog>},
    {2, 0x20, in_state<State::shuttle>},
    {3, 0x01, point_set<0>},
    {3, 0x02, point_set<1>},
    {3, 0x04, point_set<2>},
    {3, 0x08, point_set<3>},
    {4, 0x01, editing<Edit::preroll>},
    {4, 0x02, editing<Edit::preview>},
    {4, 0x04, editing<Edit::auto_edit>},
    {4, 0x08, editing<Edit::review>},
};

} // namespace

std::optional<Standard> standard_from_text(const std::string& text) {
    for (const StandardInfo& s : kStandards)
        if (text == s.name)
            return s.standard;
    return std::nullopt;
}

const char* standard_name(Standard standard) {
    return info(standard).name;
}

Bytes frames_to_bcd(Standard standard, int64_t frames) {
    const StandardInfo& s = info(standard);
    const int64_t per_day = codes_per_day(s);
    int64_t n = ((frames / s.frames_per_code) % per_day + per_day) % per_day;
    if (s.drop) { // the labels 00 and 01 of every minute but each tenth are skipped
        const int64_t ten = n / 17982, rest = n % 17982;
        n += 18 * ten + (rest >= 2 ? 2 * ((rest - 2) / 1798) : 0);
    }
    const int64_t fps = s.timecode_rate;
    return {static_cast<uint8_t>(to_bcd(n % fps) | (s.drop ? 0x40 : 0)), to_bcd(n / fps % 60),
            to_bcd(n / (fps * 60) % 60), to_bcd(n / (fps * 3600) % 24)};
}

int64_t bcd_to_frames(Standard standard, const uint8_t* b) {
    const StandardInfo& s = info(standard);
    const int64_t hours = from_bcd(b[3], 0x3F), minutes = from_bcd(b[2], 0x7F),
                  seconds = from_bcd(b[1], 0x7F), frames = from_bcd(b[0], 0x3F);
    const int64_t fps = s.timecode_rate, all_minutes = hours * 60 + minutes;
    int64_t n = (all_minutes * 60 + seconds) * fps + frames;
    if (s.drop)
        n -= 2 * (all_minutes - all_minutes / 10);
    return n * s.frames_per_code;
}

std::string bcd_text(const uint8_t* b) {
    char out[12];
    snprintf(out, sizeof out, "%02x:%02x:%02x%c%02x", b[3] & 0x3F, b[2] & 0x7F, b[1] & 0x7F,
             b[0] & 0x40 ? ';' : ':', b[0] & 0x3F);
    return out;
}

std::string clip_id(const std::string& id) {
    std::string padded = id.substr(0, 8);
    padded.resize(8, ' ');
    return padded;
}

Bytes status_bytes(const Model::Snapshot& s) {
    Bytes bytes(s.latched.begin(), s.latched.end());
    for (const StatusBit& bit : kStatusBits)
        if (bit.on(s))
            bytes[bit.byte] |= bit.mask;
    return bytes;
}

namespace {
const uint8_t kOneHour[4] = {0, 0, 0, 0x01};
}

Model::Model() : playhead_(static_cast<double>(bcd_to_frames(standard_, kOneHour)), Clock::now()) {}

void Model::set_standard(Standard standard) {
    std::lock_guard lock(mutex_);
    advance(Clock::now());
    const Bytes timecode = frames_to_bcd(standard_, playhead_.frame());
    standard_ = standard;
    playhead_.go_to(static_cast<double>(bcd_to_frames(standard_, timecode.data())));
}

Standard Model::standard() const {
    std::lock_guard lock(mutex_);
    return standard_;
}

void Model::set_local(bool local) {
    std::lock_guard lock(mutex_);
    local_ = local;
}

void Model::set_local_enabled(bool enabled) {
    std::lock_guard lock(mutex_);
    local_enabled_ = enabled;
}

Model::Clip* Model::find(const std::string& id) {
    auto found = std::find_if(clips_.begin(), clips_.end(),
                              [&](const Clip& c) { return c.id == clip_id(id); });
    return found == clips_.end() ? nullptr : &*found;
}

void Model::advance(Clock::time_point now) {
    // A transport stopped at an end keeps its speed, but stands.
    playhead_.advance(now, moving(state_) ? info(standard_).rate : 0);
    if (!moving(state_))
        return;
    const bool forward = playhead_.speed() > 0;
    if (edit_end_ && forward && playhead_.position() >= static_cast<double>(*edit_end_)) {
        playhead_.go_to(static_cast<double>(*edit_end_));
        state_ = State::still; // the edit's end point
        edit_ = Edit::none;
        edit_end_.reset();
        return;
    }
    Clip* clip = loaded_.empty() ? nullptr : find(loaded_);
    if (!clip)
        return;
    if (state_ == State::recording) {
        clip->length = std::max<int64_t>(0, playhead_.frame() - clip->start);
    } else if (forward && playhead_.position() >= static_cast<double>(clip->start + clip->length)) {
        playhead_.go_to(static_cast<double>(clip->start + clip->length));
        state_ = State::still; // the clip's end
    }
}

void Model::move_locked(State state, double speed) {
    state_ = state;
    playhead_.set_speed(state == State::fast_forward                           ? kFastSpeed
                        : state == State::rewind                               ? -kFastSpeed
                        : state == State::playing || state == State::recording ? 1
                        : moving(state)                                        ? speed
                                                                               : 0);
    if (state != State::stopped && state != State::still)
        cued_ = false;
    if (state == State::ejected)
        loaded_.clear();
    edit_ = Edit::none;
    edit_end_.reset();
}

void Model::command(State state, double speed) {
    std::lock_guard lock(mutex_);
    advance(Clock::now());
    move_locked(state, speed);
}

void Model::step(int64_t frames) {
    std::lock_guard lock(mutex_);
    advance(Clock::now());
    playhead_.go_to(static_cast<double>(playhead_.frame() + frames));
    move_locked(State::still, 0);
    cued_ = false;
}

void Model::cue(int64_t frames) {
    std::lock_guard lock(mutex_);
    advance(Clock::now());
    playhead_.go_to(static_cast<double>(frames));
    move_locked(State::still, 0);
    cued_ = true;
    loaded_.clear();
}

void Model::edit(Edit edit, int64_t from, std::optional<int64_t> until) {
    std::lock_guard lock(mutex_);
    advance(Clock::now());
    playhead_.go_to(static_cast<double>(from));
    move_locked(edit == Edit::preroll ? State::still : State::playing, 1);
    cued_ = edit == Edit::preroll;
    edit_ = edit;
    if (edit != Edit::preroll && until && *until > from)
        edit_end_ = until;
}

Model::State Model::state() {
    std::lock_guard lock(mutex_);
    advance(Clock::now());
    return state_;
}

int64_t Model::position() {
    std::lock_guard lock(mutex_);
    advance(Clock::now());
    return playhead_.frame();
}

void Model::entry(Point point) {
    std::lock_guard lock(mutex_);
    advance(Clock::now());
    points_[static_cast<size_t>(point)] = playhead_.frame();
}

void Model::preset(Point point, int64_t frames) {
    std::lock_guard lock(mutex_);
    points_[static_cast<size_t>(point)] = frames;
}

void Model::shift(Point point, int64_t frames) {
    std::lock_guard lock(mutex_);
    auto& p = points_[static_cast<size_t>(point)];
    if (p)
        p = std::max<int64_t>(0, *p + frames);
}

void Model::reset(Point point) {
    std::lock_guard lock(mutex_);
    const auto i = static_cast<size_t>(point);
    if (points_[i])
        cleared_[i] = points_[i];
    points_[i].reset();
}

void Model::recall(Point point) {
    std::lock_guard lock(mutex_);
    const auto i = static_cast<size_t>(point);
    if (cleared_[i])
        points_[i] = cleared_[i];
}

std::optional<int64_t> Model::point(Point point) const {
    std::lock_guard lock(mutex_);
    return points_[static_cast<size_t>(point)];
}

void Model::latch(size_t byte, uint8_t mask, bool on) {
    std::lock_guard lock(mutex_);
    latched_.at(byte) = static_cast<uint8_t>(on ? latched_[byte] | mask : latched_[byte] & ~mask);
}

Model::Snapshot Model::snapshot() {
    std::lock_guard lock(mutex_);
    advance(Clock::now());
    return {standard_, state_, playhead_.speed(), playhead_.frame(),
            cued_,     local_, local_enabled_,    edit_,
            loaded_,   clips_, points_,           latched_};
}

Bytes Model::status() {
    return status_bytes(snapshot());
}

void Model::add_clip(const std::string& id, int64_t start, int64_t length, uint8_t status) {
    std::lock_guard lock(mutex_);
    if (Clip* clip = find(id))
        *clip = {clip_id(id), start, length, status};
    else
        clips_.push_back({clip_id(id), start, length, status});
}

int64_t Model::end_locked() const {
    int64_t end = 0;
    for (const Clip& c : clips_)
        end = std::max(end, c.start + c.length);
    return end;
}

void Model::append_clip(const std::string& id, int64_t length, uint8_t status) {
    std::lock_guard lock(mutex_);
    clips_.push_back({clip_id(id), end_locked(), length, status});
}

bool Model::erase(const std::string& id) {
    std::lock_guard lock(mutex_);
    advance(Clock::now());
    if (id.empty() || loaded_ == clip_id(id))
        loaded_.clear();
    return std::erase_if(clips_, [&](const Clip& c) { return id.empty() || c.id == clip_id(id); }) >
           0;
}

std::vector<Model::Clip> Model::clips() {
    std::lock_guard lock(mutex_);
    advance(Clock::now());
    return clips_;
}

std::optional<Model::Clip> Model::clip(const std::string& id) {
    std::lock_guard lock(mutex_);
    advance(Clock::now());
    const Clip* clip = find(id);
    return clip ? std::optional<Clip>(*clip) : std::nullopt;
}

void Model::record_cue(const std::string& id) {
    std::lock_guard lock(mutex_);
    advance(Clock::now());
    if (!find(id))
        clips_.push_back({clip_id(id), end_locked(), 0, 0});
    loaded_ = clip_id(id);
    playhead_.go_to(static_cast<double>(find(id)->start));
    move_locked(State::still, 0);
    cued_ = true;
}

bool Model::load(const std::string& id) {
    std::lock_guard lock(mutex_);
    advance(Clock::now());
    const Clip* clip = find(id);
    if (!clip)
        return false;
    loaded_ = clip->id;
    playhead_.go_to(static_cast<double>(clip->start));
    move_locked(State::still, 0);
    cued_ = true;
    return true;
}

std::string Model::line_locked(const Clip& clip) const {
    auto text = [&](int64_t frames) { return bcd_text(frames_to_bcd(standard_, frames).data()); };
    return clip.id + " " + text(clip.start) + " " + text(clip.length) + "\n";
}

Bytes Model::listing() {
    std::lock_guard lock(mutex_);
    advance(Clock::now());
    std::string text;
    for (const Clip& clip : clips_)
        text += line_locked(clip);
    return Bytes(text.begin(), text.end());
}

std::optional<Bytes> Model::listing_line(size_t clip) {
    std::lock_guard lock(mutex_);
    advance(Clock::now());
    if (clip >= clips_.size())
        return std::nullopt;
    const std::string line = line_locked(clips_[clip]);
    return Bytes(line.begin(), line.end());
}

std::string Model::loaded() const {
    std::lock_guard lock(mutex_);
    return loaded_;
}

} // namespace devsim
