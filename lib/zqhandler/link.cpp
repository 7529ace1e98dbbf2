// The link layer: one send and one answer read per link (UDP datagram, serial line, TCP stream
// through the connection protocol) behind one dispatch table, written once for every protocol
// record; what differs between the Sony family and Louth is told by each protocol's rules below.
#include "link.h"

#include "cnxn_private.h"
#include "myserial.h"
#include "mysocket.h"
#include "mytime.h"

#include <algorithm>
#include <arpa/inet.h>
#include <type_traits>

namespace {

// What a protocol brings to the links: its datagram record and type, its parsers, its answer
// check, and where its transport departs from the other's.
template <typename Record> struct Protocol;

template <> struct Protocol<t_s9p_command> {
    using Datagram = ComHdr;
    using Assembler = S9pFrameAssembler;
    static constexpr uint16_t kDatagramType = 1;
    static constexpr int kStaleDropped = kMaxStaleReads; // every answer already waiting
    static constexpr bool kRetryWritable = true;         // a second wait 5 ms after the first
    static constexpr e_s9p_err kSendFailed = S9P_ERR_SYSTEM;
    static constexpr e_s9p_err kSerialReadFailed = S9P_ERR_COMM;
    // An empty read of the line is waited through while the time-out lasts.
    static constexpr bool kEmptyReadEnds = false;

    static bool sendable(const t_s9p_command& cmd) {
        return cmd.len >= S9P_MIN_FRAME && cmd.len <= S9P_MAX_FRAME;
    }
    static e_s9p_err parse(std::span<const uint8_t> datagram, t_s9p_command* answer) {
        return s9p_parse_datagram(datagram, answer);
    }
    static e_s9p_err check(const t_s9p_command& answer) {
        return s9p_checksum_ok(answer) ? S9P_ERR_NONE : S9P_ERR_CHECKSUM;
    }
    // After a read that left the frame incomplete: the time-out ends the wait for the first three
    // bytes, and for the rest; the read that brought the length does not count against it, so
    // the rest of a frame whose head came just in time still gets one more read.
    static bool deadline_counts(bool length_known_before, bool length_known_now) {
        return length_known_before || !length_known_now;
    }
};

template <> struct Protocol<t_louth_command> {
    using Datagram = ComHdr_louth;
    using Assembler = LouthAnswerAssembler;
    static constexpr uint16_t kDatagramType = 5;
    static constexpr int kStaleDropped = 1; // one late answer, not every one
    static constexpr bool kRetryWritable = false;
    static constexpr e_s9p_err kSendFailed = S9P_INVAL_ARG;
    static constexpr e_s9p_err kSerialReadFailed = S9P_RCV_TIMEOUT;
    // Each read waits the line's own 0.1 s; one that brings nothing ends the answer.
    static constexpr bool kEmptyReadEnds = true;

    static bool sendable(const t_louth_command&) { return true; }
    static e_s9p_err parse(std::span<const uint8_t> datagram, t_louth_command* answer) {
        return louth_parse_datagram(datagram, answer);
    }
    static e_s9p_err check(const t_louth_command& answer) { return louth_check_answer(answer); }
    // The time-out is checked before each read of the bytes that follow the length.
    static bool deadline_counts(bool, bool length_known_now) { return length_known_now; }
};

// --- datagram ------------------------------------------------------------------------------

template <typename Record> int read_datagram(t_s9p_handle* hdl, Record* ans, int timeout_ms) {
    if (selectin(hdl->fd, timeout_ms) <= 0)
        return fail(ans, S9P_RCV_TIMEOUT);
    uint8_t datagram[512];
    const int n = datagram_receive(hdl, datagram, sizeof datagram);
    if (n < 0)
        return fail(ans, S9P_ERR_PROTOCOL);
    const e_s9p_err code = Protocol<Record>::parse({datagram, static_cast<size_t>(n)}, ans);
    return code == S9P_ERR_NONE ? 0 : fail(ans, code);
}

template <typename Record> int send_datagram(t_s9p_handle* hdl, Record* cmd, int timeout_ms) {
    using P = Protocol<Record>;
    typename P::Datagram datagram{};
    static_assert(offsetof(typename P::Datagram, data) == ZQ_DATAGRAM_HEADER_SIZE);
    datagram.type = htons(P::kDatagramType);
    datagram.size = htons(cmd->len);
    std::copy_n(cmd->data, cmd->len, datagram.data);
    // An answer that came after its command gave up must not be taken for this one's.
    Record stale{};
    drain_waiting(hdl->fd, P::kStaleDropped, [&] {
        read_datagram(hdl, &stale, 0);
        return true;
    });
    if (!datagram_wait_writable(hdl, timeout_ms, P::kRetryWritable))
        return fail(cmd, S9P_SEND_TIMEOUT);
    if (datagram_send(hdl, &datagram, ZQ_DATAGRAM_HEADER_SIZE + cmd->len) <= 0)
        return fail(cmd, P::kSendFailed);
    return 0;
}

// --- serial line ---------------------------------------------------------------------------

template <typename Record> int send_serial(t_s9p_handle* hdl, Record* cmd, int timeout_ms) {
    s_serial_handle* port = hdl->shdl;
    if (port->tm_out != static_cast<uint32_t>(timeout_ms))
        serial_set_timeout(port, port->tm_in, static_cast<uint32_t>(timeout_ms));
    serial_flush_input(port);
    if (serial_write(port, cmd->data, cmd->len) < static_cast<int>(cmd->len))
        return fail(cmd, S9P_SEND_TIMEOUT);
    return 0;
}

// The one read loop of the line: each read asks for what the protocol's assembler still lacks,
// never more, so nothing of a following answer is taken.
template <typename Record>
e_s9p_err collect(s_serial_handle* port, typename Protocol<Record>::Assembler& answer,
                  int timeout_ms) {
    using P = Protocol<Record>;
    MyTick start;
    GetMyTick(&start);
    while (!answer.complete()) {
        const bool known_before = answer.length_known();
        uint8_t bytes[P::Assembler::kCapacity];
        const int n = serial_read(port, bytes, answer.missing());
        if (n < 0)
            return P::kSerialReadFailed;
        answer.take({bytes, static_cast<size_t>(n)});
        if (answer.failed())
            return S9P_ERR_PROTOCOL;
        if (answer.complete())
            break;
        if (n == 0 && P::kEmptyReadEnds)
            return S9P_RCV_TIMEOUT;
        // The time-out is checked between reads: one read may add the line's own 0.1 s.
        if (P::deadline_counts(known_before, answer.length_known()) && timeout_ms >= 0 &&
            ElapsedTime2ms(&start) > timeout_ms)
            return S9P_RCV_TIMEOUT;
        if (n == 0)
            msleep(1);
    }
    return S9P_ERR_NONE;
}

template <typename Record> int read_serial(t_s9p_handle* hdl, Record* ans, int timeout_ms) {
    s_serial_handle* port = hdl->shdl;
    if (!port)
        return fail(ans, S9P_ERR_NOT_CONNECTED);
    if (port->tm_in != static_cast<uint32_t>(timeout_ms))
        serial_set_timeout(port, static_cast<uint32_t>(timeout_ms), port->tm_out);
    *ans = Record{};
    typename Protocol<Record>::Assembler answer;
    const e_s9p_err code = collect<Record>(port, answer, timeout_ms);
    if (code != S9P_ERR_NONE) {
        serial_diagnostic(port);
        return fail(ans, code);
    }
    std::copy(answer.bytes().begin(), answer.bytes().end(), ans->data);
    ans->len = static_cast<uint8_t>(answer.bytes().size());
    return 0;
}

// --- connection-protocol stream (Sony frames only) -----------------------------------------

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

// --- the one dispatch point ----------------------------------------------------------------

template <typename Record> struct Link {
    int (*send)(t_s9p_handle* hdl, Record* cmd, int timeout_ms);
    int (*read)(t_s9p_handle* hdl, Record* ans, int timeout_ms);
};

template <typename Record> constexpr Link<Record> stream_link() {
    if constexpr (std::is_same_v<Record, t_s9p_command>)
        return {send_stream, read_stream};
    else
        return {nullptr, nullptr}; // the stream carries no Louth frames
}

template <typename Record>
constexpr Link<Record> kLinks[] = {
    /* S9P_LINK_NONE */ {nullptr, nullptr},
    /* S9P_LINK_DATAGRAM */ {send_datagram<Record>, read_datagram<Record>},
    /* S9P_LINK_SERIAL */ {send_serial<Record>, read_serial<Record>},
    /* S9P_LINK_STREAM */ stream_link<Record>(),
};

// The handle's link for this protocol, or null when it has none that carries it.
template <typename Record> const Link<Record>* link_of(const t_s9p_handle* hdl) {
    if (!hdl || hdl->connected <= S9P_LINK_NONE || hdl->connected > S9P_LINK_STREAM)
        return nullptr;
    if (hdl->connected == S9P_LINK_SERIAL && !hdl->shdl)
        return nullptr;
    const Link<Record>& link = kLinks<Record>[hdl->connected];
    return link.send ? &link : nullptr;
}

} // namespace

// --- the datagram steps ---------------------------------------------------------------------

bool datagram_wait_writable(const t_s9p_handle* hdl, int timeout_ms, bool retry) {
    const int ready = selectout(hdl->fd, timeout_ms);
    if (ready > 0)
        return true;
    if (!retry)
        return ready == 0;
    msleep(5);
    return selectout(hdl->fd, timeout_ms) >= 0;
}

int datagram_send(const t_s9p_handle* hdl, const void* bytes, size_t length) {
    return mysocket_sendto(hdl->fd, bytes, length, 0,
                           reinterpret_cast<const sockaddr*>(&hdl->sockadd),
                           static_cast<socklen_t>(hdl->socklen));
}

int datagram_receive(t_s9p_handle* hdl, void* buffer, size_t capacity) {
    sockaddr_in sender{};
    socklen_t sender_len = sizeof sender;
    int n = mysocket_recvfrom(hdl->fd, buffer, capacity, 0, reinterpret_cast<sockaddr*>(&sender),
                              &sender_len);
    if (n < 0)
        return n;
    hdl->sockadd = sender;
    hdl->socklen = static_cast<int32_t>(sender_len);
    return n;
}

// --- one frame on the handle's link ---------------------------------------------------------

template <typename Record> int link_send(t_s9p_handle* hdl, Record* cmd, int timeout_ms) {
    if (!cmd)
        return -1;
    cmd->status = {};
    const Link<Record>* link = link_of<Record>(hdl);
    if (!link)
        return fail(cmd, S9P_ERR_NOT_CONNECTED);
    if (!Protocol<Record>::sendable(*cmd))
        return fail(cmd, S9P_INVAL_ARG);
    return link->send(hdl, cmd, timeout_ms);
}

template <typename Record> int link_read(t_s9p_handle* hdl, Record* ans, int timeout_ms) {
    if (!ans)
        return -1;
    *ans = Record{};
    const Link<Record>* link = link_of<Record>(hdl);
    if (!link)
        return fail(ans, S9P_ERR_NOT_CONNECTED);
    if (link->read(hdl, ans, timeout_ms) < 0)
        return -1;
    const e_s9p_err code = Protocol<Record>::check(*ans);
    return code == S9P_ERR_NONE ? 0 : fail(ans, code);
}

template int link_send(t_s9p_handle*, t_s9p_command*, int);
template int link_read(t_s9p_handle*, t_s9p_command*, int);
template int link_send(t_s9p_handle*, t_louth_command*, int);
template int link_read(t_s9p_handle*, t_louth_command*, int);

int s9p_send_cmd(t_s9p_handle* hdl, t_s9p_command* cmd, int timeout_ms) {
    return link_send(hdl, cmd, timeout_ms);
}

int s9p_read_answer(t_s9p_handle* hdl, t_s9p_command* ans, int timeout_ms) {
    return link_read(hdl, ans, timeout_ms);
}

int s9p_send_cmd_eth(t_s9p_handle* hdl, t_s9p_command* cmd, int timeout_ms) {
    cmd->status = {};
    if (!Protocol<t_s9p_command>::sendable(*cmd))
        return fail(cmd, S9P_INVAL_ARG);
    return send_datagram(hdl, cmd, timeout_ms);
}

int s9p_read_answer_serial(t_s9p_handle* hdl, t_s9p_command* ans, int timeout_ms) {
    return read_serial(hdl, ans, timeout_ms);
}

int louth_send_cmd(t_s9p_handle* hdl, t_louth_command* cmd, int timeout_ms) {
    return link_send(hdl, cmd, timeout_ms);
}

int louth_read_answer(t_s9p_handle* hdl, t_louth_command* cmd, int timeout_ms) {
    return link_read(hdl, cmd, timeout_ms);
}

int louth_read_answer_serial(t_s9p_handle* hdl, t_louth_command* cmd, int timeout_ms) {
    if (!cmd)
        return -1;
    return hdl ? read_serial(hdl, cmd, timeout_ms) : fail(cmd, S9P_ERR_NOT_CONNECTED);
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
