// The steps of the datagram link that the Sony and Louth transports and the management protocol
// share: dropping stale datagrams before a request, waiting to send, sending to the peer and
// receiving from whoever answers.
#pragma once

#include "select.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <zqhandler/sony9p.h>

// A peer that floods the socket must not hold the caller for ever: at most this many stale
// datagrams are dropped before one request.
inline constexpr int kMaxStaleDatagrams = 256;

// While a datagram is waiting on the link's socket (a poll of 0 ms), calls `drop`, which reads
// and discards one.
template <typename Drop> void datagram_drain(const t_s9p_handle* hdl, Drop&& drop) {
    for (int n = 0; n < kMaxStaleDatagrams && selectin(hdl->fd, 0) > 0; ++n)
        drop();
}

// Drops the datagrams already waiting, so that an answer that came after its command gave up is
// not taken for the next one's; each sender becomes the peer, as any answer's does.
void datagram_drain(t_s9p_handle* hdl);

// Waits up to `timeout_ms` for the socket to be writable; when it is not, sleeps 5 ms and waits
// once more. False only when that second wait failed: a second time-out sends all the same.
bool datagram_wait_writable(const t_s9p_handle* hdl, int timeout_ms);

// Sends `length` bytes to the link's peer; sendto's result.
int datagram_send(const t_s9p_handle* hdl, const void* bytes, size_t length);

// Receives one datagram of up to `capacity` bytes without waiting (the caller has waited); its
// sender becomes the link's peer, so later requests go to whoever answered last. recvfrom's
// result; on failure the peer is left alone.
int datagram_receive(t_s9p_handle* hdl, void* buffer, size_t capacity);

// Waits at most `timeout_ms` for one datagram and receives it into `buffer`, storing its size in
// `*size`; its sender becomes the peer. S9P_RCV_TIMEOUT when nothing was readable in time,
// S9P_ERR_PROTOCOL when the receive failed.
e_s9p_err datagram_await(t_s9p_handle* hdl, std::span<uint8_t> buffer, int timeout_ms,
                         size_t* size);
