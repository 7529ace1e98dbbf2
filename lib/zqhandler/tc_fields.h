// The four fields of a timecode, read from and written to strings: shared by every tc operation.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>

namespace zq_tc {

// Characters of "HH:MM:SS:FF"; the NUL is the 12th byte of a result buffer.
constexpr size_t kTcLength = 11;

// A timecode's fields, wide enough that no arithmetic on them overflows: read from text they lie
// between -528 and 2277, and the largest product (tcstr_multiply) stays below 10^13.
// Compared hours first, then minutes, seconds and frames.
struct Fields {
    int64_t hours = 0;
    int64_t minutes = 0;
    int64_t seconds = 0;
    int64_t frames = 0;
    auto operator<=>(const Fields&) const = default;
};

inline bool is_digit(char c) {
    return c >= '0' && c <= '9';
}
inline bool is_separator(char c) {
    return c == '.' || c == ':' || c == ';';
}

// True when `s` is not null and has a character (not its NUL) at `pos`; reads no further.
bool has_char_at(const char* s, size_t pos);

// Frames per second after halving a field rate (31 or more); 0 for a rate below 1, which every
// operation refuses.
int64_t frame_rate(int32_t rate);

// Drop-frame counting applies only at exactly 30 frames per second.
inline bool drop_counting(int64_t fps, int32_t drop) {
    return fps == 30 && drop != 0;
}

// True when drop-frame counting leaves out the frame the fields name: frames 0 and 1 of second 0
// of a minute that is not a multiple of 10.
bool names_dropped_frame(const Fields& f);

// Carries seconds of 60 or more into minutes, then minutes into hours.
void carry_seconds_and_minutes(Fields& f);

// The four fields of `s` by position (tens x 10 + units, character code minus '0'), never
// looking at separators. Positions at or past the NUL read as '0'; a null `s` reads as zeros.
Fields read_fields(const char* s);

// Writes "HH:MM:SS:FF" and the NUL, exactly 12 bytes, ";" at position 8 with `drop_mark`.
// Each field is cut to its last two digits (value modulo 100, between 0 and 99).
void write_fields(char* out, const Fields& f, bool drop_mark);

} // namespace zq_tc
