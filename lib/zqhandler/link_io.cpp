// What the Sony and Louth transports do alike on the handle's links.
#include "link_io.h"

#include "myserial.h"
#include "mysocket.h"
#include "select.h"

#include <netinet/in.h>

e_s9p_err datagram_receive(t_s9p_handle* hdl, std::span<uint8_t> buffer, int timeout_ms,
                           size_t* size) {
    if (selectin(hdl->fd, timeout_ms) <= 0)
        return S9P_RCV_TIMEOUT;
    sockaddr_in sender{};
    socklen_t sender_len = sizeof sender;
    int n = mysocket_recvfrom(hdl->fd, buffer.data(), buffer.size(), 0,
                              reinterpret_cast<sockaddr*>(&sender), &sender_len);
    if (n < 0)
        return S9P_ERR_PROTOCOL;
    hdl->sockadd = sender;
    hdl->socklen = static_cast<int32_t>(sender_len);
    *size = static_cast<size_t>(n);
    return S9P_ERR_NONE;
}

void datagram_drain(t_s9p_handle* hdl) {
    uint8_t stale[512];
    size_t size = 0;
    for (int drained = 0; drained < 256 && selectin(hdl->fd, 0) > 0; ++drained)
        datagram_receive(hdl, stale, 0, &size);
}

bool serial_send_frame(t_s9p_handle* hdl, std::span<const uint8_t> frame, int timeout_ms) {
    s_serial_handle* port = hdl->shdl;
    if (port->tm_out != static_cast<uint32_t>(timeout_ms))
        serial_set_timeout(port, port->tm_in, static_cast<uint32_t>(timeout_ms));
    serial_flush_input(port);
    return serial_write(port, frame.data(), frame.size()) >= static_cast<int>(frame.size());
}

void serial_use_read_timeout(t_s9p_handle* hdl, int timeout_ms) {
    s_serial_handle* port = hdl->shdl;
    if (port->tm_in != static_cast<uint32_t>(timeout_ms))
        serial_set_timeout(port, static_cast<uint32_t>(timeout_ms), port->tm_out);
}

bool past(const MyTick& start, int timeout_ms) {
    return timeout_ms >= 0 && ElapsedTime2ms(&start) > timeout_ms;
}
