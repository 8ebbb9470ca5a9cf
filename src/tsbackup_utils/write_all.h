// Writing a block completely.

#pragma once

#include <cstddef>

namespace tsbackup {

/// Writes `size` bytes, going on after an interruption or a short write. False when a write failed; what was
/// written before it stays written, and `errno` tells why.
bool write_all(int fd, const char *data, std::size_t size);

} // namespace tsbackup
