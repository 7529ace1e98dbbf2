// zqctl: drives a video server from a shell through the zqhandler library, one command per call.
#include "zqctl.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>
#include <string>
#include <zqhandler/trace.h>

namespace zqctl {

int failed(Session& s, const std::string& operation) {
    const int code = zqhandler_get_last_err(s.zqh);
    // No code: the library refused the call before sending anything.
    const char* why =
        code == S9P_ERR_NONE ? "refused before anything was sent" : s9p_strerror(code);
    fprintf(stderr, "zqctl: %s: %s\n", operation.c_str(), why);
    return 1;
}

int refused(const std::string& operation, const std::string& why) {
    fprintf(stderr, "zqctl: %s: %s\n", operation.c_str(), why.c_str());
    return 2;
}

bool integer(const char* text, int64_t& value) {
    char* end = nullptr;
    errno = 0;
    value = strtoll(text, &end, 0);
    return *text && !*end && errno == 0;
}

std::string hex_bytes(std::span<const uint8_t> bytes) {
    std::string text;
    char pair[4];
    for (uint8_t byte : bytes) {
        snprintf(pair, sizeof pair, text.empty() ? "%02X" : " %02X", byte);
        text += pair;
    }
    return text;
}

std::string json_string(const std::string& text) {
    std::string out = "\"";
    for (unsigned char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20 || c >= 0x7F) {
            char escaped[8];
            snprintf(escaped, sizeof escaped, "\\u%04x", c);
            out += escaped;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

void print_bytes(Session& s, const char* key, std::span<const uint8_t> bytes) {
    print_text(s, key, hex_bytes(bytes));
}

void print_text(Session& s, const char* key, const std::string& text) {
    if (s.json)
        printf("{%s: %s}\n", json_string(key).c_str(), json_string(text).c_str());
    else
        printf("%s\n", text.c_str());
}

void print_list(Session& s, const char* key, const std::vector<std::string>& items) {
    if (!s.json) {
        for (const std::string& item : items)
            printf("%s\n", item.c_str());
        return;
    }
    std::string list;
    for (const std::string& item : items)
        list += (list.empty() ? "" : ", ") + json_string(item);
    printf("{%s: [%s]}\n", json_string(key).c_str(), list.c_str());
}

} // namespace zqctl

namespace {

using namespace zqctl;

const char kOptions[] =
    "link (one of):\n"
    "  -u, --udp HOST:PORT     Sony frames (or Louth with --louth) in UDP datagrams\n"
    "  -t, --tcp HOST:PORT     the TCP connection protocol (transfers; Sony frames)\n"
    "  -s, --serial DEVICE     the serial line (38400 baud, 8O1)\n"
    "options:\n"
    "  -L, --louth             speak Louth instead of Sony 9-pin (UDP or serial)\n"
    "  -U, --unit N            the Louth unit (0-15, default 0)\n"
    "  -T, --timeout MS        time-out of each wait (default 60)\n"
    "  -j, --json              senses and listings as JSON, one object per line\n"
    "  -q, --quiet             silence the library's trace on standard error\n"
    "  -r, --rate HZ           watch: polls per second (default 10)\n"
    "  -n, --count N           watch: exit after N lines\n"
    "  -h, --help              print this help and exit\n"
    "Exit status: 0 on success, 1 when the device fails (the line on standard error names the\n"
    "operation and the library's error), 2 for a bad command line.\n";

const std::span<const Command> kFamilies[] = {transport_commands(), clip_commands(),
                                              server_commands()};

void usage(FILE* to) {
    fputs("usage: zqctl LINK [OPTION...] COMMAND [ARGUMENT...]\ncommands:\n", to);
    for (auto family : kFamilies)
        for (const Command& c : family) {
            std::string line = std::string(c.words) + " " + c.arguments;
            fprintf(to, "  %-24s %s\n", line.c_str(), c.help);
        }
    fputs(kOptions, to);
}

[[noreturn]] void usage_error(const char* why) {
    fprintf(stderr, "zqctl: %s\nTry 'zqctl --help'.\n", why);
    exit(2);
}

// The command whose words begin the arguments (the longest that matches); `used` is how many
// words it took.
const Command* find(int argc, char* const* argv, int& used) {
    for (int words = std::min(argc, 3); words >= 1; --words) {
        std::string joined = argv[0];
        for (int i = 1; i < words; ++i)
            joined += std::string(" ") + argv[i];
        for (auto family : kFamilies)
            for (const Command& c : family)
                if (joined == c.words) {
                    used = words;
                    return &c;
                }
    }
    return nullptr;
}

struct Link {
    char kind = 0; // 'u', 't', 's'
    std::string where;
};

int connect(Session& s, const Link& link, int64_t timeout_ms) {
    int result = -1;
    if (link.kind == 's') {
        result = zqhandler_connect_serial(s.zqh, link.where.c_str());
    } else {
        size_t colon = link.where.rfind(':');
        if (colon == std::string::npos)
            return refused("connect", "'" + link.where + "' is not HOST:PORT");
        std::string host = link.where.substr(0, colon), port = link.where.substr(colon + 1);
        result = link.kind == 'u' ? zqhandler_connect_eth(s.zqh, host.c_str(), port.c_str())
                                  : zqhandler_connect_tcp(s.zqh, host.c_str(), port.c_str());
    }
    if (result != 0)
        return failed(s, "connect " + link.where);
    if (timeout_ms >= 0)
        zqhandler_set_timeout(s.zqh, static_cast<int>(timeout_ms));
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    static const option kLong[] = {
        {"udp", required_argument, nullptr, 'u'},    {"tcp", required_argument, nullptr, 't'},
        {"serial", required_argument, nullptr, 's'}, {"louth", no_argument, nullptr, 'L'},
        {"unit", required_argument, nullptr, 'U'},   {"timeout", required_argument, nullptr, 'T'},
        {"json", no_argument, nullptr, 'j'},         {"quiet", no_argument, nullptr, 'q'},
        {"rate", required_argument, nullptr, 'r'},   {"count", required_argument, nullptr, 'n'},
        {"help", no_argument, nullptr, 'h'},         {nullptr, 0, nullptr, 0}};
    Session s;
    Link link;
    int64_t timeout_ms = -1, number = 0;
    // '+': options end at the command, so that negative speeds and steps stay arguments.
    for (int option;
         (option = getopt_long(argc, argv, "+u:t:s:LU:T:jqr:n:h", kLong, nullptr)) != -1;) {
        switch (option) {
        case 'u':
        case 't':
        case 's':
            if (link.kind)
                usage_error("one link only");
            link = {static_cast<char>(option), optarg};
            break;
        case 'L':
            s.louth = true;
            break;
        case 'U':
            if (!integer(optarg, number) || number < 0 || number > 15)
                usage_error("the unit is 0 to 15");
            s.unit = static_cast<int>(number);
            break;
        case 'T':
            if (!integer(optarg, timeout_ms))
                usage_error("the time-out is a number of milliseconds");
            break;
        case 'j':
            s.json = true;
            break;
        case 'q':
            _vlmlib_set_trace_level(0);
            break;
        case 'r':
            s.rate_hz = atof(optarg);
            if (!(s.rate_hz > 0 && s.rate_hz <= 1000))
                usage_error("the rate is 0 to 1000 polls per second");
            break;
        case 'n':
            if (!integer(optarg, s.count) || s.count < 0)
                usage_error("the count is a number");
            break;
        case 'h':
            usage(stdout);
            return 0;
        default:
            usage_error("bad option");
        }
    }
    int used = 0;
    const Command* command = find(argc - optind, argv + optind, used);
    if (!command)
        usage_error(optind < argc ? "unknown command" : "no command");
    const int given = argc - optind - used;
    if (given < command->min_args || given > command->max_args)
        return refused(command->words, std::string("usage: zqctl LINK ") + command->words + " " +
                                           command->arguments);
    if (!link.kind)
        usage_error("no link: give --udp, --tcp or --serial");
    s.zqh = zqhandler_create();
    int status = connect(s, link, timeout_ms);
    if (status == 0)
        status = command->run(s, Args(argv + optind + used, static_cast<size_t>(given)));
    zqhandler_delete(s.zqh);
    return status;
}
