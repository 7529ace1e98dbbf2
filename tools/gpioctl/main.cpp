// gpioctl: the daemon's GPI events and GPO requests from a shell, in the manner of the Linux GPIO
// tools: `monitor` prints one line per edge, `set` takes LINE=VALUE pairs or a mask.
#include "toolkit.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <getopt.h>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>
#include <vlmgpiod/gpio_event.h>

namespace {

const char kUsage[] =
    "usage: gpioctl [-n COUNT] monitor\n"
    "       gpioctl set LINE=VALUE...\n"
    "       gpioctl set --mask LEVELS\n"
    "Talks to vlmgpiod.out on 127.0.0.1.\n"
    "  monitor             print each GPI event the daemon sends to port 42000 (its own and those\n"
    "                      relayed from the network) as: seconds.nanoseconds, the edge (rising,\n"
    "                      falling, or both when the line changed and changed back between two\n"
    "                      polls) and the line, tab-separated\n"
    "  set LINE=VALUE...   one GPO request per pair to port 42001: LINE 0-7, VALUE 0 or 1\n"
    "  set --mask LEVELS   one request setting all eight GPO lines to the bits of LEVELS (0xF3)\n"
    "options:\n"
    "  -n, --num-events COUNT  monitor: exit after COUNT events\n"
    "  -m, --mask LEVELS       set: the mask form\n"
    "  -h, --help              print this help and exit\n";

const char* edge(int status) {
    switch (status) {
    case 0:
        return "falling";
    case 1:
        return "rising";
    case 2:
        return "both";
    default:
        return "unknown";
    }
}

int monitor(long count) {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address = loopback_address(LOOP_GPI_PORT);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        perror("gpioctl: monitor: 127.0.0.1:42000");
        return 1;
    }
    fprintf(stderr, "gpioctl: monitoring GPI events on 127.0.0.1:%u\n", LOOP_GPI_PORT);
    for (long seen = 0; count <= 0 || seen < count;) {
        GpioDatagram datagram;
        ssize_t got = recv(fd, datagram.data(), datagram.size(), 0);
        if (got != static_cast<ssize_t>(datagram.size()))
            continue;
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        Gpio event = gpioDecode(datagram);
        printf("%lld.%09ld\t%s\t%d\n", static_cast<long long>(now.tv_sec), now.tv_nsec,
               edge(event.status), event.lines);
        ++seen;
    }
    close(fd);
    return 0;
}

int send_requests(const std::vector<Gpio>& requests) {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in to = loopback_address(LOOP_GPO_PORT);
    for (const Gpio& request : requests) {
        GpioDatagram datagram = gpioEncode(request);
        if (sendto(fd, datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr*>(&to),
                   sizeof to) != static_cast<ssize_t>(datagram.size())) {
            perror("gpioctl: set: 127.0.0.1:42001");
            close(fd);
            return 1;
        }
    }
    close(fd);
    return 0;
}

// "LINE=VALUE" with LINE 0-7 and VALUE 0 or 1, else a usage error naming the argument.
Gpio line_value(const char* argument) {
    const char* equals = strchr(argument, '=');
    char* end = nullptr;
    long line = equals ? strtol(argument, &end, 10) : -1;
    bool ok = equals && end == equals && end != argument && line >= 0 && line <= 7 &&
              (strcmp(equals + 1, "0") == 0 || strcmp(equals + 1, "1") == 0);
    if (!ok) {
        fprintf(stderr, "gpioctl: set: '%s' is not LINE=VALUE (line 0-7, value 0 or 1)\n",
                argument);
        exit(2);
    }
    return {static_cast<int32_t>(line), equals[1] - '0'};
}

} // namespace

int main(int argc, char** argv) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    static const option kOptions[] = {{"num-events", required_argument, nullptr, 'n'},
                                      {"mask", required_argument, nullptr, 'm'},
                                      {"help", no_argument, nullptr, 'h'},
                                      {nullptr, 0, nullptr, 0}};
    long count = 0;
    const char* mask = nullptr;
    // Options may come before or after the command (gpioctl set --mask 0xF3): getopt permutes.
    for (int option; (option = getopt_long(argc, argv, "n:m:h", kOptions, nullptr)) != -1;) {
        if (option == 'n')
            count = number_argument(optarg, kUsage);
        else if (option == 'm')
            mask = optarg;
        else if (option == 'h') {
            fputs(kUsage, stdout);
            return 0;
        } else
            usage_exit(kUsage);
    }
    std::string command = optind < argc ? argv[optind++] : "";
    if (command == "monitor" && optind == argc && !mask)
        return monitor(count);
    if (command == "set" && mask && optind == argc)
        return send_requests({{255, static_cast<int32_t>(number_argument(mask, kUsage) & 0xFF)}});
    if (command == "set" && !mask && optind < argc) {
        std::vector<Gpio> requests;
        for (int i = optind; i < argc; ++i)
            requests.push_back(line_value(argv[i]));
        return send_requests(requests);
    }
    usage_exit(kUsage);
}
