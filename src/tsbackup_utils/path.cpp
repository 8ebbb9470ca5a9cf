#include "tsbackup_utils.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/stat.h>

namespace tsbackup {

namespace {

bool is_directory(const char *path) {
    struct stat status {};
    return stat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

/// Creates one component unless it is a directory already. 0, or -1 with `errno` set.
int make_component(const char *path, mode_t mode) {
    if (mkdir(path, mode) == 0) return 0;
    const int error = errno;
    // Asked after every failure: a server may refuse by permission before it says that the directory is there.
    if (is_directory(path)) return 0;
    errno = error == EEXIST ? ENOTDIR : error;
    return -1;
}

/// Copies the component at `path`, cut to its buffer, and returns its end.
const char *copy_component(const char *path, char separator, char *buffer, std::size_t size) {
    const char *end = path;
    const std::size_t length = skip_to_char(end, separator);
    if (size == 0) return end;
    const std::size_t kept = std::min(length, size - 1);
    std::memcpy(buffer, path, kept);
    buffer[kept] = '\0';
    return end;
}

const char *skip_separators(const char *path, char separator) {
    while (*path == separator)
        ++path;
    return path;
}

int count_components(const char *path, char separator) {
    int count = 0;
    while (*path != '\0') {
        ++count;
        skip_to_char(path, separator);
        path = skip_separators(path, separator);
    }
    return count;
}

} // namespace

std::optional<std::string> path_normalise(const char *path) {
    if (path == nullptr || *path != '/') return std::nullopt;
    std::string normal;
    for (const char *rest = path; *rest != '\0'; ++rest) {
        const bool behind_slash = !normal.empty() && normal.back() == '/';
        if (behind_slash && *rest == '/') continue;
        if (behind_slash && rest[0] == '.' && rest[1] == '/') continue;
        normal += *rest;
    }
    if (normal.back() == '/') normal.pop_back();
    return normal;
}

int mkdir_p(const std::string &path, mode_t mode) {
    if (path.empty()) {
        errno = ENOENT;
        return -1;
    }
    std::string part = path;
    std::size_t end = 0;
    while ((end = part.find_first_not_of('/', end)) != std::string::npos) {
        end = part.find('/', end);
        if (end == std::string::npos) return make_component(part.c_str(), mode);
        part[end] = '\0';
        if (make_component(part.c_str(), mode) != 0) return -1;
        part[end] = '/';
    }
    return 0;
}

const char *unc_split(const char *path, char *host, std::size_t host_size, char *share, std::size_t share_size,
                      int *depth) {
    if (path == nullptr || (path[0] != '/' && path[0] != '\\') || path[1] != path[0]) return nullptr;
    const char separator = path[0];
    const char *rest = copy_component(path + 2, separator, host, host_size);
    rest = copy_component(skip_separators(rest, separator), separator, share, share_size);
    rest = skip_separators(rest, separator);
    if (depth != nullptr) {
        const int components = count_components(rest, separator);
        *depth = components > 0 ? components + 1 : 0;
    }
    return rest;
}

} // namespace tsbackup
