// gpiomqtt's options and their strict reading.
#include "options.h"

#include "cli.h"
#include "ids.h"
#include "paths.h"

#include <algorithm>
#include <unistd.h>
#include <vlmgpiod/gpio_event.h>

namespace gpiomqtt {

#ifdef GPIOMQTT_NO_TLS
const bool kHaveTls = false;
#else
const bool kHaveTls = true;
#endif

const char kUsage[] =
    "usage: gpiomqtt [--broker HOST:PORT] [--id NAME] [--qos 0|1|2] [--gpo LINE=TOPIC]...\n"
    "                [--forward PORT] [--password-file FILE] [--cafile FILE] [-v]\n"
    "       gpiomqtt [--id NAME] --print-ids\n"
    "Publishes the GPI events vlmgpiod.out sends to 127.0.0.1:42000 as NMOS IS-07 boolean states\n"
    "on an MQTT broker, and sends GPO requests to 127.0.0.1:42001 from the states it follows.\n"
    "options:\n"
    "  -b, --broker HOST:PORT     the broker (default 127.0.0.1:1883)\n"
    "  -i, --id NAME              the board's identity, from which every ID is derived (default:\n"
    "                             the host name; 1 to 64 printable characters, no blank)\n"
    "  -q, --qos N                QoS of every publication and subscription (default 2)\n"
    "  -g, --gpo LINE=TOPIC       GPO line LINE (0-7) follows the boolean source on TOPIC\n"
    "  -f, --forward PORT         pass every GPI datagram on, unchanged, to 127.0.0.1:PORT\n"
    "  -p, --password-file FILE   the user name and password, as USER:PASSWORD on one line\n"
    "  -c, --cafile FILE          TLS to the broker, trusting the certificates in FILE\n"
    "  -P, --print-ids            print every source ID, flow ID and topic, and exit\n"
    "  -v, --verbose              print every message published and every GPO request sent\n"
    "  -h, --help                 print this help and exit\n";

namespace {

constexpr size_t kLongestIdentity = 64;

std::string identity(const std::string& text, const char* what) {
    const bool fits =
        !text.empty() && text.size() <= kLongestIdentity &&
        std::all_of(text.begin(), text.end(), [](char c) { return c > 0x20 && c < 0x7F; });
    if (!fits)
        throw cli::Refused(std::string(what) + ": " + cli::quote(text) +
                           " is not a name of 1 to 64 printable characters without blanks");
    return text;
}

std::string host_name() {
    char name[256] = {};
    gethostname(name, sizeof name - 1);
    return identity(name, "the host name (give --id)");
}

// A topic a subscription can name exactly: no wildcard, no NUL, not empty, at most 65535 bytes.
Followed followed(const std::string& text) {
    const size_t equals = text.find('=');
    if (equals == std::string::npos)
        throw cli::Refused("--gpo: " + cli::quote(text) + " is not LINE=TOPIC");
    const int line = static_cast<int>(cli::integer(text.substr(0, equals), 0, 7, "--gpo: LINE"));
    const std::string topic = text.substr(equals + 1);
    if (topic.empty() || topic.size() > 65535 ||
        topic.find_first_of(std::string("+#\0", 3)) != std::string::npos)
        throw cli::Refused("--gpo: " + cli::quote(topic) +
                           " is not a topic without wildcards (+ #)");
    return {line, topic};
}

// "USER:PASSWORD", one line, the newline at its end optional.
void read_credentials(const std::string& path, Options& options) {
    const std::vector<uint8_t> bytes = cli::read_file(path);
    std::string text(bytes.begin(), bytes.end());
    if (!text.empty() && text.back() == '\n')
        text.pop_back();
    const size_t colon = text.find(':');
    if (colon == 0 || colon == std::string::npos ||
        text.find_first_of(std::string("\n\r\0", 3)) != std::string::npos)
        throw cli::Refused("--password-file: " + path + " does not hold USER:PASSWORD on one line");
    options.username = text.substr(0, colon);
    options.password = text.substr(colon + 1);
    options.credentials = true;
}

} // namespace

Options parse_options(int argc, char* const* argv) {
    static constexpr cli::Option kOptions[] = {
        {"broker", 'b', true},    {"id", 'i', true},         {"qos", 'q', true},
        {"gpo", 'g', true, true}, {"forward", 'f', true},    {"password-file", 'p', true},
        {"cafile", 'c', true},    {"print-ids", 'P', false}, {"verbose", 'v', false},
        {"help", 'h', false}};
    const cli::CommandLine line = cli::parse(argc, argv, kOptions);
    if (!line.words.empty())
        throw cli::Refused("unexpected argument " + cli::quote(line.words[0]));
    Options options;
    options.broker = {cli::ipv4_host("127.0.0.1", "--broker"), 1883};
    for (const auto& [option, value] : line.options) {
        switch (option->letter) {
        case 'b':
            options.broker = cli::endpoint(value, "--broker");
            break;
        case 'i':
            options.identity = identity(value, "--id");
            break;
        case 'q':
            options.qos = static_cast<int>(cli::integer(value, 0, 2, "--qos"));
            break;
        case 'g': {
            Followed entry = followed(value);
            for (const Followed& other : options.gpo)
                if (other.line == entry.line)
                    throw cli::Refused("--gpo: line " + std::to_string(entry.line) +
                                       " already follows " + cli::quote(other.topic));
            options.gpo.push_back(std::move(entry));
            break;
        }
        case 'f':
            options.forward = cli::port(value, false, "--forward");
            if (options.forward == LOOP_GPI_PORT)
                throw cli::Refused("--forward: 42000 is the port gpiomqtt receives on");
            break;
        case 'p':
            read_credentials(value, options);
            break;
        case 'c':
            if (!kHaveTls)
                throw cli::Refused("--cafile: this build has no TLS");
            cli::read_file(value); // a readable regular file, or one line and status 1
            options.cafile = value;
            break;
        case 'P':
            options.print_ids = true;
            break;
        case 'v':
            options.verbose = true;
            break;
        default:
            options.help = true;
        }
    }
    if (options.identity.empty() && !options.help)
        options.identity = host_name();
    return options;
}

} // namespace gpiomqtt
