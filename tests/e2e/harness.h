// Process-level test harness for vlmgpiod.out: fresh network namespaces, a second host joined by a
// veth pair, the daemon as a child process, and the port its GPI events arrive on.
#pragma once

#include "loopback.h"

#include <cstdint>
#include <deque>
#include <string>
#include <sys/types.h>
#include <vector>
#include <vlmgpiod/gpio_event.h>

namespace e2e {

// A network event no board line can produce: the daemon relays it, which shows it is serving.
constexpr Gpio kProbe = {0x7E57, 0};

// Moves the calling thread into a new network namespace with its loopback up; "" or what failed.
std::string enterFreshNetworkNamespace();

// A second host: a network namespace of its own, joined to ours by a veth pair (10.200.0.1 here,
// 10.200.0.2 there), with a route for 224.0.0.0/4 on each side.
class PeerHost {
  public:
    static constexpr const char* kOurAddress = "10.200.0.1";
    static constexpr const char* kPeerAddress = "10.200.0.2";
    PeerHost();
    ~PeerHost();
    PeerHost(const PeerHost&) = delete;
    PeerHost& operator=(const PeerHost&) = delete;
    const std::string& error() const { return error_; } // "" when the host is up
    // A UDP socket made in the peer's namespace, bound to `port` and, when `group` is given,
    // joined to it on the veth. The caller owns it; -1 on failure.
    int udpSocket(uint16_t port, const char* group = nullptr);

  private:
    int nsFd_ = -1;
    std::string error_;
};

// vlmgpiod.out started with `options`, its SPI transfers going to `boardSocket`; standard output
// and standard error go to files. `wrapper` (a program and its arguments, valgrind for one) runs
// the daemon when given. Killed and reaped on destruction if still running.
class Daemon {
  public:
    Daemon(const std::vector<std::string>& options, const std::string& boardSocket,
           const std::vector<std::string>& wrapper = {});
    ~Daemon();
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    static std::string path() { return VLMGPIOD_PATH; }
    pid_t pid() const { return pid_; }
    std::string out() const;
    std::string err() const;
    // Waits at most `timeoutMs` (0: just looks) for the process to end: its wait status, or -1.
    int waitExit(int timeoutMs);

  private:
    pid_t pid_ = -1;
    int pidFd_ = -1;
    int status_ = -1;
    std::string files_[2];
};

// 127.0.0.1:42000, with a buffer big enough for a flood of relayed datagrams (bench_daemon). Probes
// are counted apart from the events.
class GpiPort {
  public:
    GpiPort();
    // The next event as hex text ("00 00 00 07 00 00 00 01"), or "nothing" within `timeoutMs`.
    std::string next(int timeoutMs);
    // Waits at most `timeoutMs` for a probe after the `seen` ones.
    bool waitProbe(size_t seen, int timeoutMs);
    size_t probes() const { return probes_; }

  private:
    bool receive(int timeoutMs);
    UdpEndpoint socket_{42000};
    std::deque<std::string> events_;
    size_t probes_ = 0;
};

void sendLocal(uint16_t port, const std::vector<uint8_t>& bytes);
std::vector<uint8_t> datagram(const Gpio& gpio);
std::string event(int lines, int status);
// Sends probes to port 42002 until one comes back on 42000; false if none within `timeoutMs`
// or the daemon failed.
bool waitServing(Daemon& daemon, GpiPort& gpi, int timeoutMs);

} // namespace e2e
