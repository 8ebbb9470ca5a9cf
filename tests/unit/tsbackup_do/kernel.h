// Answers that stand in for the kernel's, where no file system at hand gives them: foreign file systems, failing
// disks, what another program does at an awkward instant.

#pragma once

#include <cstddef>
#include <dirent.h>
#include <functional>
#include <optional>
#include <string>
#include <sys/types.h>
#include <sys/vfs.h>

namespace tsbackup::test {

/// A hook that is not set, and one that returns nothing (or 0 where it returns an errno value), lets the call through.
struct Kernel {
    std::function<std::optional<ssize_t>(int fd, std::size_t size, off_t offset)> pread;  ///< negative: an errno value
    std::function<std::optional<ssize_t>(int fd, std::size_t size, off_t offset)> pwrite; ///< negative: an errno value
    std::function<int(int fd, off_t size)> fallocate;                                     ///< errno value
    /// May change what the kernel said of the file system that holds `path`; errno value: the call fails.
    std::function<int(const std::string &path, struct statfs &statistics)> statfs;
    std::function<void(dirent &entry)> entry; ///< sees each entry of a listing, and may change it
    std::function<void()> listed;             ///< called at the end of each listing
    int listing_error = 0;                    ///< errno value with which every listing ends
    std::function<int(int fd)> close;         ///< errno value; the descriptor is closed all the same
    std::function<int()> chown;               ///< errno value
    std::function<int()> chmod;               ///< errno value
    std::size_t failing_allocation = 0;       ///< an allocation of exactly this size fails
};

Kernel &kernel();

} // namespace tsbackup::test
