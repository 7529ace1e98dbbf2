// Gpio records: the datagram's byte order, allocation.
#include "gpio.h"

#include "daemonize.h"

namespace {

void putBigEndian(uint8_t* out, int32_t value) {
    uint32_t bits = static_cast<uint32_t>(value);
    for (int i = 0; i < 4; ++i)
        out[i] = static_cast<uint8_t>(bits >> (24 - 8 * i));
}

int32_t getBigEndian(const uint8_t* in) {
    uint32_t bits = 0;
    for (int i = 0; i < 4; ++i)
        bits = bits << 8 | in[i];
    return static_cast<int32_t>(bits);
}

} // namespace

GpioDatagram gpioEncode(const Gpio& gpio) {
    GpioDatagram datagram;
    putBigEndian(&datagram[0], gpio.lines);
    putBigEndian(&datagram[4], gpio.status);
    return datagram;
}

Gpio gpioDecode(const GpioDatagram& datagram) {
    return {getBigEndian(&datagram[0]), getBigEndian(&datagram[4])};
}

Gpio* gpioCreate(int lines, int status) {
    auto* gpio = static_cast<Gpio*>(_malloc(sizeof(Gpio)));
    gpio->lines = lines;
    gpio->status = status;
    return gpio;
}

void gpioDestroy(Gpio* gpio) {
    _free(gpio);
}
