// Files and file systems.

#include "zelkova.h"

#include "tsbackup/owners.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {
constexpr int kAnyType = 100;
}

int safe_open(const char *path, int flags, mode_t mode) {
    int fd = -1;
    do {
        fd = open(path, flags | O_CLOEXEC, mode);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

int exists(const char *path, int mode) {
    struct stat status {};
    if (path == nullptr || stat(path, &status) != 0) return 0;
    return mode == kAnyType || (status.st_mode & S_IFMT) == static_cast<mode_t>(mode) ? 1 : 0;
}

int sync_fs(const char *path) {
    // Without waiting: a pipe's other end may never come.
    const tsbackup::UniqueFd fd(safe_open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY, 0));
    return fd ? syncfs(fd.get()) : -1;
}
