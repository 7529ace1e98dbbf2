// Reading and writing the four fields of a timecode string, within the string and its buffer.
#include "tc_fields.h"

#include <array>

namespace zq_tc {

bool has_char_at(const char* s, size_t pos) {
    if (s == nullptr)
        return false;
    for (size_t i = 0; i <= pos; ++i) {
        if (s[i] == '\0')
            return false;
    }
    return true;
}

int64_t frame_rate(int32_t rate) {
    if (rate < 1)
        return 0;
    return rate >= 31 ? rate / 2 : rate;
}

bool names_dropped_frame(const Fields& f) {
    return f.seconds == 0 && f.frames < 2 && f.minutes % 10 != 0;
}

void carry_seconds_and_minutes(Fields& f) {
    f.minutes += f.seconds / 60;
    f.seconds %= 60;
    f.hours += f.minutes / 60;
    f.minutes %= 60;
}

Fields read_fields(const char* s) {
    std::array<unsigned char, kTcLength> text;
    text.fill('0');
    for (size_t i = 0; s != nullptr && i < text.size() && s[i] != '\0'; ++i) {
        text[i] = static_cast<unsigned char>(s[i]);
    }
    auto number_at = [&text](size_t pos) {
        return int64_t{text[pos] - '0'} * 10 + (text[pos + 1] - '0');
    };
    return {number_at(0), number_at(3), number_at(6), number_at(9)};
}

namespace {

void write_two_digits(char* out, int64_t value) {
    const int64_t cut = (value % 100 + 100) % 100;
    out[0] = static_cast<char>('0' + cut / 10);
    out[1] = static_cast<char>('0' + cut % 10);
}

} // namespace

void write_fields(char* out, const Fields& f, bool drop_mark) {
    write_two_digits(out, f.hours);
    out[2] = ':';
    write_two_digits(out + 3, f.minutes);
    out[5] = ':';
    write_two_digits(out + 6, f.seconds);
    out[8] = drop_mark ? ';' : ':';
    write_two_digits(out + 9, f.frames);
    out[kTcLength] = '\0';
}

} // namespace zq_tc
