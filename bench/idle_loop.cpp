// The idle baseline: a process whose whole life is the daemon's 100 ms wait, and nothing else.
#include <sys/select.h>

int main() {
    for (;;) {
        timeval timeout{0, 100000};
        select(0, nullptr, nullptr, nullptr, &timeout);
    }
}
