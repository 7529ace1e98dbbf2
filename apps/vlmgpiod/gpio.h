// One GPI or GPO event and its 8-byte big-endian datagram.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

// A GPI event (line 0 to 7, status 0 clear, 1 set, 2 changed and back) or a GPO request (line 0
// to 7 with status 0 clear / other set, or line 255 with the levels of all lines in `status`).
struct Gpio {
    int32_t lines;
    int32_t status;
};

constexpr size_t GPIO_DATAGRAM_SIZE = 8;
using GpioDatagram = std::array<uint8_t, GPIO_DATAGRAM_SIZE>;

// `lines` then `status`, each signed 32-bit big-endian.
GpioDatagram gpioEncode(const Gpio& gpio);
Gpio gpioDecode(const GpioDatagram& datagram);

// A new Gpio from _malloc, owned by the caller until gpioDestroy; never null.
Gpio* gpioCreate(int lines, int status);
void gpioDestroy(Gpio* gpio);
