// The library's diagnostics on standard error: messages, warnings, fatal errors, assertion reports
// and a trace filtered by a process-wide numeric limit.
#pragma once

#include <zqhandler/trace.h> // the limit, for the library's users

#define VLM_PRINTF(fmt_index, first_arg) __attribute__((format(printf, fmt_index, first_arg)))

// Trace level of the library's transport failures; written while the limit is above it.
inline constexpr unsigned VLMLIB_TRACE_TRANSPORT = 200;
// The limit a process starts with.
inline constexpr unsigned VLMLIB_TRACE_DEFAULT_LIMIT = 500;

// The name of a source file without its folders, as traces and failure reports give a source
// location: source_name(__FILE__).
consteval const char* source_name(const char* path) {
    const char* name = path;
    for (const char* p = path; *p; ++p)
        if (*p == '/')
            name = p + 1;
    return name;
}

void vlmlibmessage(const char* format, ...) VLM_PRINTF(1, 2);
void vlmlibwarning(const char* format, ...) VLM_PRINTF(1, 2);
// Writes the message, then aborts the process.
[[noreturn]] void vlmliberror(const char* format, ...) VLM_PRINTF(1, 2);
// Written only when level < the trace limit (unsigned comparison).
void vlmlibtrace(unsigned level, const char* format, ...) VLM_PRINTF(2, 3);

// Reports "file:line: FXASSERT(expression) failed." and returns; it never stops the process.
void vlmlibassert(const char* expression, const char* file, int line);
