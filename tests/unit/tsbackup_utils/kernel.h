// Answers that stand in for the kernel's: a clock that stands still or fails, writes that are cut short or
// interrupted, waits that pass at once.

#pragma once

#include <cstddef>
#include <ctime>
#include <functional>
#include <optional>
#include <sys/types.h>

namespace tsbackup::test {

/// Set while the object lives; one at a time. A hook that is not set lets its call through.
class Kernel {
  public:
    Kernel();
    ~Kernel();
    Kernel(const Kernel &) = delete;
    Kernel &operator=(const Kernel &) = delete;

    /// The coarse monotonic clock; nothing: it cannot be read.
    std::function<std::optional<timespec>()> clock;
    /// How many of the bytes are written, or a negative errno value.
    std::function<ssize_t(int fd, std::size_t size)> write;
    /// An errno value, 0: success. The descriptor is closed all the same.
    std::function<int(int fd)> close;
    /// An errno value; nothing: the call goes through.
    std::function<std::optional<int>(int command)> lockf;
    /// A wait in seconds; it is over when this returns.
    std::function<void(unsigned int seconds)> sleep;
};

} // namespace tsbackup::test
