// Timecode conversions: typed text, BCD, frame counts over whole days, and the 12-byte rule.
#include "tc_buffers.h"

#include <array>
#include <climits>
#include <cstdio>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <zqhandler/tc.h>

namespace {

using Bcd = std::array<uint8_t, 4>;

std::string hex(const Bcd& b) {
    char text[16];
    std::snprintf(text, sizeof text, "%02x %02x %02x %02x", b[0], b[1], b[2], b[3]);
    return text;
}

TEST(Tc, fix_format_reads_from_the_end_and_leaves_the_result_alone_on_leftover_text) {
    struct Case {
        const char* text;
        int result;
        const char* expected;
    };
    const Case cases[] = {
        {"1:2:3", 0, "00:01:02:03"},          {"1234", 0, "00:00:12:34"},       {"", 0, ""},
        {"1:2:3:4:5", -1, "<never written>"}, {"12 34", -1, "<never written>"},
    };
    for (const Case& c : cases) {
        TcBuf out;
        EXPECT_EQ(tc_tcstrFixFormat(out.get(), HeapText(c.text).get()), c.result) << c.text;
        EXPECT_EQ(out.str(), c.expected) << c.text;
    }
    TcBuf out;
    EXPECT_EQ(tc_tcstrFixFormat(out.get(), nullptr), 0);
    EXPECT_EQ(out.str(), "");
}

TEST(Tc, fix_reads_up_to_four_numbers_from_the_start_and_carries_seconds_and_minutes) {
    struct Case {
        const char* text;
        int result;
        const char* expected;
    };
    const Case cases[] = {
        {"1:2:3:4", 0, "01:02:03:04"},    {"0:90:00", 0, "00:01:30:00"},
        {"123", 0, "00:00:12:03"},        {"12::34", 0, "00:00:12:34"},
        {"12:34xyz", 0, "00:00:12:34"},   {"90", 0, "00:00:00:90"},
        {"1:2:3:4:5", 0, "01:02:03:04"},  {"10 20 30 15", 0, "10:20:30:15"},
        {"0:59:60:00", 0, "01:00:00:00"}, {"12345678", 0, "12:34:56:78"},
        {":12", -1, "00:00:00:00"},       {"", -1, "00:00:00:00"},
        {"x1", -1, "00:00:00:00"},
    };
    for (const Case& c : cases) {
        TcBuf out;
        EXPECT_EQ(tc_fix_tcstr(out.get(), HeapText(c.text).get()), c.result) << c.text;
        EXPECT_EQ(out.str(), c.expected) << c.text;
    }
    TcBuf out;
    EXPECT_EQ(tc_fix_tcstr(out.get(), nullptr), -1);
    EXPECT_EQ(out.str(), "00:00:00:00");
}

TEST(Tc, bcd_bytes_become_digits_with_device_flags_ignored_and_bit_6_marking_drop_frame) {
    struct Case {
        Bcd bcd;
        const char* expected;
    };
    const Case cases[] = {
        {{0x45, 0x30, 0x59, 0x23}, "23:59:30;05"}, {{0x15, 0x30, 0x20, 0x10}, "10:20:30:15"},
        {{0xC5, 0xB0, 0x59, 0xE3}, "23:59:30;05"}, // bits 7 of frames, seconds, hours; 6 of hours
        {{0x00, 0x00, 0xA0, 0x00}, "00::0:00:00"}, // the minutes' tens are not masked
        {{0x0F, 0x00, 0x00, 0x00}, "00:00:00:0?"}, // a nibble above 9 is '0' plus its value
    };
    for (const Case& c : cases) {
        TcBuf out;
        EXPECT_EQ(tc_bcd2tcstr(out.get(), c.bcd.data()), 0);
        EXPECT_EQ(out.str(), c.expected) << hex(c.bcd);
    }
}

TEST(Tc, strings_become_bcd_through_the_loose_reading_with_drop_frame_from_position_8) {
    struct Case {
        const char* text;
        Bcd expected;
    };
    const Case cases[] = {
        {"10:20:30:15", {0x15, 0x30, 0x20, 0x10}},
        {"00:01:00;02", {0x42, 0x00, 0x01, 0x00}},
        {"1:2:3:4", {0x04, 0x03, 0x02, 0x01}},
        {"0:90:00", {0x00, 0x30, 0x01, 0x00}},
        {"", {0, 0, 0, 0}},
        {":junk", {0, 0, 0, 0}},
        {"1:2;3", {0x03, 0x02, 0x01, 0x00}}, // ";" elsewhere than position 8 is no drop mark
    };
    for (const Case& c : cases) {
        Bcd bcd{0xEE, 0xEE, 0xEE, 0xEE};
        EXPECT_EQ(tc_tcstr2bcd(bcd.data(), HeapText(c.text).get()), 0);
        EXPECT_EQ(hex(bcd), hex(c.expected)) << c.text;
    }
}

TEST(Tc, bcd_round_trips_every_label_of_an_hour_and_every_hour_of_the_day) {
    for (int hour = 0; hour < 24; ++hour) {
        for (int second = 0; second < 3600; second += hour == 13 ? 1 : 599) {
            for (int frame = 0; frame < 30; ++frame) {
                char label[32];
                std::snprintf(label, sizeof label, "%02d:%02d:%02d%c%02d", hour, second / 60,
                              second % 60, frame % 2 ? ';' : ':', frame);
                Bcd bcd{};
                TcBuf back;
                tc_tcstr2bcd(bcd.data(), label);
                tc_bcd2tcstr(back.get(), bcd.data());
                ASSERT_EQ(back.str(), label) << hex(bcd);
            }
        }
    }
}

TEST(Tc, records_count_frames_and_skipped_drop_frame_labels_move_to_frame_2) {
    struct Case {
        t_tc_struct record;
        int32_t rate;
        int32_t drop;
        int32_t count;
        int32_t frames_after;
    };
    const Case cases[] = {
        {{0, 1, 0, 2}, 30, 1, 1800, 2},   {{0, 1, 0, 0}, 30, 1, 1800, 2},
        {{0, 1, 0, 1}, 30, 1, 1800, 2},   {{0, 10, 0, 0}, 30, 1, 17982, 0},
        {{1, 0, 0, 0}, 30, 1, 107892, 0}, {{0, 1, 0, 0}, 30, 0, 1800, 0},
        {{0, 1, 0, 0}, 60, 1, 3600, 2},   {{0, 0, 1, 0}, 50, 0, 50, 0},
        {{1, 0, 0, 0}, 25, 0, 90000, 0},  {{23, 59, 59, 23}, 24, 0, 2073599, 23},
        {{0, 0, 0, 99}, 25, 0, 99, 99}, // fields are not range-checked
    };
    for (const Case& c : cases) {
        t_tc_struct record = c.record;
        EXPECT_EQ(tc_struct2frames(&record, c.rate, c.drop), c.count)
            << record.hours << ":" << record.minutes << ":" << record.seconds << ":"
            << c.record.frames << " at " << c.rate;
        EXPECT_EQ(record.frames, c.frames_after);
    }
}

TEST(Tc, counts_that_are_negative_or_too_large_and_bad_rates_are_refused) {
    const t_tc_struct refused[] = {
        {0, 0, 0, -1},
        {INT32_MAX, INT32_MAX, INT32_MAX, INT32_MAX},
        {INT32_MIN, 0, 0, 0},
        {19885, 0, 0, 0}, // over 2^31 - 1 frames at 30
    };
    for (t_tc_struct record : refused) {
        EXPECT_EQ(tc_struct2frames(&record, 30, 0), -1) << record.hours << " " << record.frames;
        EXPECT_EQ(tc_struct2frames(&record, 60, 1), -1) << record.hours << " " << record.frames;
    }
    t_tc_struct hour{1, 0, 0, 0};
    EXPECT_EQ(tc_struct2frames(&hour, 0, 0), -1);
    EXPECT_EQ(tc_struct2frames(&hour, INT32_MAX, 0), -1);
    EXPECT_EQ(tc_struct2frames(nullptr, 25, 0), -1);
    t_tc_struct largest{19885, 0, 0, 0};
    EXPECT_EQ(tc_struct2frames(&largest, 30, 1), 2145432420); // fits with drop-frame counting
    EXPECT_EQ(tc_tcstr2frames("-1:00:00:00", 25, 0), -1);     // '-' reads as a negative digit
}

TEST(Tc, strings_count_frames_by_position) {
    struct Case {
        const char* text;
        int32_t rate;
        int32_t drop;
        int32_t count;
    };
    const Case cases[] = {
        {"00:01:00;02", 30, 1, 1800},
        {"00:10:00;00", 30, 1, 17982},
        {"01:00:00;00", 30, 1, 107892},
        {"00:01:00:00", 30, 1, 1800},
        {"00:00:01:00", 50, 0, 50},
        {"00:00:01:00", 60, 1, 60},
        {"24:00:00:00", 25, 0, 2160000},
        {"01:00", 25, 0, 90000}, // a short string reads as zeros
        {"", 25, 0, 0},
        {"99:99:99:99", 25, 0, 9061074},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(tc_tcstr2frames(HeapText(c.text).get(), c.rate, c.drop), c.count) << c.text;
    }
    EXPECT_EQ(tc_tcstr2frames(nullptr, 25, 0), 0);
}

TEST(Tc, counts_become_labels_with_hours_kept_or_clipped_to_the_day) {
    struct Case {
        uint32_t frames;
        int32_t rate;
        int32_t drop;
        const char* label;
        const char* clipped;
    };
    const Case cases[] = {
        {1799, 30, 1, "00:00:59;29", "00:00:59;29"},
        {1800, 30, 1, "00:01:00;02", "00:01:00;02"},
        {17982, 30, 1, "00:10:00;00", "00:10:00;00"},
        {107892, 30, 1, "01:00:00;00", "01:00:00;00"},
        {1800, 30, 0, "00:01:00:00", "00:01:00:00"},
        {1800, 25, 1, "00:01:12:00", "00:01:12:00"},
        {90000, 25, 0, "01:00:00:00", "01:00:00:00"},
        {2160000, 25, 0, "24:00:00:00", "00:00:00:00"},
        {2160000 + 1, 50, 0, "12:00:00:00", "12:00:00:00"},
        {101, 50, 0, "00:00:02:00", "00:00:02:00"},
        {3601, 60, 1, "00:01:00;02", "00:01:00;02"},
        {4320000, 50, 0, "24:00:00:00", "00:00:00:00"},
    };
    for (const Case& c : cases) {
        TcBuf label;
        TcBuf clipped;
        EXPECT_EQ(tc_frames2tcstr(c.frames, c.rate, c.drop, label.get()), 0);
        EXPECT_EQ(tc_frames2tcstr_clip24(c.frames, c.rate, c.drop, clipped.get()), 0);
        EXPECT_EQ(label.str(), c.label) << c.frames << " at " << c.rate;
        EXPECT_EQ(clipped.str(), c.clipped) << c.frames << " at " << c.rate;
    }
}

TEST(Tc, sums_and_differences_go_through_frame_counts) {
    struct Case {
        int (*op)(char*, const char*, const char*, int32_t, int32_t);
        const char* a;
        const char* b;
        int32_t rate;
        int32_t drop;
        const char* expected;
        int result;
    };
    const Case cases[] = {
        {tc_tcstradd, "00:00:59;29", "00:00:00;01", 30, 1, "00:01:00;02", 0},
        {tc_tcstradd, "23:00:00:00", "02:00:00:00", 25, 0, "25:00:00:00", 0},
        {tc_tcstradd, "00:00:00:20", "00:00:00:20", 50, 0, "00:00:01:15", 0},
        {tc_tcstrsub, "00:01:00;02", "00:00:00;01", 30, 1, "00:00:59;29", 0},
        {tc_tcstrsub, "00:00:01:00", "00:00:02:00", 25, 0, "00:00:00:00", 0},
        {tc_tcstrsub, "00:00:02:00", "00:00:02:00", 25, 0, "00:00:00:00", 0},
        {tc_tcstradd, "-1:00:00:00", "00:00:01:00", 25, 0, "00:00:00:00", -1},
        {tc_tcstrsub, "00:00:01:00", "10:00:00:00", 0, 0, "<never written>", -1},
    };
    for (const Case& c : cases) {
        TcBuf out;
        EXPECT_EQ(c.op(out.get(), c.a, c.b, c.rate, c.drop), c.result) << c.a << " " << c.b;
        EXPECT_EQ(out.str(), c.expected) << c.a << " " << c.b << " at " << c.rate;
    }
}

TEST(Tc, zero_is_written_with_its_historical_minus_one) {
    TcBuf out;
    EXPECT_EQ(tc_set_0(out.get()), -1);
    EXPECT_EQ(out.str(), "00:00:00:00");
    EXPECT_EQ(tc_set_0(nullptr), -1);
}

TEST(Tc, frames_field_is_valid_below_the_rate_as_given) {
    struct Case {
        const char* text;
        int32_t rate;
        int result;
    };
    const Case cases[] = {
        {"00:00:00:24", 25, 0},  {"00:00:00:25", 25, -1}, {"00:00:00:49", 50, 0},
        {"00:00:00:50", 50, -1}, {"99:99:99:00", 25, 0},  {"00:00:00:2", 25, -1},
        {"00:00:00:2x", 25, -1}, {"00:00:00:-1", 25, -1}, {"", 25, -1},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(tc_validstr(HeapText(c.text).get(), c.rate), c.result) << c.text;
    }
    EXPECT_EQ(tc_validstr(nullptr, 25), -1);
}

TEST(Tc, conversions_refuse_null_buffers_and_bad_rates_before_writing) {
    TcBuf out;
    EXPECT_EQ(tc_frames2tcstr(1, 0, 0, out.get()), -1);
    EXPECT_EQ(tc_frames2tcstr_clip24(1, -30, 1, out.get()), -1);
    EXPECT_EQ(out.str(), "<never written>");
    const Bcd bcd{};
    EXPECT_EQ(tc_frames2tcstr(1, 25, 0, nullptr), -1);
    EXPECT_EQ(tc_tcstrFixFormat(nullptr, "1"), -1);
    EXPECT_EQ(tc_fix_tcstr(nullptr, "1"), -1);
    EXPECT_EQ(tc_bcd2tcstr(nullptr, bcd.data()), -1);
    EXPECT_EQ(tc_bcd2tcstr(out.get(), nullptr), -1);
    EXPECT_EQ(tc_tcstr2bcd(nullptr, "1"), -1);
    EXPECT_EQ(tc_tcstradd(nullptr, "1", "1", 25, 0), -1);
}

// ---- Hours of 100 or more: never past the 12-byte buffer, cut to the last two digits ----

TEST(Tc, hours_of_100_or_more_are_cut_to_two_digits_within_12_bytes) {
    struct Case {
        const char* name;
        std::function<int(char*)> call;
        int result;
        const char* expected;
    };
    const Case cases[] = {
        {"count of 123 hours", [](char* r) { return tc_frames2tcstr(123 * 90000, 25, 0, r); }, 0,
         "23:00:00:00"},
        {"largest count", [](char* r) { return tc_frames2tcstr(UINT32_MAX, 25, 0, r); }, 0,
         "21:51:31:20"}, // 47721:51:31:20
        {"largest count at 30 drop", [](char* r) { return tc_frames2tcstr(UINT32_MAX, 30, 1, r); },
         0, "08:01:25;11"}, // 39808:01:25;11
        {"largest count clipped",
         [](char* r) { return tc_frames2tcstr_clip24(UINT32_MAX, 25, 0, r); }, 0, "09:51:31:20"},
        {"sum", [](char* r) { return tc_tcstradd(r, "99:00:00:00", "02:00:00:00", 25, 0); }, 0,
         "01:00:00:00"},
        {"product", [](char* r) { return tcstr_multiply(r, "50:00:00:00", 3, 25, 0, 0, 1000); }, 0,
         "50:00:00:00"}, // 150 hours
        {"end of material",
         [](char* r) { return tcstr_compute_eom(r, "60:00:00:00", "60:00:00:01", 25, 0, 0, 1000); },
         0, "20:00:00:00"},
        {"increment",
         [](char* r) {
             std::strcpy(r, "99:59:59:24");
             return tcstr_incremente(r, 25, 0, 0, 0);
         },
         0, "00:00:00:00"},
        {"duration",
         [](char* r) { return tcstr_compute_duration(r, "00:00:00:00", "99:59:59:24", 25, 0, 0); },
         0, "00:00:00:00"},
        {"loose text", [](char* r) { return tc_fix_tcstr(r, "99:99:99:99"); }, 0, "00:40:39:99"},
    };
    for (const Case& c : cases) {
        TcBuf out;
        EXPECT_EQ(c.call(out.get()), c.result) << c.name;
        EXPECT_EQ(out.str(), c.expected) << c.name;
    }
    Bcd bcd{};
    tc_tcstr2bcd(bcd.data(), "99:99:99:99");
    EXPECT_EQ(hex(bcd), "99 39 40 00");
}

// Inputs that are garbage, short, long or empty, in exact-size heap copies: every result is
// empty or in the normal form, and nothing is read or written out of bounds (ASan checks).
TEST(Tc, garbage_short_and_long_text_gives_normal_form_or_empty_results) {
    const std::string inputs[] = {
        "",
        "1",
        "12",
        "12:3",
        ";",
        ":::::::::::",
        "\xff\xfe\x80",
        "aa:bb:cc:dd",
        "  :  :  :  ",
        "99:99:99:99",
        "00:00:00;",
        std::string(5000, '9'),
        std::string(5000, ':'),
        "1" + std::string(4000, ' '),
        "12:34:56:78:90:12:34",
    };
    for (const std::string& input : inputs) {
        const HeapText text(input);
        const std::function<int(char*)> calls[] = {
            [&](char* r) { return tcstr_reformat(r, text.get()); },
            [&](char* r) { return tc_tcstrFixFormat(r, text.get()); },
            [&](char* r) { return tc_fix_tcstr(r, text.get()); },
            [&](char* r) { return tcstr_validate(r, text.get(), 24, 0, 30, 1); },
            [&](char* r) { return tcstr_compute_duration(r, tcstr_tc0, text.get(), 25, 0, 0); },
            [&](char* r) { return tcstr_compute_eom(r, text.get(), text.get(), 30, 1, 1, 24); },
            [&](char* r) { return tcstr_multiply(r, text.get(), 77777, 60, 0, 1, 1000); },
            [&](char* r) { return tc_tcstradd(r, text.get(), text.get(), 30, 1); },
            [&](char* r) { return tc_tcstrsub(r, text.get(), tcstr_tc0, 24, 0); },
            [&](char* r) {
                std::strncpy(r, text.get(), TcBuf::kSize - 1);
                r[TcBuf::kSize - 1] = '\0';
                return tcstr_incremente(r, 25, 0, 0, 0) + tcstr_decremente(r, 25, 0, 1, 24);
            },
        };
        for (size_t i = 0; i < std::size(calls); ++i) {
            TcBuf out;
            calls[i](out.get());
            const std::string result = out.str();
            if (!result.empty() && result != "<never written>") {
                EXPECT_EQ(tcstr_isnormal(result.c_str()), 1)
                    << "call " << i << " on \"" << input.substr(0, 20) << "\" gave " << result;
            }
        }
        uint8_t bcd[4];
        tc_tcstr2bcd(bcd, text.get());
        tcstr_isvalid(text.get());
        tcstr_isnormal(text.get());
        tc_validstr(text.get(), 25);
    }
}

// ---- Every frame of a day, against labels counted one frame at a time ----

// Labels of consecutive frames as a timecode generator counts them: frame by frame, carrying at
// the rate and at 60, and with drop-frame leaving out frames 0 and 1 at the start of each minute
// that is not a multiple of 10. Shares no arithmetic with the library's conversions.
class LabelCounter {
  public:
    LabelCounter(int fps, bool drop) : fps_(fps), drop_(drop) {}

    void advance() {
        if (++frames_ == fps_) {
            frames_ = 0;
            if (++seconds_ == 60) {
                seconds_ = 0;
                if (++minutes_ == 60) {
                    minutes_ = 0;
                    ++hours_;
                }
            }
        }
        if (drop_ && seconds_ == 0 && frames_ < 2 && minutes_ % 10 != 0)
            frames_ = 2;
    }

    const char* label() {
        const int fields[] = {hours_, minutes_, seconds_, frames_};
        for (int i = 0; i < 4; ++i) {
            text_[3 * i] = static_cast<char>('0' + fields[i] / 10);
            text_[3 * i + 1] = static_cast<char>('0' + fields[i] % 10);
            if (i < 3)
                text_[3 * i + 2] = (i == 2 && drop_) ? ';' : ':';
        }
        text_[11] = '\0';
        return text_;
    }

  private:
    int fps_;
    bool drop_;
    int hours_ = 0, minutes_ = 0, seconds_ = 0, frames_ = 0;
    char text_[12] = {};
};

// Converts every counted frame of a day (at a field rate both fields of each frame) to its label
// and the label back to the count.
void sweep_day(int32_t rate, int32_t drop) {
    const bool fields = rate >= 31;
    const int fps = fields ? rate / 2 : rate;
    const bool drop_frame = fps == 30 && drop != 0;
    const uint32_t frames_per_day = drop_frame ? 24 * (108000 - 108) : fps * 86400;
    const uint32_t per_frame = fields ? 2 : 1;
    LabelCounter counter(fps, drop_frame);
    int failures = 0;
    char label[12];
    for (uint32_t frame = 0; frame < frames_per_day && failures < 5; ++frame, counter.advance()) {
        const char* expected = counter.label();
        for (uint32_t field = 0; field < per_frame; ++field) {
            const uint32_t count = frame * per_frame + field;
            tc_frames2tcstr(count, rate, drop, label);
            if (std::strcmp(label, expected) != 0) {
                ADD_FAILURE() << count << " at " << rate << " gave " << label << ", counted "
                              << expected;
                ++failures;
            }
        }
        const int32_t back = tc_tcstr2frames(expected, rate, drop);
        if (back != static_cast<int32_t>(frame * per_frame)) {
            ADD_FAILURE() << expected << " at " << rate << " counted " << back << ", expected "
                          << frame * per_frame;
            ++failures;
        }
    }
    // One frame past the day: the counter and the conversion both reach hour 24.
    EXPECT_STREQ(counter.label(), drop_frame ? "24:00:00;00" : "24:00:00:00") << rate;
    tc_frames2tcstr(frames_per_day * per_frame, rate, drop, label);
    EXPECT_STREQ(label, counter.label()) << rate;
}

TEST(TcDay, drop_frame_at_30_labels_and_counts_every_frame_of_a_day) {
    sweep_day(30, 1);
}
TEST(TcDay, drop_frame_at_60_fields_labels_and_counts_every_frame_of_a_day) {
    sweep_day(60, 1);
}
TEST(TcDay, non_drop_24_labels_and_counts_every_frame_of_a_day) {
    sweep_day(24, 0);
}
TEST(TcDay, non_drop_25_labels_and_counts_every_frame_of_a_day) {
    sweep_day(25, 0);
}
TEST(TcDay, non_drop_30_labels_and_counts_every_frame_of_a_day) {
    sweep_day(30, 0);
}
TEST(TcDay, fields_at_50_label_both_fields_of_every_frame_of_a_day) {
    sweep_day(50, 0);
}
TEST(TcDay, fields_at_60_label_both_fields_of_every_frame_of_a_day) {
    sweep_day(60, 0);
}

} // namespace
