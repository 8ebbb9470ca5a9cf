// Reading files that other programs write, or that anybody has put in their place.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <sys/types.h>

namespace tsbackup {

struct FileStart {
    std::string bytes;
    std::string fault;        ///< why it could not be read, in words; empty: it was
    bool missing = false;     ///< there is no such file, which is a fault, too
    bool whole = true;        ///< false: the file goes on behind these bytes
    std::int64_t changed = 0; ///< time of the last write, seconds since the epoch
    mode_t mode = 0;
};

/// Reads at most `limit` bytes from the start of a file. Only regular files are read, and nothing is ever waited for.
FileStart read_start(const std::string &path, std::size_t limit);

} // namespace tsbackup
