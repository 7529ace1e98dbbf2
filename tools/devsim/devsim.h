// The video server emulator: answers Sony frames in UDP datagrams, through the TCP connection
// protocol and on a pty serial line, Louth in datagrams and on a pty, with scriptable faults, and
// records every message it gets with its name and arguments decoded.
#pragma once

#include "mgmt.h"
#include "model.h"
#include "outbox.h"
#include "serial_line.h"
#include "sony_answers.h"
#include "transfers.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <netinet/in.h>
#include <optional>
#include <string>
#include <thread>
#include <toolkit.h>
#include <unique_fd.h>
#include <vector>

namespace devsim {

class LouthServer;

// A Sony frame from CMD1, CMD2 and data, with its checksum appended.
Bytes with_checksum(Bytes bytes);

// How the emulator answers one command, framed for the link the command came on: a ComHdr
// datagram, a "s9p " message, or the bare frame. Without a frame of its own, the answer is the
// server's (SonyAnswers, LouthServer).
struct Reply {
    Bytes frame;                     // the answer frame, checksum included; empty: the server's
    bool silent = false;             // answer nothing
    int delay_ms = 0;                // answer this late
    bool corrupt_checksum = false;   // the frame's last byte plus one
    bool from_other_address = false; // UDP: answer from the emulator's second socket
    Bytes raw;                       // when not empty, exactly these bytes go on the link
    // Louth links answer from their server's model, not with `frame`; these change that answer.
    Bytes louth;                // when not empty, this Louth answer (04, 05 xx or a frame)
    bool other_unit = false;    // Louth: the answer frame's CMD1 names the next unit
    std::vector<size_t> pieces; // send in pieces of these sizes, the rest in a last one...
    int piece_gap_ms = 0;       // ...this far apart
    // Instead of answering: the server restarts (every link drops: TCP clients are closed and
    // the listener with them, datagrams and serial bytes go unheard for `restart_ms`, then it
    // serves again from the same model); or, on TCP, it closes this client's connection (on the
    // other links it stays silent).
    int restart_ms = -1;
    bool close_connection = false;

    static Reply ack() { return answer({0x10, 0x01}); }
    static Reply nak(uint8_t error_bits) { return answer({0x11, 0x12, error_bits}); }
    // An answer frame given without its checksum.
    static Reply answer(Bytes frame_without_checksum);
    static Reply silence();
    static Reply late(int ms);
    static Reply bytes(Bytes raw);
    static Reply restart(int ms);
    static Reply close();
    // Louth: exactly this answer, framed for the link (behind the datagram header on UDP).
    static Reply louth_answer(Bytes answer);

    // Whether this is the server's own answer, at once: no fault and no frame of its own.
    bool own_answer() const;
};

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

// One emulator serving any of its links from one thread. Set the links up, then start().
// Set-up failures throw std::runtime_error. Every other member may be called from any thread.
class DevSim {
  public:
    // The messages received and the answers sent that the history keeps: an emulator left
    // running for weeks keeps the last 500 of each; a test that reads every message of a
    // long run keeps them all (a recording, --pcap, keeps everything in a file instead).
    static constexpr size_t kDefaultHistory = 500;
    static constexpr size_t kKeepEverything = SIZE_MAX;

    DevSim();
    ~DevSim();
    DevSim(const DevSim&) = delete;
    DevSim& operator=(const DevSim&) = delete;

    // Binds UDP `port` (0: the system chooses) and a second socket on another port for answers
    // "from another address". Returns the bound port.
    uint16_t listen_udp(const char* address, uint16_t port);
    // Listens for TCP clients, any number at once, each served on its own. Returns the bound port.
    uint16_t listen_tcp(const char* address, uint16_t port);
    // Opens a pty pair in raw mode; returns the path of the end a controller opens.
    std::string open_pty();
    // Makes a UDP or serial link speak Louth (ComHdr_louth datagrams, or Louth frames on the pty);
    // call before start(). Every link speaks Sony until told otherwise. On UDP a datagram of type
    // 1 is always Sony and one of type 5 always Louth: the choice rules the other types.
    void set_protocol(Link link, Protocol protocol);
    // Binds the management endpoint's UDP socket; returns the bound port.
    uint16_t listen_mgmt(const char* address, uint16_t port);

    // The server's transfers on the TCP link and its management endpoint: contents and faults.
    Transfers& transfers() { return transfers_; }
    Mgmt& mgmt() { return mgmt_model_; }

    void start();
    void stop();

    // Answers to the next commands, in order; once used up, the default answer.
    void script(Reply reply);
    void set_default(Reply reply);
    Reply default_reply() const;
    // Faults that a scripted reply does not cover: `reply` answers the command-th Sony or Louth
    // command received (counted from 1 on every link together), or the first command received
    // once the position has come to `frame` from before it (while it starts past `frame`, the
    // fault waits until a command finds the position before it). Each plays once.
    void fault_at_command(size_t command, Reply reply);
    void fault_at_frame(int64_t frame, Reply reply);
    // The server restarts now, as Reply::restart says; once started.
    void restart(int ms);
    // The server's own answers, used when no scripted or default reply brings a frame.
    SonyAnswers& sony() { return sony_; }
    // The server behind every link: transport, position, clips.
    Model& model() { return model_; }
    // Called on the serving thread for every message received, after it is recorded, and for
    // everything that crosses a link; either may be set or changed at any time.
    void on_receive(std::function<void(const Received&)> observer);
    void on_traffic(std::function<void(const Traffic&)> observer);

    // How many messages received, and as many answers sent, the history keeps from now on (the
    // oldest go first); kDefaultHistory until set.
    void keep_history(size_t messages);
    // The messages received that the history keeps, oldest first; those with this TCP tag.
    std::vector<Received> received() const;
    size_t count_tag(const std::string& tag) const;
    // The answers sent that the history keeps, oldest first, as on_traffic gets them (each
    // datagram on UDP; on TCP and the serial line the whole answer), those with a name only: a
    // transfer's raw bytes are not kept.
    std::vector<Traffic> sent() const;
    Counters counters() const;
    // Wait until that many messages were received / answers fully sent since the start (the
    // counters, not the history); false on time-out.
    bool wait_received(size_t count, int timeout_ms) const;
    bool wait_replies_sent(size_t count, int timeout_ms) const;

    uint16_t udp_port() const { return udp_port_; }
    uint16_t udp_other_port() const { return udp_other_port_; }
    uint16_t tcp_port() const { return tcp_port_; }
    const std::string& pty_path() const { return pty_path_; }
    uint16_t mgmt_port() const { return mgmt_port_; }

  private:
    using Clock = std::chrono::steady_clock;
    struct TcpClient {
        UniqueFd fd;
        sockaddr_in peer;
        Bytes buffer;
    };

    // The serving loop and what it does with a message (devsim.cpp).
    void serve();
    void wake(char why);
    void record(const Endpoint& from, Received message);
    void tap(const Endpoint& at, Direction direction, Bytes bytes, std::string text);
    template <typename T> void keep(std::deque<T>& history, T entry); // under the lock
    Reply next_reply();
    void count_answer(bool nak);
    // A fault that answers instead of the server: true when it did.
    bool instead_of_answer(const Endpoint& from, const Reply& reply);
    void answer_sony(const Endpoint& from, const Bytes& frame);
    void answer_louth(const Endpoint& from, const Bytes& frame);
    void send_reply(const Endpoint& to, const Reply& reply, Bytes bytes, std::string text);
    void queue(const Endpoint& to, std::vector<Piece> pieces, std::string text);

    // The links (links.cpp): each one's receiving, the sending, and a restart's dropping of them.
    Endpoint udp_endpoint(int fd, const sockaddr_in& peer) const;
    void receive_udp(int fd);
    void accept_tcp();
    void receive_tcp(unsigned id);
    void close_tcp_client(unsigned id);
    Endpoint serial_endpoint() const;
    void receive_serial();
    bool serial_quiet(Clock::time_point now);
    void take_serial_frames();
    void receive_mgmt();
    void send(const Outbox::Outgoing& out);
    void go_down(int ms);
    bool come_back();

    Model model_; // before the answers that keep a reference to it
    UniqueFd wake_read_, wake_write_;
    UniqueFd udp_, udp_other_, tcp_listener_, pty_master_, pty_slave_, mgmt_;
    sockaddr_in udp_address_{}, udp_other_address_{}, tcp_address_{}, mgmt_address_{};
    uint16_t udp_port_ = 0, udp_other_port_ = 0, tcp_port_ = 0, mgmt_port_ = 0;
    std::map<unsigned, TcpClient> tcp_clients_; // serving thread only
    unsigned next_tcp_ = 0;
    std::string pty_path_;
    SerialLine serial_;
    Clock::time_point serial_last_byte_{};
    static constexpr auto kInterByteGap = std::chrono::milliseconds(10);
    bool louth_udp_ = false, louth_serial_ = false;
    std::unique_ptr<LouthServer> louth_; // serving thread only
    Outbox outbox_;                      // serving thread only
    bool down_ = false;                  // a restart: serving thread only...
    Clock::time_point down_until_{};     // ...until then
    std::thread thread_;

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    struct Fault {
        size_t command; // 0: at `frame`
        int64_t frame;
        Reply reply;
        bool armed; // at `frame`: the position was seen before it
    };
    std::deque<Reply> script_;
    std::vector<Fault> faults_;
    size_t commands_ = 0; // Sony and Louth commands answered
    Reply default_;
    std::optional<int> restart_asked_;
    size_t history_ = kDefaultHistory;
    std::deque<Received> received_;
    std::deque<Traffic> sent_;
    Counters counters_;
    std::function<void(const Received&)> observer_;
    std::function<void(const Traffic&)> traffic_observer_;
    SonyAnswers sony_{model_};

    Transfers transfers_{model_};
    Mgmt mgmt_model_{model_};
};

using ::hex; // "43 BF F0 04 0C 02"

} // namespace devsim
