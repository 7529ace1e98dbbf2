// Timecode conversions: typed text, BCD, frame counts over whole days, and the 12-byte rule.
// Garbage text is the fuzz target's (tests/fuzz/fuzz_tc.cpp), with long and odd seeds.
#include "tc_buffers.h"

#include <array>
#include <climits>
#include <cstdio>
#include <functional>
#include <gtest/gtest.h>
#include <zqhandler/tc.h>

namespace {

using Bcd = std::array<uint8_t, 4>;

std::string hex(const Bcd& b) {
    char text[16];
    std::snprintf(text, sizeof text, "%02x %02x %02x %02x", b[0], b[1], b[2], b[3]);
    return text;
}

TEST(Tc, fix_reads_up_to_four_numbers_from_the_start_and_carries_seconds_and_minutes) {
    const struct {
        const char* text;
        int result;
        const char* expected;
    } cases[] = {
        {"1:2:3:4", 0, "01:02:03:04"},   {"0:90:00", 0, "00:01:30:00"},
        {"123", 0, "00:00:12:03"},       {"12::34", 0, "00:00:12:34"},
        {"12:34xyz", 0, "00:00:12:34"},  {"90", 0, "00:00:00:90"},
        {"1:2:3:4:5", 0, "01:02:03:04"}, {"0:59:60:00", 0, "01:00:00:00"},
        {":12", -1, "00:00:00:00"},      {"", -1, "00:00:00:00"},
    };
    for (const auto& c : cases) {
        TcBuf out;
        EXPECT_EQ(tc_fix_tcstr(out.get(), HeapText(c.text).get()), c.result) << c.text;
        EXPECT_EQ(out.str(), c.expected) << c.text;
    }
}

TEST(Tc, bcd_digits_ignore_device_flags_and_bit_6_of_the_frames_marks_drop_frame) {
    const struct {
        Bcd bcd;
        const char* expected;
    } cases[] = {
        {{0x45, 0x30, 0x59, 0x23}, "23:59:30;05"},
        {{0xC5, 0xB0, 0x59, 0xE3}, "23:59:30;05"}, // flag bits above the tens
        {{0x00, 0x00, 0xA0, 0x00}, "00::0:00:00"}, // minutes' tens unmasked, 10 gives ':'
    };
    for (const auto& c : cases) {
        TcBuf out;
        EXPECT_EQ(tc_bcd2tcstr(out.get(), c.bcd.data()), 0);
        EXPECT_EQ(out.str(), c.expected) << hex(c.bcd);
    }
    const struct {
        const char* text;
        Bcd expected;
    } strings[] = {
        {"10:20:30:15", {0x15, 0x30, 0x20, 0x10}}, {"00:01:00;02", {0x42, 0x00, 0x01, 0x00}},
        {"0:90:00", {0x00, 0x30, 0x01, 0x00}},     {"", {0, 0, 0, 0}},
        {"1:2;3", {0x03, 0x02, 0x01, 0x00}}, // ";" elsewhere than position 8 is no drop mark
    };
    for (const auto& c : strings) {
        Bcd bcd{0xEE, 0xEE, 0xEE, 0xEE};
        EXPECT_EQ(tc_tcstr2bcd(bcd.data(), HeapText(c.text).get()), 0);
        EXPECT_EQ(hex(bcd), hex(c.expected)) << c.text;
    }
}

TEST(Tc, records_count_frames_and_skipped_drop_frame_labels_move_to_frame_2) {
    const struct {
        t_tc_struct record;
        int32_t rate, drop, count, frames_after;
    } cases[] = {
        {{0, 1, 0, 0}, 30, 1, 1800, 2},
        {{0, 1, 0, 1}, 30, 1, 1800, 2},
        {{0, 1, 0, 0}, 60, 1, 3600, 2},
        {{0, 1, 0, 0}, 30, 0, 1800, 0},
        {{19885, 0, 0, 0}, 30, 1, 2145432420, 0},
        {{19885, 0, 0, 0}, 30, 0, -1, 0}, // over 2^31 - 1 frames without drop-frame
        {{INT32_MAX, INT32_MAX, 0, 0}, 60, 1, -1, 2},
        {{0, 0, 0, -1}, 25, 0, -1, -1},
        {{1, 0, 0, 0}, 0, 0, -1, 0},
        {{1, 0, 0, 0}, INT32_MAX, 0, -1, 0},
    };
    for (const auto& c : cases) {
        t_tc_struct record = c.record;
        EXPECT_EQ(tc_struct2frames(&record, c.rate, c.drop), c.count)
            << c.record.hours << ":" << c.record.minutes << ":0:" << c.record.frames;
        EXPECT_EQ(record.frames, c.frames_after);
    }
    const struct {
        const char* text;
        int32_t rate, drop, count;
    } strings[] = {
        {"00:01:00;00", 30, 1, 1800},
        {"24:00:00:00", 25, 0, 2160000},
        {"01:00", 25, 0, 90000}, // a short string reads as zeros
        {"", 25, 0, 0},
        {"-1:00:00:00", 25, 0, -1}, // '-' reads as a negative digit
    };
    for (const auto& c : strings) {
        EXPECT_EQ(tc_tcstr2frames(HeapText(c.text).get(), c.rate, c.drop), c.count) << c.text;
    }
}

TEST(Tc, counts_become_labels_with_hours_kept_or_clipped_to_the_day) {
    const struct {
        uint32_t frames;
        int32_t rate, drop;
        const char *label, *clipped;
    } cases[] = {
        {1800, 25, 1, "00:01:12:00", "00:01:12:00"},
        {2160000, 25, 0, "24:00:00:00", "00:00:00:00"},
        {4320001, 50, 0, "24:00:00:00", "00:00:00:00"},
    };
    for (const auto& c : cases) {
        TcBuf label, clipped;
        EXPECT_EQ(tc_frames2tcstr(c.frames, c.rate, c.drop, label.get()), 0);
        EXPECT_EQ(tc_frames2tcstr_clip24(c.frames, c.rate, c.drop, clipped.get()), 0);
        EXPECT_EQ(label.str(), c.label) << c.frames << " at " << c.rate;
        EXPECT_EQ(clipped.str(), c.clipped) << c.frames << " at " << c.rate;
    }
}

TEST(Tc, sums_and_differences_go_through_frame_counts_and_never_below_zero) {
    const struct {
        int (*op)(char*, const char*, const char*, int32_t, int32_t);
        const char *a, *b;
        int32_t rate, drop;
        const char* expected;
        int result;
    } cases[] = {
        {tc_tcstradd, "00:00:59;29", "00:00:00;01", 30, 1, "00:01:00;02", 0},
        {tc_tcstradd, "00:00:00:20", "00:00:00:20", 50, 0, "00:00:01:15", 0},
        {tc_tcstrsub, "00:01:00;02", "00:00:00;01", 30, 1, "00:00:59;29", 0},
        {tc_tcstrsub, "00:00:01:00", "00:00:02:00", 25, 0, "00:00:00:00", 0},
        {tc_tcstradd, "-1:00:00:00", "00:00:01:00", 25, 0, "00:00:00:00", -1},
    };
    for (const auto& c : cases) {
        TcBuf out;
        EXPECT_EQ(c.op(out.get(), c.a, c.b, c.rate, c.drop), c.result) << c.a << " " << c.b;
        EXPECT_EQ(out.str(), c.expected) << c.a << " " << c.b << " at " << c.rate;
    }
}

TEST(Tc, frames_field_is_valid_below_the_rate_as_given_and_zero_has_minus_one) {
    const struct {
        const char* text;
        int32_t rate;
        int result;
    } cases[] = {
        {"00:00:00:24", 25, 0}, {"00:00:00:25", 25, -1}, {"00:00:00:49", 50, 0},
        {"99:99:99:00", 25, 0}, {"00:00:00:2", 25, -1},  {"00:00:00:-1", 25, -1},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(tc_validstr(HeapText(c.text).get(), c.rate), c.result) << c.text;
    }
    EXPECT_EQ(tc_validstr(nullptr, 25), -1);
    TcBuf out;
    EXPECT_EQ(tc_set_0(out.get()), -1);
    EXPECT_EQ(out.str(), "00:00:00:00");
}

TEST(Tc, null_buffers_and_rates_below_one_are_refused_before_writing) {
    TcBuf out, tc("10:00:00:00");
    const std::function<int()> refused[] = {
        [&] { return tc_frames2tcstr(1, 0, 0, out.get()); },
        [&] { return tc_tcstrsub(out.get(), tcstr_tc0, tcstr_tc0, -30, 1); },
        [&] { return tcstr_validate(out.get(), "1", 24, 1, 0, 0); },
        [&] { return tcstr_compute_duration(out.get(), tcstr_tc0, tcstr_tc0, 0, 0, 24); },
        [&] { return tcstr_compute_eom(out.get(), tcstr_tc0, tcstr_tc0, 0, 0, 0, 24); },
        [&] { return tcstr_multiply(out.get(), tcstr_tc0, 2, INT32_MIN, 0, 0, 24); },
        [&] { return tcstr_incremente(tc.get(), 0, 0, 0, 0); },
        [&] { return tcstr_decremente(tc.get(), -25, 0, 0, 24); },
        [] { return tcstr_reformat(nullptr, "1"); },
        [] { return tc_fix_tcstr(nullptr, "1"); },
        [] { return tc_tcstr2bcd(nullptr, "1"); },
        [] { return tc_bcd2tcstr(nullptr, Bcd{}.data()); },
        [] { return tcstr_incremente(nullptr, 25, 0, 0, 0); },
        [] { return tc_tcstradd(nullptr, "1", "1", 25, 0); },
    };
    for (size_t i = 0; i < std::size(refused); ++i) {
        EXPECT_EQ(refused[i](), -1) << "call " << i;
    }
    EXPECT_EQ(out.str(), "<never written>");
    EXPECT_EQ(tc.str(), "10:00:00:00");
}

// Hours of 100 or more from every source, written into exactly 12 bytes as their last two digits.
TEST(Tc, hours_of_100_or_more_are_cut_to_two_digits_within_12_bytes) {
    const struct {
        std::function<int(char*)> call;
        const char* expected;
    } cases[] = {
        {[](char* r) { return tc_frames2tcstr(123 * 90000, 25, 0, r); }, "23:00:00:00"},
        {[](char* r) { return tc_frames2tcstr(UINT32_MAX, 25, 0, r); }, "21:51:31:20"},
        {[](char* r) { return tc_frames2tcstr(UINT32_MAX, 30, 1, r); }, "08:01:25;11"},
        {[](char* r) { return tc_frames2tcstr_clip24(UINT32_MAX, 25, 0, r); }, "09:51:31:20"},
        {[](char* r) { return tc_tcstradd(r, "99:00:00:00", "02:00:00:00", 25, 0); },
         "01:00:00:00"},
        {[](char* r) { return tcstr_multiply(r, "50:00:00:00", 3, 25, 0, 0, 1000); },
         "50:00:00:00"},
        {[](char* r) { return tcstr_compute_eom(r, "60:00:00:00", "60:00:00:01", 25, 0, 0, 1000); },
         "20:00:00:00"},
        {[](char* r) { return tcstr_incremente(std::strcpy(r, "99:59:59:24"), 25, 0, 0, 0); },
         "00:00:00:00"},
        {[](char* r) { return tcstr_compute_duration(r, tcstr_tc0, "99:59:59:24", 25, 0, 0); },
         "00:00:00:00"},
        {[](char* r) { return tc_fix_tcstr(r, "99:99:99:99"); }, "00:40:39:99"},
    };
    for (const auto& c : cases) {
        TcBuf out;
        EXPECT_EQ(c.call(out.get()), 0) << c.expected;
        EXPECT_EQ(out.str(), c.expected);
    }
    Bcd bcd{};
    tc_tcstr2bcd(bcd.data(), "99:99:99:99");
    EXPECT_EQ(hex(bcd), "99 39 40 00");
}

// ---- Every frame of a day, against labels counted one frame at a time ----

// Labels of consecutive frames as a timecode generator counts them: frame by frame, carrying at
// the rate and at 60, and with drop-frame leaving out frames 0 and 1 at the start of each minute
// that is not a multiple of 10. It shares no arithmetic with the library's conversions.
class LabelCounter {
  public:
    LabelCounter(int fps, bool drop) : fps_(fps), drop_(drop) {}

    void advance() {
        auto& [hours, minutes, seconds, frames] = fields_;
        if (++frames == fps_) {
            frames = 0;
            if (++seconds == 60) {
                seconds = 0;
                if (++minutes == 60) {
                    minutes = 0;
                    ++hours;
                }
            }
        }
        if (drop_ && seconds == 0 && frames < 2 && minutes % 10 != 0)
            frames = 2;
    }

    const char* label() { // written digit by digit: snprintf would triple the time under qemu
        for (int i = 0; i < 4; ++i) {
            text_[3 * i] = static_cast<char>('0' + fields_[i] / 10);
            text_[3 * i + 1] = static_cast<char>('0' + fields_[i] % 10);
            text_[3 * i + 2] = i == 2 && drop_ ? ';' : ':';
        }
        text_[11] = '\0';
        return text_;
    }

  private:
    int fps_;
    bool drop_;
    int fields_[4] = {}; // hours, minutes, seconds, frames
    char text_[12] = {};
};

// Converts every frame of a day (at a field rate both fields of each frame) to its label, the
// label back to the count and through BCD back to itself, against the counter; stops after a few
// mismatches.
void sweep_day(int32_t rate, int32_t drop) {
    const uint32_t per_frame = rate >= 31 ? 2 : 1;
    const int fps = rate / static_cast<int>(per_frame);
    const bool drop_frame = fps == 30 && drop != 0;
    const uint32_t frames_per_day = drop_frame ? 24 * (108000 - 108) : fps * 86400;
    LabelCounter counter(fps, drop_frame);
    int failures = 0;
    char label[12];
    Bcd bcd{};
    for (uint32_t frame = 0; frame < frames_per_day && failures < 5; ++frame, counter.advance()) {
        const char* expected = counter.label();
        for (uint32_t count = frame * per_frame; count < (frame + 1) * per_frame; ++count) {
            tc_frames2tcstr(count, rate, drop, label);
            if (std::strcmp(label, expected) != 0 && ++failures)
                ADD_FAILURE() << count << " at " << rate << " gave " << label << ", not "
                              << expected;
        }
        const int32_t back = tc_tcstr2frames(expected, rate, drop);
        if (back != static_cast<int32_t>(frame * per_frame) && ++failures)
            ADD_FAILURE() << expected << " at " << rate << " counted " << back;
        tc_tcstr2bcd(bcd.data(), expected);
        tc_bcd2tcstr(label, bcd.data());
        if (std::strcmp(label, expected) != 0 && ++failures)
            ADD_FAILURE() << expected << " came back from BCD " << hex(bcd) << " as " << label;
    }
    // One frame past the day, the counter and the conversion both reach hour 24.
    EXPECT_STREQ(counter.label(), drop_frame ? "24:00:00;00" : "24:00:00:00") << rate;
    tc_frames2tcstr(frames_per_day * per_frame, rate, drop, label);
    EXPECT_STREQ(label, counter.label()) << rate;
}

struct Day {
    int32_t rate, drop;
};
class TcDay : public testing::TestWithParam<Day> {};

TEST_P(TcDay, every_frame_of_a_day_labels_counts_and_round_trips_through_bcd) {
    sweep_day(GetParam().rate, GetParam().drop);
}

INSTANTIATE_TEST_SUITE_P(Rates, TcDay,
                         testing::Values(Day{30, 1}, Day{60, 1}, Day{24, 0}, Day{25, 0}, Day{30, 0},
                                         Day{50, 0}, Day{60, 0}),
                         [](const auto& day) {
                             return std::to_string(day.param.rate) +
                                    (day.param.drop ? "_drop_frame" : "");
                         });

} // namespace
