// Serial port on a pty pair: the 9-pin line's speed and raw reads, the old settings back on
// disconnect. That a silent line reads nothing after 0.1 s, and that bytes such as 0x11 pass, is
// shown by the Louth and Sony exchanges on the line.
#include "myserial.h"

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace {

TEST(MySerial, connect_sets_the_nine_pin_line_and_disconnect_restores_it) {
    // A pty pair: the test keeps the master, the port opens the other end by its path. The
    // master reports the other end's settings; zeroed first, two of them compare as bytes.
    const int master = posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_TRUE(master >= 0 && grantpt(master) == 0 && unlockpt(master) == 0);
    auto settings = [master] {
        termios t{};
        tcgetattr(master, &t);
        return t;
    };
    // A line as another program might leave it: 9600 baud, canonical, echo, CR translation.
    termios before = settings();
    before.c_iflag = ICRNL | IXON;
    before.c_oflag = OPOST | ONLCR;
    before.c_lflag = ICANON | ECHO;
    before.c_cc[VMIN] = 1;
    cfsetispeed(&before, B9600);
    cfsetospeed(&before, B9600);
    ASSERT_EQ(tcsetattr(master, TCSANOW, &before), 0);
    const termios kept = settings(); // what the pty actually kept

    s_serial_handle* port = serial_create_handle();
    ASSERT_EQ(serial_connect(port, ptsname(master)), 0);
    EXPECT_EQ(port->tm_in, 60u);
    EXPECT_EQ(port->tm_out, 60u);
    termios line = settings();
    EXPECT_EQ(cfgetospeed(&line), static_cast<speed_t>(B38400));
    EXPECT_EQ(line.c_lflag & ICANON, 0u) << "a read returns what is there, not a line";
    serial_disconnect(port);
    EXPECT_EQ(port->fd, -1);
    const termios after = settings();
    EXPECT_EQ(std::memcmp(&after, &kept, sizeof kept), 0);
    serial_delete_handle(port);
    close(master);
}

} // namespace
