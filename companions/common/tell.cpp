#include "tell.h"

#include "tsbackup/owners.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace tsbackup {

namespace {

const char *name = "";

} // namespace

void tell_as(const char *program) { name = program; }

void tell(int priority, const char *format, ...) {
    char *formatted = nullptr;
    va_list arguments;
    va_start(arguments, format);
    const int length = vasprintf(&formatted, format, arguments);
    va_end(arguments);
    if (length < 0) return;
    const UniqueText text(formatted);

    std::string line(text.get());
    std::replace(line.begin(), line.end(), '\n', ' ');
    if (std::getenv("JOURNAL_STREAM") != nullptr)
        std::fprintf(stderr, "<%d>%s\n", priority, line.c_str());
    else
        std::fprintf(stderr, "%s: %s\n", name, line.c_str());
}

} // namespace tsbackup
