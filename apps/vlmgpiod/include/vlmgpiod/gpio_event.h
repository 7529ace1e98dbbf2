/* The daemon's GPI and GPO events as local programs see them: the ports, the multicast group and
 * the 8-byte datagram. The daemon and every program that talks to it include this and only this;
 * a C program includes it as well as a C++ one. */
#ifndef VLMGPIOD_GPIO_EVENT_H
#define VLMGPIOD_GPIO_EVENT_H

#include <stddef.h>
#include <stdint.h>

enum {
    LOOP_GPI_PORT = 42000, /* GPI events out, to 127.0.0.1 */
    LOOP_GPO_PORT = 42001, /* GPO requests in, on 127.0.0.1 */
    INET_GPI_PORT = 42002, /* GPO events out (multicast), GPI events in */
    GPIO_DATAGRAM_SIZE = 8
};
#define MCAST_ADDR "224.1.1.42"

/* A GPI event (line 0 to 7, status 0 clear, 1 set, 2 changed and back) or a GPO request (line 0
 * to 7 with status 0 clear / other set, or line 255 with the levels of all lines in `status`). */
typedef struct Gpio {
    int32_t lines;
    int32_t status;
} Gpio;

/* `lines` then `status`, each signed 32-bit big-endian, whatever the host's byte order. */
static inline void gpioEncodeBytes(Gpio gpio, uint8_t datagram[GPIO_DATAGRAM_SIZE]) {
    const uint32_t fields[2] = {(uint32_t)gpio.lines, (uint32_t)gpio.status};
    for (size_t i = 0; i < GPIO_DATAGRAM_SIZE; ++i)
        datagram[i] = (uint8_t)(fields[i / 4] >> (24 - 8 * (i % 4)));
}

static inline Gpio gpioDecodeBytes(const uint8_t datagram[GPIO_DATAGRAM_SIZE]) {
    uint32_t fields[2] = {0, 0};
    for (size_t i = 0; i < GPIO_DATAGRAM_SIZE; ++i)
        fields[i / 4] = fields[i / 4] << 8 | datagram[i];
    Gpio gpio = {(int32_t)fields[0], (int32_t)fields[1]};
    return gpio;
}

#ifdef __cplusplus
#include <array>

using GpioDatagram = std::array<uint8_t, GPIO_DATAGRAM_SIZE>;

inline GpioDatagram gpioEncode(const Gpio& gpio) {
    GpioDatagram datagram;
    gpioEncodeBytes(gpio, datagram.data());
    return datagram;
}

inline Gpio gpioDecode(const GpioDatagram& datagram) {
    return gpioDecodeBytes(datagram.data());
}
#endif

#endif
