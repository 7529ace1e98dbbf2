// The emulator as a virtual server behind every link, driven through the library; scenario files.
#include "common.h"

#include <devsim/devsim.h>
#include <devsim/scenario.h>

#include <functional>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>
#include <zqhandler/zqhandler.h>

namespace {

using devsim::Standard;

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

// Each directive, seen through the library. Fault rows: the error codes of four commands.
TEST(Scenario, each_directive_shapes_what_the_server_answers) {
    using Probe = std::function<std::string(Server&)>;
    auto code = [](int r, t_zqhandler* h) {
        return std::to_string(r == 0 ? 0 : zqhandler_get_last_err(h)) + " ";
    };
    const Probe faults = [&](Server& s) {
        std::string codes;
        zqhandler_set_timeout(s.udp, 250);
        for (const char* cue : {"01:00:09:20", "01:00:10:00"}) {
            codes += code(zqhandler_cmd_cueWithData(s.udp, cue), s.udp);
            codes += code(zqhandler_cmd_basic(s.udp, BAS_CMD_PLAY), s.udp);
        }
        return codes;
    };
    // Two commands over TCP, then a connection made again (refused while the server restarts)
    // and a third.
    const Probe tcp = [&](Server& s) {
        std::string codes;
        zqhandler_set_timeout(s.tcp, 250);
        for (int i = 0; i < 2; ++i)
            codes += code(zqhandler_cmd_basic(s.tcp, BAS_CMD_PLAY), s.tcp);
        const std::string port = std::to_string(s.sim.tcp_port());
        const auto start = Clock::now();
        while (zqhandler_connect_tcp(s.tcp, "127.0.0.1", port.c_str()) != 0 &&
               elapsed_ms(start) < 3000)
            usleep(20000);
        zqhandler_set_timeout(s.tcp, 2000);
        return codes + code(zqhandler_cmd_basic(s.tcp, BAS_CMD_PLAY), s.tcp);
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
        {"at 2 restart 400", faults, "0 5 5 0 "}, // silent while it restarts, then answers
        {"",
         [&](Server& s) {
             s.sim.restart(400);
             return faults(s);
         },
         "5 5 0 0 "},
        {"at 2 close", faults, "0 5 0 0 "}, // no connection to close: silence
        {"at 1 close", tcp, "5 5 0 "},      // the second finds the connection closed
        {"at 1 restart 300", tcp, "5 5 0 "},
        {"nak 0x04", faults, "1 1 1 1 "}, // every answer
        {"at frame 01:00:10:00 nak 01", faults, "0 0 0 10 "},
        {"stall 2:300", stall, "4 kept alive"},
        {"clip NEWS", clip, "NEWS    |00:00:00:00"}, // empty, where the store ends
        // The man page's example: a start past the frame does not fire it.
        {"standard 29.97df\nclip NEWS 00:00:10;00 00:00:30;00\nat 12 nak 01\n"
         "at frame 00:00:40;00 silence",
         faults, "0 0 0 0 "},
        // Lines it cannot read (no probe): the error names them.
        {"standard 24", nullptr,
         "line 1: standard: no standard named '24' (25, 29.97df, 30, 50 or 59.94df)"},
        {"# faults\nat 0 silence", nullptr, "line 2: at: '0' is not a number from 1 to 2147483647"},
        {"at frame 1:2 corrupt", nullptr,
         "line 1: at frame: '1:2' is not a timecode HH:MM:SS:FF at 25 fps"},
        {"at frame -00:00:01:00 corrupt", nullptr,
         "line 1: at frame: '-00:00:01:00' is not a timecode HH:MM:SS:FF at 25 fps"},
        {"clip A 25:00:00:00 00:00:01:00", nullptr,
         "line 1: clip: '25:00:00:00' is not a timecode HH:MM:SS:FF at 25 fps"},
        {"clip A 00:00:00:00 00:00:00:99", nullptr,
         "line 1: clip: '00:00:00:99' is not a timecode HH:MM:SS:FF at 25 fps"},
        {"standard 29.97df\nat frame 00:01:00;00 silence", nullptr,
         "line 2: at frame: '00:01:00;00' is not a label of drop-frame timecode, which skips it"},
        {"standard", nullptr, "line 1: usage: standard 25|29.97df|30|50|59.94df"},
        {"local maybe", nullptr, "line 1: local: 'maybe' is not on or off"},
        {"louth now", nullptr, "line 1: usage: louth"},
        {"stall 1", nullptr, "line 1: stall: '1' is not of the form A:B"},
        {"at 1 explode", nullptr,
         "line 1: at: FAULT is nak BITS, refuse BYTE, silent, delay MS, corrupt, restart MS or "
         "close, not 'explode'"},
    };
    for (const auto& [text, probe, expected] : cases) {
        Server s;
        std::istringstream in(text);
        std::string error;
        EXPECT_EQ(devsim::load_scenario(s.sim, in, error), probe != nullptr) << text;
        EXPECT_EQ(probe ? probe(s) : error, expected) << text;
    }
}

// A play that reaches its loaded clip's end, or its edit's end point, stands there: the transport
// in still, the position held while time goes on.
TEST(Model, a_play_stops_at_the_end_of_its_clip_or_edit_and_stands_there) {
    using State = devsim::Model::State;
    const std::function<void(devsim::Model&)> plays[] = {
        [](devsim::Model& m) {
            m.add_clip("SHORT", 1000, 5);
            m.load("SHORT");
            m.command(State::playing);
        },
        [](devsim::Model& m) { m.edit(devsim::Model::Edit::preview, 1000, 1005); },
    };
    for (const auto& play : plays) {
        devsim::Model model;
        play(model);
        usleep(400000); // 10 frames at 25 a second: past the end
        EXPECT_EQ(model.state(), State::still);
        EXPECT_EQ(model.position(), 1005);
        usleep(200000);
        EXPECT_EQ(model.position(), 1005) << "it stands";
        EXPECT_EQ(model.state(), State::still);
    }
}
} // namespace
