// Answers that stand in for the kernel's: file systems of any type, silences that pass at once.

#pragma once

#include <functional>
#include <optional>
#include <string>
#include <sys/time.h>

namespace tsbackup::test {

/// Set while the object lives; one at a time. A hook that is not set lets its call through.
class Kernel {
  public:
    Kernel();
    ~Kernel();
    Kernel(const Kernel &) = delete;
    Kernel &operator=(const Kernel &) = delete;

    /// The type of the file system that holds a path; nothing: there is no such path.
    std::function<std::optional<long>(const std::string &path)> file_system;
    /// Called with the longest wait of a select(), which it may change; an errno value fails the call.
    std::function<std::optional<int>(timeval &wait)> select;
};

} // namespace tsbackup::test
