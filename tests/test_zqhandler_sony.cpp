// The Sony handle operations against the emulator: the basic command and sense tables on every
// link, each device operation over UDP, what they print, and the emulator's ID list.
#include "op_table.h"

#include <regex>
#include <zqhandler/zqhandler_odetics.h>
#include <zqhandler/zqhandler_sony.h>

namespace {

using devsim::Link;
using devsim::Reply;

// --- the basic tables on every link --------------------------------------------------------------

class Basic : public testing::TestWithParam<Link> {};

// The frames of the commands in the order of their values.
// clang-format off
const char* const kCommandFrames[] = {"20 00", "20 01", "20 02", "20 05", "20 04", "20 0F", "20 10",
    "20 20", "A0 10", "40 20", "40 21", "A0 06", "A0 07", "A0 01", "30 07", "30 04",
    "34 09 41 53 41 50", "21 14 01", "21 24 01", "20 61", "20 60"};
// clang-format on
static_assert(std::size(kCommandFrames) == BAS_CMD_LAST);

TEST_P(Basic, each_command_sends_its_frame_and_needs_an_ack) {
    SimHandle s(GetParam());
    zqhandler_set_timeout(s.zqh, 2000);
    for (int value = 0; value < BAS_CMD_LAST; ++value) {
        EXPECT_EQ(zqhandler_cmd_basic(s.zqh, value), 0) << value; // the server's ACK
        s.sim.script(Reply::answer({0x70, 0x20, 0x90}));
        EXPECT_EQ(zqhandler_cmd_basic(s.zqh, value), -1) << value;
        EXPECT_EQ(zqhandler_get_last_err(s.zqh), S9P_ERR_PROTOCOL) << value;
        auto received = s.sim.received();
        ASSERT_EQ(received.size(), 2u * (value + 1));
        EXPECT_EQ(hex(received[2 * value].frame), with_checksum(kCommandFrames[value])) << value;
    }
}

struct SenseCase {
    e_basic_sense sense;
    const char* sent;
    uint8_t cmd2;     // the emulator's sense this row sets...
    int selector;     // ...(-1: none)...
    const char* data; // ...to these data bytes
    int result;
    const char* out; // what the caller gets, terminator included
    const char* refused;
};

// A sense that accepts any answer of group 7, refused an answer of group 8.
#define ANY7X(sense, sent, cmd2, data, result, out)                                                \
    { sense, sent, cmd2, -1, data, result, out, "82 11 00 00" }

const SenseCase kSenses[] = {
    {BAS_SENSE_STATUS, "61 20 0A", 0x20, -1, "00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F", 10,
     "00 01 02 03 04 05 06 07 08 09 00", "7A 21 00 01 02 03 04 05 06 07 08 09"},
    {BAS_SENSE_ERRORS, "61 C1 00", 0xC1, 0x00, "00 80", 2, "00 80 00", "12 11 00 00"},
    ANY7X(BAS_SENSE_PRODUCT, "60 B1", 0xB1, "44 45 56", 3, "44 45 56 00"),
    ANY7X(BAS_SENSE_VERSION, "60 95", 0x95, "02 01", 2, "02 01 00"),
    {BAS_SENSE_TC, "61 0C 04", 0x0C, 0x04, "10 20 30 01", 4, "10 20 30 01 00", "80 04"},
    ANY7X(BAS_SENSE_SERIAL, "60 B2", 0xB2, "31 32 33", 3, "31 32 33 00"),
    ANY7X(BAS_SENSE_ODETICS_CAPABILITY, "60 AA", 0xAA, "", 0, ""),
    {BAS_SENSE_ODETICS_STORAGE, "A0 1C", 0x1C, -1, "00 00 10 00", 4, "00 00 10 00 00",
     "74 1C 00 00 10 00"},
    {BAS_SENSE_ODETICS_DEVICE_ID, "A0 21", 0x21, -1, "41 42 43 44 45 46 47 48", 8,
     "41 42 43 44 45 46 47 48 00", "78 21 41 42 43 44 45 46 47 48"},
    {BAS_SENSE_LOADED_ID, "61 C1 01", 0xC1, 0x01, "01 41", 2, "01 41 00", "72 C0 01 41"},
    {BAS_SENSE_DEVICE_TYPE, "00 11", 0x11, -1, "F0 20", 2, "F0 20 00", "72 11 F0 20"},
    ANY7X(BAS_SENSE_PREROLL, "60 31", 0x31, "00 05 00 00", 4, "00 05 00 00 00"),
    ANY7X(BAS_SENSE_POSTROLL, "60 3C", 0x3C, "00 02 00 00", 4, "00 02 00 00 00"),
    ANY7X(BAS_SENSE_SPEED, "60 2E", 0x2E, "40", 1, "40"), // one byte: no terminator
    ANY7X(BAS_SENSE_FRAME_MODE, "60 38", 0x38, "01", 1, "01"),
    ANY7X(BAS_SENSE_REC_INHIBIT, "60 3E", 0x3E, "01", 1, "01"),
    ANY7X(BAS_SENSE_TIMER_MODE, "60 36", 0x36, "02", 1, "02"),
    ANY7X(BAS_SENSE_SERVO_REF, "60 33", 0x33, "01", 1, "01"),
    ANY7X(BAS_SENSE_INPUT_SOURCE, "60 50", 0x50, "03", 1, "03"),
    ANY7X(BAS_SENSE_SYNC_OFFSET, "60 78", 0x78, "00 10", 2, "00 10 00"),
    ANY7X(BAS_SENSE_RESOLUTION, "60 90", 0x90, "02", 1, "02"),
    ANY7X(BAS_SENSE_CHASE_MODE, "60 91", 0x91, "01", 1, "01"),
    {BAS_SENSE_COMP_RATIO, "61 94 01", 0x94, 0x01, "01 20", 2, "01 20 00", "A2 94 01 20"},
    ANY7X(BAS_SENSE_CURRENT_FIELD, "60 A2", 0xA2, "00 00 01 00", 4, "00 00 01 00 00"),
    ANY7X(BAS_SENSE_ZQ_CAPACITY, "60 9F", 0x9F, "00 01 00 00", 4, "00 01 00 00 00"),
    ANY7X(BAS_SENSE_DISK_NAME, "60 A1", 0xA1, "44 31", 2, "44 31 00"),
    ANY7X(BAS_SENSE_CACHE_SIZE, "60 A8", 0xA8, "00 10", 2, "00 10 00"),
    ANY7X(BAS_SENSE_STEP_REC, "60 A9", 0xA9, "00", 1, "00"),
    ANY7X(BAS_SENSE_NR_AUDIO_CHANNEL, "60 AD", 0xAD, "08", 1, "08"),
    ANY7X(BAS_SENSE_VIDEO_STD, "60 AE", 0xAE, "01", 1, "01"),
    {BAS_SENSE_IP_ADDRESS, "60 B3", 0xB3, -1, "0A 00 00 05", 8, "31 30 2E 30 2E 30 2E 35 00",
     "73 B3 0A 00 00"}, // "10.0.0.5"; three bytes are no address
    ANY7X(BAS_SENSE_FIELD0, "60 B4", 0xB4, "00 00 00 07", 4, "00 00 00 07 00"),
    ANY7X(BAS_SENSE_HARDWARE, "60 B0", 0xB0, "01 00", 2, "01 00 00"),
    ANY7X(BAS_SENSE_LAST_FIELD, "60 B5", 0xB5, "00 00 10 00", 4, "00 00 10 00 00"),
    {BAS_SENSE_PROTOCOL_VERSION, "61 B0 00", 0xB0, 0x00, "00 02 01", 3, "00 02 01 00",
     "73 B0 01 02 01"},
    {BAS_SENSE_LOOP_MODE, "60 B7", 0xB7, -1, "01", 1, "01", "72 B7 01 00"},
};

TEST_P(Basic, each_sense_sends_its_frame_and_copies_the_answer_it_accepts) {
    SimHandle s(GetParam());
    zqhandler_set_timeout(s.zqh, 2000);
    size_t sent = 0;
    for (const SenseCase& c : kSenses) {
        const std::string name = std::to_string(c.sense);
        if (c.selector < 0)
            s.sim.sony().set_sense(c.cmd2, bytes_of(c.data));
        else
            s.sim.sony().set_sense(c.cmd2, static_cast<uint8_t>(c.selector), bytes_of(c.data));
        uint8_t out[ZQ_SENSE_BYTES + 1];
        memset(out, 0xEE, sizeof out);
        EXPECT_EQ(zqhandler_cmd_sense_basic(s.zqh, c.sense, out), c.result) << name;
        const size_t written = bytes_of(c.out).size();
        EXPECT_EQ(hex({out, out + written}), hex(bytes_of(c.out))) << name;
        EXPECT_EQ(out[written], 0xEE) << name;
        EXPECT_EQ(hex(s.sim.received().at(sent++).frame), with_checksum(c.sent)) << name;

        s.sim.script(Reply::answer(bytes_of(c.refused)));
        EXPECT_EQ(zqhandler_cmd_sense_basic(s.zqh, c.sense, out), -1) << name;
        EXPECT_EQ(zqhandler_get_last_err(s.zqh), S9P_ERR_PROTOCOL) << name;
        ++sent;
    }
    EXPECT_EQ(std::size(kSenses), BAS_SENSE_LAST - 6u) << "every sense served has its row";
    uint8_t status[ZQ_SENSE_BYTES];
    EXPECT_EQ(zqhandler_cmd_sense_status(s.zqh, status), 10);
    EXPECT_EQ(hex({status, status + 3}), "00 01 02");
}

const char* const kLinkNames[] = {"udp", "tcp", "serial"};
INSTANTIATE_TEST_SUITE_P(Links, Basic, testing::Values(Link::udp, Link::tcp, Link::serial),
                         [](const auto& link) { return kLinkNames[link.index]; });

// --- the device operations over UDP --------------------------------------------------------------

// Output values as the 4 big-endian bytes of each, in order; values start as EE EE EE EE, so one
// the operation did not write shows as untouched output.
template <typename... Value> int as_bytes(uint8_t* out, int result, const Value&... values) {
    for (uint32_t value : {static_cast<uint32_t>(values)...})
        for (int shift = 24; shift >= 0; shift -= 8)
            *out++ = static_cast<uint8_t>(value >> shift);
    return result;
}
constexpr uint32_t kUnwritten = 0xEEEEEEEE;

int clip_range(t_zqhandler* h, uint8_t* out) {
    if (!out)
        return zqhandler_cmd_sense_clip_range(h, nullptr, nullptr);
    int first = static_cast<int>(kUnwritten), last = first;
    return as_bytes(out, zqhandler_cmd_sense_clip_range(h, &first, &last), first, last);
}

int clip_parameters(t_zqhandler* h, uint8_t* out) {
    if (!out)
        return zqhandler_cmd_sense_clip_parameters(h, 42, nullptr, nullptr, nullptr, nullptr);
    uint32_t v1 = kUnwritten, v2 = kUnwritten;
    int c3 = static_cast<int>(kUnwritten), c4 = c3;
    return as_bytes(out, zqhandler_cmd_sense_clip_parameters(h, 42, &v1, &v2, &c3, &c4), v1, v2, c3,
                    c4);
}

int timecode(t_zqhandler* h, uint8_t* out) {
    return zqhandler_cmd_sense_timecode(h, BAS_SENSE_TC, reinterpret_cast<char*>(out));
}
int storage_timecode(t_zqhandler* h, uint8_t* out) {
    return zqhandler_cmd_sense_timecode(h, BAS_SENSE_ODETICS_STORAGE, reinterpret_cast<char*>(out));
}

// An operation answered by an ACK: `call` on the handle h sends `sent`; a sense frame is refused,
// printing what follows, if anything.
#define ACKED(name, call, sent, ...)                                                               \
    OpCase {                                                                                       \
        name, [](t_zqhandler* h, uint8_t*) { return call; }, sent, "10 01", 0, "", "71 20 00",     \
            S9P_ERR_PROTOCOL, "" __VA_ARGS__, false                                                \
    }

const uint8_t kBytes[] = {1, 2, 3};

const OpCase kOperations[] = {
    {"timecode", timecode, "61 0C 04", "74 04 10 20 30 01", 0,
     "30 31 3A 33 30 3A 32 30 3A 31 30 00", "74 08 10 20 30 01"},
    {"drop-frame timecode, one cut short", timecode, "61 0C 04", "74 17 50 20 30 01", 0,
     "30 31 3A 33 30 3A 32 30 3B 31 30 00", "74 04 10 20 30"},
    {"storage timecode", storage_timecode, "A0 1C", "84 1C 00 00 10 00", 0,
     "30 30 3A 31 30 3A 30 30 3A 30 30 00", "74 1C 00 00 10 00"},
    ACKED("cue", zqhandler_cmd_cueWithData(h, "01:02:03;04"), "24 31 44 03 02 01"),
    {"clip range", clip_range, "61 C1 02", "74 C1 00 01 12 34", 0, "00 00 00 01 00 00 04 D2",
     "72 C1 00 01"},
    {"clip parameters", clip_parameters, "62 9A 00 42", "7C 9A 00 00 01 00 00 00 02 00 00 07 00 09",
     0, "00 00 01 00 00 00 02 00 00 00 00 07 00 00 00 09", "7C 9A 00 00 01 00"},
    ACKED("save clip parameters", zqhandler_cmd_save_clip_parameters(h, 1234, 1, 2),
          "2A AC 12 34 00 00 00 01 00 00 00 02"),
    ACKED("clip prev", zqhandler_cmd_preset_clip_prev(h, 42, 7), "44 96 00 42 00 07"),
    ACKED("clip next", zqhandler_cmd_preset_clip_next(h, 1, 2), "44 97 00 01 00 02"),
    ACKED("menu recall current", zqhandler_menu_recall_current(h), "40 C3"),
    ACKED("menu recall flash", zqhandler_menu_recall_flash(h), "40 C4"),
    ACKED("menu preset default", zqhandler_menu_preset_default(h), "40 C5"),
    ACKED("menu save flash", zqhandler_menu_save_flash(h), "40 C2"),
    ACKED("menu commit", zqhandler_menu_commit_section(h, 5), "41 C1 05"),
    {"menu read", [](auto h, auto out) { return zqhandler_menu_read_section(h, 5, out); },
     "61 C0 05", "73 C0 05 0A 0B", 3, "05 0A 0B", "73 C1 05 0A 0B"},
    ACKED("menu save", zqhandler_menu_save_section(h, 5, kBytes, 3), "44 C0 05 01 02 03"),
    ACKED("channel", zqhandler_cmd_preset_channel(h, 3), "31 10 03"),
    ACKED("current field", zqhandler_cmd_preset_current(h, 0x01020304), "24 9D 01 02 03 04",
          "preset current field failed\n"),
    ACKED("field 0", zqhandler_cmd_preset_field0(h, 7), "44 B4 00 00 00 07"),
    ACKED("last field", zqhandler_cmd_preset_lastField(h, 0x10000), "44 B5 00 01 00 00"),
    ACKED("loop mode", zqhandler_cmd_loopmode(h, 5), "41 B7 01", "loopmode failed\n"),
    ACKED("timer mode", zqhandler_cmd_timermode(h, 2), "41 36 02", "timermode failed\n"),
    ACKED("var play stopped", zqhandler_cmd_var_play(h, 0), "21 12 00"),
    ACKED("var play reverse", zqhandler_cmd_var_play(h, -50), "21 22 36"),
    ACKED("shuttle", zqhandler_cmd_shuttle(h, 200), "21 13 4A"),
    ACKED("shuttle reverse", zqhandler_cmd_shuttle(h, -100), "21 23 40"),
    ACKED("jog reverse", zqhandler_cmd_jog(h, -100), "21 21 40"),
    ACKED("jog", zqhandler_cmd_jog(h, 10), "21 11 20"),
    ACKED("step reverse", zqhandler_cmd_step(h, -1), "21 24 01"),
    ACKED("step", zqhandler_cmd_step(h, 5), "21 14 05"),
    {"status range",
     [](auto h, auto out) { return zqhandler_cmd_sense_status_range(h, 2, 5, out); }, "61 20 25",
     "75 20 01 02 03 04 05", 5, "01 02 03 04 05", "75 21 01 02 03 04 05"},
};

TEST(SonyOperations, send_their_frame_and_check_the_answer) {
    for (const OpCase& c : kOperations)
        run_op_case(c);
}

TEST(SonyOperations, arguments_outside_the_tables_are_refused_before_sending) {
    uint8_t out[ZQ_SENSE_BYTES];
    const uint8_t fifteen[15] = {};
    using Op = std::function<int(t_zqhandler*)>;
#define REFUSED(call) std::pair<const char*, Op>(#call, [&](t_zqhandler* h) { return call; })
    const std::pair<const char*, Op> refused[] = {
        REFUSED(zqhandler_cmd_basic(h, BAS_CMD_LAST)),
        REFUSED(zqhandler_cmd_basic(h, -1)),
        REFUSED(zqhandler_cmd_sense_basic(h, BAS_SENSE_TAVON_LOADED_VIDEO, out)),
        REFUSED(zqhandler_cmd_sense_basic(h, BAS_SENSE_TAVON_STARTUP_AUDIO, out)),
        REFUSED(zqhandler_cmd_sense_basic(h, BAS_SENSE_LAST, out)),
        REFUSED(zqhandler_cmd_sense_status(h, nullptr)),
        REFUSED(zqhandler_cmd_sense_timecode(h, BAS_SENSE_SERIAL, reinterpret_cast<char*>(out))),
        REFUSED(zqhandler_cmd_preset_clip_prev(h, 10000, 1)),
        REFUSED(zqhandler_menu_save_section(h, 1, fifteen, 15)),
    };
    SimHandle s(Link::udp);
    for (const auto& [name, op] : refused) {
        s.zqh->lasterr = S9P_ERR_COMM;
        EXPECT_EQ(op(s.zqh), -1) << name;
        EXPECT_EQ(zqhandler_get_last_err(s.zqh), S9P_ERR_COMM) << name;
    }
    EXPECT_FALSE(s.sim.wait_received(1, 100)) << "something was sent";
}

// The preset of the current field says where its exchange failed: the line of the read for a NAK
// or a silence, the send's when there is no link. Loop and timer modes say nothing then.
TEST(SonyOperations, failures_of_the_exchange_print_only_where_their_operation_says_so) {
    SimHandle s(Link::udp);
    zqhandler_set_timeout(s.zqh, 200);
    auto printed = [&](int (*op)(t_zqhandler*, uint32_t), t_zqhandler* h, Reply reply) {
        s.sim.script(reply);
        CapturedStdout out;
        EXPECT_EQ(op(h, 1), -1);
        return out.text();
    };
    const auto preset = zqhandler_cmd_preset_current;
    const auto loop = [](t_zqhandler* h, uint32_t) { return zqhandler_cmd_loopmode(h, 1); };
    const std::string read_line = printed(preset, s.zqh, Reply::nak(0x01));
    EXPECT_EQ(printed(preset, s.zqh, Reply::silence()), read_line);
    EXPECT_EQ(printed(loop, s.zqh, Reply::nak(0x80)), "");
    t_zqhandler* unconnected = zqhandler_create();
    const std::string send_line = printed(preset, unconnected, Reply::ack());
    const std::regex message("zqhandler_send_s9p failed in exchange\\.cpp:[0-9]+\n");
    EXPECT_TRUE(std::regex_match(send_line, message)) << send_line;
    EXPECT_TRUE(std::regex_match(read_line, message)) << read_line;
    EXPECT_NE(send_line, read_line);
    zqhandler_delete(unconnected);
}

} // namespace
