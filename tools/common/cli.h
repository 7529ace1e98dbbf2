// What every program's command line shares: its options read the same way wherever they stand,
// one way to refuse a value (status 2) and one way to fail (status 1), each a single line under
// the program's own name, and values quoted so that no raw byte reaches the terminal.
#pragma once

#include <functional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace cli {

// A bad command line: the message says what is wrong; the program exits with status 2.
struct Refused : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// An option a program knows: "--udp" and "-u", with a value or without. An option with a value
// sets one thing and is given once, unless it is `repeatable` (each one adds or applies).
struct Option {
    const char* name; // without the dashes
    char letter;      // 0: no short form
    bool has_value;
    bool repeatable = false;
};

// The command line taken apart: the options given (in order, each with its value or null) and the
// other words. Options may stand before, between or after the other words; "--" ends them; a word
// of a dash and a digit ("-100") is a word, not an option. "--name=value", "--name value",
// "-x value", "-xvalue" and "-jq" all work. Throws Refused for an unknown option, a missing value
// or an option with a value given twice that is not repeatable.
struct CommandLine {
    struct Given {
        const Option* option;
        const char* value;
    };
    std::vector<Given> options;
    std::vector<const char*> words;
};
CommandLine parse(int argc, char* const* argv, std::span<const Option> known);

// `text` between single quotes, every byte that is not printable ASCII written as \xNN and the
// whole cut after 40 characters, so that a message never carries raw bytes to a terminal.
std::string quote(std::string_view text);
// `text` whole, every byte that is not printable ASCII written as \xNN.
std::string printable(std::string_view text);

// Runs `body` as the program `name`, its standard output checked (output.h): returns its status;
// a Refused becomes "NAME: message" and "Try 'NAME --help'." on standard error with status 2, any
// other exception "NAME: message" with status 1, and lost output status 1.
int run(const char* name, const std::function<int()>& body);
// The program's name as run() was given it.
const char* program();
// "NAME: message" on standard error; returns 1.
int failure(const std::string& message);

} // namespace cli
