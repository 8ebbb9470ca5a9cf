#include "listing.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <sys/types.h>

namespace tsbackup {

namespace {

/// As much as the kernel tells at a time: enough for a thousand short names.
constexpr std::size_t kPieceSize = std::size_t{32} * 1024;

bool is_wanted(const dirent64 &entry) {
    const char *name = entry.d_name;
    if (name[0] == '\0' || std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) return false;
    return entry.d_type == DT_REG || entry.d_type == DT_DIR || entry.d_type == DT_UNKNOWN;
}

} // namespace

void Listing::append(const char *piece, std::size_t size) {
    for (std::size_t at = 0; at < size;) {
        const auto &entry = *reinterpret_cast<const dirent64 *>(piece + at);
        at += entry.d_reclen;
        if (!is_wanted(entry)) continue;
        starts_.push_back(block_.size());
        block_.push_back(static_cast<char>(entry.d_type));
        block_.append(entry.d_name, std::strlen(entry.d_name) + 1);
    }
}

// Asked of the kernel directly: a stream of the library's would cost as much again for a small folder.
int Listing::read(int fd) {
    alignas(dirent64) std::array<char, kPieceSize> piece;
    for (ssize_t size = 0; (size = getdents64(fd, piece.data(), piece.size())) != 0;) {
        if (size < 0) return errno;
        append(piece.data(), static_cast<std::size_t>(size));
    }

    const char *block = block_.data();
    std::sort(starts_.begin(), starts_.end(), [block](std::size_t left, std::size_t right) {
        return std::strcmp(block + left + 1, block + right + 1) < 0;
    });
    return 0;
}

} // namespace tsbackup
