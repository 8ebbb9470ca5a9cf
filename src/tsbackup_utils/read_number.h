#pragma once

#include <charconv>
#include <string>
#include <system_error>

namespace tsbackup {

/// Reads a field that is a number of that type and nothing else.
template <typename Number> bool read_number(const std::string &field, Number &number) {
    const char *end = field.data() + field.size();
    const auto result = std::from_chars(field.data(), end, number);
    return result.ec == std::errc() && result.ptr == end;
}

} // namespace tsbackup
