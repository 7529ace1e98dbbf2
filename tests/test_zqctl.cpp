// zqctl as a person runs it, against the emulator on each link: its output lines and exit status
// for each command family, the Sony and Louth forms, the transfers, and the failure line.
#include "program.h"

#include <devsim/devsim.h>

#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <thread>
#include <unistd.h>

namespace {

using devsim::Link;
using devsim::Reply;

const std::string kTry = "Try 'zqctl --help'.\n";

Outcome zqctl(const std::string& arguments) {
    return run_program(ZQCTL_PATH " " + arguments);
}

struct Case {
    std::string arguments; // after the link
    int status;
    const char* out;
    std::string err = "";
};

void run_cases(const std::string& link, std::initializer_list<Case> cases) {
    for (const Case& c : cases) {
        Outcome run = zqctl(link + " " + c.arguments);
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
             "{\"status\":\"01 21 02 00 00 00 00 00 00 00\",\"flags\":[\"local\",\"play\","
             "\"stop\",\"still\"]}\n"},
            {"timecode --json", 0, "{\"timecode\":\"00:10:00:00\"}\n"},
            {"-j still", 0, "{}\n"},
            {"sense ip-address", 0, "127.0.0.1\n"},
            {"raw 61 20 01", 0, "71 20 01 92\n"},
            {"clip list", 0, "NEWS\nPROMO1\n"},
            {"--json clip list", 0, "{\"clips\":[\"NEWS\",\"PROMO1\"]}\n"},
            {"watch -n 1", 0, "00:10:00:00  01 21 02 00 00 00 00 00 00 00\n"},
            {"sense nothing", 2, "", "zqctl: sense: no sense named 'nothing'\n" + kTry},
            {"jog", 2, "", "zqctl: jog: usage: zqctl LINK jog SPEED\n" + kTry},
        });
    run_cases("-u localhost:" + std::to_string(sim.udp_port()), {{"stop", 0, ""}});
    // The frames went out as the library builds them: the jog's reverse speed 64, the cue's BCD.
    auto received = sim.received();
    ASSERT_GE(received.size(), 4u);
    EXPECT_EQ(hex(received[2].frame), "21 21 40 82");
    EXPECT_EQ(hex(received[3].frame), "24 31 00 00 10 00 65");
}

// Each row a mistake made at a shell: refused before anything reaches the server or the file.
TEST(Zqctl, bad_command_lines_are_refused_before_anything_is_sent) {
    devsim::DevSim sim;
    const std::string udp = "--udp 127.0.0.1:" + std::to_string(sim.listen_udp("127.0.0.1", 0));
    const std::string tcp = "--tcp 127.0.0.1:" + std::to_string(sim.listen_tcp("127.0.0.1", 0));
    sim.start();
    char dir[] = "/tmp/zqctl-test-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string file = dir + std::string("/file"), absent = dir + std::string("/absent");
    std::ofstream(file) << "keep";
    const struct {
        std::string arguments;
        int status;
        std::string error; // after "zqctl: "
    } rows[] = {
        {udp + " --help", 0, ""},
        {"--udp 127.0.0.300:32896 record", 2,
         "--udp: '127.0.0.300' is not an IPv4 address (four numbers 0-255) or a host name"},
        {"--udp 999.1.1.1:32896 record", 2,
         "--udp: '999.1.1.1' is not an IPv4 address (four numbers 0-255) or a host name"},
        {"--udp 127.0.0.1:113484 record", 2, "--udp: '113484' is not a port (1 to 65535)"},
        {"--udp 127.0.0.1:56957x record", 2, "--udp: '56957x' is not a port (1 to 65535)"},
        {udp + " cue aa", 2, "cue: 'aa' is not a timecode HH:MM:SS:FF at 25 fps"},
        {udp + " cue ''", 2, "cue: '' is not a timecode HH:MM:SS:FF at 25 fps"},
        {udp + " cue 25:00:00:00", 2, "cue: '25:00:00:00' is not a timecode HH:MM:SS:FF at 25 fps"},
        {udp + " cue 00:00:00:25", 2, "cue: '00:00:00:25' is not a timecode HH:MM:SS:FF at 25 fps"},
        {udp + " cue 01:00:00", 2, "cue: '01:00:00' is not a timecode HH:MM:SS:FF at 25 fps"},
        {udp + " cue 99999999999", 2, "cue: '99999999999' is not a timecode HH:MM:SS:FF at 25 fps"},
        {udp + " -S 29.97df cue '00:01:00;01'", 2,
         "cue: '00:01:00;01' is not a label of drop-frame timecode, which skips it"},
        {udp + " step 256", 2, "step: '256' is not a number from -255 to 255"},
        {udp + " jog 1001", 2, "jog: '1001' is not a number from -1000 to 1000"},
        {udp + " -U 16 -L play", 2, "--unit: '16' is not a number from 0 to 15"},
        {udp + " -r 10x watch", 2, "--rate: '10x' is not a number above 0 and at most 1000"},
        {udp + " watch -n 0", 2, "--count: '0' is not a number from 1 to 2147483647"},
        {udp + " clip cue TOOLONGID", 2,
         "clip cue: 'TOOLONGID' is not a clip ID (1 to 8 printable ASCII characters)"},
        {udp + " raw 61 2G", 2, "raw: '2G' is not a hex byte"},
        {udp + " raw 61 20", 2, "raw: CMD1 61 announces 1 data bytes"},
        {udp + " picture 0 " + absent, 2, "picture: '0' is not a number from 3 to 65535"},
        {udp + " --json raw 4E 00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D", 2,
         "raw: CMD1 4E announces 14 data bytes, more than the 13 a frame built here carries"},
        {udp + " -L eject", 2, "eject: not a Louth command"},
        {udp + " -S 29.97df cue 00:01:00:02", 2,
         "cue: '00:01:00:02' at a drop-frame standard is written '00:01:00;02'"},
        {udp + " -U 3 play", 2, "--unit goes with --louth"},
        {udp + " -n 3 play", 2, "--rate and --count go with watch"},
        {udp + " -T 5 -T 6 play", 2, "option '--timeout' given twice"},
        {tcp + " file entry -1", 2, "file entry: '-1' is not a number from 0 to 4294967295"},
        {tcp + " log", 2, "log: over --udp (the management endpoint) only"},
        {tcp + " -L play", 2, "--louth goes over --udp or --serial"},
        {udp + " --bogus play", 2, "unknown option '--bogus'"},
        {"play", 2, "no link: give --udp, --tcp or --serial"},
        {udp, 2, "no command"},
        {"--serial " + file + " status", 1, file + ": not a terminal"},
        {"--serial " + absent + " status", 1, absent + ": No such file or directory"},
        {tcp + " gop get " + file, 1, file + ": File exists"},
    };
    for (const auto& row : rows) {
        const Outcome run = zqctl(row.arguments);
        EXPECT_EQ(run.status, row.status) << row.arguments;
        EXPECT_EQ(run.err, row.error.empty()
                               ? ""
                               : "zqctl: " + row.error + "\n" + (row.status == 2 ? kTry : ""))
            << row.arguments;
    }
    EXPECT_EQ(slurp(file), "keep");
    EXPECT_EQ(access(absent.c_str(), F_OK), -1);
    EXPECT_TRUE(sim.received().empty()) << hex(sim.received().front().wire);
    unlink(file.c_str());
    rmdir(dir);
}

// Each failure says what happened: no answer, a NAK and its bits, a corrupted answer, an answer
// of the wrong kind (an ACK to a sense; the Sony port asked as the management endpoint), data
// that is not there, a refused connection.
TEST(Zqctl, failures_name_the_operation_and_what_happened) {
    devsim::DevSim sim;
    const std::string port = std::to_string(sim.listen_udp("127.0.0.1", 0));
    sim.start();
    Reply corrupt = Reply::ack();
    corrupt.corrupt_checksum = true;
    for (const Reply& reply :
         {Reply::silence(), Reply::nak(0x01), Reply::nak(0xF5), corrupt, Reply::ack()})
        sim.script(reply);
    run_cases("--udp 127.0.0.1:" + port,
              {
                  {"play", 1, "", "zqctl: play: Timeout error (receive)\n"},
                  {"clip list", 1, "", "zqctl: clip list: NAK 01: undefined command\n"},
                  {"stop", 1, "",
                   "zqctl: stop: NAK F5: undefined command, checksum error, parity error, "
                   "overrun, framing error, time-out\n"},
                  {"still", 1, "", "zqctl: still: corrupted answer (its checksum is wrong)\n"},
                  {"status", 1, "", "zqctl: status: answer of the wrong kind or form\n"},
                  {"clip cue NOSUCH", 1, "", "zqctl: clip cue: no clip 'NOSUCH'\n"},
                  {"clip length NOSUCH", 1, "", "zqctl: clip length: no clip 'NOSUCH'\n"},
                  {"diskinfo", 1, "",
                   "zqctl: diskinfo: answer of the wrong kind (not from a management endpoint)\n"},
                  {"log", 1, "",
                   "zqctl: log: answer of the wrong kind (not from a management endpoint)\n"},
              });
    run_cases("--tcp 127.0.0.1:" + port,
              {{"version", 1, "", "zqctl: connect 127.0.0.1:" + port + ": Connection refused\n"}});
}

TEST(Zqctl, sony_and_louth_forms_on_a_serial_line) {
    devsim::DevSim sony, louth;
    const std::string sony_link = "--serial " + sony.open_pty();
    const std::string louth_link = "--louth --serial " + louth.open_pty();
    louth.set_protocol(Link::serial, devsim::Protocol::louth);
    louth.model().append_clip("NEWS", 90 * 25);
    sony.start();
    louth.start();
    // Stray bytes, a whole frame, the start of another that never ends: the line takes the frame
    // and, once the line has been quiet for longer than a deck's inter-byte gap, the next command.
    const int line = open(sony.pty_path().c_str(), O_WRONLY | O_NOCTTY);
    ASSERT_EQ(write(line, "\x61\x20\x20\x05\x25\x6F\x20", 7), 7);
    close(line);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    run_cases(sony_link, {{"still", 0, ""}, {"timecode", 0, "01:00:00:00\n"}});
    EXPECT_EQ(hex(sony.received().at(0).frame), "20 05 25");
    EXPECT_EQ(hex(sony.received().at(1).frame), "20 05 25");
    run_cases(louth_link,
              {
                  {"timecode", 0, "01:00:00:00\n"},
                  {"clip record CLIP7", 0, ""},
                  {"record", 0, ""},
                  {"clip list", 0, "NEWS\nCLIP7\n"},
                  {"shuttle 10", 2, "", "zqctl: shuttle: not a Louth command; use var\n" + kTry},
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
    sim.mgmt().set_log({'o', 'k', ' ', 0xC3, 0xA9, 0xFF});
    sim.mgmt().set_picture(7, {9, 9});
    sim.start();
    const std::string gop = "/tmp/zqctl-test-gop-" + std::to_string(getpid());
    const std::string picture = gop + ".picture";
    run_cases(tcp, {
                       {"version", 0, "3.1\n"},
                       {"diskinfo", 0, "11 22\n"},
                       {"--json file entry 2", 0, "{\"entry\":\"AB CD\"}\n"},
                       {"gop get " + gop, 0, ""},
                       {"gop put " + gop, 0, ""},
                       {"file entry 3", 1, "", "zqctl: file entry: no entry 3\n"},
                   });
    run_cases(mgmt, {{"log", 0, "ok \xC3\xA9\xFF\n"},
                     {"picture 7 " + picture, 0, ""},
                     {"picture 8 " + picture + "8", 1, "", "zqctl: picture: no picture 8\n"}});
    EXPECT_EQ(slurp(gop), std::string("\1\2\3\4\5"));
    EXPECT_EQ(hex(sim.transfers().uploaded()), "01 02 03 04 05");
    EXPECT_EQ(slurp(picture), "\t\t");
    EXPECT_EQ(access((picture + "8").c_str(), F_OK), -1);
    unlink(gop.c_str());
    unlink(picture.c_str());
}

} // namespace
