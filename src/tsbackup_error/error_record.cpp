#include "tsbackup/log.h"

#include <array>
#include <cassert>
#include <cstdarg>
#include <cstring>

namespace tsbackup {

std::int32_t backup_error_set(std::int32_t code, BackupRun *env, const char *unit, int line, const char *format, ...) {
    assert(env);
    if (env->error_code != 0) return env->error_code;

    std::array<char, 512> message{};
    if (format == nullptr) {
        const char *slash = std::strrchr(unit, '/');
        std::snprintf(message.data(), message.size(), "%s:%d ", slash != nullptr ? slash : unit, line);
    } else {
        va_list arguments;
        va_start(arguments, format);
        std::vsnprintf(message.data(), message.size(), format, arguments);
        va_end(arguments);
    }

    env->error_code = code;
    env->error_message = message.data();
    TSBACKUP_LOG(level::debug, "%s:%d %s\n", unit, line, message.data());
    return code;
}

void error_text(int error_number, char *buffer, std::size_t size) {
    if (size == 0) return;
    const char *text = strerror_r(error_number, buffer, size);
    if (text != buffer) std::snprintf(buffer, size, "%s", text);
}

std::string error_text(int error_number) {
    std::array<char, 256> buffer{};
    error_text(error_number, buffer.data(), buffer.size());
    return buffer.data();
}

} // namespace tsbackup
