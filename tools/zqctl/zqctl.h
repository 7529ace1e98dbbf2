// zqctl's pieces: the session a command runs in, the command tables of each family, and the few
// ways a command prints (text for people, --json for scripts) or fails.
#pragma once

#include "json.h"
#include "values.h"

#include <cstdint>
#include <span>
#include <string>
#include <vector>
#include <zqhandler/zqhandler.h>

namespace zqctl {

// The links, as a set a command can be given on.
enum LinkSet : unsigned { kUdp = 1, kTcp = 2, kSerial = 4, kAnyLink = 7 };

struct Session {
    LinkSet link{};           // the one link given
    std::string where;        // as given: HOST:PORT or the device
    cli::Endpoint endpoint{}; // udp, tcp: where it resolved to
    int64_t timeout_ms = -1;  // -1: the library's default
    bool louth = false;       // Louth frames instead of Sony ones
    int unit = 0;             // Louth unit
    bool json = false;
    bool printed = false;              // something went to standard output
    cli::TimecodeRate rate{25, false}; // timecodes are labels of this standard
    double rate_hz = 10;               // watch: polls per second
    int64_t count = 0;                 // watch: stop after this many lines (0: never)
    t_zqhandler* zqh = nullptr;        // connected by handle()

    // The handle, connected at the first call: a command reads and checks all its arguments
    // before it asks, so that nothing reaches the server for a bad command line. Throws
    // std::runtime_error ("connect WHERE: what happened") when it cannot connect.
    t_zqhandler* handle();
};

using Args = std::span<char* const>;

// One command: the words that name it, how many arguments follow, what it does, on which links.
// `run` returns the exit status.
struct Command {
    const char* words; // "play", "gop get"
    const char* arguments;
    int min_args;
    int max_args;
    int (*run)(Session& s, Args args);
    const char* help;
    unsigned links = kAnyLink;
};

std::span<const Command> transport_commands();
std::span<const Command> clip_commands();
std::span<const Command> server_commands();

// The failure line "zqctl: OPERATION: what went wrong" on standard error, from the handle's last
// error (read and cleared) and its record of the last answer: a NAK with its bits named, a
// corrupted answer, an answer of the wrong kind, a Louth refusal, or the library's error text.
// Returns the exit status 1.
int failed(Session& s, const std::string& operation);
// A bad argument of `operation`: throws cli::Refused (exit status 2).
[[noreturn]] void refused(const std::string& operation, const std::string& why);
// "OPERATION: what" on standard error; returns the exit status 1.
int missing(const std::string& operation, const std::string& what);

// Output: one value per line as text, or one JSON object per call, written as cli::json_text
// writes it (json.h: UTF-8 kept, control characters escaped, bytes that are not UTF-8 U+FFFD).
void print_bytes(Session& s, const char* key, std::span<const uint8_t> bytes);
void print_text(Session& s, const char* key, const std::string& text);
void print_list(Session& s, const char* key, const std::vector<std::string>& items);
// One line as it is: a command's own text or JSON.
void print_line(Session& s, const std::string& line);
std::string hex_bytes(std::span<const uint8_t> bytes);

} // namespace zqctl
