// facility: a broadcast facility on one machine. BOARDS servers, each a network namespace with its
// board emulator, vlmgpiod.out and gpiomqtt, joined by a bridge to one mosquitto; one
// mosquitto_sub counts every state. Every board's GPI changes at every poll of its daemon, the
// broker is restarted twice, and at the end every retained state must equal its line's level.
// Latency runs from the poll that sees a change (the emulator applies a change at that read of
// the transition register) to the subscriber, beside mosquitto_pub -l to the same subscriber, in
// the same run, from the first board's namespace. gpiomqtt's memory, descriptors and CPU are read
// from /proc on every board.
#include "cli.h"
#include "ids.h"
#include "json.h"
#include "percentiles.h"
#include "soak_figures.h"
#include "soak_support.h"
#include "values.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <fcntl.h>
#include <map>
#include <memory>
#include <mutex>
#include <sdiboard/sdiboard.h>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

const char kUsage[] =
    "usage: facility [BOARDS] [SECONDS]   (default 20 boards for 60 seconds; root)\n"
    "Exit status 0 when every retained state equals its line's level at the end and gpiomqtt's\n"
    "memory and descriptors stay flat on every board, 1 otherwise, 77 without root.\n";
constexpr const char* kHub = "10.77.0.1"; // the broker, on the bridge
constexpr int kOutageMs = 3000;           // each of the broker's two absences
constexpr int kReconnectedMs = 4000;      // every client is back within this after the broker

double msSince(Clock::time_point then, Clock::time_point now) {
    return std::chrono::duration<double, std::milli>(now - then).count();
}

soak::Launch program(std::vector<std::string> argv, std::string output, std::string errors,
                     int netns = -1, std::vector<std::string> environment = {}) {
    soak::Launch launch;
    launch.argv = std::move(argv);
    launch.environment = std::move(environment);
    launch.outputFile = std::move(output);
    launch.errorFile = std::move(errors);
    launch.netns = netns;
    return launch;
}

bool shell(const std::string& command) {
    return std::system(command.c_str()) == 0;
}

// One server of the facility and the changes its lines went through, oldest first.
struct Server {
    struct Change {
        bool value;
        Clock::time_point seen; // the poll that applied it
    };
    int index = 0;
    std::unique_ptr<soak::NetNamespace> ns;
    std::unique_ptr<sdiboard::Board> board;
    std::unique_ptr<soak::Process> server, daemon, gateway; // ctrld.out's stand-in, the daemon
    std::unique_ptr<soak::ProcWatch> watch;
    std::mutex mutex;
    std::array<std::deque<Change>, gpiomqtt::kLines> waiting; // not seen by the subscriber yet
    uint8_t levels = 0;
    std::atomic<uint64_t> changes{0};
};

class Facility {
  public:
    Facility(int boards, int seconds) : boards_(boards), seconds_(seconds), dir_("vlm-facility") {}
    int run();

  private:
    std::string setUp();
    std::string startServer(Server& server);
    void startBroker();
    void startBaselinePublisher();
    void drive(Server& server);
    void readSubscriber();
    void take(const std::string& topic, const std::string& payload, Clock::time_point now);
    bool retainedEqualLevels(std::string& why);

    const int boards_, seconds_;
    soak::TempDir dir_;
    std::vector<std::unique_ptr<Server>> servers_;
    std::map<std::string, std::pair<Server*, int>> sources_; // source ID: server, line
    std::unique_ptr<soak::Process> broker_, subscriber_, publisher_;
    int subscriberFifo_ = -1, subscriberKeep_ = -1, publisherInput_ = -1;
    std::atomic<bool> running_{true};
    std::mutex mutex_; // the figures below
    std::vector<double> latencyMs_, baselineMs_;
    std::map<uint64_t, Clock::time_point> baselineSent_;
    // From each stop of the broker to kReconnectedMs after its return: what is sent then waits for
    // reconnections, on both paths alike, and is not timed.
    std::vector<std::pair<Clock::time_point, Clock::time_point>> outages_;
    uint64_t received_ = 0, republished_ = 0;
};

std::string Facility::setUp() {
    // The bench's own namespace holds the bridge and the broker: nothing touches the host's.
    std::string error = soak::enterFreshNetworkNamespace();
    if (!error.empty() || dir_.path().empty())
        return error.empty() ? "no directory of its own" : error;
    if (!shell("ip link add vlm-hub type bridge && ip addr add " + std::string(kHub) +
               "/16 dev vlm-hub && ip link set vlm-hub up"))
        return "could not make the bridge";
    for (int i = 0; i < boards_; ++i) {
        servers_.push_back(std::make_unique<Server>());
        servers_.back()->index = i;
        if (!(error = startServer(*servers_.back())).empty())
            return error;
    }
    startBroker();
    if (!soak::waitForTcpPort(1883, 10000, kHub))
        return "the broker does not answer";
    // The first connections are made while the first changes are sent: not timed either.
    outages_.push_back({Clock::time_point::min(), Clock::now() + milliseconds(kReconnectedMs)});
    // The subscriber's output comes through a FIFO this process also holds open for writing, so
    // that it never reads an end while mosquitto_sub reconnects.
    const std::string fifo = dir_.file("subscriber.fifo");
    mkfifo(fifo.c_str(), 0600);
    subscriberFifo_ = open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    subscriberKeep_ = open(fifo.c_str(), O_WRONLY | O_CLOEXEC);
    subscriber_ = std::make_unique<soak::Process>(
        program({"mosquitto_sub", "-h", kHub, "-q", "2", "-F", "%t %p", "-t",
                 "x-nmos/events/v1.0/sources/#", "-t", "facility/baseline"},
                fifo, dir_.file("subscriber.err")));
    startBaselinePublisher();
    return "";
}

std::string Facility::startServer(Server& server) {
    const std::string name = "board" + std::to_string(server.index);
    server.ns = std::make_unique<soak::NetNamespace>();
    if (!server.ns->error().empty())
        return name + ": " + server.ns->error();
    const std::string ns = "/proc/" + std::to_string(getpid()) + "/fd/" +
                           std::to_string(server.ns->fd());
    const std::string port = "vlm-b" + std::to_string(server.index);
    const std::string address = "10.77." + std::to_string(1 + server.index / 250) + "." +
                                std::to_string(1 + server.index % 250) + "/16";
    bool up = shell("ip link add " + port + " type veth peer name eth0 netns " + ns +
                    " && ip link set " + port + " master vlm-hub up");
    server.ns->inside([&] {
        up = up && shell("ip addr add " + address + " dev eth0 && ip link set eth0 up");
    });
    if (!up)
        return name + ": could not join the bridge";
    // The SPI client answers from an abstract address, which lives in its namespace: the board's
    // thread must start in there too.
    server.ns->inside([&] { server.board = std::make_unique<sdiboard::Board>(dir_.file(name + ".sock")); });
    if (!server.board)
        return name + ": could not enter its namespace";
    // ctrld.out answers the daemon's command on every poll, as on a server; without it the daemon
    // would wait out its 60 ms time-out before each poll's events.
    server.server = std::make_unique<soak::Process>(
        program({DEVSIM_PATH, "udp", "127.0.0.1", "32896"}, dir_.file(name + ".devsim.out"),
                dir_.file(name + ".devsim.err"), server.ns->fd()));
    server.daemon = std::make_unique<soak::Process>(
        program({VLMGPIOD_PATH}, dir_.file(name + ".daemon.out"), dir_.file(name + ".daemon.err"),
                server.ns->fd(), {"TLAPI_SIM_SOCKET=" + server.board->path()}));
    server.gateway = std::make_unique<soak::Process>(
        program({GPIOMQTT_PATH, "--broker", std::string(kHub) + ":1883", "--id", name}, "",
                dir_.file(name + ".gpiomqtt.err"), server.ns->fd()));
    server.watch = std::make_unique<soak::ProcWatch>(server.gateway->pid(),
                                                     static_cast<size_t>(seconds_) + 16);
    const gpiomqtt::BoardIds ids = gpiomqtt::board_ids(name);
    for (int line = 0; line < gpiomqtt::kLines; ++line)
        sources_[ids.source[static_cast<size_t>(line)]] = {&server, line};
    return server.server->error() + server.daemon->error() + server.gateway->error();
}

void Facility::startBroker() {
    const std::string conf = dir_.file("mosquitto.conf");
    if (FILE* file = fopen(conf.c_str(), "w")) {
        fprintf(file, "listener 1883 %s\nallow_anonymous true\npersistence false\nuser root\n", kHub);
        fclose(file);
    }
    broker_ = std::make_unique<soak::Process>(
        program({"mosquitto", "-c", conf}, "", dir_.file("broker.err")));
}

// mosquitto_pub -l from the first board's namespace: one message per line written to its input.
void Facility::startBaselinePublisher() {
    int input[2];
    if (pipe2(input, O_CLOEXEC) != 0)
        return;
    const int saved = dup(0);
    dup2(input[0], 0);
    publisher_ = std::make_unique<soak::Process>(
        program({"mosquitto_pub", "-h", kHub, "-q", "2", "-l", "-t", "facility/baseline"}, "",
                dir_.file("baseline.err"), servers_[0]->ns->fd()));
    dup2(saved, 0);
    close(saved);
    close(input[0]);
    if (publisherInput_ >= 0)
        close(publisherInput_);
    publisherInput_ = input[1];
}

// A change at every poll: the next line toggles as soon as the previous change has been applied.
void Facility::drive(Server& server) {
    size_t transitionReads = 0;
    for (uint64_t k = 0; running_; ++k) {
        const int line = static_cast<int>(k % gpiomqtt::kLines);
        const uint8_t next = static_cast<uint8_t>(server.levels ^ (1u << line));
        server.board->setGpi(next);
        Clock::time_point seen{};
        const bool applied = server.board->waitFor(
            [&](const std::vector<sdiboard::Transfer>& transfers) {
                for (; transitionReads < transfers.size(); ++transitionReads)
                    if (!transfers[transitionReads].write &&
                        transfers[transitionReads].reg == sdiboard::kTransitionRegister) {
                        seen = transfers[transitionReads++].when;
                        return true;
                    }
                return false;
            },
            1000);
        if (!applied)
            continue;
        std::lock_guard lock(server.mutex);
        server.levels = next;
        server.waiting[static_cast<size_t>(line)].push_back({(next >> line & 1) != 0, seen});
        ++server.changes;
    }
}

void Facility::readSubscriber() {
    std::string pending;
    char chunk[65536];
    while (running_) {
        if (!soak::waitReadable(subscriberFifo_, 100))
            continue;
        const ssize_t got = read(subscriberFifo_, chunk, sizeof chunk);
        const Clock::time_point now = Clock::now();
        if (got <= 0)
            continue;
        pending.append(chunk, static_cast<size_t>(got));
        for (size_t end; (end = pending.find('\n')) != std::string::npos; pending.erase(0, end + 1)) {
            const std::string line = pending.substr(0, end);
            const size_t space = line.find(' ');
            if (space != std::string::npos)
                take(line.substr(0, space), line.substr(space + 1), now);
        }
    }
}

// One message the subscriber printed. A state made on a reconnection (its creation long after its
// origin) tells the level again: it is counted, not timed.
void Facility::take(const std::string& topic, const std::string& payload, Clock::time_point now) {
    const auto timed = [&](Clock::time_point sent) {
        for (const auto& [from, to] : outages_)
            if (sent >= from && sent <= to)
                return false;
        return true;
    };
    if (topic == "facility/baseline") {
        std::lock_guard lock(mutex_);
        const auto sent = baselineSent_.find(std::strtoull(payload.c_str(), nullptr, 10));
        if (sent != baselineSent_.end() && timed(sent->second))
            baselineMs_.push_back(msSince(sent->second, now));
        return;
    }
    const auto source = sources_.find(topic.substr(topic.rfind('/') + 1));
    const auto message = nlohmann::json::parse(payload, nullptr, false);
    if (source == sources_.end() ||
        cli::member_or<std::string>(message, "/message_type", "") != "state")
        return;
    const auto tai = [&](const char* path) {
        return std::strtod(cli::member_or<std::string>(message, path, "0").c_str(), nullptr);
    };
    const bool republished =
        tai("/timing/creation_timestamp") - tai("/timing/origin_timestamp") >= 0.5;
    const bool value = cli::member_or(message, "/payload/value", false);
    Server& server = *source->second.first;
    std::lock_guard serverLock(server.mutex);
    auto& waiting = server.waiting[static_cast<size_t>(source->second.second)];
    std::lock_guard lock(mutex_);
    ++received_;
    if (republished) {
        ++republished_;
        return;
    }
    // Changes older than a second were lost with the broker; the first one of this value is it.
    while (!waiting.empty() && (msSince(waiting.front().seen, now) > 1000 || waiting.front().value != value))
        waiting.pop_front();
    if (!waiting.empty()) {
        if (timed(waiting.front().seen))
            latencyMs_.push_back(msSince(waiting.front().seen, now));
        waiting.pop_front();
    }
}

// What a subscriber joining now gets, against every line's level.
bool Facility::retainedEqualLevels(std::string& why) {
    soak::Process late(program({"mosquitto_sub", "-h", kHub, "--retained-only", "-W", "3", "-F",
                                "%t %p", "-t", "x-nmos/events/v1.0/sources/#"},
                               dir_.file("retained.out"), dir_.file("retained.err")));
    late.waitExit(10000);
    std::map<std::pair<Server*, int>, bool> retained;
    const std::string text = late.output();
    for (size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1) {
        const std::string line = text.substr(at, end - at);
        const size_t space = line.find(' ');
        const auto source = sources_.find(line.substr(0, space).substr(line.rfind('/', space) + 1));
        const auto message = nlohmann::json::parse(line.substr(space + 1), nullptr, false);
        if (source != sources_.end() &&
            cli::member_or<std::string>(message, "/message_type", "") == "state")
            retained[source->second] = cli::member_or(message, "/payload/value", false);
    }
    int wrong = 0;
    for (auto& server : servers_)
        for (int line = 0; line < gpiomqtt::kLines; ++line) {
            const auto found = retained.find({server.get(), line});
            const bool level = (server->levels >> line & 1) != 0;
            if (found == retained.end() || found->second != level) {
                if (++wrong <= 3)
                    why += "board" + std::to_string(server->index) + " line " +
                           std::to_string(line) + (found == retained.end() ? " has no state; " : " retains the other level; ");
            }
        }
    return wrong == 0;
}

int Facility::run() {
    const std::string error = setUp();
    if (!error.empty()) {
        fprintf(stderr, "facility: %s\n", error.c_str());
        return 1;
    }
    const Clock::time_point start = Clock::now();
    std::vector<std::thread> threads;
    for (auto& server : servers_)
        threads.emplace_back([this, s = server.get()] { drive(*s); });
    threads.emplace_back([this] { readSubscriber(); });
    int restarts = 0;
    for (uint64_t tick = 0; msSince(start, Clock::now()) < seconds_ * 1000.0; ++tick) {
        const double elapsed = msSince(start, Clock::now()) / 1000;
        if (tick % 10 == 0)
            for (auto& server : servers_)
                server->watch->sample(elapsed, server->changes);
        if (!publisher_->running())
            startBaselinePublisher();
        {
            std::lock_guard lock(mutex_);
            baselineSent_[tick] = Clock::now();
        }
        const std::string line = std::to_string(tick) + "\n";
        if (write(publisherInput_, line.data(), line.size()) < 0) {
        }
        if (restarts < 2 && elapsed >= seconds_ * (restarts + 1) / 3.0) {
            const Clock::time_point stopped = Clock::now();
            {
                std::lock_guard lock(mutex_);
                outages_.push_back({stopped, Clock::time_point::max()});
            }
            broker_->stop();
            std::this_thread::sleep_for(milliseconds(kOutageMs)); // the outage itself
            startBroker();
            soak::waitForTcpPort(1883, 10000, kHub);
            {
                std::lock_guard lock(mutex_);
                outages_.back().second = Clock::now() + milliseconds(kReconnectedMs);
            }
            printf("broker restarted at %.0f s after %d ms away\n", elapsed, kOutageMs);
            ++restarts;
        }
        std::this_thread::sleep_for(milliseconds(100));
    }
    running_ = false;
    for (size_t i = 0; i + 1 < threads.size(); ++i)
        threads[i].join();
    // Quiet now: within five seconds every retained state must be the line's level.
    std::string why;
    const bool settled = soak::waitUntil([&] { return (why.clear(), retainedEqualLevels(why)); },
                                         5000, 500);
    threads.back().join();
    for (auto& server : servers_)
        server->watch->sample(seconds_, server->changes);

    uint64_t changes = 0;
    bool flat = true;
    std::string figures;
    for (auto& server : servers_) {
        changes += server->changes;
        const soak::Verdict verdict = server->watch->verdict(seconds_, "change", false);
        flat = flat && verdict.flat;
        if (!verdict.flat || server->index == 0)
            printf("board%d gpiomqtt: %s%s\n", server->index, verdict.figures.c_str(),
                   verdict.flat ? "" : (" NOT FLAT: " + verdict.why).c_str());
        if (server->index == 0)
            figures = verdict.brief;
    }
    double cpuMs = 0;
    for (auto& server : servers_)
        cpuMs += server->watch->samples().back().cpuMs - server->watch->samples().front().cpuMs;
    const double p50 = percentile(latencyMs_, 0.5), p99 = percentile(latencyMs_, 0.99);
    const double b50 = percentile(baselineMs_, 0.5), b99 = percentile(baselineMs_, 0.99);
    printf("changes %llu, states received %llu (%llu republished on reconnection), timed %zu\n",
           static_cast<unsigned long long>(changes), static_cast<unsigned long long>(received_),
           static_cast<unsigned long long>(republished_), latencyMs_.size());
    printf("latency board -> subscriber p50 %.1f ms p99 %.1f ms; mosquitto_pub -> mosquitto_sub "
           "p50 %.1f ms p99 %.1f ms (%zu); ratio p50 %.1f p99 %.1f\n",
           p50, p99, b50, b99, baselineMs_.size(), b50 > 0 ? p50 / b50 : 0, b99 > 0 ? p99 / b99 : 0);
    printf("gpiomqtt CPU per board %.2f%% (%.3f ms per change)\n",
           cpuMs / boards_ / (seconds_ * 10.0), changes ? cpuMs / static_cast<double>(changes) : 0);
    if (!settled)
        printf("retained states differ from the levels: %s\n", why.c_str());
    for (auto& server : servers_)
        server->gateway->stop();
    printf("facility: %d boards, %d s, %llu changes, broker restarted %d times, every retained state "
           "%s its level, latency p50 %.1f ms (%.1f x mosquitto_pub's), gpiomqtt %s: %s\n",
           boards_, seconds_, static_cast<unsigned long long>(changes), restarts,
           settled ? "equals" : "does NOT equal", p50, b50 > 0 ? p50 / b50 : 0,
           flat ? "flat" : "NOT FLAT", figures.c_str());
    return settled && flat && restarts == 2 ? 0 : 1;
}

} // namespace

int main(int argc, char** argv) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    return cli::run("facility", [&] {
        static constexpr cli::Option kHelp[] = {{"help", 'h', false}};
        const cli::CommandLine line = cli::parse(argc, argv, kHelp);
        if (!line.options.empty()) {
            fputs(kUsage, stdout);
            return 0;
        }
        if (line.words.size() > 2)
            throw cli::Refused("unexpected argument " + cli::quote(line.words[2]));
        const auto boards = line.words.size() > 0 ? cli::integer(line.words[0], 1, 1000, "BOARDS") : 20;
        const auto seconds = line.words.size() > 1 ? cli::integer(line.words[1], 10, 86400, "SECONDS") : 60;
        if (geteuid() != 0) {
            fprintf(stderr, "facility: needs root (network namespaces)\n");
            return 77;
        }
        return Facility(static_cast<int>(boards), static_cast<int>(seconds)).run();
    });
}
