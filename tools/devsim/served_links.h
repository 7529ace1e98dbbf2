// The links the emulator serves: its UDP sockets, TCP listener and clients, pty and management
// socket; the serving loop that reads what comes on them and sends what is due; and a restart's
// dropping and taking up of them. What a message means is the server's (DevSim): the links hand
// it every message whole and send what it queues.
#pragma once

#include "outbox.h"
#include "serial_line.h"
#include "traffic_log.h"

#include <chrono>
#include <map>
#include <mutex>
#include <netinet/in.h>
#include <optional>
#include <string>
#include <unique_fd.h>

namespace devsim {

class ServedLinks {
  public:
    // What the links hand over, on the serving thread.
    class Server {
      public:
        // A message received, before anything else is done with it.
        virtual void record(const Endpoint& from, Received message) = 0;
        // A Sony or a Louth command (`from.protocol` says which) to answer.
        virtual void command(const Endpoint& from, const Bytes& frame) = 0;
        // A connection-protocol message that carries no frame, or a management datagram.
        virtual void request(const Endpoint& from, const Bytes& wire) = 0;
        // Takes what belongs to an accepted upload off the front of a TCP client's stream.
        virtual void take_upload(const Endpoint& from, Bytes& stream) = 0;
        // A TCP client is gone; the server restarts (every client is gone too).
        virtual void closed(unsigned client) = 0;
        virtual void restarting() = 0;

      protected:
        ~Server() = default;
    };

    // Every byte read and written passes `log` (record() first for messages).
    ServedLinks(Server& server, TrafficLog& log);

    // Set-up, before serve(); failures throw std::runtime_error. As DevSim's of the same names.
    uint16_t listen_udp(const char* address, uint16_t port);
    uint16_t listen_tcp(const char* address, uint16_t port);
    std::string open_pty();
    uint16_t listen_mgmt(const char* address, uint16_t port);
    void set_protocol(Link link, Protocol protocol);

    // Serves until stop() is called from another thread.
    void serve();
    // Thread-safe: ends serve(); the server restarts now, as Reply::restart says.
    void stop();
    void restart(int ms);

    // On the serving thread: the answer's pieces for `to`, sent when due.
    void queue(const Endpoint& to, std::vector<Piece> pieces, std::string text);
    // The same peer reached from the emulator's second UDP socket.
    Endpoint from_other_address(Endpoint to) const;
    void close_client(unsigned id);
    void go_down(int ms);

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

    void wake(char why);
    bool take_wake(); // false: stop
    int poll_timeout(Clock::time_point now) const;
    Endpoint udp_endpoint(int fd, const sockaddr_in& peer) const;
    void receive_udp(int fd);
    void accept_tcp();
    void receive_tcp(unsigned id);
    void take_upload(const Endpoint& from, Bytes& stream);
    void take_tcp_messages(const Endpoint& from);
    Endpoint serial_endpoint() const;
    void receive_serial();
    bool serial_quiet(Clock::time_point now);
    void take_serial_frames();
    void receive_mgmt();
    void send(const Outbox::Outgoing& out);
    bool come_back();

    Server& server_;
    TrafficLog& log_;
    UniqueFd wake_read_, wake_write_;
    UniqueFd udp_, udp_other_, tcp_listener_, pty_master_, pty_slave_, mgmt_;
    sockaddr_in udp_address_{}, udp_other_address_{}, tcp_address_{}, mgmt_address_{};
    uint16_t udp_port_ = 0, udp_other_port_ = 0, tcp_port_ = 0, mgmt_port_ = 0;
    std::map<unsigned, TcpClient> tcp_clients_; // serving thread only, as everything below
    unsigned next_tcp_ = 0;
    std::string pty_path_;
    SerialLine serial_;
    Clock::time_point serial_last_byte_{};
    static constexpr auto kInterByteGap = std::chrono::milliseconds(10);
    bool louth_udp_ = false, louth_serial_ = false;
    Outbox outbox_;
    bool down_ = false;              // a restart...
    Clock::time_point down_until_{}; // ...until then

    std::mutex mutex_; // for a restart asked from another thread
    std::optional<int> restart_asked_;
};

} // namespace devsim
