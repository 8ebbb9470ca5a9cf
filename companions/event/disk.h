// Disks, and who uses them.

#pragma once

#include "tsbackup/owners.h"

#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace tsbackup {

/// A block device: the kernel's name ("sdq1") and number ("65:1").
struct Disk {
    std::string name;
    std::string number;
};

/// The disk of this name; nothing when there is none.
std::optional<Disk> disk_find(const std::string &name);

/// Where a disk is mounted for this process, the latest mount last.
std::vector<std::string> disk_mounts(const Disk &disk);

/// A process for which the disk is mounted although it may not be so here any more: one in a mount namespace of its
/// own keeps what was mounted when it began. Nothing when there is none.
std::optional<pid_t> disk_holder(const Disk &disk);

/// The mount points of a disk in the text of a "mountinfo" file.
std::vector<std::string> mount_points_in(const std::string &mountinfo, const Disk &disk);

/// Opens the disk for this process alone. Invalid, with `errno` EBUSY, while anybody has it mounted or claimed.
UniqueFd disk_claim(const Disk &disk);

} // namespace tsbackup
