// The server's media commands: every builder's bytes, and the handle operations against the
// emulator with the messages they print.
#include "common.h"
#include "devsim.h"
#include "op_table.h"

#include <functional>
#include <gtest/gtest.h>
#include <zqhandler/tavon.h>
#include <zqhandler/zqhandler_tavon.h>

namespace {

using Bytes = std::vector<uint8_t>;

struct BuilderCase {
    const char* name;
    std::function<int(t_s9p_command*)> build;
    Bytes frame; // without its checksum
};

const BuilderCase kBuilders[] = {
    {"sense_capture", tavon_sense_capture, {0x60, 0xB2}},
    {"sense_current_vinfo", tavon_sense_current_vinfo, {0x61, 0xB3, 0x00}},
    {"sense_startup_vinfo", tavon_sense_startup_vinfo, {0x61, 0xB3, 0x02}},
    {"sense_current_ainfo", tavon_sense_current_ainfo, {0x61, 0xB4, 0x00}},
    {"sense_startup_ainfo", tavon_sense_startup_ainfo, {0x61, 0xB4, 0x02}},
    {"file_vinfo short name is zero padded",
     [](auto c) { return tavon_sense_file_vinfo(c, "CLIP"); },
     {0x69, 0xBB, 0x01, 'C', 'L', 'I', 'P', 0, 0, 0, 0}},
    {"file_vinfo without a name",
     [](auto c) { return tavon_sense_file_vinfo(c, nullptr); },
     {0x61, 0xBB, 0x01}},
    {"file_ainfo longer name is cut, not terminated",
     [](auto c) { return tavon_sense_file_ainfo(c, "ABCDEFGHIJ"); },
     {0x69, 0xBC, 0x01, 'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H'}},
    {"file_ainfo empty name",
     [](auto c) { return tavon_sense_file_ainfo(c, ""); },
     {0x69, 0xBC, 0x01, 0, 0, 0, 0, 0, 0, 0, 0}},
    {"ccmode on", [](auto c) { return tavon_ccmode(c, 1); }, {0x40, 0x01}},
    {"ccmode off", [](auto c) { return tavon_ccmode(c, 0); }, {0x40, 0x00}},
    {"cc_foreground", [](auto c) { return tavon_set_cc_foreground(c, 9); }, {0x41, 0x03, 9}},
    {"cc_background", [](auto c) { return tavon_set_cc_background(c, 9); }, {0x41, 0x04, 9}},
    {"video_format", [](auto c) { return tavon_set_video_format(c, 9); }, {0x41, 0x05, 9}},
    {"color_space", [](auto c) { return tavon_set_video_color_space(c, 9); }, {0x41, 0x06, 9}},
    {"aspect_ratio keeps the low 8 bits",
     [](auto c) { return tavon_set_video_aspect_ratio(c, 0x102); },
     {0x41, 0x07, 0x02}},
    {"cc_geometry", [](auto c) { return tavon_set_cc_geometry(c, 9); }, {0x41, 0x08, 9}},
    {"audio_rendering",
     [](auto c) { return tavon_set_audio_rendering(c, 0x1FF); },
     {0x42, 0xB4, 0x00, 0xFF}},
    {"audio_spdif", [](auto c) { return tavon_set_audio_spdif(c, 3); }, {0x42, 0xB4, 0x01, 3}},
};

TEST(TavonBuilders, frames_carry_selectors_names_values_and_their_checksum) {
    for (const BuilderCase& c : kBuilders) {
        t_s9p_command cmd{};
        ASSERT_EQ(c.build(&cmd), 0) << c.name;
        EXPECT_EQ(hex(frame_of(cmd)), hex(devsim::with_checksum(c.frame))) << c.name;
        EXPECT_EQ(cmd.data[0] & 0x0F, cmd.len - 3) << c.name << ": CMD1 counts the data";
        EXPECT_EQ(c.build(nullptr), -1) << c.name;
    }
}

} // namespace

namespace {

#define TEN 1, 2, 3, 4, 5, 6, 7, 8, 9, 10

const OpCase kOperations[] = {
    {"capture",
     zqhandler_cmd_tavon_sense_capture,
     {0x60, 0xB2},
     {0x7A, 0xB2, TEN},
     10,
     {TEN},
     {0x7A, 0xB3},
     S9P_ERR_PROTOCOL,
     "sense capture failed 7a.b3\n",
     true},
    {"capture cut short",
     zqhandler_cmd_tavon_sense_capture,
     {0x60, 0xB2},
     {0x7A, 0xB2, TEN},
     10,
     {TEN},
     {0x7A, 0xB2, 1, 2},
     S9P_ERR_PROTOCOL,
     "sense capture failed 7a.b2\n",
     true},
    {"file video",
     [](auto h, auto out) { return zqhandler_cmd_tavon_sense_file_vinfo(h, "CLIP", out); },
     {0x69, 0xBB, 0x01, 'C', 'L', 'I', 'P', 0, 0, 0, 0},
     {0x73, 0xBB, 0x01, 0xAA, 0xBB},
     2,
     {0xAA, 0xBB},
     {0x70, 0xBB, 0x01},
     S9P_ERR_PROTOCOL,
     "",
     true},
    {"file audio",
     [](auto h, auto out) { return zqhandler_cmd_tavon_sense_file_ainfo(h, nullptr, out); },
     {0x61, 0xBC, 0x01},
     {0x71, 0xBC, 0x01},
     0,
     {},
     {0x72, 0xBB, 0x01, 0xCC},
     S9P_ERR_PROTOCOL,
     "",
     true},
    {"current video",
     zqhandler_cmd_tavon_sense_current_vinfo,
     {0x61, 0xB3, 0x00},
     {0x73, 0xB3, 0x00, 0xAA, 0xBB},
     3,
     {0x00, 0xAA, 0xBB},
     {0x73, 0xB3, 0x02, 0xAA, 0xBB},
     S9P_ERR_PROTOCOL,
     "",
     true},
    {"current audio",
     zqhandler_cmd_tavon_sense_current_ainfo,
     {0x61, 0xB4, 0x00},
     {0x71, 0xB4, 0x00},
     1,
     {0x00},
     {0x81, 0xB4, 0x00},
     S9P_ERR_PROTOCOL,
     "",
     true},
    {"start-up video",
     zqhandler_cmd_tavon_sense_startup_vinfo,
     {0x61, 0xB3, 0x02},
     {0x7F, 0xB3, 0x02, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14},
     15,
     {0x02, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14},
     {0x72, 0xB3, 0x00, 1},
     S9P_ERR_PROTOCOL,
     "",
     true},
    {"start-up audio",
     zqhandler_cmd_tavon_sense_startup_ainfo,
     {0x61, 0xB4, 0x02},
     {0x72, 0xB4, 0x02, 0x09},
     2,
     {0x02, 0x09},
     {0x72, 0xB4, 0x02},
     S9P_ERR_PROTOCOL,
     "sense startup ainfo failed\n",
     true},
    {"caption mode",
     [](auto h, auto) { return zqhandler_cmd_tavon_ccmode(h, 5); },
     {0x40, 0x01},
     {0x10, 0x01},
     0,
     {},
     {0x12, 0x11, 0x00, 0x00},
     S9P_ERR_PROTOCOL,
     "ccmode failed\n"},
    // A NAK is the exchange's failure, not a wrong answer: no line is printed.
    {"caption mode refused by a NAK",
     [](auto h, auto) { return zqhandler_cmd_tavon_ccmode(h, 0); },
     {0x40, 0x00},
     {0x10, 0x01},
     0,
     {},
     {0x11, 0x12, 0x01},
     S9P_NOT_IMPLEMENTED,
     ""},
};

TEST(TavonOperations, send_their_frame_check_the_answer_and_print_failures) {
    for (const OpCase& c : kOperations)
        run_op_case(c);
}

} // namespace
