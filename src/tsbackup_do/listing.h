#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace tsbackup {

/// The names and types of a folder's entries in byte order of the names, held in one block: a folder with a million
/// entries costs little more than its names.
class Listing {
  public:
    /// Reads the folder behind `fd`, which was not read before. Entries whose type is known and is neither a regular
    /// file nor a directory are left out, as are "." and "..". Returns 0 or an errno value. `fd` stays open.
    int read(int fd);

    std::size_t size() const { return starts_.size(); }
    const char *name(std::size_t index) const { return block_.data() + starts_[index] + 1; }
    /// DT_REG, DT_DIR or DT_UNKNOWN.
    unsigned char type(std::size_t index) const { return static_cast<unsigned char>(block_[starts_[index]]); }

  private:
    void append(const char *piece, std::size_t size);

    std::string block_;               ///< for each entry its type in one byte, its name, a terminator
    std::vector<std::size_t> starts_; ///< where each entry begins in the block
};

} // namespace tsbackup
