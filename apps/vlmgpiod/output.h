// The daemon's console writer: time-stamped messages on standard error, filtered by verbosity.
#pragma once

#include <ctime>

enum OutputVerbosityLevels {
    VerbosityLevel0 = 0,
    VerbosityLevel1 = 1,
    VerbosityLevel2 = 2,
};

// Sets the verbosity: a message is written when its level is at least this one.
void outputSetVerbosity(OutputVerbosityLevels level);

// Writes "[<time>] <message>" to standard error when `level` passes the verbosity. No newline is
// added; a message longer than 1023 characters is cut.
void outputWrite(OutputVerbosityLevels level, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

// ctime's text for `t` without its newline, e.g. "Mon Nov 16 21:31:26 2026". The text lives in the
// C library's static buffer: valid until the next ctime call.
char* _ctime(const time_t* t);
