// The server's model: transport, position and clip store.
#include "model.h"

#include <algorithm>
#include <cmath>
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

uint8_t bcd(int64_t value) {
    return static_cast<uint8_t>((value / 10) << 4 | value % 10);
}

int from_bcd(uint8_t byte) {
    return (byte >> 4) * 10 + (byte & 0x0F);
}

// Timecode frames in a day at this standard (drop-frame drops 2 labels a minute but every tenth).
int64_t codes_per_day(const StandardInfo& s) {
    return s.drop ? kDay * 30 - 2 * (24 * 60 - 24 * 6) : kDay * s.timecode_rate;
}

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
    return {static_cast<uint8_t>(bcd(n % fps) | (s.drop ? 0x40 : 0)), bcd(n / fps % 60),
            bcd(n / (fps * 60) % 60), bcd(n / (fps * 3600) % 24)};
}

int64_t bcd_to_frames(Standard standard, const uint8_t* b) {
    const StandardInfo& s = info(standard);
    const int64_t hours = from_bcd(b[3] & 0x3F), minutes = from_bcd(b[2] & 0x7F),
                  seconds = from_bcd(b[1] & 0x7F), frames = from_bcd(b[0] & 0x3F);
    const int64_t fps = s.timecode_rate, all_minutes = hours * 60 + minutes;
    int64_t n = ((hours * 60 + minutes) * 60 + seconds) * fps + frames;
    if (s.drop)
        n -= 2 * (all_minutes - all_minutes / 10);
    return n * s.frames_per_code;
}

std::string clip_id(const std::string& id) {
    std::string padded = id.substr(0, 8);
    padded.resize(8, ' ');
    return padded;
}

Model::Model() : since_(Clock::now()) {
    const uint8_t one_hour[4] = {0, 0, 0, 0x01};
    position_ = static_cast<double>(bcd_to_frames(standard_, one_hour));
}

double Model::rate_locked() const {
    return info(standard_).rate;
}

void Model::set_standard(Standard standard) {
    std::lock_guard lock(mutex_);
    advance(Clock::now());
    const Bytes timecode = frames_to_bcd(standard_, static_cast<int64_t>(position_));
    standard_ = standard;
    position_ = static_cast<double>(bcd_to_frames(standard_, timecode.data()));
}

Standard Model::standard() const {
    std::lock_guard lock(mutex_);
    return standard_;
}

void Model::set_local(bool local) {
    std::lock_guard lock(mutex_);
    local_ = local;
}

Model::Clip* Model::find(const std::string& id) const {
    auto found = std::find_if(clips_.begin(), clips_.end(),
                              [&](const Clip& c) { return c.id == clip_id(id); });
    return found == clips_.end() ? nullptr : &*found;
}

void Model::advance(Clock::time_point now) const {
    const double seconds = std::chrono::duration<double>(now - since_).count();
    since_ = now;
    const bool moving =
        state_ != State::stopped && state_ != State::still && state_ != State::ejected;
    if (!moving)
        return;
    position_ = std::max(0.0, position_ + speed_ * seconds * rate_locked());
    Clip* clip = loaded_.empty() ? nullptr : find(loaded_);
    if (!clip)
        return;
    if (state_ == State::recording) {
        clip->length = std::max<int64_t>(0, static_cast<int64_t>(position_) - clip->start);
    } else if (speed_ > 0 && position_ >= static_cast<double>(clip->start + clip->length)) {
        position_ = static_cast<double>(clip->start + clip->length);
        state_ = State::still; // the clip's end
    }
}

void Model::command(State state, double speed) {
    std::lock_guard lock(mutex_);
    advance(Clock::now());
    state_ = state;
    speed_ = state == State::fast_forward                           ? kFastSpeed
             : state == State::rewind                               ? -kFastSpeed
             : state == State::playing || state == State::recording ? 1
                                                                    : speed;
    if (state != State::stopped && state != State::still)
        cued_ = false;
    if (state == State::ejected)
        loaded_.clear();
}

void Model::step(int64_t frames) {
    std::lock_guard lock(mutex_);
    advance(Clock::now());
    position_ = std::max(0.0, std::floor(position_) + static_cast<double>(frames));
    state_ = State::still;
    cued_ = false;
}

void Model::cue(int64_t frames) {
    std::lock_guard lock(mutex_);
    advance(Clock::now());
    position_ = static_cast<double>(std::max<int64_t>(0, frames));
    state_ = State::still;
    cued_ = true;
    loaded_.clear();
}

Model::State Model::state() const {
    std::lock_guard lock(mutex_);
    advance(Clock::now());
    return state_;
}

int64_t Model::position() const {
    std::lock_guard lock(mutex_);
    advance(Clock::now());
    return static_cast<int64_t>(position_);
}

Bytes Model::status() const {
    std::lock_guard lock(mutex_);
    advance(Clock::now());
    Bytes bytes(16, 0);
    bytes[0] = local_ ? 0x01 : 0x00;
    switch (state_) {
    case State::stopped:
        bytes[1] = 0x20;
        break;
    case State::playing:
        bytes[1] = 0x01;
        break;
    case State::recording:
        bytes[1] = 0x02;
        break;
    case State::fast_forward:
        bytes[1] = 0x04;
        break;
    case State::rewind:
        bytes[1] = 0x08;
        break;
    case State::ejected:
        bytes[1] = 0x10;
        break;
    case State::still:
        bytes[1] = 0x80;
        bytes[2] = 0x02;
        break;
    case State::jog:
        bytes[2] = 0x10;
        break;
    case State::var:
        bytes[2] = 0x08;
        break;
    case State::shuttle:
        bytes[2] = 0x20;
        break;
    }
    if (speed_ < 0 && (state_ == State::jog || state_ == State::var || state_ == State::shuttle ||
                       state_ == State::rewind))
        bytes[2] |= 0x04;
    if (cued_)
        bytes[2] |= 0x01;
    return bytes;
}

uint8_t Model::louth_status() const {
    switch (state()) {
    case State::playing:
        return 0x01;
    case State::recording:
        return 0x02;
    case State::still:
        return 0x04;
    case State::jog:
        return 0x07;
    case State::var:
    case State::shuttle:
    case State::fast_forward:
    case State::rewind:
        return 0x08;
    default:
        return 0x00;
    }
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

std::vector<Model::Clip> Model::clips() const {
    std::lock_guard lock(mutex_);
    advance(Clock::now());
    return clips_;
}

std::optional<Model::Clip> Model::clip(const std::string& id) const {
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
    position_ = static_cast<double>(find(id)->start);
    state_ = State::still;
    cued_ = true;
}

bool Model::load(const std::string& id) {
    std::lock_guard lock(mutex_);
    advance(Clock::now());
    const Clip* clip = find(id);
    if (!clip)
        return false;
    loaded_ = clip->id;
    position_ = static_cast<double>(clip->start);
    state_ = State::still;
    cued_ = true;
    return true;
}

std::string Model::line_locked(const Clip& clip) const {
    auto text = [&](int64_t frames) {
        const Bytes b = frames_to_bcd(standard_, frames);
        char out[12];
        snprintf(out, sizeof out, "%02x:%02x:%02x%c%02x", b[3], b[2], b[1], b[0] & 0x40 ? ';' : ':',
                 b[0] & 0x3F);
        return std::string(out);
    };
    return clip.id + " " + text(clip.start) + " " + text(clip.length) + "\n";
}

Bytes Model::listing() const {
    std::lock_guard lock(mutex_);
    advance(Clock::now());
    std::string text;
    for (const Clip& clip : clips_)
        text += line_locked(clip);
    return Bytes(text.begin(), text.end());
}

std::optional<Bytes> Model::listing_line(size_t clip) const {
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
