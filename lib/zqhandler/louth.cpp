// Louth: the checksum, the builders of every command, the answer parsers, and the two links
// (datagram, serial line) behind one dispatch table.
#include "louth.h"

#include "datagram.h"
#include "fields.h"
#include "link_io.h"
#include "myserial.h"
#include "select.h"
#include "sony9p.h"
#include "wire.h"

#include <algorithm>
#include <arpa/inet.h>

namespace {

// The command types of CMD1's high nibble.
constexpr uint8_t kTransport = 0x10;
constexpr uint8_t kCueing = 0x20;
constexpr uint8_t kSense = 0x30;

// CMD1, CMD2 and the data of one command, gathered field by field, then framed by louth_misc.
class Frame {
  public:
    Frame(uint8_t type, int unit, uint8_t cmd2)
        : bytes_{static_cast<uint8_t>(type | (unit & 0x0F)), cmd2} {}
    Frame& byte(uint8_t value) {
        bytes_[size_++] = value;
        return *this;
    }
    Frame& be32(uint32_t value) {
        put_be32(&bytes_[size_], value);
        size_ += 4;
        return *this;
    }
    Frame& id(const char* id) {
        put_clip_id(&bytes_[size_], id);
        size_ += kIdBytes;
        return *this;
    }
    Frame& timecode(const char* tc) {
        put_timecode(&bytes_[size_], tc);
        size_ += kTcBytes;
        return *this;
    }
    int build(t_louth_command* cmd) const {
        return louth_misc(cmd, bytes_.data(), static_cast<int>(size_));
    }

  private:
    std::array<uint8_t, 2 + kIdBytes + 2 * kTcBytes> bytes_{};
    size_t size_ = 2;
};

// A signed port as one byte: the number, or for a negative one its magnitude with bit 7 set.
uint8_t port_byte(int port) {
    const auto number = static_cast<unsigned>(port);
    return static_cast<uint8_t>(port >= 0 ? number : (0u - number) | 0x80u);
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

int louth_stop(t_louth_command* cmd, int unit) {
    return Frame(kTransport, unit, 0x00).build(cmd);
}
int louth_play(t_louth_command* cmd, int unit) {
    return Frame(kTransport, unit, 0x01).build(cmd);
}
int louth_record(t_louth_command* cmd, int unit) {
    return Frame(kTransport, unit, 0x02).build(cmd);
}
int louth_still(t_louth_command* cmd, int unit) {
    return Frame(kTransport, unit, 0x04).build(cmd);
}
int louth_step_forward(t_louth_command* cmd, int unit) {
    return Frame(kTransport, unit, 0x05).build(cmd);
}
int louth_resume(t_louth_command* cmd, int unit) {
    return Frame(kTransport, unit, 0x06).build(cmd);
}

int louth_jog(t_louth_command* cmd, int unit, int32_t frames) {
    Frame frame(kTransport, unit, 0x07);
    // -128 fits a byte but takes the long form: the short one is symmetric.
    if (frames >= -127 && frames <= 127)
        frame.byte(static_cast<uint8_t>(frames));
    else
        frame.be32(static_cast<uint32_t>(frames));
    return frame.build(cmd);
}

int louth_var(t_louth_command* cmd, int unit, int32_t speed) {
    const auto whole = static_cast<int8_t>(static_cast<uint8_t>(speed / 100));
    // A remainder of 0 to 99 hundredths becomes 0 to 247 of the fraction byte.
    const int64_t fraction = (int64_t{speed} - 100 * int64_t{whole}) * 5 / 2;
    return Frame(kTransport, unit, 0x08)
        .byte(static_cast<uint8_t>(whole))
        .byte(static_cast<uint8_t>(fraction))
        .byte(0x00)
        .build(cmd);
}

int louth_EE_mode(t_louth_command* cmd, int unit, int mode) {
    return Frame(kTransport, unit, 0x0A).byte(static_cast<uint8_t>(mode)).build(cmd);
}

int louth_select_port(t_louth_command* cmd, int unit, int port) {
    return Frame(kCueing, unit, 0x22).byte(port_byte(port)).build(cmd);
}
int louth_record_init(t_louth_command* cmd, int unit, const char* id) {
    return Frame(kCueing, unit, 0x23).id(id).build(cmd);
}
int louth_record_init_data(t_louth_command* cmd, int unit, const char* id, const char* tc1,
                           const char* tc2) {
    return Frame(kCueing, unit, 0x23).id(id).timecode(tc1).timecode(tc2).build(cmd);
}
int louth_play_cue(t_louth_command* cmd, int unit, const char* id) {
    return Frame(kCueing, unit, 0x24).id(id).build(cmd);
}
int louth_play_cue_data(t_louth_command* cmd, int unit, const char* id, const char* tc1,
                        const char* tc2) {
    return Frame(kCueing, unit, 0x25).id(id).timecode(tc1).timecode(tc2).build(cmd);
}
int louth_eraseID(t_louth_command* cmd, int unit, const char* id) {
    return Frame(kCueing, unit, 0x26).id(id).build(cmd);
}
int louth_eraseAll(t_louth_command* cmd, int unit) {
    return Frame(kCueing, unit, 0x29).build(cmd);
}

int louth_open_port(t_louth_command* cmd, int unit, int port, int lock) {
    return Frame(kSense, unit, 0x01)
        .byte(port_byte(port))
        .byte(static_cast<uint8_t>(lock))
        .build(cmd);
}
int louth_sense_nextID(t_louth_command* cmd, int unit) {
    return Frame(kSense, unit, 0x02).build(cmd);
}
int louth_sense_status(t_louth_command* cmd, int unit) {
    return Frame(kSense, unit, 0x05).byte(0x43).build(cmd);
}
int louth_sense_errors(t_louth_command* cmd, int unit) {
    return Frame(kSense, unit, 0x05).byte(0x24).build(cmd);
}
int louth_sense_tc(t_louth_command* cmd, int unit) {
    return Frame(kSense, unit, 0x06).byte(0x01).build(cmd);
}
int louth_sense_currentID(t_louth_command* cmd, int unit) {
    return Frame(kSense, unit, 0x07).build(cmd);
}
int louth_sense_firstID(t_louth_command* cmd, int unit) {
    return Frame(kSense, unit, 0x11).build(cmd);
}
int louth_sense_lengthID(t_louth_command* cmd, int unit, const char* id) {
    return Frame(kSense, unit, 0x14).id(id).build(cmd);
}

// --- answers, from bytes alone -------------------------------------------------------------------

e_s9p_err louth_parse_datagram(std::span<const uint8_t> datagram, t_louth_command* answer) {
    if (datagram.size() < COMHDR_LOUTH_HEADER_SIZE + 1)
        return S9P_ERR_PROTOCOL;
    const uint8_t len = datagram[3]; // the low byte of `size`
    if (datagram.size() - COMHDR_LOUTH_HEADER_SIZE < len)
        return S9P_ERR_PROTOCOL;
    std::copy_n(datagram.begin() + COMHDR_LOUTH_HEADER_SIZE, len, answer->data);
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

// --- the links -----------------------------------------------------------------------------------

namespace {

struct LouthTransport {
    int (*send)(t_s9p_handle* hdl, t_louth_command* cmd, int timeout_ms);
    int (*read)(t_s9p_handle* hdl, t_louth_command* ans, int timeout_ms);
};

int send_datagram(t_s9p_handle* hdl, t_louth_command* cmd, int timeout_ms) {
    ComHdr_louth datagram{};
    datagram.type = htons(5);
    datagram.size = htons(cmd->len);
    std::copy_n(cmd->data, cmd->len, datagram.data);
    datagram_drain(hdl);
    // A wait that merely runs out does not stop the send: the system queues the datagram.
    if (selectout(hdl->fd, timeout_ms) < 0)
        return fail(cmd, S9P_SEND_TIMEOUT);
    if (datagram_send(hdl, &datagram, COMHDR_LOUTH_HEADER_SIZE + cmd->len) <= 0)
        return fail(cmd, S9P_INVAL_ARG);
    return 0;
}

int read_datagram(t_s9p_handle* hdl, t_louth_command* ans, int timeout_ms) {
    uint8_t datagram[512];
    size_t n = 0;
    e_s9p_err code = datagram_await(hdl, datagram, timeout_ms, &n);
    if (code == S9P_ERR_NONE)
        code = louth_parse_datagram({datagram, n}, ans);
    return code == S9P_ERR_NONE ? 0 : fail(ans, code);
}

int send_serial(t_s9p_handle* hdl, t_louth_command* cmd, int timeout_ms) {
    if (!serial_send_frame(hdl, {cmd->data, cmd->len}, timeout_ms))
        return fail(cmd, S9P_SEND_TIMEOUT);
    return 0;
}

// The stream link carries no Louth frames.
constexpr LouthTransport kLouthTransports[] = {
    /* S9P_LINK_NONE */ {nullptr, nullptr},
    /* S9P_LINK_DATAGRAM */ {send_datagram, read_datagram},
    /* S9P_LINK_SERIAL */ {send_serial, louth_read_answer_serial},
};

// The one dispatch point: the handle's link, or null when it cannot carry Louth.
const LouthTransport* transport_of(const t_s9p_handle* hdl) {
    if (!hdl || hdl->connected <= S9P_LINK_NONE || hdl->connected > S9P_LINK_SERIAL)
        return nullptr;
    if (hdl->connected == S9P_LINK_SERIAL && !hdl->shdl)
        return nullptr;
    return &kLouthTransports[hdl->connected];
}

} // namespace

int louth_send_cmd(t_s9p_handle* hdl, t_louth_command* cmd, int timeout_ms) {
    if (!cmd)
        return -1;
    cmd->status = {};
    const LouthTransport* transport = transport_of(hdl);
    if (!transport)
        return fail(cmd, S9P_ERR_NOT_CONNECTED);
    return transport->send(hdl, cmd, timeout_ms);
}

int louth_read_answer(t_s9p_handle* hdl, t_louth_command* cmd, int timeout_ms) {
    if (!cmd)
        return -1;
    *cmd = t_louth_command{};
    const LouthTransport* transport = transport_of(hdl);
    if (!transport)
        return fail(cmd, S9P_ERR_NOT_CONNECTED);
    if (transport->read(hdl, cmd, timeout_ms) < 0)
        return -1;
    e_s9p_err code = louth_check_answer(*cmd);
    return code == S9P_ERR_NONE ? 0 : fail(cmd, code);
}

int louth_read_answer_serial(t_s9p_handle* hdl, t_louth_command* cmd, int timeout_ms) {
    if (!cmd)
        return -1;
    if (!hdl || !hdl->shdl)
        return fail(cmd, S9P_ERR_NOT_CONNECTED);
    serial_use_read_timeout(hdl, timeout_ms);
    *cmd = t_louth_command{};
    MyTick start;
    GetMyTick(&start);
    LouthAnswerAssembler answer;
    while (!answer.complete()) {
        uint8_t bytes[LOUTH_MAX_FRAME];
        int n = serial_read(hdl->shdl, bytes, answer.missing());
        if (n > 0)
            answer.take({bytes, static_cast<size_t>(n)});
        if (answer.failed())
            return fail(cmd, S9P_ERR_PROTOCOL);
        if (answer.complete())
            break;
        // One read may add the line's own 0.1 s wait to the time-out.
        if (n < 0 || past(start, timeout_ms))
            return fail(cmd, S9P_RCV_TIMEOUT);
        if (n == 0)
            msleep(1);
    }
    std::copy(answer.answer().begin(), answer.answer().end(), cmd->data);
    cmd->len = static_cast<uint8_t>(answer.answer().size());
    return 0;
}
