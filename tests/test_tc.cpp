// Timecode conversions: typed text, BCD, frame counts over whole days, and the 12-byte rule.
// Garbage text is the fuzz target's (tests/fuzz/fuzz_tc.cpp), with long and odd seeds.
#include "tc_buffers.h"

#include <array>
#include <climits>
#include <cstdio>
#include <functional>
#include <gtest/gtest.h>
#include <tuple>
#include <zqhandler/tc.h>

namespace {

using Bcd = std::array<uint8_t, 4>;

std::string hex(const Bcd& b) {
    char text[16];
    std::snprintf(text, sizeof text, "%02x %02x %02x %02x", b[0], b[1], b[2], b[3]);
    return text;
}

// Typed text is read from the start, seconds and minutes carrying; BCD ignores a device's flag
// bits, and only ";" before the frames marks drop-frame. Normal labels go both ways in the day
// sweep below.
TEST(Tc, typed_text_and_bcd_read_as_a_device_and_a_person_write_them) {
    const struct {
        const char* text;
        int result;
        const char *fixed, *bcd;
    } cases[] = {
        {"123", 0, "00:00:12:03", "03 12 00 00"},
        {"12::34", 0, "00:00:12:34", "34 12 00 00"},
        {"0:59:60:00", 0, "01:00:00:00", "00 00 00 01"},
        {"1:2;3", 0, "00:01:02:03", "03 02 01 00"},
        {"1:2:3:4:5", 0, "01:02:03:04", "04 03 02 01"}, // a fifth number is ignored
        {":12", -1, "00:00:00:00", "00 00 00 00"},
        {"", -1, "00:00:00:00", "00 00 00 00"},
    };
    for (const auto& c : cases) {
        TcBuf out;
        Bcd bcd{0xEE, 0xEE, 0xEE, 0xEE};
        EXPECT_EQ(tc_fix_tcstr(out.get(), HeapText(c.text).get()), c.result) << c.text;
        EXPECT_EQ(out.str(), c.fixed) << c.text;
        EXPECT_EQ(tc_tcstr2bcd(bcd.data(), HeapText(c.text).get()), 0);
        EXPECT_EQ(hex(bcd), c.bcd) << c.text;
    }
    const std::pair<Bcd, const char*> labels[] = {
        {{0xC5, 0xB0, 0x59, 0xE3}, "23:59:30;05"}, // flag bits above the tens
        {{0x00, 0x00, 0xA0, 0x00}, "00::0:00:00"}, // minutes' tens unmasked, 10 gives ':'
    };
    for (const auto& [bcd, label] : labels) {
        TcBuf out;
        EXPECT_EQ(tc_bcd2tcstr(out.get(), bcd.data()), 0);
        EXPECT_EQ(out.str(), label) << hex(bcd);
    }
}

// A count that a signed 32-bit number cannot hold is refused; a label drop-frame counting skips is
// first moved to frame 2 of its second.
TEST(Tc, counts_refuse_what_32_bits_cannot_hold_and_skipped_labels_move_to_frame_2) {
    // record, rate, drop, count, its frames afterwards
    const std::tuple<t_tc_struct, int32_t, int32_t, int32_t, int32_t> cases[] = {
        {{0, 1, 0, 1}, 30, 1, 1800, 2},
        {{19885, 0, 0, 0}, 30, 1, 2145432420, 0},
        {{19885, 0, 0, 0}, 30, 0, -1, 0}, // over 2^31 - 1 frames without drop-frame
        {{0, 0, 0, -1}, 25, 0, -1, -1},
    };
    for (auto [record, rate, drop, count, frames_after] : cases) {
        EXPECT_EQ(tc_struct2frames(&record, rate, drop), count) << record.hours;
        EXPECT_EQ(record.frames, frames_after);
    }
    EXPECT_EQ(tc_tcstr2frames("01:00", 25, 0), 90000) << "a short string reads as zeros";
    EXPECT_EQ(tc_tcstr2frames("-1:00:00:00", 25, 0), -1) << "'-' reads as a negative digit";
}

// Every call that writes a timecode: what it writes, within exactly 12 bytes. Hours of 100 or more
// keep their last two digits; a null buffer or a rate below 1 is refused and nothing is written.
TEST(Tc, results_stay_within_12_bytes_and_refusals_write_nothing) {
    const std::tuple<std::function<int(char*)>, int, const char*> cases[] = {
        {[](char* r) { return tc_tcstradd(r, "00:00:59;29", "00:00:00;01", 30, 1); }, 0,
         "00:01:00;02"},
        {[](char* r) { return tc_tcstradd(r, "00:00:00:20", "00:00:00:20", 50, 0); }, 0,
         "00:00:01:15"},
        {[](char* r) { return tc_tcstrsub(r, "00:00:01:00", "00:00:02:00", 25, 0); }, 0,
         "00:00:00:00"},
        {[](char* r) { return tc_tcstradd(r, "-1:00:00:00", "00:00:01:00", 25, 0); }, -1,
         "00:00:00:00"},
        {[](char* r) { return tc_set_0(r); }, -1, "00:00:00:00"},
        {[](char* r) { return tc_frames2tcstr(UINT32_MAX, 30, 1, r); }, 0, "08:01:25;11"},
        {[](char* r) { return tc_frames2tcstr_clip24(UINT32_MAX, 25, 0, r); }, 0, "09:51:31:20"},
        {[](char* r) { return tc_tcstradd(r, "99:00:00:00", "02:00:00:00", 25, 0); }, 0,
         "01:00:00:00"},
        {[](char* r) { return tcstr_compute_eom(r, "60:00:00:00", "60:00:00:01", 25, 0, 0, 1000); },
         0, "20:00:00:00"},
        {[](char* r) { return tcstr_incremente(std::strcpy(r, "99:59:59:24"), 25, 0, 0, 0); }, 0,
         "00:00:00:00"},
        {[](char* r) { return tc_fix_tcstr(r, "99:99:99:99"); }, 0, "00:40:39:99"},
        {[](char* r) { return tc_frames2tcstr(1, 0, 0, r); }, -1, "<never written>"},
        {[](char* r) { return tc_tcstrsub(r, tcstr_tc0, tcstr_tc0, -30, 1); }, -1,
         "<never written>"},
        {[](char* r) { return tcstr_decremente(std::strcpy(r, "10:00:00:00"), -25, 0, 0, 24); }, -1,
         "10:00:00:00"},
        {[](char*) { return tc_fix_tcstr(nullptr, "1"); }, -1, "<never written>"},
        {[](char*) { return tc_bcd2tcstr(nullptr, Bcd{}.data()); }, -1, "<never written>"},
    };
    for (const auto& [call, result, expected] : cases) {
        TcBuf out;
        EXPECT_EQ(call(out.get()), result) << expected;
        EXPECT_EQ(out.str(), expected);
    }
    // The frames field against the rate as given (not halved), two digits or nothing.
    const std::tuple<const char*, int32_t, int> frames[] = {{"00:00:00:24", 25, 0},
                                                            {"00:00:00:25", 25, -1},
                                                            {"00:00:00:49", 50, 0},
                                                            {"00:00:00:2", 25, -1}};
    for (const auto& [text, rate, result] : frames)
        EXPECT_EQ(tc_validstr(HeapText(text).get(), rate), result) << text;
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
