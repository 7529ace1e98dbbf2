// Process figures from /proc and the first-tenth/last-tenth verdict of a long run.
#include "soak_figures.h"

#include <algorithm>
#include <cstdio>
#include <dirent.h>
#include <fstream>
#include <sstream>
#include <time.h>

namespace soak {

namespace {

// The number after `key` on the first line of `path` that starts with it, or -1.
long field(const std::string& path, const std::string& key) {
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);)
        if (line.compare(0, key.size(), key) == 0)
            return std::stol(line.substr(key.size()));
    return -1;
}

// Time on a CPU of every thread of the process, from each one's schedstat: /proc/PID/schedstat
// alone is its first thread's. -1 when it cannot be read.
double cpuNs(const std::string& dir) {
    DIR* tasks = opendir((dir + "/task").c_str());
    if (tasks == nullptr)
        return -1;
    double sum = 0;
    while (const dirent* entry = readdir(tasks)) {
        if (entry->d_name[0] == '.')
            continue;
        std::ifstream schedstat(dir + "/task/" + entry->d_name + "/schedstat");
        double ns = 0;
        if (schedstat >> ns)
            sum += ns;
    }
    closedir(tasks);
    return sum;
}

long countEntries(const std::string& path) {
    DIR* dir = opendir(path.c_str());
    if (dir == nullptr)
        return -1;
    long count = 0;
    while (const dirent* entry = readdir(dir))
        if (entry->d_name[0] != '.')
            ++count;
    closedir(dir);
    return count;
}

struct Tenth {
    long rssKb = 0, privateKb = 0; // the largest seen
    long fdsPeak = 0, fdsFloor = -1;
    double cpuMsPerWork = 0;
    size_t samples = 0;
};

Tenth summarise(const std::vector<ProcSample>& all, double from, double to) {
    Tenth tenth;
    const ProcSample* first = nullptr;
    const ProcSample* last = nullptr;
    for (const auto& s : all) {
        if (s.seconds < from || s.seconds > to)
            continue;
        first = first ? first : &s;
        last = &s;
        ++tenth.samples;
        tenth.rssKb = std::max(tenth.rssKb, s.rssKb);
        tenth.privateKb = std::max(tenth.privateKb, s.privateKb);
        tenth.fdsPeak = std::max(tenth.fdsPeak, s.fds);
        tenth.fdsFloor = tenth.fdsFloor < 0 ? s.fds : std::min(tenth.fdsFloor, s.fds);
    }
    if (first && last && last->work > first->work)
        tenth.cpuMsPerWork =
            (last->cpuMs - first->cpuMs) / static_cast<double>(last->work - first->work);
    return tenth;
}

} // namespace

std::optional<ProcSample> sampleProcess(pid_t pid, double seconds, uint64_t work) {
    const std::string dir = "/proc/" + std::to_string(pid);
    ProcSample s;
    s.seconds = seconds;
    s.work = work;
    s.rssKb = field(dir + "/status", "VmRSS:");
    s.privateKb = field(dir + "/smaps_rollup", "Private_Dirty:");
    s.fds = countEntries(dir + "/fd");
    const double ns = cpuNs(dir);
    s.cpuMs = ns / 1e6;
    if (s.rssKb < 0 || s.privateKb < 0 || s.fds < 0 || ns < 0)
        return std::nullopt;
    return s;
}

bool ProcWatch::sample(double seconds, uint64_t work) {
    auto s = sampleProcess(pid_, seconds, work);
    if (s)
        samples_.push_back(*s);
    return s.has_value();
}

std::string ProcWatch::criterion() const {
    char text[256];
    snprintf(text, sizeof text,
             "flat = %s descriptors open not above the first tenth's; resident and private memory "
             "at most %ld kB above it; CPU per unit of work at most %.1f x it + %.2f ms",
             rule_ == Descriptors::floor ? "fewest" : "most", kMemoryNoiseKb, kCpuGrowth,
             kCpuNoiseMs);
    return text;
}

Verdict ProcWatch::verdict(double runSeconds, const char* workName, bool judgeCpu) const {
    const Tenth a = summarise(samples_, 0, runSeconds / 10);
    const Tenth b = summarise(samples_, runSeconds * 0.9, runSeconds + 1);
    const bool floor = rule_ == Descriptors::floor;
    const long fdsA = floor ? a.fdsFloor : a.fdsPeak, fdsB = floor ? b.fdsFloor : b.fdsPeak;
    Verdict v;
    char text[512];
    snprintf(
        text, sizeof text,
        "resident %ld -> %ld kB, private dirty %ld -> %ld kB, descriptors %ld -> %ld, CPU per %s "
        "%.3f -> %.3f ms (first tenth -> last tenth, %zu and %zu samples)",
        a.rssKb, b.rssKb, a.privateKb, b.privateKb, fdsA, fdsB, workName, a.cpuMsPerWork,
        b.cpuMsPerWork, a.samples, b.samples);
    v.figures = text;
    v.criterion = criterion();
    snprintf(text, sizeof text,
             "resident %ld -> %ld kB, private %ld -> %ld kB, descriptors %ld -> %ld", a.rssKb,
             b.rssKb, a.privateKb, b.privateKb, fdsA, fdsB);
    v.brief = text;
    std::ostringstream why;
    if (a.samples < 2 || b.samples < 2)
        why << "too few samples in a tenth; ";
    if (fdsB > fdsA)
        why << "descriptors grew; ";
    if (b.rssKb - a.rssKb > kMemoryNoiseKb)
        why << "resident memory grew; ";
    if (b.privateKb - a.privateKb > kMemoryNoiseKb)
        why << "private memory grew; ";
    if (judgeCpu && b.cpuMsPerWork > a.cpuMsPerWork * kCpuGrowth + kCpuNoiseMs)
        why << "CPU per " << workName << " grew; ";
    v.why = why.str();
    v.flat = v.why.empty();
    return v;
}

double threadCpuMs() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) * 1e3 + static_cast<double>(t.tv_nsec) / 1e6;
}

std::optional<UdpQueue> udpQueue(uint16_t port) {
    std::ifstream in("/proc/thread-self/net/udp");
    std::string line;
    std::getline(in, line); // the column names
    char wanted[8];
    snprintf(wanted, sizeof wanted, ":%04X", port);
    while (std::getline(in, line)) {
        std::istringstream words(line);
        std::string slot, local, remote, state, queues, word;
        words >> slot >> local >> remote >> state >> queues;
        if (local.size() < 5 || local.compare(local.size() - 5, 5, wanted) != 0)
            continue;
        std::vector<std::string> rest;
        while (words >> word)
            rest.push_back(word);
        UdpQueue q;
        const size_t colon = queues.find(':');
        q.queuedBytes =
            colon == std::string::npos ? 0 : std::stol(queues.substr(colon + 1), nullptr, 16);
        q.drops = rest.empty() ? 0 : std::stol(rest.back());
        return q;
    }
    return std::nullopt;
}

} // namespace soak
