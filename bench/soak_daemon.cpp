// soak_daemon: vlmgpiod.out for a long run in a network namespace of its own (root). The emulated
// board changes GPI lines at every poll and is unplugged and power-cycled now and then; local
// programs send GPO requests and network events steadily and in bursts; ctrld.out's stand-in
// cycles through answering, NAKs, late answers, garbage, silence, a closed port and restarts. At
// the end every change, request and datagram is accounted for, and the daemon's memory,
// descriptors and CPU per poll are compared between the first and the last tenth of the run.
#include "loopback.h"
#include "soak_figures.h"
#include "soak_support.h"

#include <cli.h>
#include <devsim/devsim.h>
#include <sdiboard/sdiboard.h>
#include <values.h>
#include <vlmgpiod/gpio_event.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

// Gpio is a C record, with no comparison of its own.
static bool operator==(const Gpio& a, const Gpio& b) {
    return a.lines == b.lines && a.status == b.status;
}

namespace {

using Event = Gpio; // a GPI event or a GPO request, as the daemon's datagram carries it

using Clock = std::chrono::steady_clock;
using Ms = std::chrono::milliseconds;
using sdiboard::Fault;
using sdiboard::Transfer;

constexpr const char* kUsage =
    R"(usage: soak_daemon SECONDS [--seed N] [--phase-ms MS] [--wrap 'PROGRAM ARGS...']
  SECONDS      length of the measured run (a warm-up that plays every fault once comes first)
  --seed N     seed of every random choice (default 1)
  --phase-ms   how long ctrld.out's stand-in stays in each state (default: 1000 for runs up
               to 5 minutes, 3000 beyond)
  --wrap       run the daemon under PROGRAM (valgrind): its memory figures are then the
               wrapper's and are printed but not judged
Needs root (a network namespace of its own). Exit status 0 when nothing was lost or extra
and the daemon stayed flat, 1 otherwise, 2 on a usage error, 77 when not root.
)";

constexpr uint16_t kCtrldPort = 32896;
constexpr Gpio kProbe = {0x7E57, 0};       // a network event no board line can produce
constexpr int32_t kRelayBase = 0x40000000; // network events carry base + their number as line
constexpr uint8_t kFloatingBus = 0xFF;     // what the SPI reads when no board answers
constexpr double kSteadyPerSecond = 5;     // per sender
constexpr double kBurstEverySeconds = 10;  // per sender, the two offset by half of it
constexpr int kWaitMs = 30000;
// CPU per poll is judged in runs of ten minutes or more: over a minute on a shared machine its
// tenths differ by more than any growth such a run could show.
constexpr double kCpuJudgedFromSeconds = 600;

double since(Clock::time_point from, Clock::time_point to = Clock::now()) {
    return std::chrono::duration<double>(to - from).count();
}

// The first failure anywhere ends the run early; its text goes in the report.
std::mutex failureLock;
std::string failureText;
std::atomic<bool> failed{false};

void fail(const std::string& what) {
    std::lock_guard lock(failureLock);
    if (failureText.empty())
        failureText = what;
    failed = true;
}

// ---- The plan: when each fault happens, fixed before the run starts.

enum class OutageKind { Unplugged, PowerCycled };

struct PlannedOutage {
    Clock::time_point start;
    Ms length;
    OutageKind kind;
};

struct Plan {
    Clock::time_point warmStart, runStart, runEnd;
    Ms warmPhase{300}, phase{1000};
    std::vector<PlannedOutage> outages;
    Clock::time_point longAbsenceStart, longAbsenceEnd;
};

Plan makePlan(double seconds, int phaseMs) {
    Plan plan;
    plan.phase = Ms(phaseMs);
    plan.warmStart = Clock::now();
    // The warm-up plays each of ctrld.out's states once (14 phases) and each board outage once,
    // so that the measured run starts with every code path of the daemon already in memory.
    plan.runStart = plan.warmStart + 15 * plan.warmPhase;
    auto at = [&](double fraction) {
        return plan.runStart + std::chrono::duration_cast<Clock::duration>(
                                   std::chrono::duration<double>(seconds * fraction));
    };
    plan.runEnd = at(1);
    plan.outages.push_back({plan.warmStart + Ms(500), Ms(1000), OutageKind::Unplugged});
    plan.outages.push_back({plan.warmStart + Ms(2500), Ms(1000), OutageKind::PowerCycled});
    // In the measured run, away from its first and last tenth (which the verdict compares).
    const int count = std::max(2, static_cast<int>(seconds / 300));
    const double length = std::clamp(seconds / 30, 2.0, 20.0);
    for (int i = 0; i < count; ++i) {
        double middle = 0.2 + (i + 0.5) * 0.6 / count;
        plan.outages.push_back({at(middle - length / 2 / seconds),
                                Ms(static_cast<int>(length * 1000)),
                                i % 2 ? OutageKind::PowerCycled : OutageKind::Unplugged});
    }
    plan.longAbsenceStart = at(0.45);
    plan.longAbsenceEnd = at(0.55);
    return plan;
}

// ---- ctrld.out's stand-in.

enum class Phase { Answer, Nak, LateIn, LateOut, Garbage, Silent, Absent, Restart, LongAbsence };
constexpr const char* kPhaseNames[] = {"answering",          "NAK",        "late in time",
                                       "late past time-out", "garbage",    "silent",
                                       "port closed",        "restarting", "long absence"};
constexpr Phase kFaults[] = {Phase::Nak,    Phase::LateIn, Phase::LateOut, Phase::Garbage,
                             Phase::Silent, Phase::Absent, Phase::Restart};
constexpr int kLateInMs = 20; // the daemon waits 60 ms for an answer
constexpr int kLateOutMs = 90;

const char* name(Phase p) {
    return kPhaseNames[static_cast<int>(p)];
}

struct PhaseSpan {
    Phase phase;
    Clock::time_point start, end;
};

class CtrldSide {
  public:
    CtrldSide(const Plan& plan, unsigned seed) : plan_(plan), random_(seed) {}
    ~CtrldSide() { stop(); }

    void up() {
        if (sim_)
            return;
        try {
            sim_ = std::make_unique<devsim::DevSim>();
            sim_->keep_history(devsim::DevSim::kKeepEverything); // heard() checks every command
            sim_->listen_udp("127.0.0.1", kCtrldPort);
            sim_->start();
        } catch (const std::exception& e) {
            sim_.reset();
            fail(std::string("ctrld.out's stand-in could not start: ") + e.what());
        }
    }
    void down() {
        if (!sim_)
            return;
        for (const auto& r : sim_->received())
            heard_.push_back(r.frame);
        sim_.reset();
    }
    void start() {
        thread_.start([this] { run(); });
    }
    void stop() {
        thread_.stop();
        down();
    }

    const std::vector<PhaseSpan>& timeline() const { return timeline_; }
    const std::vector<devsim::Bytes>& heard() const { return heard_; }
    size_t restarts() const { return restarts_; }

  private:
    Phase phaseAt(Clock::time_point now) const {
        if (now >= plan_.longAbsenceStart && now < plan_.longAbsenceEnd)
            return Phase::LongAbsence;
        const bool warm = now < plan_.runStart;
        const auto length = warm ? plan_.warmPhase : plan_.phase;
        const auto step = (now - (warm ? plan_.warmStart : plan_.runStart)) / length;
        const size_t slot = static_cast<size_t>(step) % (2 * std::size(kFaults));
        return slot % 2 ? Phase::Answer : kFaults[slot / 2]; // every fault is followed by answers
    }

    devsim::Reply garbage() {
        switch (random_() % 3) {
        case 0: { // fewer bytes than the smallest answer
            devsim::Bytes raw(1 + random_() % 12);
            for (auto& b : raw)
                b = static_cast<uint8_t>(random_());
            return devsim::Reply::bytes(raw);
        }
        case 1: { // an ACK whose checksum is wrong
            devsim::Reply r = devsim::Reply::ack();
            r.corrupt_checksum = true;
            return r;
        }
        default: // a header announcing an 18-byte frame in front of 3 bytes
            return devsim::Reply::bytes({0, 1, 0, 18, 0, 0, 0, 0, 0, 0, 0x10, 0x01, 0x11});
        }
    }

    void enter(Phase phase) {
        using devsim::Reply;
        const bool present = phase != Phase::Absent && phase != Phase::LongAbsence;
        if (!present)
            down();
        else
            up();
        if (sim_) {
            static constexpr uint8_t kNakBits[] = {0x01, 0x04, 0x10, 0x20, 0x40, 0x80};
            sim_->set_default(phase == Phase::Nak       ? Reply::nak(kNakBits[random_() % 6])
                              : phase == Phase::LateIn  ? Reply::late(kLateInMs)
                              : phase == Phase::LateOut ? Reply::late(kLateOutMs)
                              : phase == Phase::Garbage ? garbage()
                              : phase == Phase::Silent  ? Reply::silence()
                                                        : Reply());
        }
        const auto now = Clock::now();
        if (!timeline_.empty())
            timeline_.back().end = now;
        timeline_.push_back({phase, now, now});
    }

    void run() {
        std::optional<Phase> current;
        auto nextChange = Clock::now();
        while (!thread_.stopping() && !failed) {
            const auto now = Clock::now();
            const Phase phase = now >= plan_.runEnd ? Phase::Answer : phaseAt(now);
            if (phase != current) {
                enter(phase);
                current = phase;
                nextChange = now + Ms(100 + random_() % 300);
            } else if (now >= nextChange && phase == Phase::Garbage) {
                sim_->set_default(garbage()); // another kind of garbage
                nextChange = now + Ms(100);
            } else if (now >= nextChange && phase == Phase::Restart) {
                down(); // a restart in the middle of whatever the daemon is doing
                std::this_thread::sleep_for(Ms(random_() % 30));
                up();
                ++restarts_;
                nextChange = Clock::now() + Ms(150 + random_() % 250);
            }
            std::this_thread::sleep_for(Ms(10));
        }
        if (!timeline_.empty())
            timeline_.back().end = Clock::now();
    }

    const Plan& plan_;
    std::mt19937 random_;
    std::unique_ptr<devsim::DevSim> sim_;
    std::vector<devsim::Bytes> heard_;
    std::vector<PhaseSpan> timeline_;
    size_t restarts_ = 0;
    soak::RunThread thread_;
};

// ---- Local senders: GPO requests to 42001, network events to 42002.

struct Sent {
    std::vector<uint8_t> bytes;
};

class Sender {
  public:
    Sender(uint16_t port, unsigned seed, int burst, double burstOffset, const Plan& plan)
        : port_(port), random_(seed), burst_(burst), burstOffset_(burstOffset), plan_(plan) {}
    ~Sender() { stop(); }
    void start() {
        thread_.start([this] { run(); });
    }
    void stop() { thread_.stop(); }

    // Held: sends nothing until released; `holding` says the sender has seen it.
    std::atomic<bool> hold{false}, holding{false};
    // Datagrams of 8 bytes or more sent so far: those the daemon acts on.
    std::atomic<uint64_t> accepted{0};
    const std::vector<Sent>& sent() const { return sent_; } // once stopped
    size_t bursts() const { return bursts_; }

  private:
    // A GPO request: mostly one line, sometimes all eight, sometimes a line no board has.
    Event request() {
        const uint32_t pick = random_() % 10;
        if (pick < 7) {
            static constexpr int32_t kStatuses[] = {0, 1, 7, -1};
            return {static_cast<int32_t>(random_() % 8), kStatuses[random_() % 4]};
        }
        if (pick < 9)
            return {255, static_cast<int32_t>(random_())};
        static constexpr int32_t kNoLine[] = {8, 9, -1, 256, 0x7FFFFFFF};
        return {kNoLine[random_() % 5], 1};
    }

    void sendOne(int fd) {
        const size_t number = sent_.size();
        const Event e = port_ == LOOP_GPO_PORT ? request()
                                               : Event{kRelayBase + static_cast<int32_t>(number),
                                                       static_cast<int32_t>(random_())};
        const GpioDatagram datagram = gpioEncode(e);
        std::vector<uint8_t> bytes(datagram.begin(), datagram.end());
        if (number % 16 == 5)
            bytes.resize(5); // too short: ignored
        else if (number % 16 == 13)
            bytes.insert(bytes.end(), {0xDE, 0xAD, 0xBE, 0xEF}); // used by its first 8 bytes
        sockaddr_in to = loopback_address(port_);
        if (sendto(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&to),
                   sizeof to) != static_cast<ssize_t>(bytes.size())) {
            fail("a datagram to port " + std::to_string(port_) +
                 " could not be sent: " + strerror(errno));
            return;
        }
        sent_.push_back({bytes});
        if (bytes.size() >= GPIO_DATAGRAM_SIZE)
            ++accepted;
    }

    void run() {
        int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        std::exponential_distribution<double> gap(kSteadyPerSecond);
        auto after = [](double s) {
            return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(s));
        };
        auto nextSteady = Clock::now();
        auto nextBurst = plan_.warmStart + after(burstOffset_);
        while (!thread_.stopping() && !failed) {
            if (hold) {
                holding = true;
                while (hold && !thread_.stopping())
                    std::this_thread::sleep_for(Ms(5));
                holding = false;
                nextSteady = std::max(nextSteady, Clock::now());
                nextBurst = std::max(nextBurst, Clock::now() + after(1));
                continue;
            }
            const auto now = Clock::now();
            if (now >= nextBurst) {
                for (int i = 0; i < burst_; ++i)
                    sendOne(fd);
                ++bursts_;
                nextBurst += after(kBurstEverySeconds);
            } else if (now >= nextSteady) {
                sendOne(fd);
                nextSteady += after(gap(random_));
            }
            std::this_thread::sleep_until(std::min({nextSteady, nextBurst, now + Ms(5)}));
        }
        close(fd);
    }

    uint16_t port_;
    std::mt19937 random_;
    int burst_;
    double burstOffset_;
    const Plan& plan_;
    std::vector<Sent> sent_;
    size_t bursts_ = 0;
    soak::RunThread thread_;
};

// ---- 127.0.0.1:42000, where GPI events and relayed network events arrive.

struct Arrival {
    Event event;
    Clock::time_point when;
};

class Receiver {
  public:
    Receiver() {
        int size = 64 << 20;
        setsockopt(socket_.fd(), SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size);
        thread_.start([this] { run(); });
    }
    ~Receiver() { stop(); }
    void stop() { thread_.stop(); }
    std::atomic<uint64_t> relays{0}, probes{0};
    std::atomic<Clock::rep> lastArrival{0}; // Clock's count at the latest datagram
    const std::vector<Arrival>& arrivals() const { return arrivals_; } // once stopped
    size_t malformed() const { return malformed_; }

  private:
    void run() {
        while (!thread_.stopping()) {
            std::vector<uint8_t> bytes = socket_.receive(50);
            if (bytes.empty())
                continue;
            lastArrival = Clock::now().time_since_epoch().count();
            if (bytes.size() != GPIO_DATAGRAM_SIZE) {
                ++malformed_;
                continue;
            }
            const Event e = gpioDecodeBytes(bytes.data());
            if (e == kProbe) {
                ++probes;
                continue;
            }
            if (e.lines >= kRelayBase)
                ++relays;
            arrivals_.push_back({e, Clock::now()});
        }
    }
    UdpEndpoint socket_{LOOP_GPI_PORT};
    std::vector<Arrival> arrivals_;
    size_t malformed_ = 0;
    soak::RunThread thread_;
};

// ---- The board: drives the GPI lines at every poll, records what the daemon read, and plays
// the outages.

struct Episode { // what one board answered between two outages
    std::vector<Transfer> transfers;
    std::optional<OutageKind> endedBy;
    Clock::time_point outageStart, outageEnd;
};

struct Tally {
    uint64_t rises = 0, falls = 0, pulses = 0, windows = 0, idlePolls = 0, splitWindows = 0;
};

class BoardSide {
  public:
    BoardSide(std::string path, const Plan& plan, unsigned seed, Sender& gpo)
        : path_(std::move(path)), plan_(plan), random_(seed), gpo_(gpo) {
        board_ = std::make_unique<sdiboard::Board>(path_, Fault::None, sdiboard::kKeepAll);
        episodes_.emplace_back();
    }
    ~BoardSide() { stop(); }
    const std::string& path() const { return path_; }
    void start() {
        thread_.start([this] { run(); });
    }
    void stop() { thread_.stop(); }
    std::atomic<uint64_t> polls{0}, gpoWrites{0};
    const std::vector<Episode>& episodes() const { return episodes_; } // once stopped
    const Tally& tally() const { return tally_; }
    const std::vector<std::string>& disagreements() const { return disagreements_; }

  private:
    struct Op {
        uint8_t mask;   // the transition bits it sets
        uint8_t levels; // the inputs once it is applied
    };

    // Takes what the board answered since the last look, waiting up to `timeoutMs` for news.
    void collect(int timeoutMs) {
        std::vector<Transfer> fresh;
        board_->waitFor(
            [&](const std::vector<Transfer>& all) {
                if (all.size() <= seen_)
                    return false;
                fresh.assign(all.begin() + static_cast<long>(seen_), all.end());
                seen_ = all.size();
                return true;
            },
            timeoutMs);
        for (const auto& t : fresh)
            take(t);
    }

    // Checks one transfer against the changes driven: a transition read holds exactly the bits
    // of the next few changes (a prefix of them), a level read the inputs as of that read.
    void take(const Transfer& t) {
        episodes_.back().transfers.push_back(t);
        if (t.write) {
            gpoWrites += t.reg == sdiboard::kGpoRegister;
            return;
        }
        if (t.reg == sdiboard::kGpiRegister && t.value != presented_)
            disagree("the board read levels 0x%02X where 0x%02X were driven", t.value, presented_);
        if (t.reg != sdiboard::kTransitionRegister)
            return;
        ++polls;
        if (t.value == 0) {
            tally_.idlePolls += plan_.warmStart <= t.when;
            return;
        }
        uint8_t bits = 0;
        while (!pending_.empty() && (pending_.front().mask & ~t.value) == 0 && bits != t.value) {
            bits |= pending_.front().mask;
            presented_ = pending_.front().levels;
            pending_.pop_front();
        }
        tally_.splitWindows += !pending_.empty(); // the rest comes at a later poll
        if (bits != t.value)
            disagree("the board read transitions 0x%02X where 0x%02X were driven", t.value, bits);
    }

    void disagree(const char* format, int a, int b) {
        char text[160];
        snprintf(text, sizeof text, format, a, b);
        if (disagreements_.size() < 10)
            disagreements_.push_back(text);
        fail(std::string("board: ") + text);
    }

    // Changes for the next poll: some lines rise or fall, others pulse, each line at most once.
    void drive() {
        uint8_t flips = static_cast<uint8_t>(random_() & random_()); // about a quarter of lines
        uint8_t pulses = static_cast<uint8_t>(random_() & random_() & random_() & ~flips);
        if ((flips | pulses) == 0)
            flips = static_cast<uint8_t>(1u << (random_() % 8));
        if (flips) {
            levels_ ^= flips;
            tally_.rises +=
                static_cast<uint64_t>(std::popcount(static_cast<uint8_t>(flips & levels_)));
            tally_.falls +=
                static_cast<uint64_t>(std::popcount(static_cast<uint8_t>(flips & ~levels_)));
            pending_.push_back({flips, levels_});
            board_->setGpi(levels_);
        }
        for (int line = 0; line < 8; ++line) {
            if (!(pulses >> line & 1))
                continue;
            if (random_() % 8 == 0) // now and then a poll (of a busy loop) falls between two
                std::this_thread::sleep_for(std::chrono::microseconds(random_() % 200));
            pending_.push_back({static_cast<uint8_t>(1u << line), levels_});
            board_->pulse(line);
            ++tally_.pulses;
        }
        ++tally_.windows;
    }

    // Waits until the daemon has read every change driven.
    bool presented() {
        const auto deadline = Clock::now() + Ms(kWaitMs);
        while (!pending_.empty() && !failed) {
            if (Clock::now() > deadline) {
                fail("the daemon stopped polling the board");
                return false;
            }
            collect(50);
        }
        return pending_.empty();
    }

    // The next outage is due: GPO requests are held and every one sent so far applied first, so
    // that each request is either on the board or not yet sent.
    void outage(const PlannedOutage& o) {
        gpo_.hold = true;
        const auto deadline = Clock::now() + Ms(kWaitMs);
        while ((!gpo_.holding || gpoWrites < gpo_.accepted) && !failed) {
            if (Clock::now() > deadline) {
                fail("GPO requests were not applied before an outage");
                return;
            }
            drive(); // the lines keep changing meanwhile
            presented();
        }
        const std::string away = path_ + ".away";
        rename(path_.c_str(), away.c_str()); // unreachable from now on: transfers read 0xFF
        episodes_.back().outageStart = Clock::now();
        std::this_thread::sleep_for(Ms(50)); // what was sent before is served
        collect(0);
        episodes_.back().endedBy = o.kind;
        if (o.kind == OutageKind::Unplugged) {
            drive(); // the inputs change while nobody reads them: the latch keeps the change
            std::this_thread::sleep_until(episodes_.back().outageStart + o.length);
            rename(away.c_str(), path_.c_str());
        } else {
            board_.reset();
            unlink(away.c_str());
            seen_ = 0;
            board_ = std::make_unique<sdiboard::Board>(path_, Fault::Absent, // silent
                                                       sdiboard::kKeepAll);
            std::this_thread::sleep_until(episodes_.back().outageStart + o.length);
            board_.reset();
            board_ = std::make_unique<sdiboard::Board>(path_, Fault::None, // powered up: all zero
                                                       sdiboard::kKeepAll);
            presented_ = 0;
            if (levels_) { // the inputs are what they were: a change from the reset state
                pending_.push_back({levels_, levels_});
                board_->setGpi(levels_);
            }
        }
        episodes_.back().outageEnd = Clock::now();
        episodes_.emplace_back();
        gpo_.hold = false;
        presented();
    }

    void run() {
        sched_param priority{};
        priority.sched_priority = 1; // the next changes go in before the next poll, where allowed
        (void)pthread_setschedparam(pthread_self(), SCHED_FIFO, &priority);
        size_t nextOutage = 0;
        while (!thread_.stopping() && !failed) {
            if (nextOutage < plan_.outages.size() &&
                Clock::now() >= plan_.outages[nextOutage].start)
                outage(plan_.outages[nextOutage++]);
            drive();
            if (!presented())
                break;
        }
        // The last polls: nothing changes any more; the log must end with a whole poll.
        for (int i = 0; i < 40 && !failed; ++i)
            collect(10);
        board_->waitFor(
            [](const std::vector<Transfer>& all) {
                return all.empty() || all.back().reg != sdiboard::kTransitionRegister;
            },
            1000);
        collect(0);
    }

    std::string path_;
    const Plan& plan_;
    std::mt19937 random_;
    Sender& gpo_;
    std::unique_ptr<sdiboard::Board> board_;
    size_t seen_ = 0;
    std::vector<Episode> episodes_;
    std::deque<Op> pending_;
    uint8_t levels_ = 0;    // the inputs as driven
    uint8_t presented_ = 0; // the inputs as of the last transition read
    Tally tally_;
    std::vector<std::string> disagreements_;
    soak::RunThread thread_;
};

// ---- What the daemon must have reported, from what the board answered.

struct Poll {
    uint8_t gpit, gpi;
    Clock::time_point when; // of the transition read; the epoch for polls no board answered
    bool floating;          // a poll of an absent board: both reads were 0xFF
};

std::vector<Event> eventsOf(const Poll& p, uint8_t previous) {
    std::vector<Event> events;
    for (int line = 0; line < 8; ++line) {
        const int mask = 1 << line;
        if (p.gpit & mask)
            events.push_back({line, (p.gpi & mask) == (previous & mask) ? 2
                                    : (p.gpi & mask)                    ? 1
                                                                        : 0});
    }
    return events;
}

// The polls one board answered, as the daemon saw them: a transition read and the level read
// after it; a read that went to no board (the outage came between the two) read 0xFF.
std::vector<Poll> pollsOf(const Episode& e, bool first, uint8_t* startupGpi) {
    std::vector<Poll> polls;
    const Transfer* transition = nullptr;
    bool polling = !first; // the first board also serves detection and the start-up level read
    for (const auto& t : e.transfers) {
        if (t.write)
            continue;
        if (t.reg == sdiboard::kTransitionRegister) {
            if (transition)
                polls.push_back({transition->value, kFloatingBus, transition->when, false});
            transition = &t;
            polling = true;
        } else if (t.reg == sdiboard::kGpiRegister) {
            if (transition)
                polls.push_back({transition->value, t.value, transition->when, false});
            else if (polling)
                polls.push_back({kFloatingBus, t.value, t.when, false});
            else
                *startupGpi = t.value;
            transition = nullptr;
        }
    }
    if (transition)
        polls.push_back({transition->value, kFloatingBus, transition->when, false});
    return polls;
}

struct Diff {
    size_t lost = 0, extra = 0;
    std::string first; // where they first part, "" when equal
};

// The fewest events lost and extra that turn `expected` into `got`, in order (Myers' shortest
// edit script), so that one lost event counts as one and not as everything after it.
template <typename T, typename Show>
Diff compare(const std::vector<T>& expected, const std::vector<T>& got, Show show) {
    Diff d;
    size_t same = 0;
    while (same < expected.size() && same < got.size() && expected[same] == got[same])
        ++same;
    if (same == expected.size() && same == got.size())
        return d;
    d.first = "#" + std::to_string(same) + ": expected " +
              (same < expected.size() ? show(expected[same]) : "nothing") + ", got " +
              (same < got.size() ? show(got[same]) : "nothing");
    const long n = static_cast<long>(expected.size() - same),
               m = static_cast<long>(got.size() - same);
    const long most = std::min<long>(n + m, 4000);
    std::vector<long> v(static_cast<size_t>(2 * most + 3));
    auto at = [&](long k) -> long& { return v[static_cast<size_t>(k + most + 1)]; };
    long edits = n + m; // when the differences are too many to count exactly
    for (long e = 0; e <= most && edits == n + m; ++e) {
        for (long k = -e; k <= e; k += 2) {
            long x = (k == -e || (k != e && at(k - 1) < at(k + 1))) ? at(k + 1) : at(k - 1) + 1;
            long y = x - k;
            while (x < n && y < m &&
                   expected[same + static_cast<size_t>(x)] == got[same + static_cast<size_t>(y)])
                ++x, ++y;
            at(k) = x;
            if (x >= n && y >= m) {
                edits = e;
                break;
            }
        }
    }
    d.lost = static_cast<size_t>((edits + n - m) / 2);
    d.extra = static_cast<size_t>((edits - n + m) / 2);
    return d;
}

std::string showEvent(const Event& e) {
    return "(" + std::to_string(e.lines) + ", " + std::to_string(e.status) + ")";
}

struct GpiCheck {
    std::vector<Poll> polls;          // every poll as the daemon saw it, floating ones included
    std::vector<size_t> episodeStart; // index in `polls` of each board's first poll
    std::vector<size_t> floatingPerOutage;
    uint64_t boardEvents = 0, floatingEvents = 0;
    Diff diff;
};

// Appends the events of `polls` to `out` (and the polls to `seq`), the first compared with a
// poll that read `previous`: the levels the last of them read.
uint8_t appendEvents(const std::vector<Poll>& polls, uint8_t previous, std::vector<Event>& out,
                     std::vector<Poll>* seq = nullptr) {
    for (const auto& p : polls) {
        const auto events = eventsOf(p, previous);
        out.insert(out.end(), events.begin(), events.end());
        previous = p.gpi;
        if (seq)
            seq->push_back(p);
    }
    return previous;
}

const Poll kFloatingPoll{kFloatingBus, kFloatingBus, {}, true};

struct FloatingMatch {
    size_t polls = 0;  // floating polls before the board's
    size_t length = 0; // events matched from where they start
    bool whole = false;
};

// From `at` in `got`: as many floating polls as their events come there, each followed by a try
// of the board's next polls (`next[0]` after no floating poll, `next[1]` after some); `best`
// keeps the number under which the most events match.
void tryFloatingAt(const std::vector<Event> (&next)[2], uint8_t previous,
                   const std::vector<Event>& got, size_t at, FloatingMatch& best) {
    for (size_t k = 0;; ++k) {
        const auto& tail = next[k ? 1 : 0];
        const size_t from = at + 8 * k;
        size_t length = 0;
        while (length < tail.size() && from + length < got.size() &&
               tail[length] == got[from + length])
            ++length;
        best.whole = length == tail.size();
        if (8 * k + length > best.length || best.whole)
            best = {k, 8 * k + length, best.whole};
        if (best.whole)
            return;
        std::vector<Event> group; // does another floating poll come here?
        previous = appendEvents({kFloatingPoll}, previous, group);
        if (from + 8 > got.size() ||
            !std::equal(group.begin(), group.end(), got.begin() + static_cast<long>(from)))
            return;
    }
}

// The number of floating polls before `board`'s polls under which they match longest, looked for
// a little around `expected` (where they should start) in case events were lost.
size_t floatingBefore(const std::vector<Poll>& board, uint8_t previous, size_t expected,
                      const std::vector<Event>& got) {
    std::vector<Event> next[2];
    appendEvents(board, previous, next[0]);
    appendEvents(board, kFloatingBus, next[1]);
    FloatingMatch best;
    for (long tried = 0; tried <= 32 && !best.whole; ++tried) {
        const long shift = tried % 2 ? -(tried + 1) / 2 : tried / 2; // 0, -1, 1, -2, ...
        const long start = static_cast<long>(expected) + shift;
        if (start >= 0 && start <= static_cast<long>(got.size()))
            tryFloatingAt(next, previous, got, static_cast<size_t>(start), best);
    }
    return best.polls;
}

// Each outage adds an unknown number of floating polls, eight events each: the number is the
// one under which what came matches longest.
GpiCheck checkGpi(const std::vector<Episode>& episodes, const std::vector<Event>& got) {
    GpiCheck c;
    std::vector<Event> expected;
    uint8_t previous = 0;
    std::vector<std::vector<Poll>> perEpisode;
    for (size_t i = 0; i < episodes.size(); ++i)
        perEpisode.push_back(pollsOf(episodes[i], i == 0, &previous));
    for (size_t i = 0; i < perEpisode.size(); ++i) {
        if (i > 0) {
            const size_t k = floatingBefore(perEpisode[i], previous, expected.size(), got);
            for (size_t n = 0; n < k; ++n)
                previous = appendEvents({kFloatingPoll}, previous, expected, &c.polls);
            c.floatingPerOutage.push_back(k);
            c.floatingEvents += 8 * k;
        }
        const size_t before = expected.size();
        c.episodeStart.push_back(c.polls.size());
        previous = appendEvents(perEpisode[i], previous, expected, &c.polls);
        c.boardEvents += expected.size() - before;
    }
    c.diff = compare(expected, got, showEvent);
    return c;
}

std::vector<uint8_t> command(const Poll& p) {
    std::vector<uint8_t> frame{0x43, 0xBF, 0xF0, p.gpit, p.gpi};
    uint8_t sum = 0;
    for (uint8_t b : frame)
        sum = static_cast<uint8_t>(sum + b);
    frame.push_back(sum);
    return frame;
}

// What the daemon wrote with -v: for each poll with transitions, whether its command failed.
struct Token {
    enum Kind { Failed, Gpi, Gpo, Other } kind;
    Event event{};
};

std::vector<Token> tokens(const std::string& text) {
    std::vector<Token> out;
    static const std::string kFailed =
        "WARNING: sendS9P() -> Failed to send s9p command to 'ctrld.out' program.";
    static const std::string kGpi = "DEBUG: Raise GPI (#", kGpo = "DEBUG: setSdiGPO()";
    for (size_t at = 0; at < text.size();) {
        const size_t w = text.find("WARNING: ", at), d = text.find("DEBUG: ", at);
        const size_t next = std::min(w, d);
        if (next == std::string::npos)
            break;
        if (text.compare(next, kFailed.size(), kFailed) == 0) {
            out.push_back({Token::Failed});
        } else if (text.compare(next, kGpi.size(), kGpi) == 0) {
            Event e{};
            sscanf(text.c_str() + next + kGpi.size(), "%d, %d", &e.lines, &e.status);
            out.push_back({Token::Gpi, e});
        } else {
            out.push_back({text.compare(next, kGpo.size(), kGpo) == 0 ? Token::Gpo : Token::Other});
        }
        at = next + 1;
    }
    return out;
}

struct Outcomes {
    std::map<Phase, std::pair<uint64_t, uint64_t>> byPhase; // ok, failed
    std::map<Phase, std::vector<double>> delaysMs;          // from the poll to its first event
    size_t answeringSpans = 0, answeringSpansWithoutSuccess = 0;
    uint64_t unparsed = 0, otherWarnings = 0;
};

// `arrivals`: when each GPI event came, in the order of the polls' events (empty when they
// differ from what the polls called for).
Outcomes outcomes(const std::vector<Poll>& polls, const std::vector<Token>& toks,
                  const std::vector<PhaseSpan>& timeline, Clock::time_point from,
                  const std::vector<Clock::time_point>& arrivals) {
    Outcomes o;
    std::vector<uint64_t> spanSuccesses(timeline.size()), spanCommands(timeline.size());
    size_t at = 0, event = 0;
    for (const auto& p : polls) {
        if (p.gpit == 0)
            continue;
        const size_t firstEvent = event;
        event += static_cast<size_t>(std::popcount(p.gpit));
        while (at < toks.size() && (toks[at].kind == Token::Gpo || toks[at].kind == Token::Other ||
                                    (toks[at].kind == Token::Gpi && toks[at].event.lines >= 8))) {
            o.otherWarnings += toks[at].kind == Token::Other;
            ++at;
        }
        const bool failedCommand = at < toks.size() && toks[at].kind == Token::Failed;
        at += failedCommand;
        const size_t events = static_cast<size_t>(std::popcount(p.gpit));
        for (size_t n = 0; n < events; ++n, ++at)
            if (at >= toks.size() || toks[at].kind != Token::Gpi || toks[at].event.lines >= 8)
                ++o.unparsed;
        if (p.floating || p.when < from)
            continue;
        // A command belongs to a state when sent at least 150 ms after it began (a late answer of
        // the state before is drained by then) and 100 ms before it ended.
        auto span =
            std::upper_bound(timeline.begin(), timeline.end(), p.when,
                             [](Clock::time_point t, const PhaseSpan& s) { return t < s.start; });
        if (span == timeline.begin())
            continue;
        --span;
        if (p.when < span->start + Ms(150) || p.when + Ms(100) > span->end)
            continue;
        auto& tally = o.byPhase[span->phase];
        (failedCommand ? tally.second : tally.first) += 1;
        if (firstEvent < arrivals.size())
            o.delaysMs[span->phase].push_back(
                std::chrono::duration<double, std::milli>(arrivals[firstEvent] - p.when).count());
        spanSuccesses[static_cast<size_t>(span - timeline.begin())] += !failedCommand;
        ++spanCommands[static_cast<size_t>(span - timeline.begin())];
    }
    for (size_t s = 0; s < timeline.size(); ++s) {
        if (timeline[s].phase != Phase::Answer || spanCommands[s] == 0) // a board outage took it
            continue;
        ++o.answeringSpans;
        o.answeringSpansWithoutSuccess += spanSuccesses[s] == 0;
    }
    return o;
}

// The GPO register images the requests call for, in order.
std::vector<uint8_t> gpoImages(const std::vector<Sent>& sent) {
    std::vector<uint8_t> images;
    uint8_t image = 0;
    for (const auto& s : sent) {
        if (s.bytes.size() < GPIO_DATAGRAM_SIZE)
            continue;
        const Event r = gpioDecodeBytes(s.bytes.data());
        if (r.lines == 255)
            image = static_cast<uint8_t>(r.status & 0xFF);
        else if (r.lines >= 0 && r.lines < 8)
            image = r.status ? static_cast<uint8_t>(image | 1u << r.lines)
                             : static_cast<uint8_t>(image & ~(1u << r.lines));
        images.push_back(image);
    }
    return images;
}

// How many 8-byte datagrams a UDP socket of the default size keeps before the kernel drops,
// and what each costs of its buffer.
std::pair<size_t, long> socketCapacity() {
    UdpEndpoint sink;
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_in to = sink.address();
    const uint8_t bytes[GPIO_DATAGRAM_SIZE] = {};
    for (int i = 0; i < 4000; ++i)
        sendto(fd, bytes, sizeof bytes, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
    close(fd);
    auto queue = soak::udpQueue(ntohs(to.sin_port));
    size_t kept = 0;
    while (!sink.receive(0).empty())
        ++kept;
    return {kept, kept && queue ? queue->queuedBytes / static_cast<long>(kept) : 0};
}

// What each outage looked like from outside: its floating polls and how close together they came
// (a silent board makes every read wait), the first polls back, and, after a power cycle, the
// GPO register until the next request rewrote it.
void reportOutages(const std::vector<Episode>& episodes, const GpiCheck& gpi,
                   const std::vector<Clock::time_point>& arrivals) {
    std::vector<size_t> firstEvent(gpi.polls.size() + 1);
    for (size_t n = 0; n < gpi.polls.size(); ++n)
        firstEvent[n + 1] = firstEvent[n] + static_cast<size_t>(std::popcount(gpi.polls[n].gpit));
    for (size_t i = 1; i < episodes.size() && i < gpi.episodeStart.size() && i <= 8; ++i) {
        const Episode& before = episodes[i - 1];
        const double length = since(before.outageStart, before.outageEnd);
        const size_t k = gpi.floatingPerOutage[i - 1], first = gpi.episodeStart[i];
        double closest = 0;
        for (size_t n = first - k + 1; n < first && firstEvent[n] < arrivals.size(); ++n) {
            const double apart = std::chrono::duration<double, std::milli>(
                                     arrivals[firstEvent[n]] - arrivals[firstEvent[n - 1]])
                                     .count();
            closest = n == first - k + 1 ? apart : std::min(closest, apart);
        }
        std::string back;
        for (size_t n = first; n < gpi.polls.size() && n < first + 3; ++n) {
            char text[16];
            snprintf(text, sizeof text, "%s%02X/%02X", n == first ? "" : ", ", gpi.polls[n].gpit,
                     gpi.polls[n].gpi);
            back += text;
        }
        std::string gpo;
        for (const auto& t : episodes[i].transfers)
            if (t.write && t.reg == sdiboard::kGpoRegister) {
                char text[96];
                snprintf(text, sizeof text,
                         "; GPO register 0x00 until the next request wrote 0x%02X, %.0f ms after",
                         t.value, since(before.outageEnd, t.when) * 1000);
                gpo = *before.endedBy == OutageKind::PowerCycled ? text : "";
                break;
            }
        printf("  %s %s for %.1f s: %zu floating polls (%.1f a second, 8 events each, at least "
               "%.1f ms apart); first polls back (transitions/levels): %s%s\n",
               i <= 2 ? "warm-up" : "run",
               *before.endedBy == OutageKind::Unplugged ? "unplugged" : "power-cycled (silent)",
               length, k, static_cast<double>(k) / length, closest,
               back.empty() ? "none" : back.c_str(), gpo.c_str());
    }
}

struct Options {
    double seconds = 0;
    unsigned seed = 1;
    int phaseMs = 0;
    std::vector<std::string> wrapper;
};

Options parse(int argc, char** argv) {
    static constexpr cli::Option kKnown[] = {
        {"help", 0, false}, {"seed", 0, true}, {"phase-ms", 0, true}, {"wrap", 0, true}};
    const cli::CommandLine line = cli::parse(argc, argv, kKnown);
    Options o;
    for (const cli::CommandLine::Given& given : line.options) {
        const std::string_view name = given.option->name;
        if (name == "help") {
            fputs(kUsage, stdout);
            exit(0);
        } else if (name == "seed") {
            o.seed = static_cast<unsigned>(cli::integer(given.value, 0, UINT32_MAX, "--seed"));
        } else if (name == "phase-ms") {
            o.phaseMs = static_cast<int>(cli::integer(given.value, 200, 3600000, "--phase-ms"));
        } else {
            std::istringstream words(given.value);
            for (std::string w; words >> w;)
                o.wrapper.push_back(w);
        }
    }
    if (line.words.size() != 1)
        throw cli::Refused("give the run's length in seconds, once");
    // Shorter runs leave the tenths too short to compare.
    o.seconds = static_cast<double>(cli::integer(line.words[0], 20, 366 * 86400, "SECONDS"));
    if (o.phaseMs == 0)
        o.phaseMs = o.seconds <= 300 ? 1000 : 3000;
    return o;
}

struct Queues {
    long peakGpoBytes = 0, peakNetBytes = 0, drops = 0;
    void sample() {
        auto gpo = soak::udpQueue(LOOP_GPO_PORT), net = soak::udpQueue(INET_GPI_PORT);
        if (gpo)
            peakGpoBytes = std::max(peakGpoBytes, gpo->queuedBytes);
        if (net)
            peakNetBytes = std::max(peakNetBytes, net->queuedBytes);
        drops = std::max(drops, (gpo ? gpo->drops : 0) + (net ? net->drops : 0));
    }
};

std::string ms(Clock::duration d) {
    char text[32];
    snprintf(text, sizeof text, "%.1f ms", std::chrono::duration<double, std::milli>(d).count());
    return text;
}

// ---- The run.

// Everything the daemon meets, set up in this order and torn down in the reverse one.
struct Rig {
    Rig(const Options& options, const std::string& boardPath, int burstSize)
        : plan(makePlan(options.seconds, options.phaseMs)),
          gpo(LOOP_GPO_PORT, options.seed + 1, burstSize, 2, plan),
          net(INET_GPI_PORT, options.seed + 2, burstSize, 2 + kBurstEverySeconds / 2, plan),
          board(boardPath, plan, options.seed, gpo), ctrld(plan, options.seed + 3),
          burst(burstSize) {}
    Plan plan;
    Receiver receiver;
    Sender gpo, net;
    BoardSide board;
    CtrldSide ctrld;
    int burst;
    std::unique_ptr<soak::Process> daemon;
};

// The daemon on the board, its output in files of the run; it serves once a probe sent to the
// network port comes back on the GPI port.
bool startDaemon(Rig& rig, const Options& options, const soak::TempDir& dir) {
    rig.ctrld.up();
    soak::Launch launch;
    launch.argv = options.wrapper;
    launch.argv.insert(launch.argv.end(), {VLMGPIOD_PATH, "-v"});
    launch.environment = {"TLAPI_SIM_SOCKET=" + rig.board.path()};
    launch.outputFile = dir.file("daemon.out");
    launch.errorFile = dir.file("daemon.err");
    rig.daemon = std::make_unique<soak::Process>(launch);
    const GpioDatagram probe = gpioEncode(kProbe);
    const UdpEndpoint prober;
    soak::waitUntil(
        [&] {
            if (rig.receiver.probes > 0 || !rig.daemon->running())
                return true;
            prober.send_to(loopback_address(INET_GPI_PORT), {probe.begin(), probe.end()});
            return false;
        },
        kWaitMs, 100);
    if (rig.receiver.probes == 0)
        fprintf(stderr, "soak_daemon: the daemon did not start: %s%s\n",
                rig.daemon->error().c_str(), rig.daemon->errors().c_str());
    return rig.receiver.probes > 0;
}

// The measured run: the daemon's figures every second, the socket queues every 100 ms.
void measure(Rig& rig, soak::ProcWatch& watch, Queues& queues) {
    auto nextSample = rig.plan.runStart;
    while (Clock::now() < rig.plan.runEnd && !failed) {
        if (!rig.daemon->running())
            fail("the daemon ended during the run");
        queues.sample();
        if (Clock::now() >= nextSample) {
            watch.sample(since(rig.plan.runStart), rig.board.polls);
            nextSample += std::chrono::seconds(1);
        }
        std::this_thread::sleep_for(Ms(100));
    }
    watch.sample(since(rig.plan.runStart), rig.board.polls);
}

struct Ended {
    int status = -1; // the daemon's wait status; -1 when it did not end on SIGTERM
    std::string out, err;
};

// The end: the senders stop, the daemon serves what is queued, the board stops changing, and the
// daemon is stopped (a wrapper such as valgrind reports as it ends).
Ended finish(Rig& rig, Queues& queues) {
    rig.gpo.stop();
    rig.net.stop();
    const auto drainDeadline = Clock::now() + Ms(kWaitMs);
    while ((rig.board.gpoWrites < rig.gpo.accepted || rig.receiver.relays < rig.net.accepted) &&
           !failed && Clock::now() < drainDeadline) {
        queues.sample();
        std::this_thread::sleep_for(Ms(20));
    }
    rig.board.stop();
    auto lastArrival = [&] {
        return Clock::time_point(Clock::duration(rig.receiver.lastArrival.load()));
    };
    while (Clock::now() - lastArrival() < Ms(500) && Clock::now() < drainDeadline + Ms(kWaitMs))
        std::this_thread::sleep_for(Ms(50));
    Ended ended;
    kill(rig.daemon->pid(), SIGTERM);
    ended.status = rig.daemon->waitExit(kWaitMs);
    ended.out = rig.daemon->output();
    ended.err = rig.daemon->errors();
    rig.daemon.reset();
    rig.receiver.stop();
    rig.ctrld.stop();
    queues.sample();
    return ended;
}

// ---- The accounts.

struct Accounts {
    std::vector<Event> gpiEvents, relayed, toRelay;
    std::vector<Clock::time_point> gpiArrivals; // empty when the events differ from the polls'
    GpiCheck gpi;
    Diff relays, gpoDiff;
    std::vector<uint8_t> writes, gpoExpected; // GPO register images seen, and called for
    size_t expectedCommands = 0, heardInOrder = 0;
    Outcomes outcomes;
    Clock::duration longestGap{};
    std::string gapPhase = "?";
    uint64_t changes = 0;
    size_t outages[2] = {}; // unplugged, power-cycled
};

// What arrived on the GPI port, what the board's register got, against what was sent and polled.
void accountEvents(const Rig& rig, Accounts& a) {
    for (const auto& arrival : rig.receiver.arrivals()) {
        (arrival.event.lines >= kRelayBase ? a.relayed : a.gpiEvents).push_back(arrival.event);
        if (arrival.event.lines < kRelayBase)
            a.gpiArrivals.push_back(arrival.when);
    }
    a.gpi = checkGpi(rig.board.episodes(), a.gpiEvents);
    if (a.gpi.diff.lost || a.gpi.diff.extra)
        a.gpiArrivals.clear(); // which event answers which poll is not known
    for (const auto& s : rig.net.sent())
        if (s.bytes.size() >= GPIO_DATAGRAM_SIZE)
            a.toRelay.push_back(gpioDecodeBytes(s.bytes.data()));
    a.relays = compare(a.toRelay, a.relayed, showEvent);
    for (const auto& e : rig.board.episodes()) {
        for (const auto& t : e.transfers)
            if (t.write && t.reg == sdiboard::kGpoRegister)
                a.writes.push_back(t.value);
        if (e.endedBy)
            ++a.outages[static_cast<int>(*e.endedBy)];
    }
    a.gpoExpected = gpoImages(rig.gpo.sent());
    a.gpoDiff = compare(a.gpoExpected, a.writes, [](uint8_t v) { return std::to_string(v); });
    const Tally& tally = rig.board.tally();
    a.changes = tally.rises + tally.falls + 2 * tally.pulses;
}

// Every command ctrld.out's stand-ins heard is one the polls called for, in order; and what
// became of the commands in each of its states.
void accountCommands(const Rig& rig, const std::string& daemonErr, Accounts& a) {
    std::vector<std::vector<uint8_t>> commands;
    for (const auto& p : a.gpi.polls)
        if (p.gpit)
            commands.push_back(command(p)), ++a.expectedCommands;
    size_t j = 0;
    for (const auto& frame : rig.ctrld.heard()) {
        while (j < commands.size() && commands[j] != frame)
            ++j;
        a.heardInOrder += j < commands.size();
        j += j < commands.size();
    }
    a.outcomes = outcomes(a.gpi.polls, tokens(daemonErr), rig.ctrld.timeline(), rig.plan.runStart,
                          a.gpiArrivals);
}

// The longest gap between two polls within each board's answers, over the measured run.
void accountPollGaps(const Rig& rig, Accounts& a) {
    Clock::time_point longestAt{};
    for (const auto& e : rig.board.episodes()) {
        std::optional<Clock::time_point> last;
        for (const auto& t : e.transfers) {
            if (t.write || t.reg != sdiboard::kTransitionRegister)
                continue;
            if (last && *last >= rig.plan.runStart && t.when - *last > a.longestGap)
                a.longestGap = t.when - *last, longestAt = *last;
            last = t.when;
        }
    }
    for (const auto& s : rig.ctrld.timeline())
        if (longestAt >= s.start && longestAt <= s.end)
            a.gapPhase = name(s.phase);
}

// ctrld.out's faults in the measured run: how many, and of each kind in words.
std::pair<size_t, std::string> faultsOf(const Rig& rig) {
    std::map<Phase, size_t> spans;
    for (const auto& s : rig.ctrld.timeline())
        if (s.start >= rig.plan.runStart)
            ++spans[s.phase];
    size_t faults = 0;
    std::string list;
    for (const auto& [phase, count] : spans)
        if (phase != Phase::Answer) {
            faults += count;
            list +=
                std::string(list.empty() ? "" : ", ") + name(phase) + " " + std::to_string(count);
        }
    return {faults, list};
}

// ---- The report.

void reportGpi(const Rig& rig, const Accounts& a) {
    const Tally& tally = rig.board.tally();
    std::string floating;
    for (size_t i = 0; i < a.gpi.floatingPerOutage.size(); ++i)
        floating += (i ? ", " : "") + std::to_string(a.gpi.floatingPerOutage[i]);
    printf("GPI: %llu changes made (%llu rises, %llu falls, %llu pulses) in %llu windows on %llu "
           "polls (%llu polls saw no change, %llu windows split over two polls)\n",
           (unsigned long long)a.changes, (unsigned long long)tally.rises,
           (unsigned long long)tally.falls, (unsigned long long)tally.pulses,
           (unsigned long long)tally.windows, (unsigned long long)rig.board.polls.load(),
           (unsigned long long)tally.idlePolls, (unsigned long long)tally.splitWindows);
    printf("  events: %llu from the board's answers + %llu of the floating bus in %zu outages "
           "(floating polls per outage: %s); reported %zu: %zu lost, %zu extra%s%s\n",
           (unsigned long long)a.gpi.boardEvents, (unsigned long long)a.gpi.floatingEvents,
           a.gpi.floatingPerOutage.size(), floating.c_str(), a.gpiEvents.size(), a.gpi.diff.lost,
           a.gpi.diff.extra,
           a.gpi.diff.first.empty() ? "" : "; first difference: ", a.gpi.diff.first.c_str());
}

void reportRequests(const Rig& rig, const Accounts& a, const Queues& queues, size_t capacity,
                    long bytesPerDatagram) {
    printf("GPO: %zu requests sent (%zu too short), %zu register writes expected, %zu seen: "
           "%zu lost, %zu extra; %zu bursts of %d\n",
           rig.gpo.sent().size(), rig.gpo.sent().size() - rig.gpo.accepted, a.gpoExpected.size(),
           a.writes.size(), a.gpoDiff.lost, a.gpoDiff.extra, rig.gpo.bursts(), rig.burst);
    printf("network: %zu datagrams sent (%zu too short), %zu relayed: %zu lost, %zu extra; %zu "
           "bursts of %d\n",
           rig.net.sent().size(), rig.net.sent().size() - rig.net.accepted, a.relayed.size(),
           a.relays.lost, a.relays.extra, rig.net.bursts(), rig.burst);
    printf("socket queues: largest GPO backlog %ld datagrams, network %ld, kernel drops %ld (a "
           "socket of the default size keeps %zu 8-byte datagrams, %ld bytes each)\n",
           bytesPerDatagram ? queues.peakGpoBytes / bytesPerDatagram : 0,
           bytesPerDatagram ? queues.peakNetBytes / bytesPerDatagram : 0, queues.drops, capacity,
           bytesPerDatagram);
}

void reportCtrld(const Rig& rig, Accounts& a) {
    const auto [faults, faultList] = faultsOf(rig);
    printf("ctrld.out: %zu faults in the measured run (%s; %zu restarts in all); heard %zu "
           "commands, %zu in poll order, of %zu sent\n",
           faults, faultList.c_str(), rig.ctrld.restarts(), rig.ctrld.heard().size(),
           a.heardInOrder, a.expectedCommands);
    printf("  commands answered / failed by state:");
    for (const auto& [phase, tally] : a.outcomes.byPhase)
        printf(" %s %llu/%llu;", name(phase), (unsigned long long)tally.first,
               (unsigned long long)tally.second);
    printf(" answering spans without a success: %zu of %zu\n",
           a.outcomes.answeringSpansWithoutSuccess, a.outcomes.answeringSpans);
    printf("  poll to its first event, median / largest by state:");
    for (auto& [phase, delays] : a.outcomes.delaysMs) {
        std::sort(delays.begin(), delays.end());
        printf(" %s %.1f / %.1f ms;", name(phase), delays[delays.size() / 2], delays.back());
    }
    printf("\n");
}

void reportBoardAndDaemon(const Rig& rig, const Accounts& a, const soak::Verdict& verdict,
                          const Ended& ended) {
    printf("board: %zu unplugged, %zu power-cycled; %zu disagreements with the changes driven\n",
           a.outages[0], a.outages[1], rig.board.disagreements().size());
    for (const auto& d : rig.board.disagreements())
        printf("  %s\n", d.c_str());
    reportOutages(rig.board.episodes(), a.gpi, a.gpiArrivals);
    printf("daemon: %s\n  %s\n", verdict.figures.c_str(), verdict.criterion.c_str());
    printf("longest poll gap: %s (ctrld.out %s); the loop's own bound with a 60 ms time-out is "
           "100 ms of waiting + 60 ms + the SPI transfers\n",
           ms(a.longestGap).c_str(), a.gapPhase.c_str());
    if (!ended.out.empty())
        printf("daemon's standard output: %s\n", ended.out.c_str());
}

// ---- The verdict.

std::vector<std::string> problemsOf(const Rig& rig, Accounts& a, const Queues& queues,
                                    const Ended& ended, const Options& options,
                                    const soak::Verdict& verdict) {
    std::vector<std::string> problems;
    auto require = [&](bool ok, const std::string& what) {
        if (!ok)
            problems.push_back(what);
    };
    require(!failed, failureText);
    require(a.gpi.diff.lost == 0 && a.gpi.diff.extra == 0, "GPI events lost or extra");
    require(a.gpoDiff.lost == 0 && a.gpoDiff.extra == 0, "GPO requests not applied as sent");
    require(a.relays.lost == 0 && a.relays.extra == 0, "network events not relayed as sent");
    require(rig.receiver.malformed() == 0, "datagrams other than 8 bytes on the GPI port");
    require(a.heardInOrder == rig.ctrld.heard().size(),
            "ctrld.out heard commands no poll called for");
    require(a.outcomes.answeringSpansWithoutSuccess == 0,
            "a command failed in every poll of an answering span");
    for (Phase p : {Phase::Nak, Phase::Garbage, Phase::Silent, Phase::Absent, Phase::LongAbsence})
        require(a.outcomes.byPhase[p].first == 0,
                std::string("a command succeeded while ctrld.out was ") + name(p));
    require(a.outcomes.unparsed == 0 && a.outcomes.otherWarnings == 0,
            "the daemon's -v output does not follow its polls");
    require(queues.drops == 0, "the kernel dropped datagrams");
    require(ended.status == -1 ||
                (WIFSIGNALED(ended.status) && WTERMSIG(ended.status) == SIGTERM) ||
                !options.wrapper.empty(),
            "the daemon ended on its own");
    if (options.wrapper.empty())
        require(verdict.flat, "not flat: " + verdict.why);
    return problems;
}

void summarise(const Rig& rig, const Accounts& a, const Options& options,
               const soak::Verdict& verdict, const std::vector<std::string>& problems) {
    std::string problemText;
    for (const auto& p : problems)
        problemText += (problemText.empty() ? "" : "; ") + p;
    printf("soak %.0f s: %llu GPI changes, %zu events reported (%zu lost, %zu extra), %zu/%zu GPO "
           "applied, %zu/%zu relayed, %zu ctrld faults, %zu board outages; %s (first -> last "
           "tenth); longest poll gap %s: %s\n",
           options.seconds, (unsigned long long)a.changes, a.gpiEvents.size(), a.gpi.diff.lost,
           a.gpi.diff.extra, a.writes.size(), a.gpoExpected.size(), a.relayed.size(),
           a.toRelay.size(), faultsOf(rig).first, a.outages[0] + a.outages[1],
           verdict.brief.c_str(), ms(a.longestGap).c_str(),
           problems.empty() ? "passed" : ("FAILED: " + problemText).c_str());
}

// The soak, in the namespace of its own; `dir` holds the board's socket and the daemon's output.
int soakRun(const Options& options, const soak::TempDir& dir) {
    const auto [capacity, bytesPerDatagram] = socketCapacity();
    Rig rig(options, dir.file("board.sock"), static_cast<int>(std::min<size_t>(64, capacity / 4)));
    if (!startDaemon(rig, options, dir))
        return 1;
    rig.plan = makePlan(options.seconds, options.phaseMs); // the run starts now
    printf("soak: %.0f s measured after a %.1f s warm-up, seed %u, daemon pid %d%s\n",
           options.seconds, since(rig.plan.warmStart, rig.plan.runStart), options.seed,
           rig.daemon->pid(),
           options.wrapper.empty() ? "" : (" under " + options.wrapper[0]).c_str());
    fflush(stdout);
    rig.board.start();
    rig.ctrld.start();
    rig.gpo.start();
    rig.net.start();
    // Each SPI transfer holds a socket of its own for its window: the daemon's floor is judged.
    soak::ProcWatch watch(rig.daemon->pid(), 0, soak::Descriptors::floor);
    Queues queues;
    measure(rig, watch, queues);
    const Ended ended = finish(rig, queues);

    Accounts a;
    accountEvents(rig, a);
    accountCommands(rig, ended.err, a);
    accountPollGaps(rig, a);
    const soak::Verdict verdict =
        watch.verdict(options.seconds, "poll", options.seconds >= kCpuJudgedFromSeconds);
    reportGpi(rig, a);
    reportRequests(rig, a, queues, capacity, bytesPerDatagram);
    reportCtrld(rig, a);
    reportBoardAndDaemon(rig, a, verdict, ended);
    const std::vector<std::string> problems = problemsOf(rig, a, queues, ended, options, verdict);
    summarise(rig, a, options, verdict, problems);
    return problems.empty() ? 0 : 1;
}

} // namespace

// The whole run inside the programs' shared runner, whose standard output is checked to the end.
int main(int argc, char** argv) {
    return cli::run("soak_daemon", [&] {
        const Options options = parse(argc, argv);
        return soak::runInFreshNamespace("soak_daemon", "vlm-soak", [&](const soak::TempDir& dir) {
            return soakRun(options, dir);
        });
    });
}
