// The event datagram local programs exchange with the daemon: byte order on every host.
#include <climits>
#include <gtest/gtest.h>
#include <vlmgpiod/gpio_event.h>

TEST(GpioEvent, datagram_is_lines_then_status_signed_big_endian) {
    EXPECT_EQ(gpioEncode({255, 0x1F3}), (GpioDatagram{0, 0, 0, 0xFF, 0, 0, 1, 0xF3}));
    Gpio back = gpioDecode({0xFF, 0xFF, 0xFF, 0xFE, 0x80, 0, 0, 0});
    EXPECT_EQ(back.lines, -2);
    EXPECT_EQ(back.status, INT32_MIN);
}
