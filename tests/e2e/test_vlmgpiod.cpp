// vlmgpiod.out as a process: each scenario in a network namespace of its own, with the emulated
// board in-process on a socket path of its own.
#include "harness.h"
#include "program.h"

#include <devsim/devsim.h>
#include <sdiboard/sdiboard.h>

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <optional>
#include <poll.h>
#include <regex>
#include <sstream>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace e2e;
using sdiboard::Fault;
using Bytes = std::vector<uint8_t>;

constexpr int kWaitMs = 10000; // generous: other builds share the machine
const char* const kNotDetected = "Failure to detect tavsdi board - features deactivated\n";

std::string scenarioPath() {
    return std::string("/tmp/vlm-e2e-") + std::to_string(getpid()) + "-" +
           testing::UnitTest::GetInstance()->current_test_info()->name() + ".sock";
}

size_t count(const std::vector<sdiboard::Transfer>& transfers, bool write, uint8_t reg) {
    return std::count_if(transfers.begin(), transfers.end(),
                         [&](const auto& t) { return t.write == write && t.reg == reg; });
}

// Runs `undo` when the scope ends, however it ends.
struct Undo {
    std::function<void()> undo;
    ~Undo() { undo(); }
};

class Vlmgpiod : public testing::Test {
  protected:
    void SetUp() override {
        if (geteuid() != 0)
            GTEST_SKIP() << "needs root: the daemon runs in a network namespace of its own";
        ASSERT_EQ(enterFreshNetworkNamespace(), "");
        gpi.emplace();
    }

    // Starts the daemon and waits until it serves its sockets.
    void start(const std::vector<std::string>& options) {
        daemon.emplace(options, path);
        ASSERT_TRUE(waitServing(*daemon, *gpi, kWaitMs)) << daemon->out() << daemon->err();
    }

    // Waits until the board saw `polls` more polls, or `writes` GPO writes in all.
    bool boardSaw(size_t polls, size_t writes = 0) {
        size_t before = count(board->transfers(), false, sdiboard::kTransitionRegister);
        return board->waitFor(
            [&](const auto& t) {
                return count(t, false, sdiboard::kTransitionRegister) >= before + polls &&
                       count(t, true, sdiboard::kGpoRegister) >= writes;
            },
            kWaitMs);
    }

    // Starts the daemon afresh on a new board. The old daemon goes first: a poll of a board
    // that has gone would read a floating bus and announce every line.
    void restart(Fault fault, const std::vector<std::string>& options) {
        daemon.reset();
        board.reset();
        board.emplace(path, fault, sdiboard::kKeepAll); // counted from the start
        start(options);
    }

    std::string path = scenarioPath();
    std::optional<GpiPort> gpi;
    std::optional<sdiboard::Board> board;
    std::optional<Daemon> daemon;
};

// ctrld.out as the video server emulator, on its own port in the scenario's namespace.
struct Ctrld : devsim::DevSim {
    Ctrld() {
        listen_udp("127.0.0.1", 32896);
        start();
    }
};

TEST_F(Vlmgpiod, gpi_transitions_reach_ctrld_then_become_events_in_line_order) {
    Ctrld ctrld;
    board.emplace(path, Fault::None, sdiboard::kKeepAll);
    board->setGpi(0x05); // latched before start-up: the first poll reports it
    start({});
    const std::string header = "00 01 00 06 00 00 00 00 00 00 "; // ComHdr: type 1, size 6
    struct Step {
        std::function<void()> drive;
        std::vector<std::string> events;
        std::string command; // 43 BF F0, transitions, levels, checksum
    } const steps[] = {
        {[] {}, {event(0, 1), event(2, 1)}, header + "43 BF F0 05 05 FC"},
        {[&] { board->pulse(3); }, {event(3, 2)}, header + "43 BF F0 08 05 FF"},
        {[&] { board->setGpi(0x01); }, {event(2, 0)}, header + "43 BF F0 04 01 F7"},
    };
    for (size_t i = 0; i < std::size(steps); ++i) {
        steps[i].drive();
        for (const std::string& expected : steps[i].events)
            EXPECT_EQ(gpi->next(kWaitMs), expected);
        // The events went out after ctrld.out answered: its command is already there.
        auto received = ctrld.received();
        ASSERT_EQ(received.size(), i + 1);
        EXPECT_EQ(devsim::hex(received[i].wire), steps[i].command);
    }
    ASSERT_TRUE(boardSaw(3));
    EXPECT_EQ(gpi->next(0), "nothing") << "no transition, no datagram";
    EXPECT_EQ(ctrld.received().size(), 3u) << "no transition, no command";
}

TEST_F(Vlmgpiod, gpo_requests_of_eight_bytes_or_more_are_written) {
    board.emplace(path, Fault::None, sdiboard::kKeepAll);
    start({});
    std::vector<uint8_t> twelve = datagram({7, 0});
    twelve.insert(twelve.end(), {0xDE, 0xAD, 0xBE, 0xEF});
    // the request, GPO writes in all, the register afterwards
    const std::tuple<Bytes, size_t, uint8_t> steps[] = {
        {datagram({2, 1}), 1, 0x04},
        {datagram({255, 0x1F3}), 2, 0xF3},
        {datagram({1, 0}), 3, 0xF1},
        {datagram({9, 1}), 4, 0xF1},
        {datagram({-1, 1}), 5, 0xF1},
        {{0, 0, 0, 0, 0, 0, 0}, 5, 0xF1},
        {twelve, 6, 0x71},
    };
    for (const auto& [bytes, writes, value] : steps) {
        sendLocal(42001, bytes);
        if (bytes.size() < 8)
            continue; // changes nothing: the next request shows it
        ASSERT_TRUE(boardSaw(0, writes)) << hex(bytes);
        EXPECT_EQ(count(board->transfers(), true, sdiboard::kGpoRegister), writes);
        EXPECT_EQ(board->registerValue(sdiboard::kGpoRegister), value) << hex(bytes);
    }
}

// gpioctl as a person runs it: a monitor line per edge, the daemon's own and a relayed one, none
// for a datagram of another size; the setter's pairs and mask reaching the GPO register.
TEST_F(Vlmgpiod, gpioctl_monitors_edges_and_sets_lines) {
    board.emplace(path, Fault::None, sdiboard::kKeepAll);
    start({});
    gpi.reset(); // the monitor takes the event port
    FILE* monitor = popen(GPIOCTL_PATH " -n 4 monitor 2>&1", "r");
    ASSERT_NE(monitor, nullptr);
    char line[128];
    ASSERT_NE(fgets(line, sizeof line, monitor), nullptr);
    EXPECT_STREQ(line, "gpioctl: monitoring GPI events on 127.0.0.1:42000\n");
    board->setGpi(0x05);
    ASSERT_TRUE(boardSaw(2));
    board->pulse(3);
    sendLocal(LOOP_GPI_PORT, std::vector<uint8_t>(12, 1)); // not an event: skipped
    sendLocal(INET_GPI_PORT, datagram({6, 0}));            // from the network, relayed
    const std::regex format("[0-9]+\\.[0-9]{9}\t(rising|falling|both)\t[0-7]\n");
    std::string edges;
    while (fgets(line, sizeof line, monitor)) {
        EXPECT_TRUE(std::regex_match(line, format)) << line;
        edges += strchr(line, '\t') + 1;
    }
    EXPECT_EQ(edges, "rising\t0\nrising\t2\nboth\t3\nfalling\t6\n");
    EXPECT_EQ(pclose(monitor), 0);

    // Refused command lines send nothing: the writes counted after them show it. Numbers may be
    // hexadecimal or octal.
    struct Set {
        const char* arguments;
        int exit_status;
        size_t writes; // GPO register writes so far
        uint8_t gpo;
        const char* error = ""; // the first line on standard error
    } const sets[] = {
        {"set 8=1", 2, 0, 0, "gpioctl: set: LINE: '8' is not a number from 0 to 7"},
        {"set 1=2", 2, 0, 0, "gpioctl: set: VALUE: '2' is not a number from 0 to 1"},
        {"set", 2, 0, 0, "gpioctl: set takes LINE=VALUE pairs or --mask LEVELS"},
        {"set --mask 0x100", 2, 0, 0, "gpioctl: --mask: '0x100' is not a number from 0 to 255"},
        {"set --mask -1", 2, 0, 0, "gpioctl: --mask: '-1' is not a number from 0 to 255"},
        {"-n 0 monitor", 2, 0, 0,
         "gpioctl: --num-events: '0' is not a number from 1 to 2147483647"},
        {"monitor -n -1", 2, 0, 0,
         "gpioctl: --num-events: '-1' is not a number from 1 to 2147483647"},
        {"-n 2 set 1=1", 2, 0, 0, "gpioctl: --num-events goes with monitor only"},
        {"set 0x2=1 05=1", 0, 2, 0x24},
        {"set --mask 0xF3", 0, 3, 0xF3},
        {"set 1=0", 0, 4, 0xF1},
        {"set --mask=017", 0, 5, 0x0F},
    };
    for (const Set& set : sets) {
        const Outcome run = run_program(std::string(GPIOCTL_PATH " ") + set.arguments);
        EXPECT_EQ(run.status, set.exit_status) << set.arguments;
        EXPECT_EQ(run.err.substr(0, run.err.find('\n')), set.error) << set.arguments;
        ASSERT_TRUE(boardSaw(0, set.writes)) << set.arguments;
        EXPECT_EQ(count(board->transfers(), true, sdiboard::kGpoRegister), set.writes);
        EXPECT_EQ(board->registerValue(sdiboard::kGpoRegister), set.gpo) << set.arguments;
    }
}

// The detection's messages for each kind of board are test_tavsdi's.
TEST_F(Vlmgpiod, without_a_working_board_the_daemon_reports_it_and_runs_on) {
    restart(Fault::Absent, {});
    EXPECT_EQ(daemon->out(), kNotDetected) << "on standard output at once";
    sendLocal(42001, datagram({2, 1}));
    sendLocal(42002, {0xDE, 0xAD, 0xBE, 0xEF, 1, 2, 3, 4}); // served after the request
    EXPECT_EQ(gpi->next(kWaitMs), "DE AD BE EF 01 02 03 04") << "relayed unchanged";
    EXPECT_EQ(count(board->transfers(), true, sdiboard::kGpoRegister), 0u);
    EXPECT_EQ(count(board->transfers(), false, sdiboard::kTransitionRegister), 0u);
}

TEST_F(Vlmgpiod, multicast_gpo_requests_reach_the_next_host_and_do_not_come_back) {
    PeerHost peer;
    ASSERT_EQ(peer.error(), "");
    // Our host joins the group too: only the daemon's choice not to loop its multicast back
    // keeps it from reaching port 42002 here.
    UdpEndpoint member;
    ip_mreq membership{inet_addr("224.1.1.42"), inet_addr(PeerHost::kOurAddress)};
    ASSERT_EQ(
        setsockopt(member.fd(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership), 0);
    int receiver = peer.udpSocket(42002, "224.1.1.42"), sender = peer.udpSocket(0);
    Undo closeBoth{[&] { close(receiver), close(sender); }};
    ASSERT_GE(receiver, 0);
    sockaddr_in daemonHost = loopback_address(42002);
    daemonHost.sin_addr.s_addr = inet_addr(PeerHost::kOurAddress);
    for (Fault fault : {Fault::None, Fault::Absent}) {
        restart(fault, {"-m"});
        sendLocal(42001, datagram({255, 0x1F3}));
        pollfd ready{receiver, POLLIN, 0};
        ASSERT_EQ(poll(&ready, 1, kWaitMs), 1);
        uint8_t bytes[16];
        sockaddr_in from{};
        socklen_t length = sizeof from;
        ssize_t n =
            recvfrom(receiver, bytes, sizeof bytes, 0, reinterpret_cast<sockaddr*>(&from), &length);
        EXPECT_EQ(hex({bytes, bytes + std::max<ssize_t>(n, 0)}), "00 00 00 FF 00 00 01 F3");
        EXPECT_STREQ(inet_ntoa(from.sin_addr), PeerHost::kOurAddress);
        EXPECT_EQ(ntohs(from.sin_port), 42002);
        EXPECT_EQ(board->registerValue(sdiboard::kGpoRegister), fault == Fault::None ? 0xF3 : 0);
        // An event from the next host is relayed; our own multicast never came back as one.
        std::vector<uint8_t> remote = datagram({5, 0});
        sendto(sender, remote.data(), remote.size(), 0, reinterpret_cast<sockaddr*>(&daemonHost),
               sizeof daemonHost);
        EXPECT_EQ(gpi->next(kWaitMs), hex(remote));
        EXPECT_EQ(gpi->next(300), "nothing");
    }
}

TEST_F(Vlmgpiod, port_in_use_ends_the_daemon_with_the_bind_error) {
    UdpEndpoint taken(42001);
    Daemon process({}, path);
    int status = process.waitExit(kWaitMs);
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), EADDRINUSE);
    EXPECT_EQ(process.err(), "bind: Address already in use\n");
}

TEST(VlmgpiodOptions, unknown_option_prints_the_usage_and_exits_with_zero) {
    Daemon process({"-x"}, scenarioPath());
    int status = process.waitExit(kWaitMs);
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(process.out().rfind("USAGE: vlmgpiod.out [OPTIONS]\n", 0), 0u) << process.out();
    EXPECT_EQ(process.err(), Daemon::path() + ": invalid option -- 'x'\n");
}

std::string linkTarget(const std::string& path) {
    char target[256];
    ssize_t n = readlink(path.c_str(), target, sizeof target);
    return std::string(target, n > 0 ? static_cast<size_t>(n) : 0);
}

// The running children of this process: pid -> "state parent group session terminal".
std::map<long, std::vector<long>> liveChildren() {
    std::map<long, std::vector<long>> children;
    std::unique_ptr<DIR, int (*)(DIR*)> proc(opendir("/proc"), closedir);
    while (dirent* entry = readdir(proc.get())) {
        std::ifstream stat(std::string("/proc/") + entry->d_name + "/stat");
        std::string line;
        std::getline(stat, line);
        std::istringstream fields(line.substr(std::min(line.size(), line.rfind(')') + 2)));
        char state = 'Z';
        std::vector<long> numbers(4);
        fields >> state >> numbers[0] >> numbers[1] >> numbers[2] >> numbers[3];
        if (atol(entry->d_name) > 0 && state != 'Z' && numbers[0] == getpid())
            children[atol(entry->d_name)] = numbers;
    }
    return children;
}

TEST(VlmgpiodDaemonMode, daemon_is_a_grandchild_without_terminal_appending_to_its_log) {
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root: private mount and network namespaces";
    // A private /velmar/log: of the machine's, only an empty mount point may be made.
    ASSERT_EQ(unshare(CLONE_NEWNS), 0) << strerror(errno);
    ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0) << strerror(errno);
    bool madeMountPoint = mkdir("/velmar", 0755) == 0;
    ASSERT_EQ(mount("tmpfs", "/velmar", "tmpfs", 0, "mode=0755"), 0) << strerror(errno);
    Undo unmount{[&] { umount2("/velmar", MNT_DETACH), madeMountPoint&& rmdir("/velmar"); }};
    ASSERT_EQ(mkdir("/velmar/log", 0755), 0);
    std::ofstream("/velmar/log/vlmgpiod.log") << "earlier line\n";
    ASSERT_EQ(enterFreshNetworkNamespace(), "");
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0); // the detached daemon comes back to us
    GpiPort gpi;
    Undo stopDaemon{[] { // whatever happens, no detached daemon outlives the test
        for (const auto& child : liveChildren())
            kill(static_cast<pid_t>(child.first), SIGKILL);
        while (waitpid(-1, nullptr, 0) > 0) {
        }
    }};
    Daemon starter({"-dv"}, scenarioPath());
    ASSERT_TRUE(waitServing(starter, gpi, kWaitMs)) << starter.err();
    EXPECT_EQ(starter.waitExit(kWaitMs), 0) << "the starter leaves with status 0";
    EXPECT_EQ(starter.out(), kNotDetected) << "written before detaching, at once";

    auto children = liveChildren();
    ASSERT_EQ(children.size(), 1u);
    const auto& [pid, stat] = *children.begin();
    EXPECT_NE(pid, starter.pid());
    EXPECT_NE(stat[2], pid) << "no session leader: it cannot take a terminal";
    EXPECT_NE(stat[2], getsid(0));
    EXPECT_EQ(stat[3], 0) << "no controlling terminal";
    const std::string proc = "/proc/" + std::to_string(pid);
    EXPECT_EQ(linkTarget(proc + "/cwd"), "/");
    EXPECT_EQ(linkTarget(proc + "/fd/0"), "/dev/null");
    EXPECT_EQ(linkTarget(proc + "/fd/1"), "/velmar/log/vlmgpiod.log");
    EXPECT_EQ(linkTarget(proc + "/fd/2"), "/velmar/log/vlmgpiod.log");
    std::ifstream file("/velmar/log/vlmgpiod.log");
    std::string log(std::istreambuf_iterator<char>(file), {});
    EXPECT_EQ(log.rfind("earlier line\n[", 0), 0u) << log;
    EXPECT_NE(log.find("] DEBUG: Raise GPI (#32343, 0) to the network.\n"), std::string::npos);
}

} // namespace
