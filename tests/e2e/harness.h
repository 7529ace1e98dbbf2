// Process-level test harness for vlmgpiod.out: fresh network namespaces, a second host joined by a
// veth pair, the daemon as a child process, and a listener for its GPI events.
#pragma once

#include "gpio.h"

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <sys/types.h>
#include <thread>
#include <vector>

namespace e2e {

// What a readiness probe carries: no board line has this number.
constexpr Gpio kProbe = {0x7E57, 0};

// Moves the calling thread into a new network namespace with its loopback up.
// Returns "" on success, else what failed.
std::string enterFreshNetworkNamespace();

// A second host: a network namespace held by a child process, joined to ours by a veth pair
// (10.200.0.1 here, 10.200.0.2 there) with the multicast routes on both sides.
class PeerHost {
  public:
    static constexpr const char* kOurAddress = "10.200.0.1";
    static constexpr const char* kPeerAddress = "10.200.0.2";
    PeerHost();
    ~PeerHost();
    PeerHost(const PeerHost&) = delete;
    PeerHost& operator=(const PeerHost&) = delete;
    // "" when the host is up, else what failed.
    const std::string& error() const { return error_; }
    // A UDP socket created in the peer's namespace, bound to `port` on all addresses and, when
    // `group` is given, joined to it on the veth. The caller owns it.
    int udpSocket(uint16_t port, const char* group = nullptr);

  private:
    pid_t holder_ = -1;
    int holdFd_ = -1;
    int nsFd_ = -1;
    std::string error_;
};

enum class Stream { Out, Err };

// vlmgpiod.out started with `options`, its SPI going to `boardSocket`; standard output and
// standard error come back through pipes. Killed (SIGKILL) and waited for on destruction.
class Daemon {
  public:
    Daemon(const std::vector<std::string>& options, const std::string& boardSocket);
    ~Daemon();
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    pid_t pid() const { return pid_; }
    static std::string path();
    // Everything the stream carried so far.
    std::string output(Stream stream);
    // Waits until the stream carried `text`, at most `timeoutMs`.
    bool waitForOutput(Stream stream, const std::string& text, int timeoutMs);
    // Waits for the end of the process, at most `timeoutMs`: its wait status, or -1.
    int waitExit(int timeoutMs);
    bool running();
    // Collects what the daemon wrote, waiting at most `timeoutMs` for something to come.
    void pump(int timeoutMs);

  private:
    pid_t pid_ = -1;
    int status_ = -1;
    int pipes_[2] = {-1, -1};
    std::string text_[2];
};

// Receives every datagram on 127.0.0.1:42000 in a thread of its own, so that a burst cannot
// overflow the socket. Readiness probes are counted apart.
class GpiListener {
  public:
    GpiListener();
    ~GpiListener();
    GpiListener(const GpiListener&) = delete;
    GpiListener& operator=(const GpiListener&) = delete;

    // The next datagram that is not a probe, or nothing within `timeoutMs`.
    std::optional<GpioDatagram> next(int timeoutMs);
    // Waits for one more probe than `seen`, at most `timeoutMs`.
    bool waitProbe(size_t seen, int timeoutMs);
    size_t probes();
    // Datagrams that were not probes, all of them, including those next() returned.
    std::vector<GpioDatagram> all();

  private:
    int fd_ = -1;
    int wake_[2] = {-1, -1};
    std::mutex mutex_;
    std::condition_variable arrived_;
    std::vector<GpioDatagram> events_;
    size_t read_ = 0;
    size_t probes_ = 0;
    std::thread thread_;
};

// Sends `bytes` from an unbound UDP socket to 127.0.0.1:`port`.
void sendLocal(uint16_t port, const std::vector<uint8_t>& bytes);
std::vector<uint8_t> datagram(const Gpio& gpio);
// Waits until the daemon serves its sockets: port 42002 bound, then a probe relayed to 42000.
bool waitServing(Daemon& daemon, GpiListener& listener, int timeoutMs);

} // namespace e2e
