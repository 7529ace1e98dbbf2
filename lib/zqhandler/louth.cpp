// Louth: the checksum, the builders of every command (the fixed ones as one table, the others
// composed field by field), and the parsers of received answers. The links are in link.cpp.
#include "fields.h"
#include "louth_private.h"
#include "sony9p_private.h"

#include <algorithm>
#include <initializer_list>

namespace {

// A signed port as one byte: the number, or for a negative one its magnitude with bit 7 set.
uint8_t port_byte(int port) {
    const auto number = static_cast<unsigned>(port);
    return static_cast<uint8_t>(port >= 0 ? number : (0u - number) | 0x80u);
}

// CMD1 is the command type (0x10 transport; 0x20 cueing, record set-up, erasure and ports; 0x30
// sense requests and port opening) with the unit in its low nibble.
FrameBytes command(uint8_t type, int unit, uint8_t cmd2) {
    return FrameBytes(static_cast<uint8_t>(type | (unit & 0x0F)), cmd2);
}

int framed(t_louth_command* cmd, const FrameBytes& frame) {
    return louth_misc(cmd, frame.frame().data(), static_cast<int>(frame.frame().size()));
}

} // namespace

unsigned int louth_calculate_checksum(const uint8_t* bytes, int count) {
    unsigned sum = 0;
    for (int i = 0; i < count; ++i)
        sum += bytes[i];
    return (0u - sum) & 0xFFu;
}

int louth_misc(t_louth_command* cmd, const uint8_t* bytes, int count) {
    if (!cmd)
        return -1;
    const int n = bytes ? std::clamp(count, 0, LOUTH_MAX_COUNT) : 0;
    cmd->data[0] = LOUTH_START;
    cmd->data[1] = static_cast<uint8_t>(n);
    std::copy_n(bytes, n, cmd->data + 2);
    cmd->data[2 + n] = static_cast<uint8_t>(louth_calculate_checksum(cmd->data + 2, n));
    cmd->len = static_cast<uint8_t>(n + 3);
    return 0;
}

// The commands of a unit alone: X(builder, type, CMD2, data...).
#define LOUTH_UNIT_COMMANDS(X)                                                                     \
    X(louth_stop, 0x10, 0x00)                                                                      \
    X(louth_play, 0x10, 0x01)                                                                      \
    X(louth_record, 0x10, 0x02)                                                                    \
    X(louth_still, 0x10, 0x04)                                                                     \
    X(louth_step_forward, 0x10, 0x05)                                                              \
    X(louth_resume, 0x10, 0x06)                                                                    \
    X(louth_eraseAll, 0x20, 0x29)                                                                  \
    X(louth_sense_nextID, 0x30, 0x02)                                                              \
    X(louth_sense_status, 0x30, 0x05, 0x43)                                                        \
    X(louth_sense_errors, 0x30, 0x05, 0x24)                                                        \
    X(louth_sense_tc, 0x30, 0x06, 0x01)                                                            \
    X(louth_sense_currentID, 0x30, 0x07)                                                           \
    X(louth_sense_firstID, 0x30, 0x11)

#define LOUTH_UNIT_COMMAND(name, type, cmd2, ...)                                                  \
    int name(t_louth_command* cmd, int unit) {                                                     \
        const std::initializer_list<uint8_t> data = {__VA_ARGS__};                                 \
        return framed(cmd, command(type, unit, cmd2).append({data.begin(), data.size()}));         \
    }
LOUTH_UNIT_COMMANDS(LOUTH_UNIT_COMMAND)

int louth_jog(t_louth_command* cmd, int unit, int32_t frames) {
    FrameBytes frame = command(0x10, unit, 0x07);
    // -128 fits a byte but takes the long form: the short one is symmetric.
    if (frames >= -127 && frames <= 127)
        frame.byte(static_cast<uint8_t>(frames));
    else
        frame.be32(static_cast<uint32_t>(frames));
    return framed(cmd, frame);
}

int louth_var(t_louth_command* cmd, int unit, int32_t speed) {
    const auto whole = static_cast<int8_t>(static_cast<uint8_t>(speed / 100));
    // A remainder of 0 to 99 hundredths becomes 0 to 247 of the fraction byte.
    const int64_t fraction = (int64_t{speed} - 100 * int64_t{whole}) * 5 / 2;
    return framed(cmd, command(0x10, unit, 0x08)
                           .byte(static_cast<uint8_t>(whole))
                           .byte(static_cast<uint8_t>(fraction))
                           .byte(0x00));
}

int louth_EE_mode(t_louth_command* cmd, int unit, int mode) {
    return framed(cmd, command(0x10, unit, 0x0A).byte(static_cast<uint8_t>(mode)));
}
int louth_select_port(t_louth_command* cmd, int unit, int port) {
    return framed(cmd, command(0x20, unit, 0x22).byte(port_byte(port)));
}
int louth_record_init(t_louth_command* cmd, int unit, const char* id) {
    return framed(cmd, command(0x20, unit, 0x23).clip_id(id));
}
int louth_record_init_data(t_louth_command* cmd, int unit, const char* id, const char* tc1,
                           const char* tc2) {
    return framed(cmd, command(0x20, unit, 0x23).clip_id(id).timecode(tc1).timecode(tc2));
}
int louth_play_cue(t_louth_command* cmd, int unit, const char* id) {
    return framed(cmd, command(0x20, unit, 0x24).clip_id(id));
}
int louth_play_cue_data(t_louth_command* cmd, int unit, const char* id, const char* tc1,
                        const char* tc2) {
    return framed(cmd, command(0x20, unit, 0x25).clip_id(id).timecode(tc1).timecode(tc2));
}
int louth_eraseID(t_louth_command* cmd, int unit, const char* id) {
    return framed(cmd, command(0x20, unit, 0x26).clip_id(id));
}
int louth_open_port(t_louth_command* cmd, int unit, int port, int lock) {
    return framed(cmd,
                  command(0x30, unit, 0x01).byte(port_byte(port)).byte(static_cast<uint8_t>(lock)));
}
int louth_sense_lengthID(t_louth_command* cmd, int unit, const char* id) {
    return framed(cmd, command(0x30, unit, 0x14).clip_id(id));
}

// --- answers, from bytes alone -------------------------------------------------------------------

e_s9p_err louth_parse_datagram(std::span<const uint8_t> datagram, t_louth_command* answer) {
    if (datagram.size() < ZQ_DATAGRAM_HEADER_SIZE + 1)
        return S9P_ERR_PROTOCOL;
    const uint8_t len = datagram[3]; // the low byte of `size`
    if (datagram.size() - ZQ_DATAGRAM_HEADER_SIZE < len)
        return S9P_ERR_PROTOCOL;
    std::copy_n(datagram.begin() + ZQ_DATAGRAM_HEADER_SIZE, len, answer->data);
    answer->len = len;
    return S9P_ERR_NONE;
}

e_s9p_err louth_check_answer(const t_louth_command& answer) {
    if (answer.len == 0 || answer.data[0] != LOUTH_START)
        return S9P_ERR_NONE;
    if (answer.len < 3)
        return S9P_ERR_PROTOCOL;
    const uint8_t sum =
        static_cast<uint8_t>(louth_calculate_checksum(answer.data + 2, answer.len - 3));
    return sum == answer.data[answer.len - 1] ? S9P_ERR_NONE : S9P_ERR_CHECKSUM;
}

bool LouthAnswerAssembler::failed() const {
    if (size_ == 0)
        return false;
    switch (bytes_[0]) {
    case LOUTH_ACK:
    case LOUTH_REFUSAL:
        return false;
    case LOUTH_START:
        return size_ >= 2 && bytes_[1] > LOUTH_MAX_COUNT;
    default:
        return true;
    }
}

size_t LouthAnswerAssembler::expected() const {
    if (size_ == 0)
        return 1;
    switch (bytes_[0]) {
    case LOUTH_ACK:
        return 1;
    case LOUTH_REFUSAL:
        return 2;
    default: // a frame: the start byte, its count and CMD1 first, then count + 3 in all
        return size_ < 2 ? 3 : bytes_[1] + size_t{3};
    }
}

size_t LouthAnswerAssembler::take(std::span<const uint8_t> bytes) {
    // The first byte decides the form, the count the length: each is taken before what it rules.
    return take_missing(bytes, bytes_.data(), size_, [this] { return missing(); });
}
