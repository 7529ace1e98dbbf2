// Values from a command line or a file, read strictly: the whole text or nothing, never cut,
// wrapped or guessed. Each reader throws cli::Refused with a message that names `what` (the
// option or argument, such as "--udp" or "cue") and quotes the text.
#pragma once

#include <array>
#include <cstdint>
#include <netinet/in.h>
#include <string>
#include <string_view>

namespace cli {

// A whole number from `low` to `high`: decimal, or with `prefixed` also hexadecimal (0x...) and
// octal (0...). No sign where `low` is not negative, no blanks, nothing after the digits.
int64_t integer(std::string_view text, int64_t low, int64_t high, const char* what,
                bool prefixed = false);
// A decimal number (such as 2.5) above 0 and at most `high`.
double rate(std::string_view text, double high, const char* what);
// A port: 1 to 65535, or 0 too where the system may choose one.
uint16_t port(std::string_view text, bool zero_allowed, const char* what);

// Four decimal numbers 0 to 255 with dots between them, or a host name resolved to its first
// IPv4 address. Text of digits and dots only is never looked up as a name.
in_addr ipv4_host(const std::string& text, const char* what);
std::string dotted(in_addr address);

// "HOST:PORT" with a host as ipv4_host reads it and a port from 1.
struct Endpoint {
    in_addr address;
    uint16_t port;
};
Endpoint endpoint(const std::string& text, const char* what);

// How a standard's timecode counts: labels per second and whether drop-frame skips some.
struct TimecodeRate {
    int fps;
    bool drop;
};
// The standards by name: "25", "29.97df", "30", "50" or "59.94df" (at 50 and 59.94 the timecode
// counts pairs of frames). Throws for any other name.
TimecodeRate timecode_rate(std::string_view standard, const char* what);
extern const char* const kStandards; // "25, 29.97df, 30, 50 or 59.94df"

// "HH:MM:SS:FF" (";" before the frames allowed at a drop-frame rate) naming a label that exists
// at `rate`: hours 0-23, minutes and seconds 0-59, frames below the rate, and at a drop-frame
// rate not the two first labels of a minute that is not a tenth one. Hours, minutes, seconds and
// frames, in that order.
std::array<int, 4> timecode(std::string_view text, TimecodeRate rate, const char* what);

// A clip ID as the protocols carry it: 1 to 8 printable ASCII characters.
std::string clip_id(std::string_view text, const char* what);

} // namespace cli
