// What a program writes, checked: no line of standard output and no record of a file it writes
// is lost while it goes on or ends with status 0. A write the system refuses ends the program with
// one line naming the cause ("zqctl: write error: No space left on device") and status 1; a
// reader that went away (a closed pipe) ends it quietly, by SIGPIPE, as it ends any program that
// writes to a pipe. Programs that serve until stopped wait for their stop here, so that a line
// lost on any of their threads stops them as a signal does.
#pragma once

#include <string>

namespace cli {

// Called by run() before the program's body: a standard descriptor that is closed (0, 1 or 2) is
// taken by one that refuses every transfer, so that no socket or file the program opens becomes
// its standard output and a write to a closed standard output fails; standard output (stdout,
// as printf, puts and fputs use it, the library's lines included) becomes line-buffered and
// checked: after its first failed write nothing more is written to it.
void check_output();

// Whether a line of standard output or a record of a file was lost.
bool output_lost();

// A write to the file `path` failed with `error`: "PROGRAM: PATH: cause" once, and from now on
// output_lost(); a program that serves is woken from StopSignals::wait().
void file_lost(const std::string& path, int error);

// Flushes and closes standard output; returns `status`, or 1 when it is 0 and output was lost
// (the line saying why is written then, or was when the write failed).
int finish_output(int status);

// For a program that serves until it is stopped: blocks SIGINT, SIGTERM and SIGHUP in the calling
// thread, and so in every thread it starts afterwards; make it before starting any.
class StopSignals {
  public:
    StopSignals();
    ~StopSignals();
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;

    // Waits until a stop signal comes or output is lost (true), or until `input` (a descriptor;
    // -1: none) is readable (false).
    bool wait(int input = -1) const;

  private:
    int signals_; // a signalfd of the three signals
};

} // namespace cli
