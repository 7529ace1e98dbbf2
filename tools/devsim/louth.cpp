// The emulator's Louth framing and its model server.
#include "louth.h"

#include <algorithm>
#include <initializer_list>
#include <numeric>

namespace devsim {

namespace {

constexpr uint8_t kStart = 0x02, kAck = 0x04, kRefusal = 0x05;

uint8_t sum_of(const Bytes& bytes, size_t from) {
    return static_cast<uint8_t>(
        std::accumulate(bytes.begin() + static_cast<long>(from), bytes.end(), 0u));
}

// `head`, then `tail`, sized first and copied: GCC 12 at -O2 misreads an insert after a braced
// initialiser as out of bounds (-Warray-bounds).
Bytes concat(std::initializer_list<uint8_t> head, const Bytes& tail) {
    Bytes out(head.size() + tail.size());
    std::copy(tail.begin(), tail.end(), std::copy(head.begin(), head.end(), out.begin()));
    return out;
}

} // namespace

Bytes louth_frame(Bytes body) {
    Bytes frame = concat({kStart, static_cast<uint8_t>(body.size())}, body);
    frame.push_back(static_cast<uint8_t>(0u - sum_of(frame, 2)));
    return frame;
}

Bytes louth_datagram(const Bytes& bytes, size_t size) {
    return concat(
        {0, 5, static_cast<uint8_t>(size >> 8), static_cast<uint8_t>(size), 0, 0, 0, 0, 0, 0},
        bytes);
}

size_t louth_command_length(const Bytes& stream) {
    if (stream.empty())
        return 0;
    if (stream[0] != kStart)
        return 1;
    if (stream.size() < 2 || stream.size() < stream[1] + size_t{3})
        return 0;
    return stream[1] + size_t{3};
}

LouthServer::LouthServer() {
    clips_["NEWS    "] = {{0x00, 0x30, 0x01, 0x00}}; // 00:01:30:00
    clips_["WEATHER "] = {{0x12, 0x00, 0x00, 0x00}}; // 00:00:00:12
    next_ = clips_.end();
}

Bytes LouthServer::answer(const Bytes& command) {
    // 02, count, CMD1, CMD2, data, checksum: anything shorter or wrongly summed is refused.
    if (command.size() < 5 || sum_of(command, 2) != 0)
        return {kRefusal, 0x02};
    const uint8_t type = command[2] & 0xF0, unit = command[2] & 0x0F, cmd2 = command[3];
    const Bytes data(command.begin() + 4, command.end() - 1);
    auto id = [&] { return data.size() >= 8 ? std::string(data.begin(), data.begin() + 8) : ""; };
    switch (type) {
    case 0x10:
        state_ = cmd2;
        return {kAck};
    case 0x20:
        if (cmd2 == 0x23 && !id().empty()) // record init: the clip exists from now on
            clips_.try_emplace(id(), Clip{{0, 0, 0, 0}});
        if (cmd2 == 0x24 || cmd2 == 0x25)
            loaded_ = id();
        if (cmd2 == 0x26 || cmd2 == 0x29) { // erasure: the ID list starts again
            next_ = clips_.end();
            cmd2 == 0x26 ? void(clips_.erase(id())) : clips_.clear();
        }
        return {kAck};
    case 0x30:
        return sense(unit, cmd2, data);
    default:
        return {kRefusal, 0x01};
    }
}

Bytes LouthServer::sense(uint8_t unit, uint8_t cmd2, const Bytes& data) {
    const uint8_t cmd1 = 0x30 | unit;
    switch (cmd2) {
    case 0x01: { // open port: a port opened with its lock flag is denied to the next opener
        if (data.size() < 2)
            return {kRefusal, 0x01};
        bool granted = !locked_[data[0]];
        if (granted)
            locked_[data[0]] = data[1] != 0;
        return louth_frame({cmd1, 0x81, static_cast<uint8_t>(granted ? 1 : 0)});
    }
    case 0x05: // status (0x43) or errors (0x24): the request byte, then two bytes
        if (data.empty())
            return {kRefusal, 0x01};
        return louth_frame({cmd1, 0x85, data[0], data[0] == 0x43 ? state_ : uint8_t{0}, 0x00});
    case 0x06:
        return louth_frame(
            {cmd1, 0x86, 0x01, timecode_[0], timecode_[1], timecode_[2], timecode_[3]});
    case 0x07: {
        return louth_frame(concat({cmd1, 0x87, 0x00}, Bytes(loaded_.begin(), loaded_.end())));
    }
    case 0x11:
        next_ = clips_.begin();
        return list_entry(unit, 0x91);
    case 0x02:
        return list_entry(unit, 0x82);
    case 0x14: {
        auto clip = data.size() >= 8 ? clips_.find(std::string(data.begin(), data.begin() + 8))
                                     : clips_.end();
        if (clip == clips_.end())
            return louth_frame({cmd1, 0x94});
        const uint8_t* l = clip->second.length;
        return louth_frame({cmd1, 0x94, l[0], l[1], l[2], l[3]});
    }
    default:
        return {kRefusal, 0x01};
    }
}

// The clip the list has reached, then the list's end: a frame with no ID.
Bytes LouthServer::list_entry(uint8_t unit, uint8_t cmd2) {
    Bytes id;
    if (next_ != clips_.end()) {
        id.assign(next_->first.begin(), next_->first.end());
        ++next_;
    }
    return louth_frame(concat({static_cast<uint8_t>(0x30 | unit), cmd2}, id));
}

} // namespace devsim
