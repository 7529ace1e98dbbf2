// vlmgpiod.out as a process: each scenario in a network namespace of its own, with the emulated
// board in-process on a socket path of its own.
#include "harness.h"
#include "loopback.h"
#include "sdiboard.h"

#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <memory>
#include <numeric>
#include <fstream>
#include <gtest/gtest.h>
#include <poll.h>
#include <random>
#include <regex>
#include <sched.h>
#include <sstream>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace e2e;
using sdiboard::Fault;

constexpr int kWaitMs = 10000; // generous: other builds share the machine
const char* const kNotDetected = "Failure to detect tavsdi board - features deactivated\n";
const char* const kScratchLost = " [ERROR] Failure to detect tavsdi board - features deactivated\n";
const char* const kUsage =
    "USAGE: vlmgpiod.out [OPTIONS]\n"
    "       -v: verbose output\n"
    "       -d: daemonize the application\n"
    "       -m: multicast GPO events over network (through multicast address 224.1.1.42)\n";

std::string boardSocket() {
    const auto* test = testing::UnitTest::GetInstance()->current_test_info();
    return "/tmp/vlm-e2e-" + std::to_string(getpid()) + "-" + test->name() + ".sock";
}

std::string event(int lines, int status) { return hex(datagram({lines, status})); }

std::string text(const std::optional<GpioDatagram>& bytes) {
    return bytes ? hex({bytes->begin(), bytes->end()}) : "nothing";
}

size_t countWrites(const std::vector<sdiboard::Transfer>& transfers, uint8_t reg) {
    return std::count_if(transfers.begin(), transfers.end(),
                         [&](const auto& t) { return t.write && t.reg == reg; });
}

size_t countReads(const std::vector<sdiboard::Transfer>& transfers, uint8_t reg) {
    return std::count_if(transfers.begin(), transfers.end(),
                         [&](const auto& t) { return !t.write && t.reg == reg; });
}

// One scenario: a fresh network namespace, maybe a board, the GPI listener and the daemon.
class Scenario : public testing::Test {
  protected:
    void SetUp() override {
        if (geteuid() != 0)
            GTEST_SKIP() << "needs root: the daemon runs in a network namespace of its own";
        std::string error = enterFreshNetworkNamespace();
        ASSERT_EQ(error, "");
        listener.emplace();
    }

    void withBoard(Fault fault = Fault::None) { board.emplace(socketPath, fault); }

    // Starts the daemon and waits until it serves its sockets.
    void start(const std::vector<std::string>& options) {
        daemon.emplace(options, socketPath);
        ASSERT_TRUE(waitServing(*daemon, *listener, kWaitMs))
            << daemon->output(Stream::Out) << daemon->output(Stream::Err);
    }

    // Waits until the board has been polled `polls` more times.
    bool polled(size_t polls) {
        size_t before = countReads(board->transfers(), sdiboard::kTransitionRegister);
        return board->waitFor(
            [&](const auto& t) { return countReads(t, sdiboard::kTransitionRegister) >= before + polls; },
            kWaitMs);
    }

    std::string socketPath = boardSocket();
    std::optional<GpiListener> listener;
    std::optional<sdiboard::Board> board;
    std::optional<Daemon> daemon;
};

using Gpi = Scenario;
using Gpo = Scenario;
using Detection = Scenario;
using Relay = Scenario;
using Multicast = Scenario;
using Options = Scenario;
using Flood = Scenario;

TEST_F(Gpi, level_changes_and_pulses_become_events_in_line_order) {
    withBoard();
    start({});
    struct Step {
        const char* what;
        std::function<void()> drive;
        std::vector<std::string> events;
    };
    const Step steps[] = {
        {"levels 0x00 -> 0x05", [&] { board->setGpi(0x05); }, {event(0, 1), event(2, 1)}},
        {"pulse on line 3", [&] { board->pulse(3); }, {event(3, 2)}},
        {"line 2 down", [&] { board->setGpi(0x01); }, {event(2, 0)}},
    };
    for (const Step& step : steps) {
        step.drive();
        for (const std::string& expected : step.events)
            EXPECT_EQ(text(listener->next(kWaitMs)), expected) << step.what;
    }
    ASSERT_TRUE(polled(3));
    EXPECT_EQ(text(listener->next(0)), "nothing") << "no transition, no datagram";
}

TEST_F(Gpi, transition_latched_before_start_up_is_reported_by_the_first_poll) {
    withBoard();
    board->setGpi(0x05);
    start({});
    EXPECT_EQ(text(listener->next(kWaitMs)), event(0, 1));
    EXPECT_EQ(text(listener->next(kWaitMs)), event(2, 1));
}

TEST_F(Gpo, requests_are_written_to_the_gpo_register_from_the_image) {
    withBoard();
    start({});
    const std::vector<uint8_t> seven = {0, 0, 0, 0, 0, 0, 0};
    std::vector<uint8_t> twelve = datagram({7, 0});
    twelve.insert(twelve.end(), {0xDE, 0xAD, 0xBE, 0xEF});
    struct Step {
        std::vector<uint8_t> bytes;
        size_t writes;
        uint8_t value;
    };
    const Step steps[] = {
        {datagram({2, 1}), 1, 0x04}, {datagram({255, 0x1F3}), 2, 0xF3}, {datagram({1, 0}), 3, 0xF1},
        {datagram({9, 1}), 4, 0xF1}, {seven, 4, 0xF1}, {twelve, 5, 0x71},
    };
    for (const Step& step : steps) {
        sendLocal(42001, step.bytes);
        if (step.bytes.size() < 8)
            continue; // changes nothing; the next request shows it
        ASSERT_TRUE(board->waitFor(
            [&](const auto& t) { return countWrites(t, sdiboard::kGpoRegister) >= step.writes; },
            kWaitMs))
            << hex(step.bytes);
        auto transfers = board->transfers();
        EXPECT_EQ(countWrites(transfers, sdiboard::kGpoRegister), step.writes) << hex(step.bytes);
        EXPECT_EQ(board->registerValue(sdiboard::kGpoRegister), step.value) << hex(step.bytes);
    }
}

TEST_F(Detection, faulty_board_is_reported_and_the_daemon_runs_on_without_it) {
    struct Case {
        Fault fault;
        const char* message;
    } const cases[] = {{Fault::Absent, kNotDetected}, {Fault::StuckScratch, kScratchLost}};
    for (const Case& c : cases) {
        withBoard(c.fault);
        start({});
        EXPECT_TRUE(daemon->waitForOutput(Stream::Out, c.message, kWaitMs));
        EXPECT_EQ(daemon->output(Stream::Out), c.message);
        sendLocal(42001, datagram({2, 1}));
        sendLocal(42002, datagram({7, 1})); // served no earlier than the GPO request
        EXPECT_EQ(text(listener->next(kWaitMs)), event(7, 1));
        auto transfers = board->transfers();
        EXPECT_EQ(countWrites(transfers, sdiboard::kGpoRegister), 0u) << "no board, no GPO write";
        EXPECT_EQ(countReads(transfers, sdiboard::kTransitionRegister), 0u) << "no polling";
        daemon.reset();
        board.reset();
    }
}

TEST_F(Relay, network_events_come_out_unchanged_on_the_gpi_port) {
    start({});
    for (std::vector<uint8_t> bytes : {datagram({7, 1}), std::vector<uint8_t>{0xDE, 0xAD, 0xBE, 0xEF,
                                                                              1, 2, 3, 4}}) {
        sendLocal(42002, bytes);
        EXPECT_EQ(text(listener->next(kWaitMs)), hex(bytes));
    }
}

TEST_F(Multicast, gpo_requests_reach_the_next_host_unmasked_with_or_without_a_board) {
    PeerHost peer;
    ASSERT_EQ(peer.error(), "");
    // Our host is in the group too, so only the daemon's refusal to loop its own multicast back
    // keeps it from coming back to port 42002 here.
    UdpEndpoint member;
    ip_mreq membership{};
    membership.imr_multiaddr.s_addr = inet_addr("224.1.1.42");
    membership.imr_interface.s_addr = inet_addr(PeerHost::kOurAddress);
    ASSERT_EQ(setsockopt(member.fd(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership),
              0);
    for (bool withSdi : {true, false}) {
        int receiver = peer.udpSocket(42002, "224.1.1.42");
        ASSERT_GE(receiver, 0);
        withBoard(withSdi ? Fault::None : Fault::Absent);
        start({"-m"});
        sendLocal(42001, datagram({255, 0x1F3}));
        pollfd ready{receiver, POLLIN, 0};
        ASSERT_EQ(poll(&ready, 1, kWaitMs), 1) << (withSdi ? "board" : "no board");
        uint8_t bytes[16];
        sockaddr_in from{};
        socklen_t length = sizeof from;
        ssize_t n = recvfrom(receiver, bytes, sizeof bytes, 0, reinterpret_cast<sockaddr*>(&from),
                             &length);
        EXPECT_EQ(hex({bytes, bytes + std::max<ssize_t>(n, 0)}), "00 00 00 FF 00 00 01 F3");
        EXPECT_STREQ(inet_ntoa(from.sin_addr), PeerHost::kOurAddress);
        EXPECT_EQ(ntohs(from.sin_port), 42002);
        if (withSdi) {
            EXPECT_EQ(board->registerValue(sdiboard::kGpoRegister), 0xF3);
        }
        // An event from the next host is relayed; our own multicast never came back as one.
        int sender = peer.udpSocket(0);
        sockaddr_in daemonHost{};
        daemonHost.sin_family = AF_INET;
        daemonHost.sin_port = htons(42002);
        daemonHost.sin_addr.s_addr = inet_addr(PeerHost::kOurAddress);
        std::vector<uint8_t> remote = datagram({5, 0});
        sendto(sender, remote.data(), remote.size(), 0, reinterpret_cast<sockaddr*>(&daemonHost),
               sizeof daemonHost);
        EXPECT_EQ(text(listener->next(kWaitMs)), hex(remote));
        EXPECT_EQ(text(listener->next(300)), "nothing");
        close(sender);
        close(receiver);
        daemon.reset();
        board.reset();
    }
}

TEST_F(Options, verbosity_decides_whether_debug_lines_appear) {
    const std::regex debugLine(R"(\[[A-Z][a-z]{2} [A-Z][a-z]{2} [ 123][0-9] [0-9:]{8} [0-9]{4}\] )"
                               R"(DEBUG: Raise GPI \(#32343, 0\) to the network\.\n)");
    for (bool verbose : {false, true}) {
        start(verbose ? std::vector<std::string>{"-v"} : std::vector<std::string>{});
        std::string err = daemon->output(Stream::Err); // written before the relayed datagram
        if (verbose)
            EXPECT_TRUE(std::regex_match(err, debugLine)) << err;
        else
            EXPECT_EQ(err, "");
        daemon.reset();
    }
}

TEST_F(Options, port_in_use_ends_the_daemon_with_the_bind_error) {
    UdpEndpoint taken(42001);
    Daemon process({}, socketPath);
    int status = process.waitExit(kWaitMs);
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), EADDRINUSE);
    EXPECT_EQ(process.output(Stream::Err), "bind: Address already in use\n");
}

// The GPI events a board's answers call for: each poll's transition read, then its level read,
// against the levels of the poll before (the first from the read at start-up).
std::vector<std::string> eventsFromBoard(const std::vector<sdiboard::Transfer>& transfers) {
    std::vector<std::string> events;
    int previous = 0, transitions = -1;
    for (const auto& t : transfers) {
        if (t.write || (t.reg != sdiboard::kTransitionRegister && t.reg != sdiboard::kGpiRegister))
            continue;
        if (t.reg == sdiboard::kTransitionRegister) {
            transitions = t.value;
            continue;
        }
        for (int line = 0; transitions > 0 && line < 8; ++line) {
            int mask = 1 << line;
            if (transitions & mask)
                events.push_back(event(line, (t.value & mask) == (previous & mask) ? 2
                                              : (t.value & mask) != 0             ? 1
                                                                                  : 0));
        }
        transitions = -1;
        previous = t.value;
    }
    return events;
}

TEST_F(Flood, garbage_on_both_ports_loses_no_gpi_change) {
    withBoard();
    start({});
    std::atomic<bool> stop{false};
    std::atomic<long> garbage{0};
    std::thread flood([&] {
        std::mt19937 random(42);
        std::vector<uint8_t> bytes(1500);
        for (auto& byte : bytes)
            byte = static_cast<uint8_t>(random());
        int fd = socket(AF_INET, SOCK_DGRAM, 0);
        for (long sent = 0; !stop; ++sent) {
            bool network = sent % 2 == 0;
            size_t size = random() % 1501;
            bytes[0] = static_cast<uint8_t>(random() | (network ? 0x80 : 0)); // relayed: lines < 0
            sockaddr_in to = loopback_address(network ? 42002 : 42001);
            sendto(fd, bytes.data(), size, 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
            garbage = sent + 1;
            if (sent % 20 == 19)
                usleep(1000); // leaves the board emulator its share of two cores
        }
        close(fd);
    });
    const auto began = std::chrono::steady_clock::now();
    std::mt19937 random(7);
    int changes = 0;
    uint8_t levels = 0;
    for (; std::chrono::steady_clock::now() - began < std::chrono::seconds(3); ++changes) {
        if (changes % 4 == 3)
            board->pulse(static_cast<int>(random() % 8));
        else
            board->setGpi(levels = static_cast<uint8_t>(levels ^ (1 + random() % 255)));
        std::this_thread::sleep_for(std::chrono::milliseconds(5 + random() % 40)); // the pace
    }
    stop = true;
    flood.join();
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
    ASSERT_TRUE(polled(2)) << "every change latched and read";

    const auto transfers = board->transfers();
    const std::vector<std::string> expected = eventsFromBoard(transfers);
    std::vector<std::string> reported;
    for (auto next = listener->next(kWaitMs); next && reported.size() < expected.size();
         next = listener->next(kWaitMs)) {
        Gpio gpio = gpioDecode(*next);
        if (gpio.lines >= 0 && gpio.lines < 8)
            reported.push_back(text(next));
    }
    EXPECT_EQ(reported, expected);
    EXPECT_GE(expected.size(), static_cast<size_t>(changes)) << "each change flags a line";

    std::vector<double> gaps;
    std::optional<std::chrono::steady_clock::time_point> last;
    for (const auto& t : transfers) {
        if (t.write || t.reg != sdiboard::kTransitionRegister || t.when < began)
            continue;
        if (last)
            gaps.push_back(std::chrono::duration<double, std::milli>(t.when - *last).count());
        last = t.when;
    }
    ASSERT_FALSE(gaps.empty());
    double longest = *std::max_element(gaps.begin(), gaps.end());
    EXPECT_LT(longest, 1000.0) << "the loop keeps polling";
    EXPECT_TRUE(daemon->running());
    EXPECT_TRUE(waitServing(*daemon, *listener, kWaitMs)) << "and keeps relaying";
    printf("flood: %ld garbage datagrams in %.1f s (%.0f/s), %d GPI changes, %zu events all "
           "reported, %zu polls, cycle mean %.2f ms, longest %.1f ms\n",
           garbage.load(), seconds, garbage / seconds, changes, expected.size(), gaps.size() + 1,
           std::accumulate(gaps.begin(), gaps.end(), 0.0) / static_cast<double>(gaps.size()),
           longest);
}

// A process's state, parent, session and terminal from /proc/<pid>/stat.
struct ProcessStat {
    char state = '?';
    long parent = 0, session = 0, terminal = -1;
};

ProcessStat processStat(long pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    std::getline(file, line);
    ProcessStat stat;
    size_t name_end = line.rfind(')');
    if (name_end != std::string::npos) {
        long group;
        std::istringstream(line.substr(name_end + 2)) >> stat.state >> stat.parent >> group >>
            stat.session >> stat.terminal;
    }
    return stat;
}

// Running children of this process (zombies excluded).
std::vector<long> liveChildren() {
    std::vector<long> children;
    std::unique_ptr<DIR, int (*)(DIR*)> proc(opendir("/proc"), closedir);
    while (dirent* entry = readdir(proc.get())) {
        long pid = atol(entry->d_name);
        ProcessStat stat = pid > 0 ? processStat(pid) : ProcessStat{};
        if (pid > 0 && stat.parent == getpid() && stat.state != 'Z')
            children.push_back(pid);
    }
    return children;
}

std::string linkTarget(const std::string& path) {
    char target[256];
    ssize_t n = readlink(path.c_str(), target, sizeof target);
    return std::string(target, n > 0 ? static_cast<size_t>(n) : 0);
}

std::string fileText(const char* path) {
    std::ifstream file(path);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

// Runs `undo` when the scope ends, however it ends.
struct Undo {
    std::function<void()> undo;
    ~Undo() { undo(); }
};

TEST(DaemonMode, daemon_is_a_grandchild_without_terminal_appending_to_its_log) {
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root: private mount and network namespaces";
    // A private /velmar/log: nothing of the machine's is touched but an empty mount point.
    ASSERT_EQ(unshare(CLONE_NEWNS), 0) << strerror(errno);
    ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0) << strerror(errno);
    bool madeMountPoint = mkdir("/velmar", 0755) == 0;
    ASSERT_TRUE(madeMountPoint || errno == EEXIST);
    ASSERT_EQ(mount("tmpfs", "/velmar", "tmpfs", 0, "mode=0755"), 0) << strerror(errno);
    Undo unmount{[&] {
        umount2("/velmar", MNT_DETACH);
        if (madeMountPoint)
            rmdir("/velmar");
    }};
    ASSERT_EQ(mkdir("/velmar/log", 0755), 0);
    std::ofstream("/velmar/log/vlmgpiod.log") << "earlier line\n";
    ASSERT_EQ(enterFreshNetworkNamespace(), "");
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0); // the detached daemon becomes our child
    GpiListener listener;
    Daemon starter({"-dv"}, boardSocket());
    ASSERT_TRUE(waitServing(starter, listener, kWaitMs)) << starter.output(Stream::Err);
    EXPECT_EQ(starter.waitExit(kWaitMs), 0) << "the starter leaves with status 0";
    EXPECT_EQ(starter.output(Stream::Out), kNotDetected) << "printed before detaching, at once";

    std::vector<long> children = liveChildren();
    ASSERT_EQ(children.size(), 1u);
    const long daemonPid = children[0];
    Undo stop{[&] {
        kill(static_cast<pid_t>(daemonPid), SIGKILL);
        while (waitpid(-1, nullptr, 0) > 0) {
        }
    }};
    ProcessStat stat = processStat(daemonPid);
    EXPECT_NE(daemonPid, starter.pid());
    EXPECT_NE(stat.session, daemonPid) << "no session leader: it cannot take a terminal";
    EXPECT_NE(stat.session, getsid(0));
    EXPECT_EQ(stat.terminal, 0);
    const std::string proc = "/proc/" + std::to_string(daemonPid);
    EXPECT_EQ(linkTarget(proc + "/cwd"), "/");
    EXPECT_EQ(linkTarget(proc + "/fd/0"), "/dev/null");
    EXPECT_EQ(linkTarget(proc + "/fd/1"), "/velmar/log/vlmgpiod.log");
    EXPECT_EQ(linkTarget(proc + "/fd/2"), "/velmar/log/vlmgpiod.log");

    sendLocal(42002, datagram({7, 1}));
    EXPECT_EQ(text(listener.next(kWaitMs)), event(7, 1));
    std::string log = fileText("/velmar/log/vlmgpiod.log");
    EXPECT_EQ(log.rfind("earlier line\n[", 0), 0u) << log;
    EXPECT_NE(log.find("] DEBUG: Raise GPI (#7, 1) to the network.\n"), std::string::npos) << log;
}

TEST(OptionsNoRoot, unknown_option_prints_the_usage_and_exits_with_zero) {
    Daemon process({"-x"}, "/nonexistent");
    int status = process.waitExit(kWaitMs);
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(process.output(Stream::Out), kUsage);
    EXPECT_EQ(process.output(Stream::Err), Daemon::path() + ": invalid option -- 'x'\n");
}

} // namespace
