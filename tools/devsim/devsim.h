// The video server emulator: answers Sony frames in UDP datagrams, through the TCP connection
// protocol and on a pty serial line, Louth in datagrams and on a pty, with scriptable faults, and
// records every message it gets with its name and arguments decoded.
#pragma once

#include "faults.h"
#include "mgmt.h"
#include "model.h"
#include "served_links.h"
#include "sony_answers.h"
#include "traffic_log.h"
#include "transfers.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <toolkit.h>
#include <vector>

namespace devsim {

class LouthServer;

// One emulator serving any of its links from one thread: the server (its model and the answers
// of each protocol) behind the links, the scripted faults and the log of traffic. Set the links
// up, then start(). Set-up failures throw std::runtime_error. Every other member may be called
// from any thread.
class DevSim : private ServedLinks::Server {
  public:
    static constexpr size_t kDefaultHistory = TrafficLog::kDefaultHistory;
    static constexpr size_t kKeepEverything = TrafficLog::kKeepEverything;

    DevSim();
    ~DevSim();
    DevSim(const DevSim&) = delete;
    DevSim& operator=(const DevSim&) = delete;

    // Binds UDP `port` (0: the system chooses) and a second socket on another port for answers
    // "from another address". Returns the bound port.
    uint16_t listen_udp(const char* address, uint16_t port) {
        return links_.listen_udp(address, port);
    }
    // Listens for TCP clients, any number at once, each served on its own. Returns the bound port.
    uint16_t listen_tcp(const char* address, uint16_t port) {
        return links_.listen_tcp(address, port);
    }
    // Opens a pty pair in raw mode; returns the path of the end a controller opens.
    std::string open_pty() { return links_.open_pty(); }
    // Makes a UDP or serial link speak Louth (ComHdr_louth datagrams, or Louth frames on the pty);
    // call before start(). Every link speaks Sony until told otherwise. On UDP a datagram of type
    // 1 is always Sony and one of type 5 always Louth: the choice rules the other types.
    void set_protocol(Link link, Protocol protocol) { links_.set_protocol(link, protocol); }
    // Binds the management endpoint's UDP socket; returns the bound port.
    uint16_t listen_mgmt(const char* address, uint16_t port) {
        return links_.listen_mgmt(address, port);
    }

    void start();
    void stop();

    // The server behind every link: transport, position, clips; its own Sony answers, used when
    // no scripted or default reply brings a frame; its transfers on the TCP link and its
    // management endpoint: contents and faults.
    Model& model() { return model_; }
    SonyAnswers& sony() { return sony_; }
    Transfers& transfers() { return transfers_; }
    Mgmt& mgmt() { return mgmt_; }

    // Answers to the next commands, in order; once used up, the default answer.
    void script(Reply reply) { faults_.script(std::move(reply)); }
    void set_default(Reply reply) { faults_.set_default(std::move(reply)); }
    Reply default_reply() const { return faults_.default_reply(); }
    // Faults that a scripted reply does not cover: `reply` answers the command-th Sony or Louth
    // command received (counted from 1 on every link together), or the first command received
    // once the position has come to `frame` from before it (while it starts past `frame`, the
    // fault waits until a command finds the position before it). Each plays once.
    void fault_at_command(size_t command, Reply reply) {
        faults_.at_command(command, std::move(reply));
    }
    void fault_at_frame(int64_t frame, Reply reply) {
        faults_.at_frame(frame, model_.position(), std::move(reply));
    }
    // The server restarts now, as Reply::restart says; once started.
    void restart(int ms) { links_.restart(ms); }

    // Called on the serving thread for every message received, after it is recorded, and for
    // everything that crosses a link; either may be set or changed at any time.
    void on_receive(std::function<void(const Received&)> observer) {
        log_.on_receive(std::move(observer));
    }
    void on_traffic(std::function<void(const Traffic&)> observer) {
        log_.on_traffic(std::move(observer));
    }
    // How many messages received, and as many answers sent, the history keeps from now on (the
    // oldest go first); kDefaultHistory until set.
    void keep_history(size_t messages) { log_.keep_history(messages); }
    // The messages received that the history keeps, oldest first; those with this TCP tag.
    std::vector<Received> received() const { return log_.received(); }
    size_t count_tag(const std::string& tag) const { return log_.count_tag(tag); }
    // The answers sent that the history keeps, oldest first, as on_traffic gets them (each
    // datagram on UDP; on TCP and the serial line the whole answer), those with a name only: a
    // transfer's raw bytes are not kept.
    std::vector<Traffic> sent() const { return log_.sent(); }
    Counters counters() const { return log_.counters(); }
    // Wait until that many messages were received / answers fully sent since the start (the
    // counters, not the history); false on time-out.
    bool wait_received(size_t count, int timeout_ms) const {
        return log_.wait_received(count, timeout_ms);
    }
    bool wait_replies_sent(size_t count, int timeout_ms) const {
        return log_.wait_replies_sent(count, timeout_ms);
    }

    uint16_t udp_port() const { return links_.udp_port(); }
    uint16_t udp_other_port() const { return links_.udp_other_port(); }
    uint16_t tcp_port() const { return links_.tcp_port(); }
    const std::string& pty_path() const { return links_.pty_path(); }
    uint16_t mgmt_port() const { return links_.mgmt_port(); }

  private:
    // What the links hand over (devsim.cpp), on the serving thread.
    void record(const Endpoint& from, Received message) override;
    void command(const Endpoint& from, const Bytes& frame) override;
    void request(const Endpoint& from, const Bytes& wire) override;
    void take_upload(const Endpoint& from, Bytes& stream) override;
    void closed(unsigned client) override;
    void restarting() override;

    Reply next_reply();
    // A fault that answers instead of the server: true when it did.
    bool instead_of_answer(const Endpoint& from, const Reply& reply);
    void answer_sony(const Endpoint& from, const Bytes& frame);
    void answer_louth(const Endpoint& from, const Bytes& frame);
    void send_reply(const Endpoint& to, const Reply& reply, Bytes bytes, std::string text);

    Model model_; // before the parts of the server that keep a reference to it
    SonyAnswers sony_{model_};
    std::unique_ptr<LouthServer> louth_; // serving thread only
    Transfers transfers_{model_};
    Mgmt mgmt_{model_};
    Faults faults_;
    TrafficLog log_;
    ServedLinks links_{*this, log_};
    std::thread thread_;
};

using ::hex; // "43 BF F0 04 0C 02"

} // namespace devsim
