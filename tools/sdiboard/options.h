// The board emulator's options, which the rack reads too: the socket and the fault to play.
#pragma once

#include "cli.h"
#include "sdiboard.h"

#include <string>

namespace sdiboard {

struct Options {
    std::string path = defaultSocketPath();
    Fault fault = Fault::None;
    bool all = false; // show every register write, not only the GPO register's
};

// The options the board knows, for cli::parse (--help is the program's own).
inline constexpr cli::Option kCommandLineOptions[] = {
    {"socket", 's', true}, {"absent", 0, false}, {"stuck-scratch", 0, false},
    {"short", 0, false},   {"late", 0, false},   {"all", 0, false}};

// Their help, as --help prints it after the usage line.
extern const char kOptionsHelp[];

// Reads the board's options from a command line that cli::parse read with (at least)
// kCommandLineOptions; the options of other tables are left to their readers. Throws cli::Refused.
Options read_options(const cli::CommandLine& line);

} // namespace sdiboard
