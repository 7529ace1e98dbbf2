// The daemon's GPI and GPO events as local programs see them: the ports, the multicast group and
// the 8-byte datagram. The daemon and every program that talks to it include this and only this.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

inline constexpr uint16_t LOOP_GPI_PORT = 42000; // GPI events out, to 127.0.0.1
inline constexpr uint16_t LOOP_GPO_PORT = 42001; // GPO requests in, on 127.0.0.1
inline constexpr uint16_t INET_GPI_PORT = 42002; // GPO events out (multicast), GPI events in
inline constexpr const char* MCAST_ADDR = "224.1.1.42";

// A GPI event (line 0 to 7, status 0 clear, 1 set, 2 changed and back) or a GPO request (line 0
// to 7 with status 0 clear / other set, or line 255 with the levels of all lines in `status`).
struct Gpio {
    int32_t lines;
    int32_t status;
};

inline constexpr size_t GPIO_DATAGRAM_SIZE = 8;
using GpioDatagram = std::array<uint8_t, GPIO_DATAGRAM_SIZE>;

// `lines` then `status`, each signed 32-bit big-endian, whatever the host's byte order.
inline GpioDatagram gpioEncode(const Gpio& gpio) {
    GpioDatagram datagram;
    const uint32_t fields[] = {static_cast<uint32_t>(gpio.lines),
                               static_cast<uint32_t>(gpio.status)};
    for (size_t i = 0; i < datagram.size(); ++i)
        datagram[i] = static_cast<uint8_t>(fields[i / 4] >> (24 - 8 * (i % 4)));
    return datagram;
}

inline Gpio gpioDecode(const GpioDatagram& datagram) {
    uint32_t fields[2] = {};
    for (size_t i = 0; i < datagram.size(); ++i)
        fields[i / 4] = fields[i / 4] << 8 | datagram[i];
    return {static_cast<int32_t>(fields[0]), static_cast<int32_t>(fields[1])};
}
