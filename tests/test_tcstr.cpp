// Timecode strings: shape checks, normal form of typed text, and field-by-field arithmetic.
#include "tc_buffers.h"

#include <gtest/gtest.h>
#include <tuple>
#include <zqhandler/tc.h>

namespace {

TEST(TcStr, checks_tell_typed_text_from_the_normal_form_and_reset_marks_only_30_drop_frame) {
    // text, loosely valid, normal
    const std::tuple<const char*, int, int> cases[] = {
        {"", 1, 0},          {"1:2:3:4567", 1, 0},   {"10:", 1, 0},         {"99.99;99:99", 1, 1},
        {"123456789", 0, 0}, {"1:2:3:4:5", 0, 0},    {":12", 0, 0},         {"1::2", 0, 0},
        {"12a", 0, 0},       {"10:20:30:150", 0, 0}, {"10-20:30:15", 0, 0}, {"10:20:30:1", 1, 0},
    };
    for (const auto& [text, valid, normal] : cases) {
        EXPECT_EQ(tcstr_isvalid(HeapText(text).get()), valid) << '"' << text << '"';
        EXPECT_EQ(tcstr_isnormal(HeapText(text).get()), normal) << '"' << text << '"';
    }
    EXPECT_EQ(tcstr_isvalid(nullptr), 0);
    EXPECT_EQ(tcstr_isnormal(nullptr), 0);
    EXPECT_STREQ(tcstr_tc0, "00:00:00:00");
    for (const auto& [rate, expected] : {std::pair{30, "00:00:00;00"}, {60, "00:00:00:00"}}) {
        TcBuf out;
        tcstr_reset(out.get(), rate, 1);
        EXPECT_EQ(out.str(), expected) << rate;
    }
}

// tc_tcstrFixFormat reads as tcstr_reformat, but leaves its buffer alone on failure.
TEST(TcStr, reformat_reads_typed_text_from_the_end_so_the_last_number_is_the_frames) {
    const std::tuple<const char*, int, const char*> cases[] = {
        {"5", 0, "00:00:00:05"},
        {"1234", 0, "00:00:12:34"},
        {"12:", 0, "00:00:12:00"},
        {"1.02;03:04", 0, "01:02:03:04"},
        {"99:99:99:99", 0, "99:99:99:99"},
        {"", 0, ""},
        {"123456789", -1, ""},
        {" 1", -1, ""},
    };
    for (const auto& [text, result, expected] : cases) {
        TcBuf reformatted, fixed;
        EXPECT_EQ(tcstr_reformat(reformatted.get(), HeapText(text).get()), result) << text;
        EXPECT_EQ(tc_tcstrFixFormat(fixed.get(), HeapText(text).get()), result) << text;
        EXPECT_EQ(reformatted.str(), expected) << text;
        EXPECT_EQ(fixed.str(), result == 0 ? expected : "<never written>") << text;
    }
}

TEST(TcStr, validate_clamps_fields_wraps_hours_and_moves_off_skipped_drop_frames) {
    // text, hour limit, forward, rate, drop, result
    const std::tuple<const char*, int32_t, int32_t, int32_t, int32_t, const char*> cases[] = {
        {"00:01:00:00", 0, 1, 30, 1, "00:01:00;02"},  {"00:01:00:01", 0, 0, 30, 1, "00:00:59;29"},
        {"00:10:00:00", 0, 1, 30, 1, "00:10:00;00"},  {"00:01:00:00", 0, 1, 25, 1, "00:01:00:00"},
        {"12:75:80:40", 0, 1, 25, 0, "12:59:59:24"},  {"00:00:00:49", 0, 1, 50, 0, "00:00:00:24"},
        {"30:00:00:00", 24, 1, 25, 0, "06:00:00:00"}, {"1:0:0", 0, 0, 30, 1, "00:00:59;29"},
    };
    for (const auto& [text, hour_limit, forward, rate, drop, expected] : cases) {
        TcBuf out;
        EXPECT_EQ(tcstr_validate(out.get(), HeapText(text).get(), hour_limit, forward, rate, drop),
                  0);
        EXPECT_EQ(out.str(), expected) << text << " at " << rate << " fwd " << forward;
    }
    TcBuf out;
    EXPECT_EQ(tcstr_validate(out.get(), "1:2:3:4:5", 24, 1, 25, 0), -1);
    EXPECT_EQ(out.str(), "<never written>");
}

TEST(TcStr, steps_carry_and_borrow_and_stop_or_wrap_at_the_hour_limit) {
    // step, start, rate, drop, wrap, hour limit (or restart hour when stepping back), result
    const std::tuple<int (*)(char*, int32_t, int32_t, int32_t, int32_t), const char*, int32_t,
                     int32_t, int32_t, int32_t, const char*>
        cases[] = {
            {tcstr_incremente, "23:59:59:24", 25, 0, 1, 24, "00:00:00:00"},
            {tcstr_incremente, "23:59:59:24", 25, 0, 0, 24, "23:59:59:24"},
            {tcstr_incremente, "00:00:00:29", 60, 0, 0, 0, "00:00:01:00"},
            {tcstr_incremente, "00:00:59;29", 30, 1, 0, 0, "00:01:00;00"}, // no label skipped
            {tcstr_incremente, "", 25, 0, 0, 0, "00:00:00:01"}, // an empty string reads as zeros
            {tcstr_decremente, "01:00:00:00", 25, 0, 0, 24, "00:59:59:24"},
            {tcstr_decremente, "00:00:00:00", 25, 0, 1, 24, "23:59:59:24"},
            {tcstr_decremente, "00:00:00:00", 30, 1, 0, 24, "00:00:00;00"},
        };
    for (const auto& [step, start, rate, drop, wrap, hours, expected] : cases) {
        TcBuf tc(start);
        EXPECT_EQ(step(tc.get(), rate, drop, wrap, hours), 0) << start;
        EXPECT_EQ(tc.str(), expected) << start << " wrap " << wrap;
    }
    TcBuf zero("00:00:00:00");
    EXPECT_EQ(tcstr_decremente(zero.get(), 25, 0, 1, 0), -1) << "restart hour 0 is refused";
    EXPECT_EQ(zero.str(), "00:00:00:00");
}

// Durations count both ends; end of material and products wrap at the hour limit, or are refused.
TEST(TcStr, durations_ends_of_material_and_products_wrap_or_are_refused_at_the_hour_limit) {
    const struct {
        int op; // 0 duration from a to b, 1 end of a plus the duration b, 2 a times the factor
        const char *a, *b;
        uint32_t factor;
        int32_t rate, drop, wrap, hour_limit;
        const char* expected;
        int result;
    } cases[] = {
        {0, "10:00:00:00", "10:00:00:00", 0, 1, 0, 0, 24, "00:00:00:01", 0},
        {0, "10:00:59:29", "11:00:00:00", 0, 30, 0, 0, 24, "00:59:00:02", 0},
        {0, "10:00:00:01", "10:00:00:00", 0, 25, 0, 0, 24, "", 0},
        {0, "00:00:00:00", "23:59:59:24", 0, 25, 0, 1, 24, "00:00:00:00", 0},
        {0, "00:00:00;00", "00:01:00;02", 0, 30, 0, 0, 0, "00:01:00:03", 0}, // never drop-frame
        {1, "10:00:00:20", "00:00:00:10", 0, 25, 0, 0, 24, "10:00:01:04", 0},
        {1, "00:00:00:00", "00:00:00:00", 0, 30, 0, 1, 24, "23:59:59:29", 0},
        {1, "23:00:00:00", "02:00:00:00", 0, 25, 0, 1, 24, "00:59:59:24", 0},
        {1, "02:00:00;00", "23:00:00;00", 0, 60, 1, 0, 24, "00:00:00;00", -1},
        {2, "00:20:30:15", nullptr, 4, 30, 1, 0, 24, "01:22:02;00", 0},
        {2, "13:00:00:00", nullptr, 2, 25, 0, 1, 24, "02:00:00:00", 0},
        {2, "13:00:00:00", nullptr, 2, 25, 0, 0, 24, "00:00:00:00", -1},
        {2, "00:00:01:00", nullptr, 2, 25, 0, 0, 0, "00:00:00:00", -1}, // the limit must be >= 1
    };
    for (const auto& c : cases) {
        TcBuf out;
        const int result =
            c.op == 0 ? tcstr_compute_duration(out.get(), c.a, c.b, c.rate, c.wrap, c.hour_limit)
            : c.op == 1
                ? tcstr_compute_eom(out.get(), c.a, c.b, c.rate, c.drop, c.wrap, c.hour_limit)
                : tcstr_multiply(out.get(), c.a, c.factor, c.rate, c.drop, c.wrap, c.hour_limit);
        EXPECT_EQ(result, c.result) << c.op << " " << c.a;
        EXPECT_EQ(out.str(), c.expected) << c.op << " " << c.a << " wrap " << c.wrap;
    }
}

} // namespace
