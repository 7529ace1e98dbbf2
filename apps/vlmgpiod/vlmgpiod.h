// The daemon's state, its fixed addresses, and its three stages: options, start-up, the loop.
#pragma once

#include <vlmgpiod/gpio_event.h> // the ports and the multicast group

struct s_zqhandler; // the device-control handle to ctrld.out

// The daemon's whole state: one instance, owned by main, passed by address everywhere.
struct Application {
    int daemonize;      // -d: run as a daemon, output appended to LOG_FILENAME
    int mcastGpo;       // -m: multicast every GPO request to MCAST_ADDR
    int maxfd;          // for select: s_igpi + 1 (the network socket is created last)
    int s_lgpi;         // unbound; sends GPI events to 127.0.0.1:LOOP_GPI_PORT
    int s_lgpo;         // bound to 127.0.0.1:LOOP_GPO_PORT; receives GPO requests
    int s_igpi;         // bound to 0.0.0.0:INET_GPI_PORT; network GPI events in, GPO multicast out
    int gpi;            // the board's GPI register at the previous poll (low 8 bits)
    s_zqhandler* zqhdl; // the device-control handle to ctrld.out
    int haveSdi;        // the SDI board was detected at start-up
};

inline constexpr const char* LOG_FILENAME = "/velmar/log/vlmgpiod.log";
inline constexpr const char* CTRLD_ADDR = "127.0.0.1"; // the protocol daemon ctrld.out
inline constexpr const char* CTRLD_PORT = "32896";
inline constexpr int SELECT_TIMEOUT = 100000; // microseconds: the longest wait of one cycle

// Zeroes `app` and reads the options "dmv"; an unknown option prints the usage and exits with 0.
void init(Application* app, int argc, char** argv);
// Opens the sockets and the handle to ctrld.out, detects the board and, with -d, becomes a daemon
// logging to LOG_FILENAME. A socket that cannot be set up ends the process.
void startup(Application* app);
// The main loop; returns never. A failing select ends the process.
[[noreturn]] void run(Application* app);
