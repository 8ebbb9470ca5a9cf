#include "listing.h"

#include "tsbackup/owners.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>

namespace tsbackup {

namespace {

bool is_wanted(const dirent &entry) {
    const char *name = entry.d_name;
    if (name[0] == '\0' || std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) return false;
    return entry.d_type == DT_REG || entry.d_type == DT_DIR || entry.d_type == DT_UNKNOWN;
}

} // namespace

int Listing::read(int fd) {
    const int own_fd = fcntl(fd, F_DUPFD_CLOEXEC, 0);
    if (own_fd < 0) return errno;
    const UniqueDir folder(fdopendir(own_fd));
    if (!folder) {
        const int error = errno;
        close(own_fd);
        return error;
    }

    errno = 0;
    while (const dirent *entry = readdir(folder.get())) {
        if (is_wanted(*entry)) {
            starts_.push_back(block_.size());
            block_.push_back(static_cast<char>(entry->d_type));
            block_.append(entry->d_name, std::strlen(entry->d_name) + 1);
        }
        errno = 0;
    }
    if (errno != 0) return errno;

    const char *block = block_.data();
    std::sort(starts_.begin(), starts_.end(), [block](std::size_t left, std::size_t right) {
        return std::strcmp(block + left + 1, block + right + 1) < 0;
    });
    return 0;
}

} // namespace tsbackup
