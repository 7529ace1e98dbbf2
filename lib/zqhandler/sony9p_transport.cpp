// Sony transport layer: one send and one answer read per link (serial line, UDP datagram, TCP
// stream through the connection protocol) behind one dispatch table, and the pure answer parsers.
#include "sony9p_transport.h"

#include "datagram.h"
#include "link_io.h"
#include "myserial.h"
#include "mytime.h"
#include "select.h"

#include <algorithm>
#include <arpa/inet.h>

e_s9p_err s9p_parse_datagram(std::span<const uint8_t> datagram, t_s9p_command* answer) {
    if (datagram.size() < COMHDR_HEADER_SIZE + S9P_MIN_FRAME)
        return S9P_ERR_PROTOCOL;
    const uint8_t frame_len = datagram[3]; // the low byte of `size`
    // A length under 3 has no checksum to test; one over 18 does not fit the record.
    if (frame_len < S9P_MIN_FRAME || frame_len > S9P_MAX_FRAME)
        return S9P_ERR_PROTOCOL;
    if (datagram.size() - COMHDR_HEADER_SIZE < frame_len)
        return S9P_ERR_PROTOCOL;
    std::copy_n(datagram.begin() + COMHDR_HEADER_SIZE, frame_len, answer->data);
    answer->len = frame_len;
    return S9P_ERR_NONE;
}

e_s9p_err s9p_parse_stream_header(std::span<const uint8_t, CNXN_HEADER_SIZE> header,
                                  uint8_t* frame_len) {
    if (!cnxn_tag_is(header.data(), "s9p "))
        return S9P_ERR_COMM;
    const uint8_t len = header[7]; // the low byte of arg1; the three above it are not looked at
    if (len < S9P_MIN_FRAME || len > S9P_MAX_FRAME)
        return S9P_ERR_COMM;
    *frame_len = len;
    return S9P_ERR_NONE;
}

size_t S9pFrameAssembler::take(std::span<const uint8_t> bytes) {
    // The first three bytes decide how many more the frame needs, so they are taken first.
    return take_missing(bytes, bytes_.data(), size_, [this] { return missing(); });
}

namespace {

// Each transport's send and answer read; both get a valid record and return 0 or -1 with the
// record's err_status set.
struct Transport {
    int (*send)(t_s9p_handle* hdl, t_s9p_command* cmd, int timeout_ms);
    int (*read)(t_s9p_handle* hdl, t_s9p_command* ans, int timeout_ms);
};

int send_serial(t_s9p_handle* hdl, t_s9p_command* cmd, int timeout_ms) {
    if (!serial_send_frame(hdl, {cmd->data, cmd->len}, timeout_ms))
        return fail(cmd, S9P_SEND_TIMEOUT);
    return 0;
}

int read_serial_failed(s_serial_handle* port, t_s9p_command* ans, e_s9p_err code) {
    serial_diagnostic(port);
    return fail(ans, code);
}

// One read of the bytes the frame still lacks (never more, so nothing of a following frame is
// taken); the read's result.
int read_missing(s_serial_handle* port, S9pFrameAssembler& frame) {
    uint8_t bytes[S9P_MAX_FRAME];
    int n = serial_read(port, bytes, frame.missing());
    if (n > 0)
        frame.take({bytes, static_cast<size_t>(n)});
    return n;
}

int read_datagram(t_s9p_handle* hdl, t_s9p_command* ans, int timeout_ms) {
    uint8_t datagram[512];
    size_t n = 0;
    e_s9p_err code = datagram_await(hdl, datagram, timeout_ms, &n);
    if (code == S9P_ERR_NONE)
        code = s9p_parse_datagram({datagram, n}, ans);
    return code == S9P_ERR_NONE ? 0 : fail(ans, code);
}

int send_stream(t_s9p_handle* hdl, t_s9p_command* cmd, int timeout_ms) {
    t_cnxn_command msg{};
    cnxn_sony9p_command(&msg, cmd);
    cnxn_flush_input(hdl);
    if (cnxn_send_cmd(hdl, &msg, static_cast<unsigned>(timeout_ms)) < 0)
        return fail(cmd, static_cast<e_s9p_err>(msg.err_status));
    return 0;
}

int read_stream(t_s9p_handle* hdl, t_s9p_command* ans, int timeout_ms) {
    t_cnxn_command header{};
    if (cnxn_rcv_cmd(hdl, &header, static_cast<unsigned>(timeout_ms)) < 0)
        return fail(ans, static_cast<e_s9p_err>(header.err_status));
    uint8_t len = 0;
    e_s9p_err code = s9p_parse_stream_header(
        std::span<const uint8_t, CNXN_HEADER_SIZE>(header.data, CNXN_HEADER_SIZE), &len);
    if (code != S9P_ERR_NONE)
        return fail(ans, code);
    int got = cnxn_rcv_data(hdl, ans->data, len, static_cast<unsigned>(timeout_ms));
    if (got < 0)
        return fail(ans, static_cast<e_s9p_err>(-got));
    if (got < len)
        return fail(ans, S9P_RCV_TIMEOUT);
    ans->len = len;
    return 0;
}

constexpr Transport kTransports[] = {
    /* S9P_LINK_NONE */ {nullptr, nullptr},
    /* S9P_LINK_DATAGRAM */ {s9p_send_cmd_eth, read_datagram},
    /* S9P_LINK_SERIAL */ {send_serial, s9p_read_answer_serial},
    /* S9P_LINK_STREAM */ {send_stream, read_stream},
};

// The one dispatch point: the handle's transport, or null when it has none usable.
const Transport* transport_of(const t_s9p_handle* hdl) {
    if (hdl->connected <= S9P_LINK_NONE || hdl->connected > S9P_LINK_STREAM)
        return nullptr;
    if (hdl->connected == S9P_LINK_SERIAL && !hdl->shdl)
        return nullptr;
    return &kTransports[hdl->connected];
}

bool frame_length_valid(const t_s9p_command* cmd) {
    return cmd->len >= S9P_MIN_FRAME && cmd->len <= S9P_MAX_FRAME;
}

} // namespace

int s9p_send_cmd(t_s9p_handle* hdl, t_s9p_command* cmd, int timeout_ms) {
    cmd->status = {};
    const Transport* transport = transport_of(hdl);
    if (!transport)
        return fail(cmd, S9P_ERR_NOT_CONNECTED);
    if (!frame_length_valid(cmd))
        return fail(cmd, S9P_INVAL_ARG);
    return transport->send(hdl, cmd, timeout_ms);
}

int s9p_send_cmd_eth(t_s9p_handle* hdl, t_s9p_command* cmd, int timeout_ms) {
    cmd->status = {};
    if (!frame_length_valid(cmd))
        return fail(cmd, S9P_INVAL_ARG);
    ComHdr datagram{};
    datagram.type = htons(1);
    datagram.size = htons(cmd->len);
    std::copy_n(cmd->data, cmd->len, datagram.data);

    datagram_drain(hdl);
    if (!datagram_wait_writable(hdl, timeout_ms))
        return fail(cmd, S9P_SEND_TIMEOUT);
    if (datagram_send(hdl, &datagram, COMHDR_HEADER_SIZE + cmd->len) <= 0)
        return fail(cmd, S9P_ERR_SYSTEM);
    return 0;
}

int s9p_read_answer(t_s9p_handle* hdl, t_s9p_command* ans, int timeout_ms) {
    *ans = t_s9p_command{};
    const Transport* transport = transport_of(hdl);
    if (!transport)
        return fail(ans, S9P_ERR_NOT_CONNECTED);
    if (transport->read(hdl, ans, timeout_ms) < 0)
        return -1;
    if (!s9p_checksum_ok(*ans))
        return fail(ans, S9P_ERR_CHECKSUM);
    return 0;
}

int s9p_read_answer_serial(t_s9p_handle* hdl, t_s9p_command* ans, int timeout_ms) {
    s_serial_handle* port = hdl->shdl;
    if (!port)
        return fail(ans, S9P_ERR_NOT_CONNECTED);
    serial_use_read_timeout(hdl, timeout_ms);
    *ans = t_s9p_command{};
    MyTick start;
    GetMyTick(&start);
    S9pFrameAssembler frame;
    // The time-out is checked after each read. It ends the wait for CMD1, CMD2 and the next byte;
    // once those are in hand, the rest of the frame gets one more read before it counts, so a
    // frame whose last bytes come just after the time-out is still taken. One read may add the
    // line's own 0.1 s wait.
    while (!frame.complete()) {
        const bool reading_body = frame.header_complete();
        int n = read_missing(port, frame);
        if (n < 0)
            return read_serial_failed(port, ans, S9P_ERR_COMM);
        if (frame.complete())
            break;
        if (past(start, timeout_ms) && (reading_body || !frame.header_complete()))
            return read_serial_failed(port, ans, S9P_RCV_TIMEOUT);
        if (n == 0)
            msleep(1);
    }
    std::copy(frame.frame().begin(), frame.frame().end(), ans->data);
    ans->len = static_cast<uint8_t>(frame.frame().size());
    return 0;
}
