// The emulators' command lines as a person mistypes them: each mistake refused with one line and
// its status, and whatever a path named left as it was.
#include "program.h"

#include <devsim/devsim.h>
#include <sdiboard/sdiboard.h>

#include <fstream>
#include <gtest/gtest.h>
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

} // namespace
