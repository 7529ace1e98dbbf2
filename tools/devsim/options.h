// devsim's command line, which the rack reads too: the links to serve, the options (each a
// directive of the server's set-up), and the set-up they stand for.
#pragma once

#include "cli.h"
#include "devsim.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace devsim {

// Where the server listens: the link named first, the other links, the management endpoint.
struct Links {
    std::string link;
    std::string address = "127.0.0.1";
    uint16_t port = 0;
    std::string pty_link; // serial: a symbolic link to the pty, for controllers given a path
    std::vector<std::pair<std::string, std::string>> also; // more links: kind, port or pty link
    int mgmt_port = -1;
    std::string scenario;
};

// The options devsim knows, for cli::parse: the links' own, then every directive (not --help).
std::vector<cli::Option> command_line_options();
// Their help, as --help prints it after the usage lines.
extern const char kOptionsHelp[];

// Reads devsim's link and options from a command line that cli::parse read with (at least)
// command_line_options(), applying each directive to `sim` in order; options of other tables are
// left to their readers. Throws cli::Refused for a bad value or link.
Links read_command_line(DevSim& sim, const cli::CommandLine& line);

// Applies the scenario file, then opens the links on `sim` (not started yet); returns where it
// listens ("udp 127.0.0.1:32896, serial /dev/pts/3"). Each symbolic link it makes to the pty is
// added to `own_links` as soon as it is made, so the caller can remove them however this ends.
// Throws std::runtime_error naming what failed.
std::string set_up(DevSim& sim, const Links& links, std::vector<std::string>& own_links);
// Removes those of `own_links` that still point at `sim`'s pty.
void remove_links(const DevSim& sim, const std::vector<std::string>& own_links);

} // namespace devsim
