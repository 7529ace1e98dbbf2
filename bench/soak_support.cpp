// Network namespaces, processes by id and readiness waits for the long runs.
#include "soak_support.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char** environ;

namespace soak {

namespace {

using Clock = std::chrono::steady_clock;

std::string failure(const std::string& what) {
    return what + ": " + strerror(errno);
}

// What is left of `timeoutMs` since `start`: -1 (no limit) stays -1, and never below 0.
int msLeft(Clock::time_point start, int timeoutMs) {
    if (timeoutMs < 0)
        return -1;
    const auto gone = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
    return static_cast<int>(std::max<long long>(0, timeoutMs - gone.count()));
}

std::string loopbackUp() {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request{};
    strncpy(request.ifr_name, "lo", IFNAMSIZ - 1);
    bool up = fd >= 0 && ioctl(fd, SIOCGIFFLAGS, &request) == 0;
    request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
    up = up && ioctl(fd, SIOCSIFFLAGS, &request) == 0;
    std::string error = up ? "" : failure("bringing loopback up");
    if (fd >= 0)
        close(fd);
    return error;
}

// The calling thread's namespace, just made: loopback up, senders' ports above the fixed ones.
std::string setUpHere() {
    std::ofstream("/proc/sys/net/ipv4/ip_local_port_range") << "43000 60999\n";
    return loopbackUp();
}

int openOutput(const std::string& path) {
    return path.empty() ? -1 : open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
}

std::string fileText(const std::string& path) {
    if (path.empty())
        return "";
    std::ifstream file(path);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

// The child's environment: this one's, with the launch's names replaced.
std::vector<std::string> environmentOf(const Launch& launch) {
    std::vector<std::string> all = launch.environment;
    for (char** variable = environ; *variable; ++variable) {
        const std::string entry = *variable;
        const std::string name = entry.substr(0, entry.find('=') + 1);
        bool replaced = false;
        for (const auto& given : launch.environment)
            replaced = replaced || given.compare(0, name.size(), name) == 0;
        if (!replaced)
            all.push_back(entry);
    }
    return all;
}

std::vector<char*> pointers(std::vector<std::string>& strings) {
    std::vector<char*> p;
    for (auto& s : strings)
        p.push_back(s.data());
    p.push_back(nullptr);
    return p;
}

// In a child just forked: dies with the thread that started it, even one that ended already.
void followParent(int deathSignal, pid_t parent) {
    prctl(PR_SET_PDEATHSIG, deathSignal);
    if (getppid() != parent)
        _exit(127);
}

} // namespace

std::string enterFreshNetworkNamespace() {
    if (unshare(CLONE_NEWNET) != 0)
        return failure("unshare(CLONE_NEWNET)");
    return setUpHere();
}

NetNamespace::NetNamespace() {
    const int ours = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    if (ours < 0) {
        error_ = failure("opening this thread's namespace");
        return;
    }
    error_ = enterFreshNetworkNamespace();
    if (error_.empty() && (fd_ = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC)) < 0)
        error_ = failure("opening the new namespace");
    if (setns(ours, CLONE_NEWNET) != 0) // back home; a thread left elsewhere would be worse
        error_ = failure("returning to this thread's namespace");
    close(ours);
    if (!error_.empty() && fd_ >= 0)
        fd_ = (close(fd_), -1);
}

NetNamespace::~NetNamespace() {
    if (fd_ >= 0)
        close(fd_);
}

bool NetNamespace::inside(const std::function<void()>& f) const {
    const int ours = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    const bool entered = ours >= 0 && fd_ >= 0 && setns(fd_, CLONE_NEWNET) == 0;
    if (entered) {
        f();
        setns(ours, CLONE_NEWNET);
    }
    if (ours >= 0)
        close(ours);
    return entered;
}

Process::Process(const Launch& launch) {
    std::vector<std::string> argv = launch.argv, environment = environmentOf(launch);
    std::vector<char*> args = pointers(argv), envp = pointers(environment);
    files_[0] = launch.outputFile;
    files_[1] = launch.errorFile;
    const int outputs[2] = {openOutput(files_[0]), openOutput(files_[1])};
    const pid_t parent = getpid();
    const pid_t pid = argv.empty() ? -1 : fork();
    if (pid == 0) {
        followParent(launch.deathSignal, parent);
        if (launch.netns >= 0 && setns(launch.netns, CLONE_NEWNET) != 0)
            _exit(127);
        for (int i = 0; i < 2; ++i)
            if (outputs[i] >= 0)
                dup2(outputs[i], i + 1);
        execvpe(args[0], args.data(), envp.data());
        _exit(127);
    }
    for (int fd : outputs)
        if (fd >= 0)
            close(fd);
    started(pid);
}

Process::Process(const std::function<int()>& body, int deathSignal) {
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
        followParent(deathSignal, parent);
        int status = 1;
        try {
            status = body();
        } catch (...) {
        }
        _exit(status);
    }
    started(pid);
}

void Process::started(pid_t pid) {
    if (pid < 0) {
        error_ = failure("fork");
        return;
    }
    pid_ = pid;
    pidFd_ = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
    if (pidFd_ < 0)
        error_ = failure("pidfd_open");
}

Process::~Process() {
    if (pid_ > 0 && running()) // never kill(-1): that would reach every process
        kill(pid_, SIGKILL);
    if (pid_ > 0)
        waitExit(-1);
    if (pidFd_ >= 0)
        close(pidFd_);
}

int Process::waitExit(int timeoutMs) {
    if (status_ != -1 || pid_ <= 0)
        return status_;
    auto reaped = [&] {
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_)
            status_ = status;
        return status_ != -1;
    };
    if (pidFd_ < 0) // no pidfd (an old kernel): look every 10 ms
        waitUntil(reaped, timeoutMs);
    else if (waitReadable(pidFd_, timeoutMs))
        reaped();
    return status_;
}

int Process::stop(int signal, int timeoutMs) {
    if (pid_ > 0 && running()) {
        kill(pid_, signal);
        if (waitExit(timeoutMs) == -1) {
            kill(pid_, SIGKILL);
            waitExit(-1);
        }
    }
    return status_;
}

std::string Process::output() const {
    return fileText(files_[0]);
}

std::string Process::errors() const {
    return fileText(files_[1]);
}

TempDir::TempDir(const std::string& prefix) {
    std::string pattern = "/tmp/" + prefix + "-XXXXXX";
    if (mkdtemp(pattern.data()))
        path_ = pattern;
}

TempDir::~TempDir() {
    if (path_.empty())
        return;
    if (DIR* dir = opendir(path_.c_str())) {
        while (const dirent* entry = readdir(dir))
            if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0)
                unlink(file(entry->d_name).c_str());
        closedir(dir);
    }
    rmdir(path_.c_str());
}

bool waitUntil(const std::function<bool()>& ready, int timeoutMs, int stepMs) {
    const auto start = Clock::now();
    while (!ready()) {
        const int left = msLeft(start, timeoutMs);
        if (left == 0)
            return false;
        std::this_thread::sleep_for(
            std::chrono::milliseconds(left < 0 ? stepMs : std::min(stepMs, left)));
    }
    return true;
}

bool waitReadable(int fd, int timeoutMs) {
    const auto start = Clock::now();
    for (;;) {
        pollfd p{fd, POLLIN, 0};
        const int n = poll(&p, 1, msLeft(start, timeoutMs));
        if (n >= 0 || errno != EINTR)
            return n == 1;
    }
}

bool waitForPath(const std::string& path, int timeoutMs) {
    struct stat info {};
    return waitUntil([&] { return lstat(path.c_str(), &info) == 0; }, timeoutMs);
}

bool waitForTcpPort(uint16_t port, int timeoutMs, const char* address) {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    if (inet_pton(AF_INET, address, &to.sin_addr) != 1)
        return false;
    return waitUntil(
        [&] {
            const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
            const bool accepted =
                fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof to) == 0;
            if (fd >= 0)
                close(fd);
            return accepted;
        },
        timeoutMs);
}

int runInFreshNamespace(const char* program, const std::string& prefix,
                        const std::function<int(const TempDir&)>& run) {
    if (geteuid() != 0) {
        fprintf(stderr, "%s: needs root for a network namespace of its own\n", program);
        return 77;
    }
    const TempDir dir(prefix);
    const std::string entered =
        dir.path().empty() ? "mkdtemp failed" : enterFreshNetworkNamespace();
    if (!entered.empty()) {
        fprintf(stderr, "%s: %s\n", program, entered.c_str());
        return 1;
    }
    signal(SIGPIPE, SIG_IGN);
    return run(dir);
}

} // namespace soak
