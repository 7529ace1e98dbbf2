// The device-control handle: creation with its defaults, the three connections and their
// teardown, time-out and last error. The operations are in zqhandler_<family>.cpp.
#include "zqhandler_private.h"

#include "myserial.h"
#include "mysocket.h"
#include "unique_fd.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdlib>
#include <netinet/tcp.h>
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
        return fail(zqh, S9P_INVAL_ARG);
    const bool stream = link == S9P_LINK_STREAM;
    // Close-on-exec, as every descriptor of the library: a program the caller starts must not
    // inherit the connection.
    UniqueFd socket(mysocket_open(AF_INET, (stream ? SOCK_STREAM : SOCK_DGRAM) | SOCK_CLOEXEC,
                                  stream ? 0 : IPPROTO_UDP));
    if (!socket.valid())
        return fail(zqh, S9P_INVAL_ARG);
    if (stream && mysocket_connect(socket.get(), reinterpret_cast<const sockaddr*>(&*peer),
                                   sizeof *peer) != 0)
        return fail(zqh, S9P_INVAL_ARG);
    if (stream) {
        // Every request is a small message that waits for its answer; held back behind the
        // server's delayed acknowledgement of an upload, the next one would lose 40 ms.
        int on = 1;
        setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }
    zqh->comm_handle.fd = socket.release();
    zqh->comm_handle.sockadd = *peer;
    zqh->comm_handle.socklen = sizeof *peer;
    zqh->comm_handle.connected = link;
    zqh->timeout = kDefaultTimeoutMs;
    return 0;
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
        return fail(zqh, S9P_ERR_SYSTEM);
    if (!device || serial_connect(port, device) != 0) {
        serial_delete_handle(port);
        return fail(zqh, S9P_INVAL_ARG);
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
