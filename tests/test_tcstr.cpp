// Timecode strings: shape checks, normal form of typed text, and field-by-field arithmetic.
#include "tc_buffers.h"

#include <gtest/gtest.h>
#include <zqhandler/tc.h>

namespace {

TEST(TcStr, zero_timecode_and_reset_mark_drop_frame_only_at_exactly_30) {
    EXPECT_STREQ(tcstr_tc0, "00:00:00:00");
    const struct {
        int32_t rate, drop;
        const char* expected;
    } cases[] = {{30, 1, "00:00:00;00"}, {25, 1, "00:00:00:00"}, {60, 1, "00:00:00:00"}};
    for (const auto& c : cases) {
        TcBuf out;
        tcstr_reset(out.get(), c.rate, c.drop);
        EXPECT_EQ(out.str(), c.expected) << c.rate;
    }
}

TEST(TcStr, loose_check_and_normal_form_check_tell_typed_text_apart) {
    const struct {
        const char* text;
        int valid, normal;
    } cases[] = {
        {"", 1, 0},
        {"1:2:3:4", 1, 0},
        {"12345678", 1, 0},
        {"10:", 1, 0},
        {"1:2:3:4567", 1, 0},
        {"10:20:30:15", 1, 1},
        {"99.99;99:99", 1, 1},
        {"123456789", 0, 0},
        {"1:2:3:4:5", 0, 0},
        {":12", 0, 0},
        {"1::2", 0, 0},
        {"12a", 0, 0},
        {"10:20:30:150", 0, 0},
        {"10-20:30:15", 0, 0},
        {"10:20:30:1", 1, 0},
    };
    for (const auto& c : cases) {
        const HeapText text(c.text);
        EXPECT_EQ(tcstr_isvalid(text.get()), c.valid) << '"' << c.text << '"';
        EXPECT_EQ(tcstr_isnormal(text.get()), c.normal) << '"' << c.text << '"';
    }
    EXPECT_EQ(tcstr_isvalid(nullptr), 0);
    EXPECT_EQ(tcstr_isnormal(nullptr), 0);
}

// tc_tcstrFixFormat reads as tcstr_reformat, but leaves its buffer alone on failure.
TEST(TcStr, reformat_reads_typed_text_from_the_end_so_the_last_number_is_the_frames) {
    const struct {
        const char* text;
        int result;
        const char* expected;
    } cases[] = {
        {"5", 0, "00:00:00:05"},
        {"1234", 0, "00:00:12:34"},
        {"1:2:3", 0, "00:01:02:03"},
        {"12:", 0, "00:00:12:00"},
        {"1.02;03:04", 0, "01:02:03:04"},
        {"99:99:99:99", 0, "99:99:99:99"},
        {"", 0, ""},
        {"1:2:3:4:5", -1, ""},
        {"123456789", -1, ""},
        {" 1", -1, ""},
    };
    for (const auto& c : cases) {
        TcBuf reformatted, fixed;
        EXPECT_EQ(tcstr_reformat(reformatted.get(), HeapText(c.text).get()), c.result) << c.text;
        EXPECT_EQ(tc_tcstrFixFormat(fixed.get(), HeapText(c.text).get()), c.result) << c.text;
        EXPECT_EQ(reformatted.str(), c.expected) << c.text;
        EXPECT_EQ(fixed.str(), c.result == 0 ? c.expected : "<never written>") << c.text;
    }
    TcBuf out;
    EXPECT_EQ(tcstr_reformat(out.get(), nullptr), 0);
    EXPECT_EQ(out.str(), "");
}

TEST(TcStr, validate_clamps_fields_wraps_hours_and_moves_off_skipped_drop_frames) {
    const struct {
        const char* text;
        int32_t hour_limit, forward, rate, drop;
        const char* expected;
    } cases[] = {
        {"00:01:00:00", 0, 1, 30, 1, "00:01:00;02"}, {"00:01:00:01", 0, 0, 30, 1, "00:00:59;29"},
        {"00:10:00:00", 0, 1, 30, 1, "00:10:00;00"}, {"00:01:00:00", 0, 1, 60, 1, "00:01:00;02"},
        {"00:01:00:00", 0, 1, 25, 1, "00:01:00:00"}, {"12:75:80:40", 0, 1, 25, 0, "12:59:59:24"},
        {"00:00:00:49", 0, 1, 50, 0, "00:00:00:24"}, {"30:00:00:00", 24, 1, 25, 0, "06:00:00:00"},
        {"1:0:0", 0, 0, 30, 1, "00:00:59;29"},       {"", 24, 1, 25, 0, ""},
    };
    for (const auto& c : cases) {
        TcBuf out;
        EXPECT_EQ(tcstr_validate(out.get(), HeapText(c.text).get(), c.hour_limit, c.forward, c.rate,
                                 c.drop),
                  0);
        EXPECT_EQ(out.str(), c.expected) << c.text << " at " << c.rate << " fwd " << c.forward;
    }
    TcBuf out;
    EXPECT_EQ(tcstr_validate(out.get(), "1:2:3:4:5", 24, 1, 25, 0), -1);
    EXPECT_EQ(out.str(), "<never written>");
}

TEST(TcStr, steps_carry_and_borrow_and_stop_or_wrap_at_the_hour_limit) {
    const struct {
        int (*step)(char*, int32_t, int32_t, int32_t, int32_t);
        const char* start;
        int32_t rate, drop, wrap, hours; // hour limit, or restart hour when stepping back
        const char* expected;
    } cases[] = {
        {tcstr_incremente, "00:59:59:24", 25, 0, 0, 0, "01:00:00:00"},
        {tcstr_incremente, "23:59:59:24", 25, 0, 1, 24, "00:00:00:00"},
        {tcstr_incremente, "23:59:59:24", 25, 0, 0, 24, "23:59:59:24"},
        {tcstr_incremente, "00:00:00:29", 60, 0, 0, 0, "00:00:01:00"},
        {tcstr_incremente, "00:00:59;29", 30, 1, 0, 0, "00:01:00;00"}, // no label skipped
        {tcstr_incremente, "", 25, 0, 0, 0, "00:00:00:01"}, // an empty string reads as zeros
        {tcstr_decremente, "01:00:00:00", 25, 0, 0, 24, "00:59:59:24"},
        {tcstr_decremente, "00:00:00:00", 25, 0, 1, 24, "23:59:59:24"},
        {tcstr_decremente, "00:00:00:00", 30, 1, 0, 24, "00:00:00;00"},
        {tcstr_decremente, "00:01:00;02", 30, 1, 0, 24, "00:01:00;01"},
    };
    for (const auto& c : cases) {
        TcBuf tc(c.start);
        EXPECT_EQ(c.step(tc.get(), c.rate, c.drop, c.wrap, c.hours), 0) << c.start;
        EXPECT_EQ(tc.str(), c.expected) << c.start << " wrap " << c.wrap;
    }
    TcBuf zero("00:00:00:00");
    EXPECT_EQ(tcstr_decremente(zero.get(), 25, 0, 1, 0), -1) << "restart hour 0 is refused";
    EXPECT_EQ(zero.str(), "00:00:00:00");
}

TEST(TcStr, duration_counts_both_ends_and_is_empty_when_the_end_comes_first) {
    const struct {
        const char *start, *end;
        int32_t rate, wrap, hour_limit;
        const char* expected;
    } cases[] = {
        {"10:00:00:00", "10:00:00:24", 25, 0, 24, "00:00:01:00"},
        {"10:00:00:00", "10:00:00:00", 25, 0, 24, "00:00:00:01"},
        {"10:00:00:00", "10:00:00:00", 1, 0, 24, "00:00:00:01"}, // one frame at any rate
        {"10:00:59:29", "11:00:00:00", 30, 0, 24, "00:59:00:02"},
        {"10:00:00:01", "10:00:00:00", 25, 0, 24, ""},
        {"00:00:00:00", "23:59:59:24", 25, 1, 24, "00:00:00:00"},
        {"00:00:00:00", "23:59:59:24", 25, 0, 24, "23:59:59:24"},
        {"00:00:00;00", "00:01:00;02", 30, 0, 0, "00:01:00:03"}, // never drop-frame
    };
    for (const auto& c : cases) {
        TcBuf out;
        EXPECT_EQ(tcstr_compute_duration(out.get(), c.start, c.end, c.rate, c.wrap, c.hour_limit),
                  0);
        EXPECT_EQ(out.str(), c.expected) << c.start << " to " << c.end;
    }
}

TEST(TcStr, end_of_material_and_products_wrap_or_are_refused_at_the_hour_limit) {
    const struct {
        const char *a, *b; // b: the duration, or null to multiply a by the factor
        uint32_t factor;
        int32_t rate, drop, wrap, hour_limit;
        const char* expected;
        int result;
    } cases[] = {
        {"10:00:00:00", "00:00:10:00", 0, 25, 0, 0, 24, "10:00:09:24", 0},
        {"10:00:00:20", "00:00:00:10", 0, 25, 0, 0, 24, "10:00:01:04", 0},
        {"00:00:00:00", "00:00:00:00", 0, 30, 0, 0, 24, "00:00:00:00", 0},
        {"00:00:00:00", "00:00:00:00", 0, 30, 0, 1, 24, "23:59:59:29", 0},
        {"23:00:00:00", "02:00:00:00", 0, 25, 0, 1, 24, "00:59:59:24", 0},
        {"02:00:00;00", "23:00:00;00", 0, 60, 1, 0, 24, "00:00:00;00", -1},
        {"00:00:00:20", nullptr, 3, 25, 0, 0, 24, "00:00:02:10", 0},
        {"12:34:56:12", nullptr, 0, 25, 0, 0, 24, "00:00:00:00", 0},
        {"00:20:30:15", nullptr, 4, 30, 1, 0, 24, "01:22:02;00", 0},
        {"13:00:00:00", nullptr, 2, 25, 0, 1, 24, "02:00:00:00", 0},
        {"13:00:00:00", nullptr, 2, 25, 0, 0, 24, "00:00:00:00", -1},
        {"00:00:00:01", nullptr, UINT32_MAX, 25, 0, 1, 24, "09:51:31:20", 0},
        {"00:00:01:00", nullptr, 2, 25, 0, 0, 0, "00:00:00:00", -1}, // the limit must be >= 1
    };
    for (const auto& c : cases) {
        TcBuf out;
        const int result =
            c.b ? tcstr_compute_eom(out.get(), c.a, c.b, c.rate, c.drop, c.wrap, c.hour_limit)
                : tcstr_multiply(out.get(), c.a, c.factor, c.rate, c.drop, c.wrap, c.hour_limit);
        EXPECT_EQ(result, c.result) << c.a << (c.b ? " + " : " x ") << (c.b ? c.b : "") << c.factor;
        EXPECT_EQ(out.str(), c.expected)
            << c.a << (c.b ? " + " : " x ") << (c.b ? c.b : "") << c.factor << " wrap " << c.wrap;
    }
}

} // namespace
