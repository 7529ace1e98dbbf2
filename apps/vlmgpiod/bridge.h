// The GPI command bridge: ctrld.out hears of GPI activity as one Sony 9-pin command per poll.
#pragma once

#include "vlmgpiod.h"

// Creates the device-control handle into app->zqhdl and connects it by datagram to ctrld.out
// (CTRLD_ADDR, CTRLD_PORT). A failure is a plain warning on standard error; the handle then stays
// unconnected and every command on it fails at once.
void openCtrldHandle(Application* app);

// Sends 0x43 0xBF 0xF0 gpit gpi (low 8 bits of each; the library appends the checksum) and waits
// up to the handle's time-out for the answer. No answer, a NAK or a failed send writes a warning
// with no newline of its own at verbosity 0; nothing is retried.
void sendS9P(const Application* app, int gpit, int gpi);
