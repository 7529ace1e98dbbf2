// Louth: every builder's frame, the two links against the emulator, and every handle operation's
// accepted and refused answers.
#include "common.h"
#include "sim_handle.h"

#include <cstring>
#include <devsim/louth.h>
#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <tuple>
#include <zqhandler/zqhandler_louth.h>

namespace {

using namespace std::string_literals;
using devsim::Bytes;
using devsim::Link;
using devsim::louth_datagram;
using devsim::louth_frame;
using devsim::Protocol;
using devsim::Reply;

#define PAD6 " 20 20 20 20 20 20" // an ID of two characters, padded

// --- builders ------------------------------------------------------------------------------------

// The builders that no operation row below sends, and the edges of the computed ones.
TEST(LouthBuilders, every_command_is_framed_with_its_unit_count_and_checksum) {
    const uint8_t play[] = {0x10, 0x01};
    const std::pair<std::function<int(t_louth_command*)>, const char*> cases[] = {
        {[](auto c) { return louth_record(c, 0x13); }, "02 02 13 02 EB"}, // the unit's low nibble
        {[](auto c) { return louth_stop(c, 0); }, "02 02 10 00 F0"},
        {[](auto c) { return louth_still(c, 0); }, "02 02 10 04 EC"},
        {[](auto c) { return louth_step_forward(c, 0); }, "02 02 10 05 EB"},
        {[](auto c) { return louth_resume(c, 0); }, "02 02 10 06 EA"},
        {[](auto c) { return louth_eraseAll(c, 0); }, "02 02 20 29 B7"},
        {[](auto c) { return louth_jog(c, 0, -1); }, "02 03 10 07 FF EA"},
        {[](auto c) { return louth_jog(c, 0, -127); }, "02 03 10 07 81 68"},
        {[](auto c) { return louth_jog(c, 0, 127); }, "02 03 10 07 7F 6A"},
        {[](auto c) { return louth_jog(c, 0, -128); }, "02 06 10 07 FF FF FF 80 6C"},
        {[](auto c) { return louth_var(c, 0, 100); }, "02 05 10 08 01 00 00 E7"},
        {[](auto c) { return louth_var(c, 0, 99); }, "02 05 10 08 00 F7 00 F1"},
        {[](auto c) { return louth_var(c, 0, -150); }, "02 05 10 08 FF 83 00 66"},
        {[](auto c) { return louth_EE_mode(c, 0, 0x101); }, "02 03 10 0A 01 E5"},
        {[](auto c) { return louth_select_port(c, 0, -1); }, "02 03 20 22 81 3D"},
        {[](auto c) { return louth_open_port(c, 0, -1, 0); }, "02 04 30 01 81 00 4E"},
        {[](auto c) { return louth_play_cue(c, 0, "ABCDEFGHIJ"); },
         "02 0A 20 24 41 42 43 44 45 46 47 48 98"},
        {[&](auto c) { return louth_misc(c, play, 2); }, "02 02 10 01 EF"},
        {[](auto c) { return louth_misc(c, nullptr, 0); }, "02 00 00"},
    };
    for (const auto& [build, frame] : cases) {
        t_louth_command cmd{};
        std::memset(cmd.data, 0xAA, sizeof cmd.data);
        EXPECT_EQ(build(&cmd), 0) << frame;
        EXPECT_EQ(hex(frame_of(cmd)), frame);
        EXPECT_EQ(cmd.data[cmd.len], 0xAA) << frame << ": written past its end";
    }
    const uint8_t bytes[] = {0x30, 0x06, 0x01};
    EXPECT_EQ(louth_calculate_checksum(bytes, 3), 0xC9u);
    EXPECT_EQ(louth_calculate_checksum(bytes, 0), 0u);
}

// --- the two links -------------------------------------------------------------------------------

constexpr e_s9p_err kNotOnThisLink = S9P_ERR_LAST;

class LouthLink : public testing::TestWithParam<Link> {};

// zqhandler_cmd_louth_misc takes any answer the transport accepts, so the code is the transport's.
TEST_P(LouthLink, answer_is_taken_whole_or_refused_with_the_transport_code) {
    const Bytes status = louth_frame({0x30, 0x85, 0x43, 0x01});
    Reply corrupt = Reply::louth_answer(status);
    corrupt.corrupt_checksum = true;
    Reply in_pieces = Reply::louth_answer(status);
    in_pieces.pieces = {1, 2, 1};
    in_pieces.piece_gap_ms = 20;
    Reply paused = in_pieces; // the rest longer in coming than one read of the line waits
    paused.pieces = {3};
    paused.piece_gap_ms = 300;
    const auto answer = Reply::louth_answer;
    const e_s9p_err ok = S9P_ERR_NONE, protocol = S9P_ERR_PROTOCOL, skip = kNotOnThisLink;
    const char* const before = "02 04 30 85 43 01 07"; // the frame row's, kept by failures
    // name, reply, code on UDP and on the serial line, last_rcv afterwards
    const std::tuple<const char*, Reply, e_s9p_err, e_s9p_err, const char*> cases[] = {
        {"acknowledge", answer({0x04}), ok, ok, "04"},
        {"refusal", answer({0x05, 0x11}), ok, ok, "05 11"},
        {"frame", answer(status), ok, ok, before},
        {"wrong checksum", corrupt, S9P_ERR_CHECKSUM, S9P_ERR_CHECKSUM, before},
        {"frame in pieces", in_pieces, skip, ok, before},
        {"frame pausing past the line's 0.1 s", paused, skip, S9P_RCV_TIMEOUT, before},
        {"10-byte datagram", Reply::bytes(louth_datagram({}, 0)), protocol, protocol, before},
        {"header announces more", Reply::bytes(louth_datagram(status, 8)), protocol, protocol,
         before},
        {"frame under 3 bytes", answer({0x02, 0x00}), protocol, skip, before},
        {"count above 252", answer({0x02, 0xFD, 0x30}), S9P_ERR_CHECKSUM, protocol, before},
        {"unknown first byte (datagram)", answer({0x06}), ok, skip, "06"},
        {"unknown first byte (serial)", answer({0x06}), skip, protocol, before},
    };
    SimHandle s(GetParam(), Protocol::louth);
    ASSERT_EQ(s.connected, 0);
    zqhandler_set_timeout(s.zqh, 2000);
    const uint8_t play[] = {0x10, 0x01};
    std::string kept;
    for (const auto& [name, reply, udp_code, serial_code, last_rcv] : cases) {
        const e_s9p_err code = GetParam() == Link::udp ? udp_code : serial_code;
        if (code == kNotOnThisLink)
            continue;
        s.sim.script(reply);
        EXPECT_EQ(zqhandler_cmd_louth_misc(s.zqh, play, 2), code == S9P_ERR_NONE ? 0 : -1) << name;
        EXPECT_EQ(zqhandler_get_last_err(s.zqh), code) << name;
        kept = last_rcv;
        EXPECT_EQ(hex(frame_of(s.zqh->data.louth.last_rcv)), kept) << name;
        EXPECT_EQ(hex(frame_of(s.zqh->data.louth.last_sent)), "02 02 10 01 EF") << name;
    }
    const char* wire =
        GetParam() == Link::udp ? "00 05 00 05 00 00 00 00 00 00 02 02 10 01 EF" : "02 02 10 01 EF";
    EXPECT_EQ(hex(s.sim.received().at(0).wire), wire);

    // A silent device: the handle's time-out on UDP; on the serial line the first read that
    // brings nothing, whatever the time-out. The last answer stays.
    const bool udp = GetParam() == Link::udp;
    zqhandler_set_timeout(s.zqh, udp ? 200 : 1000);
    s.sim.script(Reply::silence());
    auto start = Clock::now();
    EXPECT_EQ(zqhandler_cmd_louth_misc(s.zqh, play, 2), -1);
    EXPECT_EQ(zqhandler_get_last_err(s.zqh), S9P_RCV_TIMEOUT);
    EXPECT_GE(elapsed_ms(start), udp ? 190 : 90);
    EXPECT_LT(elapsed_ms(start), udp ? 2000 : 500);
    EXPECT_EQ(hex(frame_of(s.zqh->data.louth.last_rcv)), kept);
}

const char* const kLinkNames[] = {"udp", "serial"};
INSTANTIATE_TEST_SUITE_P(Links, LouthLink, testing::Values(Link::udp, Link::serial),
                         [](const auto& link) { return kLinkNames[link.index]; });

// A send drops one answer already waiting, not every one: a second late answer is taken for the
// next command's.
TEST(LouthDatagram, one_stale_answer_is_dropped_before_a_send_and_its_sender_becomes_the_peer) {
    SimHandle s(Link::udp, Protocol::louth);
    const uint8_t play[] = {0x10, 0x01};
    Bytes two_late = louth_datagram({0x04});
    const Bytes refusal = louth_datagram({0x05, 0x02});
    two_late.insert(two_late.end(), refusal.begin(), refusal.end());
    Reply late = Reply::bytes(two_late);
    late.pieces = {11};
    late.delay_ms = 150;
    s.sim.script(late);
    EXPECT_EQ(zqhandler_cmd_louth_misc(s.zqh, play, 2), -1);
    EXPECT_EQ(zqhandler_get_last_err(s.zqh), S9P_RCV_TIMEOUT);
    ASSERT_TRUE(s.sim.wait_replies_sent(1, 3000));

    zqhandler_set_timeout(s.zqh, 2000);
    Reply elsewhere = Reply::louth_answer({0x05, 0x01});
    elsewhere.from_other_address = true;
    s.sim.script(elsewhere);
    EXPECT_EQ(zqhandler_cmd_louth_misc(s.zqh, play, 2), 0);
    EXPECT_EQ(hex(frame_of(s.zqh->data.louth.last_rcv)), "05 02");
    ASSERT_TRUE(s.sim.wait_replies_sent(2, 3000));
    EXPECT_EQ(zqhandler_cmd_louth_misc(s.zqh, play, 2), 0);
    EXPECT_EQ(hex(frame_of(s.zqh->data.louth.last_rcv)), "04");
    auto received = s.sim.received();
    ASSERT_EQ(received.size(), 3u);
    EXPECT_EQ(received[1].local_port, s.sim.udp_port());
    EXPECT_EQ(received[2].local_port, s.sim.udp_other_port());

    SimHandle tcp(Link::tcp);
    EXPECT_EQ(zqhandler_cmd_louth_misc(tcp.zqh, play, 2), -1);
    EXPECT_EQ(zqhandler_get_last_err(tcp.zqh), S9P_ERR_NOT_CONNECTED);
    EXPECT_FALSE(tcp.sim.wait_received(1, 50));
}

// --- the handle's operations ---------------------------------------------------------------------

Reply answer(Bytes body) {
    return Reply::louth_answer(louth_frame(std::move(body)));
}

class LouthOperations : public testing::TestWithParam<Link> {};

// Rows run in order on one emulator, whose model answers when no reply is scripted. lasterr is
// set to S9P_NOT_IMPLEMENTED before each row: a success and a refused argument leave it.
TEST_P(LouthOperations, each_accepts_its_answer_and_refuses_the_others) {
    using namespace std::placeholders; // _1 the handle; _2 / _3 the output, as text / as bytes
    using Call = std::function<int(t_zqhandler*, char*, uint8_t*)>;
    struct Case {
        const char* name;
        Call call;
        std::optional<Reply> reply; // scripted; none: the emulator's model answers
        int result;
        e_s9p_err code;
        const char* sent;      // the frame sent; "" when nothing may be sent
        std::string out = "#"; // what the output holds afterwards ("#": untouched)
    };
    Reply other_unit;
    other_unit.other_unit = true;
    const Reply refusal = Reply::louth_answer({0x05, 0x01});
    const e_s9p_err kept = S9P_NOT_IMPLEMENTED, protocol = S9P_ERR_PROTOCOL;
    const auto basic = zqhandler_cmd_louth_basic;
    const auto status = std::bind(zqhandler_cmd_louth_sense_status, _1, 0, _3);
    const auto sense = zqhandler_cmd_louth_sense_basic;
    const auto loaded = std::bind(sense, _1, BAS_SENSE_LOADED_ID, 0, _3);
    const auto tc = std::bind(sense, _1, BAS_SENSE_TC, 0, _3);
    const auto first = std::bind(zqhandler_cmd_louth_sense_firstID, _1, 0, _2);
    const auto next = std::bind(zqhandler_cmd_louth_sense_nextID, _1, 0, _2);
    const auto length = zqhandler_cmd_louth_sense_id_length;
    const auto port = zqhandler_cmd_louth_open_port;
    const auto jog = zqhandler_cmd_louth_jog;
    const char* const news = "02 0A 30 14 4E 45 57 53 20 20 20 20 FF";
    const std::optional<Reply> model; // the emulator's own answer
    const Case cases[] = {
        {"basic play", std::bind(basic, _1, BAS_CMD_PLAY, 0x13), model, 0, kept, "02 02 13 01 EC"},
        {"basic eject", std::bind(basic, _1, BAS_CMD_EJECT, 0), model, -1, kept, ""},
        {"basic 18", std::bind(basic, _1, 18, 0), model, -1, kept, ""},
        {"sense product", std::bind(sense, _1, BAS_SENSE_PRODUCT, 0, _3), model, -1, kept, ""},
        {"status", status, answer({0x30, 0x85, 0x43, 1, 2, 3}), 3, kept, "02 03 30 05 43 88",
         "\1\2\3#"},
        {"status, count 2", status, answer({0x30, 0x85}), -1, protocol, "02 03 30 05 43 88"},
        {"status, other unit", status, other_unit, -1, protocol, "02 03 30 05 43 88"},
        {"errors", std::bind(zqhandler_cmd_louth_sense_errors, _1, 3, _3), model, 2, kept,
         "02 03 33 05 24 A4", "\0\0#"s},
        {"timecode", tc, answer({0x30, 0x86, 1, 0x44, 3, 2, 1}), 11, kept, "02 03 30 06 01 C9",
         "01:02:03;04\0"s},
        {"timecode, count 6", tc, answer({0x30, 0x86, 1, 0, 0, 0}), -1, protocol,
         "02 03 30 06 01 C9"},
        {"cue", std::bind(zqhandler_cmd_louth_cue_play, _1, 0, "WEATHER"), model, 0, kept,
         "02 0A 20 24 57 45 41 54 48 45 52 20 8C"},
        {"loaded ID", loaded, model, 8, kept, "02 02 30 07 C9", "WEATHER \0"s},
        {"no loaded ID", loaded, answer({0x30, 0x87, 0}), 0, kept, "02 02 30 07 C9"},
        {"loaded ID, count 2", loaded, answer({0x30, 0x87}), -1, protocol, "02 02 30 07 C9"},
        {"first ID", first, model, 8, kept, "02 02 30 11 BF", "NEWS    \0"s},
        {"next ID", next, model, 8, kept, "02 02 30 02 CE", "WEATHER \0"s},
        {"list ends", next, model, -1, S9P_NOTFOUND, "02 02 30 02 CE"},
        {"first ID of 2 bytes", first, answer({0x30, 0x91, 0x41, 0x42}), -1, S9P_NOTFOUND,
         "02 02 30 11 BF"},
        {"ID length", std::bind(length, _1, 0, "NEWS", _2), model, 0, kept, news, "00:01:30:00\0"s},
        {"unknown ID's length", std::bind(length, _1, 0, "NONE", _2), model, 0, kept,
         "02 0A 30 14 4E 4F 4E 45 20 20 20 20 0C", "00:00:00:00\0"s},
        {"ID length, wrong CMD2", std::bind(length, _1, 0, "NEWS", _2), answer({0x30, 0x95}), -1,
         protocol, news},
        {"port granted", std::bind(port, _1, 0, 1, 1), model, 0, kept, "02 04 30 01 01 01 CD"},
        {"locked port denied", std::bind(port, _1, 0, 1, 0), model, -1, S9P_PERMISSION_DENIED,
         "02 04 30 01 01 00 CE"},
        {"select port", std::bind(zqhandler_cmd_louth_select_port, _1, 0, -3), model, 0, kept,
         "02 03 20 22 83 3B"},
        {"erase", std::bind(zqhandler_cmd_louth_eraseID, _1, 0, "NEWS"), model, 0, kept,
         "02 0A 20 26 4E 45 57 53 20 20 20 20 FD"},
        {"cue with data",
         std::bind(zqhandler_cmd_louth_cue_play_data, _1, 0, "AB", "01:02:03;04", ""), model, 0,
         kept, "02 12 20 25 41 42" PAD6 " 44 03 02 01 00 00 00 00 2E"},
        {"record init", std::bind(zqhandler_cmd_louth_record_init, _1, 0, nullptr), model, 0, kept,
         "02 0A 20 23 20 20" PAD6 " BD"},
        {"record init with data",
         std::bind(zqhandler_cmd_louth_record_init_data, _1, 0, "AB", "01:02:03:04", "01:02:03;04"),
         model, 0, kept, "02 12 20 23 41 42" PAD6 " 04 03 02 01 44 03 02 01 26"},
        {"var", std::bind(zqhandler_cmd_louth_var_play, _1, 0, 150), model, 0, kept,
         "02 05 10 08 01 7D 00 6A"},
        {"jog", std::bind(jog, _1, 0, 128), model, 0, kept, "02 06 10 07 00 00 00 80 69"},
        {"jog refused", std::bind(jog, _1, 0, 5), refusal, -1, protocol, "02 03 10 07 05 E4"},
    };
    SimHandle s(GetParam(), Protocol::louth);
    ASSERT_EQ(s.connected, 0);
    s.sim.model().append_clip("NEWS", 90 * 25); // 00:01:30:00
    s.sim.model().append_clip("WEATHER", 12);
    zqhandler_set_timeout(s.zqh, 2000);
    for (const Case& c : cases) {
        const size_t before = s.sim.received().size();
        if (c.reply)
            s.sim.script(*c.reply);
        s.zqh->lasterr = kept;
        char out[256];
        std::memset(out, '#', sizeof out);
        EXPECT_EQ(c.call(s.zqh, out, reinterpret_cast<uint8_t*>(out)), c.result) << c.name;
        EXPECT_EQ(zqhandler_get_last_err(s.zqh), c.code) << c.name;
        EXPECT_EQ(std::string(out, c.out.size()), c.out) << c.name;
        auto received = s.sim.received();
        if (!*c.sent) {
            EXPECT_EQ(received.size(), before) << c.name << ": something was sent";
            continue;
        }
        ASSERT_EQ(received.size(), before + 1) << c.name;
        EXPECT_EQ(hex(received.back().frame), c.sent) << c.name;
        EXPECT_EQ(hex(frame_of(s.zqh->data.louth.last_sent)), c.sent) << c.name;
        const Bytes scripted = c.reply ? c.reply->louth : Bytes{}; // kept even when refused
        if (!scripted.empty()) {
            EXPECT_EQ(hex(frame_of(s.zqh->data.louth.last_rcv)), hex(scripted)) << c.name;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Links, LouthOperations, testing::Values(Link::udp, Link::serial),
                         [](const auto& link) { return kLinkNames[link.index]; });

} // namespace
