// zqctl: drives a video server from a shell through the zqhandler library, one command per call.
#include "zqctl.h"

#include "cli.h"
#include "paths.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <zqhandler/trace.h>

namespace zqctl {

namespace {

// The error bits of a Sony NAK, as a deck names them.
std::string nak_bits(uint8_t bits) {
    static constexpr const char* kNames[8] = {
        "undefined command", "bit 1",   "checksum error", "bit 3",
        "parity error",      "overrun", "framing error",  "time-out"};
    std::string names;
    for (int bit = 0; bit < 8; ++bit)
        if (bits >> bit & 1)
            names += (names.empty() ? "" : ", ") + std::string(kNames[bit]);
    return names.empty() ? "no error bits" : names;
}

} // namespace

int failed(Session& s, const std::string& operation) {
    const int code = zqhandler_get_last_err(s.zqh);
    const t_s9p_command& sony = s.zqh->data.s9p.last_rcv;
    const t_louth_command& louth = s.zqh->data.louth.last_rcv;
    std::string why;
    if (code == S9P_ERR_NONE)
        why = "refused before anything was sent";
    else if (!s.louth && sony.len >= 3 && sony.data[0] == 0x11 && sony.data[1] == 0x12)
        why = sony.len > 3 ? "NAK " + hex_bytes({&sony.data[2], 1}) + ": " + nak_bits(sony.data[2])
                           : std::string("NAK without error bits");
    else if (s.louth && louth.len == 2 && louth.data[0] == 0x05)
        why = "refused, error byte " + hex_bytes({&louth.data[1], 1});
    else if (code == S9P_ERR_CHECKSUM)
        why = "corrupted answer (its checksum is wrong)";
    else if (code == S9P_ERR_PROTOCOL)
        why = "answer of the wrong kind or form";
    else
        why = s9p_strerror(code);
    return missing(operation, why);
}

void refused(const std::string& operation, const std::string& why) {
    throw cli::Refused(operation + ": " + why);
}

int missing(const std::string& operation, const std::string& what) {
    return cli::failure(operation + ": " + what);
}

t_zqhandler* Session::handle() {
    if (zqh->comm_handle.connected != S9P_LINK_NONE)
        return zqh;
    int result = -1;
    if (link == kSerial) {
        cli::check_terminal(where);
        result = zqhandler_connect_serial(zqh, where.c_str());
    } else {
        const std::string host = cli::dotted(endpoint.address),
                          port = std::to_string(endpoint.port);
        result = link == kUdp ? zqhandler_connect_eth(zqh, host.c_str(), port.c_str())
                              : zqhandler_connect_tcp(zqh, host.c_str(), port.c_str());
    }
    const int error = errno;
    if (result != 0)
        throw std::runtime_error("connect " + where + ": " + strerror(error));
    if (timeout_ms >= 0)
        zqhandler_set_timeout(zqh, static_cast<int>(timeout_ms));
    return zqh;
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

void print_bytes(Session& s, const char* key, std::span<const uint8_t> bytes) {
    print_text(s, key, hex_bytes(bytes));
}

void print_line(Session& s, const std::string& line) {
    s.printed = true;
    printf("%s\n", line.c_str());
}

void print_text(Session& s, const char* key, const std::string& text) {
    print_line(s, s.json ? cli::json_text({{key, text}}) : text);
}

void print_list(Session& s, const char* key, const std::vector<std::string>& items) {
    if (s.json)
        return print_line(s, cli::json_text({{key, items}}));
    s.printed = true;
    for (const std::string& item : items)
        printf("%s\n", item.c_str());
}

} // namespace zqctl

namespace {

using namespace zqctl;

const char kOptions[] =
    "link (one of):\n"
    "  -u, --udp HOST:PORT     Sony frames (or Louth with --louth) in UDP datagrams\n"
    "  -t, --tcp HOST:PORT     the TCP connection protocol (transfers; Sony frames)\n"
    "  -s, --serial DEVICE     the serial line (38400 baud, 8O1); a terminal device\n"
    "  HOST is an IPv4 address or a host name, PORT 1 to 65535\n"
    "options (before or after the command):\n"
    "  -L, --louth             speak Louth instead of Sony 9-pin (UDP or serial)\n"
    "  -U, --unit N            the Louth unit (0-15, default 0)\n"
    "  -S, --standard STD      timecodes are labels of 25 (default), 29.97df, 30, 50 or 59.94df\n"
    "  -T, --timeout MS        time-out of each wait (default 60)\n"
    "  -j, --json              every result as one JSON object per line ({} when there is none)\n"
    "  -q, --quiet             silence the library's trace on standard error\n"
    "  -r, --rate HZ           watch: polls per second (default 10, at most 1000)\n"
    "  -n, --count N           watch: exit after N lines\n"
    "  -h, --help              print this help and exit\n"
    "Exit status: 0 on success, 1 when the device fails or cannot be reached, or what was asked\n"
    "for is not there (the line on standard error says what happened), 2 for a bad command line.\n";

const std::span<const Command> kFamilies[] = {transport_commands(), clip_commands(),
                                              server_commands()};

void usage() {
    fputs("usage: zqctl LINK [OPTION...] COMMAND [ARGUMENT...]\ncommands:\n", stdout);
    for (auto family : kFamilies)
        for (const Command& c : family) {
            std::string line = std::string(c.words) + " " + c.arguments;
            printf("  %-24s %s\n", line.c_str(), c.help);
        }
    fputs(kOptions, stdout);
}

// The command whose words begin `words` (the longest that matches); `used` is how many words it
// took.
const Command* find(const std::vector<const char*>& words, size_t& used) {
    for (size_t count = std::min<size_t>(words.size(), 3); count >= 1; --count) {
        std::string joined = words[0];
        for (size_t i = 1; i < count; ++i)
            joined += std::string(" ") + words[i];
        for (auto family : kFamilies)
            for (const Command& c : family)
                if (joined == c.words) {
                    used = count;
                    return &c;
                }
    }
    return nullptr;
}

constexpr cli::Option kOptionTable[] = {
    {"udp", 'u', true},    {"tcp", 't', true},      {"serial", 's', true},  {"louth", 'L', false},
    {"unit", 'U', true},   {"standard", 'S', true}, {"timeout", 'T', true}, {"json", 'j', false},
    {"quiet", 'q', false}, {"rate", 'r', true},     {"count", 'n', true},   {"help", 'h', false}};

int run(int argc, char** argv) {
    const cli::CommandLine line = cli::parse(argc, argv, kOptionTable);
    Session s;
    bool unit = false, watching = false; // given: --unit; --rate or --count
    for (const auto& [option, value] : line.options) {
        const std::string name = std::string("--") + option->name;
        switch (option->letter) {
        case 'u':
        case 't':
        case 's':
            if (s.link)
                throw cli::Refused("one link only");
            s.link = option->letter == 'u' ? kUdp : option->letter == 't' ? kTcp : kSerial;
            s.where = value;
            if (s.link != kSerial)
                s.endpoint = cli::endpoint(value, name.c_str());
            break;
        case 'L':
            s.louth = true;
            break;
        case 'U':
            s.unit = static_cast<int>(cli::integer(value, 0, 15, "--unit"));
            unit = true;
            break;
        case 'S':
            s.rate = cli::timecode_rate(value, "--standard");
            break;
        case 'T':
            s.timeout_ms = cli::integer(value, 0, INT32_MAX, "--timeout");
            break;
        case 'j':
            s.json = true;
            break;
        case 'q':
            _vlmlib_set_trace_level(0);
            break;
        case 'r':
            s.rate_hz = cli::rate(value, 1000, "--rate");
            watching = true;
            break;
        case 'n':
            s.count = cli::integer(value, 1, INT32_MAX, "--count");
            watching = true;
            break;
        default:
            usage();
            return 0;
        }
    }
    size_t used = 0;
    const Command* command = line.words.empty() ? nullptr : find(line.words, used);
    if (!command)
        throw cli::Refused(line.words.empty() ? std::string("no command")
                                              : "unknown command " + cli::quote(line.words[0]));
    const int given = static_cast<int>(line.words.size() - used);
    if (given < command->min_args || given > command->max_args)
        refused(command->words,
                std::string("usage: zqctl LINK ") + command->words + " " + command->arguments);
    if (!s.link)
        throw cli::Refused("no link: give --udp, --tcp or --serial");
    if (s.louth && s.link == kTcp)
        throw cli::Refused("--louth goes over --udp or --serial");
    if (unit && !s.louth)
        throw cli::Refused("--unit goes with --louth");
    if (watching && std::string(command->words) != "watch")
        throw cli::Refused("--rate and --count go with watch");
    if (!(command->links & s.link))
        refused(command->words, std::string("over ") +
                                    (command->links == kTcp   ? "--tcp"
                                     : command->links == kUdp ? "--udp (the management endpoint)"
                                                              : "--udp or --tcp") +
                                    " only");
    std::vector<char*> arguments;
    for (size_t i = used; i < line.words.size(); ++i)
        arguments.push_back(const_cast<char*>(line.words[i]));
    s.zqh = zqhandler_create();
    if (!s.zqh)
        throw std::runtime_error("out of memory");
    std::unique_ptr<t_zqhandler, void (*)(t_zqhandler*)> owner(s.zqh, zqhandler_delete);
    const int status = command->run(s, Args(arguments.data(), arguments.size()));
    if (status == 0 && s.json && !s.printed)
        puts("{}");
    return status;
}

} // namespace

int main(int argc, char** argv) {
    return cli::run("zqctl", [&] { return run(argc, argv); });
}
