// Sony frames: the builder, the checksum and the error texts.
#include "capture.h"
#include "common.h"
#include "loopback.h"

#include <gtest/gtest.h>
#include <vector>
#include <zqhandler/sony9p.h>

namespace {

TEST(Sony9p, misc_appends_the_checksum_and_uses_the_low_nibble_of_the_count) {
    struct Case {
        std::vector<uint8_t> bytes;
        int count;
        const char* frame;
    };
    const Case cases[] = {
        {{0x20, 0x01}, 2, "20 01 21"},
        {{0x20, 0x01}, 0x12, "20 01 21"},
        {{0x43, 0xBF, 0xF0, 0x04, 0x0C}, 5, "43 BF F0 04 0C 02"},
        {{0x4D, 0x00, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13},
         15,
         "4D 00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D A8"},
    };
    for (const Case& c : cases) {
        t_s9p_command cmd{};
        CapturedStdout out;
        EXPECT_EQ(s9p_misc(&cmd, c.bytes.data(), c.count), 0) << c.frame;
        EXPECT_EQ(hex(frame_of(cmd)), c.frame);
        EXPECT_EQ(out.text(), "");
    }
}

TEST(Sony9p, misc_refuses_a_count_that_cmd1_does_not_announce) {
    struct Case {
        std::vector<uint8_t> bytes;
        int count;
        const char* kept;
    };
    const Case cases[] = {
        {{0x61, 0x20}, 2, "61 20 81"}, // CMD1 announces one data byte
        {{0x20, 0x01}, 0x10, "00"},    // low nibble 0
        {{0x20, 0x01}, 1, "20 20"},
        {{0x21, 0x11, 0x05}, 2, "21 11 32"},
    };
    for (const Case& c : cases) {
        t_s9p_command cmd{};
        CapturedStdout out;
        EXPECT_EQ(s9p_misc(&cmd, c.bytes.data(), c.count), -1) << c.kept;
        EXPECT_EQ(out.text(), "s9p_misc: invalid arg\n");
        EXPECT_EQ(cmd.err_status, S9P_INVAL_ARG);
        EXPECT_EQ(hex(frame_of(cmd)), c.kept);
    }
}

TEST(Sony9p, checksum_of_nothing_is_zero_and_texts_keep_their_spelling) {
    const uint8_t bytes[] = {0xFF, 0x02};
    EXPECT_EQ(s9p_calculate_checksum(bytes, 0), 0);
    EXPECT_EQ(s9p_calculate_checksum(bytes, 2), 0x01);
    EXPECT_STREQ(s9p_err_string[S9P_ERR_CHECKSUM], "Cheksum error");
    EXPECT_STREQ(s9p_err_string[S9P_ERR_LAST], "Unknown error");
}

} // namespace
