// The emulator's Louth framing and its disk server.
#include "louth.h"

#include <algorithm>
#include <initializer_list>
#include <numeric>

namespace devsim {

namespace {

constexpr uint8_t kStart = 0x02, kAck = 0x04, kNak = 0x05;
constexpr uint8_t kUnknownCommand = 0x01, kChecksumError = 0x04;
using State = Model::State;

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

// The immediate commands that set a state: CMD2 and the state.
constexpr std::pair<uint8_t, State> kMotions[] = {
    {0x00, State::stopped}, {0x01, State::playing}, {0x02, State::recording},
    {0x04, State::still},   {0x06, State::playing}, // continue
};

// The port status byte's bits, VDCP's: idle, cue/init, play/record, still, jog, variable play,
// port busy, cue/init done.
struct StatusBit {
    uint8_t mask;
    bool (*on)(const Model::Snapshot&);
};
constexpr StatusBit kStatusBits[] = {
    {0x01, [](const Model::Snapshot& s) { return s.state == State::stopped; }},
    {0x04,
     [](const Model::Snapshot& s) {
         return s.state == State::playing || s.state == State::recording;
     }},
    {0x08, [](const Model::Snapshot& s) { return s.state == State::still; }},
    {0x10, [](const Model::Snapshot& s) { return s.state == State::jog; }},
    {0x20,
     [](const Model::Snapshot& s) {
         return s.state == State::var || s.state == State::shuttle ||
                s.state == State::fast_forward || s.state == State::rewind;
     }},
    {0x80, [](const Model::Snapshot& s) { return s.cued; }},
};

// The port status requests of this system's library, which its server answers with the request
// byte and two bytes: the status bits and 0 for 0x43, two zero bytes for 0x24 (errors).
constexpr uint8_t kOwnStatusRequest = 0x43, kOwnErrorsRequest = 0x24;

} // namespace

Bytes louth_frame(Bytes body) {
    Bytes frame = concat({kStart, static_cast<uint8_t>(body.size())}, body);
    frame.push_back(static_cast<uint8_t>(0u - sum_of(frame, 2)));
    return frame;
}

Bytes louth_datagram(const Bytes& bytes, size_t size) {
    return datagram(kLouthDatagram, bytes, size);
}

LouthServer::LouthServer(Model& model) : model_(model) {}

bool LouthServer::transport(uint8_t cmd2, const Bytes& data) {
    for (const auto& [code, state] : kMotions)
        if (cmd2 == code) {
            model_.command(state);
            return true;
        }
    if (cmd2 == 0x05) { // step
        model_.step(1);
    } else if (cmd2 == 0x07 && (data.size() == 1 || data.size() == 4)) {
        // jog: a signed frame count, one byte or four
        model_.step(data.size() == 1 ? static_cast<int8_t>(data[0])
                                     : static_cast<int32_t>(be32(data.data())));
    } else if (cmd2 == 0x08 && data.size() >= 2) { // var: a signed whole part, a fraction byte
        model_.command(State::var, static_cast<int8_t>(data[0]) + data[1] / 256.0);
    } else {
        return cmd2 == 0x03 || cmd2 == 0x09 || cmd2 == 0x0A; // freeze, unfreeze, EE mode
    }
    return true;
}

uint8_t LouthServer::port_state() const {
    const Model::Snapshot s = model_.snapshot();
    uint8_t bits = 0;
    for (const StatusBit& bit : kStatusBits)
        if (bit.on(s))
            bits |= bit.mask;
    return bits;
}

// CMD1, 85, the bitmap, then the status bytes it selects: bit n selects status byte n + 1, and
// they come in that order. Byte 1 is the port's state; the others (the port's errors and
// conditions, the disk's) hold nothing devsim models and read 0.
Bytes LouthServer::port_status(uint8_t cmd1, uint8_t bitmap) const {
    Bytes answer = {cmd1, 0x85, bitmap};
    if (bitmap == kOwnStatusRequest || bitmap == kOwnErrorsRequest) {
        answer.push_back(bitmap == kOwnStatusRequest ? port_state() : 0);
        answer.push_back(0);
        return answer;
    }
    for (int bit = 0; bit < 8; ++bit)
        if (bitmap & 1u << bit)
            answer.push_back(bit == 0 ? port_state() : 0);
    return answer;
}

Bytes LouthServer::answer(const Bytes& command) {
    // 02, count, CMD1, CMD2, data, checksum: anything shorter or wrongly summed is refused.
    if (command.size() < 5 || sum_of(command, 2) != 0)
        return {kNak, kChecksumError};
    const uint8_t type = command[2] & 0xF0, unit = command[2] & 0x0F, cmd2 = command[3];
    const Bytes data(command.begin() + 4, command.end() - 1);
    const std::string id = data.size() >= 8 ? std::string(data.begin(), data.begin() + 8) : "";
    if (type == 0x10)
        return transport(cmd2, data) ? Bytes{kAck} : Bytes{kNak, kUnknownCommand};
    if (type == 0x30)
        return sense(unit, cmd2, data);
    if (type != 0x20)
        return {kNak, kUnknownCommand};
    switch (cmd2) {
    case 0x21: // close port: its lock goes
        if (!data.empty())
            locked_.erase(data[0]);
        return {kAck};
    case 0x22: // select port
        return {kAck};
    case 0x23: // record init: the clip exists
        if (!id.empty() && id != clip_id(""))
            model_.record_cue(id);
        return {kAck};
    case 0x24: // play cue, cue with data
    case 0x25:
        model_.load(id);
        return {kAck};
    case 0x26: // delete an ID, or clear them all: the ID list starts again
    case 0x29:
        next_ = SIZE_MAX;
        model_.erase(cmd2 == 0x26 ? id : "");
        return {kAck};
    default:
        return {kNak, kUnknownCommand};
    }
}

Bytes LouthServer::sense(uint8_t unit, uint8_t cmd2, const Bytes& data) {
    const uint8_t cmd1 = 0x30 | unit;
    auto with_id = [&] {
        return data.size() >= 8 ? model_.clip(std::string(data.begin(), data.begin() + 8))
                                : std::nullopt;
    };
    switch (cmd2) {
    case 0x01: { // open port: a port opened with its lock flag is denied to the next opener
        if (data.size() < 2)
            return {kNak, kUnknownCommand};
        bool granted = !locked_[data[0]];
        if (granted)
            locked_[data[0]] = data[1] != 0;
        return louth_frame({cmd1, 0x81, static_cast<uint8_t>(granted ? 1 : 0)});
    }
    case 0x05:
        if (data.empty())
            return {kNak, kUnknownCommand};
        return louth_frame(port_status(cmd1, data[0]));
    case 0x06:
        return louth_frame(
            concat({cmd1, 0x86, 0x01}, frames_to_bcd(model_.standard(), model_.position())));
    case 0x07: {
        const std::string loaded = model_.loaded();
        return louth_frame(concat({cmd1, 0x87, 0x00}, Bytes(loaded.begin(), loaded.end())));
    }
    case 0x10: { // system status: the IDs stored (two bytes), the storage left (a timecode)
        const auto clips = model_.clips();
        const uint8_t ten_hours[4] = {0, 0, 0, 0x10};
        int64_t left = bcd_to_frames(model_.standard(), ten_hours);
        for (const Model::Clip& clip : clips)
            left -= clip.length;
        return louth_frame(concat({cmd1, 0x90, static_cast<uint8_t>(clips.size() >> 8),
                                   static_cast<uint8_t>(clips.size())},
                                  frames_to_bcd(model_.standard(), std::max<int64_t>(0, left))));
    }
    case 0x11:
        next_ = 0;
        return list_entry(unit, 0x91);
    case 0x02:
        return list_entry(unit, 0x82);
    case 0x14: {
        const auto clip = with_id();
        if (!clip)
            return louth_frame({cmd1, 0x94});
        return louth_frame(concat({cmd1, 0x94}, frames_to_bcd(model_.standard(), clip->length)));
    }
    case 0x16: // whether an ID is on the disk
        return louth_frame({cmd1, 0x96, static_cast<uint8_t>(with_id() ? 1 : 0)});
    default:
        return {kNak, kUnknownCommand};
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
