// What the tests in a guest share: disks with foreign file systems, and jobs with what they leave behind.

#pragma once

#include "aftermath.h"
#include "appliance_support.h"
#include "job_runs.h"
#include "server.h"

#include <ctime>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace tsbackup::test {

/// Begins each case: the appliance as it was at its start, with the guest's devices in "/dev". Nothing but a guest has
/// devices of its own, so that nothing else is accepted.
void start_in_guest();
bool in_guest();
#define REQUIRE_GUEST()                                                                                                \
    do {                                                                                                               \
        if (!::tsbackup::test::in_guest()) GTEST_SKIP() << "needs a guest (tests/vm/vm)";                              \
    } while (false)

/// Runs a command of the shell; throws, with what it said, when it fails.
void must_succeed(const std::string &command);

/// A file system: how it is made and mounted.
struct DiskFormat {
    const char *name;
    const char *make;        ///< the command that makes it, to which the image's path is added
    const char *mount;       ///< type and options for mount(8)
    const char *kernel_type; ///< the type that the kernel must know
    int mebibytes = 48;      ///< a size that its maker accepts
};
inline constexpr DiskFormat kFat = {"FAT", "mkfs.vfat -F 32 -s 1 -n DISK", "-t vfat", "vfat"};
inline constexpr DiskFormat kExfat = {"exFAT", "mkfs.exfat", "-t exfat", "exfat"};
inline constexpr DiskFormat kNtfs3 = {"NTFS by the kernel", "mkfs.ntfs -q -F -Q", "-t ntfs3", "ntfs3"};
inline constexpr DiskFormat kNtfs3g = {"NTFS by FUSE", "mkfs.ntfs -q -F -Q", "-t ntfs-3g", "fuse"};
inline constexpr DiskFormat kXfs = {"XFS", "mkfs.xfs -q", "", "xfs", 320};

/// Whether the guest's kernel has the format.
bool kernel_has(const DiskFormat &format);

/// A disk with a file system, mounted on a folder that is made for it. Unmounted at the end of the object's life.
class Disk {
  public:
    Disk(const DiskFormat &format, const std::string &at, const std::string &options = "");
    ~Disk();
    Disk(const Disk &) = delete;
    Disk &operator=(const Disk &) = delete;
    const std::string &path() const { return at_; }
    std::string operator/(const std::string &name) const { return at_ + "/" + name; }
    /// Mounts it anew, with other options, so that nothing is remembered from before.
    void remount(const std::string &options = "");

  private:
    void mount_it(const std::string &options);

    DiskFormat format_;
    std::string at_;
    std::string image_;
};

/// A file with a modification time.
void write_dated(const std::string &path, const std::string &content, timespec time);
/// Cuts the modification times of everything in a folder to multiples of a step below a second.
void cut_times(const std::string &folder, long step_ns);
timespec modification_time(const std::string &path);

inline constexpr int kJob = 7;

/// Runs job 7 with these settings, at a verbosity, and waits for it. Copy logs of earlier runs are removed first.
Outcome run_job(const Settings &settings, const ProgramOptions &options = {}, int verbosity = 5);

/// Job 7's error log; the lines of its kept copy log that name a copied file ("Copy File  NAME"), by their names.
std::string error_log();
std::vector<std::string> copied_files();

} // namespace tsbackup::test
