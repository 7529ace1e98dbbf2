// The emulator's links: setting each up, the serving loop, reading what comes on each, sending
// what the outbox hands over, and a restart's dropping and taking up of them. Every byte read and
// written passes the server's record() or the log's tap(), where a recorder hooks in.
#include "served_links.h"

#include "wire.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>
#include <utility>

namespace devsim {

namespace {

[[noreturn]] void fail(const std::string& what) {
    throw std::runtime_error(what + ": " + strerror(errno));
}

sockaddr_in ipv4(const char* address, uint16_t port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    if (inet_pton(AF_INET, address, &a.sin_addr) != 1) {
        errno = EINVAL;
        fail(std::string("address ") + address);
    }
    return a;
}

sockaddr_in bound_address(int fd) {
    sockaddr_in a{};
    socklen_t length = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &length);
    return a;
}

// A socket bound to `address`; an invalid one, errno set, when it cannot be.
UniqueFd try_bound_socket(int type, const sockaddr_in& address) {
    UniqueFd fd(socket(AF_INET, type | SOCK_CLOEXEC, 0));
    if (!fd.valid())
        return fd;
    // A listener may take its port back while old connections wait out their time; a datagram
    // port in use is refused, never shared.
    int on = 1;
    if (type == SOCK_STREAM)
        setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        (type == SOCK_STREAM && listen(fd.get(), 16) != 0)) {
        const int error = errno;
        fd.reset();
        errno = error;
    }
    return fd;
}

UniqueFd bound_socket(int type, const sockaddr_in& address) {
    UniqueFd fd = try_bound_socket(type, address);
    if (!fd.valid())
        fail("bind");
    return fd;
}

// The first `n` bytes of `buffer`, taken off it.
Bytes take(Bytes& buffer, size_t n) {
    Bytes front(buffer.begin(), buffer.begin() + static_cast<long>(n));
    buffer.erase(buffer.begin(), buffer.begin() + static_cast<long>(n));
    return front;
}

} // namespace

ServedLinks::ServedLinks(Server& server, TrafficLog& log) : server_(server), log_(log) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        fail("pipe");
    wake_read_.reset(ends[0]);
    wake_write_.reset(ends[1]);
}

void ServedLinks::set_protocol(Link link, Protocol protocol) {
    if (link == Link::tcp)
        throw std::runtime_error("the TCP link carries no Louth");
    if (protocol != Protocol::sony && protocol != Protocol::louth)
        throw std::runtime_error("a UDP or serial link speaks Sony or Louth");
    (link == Link::udp ? louth_udp_ : louth_serial_) = protocol == Protocol::louth;
}

uint16_t ServedLinks::listen_udp(const char* address, uint16_t port) {
    udp_ = bound_socket(SOCK_DGRAM, ipv4(address, port));
    udp_other_ = bound_socket(SOCK_DGRAM, ipv4(address, 0));
    udp_address_ = bound_address(udp_.get());
    udp_other_address_ = bound_address(udp_other_.get());
    udp_port_ = ntohs(udp_address_.sin_port);
    udp_other_port_ = ntohs(udp_other_address_.sin_port);
    return udp_port_;
}

uint16_t ServedLinks::listen_tcp(const char* address, uint16_t port) {
    tcp_listener_ = bound_socket(SOCK_STREAM, ipv4(address, port));
    tcp_address_ = bound_address(tcp_listener_.get());
    tcp_port_ = ntohs(tcp_address_.sin_port);
    return tcp_port_;
}

uint16_t ServedLinks::listen_mgmt(const char* address, uint16_t port) {
    mgmt_ = bound_socket(SOCK_DGRAM, ipv4(address, port));
    mgmt_address_ = bound_address(mgmt_.get());
    mgmt_port_ = ntohs(mgmt_address_.sin_port);
    return mgmt_port_;
}

std::string ServedLinks::open_pty() {
    pty_master_.reset(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (!pty_master_.valid() || grantpt(pty_master_.get()) != 0 || unlockpt(pty_master_.get()) != 0)
        fail("posix_openpt");
    pty_path_ = ptsname(pty_master_.get());
    // Holding the controller's end open keeps the master from reading as hung up while no
    // controller is connected; raw mode keeps the line discipline from echoing or translating.
    pty_slave_.reset(open(pty_path_.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (!pty_slave_.valid())
        fail("open " + pty_path_);
    termios raw{};
    tcgetattr(pty_slave_.get(), &raw);
    cfmakeraw(&raw);
    tcsetattr(pty_slave_.get(), TCSANOW, &raw);
    return pty_path_;
}

void ServedLinks::wake(char why) {
    (void)!write(wake_write_.get(), &why, 1);
}

void ServedLinks::stop() {
    wake('q');
}

void ServedLinks::restart(int ms) {
    {
        std::lock_guard lock(mutex_);
        restart_asked_ = ms;
    }
    wake('r');
}

// A wake-up read: a restart asked is done now; false when it asks to stop.
bool ServedLinks::take_wake() {
    char why = 'q';
    if (read(wake_read_.get(), &why, 1) != 1 || why == 'q')
        return false;
    std::unique_lock lock(mutex_);
    const auto ms = std::exchange(restart_asked_, std::nullopt);
    lock.unlock();
    if (ms)
        go_down(*ms);
    return true;
}

// Until the next answer is due, a serial frame begun is given up, or a restart ends.
int ServedLinks::poll_timeout(Clock::time_point now) const {
    if (down_) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(down_until_ - now);
        return static_cast<int>(std::max<long>(0, left.count()));
    }
    int timeout = outbox_.wait_ms(now);
    if (serial_.holds()) {
        const auto gap_ends =
            std::chrono::ceil<std::chrono::milliseconds>(serial_last_byte_ + kInterByteGap - now);
        const int ms = static_cast<int>(std::max<long>(1, gap_ends.count() + 1));
        timeout = timeout < 0 ? ms : std::min(timeout, ms);
    }
    return timeout;
}

void ServedLinks::serve() {
    std::vector<pollfd> fds;
    std::vector<unsigned> clients; // the TCP client of each descriptor after the fixed ones
    for (;;) {
        const auto now = Clock::now();
        if (down_ && now >= down_until_ && !come_back())
            down_until_ = now + std::chrono::milliseconds(100); // the port is not free yet
        fds = {{wake_read_.get(), POLLIN, 0},  {udp_.get(), POLLIN, 0},
               {udp_other_.get(), POLLIN, 0},  {tcp_listener_.get(), POLLIN, 0},
               {pty_master_.get(), POLLIN, 0}, {mgmt_.get(), POLLIN, 0}};
        const size_t fixed = fds.size();
        clients.clear();
        for (const auto& [id, client] : tcp_clients_) {
            fds.push_back({client.fd.get(), POLLIN, 0});
            clients.push_back(id);
        }
        // poll() ignores negative descriptors, so links that are not set up cost nothing.
        if (poll(fds.data(), fds.size(), poll_timeout(now)) < 0 && errno != EINTR)
            return;
        if (fds[0].revents && !take_wake())
            return;
        if (fds[1].revents)
            receive_udp(udp_.get());
        if (fds[2].revents)
            receive_udp(udp_other_.get());
        if (fds[3].revents)
            accept_tcp();
        if (fds[4].revents)
            receive_serial();
        else if (serial_quiet(Clock::now()))
            take_serial_frames();
        if (fds[5].revents)
            receive_mgmt();
        for (size_t i = fixed; i < fds.size(); ++i)
            if (fds[i].revents)
                receive_tcp(clients[i - fixed]);
        outbox_.send_due(Clock::now(), [this](const Outbox::Outgoing& out) { send(out); });
    }
}

void ServedLinks::queue(const Endpoint& to, std::vector<Piece> pieces, std::string text) {
    outbox_.add(to, std::move(pieces), Clock::now(), std::move(text));
    outbox_.send_due(Clock::now(), [this](const Outbox::Outgoing& out) { send(out); });
}

Endpoint ServedLinks::from_other_address(Endpoint to) const {
    if (to.link == Link::udp) {
        to.fd = udp_other_.get();
        to.local = udp_other_address_;
    }
    return to;
}

Endpoint ServedLinks::udp_endpoint(int fd, const sockaddr_in& peer) const {
    const sockaddr_in& local = fd == udp_.get() ? udp_address_ : udp_other_address_;
    return {Link::udp, louth_udp_ ? Protocol::louth : Protocol::sony, fd, local, peer, 0};
}

void ServedLinks::receive_udp(int fd) {
    uint8_t datagram[2048];
    sockaddr_in from{};
    socklen_t length = sizeof from;
    ssize_t n =
        recvfrom(fd, datagram, sizeof datagram, 0, reinterpret_cast<sockaddr*>(&from), &length);
    if (n < 0 || down_)
        return;
    Endpoint endpoint = udp_endpoint(fd, from);
    // The header's type tells what a datagram carries (1 Sony, 5 Louth); any other is taken as
    // the link's protocol. So one UDP link serves controllers of both.
    const uint16_t type = n >= 2 ? be16(datagram) : 0;
    if (type == kSonyDatagram || type == kLouthDatagram)
        endpoint.protocol = type == kLouthDatagram ? Protocol::louth : Protocol::sony;
    Received message{Link::udp,
                     Bytes(datagram, datagram + n),
                     {},
                     "",
                     ntohs(endpoint.local.sin_port),
                     from,
                     endpoint.protocol,
                     ""};
    if (static_cast<size_t>(n) > kDatagramHeader)
        message.frame.assign(datagram + kDatagramHeader, datagram + n);
    const Bytes frame = message.frame;
    server_.record(endpoint, std::move(message));
    server_.command(endpoint, frame);
}

void ServedLinks::accept_tcp() {
    sockaddr_in peer{};
    socklen_t length = sizeof peer;
    UniqueFd client(
        accept4(tcp_listener_.get(), reinterpret_cast<sockaddr*>(&peer), &length, SOCK_CLOEXEC));
    if (client.valid())
        tcp_clients_[++next_tcp_] = {std::move(client), peer, {}};
}

void ServedLinks::close_client(unsigned id) {
    tcp_clients_.erase(id);
    server_.closed(id);
}

void ServedLinks::receive_tcp(unsigned id) {
    auto found = tcp_clients_.find(id);
    if (found == tcp_clients_.end())
        return;
    uint8_t chunk[2048];
    ssize_t n = recv(found->second.fd.get(), chunk, sizeof chunk, 0);
    if (n <= 0) {
        close_client(id);
        return;
    }
    const Endpoint endpoint{Link::tcp,    Protocol::connection, -1,
                            tcp_address_, found->second.peer,   id};
    Bytes& buffer = found->second.buffer;
    buffer.insert(buffer.end(), chunk, chunk + n);
    take_upload(endpoint, buffer);
    take_tcp_messages(endpoint);
}

// An accepted upload's bytes are not messages: the server takes them, the log sees them.
void ServedLinks::take_upload(const Endpoint& from, Bytes& stream) {
    const Bytes before = stream;
    server_.take_upload(from, stream);
    const auto taken = static_cast<long>(before.size() - stream.size());
    if (taken > 0)
        log_.tap(from, Direction::received, Bytes(before.begin(), before.begin() + taken), "");
}

// Messages: a 12-byte header; "s9p " carries arg1 frame bytes after it, the others nothing.
// An answer may close this client (a fault, a restart): it is looked up again each time.
void ServedLinks::take_tcp_messages(const Endpoint& from) {
    const unsigned id = from.tcp_client;
    for (auto client = tcp_clients_.find(id); client != tcp_clients_.end();
         client = tcp_clients_.find(id)) {
        Bytes& stream = client->second.buffer;
        if (stream.size() < kStreamHeader)
            return;
        const std::string tag(stream.begin(), stream.begin() + 4);
        const size_t body = tag == "s9p " ? be32(stream.data() + 4) : 0;
        const bool too_long = body > kMaxSonyFrame; // no Sony frame is that long
        if (!too_long && stream.size() < kStreamHeader + body)
            return;
        // A header announcing too long a frame is recorded, and the client dropped as a server
        // would.
        const Bytes wire = take(stream, kStreamHeader + (too_long ? 0 : body));
        const Bytes frame(wire.begin() + kStreamHeader, wire.end());
        server_.record(
            from, {Link::tcp, wire, frame, tag, tcp_port_, from.peer, Protocol::connection, ""});
        if (too_long) {
            close_client(id);
        } else if (tag == "s9p ") {
            server_.command(from, frame);
        } else {
            server_.request(from, wire);
            if (auto still = tcp_clients_.find(id); still != tcp_clients_.end())
                take_upload(from, still->second.buffer);
        }
    }
}

Endpoint ServedLinks::serial_endpoint() const {
    return {Link::serial,
            louth_serial_ ? Protocol::louth : Protocol::sony,
            pty_master_.get(),
            {},
            {},
            0};
}

void ServedLinks::receive_serial() {
    uint8_t chunk[256];
    ssize_t n = read(pty_master_.get(), chunk, sizeof chunk);
    if (n <= 0 || down_)
        return;
    if (serial_quiet(Clock::now())) // what came before the silence, first
        take_serial_frames();
    serial_last_byte_ = Clock::now();
    serial_.add(chunk, static_cast<size_t>(n));
    take_serial_frames();
}

// Bytes that waited longer than a deck's inter-byte gap began a frame that never came whole: a
// deck's receiver gives up on it and starts afresh with the next byte.
bool ServedLinks::serial_quiet(Clock::time_point now) {
    if (!serial_.holds() || now - serial_last_byte_ <= kInterByteGap)
        return false;
    serial_.quiet();
    return true;
}

void ServedLinks::take_serial_frames() {
    const Endpoint endpoint = serial_endpoint();
    Bytes taken;
    for (LineStep step; (step = serial_.next(louth_serial_, taken)).kind != LineStep::wait;) {
        // Bytes dropped are no frame, but they crossed the line: a recorder sees them too.
        if (step.kind == LineStep::garbage) {
            log_.tap(endpoint, Direction::received, std::move(taken), "");
            continue;
        }
        // A valid frame, or a bad one answered once (its NAK, or a Louth refusal).
        server_.record(endpoint, {Link::serial, taken, taken, "", 0, {}, endpoint.protocol, ""});
        server_.command(endpoint, taken);
    }
}

void ServedLinks::receive_mgmt() {
    uint8_t datagram[2048];
    sockaddr_in from{};
    socklen_t length = sizeof from;
    ssize_t n = recvfrom(mgmt_.get(), datagram, sizeof datagram, 0,
                         reinterpret_cast<sockaddr*>(&from), &length);
    if (n < 0 || down_)
        return;
    const Endpoint endpoint{Link::udp, Protocol::management, mgmt_.get(), mgmt_address_, from, 0};
    const Bytes wire(datagram, datagram + n);
    server_.record(endpoint, {Link::udp, wire, {}, "", mgmt_port_, from, Protocol::management, ""});
    server_.request(endpoint, wire);
}

void ServedLinks::send(const Outbox::Outgoing& out) {
    switch (out.to.link) {
    case Link::udp:
        sendto(out.to.fd, out.bytes.data(), out.bytes.size(), 0,
               reinterpret_cast<const sockaddr*>(&out.to.peer), sizeof out.to.peer);
        log_.tap(out.to, Direction::sent, out.bytes, out.last ? out.text : "");
        break;
    case Link::tcp:
        if (auto client = tcp_clients_.find(out.to.tcp_client); client != tcp_clients_.end())
            ::send(client->second.fd.get(), out.bytes.data(), out.bytes.size(), MSG_NOSIGNAL);
        else
            return;
        break;
    case Link::serial:
        (void)!write(pty_master_.get(), out.bytes.data(), out.bytes.size());
        break;
    }
    if (!out.last)
        return;
    if (out.to.link != Link::udp)
        log_.tap(out.to, Direction::sent, out.whole, out.text);
    log_.count_answer_sent();
}

// A restart: what the server's process held goes (its TCP connections and listener, the answers
// not yet sent, a serial frame half read, the Louth ports opened); the model stays.
void ServedLinks::go_down(int ms) {
    for (const auto& [id, client] : tcp_clients_)
        server_.closed(id);
    tcp_clients_.clear();
    tcp_listener_.reset();
    outbox_.clear();
    serial_.clear();
    server_.restarting();
    down_ = true;
    down_until_ = Clock::now() + std::chrono::milliseconds(ms);
}

// Up again, listening where it listened; false while that port is not free yet.
bool ServedLinks::come_back() {
    if (tcp_port_ != 0 && !tcp_listener_.valid()) {
        tcp_listener_ = try_bound_socket(SOCK_STREAM, tcp_address_);
        if (!tcp_listener_.valid())
            return false;
    }
    down_ = false;
    return true;
}

} // namespace devsim
