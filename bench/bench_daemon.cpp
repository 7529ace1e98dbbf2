// vlmgpiod.out as a process on the emulated board, in a network namespace of its own (root):
// GPI-to-event latency with ctrld.out answering and absent, and the idle daemon's CPU and memory,
// each beside its baseline from the same run.
#include "devsim.h"
#include "harness.h"
#include "percentiles.h"
#include "sdiboard.h"

#include <chrono>
#include <csignal>
#include <fstream>
#include <optional>
#include <random>
#include <thread>
#include <sys/wait.h>
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
        board.emplace(path);
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
BENCHMARK(BM_gpi_to_event)->ArgName("ctrld_answers")->Arg(1)->Arg(0)->Iterations(1)->Unit(
    benchmark::kMillisecond);

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
