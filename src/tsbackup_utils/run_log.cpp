// Lines of a run's copy log and error log.

#include "tsbackup_utils.h"

#include "tsbackup/owners.h"
#include "write_all.h"

#include <array>
#include <cstdarg>
#include <cstdio>

namespace tsbackup {

namespace {

[[gnu::format(printf, 2, 0)]] void write_line(int fd, const char *format, va_list arguments) {
    // Long enough for a message and an ordinary path; a longer line is formatted a second time.
    std::array<char, 1024> buffer;
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(buffer.data(), buffer.size(), format, arguments);
    if (length >= 0 && static_cast<std::size_t>(length) < buffer.size()) {
        write_all(fd, buffer.data(), static_cast<std::size_t>(length));
    } else if (length >= 0) {
        char *text = nullptr;
        const int whole_length = vasprintf(&text, format, again);
        if (whole_length >= 0) {
            const UniqueText line(text);
            write_all(fd, line.get(), static_cast<std::size_t>(whole_length));
        }
    }
    va_end(again);
}

} // namespace

void copy_log_line(const BackupRun &run, const char *format, ...) {
    if (run.copy_log < 0) return;
    va_list arguments;
    va_start(arguments, format);
    write_line(run.copy_log, format, arguments);
    va_end(arguments);
}

void error_log_line(const BackupRun &run, const char *format, ...) {
    if (run.error_log < 0) return;
    va_list arguments;
    va_start(arguments, format);
    write_line(run.error_log, format, arguments);
    va_end(arguments);
}

} // namespace tsbackup
