// vlmgpiod.out as a process on the emulated board, in a network namespace of its own (root):
// GPI-to-event latency with ctrld.out answering and absent, the poll cycle under a flood of garbage
// datagrams, and the idle daemon's CPU and memory, each beside its baseline from the same run.
#include "harness.h"
#include "percentiles.h"
#include <devsim/devsim.h>
#include <sdiboard/sdiboard.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <fstream>
#include <numeric>
#include <optional>
#include <random>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;
using namespace e2e;

constexpr int kChanges = 200;
constexpr int kWaitMs = 10000;

double milliseconds(Clock::duration d) {
    return std::chrono::duration<double, std::milli>(d).count();
}

std::string boardPath(const char* name) {
    return "/tmp/vlm-bench-" + std::to_string(getpid()) + "-" + name + ".sock";
}

// The scenario every measurement needs: a namespace, the board, maybe ctrld.out, the daemon.
struct Scene {
    std::string error;
    std::string path;
    std::optional<sdiboard::Board> board;
    std::optional<devsim::DevSim> ctrld;
    std::optional<GpiPort> gpi;
    std::optional<Daemon> daemon;

    Scene(const char* name, bool ctrldAnswers) : path(boardPath(name)) {
        if (geteuid() != 0 || !(error = enterFreshNetworkNamespace()).empty()) {
            error = "needs root for a network namespace of its own " + error;
            return;
        }
        board.emplace(path, sdiboard::Fault::None, sdiboard::kKeepAll); // counted at the end
        if (ctrldAnswers) {
            ctrld.emplace();
            ctrld->listen_udp("127.0.0.1", 32896);
            ctrld->start();
        }
        gpi.emplace();
        daemon.emplace(std::vector<std::string>{}, path);
        if (!waitServing(*daemon, *gpi, kWaitMs))
            error = "the daemon did not start: " + daemon->err();
    }
};

// Reads of `reg` the board has served.
size_t count(const std::vector<sdiboard::Transfer>& transfers, uint8_t reg) {
    return std::count_if(transfers.begin(), transfers.end(),
                         [&](const auto& t) { return !t.write && t.reg == reg; });
}

// The first poll (transition register read) at or after `since`.
std::optional<Clock::time_point> pollAfter(const sdiboard::Board& board, Clock::time_point since) {
    for (const auto& t : board.transfers())
        if (!t.write && t.reg == sdiboard::kTransitionRegister && t.when >= since)
            return t.when;
    return std::nullopt;
}

// Changes one GPI line at a random phase of the daemon's cycle, kChanges times, and times the
// event on 127.0.0.1:42000. The baseline is the part no daemon can shorten: the wait for the
// next poll of a 100 ms loop (change to transition read).
void BM_gpi_to_event(benchmark::State& state) {
    Scene scene("latency", state.range(0) != 0);
    if (!scene.error.empty()) {
        state.SkipWithError(scene.error.c_str());
        return;
    }
    std::mt19937 random(1);
    std::vector<double> total, pollWait, daemonPart;
    uint8_t levels = 0;
    for (auto _ : state) {
        for (int i = 0; i < kChanges; ++i) {
            std::this_thread::sleep_for(std::chrono::microseconds(random() % 100000));
            levels ^= static_cast<uint8_t>(1 << (i % 8));
            auto changed = Clock::now();
            scene.board->setGpi(levels);
            if (scene.gpi->next(kWaitMs) == "nothing") {
                state.SkipWithError("an event was lost");
                return;
            }
            auto arrived = Clock::now();
            auto polled = pollAfter(*scene.board, changed).value_or(arrived);
            total.push_back(milliseconds(arrived - changed));
            pollWait.push_back(milliseconds(polled - changed));
            daemonPart.push_back(milliseconds(arrived - polled));
        }
    }
    reportPercentiles(state, "event_ms", total);
    reportPercentiles(state, "poll_wait_ms", pollWait);
    reportPercentiles(state, "poll_to_event_ms", daemonPart);
    state.counters["ratio_p50"] = percentile(total, 0.5) / percentile(pollWait, 0.5);
}
BENCHMARK(BM_gpi_to_event)
    ->ArgName("ctrld_answers")
    ->Arg(1)
    ->Arg(0)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

// The events a board's answers call for: each poll's transition read, then its level read,
// against the levels of the poll before (the first from the read at start-up).
std::vector<std::string> eventsFromBoard(const std::vector<sdiboard::Transfer>& transfers) {
    std::vector<std::string> events;
    int previous = 0, transitions = 0;
    for (const auto& t : transfers) {
        if (!t.write && t.reg == sdiboard::kTransitionRegister)
            transitions = t.value;
        if (t.write || t.reg != sdiboard::kGpiRegister)
            continue;
        for (int line = 0, mask = 1; line < 8; ++line, mask <<= 1)
            if (transitions & mask)
                events.push_back(event(line, (t.value & mask) == (previous & mask) ? 2
                                             : (t.value & mask)                    ? 1
                                                                                   : 0));
        transitions = 0;
        previous = t.value;
    }
    return events;
}

// Random datagrams of 0 to 1500 bytes to the GPO port and the network port until `stop`; half
// of them relayed (their first byte makes `lines` negative, so no board line is taken for them).
long floodGarbage(const std::atomic<bool>& stop) {
    std::mt19937 random(42);
    std::vector<uint8_t> bytes(1500);
    for (auto& byte : bytes)
        byte = static_cast<uint8_t>(random());
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    long sent = 0;
    for (; !stop; ++sent) {
        bool network = sent % 2 == 0;
        bytes[0] = static_cast<uint8_t>(random() | (network ? 0x80 : 0));
        sockaddr_in to = loopback_address(network ? INET_GPI_PORT : LOOP_GPO_PORT);
        sendto(fd, bytes.data(), random() % 1501, 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
        if (sent % 20 == 19)
            usleep(1000); // leaves the board emulator its share of two cores
    }
    close(fd);
    return sent;
}

// 3 s of GPI changes and pulses at a random pace, with garbage datagrams flooding both of the
// daemon's ports (argument 1) or without (argument 0, the baseline): every event the board's
// answers call for must be reported, in order; the counters are the poll cycle's mean and
// longest, and the flood's rate.
void BM_garbage_flood(benchmark::State& state) {
    Scene scene("flood", true);
    if (!scene.error.empty()) {
        state.SkipWithError(scene.error.c_str());
        return;
    }
    std::atomic<bool> stop{false};
    long garbage = 0;
    int changes = 0;
    Clock::time_point began;
    for (auto _ : state) {
        std::thread flood([&] { garbage = state.range(0) ? floodGarbage(stop) : 0; });
        began = Clock::now();
        std::mt19937 random(7);
        for (uint8_t levels = 0; Clock::now() - began < std::chrono::seconds(3); ++changes) {
            if (changes % 4 == 3)
                scene.board->pulse(static_cast<int>(random() % 8));
            else
                scene.board->setGpi(levels ^= static_cast<uint8_t>(1 + random() % 255));
            std::this_thread::sleep_for(std::chrono::milliseconds(5 + random() % 40));
        }
        stop = true;
        flood.join();
    }
    const double seconds = milliseconds(Clock::now() - began) / 1000;
    const size_t polls = count(scene.board->transfers(), sdiboard::kTransitionRegister);
    scene.board->waitFor(
        [&](const auto& t) { return count(t, sdiboard::kTransitionRegister) >= polls + 2; },
        kWaitMs); // every change latched has been read
    const auto transfers = scene.board->transfers();
    const std::vector<std::string> expected = eventsFromBoard(transfers);
    std::vector<std::string> reported;
    for (std::string next;
         reported.size() < expected.size() && (next = scene.gpi->next(kWaitMs)) != "nothing";)
        if (next.compare(0, 9, "00 00 00 ") == 0) // not a relayed flood datagram
            reported.push_back(next);
    if (reported != expected)
        state.SkipWithError("an event was lost or changed");
    std::vector<double> cycles; // between two polls, in ms
    std::optional<Clock::time_point> last;
    for (const auto& t : transfers) {
        if (t.write || t.reg != sdiboard::kTransitionRegister || t.when < began)
            continue;
        if (last)
            cycles.push_back(milliseconds(t.when - *last));
        last = t.when;
    }
    state.counters["garbage_per_s"] = static_cast<double>(garbage) / seconds;
    state.counters["gpi_changes"] = changes;
    state.counters["events"] = static_cast<double>(expected.size());
    state.counters["cycle_mean_ms"] =
        std::accumulate(cycles.begin(), cycles.end(), 0.0) / static_cast<double>(cycles.size());
    state.counters["cycle_max_ms"] = percentile(cycles, 1.0);
}
BENCHMARK(BM_garbage_flood)
    ->ArgName("flood")
    ->Arg(0)
    ->Arg(1)
    ->Iterations(1)
    ->Unit(benchmark::kSecond);

long readField(const std::string& file, const std::string& key) {
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);)
        if (line.rfind(key, 0) == 0)
            return std::stol(line.substr(key.size()));
    return -1;
}

// Nanoseconds the process has spent on a CPU.
double cpuNanoseconds(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/schedstat");
    double ns = 0;
    in >> ns;
    return ns;
}

// The idle daemon (board and ctrld.out present, no activity) for 10 s beside the baseline
// process, which only waits 100 ms at a time: CPU milliseconds per second and resident memory.
void BM_idle_daemon(benchmark::State& state) {
    Scene scene("idle", true);
    if (!scene.error.empty()) {
        state.SkipWithError(scene.error.c_str());
        return;
    }
    pid_t baseline = fork();
    if (baseline == 0) {
        execl(IDLE_BASELINE_PATH, IDLE_BASELINE_PATH, static_cast<char*>(nullptr));
        _exit(127);
    }
    const pid_t pids[] = {scene.daemon->pid(), baseline};
    double cpuMsPerS[2], rssKb[2];
    for (auto _ : state) {
        double before[2] = {cpuNanoseconds(pids[0]), cpuNanoseconds(pids[1])};
        auto start = Clock::now();
        std::this_thread::sleep_for(std::chrono::seconds(10));
        double seconds = milliseconds(Clock::now() - start) / 1000;
        for (int i = 0; i < 2; ++i) {
            cpuMsPerS[i] = (cpuNanoseconds(pids[i]) - before[i]) / 1e6 / seconds;
            rssKb[i] = static_cast<double>(
                readField("/proc/" + std::to_string(pids[i]) + "/status", "VmRSS:"));
        }
    }
    kill(baseline, SIGKILL);
    waitpid(baseline, nullptr, 0);
    state.counters["daemon_cpu_ms_per_s"] = cpuMsPerS[0];
    state.counters["baseline_cpu_ms_per_s"] = cpuMsPerS[1];
    state.counters["daemon_rss_kB"] = rssKb[0];
    state.counters["baseline_rss_kB"] = rssKb[1];
    state.counters["cpu_ratio"] = cpuMsPerS[0] / cpuMsPerS[1];
    state.counters["rss_ratio"] = rssKb[0] / rssKb[1];
}
BENCHMARK(BM_idle_daemon)->Iterations(1)->Unit(benchmark::kSecond);

} // namespace

BENCHMARK_MAIN();
