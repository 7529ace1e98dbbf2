// The daemon's console writer and its verbosity.
#include "output.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

// Size handed to the formatter, terminating zero included.
constexpr size_t BUFSIZE = 1024;

OutputVerbosityLevels _verbosity = VerbosityLevel0;

} // namespace

void outputSetVerbosity(OutputVerbosityLevels level) {
    _verbosity = level;
}

void outputWrite(OutputVerbosityLevels level, const char* format, ...) {
    if (static_cast<unsigned>(level) < static_cast<unsigned>(_verbosity))
        return;
    char message[BUFSIZE + 1];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(message, BUFSIZE, format, arguments);
    va_end(arguments);
    time_t now = time(nullptr);
    fprintf(stderr, "[%s] %s", _ctime(&now), message);
}

char* _ctime(const time_t* t) {
    static char unknown[] = "?";
    char* text = ctime(t);
    if (text == nullptr) // a time ctime cannot show
        return unknown;
    size_t length = strlen(text);
    if (length > 0)
        text[length - 1] = '\0';
    return text;
}
