// Gpio records from the daemon's checked allocation.
#include "gpio.h"

#include "daemonize.h"

Gpio* gpioCreate(int lines, int status) {
    auto* gpio = static_cast<Gpio*>(_malloc(sizeof(Gpio)));
    gpio->lines = lines;
    gpio->status = status;
    return gpio;
}

void gpioDestroy(Gpio* gpio) {
    _free(gpio);
}
