// Where an entry of a tree is: a name below an open folder, and the whole path for messages.

#pragma once

#include <cstring>
#include <fcntl.h>

namespace tsbackup {

/// System calls use `name` relative to `folder`, which spares the kernel the walk along the whole path. Without an
/// open folder, and for a path that had to be cut, `folder` is AT_FDCWD and `name` is the path.
struct Place {
    int folder = AT_FDCWD;
    const char *name = nullptr;
    const char *path = nullptr;

    static Place of_path(const char *path) { return {AT_FDCWD, path, path}; }
};

/// What follows the root of its side in a path; empty for the root itself.
inline const char *below_root(const char *path, int root_length) {
    return std::strlen(path) > static_cast<std::size_t>(root_length) ? path + root_length + 1 : "";
}

} // namespace tsbackup
