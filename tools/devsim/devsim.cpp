// The video server emulator's serving thread: waits on every link, records what came with its
// name, and answers each command with the next scripted reply or a fault, or else the server's
// own answer, framed for its link and queued for when it is due.
#include "devsim.h"

#include "louth.h"
#include "names.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <unistd.h>

namespace devsim {

namespace {

// `bytes` cut into the sizes asked for, the rest in a last piece: the first `delay_ms` after now,
// the others `gap_ms` apart.
std::vector<Piece> split(const Bytes& bytes, const std::vector<size_t>& sizes, int delay_ms,
                         int gap_ms) {
    std::vector<Piece> pieces;
    size_t at = 0;
    auto cut = [&](size_t n) {
        pieces.push_back({Bytes(bytes.begin() + static_cast<long>(at),
                                bytes.begin() + static_cast<long>(at + n)),
                          pieces.empty() ? delay_ms : gap_ms});
        at += n;
    };
    for (size_t size : sizes)
        cut(std::min(size, bytes.size() - at));
    if (at < bytes.size() || pieces.empty())
        cut(bytes.size() - at);
    return pieces;
}

// A frame as it goes on the link it answers.
Bytes framed(const Endpoint& to, const Bytes& frame) {
    switch (to.link) {
    case Link::udp:
        return datagram(to.protocol == Protocol::louth ? kLouthDatagram : kSonyDatagram, frame);
    case Link::tcp:
        return stream_message("s9p ", static_cast<uint32_t>(frame.size()), 0, frame);
    case Link::serial:
        break;
    }
    return frame;
}

} // namespace

Bytes with_checksum(Bytes bytes) {
    bytes.push_back(byte_sum(bytes));
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

Reply Reply::restart(int ms) {
    Reply r;
    r.restart_ms = ms;
    return r;
}

Reply Reply::close() {
    Reply r;
    r.close_connection = true;
    return r;
}

bool Reply::own_answer() const {
    return frame.empty() && !silent && delay_ms == 0 && !corrupt_checksum && !from_other_address &&
           raw.empty() && louth.empty() && !other_unit && pieces.empty() && restart_ms < 0 &&
           !close_connection;
}

DevSim::DevSim() : louth_(std::make_unique<LouthServer>(model_)) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        throw std::runtime_error(std::string("pipe: ") + strerror(errno));
    wake_read_.reset(ends[0]);
    wake_write_.reset(ends[1]);
}

DevSim::~DevSim() {
    stop();
}

void DevSim::set_protocol(Link link, Protocol protocol) {
    if (link == Link::tcp)
        throw std::runtime_error("the TCP link carries no Louth");
    if (protocol != Protocol::sony && protocol != Protocol::louth)
        throw std::runtime_error("a UDP or serial link speaks Sony or Louth");
    (link == Link::udp ? louth_udp_ : louth_serial_) = protocol == Protocol::louth;
}

void DevSim::start() {
    thread_ = std::thread([this] { serve(); });
}

void DevSim::wake(char why) {
    (void)!write(wake_write_.get(), &why, 1);
}

void DevSim::stop() {
    if (!thread_.joinable())
        return;
    wake('q');
    thread_.join();
}

void DevSim::restart(int ms) {
    {
        std::lock_guard lock(mutex_);
        restart_asked_ = ms;
    }
    wake('r');
}

void DevSim::script(Reply reply) {
    std::lock_guard lock(mutex_);
    script_.push_back(std::move(reply));
}

void DevSim::set_default(Reply reply) {
    std::lock_guard lock(mutex_);
    default_ = std::move(reply);
}

Reply DevSim::default_reply() const {
    std::lock_guard lock(mutex_);
    return default_;
}

void DevSim::on_receive(std::function<void(const Received&)> observer) {
    std::lock_guard lock(mutex_);
    observer_ = std::move(observer);
}

void DevSim::on_traffic(std::function<void(const Traffic&)> observer) {
    std::lock_guard lock(mutex_);
    traffic_observer_ = std::move(observer);
}

void DevSim::keep_history(size_t messages) {
    std::lock_guard lock(mutex_);
    history_ = messages;
    while (received_.size() > history_)
        received_.pop_front();
    while (sent_.size() > history_)
        sent_.pop_front();
}

template <typename T> void DevSim::keep(std::deque<T>& history, T entry) {
    if (history_ == 0)
        return;
    if (history.size() >= history_)
        history.pop_front();
    history.push_back(std::move(entry));
}

std::vector<Received> DevSim::received() const {
    std::lock_guard lock(mutex_);
    return {received_.begin(), received_.end()};
}

std::vector<Traffic> DevSim::sent() const {
    std::lock_guard lock(mutex_);
    return {sent_.begin(), sent_.end()};
}

Counters DevSim::counters() const {
    std::lock_guard lock(mutex_);
    return counters_;
}

size_t DevSim::count_tag(const std::string& tag) const {
    std::lock_guard lock(mutex_);
    return static_cast<size_t>(std::count_if(received_.begin(), received_.end(),
                                             [&](const Received& r) { return r.tag == tag; }));
}

bool DevSim::wait_received(size_t count, int timeout_ms) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                             [&] { return counters_.received >= count; });
}

bool DevSim::wait_replies_sent(size_t count, int timeout_ms) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                             [&] { return counters_.answers >= count; });
}

void DevSim::serve() {
    std::vector<pollfd> fds;
    std::vector<unsigned> clients; // the TCP client of each descriptor after the fixed ones
    for (;;) {
        auto now = Clock::now();
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
        int timeout = outbox_.wait_ms(now);
        if (serial_.holds()) { // until a frame begun is given up
            const auto gap_ends = std::chrono::ceil<std::chrono::milliseconds>(serial_last_byte_ +
                                                                               kInterByteGap - now);
            const int ms = static_cast<int>(std::max<long>(1, gap_ends.count() + 1));
            timeout = timeout < 0 ? ms : std::min(timeout, ms);
        }
        if (down_) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(down_until_ - now);
            timeout = static_cast<int>(std::max<long>(0, left.count()));
        }
        // poll() ignores negative descriptors, so links that are not set up cost nothing.
        if (poll(fds.data(), fds.size(), timeout) < 0 && errno != EINTR)
            return;
        if (fds[0].revents) {
            char why = 'q';
            if (read(wake_read_.get(), &why, 1) != 1 || why == 'q')
                return;
            std::unique_lock lock(mutex_);
            const auto ms = std::exchange(restart_asked_, std::nullopt);
            lock.unlock();
            if (ms)
                go_down(*ms);
        }
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

void DevSim::record(const Endpoint& from, Received message) {
    static const char* const kLinks[] = {"udp", "tcp", "serial"};
    const Bytes& shown = message.frame.empty() ? message.wire : message.frame;
    switch (message.protocol) {
    case Protocol::sony:
        message.text = describe_sony(shown);
        break;
    case Protocol::louth:
        message.text = describe_louth(shown);
        break;
    case Protocol::connection:
        message.text = describe_stream(message.wire, false);
        break;
    case Protocol::management:
        message.text = describe_mgmt(message.wire, false);
        break;
    }
    mgmt_model_.log_received(std::string(kLinks[static_cast<int>(message.link)]) + " " +
                             (message.tag.empty() ? "" : message.tag + " ") + hex(shown) + "  " +
                             message.text + "\n");
    std::function<void(const Received&)> observer;
    {
        std::lock_guard lock(mutex_);
        ++counters_.received;
        keep(received_, message);
        observer = observer_;
    }
    changed_.notify_all();
    tap(from, Direction::received, message.wire, message.text);
    if (observer)
        observer(message);
}

void DevSim::tap(const Endpoint& at, Direction direction, Bytes bytes, std::string text) {
    std::unique_lock lock(mutex_);
    auto observer = traffic_observer_;
    // The history keeps the answers by name: a transfer's raw bytes (no name) are not kept.
    const bool kept = direction == Direction::sent && !text.empty() && history_ > 0;
    if (!observer && !kept)
        return;
    Traffic traffic{direction, at.link,          at.protocol,    at.local,
                    at.peer,   std::move(bytes), std::move(text)};
    if (kept)
        keep(sent_, traffic);
    lock.unlock();
    if (observer)
        observer(traffic);
}

void DevSim::count_answer(bool nak) {
    std::lock_guard lock(mutex_);
    counters_.naks += nak;
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
        counters_.faults += !reply.own_answer();
        return reply;
    }
    auto fault = faults_.end();
    for (auto f = faults_.begin(); f != faults_.end(); ++f) {
        const bool due = f->command ? f->command == commands_ : f->armed && position >= f->frame;
        f->armed = f->armed || (!f->command && position < f->frame);
        if (due && fault == faults_.end())
            fault = f;
    }
    Reply reply = default_;
    if (fault != faults_.end()) {
        reply = std::move(fault->reply);
        faults_.erase(fault);
    }
    counters_.faults += !reply.own_answer();
    return reply;
}

bool DevSim::instead_of_answer(const Endpoint& from, const Reply& reply) {
    if (reply.restart_ms >= 0)
        go_down(reply.restart_ms);
    else if (reply.close_connection && from.link == Link::tcp)
        close_tcp_client(from.tcp_client);
    return reply.silent || reply.restart_ms >= 0 || reply.close_connection;
}

void DevSim::answer_sony(const Endpoint& from, const Bytes& frame) {
    const Reply reply = next_reply();
    if (instead_of_answer(from, reply))
        return;
    Bytes answer = reply.frame;
    if (answer.empty() && reply.raw.empty())
        answer = with_checksum(sony_.answer(frame));
    if (reply.corrupt_checksum && !answer.empty())
        ++answer.back();
    count_answer(reply.raw.empty() && answer.size() >= 2 && answer[0] == 0x11 && answer[1] == 0x12);
    const std::string text = reply.raw.empty() ? describe_sony(answer) : "";
    send_reply(from, reply, reply.raw.empty() ? framed(from, answer) : reply.raw, text);
}

void DevSim::answer_louth(const Endpoint& from, const Bytes& frame) {
    const Reply reply = next_reply();
    if (instead_of_answer(from, reply))
        return;
    Bytes answer = reply.louth.empty() ? louth_->answer(frame) : reply.louth;
    const bool whole_frame = answer.size() >= 4 && answer[0] == 0x02;
    if (whole_frame && reply.other_unit) { // a frame of the next unit, with its own checksum
        Bytes body(answer.begin() + 2, answer.end() - 1);
        body[0] = static_cast<uint8_t>((body[0] & 0xF0) | ((body[0] + 1) & 0x0F));
        answer = louth_frame(body);
    }
    if (whole_frame && reply.corrupt_checksum)
        ++answer.back();
    count_answer(reply.raw.empty() && !answer.empty() && answer[0] == 0x05);
    const std::string text = reply.raw.empty() ? describe_louth(answer) : "";
    send_reply(from, reply, reply.raw.empty() ? framed(from, answer) : reply.raw, text);
}

void DevSim::send_reply(const Endpoint& to, const Reply& reply, Bytes bytes, std::string text) {
    Endpoint from = to;
    if (to.link == Link::udp && reply.from_other_address) {
        from.fd = udp_other_.get();
        from.local = udp_other_address_;
    }
    queue(from, split(bytes, reply.pieces, reply.delay_ms, reply.piece_gap_ms), std::move(text));
}

void DevSim::queue(const Endpoint& to, std::vector<Piece> pieces, std::string text) {
    outbox_.add(to, std::move(pieces), Clock::now(), std::move(text));
    outbox_.send_due(Clock::now(), [this](const Outbox::Outgoing& out) { send(out); });
}

} // namespace devsim
