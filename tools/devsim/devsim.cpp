// The video server emulator's serving thread: reads each link, records what came, and answers
// each Sony command with the next scripted reply, framed for its link and sent when it is due.
#include "devsim.h"

#include "louth.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

namespace devsim {

namespace {

constexpr size_t kHeader = 12; // connection protocol header
constexpr size_t kComHdr = 10; // datagram header
constexpr size_t kMaxFrame = 18;

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

uint16_t bound_port(int fd) {
    sockaddr_in a{};
    socklen_t length = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &length);
    return ntohs(a.sin_port);
}

int bound_socket(int type, const sockaddr_in& address) {
    int fd = socket(AF_INET, type, 0);
    if (fd < 0)
        fail("socket");
    // A listener may take its port back while old connections wait out their time; a datagram
    // port in use is refused, never shared.
    int on = 1;
    if (type == SOCK_STREAM)
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        int error = errno;
        close(fd);
        errno = error;
        fail("bind");
    }
    return fd;
}

void close_fd(int& fd) {
    if (fd >= 0)
        close(fd);
    fd = -1;
}

uint32_t be32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
           static_cast<uint32_t>(p[2]) << 8 | p[3];
}

void append_be32(Bytes& out, uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8)
        out.push_back(static_cast<uint8_t>(value >> shift));
}

// The answer frame as it goes on `link`.
Bytes framed(Link link, const Bytes& frame) {
    Bytes out;
    switch (link) {
    case Link::udp:
        out = {0x00,
               0x01,
               static_cast<uint8_t>(frame.size() >> 8),
               static_cast<uint8_t>(frame.size()),
               0,
               0,
               0,
               0,
               0,
               0};
        break;
    case Link::tcp:
        out = {'s', '9', 'p', ' '};
        append_be32(out, static_cast<uint32_t>(frame.size()));
        append_be32(out, 0);
        break;
    case Link::serial:
        break;
    }
    out.insert(out.end(), frame.begin(), frame.end());
    return out;
}

// `bytes` cut into the sizes asked for, the rest in a last piece.
std::vector<Bytes> split(const Bytes& bytes, const std::vector<size_t>& sizes) {
    std::vector<Bytes> pieces;
    size_t at = 0;
    for (size_t size : sizes) {
        size_t n = std::min(size, bytes.size() - at);
        pieces.emplace_back(bytes.begin() + static_cast<long>(at),
                            bytes.begin() + static_cast<long>(at + n));
        at += n;
    }
    if (at < bytes.size() || pieces.empty())
        pieces.emplace_back(bytes.begin() + static_cast<long>(at), bytes.end());
    return pieces;
}

// The length of the Sony frame at `at` ((CMD1 & 0x0F) + 3 bytes) when all of it is there, else 0.
size_t sony_frame_length(const Bytes& bytes, size_t at) {
    const size_t length = (bytes[at] & 0x0Fu) + 3;
    return bytes.size() - at >= length ? length : 0;
}

// Whether a whole Sony frame with a right checksum is at `at`.
bool sony_frame_whole(const Bytes& bytes, size_t at) {
    const size_t length = sony_frame_length(bytes, at);
    uint8_t sum = 0;
    for (size_t i = 0; i + 1 < length; ++i)
        sum = static_cast<uint8_t>(sum + bytes[at + i]);
    return length > 0 && sum == bytes[at + length - 1];
}

} // namespace

Bytes with_checksum(Bytes bytes) {
    unsigned sum = 0;
    for (uint8_t b : bytes)
        sum += b;
    bytes.push_back(static_cast<uint8_t>(sum));
    return bytes;
}

Reply Reply::answer(Bytes frame_without_checksum) {
    Reply r;
    r.frame = with_checksum(std::move(frame_without_checksum));
    return r;
}

Reply Reply::louth_answer(Bytes answer) {
    Reply r;
    r.louth = std::move(answer);
    return r;
}

Reply Reply::silence() {
    Reply r;
    r.silent = true;
    return r;
}

Reply Reply::late(int ms) {
    Reply r;
    r.delay_ms = ms;
    return r;
}

Reply Reply::bytes(Bytes raw) {
    Reply r;
    r.raw = std::move(raw);
    return r;
}

DevSim::DevSim() : louth_(std::make_unique<LouthServer>(model_)) {
    if (pipe(wake_) != 0)
        fail("pipe");
}

DevSim::~DevSim() {
    stop();
    for (int* fd : {&udp_, &udp_other_, &tcp_listener_, &pty_master_, &pty_slave_, &wake_[0],
                    &wake_[1], &mgmt_})
        close_fd(*fd);
    for (auto& [id, client] : tcp_clients_)
        close_fd(client.fd);
}

uint16_t DevSim::listen_udp(const char* address, uint16_t port) {
    udp_ = bound_socket(SOCK_DGRAM, ipv4(address, port));
    udp_other_ = bound_socket(SOCK_DGRAM, ipv4(address, 0));
    udp_port_ = bound_port(udp_);
    udp_other_port_ = bound_port(udp_other_);
    return udp_port_;
}

uint16_t DevSim::listen_tcp(const char* address, uint16_t port) {
    tcp_listener_ = bound_socket(SOCK_STREAM, ipv4(address, port));
    if (listen(tcp_listener_, 16) != 0)
        fail("listen");
    tcp_port_ = bound_port(tcp_listener_);
    return tcp_port_;
}

uint16_t DevSim::listen_mgmt(const char* address, uint16_t port) {
    mgmt_ = bound_socket(SOCK_DGRAM, ipv4(address, port));
    mgmt_port_ = bound_port(mgmt_);
    return mgmt_port_;
}

std::string DevSim::open_pty() {
    pty_master_ = posix_openpt(O_RDWR | O_NOCTTY);
    if (pty_master_ < 0 || grantpt(pty_master_) != 0 || unlockpt(pty_master_) != 0)
        fail("posix_openpt");
    pty_path_ = ptsname(pty_master_);
    // Holding the controller's end open keeps the master from reading as hung up while no
    // controller is connected; raw mode keeps the line discipline from echoing or translating.
    pty_slave_ = open(pty_path_.c_str(), O_RDWR | O_NOCTTY);
    if (pty_slave_ < 0)
        fail("open " + pty_path_);
    termios raw{};
    tcgetattr(pty_slave_, &raw);
    cfmakeraw(&raw);
    tcsetattr(pty_slave_, TCSANOW, &raw);
    return pty_path_;
}

void DevSim::set_protocol(Link link, Protocol protocol) {
    if (link == Link::tcp && protocol == Protocol::louth)
        throw std::runtime_error("the TCP link carries no Louth");
    (link == Link::udp ? louth_udp_ : louth_serial_) = protocol == Protocol::louth;
}

void DevSim::start() {
    thread_ = std::thread([this] { serve(); });
}

void DevSim::stop() {
    if (!thread_.joinable())
        return;
    const char stop = 'q';
    (void)!write(wake_[1], &stop, 1);
    thread_.join();
}

void DevSim::script(Reply reply) {
    std::lock_guard lock(mutex_);
    script_.push_back(std::move(reply));
}

void DevSim::set_default(Reply reply) {
    std::lock_guard lock(mutex_);
    default_ = std::move(reply);
}

void DevSim::on_receive(std::function<void(const Received&)> observer) {
    std::lock_guard lock(mutex_);
    observer_ = std::move(observer);
}

std::vector<Received> DevSim::received() const {
    std::lock_guard lock(mutex_);
    return received_;
}

size_t DevSim::count_tag(const std::string& tag) const {
    std::lock_guard lock(mutex_);
    return static_cast<size_t>(std::count_if(received_.begin(), received_.end(),
                                             [&](const Received& r) { return r.tag == tag; }));
}

bool DevSim::wait_received(size_t count, int timeout_ms) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                             [&] { return received_.size() >= count; });
}

bool DevSim::wait_replies_sent(size_t count, int timeout_ms) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                             [&] { return replies_sent_ >= count; });
}

int DevSim::poll_timeout_ms() const {
    if (outbox_.empty())
        return -1;
    auto next =
        std::min_element(outbox_.begin(), outbox_.end(),
                         [](const Outgoing& a, const Outgoing& b) { return a.due < b.due; });
    auto wait = std::chrono::ceil<std::chrono::milliseconds>(next->due - Clock::now());
    return static_cast<int>(std::max<long>(0, wait.count()));
}

void DevSim::serve() {
    std::vector<pollfd> fds;
    std::vector<unsigned> clients; // the TCP client of each descriptor after the fixed ones
    for (;;) {
        fds = {{wake_[0], POLLIN, 0},      {udp_, POLLIN, 0},        {udp_other_, POLLIN, 0},
               {tcp_listener_, POLLIN, 0}, {pty_master_, POLLIN, 0}, {mgmt_, POLLIN, 0}};
        const size_t fixed = fds.size();
        clients.clear();
        for (const auto& [id, client] : tcp_clients_) {
            fds.push_back({client.fd, POLLIN, 0});
            clients.push_back(id);
        }
        // poll() ignores negative descriptors, so links that are not set up cost nothing.
        if (poll(fds.data(), fds.size(), poll_timeout_ms()) < 0 && errno != EINTR)
            return;
        if (fds[0].revents)
            return;
        if (fds[1].revents)
            receive_udp(udp_, udp_port_);
        if (fds[2].revents)
            receive_udp(udp_other_, udp_other_port_);
        if (fds[3].revents)
            accept_tcp();
        if (fds[4].revents)
            receive_serial();
        if (fds[5].revents)
            receive_mgmt();
        for (size_t i = fixed; i < fds.size(); ++i)
            if (fds[i].revents)
                receive_tcp(clients[i - fixed]);
        send_due();
    }
}

void DevSim::record(Received message) {
    static const char* const kLinks[] = {"udp", "tcp", "serial"};
    mgmt_model_.log_received(std::string(kLinks[static_cast<int>(message.link)]) + " " +
                             (message.tag.empty() ? "" : message.tag + " ") +
                             hex(message.frame.empty() ? message.wire : message.frame) + "\n");
    std::function<void(const Received&)> observer;
    {
        std::lock_guard lock(mutex_);
        received_.push_back(message);
        observer = observer_;
    }
    changed_.notify_all();
    if (observer)
        observer(message);
}

void DevSim::fault_at_command(size_t command, Reply reply) {
    std::lock_guard lock(mutex_);
    faults_.push_back({command, 0, std::move(reply), false});
}

void DevSim::fault_at_frame(int64_t frame, Reply reply) {
    const bool before = model_.position() < frame;
    std::lock_guard lock(mutex_);
    faults_.push_back({0, frame, std::move(reply), before});
}

Reply DevSim::next_reply() {
    const int64_t position = model_.position();
    std::lock_guard lock(mutex_);
    ++commands_;
    if (!script_.empty()) {
        Reply reply = std::move(script_.front());
        script_.pop_front();
        return reply;
    }
    auto fault = faults_.end();
    for (auto f = faults_.begin(); f != faults_.end(); ++f) {
        const bool due = f->command ? f->command == commands_ : f->armed && position >= f->frame;
        f->armed = f->armed || (!f->command && position < f->frame);
        if (due && fault == faults_.end())
            fault = f;
    }
    if (fault == faults_.end())
        return default_;
    Reply reply = std::move(fault->reply);
    faults_.erase(fault);
    return reply;
}

void DevSim::receive_udp(int fd, uint16_t local_port) {
    uint8_t datagram[2048];
    sockaddr_in from{};
    socklen_t length = sizeof from;
    ssize_t n =
        recvfrom(fd, datagram, sizeof datagram, 0, reinterpret_cast<sockaddr*>(&from), &length);
    if (n < 0)
        return;
    Received message{Link::udp, Bytes(datagram, datagram + n), {}, "", local_port, from};
    if (static_cast<size_t>(n) > kComHdr)
        message.frame.assign(datagram + kComHdr, datagram + n);
    record(message);
    // The header's type tells what a datagram carries (1 Sony, 5 Louth); any other is taken as
    // the link's protocol. So one UDP link serves controllers of both.
    const int type = n >= 2 ? datagram[0] << 8 | datagram[1] : 0;
    if (type == 5 || (type != 1 && louth_udp_))
        answer_louth(Link::udp, fd, from, message.frame);
    else
        answer(Link::udp, fd, from);
}

void DevSim::accept_tcp() {
    sockaddr_in peer{};
    socklen_t length = sizeof peer;
    int client = accept(tcp_listener_, reinterpret_cast<sockaddr*>(&peer), &length);
    if (client >= 0)
        tcp_clients_[++next_tcp_] = {client, peer, {}};
}

void DevSim::close_tcp_client(unsigned id) {
    if (auto found = tcp_clients_.find(id); found != tcp_clients_.end()) {
        close_fd(found->second.fd);
        tcp_clients_.erase(found);
    }
    transfers_.reset(id);
}

void DevSim::receive_tcp(unsigned id) {
    auto found = tcp_clients_.find(id);
    if (found == tcp_clients_.end())
        return;
    TcpClient& client = found->second;
    Bytes& buffer = client.buffer;
    uint8_t chunk[2048];
    ssize_t n = recv(client.fd, chunk, sizeof chunk, 0);
    if (n <= 0) {
        close_tcp_client(id);
        return;
    }
    tcp_answering_ = id;
    buffer.insert(buffer.end(), chunk, chunk + n);
    transfers_.take_upload(id, buffer); // an accepted upload's bytes are not messages
    // Messages: a 12-byte header; "s9p " carries arg1 frame bytes after it, the others nothing.
    while (buffer.size() >= kHeader) {
        std::string tag(buffer.begin(), buffer.begin() + 4);
        size_t body = tag == "s9p " ? be32(buffer.data() + 4) : 0;
        if (body > kMaxFrame) {
            // No Sony frame is that long: record the header and drop the client as a server would.
            record({Link::tcp,
                    Bytes(buffer.begin(), buffer.begin() + kHeader),
                    {},
                    tag,
                    tcp_port_,
                    client.peer});
            close_tcp_client(id);
            return;
        }
        if (buffer.size() < kHeader + body)
            return;
        Bytes wire(buffer.begin(), buffer.begin() + static_cast<long>(kHeader + body));
        buffer.erase(buffer.begin(), buffer.begin() + static_cast<long>(wire.size()));
        Bytes frame(wire.begin() + kHeader, wire.end());
        record({Link::tcp, wire, frame, tag, tcp_port_, client.peer});
        if (tag == "s9p ") {
            answer(Link::tcp, client.fd, client.peer);
        } else {
            queue(Link::tcp, client.fd, client.peer, transfers_.answer(id, wire.data()));
            transfers_.take_upload(id, buffer);
        }
    }
}

void DevSim::receive_serial() {
    uint8_t chunk[256];
    ssize_t n = read(pty_master_, chunk, sizeof chunk);
    if (n <= 0)
        return;
    // Bytes that waited longer than a deck's inter-byte gap began a frame that never came whole:
    // a deck's receiver drops them and starts afresh with the next byte.
    const auto now = Clock::now();
    if (now - serial_last_byte_ > kInterByteGap)
        serial_buffer_.clear();
    serial_last_byte_ = now;
    serial_buffer_.insert(serial_buffer_.end(), chunk, chunk + n);
    for (size_t length; louth_serial_ && (length = louth_command_length(serial_buffer_)) > 0;) {
        Bytes frame(serial_buffer_.begin(), serial_buffer_.begin() + static_cast<long>(length));
        serial_buffer_.erase(serial_buffer_.begin(),
                             serial_buffer_.begin() + static_cast<long>(length));
        record({Link::serial, frame, frame, "", 0, {}});
        answer_louth(Link::serial, pty_master_, {}, frame);
    }
    if (louth_serial_)
        return;
    while (!serial_buffer_.empty()) {
        const size_t length = sony_frame_length(serial_buffer_, 0);
        if (length == 0)
            return;
        // A frame whose checksum is wrong, followed by the start of one whose checksum is right:
        // the bytes before that one are garbage.
        if (!sony_frame_whole(serial_buffer_, 0)) {
            size_t next = 1;
            while (next < serial_buffer_.size() && !sony_frame_whole(serial_buffer_, next))
                ++next;
            if (next < serial_buffer_.size()) {
                serial_buffer_.erase(serial_buffer_.begin(),
                                     serial_buffer_.begin() + static_cast<long>(next));
                continue;
            }
        }
        Bytes frame(serial_buffer_.begin(), serial_buffer_.begin() + static_cast<long>(length));
        serial_buffer_.erase(serial_buffer_.begin(),
                             serial_buffer_.begin() + static_cast<long>(length));
        record({Link::serial, frame, frame, "", 0, {}});
        answer(Link::serial, pty_master_, {});
    }
}

void DevSim::receive_mgmt() {
    uint8_t datagram[2048];
    sockaddr_in from{};
    socklen_t length = sizeof from;
    ssize_t n =
        recvfrom(mgmt_, datagram, sizeof datagram, 0, reinterpret_cast<sockaddr*>(&from), &length);
    if (n < 0)
        return;
    Bytes wire(datagram, datagram + n);
    record({Link::udp, wire, {}, "", mgmt_port_, from});
    queue(Link::udp, mgmt_, from, mgmt_model_.answer(wire));
}

void DevSim::queue(Link link, int fd, const sockaddr_in& to, std::vector<Piece> pieces) {
    auto due = Clock::now();
    for (size_t i = 0; i < pieces.size(); ++i) {
        due += std::chrono::milliseconds(pieces[i].delay_ms);
        outbox_.push_back({due, link, fd, to, tcp_answering_, std::move(pieces[i].bytes),
                           i + 1 == pieces.size()});
    }
    send_due();
}

void DevSim::answer(Link link, int fd, const sockaddr_in& to) {
    Reply reply = next_reply();
    if (reply.silent)
        return;
    Bytes frame = reply.frame;
    if (frame.empty() && reply.raw.empty()) {
        std::unique_lock lock(mutex_); // the command answered is the one just recorded
        Bytes request = received_.empty() ? Bytes{} : received_.back().frame;
        lock.unlock();
        frame = with_checksum(sony_.answer(request));
    }
    if (reply.corrupt_checksum && !frame.empty())
        ++frame.back();
    queue(link, fd, to, reply, reply.raw.empty() ? framed(link, frame) : reply.raw);
}

void DevSim::answer_louth(Link link, int fd, const sockaddr_in& to, const Bytes& command) {
    Reply reply = next_reply();
    if (reply.silent)
        return;
    Bytes answer = reply.louth.empty() ? louth_->answer(command) : reply.louth;
    const bool frame = answer.size() >= 4 && answer[0] == 0x02;
    if (frame && reply.other_unit) { // a frame of the next unit, with its own checksum
        Bytes body(answer.begin() + 2, answer.end() - 1);
        body[0] = static_cast<uint8_t>((body[0] & 0xF0) | ((body[0] + 1) & 0x0F));
        answer = louth_frame(body);
    }
    if (frame && reply.corrupt_checksum)
        ++answer.back();
    if (!reply.raw.empty())
        answer = reply.raw;
    else if (link == Link::udp)
        answer = louth_datagram(answer);
    queue(link, fd, to, reply, answer);
}

void DevSim::queue(Link link, int fd, const sockaddr_in& to, const Reply& reply,
                   const Bytes& bytes) {
    if (link == Link::udp && reply.from_other_address)
        fd = udp_other_;
    auto due = Clock::now() + std::chrono::milliseconds(reply.delay_ms);
    std::vector<Bytes> pieces = split(bytes, reply.pieces);
    for (size_t i = 0; i < pieces.size(); ++i) {
        outbox_.push_back(
            {due, link, fd, to, tcp_answering_, std::move(pieces[i]), i + 1 == pieces.size()});
        due += std::chrono::milliseconds(reply.piece_gap_ms);
    }
    send_due();
}

void DevSim::send_due() {
    auto now = Clock::now();
    // In queue order, so the pieces of one answer keep theirs; a late answer does not hold up
    // one that is due before it.
    for (auto it = outbox_.begin(); it != outbox_.end();) {
        if (it->due > now) {
            ++it;
            continue;
        }
        send_now(*it);
        it = outbox_.erase(it);
    }
}

void DevSim::send_now(const Outgoing& out) {
    switch (out.link) {
    case Link::udp:
        sendto(out.fd, out.bytes.data(), out.bytes.size(), 0,
               reinterpret_cast<const sockaddr*>(&out.to), sizeof out.to);
        break;
    case Link::tcp:
        if (auto client = tcp_clients_.find(out.tcp_client); client != tcp_clients_.end())
            send(client->second.fd, out.bytes.data(), out.bytes.size(), MSG_NOSIGNAL);
        else
            return;
        break;
    case Link::serial:
        (void)!write(pty_master_, out.bytes.data(), out.bytes.size());
        break;
    }
    if (!out.last_piece)
        return;
    {
        std::lock_guard lock(mutex_);
        ++replies_sent_;
    }
    changed_.notify_all();
}

} // namespace devsim
