// GPI and GPO events: the board poll, the event datagrams and the GPO register image.
#pragma once

#include "gpio.h"
#include "vlmgpiod.h"

// Sends `gpio` as a GPI event to 127.0.0.1:LOOP_GPI_PORT; a failed send is reported, not retried.
void sendGPI(const Application* app, const Gpio& gpio);
// Sends `gpio` as a GPO event to MCAST_ADDR:INET_GPI_PORT; a failed send is reported.
void sendGPO(const Application* app, const Gpio& gpio);
// Applies a GPO request to the process's image of the GPO register and writes the whole image to
// the board: line 0-7 sets (status != 0) or clears its bit, line 255 takes status's low 8 bits,
// any other line changes nothing but the register is written all the same.
void setSdiGPO(const Gpio& gpio);

// Detects the board (sets haveSdi) and, when it is there, reads its GPI levels into gpi. The
// transition register is left alone, so what it latched is reported by the first poll.
void detectBoard(Application* app);
// Reads transitions then levels; on any transition tells ctrld.out (sendS9P), then sends one GPI
// event per flagged line, lines in rising order.
void pollGpi(Application* app);
// One GPO request from a local program: to the board (if present), to the network with -m.
void handleGpoRequest(const Application* app, const Gpio& request);
