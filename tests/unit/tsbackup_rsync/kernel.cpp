#include "kernel.h"

#include <cerrno>
#include <dlfcn.h>
#include <sys/select.h>
#include <sys/vfs.h>

namespace tsbackup::test {

namespace {

Kernel *current = nullptr;

template <typename Function> Function *next(const char *name) {
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

} // namespace

Kernel::Kernel() { current = this; }
Kernel::~Kernel() { current = nullptr; }

} // namespace tsbackup::test

using tsbackup::test::current;

extern "C" int select(int count, fd_set *readable, fd_set *writable, fd_set *exceptional, timeval *wait) {
    if (current != nullptr && current->select && wait != nullptr) {
        if (const auto error = current->select(*wait)) {
            errno = *error;
            return -1;
        }
    }
    return tsbackup::test::next<decltype(select)>("select")(count, readable, writable, exceptional, wait);
}

// With 64-bit file offsets the C library calls it "statfs64"; its header makes that the name of this definition, too.
extern "C" int statfs(const char *path, struct statfs *statistics) noexcept {
    if (current == nullptr || !current->file_system)
        return tsbackup::test::next<int(const char *, struct statfs *)>("statfs64")(path, statistics);
    const auto type = current->file_system(path);
    if (!type) {
        errno = ENOENT;
        return -1;
    }
    *statistics = {};
    statistics->f_type = *type;
    return 0;
}
