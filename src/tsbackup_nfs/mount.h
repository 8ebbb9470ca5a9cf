#pragma once

#include "tsbackup/job.h"
#include "tsbackup/run.h"
#include "tsbackup_local.h"

#include <optional>
#include <string>

namespace tsbackup {

/// Mounts the export that one end of a job names, or the nearest folder above it that can be mounted, and returns the
/// local path of what the job names, or nothing after the failure was reported (a mount point that cannot be made is
/// not). When nothing can be mounted the empty mount point stays.
///
/// A source sets the run's `src_is_dir` (0 also when it is not there) and `fsid`. On either side the folder is emptied
/// when the run is full and the job asks for it, but only a destination can lose anything. It is not created.
std::optional<std::string> _mount_nfs(const BackupJob &job, BackupRun &run, Side side);

/// Writes what is buffered, unmounts the export of a job and removes its mount point. Reports nothing.
void nfs_umount(const BackupJob &job);

} // namespace tsbackup
