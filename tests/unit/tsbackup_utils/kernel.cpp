#include "kernel.h"

#include <algorithm>
#include <cerrno>
#include <dlfcn.h>
#include <stdexcept>
#include <sys/syscall.h>
#include <unistd.h>

namespace tsbackup::test {

namespace {
Kernel *current = nullptr;
}

Kernel::Kernel() {
    if (current != nullptr) throw std::logic_error("two stand-ins for the kernel at once");
    current = this;
}

Kernel::~Kernel() { current = nullptr; }

} // namespace tsbackup::test

using tsbackup::test::current;

// The program's own definitions take precedence over those of the C library.
extern "C" {

int clock_gettime(clockid_t clock, timespec *now) noexcept {
    if (clock != CLOCK_MONOTONIC_COARSE || current == nullptr || !current->clock)
        return static_cast<int>(syscall(SYS_clock_gettime, clock, now));
    const std::optional<timespec> instant = current->clock();
    if (!instant) {
        errno = EINVAL;
        return -1;
    }
    *now = *instant;
    return 0;
}

ssize_t write(int fd, const void *data, size_t size) {
    if (current == nullptr || !current->write) return syscall(SYS_write, fd, data, size);
    const ssize_t allowed = current->write(fd, size);
    if (allowed < 0) {
        errno = static_cast<int>(-allowed);
        return -1;
    }
    return syscall(SYS_write, fd, data, std::min(size, static_cast<std::size_t>(allowed)));
}

int close(int fd) {
    const int result = static_cast<int>(syscall(SYS_close, fd));
    if (current == nullptr || !current->close) return result;
    const int error = current->close(fd);
    if (error == 0) return result;
    errno = error;
    return -1;
}

int lockf(int fd, int command, off_t length) {
    const std::optional<int> error =
        current != nullptr && current->lockf ? current->lockf(command) : std::optional<int>();
    if (error) {
        errno = *error;
        return *error == 0 ? 0 : -1;
    }
    static const auto real = reinterpret_cast<int (*)(int, int, off_t)>(dlsym(RTLD_NEXT, "lockf64"));
    return real(fd, command, length);
}

unsigned int sleep(unsigned int seconds) {
    if (current != nullptr && current->sleep) {
        current->sleep(seconds);
        return 0;
    }
    static const auto real = reinterpret_cast<unsigned int (*)(unsigned int)>(dlsym(RTLD_NEXT, "sleep"));
    return real(seconds);
}
}
