// soak_controller: a controller's handles on every link of the video server emulator for a long
// run. A handle on UDP (Sony and Louth, with a second one on the management endpoint), one on TCP
// (Sony and the transfers) and one on a serial pty (Sony) each run a mix of commands, senses, ID
// lists, transfers and management requests, while the emulator is made to NAK, stay silent,
// answer late, corrupt a checksum, stall a transfer, restart and close the TCP peer, each fault
// in turn. Every failed call must give its fault's code within its time-out, and the next call on
// the same handle must succeed once the fault has passed; only a closed TCP link is connected
// again. The emulator runs in a process of its own, so that the controller's memory and
// descriptors, compared between the first and the last tenth of the run, are the library's.
#include "soak_figures.h"
#include "soak_support.h"

#include <devsim/devsim.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cli.h>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <values.h>
#include <vector>
#include <zqhandler/zqhandler.h>

namespace {

using Clock = std::chrono::steady_clock;
using devsim::Bytes;

constexpr const char* kUsage =
    R"(usage: soak_controller SECONDS [--timeout-ms MS] [--gap N] [--rate N] [--margin-ms MS]
  SECONDS       length of the measured run, 20 or more (one round of every fault on each
                link comes first, as a warm-up)
  --timeout-ms  the handles' time-out (default 200)
  --gap N       operations between two faults on a link (default 10)
  --rate N      calls a second at most on each link (default 200)
  --margin-ms   what a failed call may take beyond its time-out and its link's own step
                (default 100: scheduling on a loaded machine)
Exit status 0 when every call gave what it should in time, no handle stuck and the
controller stayed flat; 1 otherwise; 2 on a usage error.
)";

constexpr int kRawWaitMs = 5000;  // the library's wait for a transfer's raw bytes
constexpr int kRestartMs = 1000;  // how long a restarting server is away
constexpr int kLateByMs = 100;    // a late answer comes this long after the time-out
constexpr int kStallMs = 300;     // a stall the transfer survives, with keep-alives
constexpr size_t kStallAfter = 8; // bytes of a stalled transfer sent before its pause
constexpr int kSettleMs = 100;    // after a fault has passed, before the next call
constexpr int kRetryMs = 200;     // between calls on a handle that did not recover
constexpr int kRetries = 5;       // ...and how many before it counts as stuck
constexpr int kSampleMs = 500;
constexpr size_t kShownProblems = 12;

double msSince(Clock::time_point from) {
    return std::chrono::duration<double, std::milli>(Clock::now() - from).count();
}

// ---- What the server holds, the same in both processes: the controller checks what it reads.

const std::array<const char*, 3> kClips = {"NEWS", "PROMO1", "WEATHER"};
constexpr uint32_t kVersion[2] = {7, 3};
constexpr uint16_t kPictureCode = 5;

Bytes pattern(size_t size, uint8_t seed) {
    Bytes bytes(size);
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<uint8_t>(seed + i * 7);
    return bytes;
}
const Bytes kDiskinfo = pattern(300, 1), kEntry = pattern(40, 2), kGop = pattern(64, 3),
            kLog = pattern(500, 4), kMgmtDiskinfo = pattern(200, 5), kPicture = pattern(900, 6),
            kUpload = pattern(100, 7);

// The IDs of the list as the Odetics and Louth walks give them: 8 bytes, padded, "|" between.
std::string clipList() {
    std::string list;
    for (const char* id : kClips) {
        std::string padded = id;
        padded.resize(8, ' ');
        list += (list.empty() ? "" : "|") + padded;
    }
    return list;
}

// ---- Faults, and the orders that set them up in the emulator's process.

enum class LinkId : uint8_t { udp, tcp, serial };
constexpr const char* kLinkNames[] = {"udp", "tcp", "serial"};

// What an operation speaks, which decides what a fault does to it.
enum class Kind : uint8_t { sony, louth, transfer, mgmt };
constexpr const char* kKindNames[] = {"Sony", "Louth", "transfer", "management"};

enum class Fault : uint8_t { nak, silence, late, corrupt, restart, close, stall, longStall, none };
constexpr size_t kFaultKinds = 8;
constexpr const char* kFaultNames[] = {
    "NAK",          "silence", "late answer", "corrupt checksum", "server restart",
    "peer closing", "stall",   "long stall"};
// NAK error bits in turn: not implemented, checksum, another error, checksum and not implemented.
constexpr uint8_t kNakBits[] = {0x01, 0x04, 0x80, 0x05};

struct Order {
    LinkId link;
    Fault fault; // none: only the answer is wanted
    Kind kind;
    uint8_t bits;
    int32_t ms;
};
struct Answer {
    uint64_t keepAlives; // "aliv" requests the TCP link received
    bool historiesFull;  // every server has received and answered as much as its history keeps
};
struct Setup {
    uint16_t udp, mgmt, tcp;
    char pty[64];
};

// A management answer that comes too late to be taken.
Bytes lateMgmtAnswer() {
    Bytes late = devsim::datagram(devsim::kMgmtDatagram, Bytes{'l', 'a', 't', 'e'});
    late[5] = 2; // msgType: the log
    return late;
}

void apply(devsim::DevSim& sim, const Order& o) {
    using devsim::Reply;
    switch (o.kind) {
    case Kind::sony:
    case Kind::louth: {
        Reply r;
        switch (o.fault) {
        case Fault::nak:
            r = o.kind == Kind::louth ? Reply::louth_answer({0x05, o.bits}) : Reply::nak(o.bits);
            break;
        case Fault::silence:
            r = Reply::silence();
            break;
        case Fault::late:
            r = Reply::late(o.ms);
            break;
        case Fault::corrupt:
            r.corrupt_checksum = true;
            break;
        case Fault::restart:
            r = Reply::restart(o.ms);
            break;
        case Fault::close:
            r = Reply::close();
            break;
        default:
            return;
        }
        sim.script(std::move(r));
        return;
    }
    case Kind::transfer:
        if (o.fault == Fault::silence)
            sim.transfers().script_header({});
        else if (o.fault == Fault::stall || o.fault == Fault::longStall)
            sim.transfers().stall_next(kStallAfter, o.ms);
        return;
    case Kind::mgmt:
        if (o.fault == Fault::restart)
            sim.restart(o.ms);
        else if (o.fault == Fault::silence)
            sim.mgmt().script({});
        else if (o.fault == Fault::late)
            sim.mgmt().script({lateMgmtAnswer()}, o.ms);
        return;
    }
}

// The emulator's process: one server per link, each holding the same clips and contents; it sets
// up the faults ordered on `control` until the controller's end closes.
int serveEmulator(int control) {
    std::array<std::unique_ptr<devsim::DevSim>, 3> sims;
    std::atomic<uint64_t> keepAlives{0};
    Setup setup{};
    try {
        for (auto& sim : sims) {
            sim = std::make_unique<devsim::DevSim>();
            for (size_t i = 0; i < kClips.size(); ++i)
                sim->model().add_clip(kClips[i], 250 * static_cast<int64_t>(i + 1), 250);
        }
        devsim::DevSim& udp = *sims[0];
        setup.udp = udp.listen_udp("127.0.0.1", 0);
        setup.mgmt = udp.listen_mgmt("127.0.0.1", 0);
        udp.mgmt().set_log(kLog);
        udp.mgmt().set_diskinfo(kMgmtDiskinfo);
        udp.mgmt().set_picture(kPictureCode, kPicture);
        devsim::DevSim& tcp = *sims[1];
        setup.tcp = tcp.listen_tcp("127.0.0.1", 0);
        tcp.transfers().set_version(kVersion[0], kVersion[1]);
        tcp.transfers().set_diskinfo(kDiskinfo);
        tcp.transfers().set_file_entry(0, kEntry);
        tcp.transfers().set_gop(kGop);
        tcp.on_receive([&](const devsim::Received& r) {
            if (r.tag == "aliv")
                ++keepAlives;
        });
        const std::string pty = sims[2]->open_pty();
        snprintf(setup.pty, sizeof setup.pty, "%s", pty.c_str());
        for (auto& sim : sims)
            sim->start();
    } catch (const std::exception& e) {
        fprintf(stderr, "soak_controller: the emulator could not start: %s\n", e.what());
        return 1;
    }
    (void)!send(control, &setup, sizeof setup, MSG_NOSIGNAL);
    Order order{};
    while (recv(control, &order, sizeof order, 0) == static_cast<ssize_t>(sizeof order)) {
        apply(*sims[static_cast<size_t>(order.link)], order);
        const bool full = std::all_of(sims.begin(), sims.end(), [](const auto& sim) {
            const devsim::Counters c = sim->counters();
            return std::min(c.received, c.answers) >= devsim::DevSim::kDefaultHistory;
        });
        const Answer answer{keepAlives.load(), full};
        if (send(control, &answer, sizeof answer, MSG_NOSIGNAL) != sizeof answer)
            break;
    }
    for (auto& sim : sims)
        sim->stop();
    return 0;
}

// The emulator's process seen from the controller: started before any thread, ordered by any.
class Emulator {
  public:
    Emulator() {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
            throw std::runtime_error(std::string("socketpair: ") + strerror(errno));
        control_ = ends[0];
        process_ = std::make_unique<soak::Process>([&] {
            close(ends[0]);
            return serveEmulator(ends[1]);
        });
        close(ends[1]);
        if (!process_->error().empty())
            throw std::runtime_error(process_->error());
        if (!soak::waitReadable(control_, 10000) ||
            recv(control_, &setup_, sizeof setup_, 0) != static_cast<ssize_t>(sizeof setup_))
            throw std::runtime_error("the emulator did not start");
    }
    // Its end closed, the emulator's process ends of itself.
    ~Emulator() {
        close(control_);
        process_->waitExit(-1);
    }
    Emulator(const Emulator&) = delete;
    Emulator& operator=(const Emulator&) = delete;

    Answer order(const Order& o) {
        std::lock_guard lock(mutex_);
        Answer answer{};
        if (send(control_, &o, sizeof o, MSG_NOSIGNAL) != static_cast<ssize_t>(sizeof o) ||
            recv(control_, &answer, sizeof answer, 0) != static_cast<ssize_t>(sizeof answer))
            throw std::runtime_error("the emulator's process went away");
        return answer;
    }
    const Setup& setup() const { return setup_; }
    pid_t pid() const { return process_->pid(); }

  private:
    std::unique_ptr<soak::Process> process_;
    int control_ = -1;
    Setup setup_{};
    std::mutex mutex_;
};

// ---- The controller's side.

struct Options {
    double seconds = 0;
    int timeoutMs = 200, gap = 10, rate = 200, marginMs = 100;
};

std::atomic<uint64_t> totalCalls{0};
std::atomic<bool> stopping{false};

// One library call as it came out.
struct Call {
    int rc = 0;
    int code = 0; // the handle's last error, read (and cleared) right after the call
    double ms = 0, cpuMs = 0;
};

struct Stats {
    uint64_t calls = 0, operations = 0, answered = 0, failedAsAsked = 0;
    std::array<unsigned, kFaultKinds> faults{};
    std::array<unsigned, 4> faultsByKind{};
    double worstOvershootMs = -1e9;
    std::string worstAt;
    double slowestAnswerMs = 0;
    double cpuMs = 0; // the calls' own, on their thread
    unsigned recovered = 0, lateRecoveries = 0, stuck = 0;
    unsigned reconnects = 0, refusedConnects = 0;
    double longestReconnectMs = 0;
    unsigned awayCalls = 0; // while the server restarted, or on the stream it closed
    unsigned closedLinkCalls = 0;
    double closedLinkCpuMs = 0, closedLinkMs = 0;
    uint64_t keepAlives = 0;
    unsigned stallsSurvived = 0;
    uint64_t problems = 0;
    std::vector<std::string> shown;
};

class Worker;

// An operation: one or more library calls on one of the worker's handles. `run` gives "" when
// every call gave what it should, else what went wrong; it stops at the first call that failed.
struct Op {
    const char* name;
    Kind kind;
    int handle;       // 0: the link's handle; 1: the management handle
    bool frameAnswer; // Louth: answered with a frame, not an acknowledge (so a checksum to spoil)
    bool raw;         // a transfer that receives raw bytes after its header
    std::function<std::string(Worker&)> run;
};

class Worker {
  public:
    Worker(LinkId link, Emulator& emulator, const Options& options);
    ~Worker() {
        for (t_zqhandler* h : handles_)
            zqhandler_delete(h);
    }
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    void start() {
        thread_ = std::thread([this] { run(); });
    }
    void join() {
        if (thread_.joinable())
            thread_.join();
    }
    bool warm() const { return warm_; }
    const Stats& stats() const { return stats_; }
    LinkId link() const { return link_; }

    // Times one library call on handle `which` (paced to the link's rate) and reads its code.
    template <typename F> int call(int which, F&& f) {
        pace();
        t_zqhandler* h = handles_[static_cast<size_t>(which)];
        const auto start = Clock::now();
        const double cpu = soak::threadCpuMs();
        last_.rc = f(h);
        last_.cpuMs = soak::threadCpuMs() - cpu;
        last_.ms = msSince(start);
        last_.code = zqhandler_get_last_err(h);
        ++opCalls_;
        ++stats_.calls;
        stats_.cpuMs += last_.cpuMs;
        ++totalCalls;
        if (last_.rc >= 0 && last_.code != S9P_ERR_NONE)
            staleCode_ = true;
        return last_.rc;
    }
    // What an operation says when its call `what` did not give what it should.
    std::string failed(const char* what) const {
        char text[160];
        snprintf(text, sizeof text, "%s: returned %d, code %d (%s)", what, last_.rc, last_.code,
                 s9p_strerror(last_.code));
        return text;
    }
    const Call& last() const { return last_; }

  private:
    struct Outcome {
        std::string problem;
        int calls = 0;
    };

    void run();
    void connect();
    void reconnectTcp();
    Outcome runOp(const Op& op);
    void normal(const Op& op);
    void inject(Fault fault, unsigned cycle);
    void expectFailure(const std::string& where, const Outcome& o, int code, int waited,
                       Fault fault);
    void recover(const Op& op, Fault fault);
    size_t nextOp(const std::function<bool(const Op&)>& wanted);
    void pace();
    void problem(const std::string& what);
    double stepMs(Fault fault) const;

    LinkId link_;
    Emulator& emulator_;
    Options options_;
    std::vector<Op> ops_;
    std::vector<Fault> faults_;
    std::vector<t_zqhandler*> handles_;
    size_t next_ = 0;
    Call last_;
    int opCalls_ = 0;
    bool staleCode_ = false;
    Clock::time_point due_ = Clock::now();
    Stats stats_;
    std::atomic<bool> warm_{false};
    std::thread thread_;
};

// ---- The operations.

bool isZero(int rc) {
    return rc == 0;
}
bool isCount(int rc) {
    return rc >= 0;
}
bool isSome(int rc) {
    return rc > 0;
}

// An operation of one call that succeeds when its result passes `ok` and, where `expected` is
// given, when the bytes it wrote are those (as many as it returned, or as it wrote in `size`).
using OneCall = int (*)(t_zqhandler*, uint8_t* buffer, int32_t* size);
Op single(const char* name, Kind kind, OneCall f, bool (*ok)(int), const Bytes* expected = nullptr,
          bool frameAnswer = false, bool raw = false) {
    const int handle = kind == Kind::mgmt ? 1 : 0;
    return {name, kind, handle, frameAnswer, raw, [=](Worker& w) -> std::string {
                uint8_t buffer[MGMT_MAX_DATAGRAM] = {};
                int32_t size = -1;
                const int rc = w.call(handle, [&](t_zqhandler* h) { return f(h, buffer, &size); });
                if (!ok(rc))
                    return w.failed(name);
                const size_t n = static_cast<size_t>(size >= 0 ? size : rc);
                if (!expected || (n == expected->size() &&
                                  std::equal(expected->begin(), expected->end(), buffer)))
                    return "";
                return std::string(name) + ": other bytes than the server's";
            }};
}

// A sense of the current time: its answer must be a timecode.
Op timeSense(const char* name, Kind kind, OneCall f) {
    return {name, kind, 0, true, false, [=](Worker& w) -> std::string {
                char tc[ZQ_LOUTH_OUT_BYTES] = {};
                const int rc = w.call(0, [&](t_zqhandler* h) {
                    return f(h, reinterpret_cast<uint8_t*>(tc), nullptr);
                });
                if (rc < 0)
                    return w.failed(name);
                return tcstr_isnormal(tc) ? "" : std::string(name) + ": " + tc + " is no timecode";
            }};
}

// The device's ID list, walked to its end (the call that gives S9P_NOTFOUND): the clips'.
using IdSense = int (*)(t_zqhandler*, char*);
Op idList(const char* name, Kind kind, IdSense first, IdSense next) {
    return {name, kind, 0, true, false, [=](Worker& w) -> std::string {
                char id[ZQ_LOUTH_OUT_BYTES] = {};
                if (w.call(0, [&](t_zqhandler* h) { return first(h, id); }) < 0)
                    return w.failed("first ID");
                std::string list = id;
                while (w.call(0, [&](t_zqhandler* h) { return next(h, id); }) >= 0)
                    list += std::string("|") + id;
                if (w.last().code != S9P_NOTFOUND)
                    return w.failed("next ID");
                return list == clipList() ? "" : "ID list " + list + ", not " + clipList();
            }};
}

const Bytes kDeviceType = {0xF0, 0x20};
const Bytes kVersionBytes = {kVersion[0], kVersion[1]};

std::vector<Op> sonyOps() {
    return {
        single(
            "play", Kind::sony,
            [](t_zqhandler* h, uint8_t*, int32_t*) { return zqhandler_cmd_basic(h, BAS_CMD_PLAY); },
            isZero),
        single(
            "status", Kind::sony,
            [](t_zqhandler* h, uint8_t* out, int32_t*) {
                return zqhandler_cmd_sense_status(h, out);
            },
            isSome),
        timeSense("time", Kind::sony,
                  [](t_zqhandler* h, uint8_t* tc, int32_t*) {
                      return zqhandler_cmd_sense_timecode(h, BAS_SENSE_TC,
                                                          reinterpret_cast<char*>(tc));
                  }),
        single(
            "cue", Kind::sony,
            [](t_zqhandler* h, uint8_t*, int32_t*) {
                return zqhandler_cmd_cueWithData(h, "00:00:10:00");
            },
            isZero),
        idList("ID list", Kind::sony, zqhandler_cmd_odetics_sense_firstID,
               zqhandler_cmd_odetics_sense_nextID),
        single(
            "device type", Kind::sony,
            [](t_zqhandler* h, uint8_t* out, int32_t*) {
                return zqhandler_cmd_sense_basic(h, BAS_SENSE_DEVICE_TYPE, out);
            },
            isSome, &kDeviceType),
        single(
            "stop", Kind::sony,
            [](t_zqhandler* h, uint8_t*, int32_t*) { return zqhandler_cmd_basic(h, BAS_CMD_STOP); },
            isZero),
    };
}

std::vector<Op> louthOps() {
    return {
        single(
            "Louth play", Kind::louth,
            [](t_zqhandler* h, uint8_t*, int32_t*) {
                return zqhandler_cmd_louth_basic(h, BAS_CMD_PLAY, 0);
            },
            isZero),
        single(
            "Louth status", Kind::louth,
            [](t_zqhandler* h, uint8_t* out, int32_t*) {
                return zqhandler_cmd_louth_sense_status(h, 0, out);
            },
            isCount, nullptr, true),
        idList(
            "Louth ID list", Kind::louth,
            [](t_zqhandler* h, char* id) { return zqhandler_cmd_louth_sense_firstID(h, 0, id); },
            [](t_zqhandler* h, char* id) { return zqhandler_cmd_louth_sense_nextID(h, 0, id); }),
        timeSense("Louth time", Kind::louth,
                  [](t_zqhandler* h, uint8_t* tc, int32_t*) {
                      return zqhandler_cmd_louth_sense_basic(h, BAS_SENSE_TC, 0, tc);
                  }),
    };
}

std::vector<Op> transferOps() {
    return {
        single(
            "version", Kind::transfer,
            [](t_zqhandler* h, uint8_t* out, int32_t* size) {
                uint32_t words[2] = {};
                const int rc = zqhandler_cnxn_version(h, &words[0], &words[1]);
                out[0] = static_cast<uint8_t>(words[0]);
                out[1] = static_cast<uint8_t>(words[1]);
                *size = words[0] < 256 && words[1] < 256 ? 2 : 0;
                return rc;
            },
            isZero, &kVersionBytes),
        single(
            "disk information", Kind::transfer,
            [](t_zqhandler* h, uint8_t* out, int32_t* size) {
                *size = static_cast<int32_t>(kDiskinfo.size());
                return zqhandler_cnxn_get_diskinfo(h, out, *size);
            },
            isZero, &kDiskinfo, false, true),
        single(
            "file entry", Kind::transfer,
            [](t_zqhandler* h, uint8_t* out, int32_t* size) {
                return zqhandler_cnxn_get_file_entry(h, 0, out, size, 512);
            },
            isZero, &kEntry, false, true),
        single(
            "GOP", Kind::transfer,
            [](t_zqhandler* h, uint8_t* out, int32_t* size) {
                return zqhandler_cnxn_get_gop(h, out, size, 512);
            },
            isZero, &kGop, false, true),
        single(
            "GOP upload", Kind::transfer,
            [](t_zqhandler* h, uint8_t*, int32_t*) {
                return zqhandler_cnxn_put_gop(h, 0, kGop.data(),
                                              static_cast<uint32_t>(kGop.size()));
            },
            isZero),
    };
}

// No answer to a management request is -1, but for a picture, where it is 0 bytes: the server's
// picture is not empty.
std::vector<Op> mgmtOps() {
    return {
        single(
            "log", Kind::mgmt,
            [](t_zqhandler* h, uint8_t* out, int32_t*) { return zqhandler_mgmt_getlog(h, out); },
            isCount, &kLog),
        single(
            "management disk information", Kind::mgmt,
            [](t_zqhandler* h, uint8_t* out, int32_t*) {
                return zqhandler_mgmt_get_diskinfo(h, out, MGMT_MAX_DATA);
            },
            isCount, &kMgmtDiskinfo),
        single(
            "picture", Kind::mgmt,
            [](t_zqhandler* h, uint8_t* out, int32_t*) {
                return zqhandler_mgmt_get_picture(h, out, MGMT_MAX_DATA, kPictureCode);
            },
            isSome, &kPicture),
        single(
            "disk information upload", Kind::mgmt,
            [](t_zqhandler* h, uint8_t*, int32_t*) {
                return zqhandler_mgmt_put_diskinfo(h, kUpload.data(),
                                                   static_cast<int32_t>(kUpload.size()));
            },
            isZero),
    };
}

// The operations of a link, interleaved so that each kind comes round often.
std::vector<Op> opsOf(LinkId link) {
    std::vector<std::vector<Op>> groups = {sonyOps()};
    if (link == LinkId::udp) {
        groups.push_back(louthOps());
        groups.push_back(mgmtOps());
    } else if (link == LinkId::tcp) {
        groups.push_back(transferOps());
    }
    size_t longest = 0;
    for (const auto& g : groups)
        longest = std::max(longest, g.size());
    std::vector<Op> ops;
    for (size_t i = 0; i < longest; ++i)
        for (const auto& g : groups)
            if (i < g.size())
                ops.push_back(g[i]);
    return ops;
}

// ---- What a fault does, and to what.

bool applies(Fault fault, const Op& op) {
    switch (fault) {
    case Fault::nak:
    case Fault::close:
        return op.kind == Kind::sony || op.kind == Kind::louth;
    case Fault::silence:
        return true;
    case Fault::late:
    case Fault::restart:
        return op.kind != Kind::transfer;
    case Fault::corrupt:
        return op.kind == Kind::sony || (op.kind == Kind::louth && op.frameAnswer);
    case Fault::stall:
    case Fault::longStall:
        return op.raw;
    case Fault::none:
        break;
    }
    return false;
}

// The code the call that meets `fault` must give; a management call gives -1 (0 bytes for a
// picture) and leaves the code alone.
int expectedCode(Fault fault, Kind kind, uint8_t bits) {
    if (kind == Kind::mgmt)
        return S9P_ERR_NONE;
    switch (fault) {
    case Fault::nak:
        if (kind == Kind::louth)
            return S9P_ERR_PROTOCOL; // a refusal where an acknowledge or a frame was needed
        return bits & 0x04 ? S9P_ERR_CHECKSUM : bits & 0x01 ? S9P_NOT_IMPLEMENTED : S9P_ERR_COMM;
    case Fault::corrupt:
        return S9P_ERR_CHECKSUM;
    case Fault::stall:
        return S9P_ERR_NONE;
    default:
        return S9P_RCV_TIMEOUT;
    }
}

// How long the fault keeps the server from answering, from the call on.
int lastsMs(Fault fault, const Options& o) {
    switch (fault) {
    case Fault::late:
        return o.timeoutMs + kLateByMs;
    case Fault::restart:
        return kRestartMs;
    case Fault::stall:
        return kStallMs;
    case Fault::longStall:
        return kRawWaitMs + kStallMs;
    default:
        return 0;
    }
}

// The wait the failing call runs out: none when an answer comes at once.
int waitedMs(Fault fault, const Options& o) {
    switch (fault) {
    case Fault::nak:
    case Fault::corrupt:
    case Fault::stall:
        return 0;
    case Fault::longStall:
        return kRawWaitMs;
    default:
        return o.timeoutMs;
    }
}

bool closesLink(LinkId link, Fault fault) {
    return link == LinkId::tcp && (fault == Fault::restart || fault == Fault::close);
}

// ---- The worker.

Worker::Worker(LinkId link, Emulator& emulator, const Options& options)
    : link_(link), emulator_(emulator), options_(options), ops_(opsOf(link)) {
    faults_ = {Fault::nak,     Fault::silence, Fault::late,
               Fault::corrupt, Fault::restart, Fault::close};
    if (link == LinkId::tcp) {
        faults_.push_back(Fault::stall);
        faults_.push_back(Fault::longStall);
    }
    handles_.push_back(zqhandler_create());
    if (link == LinkId::udp)
        handles_.push_back(zqhandler_create());
    connect();
}

void Worker::connect() {
    const Setup& s = emulator_.setup();
    t_zqhandler* h = handles_[0];
    int rc = -1;
    switch (link_) {
    case LinkId::udp:
        rc = zqhandler_connect_eth(h, "127.0.0.1", std::to_string(s.udp).c_str());
        if (rc == 0)
            rc = zqhandler_connect_eth(handles_[1], "127.0.0.1", std::to_string(s.mgmt).c_str());
        break;
    case LinkId::tcp:
        rc = zqhandler_connect_tcp(h, "127.0.0.1", std::to_string(s.tcp).c_str());
        break;
    case LinkId::serial:
        rc = zqhandler_connect_serial(h, s.pty);
        break;
    }
    if (rc != 0)
        throw std::runtime_error(std::string(kLinkNames[static_cast<int>(link_)]) +
                                 ": connect failed");
    for (t_zqhandler* each : handles_)
        zqhandler_set_timeout(each, options_.timeoutMs);
}

// A connect is refused while the server restarts (its listener is closed): try every 20 ms.
void Worker::reconnectTcp() {
    const auto start = Clock::now();
    const std::string port = std::to_string(emulator_.setup().tcp);
    while (zqhandler_connect_tcp(handles_[0], "127.0.0.1", port.c_str()) != 0) {
        const int code = zqhandler_get_last_err(handles_[0]);
        if (code != S9P_INVAL_ARG)
            problem("a refused connect gave code " + std::to_string(code));
        ++stats_.refusedConnects;
        if (msSince(start) > kRestartMs + 5000) {
            problem("no connection within 5 s of the restart's end");
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    zqhandler_set_timeout(handles_[0], options_.timeoutMs);
    ++stats_.reconnects;
    stats_.longestReconnectMs = std::max(stats_.longestReconnectMs, msSince(start));
}

void Worker::pace() {
    const auto now = Clock::now();
    if (due_ > now)
        std::this_thread::sleep_until(due_);
    due_ = std::max(due_, now) + std::chrono::microseconds(1000000 / options_.rate);
}

void Worker::problem(const std::string& what) {
    ++stats_.problems;
    if (stats_.shown.size() < kShownProblems)
        stats_.shown.push_back(what);
}

// The link's own step beyond a time-out: a serial read waits the line's 0.1 s before the time
// is looked at. A stream's header wait is cut in 10 ms slices, its raw wait in 20 ms ones, and
// the clock is first read once as many slices as fit in the time-out have gone: each slice that
// ends late (a wake-up, a keep-alive sent) adds to the wait, here up to 1 % of it.
double Worker::stepMs(Fault fault) const {
    switch (link_) {
    case LinkId::serial:
        return 100;
    case LinkId::tcp:
        return fault == Fault::longStall ? 20 + kRawWaitMs / 100.0
                                         : 10 + options_.timeoutMs / 100.0;
    case LinkId::udp:
        break;
    }
    return 0;
}

Worker::Outcome Worker::runOp(const Op& op) {
    opCalls_ = 0;
    staleCode_ = false;
    Outcome o;
    o.problem = op.run(*this);
    o.calls = opCalls_;
    if (o.problem.empty() && staleCode_)
        o.problem = "a call that succeeded left an error code";
    ++stats_.operations;
    return o;
}

size_t Worker::nextOp(const std::function<bool(const Op&)>& wanted) {
    for (size_t tried = 0; tried < ops_.size(); ++tried) {
        const size_t i = (next_ + tried) % ops_.size();
        if (wanted(ops_[i])) {
            next_ = i + 1;
            return i;
        }
    }
    throw std::logic_error("no operation of the kind wanted");
}

// An operation with no fault: it must give what it should.
void Worker::normal(const Op& op) {
    const Outcome o = runOp(op);
    if (!o.problem.empty()) {
        problem(std::string(op.name) + " with no fault: " + o.problem);
        return;
    }
    ++stats_.answered;
    stats_.slowestAnswerMs = std::max(stats_.slowestAnswerMs, last_.ms);
}

void Worker::inject(Fault fault, unsigned cycle) {
    // The kind this round's fault meets: each kind it applies to on the link, in turn.
    std::vector<Kind> kinds;
    for (const Op& op : ops_)
        if (applies(fault, op) && std::find(kinds.begin(), kinds.end(), op.kind) == kinds.end())
            kinds.push_back(op.kind);
    const Kind kind = kinds[cycle % kinds.size()];
    const Op& op = ops_[nextOp([&](const Op& o) { return o.kind == kind && applies(fault, o); })];
    const uint8_t bits = kNakBits[cycle % std::size(kNakBits)];
    const int32_t lasts = lastsMs(fault, options_);
    const uint64_t keepAlivesBefore = emulator_.order({link_, fault, kind, bits, lasts}).keepAlives;
    const auto start = Clock::now();
    const Outcome o = runOp(op);
    ++stats_.faults[static_cast<size_t>(fault)];
    ++stats_.faultsByKind[static_cast<size_t>(kind)];
    const std::string where = std::string(kFaultNames[static_cast<int>(fault)]) + " on " + op.name;
    if (fault == Fault::stall) {
        const uint64_t sent =
            emulator_.order({link_, Fault::none, kind, 0, 0}).keepAlives - keepAlivesBefore;
        stats_.keepAlives += sent;
        if (!o.problem.empty())
            problem(where + ": " + o.problem);
        else if (sent == 0)
            problem(where + ": no keep-alive during the stall");
        else
            ++stats_.stallsSurvived, ++stats_.failedAsAsked;
    } else {
        expectFailure(where, o, expectedCode(fault, kind, bits), waitedMs(fault, options_), fault);
    }

    auto sameHandle = [&](const Op& other) { return other.handle == op.handle; };
    if (fault == Fault::restart || closesLink(link_, fault)) {
        // A call while the server is away, or on the stream it closed, fails as silence does:
        // the library cannot tell a closed stream from a server that does not answer.
        const Op& away = ops_[nextOp(sameHandle)];
        const Outcome a = runOp(away);
        expectFailure(std::string(away.name) + (closesLink(link_, fault)
                                                    ? " on the closed link"
                                                    : " while the server is away"),
                      a, expectedCode(Fault::silence, away.kind, 0), options_.timeoutMs, fault);
        ++stats_.awayCalls;
        if (closesLink(link_, fault)) {
            ++stats_.closedLinkCalls;
            stats_.closedLinkCpuMs += last_.cpuMs;
            stats_.closedLinkMs += last_.ms;
            // That call's send drew the peer's reset: the next one fails at its send, at once.
            const Op& refused = ops_[nextOp(sameHandle)];
            expectFailure(std::string(refused.name) + " on the reset link", runOp(refused),
                          S9P_ERR_SYSTEM, 0, fault);
            reconnectTcp(); // refused until the server is back
        }
    }
    // Once the fault has passed, the next call on this handle must succeed.
    std::this_thread::sleep_until(start +
                                  std::chrono::milliseconds(lasts + (lasts ? kSettleMs : 0)));
    recover(ops_[nextOp(sameHandle)], fault);
}

// A call that met a fault: it must fail at its first library call with `code` (a management
// call: -1, or no picture, and no code), and return within `waited` ms and its link's step.
void Worker::expectFailure(const std::string& where, const Outcome& o, int code, int waited,
                           Fault fault) {
    if (o.problem.empty()) {
        problem(where + ": the call succeeded");
    } else if (o.calls != 1 || last_.code != code) {
        char text[200];
        snprintf(text, sizeof text, "%s: call %d gave code %d (%s), not %d (%s)", where.c_str(),
                 o.calls, last_.code, s9p_strerror(last_.code), code, s9p_strerror(code));
        problem(text);
    } else {
        ++stats_.failedAsAsked;
    }
    if (waited == 0) { // answered at once
        stats_.slowestAnswerMs = std::max(stats_.slowestAnswerMs, last_.ms);
        return;
    }
    const double overshoot = last_.ms - waited;
    if (overshoot > stats_.worstOvershootMs)
        stats_.worstOvershootMs = overshoot, stats_.worstAt = where;
    if (overshoot > stepMs(fault) + options_.marginMs) {
        char text[160];
        snprintf(text, sizeof text, "%s: returned %.1f ms after its %d ms wait", where.c_str(),
                 overshoot, waited);
        problem(text);
    }
}

void Worker::recover(const Op& op, Fault fault) {
    const std::string after =
        std::string(op.name) + " after " + kFaultNames[static_cast<int>(fault)];
    for (int attempt = 0; attempt <= kRetries; ++attempt) {
        const Outcome o = runOp(op);
        if (o.problem.empty()) {
            ++(attempt == 0 ? stats_.recovered : stats_.lateRecoveries);
            ++stats_.answered;
            if (attempt > 0)
                problem(after + ": succeeded only at attempt " + std::to_string(attempt + 1));
            return;
        }
        if (attempt == 0)
            problem(after + " had passed: " + o.problem);
        std::this_thread::sleep_for(std::chrono::milliseconds(kRetryMs));
    }
    ++stats_.stuck;
    problem("stuck after " + after + ": connected again");
    connect();
}

void Worker::run() {
    try {
        for (unsigned cycle = 0; !stopping; ++cycle) {
            for (Fault fault : faults_) {
                for (int i = 0; i < options_.gap && !stopping; ++i)
                    normal(ops_[nextOp([](const Op&) { return true; })]);
                if (stopping)
                    break;
                inject(fault, cycle);
            }
            warm_ = true;
        }
    } catch (const std::exception& e) {
        problem(std::string("ended early: ") + e.what());
        warm_ = true;
    }
}

// ---- The run and its report.

Options parse(int argc, char** argv) {
    static const cli::Option kOptions[] = {{"timeout-ms", 0, true},
                                           {"gap", 0, true},
                                           {"rate", 0, true},
                                           {"margin-ms", 0, true},
                                           {"help", 'h', false}};
    const cli::CommandLine line = cli::parse(argc, argv, kOptions);
    Options o;
    for (const auto& [option, value] : line.options) {
        const std::string name = option->name;
        if (name == "help") {
            fputs(kUsage, stdout);
            exit(0);
        }
        const int n = static_cast<int>(cli::integer(value, 1, 60000, ("--" + name).c_str()));
        (name == "timeout-ms" ? o.timeoutMs
         : name == "gap"      ? o.gap
         : name == "rate"     ? o.rate
                              : o.marginMs) = n;
    }
    if (line.words.size() != 1)
        throw cli::Refused("one length in seconds is needed");
    o.seconds = static_cast<double>(cli::integer(line.words[0], 20, 86400 * 7, "SECONDS"));
    return o;
}

// The library writes to standard output and error (management flushes, trace lines): they go to
// files of their own, counted at the end, so that the report stays readable.
class Captured {
  public:
    Captured() {
        if (dir_.path().empty())
            throw std::runtime_error(std::string("mkdtemp: ") + strerror(errno));
        fflush(stdout);
        fflush(stderr);
        for (int fd : {STDOUT_FILENO, STDERR_FILENO}) {
            saved_[fd - 1] = dup(fd);
            const int file = open(path(fd).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
            dup2(file, fd);
            close(file);
        }
        report_ = fdopen(dup(saved_[0]), "w");
        setvbuf(report_, nullptr, _IOLBF, 0);
    }
    // The process's own output back where it was (a failure's message among it).
    ~Captured() {
        fflush(stdout);
        fflush(stderr);
        fclose(report_);
        for (int fd : {STDOUT_FILENO, STDERR_FILENO}) {
            dup2(saved_[fd - 1], fd);
            close(saved_[fd - 1]);
        }
    }
    Captured(const Captured&) = delete;
    Captured& operator=(const Captured&) = delete;

    FILE* report() const { return report_; }
    // Lines written to `fd`, and those of them that start with `start`.
    std::pair<size_t, size_t> lines(int fd, const char* start) const {
        fflush(fd == STDOUT_FILENO ? stdout : stderr);
        FILE* in = fopen(path(fd).c_str(), "r");
        size_t all = 0, matching = 0;
        char line[512];
        while (in && fgets(line, sizeof line, in)) {
            ++all;
            matching += strncmp(line, start, strlen(start)) == 0;
        }
        if (in)
            fclose(in);
        return {all, matching};
    }

  private:
    std::string path(int fd) const { return dir_.file(fd == STDOUT_FILENO ? "stdout" : "stderr"); }
    soak::TempDir dir_{"soak_controller"};
    int saved_[2] = {-1, -1};
    FILE* report_ = nullptr;
};

std::string faultList(const std::array<unsigned, kFaultKinds>& faults) {
    std::string text;
    for (size_t f = 0; f < kFaultKinds; ++f)
        if (faults[f])
            text += std::string(text.empty() ? "" : ", ") + kFaultNames[f] + " " +
                    std::to_string(faults[f]);
    return text;
}

// Each link's worker, started and run until every one has met every fault once and the emulator's
// memory has grown to what its servers' histories keep: the warm-up.
std::vector<std::unique_ptr<Worker>> warmUp(Emulator& emulator, const Options& options) {
    std::vector<std::unique_ptr<Worker>> workers;
    for (LinkId link : {LinkId::udp, LinkId::tcp, LinkId::serial})
        workers.push_back(std::make_unique<Worker>(link, emulator, options));
    for (auto& w : workers)
        w->start();
    while (!std::all_of(workers.begin(), workers.end(), [](const auto& w) { return w->warm(); }) ||
           !emulator.order({LinkId::udp, Fault::none, Kind::sony, 0, 0}).historiesFull)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    return workers;
}

// The measured run: the controller's and the emulator's figures every kSampleMs, and at its end.
void measure(soak::ProcWatch& controller, soak::ProcWatch& server, Clock::time_point runStart,
             double seconds) {
    const auto runEnd = runStart + std::chrono::milliseconds(static_cast<long>(seconds * 1000));
    auto sampleBoth = [&] {
        const double at = std::chrono::duration<double>(Clock::now() - runStart).count();
        controller.sample(at, totalCalls);
        server.sample(at, totalCalls);
    };
    for (auto next = runStart; Clock::now() < runEnd;
         next += std::chrono::milliseconds(kSampleMs)) {
        sampleBoth();
        std::this_thread::sleep_until(
            std::min(next + std::chrono::milliseconds(kSampleMs), runEnd));
    }
    sampleBoth();
}

unsigned faultsInjected(const Stats& s) {
    unsigned injected = 0;
    for (unsigned n : s.faults)
        injected += n;
    return injected;
}

// One link's lines of the report, its problems last.
void reportLink(FILE* out, const Worker& w) {
    const Stats& s = w.stats();
    std::string kinds;
    for (size_t k = 0; k < 4; ++k)
        if (s.faultsByKind[k])
            kinds += std::string(kinds.empty() ? "" : ", ") + kKindNames[k] + " " +
                     std::to_string(s.faultsByKind[k]);
    fprintf(out,
            "%s: %llu calls in %llu operations: %llu answered as they should, %llu met their "
            "fault as they should\n"
            "  %u faults (%s; on %s operations)\n"
            "  worst time-out overshoot %.1f ms (%s); slowest answer %.1f ms; CPU %.3f ms "
            "a call\n"
            "  %u calls while the server was away or on the link it closed, failed as "
            "silence does\n"
            "  after the fault had passed: %u recovered at the next call, %u later, %u stuck\n",
            kLinkNames[static_cast<int>(w.link())], (unsigned long long)s.calls,
            (unsigned long long)s.operations, (unsigned long long)s.answered,
            (unsigned long long)s.failedAsAsked, faultsInjected(s), faultList(s.faults).c_str(),
            kinds.c_str(), s.worstOvershootMs, s.worstAt.c_str(), s.slowestAnswerMs,
            s.calls ? s.cpuMs / static_cast<double>(s.calls) : 0.0, s.awayCalls, s.recovered,
            s.lateRecoveries, s.stuck);
    if (w.link() == LinkId::tcp)
        fprintf(out,
                "  connected again %u times after the server closed the link (%u connects "
                "refused while it restarted, longest %.0f ms); before, %u calls on the closed "
                "link gave RCV_TIMEOUT after %.1f ms, %.1f ms of CPU each, and the next "
                "S9P_ERR_SYSTEM at once; %u stalls survived with %llu keep-alives\n",
                s.reconnects, s.refusedConnects, s.longestReconnectMs, s.closedLinkCalls,
                s.closedLinkCalls ? s.closedLinkMs / s.closedLinkCalls : 0.0,
                s.closedLinkCalls ? s.closedLinkCpuMs / s.closedLinkCalls : 0.0, s.stallsSurvived,
                (unsigned long long)s.keepAlives);
    for (const auto& p : s.shown)
        fprintf(out, "  PROBLEM: %s\n", p.c_str());
    if (s.problems > s.shown.size())
        fprintf(out, "  ... and %llu more\n", (unsigned long long)(s.problems - s.shown.size()));
}

// What the summary adds up over the links.
struct Totals {
    uint64_t problems = 0, faults = 0, stuck = 0;
    double worst = -1e9;
    std::string worstLink, calls;
};

Totals totalsOf(const std::vector<std::unique_ptr<Worker>>& workers) {
    Totals t;
    for (const auto& w : workers) {
        const Stats& s = w->stats();
        const char* name = kLinkNames[static_cast<int>(w->link())];
        t.problems += s.problems;
        t.faults += faultsInjected(s);
        t.stuck += s.stuck;
        if (s.worstOvershootMs > t.worst)
            t.worst = s.worstOvershootMs, t.worstLink = name;
        t.calls += std::string(t.calls.empty() ? "" : ", ") + name + " " + std::to_string(s.calls);
    }
    return t;
}

// The figures of both processes, the library's own output, and the summary line: the verdict.
bool reportEnd(FILE* out, const Captured& captured, const Totals& t, const Options& options,
               const soak::ProcWatch& controller, const soak::ProcWatch& server) {
    const soak::Verdict verdict = controller.verdict(options.seconds, "call", false);
    const soak::Verdict emulatorFigures = server.verdict(options.seconds, "call", false);
    fprintf(out,
            "controller: %s\n  %s (CPU printed, not judged: calls that wait out a time-out "
            "cost another CPU time than those answered)\n",
            verdict.figures.c_str(), verdict.criterion.c_str());
    fprintf(out, "emulator: %s\n", emulatorFigures.figures.c_str());
    const auto [printed, flushes] = captured.lines(STDOUT_FILENO, "mgmt_send_cmd: flush");
    const auto [traced, keepAliveLines] = captured.lines(STDERR_FILENO, "cnxn.cpp");
    fprintf(out,
            "library output: %zu lines on standard output (%zu late management answers "
            "flushed), %zu trace lines on standard error (%zu of keep-alives)\n",
            printed, flushes, traced, keepAliveLines);
    std::string verdictText = "passed";
    if (t.problems || t.stuck || !verdict.flat || !emulatorFigures.flat)
        verdictText =
            "FAILED:" +
            std::string(t.problems ? " " + std::to_string(t.problems) + " problems;" : "") +
            (verdict.flat ? "" : " not flat: " + verdict.why) +
            (emulatorFigures.flat ? "" : " emulator not flat: " + emulatorFigures.why);
    fprintf(out,
            "soak controller %.0f s: calls %s; %llu faults injected; worst time-out overshoot "
            "%.1f ms (%s); %llu stuck handles; controller %s, emulator %s (first -> last tenth): "
            "%s\n",
            options.seconds, t.calls.c_str(), (unsigned long long)t.faults, t.worst,
            t.worstLink.c_str(), (unsigned long long)t.stuck, verdict.brief.c_str(),
            emulatorFigures.brief.c_str(), verdictText.c_str());
    return verdictText == "passed";
}

int soakRun(const Options& options) {
    Emulator emulator; // before any thread: its process is a copy of this one
    Captured captured;
    FILE* out = captured.report();
    const auto warmStart = Clock::now();
    const std::vector<std::unique_ptr<Worker>> workers = warmUp(emulator, options);
    const auto runStart = Clock::now();
    fprintf(out,
            "soak_controller: %.0f s measured after a %.1f s warm-up (every fault once on each "
            "link, the emulator's histories full); time-out %d ms, %d operations between faults, "
            "at most %d calls a second on "
            "each link; controller pid %d, emulator pid %d\n",
            options.seconds, std::chrono::duration<double>(runStart - warmStart).count(),
            options.timeoutMs, options.gap, options.rate, getpid(), emulator.pid());
    const size_t samples = static_cast<size_t>(options.seconds * 1000 / kSampleMs) + 16;
    soak::ProcWatch controller(getpid(), samples), server(emulator.pid(), samples);
    measure(controller, server, runStart, options.seconds);
    stopping = true;
    for (auto& w : workers)
        w->join();
    for (const auto& w : workers)
        reportLink(out, *w);
    return reportEnd(out, captured, totalsOf(workers), options, controller, server) ? 0 : 1;
}

} // namespace

int main(int argc, char** argv) {
    signal(SIGPIPE, SIG_IGN);
    return cli::run("soak_controller", [&] { return soakRun(parse(argc, argv)); });
}
