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

LouthServer::LouthServer(Model& model) : model_(model) {}

void LouthServer::transport(uint8_t cmd2, const Bytes& data) {
    using State = Model::State;
    switch (cmd2) {
    case 0x00:
        return model_.command(State::stopped);
    case 0x01:
    case 0x06:
        return model_.command(State::playing);
    case 0x02:
        return model_.command(State::recording);
    case 0x04:
        return model_.command(State::still);
    case 0x05:
        return model_.step(1);
    case 0x07: // jog: a signed frame count, one byte or four
        if (data.size() == 1)
            model_.step(static_cast<int8_t>(data[0]));
        else if (data.size() == 4)
            model_.step(static_cast<int32_t>(static_cast<uint32_t>(data[0]) << 24 |
                                             static_cast<uint32_t>(data[1]) << 16 |
                                             static_cast<uint32_t>(data[2]) << 8 | data[3]));
        return;
    case 0x08: // var: a signed whole part and a fraction byte
        if (data.size() >= 2)
            model_.command(State::var, static_cast<int8_t>(data[0]) + data[1] / 256.0);
        return;
    default:
        return;
    }
}

Bytes LouthServer::answer(const Bytes& command) {
    // 02, count, CMD1, CMD2, data, checksum: anything shorter or wrongly summed is refused.
    if (command.size() < 5 || sum_of(command, 2) != 0)
        return {kRefusal, 0x02};
    const uint8_t type = command[2] & 0xF0, unit = command[2] & 0x0F, cmd2 = command[3];
    const Bytes data(command.begin() + 4, command.end() - 1);
    const std::string id = data.size() >= 8 ? std::string(data.begin(), data.begin() + 8) : "";
    switch (type) {
    case 0x10:
        transport(cmd2, data);
        return {kAck};
    case 0x20:
        if (cmd2 == 0x23 && !id.empty() && id != clip_id("")) // record init: the clip exists
            model_.record_cue(id);
        if (cmd2 == 0x24 || cmd2 == 0x25)
            model_.load(id);
        if (cmd2 == 0x26 || cmd2 == 0x29) { // erasure: the ID list starts again
            next_ = SIZE_MAX;
            model_.erase(cmd2 == 0x26 ? id : "");
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
        return louth_frame(
            {cmd1, 0x85, data[0], data[0] == 0x43 ? model_.louth_status() : uint8_t{0}, 0x00});
    case 0x06:
        return louth_frame(
            concat({cmd1, 0x86, 0x01}, frames_to_bcd(model_.standard(), model_.position())));
    case 0x07: {
        const std::string loaded = model_.loaded();
        return louth_frame(concat({cmd1, 0x87, 0x00}, Bytes(loaded.begin(), loaded.end())));
    }
    case 0x11:
        next_ = 0;
        return list_entry(unit, 0x91);
    case 0x02:
        return list_entry(unit, 0x82);
    case 0x14: {
        const auto clip = data.size() >= 8
                              ? model_.clip(std::string(data.begin(), data.begin() + 8))
                              : std::nullopt;
        if (!clip)
            return louth_frame({cmd1, 0x94});
        return louth_frame(concat({cmd1, 0x94}, frames_to_bcd(model_.standard(), clip->length)));
    }
    default:
        return {kRefusal, 0x01};
    }
}

// The clip the list has reached, then the list's end: a frame with no ID.
Bytes LouthServer::list_entry(uint8_t unit, uint8_t cmd2) {
    Bytes id;
    const auto clips = model_.clips();
    if (next_ < clips.size()) {
        id.assign(clips[next_].id.begin(), clips[next_].id.end());
        ++next_;
    }
    return louth_frame(concat({static_cast<uint8_t>(0x30 | unit), cmd2}, id));
}

} // namespace devsim
