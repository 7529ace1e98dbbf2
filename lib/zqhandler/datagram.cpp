// The datagram link's shared steps: the drain of stale datagrams, the writability wait with its
// one retry, the send to the peer and the receive that makes the sender the peer.
#include "datagram.h"

#include "mysocket.h"
#include "mytime.h"

bool datagram_wait_writable(const t_s9p_handle* hdl, int timeout_ms) {
    if (selectout(hdl->fd, timeout_ms) > 0)
        return true;
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

e_s9p_err datagram_await(t_s9p_handle* hdl, std::span<uint8_t> buffer, int timeout_ms,
                         size_t* size) {
    if (selectin(hdl->fd, timeout_ms) <= 0)
        return S9P_RCV_TIMEOUT;
    int n = datagram_receive(hdl, buffer.data(), buffer.size());
    if (n < 0)
        return S9P_ERR_PROTOCOL;
    *size = static_cast<size_t>(n);
    return S9P_ERR_NONE;
}

void datagram_drain(t_s9p_handle* hdl) {
    uint8_t stale[512];
    datagram_drain(hdl, [&] { datagram_receive(hdl, stale, sizeof stale); });
}
