// A deck's receiver on a serial line: frames by their count, one answer for bytes that form none.
#include "serial_line.h"

#include "wire.h"

#include <cstdint>
#include <span>

namespace devsim {

namespace {

constexpr uint8_t kLouthStart = 0x02;
constexpr size_t kUnknown = SIZE_MAX; // a Louth frame whose count has not come yet

// The length of the frame that starts at `at`, whether or not all of it is there.
size_t frame_length(const Bytes& held, size_t at, bool louth) {
    if (!louth)
        return (held[at] & 0x0Fu) + size_t{3};
    if (held[at] != kLouthStart)
        return 1; // no Louth frame starts here
    return at + 1 < held.size() ? held[at + 1] + size_t{3} : kUnknown;
}

bool whole(const Bytes& held, size_t at, bool louth) {
    const size_t length = frame_length(held, at, louth);
    return length != kUnknown && held.size() - at >= length;
}

// Whether a whole, valid frame starts at `at`.
bool valid(const Bytes& held, size_t at, bool louth) {
    if (!whole(held, at, louth))
        return false;
    const auto frame = std::span(held).subspan(at, frame_length(held, at, louth));
    if (!louth)
        return byte_sum(frame.first(frame.size() - 1)) == frame.back();
    // 02, a count of at least CMD1 and CMD2, the bytes counted and a checksum summing them to 0
    return frame[0] == kLouthStart && frame[1] >= 2 && byte_sum(frame.subspan(2)) == 0;
}

} // namespace

LineStep next_line_step(const Bytes& held, bool louth, bool skipping, bool quiet) {
    if (held.empty())
        return {LineStep::wait};
    if (valid(held, 0, louth))
        return {LineStep::frame, frame_length(held, 0, louth)};
    const bool front_whole = whole(held, 0, louth);
    if (!front_whole && !skipping && !quiet)
        return {LineStep::wait}; // a frame on its way
    for (size_t at = 1; at < held.size(); ++at)
        if (valid(held, at, louth))
            return {LineStep::garbage, at};
    if (front_whole && !skipping)
        return {LineStep::bad, frame_length(held, 0, louth)};
    if (quiet)
        return {LineStep::garbage, held.size()}; // nothing valid will come of these
    // Skipping: what cannot start a valid frame any more goes; what still may stays.
    size_t dead = 0;
    while (dead < held.size() && whole(held, dead, louth))
        ++dead;
    return dead > 0 ? LineStep{LineStep::garbage, dead} : LineStep{LineStep::wait};
}

void SerialLine::add(const uint8_t* bytes, size_t count) {
    held_.insert(held_.end(), bytes, bytes + count);
}

LineStep SerialLine::next(bool louth, Bytes& taken) {
    const LineStep step = next_line_step(held_, louth, skipping_, quiet_);
    taken.assign(held_.begin(), held_.begin() + static_cast<long>(step.length));
    held_.erase(held_.begin(), held_.begin() + static_cast<long>(step.length));
    if (step.kind == LineStep::bad)
        skipping_ = true;
    else if (step.kind == LineStep::frame && held_.empty())
        skipping_ = false;
    if (step.kind == LineStep::wait && quiet_) // all of it dealt with
        skipping_ = quiet_ = false;
    return step;
}

void SerialLine::clear() {
    held_.clear();
    skipping_ = quiet_ = false;
}

} // namespace devsim
