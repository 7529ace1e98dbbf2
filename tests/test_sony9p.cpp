// Sony frames, checksum and error texts; the answer parsers of the three transports.
#include "capture.h"
#include "loopback.h"
#include "sony9p.h"

#include <gtest/gtest.h>
#include <vector>

namespace {

std::vector<uint8_t> frame_of(const t_s9p_command& cmd) {
    return {cmd.data, cmd.data + cmd.len};
}

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

TEST(Sony9p, checksum_is_the_low_byte_of_the_sum) {
    const uint8_t bytes[] = {0xFF, 0x02};
    EXPECT_EQ(s9p_calculate_checksum(bytes, 0), 0);
    EXPECT_EQ(s9p_calculate_checksum(bytes, 2), 0x01);
    EXPECT_EQ(s9p_calculate_checksum(bytes, -1), 0);
}

TEST(Sony9p, every_error_code_has_its_message) {
    const char* expected[] = {
        "No error",          "Cheksum error",        "Communication error",
        "Protocol error",    "Timeout error (send)", "Timeout error (receive)",
        "System error",      "Not connected",        "Invalid argument",
        "Permission denied", "Not implemented",      "Not found",
        "Unknown error"};
    for (int code = S9P_ERR_NONE; code <= S9P_ERR_LAST; ++code)
        EXPECT_STREQ(s9p_err_string[code], expected[code]) << code;
}

TEST(Sony9p, datagram_parser_takes_the_frame_the_header_announces) {
    struct Case {
        const char* name;
        std::vector<uint8_t> datagram;
        e_s9p_err code;
        const char* frame;
    };
    auto with = [](uint8_t size_high, uint8_t size_low, const std::vector<uint8_t>& body) {
        std::vector<uint8_t> d = {0, 1, size_high, size_low, 0, 0, 0, 0, 0, 0};
        for (uint8_t byte : body)
            d.push_back(byte);
        return d;
    };
    const std::vector<uint8_t> nineteen(19, 0x01);
    const Case cases[] = {
        {"13 bytes, size 3", with(0, 3, {0x10, 0x01, 0x11}), S9P_ERR_NONE, "10 01 11"},
        {"high byte of size ignored", with(0x7F, 3, {0x10, 0x01, 0x11}), S9P_ERR_NONE, "10 01 11"},
        {"trailing bytes ignored", with(0, 3, {0x10, 0x01, 0x11, 0xEE}), S9P_ERR_NONE, "10 01 11"},
        {"12 bytes", with(0, 2, {0x10, 0x01}), S9P_ERR_PROTOCOL, ""},
        {"size above what came", with(0, 5, {0x12, 0x11, 0x01, 0x02}), S9P_ERR_PROTOCOL, ""},
        {"size below a frame", with(0, 2, {0x10, 0x01, 0x11}), S9P_ERR_PROTOCOL, ""},
        {"size 19", with(0, 19, nineteen), S9P_ERR_PROTOCOL, ""},
        {"size 255", with(0, 0xFF, std::vector<uint8_t>(300, 0)), S9P_ERR_PROTOCOL, ""},
    };
    for (const Case& c : cases) {
        t_s9p_command answer{};
        EXPECT_EQ(s9p_parse_datagram(c.datagram, &answer), c.code) << c.name;
        EXPECT_EQ(hex(frame_of(answer)), c.frame) << c.name;
    }
}

TEST(Sony9p, stream_header_must_be_s9p_with_a_frame_length_of_3_to_18) {
    struct Case {
        std::vector<uint8_t> header;
        e_s9p_err code;
        int len;
    };
    const Case cases[] = {
        {{'s', '9', 'p', ' ', 0, 0, 0, 3, 0, 0, 0, 0}, S9P_ERR_NONE, 3},
        {{'s', '9', 'p', ' ', 0xFF, 0xFF, 0xFF, 18, 0, 0, 0, 0}, S9P_ERR_NONE, 18},
        {{'s', '9', 'p', ' ', 0, 0, 0, 19, 0, 0, 0, 0}, S9P_ERR_COMM, 0},
        {{'s', '9', 'p', ' ', 0, 0, 0, 2, 0, 0, 0, 0}, S9P_ERR_COMM, 0},
        {{'S', '9', 'P', ' ', 0, 0, 0, 3, 0, 0, 0, 0}, S9P_ERR_COMM, 0},
        {{'a', 'l', 'i', 'v', 0, 0, 0, 3, 0, 0, 0, 0}, S9P_ERR_COMM, 0},
    };
    for (const Case& c : cases) {
        uint8_t len = 0;
        EXPECT_EQ(s9p_parse_stream_header(std::span<const uint8_t, 12>(c.header.data(), 12), &len),
                  c.code)
            << hex(c.header);
        EXPECT_EQ(len, c.len) << hex(c.header);
    }
}

TEST(Sony9p, assembler_builds_a_frame_from_single_bytes_and_stops_at_its_end) {
    S9pFrameAssembler one_by_one;
    for (uint8_t byte : {0x71, 0x20, 0x05, 0x96}) {
        EXPECT_FALSE(one_by_one.complete());
        EXPECT_EQ(one_by_one.take({&byte, 1}), 1u);
    }
    EXPECT_TRUE(one_by_one.complete());
    EXPECT_EQ(hex({one_by_one.frame().begin(), one_by_one.frame().end()}), "71 20 05 96");

    // Two frames back to back: only the first is taken.
    const uint8_t stream[] = {0x10, 0x01, 0x11, 0x10, 0x01, 0x11};
    S9pFrameAssembler first;
    EXPECT_EQ(first.take(stream), 3u);
    EXPECT_TRUE(first.complete());
    EXPECT_EQ(first.take(stream), 0u);
}

TEST(Sony9p, transport_without_connection_fails_both_ways) {
    t_s9p_handle none{};
    none.fd = -1;
    t_s9p_command cmd{};
    cmd.len = 3;
    EXPECT_EQ(s9p_send_cmd(&none, &cmd, 10), -1);
    EXPECT_EQ(cmd.err_status, S9P_ERR_NOT_CONNECTED);
    EXPECT_EQ(s9p_read_answer(&none, &cmd, 10), -1);
    EXPECT_EQ(cmd.err_status, S9P_ERR_NOT_CONNECTED);
}

} // namespace
