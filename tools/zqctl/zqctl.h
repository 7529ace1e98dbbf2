// zqctl's pieces: the session a command runs in, the command tables of each family, and the few
// ways a command prints (text for people, --json for scripts) or fails.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>
#include <zqhandler/zqhandler.h>

namespace zqctl {

struct Session {
    t_zqhandler* zqh = nullptr;
    bool louth = false; // Louth frames instead of Sony ones
    int unit = 0;       // Louth unit
    bool json = false;
    double rate_hz = 10; // watch: polls per second
    int64_t count = 0;   // watch: stop after this many lines (0: until interrupted)
};

using Args = std::span<char* const>;

// One command: the words that name it, how many arguments follow, what it does. `run` returns
// the exit status.
struct Command {
    const char* words; // "play", "gop get"
    const char* arguments;
    int min_args;
    int max_args;
    int (*run)(Session& s, Args args);
    const char* help;
};

std::span<const Command> transport_commands();
std::span<const Command> clip_commands();
std::span<const Command> server_commands();

// The failure line "zqctl: OPERATION: the library's error text" on standard error, the handle's
// last error read (and cleared); returns the exit status 1.
int failed(Session& s, const std::string& operation);
// A usage error for `operation` with `why`; returns the exit status 2.
int refused(const std::string& operation, const std::string& why);

// A whole number argument, else nothing.
bool integer(const char* text, int64_t& value);

// Output: one value per line as text, or one JSON object per call.
void print_bytes(Session& s, const char* key, std::span<const uint8_t> bytes);
void print_text(Session& s, const char* key, const std::string& text);
void print_list(Session& s, const char* key, const std::vector<std::string>& items);
// A JSON string literal of `text`, control characters escaped.
std::string json_string(const std::string& text);
std::string hex_bytes(std::span<const uint8_t> bytes);

} // namespace zqctl
