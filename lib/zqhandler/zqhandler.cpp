// The device-control handle: creation with its defaults, the three connections and their
// teardown, time-out and last error, and the Sony exchange with the two generic operations.
#include "myserial.h"
#include "mysocket.h"
#include "mytime.h"
#include "sony9p.h"
#include "sony_exchange.h"
#include "unique_fd.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdlib>
#include <new>
#include <optional>
#include <sys/socket.h>

namespace {

// Every default of a handle lives here.
constexpr int32_t kDefaultTimeoutMs = 60;
constexpr int32_t kDefaultProtoVer = 1;

void set_defaults(t_zqhandler* zqh) {
    zqh->comm_handle.connected = S9P_LINK_NONE;
    zqh->comm_handle.fd = -1;
    zqh->comm_handle.shdl = nullptr;
    zqh->timeout = kDefaultTimeoutMs;
    zqh->lasterr = S9P_ERR_NONE;
    zqh->proto_ver = kDefaultProtoVer;
}

int refuse(t_zqhandler* zqh, e_s9p_err code) {
    zqh->lasterr = code;
    return -1;
}

// Reads one number as "%d" would (leading blanks, a sign, digits) and keeps its low 8 bits.
std::optional<uint8_t> address_byte(const char*& text) {
    char* end = nullptr;
    long value = strtol(text, &end, 10);
    if (end == text)
        return std::nullopt;
    text = end;
    return static_cast<uint8_t>(static_cast<unsigned long>(value) & 0xFFu);
}

// "a.b.c.d", four decimal numbers, the first one the most significant byte. Host names are not
// resolved; anything after the fourth number is ignored.
std::optional<sockaddr_in> peer_address(const char* address, const char* port) {
    if (!address || !port)
        return std::nullopt;
    uint8_t bytes[4];
    for (int i = 0; i < 4; ++i) {
        if (i > 0 && *address++ != '.')
            return std::nullopt;
        auto byte = address_byte(address);
        if (!byte)
            return std::nullopt;
        bytes[i] = *byte;
    }
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_port = htons(static_cast<uint16_t>(strtol(port, nullptr, 10) & 0xFFFF));
    std::copy_n(bytes, 4, reinterpret_cast<uint8_t*>(&peer.sin_addr.s_addr)); // network order
    return peer;
}

// The two socket connects: drop the current link, read the peer, open the socket (connected to
// the peer for a stream; a datagram socket is neither bound nor connected, every send names the
// peer) and hand it to the handle with the default time-out.
int connect_socket(t_zqhandler* zqh, const char* address, const char* port, e_s9p_link link) {
    if (!zqh)
        return -1;
    zqhandler_disconnect(zqh);
    auto peer = peer_address(address, port);
    if (!peer)
        return refuse(zqh, S9P_INVAL_ARG);
    const bool stream = link == S9P_LINK_STREAM;
    UniqueFd socket(
        mysocket_open(AF_INET, stream ? SOCK_STREAM : SOCK_DGRAM, stream ? 0 : IPPROTO_UDP));
    if (!socket.valid())
        return refuse(zqh, S9P_INVAL_ARG);
    if (stream && mysocket_connect(socket.get(), reinterpret_cast<const sockaddr*>(&*peer),
                                   sizeof *peer) != 0)
        return refuse(zqh, S9P_INVAL_ARG);
    zqh->comm_handle.fd = socket.release();
    zqh->comm_handle.sockadd = *peer;
    zqh->comm_handle.socklen = sizeof *peer;
    zqh->comm_handle.connected = link;
    zqh->timeout = kDefaultTimeoutMs;
    return 0;
}

uint32_t elapsed_ms(const MyTick& start) {
    return static_cast<uint32_t>(ElapsedTime2ms(&start));
}

bool is_nak(const t_s9p_command& answer) {
    return answer.data[0] == 0x11 && answer.data[1] == 0x12;
}

// Bit 2 (checksum error) outranks bit 0 (unknown command); any other bits are line errors.
e_s9p_err nak_error(const t_s9p_command& answer) {
    const uint8_t bits = answer.len > S9P_MIN_FRAME ? answer.data[2] : 0;
    if (bits & 0x04)
        return S9P_ERR_CHECKSUM;
    if (bits & 0x01)
        return S9P_NOT_IMPLEMENTED;
    return S9P_ERR_COMM;
}

} // namespace

t_zqhandler* zqhandler_create(void) {
    auto* zqh = new (std::nothrow) t_zqhandler{};
    if (zqh)
        set_defaults(zqh);
    return zqh;
}

void zqhandler_delete(t_zqhandler* zqh) {
    if (!zqh)
        return;
    zqhandler_disconnect(zqh);
    delete zqh;
}

void zqhandler_disconnect(t_zqhandler* zqh) {
    if (!zqh)
        return;
    t_s9p_handle& link = zqh->comm_handle;
    switch (link.connected) {
    case S9P_LINK_SERIAL:
        if (link.shdl) {
            serial_disconnect(link.shdl);
            serial_delete_handle(link.shdl);
        }
        link.shdl = nullptr;
        break;
    case S9P_LINK_STREAM:
        shutdown(link.fd, SHUT_RDWR);
        [[fallthrough]];
    case S9P_LINK_DATAGRAM:
        mysocket_close(link.fd);
        link.fd = -1;
        break;
    default:
        break;
    }
    link.connected = S9P_LINK_NONE;
}

int zqhandler_connect_eth(t_zqhandler* zqh, const char* address, const char* port) {
    return connect_socket(zqh, address, port, S9P_LINK_DATAGRAM);
}

int zqhandler_connect_tcp(t_zqhandler* zqh, const char* address, const char* port) {
    return connect_socket(zqh, address, port, S9P_LINK_STREAM);
}

int zqhandler_connect_serial(t_zqhandler* zqh, const char* device) {
    if (!zqh)
        return -1;
    zqhandler_disconnect(zqh);
    s_serial_handle* port = serial_create_handle();
    if (!port)
        return refuse(zqh, S9P_ERR_SYSTEM);
    if (!device || serial_connect(port, device) != 0) {
        serial_delete_handle(port);
        return refuse(zqh, S9P_INVAL_ARG);
    }
    zqh->comm_handle.shdl = port;
    zqh->comm_handle.connected = S9P_LINK_SERIAL;
    zqh->timeout = kDefaultTimeoutMs;
    return 0;
}

int zqhandler_set_timeout(t_zqhandler* zqh, int timeout_ms) {
    if (!zqh)
        return -1;
    zqh->timeout = timeout_ms;
    return timeout_ms;
}

int zqhandler_get_timeout(t_zqhandler* zqh) {
    return zqh ? zqh->timeout : -1;
}

int zqhandler_get_last_err(t_zqhandler* zqh) {
    if (!zqh)
        return S9P_ERR_NONE;
    int code = zqh->lasterr;
    zqh->lasterr = S9P_ERR_NONE;
    return code;
}

int s9p_transact(t_zqhandler* zqh, t_s9p_command* cmd) {
    t_s9p_data& kept = zqh->data.s9p;
    MyTick start;
    GetMyTick(&start);
    int sent = s9p_send_cmd(&zqh->comm_handle, cmd, zqh->timeout);
    kept.sent_completion_time = elapsed_ms(start);
    if (sent != 0)
        return refuse(zqh, static_cast<e_s9p_err>(cmd->err_status));
    kept.last_sent = *cmd;

    GetMyTick(&start);
    kept.rcv_completion_time = 0;
    int read = s9p_read_answer(&zqh->comm_handle, cmd, zqh->timeout);
    kept.rcv_completion_time = elapsed_ms(start);
    if (read != 0)
        return refuse(zqh, static_cast<e_s9p_err>(cmd->err_status));
    kept.last_rcv = *cmd;
    if (is_nak(*cmd))
        return refuse(zqh, nak_error(*cmd));
    return 0;
}

int zqhandler_cmd_misc(t_zqhandler* zqh, const uint8_t* bytes, int count) {
    return s9p_exchange(
        zqh, [&](t_s9p_command& cmd) { return s9p_misc(&cmd, bytes, count); }, s9p_accept_any,
        [](const t_s9p_command&) { return 0; });
}

int zqhandler_cmd_sense_misc(t_zqhandler* zqh, const uint8_t* bytes, int count, uint8_t* answer) {
    if (!answer)
        return -1;
    return s9p_exchange(
        zqh, [&](t_s9p_command& cmd) { return s9p_misc(&cmd, bytes, count); }, s9p_accept_any,
        [&](const t_s9p_command& ans) {
            std::copy_n(ans.data, ans.len, answer);
            return static_cast<int>(ans.len);
        });
}
