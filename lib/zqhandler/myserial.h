// The serial port of the Sony and Louth serial transports: fixed 9-pin line settings, the old
// settings kept for disconnect, unbuffered reads and writes, and two recorded time-outs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <termios.h>

struct s_serial_handle {
    int fd;                 // the open device, -1 when closed
    termios termios_backup; // the line's settings as found by serial_connect
    uint32_t tm_in;         // receive time-out in ms, recorded for the transports
    uint32_t tm_out;        // send time-out in ms, recorded for the transports
};

// A zeroed handle with fd -1, owned by the caller; null when memory is short.
s_serial_handle* serial_create_handle();
// Frees the handle (null allowed); does not close the device.
void serial_delete_handle(s_serial_handle* port);
// Records both time-outs; the line itself keeps its own 0.1 s read wait. Returns 0.
int serial_set_timeout(s_serial_handle* port, uint32_t tm_in, uint32_t tm_out);
// Opens `device` and sets 38400 baud, 8 data bits, odd parity, 1 stop bit, raw, VMIN 0 VTIME 1
// (a read returns what is there, or 0 bytes after 0.1 s); both time-outs 60. 0, or -1 when the
// device cannot be opened (fd is then -1). A settings change the device refuses is not reported.
int serial_connect(s_serial_handle* port, const char* device);
// Restores the saved settings and closes the device; harmless on a port never connected.
void serial_disconnect(s_serial_handle* port);
// Drop unread input / unsent output. Return 0.
int serial_flush_input(s_serial_handle* port);
int serial_flush_output(s_serial_handle* port);
// One read(2) / write(2): bytes moved, 0 when the line stayed silent, -1 with errno on error.
int serial_read(s_serial_handle* port, void* buffer, size_t length);
int serial_write(s_serial_handle* port, const void* buffer, size_t length);
// Called after each failed read of a frame; a hook for line diagnostics, which does nothing.
void serial_diagnostic(s_serial_handle* port);
