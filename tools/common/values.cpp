// Strict readers of numbers, ports, addresses, timecodes and clip IDs.
#include "values.h"

#include "cli.h"

#include <arpa/inet.h>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <netdb.h>

namespace cli {

namespace {

[[noreturn]] void refuse(const char* what, std::string_view text, const std::string& is_not) {
    throw Refused(std::string(what) + ": " + quote(text) + " is not " + is_not);
}

bool all_of(std::string_view text, std::string_view allowed) {
    return text.find_first_not_of(allowed) == std::string_view::npos;
}

constexpr std::string_view kDigits = "0123456789";

// Two decimal digits at `at`.
int two_digits(std::string_view text, size_t at) {
    return (text[at] - '0') * 10 + (text[at + 1] - '0');
}

} // namespace

const char* const kStandards = "25, 29.97df, 30, 50 or 59.94df";

int64_t integer(std::string_view text, int64_t low, int64_t high, const char* what, bool prefixed) {
    const std::string range =
        "a number from " + std::to_string(low) + " to " + std::to_string(high);
    const std::string copy(text);
    const size_t sign = !copy.empty() && copy[0] == '-' && low < 0 ? 1 : 0;
    if (copy.size() == sign || !isdigit(static_cast<unsigned char>(copy[sign])))
        refuse(what, text, range);
    char* end = nullptr;
    errno = 0;
    const long long value = strtoll(copy.c_str(), &end, prefixed ? 0 : 10);
    if (*end != '\0' || errno == ERANGE || value < low || value > high)
        refuse(what, text, range);
    return value;
}

double rate(std::string_view text, double high, const char* what) {
    const std::string copy(text);
    char* end = nullptr;
    const double value =
        copy.empty() || !all_of(copy, "0123456789.") ? 0 : strtod(copy.c_str(), &end);
    if (end == nullptr || *end != '\0' || !(value > 0 && value <= high))
        refuse(what, text,
               "a number above 0 and at most " + std::to_string(static_cast<int>(high)));
    return value;
}

uint16_t port(std::string_view text, bool zero_allowed, const char* what) {
    const int low = zero_allowed ? 0 : 1;
    const int value = !text.empty() && text.size() <= 5 && all_of(text, kDigits)
                          ? std::stoi(std::string(text))
                          : -1;
    if (value < low || value > 65535)
        refuse(what, text, "a port (" + std::to_string(low) + " to 65535)");
    return static_cast<uint16_t>(value);
}

in_addr ipv4_host(const std::string& text, const char* what) {
    in_addr address{};
    const char* const is_not = "an IPv4 address (four numbers 0-255) or a host name";
    if (!text.empty() && all_of(text, ".0123456789")) {
        uint32_t value = 0;
        int parts = 0;
        for (std::string_view rest = text;; rest.remove_prefix(rest.find('.') + 1)) {
            const std::string_view digits = rest.substr(0, rest.find('.'));
            const int part =
                digits.empty() || digits.size() > 3 ? 256 : std::stoi(std::string(digits));
            if (part > 255 || ++parts > 4)
                refuse(what, text, is_not);
            value = value << 8 | static_cast<uint32_t>(part);
            if (digits.size() == rest.size())
                break;
        }
        if (parts != 4)
            refuse(what, text, is_not);
        address.s_addr = htonl(value);
        return address;
    }
    if (text.empty() || text.size() > 253 ||
        !all_of(text, "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-"))
        refuse(what, text, is_not);
    addrinfo hints{};
    hints.ai_family = AF_INET;
    addrinfo* found = nullptr;
    const int error = getaddrinfo(text.c_str(), nullptr, &hints, &found);
    if (error != 0 || !found)
        throw Refused(std::string(what) + ": no IPv4 address for " + quote(text) + " (" +
                      gai_strerror(error) + ")");
    address = reinterpret_cast<const sockaddr_in*>(found->ai_addr)->sin_addr;
    freeaddrinfo(found);
    return address;
}

std::string dotted(in_addr address) {
    char text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &address, text, sizeof text);
    return text;
}

Endpoint endpoint(const std::string& text, const char* what) {
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos)
        refuse(what, text, "HOST:PORT");
    return {ipv4_host(text.substr(0, colon), what),
            port(std::string_view(text).substr(colon + 1), false, what)};
}

TimecodeRate timecode_rate(std::string_view standard, const char* what) {
    struct Named {
        std::string_view name;
        TimecodeRate rate;
    };
    static constexpr Named kRates[] = {{"25", {25, false}},
                                       {"29.97df", {30, true}},
                                       {"30", {30, false}},
                                       {"50", {25, false}},
                                       {"59.94df", {30, true}}};
    for (const Named& named : kRates)
        if (named.name == standard)
            return named.rate;
    refuse(what, standard, std::string("a standard (") + kStandards + ")");
}

std::array<int, 4> timecode(std::string_view text, TimecodeRate rate, const char* what) {
    const std::string form = "a timecode HH:MM:SS:FF at " + std::to_string(rate.fps) + " fps" +
                             (rate.drop ? " drop-frame" : "");
    const bool shaped = text.size() == 11 && text[2] == ':' && text[5] == ':' &&
                        (text[8] == ':' || (rate.drop && text[8] == ';'));
    for (size_t at = 0; shaped && at < 11; at += 3)
        if (!all_of(text.substr(at, 2), kDigits))
            refuse(what, text, form);
    if (!shaped)
        refuse(what, text, form);
    const std::array<int, 4> parts = {two_digits(text, 0), two_digits(text, 3), two_digits(text, 6),
                                      two_digits(text, 9)};
    if (parts[0] > 23 || parts[1] > 59 || parts[2] > 59 || parts[3] >= rate.fps)
        refuse(what, text, form);
    if (rate.drop && parts[2] == 0 && parts[1] % 10 != 0 && parts[3] < 2)
        refuse(what, text, "a label of drop-frame timecode, which skips it");
    return parts;
}

std::string clip_id(std::string_view text, const char* what) {
    bool printable = !text.empty() && text.size() <= 8;
    for (char c : text)
        printable = printable && c >= 0x20 && c < 0x7F;
    if (!printable)
        refuse(what, text, "a clip ID (1 to 8 printable ASCII characters)");
    return std::string(text);
}

} // namespace cli
