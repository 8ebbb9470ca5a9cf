#include "kernel.h"

#include <cerrno>
#include <climits>
#include <sys/stat.h>
#include <unistd.h>

namespace tsbackup::test {

Kernel &kernel() {
    static Kernel hooks;
    return hooks;
}

namespace {

std::size_t failing_allocation() { return kernel().failing_allocation; }

int fail(int error) {
    errno = error;
    return -1;
}

std::string path_of(int fd) {
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    std::string path(PATH_MAX, '\0');
    const ssize_t length = readlink(link.c_str(), path.data(), path.size());
    path.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
    return path;
}

int answer_statfs(int result, const std::string &path, struct statfs &statistics) {
    if (result != 0 || !kernel().statfs) return result;
    const int error = kernel().statfs(path, statistics);
    return error == 0 ? 0 : fail(error);
}

template <typename Hook> std::optional<ssize_t> transfer(const Hook &hook, int fd, std::size_t size, off_t offset) {
    if (!hook) return std::nullopt;
    const std::optional<ssize_t> answer = hook(fd, size, offset);
    return answer && *answer < 0 ? fail(static_cast<int>(-*answer)) : answer;
}

int answer(const std::function<int()> &hook) { return hook ? hook() : 0; }

} // namespace
} // namespace tsbackup::test

using namespace tsbackup::test;

extern "C" {

ssize_t __real_pread64(int fd, void *buffer, size_t size, off_t offset);
ssize_t __wrap_pread64(int fd, void *buffer, size_t size, off_t offset) {
    const std::optional<ssize_t> answer = transfer(kernel().pread, fd, size, offset);
    return answer ? *answer : __real_pread64(fd, buffer, size, offset);
}

ssize_t __real_pwrite64(int fd, const void *buffer, size_t size, off_t offset);
ssize_t __wrap_pwrite64(int fd, const void *buffer, size_t size, off_t offset) {
    const std::optional<ssize_t> answer = transfer(kernel().pwrite, fd, size, offset);
    if (answer && *answer < 0) return -1;
    return __real_pwrite64(fd, buffer, answer ? static_cast<size_t>(*answer) : size, offset);
}

int __real_fallocate64(int fd, int mode, off_t offset, off_t size);
int __wrap_fallocate64(int fd, int mode, off_t offset, off_t size) {
    const int error = kernel().fallocate ? kernel().fallocate(fd, size) : 0;
    return error != 0 ? fail(error) : __real_fallocate64(fd, mode, offset, size);
}

int __real_statfs64(const char *path, struct statfs *statistics);
int __wrap_statfs64(const char *path, struct statfs *statistics) {
    return answer_statfs(__real_statfs64(path, statistics), path, *statistics);
}

int __real_fstatfs64(int fd, struct statfs *statistics);
int __wrap_fstatfs64(int fd, struct statfs *statistics) {
    const int result = __real_fstatfs64(fd, statistics);
    return kernel().statfs ? answer_statfs(result, path_of(fd), *statistics) : result;
}

struct dirent *__real_readdir64(DIR *folder);
struct dirent *__wrap_readdir64(DIR *folder) {
    struct dirent *entry = __real_readdir64(folder);
    if (entry != nullptr && kernel().entry) kernel().entry(*entry);
    if (entry == nullptr && kernel().listed) {
        kernel().listed();
        errno = 0;
    }
    if (entry == nullptr && kernel().listing_error != 0) errno = kernel().listing_error;
    return entry;
}

ssize_t __real_getdents64(int fd, void *buffer, size_t size);
ssize_t __wrap_getdents64(int fd, void *buffer, size_t size) {
    const ssize_t result = __real_getdents64(fd, buffer, size);
    auto *bytes = static_cast<char *>(buffer);
    for (ssize_t at = 0; at < result;) {
        auto *entry = reinterpret_cast<dirent *>(bytes + at);
        if (kernel().entry) kernel().entry(*entry);
        at += entry->d_reclen;
    }
    if (result == 0 && kernel().listed) kernel().listed();
    return result == 0 && kernel().listing_error != 0 ? fail(kernel().listing_error) : result;
}

int __real_close(int fd);
int __wrap_close(int fd) {
    const int error = kernel().close ? kernel().close(fd) : 0;
    const int result = __real_close(fd);
    return error != 0 ? fail(error) : result;
}

int __real_fchown(int fd, uid_t owner, gid_t group);
int __wrap_fchown(int fd, uid_t owner, gid_t group) {
    const int error = answer(kernel().chown);
    return error != 0 ? fail(error) : __real_fchown(fd, owner, group);
}

int __real_fchownat(int folder, const char *name, uid_t owner, gid_t group, int flags);
int __wrap_fchownat(int folder, const char *name, uid_t owner, gid_t group, int flags) {
    const int error = answer(kernel().chown);
    return error != 0 ? fail(error) : __real_fchownat(folder, name, owner, group, flags);
}

int __real_fchmod(int fd, mode_t mode);
int __wrap_fchmod(int fd, mode_t mode) {
    const int error = answer(kernel().chmod);
    return error != 0 ? fail(error) : __real_fchmod(fd, mode);
}

int __real_fchmodat(int folder, const char *name, mode_t mode, int flags);
int __wrap_fchmodat(int folder, const char *name, mode_t mode, int flags) {
    const int error = answer(kernel().chmod);
    return error != 0 ? fail(error) : __real_fchmodat(folder, name, mode, flags);
}

void *__real_malloc(size_t size);
void *__wrap_malloc(size_t size) {
    if (size == failing_allocation() && size != 0) {
        errno = ENOMEM;
        return nullptr;
    }
    return __real_malloc(size);
}
}
