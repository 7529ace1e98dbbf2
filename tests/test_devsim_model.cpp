// The emulator as a virtual server, driven through the library: the position runs in real time,
// the status bits follow the transport, timecodes count as the standard says, and one clip store
// answers Louth on a pty, Sony and Odetics over UDP and TCP alike.
#include "devsim.h"
#include "scenario.h"

#include <atomic>
#include <chrono>
#include <cstring>
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

using devsim::Link;
using devsim::Standard;
using Clock = std::chrono::steady_clock;

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
        sim.set_protocol(Link::serial, devsim::Protocol::louth);
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
    // Status bytes 1 and 2.
    std::pair<int, int> status(t_zqhandler* h) {
        uint8_t out[ZQ_SENSE_BYTES] = {};
        EXPECT_EQ(zqhandler_cmd_sense_status(h, out), 10);
        return {out[1], out[2]};
    }
    // The Odetics list (over `h`) or the Louth list, "|" after each ID.
    std::string odetics_list(t_zqhandler* h) {
        std::string ids;
        char id[9];
        for (int r = zqhandler_cmd_odetics_sense_firstID(h, id); r == 0;
             r = zqhandler_cmd_odetics_sense_nextID(h, id))
            ids += std::string(id) + "|";
        return ids;
    }
    std::string louth_list() {
        std::string ids;
        char id[9];
        for (int r = zqhandler_cmd_louth_sense_firstID(louth, 0, id); r > 0;
             r = zqhandler_cmd_louth_sense_nextID(louth, 0, id))
            ids += std::string(id) + "|";
        return ids;
    }
};

// "HH:MM:SS:FF" at 25 frames per second to frames.
long frames25(const std::string& tc) {
    return ((std::stol(tc.substr(0, 2)) * 60 + std::stol(tc.substr(3, 2))) * 60 +
            std::stol(tc.substr(6, 2))) *
               25 +
           std::stol(tc.substr(9, 2));
}

TEST(VirtualServer, the_position_runs_at_the_frame_rate_and_stills_freeze_it) {
    Server s;
    ASSERT_EQ(zqhandler_cmd_cueWithData(s.udp, "00:10:00:00"), 0);
    EXPECT_EQ(s.timecode(s.tcp), "00:10:00:00");
    EXPECT_EQ(s.status(s.udp), std::make_pair(0x80, 0x03)); // standby, still, cue-up complete
    ASSERT_EQ(zqhandler_cmd_basic(s.udp, BAS_CMD_PLAY), 0);
    // Each sense's moment is taken half-way through its exchange.
    auto sense = [&](double& at) {
        auto before = Clock::now();
        const std::string tc = s.timecode(s.udp);
        auto after = Clock::now();
        at =
            std::chrono::duration<double>(before.time_since_epoch() + (after - before) / 2).count();
        return frames25(tc);
    };
    double t0, t1;
    const long first = sense(t0);
    std::this_thread::sleep_for(std::chrono::seconds(1));
    const long second = sense(t1);
    EXPECT_NEAR(static_cast<double>(second - first), 25 * (t1 - t0), 2);
    EXPECT_GE(second - first, 23);
    ASSERT_EQ(zqhandler_cmd_basic(s.tcp, BAS_CMD_STILL), 0);
    const std::string frozen = s.timecode(s.udp);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(s.timecode(s.tcp), frozen);
}

TEST(VirtualServer, status_bits_follow_each_transport_command) {
    struct Case {
        const char* name;
        int (*command)(t_zqhandler*);
        int byte1, byte2; // after the command
    };
    const Case cases[] = {
        {"play", [](t_zqhandler* h) { return zqhandler_cmd_basic(h, BAS_CMD_PLAY); }, 0x01, 0},
        {"still", [](t_zqhandler* h) { return zqhandler_cmd_basic(h, BAS_CMD_STILL); }, 0x80, 0x02},
        {"stop", [](t_zqhandler* h) { return zqhandler_cmd_basic(h, BAS_CMD_STOP); }, 0x20, 0},
        {"record", [](t_zqhandler* h) { return zqhandler_cmd_basic(h, BAS_CMD_RECORD); }, 0x02, 0},
        {"fast forward", [](t_zqhandler* h) { return zqhandler_cmd_basic(h, BAS_CMD_FF); }, 0x04,
         0},
        {"rewind", [](t_zqhandler* h) { return zqhandler_cmd_basic(h, BAS_CMD_RW); }, 0x08, 0x04},
        {"jog forward", [](t_zqhandler* h) { return zqhandler_cmd_jog(h, 100); }, 0, 0x10},
        {"var reverse", [](t_zqhandler* h) { return zqhandler_cmd_var_play(h, -50); }, 0, 0x0C},
        {"shuttle", [](t_zqhandler* h) { return zqhandler_cmd_shuttle(h, 200); }, 0, 0x20},
        {"step", [](t_zqhandler* h) { return zqhandler_cmd_step(h, 3); }, 0x80, 0x02},
        {"cue", [](t_zqhandler* h) { return zqhandler_cmd_cueWithData(h, "00:00:10:00"); }, 0x80,
         0x03},
        {"continue", [](t_zqhandler* h) { return zqhandler_cmd_basic(h, BAS_CMD_CONTINUE); }, 0x01,
         0},
        {"eject", [](t_zqhandler* h) { return zqhandler_cmd_basic(h, BAS_CMD_EJECT); }, 0x10, 0},
    };
    Server s;
    for (const Case& c : cases) {
        ASSERT_EQ(c.command(s.udp), 0) << c.name;
        EXPECT_EQ(s.status(s.tcp), std::make_pair(c.byte1, c.byte2)) << c.name;
    }
}

// Timecodes roll over as each standard counts: drop-frame skips two labels a minute, and at 50
// and 59.94 the timecode counts pairs of frames.
TEST(VirtualServer, timecodes_count_as_the_standard_says) {
    struct Case {
        Standard standard;
        const char* cue;
        int steps;
        const char* after;
    };
    const Case cases[] = {
        {Standard::pal25, "00:00:59:24", 1, "00:01:00:00"},
        {Standard::ntsc30, "00:00:59:29", 1, "00:01:00:00"},
        {Standard::ntsc2997df, "00:00:59;29", 1, "00:01:00;02"},
        {Standard::ntsc2997df, "00:09:59;29", 1, "00:10:00;00"},
        {Standard::pal50, "00:00:59:24", 2, "00:01:00:00"},
        {Standard::ntsc5994df, "00:00:59;29", 2, "00:01:00;02"},
        {Standard::ntsc5994df, "00:00:59;29", 1, "00:00:59;29"},
    };
    for (const Case& c : cases) {
        Server s(c.standard);
        ASSERT_EQ(zqhandler_cmd_cueWithData(s.udp, c.cue), 0);
        EXPECT_EQ(s.timecode(s.udp), c.cue) << devsim::standard_name(c.standard);
        ASSERT_EQ(zqhandler_cmd_step(s.udp, c.steps), 0);
        EXPECT_EQ(s.timecode(s.udp), c.after) << devsim::standard_name(c.standard);
    }
}

TEST(VirtualServer, a_clip_recorded_through_louth_is_listed_cued_and_erased_on_every_link) {
    Server s;
    s.sim.model().append_clip("NEWS", 250);
    ASSERT_EQ(zqhandler_cmd_louth_record_init(s.louth, 0, "PROMO"), 0);
    ASSERT_EQ(zqhandler_cmd_louth_basic(s.louth, BAS_CMD_RECORD, 0), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    ASSERT_EQ(zqhandler_cmd_louth_basic(s.louth, BAS_CMD_STOP, 0), 0);

    EXPECT_EQ(s.odetics_list(s.udp), "NEWS    |PROMO   |");
    char length[ZQ_TC_BYTES] = {}, louth_length[ZQ_TC_BYTES] = {};
    ASSERT_EQ(zqhandler_cmd_odetics_sense_id_length(s.udp, "PROMO", length), 0);
    ASSERT_EQ(zqhandler_cmd_louth_sense_id_length(s.louth, 0, "PROMO", louth_length), 0);
    EXPECT_STREQ(length, louth_length);
    const long frames = frames25(length);
    EXPECT_GE(frames, 9); // 400 ms and the stop's exchange
    EXPECT_LE(frames, 40);

    // Cued by ID over TCP: the position goes to the clip's start; play stops at its end.
    ASSERT_EQ(zqhandler_cmd_odetics_inPreset(s.tcp, "PROMO", nullptr), 0);
    uint8_t loaded[ZQ_SENSE_BYTES] = {};
    ASSERT_EQ(zqhandler_cmd_sense_basic(s.tcp, BAS_SENSE_LOADED_ID, loaded), 9);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(loaded) + 1, 8), "PROMO   ");
    const std::string start = s.timecode(s.tcp);
    EXPECT_EQ(frames25(start), 250); // after NEWS
    ASSERT_EQ(zqhandler_cmd_basic(s.tcp, BAS_CMD_PLAY), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(40 * frames + 200));
    EXPECT_EQ(frames25(s.timecode(s.udp)), 250 + frames);
    EXPECT_EQ(s.status(s.udp), std::make_pair(0x80, 0x02));

    ASSERT_EQ(zqhandler_cmd_louth_eraseID(s.louth, 0, "PROMO"), 0);
    EXPECT_EQ(s.odetics_list(s.tcp), "NEWS    |");
    EXPECT_EQ(s.louth_list(), "NEWS    |");
    ASSERT_EQ(zqhandler_cmd_odetics_eraseID(s.udp, "NEWS"), 0);
    EXPECT_EQ(s.louth_list(), "");
}

// A controller that asks for data gets data (an ACK fails these operations): device type, then
// status and time at frame rate.
TEST(VirtualServer, senses_get_data_never_an_ack) {
    Server s;
    uint8_t out[ZQ_SENSE_BYTES] = {};
    ASSERT_EQ(zqhandler_cmd_sense_basic(s.udp, BAS_SENSE_DEVICE_TYPE, out), 2);
    for (int i = 0; i < 25; ++i) {
        EXPECT_EQ(zqhandler_cmd_sense_status(s.tcp, out), 10);
        char tc[ZQ_TC_BYTES];
        EXPECT_EQ(zqhandler_cmd_sense_timecode(s.udp, BAS_SENSE_TC, tc), 0);
        std::this_thread::sleep_for(std::chrono::milliseconds(40));
    }
}

// The transfers and the management endpoint list the same store; the management log shows every
// command the server received, on any link.
TEST(VirtualServer, transfers_and_management_list_the_store_and_log_the_commands) {
    Server s;
    s.sim.model().add_clip("NEWS", 250, 100);
    ASSERT_EQ(zqhandler_cmd_louth_record_init(s.louth, 0, "PROMO"), 0);
    const std::string listing =
        "NEWS     00:00:10:00 00:00:04:00\nPROMO    00:00:14:00 00:00:00:00\n";
    uint8_t buffer[1490] = {};
    ASSERT_EQ(zqhandler_cnxn_get_diskinfo(s.tcp, buffer, sizeof buffer), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(buffer)), listing);
    std::memset(buffer, 0, sizeof buffer);
    int32_t size = 0;
    ASSERT_EQ(zqhandler_cnxn_get_file_entry(s.tcp, 1, buffer, &size, sizeof buffer), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(buffer), static_cast<size_t>(size)),
              listing.substr(33));
    ASSERT_EQ(zqhandler_cnxn_get_file_entry(s.tcp, 2, buffer, &size, sizeof buffer), 0);
    EXPECT_EQ(size, 0);

    // GOPs: the same for the same clip and position, another after a step; an upload comes back.
    auto gop = [&] {
        uint8_t bytes[128];
        int32_t n = 0;
        EXPECT_EQ(zqhandler_cnxn_get_gop(s.tcp, bytes, &n, sizeof bytes), 0);
        return std::string(reinterpret_cast<char*>(bytes), static_cast<size_t>(std::max(n, 0)));
    };
    ASSERT_EQ(zqhandler_cmd_odetics_inPreset(s.udp, "NEWS", nullptr), 0);
    const std::string at_news = gop();
    EXPECT_EQ(at_news.size(), 64u);
    EXPECT_EQ(at_news.substr(0, 16), std::string("GOP NEWS    \0\0\0\xFA", 16));
    EXPECT_EQ(gop(), at_news);
    ASSERT_EQ(zqhandler_cmd_step(s.udp, 1), 0);
    EXPECT_NE(gop().substr(16), at_news.substr(16));
    const uint8_t upload[] = {9, 8, 7};
    ASSERT_EQ(zqhandler_cnxn_put_gop(s.tcp, 0, upload, 3), 0);
    ASSERT_TRUE(s.sim.transfers().wait_uploads(1, 2000));
    EXPECT_EQ(gop(), "\x09\x08\x07");

    t_zqhandler* mgmt = zqhandler_create();
    ASSERT_EQ(zqhandler_connect_eth(mgmt, "127.0.0.1", std::to_string(s.sim.mgmt_port()).c_str()),
              0);
    const int n = zqhandler_mgmt_get_diskinfo(mgmt, buffer, sizeof buffer);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(buffer), static_cast<size_t>(std::max(n, 0))),
              listing);
    ASSERT_EQ(zqhandler_cmd_basic(s.udp, BAS_CMD_PLAY), 0);
    const int logged = zqhandler_mgmt_getlog(mgmt, buffer);
    ASSERT_GT(logged, 0);
    const std::string log(reinterpret_cast<char*>(buffer), static_cast<size_t>(logged));
    for (const char* line : {"serial 02 0A 20 23 50 52 4F 4D 4F 20 20 20 D0\n", "tcp gfif ",
                             "tcp uuuu ", "udp 20 01 21\n"})
        EXPECT_NE(log.find(line), std::string::npos) << line << " in\n" << log;
    zqhandler_delete(mgmt);
}

// Eight controllers, four on UDP and four on TCP, poll status and time at 60 Hz for a second
// while a ninth records and cues clips: every answer comes within the time-out. (bench_devsim_load
// runs the long version and measures it.)
TEST(VirtualServer, several_controllers_at_once_get_every_answer) {
    Server s;
    constexpr int kPolls = 60;
    std::atomic<int> answers{0};
    std::vector<std::thread> controllers;
    for (int i = 0; i < 8; ++i)
        controllers.emplace_back([&, i] {
            t_zqhandler* h = zqhandler_create();
            const std::string udp = std::to_string(s.sim.udp_port()),
                              tcp = std::to_string(s.sim.tcp_port());
            EXPECT_EQ(i % 2 ? zqhandler_connect_tcp(h, "127.0.0.1", tcp.c_str())
                            : zqhandler_connect_eth(h, "127.0.0.1", udp.c_str()),
                      0);
            zqhandler_set_timeout(h, 500);
            auto next = Clock::now();
            for (int poll = 0; poll < kPolls; ++poll) {
                uint8_t status[ZQ_SENSE_BYTES];
                char tc[ZQ_TC_BYTES];
                answers += zqhandler_cmd_sense_status(h, status) == 10;
                answers += zqhandler_cmd_sense_timecode(h, BAS_SENSE_TC, tc) == 0;
                std::this_thread::sleep_until(next += std::chrono::microseconds(16667));
            }
            zqhandler_delete(h);
        });
    for (const char* id : {"A", "B", "C", "D"}) {
        EXPECT_EQ(zqhandler_cmd_odetics_recordCueUp(s.udp, id, nullptr), 0);
        EXPECT_EQ(zqhandler_cmd_basic(s.udp, BAS_CMD_RECORD), 0);
        std::this_thread::sleep_for(std::chrono::milliseconds(150));
        EXPECT_EQ(zqhandler_cmd_basic(s.udp, BAS_CMD_STOP), 0);
        EXPECT_EQ(zqhandler_cmd_odetics_inPreset(s.udp, id, nullptr), 0);
    }
    for (std::thread& t : controllers)
        t.join();
    EXPECT_EQ(answers, 8 * kPolls * 2);
    EXPECT_EQ(s.odetics_list(s.tcp), "A       |B       |C       |D       |");
}

double elapsed_ms(Clock::time_point since) {
    return std::chrono::duration<double, std::milli>(Clock::now() - since).count();
}

// Each directive of a scenario file, loaded into a fresh server and seen through the library.
TEST(Scenario, each_directive_shapes_what_the_server_answers) {
    using Check = std::function<void(Server&)>;
    auto play = [](Server& s) { return zqhandler_cmd_basic(s.udp, BAS_CMD_PLAY); };
    auto fails = [](Server& s, int result, e_s9p_err code) {
        EXPECT_EQ(result, -1);
        EXPECT_EQ(zqhandler_get_last_err(s.udp), code);
    };
    const std::pair<const char*, Check> cases[] = {
        {"standard 29.97df", [](Server& s) { EXPECT_EQ(s.timecode(s.udp), "01:00:00;00"); }},
        {"# the store\n\nclip NEWS 00:00:10:00 00:00:04:00",
         [](Server& s) {
             EXPECT_EQ(s.odetics_list(s.udp), "NEWS    |");
             char length[ZQ_TC_BYTES];
             ASSERT_EQ(zqhandler_cmd_odetics_sense_id_length(s.udp, "NEWS", length), 0);
             EXPECT_STREQ(length, "00:00:04:00");
             ASSERT_EQ(zqhandler_cmd_odetics_inPreset(s.udp, "NEWS", nullptr), 0);
             EXPECT_EQ(s.timecode(s.udp), "00:00:10:00");
         }},
        {"sense B1=41 42",
         [](Server& s) {
             uint8_t out[ZQ_SENSE_BYTES] = {};
             EXPECT_EQ(zqhandler_cmd_sense_basic(s.udp, BAS_SENSE_PRODUCT, out), 2);
             EXPECT_STREQ(reinterpret_cast<char*>(out), "AB");
         }},
        {"local on",
         [](Server& s) {
             uint8_t out[ZQ_SENSE_BYTES] = {};
             EXPECT_EQ(zqhandler_cmd_sense_status(s.udp, out), 10);
             EXPECT_EQ(out[0], 0x01);
         }},
        {"at 2 nak 01",
         [&](Server& s) {
             EXPECT_EQ(play(s), 0);
             fails(s, play(s), S9P_NOT_IMPLEMENTED);
             EXPECT_EQ(play(s), 0);
         }},
        {"at 1 silence",
         [&](Server& s) {
             zqhandler_set_timeout(s.udp, 200);
             fails(s, play(s), S9P_RCV_TIMEOUT);
             EXPECT_EQ(play(s), 0);
         }},
        {"at 1 delay 300",
         [&](Server& s) {
             auto start = Clock::now();
             EXPECT_EQ(play(s), 0);
             EXPECT_GE(elapsed_ms(start), 300);
         }},
        {"at 1 corrupt", [&](Server& s) { fails(s, play(s), S9P_ERR_CHECKSUM); }},
        {"at frame 01:00:10:00 nak 01",
         [&](Server& s) {
             EXPECT_EQ(zqhandler_cmd_cueWithData(s.udp, "01:00:09:24"), 0);
             EXPECT_EQ(play(s), 0);
             EXPECT_EQ(zqhandler_cmd_cueWithData(s.udp, "01:00:10:00"), 0);
             fails(s, play(s), S9P_NOT_IMPLEMENTED);
         }},
        {"stall 2 300",
         [](Server& s) {
             s.sim.transfers().set_gop({1, 2, 3, 4});
             uint8_t gop[8];
             int32_t size = 0;
             EXPECT_EQ(zqhandler_cnxn_get_gop(s.tcp, gop, &size, sizeof gop), 0);
             EXPECT_EQ(size, 4);
             EXPECT_GE(s.sim.count_tag("aliv"), 5u) << "keep-alives while it stalled";
         }},
    };
    for (const auto& [text, check] : cases) {
        SCOPED_TRACE(text);
        Server s;
        std::istringstream in(text);
        std::string error;
        ASSERT_TRUE(devsim::load_scenario(s.sim, in, error)) << error;
        check(s);
    }
}

TEST(Scenario, a_line_it_cannot_read_is_named) {
    const std::pair<const char*, const char*> cases[] = {
        {"standard 24", "line 1: no standard named '24'"},
        {"# faults\nat 0 silence", "line 2: usage: at N FAULT (N from 1; FAULT nak BITS, silence, "
                                   "delay MS or corrupt)"},
        {"at frame 1:2 corrupt", "line 1: usage: at frame TIMECODE FAULT"},
        {"clip NEWS 00:00:10:00", "line 1: unknown directive 'clip'"},
        {"clip LONGCLIPNAME 00:00:10:00 00:00:01:00",
         "line 1: usage: clip ID START LENGTH (an ID of at most 8 bytes, two timecodes)"},
        {"sense B1", "line 1: usage: sense CMD2[.SEL]=HEX"},
        {"repeat 3", "line 1: unknown directive 'repeat'"},
    };
    for (const auto& [text, message] : cases) {
        devsim::DevSim sim;
        std::istringstream in(text);
        std::string error;
        EXPECT_FALSE(devsim::load_scenario(sim, in, error)) << text;
        EXPECT_EQ(error, message) << text;
    }
}

} // namespace
