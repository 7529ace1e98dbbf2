// Sony frames: the builder, the checksum and the error texts.
#include "capture.h"
#include "common.h"
#include "loopback.h"

#include <climits>
#include <gtest/gtest.h>
#include <tuple>
#include <vector>
#include <zqhandler/sony9p.h>

namespace {

// What the record holds afterwards, refused or not: the bytes taken, their checksum, the length.
TEST(Sony9p, misc_appends_the_checksum_and_refuses_a_count_that_cmd1_does_not_announce) {
    // bytes, count, built, the record's frame afterwards
    const std::tuple<std::vector<uint8_t>, int, bool, const char*> cases[] = {
        {{0x20, 0x01}, 2, true, "20 01 21"},
        {{0x20, 0x01}, 0x12, true, "20 01 21"}, // only the low nibble of the count
        {{0x43, 0xBF, 0xF0, 0x04, 0x0C}, 5, true, "43 BF F0 04 0C 02"},
        {{0x4D, 0x00, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13},
         15,
         true,
         "4D 00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D A8"},
        {{0x61, 0x20}, 2, false, "61 20 81"}, // CMD1 announces one data byte
        {{0x20, 0x01}, 0x10, false, "00"},    // low nibble 0
        {{0x20, 0x01}, 1, false, "20 20"},
    };
    for (const auto& [bytes, count, built, frame] : cases) {
        t_s9p_command cmd{};
        CapturedStdout out;
        EXPECT_EQ(s9p_misc(&cmd, bytes.data(), count), built ? 0 : -1) << frame;
        EXPECT_EQ(hex(frame_of(cmd)), frame);
        EXPECT_EQ(out.text(), built ? "" : "s9p_misc: invalid arg\n") << frame;
        EXPECT_EQ(cmd.err_status, built ? S9P_ERR_NONE : S9P_INVAL_ARG) << frame;
    }
}

TEST(Sony9p, checksum_of_nothing_is_zero_and_every_code_has_a_text) {
    const uint8_t bytes[] = {0xFF, 0x02};
    EXPECT_EQ(s9p_calculate_checksum(bytes, 0), 0);
    EXPECT_EQ(s9p_calculate_checksum(bytes, 2), 0x01);
    EXPECT_STREQ(s9p_strerror(S9P_ERR_CHECKSUM), "Cheksum error");
    EXPECT_STREQ(s9p_strerror(S9P_NOTFOUND), "Not found");
    for (int code : {-1, int{S9P_ERR_LAST}, S9P_ERR_LAST + 1, INT_MIN})
        EXPECT_STREQ(s9p_strerror(code), "Unknown error") << code;
}

} // namespace
