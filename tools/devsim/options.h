// devsim's command line, which the rack reads too: the links to serve, the options that shape the
// server, and the set-up they stand for.
#pragma once

#include "cli.h"
#include "devsim.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace devsim {

struct Options {
    std::string link;
    std::string address = "127.0.0.1";
    uint16_t port = 0;
    std::string pty_link; // serial: a symbolic link to the pty, for controllers given a path
    std::vector<std::pair<std::string, std::string>> also; // more links: kind, port or pty link
    Reply reply;
    std::vector<std::string> senses, clips;
    Standard standard = Standard::pal25;
    std::string scenario;
    bool louth = false;
    int mgmt_port = -1;
    std::vector<std::function<void(DevSim&)>> contents; // applied before the start
};

// The options devsim knows (--help among them), for cli::parse.
inline constexpr cli::Option kCommandLineOptions[] = {
    {"sense", 0, true},    {"clip", 0, true},     {"standard", 0, true},
    {"scenario", 0, true}, {"also", 0, true},     {"louth", 0, false},
    {"refuse", 0, true},   {"nak", 0, true},      {"silent", 0, false},
    {"delay", 0, true},    {"corrupt", 0, false}, {"mgmt", 0, true},
    {"version", 0, true},  {"diskinfo", 0, true}, {"gop", 0, true},
    {"log", 0, true},      {"entry", 0, true},    {"picture", 0, true},
    {"stall", 0, true},    {"help", 'h', false},  {"refuse-uploads", 0, false}};

// The options' help, one option or two a line, as --help prints it after the usage lines.
extern const char kOptionsHelp[];

// devsim's link and options from a command line that cli::parse read with (at least)
// kCommandLineOptions; nullopt after --help. Options of other tables are left to their readers.
// Throws cli::Refused for a bad value or link.
std::optional<Options> read_options(const cli::CommandLine& line);

// Opens the links on `sim` (not started yet) and applies the options and the scenario file;
// returns where it listens ("udp 127.0.0.1:32896, serial /dev/pts/3"). Each symbolic link it
// makes to the pty is added to `own_links` as soon as it is made, so the caller can remove them
// however this ends. Throws std::runtime_error naming what failed.
std::string set_up(DevSim& sim, const Options& options, std::vector<std::string>& own_links);
// Removes those of `own_links` that still point at `sim`'s pty.
void remove_links(const DevSim& sim, const std::vector<std::string>& own_links);

} // namespace devsim
