// The e2e harness: namespaces, the peer host, the daemon process, the GPI listener.
#include "harness.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace e2e {

namespace {

using Clock = std::chrono::steady_clock;

int msLeft(Clock::time_point deadline) {
    auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

std::string failure(const std::string& what) { return what + ": " + strerror(errno); }

bool run(const std::string& command) { return std::system(command.c_str()) == 0; }

bool portBound(uint16_t port) {
    char wanted[16];
    snprintf(wanted, sizeof wanted, ":%04X ", port);
    std::ifstream table("/proc/self/net/udp");
    std::string line;
    while (std::getline(table, line)) {
        // "  sl  local_address rem_address ...": the local address is the second column.
        size_t local = line.find(':');
        if (local != std::string::npos && line.compare(local + 10, 6, wanted) == 0)
            return true;
    }
    return false;
}

} // namespace

std::string enterFreshNetworkNamespace() {
    if (unshare(CLONE_NEWNET) != 0)
        return failure("unshare(CLONE_NEWNET)");
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    ifreq request{};
    strcpy(request.ifr_name, "lo");
    bool up = ioctl(fd, SIOCGIFFLAGS, &request) == 0 &&
              (request.ifr_flags |= IFF_UP, ioctl(fd, SIOCSIFFLAGS, &request) == 0);
    std::string error = up ? "" : failure("loopback up");
    close(fd);
    return error;
}

PeerHost::PeerHost() {
    int ready[2], hold[2];
    if (pipe2(ready, O_CLOEXEC) != 0 || pipe2(hold, O_CLOEXEC) != 0) {
        error_ = failure("pipe");
        return;
    }
    holder_ = fork();
    if (holder_ == 0) { // sits in the peer namespace until the hold pipe closes
        close(hold[1]);
        char byte = unshare(CLONE_NEWNET) == 0 ? 'y' : 'n';
        (void)!write(ready[1], &byte, 1);
        (void)!read(hold[0], &byte, 1);
        _exit(0);
    }
    close(ready[1]);
    close(hold[0]);
    holdFd_ = hold[1];
    char byte = 'n';
    (void)!read(ready[0], &byte, 1);
    close(ready[0]);
    if (byte != 'y') {
        error_ = "peer namespace not created";
        return;
    }
    const std::string pid = std::to_string(holder_);
    const std::string peer = "nsenter -t " + pid + " -n ";
    const char* commands[] = {"ip link add vlm-a type veth peer name vlm-b netns ",
                              "ip addr add 10.200.0.1/24 dev vlm-a", "ip link set vlm-a up",
                              "ip route add 224.0.0.0/4 dev vlm-a"};
    const char* peerCommands[] = {"ip link set lo up", "ip addr add 10.200.0.2/24 dev vlm-b",
                                  "ip link set vlm-b up", "ip route add 224.0.0.0/4 dev vlm-b"};
    std::string all = commands[0] + pid;
    for (size_t i = 1; i < std::size(commands); ++i)
        all += std::string(" && ") + commands[i];
    for (const char* command : peerCommands)
        all += " && " + peer + command;
    if (!run(all))
        error_ = "could not join the namespaces: " + all;
    nsFd_ = open(("/proc/" + pid + "/ns/net").c_str(), O_RDONLY | O_CLOEXEC);
}

PeerHost::~PeerHost() {
    if (holdFd_ >= 0)
        close(holdFd_);
    if (holder_ > 0)
        waitpid(holder_, nullptr, 0);
    if (nsFd_ >= 0)
        close(nsFd_);
}

int PeerHost::udpSocket(uint16_t port, const char* group) {
    int ours = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    if (ours < 0 || setns(nsFd_, CLONE_NEWNET) != 0) {
        close(ours);
        return -1;
    }
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    setns(ours, CLONE_NEWNET);
    close(ours);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    ip_mreq membership{};
    membership.imr_interface.s_addr = inet_addr(kPeerAddress);
    membership.imr_multiaddr.s_addr = group ? inet_addr(group) : 0;
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        (group && setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership))) {
        close(fd);
        return -1;
    }
    return fd;
}

std::string Daemon::path() { return VLMGPIOD_PATH; }

Daemon::Daemon(const std::vector<std::string>& options, const std::string& boardSocket) {
    // Everything the child needs is prepared before the fork: other threads may hold locks.
    std::vector<std::string> args{path()};
    args.insert(args.end(), options.begin(), options.end());
    std::vector<char*> argv;
    for (auto& arg : args)
        argv.push_back(arg.data());
    argv.push_back(nullptr);
    std::string boardVariable = "TLAPI_SIM_SOCKET=" + boardSocket;
    std::vector<char*> envp{boardVariable.data()};
    for (char** variable = environ; *variable; ++variable)
        if (strncmp(*variable, "TLAPI_SIM_SOCKET=", 17) != 0)
            envp.push_back(*variable);
    envp.push_back(nullptr);
    int out[2], err[2];
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0)
        return;
    pid_ = fork();
    if (pid_ == 0) {
        dup2(out[1], 1);
        dup2(err[1], 2);
        execve(argv[0], argv.data(), envp.data());
        _exit(127);
    }
    close(out[1]);
    close(err[1]);
    pipes_[0] = out[0];
    pipes_[1] = err[0];
}

Daemon::~Daemon() {
    if (running())
        kill(pid_, SIGKILL);
    waitExit(10000);
    for (int fd : pipes_)
        close(fd);
}

void Daemon::pump(int timeoutMs) {
    pollfd ends[2] = {{pipes_[0], POLLIN, 0}, {pipes_[1], POLLIN, 0}};
    if (poll(ends, 2, timeoutMs) <= 0)
        return;
    for (int i = 0; i < 2; ++i) {
        if (ends[i].revents == 0)
            continue;
        char buffer[4096];
        ssize_t n = read(pipes_[i], buffer, sizeof buffer);
        if (n > 0)
            text_[i].append(buffer, static_cast<size_t>(n));
        else // end of the stream: stop watching it
            pipes_[i] = (close(pipes_[i]), -1);
    }
}

std::string Daemon::output(Stream stream) {
    pump(0);
    return text_[static_cast<int>(stream)];
}

bool Daemon::waitForOutput(Stream stream, const std::string& text, int timeoutMs) {
    auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        if (text_[static_cast<int>(stream)].find(text) != std::string::npos)
            return true;
        if (msLeft(deadline) == 0)
            return false;
        pump(std::min(msLeft(deadline), 50));
    }
}

bool Daemon::running() {
    if (pid_ <= 0 || status_ != -1)
        return false;
    int status;
    if (waitpid(pid_, &status, WNOHANG) == pid_)
        status_ = status;
    return status_ == -1;
}

int Daemon::waitExit(int timeoutMs) {
    auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (running() && msLeft(deadline) > 0)
        pump(std::min(msLeft(deadline), 20)); // the process may block on a full pipe
    pump(0);
    return status_;
}

GpiListener::GpiListener() : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(42000);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        pipe2(wake_, O_CLOEXEC) != 0) {
        perror("GpiListener");
        abort();
    }
    thread_ = std::thread([this] {
        for (;;) {
            pollfd ready[2] = {{fd_, POLLIN, 0}, {wake_[0], POLLIN, 0}};
            poll(ready, 2, -1);
            if (ready[1].revents)
                return;
            GpioDatagram bytes{};
            if (recv(fd_, bytes.data(), bytes.size(), 0) != 8)
                continue; // the daemon sends nothing else: a test would see it missing
            Gpio gpio = gpioDecode(bytes);
            std::lock_guard lock(mutex_);
            if (gpio.lines == kProbe.lines && gpio.status == kProbe.status)
                ++probes_;
            else
                events_.push_back(bytes);
            arrived_.notify_all();
        }
    });
}

GpiListener::~GpiListener() {
    (void)!write(wake_[1], "x", 1);
    thread_.join();
    close(fd_);
    close(wake_[0]);
    close(wake_[1]);
}

std::optional<GpioDatagram> GpiListener::next(int timeoutMs) {
    std::unique_lock lock(mutex_);
    if (!arrived_.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                           [&] { return read_ < events_.size(); }))
        return std::nullopt;
    return events_[read_++];
}

bool GpiListener::waitProbe(size_t seen, int timeoutMs) {
    std::unique_lock lock(mutex_);
    return arrived_.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                             [&] { return probes_ > seen; });
}

size_t GpiListener::probes() {
    std::lock_guard lock(mutex_);
    return probes_;
}

std::vector<GpioDatagram> GpiListener::all() {
    std::lock_guard lock(mutex_);
    return events_;
}

void sendLocal(uint16_t port, const std::vector<uint8_t>& bytes) {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sendto(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
    close(fd);
}

std::vector<uint8_t> datagram(const Gpio& gpio) {
    GpioDatagram bytes = gpioEncode(gpio);
    return {bytes.begin(), bytes.end()};
}

bool waitServing(Daemon& daemon, GpiListener& listener, int timeoutMs) {
    auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!portBound(42002)) {
        // A daemon started with -d leaves its starter with status 0 at once.
        bool failed = !daemon.running() && daemon.waitExit(0) != 0;
        if (failed || msLeft(deadline) == 0)
            return false;
        daemon.pump(10);
    }
    size_t seen = listener.probes();
    sendLocal(42002, datagram(kProbe));
    return listener.waitProbe(seen, msLeft(deadline));
}

} // namespace e2e
