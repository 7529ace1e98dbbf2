// Timecode strings: shape checks, normal form of typed text, and arithmetic field by field.
#include "tc_fields.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <zqhandler/tc.h>

using zq_tc::Fields;

const char* const tcstr_tc0 = "00:00:00:00";

namespace {

constexpr size_t kMaxTypedDigits = 8;
constexpr size_t kMaxTypedSeparators = 3;
constexpr size_t kLaterGroupDigits = 3;

// A loosely typed timecode read from its end, so that the last number is the frames: up to two
// digits per field, one optional separator before each field but the frames. False when
// characters remain after the hours.
bool read_from_end(std::string_view text, Fields& out) {
    size_t end = text.size(); // everything before `end` is still to be read
    auto take_number = [&text, &end] {
        int64_t value = 0;
        for (int64_t place = 1; place <= 10 && end > 0 && zq_tc::is_digit(text[end - 1]);
             place *= 10) {
            value += place * (text[--end] - '0');
        }
        return value;
    };
    out = {};
    out.frames = take_number();
    for (int64_t* field : {&out.seconds, &out.minutes, &out.hours}) {
        if (end > 0 && zq_tc::is_separator(text[end - 1]))
            --end;
        *field = take_number();
    }
    return end == 0;
}

// One frame forward: frames carry into seconds at the rate, seconds and minutes at 60.
void step_forward(Fields& f, int64_t fps) {
    if (++f.frames < fps)
        return;
    f.frames = 0;
    if (++f.seconds < 60)
        return;
    f.seconds = 0;
    if (++f.minutes < 60)
        return;
    f.minutes = 0;
    ++f.hours;
}

// One frame back: frames borrow from seconds (becoming rate - 1), seconds and minutes borrow
// from the next field (becoming 59).
void step_back(Fields& f, int64_t fps) {
    if (--f.frames >= 0)
        return;
    f.frames = fps - 1;
    if (--f.seconds >= 0)
        return;
    f.seconds = 59;
    if (--f.minutes >= 0)
        return;
    f.minutes = 59;
    --f.hours;
}

// One frame back from anything but zero. Zero stays zero, or with `wrap` becomes the last frame
// before `restart_hour`.
void step_back_from(Fields& f, int64_t fps, bool wrap, int64_t restart_hour) {
    if (f == Fields{}) {
        if (!wrap)
            return;
        f.hours = restart_hour;
    }
    step_back(f, fps);
}

bool reaches_limit(const Fields& f, int32_t hour_limit) {
    return hour_limit > 0 && f.hours >= hour_limit;
}

// Frames carried into seconds at the rate, then seconds and minutes at 60, as often as needed.
void carry_all(Fields& f, int64_t fps) {
    f.seconds += f.frames / fps;
    f.frames %= fps;
    zq_tc::carry_seconds_and_minutes(f);
}

// `to` - `from` with one borrow per field: frames borrow the rate, seconds and minutes 60.
Fields difference(const Fields& to, const Fields& from, int64_t fps) {
    Fields d{to.hours - from.hours, to.minutes - from.minutes, to.seconds - from.seconds,
             to.frames - from.frames};
    if (d.frames < 0) {
        d.frames += fps;
        --d.seconds;
    }
    if (d.seconds < 0) {
        d.seconds += 60;
        --d.minutes;
    }
    if (d.minutes < 0) {
        d.minutes += 60;
        --d.hours;
    }
    return d;
}

// The end of tcstr_compute_eom and tcstr_multiply: hours at or above the limit wrap modulo it
// with `wrap`; without it, or for a limit below 1, the result is the zero timecode and -1.
int write_within_limit(char* result, Fields f, bool drop_mark, int32_t wrap, int32_t hour_limit) {
    if (hour_limit < 1 || (f.hours >= hour_limit && !wrap)) {
        zq_tc::write_fields(result, {}, drop_mark);
        return -1;
    }
    if (f.hours >= hour_limit)
        f.hours %= hour_limit;
    zq_tc::write_fields(result, f, drop_mark);
    return 0;
}

} // namespace

void tcstr_reset(char* tc, int32_t rate, int32_t drop) {
    if (tc != nullptr)
        zq_tc::write_fields(tc, {}, rate == 30 && drop != 0);
}

int tcstr_isvalid(const char* s) {
    if (s == nullptr)
        return 0;
    size_t digits = 0;
    size_t separators = 0;
    for (const char* p = s; *p != '\0';) {
        if (!zq_tc::is_digit(*p))
            return 0; // a group must begin with a digit
        // The first group takes every digit in a row; later ones at most three.
        const size_t group_limit = p == s ? SIZE_MAX : kLaterGroupDigits;
        for (size_t n = 0; n < group_limit && zq_tc::is_digit(*p); ++n, ++p) {
            if (++digits > kMaxTypedDigits)
                return 0;
        }
        if (zq_tc::is_separator(*p)) {
            if (++separators > kMaxTypedSeparators)
                return 0;
            ++p;
        }
    }
    return 1;
}

int tcstr_isnormal(const char* s) {
    if (s == nullptr)
        return 0;
    static constexpr char kShape[] = "dd.dd.dd.dd"; // d: a digit, '.': a separator
    for (size_t i = 0; i < zq_tc::kTcLength; ++i) {
        // A short string fails here at its NUL, which is neither, before anything past it is read.
        const bool fits = kShape[i] == 'd' ? zq_tc::is_digit(s[i]) : zq_tc::is_separator(s[i]);
        if (!fits)
            return 0;
    }
    return s[zq_tc::kTcLength] == '\0';
}

int tcstr_reformat(char* result, const char* s) {
    if (result == nullptr)
        return -1;
    result[0] = '\0';
    if (s == nullptr || *s == '\0')
        return 0;
    Fields f;
    if (!read_from_end(s, f))
        return -1;
    zq_tc::write_fields(result, f, false);
    return 0;
}

int tcstr_validate(char* result, const char* s, int32_t hour_limit, int32_t forward, int32_t rate,
                   int32_t drop) {
    const int64_t fps = zq_tc::frame_rate(rate);
    std::array<char, 12> typed;
    if (result == nullptr || fps == 0 || tcstr_reformat(typed.data(), s) != 0)
        return -1;
    if (typed[0] == '\0') {
        result[0] = '\0';
        return 0;
    }
    Fields f = zq_tc::read_fields(typed.data());
    f.frames = std::min(f.frames, fps - 1);
    f.seconds = std::min<int64_t>(f.seconds, 59);
    f.minutes = std::min<int64_t>(f.minutes, 59);
    if (hour_limit > 0)
        f.hours %= hour_limit;
    const bool drop_frame = zq_tc::drop_counting(fps, drop);
    if (drop_frame && zq_tc::names_dropped_frame(f)) {
        // Only frames 0 and 1 of second 0 are skipped, so the next counted frame is frame 2 of the
        // same second, and the previous one the last frame of the minute before (the minute is
        // not a multiple of 10, hence at least 1): no step reaches the hours.
        if (forward != 0) {
            f.frames = 2;
        } else {
            f = {f.hours, f.minutes - 1, 59, fps - 1};
        }
    }
    zq_tc::write_fields(result, f, drop_frame);
    return 0;
}

int tcstr_incremente(char* tc, int32_t rate, int32_t drop, int32_t wrap, int32_t hour_limit) {
    const int64_t fps = zq_tc::frame_rate(rate);
    if (tc == nullptr || fps == 0)
        return -1;
    const Fields old = zq_tc::read_fields(tc);
    Fields f = old;
    step_forward(f, fps);
    if (reaches_limit(f, hour_limit))
        f = wrap != 0 ? Fields{} : old;
    zq_tc::write_fields(tc, f, zq_tc::drop_counting(fps, drop));
    return 0;
}

int tcstr_decremente(char* tc, int32_t rate, int32_t drop, int32_t wrap, int32_t restart_hour) {
    const int64_t fps = zq_tc::frame_rate(rate);
    if (tc == nullptr || fps == 0)
        return -1;
    Fields f = zq_tc::read_fields(tc);
    if (f == Fields{} && wrap != 0 && restart_hour < 1)
        return -1;
    step_back_from(f, fps, wrap != 0, restart_hour);
    zq_tc::write_fields(tc, f, zq_tc::drop_counting(fps, drop));
    return 0;
}

int tcstr_compute_duration(char* result, const char* start, const char* end, int32_t rate,
                           int32_t wrap, int32_t hour_limit) {
    const int64_t fps = zq_tc::frame_rate(rate);
    if (result == nullptr || fps == 0)
        return -1;
    result[0] = '\0';
    const Fields from = zq_tc::read_fields(start);
    const Fields to = zq_tc::read_fields(end);
    if (to < from)
        return 0;
    if (to == from) { // one frame, whatever the rate
        zq_tc::write_fields(result, Fields{0, 0, 0, 1}, false);
        return 0;
    }
    const Fields between = difference(to, from, fps);
    Fields inclusive = between; // the end frame counts too
    step_forward(inclusive, fps);
    if (reaches_limit(inclusive, hour_limit))
        inclusive = wrap != 0 ? Fields{} : between;
    zq_tc::write_fields(result, inclusive, false);
    return 0;
}

int tcstr_compute_eom(char* result, const char* start, const char* duration, int32_t rate,
                      int32_t drop, int32_t wrap, int32_t hour_limit) {
    const int64_t fps = zq_tc::frame_rate(rate);
    if (result == nullptr || fps == 0)
        return -1;
    const Fields a = zq_tc::read_fields(start);
    const Fields b = zq_tc::read_fields(duration);
    Fields last{a.hours + b.hours, a.minutes + b.minutes, a.seconds + b.seconds,
                a.frames + b.frames};
    carry_all(last, fps);
    step_back_from(last, fps, wrap != 0, hour_limit); // the duration counts the start frame
    return write_within_limit(result, last, zq_tc::drop_counting(fps, drop), wrap, hour_limit);
}

int tcstr_multiply(char* result, const char* tc, uint32_t factor, int32_t rate, int32_t drop,
                   int32_t wrap, int32_t hour_limit) {
    const int64_t fps = zq_tc::frame_rate(rate);
    if (result == nullptr || fps == 0)
        return -1;
    const Fields f = zq_tc::read_fields(tc);
    const int64_t k = factor;
    Fields product{f.hours * k, f.minutes * k, f.seconds * k, f.frames * k};
    carry_all(product, fps);
    return write_within_limit(result, product, zq_tc::drop_counting(fps, drop), wrap, hour_limit);
}
