// Formatted texts and argument vectors, owned by the caller.

#include "zelkova.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace {

int format_owned(char **out, const char *format, va_list arguments) {
    const int length = vasprintf(out, format, arguments);
    // The C library leaves the pointer undefined on failure; a caller that frees it regardless stays safe.
    if (length < 0) *out = nullptr;
    return length;
}

} // namespace

int safe_asprintf(char **out, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int length = format_owned(out, format, arguments);
    va_end(arguments);
    return length;
}

char *add_arg(const char *format, ...) {
    char *argument = nullptr;
    va_list arguments;
    va_start(arguments, format);
    format_owned(&argument, format, arguments);
    va_end(arguments);
    return argument;
}

void argv_free(char **argv) {
    if (argv == nullptr) return;
    for (char **argument = argv; *argument != nullptr; ++argument)
        std::free(*argument);
    std::free(argv);
}
