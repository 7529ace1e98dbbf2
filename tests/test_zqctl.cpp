// zqctl as a person runs it, against the emulator on each link: its output lines and exit status
// for each command family, the Sony and Louth forms, the transfers, and the failure line.
#include <devsim/devsim.h>

#include <cstdio>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using devsim::Link;
using devsim::Reply;

std::string slurp(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

struct Run {
    int status;
    std::string out, err;
};

// zqctl with `arguments` (a shell word list), its standard output and error apart.
Run zqctl(const std::string& arguments) {
    const std::string base = "/tmp/zqctl-test-" + std::to_string(getpid());
    const std::string command =
        ZQCTL_PATH " " + arguments + " >" + base + ".out 2>" + base + ".err </dev/null";
    int status = system(command.c_str());
    Run run{WIFEXITED(status) ? WEXITSTATUS(status) : -1, slurp(base + ".out"),
            slurp(base + ".err")};
    unlink((base + ".out").c_str());
    unlink((base + ".err").c_str());
    return run;
}

struct Case {
    std::string arguments; // after the link
    int status;
    const char* out;
    const char* err = "";
};

void run_cases(const std::string& link, std::initializer_list<Case> cases) {
    for (const Case& c : cases) {
        Run run = zqctl(link + " " + c.arguments);
        EXPECT_EQ(run.status, c.status) << c.arguments << ": " << run.err;
        EXPECT_EQ(run.out, c.out) << c.arguments;
        EXPECT_EQ(run.err, c.err) << c.arguments;
    }
}

TEST(Zqctl, sony_commands_senses_and_clips_over_udp) {
    devsim::DevSim sim;
    const std::string link = "--udp 127.0.0.1:" + std::to_string(sim.listen_udp("127.0.0.1", 0));
    sim.sony().set_sense(0x20, {0x01, 0x21, 0x02, 0, 0, 0, 0, 0, 0, 0});
    sim.sony().set_sense(0x0C, 0x04, {0x00, 0x00, 0x10, 0x00}); // 00:10:00:00
    sim.sony().add_clip("NEWS");
    sim.sony().add_clip("PROMO1");
    sim.start();
    run_cases(
        link,
        {
            {"play", 0, ""},
            {"step -2", 0, ""},
            {"jog -100", 0, ""},
            {"cue 00:10:00:00", 0, ""},
            {"status", 0, "01 21 02 00 00 00 00 00 00 00  local play stop still\n"},
            {"--json status", 0,
             "{\"status\": \"01 21 02 00 00 00 00 00 00 00\", \"flags\": [\"local\", \"play\", "
             "\"stop\", \"still\"]}\n"},
            {"timecode", 0, "00:10:00:00\n"},
            {"sense ip-address", 0, "127.0.0.1\n"},
            {"raw 61 20 01", 0, "71 20 01 92\n"},
            {"clip list", 0, "NEWS\nPROMO1\n"},
            {"--json clip list", 0, "{\"clips\": [\"NEWS\", \"PROMO1\"]}\n"},
            {"-n 1 watch", 0, "00:10:00:00  01 21 02 00 00 00 00 00 00 00\n"},
            {"sense nothing", 2, "", "zqctl: sense: no sense named 'nothing'\n"},
            {"jog", 2, "", "zqctl: jog: usage: zqctl LINK jog SPEED\n"},
        });
    // The frames went out as the library builds them: the jog's reverse speed 64, the cue's BCD.
    auto received = sim.received();
    ASSERT_GE(received.size(), 4u);
    EXPECT_EQ(hex(received[2].frame), "21 21 40 82");
    EXPECT_EQ(hex(received[3].frame), "24 31 00 00 10 00 65");
}

TEST(Zqctl, failures_name_the_operation_and_the_library_error) {
    devsim::DevSim sim;
    const std::string link = "--udp 127.0.0.1:" + std::to_string(sim.listen_udp("127.0.0.1", 0));
    sim.start();
    sim.script(Reply::silence());
    sim.script(Reply::nak(0x01));
    run_cases(link, {
                        {"play", 1, "", "zqctl: play: Timeout error (receive)\n"},
                        {"clip list", 1, "", "zqctl: clip list: Not implemented\n"},
                    });
}

TEST(Zqctl, sony_and_louth_forms_on_a_serial_line) {
    devsim::DevSim sony, louth;
    const std::string sony_link = "--serial " + sony.open_pty();
    const std::string louth_link = "--louth --serial " + louth.open_pty();
    louth.set_protocol(Link::serial, devsim::Protocol::louth);
    louth.model().append_clip("NEWS", 90 * 25);
    sony.start();
    louth.start();
    run_cases(sony_link, {{"still", 0, ""}, {"timecode", 0, "01:00:00:00\n"}});
    run_cases(louth_link,
              {
                  {"timecode", 0, "01:00:00:00\n"},
                  {"clip record CLIP7", 0, ""},
                  {"record", 0, ""},
                  {"clip list", 0, "NEWS\nCLIP7\n"},
                  {"shuttle 10", 2, "", "zqctl: shuttle: not a Louth command; use var\n"},
              });
    EXPECT_EQ(hex(louth.received().at(1).frame).substr(0, 8), "02 0A 20");
}

TEST(Zqctl, transfers_over_tcp_and_management_over_udp) {
    devsim::DevSim sim;
    const std::string tcp = "--tcp 127.0.0.1:" + std::to_string(sim.listen_tcp("127.0.0.1", 0));
    const std::string mgmt = "--udp 127.0.0.1:" + std::to_string(sim.listen_mgmt("127.0.0.1", 0));
    sim.transfers().set_version(3, 1);
    sim.transfers().set_diskinfo({0x11, 0x22});
    sim.transfers().set_file_entry(2, {0xAB, 0xCD});
    sim.transfers().set_gop({1, 2, 3, 4, 5});
    sim.mgmt().set_log({'o', 'k'});
    sim.mgmt().set_picture(7, {9, 9});
    sim.start();
    const std::string gop = "/tmp/zqctl-test-gop-" + std::to_string(getpid());
    const std::string picture = gop + ".picture";
    run_cases(tcp, {
                       {"version", 0, "3.1\n"},
                       {"diskinfo", 0, "11 22\n"},
                       {"--json file entry 2", 0, "{\"entry\": \"AB CD\"}\n"},
                       {"gop get " + gop, 0, ""},
                       {"gop put " + gop, 0, ""},
                   });
    run_cases(mgmt, {{"log", 0, "ok\n"}, {"picture 7 " + picture, 0, ""}});
    EXPECT_EQ(slurp(gop), std::string("\1\2\3\4\5"));
    EXPECT_EQ(hex(sim.transfers().uploaded()), "01 02 03 04 05");
    EXPECT_EQ(slurp(picture), "\t\t");
    unlink(gop.c_str());
    unlink(picture.c_str());
}

} // namespace
