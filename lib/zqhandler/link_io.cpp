// What the Sony and Louth transports do alike on the serial line.
#include "link_io.h"

#include "myserial.h"


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
