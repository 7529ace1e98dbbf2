// The GPI command bridge to ctrld.out over the device-control library's datagram connection.
#include "bridge.h"

#include "output.h"

#include <cstdint>
#include <cstdio>
#include <zqhandler/zqhandler.h>

void openCtrldHandle(Application* app) {
    app->zqhdl = zqhandler_create();
    if (zqhandler_connect_eth(app->zqhdl, CTRLD_ADDR, CTRLD_PORT) == -1)
        fprintf(stderr, "WARNING: Failed to connect to 'ctrld.out' daemon. Is it running ?\n");
}

void sendS9P(const Application* app, int gpit, int gpi) {
    const uint8_t command[] = {0x43, 0xBF, 0xF0, static_cast<uint8_t>(gpit),
                               static_cast<uint8_t>(gpi)};
    if (zqhandler_cmd_misc(app->zqhdl, command, sizeof command) == -1)
        outputWrite(VerbosityLevel0,
                    "WARNING: sendS9P() -> Failed to send s9p command to 'ctrld.out' program.");
}
