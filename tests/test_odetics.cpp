// Odetics: every builder's bytes for the ID, timecode and preset forms, and the handle operations
// against the emulator.
#include "common.h"
#include "devsim.h"
#include "op_table.h"

#include <functional>
#include <gtest/gtest.h>
#include <zqhandler/odetics.h>
#include <zqhandler/zqhandler_odetics.h>

namespace {

using Bytes = std::vector<uint8_t>;

struct BuilderCase {
    const char* name;
    std::function<int(t_s9p_command*)> build;
    Bytes frame; // without its checksum
};

const uint8_t kDeviceId[8] = {'D', 0, 'V', 0xFF, 1, 2, 3, 0};

// Spaces of an ID's padding, for readable rows.
#define SP8 0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20
#define TC_1234 0x04, 0x03, 0x02, 0x01 // 01:02:03:04

const BuilderCase kBuilders[] = {
    {"autoskip", odetics_autoskip, {0xA0, 0x01}},
    {"recordCueUp", [](auto c) { return odetics_recordCueUp(c, nullptr, nullptr); }, {0xA0, 0x02}},
    {"recordCueUp id",
     [](auto c) { return odetics_recordCueUp(c, "CLIP1", nullptr); },
     {0xA8, 0x02, 'C', 'L', 'I', 'P', '1', 0x20, 0x20, 0x20}},
    {"recordCueUp tc",
     [](auto c) { return odetics_recordCueUp(c, nullptr, "01:02:03:04"); },
     {0xA4, 0x02, TC_1234}},
    {"recordCueUp id tc: the timecode first",
     [](auto c) { return odetics_recordCueUp(c, "ABCDEFGH", "01:02:03:04"); },
     {0xAC, 0x02, TC_1234, 'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H'}},
    {"inPreview empty id is spaces",
     [](auto c) { return odetics_inPreview(c, "", nullptr); },
     {0xA8, 0x04, SP8}},
    {"outPreview", [](auto c) { return odetics_outPreview(c, nullptr); }, {0xA0, 0x05}},
    {"outPreview drop frame",
     [](auto c) { return odetics_outPreview(c, "01:02:03;04"); },
     {0xA4, 0x05, 0x44, 0x03, 0x02, 0x01}},
    {"preview_inreset", odetics_preview_inreset, {0xA0, 0x06}},
    {"preview_outreset", odetics_preview_outreset, {0xA0, 0x07}},
    {"eraseAllID", odetics_eraseAllID, {0xA0, 0x10}},
    {"eraseID longer id is cut",
     [](auto c) { return odetics_eraseID(c, "LONGCLIPNAME"); },
     {0xA8, 0x10, 'L', 'O', 'N', 'G', 'C', 'L', 'I', 'P'}},
    {"eraseID null", [](auto c) { return odetics_eraseID(c, nullptr); }, {0xA8, 0x10, SP8}},
    {"eraseSegment",
     [](auto c) { return odetics_eraseSegment(c, "01:02:03:04", "10:20:30:15"); },
     {0xA8, 0x11, TC_1234, 0x15, 0x30, 0x20, 0x10}},
    {"sense_firstID", odetics_sense_firstID, {0xA0, 0x14}},
    {"sense_nextID", odetics_sense_nextID, {0xA0, 0x15}},
    {"sense_id_status",
     [](auto c) { return odetics_sense_id_status(c, "A"); },
     {0xA8, 0x18, 'A', 0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20}},
    {"sense_storage", odetics_sense_storage, {0xA0, 0x1C}},
    {"set_deviceID copies zero bytes",
     [](auto c) { return odetics_set_deviceID(c, kDeviceId); },
     {0xA8, 0x20, 'D', 0, 'V', 0xFF, 1, 2, 3, 0}},
    {"sense_deviceID", odetics_sense_deviceID, {0xA0, 0x21}},
    {"inreset", odetics_inreset, {0x40, 0x20}},
    {"outreset", odetics_outreset, {0x40, 0x21}},
    {"automode off", [](auto c) { return odetics_automode(c, 0); }, {0x40, 0x40}},
    {"automode any non-zero is on", [](auto c) { return odetics_automode(c, 7); }, {0x40, 0x41}},
    {"inPreset", [](auto c) { return odetics_inPreset(c, nullptr, nullptr); }, {0x40, 0x14}},
    {"inPreset tc",
     [](auto c) { return odetics_inPreset(c, nullptr, "01:02:03:04"); },
     {0x44, 0x14, TC_1234}},
    {"inPreset id tc",
     [](auto c) { return odetics_inPreset(c, "X", "01:02:03:04"); },
     {0x4C, 0x14, TC_1234, 'X', 0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20}},
    {"outPreset tc",
     [](auto c) { return odetics_outPreset(c, "01:02:03:04"); },
     {0x44, 0x15, TC_1234}},
    {"sense_odetics", odetics_sense_odetics, {0x60, 0xAA}},
    {"sense_loadedID", odetics_sense_loadedID, {0x61, 0xC1, 0x01}},
    {"sense_lengthID",
     [](auto c) { return odetics_sense_lengthID(c, "A"); },
     {0x69, 0xC1, 0x03, 'A', 0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20}},
};

TEST(OdeticsBuilders, frames_carry_ids_timecodes_and_their_checksum) {
    for (const BuilderCase& c : kBuilders) {
        t_s9p_command cmd{};
        cmd.err_status = 99; // builders touch only the frame
        ASSERT_EQ(c.build(&cmd), 0) << c.name;
        EXPECT_EQ(hex(frame_of(cmd)), hex(devsim::with_checksum(c.frame))) << c.name;
        EXPECT_EQ(cmd.data[0] & 0x0F, cmd.len - 3) << c.name << ": CMD1 counts the data";
        EXPECT_EQ(cmd.err_status, 99u) << c.name;
        EXPECT_EQ(c.build(nullptr), -1) << c.name;
    }
}

} // namespace

namespace {

#define CLIP1 'C', 'L', 'I', 'P', '1', 0x20, 0x20, 0x20
const uint8_t kNoise[] = {0x12, 0x11, 0x00, 0x00};
const OpCase::Bytes kNotAck(kNoise, kNoise + 4);

// ACK operations: any answer starting 0x10 succeeds; anything else is a protocol error.
OpCase acked(const char* name, std::function<int(t_zqhandler*)> op, OpCase::Bytes sent) {
    return {name,   [op](t_zqhandler* h, uint8_t*) { return op(h); }, sent, {0x10, 0x05}, 0, {},
            kNotAck};
}

char* text(uint8_t* out) {
    return reinterpret_cast<char*>(out);
}

const OpCase kOperations[] = {
    acked("automode", [](auto h) { return zqhandler_cmd_automode(h, 1); }, {0x40, 0x41}),
    acked("inPreset", [](auto h) { return zqhandler_cmd_odetics_inPreset(h, "CLIP1", nullptr); },
          {0x48, 0x14, CLIP1}),
    acked("outPreset", [](auto h) { return zqhandler_cmd_odetics_outPreset(h, nullptr); },
          {0x40, 0x15}),
    acked("inPreview", [](auto h) { return zqhandler_cmd_odetics_inPreview(h, nullptr, nullptr); },
          {0xA0, 0x04}),
    acked("outPreview", [](auto h) { return zqhandler_cmd_odetics_outPreview(h, "01:02:03:04"); },
          {0xA4, 0x05, TC_1234}),
    acked("recordCueUp",
          [](auto h) { return zqhandler_cmd_odetics_recordCueUp(h, "CLIP1", nullptr); },
          {0xA8, 0x02, CLIP1}),
    acked("eraseID", [](auto h) { return zqhandler_cmd_odetics_eraseID(h, "CLIP1"); },
          {0xA8, 0x10, CLIP1}),
    acked(
        "eraseSegment",
        [](auto h) { return zqhandler_cmd_odetics_eraseSegment(h, "01:02:03:04", "00:00:00:00"); },
        {0xA8, 0x11, TC_1234, 0, 0, 0, 0}),
    acked("set_deviceID", [](auto h) { return zqhandler_cmd_odetics_set_deviceID(h, kDeviceId); },
          {0xA8, 0x20, 'D', 0, 'V', 0xFF, 1, 2, 3, 0}),
    {"first ID",
     [](auto h, auto out) { return zqhandler_cmd_odetics_sense_firstID(h, text(out)); },
     {0xA0, 0x14},
     {0x88, 0x14, CLIP1},
     0,
     {CLIP1, 0},
     // a next-ID answer is not a first ID
     {0x88, 0x15, CLIP1},
     S9P_ERR_PROTOCOL,
     "",
     true},
    {"first ID of an empty list",
     [](auto h, auto out) { return zqhandler_cmd_odetics_sense_firstID(h, text(out)); },
     {0xA0, 0x14},
     {0x88, 0x14, CLIP1},
     0,
     {CLIP1, 0},
     {0x80, 0x14},
     S9P_NOTFOUND,
     "",
     true},
    {"next ID",
     [](auto h, auto out) { return zqhandler_cmd_odetics_sense_nextID(h, text(out)); },
     {0xA0, 0x15},
     {0x88, 0x14, CLIP1},
     0,
     {CLIP1, 0},
     // an ID cut short in its datagram
     {0x88, 0x15, 'C', 'L'},
     S9P_ERR_PROTOCOL,
     "",
     true},
    {"next ID past the end",
     [](auto h, auto out) { return zqhandler_cmd_odetics_sense_nextID(h, text(out)); },
     {0xA0, 0x15},
     {0x88, 0x15, CLIP1},
     0,
     {CLIP1, 0},
     {0x80, 0x15},
     S9P_NOTFOUND,
     "",
     true},
    {"ID status",
     [](auto h, auto out) { return zqhandler_cmd_odetics_sense_id_status(h, "CLIP1", out); },
     {0xA8, 0x18, CLIP1},
     {0x81, 0x18, 0x05},
     0,
     {0x05},
     {0x81, 0x19, 0x05}},
    {"ID length",
     [](auto h, auto out) { return zqhandler_cmd_odetics_sense_id_length(h, "CLIP1", text(out)); },
     {0x69, 0xC1, 0x03, CLIP1},
     {0x74, 0xC1, 0x15, 0x30, 0x20, 0x10},
     0,
     {'1', '0', ':', '2', '0', ':', '3', '0', ':', '1', '5', 0},
     {0x74, 0xC1, 0x15}},
};

TEST(OdeticsOperations, send_their_frame_and_check_the_answer) {
    for (const OpCase& c : kOperations)
        run_op_case(c);
}

TEST(OdeticsOperations, id_status_and_length_outputs_are_optional) {
    SimHandle s(devsim::Link::udp);
    s.sim.script(devsim::Reply::answer({0x81, 0x18, 0x05}));
    EXPECT_EQ(zqhandler_cmd_odetics_sense_id_status(s.zqh, "A", nullptr), 0);
    s.sim.script(devsim::Reply::answer({0x74, 0xC1, 0, 0, 0, 0}));
    EXPECT_EQ(zqhandler_cmd_odetics_sense_id_length(s.zqh, "A", nullptr), 0);
}

} // namespace
