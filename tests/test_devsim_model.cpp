// The emulator as a virtual server behind every link, driven through the library; scenario files.
#include <devsim/devsim.h>
#include <devsim/scenario.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <thread>
#include <vector>
#include <zqhandler/zqhandler.h>
#include <zqhandler/zqhandler_cnxn.h>
#include <zqhandler/zqhandler_louth.h>
#include <zqhandler/zqhandler_mgmt.h>
#include <zqhandler/zqhandler_odetics.h>
#include <zqhandler/zqhandler_sony.h>

namespace {

using devsim::Standard;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// One emulator with a Sony UDP link, a Sony TCP link and a Louth pty, a handle on each.
struct Server {
    devsim::DevSim sim;
    t_zqhandler *udp = zqhandler_create(), *tcp = zqhandler_create(), *louth = zqhandler_create();

    explicit Server(Standard standard = Standard::pal25) {
        sim.model().set_standard(standard);
        const std::string udp_port = std::to_string(sim.listen_udp("127.0.0.1", 0));
        const std::string tcp_port = std::to_string(sim.listen_tcp("127.0.0.1", 0));
        sim.listen_mgmt("127.0.0.1", 0);
        EXPECT_EQ(zqhandler_connect_serial(louth, sim.open_pty().c_str()), 0);
        sim.set_protocol(devsim::Link::serial, devsim::Protocol::louth);
        sim.start();
        EXPECT_EQ(zqhandler_connect_eth(udp, "127.0.0.1", udp_port.c_str()), 0);
        EXPECT_EQ(zqhandler_connect_tcp(tcp, "127.0.0.1", tcp_port.c_str()), 0);
        for (t_zqhandler* h : {udp, tcp, louth})
            zqhandler_set_timeout(h, 2000);
    }
    ~Server() {
        for (t_zqhandler* h : {udp, tcp, louth})
            zqhandler_delete(h);
        sim.stop();
    }
    std::string timecode(t_zqhandler* h) {
        char tc[ZQ_TC_BYTES] = {};
        EXPECT_EQ(zqhandler_cmd_sense_timecode(h, BAS_SENSE_TC, tc), 0);
        return tc;
    }
    // Status bytes 0 to 2 in hex; the ID list through `h` (Odetics, or Louth), "|" after each.
    std::string status(t_zqhandler* h) {
        uint8_t out[ZQ_SENSE_BYTES] = {};
        EXPECT_EQ(zqhandler_cmd_sense_status(h, out), 10);
        return hex(std::vector<uint8_t>(out, out + 3));
    }
    std::string list(t_zqhandler* h) {
        std::string ids;
        char id[9];
        if (h == louth)
            for (int r = zqhandler_cmd_louth_sense_firstID(h, 0, id); r > 0;
                 r = zqhandler_cmd_louth_sense_nextID(h, 0, id))
                ids += std::string(id) + "|";
        else
            for (int r = zqhandler_cmd_odetics_sense_firstID(h, id); r == 0;
                 r = zqhandler_cmd_odetics_sense_nextID(h, id))
                ids += std::string(id) + "|";
        return ids;
    }
};

long frames25(const std::string& tc) {
    long n = 0;
    for (size_t at = 0; at < 12; at += 3)
        n = n * (at == 9 ? 25 : 60) + std::stol(tc.substr(at, 2));
    return n;
}

TEST(VirtualServer, the_position_runs_at_the_frame_rate_and_stills_freeze_it) {
    Server s;
    ASSERT_EQ(zqhandler_cmd_cueWithData(s.udp, "00:10:00:00"), 0);
    EXPECT_EQ(s.timecode(s.tcp), "00:10:00:00");
    ASSERT_EQ(zqhandler_cmd_basic(s.udp, BAS_CMD_PLAY), 0);
    const long first = frames25(s.timecode(s.udp));
    const auto start = Clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(1));
    const long second = frames25(s.timecode(s.udp));
    const std::chrono::duration<double> between = Clock::now() - start;
    EXPECT_NEAR(static_cast<double>(second - first), 25 * between.count(), 2);
    ASSERT_EQ(zqhandler_cmd_basic(s.tcp, BAS_CMD_STILL), 0);
    const std::string frozen = s.timecode(s.udp);
    std::this_thread::sleep_for(milliseconds(200));
    EXPECT_EQ(s.timecode(s.tcp), frozen);
}

TEST(VirtualServer, status_bits_follow_each_transport_command) {
    const std::pair<std::vector<uint8_t>, const char*> cases[] = {
        {{0x20, 0x01}, "00 01 00"},                // play
        {{0x20, 0x05}, "00 80 02"},                // still: standby and still
        {{0x20, 0x00}, "00 20 00"},                // stop
        {{0x20, 0x02}, "00 02 00"},                // record
        {{0x20, 0x10}, "00 04 00"},                // fast forward
        {{0x20, 0x20}, "00 08 04"},                // rewind, reverse
        {{0x21, 0x11, 0x40}, "00 00 10"},          // jog
        {{0x21, 0x22, 0x30}, "00 00 0C"},          // var, reverse
        {{0x21, 0x13, 0x50}, "00 00 20"},          // shuttle
        {{0x21, 0x14, 0x03}, "00 80 02"},          // step: still
        {{0x24, 0x31, 0, 0, 0x10, 0}, "00 80 03"}, // cue: cue-up complete
        {{0x20, 0x04}, "00 01 00"},                // continue
        {{0x20, 0x0F}, "00 10 00"},                // eject
    };
    Server s;
    for (const auto& [command, status] : cases) {
        ASSERT_EQ(zqhandler_cmd_misc(s.udp, command.data(), static_cast<int>(command.size())), 0);
        EXPECT_EQ(s.status(s.tcp), status) << hex(command);
    }
}

// Drop-frame skips two labels a minute but every tenth; at 50 and 59.94 the timecode counts
// pairs of frames.
TEST(VirtualServer, timecodes_count_as_the_standard_says) {
    const std::tuple<Standard, const char*, int, const char*> cases[] = {
        {Standard::ntsc2997df, "00:00:59;29", 1, "00:01:00;02"},
        {Standard::ntsc2997df, "00:09:59;29", 1, "00:10:00;00"},
        {Standard::pal50, "00:00:59:24", 2, "00:01:00:00"},
        {Standard::ntsc5994df, "00:00:59;29", 1, "00:00:59;29"},
    };
    for (const auto& [standard, cue, steps, after] : cases) {
        Server s(standard);
        ASSERT_EQ(zqhandler_cmd_cueWithData(s.udp, cue), 0);
        ASSERT_EQ(zqhandler_cmd_step(s.udp, steps), 0);
        EXPECT_EQ(s.timecode(s.udp), after) << devsim::standard_name(standard);
    }
}

TEST(VirtualServer, a_clip_recorded_through_louth_is_listed_cued_and_erased_on_every_link) {
    Server s;
    s.sim.model().append_clip("NEWS", 250, 0x05);
    ASSERT_EQ(zqhandler_cmd_louth_record_init(s.louth, 0, "PROMO"), 0);
    ASSERT_EQ(zqhandler_cmd_louth_basic(s.louth, BAS_CMD_RECORD, 0), 0);
    std::this_thread::sleep_for(milliseconds(400));
    ASSERT_EQ(zqhandler_cmd_louth_basic(s.louth, BAS_CMD_STOP, 0), 0);

    EXPECT_EQ(s.list(s.udp), "NEWS    |PROMO   |");
    char length[ZQ_TC_BYTES] = {}, louth_length[ZQ_TC_BYTES] = {};
    ASSERT_EQ(zqhandler_cmd_odetics_sense_id_length(s.udp, "PROMO", length), 0);
    ASSERT_EQ(zqhandler_cmd_louth_sense_id_length(s.louth, 0, "PROMO", louth_length), 0);
    EXPECT_STREQ(length, louth_length);
    const long frames = frames25(length);
    EXPECT_GE(frames, 9); // 400 ms and the stop's exchange

    // Cued by ID over TCP: to the clip's start (after NEWS); play stops at its end.
    ASSERT_EQ(zqhandler_cmd_odetics_inPreset(s.tcp, "PROMO", nullptr), 0);
    uint8_t loaded[ZQ_SENSE_BYTES] = {};
    ASSERT_EQ(zqhandler_cmd_sense_basic(s.tcp, BAS_SENSE_LOADED_ID, loaded), 9);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(loaded) + 1, 8), "PROMO   ");
    EXPECT_EQ(frames25(s.timecode(s.tcp)), 250);
    ASSERT_EQ(zqhandler_cmd_basic(s.tcp, BAS_CMD_PLAY), 0);
    std::this_thread::sleep_for(milliseconds(40 * frames + 200));
    EXPECT_EQ(frames25(s.timecode(s.udp)), 250 + frames);
    EXPECT_EQ(s.status(s.udp), "00 80 02");

    ASSERT_EQ(zqhandler_cmd_louth_eraseID(s.louth, 0, "PROMO"), 0);
    EXPECT_EQ(s.list(s.tcp), "NEWS    |");
    EXPECT_EQ(s.list(s.louth), "NEWS    |");
    uint8_t status = 0;
    EXPECT_EQ(zqhandler_cmd_odetics_sense_id_status(s.udp, "NEWS", &status), 0);
    EXPECT_EQ(status, 0x05);
    ASSERT_EQ(zqhandler_cmd_basic(s.udp, BAS_CMD_ERASE_ALL), 0);
    EXPECT_EQ(s.list(s.louth), "");
}

// Disk information lists the store; GOPs follow clip and position; the log shows every command.
TEST(VirtualServer, transfers_and_management_answer_from_the_model) {
    Server s;
    s.sim.model().add_clip("NEWS", 250, 100);
    ASSERT_EQ(zqhandler_cmd_louth_record_init(s.louth, 0, "PROMO"), 0);
    char buffer[1490] = {};
    auto bytes = reinterpret_cast<uint8_t*>(buffer);
    ASSERT_EQ(zqhandler_cnxn_get_diskinfo(s.tcp, bytes, sizeof buffer), 0);
    EXPECT_STREQ(buffer, "NEWS     00:00:10:00 00:00:04:00\nPROMO    00:00:14:00 00:00:00:00\n");
    int32_t size = 0;

    auto gop = [&] {
        EXPECT_EQ(zqhandler_cnxn_get_gop(s.tcp, bytes, &size, sizeof buffer), 0);
        return std::string(buffer, static_cast<size_t>(std::max(size, 0)));
    };
    ASSERT_EQ(zqhandler_cmd_odetics_inPreset(s.udp, "NEWS", nullptr), 0);
    const std::string at_news = gop();
    EXPECT_EQ(at_news.substr(0, 16), std::string("GOP NEWS    \0\0\0\xFA", 16));
    EXPECT_EQ(gop(), at_news);
    ASSERT_EQ(zqhandler_cmd_step(s.udp, 1), 0);
    EXPECT_NE(gop().substr(16), at_news.substr(16));
    const uint8_t upload[] = {9, 8, 7};
    ASSERT_EQ(zqhandler_cnxn_put_gop(s.tcp, 0, upload, 3), 0);
    ASSERT_TRUE(s.sim.transfers().wait_uploads(1, 2000));
    EXPECT_EQ(gop(), "\x09\x08\x07");

    t_zqhandler* mgmt = zqhandler_create();
    zqhandler_connect_eth(mgmt, "127.0.0.1", std::to_string(s.sim.mgmt_port()).c_str());
    const int logged = zqhandler_mgmt_getlog(mgmt, bytes);
    const std::string log(buffer, static_cast<size_t>(std::max(logged, 0)));
    for (const char* line :
         {"serial 02 0A 20 23 50 52 4F 4D 4F 20 20 20 D0\n", "tcp gfif ", "udp 21 14 01 36\n"})
        EXPECT_NE(log.find(line), std::string::npos) << line << " in\n" << log;
    zqhandler_delete(mgmt);
}

// Eight controllers (UDP and TCP) ask for the device type, then poll status and time at 60 Hz
// while a ninth records and cues: every answer is data, in time (bench_devsim_load: 10 s).
TEST(VirtualServer, several_controllers_at_once_get_every_answer) {
    Server s;
    constexpr int kPolls = 60;
    std::atomic<int> answers{0};
    std::vector<std::thread> controllers;
    for (int i = 0; i < 8; ++i)
        controllers.emplace_back([&, i] {
            t_zqhandler* h = zqhandler_create();
            const std::string port = std::to_string(i % 2 ? s.sim.tcp_port() : s.sim.udp_port());
            (i % 2 ? zqhandler_connect_tcp : zqhandler_connect_eth)(h, "127.0.0.1", port.c_str());
            zqhandler_set_timeout(h, 500);
            uint8_t out[ZQ_SENSE_BYTES];
            char tc[ZQ_TC_BYTES];
            EXPECT_EQ(zqhandler_cmd_sense_basic(h, BAS_SENSE_DEVICE_TYPE, out), 2);
            auto next = Clock::now();
            for (int poll = 0; poll < kPolls; ++poll) {
                answers += zqhandler_cmd_sense_status(h, out) == 10;
                answers += zqhandler_cmd_sense_timecode(h, BAS_SENSE_TC, tc) == 0;
                std::this_thread::sleep_until(next += std::chrono::microseconds(16667));
            }
            zqhandler_delete(h);
        });
    for (const char* id : {"A", "B", "C", "D"}) {
        EXPECT_EQ(zqhandler_cmd_odetics_recordCueUp(s.udp, id, nullptr), 0);
        EXPECT_EQ(zqhandler_cmd_basic(s.udp, BAS_CMD_RECORD), 0);
        std::this_thread::sleep_for(milliseconds(150));
        EXPECT_EQ(zqhandler_cmd_basic(s.udp, BAS_CMD_STOP), 0);
        EXPECT_EQ(zqhandler_cmd_odetics_inPreset(s.udp, id, nullptr), 0);
    }
    for (std::thread& t : controllers)
        t.join();
    EXPECT_EQ(answers, 8 * kPolls * 2);
    EXPECT_EQ(s.list(s.tcp), "A       |B       |C       |D       |");
}

// Each directive, seen through the library. Fault rows: the error codes of four commands.
TEST(Scenario, each_directive_shapes_what_the_server_answers) {
    using Probe = std::function<std::string(Server&)>;
    const Probe faults = [](Server& s) {
        std::string codes;
        zqhandler_set_timeout(s.udp, 250);
        for (const char* cue : {"01:00:09:20", "01:00:10:00"})
            for (int r :
                 {zqhandler_cmd_cueWithData(s.udp, cue), zqhandler_cmd_basic(s.udp, BAS_CMD_PLAY)})
                codes += std::to_string(r == 0 ? 0 : zqhandler_get_last_err(s.udp)) + " ";
        return codes;
    };
    const Probe clip = [](Server& s) {
        zqhandler_cmd_odetics_inPreset(s.udp, "NEWS", nullptr);
        return s.list(s.udp) + s.timecode(s.udp);
    };
    const Probe product = [](Server& s) {
        uint8_t out[ZQ_SENSE_BYTES] = {};
        zqhandler_cmd_sense_basic(s.udp, BAS_SENSE_PRODUCT, out);
        return std::string(reinterpret_cast<char*>(out));
    };
    const Probe stall = [](Server& s) {
        s.sim.transfers().set_gop({1, 2, 3, 4});
        uint8_t gop[8];
        int32_t size = 0;
        zqhandler_cnxn_get_gop(s.tcp, gop, &size, sizeof gop);
        return std::to_string(size) + (s.sim.count_tag("aliv") >= 5 ? " kept alive" : "");
    };
    const std::tuple<const char*, Probe, std::string> cases[] = {
        {"standard 29.97df", [](Server& s) { return s.timecode(s.udp); }, "01:00:00;00"},
        {"# a clip\n\nclip NEWS 00:00:10:00 00:00:04:00", clip, "NEWS    |00:00:10:00"},
        {"sense B1=41 42", product, "AB"},
        {"local on", [](Server& s) { return s.status(s.udp); }, "01 20 00"},
        {"at 2 nak 01", faults, "0 10 0 0 "},
        {"at 1 silence", faults, "5 0 0 0 "},
        {"at 3 delay 400", faults, "0 0 5 0 "},
        {"at 1 corrupt", faults, "1 0 0 0 "},
        {"at frame 01:00:10:00 nak 01", faults, "0 0 0 10 "},
        {"stall 2 300", stall, "4 kept alive"},
        // Lines it cannot read (no probe): the error names them.
        {"standard 24", nullptr, "line 1: no standard named '24'"},
        {"# faults\nat 0 silence", nullptr,
         "line 2: usage: at N FAULT (N from 1; FAULT nak BITS, silence, delay MS or corrupt)"},
        {"at frame 1:2 corrupt", nullptr, "line 1: usage: at frame TIMECODE FAULT"},
    };
    for (const auto& [text, probe, expected] : cases) {
        Server s;
        std::istringstream in(text);
        std::string error;
        EXPECT_EQ(devsim::load_scenario(s.sim, in, error), probe != nullptr) << text;
        EXPECT_EQ(probe ? probe(s) : error, expected) << text;
    }
}

} // namespace
