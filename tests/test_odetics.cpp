// Odetics: the builders' ID, timecode and preset forms, and the handle operations against the
// emulator.
#include "op_table.h"

#include <zqhandler/odetics.h>
#include <zqhandler/zqhandler_odetics.h>

namespace {

const uint8_t kDeviceId[8] = {'D', 0, 'V', 0xFF, 1, 2, 3, 0};
#define CLIP1 "43 4C 49 50 31 20 20 20"
#define SPACES "20 20 20 20 20 20 20 20"

// The forms the fixed frames and the operations below do not show; the fixed frames are rows of
// the basic command and sense tables.
const BuilderCase kBuilders[] = {
    {"timecode", [](auto c) { return odetics_inPreset(c, nullptr, "01:02:03:04"); },
     "44 14 04 03 02 01"},
    {"drop-frame timecode", [](auto c) { return odetics_outPreview(c, "01:02:03;04"); },
     "A4 05 44 03 02 01"},
    {"timecode before ID", [](auto c) { return odetics_inPreview(c, "ABCDEFGH", "01:02:03:04"); },
     "AC 04 04 03 02 01 41 42 43 44 45 46 47 48"},
    {"empty ID", [](auto c) { return odetics_inPreset(c, "", nullptr); }, "48 14 " SPACES},
    {"null ID where one is needed", [](auto c) { return odetics_eraseID(c, nullptr); },
     "A8 10 " SPACES},
    {"longer ID cut to 8", [](auto c) { return odetics_sense_id_status(c, "LONGCLIPNAME"); },
     "A8 18 4C 4F 4E 47 43 4C 49 50"},
};

TEST(OdeticsBuilders, frames_carry_ids_timecodes_and_their_checksum) {
    for (const BuilderCase& c : kBuilders)
        run_builder_case(c);
}

char* text(uint8_t* out) {
    return reinterpret_cast<char*>(out);
}
int first_id(t_zqhandler* h, uint8_t* out) {
    return zqhandler_cmd_odetics_sense_firstID(h, text(out));
}
int next_id(t_zqhandler* h, uint8_t* out) {
    return zqhandler_cmd_odetics_sense_nextID(h, text(out));
}
// Commands answered by an ACK: any answer starting 0x10 succeeds, anything else is refused.
#define ACKED(name, call, sent)                                                                    \
    OpCase {                                                                                       \
        name, [](t_zqhandler* h, uint8_t*) { return call; }, sent, "10 05", 0, "", "12 11 00 00",  \
            S9P_ERR_PROTOCOL, "", false                                                            \
    }

const OpCase kOperations[] = {
    ACKED("automode", zqhandler_cmd_automode(h, 1), "40 41"),
    ACKED("inPreset", zqhandler_cmd_odetics_inPreset(h, "CLIP1", 0), "48 14 " CLIP1),
    ACKED("outPreset", zqhandler_cmd_odetics_outPreset(h, 0), "40 15"),
    ACKED("inPreview", zqhandler_cmd_odetics_inPreview(h, 0, 0), "A0 04"),
    ACKED("outPreview", zqhandler_cmd_odetics_outPreview(h, 0), "A0 05"),
    ACKED("recordCueUp", zqhandler_cmd_odetics_recordCueUp(h, 0, 0), "A0 02"),
    ACKED("eraseID", zqhandler_cmd_odetics_eraseID(h, "CLIP1"), "A8 10 " CLIP1),
    ACKED("eraseSegment", zqhandler_cmd_odetics_eraseSegment(h, "01:02:03:04", ""),
          "A8 11 04 03 02 01 00 00 00 00"),
    ACKED("set_deviceID", zqhandler_cmd_odetics_set_deviceID(h, kDeviceId),
          "A8 20 44 00 56 FF 01 02 03 00"),
    // A next-ID answer is not a first ID.
    {"first ID", first_id, "A0 14", "88 14 " CLIP1, 0, CLIP1 " 00", "88 15 " CLIP1},
    {"first ID of an empty list", first_id, "A0 14", "88 14 " CLIP1, 0, CLIP1 " 00", "80 14",
     S9P_NOTFOUND},
    {"next ID", next_id, "A0 15", "88 15 " CLIP1, 0, CLIP1 " 00", "80 15", S9P_NOTFOUND},
    {"next ID cut short", next_id, "A0 15", "88 14 " CLIP1, 0, CLIP1 " 00", "88 15 43 4C"},
    {"ID status",
     [](auto h, auto out) { return zqhandler_cmd_odetics_sense_id_status(h, "CLIP1", out); },
     "A8 18 " CLIP1, "81 18 05", 0, "05", "81 19 05", S9P_ERR_PROTOCOL, "", false},
    {"ID length",
     [](auto h, auto out) { return zqhandler_cmd_odetics_sense_id_length(h, "CLIP1", text(out)); },
     "69 C1 03 " CLIP1, "74 C1 15 30 20 10", 0, "31 30 3A 32 30 3A 33 30 3A 31 35 00", "74 C1 15",
     S9P_ERR_PROTOCOL, "", false},
};

TEST(OdeticsOperations, send_their_frame_and_check_the_answer) {
    for (const OpCase& c : kOperations)
        run_op_case(c);
}

} // namespace
