// Gpio records the daemon allocates; the event and its datagram are in vlmgpiod/gpio_event.h.
#pragma once

#include <vlmgpiod/gpio_event.h>

// A new Gpio from _malloc, owned by the caller until gpioDestroy; never null.
Gpio* gpioCreate(int lines, int status);
void gpioDestroy(Gpio* gpio);
