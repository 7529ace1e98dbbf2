// Timecode strings: shape checks, normal form of typed text, and field-by-field arithmetic.
#include "tc_buffers.h"

#include <gtest/gtest.h>
#include <string>
#include <zqhandler/tc.h>

namespace {

TEST(TcStr, zero_timecode_and_reset_mark_drop_frame_only_at_exactly_30) {
    EXPECT_STREQ(tcstr_tc0, "00:00:00:00");
    struct Case {
        int32_t rate;
        int32_t drop;
        const char* expected;
    };
    const Case cases[] = {
        {30, 1, "00:00:00;00"},
        {30, 0, "00:00:00:00"},
        {25, 1, "00:00:00:00"},
        {60, 1, "00:00:00:00"}, // reset does not halve a field rate
    };
    for (const Case& c : cases) {
        TcBuf out;
        tcstr_reset(out.get(), c.rate, c.drop);
        EXPECT_EQ(out.str(), c.expected) << c.rate << " drop " << c.drop;
    }
}

TEST(TcStr, loose_check_accepts_digit_groups_with_at_most_three_separators_and_eight_digits) {
    struct Case {
        const char* text;
        int valid;
    };
    const Case cases[] = {
        {"", 1},          {"1:2:3:4", 1},  {"12345678", 1},    {"10:", 1},
        {"1.2;3:4", 1},   {"1:2345", 1},   {"1:2:3:4567", 1},  {"123456789", 0},
        {"1:2:3:4:5", 0}, {"1:2:3:4:", 0}, {":12", 0},         {"1::2", 0},
        {"12a", 0},       {" 1", 0},       {"1:234:56789", 0}, {"1-2", 0},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(tcstr_isvalid(HeapText(c.text).get()), c.valid) << '"' << c.text << '"';
    }
    EXPECT_EQ(tcstr_isvalid(nullptr), 0);
}

TEST(TcStr, normal_form_is_eleven_characters_of_digits_and_separators_in_place) {
    struct Case {
        const char* text;
        int normal;
    };
    const Case cases[] = {
        {"10:20:30:15", 1}, {"99:99:99:99", 1},  {"00.00;00:00", 1},
        {"1:02:03:04", 0},  {"10:20:30:150", 0}, {"10:20:30:1", 0},
        {"10-20:30:15", 0}, {"10:20:30:1x", 0},  {"", 0},
        {"1", 0},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(tcstr_isnormal(HeapText(c.text).get()), c.normal) << '"' << c.text << '"';
    }
    EXPECT_EQ(tcstr_isnormal(nullptr), 0);
}

TEST(TcStr, reformat_reads_typed_text_from_the_end_so_the_last_number_is_the_frames) {
    struct Case {
        const char* text;
        int result;
        const char* expected;
    };
    const Case cases[] = {
        {"5", 0, "00:00:00:05"},
        {"1234", 0, "00:00:12:34"},
        {"1:2:3", 0, "00:01:02:03"},
        {"12:", 0, "00:00:12:00"},
        {"1.02;03:04", 0, "01:02:03:04"},
        {"99:99:99:99", 0, "99:99:99:99"},
        {"12345678", 0, "12:34:56:78"},
        {"", 0, ""},
        {"1:2:3:4:5", -1, ""},
        {"123456789", -1, ""},
        {"12a", -1, ""},
        {" 1", -1, ""},
        {"::::", -1, ""},
    };
    for (const Case& c : cases) {
        TcBuf out;
        EXPECT_EQ(tcstr_reformat(out.get(), HeapText(c.text).get()), c.result) << c.text;
        EXPECT_EQ(out.str(), c.expected) << c.text;
    }
    TcBuf out;
    EXPECT_EQ(tcstr_reformat(out.get(), nullptr), 0);
    EXPECT_EQ(out.str(), "");
}

TEST(TcStr, validate_clamps_fields_wraps_hours_and_moves_off_skipped_drop_frames) {
    struct Case {
        const char* text;
        int32_t hour_limit;
        int32_t forward;
        int32_t rate;
        int32_t drop;
        const char* expected;
    };
    const Case cases[] = {
        {"00:01:00:00", 0, 1, 30, 1, "00:01:00;02"},
        {"00:01:00:00", 0, 0, 30, 1, "00:00:59;29"},
        {"00:01:00:01", 0, 1, 30, 1, "00:01:00;02"},
        {"00:01:00:01", 0, 0, 30, 1, "00:00:59;29"},
        {"00:10:00:00", 0, 1, 30, 1, "00:10:00;00"}, // every tenth minute keeps frames 0 and 1
        {"00:01:00:00", 0, 1, 30, 0, "00:01:00:00"},
        {"00:01:00:00", 0, 1, 60, 1, "00:01:00;02"}, // 60 with drop counts as 30 with drop
        {"00:01:00:00", 0, 1, 25, 1, "00:01:00:00"}, // drop-frame only at 30
        {"12:75:80:40", 0, 1, 25, 0, "12:59:59:24"},
        {"00:00:00:49", 0, 1, 50, 0, "00:00:00:24"}, // 50 counts frames 0 to 24
        {"30:00:00:00", 24, 1, 25, 0, "06:00:00:00"},
        {"30:00:00:00", 0, 1, 25, 0, "30:00:00:00"},
        {"1:0:0", 0, 1, 30, 1, "00:01:00;02"},
    };
    for (const Case& c : cases) {
        TcBuf out;
        EXPECT_EQ(tcstr_validate(out.get(), HeapText(c.text).get(), c.hour_limit, c.forward, c.rate,
                                 c.drop),
                  0)
            << c.text;
        EXPECT_EQ(out.str(), c.expected) << c.text << " rate " << c.rate << " fwd " << c.forward;
    }
}

TEST(TcStr, validate_refuses_unreadable_text_and_bad_rates_without_writing) {
    TcBuf out;
    EXPECT_EQ(tcstr_validate(out.get(), "1:2:3:4:5", 24, 1, 25, 0), -1);
    EXPECT_EQ(tcstr_validate(out.get(), "10:00:00:00", 24, 1, 0, 0), -1);
    EXPECT_EQ(out.str(), "<never written>");
    EXPECT_EQ(tcstr_validate(out.get(), "", 24, 1, 25, 0), 0);
    EXPECT_EQ(out.str(), "");
}

// In-place steps: start, rate, drop flag, wrap flag, hour limit (or restart hour), result.
struct StepCase {
    const char* start;
    int32_t rate;
    int32_t drop;
    int32_t wrap;
    int32_t hours;
    const char* expected;
};

TEST(TcStr, increment_carries_at_the_rate_and_60_and_stops_or_wraps_at_the_hour_limit) {
    const StepCase cases[] = {
        {"10:00:00:23", 25, 0, 0, 0, "10:00:00:24"},
        {"00:59:59:24", 25, 0, 0, 0, "01:00:00:00"},
        {"23:59:59:24", 25, 0, 1, 24, "00:00:00:00"},
        {"23:59:59:24", 25, 0, 0, 24, "23:59:59:24"},
        {"23:59:59:24", 25, 0, 0, 0, "24:00:00:00"},
        {"00:00:00:29", 60, 0, 0, 0, "00:00:01:00"},
        {"00:00:59;29", 30, 1, 0, 0, "00:01:00;00"}, // skipped labels are not skipped here
        {"", 25, 0, 0, 0, "00:00:00:01"},            // a short string reads as zeros
    };
    for (const StepCase& c : cases) {
        TcBuf tc(c.start);
        EXPECT_EQ(tcstr_incremente(tc.get(), c.rate, c.drop, c.wrap, c.hours), 0) << c.start;
        EXPECT_EQ(tc.str(), c.expected) << c.start << " wrap " << c.wrap;
    }
}

TEST(TcStr, decrement_borrows_and_stays_at_zero_or_restarts_below_the_restart_hour) {
    const StepCase cases[] = {
        {"01:00:00:00", 25, 0, 0, 24, "00:59:59:24"}, {"00:00:00:00", 25, 0, 1, 24, "23:59:59:24"},
        {"00:00:00:00", 25, 0, 0, 24, "00:00:00:00"}, {"00:00:00:00", 30, 1, 0, 24, "00:00:00;00"},
        {"00:01:00;02", 30, 1, 0, 24, "00:01:00;01"}, {"00:00:00:00", 50, 0, 1, 1, "00:59:59:24"},
    };
    for (const StepCase& c : cases) {
        TcBuf tc(c.start);
        EXPECT_EQ(tcstr_decremente(tc.get(), c.rate, c.drop, c.wrap, c.hours), 0) << c.start;
        EXPECT_EQ(tc.str(), c.expected) << c.start << " wrap " << c.wrap;
    }
    TcBuf zero("00:00:00:00");
    EXPECT_EQ(tcstr_decremente(zero.get(), 25, 0, 1, 0), -1) << "restart hour 0 is refused";
    EXPECT_EQ(zero.str(), "00:00:00:00");
}

TEST(TcStr, duration_counts_both_ends_and_is_empty_when_the_end_comes_first) {
    struct Case {
        const char* start;
        const char* end;
        int32_t rate;
        int32_t wrap;
        int32_t hour_limit;
        const char* expected;
    };
    const Case cases[] = {
        {"10:00:00:00", "10:00:00:24", 25, 0, 24, "00:00:01:00"},
        {"10:00:00:00", "10:00:00:00", 25, 0, 24, "00:00:00:01"},
        {"10:00:59:29", "11:00:00:00", 30, 0, 24, "00:59:00:02"},
        {"10:00:00:01", "10:00:00:00", 25, 0, 24, ""},
        {"10:00:00:00", "09:59:59:24", 25, 0, 24, ""},
        {"00:00:00:00", "23:59:59:24", 25, 1, 24, "00:00:00:00"},
        {"00:00:00:00", "23:59:59:24", 25, 0, 24, "23:59:59:24"},
        {"00:00:00:00", "23:59:59:24", 25, 0, 0, "24:00:00:00"},
        {"00:00:00;00", "00:01:00;02", 30, 0, 0, "00:01:00:03"}, // never drop-frame
    };
    for (const Case& c : cases) {
        TcBuf out;
        EXPECT_EQ(tcstr_compute_duration(out.get(), c.start, c.end, c.rate, c.wrap, c.hour_limit),
                  0);
        EXPECT_EQ(out.str(), c.expected) << c.start << " to " << c.end;
    }
}

// Field operations with an hour limit: inputs, rate, drop, wrap, limit, result and return.
struct LimitCase {
    const char* a;
    const char* b;
    uint32_t factor;
    int32_t rate;
    int32_t drop;
    int32_t wrap;
    int32_t hour_limit;
    const char* expected;
    int result;
};

TEST(TcStr, end_of_material_is_the_last_frame_and_wraps_or_refuses_at_the_hour_limit) {
    const LimitCase cases[] = {
        {"10:00:00:00", "00:00:10:00", 0, 25, 0, 0, 24, "10:00:09:24", 0},
        {"10:00:00:20", "00:00:00:10", 0, 25, 0, 0, 24, "10:00:01:04", 0},
        {"00:00:00:00", "00:00:00:00", 0, 30, 0, 0, 24, "00:00:00:00", 0},
        {"00:00:00:00", "00:00:00:00", 0, 30, 0, 1, 24, "23:59:59:29", 0},
        {"23:00:00:00", "02:00:00:00", 0, 25, 0, 1, 24, "00:59:59:24", 0},
        {"23:00:00:00", "02:00:00:00", 0, 25, 0, 0, 24, "00:00:00:00", -1},
        {"01:00:00;00", "00:00:01;00", 0, 30, 1, 0, 24, "01:00:00;29", 0},
        {"02:00:00;00", "23:00:00;00", 0, 60, 1, 0, 24, "00:00:00;00", -1},
        {"01:00:00:00", "00:00:01:00", 0, 25, 0, 0, 0, "00:00:00:00", -1}, // limit must be >= 1
    };
    for (const LimitCase& c : cases) {
        TcBuf out;
        EXPECT_EQ(tcstr_compute_eom(out.get(), c.a, c.b, c.rate, c.drop, c.wrap, c.hour_limit),
                  c.result)
            << c.a << " + " << c.b;
        EXPECT_EQ(out.str(), c.expected) << c.a << " + " << c.b << " wrap " << c.wrap;
    }
}

TEST(TcStr, multiply_carries_every_field_and_wraps_or_refuses_at_the_hour_limit) {
    const LimitCase cases[] = {
        {"00:00:00:20", nullptr, 3, 25, 0, 0, 24, "00:00:02:10", 0},
        {"12:34:56:12", nullptr, 0, 25, 0, 0, 24, "00:00:00:00", 0},
        {"00:20:30:15", nullptr, 4, 30, 0, 0, 24, "01:22:02:00", 0},
        {"13:00:00:00", nullptr, 2, 25, 0, 1, 24, "02:00:00:00", 0},
        {"13:00:00:00", nullptr, 2, 25, 0, 0, 24, "00:00:00:00", -1},
        {"01:00:00;00", nullptr, 30, 30, 1, 0, 24, "00:00:00;00", -1},
        {"00:00:00:01", nullptr, UINT32_MAX, 25, 0, 1, 24, "09:51:31:20", 0},
        {"00:00:01:00", nullptr, 2, 25, 0, 0, 0, "00:00:00:00", -1}, // limit must be >= 1
    };
    for (const LimitCase& c : cases) {
        TcBuf out;
        EXPECT_EQ(tcstr_multiply(out.get(), c.a, c.factor, c.rate, c.drop, c.wrap, c.hour_limit),
                  c.result)
            << c.a << " x " << c.factor;
        EXPECT_EQ(out.str(), c.expected) << c.a << " x " << c.factor << " wrap " << c.wrap;
    }
}

TEST(TcStr, a_rate_below_one_is_refused_before_anything_is_written) {
    TcBuf out;
    TcBuf tc("10:00:00:00");
    EXPECT_EQ(tcstr_incremente(tc.get(), 0, 0, 0, 0), -1);
    EXPECT_EQ(tcstr_decremente(tc.get(), -25, 0, 0, 24), -1);
    EXPECT_EQ(tc.str(), "10:00:00:00");
    EXPECT_EQ(tcstr_compute_duration(out.get(), tcstr_tc0, tcstr_tc0, 0, 0, 24), -1);
    EXPECT_EQ(tcstr_compute_eom(out.get(), tcstr_tc0, tcstr_tc0, 0, 0, 0, 24), -1);
    EXPECT_EQ(tcstr_multiply(out.get(), tcstr_tc0, 2, INT32_MIN, 0, 0, 24), -1);
    EXPECT_EQ(out.str(), "<never written>");
}

TEST(TcStr, a_null_result_buffer_is_refused) {
    EXPECT_EQ(tcstr_reformat(nullptr, "1"), -1);
    EXPECT_EQ(tcstr_validate(nullptr, "1", 24, 1, 25, 0), -1);
    EXPECT_EQ(tcstr_incremente(nullptr, 25, 0, 0, 24), -1);
    EXPECT_EQ(tcstr_decremente(nullptr, 25, 0, 0, 24), -1);
    EXPECT_EQ(tcstr_compute_duration(nullptr, tcstr_tc0, tcstr_tc0, 25, 0, 24), -1);
    EXPECT_EQ(tcstr_compute_eom(nullptr, tcstr_tc0, tcstr_tc0, 25, 0, 0, 24), -1);
    EXPECT_EQ(tcstr_multiply(nullptr, tcstr_tc0, 1, 25, 0, 0, 24), -1);
    tcstr_reset(nullptr, 30, 1); // does nothing
}

} // namespace
