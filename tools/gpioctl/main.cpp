// gpioctl: the daemon's GPI events and GPO requests from a shell, in the manner of the Linux GPIO
// tools: `monitor` prints one line per edge, `set` takes LINE=VALUE pairs or a mask.
#include "cli.h"
#include "output.h"
#include "toolkit.h"
#include "values.h"

#include <arpa/inet.h>
#include <cstdio>
#include <ctime>
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
    "  -n, --num-events COUNT  monitor: exit after COUNT events (1 or more)\n"
    "  -m, --mask LEVELS       set: the mask form\n"
    "  -h, --help              print this help and exit\n"
    "Numbers may be decimal, octal (0...) or hexadecimal (0x...); LEVELS is 0 to 0xFF.\n";

const char* edge(int status) {
    switch (status) {
    case 0:
        return "falling";
    case 1:
        return "rising";
    case 2:
        return "both";
    default: // a datagram relayed from the network may carry any
        return "unknown";
    }
}

int monitor(int64_t count) {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address = loopback_address(LOOP_GPI_PORT);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        perror("gpioctl: monitor: 127.0.0.1:42000");
        return 1;
    }
    fprintf(stderr, "gpioctl: monitoring GPI events on 127.0.0.1:%u\n", LOOP_GPI_PORT);
    for (int64_t seen = 0; count <= 0 || seen < count;) {
        GpioDatagram datagram;
        // MSG_TRUNC: the datagram's own length, so that a longer one is skipped, not cut.
        ssize_t got = recv(fd, datagram.data(), datagram.size(), MSG_TRUNC);
        if (got != static_cast<ssize_t>(datagram.size()))
            continue;
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        Gpio event = gpioDecode(datagram);
        printf("%lld.%09ld\t%s\t%d\n", static_cast<long long>(now.tv_sec), now.tv_nsec,
               edge(event.status), event.lines);
        if (cli::output_lost())
            break;
        ++seen;
    }
    close(fd);
    return cli::output_lost() ? 1 : 0;
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

// "LINE=VALUE" with LINE 0-7 and VALUE 0 or 1.
Gpio line_value(const std::string& argument) {
    const size_t equals = argument.find('=');
    if (equals == std::string::npos)
        throw cli::Refused("set: " + cli::quote(argument) + " is not LINE=VALUE");
    return {
        static_cast<int32_t>(cli::integer(argument.substr(0, equals), 0, 7, "set: LINE", true)),
        static_cast<int32_t>(cli::integer(argument.substr(equals + 1), 0, 1, "set: VALUE", true))};
}

int run(int argc, char** argv) {
    static constexpr cli::Option kOptions[] = {
        {"num-events", 'n', true}, {"mask", 'm', true}, {"help", 'h', false}};
    const cli::CommandLine line = cli::parse(argc, argv, kOptions);
    int64_t count = 0;
    const char* mask = nullptr;
    for (const auto& [option, value] : line.options) {
        if (option->letter == 'n')
            count = cli::integer(value, 1, INT32_MAX, "--num-events", true);
        else if (option->letter == 'm')
            mask = value;
        else {
            fputs(kUsage, stdout);
            return 0;
        }
    }
    const std::string command = line.words.empty() ? "" : line.words[0];
    const std::vector<std::string> arguments(line.words.begin() + (line.words.empty() ? 0 : 1),
                                             line.words.end());
    if (command == "monitor" && arguments.empty() && !mask)
        return monitor(count);
    if (command == "set" && count > 0)
        throw cli::Refused("--num-events goes with monitor only");
    if (command == "set" && mask && arguments.empty())
        return send_requests(
            {{255, static_cast<int32_t>(cli::integer(mask, 0, 0xFF, "--mask", true))}});
    if (command == "set" && !mask && !arguments.empty()) {
        std::vector<Gpio> requests;
        for (const std::string& argument : arguments)
            requests.push_back(line_value(argument));
        return send_requests(requests);
    }
    if (command != "monitor" && command != "set")
        throw cli::Refused(command.empty() ? "no command (monitor or set)"
                                           : "unknown command " + cli::quote(command));
    throw cli::Refused(command == "monitor" ? "monitor takes no arguments nor --mask"
                                            : "set takes LINE=VALUE pairs or --mask LEVELS");
}

} // namespace

int main(int argc, char** argv) {
    return cli::run("gpioctl", [&] { return run(argc, argv); });
}
