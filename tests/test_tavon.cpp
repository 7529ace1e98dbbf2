// The server's media commands: every builder's bytes, and the handle operations against the
// emulator with the messages they print.
#include "common.h"
#include "devsim.h"

#include <functional>
#include <gtest/gtest.h>
#include <zqhandler/tavon.h>

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
