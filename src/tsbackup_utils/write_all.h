// Writing a block completely.

#pragma once

#include <cerrno>
#include <cstddef>
#include <unistd.h>

namespace tsbackup {

/// Writes `size` bytes, going on after an interruption or a short write. False when a write failed; what was
/// written before it stays written, and `errno` tells why.
inline bool write_all(int fd, const char *data, std::size_t size) {
    while (size > 0) {
        const ssize_t written = write(fd, data, size);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        data += written;
        size -= static_cast<std::size_t>(written);
    }
    return true;
}

} // namespace tsbackup
