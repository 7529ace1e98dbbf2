// The emulators' command lines as a person mistypes them: each mistake refused with one line and
// its status, and whatever a path named left as it was.
#include "loopback.h"
#include "program.h"

#include <devsim/devsim.h>
#include <sdiboard/sdiboard.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sched.h>
#include <thread>
#include <unistd.h>

namespace {

TEST(CommandLines, emulators_refuse_a_mistake_with_one_line_and_touch_nothing) {
    char made[] = "/tmp/vlm-lines-XXXXXX";
    ASSERT_NE(mkdtemp(made), nullptr);
    const std::string dir = made, file = dir + "/file", binary = dir + "/binary";
    const std::string live = dir + "/live", served = dir + "/served.sock";
    std::ofstream(file) << "keep";
    std::ofstream(binary) << std::string("\x01\x02\xFF bin\n", 8);
    {
        devsim::DevSim sim; // holds a UDP port and a pty in use
        const std::string port = std::to_string(sim.listen_udp("127.0.0.1", 0));
        ASSERT_EQ(symlink(sim.open_pty().c_str(), live.c_str()), 0);
        sdiboard::Board board(served);
        const std::string devsim = DEVSIM_PATH " ", sdiboard = SDIBOARD_PATH " ";
        const struct {
            std::string command;
            int status;
            std::string error;
        } rows[] = {
            {devsim + "--help", 0, ""},
            {devsim + "serial " + file, 1,
             "devsim: " + file + ": exists and is not a link to a pty"},
            {devsim + "serial " + live, 1,
             "devsim: " + live + ": links to " + sim.pty_path() + ", a pty in use"},
            {devsim + "udp 127.0.0.1 " + port, 1,
             "devsim: udp 127.0.0.1:" + port + ": bind: Address already in use"},
            {devsim + "tcp 127.0.0.1 0 --mgmt " + port, 1,
             "devsim: mgmt 127.0.0.1:" + port + ": bind: Address already in use"},
            {devsim + "udp 127.0.0.1 0 --gop " + dir, 1, "devsim: " + dir + ": Is a directory"},
            {devsim + "udp 127.0.0.1 0 --pcap " + file, 1, "devsim: " + file + ": File exists"},
            {devsim + "udp 127.0.0.1 0 --scenario " + dir, 1,
             "devsim: " + dir + ": Is a directory"},
            {devsim + "udp 127.0.0.1 0 --scenario " + binary, 1,
             "devsim: " + binary + ": line 1: unknown directive '\\x01\\x02\\xFF'"},
            {devsim + "udp 127.0.0.1 70000", 2, "devsim: PORT: '70000' is not a port (0 to 65535)"},
            {devsim + "udp 127.0.0.300 0", 2,
             "devsim: ADDRESS: '127.0.0.300' is not an IPv4 address (four numbers 0-255) or a "
             "host name"},
            {devsim + "--standard 24 udp 127.0.0.1 0", 2,
             "devsim: --standard: no standard named '24' (25, 29.97df, 30, 50 or 59.94df)"},
            {devsim + "udp 127.0.0.1 0 --sense B1=GG", 2,
             "devsim: --sense: 'B1=GG' is not CMD2[.SEL]=HEX (at most 15 bytes)"},
            {devsim + "--louth tcp 127.0.0.1 0", 2, "devsim: --louth needs a udp or serial link"},
            {devsim + "udp 127.0.0.1 0 --local maybe", 2,
             "devsim: --local: 'maybe' is not on or off"},
            {devsim + "udp 127.0.0.1 0 --at '1 restart -5'", 2,
             "devsim: --at: '-5' is not a number from 0 to 3600000"},
            {devsim, 2, "devsim: no link (udp, tcp or serial)"},
            {devsim + "tcp 127.0.0.1 0 --refuse 3", 2,
             "devsim: --refuse: no link here speaks Louth (udp, or serial with --louth)"},
            {devsim + "serial --louth --nak 1", 2, "devsim: --nak: no link here speaks Sony 9-pin"},
            {devsim + "udp 127.0.0.1 0 --clip A --clip A", 2,
             "devsim: --clip: 'A' is in the clip store already"},
            {devsim + "udp 127.0.0.1 0 --pcap " + dir + "/a --pcap " + dir + "/b", 2,
             "devsim: option '--pcap' given twice"},
            {sdiboard + "-s " + dir + "/a -s " + dir + "/b", 2,
             "sdiboard: option '--socket' given twice"},
            {sdiboard + "--help", 0, ""},
            {sdiboard + "-s " + file, 1, "sdiboard: " + file + ": exists and is not a socket"},
            {sdiboard + "-s " + served, 1,
             "sdiboard: " + served + ": a socket another program serves"},
            {sdiboard + "--absent --late", 2, "sdiboard: one fault at a time"},
            {sdiboard + "--bogus", 2, "sdiboard: unknown option '--bogus'"},
        };
        for (const auto& row : rows) {
            const Outcome run = run_program(row.command);
            const std::string name = row.error.substr(0, row.error.find(':'));
            EXPECT_EQ(run.status, row.status) << row.command;
            EXPECT_EQ(run.err, row.error.empty()
                                   ? ""
                                   : row.error + "\n" +
                                         (row.status == 2 ? "Try '" + name + " --help'.\n" : ""))
                << row.command;
            EXPECT_EQ(run.out.rfind("usage: ", 0), row.status == 0 ? 0 : std::string::npos);
        }
        EXPECT_EQ(slurp(file), "keep");
        char target[64] = {};
        EXPECT_EQ(readlink(live.c_str(), target, sizeof target - 1), sim.pty_path().size());
        EXPECT_EQ(access(served.c_str(), F_OK), 0) << "the other board's socket is still there";
    }
    for (const std::string& path : {file, binary, live})
        unlink(path.c_str());
    rmdir(made);
}

// Where standard output goes: a full device, nowhere, a full file system, a file that may not grow
// past 512 bytes (EFBIG), a reader that takes one line and goes.
enum Sink { kFull, kClosed, kFullDisk, kSmallFile, kHead };
const char* const kSinks[] = {
    "sh -c 'CMD >/dev/full'", "sh -c 'CMD >&-'",
    "unshare -m sh -c 'mount -t tmpfs -o size=4k tmpfs DIR && cat /dev/zero >DIR/fill 2>&-; "
    "exec CMD >DIR/out'",
    "sh -c 'ulimit -f 1 && trap \"\" XFSZ && exec CMD >DIR/out'", "sh -c 'CMD | head -1'"};

std::string into(Sink sink, const std::string& command, const std::string& dir) {
    std::string line = kSinks[sink];
    for (size_t at; (at = line.find("DIR")) != std::string::npos;)
        line.replace(at, 3, dir);
    return line.replace(line.find("CMD"), 3, command);
}

// A line lost ends every program with status 1 and the cause, a serving one at once (a line of the
// traffic, on another thread); a reader that goes away ends them quietly, as ever. Root: fixed
// ports in a network namespace of the test's own, file systems in mount namespaces of their own.
TEST(CommandLines, output_that_cannot_be_written_ends_with_status_1_and_its_cause) {
    const bool root =
        geteuid() == 0 && unshare(CLONE_NEWNET) == 0 && system("ip link set lo up") == 0;
    char made[] = "/tmp/vlm-output-XXXXXX";
    ASSERT_NE(mkdtemp(made), nullptr);
    const std::string dir = made, nospace = "No space left on device";
    devsim::DevSim sim;
    const std::string udp = " --udp 127.0.0.1:" + std::to_string(sim.listen_udp("127.0.0.1", 0)),
                      tcp = " --tcp 127.0.0.1:" + std::to_string(sim.listen_tcp("127.0.0.1", 0));
    sim.transfers().set_gop({1, 2, 3});
    sim.start();
    std::atomic<bool> done{false};
    std::thread traffic([&] { // a play for devsim and the rack, its first 8 bytes an event
        const UdpEndpoint from;
        const std::vector<uint8_t> play = {0, 1, 0, 3, 0, 0, 0, 0, 0, 0, 0x20, 0x01, 0x21};
        for (; !done; std::this_thread::sleep_for(std::chrono::milliseconds(5))) {
            from.send_to(loopback_address(32896), play);
            from.send_to(loopback_address(42000), {play.begin(), play.begin() + 8});
        }
    });
    // zqctl waits long for answers: the emulator in this process may run under memcheck.
    const std::string zqctl = ZQCTL_PATH " -T 5000", devsim = DEVSIM_PATH " udp 127.0.0.1 32896",
                      board = SDIBOARD_PATH " -s " + dir + "/board.sock";
    const struct {
        std::string command;
        Sink sink;
        bool needs_root;
        int status;
        std::string error; // the last line on standard error
    } rows[] = {
        {zqctl + udp + " status", kFull, false, 1, "zqctl: write error: " + nospace},
        {zqctl + udp + " sense list", kHead, false, 0, ""},
        {zqctl + udp + " watch", kFull, false, 1, "zqctl: write error: " + nospace},
        {zqctl + tcp + " gop get " + dir + "/gop", kFullDisk, true, 1,
         "zqctl: gop get: " + dir + "/gop: " + nospace},
        {GPIOCTL_PATH " --help", kFull, false, 1, "gpioctl: write error: " + nospace},
        {GPIOCTL_PATH " monitor", kSmallFile, true, 1, "gpioctl: write error: File too large"},
        {devsim, kFull, false, 1, "devsim: write error: " + nospace},
        {devsim, kClosed, false, 1, "devsim: write error: Bad file descriptor"},
        {devsim, kSmallFile, true, 1, "devsim: write error: File too large"},
        {board, kFull, false, 1, "sdiboard: write error: " + nospace},
        {board, kFullDisk, true, 1, "sdiboard: write error: " + nospace},
#ifdef GPIOMQTT_PATH
        {GPIOMQTT_PATH " --print-ids", kFull, false, 1, "gpiomqtt: write error: " + nospace},
        {GPIOMQTT_PATH " --print-ids", kHead, false, 0, ""},
#endif
#ifdef RACK_PATH
        {RACK_PATH " --http 127.0.0.1:0 -s " + dir + "/rack.sock udp 127.0.0.1 32896", kSmallFile,
         true, 1, "rack: write error: File too large"},
        {RACK_PATH " --http 127.0.0.1:0 -s " + dir + "/rack.sock udp 127.0.0.1 32896", kHead, true,
         0, ""},
#endif
    };
    if (!root)
        std::cout << "the rows that need root are skipped\n";
    for (const auto& row : rows) {
        if (row.needs_root && !root)
            continue;
        const Outcome run = run_program(into(row.sink, row.command, dir));
        EXPECT_EQ(run.status, row.status) << row.command << " " << row.sink;
        const std::string last = run.err.substr(run.err.rfind('\n', run.err.size() - 2) + 1);
        EXPECT_EQ(run.err.empty() ? "" : last, row.error.empty() ? "" : row.error + "\n")
            << row.command << " " << row.sink;
        EXPECT_EQ(std::count(run.out.begin(), run.out.end(), '\n'), row.sink == kHead)
            << row.command;
    }
    done = true;
    traffic.join();
    EXPECT_EQ(access((dir + "/board.sock").c_str(), F_OK), -1) << "the board's socket is left";
    std::filesystem::remove_all(dir); // the rack's socket too: SIGPIPE ends it in its kHead row
}

} // namespace
