#include "read_start.h"

#include "tsbackup/log.h"
#include "tsbackup/owners.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tsbackup {

namespace {

FileStart failed(int error) {
    FileStart result;
    result.fault = error_text(error);
    result.missing = error == ENOENT || error == ENOTDIR;
    return result;
}

} // namespace

FileStart read_start(const std::string &path, std::size_t limit) {
    const UniqueFd file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat status {};
    if (!file || fstat(file.get(), &status) != 0) return failed(errno);
    FileStart result;
    result.mode = status.st_mode;
    result.changed = status.st_mtime;
    if (!S_ISREG(status.st_mode)) {
        result.fault = "Not a regular file";
        return result;
    }

    std::array<char, 16384> block; // NOLINT(cppcoreguidelines-pro-type-member-init): filled by read
    while (result.whole) {
        // One byte beyond the limit tells whether the file goes on.
        const std::size_t wanted = std::min(block.size(), limit + 1 - result.bytes.size());
        const ssize_t got = read(file.get(), block.data(), wanted);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return failed(errno);
        if (got == 0) break;
        result.bytes.append(block.data(), static_cast<std::size_t>(got));
        result.whole = result.bytes.size() <= limit;
    }
    if (!result.whole) result.bytes.resize(limit);
    return result;
}

} // namespace tsbackup
