#pragma once

#include <cerrno>
#include <cstdlib>
#include <optional>

namespace tsbackup {

/// The decimal number at the text's start, after white space; no value when there is no digit. Saturates.
inline std::optional<long> leading_number(const char *text) {
    char *end = nullptr;
    const int saved_errno = errno;
    const long value = std::strtol(text, &end, 10);
    errno = saved_errno;
    return end != text ? std::optional(value) : std::nullopt;
}

} // namespace tsbackup
