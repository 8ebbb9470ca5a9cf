// Volumes of the benchmark: file systems on loop devices over nameless files, so that a killed benchmark leaves
// neither an image nor a device behind.

#pragma once

#include "tsbackup/owners.h"

#include <cstdint>
#include <string>

namespace tsbackup::bench {

enum class FileSystem { ext4, btrfs };

/// A loop device with direct I/O over a nameless file in `folder`, every block of which has been written once.
class Volume {
  public:
    /// False after a message on standard error.
    bool create(const std::string &folder, std::int64_t size, const std::string &mount_point);

    /// Makes a new file system, without discarding, and mounts it. What was mounted before is unmounted.
    bool format_and_mount(FileSystem file_system);

    bool mount(bool read_only);
    bool unmount();

    /// Mounts the file system anew with nothing of it in memory. The caches of the machine are left alone.
    bool make_cold(bool read_only);

    const std::string &mount_point() const { return mount_point_; }

  private:
    bool attach_loop_device();

    UniqueFd image_;
    UniqueFd device_; ///< held open: the device lives as long as this descriptor or the mount
    std::string device_path_;
    std::string mount_point_;
    FileSystem file_system_ = FileSystem::ext4;
    bool mounted_ = false;
};

/// Runs a program and waits; of its output the errors are shown. False after a message when it fails.
bool run_tool(const char *const argv[]);

} // namespace tsbackup::bench
