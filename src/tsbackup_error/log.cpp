#include "tsbackup/log.h"

#include "tsbackup/owners.h"

#include <array>
#include <cerrno>
#include <cstdarg>

namespace tsbackup {

namespace {

std::int32_t threshold = level::notice;
std::FILE *stream = nullptr;

constexpr std::array<const char *, 8> kLevelNames = {"emerg",   "alert",  "crit", "error",
                                                     "warning", "notice", "info", "debug"};

} // namespace

void diagnostic_threshold_set(std::int32_t new_threshold) { threshold = new_threshold; }

void diagnostic_stream_set(std::FILE *new_stream) { stream = new_stream; }

void diagnostic_log(const char *unit, int line, int level, const char *format, ...) {
    if (stream == nullptr || level > threshold) return;

    const int saved_errno = errno;
    char *text = nullptr;
    va_list arguments;
    va_start(arguments, format);
    const int length = vasprintf(&text, format, arguments);
    va_end(arguments);
    if (length >= 0) {
        const UniqueText message(text);
        const char *name = kLevelNames[static_cast<unsigned>(level) % kLevelNames.size()];
        std::fprintf(stream, "%s:%d (%s) %s", unit, line, name, message.get());
    }
    errno = saved_errno;
}

} // namespace tsbackup
