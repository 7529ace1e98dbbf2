// gpioctl: watch the daemon's GPI events and send it GPO requests, as local programs do.
#include "toolkit.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vlmgpiod/gpio_event.h>

namespace {

const char kUsage[] =
    "usage: gpioctl watch [COUNT]     print the GPI events sent to 127.0.0.1:42000\n"
    "                                 (stop after COUNT of them)\n"
    "       gpioctl gpo LINE STATUS   send a GPO request to 127.0.0.1:42001: LINE 0-7 with\n"
    "                                 STATUS 0 (clear) or 1 (set), or LINE 255 with the levels\n"
    "                                 of all eight lines in STATUS (e.g. 0xF3)\n";

const char* meaning(int status) {
    switch (status) {
    case 0:
        return "cleared";
    case 1:
        return "set";
    case 2:
        return "changed and changed back";
    default:
        return "?";
    }
}

int watch(long count) {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address = loopback_address(LOOP_GPI_PORT);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        perror("gpioctl: 127.0.0.1:42000");
        return 1;
    }
    printf("watching GPI events on 127.0.0.1:%u\n", LOOP_GPI_PORT);
    for (long seen = 0; count <= 0 || seen < count;) {
        GpioDatagram datagram;
        ssize_t got = recv(fd, datagram.data(), datagram.size(), 0);
        if (got != static_cast<ssize_t>(datagram.size()))
            continue;
        Gpio event = gpioDecode(datagram);
        printf("GPI line %d %s (status %d)\n", event.lines, meaning(event.status), event.status);
        ++seen;
    }
    close(fd);
    return 0;
}

int sendGpo(long line, long status) {
    GpioDatagram datagram = gpioEncode({static_cast<int32_t>(line), static_cast<int32_t>(status)});
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in to = loopback_address(LOOP_GPO_PORT);
    ssize_t sent = sendto(fd, datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr*>(&to),
                          sizeof to);
    close(fd);
    if (sent != static_cast<ssize_t>(datagram.size())) {
        perror("gpioctl: 127.0.0.1:42001");
        return 1;
    }
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    std::string verb = argc > 1 ? argv[1] : "";
    if (verb == "watch" && argc <= 3)
        return watch(argc == 3 ? number_argument(argv[2], kUsage) : 0);
    if (verb == "gpo" && argc == 4)
        return sendGpo(number_argument(argv[2], kUsage), number_argument(argv[3], kUsage));
    usage_exit(kUsage);
}
