// What a long run watches in a process from /proc (memory, descriptors, CPU time), sampled over
// the run, and the verdict that compares the run's first tenth with its last: shared by the soaks.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace soak {

// One look at a process. `work` is the soak's own count of what the process has done by then
// (the daemon's polls, a controller's calls), so that CPU time can be read per unit of work.
struct ProcSample {
    double seconds = 0; // since the measured run began
    long rssKb = 0;     // resident: VmRSS
    long privateKb = 0; // pages this process wrote (heap, stack, data): Private_Dirty. Clean
                        // pages count as private whenever no other process maps them: not them
    long fds = 0;       // entries of /proc/PID/fd
    double cpuMs = 0;   // time on a CPU of all its threads, from /proc/PID/task/*/schedstat
    uint64_t work = 0;
};

// Reads /proc/PID; nothing when the process is gone or /proc cannot be read.
std::optional<ProcSample> sampleProcess(pid_t pid, double seconds, uint64_t work);

// How descriptors are compared between the tenths:
//   - peak: the most open at once. For a process whose descriptors last, or whose links close
//     and open again under faults (a sample taken during a reconnection sees fewer);
//   - floor: the fewest open at once. For a process that opens one for the length of an exchange
//     (the daemon: each SPI transfer has a socket of its own for its 20 ms window), so that a
//     sample taken during an exchange is not taken for a leak; a descriptor never closed raises
//     the floor all the same.
enum class Descriptors { peak, floor };

// The verdict on a run's samples. Flat means:
//   - descriptors: the last tenth's count (peak or floor) is not above the first tenth's;
//   - resident and private (written) memory: the last tenth's largest value exceeds the first
//     tenth's largest by at most kMemoryNoiseKb;
//   - CPU per unit of work (where it is judged): the last tenth's is at most kCpuGrowth times the
//     first tenth's plus kCpuNoiseMs.
// A leak of a few bytes per poll over an hour, or a descriptor per fault, breaks the first two.
struct Verdict {
    bool flat = false;
    std::string figures;   // one line: first tenth -> last tenth of each figure
    std::string brief;     // memory and descriptors only, for a summary line
    std::string criterion; // the rule in words, for the report
    std::string why;       // what broke the criterion, "" when flat
};

constexpr long kMemoryNoiseKb = 16; // four pages
constexpr double kCpuGrowth = 1.5;
constexpr double kCpuNoiseMs = 0.01;

class ProcWatch {
  public:
    // Room for `expected` samples is made, and written, at once: a watch on its own process
    // must not grow it while it samples.
    explicit ProcWatch(pid_t pid, size_t expected = 0, Descriptors rule = Descriptors::peak)
        : pid_(pid), rule_(rule) {
        samples_.resize(expected);
        samples_.clear();
    }
    // Samples the process now; false when it could not be read (the process ended).
    bool sample(double seconds, uint64_t work);
    const std::vector<ProcSample>& samples() const { return samples_; }
    // Compares the samples of the first and the last tenth of `runSeconds`; `workName` names
    // the unit of work in the figures ("poll", "call"). Without `judgeCpu` the CPU per unit of
    // work is printed but not judged: where units differ in cost (a call answered at once, one
    // that waits out its time-out) the tenths hold different mixes of them.
    Verdict verdict(double runSeconds, const char* workName, bool judgeCpu = true) const;

  private:
    std::string criterion() const;

    pid_t pid_;
    Descriptors rule_;
    std::vector<ProcSample> samples_;
};

// Time on a CPU of the calling thread so far.
double threadCpuMs();

// The receive queue (bytes) and drop count of this network namespace's UDP socket bound to
// 127.0.0.1 or the any address on `port`, from /proc/thread-self/net/udp.
struct UdpQueue {
    long queuedBytes = 0;
    long drops = 0;
};
std::optional<UdpQueue> udpQueue(uint16_t port);

} // namespace soak
