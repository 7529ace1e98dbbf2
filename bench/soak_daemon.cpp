// soak_daemon: vlmgpiod.out for a long run in a network namespace of its own (root). The emulated
// board changes GPI lines at every poll and is unplugged and power-cycled now and then; local
// programs send GPO requests and network events steadily and in bursts; ctrld.out's stand-in
// cycles through answering, NAKs, late answers, garbage, silence, a closed port and restarts. At
// the end every change, request and datagram is accounted for, and the daemon's memory,
// descriptors and CPU per poll are compared between the first and the last tenth of the run.
#include "harness.h"
#include "soak_figures.h"

#include <cli.h>
#include <devsim/devsim.h>
#include <sdiboard/sdiboard.h>
#include <values.h>

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

namespace {

using Clock = std::chrono::steady_clock;
using Ms = std::chrono::milliseconds;
using sdiboard::Transfer;
using sdiboard::Fault;

constexpr const char* kUsage =
    "usage: soak_daemon SECONDS [--seed N] [--phase-ms MS] [--wrap 'PROGRAM ARGS...']\n"
    "  SECONDS      length of the measured run (a warm-up that plays every fault once comes first)\n"
    "  --seed N     seed of every random choice (default 1)\n"
    "  --phase-ms   how long ctrld.out's stand-in stays in each state (default: 1000 for runs up\n"
    "               to 5 minutes, 3000 beyond)\n"
    "  --wrap       run the daemon under PROGRAM (valgrind): its memory figures are then the\n"
    "               wrapper's and are printed but not judged\n"
    "Needs root (a network namespace of its own). Exit status 0 when nothing was lost or extra\n"
    "and the daemon stayed flat, 1 otherwise, 2 on a usage error, 77 when not root.\n";

constexpr uint16_t kGpiPort = 42000;
constexpr uint16_t kGpoPort = 42001;
constexpr uint16_t kNetPort = 42002;
constexpr uint16_t kCtrldPort = 32896;
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

struct Event {
    int32_t line;
    int32_t status;
    bool operator==(const Event&) const = default;
};

std::vector<uint8_t> encode(const Event& e) {
    std::vector<uint8_t> bytes(8);
    for (int i = 0; i < 4; ++i) {
        bytes[static_cast<size_t>(i)] = static_cast<uint8_t>(static_cast<uint32_t>(e.line) >> (24 - 8 * i));
        bytes[static_cast<size_t>(4 + i)] =
            static_cast<uint8_t>(static_cast<uint32_t>(e.status) >> (24 - 8 * i));
    }
    return bytes;
}

Event decode(const uint8_t* p) {
    auto be32 = [](const uint8_t* q) {
        return static_cast<int32_t>(static_cast<uint32_t>(q[0]) << 24 |
                                    static_cast<uint32_t>(q[1]) << 16 |
                                    static_cast<uint32_t>(q[2]) << 8 | q[3]);
    };
    return {be32(p), be32(p + 4)};
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
        plan.outages.push_back({at(middle - length / 2 / seconds), Ms(static_cast<int>(length * 1000)),
                                i % 2 ? OutageKind::PowerCycled : OutageKind::Unplugged});
    }
    plan.longAbsenceStart = at(0.45);
    plan.longAbsenceEnd = at(0.55);
    return plan;
}

// ---- ctrld.out's stand-in.

enum class Phase { Answer, Nak, LateIn, LateOut, Garbage, Silent, Absent, Restart, LongAbsence };
constexpr const char* kPhaseNames[] = {"answering",  "NAK",     "late in time", "late past time-out",
                                       "garbage",    "silent",  "port closed",  "restarting",
                                       "long absence"};
constexpr Phase kFaults[] = {Phase::Nak,    Phase::LateIn, Phase::LateOut, Phase::Garbage,
                             Phase::Silent, Phase::Absent, Phase::Restart};
constexpr int kLateInMs = 20;   // the daemon waits 60 ms for an answer
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
    void start() { thread_ = std::thread([this] { run(); }); }
    void stop() {
        stopping_ = true;
        if (thread_.joinable())
            thread_.join();
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
            sim_->set_default(phase == Phase::Nak      ? Reply::nak(kNakBits[random_() % 6])
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
        while (!stopping_ && !failed) {
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
    std::atomic<bool> stopping_{false};
    std::thread thread_;
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
    void start() { thread_ = std::thread([this] { run(); }); }
    void stop() {
        stopping_ = true;
        if (thread_.joinable())
            thread_.join();
    }

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
        const Event e = port_ == kGpoPort ? request()
                                          : Event{kRelayBase + static_cast<int32_t>(number),
                                                  static_cast<int32_t>(random_())};
        std::vector<uint8_t> bytes = encode(e);
        if (number % 16 == 5)
            bytes.resize(5); // too short: ignored
        else if (number % 16 == 13)
            bytes.insert(bytes.end(), {0xDE, 0xAD, 0xBE, 0xEF}); // used by its first 8 bytes
        sockaddr_in to = loopback_address(port_);
        if (sendto(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to) !=
            static_cast<ssize_t>(bytes.size())) {
            fail("a datagram to port " + std::to_string(port_) + " could not be sent: " +
                 strerror(errno));
            return;
        }
        sent_.push_back({bytes});
        if (bytes.size() >= 8)
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
        while (!stopping_ && !failed) {
            if (hold) {
                holding = true;
                while (hold && !stopping_)
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
    std::atomic<bool> stopping_{false};
    std::thread thread_;
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
        thread_ = std::thread([this] { run(); });
    }
    ~Receiver() { stop(); }
    void stop() {
        stopping_ = true;
        if (thread_.joinable())
            thread_.join();
    }
    std::atomic<uint64_t> relays{0}, probes{0};
    std::atomic<Clock::rep> lastArrival{0}; // Clock's count at the latest datagram
    const std::vector<Arrival>& arrivals() const { return arrivals_; } // once stopped
    size_t malformed() const { return malformed_; }

  private:
    void run() {
        while (!stopping_) {
            std::vector<uint8_t> bytes = socket_.receive(50);
            if (bytes.empty())
                continue;
            lastArrival = Clock::now().time_since_epoch().count();
            if (bytes.size() != 8) {
                ++malformed_;
                continue;
            }
            const Event e = decode(bytes.data());
            if (e == Event{e2e::kProbe.lines, e2e::kProbe.status}) {
                ++probes;
                continue;
            }
            if (e.line >= kRelayBase)
                ++relays;
            arrivals_.push_back({e, Clock::now()});
        }
    }
    UdpEndpoint socket_{kGpiPort};
    std::vector<Arrival> arrivals_;
    size_t malformed_ = 0;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
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
    void start() { thread_ = std::thread([this] { run(); }); }
    void stop() {
        stopping_ = true;
        if (thread_.joinable())
            thread_.join();
    }
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
            tally_.rises += static_cast<uint64_t>(std::popcount(static_cast<uint8_t>(flips & levels_)));
            tally_.falls += static_cast<uint64_t>(std::popcount(static_cast<uint8_t>(flips & ~levels_)));
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
        while (!stopping_ && !failed) {
            if (nextOutage < plan_.outages.size() && Clock::now() >= plan_.outages[nextOutage].start)
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
    std::atomic<bool> stopping_{false};
    std::thread thread_;
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
            events.push_back({line, (p.gpi & mask) == (previous & mask) ? 2 : (p.gpi & mask) ? 1 : 0});
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
    const long n = static_cast<long>(expected.size() - same), m = static_cast<long>(got.size() - same);
    const long most = std::min<long>(n + m, 4000);
    std::vector<long> v(static_cast<size_t>(2 * most + 3));
    auto at = [&](long k) -> long& { return v[static_cast<size_t>(k + most + 1)]; };
    long edits = n + m; // when the differences are too many to count exactly
    for (long e = 0; e <= most && edits == n + m; ++e) {
        for (long k = -e; k <= e; k += 2) {
            long x = (k == -e || (k != e && at(k - 1) < at(k + 1))) ? at(k + 1) : at(k - 1) + 1;
            long y = x - k;
            while (x < n && y < m && expected[same + static_cast<size_t>(x)] == got[same + static_cast<size_t>(y)])
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
    return "(" + std::to_string(e.line) + ", " + std::to_string(e.status) + ")";
}

struct GpiCheck {
    std::vector<Poll> polls; // every poll as the daemon saw it, floating ones included
    std::vector<size_t> episodeStart; // index in `polls` of each board's first poll
    std::vector<size_t> floatingPerOutage;
    uint64_t boardEvents = 0, floatingEvents = 0;
    Diff diff;
};

// Each outage adds an unknown number of floating polls, eight events each: the number is the
// one under which what came matches longest.
GpiCheck checkGpi(const std::vector<Episode>& episodes, const std::vector<Event>& got) {
    GpiCheck c;
    std::vector<Event> expected;
    uint8_t previous = 0;
    std::vector<std::vector<Poll>> perEpisode;
    for (size_t i = 0; i < episodes.size(); ++i)
        perEpisode.push_back(pollsOf(episodes[i], i == 0, &previous));
    auto append = [&](const std::vector<Poll>& polls, uint8_t prev, std::vector<Event>& out,
                      std::vector<Poll>* seq) {
        for (const auto& p : polls) {
            auto ev = eventsOf(p, prev);
            out.insert(out.end(), ev.begin(), ev.end());
            prev = p.gpi;
            if (seq)
                seq->push_back(p);
        }
        return prev;
    };
    const Poll floating{kFloatingBus, kFloatingBus, {}, true};
    for (size_t i = 0; i < perEpisode.size(); ++i) {
        if (i > 0) {
            // The number of floating polls under which the board's next polls match longest,
            // looked for a little around where they should start (in case events were lost).
            std::vector<Event> next[2]; // after no floating poll, after some
            append(perEpisode[i], previous, next[0], nullptr);
            append(perEpisode[i], kFloatingBus, next[1], nullptr);
            size_t bestK = 0, bestLength = 0;
            bool whole = false;
            for (long tried = 0; tried <= 32 && !whole; ++tried) {
                const long shift = tried % 2 ? -(tried + 1) / 2 : tried / 2; // 0, -1, 1, -2, ...
                const long start = static_cast<long>(expected.size()) + shift;
                if (start < 0 || start > static_cast<long>(got.size()))
                    continue;
                const size_t at = static_cast<size_t>(start);
                uint8_t prev = previous;
                for (size_t k = 0;; ++k) {
                    const auto& tail = next[k ? 1 : 0];
                    const size_t from = at + 8 * k;
                    size_t length = 0;
                    while (length < tail.size() && from + length < got.size() &&
                           tail[length] == got[from + length])
                        ++length;
                    whole = length == tail.size();
                    if (8 * k + length > bestLength || whole)
                        bestK = k, bestLength = 8 * k + length;
                    if (whole)
                        break;
                    std::vector<Event> group; // does another floating poll come here?
                    prev = append({floating}, prev, group, nullptr);
                    if (from + 8 > got.size() || !std::equal(group.begin(), group.end(),
                                                             got.begin() + static_cast<long>(from)))
                        break;
                }
            }
            for (size_t n = 0; n < bestK; ++n)
                previous = append({floating}, previous, expected, &c.polls);
            c.floatingPerOutage.push_back(bestK);
            c.floatingEvents += 8 * bestK;
        }
        const size_t before = expected.size();
        c.episodeStart.push_back(c.polls.size());
        previous = append(perEpisode[i], previous, expected, &c.polls);
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
            sscanf(text.c_str() + next + kGpi.size(), "%d, %d", &e.line, &e.status);
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
    std::map<Phase, std::vector<double>> delaysMs;           // from the poll to its first event
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
                                    (toks[at].kind == Token::Gpi && toks[at].event.line >= 8))) {
            o.otherWarnings += toks[at].kind == Token::Other;
            ++at;
        }
        const bool failedCommand = at < toks.size() && toks[at].kind == Token::Failed;
        at += failedCommand;
        const size_t events = static_cast<size_t>(std::popcount(p.gpit));
        for (size_t n = 0; n < events; ++n, ++at)
            if (at >= toks.size() || toks[at].kind != Token::Gpi || toks[at].event.line >= 8)
                ++o.unparsed;
        if (p.floating || p.when < from)
            continue;
        // A command belongs to a state when sent at least 150 ms after it began (a late answer of
        // the state before is drained by then) and 100 ms before it ended.
        auto span = std::upper_bound(timeline.begin(), timeline.end(), p.when,
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
        if (s.bytes.size() < 8)
            continue;
        const Event r = decode(s.bytes.data());
        if (r.line == 255)
            image = static_cast<uint8_t>(r.status & 0xFF);
        else if (r.line >= 0 && r.line < 8)
            image = r.status ? static_cast<uint8_t>(image | 1u << r.line)
                             : static_cast<uint8_t>(image & ~(1u << r.line));
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
    const uint8_t bytes[8] = {};
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
                snprintf(text, sizeof text, "; GPO register 0x00 until the next request wrote 0x%02X, %.0f ms after",
                         t.value, since(before.outageEnd, t.when) * 1000);
                gpo = *before.endedBy == OutageKind::PowerCycled ? text : "";
                break;
            }
        printf("  %s %s for %.1f s: %zu floating polls (%.1f a second, 8 events each, at least "
               "%.1f ms apart); first polls back (transitions/levels): %s%s\n",
               i <= 2 ? "warm-up" : "run", *before.endedBy == OutageKind::Unplugged ? "unplugged" : "power-cycled (silent)",
               length, k, static_cast<double>(k) / length, closest, back.empty() ? "none" : back.c_str(),
               gpo.c_str());
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
        auto gpo = soak::udpQueue(kGpoPort), net = soak::udpQueue(kNetPort);
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

} // namespace

int main(int argc, char** argv) {
    Options options;
    if (const int status = cli::run("soak_daemon", [&] {
            options = parse(argc, argv);
            return 0;
        }))
        return status;
    if (geteuid() != 0) {
        fprintf(stderr, "soak_daemon: needs root for a network namespace of its own\n");
        return 77;
    }
    char dirTemplate[] = "/tmp/vlm-soak-XXXXXX";
    const char* dir = mkdtemp(dirTemplate);
    const std::string entered = dir ? e2e::enterFreshNetworkNamespace() : "mkdtemp failed";
    if (!entered.empty()) {
        fprintf(stderr, "soak_daemon: %s\n", entered.c_str());
        return 1;
    }
    signal(SIGPIPE, SIG_IGN);
    const auto [capacity, bytesPerDatagram] = socketCapacity();
    const int burst = static_cast<int>(std::min<size_t>(64, capacity / 4));

    Plan plan = makePlan(options.seconds, options.phaseMs);
    Receiver receiver;
    Sender gpo(kGpoPort, options.seed + 1, burst, 2, plan);
    Sender net(kNetPort, options.seed + 2, burst, 2 + kBurstEverySeconds / 2, plan);
    BoardSide board(std::string(dir) + "/board.sock", plan, options.seed, gpo);
    CtrldSide ctrld(plan, options.seed + 3);
    ctrld.up();
    auto daemon = std::make_unique<e2e::Daemon>(std::vector<std::string>{"-v"}, board.path(),
                                                options.wrapper);
    // Serving: a probe sent to the network port comes back on the GPI port.
    const auto startDeadline = Clock::now() + Ms(kWaitMs);
    while (receiver.probes == 0 && Clock::now() < startDeadline && daemon->waitExit(0) == -1) {
        e2e::sendLocal(kNetPort, e2e::datagram(e2e::kProbe));
        std::this_thread::sleep_for(Ms(100));
    }
    if (receiver.probes == 0) {
        fprintf(stderr, "soak_daemon: the daemon did not start: %s\n", daemon->err().c_str());
        return 1;
    }
    plan = makePlan(options.seconds, options.phaseMs); // the run starts now
    const pid_t pid = daemon->pid();
    printf("soak: %.0f s measured after a %.1f s warm-up, seed %u, daemon pid %d%s\n",
           options.seconds, since(plan.warmStart, plan.runStart), options.seed, pid,
           options.wrapper.empty() ? "" : (" under " + options.wrapper[0]).c_str());
    fflush(stdout);
    board.start();
    ctrld.start();
    gpo.start();
    net.start();

    soak::ProcWatch watch(pid);
    Queues queues;
    auto nextSample = plan.runStart;
    while (Clock::now() < plan.runEnd && !failed) {
        if (daemon->waitExit(0) != -1)
            fail("the daemon ended during the run");
        queues.sample();
        if (Clock::now() >= nextSample) {
            watch.sample(since(plan.runStart), board.polls);
            nextSample += std::chrono::seconds(1);
        }
        std::this_thread::sleep_for(Ms(100));
    }
    watch.sample(since(plan.runStart), board.polls);

    // The end: the senders stop, the daemon serves what is queued, the board stops changing.
    gpo.stop();
    net.stop();
    const auto drainDeadline = Clock::now() + Ms(kWaitMs);
    while ((board.gpoWrites < gpo.accepted || receiver.relays < net.accepted) && !failed &&
           Clock::now() < drainDeadline) {
        queues.sample();
        std::this_thread::sleep_for(Ms(20));
    }
    board.stop();
    auto lastArrival = [&] { return Clock::time_point(Clock::duration(receiver.lastArrival.load())); };
    while (Clock::now() - lastArrival() < Ms(500) && Clock::now() < drainDeadline + Ms(kWaitMs))
        std::this_thread::sleep_for(Ms(50));
    kill(pid, SIGTERM); // the wrapper (valgrind) reports as the daemon ends
    const int status = daemon->waitExit(kWaitMs);
    const std::string err = daemon->err(), out = daemon->out();
    daemon.reset();
    receiver.stop();
    ctrld.stop();
    queues.sample();

    // ---- The accounts.
    std::vector<Event> gpiEvents, relayed;
    std::vector<Clock::time_point> gpiArrivals;
    for (const auto& a : receiver.arrivals()) {
        (a.event.line >= kRelayBase ? relayed : gpiEvents).push_back(a.event);
        if (a.event.line < kRelayBase)
            gpiArrivals.push_back(a.when);
    }
    const GpiCheck gpi = checkGpi(board.episodes(), gpiEvents);
    if (gpi.diff.lost || gpi.diff.extra)
        gpiArrivals.clear(); // which event answers which poll is not known

    std::vector<Event> toRelay;
    for (const auto& s : net.sent())
        if (s.bytes.size() >= 8)
            toRelay.push_back(decode(s.bytes.data()));
    const Diff relays = compare(toRelay, relayed, showEvent);

    std::vector<uint8_t> writes;
    for (const auto& e : board.episodes())
        for (const auto& t : e.transfers)
            if (t.write && t.reg == sdiboard::kGpoRegister)
                writes.push_back(t.value);
    const Diff gpoDiff = compare(gpoImages(gpo.sent()), writes,
                                 [](uint8_t v) { return std::to_string(v); });

    // Every command ctrld.out's stand-ins heard is one the polls called for, in order.
    size_t expectedCommands = 0, heardInOrder = 0, j = 0;
    std::vector<std::vector<uint8_t>> commands;
    for (const auto& p : gpi.polls)
        if (p.gpit)
            commands.push_back(command(p)), ++expectedCommands;
    for (const auto& frame : ctrld.heard()) {
        while (j < commands.size() && commands[j] != frame)
            ++j;
        heardInOrder += j < commands.size();
        j += j < commands.size();
    }
    Outcomes o = outcomes(gpi.polls, tokens(err), ctrld.timeline(), plan.runStart, gpiArrivals);

    // Poll gaps within each board's answers, over the measured run.
    Clock::duration longestGap{};
    Clock::time_point longestAt{};
    for (const auto& e : board.episodes()) {
        std::optional<Clock::time_point> last;
        for (const auto& t : e.transfers) {
            if (t.write || t.reg != sdiboard::kTransitionRegister)
                continue;
            if (last && *last >= plan.runStart && t.when - *last > longestGap)
                longestGap = t.when - *last, longestAt = *last;
            last = t.when;
        }
    }
    std::string gapPhase = "?";
    for (const auto& s : ctrld.timeline())
        if (longestAt >= s.start && longestAt <= s.end)
            gapPhase = name(s.phase);

    // ---- The report.
    const Tally& tally = board.tally();
    const uint64_t changes = tally.rises + tally.falls + 2 * tally.pulses;
    size_t outages[2] = {};
    for (const auto& e : board.episodes())
        if (e.endedBy)
            ++outages[static_cast<int>(*e.endedBy)];
    std::string floating;
    for (size_t i = 0; i < gpi.floatingPerOutage.size(); ++i)
        floating += (i ? ", " : "") + std::to_string(gpi.floatingPerOutage[i]);
    printf("GPI: %llu changes made (%llu rises, %llu falls, %llu pulses) in %llu windows on %llu "
           "polls (%llu polls saw no change, %llu windows split over two polls)\n",
           (unsigned long long)changes, (unsigned long long)tally.rises,
           (unsigned long long)tally.falls, (unsigned long long)tally.pulses,
           (unsigned long long)tally.windows, (unsigned long long)board.polls.load(),
           (unsigned long long)tally.idlePolls, (unsigned long long)tally.splitWindows);
    printf("  events: %llu from the board's answers + %llu of the floating bus in %zu outages "
           "(floating polls per outage: %s); reported %zu: %zu lost, %zu extra%s%s\n",
           (unsigned long long)gpi.boardEvents, (unsigned long long)gpi.floatingEvents,
           gpi.floatingPerOutage.size(), floating.c_str(), gpiEvents.size(), gpi.diff.lost,
           gpi.diff.extra, gpi.diff.first.empty() ? "" : "; first difference: ",
           gpi.diff.first.c_str());
    printf("GPO: %zu requests sent (%zu too short), %zu register writes expected, %zu seen: "
           "%zu lost, %zu extra; %zu bursts of %d\n",
           gpo.sent().size(), gpo.sent().size() - gpo.accepted, gpoImages(gpo.sent()).size(),
           writes.size(), gpoDiff.lost, gpoDiff.extra, gpo.bursts(), burst);
    printf("network: %zu datagrams sent (%zu too short), %zu relayed: %zu lost, %zu extra; %zu "
           "bursts of %d\n",
           net.sent().size(), net.sent().size() - net.accepted, relayed.size(), relays.lost,
           relays.extra, net.bursts(), burst);
    printf("socket queues: largest GPO backlog %ld datagrams, network %ld, kernel drops %ld (a "
           "socket of the default size keeps %zu 8-byte datagrams, %ld bytes each)\n",
           bytesPerDatagram ? queues.peakGpoBytes / bytesPerDatagram : 0,
           bytesPerDatagram ? queues.peakNetBytes / bytesPerDatagram : 0, queues.drops, capacity,
           bytesPerDatagram);
    std::map<Phase, size_t> spans;
    for (const auto& s : ctrld.timeline())
        if (s.start >= plan.runStart)
            ++spans[s.phase];
    size_t faults = 0;
    std::string faultList;
    for (const auto& [phase, count] : spans)
        if (phase != Phase::Answer) {
            faults += count;
            faultList += std::string(faultList.empty() ? "" : ", ") + name(phase) + " " +
                         std::to_string(count);
        }
    printf("ctrld.out: %zu faults in the measured run (%s; %zu restarts in all); heard %zu "
           "commands, %zu in poll order, of %zu sent\n",
           faults, faultList.c_str(), ctrld.restarts(), ctrld.heard().size(), heardInOrder,
           expectedCommands);
    printf("  commands answered / failed by state:");
    for (const auto& [phase, tally2] : o.byPhase)
        printf(" %s %llu/%llu;", name(phase), (unsigned long long)tally2.first,
               (unsigned long long)tally2.second);
    printf(" answering spans without a success: %zu of %zu\n", o.answeringSpansWithoutSuccess,
           o.answeringSpans);
    printf("  poll to its first event, median / largest by state:");
    for (auto& [phase, delays] : o.delaysMs) {
        std::sort(delays.begin(), delays.end());
        printf(" %s %.1f / %.1f ms;", name(phase), delays[delays.size() / 2], delays.back());
    }
    printf("\n");
    printf("board: %zu unplugged, %zu power-cycled; %zu disagreements with the changes driven\n",
           outages[0], outages[1], board.disagreements().size());
    for (const auto& d : board.disagreements())
        printf("  %s\n", d.c_str());
    reportOutages(board.episodes(), gpi, gpiArrivals);
    const soak::Verdict verdict = watch.verdict(options.seconds, "poll", options.seconds >= kCpuJudgedFromSeconds);
    printf("daemon: %s\n  %s\n", verdict.figures.c_str(), soak::ProcWatch::criterion().c_str());
    printf("longest poll gap: %s (ctrld.out %s); the loop's own bound with a 60 ms time-out is "
           "100 ms of waiting + 60 ms + the SPI transfers\n",
           ms(longestGap).c_str(), gapPhase.c_str());
    if (!out.empty())
        printf("daemon's standard output: %s\n", out.c_str());

    // ---- The verdict.
    std::vector<std::string> problems;
    auto require = [&](bool ok, const std::string& what) {
        if (!ok)
            problems.push_back(what);
    };
    require(!failed, failureText);
    require(gpi.diff.lost == 0 && gpi.diff.extra == 0, "GPI events lost or extra");
    require(gpoDiff.lost == 0 && gpoDiff.extra == 0, "GPO requests not applied as sent");
    require(relays.lost == 0 && relays.extra == 0, "network events not relayed as sent");
    require(receiver.malformed() == 0, "datagrams other than 8 bytes on the GPI port");
    require(heardInOrder == ctrld.heard().size(), "ctrld.out heard commands no poll called for");
    require(o.answeringSpansWithoutSuccess == 0, "a command failed in every poll of an answering span");
    for (Phase p : {Phase::Nak, Phase::Garbage, Phase::Silent, Phase::Absent, Phase::LongAbsence})
        require(o.byPhase[p].first == 0, std::string("a command succeeded while ctrld.out was ") + name(p));
    require(o.unparsed == 0 && o.otherWarnings == 0, "the daemon's -v output does not follow its polls");
    require(queues.drops == 0, "the kernel dropped datagrams");
    require(status == -1 || (WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) ||
                !options.wrapper.empty(),
            "the daemon ended on its own");
    if (options.wrapper.empty())
        require(verdict.flat, "not flat: " + verdict.why);
    std::string problemText;
    for (const auto& p : problems)
        problemText += (problemText.empty() ? "" : "; ") + p;
    printf("soak %.0f s: %llu GPI changes, %zu events reported (%zu lost, %zu extra), %zu/%zu GPO "
           "applied, %zu/%zu relayed, %zu ctrld faults, %zu board outages; %s (first -> last "
           "tenth); longest poll gap %s: %s\n",
           options.seconds, (unsigned long long)changes, gpiEvents.size(), gpi.diff.lost,
           gpi.diff.extra, writes.size(), gpoImages(gpo.sent()).size(), relayed.size(),
           toRelay.size(), faults, outages[0] + outages[1], verdict.brief.c_str(),
           ms(longestGap).c_str(), problems.empty() ? "passed" : ("FAILED: " + problemText).c_str());
    rmdir(dir);
    return problems.empty() ? 0 : 1;
}
