// vlmgpiod.out: the daemon that owns the SDI board's GPI and GPO lines.
#include "vlmgpiod.h"

#include <cstdio>

int main(int argc, char** argv) {
    // Whoever watches our output through a pipe or the log file sees each line as it is written.
    setvbuf(stdout, nullptr, _IOLBF, 0);
    setvbuf(stderr, nullptr, _IONBF, 0);
    Application app;
    init(&app, argc, argv);
    startup(&app);
    run(&app);
}
