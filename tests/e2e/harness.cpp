// The e2e harness: namespaces, the peer host, the daemon process, the GPI port.
#include "harness.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
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

std::string failure(const std::string& what) {
    return what + ": " + strerror(errno);
}

std::string fileText(const std::string& path) {
    std::ifstream file(path);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

} // namespace

std::string enterFreshNetworkNamespace() {
    if (unshare(CLONE_NEWNET) != 0)
        return failure("unshare(CLONE_NEWNET)");
    // The daemon's fixed ports (32896, 42000-42002) lie in the range the system gives to sockets
    // that send without binding first; in this namespace that range starts above them.
    std::ofstream("/proc/sys/net/ipv4/ip_local_port_range") << "43000 60999\n";
    return std::system("ip link set lo up") == 0 ? "" : "could not bring loopback up";
}

PeerHost::PeerHost() {
    // A namespace of its own lives as long as a descriptor of it is open: nothing has to sit in it.
    int ours = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    if (unshare(CLONE_NEWNET) == 0) {
        nsFd_ = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
        setns(ours, CLONE_NEWNET);
    }
    close(ours);
    const std::string peer = "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(nsFd_);
    const std::string there = " && nsenter --net=" + peer + " ";
    const std::string commands =
        "ip link add vlm-a type veth peer name vlm-b netns " + peer +
        " && ip addr add 10.200.0.1/24 dev vlm-a && ip link set vlm-a up"
        " && ip route add 224.0.0.0/4 dev vlm-a" +
        there + "ip link set lo up" + there + "ip addr add 10.200.0.2/24 dev vlm-b" + there +
        "ip link set vlm-b up" + there + "ip route add 224.0.0.0/4 dev vlm-b";
    if (nsFd_ < 0 || std::system(commands.c_str()) != 0)
        error_ = "could not join the namespaces: " + commands;
}

PeerHost::~PeerHost() {
    close(nsFd_);
}

int PeerHost::udpSocket(uint16_t port, const char* group) {
    int ours = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    int fd = setns(nsFd_, CLONE_NEWNET) == 0 ? socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0) : -1;
    setns(ours, CLONE_NEWNET);
    close(ours);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    ip_mreq membership{};
    membership.imr_interface.s_addr = inet_addr(kPeerAddress);
    membership.imr_multiaddr.s_addr = group ? inet_addr(group) : 0;
    if (fd >= 0 && (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
                    (group && setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership,
                                         sizeof membership) != 0)))
        fd = (close(fd), -1);
    return fd;
}

Daemon::Daemon(const std::vector<std::string>& options, const std::string& boardSocket,
               const std::vector<std::string>& wrapper) {
    // Everything the child needs is made before the fork: another thread may hold a lock.
    std::vector<std::string> args = wrapper;
    args.push_back(path());
    args.insert(args.end(), options.begin(), options.end());
    std::vector<char*> argv;
    for (auto& arg : args)
        argv.push_back(arg.data());
    argv.push_back(nullptr);
    std::string board = "TLAPI_SIM_SOCKET=" + boardSocket;
    std::vector<char*> envp{board.data()};
    for (char** variable = environ; *variable; ++variable)
        if (strncmp(*variable, "TLAPI_SIM_SOCKET=", 17) != 0)
            envp.push_back(*variable);
    envp.push_back(nullptr);
    int outputs[2];
    for (int i = 0; i < 2; ++i) {
        files_[i] = boardSocket + (i == 0 ? ".out" : ".err");
        outputs[i] = open(files_[i].c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    }
    pid_ = fork();
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL); // a test killed on its time-out takes the daemon along
        dup2(outputs[0], 1);
        dup2(outputs[1], 2);
        execvpe(argv[0], argv.data(), envp.data()); // a wrapper may be named by PATH
        _exit(127);
    }
    close(outputs[0]);
    close(outputs[1]);
    pidFd_ = pid_ > 0 ? static_cast<int>(syscall(SYS_pidfd_open, pid_, 0)) : -1;
}

Daemon::~Daemon() {
    if (pid_ > 0 && waitExit(0) == -1) // never kill(-1): that would reach every process
        kill(pid_, SIGKILL);
    waitExit(10000);
    close(pidFd_);
    unlink(files_[0].c_str());
    unlink(files_[1].c_str());
}

std::string Daemon::out() const {
    return fileText(files_[0]);
}
std::string Daemon::err() const {
    return fileText(files_[1]);
}

int Daemon::waitExit(int timeoutMs) {
    pollfd ended{pidFd_, POLLIN, 0};
    int status;
    if (status_ == -1 && poll(&ended, 1, timeoutMs) == 1 && waitpid(pid_, &status, 0) == pid_)
        status_ = status;
    return status_;
}

GpiPort::GpiPort() {
    int size = 64 << 20; // root may exceed the system's limit
    setsockopt(socket_.fd(), SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size);
}

bool GpiPort::receive(int timeoutMs) {
    std::vector<uint8_t> bytes = socket_.receive(timeoutMs);
    if (bytes.empty())
        return false;
    if (bytes == datagram(kProbe))
        ++probes_;
    else
        events_.push_back(hex(bytes));
    return true;
}

std::string GpiPort::next(int timeoutMs) {
    auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (events_.empty() && receive(msLeft(deadline))) {
    }
    if (events_.empty())
        return "nothing";
    std::string first = events_.front();
    events_.pop_front();
    return first;
}

bool GpiPort::waitProbe(size_t seen, int timeoutMs) {
    auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (probes_ <= seen && receive(msLeft(deadline))) {
    }
    return probes_ > seen;
}

void sendLocal(uint16_t port, const std::vector<uint8_t>& bytes) {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in to = loopback_address(port);
    sendto(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
    close(fd);
}

std::vector<uint8_t> datagram(const Gpio& gpio) {
    GpioDatagram bytes = gpioEncode(gpio);
    return {bytes.begin(), bytes.end()};
}

std::string event(int lines, int status) {
    return hex(datagram({lines, status}));
}

bool waitServing(Daemon& daemon, GpiPort& gpi, int timeoutMs) {
    auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    size_t seen = gpi.probes();
    // Probes sent before the daemon binds its port are lost; the first relayed one tells.
    while (msLeft(deadline) > 0 && daemon.waitExit(0) <= 0) { // -d: the starter leaves with 0
        sendLocal(42002, datagram(kProbe));
        if (gpi.waitProbe(seen, std::min(msLeft(deadline), 100)))
            return true;
    }
    return false;
}

} // namespace e2e
