// Paths a program is given: it creates something only where nothing is, or where its own kind of
// thing was left behind by a run that has ended; it reads only regular files; and it writes to a
// serial device only when that is a terminal. Every refusal leaves the path untouched and throws
// std::runtime_error with "PATH: what is there".
#pragma once

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

namespace cli {

// Makes `path` free for a symbolic link to a pty: nothing there, or a symbolic link to a pty that
// no longer exists (which is removed).
void claim_pty_link(const std::string& path);
// Makes `path` free for a Unix socket: nothing there, or a socket no one serves (removed).
void claim_socket(const std::string& path);
// Removes `path` if it is still the symbolic link to `target`; returns whether it did.
bool remove_own_link(const std::string& path, const std::string& target);

// Creates the file `path`, which must not exist, for writing; returns its descriptor.
int create_new_file(const std::string& path);
// The bytes of the regular file `path`.
std::vector<uint8_t> read_file(const std::string& path);
// Checks that `path` is a terminal, without writing to it.
void check_terminal(const std::string& path);

} // namespace cli
