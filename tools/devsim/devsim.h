// The video server emulator: answers Sony frames in UDP datagrams, through the TCP connection
// protocol and on a pty serial line, with scriptable faults, and records every message it gets.
#pragma once

#include "mgmt.h"
#include "model.h"
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
#include <string>
#include <thread>
#include <toolkit.h>
#include <vector>

namespace devsim {

using Bytes = std::vector<uint8_t>;

enum class Link { udp, tcp, serial };
// What a link speaks: Sony frames (every link) or Louth (UDP and serial).
enum class Protocol { sony, louth };

class LouthServer;

// A Sony frame from CMD1, CMD2 and data, with its checksum appended.
Bytes with_checksum(Bytes bytes);

// How the emulator answers one command, framed for the link the command came on: a ComHdr
// datagram, a "s9p " message, or the bare frame. Without a frame of its own, the answer is the
// server's (SonyAnswers): an ACK to a command, the sense's value to a sense.
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

    static Reply ack() { return answer({0x10, 0x01}); }
    static Reply nak(uint8_t error_bits) { return answer({0x11, 0x12, error_bits}); }
    // An answer frame given without its checksum.
    static Reply answer(Bytes frame_without_checksum);
    static Reply silence();
    static Reply late(int ms);
    static Reply bytes(Bytes raw);
    // Louth: exactly this answer, framed for the link (behind the datagram header on UDP).
    static Reply louth_answer(Bytes answer);
};

// One message received, with its exact bytes.
struct Received {
    Link link;
    Bytes wire;            // the whole datagram, TCP message (header and frame) or serial frame
    Bytes frame;           // the Sony frame it carries; empty for other TCP messages
    std::string tag;       // TCP: the message's four-character tag
    uint16_t local_port{}; // UDP and TCP: the emulator's port it arrived on
    sockaddr_in peer{};    // UDP and TCP: the sender
};

// One emulator serving any of its links from one thread. Set the links up, then start().
// Set-up failures throw std::runtime_error. Every other member may be called from any thread.
class DevSim {
  public:
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

    // Answers to the next commands, in order; once used up, the default answers.
    void script(Reply reply);
    void set_default(Reply reply);
    // Faults that a scripted reply does not cover: `reply` answers the command-th Sony or Louth
    // command received (counted from 1 on every link together), or the first command received
    // once the position has come to `frame` from before it (while it starts past `frame`, the
    // fault waits until a command finds the position before it). Each plays once.
    void fault_at_command(size_t command, Reply reply);
    void fault_at_frame(int64_t frame, Reply reply);
    // The server's own answers, used when no scripted or default reply brings a frame.
    SonyAnswers& sony() { return sony_; }
    // The server behind every link: transport, position, clips.
    Model& model() { return model_; }
    // Called on the serving thread for every message received, after it is recorded.
    void on_receive(std::function<void(const Received&)> observer);

    std::vector<Received> received() const;
    size_t count_tag(const std::string& tag) const;
    // Wait until that many messages were received / answers fully sent; false on time-out.
    bool wait_received(size_t count, int timeout_ms) const;
    bool wait_replies_sent(size_t count, int timeout_ms) const;

    uint16_t udp_port() const { return udp_port_; }
    uint16_t udp_other_port() const { return udp_other_port_; }
    uint16_t tcp_port() const { return tcp_port_; }
    const std::string& pty_path() const { return pty_path_; }
    uint16_t mgmt_port() const { return mgmt_port_; }

  private:
    using Clock = std::chrono::steady_clock;
    struct Outgoing {
        Clock::time_point due;
        Link link;
        int fd;              // UDP: the socket to send from
        sockaddr_in to;      // UDP: the destination
        unsigned tcp_client; // TCP: the client it is for; dropped if that one went away
        Bytes bytes;
        bool last_piece;
    };

    void serve();
    int poll_timeout_ms() const;
    void receive_udp(int fd, uint16_t local_port);
    struct TcpClient {
        int fd;
        sockaddr_in peer;
        Bytes buffer;
    };
    void accept_tcp();
    void receive_tcp(unsigned id);
    void receive_serial();
    void close_tcp_client(unsigned id);
    void record(Received message);
    void answer(Link link, int fd, const sockaddr_in& to);
    void answer_louth(Link link, int fd, const sockaddr_in& to, const Bytes& command);
    void queue(Link link, int fd, const sockaddr_in& to, const Reply& reply, const Bytes& bytes);
    Reply next_reply();
    void send_due();
    void send_now(const Outgoing& out);
    void receive_mgmt();
    // Queues a model's answer for the serving thread to send piece by piece.
    void queue(Link link, int fd, const sockaddr_in& to, std::vector<Piece> pieces);

    Model model_; // before the answers that keep a reference to it
    int wake_[2] = {-1, -1};
    int udp_ = -1, udp_other_ = -1, tcp_listener_ = -1;
    int pty_master_ = -1, pty_slave_ = -1;
    uint16_t udp_port_ = 0, udp_other_port_ = 0, tcp_port_ = 0;
    std::map<unsigned, TcpClient> tcp_clients_; // serving thread only
    unsigned next_tcp_ = 0, tcp_answering_ = 0; // the next client's number; the one answered
    std::string pty_path_;
    Bytes serial_buffer_;
    Clock::time_point serial_last_byte_{};
    static constexpr auto kInterByteGap = std::chrono::milliseconds(10);
    bool louth_udp_ = false, louth_serial_ = false;
    std::unique_ptr<LouthServer> louth_; // serving thread only
    std::deque<Outgoing> outbox_;        // serving thread only
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
    std::vector<Received> received_;
    size_t replies_sent_ = 0;
    std::function<void(const Received&)> observer_;
    SonyAnswers sony_{model_};

    int mgmt_ = -1;
    uint16_t mgmt_port_ = 0;
    Transfers transfers_{model_};
    Mgmt mgmt_model_{model_};
};

using ::hex; // "43 BF F0 04 0C 02"

} // namespace devsim
