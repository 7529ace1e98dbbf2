// The emulator under load: eight controllers poll over UDP at 60 Hz for 10 s while a ninth
// records and cues clips. Two runs in the same process: the model's senses (status and current
// time, from the moving position) and, as the baseline, the device type twice (a settable value,
// no model). Counted: answers, failures (lost, or later than the handles' time-out), latency, the
// process's CPU time (getrusage, controllers included) per answer, and the emulator's serving
// thread's own CPU time per answer (its thread CPU clock).
#include "percentiles.h"
#include <devsim/devsim.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <pthread.h>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <vector>
#include <zqhandler/tc.h>
#include <zqhandler/zqhandler.h>
#include <zqhandler/zqhandler_odetics.h>
#include <zqhandler/zqhandler_sony.h>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kControllers = 8;
constexpr int kTimeoutMs = 100;

double cpu_seconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    auto seconds = [](const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

t_zqhandler* connected(const std::string& port) {
    t_zqhandler* h = zqhandler_create();
    zqhandler_connect_eth(h, "127.0.0.1", port.c_str());
    zqhandler_set_timeout(h, kTimeoutMs);
    return h;
}

// The CPU clock of the emulator's serving thread, seen from its observer: one exchange tells
// which thread it is. False when none was seen.
bool serving_thread_clock(devsim::DevSim& sim, const std::string& port, clockid_t& clock) {
    std::atomic<pthread_t> server_thread{};
    std::atomic<bool> seen{false};
    sim.on_receive([&](const devsim::Received&) {
        if (!seen.exchange(true))
            server_thread = pthread_self();
    });
    t_zqhandler* h = connected(port);
    zqhandler_cmd_basic(h, BAS_CMD_STOP);
    zqhandler_delete(h);
    sim.on_receive(nullptr);
    return seen && pthread_getcpuclockid(server_thread, &clock) == 0;
}

double thread_cpu_seconds(clockid_t clock) {
    timespec t{};
    clock_gettime(clock, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

// What the pollers count, together.
struct Polls {
    std::atomic<long> answers{0}, failures{0};
    std::mutex mutex;
    std::vector<double> latency_us;
};

// One controller at 60 Hz until `end`: the model's two senses, or the baseline's one twice.
void poll(const std::string& port, bool model, Clock::time_point end, Polls& polls) {
    t_zqhandler* h = connected(port);
    std::vector<double> mine;
    for (auto next = Clock::now(); next < end;) {
        uint8_t out[ZQ_SENSE_BYTES];
        char tc[ZQ_TC_BYTES];
        for (int sense = 0; sense < 2; ++sense) {
            auto start = Clock::now();
            const bool ok = !model ? zqhandler_cmd_sense_basic(h, BAS_SENSE_DEVICE_TYPE, out) == 2
                            : sense == 0 ? zqhandler_cmd_sense_status(h, out) == 10
                                         : zqhandler_cmd_sense_timecode(h, BAS_SENSE_TC, tc) == 0;
            mine.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
            ++(ok ? polls.answers : polls.failures);
        }
        std::this_thread::sleep_until(next += std::chrono::microseconds(16667));
    }
    zqhandler_delete(h);
    std::lock_guard lock(polls.mutex);
    polls.latency_us.insert(polls.latency_us.end(), mine.begin(), mine.end());
}

// The ninth controller until `end`: record a clip for 200 ms, stop, cue it, play it briefly, over
// and over. Its failed calls.
long record_and_cue(const std::string& port, Clock::time_point end) {
    t_zqhandler* recorder = connected(port);
    long failures = 0;
    for (int clip = 0; Clock::now() < end; ++clip) {
        char id_text[16]; // "C" + std::to_string: GCC 12 -O2 warns falsely (-Wrestrict)
        snprintf(id_text, sizeof id_text, "C%d", clip);
        const std::string id = id_text;
        failures += zqhandler_cmd_odetics_recordCueUp(recorder, id.c_str(), nullptr) != 0;
        failures += zqhandler_cmd_basic(recorder, BAS_CMD_RECORD) != 0;
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        failures += zqhandler_cmd_basic(recorder, BAS_CMD_STOP) != 0;
        failures += zqhandler_cmd_odetics_inPreset(recorder, id.c_str(), nullptr) != 0;
        failures += zqhandler_cmd_basic(recorder, BAS_CMD_PLAY) != 0;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    zqhandler_delete(recorder);
    return failures;
}

// state.range(0): 1 polls the model's senses, 0 the baseline's.
void BM_eight_pollers_and_a_recorder(benchmark::State& state) {
    const bool model = state.range(0) != 0;
    const auto run = std::chrono::seconds(10);
    devsim::DevSim sim;
    const std::string port = std::to_string(sim.listen_udp("127.0.0.1", 0));
    sim.start();
    clockid_t server_clock{};
    if (!serving_thread_clock(sim, port, server_clock))
        state.SkipWithError("no serving thread seen");
    Polls polls;
    double cpu = 0, server = 0;
    for (auto _ : state) {
        const double cpu_before = cpu_seconds(), server_before = thread_cpu_seconds(server_clock);
        const auto end = Clock::now() + run;
        std::vector<std::thread> pollers;
        for (int i = 0; i < kControllers; ++i)
            pollers.emplace_back([&] { poll(port, model, end, polls); });
        polls.failures += record_and_cue(port, end);
        for (std::thread& t : pollers)
            t.join();
        cpu = cpu_seconds() - cpu_before;
        server = thread_cpu_seconds(server_clock) - server_before;
    }
    sim.stop(); // after the serving thread's clock was read
    const auto answers = static_cast<double>(polls.answers);
    state.counters["answers"] = answers;
    state.counters["failures"] = static_cast<double>(polls.failures);
    state.counters["cpu_us_per_answer"] = cpu * 1e6 / answers;
    state.counters["cpu_percent"] = cpu * 100 / 10;
    state.counters["server_cpu_us_per_answer"] = server * 1e6 / answers;
    state.counters["server_cpu_percent"] = server * 100 / 10;
    reportPercentiles(state, "latency_us", polls.latency_us);
}
BENCHMARK(BM_eight_pollers_and_a_recorder)
    ->Arg(0)
    ->Arg(1)
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kSecond);

// How fast the model's position runs while it plays, against the wall clock: the frames it moved
// in one second of play, read over UDP as the current time, per second of the steady clock. The
// standard's rate, 25, is the baseline.
void BM_position_rate(benchmark::State& state) {
    devsim::DevSim sim;
    const std::string port = std::to_string(sim.listen_udp("127.0.0.1", 0));
    sim.start();
    t_zqhandler* h = zqhandler_create();
    zqhandler_connect_eth(h, "127.0.0.1", port.c_str());
    zqhandler_set_timeout(h, kTimeoutMs);
    auto frames = [h] {
        char tc[ZQ_TC_BYTES] = {};
        zqhandler_cmd_sense_timecode(h, BAS_SENSE_TC, tc);
        return tc_tcstr2frames(tc, 25, 0);
    };
    double rate = 0;
    for (auto _ : state) {
        zqhandler_cmd_cueWithData(h, "00:10:00:00");
        zqhandler_cmd_basic(h, BAS_CMD_PLAY);
        const long first = frames();
        const auto start = Clock::now();
        std::this_thread::sleep_for(std::chrono::seconds(1));
        const long second = frames();
        const std::chrono::duration<double> between = Clock::now() - start;
        rate = static_cast<double>(second - first) / between.count();
    }
    zqhandler_delete(h);
    state.counters["frames_per_second"] = rate;
    state.counters["baseline_frames_per_second"] = 25;
}
BENCHMARK(BM_position_rate)->Iterations(3)->UseRealTime()->Unit(benchmark::kSecond);

} // namespace

BENCHMARK_MAIN();
