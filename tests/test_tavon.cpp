// The server's media commands: the builders' bytes, and the handle operations against the
// emulator with the lines they print.
#include "op_table.h"

#include <zqhandler/tavon.h>
#include <zqhandler/zqhandler_tavon.h>

namespace {

// The queries' frames are in the operations' rows below.
const BuilderCase kBuilders[] = {
    {"name cut to 8, not terminated",
     [](auto c) { return tavon_sense_file_ainfo(c, "ABCDEFGHIJ"); },
     "69 BC 01 41 42 43 44 45 46 47 48"},
    {"empty name", [](auto c) { return tavon_sense_file_vinfo(c, ""); },
     "69 BB 01 00 00 00 00 00 00 00 00"},
    {"cc_foreground", [](auto c) { return tavon_set_cc_foreground(c, 9); }, "41 03 09"},
    {"cc_background", [](auto c) { return tavon_set_cc_background(c, 9); }, "41 04 09"},
    {"video_format", [](auto c) { return tavon_set_video_format(c, 9); }, "41 05 09"},
    {"color_space", [](auto c) { return tavon_set_video_color_space(c, 9); }, "41 06 09"},
    {"aspect_ratio", [](auto c) { return tavon_set_video_aspect_ratio(c, 0x102); }, "41 07 02"},
    {"cc_geometry", [](auto c) { return tavon_set_cc_geometry(c, 9); }, "41 08 09"},
    {"audio_rendering", [](auto c) { return tavon_set_audio_rendering(c, 0x1FF); }, "42 B4 00 FF"},
    {"audio_spdif", [](auto c) { return tavon_set_audio_spdif(c, 3); }, "42 B4 01 03"},
};

TEST(TavonBuilders, frames_carry_selectors_names_values_and_their_checksum) {
    for (const BuilderCase& c : kBuilders)
        run_builder_case(c);
}

#define TEN "01 02 03 04 05 06 07 08 09 0A"

const OpCase kOperations[] = {
    {"capture", zqhandler_cmd_tavon_sense_capture, "60 B2", "7A B2 " TEN, 10, TEN, "7A B3",
     S9P_ERR_PROTOCOL, "sense capture failed 7a.b3\n"},
    {"file video",
     [](auto h, auto out) { return zqhandler_cmd_tavon_sense_file_vinfo(h, "CLIP", out); },
     "69 BB 01 43 4C 49 50 00 00 00 00", "73 BB 01 AA BB", 2, "AA BB", "70 BB 01"},
    {"file audio", [](auto h, auto out) { return zqhandler_cmd_tavon_sense_file_ainfo(h, 0, out); },
     "61 BC 01", "71 BC 01", 0, "", "72 BB 01 CC"},
    {"current video", zqhandler_cmd_tavon_sense_current_vinfo, "61 B3 00", "73 B3 00 AA BB", 3,
     "00 AA BB", "73 B3 02 AA BB"},
    {"current audio", zqhandler_cmd_tavon_sense_current_ainfo, "61 B4 00", "71 B4 00", 1, "00",
     "81 B4 00"},
    {"start-up video, 15 bytes", zqhandler_cmd_tavon_sense_startup_vinfo, "61 B3 02",
     "7F B3 02 " TEN " 0B 0C 0D 0E", 15, "02 " TEN " 0B 0C 0D 0E", "72 B3 00 01"},
    {"start-up audio", zqhandler_cmd_tavon_sense_startup_ainfo, "61 B4 02", "72 B4 02 09", 2,
     "02 09", "72 B4 02", S9P_ERR_PROTOCOL, "sense startup ainfo failed\n"},
    {"caption mode", [](auto h, auto) { return zqhandler_cmd_tavon_ccmode(h, 5); }, "40 01",
     "10 01", 0, "", "12 11 00 00", S9P_ERR_PROTOCOL, "ccmode failed\n", false},
};

TEST(TavonOperations, send_their_frame_check_the_answer_and_print_failures) {
    for (const OpCase& c : kOperations)
        run_op_case(c);
}

} // namespace
