// The Sony catalogue: the encodings of the computed builders at their edges, and the arguments
// they refuse. The fixed frames, and one frame of each builder, are rows of the basic tables and
// of the operation tables (test_zqhandler_sony).
#include "op_table.h"

#include <zqhandler/s9p_commands.h>

namespace {

// Speed in percent -> the speed byte N, across each step of the encoding.
const std::pair<int, const char*> kSpeeds[] = {
    {-5, "00"},  {0, "00"},   {1, "00"},   {2, "09"},      {3, "0F"},   {10, "20"},
    {50, "36"},  {100, "40"}, {101, "40"}, {149, "40"},    {150, "4A"}, {349, "4A"},
    {350, "56"}, {749, "56"}, {750, "60"}, {100000, "60"},
};

TEST(S9pBuilders, speed_byte_follows_the_logarithm_then_the_ladder) {
    for (const auto& [speed, n] : kSpeeds) {
        const std::string name = "speed " + std::to_string(speed);
        run_builder_case({name.c_str(), [s = speed](auto c) { return s9p_jog_forward(c, s); },
                          (std::string("21 11 ") + n).c_str()});
    }
}

const uint8_t kSection[S9P_MENU_SECTION_MAX] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14};

const BuilderCase kBuilders[] = {
    {"step count's low 8 bits", [](auto c) { return s9p_step_forward(c, 300); }, "21 14 2C"},
    {"standby on is any non-zero", [](auto c) { return s9p_standby(c, 7); }, "20 05"},
    {"cue without timecode", [](auto c) { return s9p_cueWithData(c, nullptr); }, "20 31"},
    {"clips 0 and 9999", [](auto c) { return s9p_preset_clip_next(c, 0, 9999); },
     "44 97 00 00 99 99"},
    {"channel's low 8 bits", [](auto c) { return s9p_preset_channel(c, 0x102); }, "31 10 02"},
    {"timer mode", [](auto c) { return s9p_timermode(c, 0x1FF); }, "41 36 FF"},
    {"loop off", [](auto c) { return s9p_loopmode(c, 0); }, "41 B7 00"},
    {"commit section", [](auto c) { return s9p_menu_commit_section(c, 0x105); }, "41 C1 05"},
    {"save no bytes", [](auto c) { return s9p_menu_save_section(c, 5, nullptr, 0); }, "41 C0 05"},
    {"save the longest section", [](auto c) { return s9p_menu_save_section(c, 5, kSection, 14); },
     "4F C0 05 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E"},
    {"status range's low nibbles", [](auto c) { return s9p_sense_status_range(c, 0x12, 0x34); },
     "61 20 24"},
};

TEST(S9pBuilders, computed_frames_carry_their_arguments_and_checksum) {
    for (const BuilderCase& c : kBuilders)
        run_builder_case(c);
}

TEST(S9pBuilders, clips_without_bcd_and_oversized_sections_are_refused_untouched) {
    const std::pair<const char*, std::function<int(t_s9p_command*)>> refused[] = {
        {"clip 10000", [](auto c) { return s9p_preset_clip_prev(c, 10000, 1); }},
        {"other clip -1", [](auto c) { return s9p_preset_clip_next(c, 1, -1); }},
        {"clip parameters of 10000",
         [](auto c) { return s9p_save_clip_parameters(c, 10000, 1, 2); }},
        {"clip sense of -1", [](auto c) { return s9p_sense_clip_parameters(c, -1); }},
        {"15 section bytes", [](auto c) { return s9p_menu_save_section(c, 5, kSection, 15); }},
        {"negative count", [](auto c) { return s9p_menu_save_section(c, 5, kSection, -1); }},
        {"bytes missing", [](auto c) { return s9p_menu_save_section(c, 5, nullptr, 2); }},
    };
    for (const auto& [name, build] : refused) {
        t_s9p_command cmd;
        memset(&cmd, 0xEE, sizeof cmd);
        EXPECT_EQ(build(&cmd), -1) << name;
        EXPECT_EQ(cmd.err_status, static_cast<uint32_t>(S9P_INVAL_ARG)) << name;
        EXPECT_EQ(cmd.len, 0xEE) << name;
        EXPECT_EQ(std::count(std::begin(cmd.data), std::end(cmd.data), 0xEE), S9P_MAX_FRAME)
            << name;
        EXPECT_EQ(build(nullptr), -1) << name;
    }
}

} // namespace
