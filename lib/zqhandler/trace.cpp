// The library's diagnostics: everything goes to standard error unchanged, no time stamp, no
// newline.
#include "trace_private.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace {
unsigned vlmlib_limitTrace = VLMLIB_TRACE_DEFAULT_LIMIT;
}

void vlmlibmessage(const char* format, ...) {
    va_list args;
    va_start(args, format);
    vfprintf(stderr, format, args);
    va_end(args);
}

void vlmlibwarning(const char* format, ...) {
    va_list args;
    va_start(args, format);
    vfprintf(stderr, format, args);
    va_end(args);
}

void vlmliberror(const char* format, ...) {
    va_list args;
    va_start(args, format);
    vfprintf(stderr, format, args);
    va_end(args);
    abort();
}

void vlmlibtrace(unsigned level, const char* format, ...) {
    if (level >= vlmlib_limitTrace)
        return;
    va_list args;
    va_start(args, format);
    vfprintf(stderr, format, args);
    va_end(args);
}

void _vlmlib_set_trace_level(unsigned limit) {
    vlmlib_limitTrace = limit;
}

unsigned _vlmlib_get_trace_level() {
    return vlmlib_limitTrace;
}

void vlmlibassert(const char* expression, const char* file, int line) {
    fprintf(stderr, "%s:%d: FXASSERT(%s) failed.\n", file, line, expression);
}
