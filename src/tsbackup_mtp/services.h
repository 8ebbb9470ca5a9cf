// The switches of media import in the table of services.

#pragma once

#include <cstddef>

namespace tsbackup {

/// Stores the value of the first line "KEY=VALUE" of the services file whose key is exactly `key`: at most `size` bytes
/// of it, not terminated when it fills them, and zeros behind it. Keys have up to 127 characters, values up to 4095.
/// Without such a line `value` is left alone. 0, or -1 when an argument is missing or the file cannot be read.
int services_get(const char *key, char *value, std::size_t size);

/// 1 when media is imported automatically, 0 when not, -1 when the services file cannot be read.
int mtpbackup_enabled();

} // namespace tsbackup
