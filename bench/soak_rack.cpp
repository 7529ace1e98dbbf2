// soak_rack: the rack as a team uses it, for a long run in a network namespace of its own (root).
// The real rack program serves fifty pages' event streams while vlmgpiod.out polls its board, whose
// GPI lines the run changes between every two polls through the rack's API, and two controllers
// drive its server, one on UDP and one on its serial line. It checks that every stream gets every
// log entry in order, times the API's answers with one stream open and with fifty, judges the
// rack's memory and descriptors flat over the measured run, and checks that the pages' streams,
// once closed, give back what they held.
#include "percentiles.h"
#include "soak_figures.h"
#include "soak_support.h"

#include <cli.h>
#include <values.h>
#include <zqhandler/zqhandler.h>

#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using Ms = std::chrono::milliseconds;

constexpr const char* kUsage =
    "usage: soak_rack SECONDS [--streams N]\n"
    "  SECONDS      length of the measured run, with every stream open (a baseline with one\n"
    "               stream comes first)\n"
    "  --streams N  the pages' event streams open at once (1 to 64, default 50)\n"
    "Needs root (a network namespace of its own). Exit status 0 when every stream got every log\n"
    "entry, every call was answered and the rack stayed flat, 1 otherwise, 2 on a usage error,\n"
    "77 when not root.\n";

constexpr uint16_t kHttpPort = 8080;
constexpr int kGpiStepMs = 50;         // two changes between two polls of the daemon (100 ms)
constexpr int kApiProbeMs = 100;       // the API timed ten times a second
constexpr int kControllerCallMs = 100; // each controller: ten calls a second
constexpr int kSampleMs = 500;
constexpr int kWaitMs = 20000;
constexpr int kSettleMs = 5000; // the streams' threads take their memory once, before the run

double since(Clock::time_point from) {
    return std::chrono::duration<double>(Clock::now() - from).count();
}

// ---- HTTP on the rack's port, as a page or curl speaks it.

int connectHttp() {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(kHttpPort);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof to) == 0)
        return fd;
    if (fd >= 0)
        close(fd);
    return -1;
}

std::string request(const char* method, const std::string& path, const std::string& body = "") {
    return std::string(method) + " " + path +
           " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(kHttpPort) +
           "\r\nConnection: close\r\n" +
           (body.empty() ? ""
                         : "Content-Type: application/x-www-form-urlencoded\r\nContent-Length: " +
                               std::to_string(body.size()) + "\r\n") +
           "\r\n" + body;
}

// One request on a connection of its own; the whole answer, "" when it failed.
std::string exchange(const char* method, const std::string& path, const std::string& body = "") {
    const int fd = connectHttp();
    if (fd < 0)
        return "";
    const std::string out = request(method, path, body);
    std::string answer;
    if (send(fd, out.data(), out.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(out.size()))
        for (char chunk[4096]; soak::waitReadable(fd, 5000);) {
            const ssize_t n = recv(fd, chunk, sizeof chunk, 0);
            if (n <= 0)
                break;
            answer.append(chunk, static_cast<size_t>(n));
        }
    close(fd);
    return answer;
}

bool ok(const std::string& answer) {
    return answer.rfind("HTTP/1.1 200", 0) == 0;
}

// The number after `key` in `text` ("last":123), or -1.
long long numberAfter(const std::string& text, const std::string& key) {
    const size_t at = text.find(key);
    return at == std::string::npos ? -1 : atoll(text.c_str() + at + key.size());
}

// ---- The pages' event streams, read by one thread.

struct Stream {
    int fd = -1;
    std::string pending; // a line not yet whole
    bool refused = false, live = false;
    long long firstId = -1, lastId = -1;
    uint64_t entries = 0, gaps = 0, gpiEvents = 0;

    // Takes the lines read: each log entry's id must follow the one before it.
    void take(const char* bytes, size_t n) {
        pending.append(bytes, n);
        size_t start = 0;
        for (size_t end; (end = pending.find('\n', start)) != std::string::npos; start = end + 1) {
            const std::string line = pending.substr(start, end - start);
            if (line.rfind("HTTP/1.1 ", 0) == 0)
                refused = line.rfind("HTTP/1.1 200", 0) != 0;
            if (line.rfind("data: ", 0) == 0)
                live = true;
            if (line.find("\"source\":\"gpi :42000\"") != std::string::npos)
                ++gpiEvents;
            if (line.rfind("id: ", 0) != 0)
                continue;
            const long long id = atoll(line.c_str() + 4);
            gaps += lastId >= 0 && id != lastId + 1;
            firstId = firstId < 0 ? id : firstId;
            lastId = id;
            ++entries;
        }
        pending.erase(0, start);
    }
};

class Streams {
  public:
    ~Streams() { stop(); }
    // Opens `count` more streams, as that many pages would.
    void open(size_t count) {
        std::lock_guard lock(mutex_);
        for (size_t i = 0; i < count; ++i) {
            auto s = std::make_unique<Stream>();
            s->fd = connectHttp();
            const std::string get = request("GET", "/api/events");
            if (s->fd < 0 || send(s->fd, get.data(), get.size(), MSG_NOSIGNAL) < 0)
                s->refused = true;
            streams_.push_back(std::move(s));
        }
    }
    void start() {
        thread_.start([this] { read(); });
    }
    void stop() { thread_.stop(); }
    // Closes every stream, as pages going away do; what they got stays to be read.
    void closeAll() {
        stop();
        for (auto& s : streams_)
            if (s->fd >= 0)
                close(std::exchange(s->fd, -1));
    }
    template <typename F> auto with(F f) {
        std::lock_guard lock(mutex_);
        return f(streams_);
    }

  private:
    void read() {
        std::vector<pollfd> fds;
        while (!thread_.stopping()) {
            std::unique_lock lock(mutex_);
            fds.clear();
            for (auto& s : streams_)
                fds.push_back({s->fd, POLLIN, 0});
            lock.unlock();
            if (poll(fds.data(), fds.size(), 100) <= 0)
                continue;
            lock.lock();
            char chunk[16384];
            for (size_t i = 0; i < fds.size(); ++i) {
                if (!(fds[i].revents & POLLIN))
                    continue;
                const ssize_t n = recv(streams_[i]->fd, chunk, sizeof chunk, MSG_DONTWAIT);
                if (n > 0)
                    streams_[i]->take(chunk, static_cast<size_t>(n));
            }
        }
    }

    std::mutex mutex_;
    std::vector<std::unique_ptr<Stream>> streams_;
    soak::RunThread thread_;
};

// ---- What drives the rack: the GPI lines, two controllers, the API's timer.

// Runs `step` every `periodMs` on `thread` until it is stopped.
void every(soak::RunThread& thread, int periodMs, std::function<void()> step) {
    thread.start([&thread, periodMs, step = std::move(step)] {
        for (auto next = Clock::now(); !thread.stopping(); next += Ms(periodMs)) {
            step();
            std::this_thread::sleep_until(next + Ms(periodMs));
        }
    });
}

// A controller on one of the server's links: the status, the time, now and then play or stop.
struct Controller {
    t_zqhandler* handle = zqhandler_create();
    uint64_t calls = 0, failed = 0;

    ~Controller() { zqhandler_delete(handle); }
    void call() {
        uint8_t status[ZQ_SENSE_BYTES];
        char timecode[ZQ_TC_BYTES];
        const uint64_t n = calls++;
        const int result =
            n % 3 == 0   ? zqhandler_cmd_sense_status(handle, status)
            : n % 3 == 1 ? zqhandler_cmd_sense_timecode(handle, BAS_SENSE_TC, timecode)
                         : zqhandler_cmd_basic(handle, n % 60 < 30 ? BAS_CMD_PLAY : BAS_CMD_STOP);
        failed += result < 0;
    }
};

// The API's answer times, kept apart for the baseline (one stream) and the run (all of them).
struct ApiTimes {
    std::mutex mutex;
    std::vector<double> ms[2];
    int phase = 0;
    uint64_t failures = 0;

    void probe() {
        const auto start = Clock::now();
        const bool answered = ok(exchange("GET", "/api/state"));
        const double took = since(start) * 1000;
        std::lock_guard lock(mutex);
        if (answered)
            ms[phase].push_back(took);
        failures += !answered;
    }
    // The medians and 99th percentiles, in ms, with one stream and with all of them.
    struct Figures {
        double one50, one99, all50, all99;
    };
    Figures figures() const {
        return {percentile(ms[0], 0.5), percentile(ms[0], 0.99), percentile(ms[1], 0.5),
                percentile(ms[1], 0.99)};
    }
};

// ---- The run.

struct Options {
    double seconds = 60;
    size_t streams = 50;
};

Options parse(int argc, char** argv) {
    static constexpr cli::Option kKnown[] = {{"help", 0, false}, {"streams", 0, true}};
    const cli::CommandLine line = cli::parse(argc, argv, kKnown);
    Options o;
    for (const cli::CommandLine::Given& given : line.options) {
        if (std::string_view(given.option->name) == "help") {
            fputs(kUsage, stdout);
            exit(0);
        }
        o.streams = static_cast<size_t>(cli::integer(given.value, 1, 64, "--streams"));
    }
    if (line.words.size() != 1)
        throw cli::Refused("give the run's length in seconds, once");
    o.seconds = static_cast<double>(cli::integer(line.words[0], 20, 366 * 86400, "SECONDS"));
    return o;
}

struct Programs {
    std::unique_ptr<soak::Process> rack, daemon;
    std::string error;
};

// The rack (UDP and a serial link, two clips) and the daemon on its board, both ready.
Programs startPrograms(const soak::TempDir& dir) {
    Programs p;
    soak::Launch rack;
    rack.argv = {RACK_PATH,   "udp",
                 "127.0.0.1", "32896",
                 "--also",    "serial:" + dir.file("vtr"),
                 "--clip",    "NEWS",
                 "--clip",    "PROMO1",
                 "-s",        dir.file("board.sock"),
                 "--http",    "127.0.0.1:" + std::to_string(kHttpPort)};
    rack.outputFile = dir.file("rack.out");
    rack.errorFile = dir.file("rack.err");
    p.rack = std::make_unique<soak::Process>(rack);
    if (!p.rack->error().empty() || !soak::waitForTcpPort(kHttpPort, kWaitMs) ||
        !soak::waitForPath(dir.file("vtr"), kWaitMs)) {
        p.error = "the rack did not start: " + p.rack->error() + p.rack->errors();
        return p;
    }
    soak::Launch daemon;
    daemon.argv = {VLMGPIOD_PATH};
    daemon.environment = {"TLAPI_SIM_SOCKET=" + dir.file("board.sock")};
    daemon.outputFile = dir.file("daemon.out");
    daemon.errorFile = dir.file("daemon.err");
    p.daemon = std::make_unique<soak::Process>(daemon);
    if (!p.daemon->error().empty())
        p.error = "the daemon did not start: " + p.daemon->error();
    return p;
}

long descriptorsOf(pid_t pid) {
    const auto s = soak::sampleProcess(pid, 0, 0);
    return s ? s->fds : -1;
}

// What drives the rack for the whole run: its GPI lines through the API, a controller on UDP and
// one on the serial line, the API's timer.
struct Load {
    Controller udp, serial;
    ApiTimes api;
    soak::RunThread gpi, udpCalls, serialCalls, probe;
    uint8_t levels = 0;

    explicit Load(const soak::TempDir& dir) {
        zqhandler_connect_eth(udp.handle, "127.0.0.1", "32896");
        zqhandler_connect_serial(serial.handle, dir.file("vtr").c_str());
        for (t_zqhandler* h : {udp.handle, serial.handle})
            zqhandler_set_timeout(h, 500);
    }
    void start() {
        every(gpi, kGpiStepMs, [this] {
            levels = static_cast<uint8_t>(levels == 0 || levels == 0x80 ? 1 : levels << 1);
            exchange("POST", "/api/gpi", "levels=" + std::to_string(levels));
        });
        every(udpCalls, kControllerCallMs, [this] { udp.call(); });
        every(serialCalls, kControllerCallMs, [this] { serial.call(); });
        every(probe, kApiProbeMs, [this] { api.probe(); });
    }
    void stop() {
        for (soak::RunThread* part : {&probe, &gpi, &udpCalls, &serialCalls})
            part->stop();
    }
};

// What the run saw of the rack and its streams.
struct Seen {
    double baseline = 0; // seconds with one stream
    bool allLive = false;
    long fdsWithOneStream = -1, fdsAfter = -1;
    long long last = 0; // the log's last entry
    soak::Verdict verdict;
    size_t refused = 0, missed = 0, behind = 0; // streams
    uint64_t entries = 0, gpiEvents = 0;
};

// The baseline, one page as long as a tenth of the run (at least ten seconds); then every page,
// the rack sampled for the measured run.
void measure(const Options& o, Streams& streams, pid_t rack, ApiTimes& api, Seen& seen) {
    seen.baseline = std::max(10.0, o.seconds / 10);
    std::this_thread::sleep_for(Ms(static_cast<long>(seen.baseline * 1000)));
    {
        std::lock_guard lock(api.mutex);
        api.phase = 1;
    }
    streams.open(o.streams - 1);
    seen.allLive = soak::waitUntil(
        [&] {
            return streams.with([](auto& all) {
                return std::all_of(all.begin(), all.end(), [](auto& s) { return s->live; });
            });
        },
        kWaitMs);
    std::this_thread::sleep_for(Ms(kSettleMs));
    const auto runStart = Clock::now();
    const size_t samples = static_cast<size_t>(o.seconds * 1000 / kSampleMs) + 16;
    soak::ProcWatch watch(rack, samples);
    for (auto next = runStart; since(runStart) < o.seconds; next += Ms(kSampleMs)) {
        const auto entries = streams.with([](auto& all) { return all[0]->lastId; });
        watch.sample(since(runStart), static_cast<uint64_t>(std::max(0LL, entries)));
        std::this_thread::sleep_until(next + Ms(kSampleMs));
    }
    seen.verdict = watch.verdict(o.seconds, "entry", false);
}

// The last entry, then every stream up to it, tallied; then the pages go away.
void drain(Streams& streams, pid_t rack, Seen& seen) {
    std::this_thread::sleep_for(Ms(500));
    seen.last = numberAfter(exchange("GET", "/api/log?after=1000000000000"), "\"last\":");
    soak::waitUntil(
        [&] {
            return streams.with([&](auto& all) {
                return std::all_of(all.begin(), all.end(),
                                   [&](auto& s) { return s->lastId >= seen.last; });
            });
        },
        kWaitMs);
    streams.with([&](auto& all) {
        for (auto& s : all) {
            seen.refused += s->refused;
            seen.missed += s->gaps > 0;
            seen.behind += s->lastId < seen.last;
            seen.entries += s->entries;
        }
        seen.gpiEvents = all[0]->gpiEvents;
        return 0;
    });
    streams.closeAll();
    soak::waitUntil([&] { return (seen.fdsAfter = descriptorsOf(rack)) < seen.fdsWithOneStream; },
                    kWaitMs, 200);
}

void report(const Options& o, const Seen& seen, const Load& load, pid_t rack) {
    const auto& ms = load.api.ms;
    const auto [one50, one99, all50, all99] = load.api.figures();
    printf("soak_rack: %.0f s measured with %zu streams, after %.0f s with one; the daemon on the "
           "rack's board, its GPI lines changed every %d ms through the API; a controller on UDP "
           "and one on the serial line, %d calls a second each; rack pid %d\n",
           o.seconds, o.streams, seen.baseline, kGpiStepMs, 1000 / kControllerCallMs, rack);
    printf("streams: %zu of %zu live, %zu refused; %llu log entries read in all (the last %lld); "
           "%zu missed one, %zu never reached the last; the first saw %llu GPI events\n",
           o.streams - seen.refused, o.streams, seen.refused, (unsigned long long)seen.entries,
           seen.last, seen.missed, seen.behind, (unsigned long long)seen.gpiEvents);
    printf("API (GET /api/state): p50 %.2f ms, p99 %.2f ms with one stream (%zu answers); p50 "
           "%.2f ms, p99 %.2f ms with %zu (%zu answers); ratio p50 %.2f, p99 %.2f; %llu failed\n",
           one50, one99, ms[0].size(), all50, all99, o.streams, ms[1].size(),
           one50 > 0 ? all50 / one50 : 0, one99 > 0 ? all99 / one99 : 0,
           (unsigned long long)load.api.failures);
    printf("controllers: udp %llu calls, %llu failed; serial %llu calls, %llu failed\n",
           (unsigned long long)load.udp.calls, (unsigned long long)load.udp.failed,
           (unsigned long long)load.serial.calls, (unsigned long long)load.serial.failed);
    printf("rack: %s\n  %s (CPU per log entry printed, not judged)\n", seen.verdict.figures.c_str(),
           seen.verdict.criterion.c_str());
    printf("pages gone: the rack's descriptors %ld with one stream open, %ld once every stream "
           "closed\n",
           seen.fdsWithOneStream, seen.fdsAfter);
}

// What broke the run's criteria, each followed by ";" ("" when it passed). Ends the programs.
std::string judge(const Seen& seen, const Load& load, Programs& programs) {
    std::string why;
    auto require = [&](bool holds, const std::string& what) {
        if (!holds)
            why += " " + what + ";";
    };
    require(seen.allLive && seen.refused == 0, "not every stream was served");
    require(seen.missed == 0 && seen.behind == 0 && seen.last > 0, "a stream missed log entries");
    require(seen.gpiEvents > 0, "no GPI event reached the log");
    require(load.udp.failed + load.serial.failed == 0 && load.udp.calls > 0 &&
                load.serial.calls > 0,
            "a controller's call failed");
    require(load.api.failures == 0, "the API failed to answer");
    require(seen.verdict.flat, "the rack is not flat: " + seen.verdict.why);
    require(seen.fdsAfter >= 0 && seen.fdsAfter < seen.fdsWithOneStream,
            "closed streams kept their descriptors");
    require(programs.rack->running() && programs.daemon->running(), "a program ended early");
    programs.daemon->stop();
    const int rackEnd = programs.rack->stop(SIGTERM);
    require(WIFEXITED(rackEnd) && WEXITSTATUS(rackEnd) == 0,
            "the rack did not end cleanly on SIGTERM");
    return why;
}

int soakRun(const Options& o, const soak::TempDir& dir) {
    Programs programs = startPrograms(dir);
    if (!programs.error.empty()) {
        printf("soak rack: FAILED: %s\n", programs.error.c_str());
        return 1;
    }
    const pid_t rack = programs.rack->pid();
    Load load(dir);
    Streams streams;
    streams.open(1);
    streams.start();
    soak::waitUntil([&] { return streams.with([](auto& all) { return all[0]->live; }); }, kWaitMs);
    Seen seen;
    seen.fdsWithOneStream = descriptorsOf(rack);
    load.start();
    measure(o, streams, rack, load.api, seen);
    load.stop();
    drain(streams, rack, seen);
    report(o, seen, load, rack);
    const std::string why = judge(seen, load, programs);
    const auto [one50, one99, all50, all99] = load.api.figures();
    printf("soak rack %.0f s: %zu streams, every log entry to each: %s; API p50/p99 %.2f/%.2f ms "
           "with %zu streams, %.2f/%.2f ms with one; %s (first -> last tenth): %s\n",
           o.seconds, o.streams, seen.missed || seen.behind ? "no" : "yes", all50, all99, o.streams,
           one50, one99, seen.verdict.brief.c_str(),
           why.empty() ? "passed" : ("FAILED:" + why).c_str());
    return why.empty() ? 0 : 1;
}

} // namespace

// The whole run inside the programs' shared runner, whose standard output is checked to the end.
int main(int argc, char** argv) {
    return cli::run("soak_rack", [&] {
        const Options options = parse(argc, argv);
        return soak::runInFreshNamespace(
            "soak_rack", "vlm-soak-rack",
            [&](const soak::TempDir& dir) { return soakRun(options, dir); });
    });
}
