// Timecode conversions: typed text read from the start or the end, BCD bytes, frame counts.
#include "tc_fields.h"

#include <array>
#include <climits>
#include <cstring>
#include <zqhandler/tc.h>

using zq_tc::Fields;

namespace {

// Drop-frame counting leaves out 2 frame numbers a minute, except in minutes 0, 10, 20 ... 50.
constexpr int64_t kDropFrameTenMinutes = 30 * 600 - 9 * 2;
constexpr int64_t kDropFrameHour = 6 * kDropFrameTenMinutes;

constexpr uint8_t kBcdDropFrame = 0x40;

// The label of frame `n` (of field `n` at a field rate), hours modulo 24 with `clip24`.
int write_label(uint32_t n, int32_t rate, int32_t drop, char* result, bool clip24) {
    const int64_t fps = zq_tc::frame_rate(rate);
    if (result == nullptr || fps == 0)
        return -1;
    int64_t left = rate >= 31 ? n >> 1 : n; // an odd field belongs to the frame of the even one
    const bool drop_frame = zq_tc::drop_counting(fps, drop);
    const int64_t hour = drop_frame ? kDropFrameHour : fps * 3600;
    const int64_t ten_minutes = drop_frame ? kDropFrameTenMinutes : fps * 600;
    const int64_t minute = fps * 60;
    Fields f;
    f.hours = left / hour;
    left %= hour;
    f.minutes = 10 * (left / ten_minutes);
    left %= ten_minutes;
    // At most 9 turns: what is left is less than ten minutes.
    while (left >= minute) {
        left -= minute;
        if (drop_frame)
            left += 2; // this minute's labels start at frame 2
        ++f.minutes;
    }
    f.seconds = left / fps;
    f.frames = left % fps;
    if (clip24)
        f.hours %= 24;
    zq_tc::write_fields(result, f, drop_frame);
    return 0;
}

// tc_tcstradd and tc_tcstrsub: `combine` the two strings' counts and write the label.
int through_counts(char* result, const char* a, const char* b, int32_t rate, int32_t drop,
                   uint32_t (*combine)(uint32_t, uint32_t)) {
    if (result == nullptr || rate < 1)
        return -1;
    const int32_t count_a = tc_tcstr2frames(a, rate, drop);
    const int32_t count_b = tc_tcstr2frames(b, rate, drop);
    if (count_a < 0 || count_b < 0) {
        zq_tc::write_fields(result, {}, false);
        return -1;
    }
    // Both counts are below 2^31, so their sum fits 32 unsigned bits.
    return tc_frames2tcstr(combine(static_cast<uint32_t>(count_a), static_cast<uint32_t>(count_b)),
                           rate, drop, result);
}

// (tens digit x 16) + units digit of the two digits at `pos`.
uint8_t bcd_at(const std::array<char, 12>& tc, size_t pos) {
    return static_cast<uint8_t>((tc[pos] - '0') * 16 + (tc[pos + 1] - '0'));
}

// The two digit characters of one BCD byte, its tens masked to the field's bits.
void write_bcd_digits(char* out, uint8_t byte, uint8_t tens_mask) {
    out[0] = static_cast<char>('0' + ((byte >> 4) & tens_mask));
    out[1] = static_cast<char>('0' + (byte & 0x0F));
}

} // namespace

int tc_tcstrFixFormat(char* result, const char* s) {
    std::array<char, 12> normal;
    if (result == nullptr || tcstr_reformat(normal.data(), s) != 0)
        return -1;
    std::strcpy(result, normal.data()); // at most 11 characters and the NUL
    return 0;
}

int tc_fix_tcstr(char* result, const char* s) {
    if (result == nullptr)
        return -1;
    if (s == nullptr || !zq_tc::is_digit(s[0])) {
        zq_tc::write_fields(result, {}, false);
        return -1;
    }
    std::array<int64_t, 4> numbers{};
    size_t count = 0;
    const char* p = s;
    auto read_number = [&] { // one or two digits; *p is a digit
        int64_t value = *p++ - '0';
        if (zq_tc::is_digit(*p))
            value = value * 10 + (*p++ - '0');
        numbers[count++] = value;
    };
    read_number();
    for (int attempt = 0; attempt < 3; ++attempt) {
        if (*p != '\0' && !zq_tc::is_digit(*p))
            ++p; // any one character separates
        if (zq_tc::is_digit(*p))
            read_number();
    }
    // The last number read is the frames, the one before it the seconds, and so on.
    Fields f;
    int64_t* fields[] = {&f.hours, &f.minutes, &f.seconds, &f.frames};
    for (size_t i = 0; i < count; ++i)
        *fields[4 - count + i] = numbers[i];
    zq_tc::carry_seconds_and_minutes(f);
    zq_tc::write_fields(result, f, false);
    return 0;
}

int tc_bcd2tcstr(char* result, const uint8_t bcd[4]) {
    if (result == nullptr || bcd == nullptr)
        return -1;
    write_bcd_digits(result, bcd[3], 0x3);
    result[2] = ':';
    write_bcd_digits(result + 3, bcd[2], 0xF);
    result[5] = ':';
    write_bcd_digits(result + 6, bcd[1], 0x7);
    result[8] = (bcd[0] & kBcdDropFrame) != 0 ? ';' : ':';
    write_bcd_digits(result + 9, bcd[0], 0x3);
    result[zq_tc::kTcLength] = '\0';
    return 0;
}

int tc_tcstr2bcd(uint8_t bcd[4], const char* s) {
    if (bcd == nullptr)
        return -1;
    std::array<char, 12> fixed;
    tc_fix_tcstr(fixed.data(), s); // text it refuses leaves the zero timecode
    bcd[0] = bcd_at(fixed, 9);
    bcd[1] = bcd_at(fixed, 6);
    bcd[2] = bcd_at(fixed, 3);
    bcd[3] = bcd_at(fixed, 0);
    if (zq_tc::has_char_at(s, 8) && s[8] == ';')
        bcd[0] |= kBcdDropFrame;
    return 0;
}

int32_t tc_struct2frames(t_tc_struct* tc, int32_t rate, int32_t drop) {
    const int64_t fps = zq_tc::frame_rate(rate);
    if (tc == nullptr || fps == 0)
        return -1;
    Fields f{tc->hours, tc->minutes, tc->seconds, tc->frames};
    const bool drop_frame = zq_tc::drop_counting(fps, drop);
    if (drop_frame && zq_tc::names_dropped_frame(f)) {
        // The label is not counted: the record moves on to the next one, frame 2 of its second.
        f.frames = 2;
        tc->frames = 2;
    }
    // Fields of 32 bits keep the seconds below 2^44; only the products below can overflow.
    const int64_t seconds = f.seconds + 60 * f.minutes + 3600 * f.hours;
    const int64_t skipped = drop_frame ? 108 * f.hours + 2 * (f.minutes - f.minutes / 10) : 0;
    int64_t count = 0;
    if (__builtin_mul_overflow(fps, seconds, &count) ||
        __builtin_add_overflow(count, f.frames - skipped, &count) ||
        __builtin_mul_overflow(count, rate >= 31 ? 2 : 1, &count) || count < 0 ||
        count > INT32_MAX) {
        return -1;
    }
    return static_cast<int32_t>(count);
}

int32_t tc_tcstr2frames(const char* s, int32_t rate, int32_t drop) {
    const Fields f = zq_tc::read_fields(s); // between -528 and 2277: each fits 32 bits
    t_tc_struct record{static_cast<int32_t>(f.hours), static_cast<int32_t>(f.minutes),
                       static_cast<int32_t>(f.seconds), static_cast<int32_t>(f.frames)};
    return tc_struct2frames(&record, rate, drop);
}

int tc_frames2tcstr(uint32_t frames, int32_t rate, int32_t drop, char* result) {
    return write_label(frames, rate, drop, result, false);
}

int tc_frames2tcstr_clip24(uint32_t frames, int32_t rate, int32_t drop, char* result) {
    return write_label(frames, rate, drop, result, true);
}

int tc_tcstradd(char* result, const char* a, const char* b, int32_t rate, int32_t drop) {
    return through_counts(result, a, b, rate, drop, [](uint32_t x, uint32_t y) { return x + y; });
}

int tc_tcstrsub(char* result, const char* a, const char* b, int32_t rate, int32_t drop) {
    return through_counts(result, a, b, rate, drop,
                          [](uint32_t x, uint32_t y) { return y < x ? x - y : 0u; });
}

int tc_set_0(char* result) {
    if (result != nullptr)
        zq_tc::write_fields(result, {}, false);
    return -1;
}

int tc_validstr(const char* s, int32_t rate) {
    if (!zq_tc::has_char_at(s, 10) || !zq_tc::is_digit(s[9]) || !zq_tc::is_digit(s[10]))
        return -1;
    return (s[9] - '0') * 10 + (s[10] - '0') < rate ? 0 : -1;
}
