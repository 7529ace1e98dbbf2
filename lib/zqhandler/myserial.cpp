// The serial port: a Sony 9-pin control line (38400 8O1, raw) opened over whatever it was before.
#include "myserial.h"

#include <fcntl.h>
#include <new>
#include <unistd.h>

namespace {

constexpr uint32_t kDefaultTimeoutMs = 60;

// The 9-pin line: parity checked on input and every byte passed on with all eight bits (frames
// carry 0x11 and 0x13, so no XON/XOFF either); no output processing; no echo, no signals, no
// line editing. A read returns as soon as data is there, or empty after 0.1 s.
termios line_settings(const termios& found) {
    termios line = found;
    line.c_iflag = IGNBRK | INPCK | IXANY;
    line.c_oflag = 0;
    line.c_cflag = CS8 | CREAD | PARENB | PARODD | CLOCAL;
    line.c_lflag = 0;
    line.c_cc[VMIN] = 0;
    line.c_cc[VTIME] = 1;
    cfsetispeed(&line, B38400);
    cfsetospeed(&line, B38400);
    return line;
}

} // namespace

s_serial_handle* serial_create_handle() {
    auto* port = new (std::nothrow) s_serial_handle{};
    if (port)
        port->fd = -1;
    return port;
}

void serial_delete_handle(s_serial_handle* port) {
    delete port;
}

int serial_set_timeout(s_serial_handle* port, uint32_t tm_in, uint32_t tm_out) {
    port->tm_in = tm_in;
    port->tm_out = tm_out;
    return 0;
}

int serial_connect(s_serial_handle* port, const char* device) {
    *port = s_serial_handle{};
    port->fd = open(device, O_RDWR | O_SYNC | O_NOCTTY | O_CLOEXEC);
    if (port->fd < 0)
        return -1;
    tcgetattr(port->fd, &port->termios_backup);
    termios line = line_settings(port->termios_backup);
    tcsetattr(port->fd, TCSANOW, &line);
    fcntl(port->fd, F_SETFL, 0); // blocking: the line's VTIME bounds each read
    serial_set_timeout(port, kDefaultTimeoutMs, kDefaultTimeoutMs);
    return 0;
}

void serial_disconnect(s_serial_handle* port) {
    if (port->fd < 0)
        return;
    tcsetattr(port->fd, TCSANOW, &port->termios_backup);
    close(port->fd);
    port->fd = -1;
}

int serial_flush_input(s_serial_handle* port) {
    tcflush(port->fd, TCIFLUSH);
    return 0;
}

int serial_flush_output(s_serial_handle* port) {
    tcflush(port->fd, TCOFLUSH);
    return 0;
}

int serial_read(s_serial_handle* port, void* buffer, size_t length) {
    return static_cast<int>(read(port->fd, buffer, length));
}

int serial_write(s_serial_handle* port, const void* buffer, size_t length) {
    return static_cast<int>(write(port->fd, buffer, length));
}

void serial_diagnostic(s_serial_handle*) {}
