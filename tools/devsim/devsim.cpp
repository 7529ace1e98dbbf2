// The video server behind the emulator's links: names every message that comes, and answers each
// command with the next scripted reply or a fault, or else the server's own answer, framed for
// its link and queued on it for when it is due.
#include "devsim.h"

#include "louth.h"
#include "names.h"

#include <algorithm>

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

DevSim::DevSim() : louth_(std::make_unique<LouthServer>(model_)) {}

DevSim::~DevSim() {
    stop();
}

void DevSim::start() {
    thread_ = std::thread([this] { links_.serve(); });
}

void DevSim::stop() {
    if (!thread_.joinable())
        return;
    links_.stop();
    thread_.join();
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
    mgmt_.log_received(std::string(kLinks[static_cast<int>(message.link)]) + " " +
                       (message.tag.empty() ? "" : message.tag + " ") + hex(shown) + "  " +
                       message.text + "\n");
    log_.add(from, message);
}

void DevSim::command(const Endpoint& from, const Bytes& frame) {
    if (from.protocol == Protocol::louth)
        answer_louth(from, frame);
    else
        answer_sony(from, frame);
}

// A transfer's message on the TCP link, or a management datagram: the answer its model gives.
void DevSim::request(const Endpoint& from, const Bytes& wire) {
    if (from.protocol == Protocol::management) {
        std::vector<Piece> answer = mgmt_.answer(wire);
        const std::string text = answer.empty() ? "" : describe_mgmt(answer.back().bytes, true);
        links_.queue(from, std::move(answer), text);
        return;
    }
    const std::string tag(wire.begin(), wire.begin() + 4);
    const bool raw = tag == "data" || tag == "ggop";
    std::vector<Piece> answer = transfers_.answer(from.tcp_client, wire.data());
    Bytes whole;
    for (const Piece& p : answer)
        whole.insert(whole.end(), p.bytes.begin(), p.bytes.end());
    links_.queue(from, std::move(answer), raw ? "" : describe_stream(whole, true));
}

void DevSim::take_upload(const Endpoint& from, Bytes& stream) {
    transfers_.take_upload(from.tcp_client, stream);
}

void DevSim::closed(unsigned client) {
    transfers_.reset(client);
}

// A restart: the Louth ports the server's process had opened go with it; the model stays.
void DevSim::restarting() {
    louth_ = std::make_unique<LouthServer>(model_);
}

Reply DevSim::next_reply() {
    Reply reply = faults_.next(model_.position());
    log_.count_fault(!reply.own_answer());
    return reply;
}

bool DevSim::instead_of_answer(const Endpoint& from, const Reply& reply) {
    if (reply.restart_ms >= 0)
        links_.go_down(reply.restart_ms);
    else if (reply.close_connection && from.link == Link::tcp)
        links_.close_client(from.tcp_client);
    return reply.instead_of_answer();
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
    log_.count_nak(reply.raw.empty() && answer.size() >= 2 && answer[0] == 0x11 &&
                   answer[1] == 0x12);
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
    log_.count_nak(reply.raw.empty() && !answer.empty() && answer[0] == 0x05);
    const std::string text = reply.raw.empty() ? describe_louth(answer) : "";
    send_reply(from, reply, reply.raw.empty() ? framed(from, answer) : reply.raw, text);
}

void DevSim::send_reply(const Endpoint& to, const Reply& reply, Bytes bytes, std::string text) {
    const Endpoint from = reply.from_other_address ? links_.from_other_address(to) : to;
    links_.queue(from, split(bytes, reply.pieces, reply.delay_ms, reply.piece_gap_ms),
                 std::move(text));
}

} // namespace devsim
