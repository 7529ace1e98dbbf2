// What crosses the emulator's links, kept for tests and watched by observers: the messages
// received and the answers sent in a bounded history, the counters from the start, and the
// observers a recorder or a front panel hooks in with.
#pragma once

#include "outbox.h"

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <netinet/in.h>
#include <string>
#include <vector>

namespace devsim {

// One message received, with its exact bytes and what it is.
struct Received {
    Link link;
    Bytes wire;            // the whole datagram, TCP message (header and frame) or serial frame
    Bytes frame;           // the Sony or Louth frame it carries; empty for other messages
    std::string tag;       // TCP: the message's four-character tag
    uint16_t local_port{}; // UDP and TCP: the emulator's port it arrived on
    sockaddr_in peer{};    // UDP and TCP: the sender
    Protocol protocol = Protocol::sony;
    std::string text; // its name and arguments: "CUE UP WITH DATA 00:10:00:00"
};

// What crosses a link, for a recorder or a front panel: each datagram, serial frame or TCP message
// received; each answer sent (each datagram of it, as the peer gets them; on TCP and the serial
// line the whole answer once its last piece went); the bytes of an upload as they come; the bytes
// a serial line drops (a frame begun too long ago, garbage before a frame).
enum class Direction { received, sent };
struct Traffic {
    Direction direction;
    Link link;
    Protocol protocol;
    sockaddr_in local{}, peer{}; // UDP and TCP
    Bytes bytes;                 // as read or written
    std::string text;            // decoded; empty for a transfer's raw bytes and dropped bytes
};

// What the emulator counts from its start, exactly, however little of it the history keeps.
struct Counters {
    uint64_t received = 0; // messages: datagrams, TCP messages, serial frames
    uint64_t answers = 0;  // answers sent whole
    uint64_t naks = 0;     // commands answered with a Sony NAK (11 12) or a Louth refusal (05)
    uint64_t faults = 0;   // commands answered otherwise than by the server's own answer at once:
                           // a scripted reply, a fault at a command or a frame, a faulty default
};

// Thread-safe: the serving thread adds, tests read and wait. Observers are called on the thread
// that adds, outside the lock.
class TrafficLog {
  public:
    // The messages received and the answers sent that the history keeps: an emulator left
    // running for weeks keeps the last 500 of each; a test that reads every message of a
    // long run keeps them all (a recording, --pcap, keeps everything in a file instead).
    static constexpr size_t kDefaultHistory = 500;
    static constexpr size_t kKeepEverything = SIZE_MAX;

    // The serving thread's side: a message received (counted, kept, handed to both observers),
    // anything else that crossed a link (kept when it is an answer with a name), and the counts.
    void add(const Endpoint& from, const Received& message);
    void tap(const Endpoint& at, Direction direction, Bytes bytes, std::string text);
    void count_fault(bool fault);
    void count_nak(bool nak);
    void count_answer_sent();

    void on_receive(std::function<void(const Received&)> observer);
    void on_traffic(std::function<void(const Traffic&)> observer);

    // How many messages received, and as many answers sent, the history keeps from now on (the
    // oldest go first); kDefaultHistory until set.
    void keep_history(size_t messages);
    std::vector<Received> received() const;
    size_t count_tag(const std::string& tag) const;
    std::vector<Traffic> sent() const;
    Counters counters() const;
    // Wait until that many messages were received / answers fully sent since the start (the
    // counters, not the history); false on time-out.
    bool wait_received(size_t count, int timeout_ms) const;
    bool wait_replies_sent(size_t count, int timeout_ms) const;

  private:
    template <typename T> void keep(std::deque<T>& history, T entry); // under the lock

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    size_t history_ = kDefaultHistory;
    std::deque<Received> received_;
    std::deque<Traffic> sent_;
    Counters counters_;
    std::function<void(const Received&)> observer_;
    std::function<void(const Traffic&)> traffic_observer_;
};

} // namespace devsim
