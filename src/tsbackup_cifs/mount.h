#pragma once

#include "tsbackup/job.h"
#include "tsbackup/run.h"
#include "tsbackup_local.h"

#include <optional>
#include <string>

namespace tsbackup {

/// The options of the mount command that say who logs in, and the character set. `login` absent or empty: a guest.
std::string cifs_mount_options(const JobText &login);

/// Mounts the share of one end of a job and returns the local path of the folder that the job names on it, or nothing
/// after the failure was reported (a source folder that is not there is not reported). Four dialects are tried, newest
/// first, each twice.
///
/// A source sets the run's `src_is_dir` and `fsid`. A destination folder is created with its parents, and emptied when
/// the run is full and the job asks for it; when that folder is a file or cannot be created, nothing is returned and
/// the share stays mounted. `cifs_ext_changed` and `cifs_ext_saved` of the run tell what became of the extensions
/// switch.
std::optional<std::string> cifs_mount(const BackupJob &job, BackupRun &run, Side side);

/// Writes what is buffered, unmounts the share of a job and removes its mount point. Reports nothing.
void cifs_umount(const BackupJob &job);

/// The value of the kernel's switch for its Linux extensions, 0 when it cannot be read. The switch itself stays as it
/// is, whatever `value` asks for.
int cifs_set_linux_extensions(int value);

/// 0 when a file can be created in a folder of a share and given to another owner. Leaves no file behind then; a file
/// that could not be copied there stays under "/tmp".
int cifs_probe_chown(const std::string &dir, BackupRun &run);

} // namespace tsbackup
